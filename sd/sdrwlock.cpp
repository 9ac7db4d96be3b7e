// The queued reader-writer lock.
//
// Writers form a queue, first come, first served; waiting readers gather on a stack and are let in together. One word
// counts the readers inside and carries three flags:
//
//   RWLOCK_WRITER_QUEUED    set by the writer that comes to head the queue (or for it, by the writer before it);
//                           cleared by a writer that leaves with nobody linked behind it
//   RWLOCK_WRITER_CLAIM     no further readers enter, and the last one to leave wakes the head writer. Set together
//                           with QUEUED, or by whoever admits the readers that were waiting then; cleared with QUEUED.
//                           A writer is inside only while both are set
//   RWLOCK_READERS_WAITING  set by the reader that finds the stack empty; whoever admits the batch turns it into that
//                           reader's count by adding 4
//
// A thread waits on a word of its own node and is let in by exactly one other thread, which clears it. The nodes' mutex
// serves sleeping and waking alone; no other lock is taken, and nothing is held while memory is allocated. Nodes are
// kept in the thread's sync context, so that a thread allocates only where it meets a lock for the first time.
//
// Order: all changes of the word, the stack and the queue's tail are locked instructions, sequentially consistent. What
// a node says before it is published is seen by whoever finds it there, and what was done inside is seen by the next
// one inside: through the word, or through the release store of `bBlocked` that lets it in.

#include <sched.h>

#include <kemsd/memory.h>
#include <kemsd/sync.h>
#include <cassert>
#include <cstring>

#include "sd/base/atomic.h"

