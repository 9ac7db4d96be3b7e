// Twice as many threads as processors wait for each other. A lost wake-up hangs the test until its time limit, a
// doubled one breaks a count, and a missing order is a data race on plain memory that thread sanitizer reports.

#include <gtest/gtest.h>
#include <kemsd/sync.h>

#include <array>
#include <cstdint>

#include "sync/torture.h"

using namespace kemsd::test;

namespace {

// ---- Things that are counted: give() adds one, take() waits for one

class Semaphore {
public:
    explicit Semaphore(KEM_ULONG_T count) { KemSdCntSemCreate(nullptr, nullptr, count, 0, &semaphore_); }
    ~Semaphore() { KemSdCntSemClose(nullptr, &semaphore_); }
    KEM_STS_T take() { return KemSdCntSemRequest(nullptr, &semaphore_, -1); }
    KEM_STS_T give() { return KemSdCntSemClear(nullptr, &semaphore_, 1, nullptr); }
    long left()
    {
        KEM_LONG_T count = -1;
        KemSdCntSemClear(nullptr, &semaphore_, 0, &count);
        return count;
    }

protected:
    KEM_CNTSEMHDL_T semaphore_;
};

// Never waits, but asks again.
class PolledSemaphore : public Semaphore {
public:
    using Semaphore::Semaphore;
    KEM_STS_T take()
    {
        for (;;) {
            const KEM_STS_T sts = KemSdCntSemRequest(nullptr, &semaphore_, 0);
            if (sts != SDSTS_CNTSEM_TIMEOUT) return sts;
            sched_yield();
        }
    }
};

class CountingEvent {
public:
    explicit CountingEvent(KEM_ULONG_T count) { KemSdCountingEventCreate(nullptr, &event_, count); }
    ~CountingEvent() { KemSdCountingEventClose(nullptr, &event_); }
    KEM_STS_T take() { return KemSdCountingEventWait(nullptr, &event_); }
    KEM_STS_T give() { return KemSdCountingEventSet(nullptr, &event_); }
    long left() const { return event_.counter; }

protected:
    KEM_COUNTINGEVENT_T event_;
};

// Every other wait has no time at all, so that ends of waits and signals meet.
class TimedCountingEvent : public CountingEvent {
public:
    using CountingEvent::CountingEvent;
    KEM_STS_T take()
    {
        for (KEM_LONG_T milliseconds = 0;; milliseconds = 1 - milliseconds) {
            const KEM_STS_T sts = KemSdCountingEventTimedWait(nullptr, &event_, milliseconds);
            if (sts != SDSTS_EVENT_TIMEOUT) return sts;
        }
    }
};

// A ring of eight places under a critical section.
template <class Counted>
class Ring {
public:
    Ring() { KemSdCritSecInit(nullptr, &section_); }
    ~Ring() { KemSdCritSecDelete(nullptr, &section_); }

    // Both give the number of calls that failed.
    long put(long value)
    {
        long failed = places_.take() != 0;
        failed += KemSdCritSecEnter(nullptr, &section_) != 0;
        ring_[in_++ % ring_.size()] = value;
        failed += KemSdCritSecExit(nullptr, &section_) != 0;
        return failed + (values_.give() != 0);
    }

    long get(long& value)
    {
        long failed = values_.take() != 0;
        failed += KemSdCritSecEnter(nullptr, &section_) != 0;
        value = ring_[out_++ % ring_.size()];
        failed += KemSdCritSecExit(nullptr, &section_) != 0;
        return failed + (places_.give() != 0);
    }

