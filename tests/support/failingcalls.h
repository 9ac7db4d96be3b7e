// C library calls that fail on demand. Every test program is linked with --wrap for the calls listed in
// failingcalls.def: each passes through to the real one unless a Failing object of this process says otherwise.
//
//     Failing out = Failing::nth(Call::malloc, 3, ENOMEM);    // the third malloc from now on, once
//     Failing full(Call::pwrite, ENOSPC);                     // every pwrite
//     Failing odd(Call::pthread_setschedparam, EPERM, -1);    // every one, with that result
//     Failing late(Call::nanosleep, 0, 0, [&] { post(); });   // every one; what others do meanwhile is done in it
//     EXPECT_EQ(calls(Call::sched_yield), 1);                 // since the last resetCalls()
//
// or an Interrupting object lets something happen around one of them:
//
//     Interrupting death(Call::semop, 2, When::Before, [] { kill(getpid(), SIGKILL); });
#pragma once

#include <time.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kemsd::test {

enum class Call {
#define KEMSD_CALL(name, ...) name,
#define KEMSD_OWN(name) name,
#include "failingcalls.def"
#undef KEMSD_OWN
#undef KEMSD_CALL
    count
};

class Failing {
public:
    // Every call fails: errno is set and the call's usual failure value (-1, null, or the error number itself for the
    // calls that return one) comes back.
    Failing(Call call, int error);
    Failing(Call call, int error, long result);
    // Calls `meanwhile` in every failing call, on its thread.
    Failing(Call call, int error, long result, std::function<void()> meanwhile);
    // Only the k-th call from now on fails, k counted from 1.
    static Failing nth(Call call, long k, int error);
    static Failing nth(Call call, long k, int error, long result);

    ~Failing();
    Failing(const Failing&) = delete;
    Failing& operator=(const Failing&) = delete;

    // How many calls have failed because of this object.
    long hits() const;

private:
    Failing(Call call, int error, long result, bool ownResult, long first, long last,
            std::function<void()> meanwhile = {});
    Call call_;
    std::function<void()> meanwhile_;
};

enum class When { Before, After };

// Runs a function once, on the calling thread, before or after the k-th call from now on, k counted from 1. What it
// does to errno is not seen by the caller. One object a call at a time.
class Interrupting {
public:
    Interrupting(Call call, long k, When when, std::function<void()> function);
    ~Interrupting();
    Interrupting(const Interrupting&) = delete;
    Interrupting& operator=(const Interrupting&) = delete;

    // True when that call has come.
    bool happened() const;

private:
    Call call_;
};

// Calls since the last resetCalls(), by all threads of the process.
long calls(Call call);
// What was last asked of nanosleep (a duration), pthread_cond_timedwait (a deadline) and semtimedop (an interval), by
// any thread.
struct timespec lastSleep();
struct timespec lastDeadline();
struct timespec lastInterval();
void resetCalls();

// While it lives, the real-time clock stands still: time, gettimeofday and clock_gettime(CLOCK_REALTIME) answer this.
class ClockAt {
public:
    ClockAt(time_t seconds, long nanoseconds);
    ~ClockAt();
    ClockAt(const ClockAt&) = delete;
    ClockAt& operator=(const ClockAt&) = delete;
};

// While it lives, getdents64 tells of no entry what kind it is, as some file systems do.
class KindsHidden {
public:
    KindsHidden();
    ~KindsHidden();
    KindsHidden(const KindsHidden&) = delete;
    KindsHidden& operator=(const KindsHidden&) = delete;
};

// While it lives, fopen or setmntent of the one path opens the other instead. One object a call at a time.
class Redirected {
public:
    Redirected(Call call, std::string from, std::string to);
    ~Redirected();
    Redirected(const Redirected&) = delete;
    Redirected& operator=(const Redirected&) = delete;

private:
    Call call_;
};

// Closes of what was not open, -1 excepted, since the last resetCalls(): a second close of a descriptor.
long strayCloses();

// What the next readings of any clock say, in nanoseconds; after the last of them, and when the object goes, the clocks
// are the system's again.
class PlannedTimes {
public:
    explicit PlannedTimes(std::vector<int64_t> nanoseconds);
    ~PlannedTimes();
    PlannedTimes(const PlannedTimes&) = delete;
    PlannedTimes& operator=(const PlannedTimes&) = delete;
};

// System blocks obtained and not yet released through the wrapped calls, by all threads.
long liveBlocks();
// The block last obtained.
void* lastBlock();

// Fails the k-th memory request (malloc, calloc, realloc, posix_memalign, valloc or mmap, counted together) for
// k = 1, 2, ... until the scenario runs through without meeting a failure; the scenario runs in this process and must
// check its own statuses and release what it obtained. Adds a test failure when a run leaves blocks behind.
// The scenario is told whether its requests can still fail. Returns the number of requests of the clean run.
long sweepAllocationFailures(const std::function<void(long k)>& scenario);

// True when a memory request was made to fail by the sweep since the present run began.
bool allocationFailed();

} // namespace kemsd::test
