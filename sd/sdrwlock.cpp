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
constexpr int64_t kFlags = kWriterFlags | RWLOCK_READERS_WAITING;

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

// A failed swap leaves the present word in `word`.
bool swapWord(Lock& lock, int64_t& word, int64_t changed)
{
    return __atomic_compare_exchange_n(&lock.lRdrCntAndFlags, &word, changed, false, __ATOMIC_SEQ_CST,
                                       __ATOMIC_RELAXED);
}

// Replaces the word by change(word); returns the word before.
template <class Change>
int64_t changeWord(Lock& lock, Change change)
{
    int64_t word = loadRelaxed(lock.lRdrCntAndFlags);
    while (!swapWord(lock, word, change(word))) {
    }
    return word;
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

// ---- Without anybody in the way
//
// One step takes the place of several: what it finds says that nobody would have come between them, and it leaves
// what they would have left.

// Where flags are clear no writer is inside or about to be, and an empty stack has no batch to join.
bool enterReadAtOnce(Lock& lock, Node& node)
{
    int64_t word = loadRelaxed(lock.lRdrCntAndFlags);
    while ((word & kFlags) == 0 && !loadRelaxed(lock.pReaderHead)) {
        if (!swapWord(lock, word, word + RWLOCK_READER_UNIT)) continue;
        storeRelaxed(node.pQNext, nullptr);
        return true;
    }
    return false;
}

// The queue's tail and the word lie side by side.
struct TailAndWord {
    Node* tail;
    int64_t word;
};
static_assert(offsetof(Lock, lRdrCntAndFlags) == offsetof(Lock, pWriterTail) + offsetof(TailAndWord, word));
static_assert(offsetof(Lock, pWriterTail) % sizeof(TailAndWord) == 0);

#if defined(__SANITIZE_THREAD__)
bool swapTailAndWord(Lock&, TailAndWord, TailAndWord) { return false; } // it would not see this order
#else
// Replaces both if they are as in `from`, sequentially consistent; false also where the lock is not aligned for it.
// Every x86-64 processor since 2006 has the instruction.
bool swapTailAndWord(Lock& lock, TailAndWord from, TailAndWord to)
{
    if (reinterpret_cast<uintptr_t>(&lock) % sizeof(TailAndWord) != 0) return false;
    bool swapped;
    asm volatile("lock cmpxchg16b %[both]"
                 : "=@ccz"(swapped), [both] "+m"(reinterpret_cast<volatile TailAndWord&>(lock.pWriterTail)),
                   "+a"(from.tail), "+d"(from.word)
                 : "b"(to.tail), "c"(to.word)
                 : "memory");
    return swapped;
}
#endif

constexpr TailAndWord kFree{nullptr, 0};

bool enterWriteAtOnce(Lock& lock, Node& node)
{
    storeRelaxed(node.pQNext, nullptr);
    if (!swapTailAndWord(lock, kFree, {&node, kWriterFlags})) return false;
    // Nobody reads the head before this thread has left: only the last reader to leave does, and no reader is inside.
    storeRelaxed(lock.pWriterHead, &node);
    return true;
}

// False where a writer has to be woken.
bool leaveReadAtOnce(Lock& lock) { return !wakesWriter(addToWord(lock, -RWLOCK_READER_UNIT)); }

bool leaveWriteAtOnce(Lock& lock, Node& node) { return swapTailAndWord(lock, {&node, kWriterFlags}, kFree); }

// ---- Entering and leaving

KEM_STS_T nowReading(Node& node)
{
    node.bMode = kModeRead;
    node.sCount = 1;
    return 0;
}

KEM_STS_T nowWriting(Node& node)
{
    node.bMode = kModeWrite;
    node.sCount = 1;
    return 0;
}

[[gnu::noinline]] KEM_STS_T queueWriter(Lock& lock, Node& node)
{
    storeRelaxed(node.bBlocked, 1);
    // Publishes the node.
    Node* before = __atomic_exchange_n(&lock.pWriterTail, &node, __ATOMIC_SEQ_CST);
    if (before)
        storeRelease(before->pQNext, &node); // pairs with the acquire loads of the writer that leaves
    else if (headQueue(lock, node))
        letSelfIn(node);
    waitUntilLetIn(lock, node, writersPatience);
    return nowWriting(node);
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

[[gnu::noinline]] KEM_STS_T joinReaders(Lock& lock, Node& node)
{
    storeRelaxed(node.bBlocked, 1);
    Node* older = pushReader(lock, &node); // publishes the store above
    storeRelaxed(node.pQNext, older);
    if (older)
        followReaders(lock, node, *older);
    else
        leadReaders(lock, node);
    return nowReading(node);
}

KEM_STS_T startRead(Lock& lock, Node& node)
{
    // Deliberate: a writer that asks to read stays a writer, one level deeper.
    if (node.sCount != 0) {
        ++node.sCount;
        return 0;
    }
    return enterReadAtOnce(lock, node) ? nowReading(node) : joinReaders(lock, node);
}

KEM_STS_T startWrite(Lock& lock, Node& node)
{
    if (node.sCount != 0) {
        // Deliberate: a reader cannot become a writer; two that tried would wait for each other.
        if (node.bMode != kModeWrite) return SDSTS_SEM_REQUEST;
        ++node.sCount;
        return 0;
    }
    return enterWriteAtOnce(lock, node) ? nowWriting(node) : queueWriter(lock, node);
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

void unlink(Node** place) { *place = (*place)->pStrNext; }

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

// The thread's node, held or taken from the cache and put on the held ones; null where it has to be made.
Node* knownNode(KEM_SYNCCTX_T& context, const Lock& lock)
{
    if (!context.pUsed) [[unlikely]]
        return nullptr;
    if (Node* held = *find(*lists(context.pUsed), lock)) return held;
    if (!context.pFree) [[unlikely]]
        return nullptr;
    Node** place = find(*lists(context.pFree), lock);
    Node* cached = *place;
    if (cached) [[likely]] {
        unlink(place);
        push(*lists(context.pUsed), lock, *cached);
    }
    return cached;
}

// Starts with a node made for it.
[[gnu::noinline]] KEM_STS_T startAnew(void* owner, KEM_SYNCCTX_T& context, Lock& lock, KEM_STS_T (*start)(Lock&, Node&))
{
    Node* node;
    if (const KEM_STS_T sts = makeNode(owner, lock, &node)) return sts;
    if (!context.pUsed) {
        if (const KEM_STS_T sts = makeLists(owner, &context.pUsed)) {
            KemRWLockQNodeDestroy(owner, node);
            return sts;
        }
    }
    push(*lists(context.pUsed), lock, *node);
    return start(lock, *node);
}

// The first node that a thread gives back.
[[gnu::noinline]] KEM_STS_T keepFirst(void* owner, KEM_SYNCCTX_T& context, const Lock& lock, Node& node)
{
    // Deliberate: without memory the node is on neither list; the lock is free all the same.
    if (const KEM_STS_T sts = makeLists(owner, &context.pFree)) return sts;
    node.bMode = kModeNone;
    node.sCount = 0;
    push(*lists(context.pFree), lock, node);
    return 0;
}

// Moves the node from the held ones to the cache.
KEM_STS_T keep(void* owner, KEM_SYNCCTX_T& context, const Lock& lock, Node** place)
{
    Node& node = **place;
    unlink(place);
    if (!context.pFree) [[unlikely]]
        return keepFirst(owner, context, lock, node);
    node.bMode = kModeNone;
    node.sCount = 0;
    push(*lists(context.pFree), lock, node);
    return 0;
}

[[gnu::noinline]] KEM_STS_T endWrite(void* owner, KEM_SYNCCTX_T& context, Lock& lock, Node** place)
{
    leaveWrite(lock, **place);
    return keep(owner, context, lock, place);
}

[[gnu::noinline]] KEM_STS_T endLastRead(void* owner, KEM_SYNCCTX_T& context, Lock& lock, Node** place)
{
    letIn(*loadAcquire(lock.pWriterHead));
    return keep(owner, context, lock, place);
}

void destroyNodes(void** lists)
{
    if (!*lists) return;
    for (Node*& first : static_cast<NodeLists*>(*lists)->first) {
        while (Node* node = first) {
            unlink(&first);
            KemRWLockQNodeDestroy(nullptr, node);
        }
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
    Node* node = knownNode(*pSyncCtx, lock);
    return node ? startRead(lock, *node) : startAnew(tctxp, *pSyncCtx, lock, startRead);
}

KEM_STS_T KemSdStartWrite(void* tctxp, KEM_SYNCCTX_T* pSyncCtx, void* pSem)
{
    if (!pSyncCtx || !pSem) return SDSTS_INVALID_PARAM;
    auto& lock = *static_cast<Lock*>(pSem);
    Node* node = knownNode(*pSyncCtx, lock);
    return node ? startWrite(lock, *node) : startAnew(tctxp, *pSyncCtx, lock, startWrite);
}

KEM_STS_T KemSdEndRW(void* tctxp, KEM_SYNCCTX_T* pSyncCtx, void* pSem)
{
    if (!pSyncCtx || !pSem) return SDSTS_INVALID_PARAM;
    auto& lock = *static_cast<Lock*>(pSem);
    if (!pSyncCtx->pUsed) return SDSTS_SEM_CLEAR;
    Node** place = find(*lists(pSyncCtx->pUsed), lock);
    Node* node = *place;
    if (!node || node->sCount < 1) return SDSTS_SEM_CLEAR;
    if (node->sCount > 1) {
        --node->sCount;
        return 0;
    }
    if (node->bMode == kModeWrite) {
        if (!leaveWriteAtOnce(lock, *node)) [[unlikely]]
            return endWrite(tctxp, *pSyncCtx, lock, place);
    } else if (!leaveReadAtOnce(lock)) [[unlikely]] {
        return endLastRead(tctxp, *pSyncCtx, lock, place);
    }
    return keep(tctxp, *pSyncCtx, lock, place);
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
