#include <gtest/gtest.h>
#include <kemsd/sync.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <thread>
#include <vector>

#include "support/failingcalls.h"
#include "support/report.h"
#include "sync/refused.h"
#include "sync/waiting.h"

using namespace kemsd::test;

namespace {

class StdEvent : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(KemSdStdEventCreate(nullptr, &event), 0);
        resetCalls();
    }
    void TearDown() override { EXPECT_EQ(KemSdStdEventClose(nullptr, &event), 0); }

    void set() { ASSERT_EQ(KemSdStdEventSet(nullptr, &event), 0); }

    KEM_STDEVENT_T event;
};

class CountingEvent : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(KemSdCountingEventCreate(nullptr, &event, 0), 0);
        resetCalls();
    }
    void TearDown() override { EXPECT_EQ(KemSdCountingEventClose(nullptr, &event), 0); }

    void set() { ASSERT_EQ(KemSdCountingEventSet(nullptr, &event), 0); }

    KEM_COUNTINGEVENT_T event;
};

// Once that many waits have begun and the event's mutex is to be had, all of them are asleep.
void waitForSleepers(pthread_mutex_t& mutex, Call wait, long count)
{
    EXPECT_TRUE(eventually([&] { return calls(wait) == count; }));
    pthread_mutex_lock(&mutex);
    pthread_mutex_unlock(&mutex);
}

struct WakeUp {
    KEM_LONG_T milliseconds;
    long nowNanoseconds; // of second 10
    time_t seconds;
    long nanoseconds;

    friend std::ostream& operator<<(std::ostream& out, const WakeUp& w)
    {
        return out << w.milliseconds << " ms after " << w.nowNanoseconds << " ns";
    }
};

constexpr WakeUp kWakeUps[] = {
    {0, 999999999, 10, 999999999},
    {1, 999999999, 11, 999999},
    {1500, 500000000, 12, 0},
    {1500, 499999999, 11, 999999999},
    {1500, 750000001, 12, 250000001},
    {999, 1000000, 11, 0},
    {INT32_MAX, 999999999, 2147494, 646999999},
};

} // namespace

// ---- Standard events

TEST_F(StdEvent, HoldsOneSignalHoweverOftenItIsSet)
{
    EXPECT_THAT(reported(KemSdStdEventSet, &event), Succeeds());
    EXPECT_THAT(reported(KemSdStdEventSet, &event), Succeeds());
    EXPECT_THAT(reported(KemSdStdEventWait, &event), Succeeds());
    EXPECT_THAT(reported(KemSdStdEventTimedWait, &event, 0), Fails(SDSTS_EVENT_TIMEOUT));
}

TEST_F(StdEvent, StartsWithoutASignal)
{
    EXPECT_THAT(reported(KemSdStdEventTimedWait, &event, 0), Fails(SDSTS_EVENT_TIMEOUT));
}

TEST_F(StdEvent, ResetTakesTheSignalBack)
{
    set();
    EXPECT_THAT(reported(KemSdStdEventReset, &event), Succeeds());
    EXPECT_THAT(reported(KemSdStdEventTimedWait, &event, 0), Fails(SDSTS_EVENT_TIMEOUT));
    EXPECT_THAT(reported(KemSdStdEventReset, &event), Succeeds());
}

TEST_F(StdEvent, TimedWaitOfNothingTakesASignalThatIsThere)
{
    set();
    EXPECT_THAT(reported(KemSdStdEventTimedWait, &event, 0), Succeeds());
    EXPECT_THAT(reported(KemSdStdEventTimedWait, &event, 0), Fails(SDSTS_EVENT_TIMEOUT));
}

TEST_F(StdEvent, SetWakesOneSleeperOfMany)
{
    int woken = 0; // under the event's mutex
    const auto wokenSoFar = [&] {
        pthread_mutex_lock(&event.mutex);
        const int now = woken;
        pthread_mutex_unlock(&event.mutex);
        return now;
    };
    std::vector<std::thread> sleepers;
    for (int i = 0; i < 3; ++i)
        sleepers.emplace_back([&] {
            EXPECT_THAT(reported(KemSdStdEventWait, &event), Succeeds());
            pthread_mutex_lock(&event.mutex);
            ++woken;
            pthread_mutex_unlock(&event.mutex);
        });
    waitForSleepers(event.mutex, Call::pthread_cond_wait, 3);
    for (int i = 1; i <= 3; ++i) {
        set();
        EXPECT_TRUE(eventually([&] { return wokenSoFar() == i; }));
        EXPECT_THAT(reported(KemSdStdEventTimedWait, &event, 0), Fails(SDSTS_EVENT_TIMEOUT)); // consumed
    }
    for (std::thread& sleeper : sleepers) sleeper.join();
}

