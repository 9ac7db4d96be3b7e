#include <gtest/gtest.h>
#include <kemsd/sync.h>

#include <cerrno>
#include <cstdint>
#include <ostream>
#include <thread>
#include <utility>
#include <vector>

#include "support/failingcalls.h"
#include "support/report.h"
#include "sync/refused.h"
#include "sync/waiting.h"

using namespace kemsd::test;

namespace {

class Event : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(KemSdEventCreate(nullptr, &event), 0);
        resetCalls();
    }
    void TearDown() override { EXPECT_EQ(KemSdEventClose(nullptr, &event), 0); }

    void clear() { ASSERT_EQ(KemSdEventClear(nullptr, &event), 0); }

    bool isClear()
    {
        pthread_mutex_lock(&event.mutex);
        const bool clear = event.iReady == 0;
        pthread_mutex_unlock(&event.mutex);
        return clear;
    }

    // Once that many waits have begun and the event's mutex is to be had, all of them are asleep.
    void waitForSleepers(Call wait, long count)
    {
        EXPECT_TRUE(eventually([&] { return calls(wait) == count; }));
        pthread_mutex_lock(&event.mutex);
        pthread_mutex_unlock(&event.mutex);
    }

    // An unlock that was refused has left the mutex locked.
    void unlockAfterRefusal() { ASSERT_EQ(pthread_mutex_unlock(&event.mutex), 0); }

    KEM_EVENTHDL_T event;
};

struct Deadline {
    KEM_LONG_T milliseconds;
    time_t nowSeconds;
    long nowNanoseconds;
    time_t seconds;
    long nanoseconds;

    friend std::ostream& operator<<(std::ostream& out, const Deadline& d)
    {
        return out << d.milliseconds << " ms after " << d.nowSeconds << " s " << d.nowNanoseconds << " ns";
    }
};

constexpr time_t kNow = 1000000; // in 1970: every deadline near it has passed

} // namespace

// ---- Making and ending

TEST_F(Event, IsMadeSet)
{
    const ClockAt past(kNow, 0);
    EXPECT_THAT(reported(KemSdEventWait, &event, 0), Fails(SDSTS_EVENT_TIMEOUT, ETIMEDOUT));
    EXPECT_THAT(reported(KemSdSignalWait, &event, 0), Fails(SDSTS_EVENT_TIMEOUT, ETIMEDOUT));
    EXPECT_FALSE(isClear());
}

TEST_F(Event, CreateReportsEitherRefusal)
{
    KEM_EVENTHDL_T other;
    EXPECT_THAT(refused(Call::pthread_mutex_init, ENOMEM, KemSdEventCreate, &other), Fails(SDSTS_EVENT_CREATE, ENOMEM));
    EXPECT_EQ(calls(Call::pthread_cond_init), 0);
    EXPECT_THAT(refused(Call::pthread_cond_init, EAGAIN, KemSdEventCreate, &other), Fails(SDSTS_EVENT_CREATE, EAGAIN));
    EXPECT_THAT(reported(KemSdEventCreate, &other), Succeeds());
}

TEST_F(Event, CloseDoesNothing)
{
    clear();
    EXPECT_THAT(reported(KemSdEventClose, &event), Succeeds());
    EXPECT_THAT(reported(KemSdEventClose, nullptr), Succeeds());
    EXPECT_EQ(calls(Call::pthread_mutex_destroy) + calls(Call::pthread_cond_destroy), 0);
    EXPECT_THAT(reported(KemSdEventWait, &event, 0), Succeeds());
}

TEST_F(Event, NullIsInvalidInEveryOtherCall)
{
    EXPECT_THAT(reported(KemSdEventCreate, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdEventSet, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdEventClear, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdEventSignal, nullptr), Fails(SDSTS_INVALID_PARAM));
    for (const KEM_LONG_T milliseconds : {-1, 0, 10}) {
        EXPECT_THAT(reported(KemSdEventWait, nullptr, milliseconds), Fails(SDSTS_INVALID_PARAM)) << milliseconds;
        EXPECT_THAT(reported(KemSdSignalWait, nullptr, milliseconds), Fails(SDSTS_INVALID_PARAM)) << milliseconds;
    }
}

