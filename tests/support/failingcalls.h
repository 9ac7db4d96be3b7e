// C library calls that fail on demand. Every test program is linked with --wrap for the calls listed in
// failingcalls.def: each passes through to the real one unless a Failing object of this process says otherwise.
//
//     Failing out(Call::malloc, 3, ENOMEM);                   // the third malloc from now on, once
//     Failing full(Call::pwrite, ENOSPC);                     // every pwrite
//     Failing odd(Call::pthread_setschedparam, EPERM, -1);    // every one, with that result
//     EXPECT_EQ(calls(Call::sched_yield), 1);                 // since the last resetCalls()
#pragma once

#include <time.h>

#include <cstddef>
#include <functional>

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
    // Only the k-th call from now on fails, k counted from 1.
    static Failing nth(Call call, long k, int error);

    ~Failing();
    Failing(const Failing&) = delete;
    Failing& operator=(const Failing&) = delete;

    // How many calls have failed because of this object.
    long hits() const;

private:
    Failing(Call call, int error, long result, bool ownResult, long first, long last);
    Call call_;
};

// Calls since the last resetCalls(), by all threads of the process.
long calls(Call call);
// The duration last asked of nanosleep.
struct timespec lastSleep();
// The interval last given to semtimedop.
struct timespec lastInterval();
void resetCalls();

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