TEST_F(StdEvent, NegativeTimeoutWaitsWithoutLimit)
{
    for (const KEM_LONG_T milliseconds : {-1, -1000, INT32_MIN}) {
        resetCalls();
        std::thread sleeper(
            [&] { EXPECT_THAT(reported(KemSdStdEventTimedWait, &event, milliseconds), Succeeds()) << milliseconds; });
        waitForSleepers(event.mutex, Call::pthread_cond_wait, 1);
        set();
        sleeper.join();
        EXPECT_EQ(calls(Call::pthread_cond_timedwait), 0);
    }
}

TEST_F(StdEvent, TimedWaitIsWokenBeforeItsTime)
{
    std::thread sleeper([&] { EXPECT_THAT(reported(KemSdStdEventTimedWait, &event, INT32_MAX), Succeeds()); });
    waitForSleepers(event.mutex, Call::pthread_cond_timedwait, 1);
    set();
    sleeper.join();
    EXPECT_EQ(event.is_signaled, FALSE);
}

TEST_F(StdEvent, TimedWaitLeavesASignalThatComesAtTheLastMoment)
{
    EXPECT_THAT(refusedWhile(
                    Call::pthread_cond_timedwait, ETIMEDOUT, [&] { event.is_signaled = TRUE; }, KemSdStdEventTimedWait,
                    &event, 10),
                Fails(SDSTS_EVENT_TIMEOUT));
    EXPECT_THAT(reported(KemSdStdEventWait, &event), Succeeds());
}

TEST_F(StdEvent, WaitsGoOnAfterAWakeUpWithoutCause)
{
    const Failing spurious = Failing::nth(Call::pthread_cond_wait, 1, 0);
    const Failing spuriousTimed = Failing::nth(Call::pthread_cond_timedwait, 1, 0);
    std::thread sleeper([&] { EXPECT_THAT(reported(KemSdStdEventWait, &event), Succeeds()); });
    waitForSleepers(event.mutex, Call::pthread_cond_wait, 2);
    set();
    sleeper.join();
    EXPECT_THAT(reported(KemSdStdEventTimedWait, &event, 1), Fails(SDSTS_EVENT_TIMEOUT));
    EXPECT_EQ(calls(Call::pthread_cond_timedwait), 2);
}

TEST_F(StdEvent, WakeUpTimeCarriesIntoTheSeconds)
{
    for (const WakeUp& wakeUp : kWakeUps) {
        const ClockAt now(10, wakeUp.nowNanoseconds);
        EXPECT_THAT(
            refused(Call::pthread_cond_timedwait, ETIMEDOUT, KemSdStdEventTimedWait, &event, wakeUp.milliseconds),
            Fails(SDSTS_EVENT_TIMEOUT))
            << wakeUp;
        EXPECT_EQ(lastDeadline().tv_sec, wakeUp.seconds) << wakeUp;
        EXPECT_EQ(lastDeadline().tv_nsec, wakeUp.nanoseconds) << wakeUp;
    }
}

TEST_F(StdEvent, CreateReportsEitherRefusalAndLeavesTheRecord)
{
    KEM_STDEVENT_T other, before;
    memset(&other, 0x5A, sizeof other);
    memcpy(&before, &other, sizeof before);
    EXPECT_THAT(refused(Call::pthread_mutex_init, ENOMEM, KemSdStdEventCreate, &other),
                Fails(SDSTS_EVENT_CREATE, ENOMEM));
    EXPECT_EQ(calls(Call::pthread_mutex_destroy), 0);
    EXPECT_THAT(refused(Call::pthread_cond_init, EAGAIN, KemSdStdEventCreate, &other),
                Fails(SDSTS_EVENT_CREATE, EAGAIN));
    EXPECT_EQ(calls(Call::pthread_mutex_destroy), 1);
    EXPECT_EQ(memcmp(&other, &before, sizeof before), 0);
}

