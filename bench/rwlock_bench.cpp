// The reader-writer lock: passages that nobody disturbs, a mix of readers and writers on two threads, and how long a
// writer waits while readers never cease.
#include <benchmark/benchmark.h>
#include <kemsd/sync.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/floorrwlock.h"
#include "support/processor.h"
#include "support/report.h"

#ifdef KEMSD_BENCH_CK
#include <ck_pflock.h>
#include <ck_rwlock.h>
#endif
#ifdef KEMSD_BENCH_ABSL
#include <absl/synchronization/mutex.h>
#endif

namespace kemsd::bench {
namespace {

using Clock = std::chrono::steady_clock;

// ---- The contenders: an object is a thread's way through the one lock of its kind; prepare() makes the lock free

struct Ours {
    alignas(64) static inline KEM_RWLOCK_T lock;
    KEM_SYNCCTX_T context{};

    static void prepare()
    {
        KemRWLockInit(nullptr, 0, &lock, TRUE, RWLOCK_DATCACHE_DATCBPOOLLOCK);
        KEM_SDSYNC_BUSYSPIN_UPPERLIMIT = kFloorRwSpins; // whatever the calibration found
    }
    ~Ours() { KemRWLockFreeQNodes(&context); }
    void startRead() { KemSdStartRead(nullptr, &context, &lock); }
    void startWrite() { KemSdStartWrite(nullptr, &context, &lock); }
    void endRead() { KemSdEndRW(nullptr, &context, &lock); }
    void endWrite() { KemSdEndRW(nullptr, &context, &lock); }
};

struct Floor {
    alignas(64) static inline KEM_RWLOCK_T lock;
    KEM_SYNCCTX_T context{};

    static void prepare()
    {
        lock = {};
        lock.category = RWLOCK_DATCACHE_DATCBPOOLLOCK;
    }
    ~Floor() { floorRwFreeNodes(&context); }
    void startRead() { floorRwStartRead(&context, &lock); }
    void startWrite() { floorRwStartWrite(&context, &lock); }
    void endRead() { floorRwEnd(&context, &lock); }
    void endWrite() { floorRwEnd(&context, &lock); }
};

struct PthreadRwlock {
    alignas(64) static inline pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
    static void prepare() {}
    void startRead() { pthread_rwlock_rdlock(&lock); }
    void startWrite() { pthread_rwlock_wrlock(&lock); }
    void endRead() { pthread_rwlock_unlock(&lock); }
    void endWrite() { pthread_rwlock_unlock(&lock); }
};

struct StdSharedMutex {
    alignas(64) static inline std::shared_mutex lock;
    static void prepare() {}
    void startRead() { lock.lock_shared(); }
    void startWrite() { lock.lock(); }
    void endRead() { lock.unlock_shared(); }
    void endWrite() { lock.unlock(); }
};

#ifdef KEMSD_BENCH_ABSL
struct AbslMutex {
    alignas(64) static inline absl::Mutex lock{absl::kConstInit};
    static void prepare() {}
    void startRead() { lock.ReaderLock(); }
    void startWrite() { lock.Lock(); }
    void endRead() { lock.ReaderUnlock(); }
    void endWrite() { lock.Unlock(); }
};
#endif

#ifdef KEMSD_BENCH_CK
struct CkRwlock {
    alignas(64) static inline ck_rwlock_t lock = CK_RWLOCK_INITIALIZER;
    static void prepare() {}
    void startRead() { ck_rwlock_read_lock(&lock); }
    void startWrite() { ck_rwlock_write_lock(&lock); }
    void endRead() { ck_rwlock_read_unlock(&lock); }
    void endWrite() { ck_rwlock_write_unlock(&lock); }
};

struct CkPflock {
    alignas(64) static inline ck_pflock_t lock = CK_PFLOCK_INITIALIZER;
    static void prepare() {}
    void startRead() { ck_pflock_read_lock(&lock); }
    void startWrite() { ck_pflock_write_lock(&lock); }
    void endRead() { ck_pflock_read_unlock(&lock); }
    void endWrite() { ck_pflock_write_unlock(&lock); }
};
#endif

// ---- Nobody in the way

template <class Lock>
void uncontendedRead(benchmark::State& state)
{
    Lock::prepare();
    Lock lock;
    for (auto _ : state) {
        lock.startRead();
        benchmark::ClobberMemory();
        lock.endRead();
    }
}

template <class Lock>
void uncontendedWrite(benchmark::State& state)
{
    Lock::prepare();
    Lock lock;
    for (auto _ : state) {
        lock.startWrite();
        benchmark::ClobberMemory();
        lock.endWrite();
    }
}

// ---- Two threads

struct alignas(64) Guarded {
    volatile uint64_t first, second;
} guarded;

uint64_t stirred(uint64_t value) { return value * 6364136223846793005u + 1442695040888963407u; }

// What a thread does between two passages: about as long as a passage.
uint64_t ownWork(uint64_t value)
{
    for (int i = 0; i < 16; i++) value = stirred(value);
    return value;
}

template <class Lock>
void mixed(benchmark::State& state)
{
    constexpr uint64_t kWritesInTwenty = 1;
    const Pinned pinned(state.thread_index(), state.threads());
    if (state.thread_index() == 0) Lock::prepare(); // the others wait for the loop's common start
    Lock lock;
    uint64_t own = static_cast<uint64_t>(state.thread_index());
    for (auto _ : state) {
        if ((own >> 33) % 20 < kWritesInTwenty) {
            lock.startWrite();
            guarded.first = guarded.first + 1;
            guarded.second = guarded.second + 1;
            lock.endWrite();
        } else {
            lock.startRead();
            benchmark::DoNotOptimize(guarded.first + guarded.second);
            lock.endRead();
        }
        benchmark::DoNotOptimize(own = ownWork(own));
    }
}

// ---- A writer among readers that never cease

// Two overlapping readers; one where the writer would not have a processor of its own beside two. They let go when a
// writer has waited so long that it would starve.
int readerCount() { return sysconf(_SC_NPROCESSORS_ONLN) > 2 ? 2 : 1; }

template <class Lock>
class Readers {
public:
    static constexpr auto kEnough = std::chrono::milliseconds(20);