TEST_F(Event, NoCallNeedsAContext)
{
    EXPECT_EQ(KemSdEventClear(nullptr, &event), 0);
    EXPECT_EQ(KemSdEventSignal(nullptr, &event), 0);
    EXPECT_EQ(KemSdEventWait(nullptr, &event, -1), 0);
    EXPECT_EQ(KemSdSignalWait(nullptr, &event, -1), 0);
    EXPECT_EQ(KemSdEventSet(nullptr, &event), 0);
    EXPECT_EQ(KemSdEventWait(nullptr, nullptr, 0), SDSTS_INVALID_PARAM);
}

// ---- Set, clear, signal

TEST_F(Event, ClearLetsEveryWaitPassUntilItIsSet)
{
    const ClockAt past(kNow, 0);
    EXPECT_THAT(reported(KemSdEventClear, &event), Succeeds());
    for (const KEM_LONG_T milliseconds : {0, -1, 1000, -7})
        EXPECT_THAT(reported(KemSdEventWait, &event, milliseconds), Succeeds()) << milliseconds;
    EXPECT_TRUE(isClear());
    EXPECT_THAT(reported(KemSdEventSet, &event), Succeeds());
    EXPECT_THAT(reported(KemSdEventWait, &event, 0), Fails(SDSTS_EVENT_TIMEOUT, ETIMEDOUT));
}

TEST_F(Event, SignalLeavesItClearToo)
{
    EXPECT_THAT(reported(KemSdEventSignal, &event), Succeeds());
    EXPECT_THAT(reported(KemSdEventWait, &event, 0), Succeeds());
    EXPECT_THAT(reported(KemSdEventWait, &event, 0), Succeeds());
}

TEST_F(Event, SetWakesNobody)
{
    EXPECT_THAT(reported(KemSdEventSet, &event), Succeeds());
    EXPECT_EQ(calls(Call::pthread_cond_signal) + calls(Call::pthread_cond_broadcast), 0);
}

TEST_F(Event, SetReportsARefusedLockOrUnlock)
{
    clear();
    EXPECT_THAT(refused(Call::pthread_mutex_lock, EINVAL, KemSdEventSet, &event), Fails(SDSTS_EVENT_SET, EINVAL));
    EXPECT_TRUE(isClear());
    EXPECT_THAT(refused(Call::pthread_mutex_unlock, EPERM, KemSdEventSet, &event), Fails(SDSTS_EVENT_SET, EPERM));
    unlockAfterRefusal();
    EXPECT_FALSE(isClear());
}

TEST_F(Event, ClearReportsTheFirstRefusal)
{
    EXPECT_THAT(refused(Call::pthread_mutex_lock, EINVAL, KemSdEventClear, &event), Fails(SDSTS_EVENT_CLEAR, EINVAL));
    EXPECT_FALSE(isClear());
    EXPECT_THAT(refused(Call::pthread_cond_broadcast, EIO, KemSdEventClear, &event), Fails(SDSTS_EVENT_CLEAR, EIO));
    EXPECT_TRUE(isClear()); // and the mutex is free
    EXPECT_THAT(refused(Call::pthread_mutex_unlock, EPERM, KemSdEventClear, &event), Fails(SDSTS_EVENT_CLEAR, EPERM));
    unlockAfterRefusal();
    const Report both = [&] {
        const Failing unlock(Call::pthread_mutex_unlock, EPERM);
        return refused(Call::pthread_cond_broadcast, EIO, KemSdEventClear, &event);
    }();
    EXPECT_THAT(both, Fails(SDSTS_EVENT_CLEAR, EIO));
    unlockAfterRefusal();
}

TEST_F(Event, SignalSharesTheStatusOfClear)
{
    EXPECT_THAT(refused(Call::pthread_mutex_lock, EINVAL, KemSdEventSignal, &event), Fails(SDSTS_EVENT_CLEAR, EINVAL));
    EXPECT_FALSE(isClear());
    EXPECT_THAT(refused(Call::pthread_cond_signal, EIO, KemSdEventSignal, &event), Fails(SDSTS_EVENT_CLEAR, EIO));
    EXPECT_TRUE(isClear());
    EXPECT_THAT(refused(Call::pthread_mutex_unlock, EPERM, KemSdEventSignal, &event), Fails(SDSTS_EVENT_CLEAR, EPERM));
    unlockAfterRefusal();
}