TEST_F(StdEvent, ARefusedLockIsReportedAndChangesNothing)
{
    EXPECT_THAT(refused(Call::pthread_mutex_lock, EINVAL, KemSdStdEventSet, &event), Fails(SDSTS_EVENT_CLEAR, EINVAL));
    EXPECT_EQ(event.is_signaled, FALSE);
    set();
    EXPECT_THAT(refused(Call::pthread_mutex_lock, EINVAL, KemSdStdEventReset, &event), Fails(SDSTS_EVENT_SET, EINVAL));
    EXPECT_THAT(refused(Call::pthread_mutex_lock, EINVAL, KemSdStdEventWait, &event), Fails(SDSTS_EVENT_WAIT, EINVAL));
    for (const KEM_LONG_T milliseconds : {-1, 0, 10})
        EXPECT_THAT(refused(Call::pthread_mutex_lock, EINVAL, KemSdStdEventTimedWait, &event, milliseconds),
                    Fails(SDSTS_EVENT_WAIT, EINVAL))
            << milliseconds;
    EXPECT_EQ(event.is_signaled, TRUE);
}

TEST_F(StdEvent, NullIsInvalid)
{
    EXPECT_THAT(reported(KemSdStdEventCreate, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdStdEventSet, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdStdEventReset, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdStdEventWait, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdStdEventTimedWait, nullptr, 0), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdStdEventTimedWait, nullptr, -1), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdStdEventClose, nullptr), Fails(SDSTS_INVALID_PARAM));
}

TEST_F(StdEvent, CloseEndsMutexAndCondition)
{
    KEM_STDEVENT_T other;
    ASSERT_EQ(KemSdStdEventCreate(nullptr, &other), 0);
    resetCalls();
    EXPECT_THAT(reported(KemSdStdEventClose, &other), Succeeds());
    EXPECT_EQ(calls(Call::pthread_mutex_destroy), 1);
    EXPECT_EQ(calls(Call::pthread_cond_destroy), 1);
}

// ---- Counting events

TEST_F(CountingEvent, CreatedWith2LetsTwoWaitsThrough)
{
    KEM_COUNTINGEVENT_T two;
    EXPECT_THAT(reported(KemSdCountingEventCreate, &two, 2), Succeeds());
    EXPECT_THAT(reported(KemSdCountingEventWait, &two), Succeeds());
    EXPECT_THAT(reported(KemSdCountingEventTimedWait, &two, 0), Succeeds());
    EXPECT_THAT(reported(KemSdCountingEventTimedWait, &two, 0), Fails(SDSTS_EVENT_TIMEOUT));
    EXPECT_THAT(reported(KemSdCountingEventClose, &two), Succeeds());
}

TEST_F(CountingEvent, EachSetAdmitsOneWait)
{
    for (int i = 0; i < 3; ++i) EXPECT_THAT(reported(KemSdCountingEventSet, &event), Succeeds());
    EXPECT_EQ(event.counter, 3u);
    for (int i = 0; i < 3; ++i) EXPECT_THAT(reported(KemSdCountingEventWait, &event), Succeeds());
    EXPECT_THAT(reported(KemSdCountingEventTimedWait, &event, 0), Fails(SDSTS_EVENT_TIMEOUT));
}

TEST_F(CountingEvent, CounterWraps)
{
    KEM_COUNTINGEVENT_T full;
    ASSERT_EQ(KemSdCountingEventCreate(nullptr, &full, UINT32_MAX), 0);
    EXPECT_THAT(reported(KemSdCountingEventSet, &full), Succeeds());
    EXPECT_EQ(full.counter, 0u);
    EXPECT_THAT(reported(KemSdCountingEventTimedWait, &full, 0), Fails(SDSTS_EVENT_TIMEOUT));
    EXPECT_EQ(KemSdCountingEventClose(nullptr, &full), 0);
}

TEST_F(CountingEvent, NegativeTimeoutWaitsWithoutLimit)
{
    for (const KEM_LONG_T milliseconds : {-1, INT32_MIN}) {
        resetCalls();
        std::thread sleeper([&] {
            EXPECT_THAT(reported(KemSdCountingEventTimedWait, &event, milliseconds), Succeeds()) << milliseconds;
        });
        waitForSleepers(event.mutex, Call::pthread_cond_wait, 1);
        set();
        sleeper.join();
        EXPECT_EQ(calls(Call::pthread_cond_timedwait), 0);
    }
}

