// The calibration of the spin bound: how many rounds of the spin-wait hint last as long as handing the processor from
// one thread to another. Beyond that, yielding is cheaper than spinning.
//
// Two threads bounce a byte over two pipes; then a waiting lock's spin loop is timed; the quotient is the bound. There
// is no lock. The record and the pipes live on the calibrating thread's stack, the second thread's on that of the
// first: who starts a thread waits for its end, come what may. Each thread owns the end that it writes, and closes it
// when it gives up: the other one's read then finds the end of the pipe and gives up too, instead of waiting for ever.

#include "sd/sdsyncinit.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <kemsd/ipc.h>
#include <kemsd/os.h>

#include "sd/base/spinlock.h"

constinit volatile int64_t KEM_SDSYNC_BUSYSPIN_TEST_COND = 0;
constinit KEM_ULONG_T KEM_SDSYNC_CPUCOUNT = 0;

constinit thread_local bool sd::settingUpLocks = false;

namespace {

using sd::loadAcquire;
using sd::loadRelaxed;
using sd::pauseHint;
using sd::spinBound;
using sd::storeRelaxed;
using sd::storeRelease;

constexpr int64_t kRoundTrips = 10000;
constexpr int64_t kTestRounds = 400000;
constexpr KEM_ULONG_T kSettlingMilliseconds = 100;
constexpr KEM_THDSTACKSIZE_T kStackBytes = 1024; // what every thread really gets is the thread layer's matter
constexpr KEM_ULONG_T kPipeBytes = 1;

// ---- The clock

timespec now()
{
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time;
}

double microseconds(const timespec& start, const timespec& end)
{
    const int64_t nanoseconds = (end.tv_sec - start.tv_sec) * 1000000000 + (end.tv_nsec - start.tv_nsec);
    return static_cast<double>(nanoseconds) / 1000.0;
}

// ---- Threads

// A thread that measures. What it works on is its starter's, so that its end is waited for even when the system does
// not let it be joined.
class Measurer {
public:
    using Body = KEM_STS_T (*)(KemSyncEnvInitThrdArgs*);

    Measurer(Body body, KemSyncEnvInitThrdArgs* args) : body_(body), args_(args) {}

    KEM_STS_T start() { return KemSdThreadCreate(nullptr, run, nullptr, kStackBytes, this, &id_, &handle_); }

    KEM_STS_T join()
    {
        const KEM_STS_T sts = KemSdThreadJoin(nullptr, &handle_);
        if (sts == 0) return 0;
        // Acquire: pairs with the thread's last step.
        while (loadAcquire(ended_) == 0) KemSdSleep(nullptr, 1);
        KemSdThreadDelete(nullptr, &handle_);
        return sts;
    }

private:
    static void* run(void* measurer)
    {
        const auto self = static_cast<Measurer*>(measurer);
        sd::settingUpLocks = true;
        blockPipeSignal();
        self->body_(self->args_);
        storeRelease(self->ended_, 1); // the last step on anything of the starter's
        return nullptr;
    }

    // A pipe that breaks is a status, and no reason to end the process.
    static void blockPipeSignal()
    {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    }

    Body body_;
    KemSyncEnvInitThrdArgs* args_;
    KEM_THDID_T id_ = 0;
    KEM_THDHDL_T handle_ = 0;
    int ended_ = 0;
};

// ---- The ping-pong

// An anonymous pipe. One handle is both its ends, so that each descriptor is closed once.
struct Pipe {
    KEM_PIPEHDL_T handle{-1, -1, nullptr};
    const KEM_STS_T sts = KemSdPipeCreate(nullptr, &handle, &handle, kPipeBytes);