namespace {

using sd::loadAcquire;
using sd::loadRelaxed;
using sd::pauseHint;
using sd::storeRelaxed;
using sd::storeRelease;

using Lock = KEM_RWLOCK_T;
using Node = KEM_RWLOCKQNODE_T;

constexpr const char* kSource = "sd/sdrwlock";
constexpr long kNodeAllocLine = 210;
constexpr long kNodeFreeLine = 231;
constexpr long kListsAllocLine = 190;
constexpr long kListsFreeLine = 246;

constexpr int64_t kModeNone = 0;
constexpr int64_t kModeRead = 1;
constexpr int64_t kModeWrite = 65535;

constexpr int64_t kWriterFlags = RWLOCK_WRITER_QUEUED | RWLOCK_WRITER_CLAIM;

// Turns the waiting flag into one reader.
constexpr int64_t kAdmitLeader = RWLOCK_READER_UNIT - RWLOCK_READERS_WAITING;
static_assert(RWLOCK_READERS_WAITING + kAdmitLeader == RWLOCK_READER_UNIT);

constexpr bool noReaderInside(int64_t word) { return word < RWLOCK_READER_UNIT; }
static_assert(noReaderInside(7) && !noReaderInside(8));

// `before` is the word that a leaving reader still counts in: is it the last one, with a writer to be woken? Readers
// that wait make no difference.
constexpr bool wakesWriter(int64_t before)
{
    return (before & ~int64_t{RWLOCK_READERS_WAITING}) == (RWLOCK_READER_UNIT | kWriterFlags);
}
static_assert(wakesWriter(11) && wakesWriter(15) && !wakesWriter(9) && !wakesWriter(19));

// What a writer adds to the word when it comes to head the queue. While readers wait, the claim is left to whoever
// admits them. In one step with QUEUED, because an admitter that found QUEUED alone would set the claim too, and the
// writer be let in twice.
constexpr int64_t withHeadWriter(int64_t word)
{
    return word | (word & RWLOCK_READERS_WAITING ? RWLOCK_WRITER_QUEUED : kWriterFlags);
}
static_assert(withHeadWriter(0) == 3 && withHeadWriter(16) == 19 && withHeadWriter(4) == 5);

// Whether the head writer may enter at once, by the word that it found.
constexpr bool headWriterEnters(int64_t before) { return before < RWLOCK_READERS_WAITING; }
static_assert(headWriterEnters(0) && !headWriterEnters(4) && !headWriterEnters(8));

// ---- The word

// Replaces the word by change(word); returns the word before.
template <class Change>
int64_t changeWord(Lock& lock, Change change)
{
    int64_t before = loadRelaxed(lock.lRdrCntAndFlags);
    while (!__atomic_compare_exchange_n(&lock.lRdrCntAndFlags, &before, change(before), false, __ATOMIC_SEQ_CST,
                                        __ATOMIC_RELAXED)) {
    }
    return before;
}

int64_t addToWord(Lock& lock, int64_t value)
{
    return __atomic_fetch_add(&lock.lRdrCntAndFlags, value, __ATOMIC_SEQ_CST);
}

int64_t setFlags(Lock& lock, int64_t flags)
{
    return changeWord(lock, [flags](int64_t word) { return word | flags; });
}

// ---- Letting a waiter in

void letSelfIn(Node& self) { storeRelaxed(self.bBlocked, 0); }

// The node's mutex makes the two cases exclude each other: the waiter is asleep and is woken, or it has yet to look at
// bBlocked. The waiter may go as soon as it sees bBlocked clear, but its node ends only after the unlock.
void letIn(Node& other)
{
    if (!loadRelaxed(other.bBlocked)) return;
    pthread_mutex_lock(&other.mutex);
    if (loadRelaxed(other.bBlocked)) {
        storeRelease(other.bBlocked, 0); // pairs with the waiter's acquire loads
        if (loadRelaxed(other.bSuspended)) pthread_cond_signal(&other.cond);
    }
    pthread_mutex_unlock(&other.mutex);
}

// ---- Waiting

// Acquire: pairs with the release store in letIn().
bool blocked(const Node& node) { return loadAcquire(node.bBlocked) != 0; }

// How long a waiter goes on before it sleeps. Spin loops are the lock's present ones, the rest the node's copies.
struct Patience {
    int64_t spinLoops;
    int64_t yields; // after each spin pass
    int64_t waits;  // spin passes plus yields; below 1 without limit
};

Patience readersPatience(const Lock& lock, const Node& node)
{
    return {lock.lRdrMaxSpinLoops, node.lCurrNumOfRdrYields, node.lRdrMaxWaits};
}

Patience writersPatience(const Lock& lock, const Node& node)
{
    return {lock.lWrtrMaxSpinLoops, node.lCurrNumOfWrtrYields, node.lWrtrMaxWaits};
}

// One spin pass; true when the node has been let in.
bool spinPass(const Node& node, int64_t loops)
{
    for (int64_t loop = 0; loop < loops; ++loop) {
        for (int64_t round = 0; round < loadRelaxed(KEM_SDSYNC_BUSYSPIN_UPPERLIMIT); ++round) {
            if (!blocked(node)) return true;
            pauseHint();
        }
    }
    return false;
}

void sleepUntilLetIn(Node& node)
{
    while (blocked(node)) {
        pthread_mutex_lock(&node.mutex);
        if (blocked(node)) {
            storeRelaxed(node.bSuspended, 1);
            pthread_cond_wait(&node.cond, &node.mutex);
            storeRelaxed(node.bSuspended, 0);
        }
        pthread_mutex_unlock(&node.mutex);
    }
}

// Spins and yields in turn until let in or out of patience, then sleeps. A spin pass counts as one wait, whatever its
// length.
void waitAdaptively(Node& node, Patience patience)
{
    int64_t waits = 0;
    const auto spent = [&] { return patience.waits >= 1 && waits >= patience.waits; };
    while (blocked(node)) {
        if (spent()) return sleepUntilLetIn(node);
        if (spinPass(node, patience.spinLoops)) return;
        ++waits;
        for (int64_t yield = 0; yield < patience.yields && !spent(); ++yield) {
            if (!blocked(node)) return;
            ++waits;
            sched_yield();
        }
    }
}

void waitUntilLetIn(const Lock& lock, Node& node, Patience (*patience)(const Lock&, const Node&))
{
    if (lock.bToSleep) return waitAdaptively(node, patience(lock, node));
    while (blocked(node)) {
    }
}

// ---- Steps of the protocol

Node* pushReader(Lock& lock, Node* node) { return __atomic_exchange_n(&lock.pReaderHead, node, __ATOMIC_SEQ_CST); }
Node* takeReaders(Lock& lock) { return pushReader(lock, nullptr); }

// Lets the waiting readers in, on behalf of one of them (its leader, `self`) or of a writer that leaves (null). The
// newest of them is woken and wakes the next.
void admitReaders(Lock& lock, Node* self)
{
    addToWord(lock, kAdmitLeader);
    // A writer that queued while these readers waited left the claim to us. Should it come later than this look, it
    // claims itself.
    const int64_t word = __atomic_load_n(&lock.lRdrCntAndFlags, __ATOMIC_SEQ_CST);
    if ((word & kWriterFlags) == RWLOCK_WRITER_QUEUED) setFlags(lock, RWLOCK_WRITER_CLAIM);
    Node* newest = takeReaders(lock);
    if (newest == self)
        letSelfIn(*self);
    else
        letIn(*newest);
}

// Puts a writer without predecessor at the head; true when it may enter. Only one thread at a time can be here. The
// head is read by the last reader to leave, once it finds the flags that are set behind it.
bool headQueue(Lock& lock, Node& writer)
{
    storeRelease(lock.pWriterHead, &writer);
    return headWriterEnters(changeWord(lock, withHeadWriter));
}

// The writer that has put itself behind `self` but has not linked itself yet.
Node& lateSuccessor(const Node& self)
{
    for (int64_t round = 0;; ++round) {
        if (Node* successor = loadAcquire(self.pQNext)) return *successor;
        if (round < loadRelaxed(KEM_SDSYNC_BUSYSPIN_UPPERLIMIT)) {
            pauseHint();
        } else {
            sched_yield(); // it may need this processor
            round = 0;
        }
    }
}

// True when the node was the last in line; else a writer has put itself behind it.
bool leaveQueue(Lock& lock, Node* node)
{
    return __atomic_compare_exchange_n(&lock.pWriterTail, &node, nullptr, false, __ATOMIC_SEQ_CST, __ATOMIC_RELAXED);
}

void enterWrite(Lock& lock, Node& node)
{
    storeRelaxed(node.bBlocked, 1);
    storeRelaxed(node.pQNext, nullptr);
    // Publishes the two stores above.
    Node* before = __atomic_exchange_n(&lock.pWriterTail, &node, __ATOMIC_SEQ_CST);
    if (before)
        storeRelease(before->pQNext, &node); // pairs with the acquire loads of the writer that leaves
    else if (headQueue(lock, node))
        letSelfIn(node);
    if (blocked(node)) waitUntilLetIn(lock, node, writersPatience);
}

void leaveWrite(Lock& lock, Node& node)
{
    // Deliberate: the lock goes straight to the next writer, flags, head and waiting readers staying as they are.
    if (Node* next = loadAcquire(node.pQNext)) return letIn(*next);
    const int64_t before = changeWord(lock, [](int64_t word) { return word & ~kWriterFlags; });
    if (before & RWLOCK_READERS_WAITING) admitReaders(lock, nullptr);
    // Deliberate: the head goes on pointing at the node. Nobody reads it before the next head has replaced it.
    if (leaveQueue(lock, &node)) return;
    Node& next = lateSuccessor(node);
    if (headQueue(lock, next)) letIn(next);
}

void followReaders(Lock& lock, Node& node, Node& older)
{
    waitUntilLetIn(lock, node, readersPatience);
    addToWord(lock, RWLOCK_READER_UNIT);
    letIn(older);
}

void leadReaders(Lock& lock, Node& node)
{
    if ((setFlags(lock, RWLOCK_READERS_WAITING) & kWriterFlags) == 0) admitReaders(lock, &node);
    waitUntilLetIn(lock, node, readersPatience);
}

void enterRead(Lock& lock, Node& node)
{
    storeRelaxed(node.bBlocked, 1);
    Node* older = pushReader(lock, &node); // publishes the store above
    storeRelaxed(node.pQNext, older);
    if (older)
        followReaders(lock, node, *older);
    else
        leadReaders(lock, node);
}

void leaveRead(Lock& lock)
{
    // The head was stored before the flags that are found here.
    if (wakesWriter(addToWord(lock, -RWLOCK_READER_UNIT))) letIn(*loadAcquire(lock.pWriterHead));
}

// ---- The thread's nodes

struct NodeLists {
    Node* first[KEM_RWLOCK_CAT_COUNT];
};

NodeLists* lists(void* of) { return static_cast<NodeLists*>(of); }

// The place that points at the lock's node, or the end of the list.
Node** find(NodeLists& in, const Lock& lock)
{
    Node** place = &in.first[lock.category];
    while (*place && (*place)->pKey != &lock) place = &(*place)->pStrNext;
    return place;
}

Node* unlink(Node** place)
{
    Node* node = *place;
    if (node) *place = node->pStrNext;
    return node;
}

void push(NodeLists& onto, const Lock& lock, Node& node)
{
    Node*& first = onto.first[lock.category];
    node.pStrNext = first;
    first = &node;
}

KEM_STS_T makeLists(void* owner, void** lists)
{
    const KEM_STS_T sts = ovMalloc(owner, sizeof(NodeLists), lists, kSource, kListsAllocLine);
    if (sts == 0) memset(*lists, 0, sizeof(NodeLists));
    return sts;
}

KEM_STS_T makeNode(void* owner, Lock& lock, Node** made)
{
    void* place = nullptr;
    if (const KEM_STS_T sts = ovMalloc(owner, sizeof(Node), &place, kSource, kNodeAllocLine)) return sts;
    memset(place, 0, sizeof(Node));
    auto* node = static_cast<Node*>(place);
    node->lRdrMaxWaits = lock.lRdrMaxWaits;
    node->lWrtrMaxWaits = lock.lWrtrMaxWaits;
    node->lCurrNumOfRdrYields = lock.lRdrMaxYields;
    node->lCurrNumOfWrtrYields = lock.lWrtrMaxYields;
    node->lCurrNumOfRdrSpinLoops = lock.lRdrMaxSpinLoops;
    node->lCurrNumOfWrtrSpinLoops = lock.lWrtrMaxSpinLoops;
    pthread_mutex_init(&node->mutex, nullptr);
    pthread_cond_init(&node->cond, nullptr);
    node->pKey = &lock;
    *made = node;
    return 0;
}

// The thread's node while it holds the lock, or null.
Node* heldNode(const KEM_SYNCCTX_T& context, const Lock& lock)
{
    return context.pUsed ? *find(*lists(context.pUsed), lock) : nullptr;
}

KEM_STS_T nodeFor(void* owner, KEM_SYNCCTX_T& context, Lock& lock, Node** node)
{
    if ((*node = heldNode(context, lock))) return 0;
    if (context.pFree) *node = unlink(find(*lists(context.pFree), lock));
    if (!*node) {
        if (const KEM_STS_T sts = makeNode(owner, lock, node)) return sts;
    }
    if (!context.pUsed) {
        if (const KEM_STS_T sts = makeLists(owner, &context.pUsed)) {
            KemRWLockQNodeDestroy(owner, *node);
            return sts;
        }
    }
    push(*lists(context.pUsed), lock, **node);
    return 0;
}

KEM_STS_T keepNode(void* owner, KEM_SYNCCTX_T& context, const Lock& lock, Node** place)
{
    Node* node = unlink(place);
    if (!context.pFree) {
        // Deliberate: without memory the node is on neither list; the lock is free all the same.
        if (const KEM_STS_T sts = makeLists(owner, &context.pFree)) return sts;
    }
    node->bMode = kModeNone;
    push(*lists(context.pFree), lock, *node);
    return 0;
}

void destroyNodes(void** lists)
{
    if (!*lists) return;
    for (Node*& first : static_cast<NodeLists*>(*lists)->first) {
        while (Node* node = unlink(&first)) KemRWLockQNodeDestroy(nullptr, node);
    }
    ovFree(*lists, kSource, kListsFreeLine);
    *lists = nullptr;
}

} // namespace

