// Spinlocks and lightweight locks, both variants: a pair that nobody disturbs, and two threads that want the same lock.
#include <benchmark/benchmark.h>
#include <kemsd/sync.h>
#include <pthread.h>

#include <mutex>
#include <string>

#include "support/floorlock.h"
#include "support/floorlwlock.h"
#include "support/processor.h"
#include "support/report.h"

#ifdef KEMSD_BENCH_CK
// The umbrella header is C alone; these two are enough.
#include <spinlock/fas.h>
#include <spinlock/ticket.h>
#endif
#ifdef KEMSD_BENCH_ABSL
#include <absl/synchronization/mutex.h>
#endif

namespace kemsd::bench {
namespace {

enum class Variant { exchange, ticket };

// ---- The contenders: prepare() makes the lock free, before any thread uses it

template <Variant variant>
struct Ours {
    alignas(64) static inline KEM_SPINLOCK_T lock;
    KEM_THDID_T self = pthread_self();

    static void prepare()
    {
        // No other lock of the library exists in this program, so the variant may change between benchmarks.
        KemSdSetHardwareAcceleration(variant == Variant::ticket);
        KemSdSpinlockInit(nullptr, &lock);
    }
    void acquire() const { KemSdSpinlockAcquire(&lock, self); }
    void release() const { KemSdSpinlockRelease(&lock); }
};

template <Variant variant>
struct Floor {
    alignas(64) static inline KEM_SPINLOCK_T lock;
    KEM_THDID_T self = pthread_self();

    static void prepare()
    {
        floorUseTicketLocks(variant == Variant::ticket);
        lock = {};
        if (variant == Variant::exchange) lock.xchg.slock = 1;
    }
    void acquire() const { floorSpinlockAcquire(&lock, self); }
    void release() const { floorSpinlockRelease(&lock); }
};

template <Variant variant>
struct InlinedFloor {
    alignas(64) static inline KEM_SPINLOCK_T lock;
    KEM_THDID_T self = pthread_self();

    static void prepare()
    {
        lock = {};
        if (variant == Variant::exchange) lock.xchg.slock = 1;
    }
    void acquire() const
    {
        if constexpr (variant == Variant::ticket)
            floorAcquireTicket(lock.ticket, self);
        else
            floorAcquireExchange(lock.xchg, self);
    }
    void release() const
    {
        if constexpr (variant == Variant::ticket)
            floorReleaseTicket(lock.ticket);
        else
            floorReleaseExchange(lock.xchg);
    }
};

template <Variant variant>
struct OursLW {
    alignas(64) static inline KEM_LWSPINLOCK_T lock;

    static void prepare()
    {
        KemSdSetHardwareAcceleration(variant == Variant::ticket);
        KemSdLWSpinlockInit(&lock);
    }
    void acquire() const { KemSdLWSpinlockAcquire(&lock); }
    void release() const { KemSdLWSpinlockRelease(&lock); }
};

template <Variant variant>
struct FloorLW {
    alignas(64) static inline KEM_LWSPINLOCK_T lock;

    static void prepare()
    {
        floorUseTicketLocks(variant == Variant::ticket);
        lock = {};
        if (variant == Variant::exchange) lock.xchg.slock = 1;
    }
    void acquire() const { floorLWSpinlockAcquire(&lock); }
    void release() const { floorLWSpinlockRelease(&lock); }
};

template <Variant variant>
struct InlinedFloorLW {
    alignas(64) static inline KEM_LWSPINLOCK_T lock;