// ---- Waiting without taking

TEST_F(Event, ClearWakesEverySleeper)
{
    std::vector<std::thread> sleepers;
    for (int i = 0; i < 3; ++i)
        sleepers.emplace_back([&] { EXPECT_THAT(reported(KemSdEventWait, &event, -1), Succeeds()); });
    for (int i = 0; i < 2; ++i)
        sleepers.emplace_back([&] { EXPECT_THAT(reported(KemSdEventWait, &event, INT32_MAX), Succeeds()); });
    waitForSleepers(Call::pthread_cond_wait, 3);
    waitForSleepers(Call::pthread_cond_timedwait, 2);
    clear();
    for (std::thread& sleeper : sleepers) sleeper.join();
    EXPECT_TRUE(isClear());
}

TEST_F(Event, SignalWakesASleeperAndLetsLaterWaitersPass)
{
    std::thread sleeper([&] { EXPECT_THAT(reported(KemSdEventWait, &event, -1), Succeeds()); });
    waitForSleepers(Call::pthread_cond_wait, 1);
    EXPECT_THAT(reported(KemSdEventSignal, &event), Succeeds());
    sleeper.join();
    EXPECT_THAT(reported(KemSdEventWait, &event, 0), Succeeds());
}

TEST_F(Event, WaitGoesOnAfterAWakeUpWithoutCause)
{
    const Failing spurious = Failing::nth(Call::pthread_cond_wait, 1, 0);
    std::thread sleeper([&] { EXPECT_THAT(reported(KemSdEventWait, &event, -1), Succeeds()); });
    waitForSleepers(Call::pthread_cond_wait, 2);
    clear();
    sleeper.join();
    EXPECT_EQ(spurious.hits(), 1);
}

TEST_F(Event, WaitReportsARefusedLockWaitOrUnlock)
{
    for (const KEM_LONG_T milliseconds : {-1, 0, 10})
        EXPECT_THAT(refused(Call::pthread_mutex_lock, EINVAL, KemSdEventWait, &event, milliseconds),
                    Fails(SDSTS_EVENT_WAIT, EINVAL))
            << milliseconds;
    EXPECT_THAT(refused(Call::pthread_cond_wait, EPERM, KemSdEventWait, &event, -1), Fails(SDSTS_EVENT_WAIT, EPERM));
    clear(); // the mutex is free
    for (const KEM_LONG_T milliseconds : {-1, 0, 10}) {
        EXPECT_THAT(refused(Call::pthread_mutex_unlock, EPERM, KemSdEventWait, &event, milliseconds),
                    Fails(SDSTS_EVENT_WAIT, EPERM))
            << milliseconds;
        unlockAfterRefusal();
    }
}

TEST_F(Event, TimedWaitEndsOnlyWithTheTimeWhateverElseIsRefused)
{
    const ClockAt past(kNow, 0);
    EXPECT_THAT(refusedNth(Call::pthread_cond_timedwait, 1, EINVAL, KemSdEventWait, &event, 10),
                Fails(SDSTS_EVENT_TIMEOUT, ETIMEDOUT));
    EXPECT_EQ(calls(Call::pthread_cond_timedwait), 2);
}

TEST_F(Event, TimedWaitThatFindsItClearAtTheEndSucceeds)
{
    EXPECT_THAT(refusedWhile(
                    Call::pthread_cond_timedwait, ETIMEDOUT, [&] { event.iReady = 0; }, KemSdEventWait, &event, 10),
                Succeeds());
    EXPECT_TRUE(isClear());
}

TEST_F(Event, TimedWaitReportsTheTimeoutEvenIfTheUnlockIsRefused)
{
    const ClockAt past(kNow, 0);
    EXPECT_THAT(refused(Call::pthread_mutex_unlock, EPERM, KemSdEventWait, &event, 0),
                Fails(SDSTS_EVENT_TIMEOUT, ETIMEDOUT));
    // The wait has unlocked the mutex and locked it again.
    unlockAfterRefusal();
}

