// Many threads pass through one lock. What the lock protects is plain memory: a lost exclusion breaks its invariant,
// and a missing order is a data race that thread sanitizer reports.
#pragma once

#include <sched.h>

#include <thread>
#include <vector>

#include "sync/crowd.h"

namespace kemsd::test {

// The sanitizers slow a passage down; this part of a load is enough for them.
constexpr long kShare = kSanitized ? 10 : 1;

// What a lock protects: two words that are equal outside the critical section, and a count of passages.
struct Guarded {
    long count = 0;
    long first = 0;
    long second = 0;
};

// One passage; true when no other thread was seen inside.
template <class Between>
bool pass(Guarded& guarded, long mark, Between between)
{
    const bool intact = guarded.first == guarded.second;
    guarded.first = mark;
    ++guarded.count;
    between();
    const bool mine = guarded.first == mark;
    guarded.second = mark;
    return intact && mine;
}

// Keeps the compiler from carrying the guarded words over in registers.
inline void forgetMemory() { __atomic_signal_fence(__ATOMIC_SEQ_CST); }

// The passages of all threads through a lock whose load is `acquisitions` in a release build. Lock has acquire(),
// release() and holds(depth), which says whether the calling thread holds it so deep.
template <class Lock>
void torture(Lock& lock, long acquisitions, bool reentrant)
{
    const int threads = threadCount();
    const long rounds = (acquisitions / kShare + threads - 1) / threads;
    Guarded guarded;
    const long violations = together(threads, [&](int i) {
        long seen = 0;
        for (long round = 0; round < rounds; ++round) {
            // One in four passages of the re-entrant kind goes three deep.
            const int depth = reentrant && round % 4 == 0 ? 3 : 1;
            for (int level = 0; level < depth; ++level) lock.acquire();
            const bool alone = pass(guarded, round * threads + i, [round] {
                forgetMemory();
                // Now and then the owner gives way inside, so that the others meet a held lock on any machine.
                if (round % 512 == 0) sched_yield();
            });
            if (!alone || !lock.holds(depth)) ++seen;
            for (int level = 0; level < depth; ++level) lock.release();
        }
        return seen;
    });
    EXPECT_EQ(violations, 0);
    EXPECT_EQ(guarded.count, rounds * threads);
    EXPECT_EQ(guarded.first, guarded.second);
}

// Threads that arrive one after the other at a held lock enter it in that order. `arrived` says how many tickets have
// been drawn; passage(i) takes the lock, calls what it is given, and releases the lock.
template <class Acquire, class Release, class Arrived, class Passage>
void expectOrderOfArrival(Acquire acquire, Release release, Arrived arrived, Passage passage)
{
    for (int round = 0; round < 5; ++round) {
        std::vector<int> order; // plain: the lock orders it
        std::vector<std::thread> waiters;
        acquire();
        const int64_t before = arrived();
        for (int i = 0; i < 8; ++i) {
            waiters.emplace_back([&, i] { passage(i, [&] { order.push_back(i); }); });
            // It has its place in the queue once its ticket is drawn.
            EXPECT_TRUE(eventually([&] { return arrived() == before + i + 1; }));
        }
        EXPECT_TRUE(order.empty());
        release();
        for (std::thread& waiter : waiters) waiter.join();
        EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7}));
    }
}

} // namespace kemsd::test
