#include <gtest/gtest.h>
#include <kemsd/context.h>
#include <kemsd/ipc.h>
#include <kemsd/os.h>
#include <kemsd/sync.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <ostream>
#include <set>
#include <string>

#include "support/failingcalls.h"
#include "sync/waiting.h"

using namespace kemsd::test;

namespace {

const int64_t boundBeforeMain = KEM_SDSYNC_BUSYSPIN_UPPERLIMIT;
const int64_t conditionBeforeMain = KEM_SDSYNC_BUSYSPIN_TEST_COND;
const KEM_ULONG_T processorsBeforeMain = KEM_SDSYNC_CPUCOUNT;

constexpr int64_t kPreviousBound = 777;
constexpr int64_t kUnwritten = -77001;
constexpr int64_t kMicrosecond = 1000; // nanoseconds

// What the process has of a kind, as the system lists it.
std::set<std::string> entriesOf(const char* directory)
{
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) names.insert(entry.path().filename());
    return names;
}
std::set<std::string> openDescriptors() { return entriesOf("/proc/self/fd"); }
size_t threadsAlive() { return entriesOf("/proc/self/task").size(); }

// The machine has several processors, sleeping takes no time, and whatever happens the calibration leaves no thread and
// no descriptor behind and closes nothing twice.
class Calibration : public testing::Test {
protected:
    void SetUp() override
    {
        KEM_SDSYNC_BUSYSPIN_UPPERLIMIT = kPreviousBound;
        KEM_SDSYNC_BUSYSPIN_TEST_COND = 0;
        // The sanitizer's own thread starts with the first of ours.
        std::thread([] {}).join();
        descriptors = openDescriptors();
        threads = threadsAlive();
        resetCalls();
    }
    void TearDown() override
    {
        EXPECT_EQ(openDescriptors(), descriptors);
        EXPECT_EQ(strayCloses(), 0);
        EXPECT_TRUE(eventually([this] { return threadsAlive() == threads; }));
        KEM_SDSYNC_BUSYSPIN_UPPERLIMIT = kInitialSpinBound;
    }

    // The status of a calibration that stores no bound.
    KEM_STS_T failed()
    {
        const KEM_STS_T sts = KemGetSpinUpperLimit(&limit);
        EXPECT_EQ(limit, kUnwritten);
        EXPECT_EQ(KEM_SDSYNC_BUSYSPIN_UPPERLIMIT, kPreviousBound);
        return sts;
    }

    // The bound stored by a calibration whose round trips and spin test take this long, in nanoseconds.
    int64_t boundAfter(int64_t roundTrips, int64_t spinning)
    {
        constexpr int64_t kStart = 5999999999; // a nanosecond before a full second
        const PlannedTimes times({kStart, kStart + roundTrips, kStart, kStart + spinning});
        EXPECT_EQ(KemGetSpinUpperLimit(&limit), 0);
        EXPECT_EQ(limit, KEM_SDSYNC_BUSYSPIN_UPPERLIMIT);
        return limit;
    }

    int64_t limit = kUnwritten;

private:
    Failing processors{Call::sysconf, 0, 4};
    Failing noSleep{Call::nanosleep, EINTR};
    std::set<std::string> descriptors;
    size_t threads = 0;
};

} // namespace

TEST_F(Calibration, BeforeItTheBoundIs20000AndNothingIsKnown)
{
    EXPECT_EQ(boundBeforeMain, 20000);
    EXPECT_EQ(conditionBeforeMain, 0);
    EXPECT_EQ(processorsBeforeMain, 0u);
}

TEST_F(Calibration, StoresWhatItMeasures)
{
    EXPECT_EQ(KemGetSpinUpperLimit(&limit), 0);
    EXPECT_GE(limit, 0);
    EXPECT_EQ(KEM_SDSYNC_BUSYSPIN_UPPERLIMIT, limit);
    EXPECT_EQ(KEM_SDSYNC_BUSYSPIN_TEST_COND, 1);
    EXPECT_EQ(KEM_SDSYNC_CPUCOUNT, 4u);
}

TEST_F(Calibration, MakesTenThousandRoundTripsOverTwoPipesBetweenTwoThreads)
{
    EXPECT_EQ(KemGetSpinUpperLimit(&limit), 0);
    EXPECT_EQ(calls(Call::pipe), 2);
    EXPECT_EQ(calls(Call::pthread_create), 2);
    EXPECT_EQ(calls(Call::pthread_join), 2);
    EXPECT_EQ(calls(Call::read), 20000);
    EXPECT_EQ(calls(Call::write), 20000);
    EXPECT_EQ(calls(Call::close), 4);
}