    static void prepare()
    {
        lock = {};
        if (variant == Variant::exchange) lock.xchg.slock = 1;
    }
    void acquire() const
    {
        if constexpr (variant == Variant::ticket)
            floorAcquireLWTicket(lock.ticket);
        else
            floorAcquireLWExchange(lock.xchg);
    }
    void release() const
    {
        if constexpr (variant == Variant::ticket)
            floorReleaseLWTicket(lock.ticket);
        else
            floorReleaseLWExchange(lock.xchg);
    }
};

struct PthreadSpin {
    alignas(64) static inline pthread_spinlock_t lock;
    static void prepare() { pthread_spin_init(&lock, PTHREAD_PROCESS_PRIVATE); }
    void acquire() const { pthread_spin_lock(&lock); }
    void release() const { pthread_spin_unlock(&lock); }
};

struct PthreadMutex {
    alignas(64) static inline pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    static void prepare() {}
    void acquire() const { pthread_mutex_lock(&lock); }
    void release() const { pthread_mutex_unlock(&lock); }
};

template <class Mutex>
struct StdMutex {
    alignas(64) static inline Mutex lock;
    static void prepare() {}
    void acquire() const { lock.lock(); }
    void release() const { lock.unlock(); }
};

#ifdef KEMSD_BENCH_CK
struct CkFas {
    alignas(64) static inline ck_spinlock_fas_t lock = CK_SPINLOCK_FAS_INITIALIZER;
    static void prepare() {}
    void acquire() const { ck_spinlock_fas_lock(&lock); }
    void release() const { ck_spinlock_fas_unlock(&lock); }
};

struct CkTicket {
    alignas(64) static inline ck_spinlock_ticket_t lock = CK_SPINLOCK_TICKET_INITIALIZER;
    static void prepare() {}
    void acquire() const { ck_spinlock_ticket_lock(&lock); }
    void release() const { ck_spinlock_ticket_unlock(&lock); }
};
#endif

#ifdef KEMSD_BENCH_ABSL
struct AbslMutex {
    alignas(64) static inline absl::Mutex lock{absl::kConstInit};
    static void prepare() {}
    void acquire() const { lock.Lock(); }
    void release() const { lock.Unlock(); }
};
#endif

// ---- The loads

template <class Lock>
void uncontended(benchmark::State& state)
{
    Lock::prepare();
    const Lock lock;
    for (auto _ : state) {
        lock.acquire();
        benchmark::ClobberMemory();
        lock.release();
    }
}

struct alignas(64) Guarded {
    volatile uint64_t first, second;
} guarded;

// What a thread does between two passages: about as long as a passage.
uint64_t ownWork(uint64_t value)
{
    for (int i = 0; i < 16; i++) value = value * 6364136223846793005u + 1442695040888963407u;
    return value;
}

template <class Lock>
void contended(benchmark::State& state)
{
    const Pinned pinned(state.thread_index(), state.threads());
    if (state.thread_index() == 0) Lock::prepare(); // the others wait for the loop's common start
    const Lock lock;
    uint64_t own = static_cast<uint64_t>(state.thread_index());
    for (auto _ : state) {
        lock.acquire();
        guarded.first = guarded.first + 1;
        guarded.second = guarded.second + 1;
        lock.release();
        benchmark::DoNotOptimize(own = ownWork(own));
    }
}

template <class Lock>
void addLock(const std::string& variant, const std::string& name)
{
    add(variant + "/uncontended", name, uncontended<Lock>);
    add(variant + "/2threads", name, contended<Lock>)->Threads(2)->UseRealTime();
}

void addPeers(const std::string& variant)
{
    addLock<PthreadSpin>(variant, "pthread_spin");
    addLock<PthreadMutex>(variant, "pthread_mutex");
    addLock<StdMutex<std::mutex>>(variant, "std::mutex");
    addLock<StdMutex<std::recursive_mutex>>(variant, "std::recursive_mutex");
#ifdef KEMSD_BENCH_CK
    addLock<CkFas>(variant, "ck_fas");
    addLock<CkTicket>(variant, "ck_ticket");
#endif
#ifdef KEMSD_BENCH_ABSL
    addLock<AbslMutex>(variant, "absl::Mutex");
#endif
}

template <template <Variant> class Lock, template <Variant> class Least, template <Variant> class Inlined>
void addBothVariants(const std::string& prefix)
{
    addLock<Lock<Variant::exchange>>(prefix + "exchange", kOurs);
    addLock<Least<Variant::exchange>>(prefix + "exchange", kFloor);
    addLock<Inlined<Variant::exchange>>(prefix + "exchange", kInlinedFloor);
    addPeers(prefix + "exchange");
    addLock<Lock<Variant::ticket>>(prefix + "ticket", kOurs);
    addLock<Least<Variant::ticket>>(prefix + "ticket", kFloor);
    addLock<Inlined<Variant::ticket>>(prefix + "ticket", kInlinedFloor);
    addPeers(prefix + "ticket");
}

void addBenchmarks()
{
    addBothVariants<Ours, Floor, InlinedFloor>("");
    addBothVariants<OursLW, FloorLW, InlinedFloorLW>("lw");
}

} // namespace
} // namespace kemsd::bench

int main(int argc, char** argv)
{
    using namespace kemsd::bench;
    return run(argc, argv,
               {"lock", "two threads: a section of two increments, own work of some 20 ns between", addBenchmarks});
}
