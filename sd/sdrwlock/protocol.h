// The queued reader-writer lock among threads that each bring a node: the word, and the ways in and out that meet
// nobody. The steps for all other cases are in protocol.cpp, the threads' nodes and the ABI in nodes.cpp.
//
// Writers queue up, first come, first served; `pWriterTail` is the last of them. Readers that have to wait pile up on
// the stack `pReaderHead` and are let in together, a batch. The word counts the readers inside, in units of 8, and
// carries three flags:
//
//   RWLOCK_WRITER_QUEUED    A writer heads the queue: it waits for the readers inside, or is inside itself. Set by that
//                           writer, or for it by the one before. Cleared by a writer that leaves with none linked
//                           behind it.
//   RWLOCK_WRITER_CLAIM     No more readers enter, and the last one to leave lets the head writer in. Set together with
//                           QUEUED; but if a batch was waiting by then, by whoever admits the batch, so that the batch
//                           goes first. Cleared with QUEUED. No writer is inside unless both are set.
//   RWLOCK_READERS_WAITING  A batch waits. Set by its leader, the reader that found the stack empty. Whoever admits the
//                           batch adds 4, which turns the flag into the leader's count.
//
// A waiter looks at `bBlocked` of its own node alone, and one thread clears it once: another, or the owner itself where
// it finds its way free. The nodes' mutexes serve sleeping and waking; a thread holds one at a time and takes nothing
// inside.
//
// Order: every change of the word, the stack and the tail is one sequentially consistent locked instruction. A node is
// filled before the instruction that makes it known. What was done under the lock reaches the next thread inside
// through the word, or through the release store of `bBlocked` that lets it in.
#pragma once

#include <kemsd/sync.h>

#include "sd/base/atomic.h"

namespace sd::rwlock {

using Lock = KEM_RWLOCK_T;
using Node = KEM_RWLOCKQNODE_T;

constexpr int64_t kModeNone = 0;
constexpr int64_t kModeRead = 1;
constexpr int64_t kModeWrite = 65535;

// ---- The word

constexpr int64_t kWriterFlags = RWLOCK_WRITER_QUEUED | RWLOCK_WRITER_CLAIM;
constexpr int64_t kFlags = kWriterFlags | RWLOCK_READERS_WAITING;

// Readers come and go by changing nothing but the count.
constexpr bool readersPass(int64_t word) { return (word & kFlags) == 0; }
static_assert(readersPass(0) && readersPass(16) && !readersPass(1) && !readersPass(20));

// By the word in which a leaving reader still counts: it is the last one, and the head writer waits for it. Whether
// readers wait makes no difference.
constexpr bool leavesToWriter(int64_t before)
{
    return (before & ~int64_t{RWLOCK_READERS_WAITING}) == (RWLOCK_READER_UNIT | kWriterFlags);
}
static_assert(leavesToWriter(11) && leavesToWriter(15) && !leavesToWriter(9) && !leavesToWriter(19));

// A failed swap leaves the present word in `word`.
inline bool swapWord(Lock& lock, int64_t& word, int64_t changed)
{
    return __atomic_compare_exchange_n(&lock.lRdrCntAndFlags, &word, changed, false, __ATOMIC_SEQ_CST,
                                       __ATOMIC_RELAXED);
}

// Returns the word before.
inline int64_t addToWord(Lock& lock, int64_t value)
{
    return __atomic_fetch_add(&lock.lRdrCntAndFlags, value, __ATOMIC_SEQ_CST);
}

// ---- The ways that meet nobody
//
// Each does in one instruction what the steps do in several: what it finds says that nobody comes between those, and it
// leaves what they would leave. A false return leaves everything to the steps.

// Without flags a reader is let in at once, and an empty stack has no batch to join.
inline bool enterReadAtOnce(Lock& lock, Node& node)
{
    int64_t word = loadRelaxed(lock.lRdrCntAndFlags);
    while (readersPass(word) && !loadRelaxed(lock.pReaderHead)) {
        if (!swapWord(lock, word, word + RWLOCK_READER_UNIT)) continue;
        storeRelaxed(node.pQNext, nullptr);
        return true;
    }
    return false;
}

// The reader has left in any case; false if it has to let a writer in.
inline bool leaveReadAtOnce(Lock& lock) { return !leavesToWriter(addToWord(lock, -RWLOCK_READER_UNIT)); }

// The tail and the word lie side by side, so that one instruction can see that there is no other writer, no reader and
// nobody waiting.
struct TailAndWord {
    Node* tail;
    int64_t word;
};
static_assert(offsetof(Lock, pWriterTail) % sizeof(TailAndWord) == 0);
static_assert(offsetof(Lock, lRdrCntAndFlags) == offsetof(Lock, pWriterTail) + offsetof(TailAndWord, word));

constexpr TailAndWord kFree{nullptr, 0};

#if defined(__SANITIZE_THREAD__)
// The sanitizer does not see into the instruction, and would miss the order that it gives.
inline bool swapTailAndWord(Lock&, TailAndWord, TailAndWord) { return false; }
#else
// False also where the lock does not lie on a boundary of 16 bytes. Every x86-64 processor since 2006 can do it.
inline bool swapTailAndWord(Lock& lock, TailAndWord from, TailAndWord to)
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

inline bool enterWriteAtOnce(Lock& lock, Node& node)
{
    storeRelaxed(node.pQNext, nullptr);
    if (!swapTailAndWord(lock, kFree, {&node, kWriterFlags})) return false;
    // The last reader to leave reads the head. While this thread is inside there is none; its way out publishes this.
    storeRelaxed(lock.pWriterHead, &node);
    return true;
}

inline bool leaveWriteAtOnce(Lock& lock, Node& node) { return swapTailAndWord(lock, {&node, kWriterFlags}, kFree); }

// ---- The steps, in protocol.cpp

// Return once the thread is inside.
void enterRead(Lock& lock, Node& node);
void enterWrite(Lock& lock, Node& node);

// Goes on after leaveReadAtOnce() has said false.
void letHeadWriterIn(Lock& lock);
void leaveWrite(Lock& lock, Node& node);

} // namespace sd::rwlock
