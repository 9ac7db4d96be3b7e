// The wrapped calls and their plans; free only keeps the count of live blocks.

#include "failingcalls.h"

#include <aio.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <pwd.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <sys/times.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <type_traits>
#include <utility>

namespace kemsd::test {
namespace {

constexpr long kSecond = 1000000000; // nanoseconds

struct Plan {
    std::atomic<long> seen{0};    // calls since the last reset
    std::atomic<long> counted{0}; // calls since the present Failing object was made
    std::atomic<long> first{0};   // 0: no plan
    std::atomic<long> last{0};
    std::atomic<long> hits{0};
    std::atomic<int> error{0};
    std::atomic<long> result{0};
    std::atomic<bool> ownResult{false};
    std::atomic<const std::function<void()>*> meanwhile{nullptr};
};

// What is to happen around a call. The function is set before the position and not changed while that stands.
struct Interruption {
    std::atomic<long> at{0}; // 0: none
    std::atomic<long> counted{0};
    std::atomic<bool> happened{false};
    When when = When::Before;
    std::function<void()> function;
};

Plan plans[static_cast<size_t>(Call::count)];
Interruption interruptions[static_cast<size_t>(Call::count)];
std::atomic<long> live{0};
std::atomic<void*> newest{nullptr};

// A time that one thread leaves and another reads.
struct Moment {
    std::atomic<long> seconds{0};
    std::atomic<long> nanoseconds{0};

    void store(const timespec& at)
    {
        seconds = at.tv_sec;
        nanoseconds = at.tv_nsec;
    }
    timespec load() const { return {seconds, nanoseconds}; }
};

Moment sleepAsked;
Moment deadlineAsked;
Moment intervalAsked;
Moment standing; // where the real-time clock stands still
std::atomic<bool> standsStill{false};
std::atomic<long> stray{0};
std::atomic<bool> kindsHidden{false};

// Where the opens of a path go. Changed while one thread runs.
struct Redirection {
    std::string from, to;
};
Redirection redirections[static_cast<size_t>(Call::count)];

const char* redirected(Call call, const char* path)
{
    const Redirection& to = redirections[static_cast<size_t>(call)];
    return !to.from.empty() && to.from == path ? to.to.c_str() : path;
}

std::vector<int64_t> plannedTimes; // changed while one thread runs, read by one at a time
std::atomic<size_t> timesRead{0};

// The sweep: one count over all memory requests.
std::atomic<bool> sweeping{false};
std::atomic<long> requests{0};
std::atomic<long> failingRequest{0};
std::atomic<bool> requestFailed{false};

Plan& plan(Call call) { return plans[static_cast<size_t>(call)]; }

Interruption& interruption(Call call) { return interruptions[static_cast<size_t>(call)]; }

// A call on its way: lets happen before and after it what is planned.
class Passage {
public:
    explicit Passage(Call call) : interruption_(interruption(call))
    {
        const long at = interruption_.at.load();
        due_ = at != 0 && interruption_.counted.fetch_add(1) + 1 == at;
        if (due_ && interruption_.when == When::Before) happen();
    }
    ~Passage()
    {
        if (due_ && interruption_.when == When::After) happen();
    }
    Passage(const Passage&) = delete;
    Passage& operator=(const Passage&) = delete;

private:
    void happen()
    {
        const int error = errno;
        interruption_.happened = true;
        interruption_.function();
        errno = error;
    }