    bool isEmpty() { return values_.left() == 0 && places_.left() == static_cast<long>(ring_.size()) && in_ == out_; }

private:
    std::array<long, 8> ring_{};
    size_t in_ = 0, out_ = 0;
    Counted places_{8}, values_{0};
    KEM_CRITSECHDL_T section_;
};

// Half of the threads put the numbers 1 to n into the ring, the other half get them out.
template <class Counted>
void everyValueArrivesOnce(long atLeast)
{
    const int pairs = threadCount() / 2;
    const long each = (atLeast / kShare + pairs - 1) / pairs;
    Ring<Counted> ring;
    long sum = 0;
    const long failed = together(2 * pairs, [&](int i) {
        long failures = 0, mine = 0, value = 0;
        for (long k = 0; k < each; ++k) {
            if (i % 2 == 0) {
                failures += ring.put(i / 2 * each + k + 1);
            } else {
                failures += ring.get(value);
                mine += value;
            }
        }
        __atomic_fetch_add(&sum, mine, __ATOMIC_RELAXED);
        return failures;
    });
    const long n = pairs * each;
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(sum, n * (n + 1) / 2);
    EXPECT_TRUE(ring.isEmpty());
}

// ---- Things that let one thread pass at a time, which none of them can be asked about: holds() says instead whether
// all calls have succeeded

class Passage {
public:
    bool holds(int) const { return sd::loadRelaxed(failures_) == 0; }

protected:
    void check(KEM_STS_T sts)
    {
        if (sts != 0) sd::storeRelaxed(failures_, 1);
    }

private:
    int failures_ = 0;
};

class SignalledEvent : public Passage {
public:
    SignalledEvent()
    {
        KemSdEventCreate(nullptr, &event_);
        KemSdEventClear(nullptr, &event_);
    }
    void acquire() { check(KemSdSignalWait(nullptr, &event_, -1)); }
    void release() { check(KemSdEventSignal(nullptr, &event_)); }

protected:
    KEM_EVENTHDL_T event_;
};

// All sleepers run for the one passage.
class ClearedEvent : public SignalledEvent {
public:
    void release() { check(KemSdEventClear(nullptr, &event_)); }
};

class StdEvent : public Passage {
public:
    StdEvent()
    {
        KemSdStdEventCreate(nullptr, &event_);
        release();
    }
    ~StdEvent() { KemSdStdEventClose(nullptr, &event_); }
    void acquire() { check(KemSdStdEventWait(nullptr, &event_)); }
    void release() { check(KemSdStdEventSet(nullptr, &event_)); }

private:
    KEM_STDEVENT_T event_;
};

class Mutex : public Passage {
public:
    Mutex() { KemSdMutexCreate(nullptr, nullptr, &mutex_); }
    ~Mutex() { KemSdMutexClose(nullptr, &mutex_); }
    void acquire()
    {
        const KEM_STS_T sts = KemSdMutexRequest(nullptr, &mutex_, 0);
        check(sts == SDSTS_MUTEX_BUSY ? KemSdMutexRequest(nullptr, &mutex_, -1) : sts);
    }
    void release() { check(KemSdMutexClear(nullptr, &mutex_)); }

private:
    KEM_MUTEXHDL_T mutex_;
};

template <class Lock>
void oneThreadAtATimeIsInside()
{
    Lock lock;
    torture(lock, 1000000, false);
    EXPECT_TRUE(lock.holds(0));
}

// Events need not be closed, so there is nothing to undo.
struct Gate {
    KEM_EVENTHDL_T event;
    Gate() { KemSdEventCreate(nullptr, &event); }
};

} // namespace

TEST(BlockingStress, EveryValueArrivesOnceThroughSemaphores) { everyValueArrivesOnce<Semaphore>(1000000); }
TEST(BlockingStress, EveryValueArrivesOnceThroughPolledSemaphores) { everyValueArrivesOnce<PolledSemaphore>(300000); }
TEST(BlockingStress, EveryValueArrivesOnceThroughCountingEvents) { everyValueArrivesOnce<CountingEvent>(500000); }
TEST(BlockingStress, EveryValueArrivesOnceThroughTimedCountingEvents)
{
    everyValueArrivesOnce<TimedCountingEvent>(500000);
}

TEST(BlockingStress, OneThreadAtATimeHasTheSignal) { oneThreadAtATimeIsInside<SignalledEvent>(); }
TEST(BlockingStress, OneThreadAtATimeHasTheClearedEvent) { oneThreadAtATimeIsInside<ClearedEvent>(); }
TEST(BlockingStress, OneThreadAtATimeHasTheStandardEvent) { oneThreadAtATimeIsInside<StdEvent>(); }
TEST(BlockingStress, OneThreadAtATimeHasTheMutex) { oneThreadAtATimeIsInside<Mutex>(); }

// Round after round one thread opens a gate for all others, and shuts it behind them while they wait at the next.
TEST(BlockingStress, EveryThreadPassesEveryGate)
{
    constexpr KEM_LONG_T kTimeouts[] = {-1, INT32_MAX};
    const int walkers = threadCount();
    const long rounds = 20000 / kShare;
    Gate gates[2], home;
    int there = 0; // at the next gate, or on the way to it
    const long failed = together(walkers + 1, [&](int i) {
        long failures = 0;
        for (long round = 0; round < rounds; ++round) {
            KEM_EVENTHDL_T* gate = &gates[round % 2].event;
            if (i < walkers) {
                failures += KemSdEventWait(nullptr, gate, kTimeouts[i % 2]) != 0;
                if (__atomic_add_fetch(&there, 1, __ATOMIC_RELAXED) == walkers) {
                    sd::storeRelaxed(there, 0);
                    failures += KemSdEventClear(nullptr, &home.event) != 0;
                }
            } else {
                failures += KemSdEventClear(nullptr, gate) != 0;
                failures += KemSdSignalWait(nullptr, &home.event, -1) != 0;
                failures += KemSdEventSet(nullptr, gate) != 0;
            }
        }
        return failures;
    });
    EXPECT_EQ(failed, 0);
}