KEM_STS_T KemRWLockInit(KEM_PSDCTX_T pSdCtx, OV_UINT_T uiSemType, KEM_RWLOCK_T* pRWLock, OV_BOOL_T bToSleep,
                        KEM_RWLOCK_CAT category)
{
    if (!pRWLock || category < 0 || category >= KEM_RWLOCK_CAT_COUNT) return SDSTS_INVALID_PARAM;
    KemSyncEnvInit(pSdCtx);
    memset(pRWLock, 0, sizeof *pRWLock);
    pRWLock->uiObjType = uiSemType;
    pRWLock->lRdrMaxSpinLoops = loadRelaxed(KEM_RWLOCK_RMAXSPINLOOPS);
    pRWLock->lWrtrMaxSpinLoops = loadRelaxed(KEM_RWLOCK_WMAXSPINLOOPS);
    pRWLock->lRdrMaxYields = loadRelaxed(KEM_RWLOCK_RMAXSPINYIELDS);
    pRWLock->lWrtrMaxYields = loadRelaxed(KEM_RWLOCK_WMAXSPINYIELDS);
    pRWLock->lRdrMaxWaits = loadRelaxed(KEM_RWLOCK_RMAXWAITLOOPS);
    pRWLock->lWrtrMaxWaits = loadRelaxed(KEM_RWLOCK_WMAXWAITLOOPS);
    pRWLock->bToSleep = bToSleep;
    pRWLock->category = category;
    return 0;
}

