// The reader-writer lock's protocol, step by step, and its waiting; the story is told in protocol.h. While it waits a
// thread holds nothing but its node's mutex, and that only to fall asleep. Nothing here allocates.

#include "sd/sdrwlock/protocol.h"

#include <sched.h>

namespace sd::rwlock {

namespace {

// ---- Changes of the word

// Replaces the word by change(word); returns the word before.
template <class Change>
int64_t changeWord(Lock& lock, Change change)
{
    int64_t word = loadRelaxed(lock.lRdrCntAndFlags);
    while (!swapWord(lock, word, change(word))) {
    }
    return word;
}

int64_t setFlags(Lock& lock, int64_t flags)
{
    return changeWord(lock, [flags](int64_t word) { return word | flags; });
}

int64_t clearWriterFlags(Lock& lock)
{
    return changeWord(lock, [](int64_t word) { return word & ~kWriterFlags; });
}

// What a writer sets when it comes to head the queue. Both flags in one step: an admitter that found QUEUED alone would
// add the claim as well, and the writer would be let in twice.
constexpr int64_t withHeadWriter(int64_t word)
{
    return word | (word & RWLOCK_READERS_WAITING ? RWLOCK_WRITER_QUEUED : kWriterFlags);
}
static_assert(withHeadWriter(0) == 3 && withHeadWriter(16) == 19 && withHeadWriter(4) == 5 && withHeadWriter(12) == 13);

// By the word it found: nobody is inside, and no batch goes first.
constexpr bool headWriterEnters(int64_t before) { return before < RWLOCK_READERS_WAITING; }
static_assert(headWriterEnters(0) && !headWriterEnters(4) && !headWriterEnters(8));

constexpr int64_t kCountLeader = RWLOCK_READER_UNIT - RWLOCK_READERS_WAITING;
static_assert(RWLOCK_READERS_WAITING + kCountLeader == RWLOCK_READER_UNIT);

// ---- Letting a waiter in

void letSelfIn(Node& self) { storeRelaxed(self.bBlocked, 0); }

// Under the mutex the waiter either sleeps, and is woken, or has yet to look at bBlocked. It may be gone as soon as it
// sees bBlocked clear; its node stays until the mutex is free again.
void letIn(Node& other)
{
    if (!loadRelaxed(other.bBlocked)) return;
    pthread_mutex_lock(&other.mutex);
    if (loadRelaxed(other.bBlocked)) {
        storeRelease(other.bBlocked, 0); // pairs with blocked()
        if (loadRelaxed(other.bSuspended)) pthread_cond_signal(&other.cond);
    }
    pthread_mutex_unlock(&other.mutex);
}

// ---- Waiting

// Acquire: pairs with the release store in letIn().
bool blocked(const Node& node) { return loadAcquire(node.bBlocked) != 0; }

// What a waiter does before it sleeps. The spin loops are the lock's, the rest the node's copies.
struct Patience {
    int64_t spinLoops; // in a spin pass
    int64_t yields;    // after each spin pass
    int64_t waits;     // spin passes plus yields; below 1 without end
};

Patience readersPatience(const Lock& lock, const Node& node)
{
    return {lock.lRdrMaxSpinLoops, node.lCurrNumOfRdrYields, node.lRdrMaxWaits};
}

Patience writersPatience(const Lock& lock, const Node& node)
{
    return {lock.lWrtrMaxSpinLoops, node.lCurrNumOfWrtrYields, node.lWrtrMaxWaits};
}

int64_t spinBound() { return loadRelaxed(KEM_SDSYNC_BUSYSPIN_UPPERLIMIT); }

void spinPass(const Node& node, int64_t loops)
{
    for (int64_t loop = 0; loop < loops; ++loop) {
        for (int64_t round = 0; round < spinBound(); ++round) {
            if (!blocked(node)) return;
            pauseHint();
        }
    }
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

// A spin pass counts as one wait, also when it has no loops.
void waitAdaptively(Node& node, Patience patience)
{
    int64_t waits = 0;
    const auto spent = [&] { return patience.waits >= 1 && waits >= patience.waits; };
    while (blocked(node)) {
        if (spent()) return sleepUntilLetIn(node);
        spinPass(node, patience.spinLoops);
        ++waits;
        for (int64_t yield = 0; yield < patience.yields && !spent() && blocked(node); ++yield) {
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

// ---- Readers

Node* exchangeReaders(Lock& lock, Node* top) { return __atomic_exchange_n(&lock.pReaderHead, top, __ATOMIC_SEQ_CST); }

// Lets the waiting batch in, on behalf of its leader, `self`, or of a writer that leaves, null. The youngest of the
// batch is let in here and passes it on to the next older one.
void admitReaders(Lock& lock, Node* self)
{
    addToWord(lock, kCountLeader);
    // A writer that came while the batch waited left the claim to us; one that comes after the addition claims for
    // itself.
    const int64_t word = __atomic_load_n(&lock.lRdrCntAndFlags, __ATOMIC_SEQ_CST);
    if ((word & kWriterFlags) == RWLOCK_WRITER_QUEUED) setFlags(lock, RWLOCK_WRITER_CLAIM);
    Node* youngest = exchangeReaders(lock, nullptr);
    if (youngest == self)
        letSelfIn(*self);
    else
        letIn(*youngest);
}

void leadReaders(Lock& lock, Node& node)
{
    const int64_t before = setFlags(lock, RWLOCK_READERS_WAITING);
    if ((before & kWriterFlags) == 0) admitReaders(lock, &node);
    waitUntilLetIn(lock, node, readersPatience);
}

void followReaders(Lock& lock, Node& node, Node& older)
{
    waitUntilLetIn(lock, node, readersPatience);
    addToWord(lock, RWLOCK_READER_UNIT);
    letIn(older);
}

// ---- Writers

// Makes the writer the head; true when it may enter. One thread at a time comes here: the writer that found no tail, or
// the one that is leaving before it. The head is stored before the flags that send the last reader to it.
bool headQueue(Lock& lock, Node& writer)
{
    storeRelease(lock.pWriterHead, &writer);
    return headWriterEnters(changeWord(lock, withHeadWriter));
}

// True when the writer was the last one; else another has put itself behind it.
bool leaveTail(Lock& lock, Node* writer)
{
    return __atomic_compare_exchange_n(&lock.pWriterTail, &writer, nullptr, false, __ATOMIC_SEQ_CST, __ATOMIC_RELAXED);
}

// Acquire: pairs with the release store by which the successor links itself.
Node* successor(const Node& writer) { return loadAcquire(writer.pQNext); }

// The successor that is at the tail already but has yet to link itself.
Node& lateSuccessor(const Node& writer)
{
    for (int64_t round = 0; !successor(writer); ++round) {
        pauseHint();
        if (round < spinBound()) continue;
        sched_yield(); // the successor may need this processor
        round = 0;
    }
    return *successor(writer);
}

} // namespace

void enterRead(Lock& lock, Node& node)
{
    storeRelaxed(node.bBlocked, 1);
    Node* older = exchangeReaders(lock, &node);
    storeRelaxed(node.pQNext, older);
    if (older)
        followReaders(lock, node, *older);
    else
        leadReaders(lock, node);
}

void enterWrite(Lock& lock, Node& node)
{
    storeRelaxed(node.bBlocked, 1);
    storeRelaxed(node.pQNext, nullptr);
    Node* before = __atomic_exchange_n(&lock.pWriterTail, &node, __ATOMIC_SEQ_CST);
    if (before)
        storeRelease(before->pQNext, &node); // pairs with successor()
    else if (headQueue(lock, node))
        letSelfIn(node);
    waitUntilLetIn(lock, node, writersPatience);
}

void letHeadWriterIn(Lock& lock)
{
    // Acquire: headQueue() stored it before the flags that sent us here.
    letIn(*loadAcquire(lock.pWriterHead));
}

void leaveWrite(Lock& lock, Node& node)
{
    // Deliberate: the lock goes straight to the next writer. The flags, the head and waiting readers stay as they are.
    if (Node* next = successor(node)) return letIn(*next);
    if (clearWriterFlags(lock) & RWLOCK_READERS_WAITING) admitReaders(lock, nullptr);
    // Deliberate: the head goes on pointing at this node. Nobody reads it before the next head has taken its place.
    if (leaveTail(lock, &node)) return;
    Node& late = lateSuccessor(node);
    if (headQueue(lock, late)) letIn(late);
}

} // namespace sd::rwlock
