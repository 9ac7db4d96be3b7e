// Bounded waiting for what other threads do. Nothing here counts as a sched_yield of the code under test.
#pragma once

#include <gtest/gtest.h>
#include <kemsd/sync.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <thread>

#include "support/failingcalls.h"

namespace kemsd::test {

inline long nanoseconds(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec * 1000000000L + now.tv_nsec;
}

// Gives way until the condition holds; false when it still does not after a minute.
template <class Condition>
bool eventually(Condition condition)
{
    const long limit = nanoseconds(CLOCK_MONOTONIC) + 60000000000L;
    while (!condition()) {
        if (nanoseconds(CLOCK_MONOTONIC) > limit) return false;
        syscall(SYS_sched_yield);
    }
    return true;
}

// Gives way until that thread, which must not have ended, has itself been running for another two milliseconds: many
// rounds of any waiting loop, however loaded the machine is.
inline bool keepsRunning(std::thread& thread)
{
    clockid_t clock;
    if (pthread_getcpuclockid(thread.native_handle(), &clock) != 0) return false;
    const long enough = nanoseconds(clock) + 2000000L;
    return eventually([&] { return nanoseconds(clock) >= enough; });
}

constexpr int64_t kInitialSpinBound = 20000;
constexpr int64_t kNeverYield = INT64_MAX;

inline void setSpinBound(int64_t bound)
{
    // A full barrier: from here on a waiter reads the new bound.
    __atomic_exchange_n(&KEM_SDSYNC_BUSYSPIN_UPPERLIMIT, bound, __ATOMIC_SEQ_CST);
}

// Waits until the code under test has yielded so often.
inline bool yields(long atLeast)
{
    return eventually([atLeast] { return calls(Call::sched_yield) >= atLeast; });
}

// Holds a lock while another thread waits for it and `meanwhile` looks on; then lets it pass.
template <class Acquire, class Release, class Meanwhile>
void whileOneWaits(Acquire acquire, Release release, Meanwhile meanwhile)
{
    int passed = 0; // plain: the lock orders it
    acquire();
    std::thread waiter([&] {
        acquire();
        ++passed;
        release();
    });
    meanwhile(waiter);
    EXPECT_EQ(passed, 0);
    release();
    waiter.join();
    EXPECT_EQ(passed, 1);
}

} // namespace kemsd::test