TEST_F(Calibration, GivesTheSecondThreadATenthOfASecondToSettle)
{
    EXPECT_EQ(KemGetSpinUpperLimit(&limit), 0);
    EXPECT_EQ(calls(Call::nanosleep), 1);
    EXPECT_EQ(lastSleep().tv_sec, 0);
    EXPECT_EQ(lastSleep().tv_nsec, 100000000);
}

TEST_F(Calibration, NowhereToStoreTheLimitIsRefused)
{
    EXPECT_EQ(KemGetSpinUpperLimit(nullptr), SDSTS_INVALID_PARAM);
    EXPECT_EQ(calls(Call::sysconf), 0);
    EXPECT_EQ(KEM_SDSYNC_BUSYSPIN_UPPERLIMIT, kPreviousBound);
}

// ---- One processor

TEST_F(Calibration, OnASingleProcessorTheBoundIs1AndNothingIsMeasured)
{
    const Failing oneProcessor(Call::sysconf, 0, 1);
    EXPECT_EQ(KemGetSpinUpperLimit(&limit), 0);
    EXPECT_EQ(limit, 1);
    EXPECT_EQ(KEM_SDSYNC_BUSYSPIN_UPPERLIMIT, 1);
    EXPECT_EQ(KEM_SDSYNC_CPUCOUNT, 1u);
    EXPECT_EQ(KEM_SDSYNC_BUSYSPIN_TEST_COND, 0);
    EXPECT_EQ(calls(Call::pipe), 0);
    EXPECT_EQ(calls(Call::pthread_create), 0);
}

TEST_F(Calibration, OfTheTwoAnswersAboutProcessorsTheFirstIsStoredAndTheSecondDecides)
{
    {
        const Failing first = Failing::nth(Call::sysconf, 1, 0, 61);
        KemGetSpinUpperLimit(&limit);
        EXPECT_EQ(KEM_SDSYNC_CPUCOUNT, 61u);
    }
    const Failing second = Failing::nth(Call::sysconf, 2, 0, 1);
    resetCalls();
    EXPECT_EQ(KemGetSpinUpperLimit(&limit), 0);
    EXPECT_EQ(limit, 1);
    EXPECT_EQ(calls(Call::pipe), 0);
}

// ---- The quotient

TEST_F(Calibration, HandOversAsLongAs400000RoundsGive400000)
{
    EXPECT_EQ(boundAfter(20000 * 3 * kMicrosecond, 3 * kMicrosecond), 400000);
}

TEST_F(Calibration, TheQuotientIsTruncated)
{
    // 20,000 hand-overs of 3 us; 400,000 rounds in 12,345 us: 97.205 rounds a hand-over.
    EXPECT_EQ(boundAfter(60000 * kMicrosecond, 12345 * kMicrosecond), 97);
    // 40,000 us for all; 1,000.001 us for 400,000 rounds: 799.9992.
    EXPECT_EQ(boundAfter(40000 * kMicrosecond, 1000001), 799);
}

TEST_F(Calibration, SecondsCount)
{
    EXPECT_EQ(boundAfter(20000 * 1000 * kMicrosecond, 2 * 1000000 * kMicrosecond), 200);
}

TEST_F(Calibration, HandOversFasterThanARoundGive0) { EXPECT_EQ(boundAfter(1, 1000 * kMicrosecond), 0); }

TEST_F(Calibration, RoundTripsInNoTimeLeaveTheBound)
{
    const PlannedTimes times({5, 5, 5, 1000});
    EXPECT_EQ(failed(), 0);
}

TEST_F(Calibration, AClockThatRunsBackwardsLeavesTheBound)
{
    {
        const PlannedTimes times({3000000000, 2999999999, 0, 1000});
        EXPECT_EQ(failed(), 0);
    }
    const PlannedTimes times({0, 1000, 3000000000, 2999999999});
    EXPECT_EQ(failed(), 0);
}

TEST_F(Calibration, SpinningInNoTimeLeavesTheBound)
{
    const PlannedTimes times({0, 1000, 1000, 1000});
    EXPECT_EQ(failed(), 0);
}

TEST_F(Calibration, AClockThatDoesNotAnswerLeavesTheBound)
{
    const Failing noClock(Call::clock_gettime, EINVAL);
    EXPECT_EQ(failed(), 0);
}

// ---- Failures

TEST_F(Calibration, AFailingFirstPipeIsItsStatus)
{
    const Failing refused = Failing::nth(Call::pipe, 1, EMFILE);
    EXPECT_EQ(failed(), SDSTS_PIPE_CREATE);
    EXPECT_EQ(calls(Call::close), 0);
    EXPECT_EQ(calls(Call::pthread_create), 0);
}

