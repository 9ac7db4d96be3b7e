// Mutexes, events and semaphores: pairs of calls that nobody disturbs, and two threads that wake each other in turn.
#include <benchmark/benchmark.h>
#include <kemsd/sync.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <semaphore>
#include <string>
#include <thread>

#include "support/floorwait.h"
#include "support/processor.h"
#include "support/report.h"

namespace kemsd::bench {
namespace {

// ---- Ours and the floors: give() lets one take() pass. They begin with nothing given, the mutexes free. The bare
// calls of the C library, in the place of use and with their results unread, stand as the inlined floors.

struct OurMutex {
    KEM_MUTEXHDL_T mutex;
    OurMutex() { KemSdMutexCreate(nullptr, nullptr, &mutex); }
    void take() { KemSdMutexRequest(nullptr, &mutex, -1); }
    void give() { KemSdMutexClear(nullptr, &mutex); }
};
struct FloorMutex {
    KEM_MUTEXHDL_T mutex = PTHREAD_MUTEX_INITIALIZER;
    void take() { floorMutexRequest(nullptr, &mutex); }
    void give() { floorMutexClear(nullptr, &mutex); }
};
struct BareMutex {
    KEM_MUTEXHDL_T mutex = PTHREAD_MUTEX_INITIALIZER;
    void take() { pthread_mutex_lock(&mutex); }
    void give() { pthread_mutex_unlock(&mutex); }
};

// What is waited for is a clear event.
struct OurEvent {
    KEM_EVENTHDL_T event;
    OurEvent() { KemSdEventCreate(nullptr, &event); }
    void give() { KemSdEventClear(nullptr, &event); }
    void withdraw() { KemSdEventSet(nullptr, &event); }
    void wait() { KemSdEventWait(nullptr, &event, -1); }
    void take() { KemSdSignalWait(nullptr, &event, -1); }
};
struct FloorEvent {
    KEM_EVENTHDL_T event{PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, 1};
    void give() { floorEventClear(nullptr, &event); }
    void withdraw() { floorEventSet(nullptr, &event); }
    void wait() { floorEventWait(nullptr, &event); }
    void take() { floorSignalWait(nullptr, &event); }
};
struct BareEvent {
    KEM_EVENTHDL_T event{PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, 1};
    void give()
    {
        pthread_mutex_lock(&event.mutex);
        event.iReady = 0;
        pthread_cond_broadcast(&event.cond);
        pthread_mutex_unlock(&event.mutex);
    }
    void withdraw()
    {
        pthread_mutex_lock(&event.mutex);
        event.iReady = 1;
        pthread_mutex_unlock(&event.mutex);
    }
    void wait() { waitAndLeave(0); }
    void take() { waitAndLeave(1); }

private:
    void waitAndLeave(KEM_LONG_T ready)
    {
        pthread_mutex_lock(&event.mutex);
        while (event.iReady) pthread_cond_wait(&event.cond, &event.mutex);
        event.iReady = ready;
        pthread_mutex_unlock(&event.mutex);
    }
};

struct OurStdEvent {
    KEM_STDEVENT_T event;
    OurStdEvent() { KemSdStdEventCreate(nullptr, &event); }
    void give() { KemSdStdEventSet(nullptr, &event); }
    void take() { KemSdStdEventWait(nullptr, &event); }
};
struct FloorStdEvent {
    KEM_STDEVENT_T event{PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, FALSE};
    void give() { floorStdEventSet(nullptr, &event); }
    void take() { floorStdEventWait(nullptr, &event); }
};

struct OurCountingEvent {
    KEM_COUNTINGEVENT_T event;
    OurCountingEvent() { KemSdCountingEventCreate(nullptr, &event, 0); }
    void give() { KemSdCountingEventSet(nullptr, &event); }
    void take() { KemSdCountingEventWait(nullptr, &event); }
};
struct FloorCountingEvent {
    KEM_COUNTINGEVENT_T event{PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, 0};
    void give() { floorCountingEventSet(nullptr, &event); }
    void take() { floorCountingEventWait(nullptr, &event); }
};
struct BareCountingEvent {
    KEM_COUNTINGEVENT_T event{PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, 0};
    void give()
    {
        pthread_mutex_lock(&event.mutex);
        ++event.counter;
        pthread_cond_signal(&event.cond);
        pthread_mutex_unlock(&event.mutex);
    }
    void take()
    {
        pthread_mutex_lock(&event.mutex);
        while (!event.counter) pthread_cond_wait(&event.cond, &event.mutex);
        --event.counter;
        pthread_mutex_unlock(&event.mutex);
    }
};

struct OurCntSem {
    KEM_CNTSEMHDL_T semaphore;
    OurCntSem() { KemSdCntSemCreate(nullptr, nullptr, 0, 0, &semaphore); }
    void give() { KemSdCntSemClear(nullptr, &semaphore, 1, nullptr); }
    void take() { KemSdCntSemRequest(nullptr, &semaphore, -1); }
};
struct FloorCntSem {
    KEM_CNTSEMHDL_T semaphore;
    FloorCntSem() { sem_init(&semaphore, 0, 0); }
    void give() { floorCntSemClear(nullptr, &semaphore); }
    void take() { floorCntSemRequest(nullptr, &semaphore); }
};

// ---- Peers

struct StdMutex {
    std::mutex mutex;
    void take() { mutex.lock(); }
    void give() { mutex.unlock(); }
};

struct PlainSem {
    sem_t semaphore;
    PlainSem() { sem_init(&semaphore, 0, 0); }
    void give() { sem_post(&semaphore); }
    void take() { sem_wait(&semaphore); }
};

struct BinarySemaphore {
    std::binary_semaphore semaphore{0};
    void give() { semaphore.release(); }
    void take() { semaphore.acquire(); }
};

struct ConditionVariable {
    std::mutex mutex;
    std::condition_variable cond;
    bool given = false;
    void give()
    {
        const std::lock_guard held(mutex);
        given = true;
        cond.notify_one();
    }
    void take()
    {
        std::unique_lock held(mutex);
        cond.wait(held, [this] { return given; });
        given = false;
    }
};

// One word and the kernel, without spinning: 1 given, 0 not.
struct Futex {
    uint32_t word = 0;
    void give()
    {
        __atomic_store_n(&word, 1, __ATOMIC_RELEASE);
        syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }
    void take()
    {
        while (__atomic_exchange_n(&word, 0, __ATOMIC_ACQUIRE) == 0)
            syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
    }
};

// ---- The loads

template <class Mutex>
void takeAndGive(benchmark::State& state)
{
    alignas(64) static Mutex mutex;
    for (auto _ : state) {
        mutex.take();
        mutex.give();
    }
}

template <class Event>
void giveAndWithdraw(benchmark::State& state)
{
    alignas(64) static Event event;
    for (auto _ : state) {
        event.give();
        event.withdraw();
    }
}

template <class Event>
void waitForGiven(benchmark::State& state)
{
    alignas(64) static Event event;
    event.give();
    for (auto _ : state) event.wait();
}

template <class Object>
void giveAndTake(benchmark::State& state)
{
    alignas(64) static Object object;
    for (auto _ : state) {
        object.give();
        object.take();
    }
}

// Both threads make the same number of rounds, so nothing is left over.
template <class Object>
void pingPong(benchmark::State& state)
{
    alignas(64) static Object ping;
    alignas(64) static Object pong;
    const Pinned pinned(state.thread_index(), state.threads());
    if (state.thread_index() == 0) {
        for (auto _ : state) {
            ping.give();
            pong.take();
        }
    } else {
        for (auto _ : state) {
            ping.take();
            pong.give();
        }
    }
}

template <class Object>
void addPingPong(const std::string& load, const std::string& name)
{
    add(load, name, pingPong<Object>)->Threads(2)->UseRealTime();
}

template <class Ours, class Floor, class Bare>
void addSignal(const std::string& name)
{
    const std::string pair = name + "/pair";
    add(pair, kOurs, giveAndTake<Ours>);
    add(pair, kFloor, giveAndTake<Floor>);
    add(pair, kInlinedFloor, giveAndTake<Bare>);
    add(pair, "std::condition_var", giveAndTake<ConditionVariable>);
    add(pair, "std::binary_semaphore", giveAndTake<BinarySemaphore>);
    add(pair, "sem_t", giveAndTake<PlainSem>);

    const std::string turns = name + "/pingpong";
    addPingPong<Ours>(turns, kOurs);
    addPingPong<Floor>(turns, kFloor);
    addPingPong<ConditionVariable>(turns, "std::condition_var");
    addPingPong<BinarySemaphore>(turns, "std::binary_semaphore");
    addPingPong<PlainSem>(turns, "sem_t");
    addPingPong<Futex>(turns, "futex");
}

void addBenchmarks()
{
    add("mutex/pair", kOurs, takeAndGive<OurMutex>);
    add("mutex/pair", kFloor, takeAndGive<FloorMutex>);
    add("mutex/pair", kInlinedFloor, takeAndGive<BareMutex>);
    add("mutex/pair", "std::mutex", takeAndGive<StdMutex>);
    add("event/pair", kOurs, giveAndWithdraw<OurEvent>);
    add("event/pair", kFloor, giveAndWithdraw<FloorEvent>);
    add("event/pair", kInlinedFloor, giveAndWithdraw<BareEvent>);
    add("event/wait", kOurs, waitForGiven<OurEvent>);
    add("event/wait", kFloor, waitForGiven<FloorEvent>);
    add("event/wait", kInlinedFloor, waitForGiven<BareEvent>);
    addSignal<OurEvent, FloorEvent, BareEvent>("signalwait");
    addSignal<OurStdEvent, FloorStdEvent, BareCountingEvent>("stdevent");
    addSignal<OurCountingEvent, FloorCountingEvent, BareCountingEvent>("countingevent");
    addSignal<OurCntSem, FloorCntSem, PlainSem>("cntsem");
}

} // namespace
} // namespace kemsd::bench

int main(int argc, char** argv)
{
    using namespace kemsd::bench;
    // The C library spares a process that has never had a second thread its locked instructions.
    std::thread([] {}).join();
    return run(
        argc, argv,
        {"wait", "no context; two threads, each on a processor of its own, wake each other in turn", addBenchmarks});
}