    Pipe() = default;
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe()
    {
        if (sts == 0) KemSdPipeClose(nullptr, &handle);
    }
};

KEM_STS_T send(KEM_PIPEHDL_T* pipe)
{
    char byte = 'c';
    KEM_ULONG_T count;
    return KemSdPipeWrite(nullptr, pipe, &byte, 1, &count);
}

// The end of the pipe is a failure: the other thread has given up.
KEM_STS_T receive(KEM_PIPEHDL_T* pipe)
{
    char byte;
    KEM_ULONG_T count;
    const KEM_STS_T sts = KemSdPipeRead(nullptr, pipe, &byte, 1, &count);
    return sts == 0 && count == 0 ? SDSTS_PIPE_IO : sts;
}

// Says why a thread gives up, then lets the other one's read return.
KEM_STS_T giveUp(KEM_STS_T& own, KEM_STS_T sts, KEM_PIPEHDL_T* out)
{
    storeRelease(own, sts); // pairs with the other thread's look at it after its read
    close(out->iFdWrite);
    out->iFdWrite = -1;
    return sts;
}

// Yields like a lock's waiter: under a real-time policy the second thread might never get the processor otherwise.
void awaitSecond(const KemSyncEnvInitThrdArgs& args)
{
    // Acquire: pairs with the second thread's first step.
    for (int64_t round = 0; loadAcquire(args.lReady2) == 0;) {
        pauseHint();
        if (++round < spinBound()) continue;
        sched_yield();
        round = 0;
    }
}

KEM_STS_T bounce(KemSyncEnvInitThrdArgs& args)
{
    awaitSecond(args);
    storeRelease(args.lReady1, 1);
    KemSdSleep(nullptr, kSettlingMilliseconds); // by then the second thread is blocked in its read
    const timespec start = now();
    KEM_STS_T sts = send(args.pPipeOut1);
    for (int64_t i = 0; sts == 0 && i < args.lNumOfTries && loadAcquire(args.sts2) == 0; ++i) {
        sts = receive(args.pPipeIn1);
        if (sts == 0 && i < args.lNumOfTries - 1) sts = send(args.pPipeOut1);
    }
    if (sts != 0) return giveUp(args.sts1, sts, args.pPipeOut1);
    args.lDiffTimeCtxSwitch = microseconds(start, now());
    return 0;
}

KEM_STS_T runThreads(KemSyncEnvInitThrdArgs& args)
{
    Measurer first(ovSdSyncMeasureContextSwitch1, &args);
    if (const KEM_STS_T sts = first.start(); sts != 0) return sts;
    if (const KEM_STS_T sts = first.join(); sts != 0) return sts;
    return args.sts1 != 0 ? args.sts1 : args.sts2;
}

// Stores how many microseconds all round trips took.
KEM_STS_T measureRoundTrips(double& taken)
{
    Pipe toFirst;
    if (toFirst.sts != 0) return toFirst.sts;
    Pipe toSecond;
    if (toSecond.sts != 0) return toSecond.sts;
    KemSyncEnvInitThrdArgs args{};
    args.pPipeIn1 = args.pPipeOut2 = &toFirst.handle;
    args.pPipeIn2 = args.pPipeOut1 = &toSecond.handle;
    args.lNumOfTries = kRoundTrips;
    const KEM_STS_T sts = runThreads(args);
    taken = args.lDiffTimeCtxSwitch;
    return sts;
}

// ---- The spin test

// The same shape as a lock's busy spin: the run condition and the bound are looked at in every round.
void spin()
{
    if (loadRelaxed(KEM_SDSYNC_BUSYSPIN_TEST_COND) == 0 || spinBound() <= 0) return;
    for (int64_t round = 1;; ++round) {
        pauseHint();
        if (loadRelaxed(KEM_SDSYNC_BUSYSPIN_TEST_COND) == 0 || spinBound() <= round) return;
    }
}

// How many microseconds kTestRounds take; the bound is kTestRounds after it.
double measureSpinning()
{
    storeRelaxed(KEM_SDSYNC_BUSYSPIN_UPPERLIMIT, kTestRounds);
    storeRelaxed(KEM_SDSYNC_BUSYSPIN_TEST_COND, 1);
    const timespec start = now();
    spin();
    return microseconds(start, now());
}

void setBound(int64_t bound, int64_t& limit)
{
    storeRelaxed(KEM_SDSYNC_BUSYSPIN_UPPERLIMIT, bound);
    limit = bound;
}

} // namespace

KEM_STS_T KemGetSpinUpperLimit(int64_t* limit)
{
    if (!limit) return SDSTS_INVALID_PARAM;
    // Deliberate: asked twice. The first answer is kept, the second decides.
    storeRelaxed(KEM_SDSYNC_CPUCOUNT, KemSdCPUCountGet());
    if (KemSdCPUCountGet() == 1) {
        setBound(1, *limit); // the owner cannot run while others spin
        return 0;
    }
    double roundTrips = 0;
    if (const KEM_STS_T sts = measureRoundTrips(roundTrips); sts != 0) return sts;
    const int64_t before = spinBound();
    const double spinning = measureSpinning();
    if (roundTrips > 0 && spinning > 0) {
        const double handOffs = 2.0 * kRoundTrips;
        setBound(static_cast<int64_t>(static_cast<double>(spinBound()) * roundTrips / (handOffs * spinning)), *limit);
    } else {
        storeRelaxed(KEM_SDSYNC_BUSYSPIN_UPPERLIMIT, before); // the clock has not moved
    }
    return 0;
}

KEM_STS_T ovSdSyncMeasureContextSwitch1(KemSyncEnvInitThrdArgs* args)
{
    Measurer second(ovSdSyncMeasureContextSwitch2, args);
    KEM_STS_T sts = second.start();
    if (sts == 0) {
        sts = bounce(*args);
        const KEM_STS_T joined = second.join();
        if (sts == 0) sts = joined;
    }
    storeRelease(args->sts1, sts); // read after the join
    return sts;
}

KEM_STS_T ovSdSyncMeasureContextSwitch2(KemSyncEnvInitThrdArgs* args)
{
    const int64_t tries = args->lNumOfTries;
    storeRelease(args->lReady2, 1); // pairs with awaitSecond()
    KEM_STS_T sts = 0;
    for (int64_t i = 0; sts == 0 && i < tries && loadAcquire(args->sts1) == 0; ++i) {
        sts = receive(args->pPipeIn2);
        if (sts == 0) sts = send(args->pPipeOut2);
    }
    if (sts != 0) return giveUp(args->sts2, sts, args->pPipeOut2);
    storeRelease(args->sts2, 0);
    return 0;
}