    Readers()
    {
        for (int i = 0; i < readerCount(); i++) threads_.emplace_back([this, i] { read(i); });
        while (load(ready_) < readerCount()) sched_yield();
    }
    ~Readers()
    {
        store(over_, 1);
        for (std::thread& thread : threads_) thread.join();
    }

    // The writer's wait in seconds.
    double writerPasses(Lock& lock)
    {
        const Clock::time_point begin = Clock::now();
        store(writerSince_, begin.time_since_epoch().count());
        lock.startWrite();
        const Clock::time_point inside = Clock::now();
        guarded.first = guarded.first + 1;
        guarded.second = guarded.second + 1;
        lock.endWrite();
        store(writerSince_, 0);
        return std::chrono::duration<double>(inside - begin).count();
    }

private:
    template <class Word>
    static Word load(const Word& word)
    {
        return __atomic_load_n(&word, __ATOMIC_RELAXED);
    }
    template <class Word, class Value>
    static void store(Word& word, Value value)
    {
        __atomic_store_n(&word, static_cast<Word>(value), __ATOMIC_RELAXED);
    }

    bool starving() const
    {
        const Clock::rep since = load(writerSince_);
        return since != 0 && Clock::now() - Clock::time_point(Clock::duration(since)) > kEnough;
    }
    void read(int index)
    {
        const Pinned pinned(index + 1, readerCount() + 1);
        Lock lock;
        uint64_t own = static_cast<uint64_t>(index);
        __atomic_fetch_add(&ready_, 1, __ATOMIC_RELAXED);
        for (long round = 0; !load(over_); round++) {
            lock.startRead();
            benchmark::DoNotOptimize(own = ownWork(own + guarded.first));
            lock.endRead();
            while (round % 64 == 0 && starving() && !load(over_)) sched_yield();
        }
    }

    std::vector<std::thread> threads_;
    int ready_ = 0;
    int over_ = 0;
    Clock::rep writerSince_ = 0; // 0: no writer waits
};

// The longest wait of each contender, in seconds, over all rounds.
std::map<std::string, double>& worstWaits()
{
    static std::map<std::string, double> waits;
    return waits;
}

template <class Lock>
void writerAmongReaders(benchmark::State& state, const std::string& name)
{
    Lock::prepare();
    Readers<Lock> readers;
    const Pinned pinned(0, readerCount() + 1); // after them: they would inherit its processor
    Lock lock;
    lock.startWrite(); // what the first passage allocates
    lock.endWrite();
    double& worst = worstWaits()[name];
    uint64_t own = 1;
    for (auto _ : state) {
        for (int i = 0; i < 64; i++) benchmark::DoNotOptimize(own = ownWork(own)); // readers in between
        const double wait = readers.writerPasses(lock);
        worst = std::max(worst, wait);
        state.SetIterationTime(wait);
    }
}

template <class Lock>
void addLock(const std::string& name)
{
    add("read/uncontended", name, uncontendedRead<Lock>);
    add("write/uncontended", name, uncontendedWrite<Lock>);
    add("mix-95-5/2threads", name, mixed<Lock>)->Threads(2)->UseRealTime();
    add("writer/readers", name, [name](benchmark::State& state) { writerAmongReaders<Lock>(state, name); })
        ->UseManualTime()
        ->Iterations(1000);
}

void addBenchmarks()
{
    addLock<Ours>(kOurs);
    addLock<Floor>(kFloor);
    addLock<PthreadRwlock>("pthread_rwlock");
    addLock<StdSharedMutex>("std::shared_mutex");
#ifdef KEMSD_BENCH_ABSL
    addLock<AbslMutex>("absl::Mutex");
#endif
#ifdef KEMSD_BENCH_CK
    addLock<CkRwlock>("ck_rwlock");
    addLock<CkPflock>("ck_pflock");
#endif
}

void printWorstWaits()
{
    if (worstWaits().empty()) return;
    printf("writer/readers, the longest wait of all rounds, microseconds:\n");
    for (const auto& [name, wait] : worstWaits()) printf("  %s %.1f", name.c_str(), wait * 1e6);
    printf("\n\n");
}

} // namespace
} // namespace kemsd::bench

int main(int argc, char** argv)
{
    using namespace kemsd::bench;
    const int status = run(argc, argv,
                           {"rwlock",
                            "two threads: sections of two words, own work of some 20 ns between; writer/readers: the "
                            "mean wait of a writer among ceaseless readers (" +
                                std::to_string(readerCount()) + "), which let go after 20 ms",
                            addBenchmarks});
    printWorstWaits();
    return status;
}