KEM_STS_T KemSdStartRead(void* tctxp, KEM_SYNCCTX_T* pSyncCtx, void* pSem)
{
    if (!pSyncCtx || !pSem) return SDSTS_INVALID_PARAM;
    auto& lock = *static_cast<Lock*>(pSem);
    Node* node;
    if (const KEM_STS_T sts = nodeFor(tctxp, *pSyncCtx, lock, &node)) return sts;
    // Deliberate: a writer that asks to read stays a writer, one level deeper.
    if (node->sCount++ != 0) return 0;
    enterRead(lock, *node);
    node->bMode = kModeRead;
    return 0;
}

KEM_STS_T KemSdStartWrite(void* tctxp, KEM_SYNCCTX_T* pSyncCtx, void* pSem)
{
    if (!pSyncCtx || !pSem) return SDSTS_INVALID_PARAM;
    auto& lock = *static_cast<Lock*>(pSem);
    Node* node;
    if (const KEM_STS_T sts = nodeFor(tctxp, *pSyncCtx, lock, &node)) return sts;
    if (node->sCount != 0) {
        // Deliberate: a reader cannot become a writer; two that tried would wait for each other.
        if (node->bMode != kModeWrite) return SDSTS_SEM_REQUEST;
        ++node->sCount;
        return 0;
    }
    enterWrite(lock, *node);
    node->bMode = kModeWrite;
    node->sCount = 1;
    return 0;
}