    Interruption& interruption_;
    bool due_;
};

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
    if (const auto* meanwhile = p.meanwhile.load()) (*meanwhile)();
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

Failing::Failing(Call call, int error, long result, std::function<void()> meanwhile)
    : Failing(call, error, result, true, 1, __LONG_MAX__, std::move(meanwhile))
{}

Failing Failing::nth(Call call, long k, int error) { return Failing(call, error, 0, false, k, k); }

Failing Failing::nth(Call call, long k, int error, long result) { return Failing(call, error, result, true, k, k); }

Failing::Failing(Call call, int error, long result, bool ownResult, long first, long last,
                 std::function<void()> meanwhile)
    : call_(call), meanwhile_(std::move(meanwhile))
{
    Plan& p = plan(call);
    p.counted = 0;
    p.hits = 0;
    p.error = error;
    p.result = result;
    p.ownResult = ownResult;
    p.meanwhile = meanwhile_ ? &meanwhile_ : nullptr;
    p.last = last;
    p.first = first;
}

Failing::~Failing()
{
    plan(call_).first = 0;
    plan(call_).meanwhile = nullptr;
}

long Failing::hits() const { return plan(call_).hits; }

Interrupting::Interrupting(Call call, long k, When when, std::function<void()> function) : call_(call)
{
    Interruption& i = interruption(call);
    i.counted = 0;
    i.happened = false;
    i.when = when;
    i.function = std::move(function);
    i.at = k;
}

Interrupting::~Interrupting() { interruption(call_).at = 0; }

bool Interrupting::happened() const { return interruption(call_).happened; }

long calls(Call call) { return plan(call).seen; }

void resetCalls()
{
    for (Plan& p : plans) p.seen = 0;
    stray = 0;
}

timespec lastSleep() { return sleepAsked.load(); }

timespec lastDeadline() { return deadlineAsked.load(); }

ClockAt::ClockAt(time_t seconds, long nanoseconds)
{
    standing.store({seconds, nanoseconds});
    standsStill = true;
}

ClockAt::~ClockAt() { standsStill = false; }

KindsHidden::KindsHidden() { kindsHidden = true; }

KindsHidden::~KindsHidden() { kindsHidden = false; }

Redirected::Redirected(Call call, std::string from, std::string to) : call_(call)
{
    redirections[static_cast<size_t>(call)] = {std::move(from), std::move(to)};
}

Redirected::~Redirected() { redirections[static_cast<size_t>(call_)] = {}; }

long strayCloses() { return stray; }

PlannedTimes::PlannedTimes(std::vector<int64_t> nanoseconds)
{
    timesRead = 0;
    plannedTimes = std::move(nanoseconds);
}

PlannedTimes::~PlannedTimes() { plannedTimes.clear(); }

timespec lastInterval() { return intervalAsked.load(); }

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
        const Passage passage(Call::name);                                                \
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

int __real_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex, const timespec* deadline);
time_t __real_time(time_t* now);
int __real_gettimeofday(timeval* now, void* zone);
int __real_close(int fd);
int __real_clock_gettime(clockid_t clock, timespec* now);
int __real_semtimedop(int id, sembuf* operations, size_t count, const timespec* limit);

FILE* __real_fopen(const char* path, const char* mode);
FILE* __real_setmntent(const char* path, const char* mode);

FILE* __wrap_fopen(const char* path, const char* mode)
{
    const Passage passage(Call::fopen);
    if (fails(Call::fopen)) return failedResult<FILE*>(Call::fopen, Failure::Null);
    return __real_fopen(redirected(Call::fopen, path), mode);
}

FILE* __wrap_setmntent(const char* path, const char* mode)
{
    const Passage passage(Call::setmntent);
    if (fails(Call::setmntent)) return failedResult<FILE*>(Call::setmntent, Failure::Null);
    return __real_setmntent(redirected(Call::setmntent, path), mode);
}

int __wrap_semtimedop(int id, sembuf* operations, size_t count, const timespec* limit)
{
    const Passage passage(Call::semtimedop);
    if (limit) intervalAsked.store(*limit);
    if (fails(Call::semtimedop)) return failedResult<int>(Call::semtimedop, Failure::Minus1);
    return __real_semtimedop(id, operations, count, limit);
}

int __real_semctl(int id, int member, int command, ...);

// The system takes the last argument, one word whatever its type, only where the command has one.
int __wrap_semctl(int id, int member, int command, long argument)
{
    const Passage passage(Call::semctl);
    if (fails(Call::semctl)) return failedResult<int>(Call::semctl, Failure::Minus1);
    return __real_semctl(id, member, command, argument);
}

int __wrap_nanosleep(const timespec* duration, timespec* rest)
{
    const Passage passage(Call::nanosleep);
    sleepAsked.store(*duration);
    if (fails(Call::nanosleep)) return failedResult<int>(Call::nanosleep, Failure::Minus1);
    return __real_nanosleep(duration, rest);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex, const timespec* deadline)
{
    const Passage passage(Call::pthread_cond_timedwait);
    deadlineAsked.store(*deadline);
    if (fails(Call::pthread_cond_timedwait)) return failedResult<int>(Call::pthread_cond_timedwait, Failure::Number);
    return __real_pthread_cond_timedwait(cond, mutex, deadline);
}

time_t __wrap_time(time_t* now)
{
    const Passage passage(Call::time);
    if (fails(Call::time)) return failedResult<time_t>(Call::time, Failure::Minus1);
    if (!standsStill) return __real_time(now);
    if (now) *now = standing.seconds;
    return standing.seconds;
}

int __wrap_gettimeofday(timeval* now, void* zone)
{
    const Passage passage(Call::gettimeofday);
    if (fails(Call::gettimeofday)) return failedResult<int>(Call::gettimeofday, Failure::Minus1);
    if (!standsStill) return __real_gettimeofday(now, zone);
    *now = {standing.seconds, standing.nanoseconds / 1000};
    return 0;
}

int __wrap_close(int fd)
{
    const Passage passage(Call::close);
    if (fails(Call::close)) return failedResult<int>(Call::close, Failure::Minus1);
    const int result = __real_close(fd);
    if (result == -1 && errno == EBADF && fd != -1) stray.fetch_add(1);
    return result;
}

ssize_t __real_getdents64(int fd, void* entries, size_t bytes);

ssize_t __wrap_getdents64(int fd, void* entries, size_t bytes)
{
    const Passage passage(Call::getdents64);
    if (fails(Call::getdents64)) return failedResult<ssize_t>(Call::getdents64, Failure::Minus1);
    const ssize_t filled = __real_getdents64(fd, entries, bytes);
    for (ssize_t at = 0; kindsHidden && at < filled;) {
        auto* entry = reinterpret_cast<dirent64*>(static_cast<char*>(entries) + at);
        entry->d_type = DT_UNKNOWN;
        at += entry->d_reclen;
    }
    return filled;
}

int __wrap_clock_gettime(clockid_t clock, timespec* now)
{
    const Passage passage(Call::clock_gettime);
    if (fails(Call::clock_gettime)) return failedResult<int>(Call::clock_gettime, Failure::Minus1);
    if (timesRead < plannedTimes.size()) {
        const int64_t time = plannedTimes[timesRead++];
        *now = {time / kSecond, time % kSecond};
    } else if (standsStill && clock == CLOCK_REALTIME) {
        *now = standing.load();
    } else {
        return __real_clock_gettime(clock, now);
    }
    return 0;
}

void* __wrap_malloc(size_t size)
{
    const Passage passage(Call::malloc);
    if (fails(Call::malloc)) return failedResult<void*>(Call::malloc, Failure::Null);
    return born(__real_malloc(size));
}

void* __wrap_calloc(size_t count, size_t size)
{
    const Passage passage(Call::calloc);
    if (fails(Call::calloc)) return failedResult<void*>(Call::calloc, Failure::Null);
    return born(__real_calloc(count, size));
}

void* __wrap_realloc(void* block, size_t size)
{
    const Passage passage(Call::realloc);
    if (fails(Call::realloc)) return failedResult<void*>(Call::realloc, Failure::Null);
    return block ? __real_realloc(block, size) : born(__real_realloc(block, size));
}

int __wrap_posix_memalign(void** block, size_t alignment, size_t size)
{
    const Passage passage(Call::posix_memalign);
    if (fails(Call::posix_memalign)) return failedResult<int>(Call::posix_memalign, Failure::Number);
    const int result = __real_posix_memalign(block, alignment, size);
    if (result == 0) born(*block);
    return result;
}

void* __wrap_valloc(size_t size)
{
    const Passage passage(Call::valloc);
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
    const Passage passage(Call::mremap);
    if (fails(Call::mremap)) return failedResult<void*>(Call::mremap, Failure::Minus1);
    return __real_mremap(at, oldSize, newSize, flags);
}

int __wrap_open(const char* path, int flags, mode_t mode)
{
    const Passage passage(Call::open);
    if (fails(Call::open)) return failedResult<int>(Call::open, Failure::Minus1);
    return __real_open(path, flags, mode);
}

int __wrap_open64(const char* path, int flags, mode_t mode)
{
    const Passage passage(Call::open64);
    if (fails(Call::open64)) return failedResult<int>(Call::open64, Failure::Minus1);
    return __real_open64(path, flags, mode);
}
}