TEST_F(CountingEvent, TimedWaitIsWokenBeforeItsTime)
{
    std::thread sleeper([&] { EXPECT_THAT(reported(KemSdCountingEventTimedWait, &event, INT32_MAX), Succeeds()); });
    waitForSleepers(event.mutex, Call::pthread_cond_timedwait, 1);
    set();
    sleeper.join();
    EXPECT_EQ(event.counter, 0u);
}

TEST_F(CountingEvent, TimedWaitLeavesASignalThatComesAtTheLastMoment)
{
    EXPECT_THAT(
        refusedWhile(
            Call::pthread_cond_timedwait, ETIMEDOUT, [&] { ++event.counter; }, KemSdCountingEventTimedWait, &event, 10),
        Fails(SDSTS_EVENT_TIMEOUT));
    EXPECT_THAT(reported(KemSdCountingEventWait, &event), Succeeds());
}

TEST_F(CountingEvent, WakeUpTimeCarriesIntoTheSeconds)
{
    for (const WakeUp& wakeUp : kWakeUps) {
        const ClockAt now(10, wakeUp.nowNanoseconds);
        EXPECT_THAT(
            refused(Call::pthread_cond_timedwait, ETIMEDOUT, KemSdCountingEventTimedWait, &event, wakeUp.milliseconds),
            Fails(SDSTS_EVENT_TIMEOUT))
            << wakeUp;
        EXPECT_EQ(lastDeadline().tv_sec, wakeUp.seconds) << wakeUp;
        EXPECT_EQ(lastDeadline().tv_nsec, wakeUp.nanoseconds) << wakeUp;
    }
}

TEST_F(CountingEvent, CreateReportsEitherRefusalAndLeavesTheRecord)
{
    KEM_COUNTINGEVENT_T other, before;
    memset(&other, 0x5A, sizeof other);
    memcpy(&before, &other, sizeof before);
    EXPECT_THAT(refused(Call::pthread_mutex_init, ENOMEM, KemSdCountingEventCreate, &other, 1),
                Fails(SDSTS_EVENT_CREATE, ENOMEM));
    EXPECT_THAT(refused(Call::pthread_cond_init, EAGAIN, KemSdCountingEventCreate, &other, 1),
                Fails(SDSTS_EVENT_CREATE, EAGAIN));
    EXPECT_EQ(calls(Call::pthread_mutex_destroy), 1);
    EXPECT_EQ(memcmp(&other, &before, sizeof before), 0);
}

TEST_F(CountingEvent, ARefusedLockIsReportedAndChangesNothing)
{
    set();
    EXPECT_THAT(refused(Call::pthread_mutex_lock, EINVAL, KemSdCountingEventSet, &event),
                Fails(SDSTS_EVENT_CLEAR, EINVAL));
    EXPECT_THAT(refused(Call::pthread_mutex_lock, EINVAL, KemSdCountingEventWait, &event),
                Fails(SDSTS_EVENT_WAIT, EINVAL));
    for (const KEM_LONG_T milliseconds : {-1, 0, 10})
        EXPECT_THAT(refused(Call::pthread_mutex_lock, EINVAL, KemSdCountingEventTimedWait, &event, milliseconds),
                    Fails(SDSTS_EVENT_WAIT, EINVAL))
            << milliseconds;
    EXPECT_EQ(event.counter, 1u);
}

TEST_F(CountingEvent, NullIsInvalid)
{
    EXPECT_THAT(reported(KemSdCountingEventCreate, nullptr, 1), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdCountingEventSet, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdCountingEventWait, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdCountingEventTimedWait, nullptr, 0), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdCountingEventTimedWait, nullptr, -1), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdCountingEventClose, nullptr), Fails(SDSTS_INVALID_PARAM));
}

TEST_F(CountingEvent, NoCallNeedsAContext)
{
    EXPECT_EQ(KemSdCountingEventSet(nullptr, &event), 0);
    EXPECT_EQ(KemSdCountingEventWait(nullptr, &event), 0);
    EXPECT_EQ(KemSdCountingEventTimedWait(nullptr, &event, 0), SDSTS_EVENT_TIMEOUT);
    EXPECT_EQ(KemSdStdEventSet(nullptr, nullptr), SDSTS_INVALID_PARAM);
}