TEST_F(Event, TimedWaitsDeadlineIsExactToTheMicrosecond)
{
    constexpr Deadline kCases[] = {
        {0, 10, 123456000, 10, 123456000},
        {1, 10, 999999000, 11, 999000},
        {500, 10, 500000000, 11, 0},
        {499, 10, 500999000, 10, 999999000},
        {1500, 10, 750000000, 12, 250000000},
        {2000, 10, 0, 12, 0},
        {INT32_MAX, 10, 0, 2147493, 647000000},
        // In the past, the fraction never negative.
        {-2, 10, 0, 9, 998000000},
        {-2, 10, 2000000, 10, 0},
        {-1000, 10, 5000, 9, 5000},
        {-1999, 10, 0, 8, 1000000},
    };
    for (const Deadline& deadline : kCases) {
        const ClockAt now(deadline.nowSeconds, deadline.nowNanoseconds);
        EXPECT_THAT(refused(Call::pthread_cond_timedwait, ETIMEDOUT, KemSdEventWait, &event, deadline.milliseconds),
                    Fails(SDSTS_EVENT_TIMEOUT, ETIMEDOUT))
            << deadline;
        EXPECT_EQ(lastDeadline().tv_sec, deadline.seconds) << deadline;
        EXPECT_EQ(lastDeadline().tv_nsec, deadline.nanoseconds) << deadline;
    }
}

TEST_F(Event, NegativeTimeoutsOtherThanMinusOneAreOverAtOnce)
{
    for (const KEM_LONG_T milliseconds : {-2, -999, -1000, -1500, INT32_MIN})
        EXPECT_THAT(reported(KemSdEventWait, &event, milliseconds), Fails(SDSTS_EVENT_TIMEOUT, ETIMEDOUT))
            << milliseconds;
}

// ---- Waiting and taking

TEST_F(Event, SignalWaitSetsItAgain)
{
    const ClockAt past(kNow, 0);
    for (const KEM_LONG_T milliseconds : {-1, 0, 500, -9}) {
        clear();
        EXPECT_THAT(reported(KemSdSignalWait, &event, milliseconds), Succeeds()) << milliseconds;
        EXPECT_FALSE(isClear());
        EXPECT_THAT(reported(KemSdSignalWait, &event, 0), Fails(SDSTS_EVENT_TIMEOUT, ETIMEDOUT)) << milliseconds;
    }
}

TEST_F(Event, OfManySignalWaitsOnePassesForEachClear)
{
    int passed = 0; // under the event's mutex
    const auto sleep = [&](KEM_LONG_T milliseconds) {
        EXPECT_THAT(reported(KemSdSignalWait, &event, milliseconds), Succeeds());
        pthread_mutex_lock(&event.mutex);
        ++passed;
        pthread_mutex_unlock(&event.mutex);
    };
    const auto passages = [&] {
        pthread_mutex_lock(&event.mutex);
        const int now = passed;
        pthread_mutex_unlock(&event.mutex);
        return now;
    };
    std::vector<std::thread> sleepers;
    for (const KEM_LONG_T milliseconds : {-1, INT32_MAX, -1}) sleepers.emplace_back(sleep, milliseconds);
    waitForSleepers(Call::pthread_cond_wait, 2);
    waitForSleepers(Call::pthread_cond_timedwait, 1);
    for (int i = 1; i <= 3; ++i) {
        clear(); // wakes all of them; the others find it set and sleep on
        EXPECT_TRUE(eventually([&] { return passages() == i; }));
        EXPECT_FALSE(isClear());
    }
    for (std::thread& sleeper : sleepers) sleeper.join();
}