TEST_F(Calibration, AFailingSecondPipeIsItsStatus)
{
    const Failing refused = Failing::nth(Call::pipe, 2, EMFILE);
    EXPECT_EQ(failed(), SDSTS_PIPE_CREATE);
    EXPECT_EQ(calls(Call::close), 2);
    EXPECT_EQ(calls(Call::pthread_create), 0);
}

TEST_F(Calibration, AFailingFirstThreadIsItsStatus)
{
    const Failing refused = Failing::nth(Call::pthread_create, 1, EAGAIN);
    EXPECT_EQ(failed(), SDSTS_THREAD_CREATE);
    EXPECT_EQ(calls(Call::write), 0);
}

TEST_F(Calibration, AFailingSecondThreadIsItsStatus)
{
    const Failing refused = Failing::nth(Call::pthread_create, 2, EAGAIN);
    EXPECT_EQ(failed(), SDSTS_THREAD_CREATE);
    EXPECT_EQ(calls(Call::pthread_join), 1);
    EXPECT_EQ(calls(Call::write), 0);
}

TEST_F(Calibration, AThreadThatCannotBeJoinedIsWaitedForAllTheSame)
{
    for (const long k : {1, 2}) {
        const Failing refused = Failing::nth(Call::pthread_join, k, EINVAL);
        EXPECT_EQ(failed(), SDSTS_THREAD_JOIN) << k;
        EXPECT_EQ(calls(Call::read), 20000) << k; // all of the measurement ran
        resetCalls();
    }
    const Failing refused(Call::pthread_join, EINVAL);
    EXPECT_EQ(failed(), SDSTS_THREAD_JOIN);
    EXPECT_EQ(calls(Call::pthread_detach), 2);
}

TEST_F(Calibration, AFailingReadOrWriteEndsBothThreadsWhereverItComes)
{
    for (const Call call : {Call::read, Call::write})
        for (const long k : {1L, 2L, 3L, 4L, 9999L, 10000L, 10001L, 19998L, 19999L, 20000L}) {
            resetCalls();
            const Failing broken = Failing::nth(call, k, EIO);
            EXPECT_EQ(failed(), SDSTS_PIPE_IO) << k;
            EXPECT_EQ(broken.hits(), 1) << k;
            EXPECT_EQ(calls(Call::pthread_join), 2) << k;
            EXPECT_EQ(strayCloses(), 0) << k;
        }
}

TEST_F(Calibration, PipesThatNeverWorkEndBothThreads)
{
    for (const Call call : {Call::read, Call::write}) {
        const Failing broken(call, EIO);
        EXPECT_EQ(failed(), SDSTS_PIPE_IO);
    }
}

TEST_F(Calibration, TheEndOfAPipeIsAFailure)
{
    const Failing ended = Failing::nth(Call::read, 100, 0, 0);
    EXPECT_EQ(failed(), SDSTS_PIPE_IO);
}

// ---- Signals

namespace {

std::atomic<long> guarded{0};
std::atomic<long> guardedWithPipeSignal{0};

bool pipeSignalIsBlocked()
{
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, SIGPIPE) == 1;
}

// Runs before every read and every write of the measuring threads.
void lookAtSignals()
{
    ++guarded;
    if (!pipeSignalIsBlocked()) ++guardedWithPipeSignal;
}

} // namespace

TEST_F(Calibration, ABrokenPipesSignalIsBlockedInBothMeasuringThreadsAndNowhereElse)
{
    KemSdSetLeaseGuardAccessFunction(lookAtSignals);
    KemSdSetFailoverModeFlag(TRUE);
    EXPECT_EQ(KemGetSpinUpperLimit(&limit), 0);
    KemSdSetFailoverModeFlag(FALSE);
    EXPECT_GE(guarded, 40000);
    EXPECT_EQ(guardedWithPipeSignal, 2); // the caller closes the two pipes
    EXPECT_FALSE(pipeSignalIsBlocked());
}

// ---- The bodies of the two threads