KEM_STS_T KemSdEndRW(void* tctxp, KEM_SYNCCTX_T* pSyncCtx, void* pSem)
{
    if (!pSyncCtx || !pSem) return SDSTS_INVALID_PARAM;
    auto& lock = *static_cast<Lock*>(pSem);
    if (!pSyncCtx->pUsed) return SDSTS_SEM_CLEAR;
    Node** place = find(*lists(pSyncCtx->pUsed), lock);
    Node* node = *place;
    if (!node || node->sCount < 1) return SDSTS_SEM_CLEAR;
    if (--node->sCount > 0) return 0;
    if (node->bMode == kModeWrite)
        leaveWrite(lock, *node);
    else
        leaveRead(lock);
    return keepNode(tctxp, *pSyncCtx, lock, place);
}

KEM_USHORT_T KemSdModeRW(void*, KEM_SYNCCTX_T* pSyncCtx, void* pSem)
{
    if (!pSyncCtx || !pSem) return 0;
    const Node* node = heldNode(*pSyncCtx, *static_cast<Lock*>(pSem));
    return node ? static_cast<KEM_USHORT_T>(node->bMode) : 0;
}

KEM_BOOL_T KemSdOwnerRW(void* tctxp, KEM_SYNCCTX_T* pSyncCtx, void* pSem)
{
    return KemSdModeRW(tctxp, pSyncCtx, pSem) != 0;
}

KEM_STS_T KemRWLockQNodeDestroy(void*, KEM_RWLOCKQNODE_T* pNode)
{
    if (!pNode) return SDSTS_INVALID_PARAM;
    assert(pNode->sCount == 0 && "a node of a held lock");
    // Whoever let the owner in may still be inside the mutex.
    pthread_mutex_lock(&pNode->mutex);
    pthread_mutex_unlock(&pNode->mutex);
    pthread_mutex_destroy(&pNode->mutex);
    pthread_cond_destroy(&pNode->cond);
    return ovFree(pNode, kSource, kNodeFreeLine);
}

KEM_STS_T KemRWLockFreeQNodes(KEM_SYNCCTX_T* pSyncCtx)
{
    if (!pSyncCtx) return SDSTS_INVALID_PARAM;
    destroyNodes(&pSyncCtx->pUsed);
    destroyNodes(&pSyncCtx->pFree);
    return 0;
}