TEST_F(Event, SignalWaitsDeadlineIsAWholeSecondLater)
{
    constexpr Deadline kCases[] = {
        {0, 10, 0, 11, 0},    {0, 10, 999999000, 11, 0}, {500, 10, 0, 11, 0},          {500, 10, 600000000, 11, 0},
        {999, 10, 0, 11, 0},  {1000, 10, 0, 12, 0},      {1500, 10, 600000000, 12, 0}, {INT32_MAX, 10, 0, 2147494, 0},
        {-5, 10, 0, 11, 0}, // rounded towards zero
        {-2000, 10, 0, 9, 0},
    };
    for (const Deadline& deadline : kCases) {
        const ClockAt now(deadline.nowSeconds, deadline.nowNanoseconds);
        EXPECT_THAT(refused(Call::pthread_cond_timedwait, ETIMEDOUT, KemSdSignalWait, &event, deadline.milliseconds),
                    Fails(SDSTS_EVENT_TIMEOUT, ETIMEDOUT))
            << deadline;
        EXPECT_EQ(lastDeadline().tv_sec, deadline.seconds) << deadline;
        EXPECT_EQ(lastDeadline().tv_nsec, deadline.nanoseconds) << deadline;
    }
}

TEST_F(Event, SignalWaitThatFindsItClearAtTheEndTimesOutAndLeavesItClear)
{
    EXPECT_THAT(refusedWhile(
                    Call::pthread_cond_timedwait, ETIMEDOUT, [&] { event.iReady = 0; }, KemSdSignalWait, &event, 10),
                Fails(SDSTS_EVENT_TIMEOUT, ETIMEDOUT));
    EXPECT_TRUE(isClear());
}

TEST_F(Event, SignalWaitAfterAFailedWaitReportsItAndLeavesAClearedEventClear)
{
    for (const auto& [wait, milliseconds] :
         {std::pair{Call::pthread_cond_timedwait, 10}, {Call::pthread_cond_wait, -1}}) {
        EXPECT_EQ(KemSdEventSet(nullptr, &event), 0);
        EXPECT_THAT(refusedWhile(
                        wait, EINVAL, [&] { event.iReady = 0; }, KemSdSignalWait, &event, milliseconds),
                    Fails(SDSTS_EVENT_WAIT, EINVAL))
            << milliseconds;
        EXPECT_TRUE(isClear());
    }
}

TEST_F(Event, SignalWaitRemembersAFailedWaitOverLaterOnes)
{
    const Failing once = Failing::nth(Call::pthread_cond_timedwait, 1, EINVAL);
    std::thread sleeper(
        [&] { EXPECT_THAT(reported(KemSdSignalWait, &event, INT32_MAX), Fails(SDSTS_EVENT_WAIT, EINVAL)); });
    waitForSleepers(Call::pthread_cond_timedwait, 2);
    clear();
    sleeper.join();
    EXPECT_TRUE(isClear());
}

TEST_F(Event, SignalWaitTriesAgainAfterAFailedWaitUntilTheTimeIsUp)
{
    const ClockAt past(kNow, 0);
    EXPECT_THAT(refusedNth(Call::pthread_cond_timedwait, 1, EINVAL, KemSdSignalWait, &event, 10),
                Fails(SDSTS_EVENT_TIMEOUT, ETIMEDOUT));
    EXPECT_EQ(calls(Call::pthread_cond_timedwait), 2);
}

TEST_F(Event, SignalWaitReportsARefusedLockWaitOrUnlock)
{
    for (const KEM_LONG_T milliseconds : {-1, 0, 10})
        EXPECT_THAT(refused(Call::pthread_mutex_lock, EINVAL, KemSdSignalWait, &event, milliseconds),
                    Fails(SDSTS_EVENT_WAIT, EINVAL))
            << milliseconds;
    EXPECT_THAT(refused(Call::pthread_mutex_lock, ETIMEDOUT, KemSdSignalWait, &event, -1),
                Fails(SDSTS_EVENT_TIMEOUT, ETIMEDOUT));
    EXPECT_THAT(refused(Call::pthread_cond_wait, EPERM, KemSdSignalWait, &event, -1), Fails(SDSTS_EVENT_WAIT, EPERM));
    clear(); // the mutex is free
    EXPECT_THAT(refused(Call::pthread_mutex_unlock, EPERM, KemSdSignalWait, &event, -1),
                Fails(SDSTS_EVENT_WAIT, EPERM));
    unlockAfterRefusal();
    EXPECT_FALSE(isClear());
}
