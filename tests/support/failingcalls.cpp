// The wrapped calls and their plans; free only keeps the count of live blocks.

#include "failingcalls.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/times.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <type_traits>

namespace kemsd::test {
namespace {

struct Plan {
    std::atomic<long> seen{0};    // calls since the last reset
    std::atomic<long> counted{0}; // calls since the present Failing object was made
    std::atomic<long> first{0};   // 0: no plan
    std::atomic<long> last{0};
    std::atomic<long> hits{0};
    std::atomic<int> error{0};
    std::atomic<long> result{0};
    std::atomic<bool> ownResult{false};
};

Plan plans[static_cast<size_t>(Call::count)];
std::atomic<long> live{0};
std::atomic<void*> newest{nullptr};
timespec asked{};
std::atomic<long> intervalSeconds{0};
std::atomic<long> intervalNanoseconds{0};

// The sweep: one count over all memory requests.
std::atomic<bool> sweeping{false};
std::atomic<long> requests{0};
std::atomic<long> failingRequest{0};
std::atomic<bool> requestFailed{false};

Plan& plan(Call call) { return plans[static_cast<size_t>(call)]; }

bool isMemoryRequest(Call call)
{
    return call == Call::malloc || call == Call::calloc || call == Call::realloc || call == Call::posix_memalign ||
           call == Call::valloc || call == Call::mmap || call == Call::mremap;
}

// Counts a call; true when it is to fail.
bool fails(Call call)
{
    Plan& p = plan(call);
    p.seen.fetch_add(1, std::memory_order_relaxed);
    if (sweeping.load(std::memory_order_relaxed) && isMemoryRequest(call) &&
        requests.fetch_add(1) + 1 == failingRequest.load()) {
        requestFailed = true;
        return true;
    }
    const long first = p.first.load();
    if (first == 0) return false;
    const long k = p.counted.fetch_add(1) + 1;
    if (k < first || k > p.last.load()) return false;
    p.hits.fetch_add(1);
    return true;
}

int plannedError(Call call)
{
    const Plan& p = plan(call);
    return p.first.load() != 0 ? p.error.load() : ENOMEM;
}

enum class Failure { Minus1, Null, Number };

template <class Result>
Result as(long value)
{
    if constexpr (std::is_pointer_v<Result>)
        return reinterpret_cast<Result>(value);
    else
        return static_cast<Result>(value);
}

template <class Result>
Result failedResult(Call call, Failure failure)
{
    const int error = plannedError(call);
    if (plan(call).first.load() != 0 && plan(call).ownResult.load()) {
        errno = error;
        return as<Result>(plan(call).result.load());
    }
    if (failure == Failure::Number) return as<Result>(error);
    errno = error;
    return as<Result>(failure == Failure::Minus1 ? -1 : 0);
}

// Counts a block that the system has handed out.
void* born(void* block)
{
    if (block) {
        live.fetch_add(1, std::memory_order_relaxed);
        newest.store(block, std::memory_order_relaxed);
    }
    return block;
}

} // namespace

Failing::Failing(Call call, int error) : Failing(call, error, 0, false, 1, __LONG_MAX__) {}

Failing::Failing(Call call, int error, long result) : Failing(call, error, result, true, 1, __LONG_MAX__) {}

Failing Failing::nth(Call call, long k, int error) { return Failing(call, error, 0, false, k, k); }

Failing::Failing(Call call, int error, long result, bool ownResult, long first, long last) : call_(call)
{
    Plan& p = plan(call);
    p.counted = 0;
    p.hits = 0;
    p.error = error;
    p.result = result;
    p.ownResult = ownResult;
    p.last = last;
    p.first = first;
}

Failing::~Failing() { plan(call_).first = 0; }

long Failing::hits() const { return plan(call_).hits; }

long calls(Call call) { return plan(call).seen; }

void resetCalls()
{
    for (Plan& p : plans) p.seen = 0;
}

timespec lastSleep() { return asked; }

timespec lastInterval() { return {intervalSeconds, intervalNanoseconds}; }

long liveBlocks() { return live; }

void* lastBlock() { return newest; }

bool allocationFailed() { return requestFailed; }

long sweepAllocationFailures(const std::function<void(long k)>& scenario)
{
    constexpr long kMostRequests = 100000;
    for (long k = 1; k <= kMostRequests; ++k) {
        const long before = live;
        requests = 0;
        requestFailed = false;
        failingRequest = k;
        sweeping = true;
        scenario(k);
        sweeping = false;
        EXPECT_EQ(live - before, 0) << "blocks left behind when memory request " << k << " fails";
        if (!requestFailed) return requests;
    }
    ADD_FAILURE() << "the scenario still meets failures after " << kMostRequests << " runs";
    return kMostRequests;
}

} // namespace kemsd::test

