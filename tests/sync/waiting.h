// Bounded waiting for what other threads do. Nothing here counts as a sched_yield of the code under test.
#pragma once

#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <thread>

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

} // namespace kemsd::test