namespace {

// A record with pipes of the test's own.
class Bodies : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(KemSdPipeCreate(nullptr, &toFirst, &toFirst, 0), 0);
        ASSERT_EQ(KemSdPipeCreate(nullptr, &toSecond, &toSecond, 0), 0);
        args.pPipeIn1 = args.pPipeOut2 = &toFirst;
        args.pPipeIn2 = args.pPipeOut1 = &toSecond;
        args.lDiffTimeCtxSwitch = -1;
    }
    void TearDown() override
    {
        KemSdPipeClose(nullptr, &toFirst);
        KemSdPipeClose(nullptr, &toSecond);
    }

    // What lies in a pipe.
    static std::string unread(KEM_PIPEHDL_T& pipe)
    {
        EXPECT_EQ(write(pipe.iFdWrite, "|", 1), 1); // so that nothing waits
        char text[16];
        const ssize_t got = read(pipe.iFdRead, text, sizeof text);
        return got > 0 ? std::string(text, static_cast<size_t>(got) - 1) : "nothing";
    }

    Failing noSleep{Call::nanosleep, EINTR};
    KEM_PIPEHDL_T toFirst{-1, -1, nullptr};
    KEM_PIPEHDL_T toSecond{-1, -1, nullptr};
    KemSyncEnvInitThrdArgs args{};
};

} // namespace

TEST_F(Bodies, TheFirstRunsTheSecondForSoManyRoundTrips)
{
    for (const int64_t tries : {1, 2, 50}) {
        resetCalls();
        args.lNumOfTries = tries;
        args.lReady1 = 0;
        args.lReady2 = 0;
        EXPECT_EQ(ovSdSyncMeasureContextSwitch1(&args), 0);
        EXPECT_EQ(args.sts1, 0);
        EXPECT_EQ(args.sts2, 0);
        EXPECT_EQ(args.lReady1, 1);
        EXPECT_EQ(args.lReady2, 1);
        EXPECT_GE(args.lDiffTimeCtxSwitch, 0);
        EXPECT_EQ(calls(Call::read), 2 * tries);
        EXPECT_EQ(calls(Call::write), 2 * tries);
        EXPECT_EQ(unread(toFirst), "");
        EXPECT_EQ(unread(toSecond), "");
    }
}

TEST_F(Bodies, WithoutRoundTripsTheFirstSendsOneByteThatNobodyTakes)
{
    EXPECT_EQ(ovSdSyncMeasureContextSwitch1(&args), 0);
    EXPECT_EQ(unread(toSecond), "c");
    EXPECT_EQ(unread(toFirst), "");
}

TEST_F(Bodies, TheTimeIsInMicroseconds)
{
    args.lNumOfTries = 1;
    const PlannedTimes times({1999999000, 2000001500});
    EXPECT_EQ(ovSdSyncMeasureContextSwitch1(&args), 0);
    EXPECT_EQ(args.lDiffTimeCtxSwitch, 2.5);
}

TEST_F(Bodies, TheSecondSaysThatItRunsAndEchoes)
{
    args.lNumOfTries = 2;
    ASSERT_EQ(write(toSecond.iFdWrite, "xyz", 3), 3);
    args.sts2 = 5;
    EXPECT_EQ(ovSdSyncMeasureContextSwitch2(&args), 0);
    EXPECT_EQ(args.sts2, 0);
    EXPECT_EQ(args.lReady2, 1);
    EXPECT_EQ(args.lReady1, 0);
    EXPECT_EQ(unread(toFirst).size(), 2u);
    EXPECT_EQ(unread(toSecond), "z");
}

TEST_F(Bodies, TheSecondReadsNothingOnceTheFirstHasFailed)
{
    args.lNumOfTries = 2;
    args.sts1 = SDSTS_PIPE_IO;
    EXPECT_EQ(ovSdSyncMeasureContextSwitch2(&args), 0);
    EXPECT_EQ(args.sts2, 0);
    EXPECT_EQ(args.lReady2, 1);
}

TEST_F(Bodies, OneThatFailsClosesTheEndThatItWrites)
{
    args.lNumOfTries = 1;
    const Failing broken(Call::read, EIO);
    resetCalls();
    EXPECT_EQ(ovSdSyncMeasureContextSwitch2(&args), SDSTS_PIPE_IO);
    EXPECT_EQ(args.sts2, SDSTS_PIPE_IO);
    EXPECT_EQ(calls(Call::close), 1);
    EXPECT_EQ(toFirst.iFdWrite, -1);
    EXPECT_NE(toFirst.iFdRead, -1);
}

TEST_F(Bodies, TheFirstReportsThatTheSecondCouldNotBeJoined)
{
    args.lNumOfTries = 1;
    const Failing refused(Call::pthread_join, EINVAL);
    EXPECT_EQ(ovSdSyncMeasureContextSwitch1(&args), SDSTS_THREAD_JOIN);
    EXPECT_EQ(args.sts1, SDSTS_THREAD_JOIN);
    EXPECT_EQ(args.sts2, 0);
}