using namespace kemsd::test;

extern "C" {

#define KEMSD_OWN(name)
#define KEMSD_CALL(name, Result, parameters, arguments, failure)                          \
    Result __real_##name parameters;                                                      \
    Result __wrap_##name parameters                                                       \
    {                                                                                     \
        if (fails(Call::name)) return failedResult<Result>(Call::name, Failure::failure); \
        return __real_##name arguments;                                                   \
    }
#include "failingcalls.def"
#undef KEMSD_CALL
#undef KEMSD_OWN

void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* block, size_t size);
int __real_posix_memalign(void** block, size_t alignment, size_t size);
void* __real_valloc(size_t size);
void __real_free(void* block);
void* __real_mremap(void* at, size_t oldSize, size_t newSize, int flags, ...);
int __real_open(const char* path, int flags, ...);
int __real_open64(const char* path, int flags, ...);

int __real_nanosleep(const timespec* duration, timespec* rest);

int __real_semtimedop(int id, sembuf* operations, size_t count, const timespec* limit);

int __wrap_semtimedop(int id, sembuf* operations, size_t count, const timespec* limit)
{
    if (limit) {
        intervalSeconds = limit->tv_sec;
        intervalNanoseconds = limit->tv_nsec;
    }
    if (fails(Call::semtimedop)) return failedResult<int>(Call::semtimedop, Failure::Minus1);
    return __real_semtimedop(id, operations, count, limit);
}

int __real_semctl(int id, int member, int command, ...);

// The system takes the last argument, one word whatever its type, only where the command has one.
int __wrap_semctl(int id, int member, int command, long argument)
{
    if (fails(Call::semctl)) return failedResult<int>(Call::semctl, Failure::Minus1);
    return __real_semctl(id, member, command, argument);
}

int __wrap_nanosleep(const timespec* duration, timespec* rest)
{
    asked = *duration;
    if (fails(Call::nanosleep)) return failedResult<int>(Call::nanosleep, Failure::Minus1);
    return __real_nanosleep(duration, rest);
}

void* __wrap_malloc(size_t size)
{
    if (fails(Call::malloc)) return failedResult<void*>(Call::malloc, Failure::Null);
    return born(__real_malloc(size));
}

void* __wrap_calloc(size_t count, size_t size)
{
    if (fails(Call::calloc)) return failedResult<void*>(Call::calloc, Failure::Null);
    return born(__real_calloc(count, size));
}

void* __wrap_realloc(void* block, size_t size)
{
    if (fails(Call::realloc)) return failedResult<void*>(Call::realloc, Failure::Null);
    return block ? __real_realloc(block, size) : born(__real_realloc(block, size));
}

int __wrap_posix_memalign(void** block, size_t alignment, size_t size)
{
    if (fails(Call::posix_memalign)) return failedResult<int>(Call::posix_memalign, Failure::Number);
    const int result = __real_posix_memalign(block, alignment, size);
    if (result == 0) born(*block);
    return result;
}

void* __wrap_valloc(size_t size)
{
    if (fails(Call::valloc)) return failedResult<void*>(Call::valloc, Failure::Null);
    return born(__real_valloc(size));
}

void __wrap_free(void* block)
{
    if (block) live.fetch_sub(1, std::memory_order_relaxed);
    __real_free(block);
}

void* __wrap_mremap(void* at, size_t oldSize, size_t newSize, int flags)
{
    if (fails(Call::mremap)) return failedResult<void*>(Call::mremap, Failure::Minus1);
    return __real_mremap(at, oldSize, newSize, flags);
}

int __wrap_open(const char* path, int flags, mode_t mode)
{
    if (fails(Call::open)) return failedResult<int>(Call::open, Failure::Minus1);
    return __real_open(path, flags, mode);
}

int __wrap_open64(const char* path, int flags, mode_t mode)
{
    if (fails(Call::open64)) return failedResult<int>(Call::open64, Failure::Minus1);
    return __real_open64(path, flags, mode);
}
}
