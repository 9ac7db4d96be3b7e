#include <gtest/gtest.h>
#include <kemsd/sync.h>

#include <cerrno>
#include <cstdint>
#include <ostream>
#include <thread>

#include "support/failingcalls.h"
#include "support/report.h"
#include "sync/refused.h"

using namespace kemsd::test;

namespace {

class Mutex : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(KemSdMutexCreate(nullptr, nullptr, &mutex), 0);
        resetCalls();
    }
    void TearDown() override { EXPECT_EQ(KemSdMutexClose(nullptr, &mutex), 0); }

    void hold() { ASSERT_EQ(KemSdMutexRequest(nullptr, &mutex, 0), 0); }
    void giveBack() { ASSERT_EQ(KemSdMutexClear(nullptr, &mutex), 0); }

    // Asked from another thread, because the mutex belongs to none.
    bool isHeld()
    {
        KEM_STS_T answer = 0;
        std::thread([&] {
            answer = KemSdMutexRequest(nullptr, &mutex, 0);
            if (answer == 0) KemSdMutexClear(nullptr, &mutex);
        }).join();
        return answer == SDSTS_MUTEX_BUSY;
    }

    KEM_MUTEXHDL_T mutex;
};

struct Attempts {
    KEM_LONG_T milliseconds;
    long count;

    friend std::ostream& operator<<(std::ostream& out, const Attempts& a) { return out << a.milliseconds << " ms"; }
};

} // namespace

// ---- Making and ending

TEST_F(Mutex, IsMadeFreeWhateverTheName)
{
    KEM_MUTEXHDL_T other;
    EXPECT_THAT(reported(KemSdMutexCreate, "a name", &other), Succeeds());
    EXPECT_THAT(reported(KemSdMutexRequest, &other, 0), Succeeds());
    EXPECT_THAT(reported(KemSdMutexClear, &other), Succeeds());
    EXPECT_THAT(reported(KemSdMutexClose, &other), Succeeds());
}

TEST_F(Mutex, IsMadeAnewByOpening)
{
    KEM_MUTEXHDL_T other = PTHREAD_MUTEX_INITIALIZER;
    EXPECT_THAT(reported(KemSdMutexOpen, "a name", &other), Succeeds());
    EXPECT_EQ(calls(Call::pthread_mutex_init), 1);
    EXPECT_THAT(reported(KemSdMutexRequest, &other, 0), Succeeds());
    EXPECT_THAT(reported(KemSdMutexClear, &other), Succeeds());
    EXPECT_THAT(reported(KemSdMutexClose, &other), Succeeds());
}

TEST_F(Mutex, ReportsThatItCannotBeMade)
{
    KEM_MUTEXHDL_T other;
    EXPECT_THAT(refused(Call::pthread_mutex_init, EAGAIN, KemSdMutexCreate, nullptr, &other),
                Fails(SDSTS_MUTEX_CREATE, EAGAIN));
    EXPECT_THAT(reported(KemSdMutexCreate, "a name", nullptr), Fails(SDSTS_INVALID_PARAM));
}

TEST_F(Mutex, OpeningDropsTheErrorNumber)
{
    KEM_MUTEXHDL_T other;
    EXPECT_THAT(refused(Call::pthread_mutex_init, EAGAIN, KemSdMutexOpen, nullptr, &other), Fails(SDSTS_MUTEX_CREATE));
    EXPECT_THAT(reported(KemSdMutexOpen, nullptr, nullptr), Fails(SDSTS_INVALID_PARAM));
}

TEST_F(Mutex, CloseReportsTheRefusal)
{
    EXPECT_THAT(refused(Call::pthread_mutex_destroy, EBUSY, KemSdMutexClose, &mutex), Fails(SDSTS_MUTEX_CLOSE, EBUSY));
}

TEST_F(Mutex, ClearGivesItBackAndReportsTheRefusal)
{
    hold();
    EXPECT_THAT(refused(Call::pthread_mutex_unlock, EPERM, KemSdMutexClear, &mutex), Fails(SDSTS_SEM_CLEAR, EPERM));
    EXPECT_TRUE(isHeld());
    EXPECT_THAT(reported(KemSdMutexClear, &mutex), Succeeds());
    EXPECT_FALSE(isHeld());
    EXPECT_THAT(reported(KemSdMutexClear, nullptr), Fails(SDSTS_INVALID_PARAM));
}

// ---- Requests

TEST_F(Mutex, CloseWithoutMutexIsInvalid)
{
    EXPECT_THAT(reported(KemSdMutexClose, nullptr), Fails(SDSTS_INVALID_PARAM));
}

TEST_F(Mutex, RequestWithoutMutexIsInvalid)
{
    for (const KEM_LONG_T milliseconds : {-1, 0, 1000, -5})
        EXPECT_THAT(reported(KemSdMutexRequest, nullptr, milliseconds), Fails(SDSTS_INVALID_PARAM)) << milliseconds;
}

TEST_F(Mutex, RequestWithoutLimitWaitsForTheHolder)
{
    hold();
    bool freed = false; // plain: the mutex orders it
    std::thread waiter([&] {
        EXPECT_THAT(reported(KemSdMutexRequest, &mutex, -1), Succeeds());
        EXPECT_TRUE(freed);
        EXPECT_EQ(KemSdMutexClear(nullptr, &mutex), 0);
    });
    freed = true;
    giveBack();
    waiter.join();
}

TEST_F(Mutex, RequestWithoutLimitReportsErrnoInsteadOfTheResult)
{
    const Report report = [&] {
        const Failing lock(Call::pthread_mutex_lock, ENOTRECOVERABLE, EINVAL); // errno, result
        return reported(KemSdMutexRequest, &mutex, -1);
    }();
    EXPECT_THAT(report, Fails(SDSTS_SEM_REQUEST, ENOTRECOVERABLE));
}

TEST_F(Mutex, RequestAtOnceTakesAFreeOneAndFindsAHeldOneBusy)
{
    EXPECT_THAT(reported(KemSdMutexRequest, &mutex, 0), Succeeds());
    EXPECT_TRUE(isHeld());
    EXPECT_THAT(reported(KemSdMutexRequest, &mutex, 0), Fails(SDSTS_MUTEX_BUSY, EBUSY));
    EXPECT_EQ(calls(Call::nanosleep), 0);
    giveBack();
}

TEST_F(Mutex, RequestAtOncePassesAnyOtherRefusalForSuccessWithItsNumber)
{
    EXPECT_THAT(refused(Call::pthread_mutex_trylock, EINVAL, KemSdMutexRequest, &mutex, 0), SucceedsWith(EINVAL));
    EXPECT_FALSE(isHeld());
}

TEST_F(Mutex, TimedRequestMakesAnAttemptASecondEachFollowedByASecondsSleep)
{
    constexpr Attempts kCases[] = {
        {1, 1},         {999, 1},       {1000, 1},      {1001, 2},          {2500, 3},          {65535000, 65535},
        {65536001, 1}, // 65537 in 16 bits
        {-1999, 65535}, {-2998, 65535}, {-2999, 65534}, {INT32_MAX, 50332}, {INT32_MIN, 15206},
    };
    hold();
    for (const Attempts& attempts : kCases) {
        resetCalls();
        const Failing instead(Call::nanosleep, 0, 0); // answers at once, as if the second had passed
        EXPECT_THAT(reported(KemSdMutexRequest, &mutex, attempts.milliseconds), Fails(SDSTS_SEM_REQUEST, EBUSY))
            << attempts;
        EXPECT_EQ(calls(Call::pthread_mutex_trylock), attempts.count) << attempts;
        EXPECT_EQ(calls(Call::nanosleep), attempts.count) << attempts;
        EXPECT_EQ(lastSleep().tv_sec, 1);
        EXPECT_EQ(lastSleep().tv_nsec, 0);
    }
    giveBack();
}

TEST_F(Mutex, TimedRequestWithoutAnyAttemptSucceedsWithoutTheMutex)
{
    for (const KEM_LONG_T milliseconds : {-5, -2, -999, -1000, -1998, 65535001, 65536000}) {
        resetCalls();
        EXPECT_THAT(reported(KemSdMutexRequest, &mutex, milliseconds), Succeeds()) << milliseconds;
        EXPECT_EQ(calls(Call::pthread_mutex_trylock) + calls(Call::pthread_mutex_lock), 0) << milliseconds;
        EXPECT_EQ(calls(Call::nanosleep), 0) << milliseconds;
    }
    EXPECT_FALSE(isHeld());
}

TEST_F(Mutex, TimedRequestTakesAFreeOneWithoutASleep)
{
    EXPECT_THAT(reported(KemSdMutexRequest, &mutex, 1), Succeeds());
    EXPECT_EQ(calls(Call::nanosleep), 0);
    EXPECT_TRUE(isHeld());
    giveBack();
}

TEST_F(Mutex, TimedRequestTakesItWhenItIsGivenBackDuringTheSleep)
{
    hold();
    resetCalls();
    const Failing instead(Call::nanosleep, 0, 0, [&] { giveBack(); });
    EXPECT_THAT(reported(KemSdMutexRequest, &mutex, 600000), Succeeds());
    EXPECT_EQ(calls(Call::pthread_mutex_trylock), 2);
    giveBack();
}

TEST_F(Mutex, TimedRequestDoesNotLookAgainAfterTheLastSleep)
{
    hold();
    const Failing instead(Call::nanosleep, 0, 0, [&] { giveBack(); });
    EXPECT_THAT(reported(KemSdMutexRequest, &mutex, 1000), Fails(SDSTS_SEM_REQUEST, EBUSY));
    EXPECT_FALSE(isHeld());
}

TEST_F(Mutex, TimedRequestReportsARefusalThatIsNotInTheLastAttempt)
{
    EXPECT_THAT(refusedNth(Call::pthread_mutex_trylock, 1, EINVAL, KemSdMutexRequest, &mutex, 1001),
                Fails(SDSTS_SEM_REQUEST, EINVAL));
    EXPECT_EQ(calls(Call::pthread_mutex_trylock), 1);
    EXPECT_EQ(calls(Call::nanosleep), 0);
}

TEST_F(Mutex, TimedRequestPassesARefusalInTheLastAttemptForSuccessWithItsNumber)
{
    EXPECT_THAT(refused(Call::pthread_mutex_trylock, EINVAL, KemSdMutexRequest, &mutex, 1000), SucceedsWith(EINVAL));
    EXPECT_FALSE(isHeld());
    hold();
    const Failing instead(Call::nanosleep, 0, 0);
    EXPECT_THAT(refusedNth(Call::pthread_mutex_trylock, 2, EINVAL, KemSdMutexRequest, &mutex, 2000),
                SucceedsWith(EINVAL));
    EXPECT_EQ(calls(Call::nanosleep), 1);
    giveBack();
}

TEST_F(Mutex, TimedRequestGoesOnAfterAnInterruptedSleep)
{
    hold();
    resetCalls();
    EXPECT_THAT(refused(Call::nanosleep, EINTR, KemSdMutexRequest, &mutex, 3000), Fails(SDSTS_SEM_REQUEST, EBUSY));
    EXPECT_EQ(calls(Call::pthread_mutex_trylock), 3);
    EXPECT_EQ(calls(Call::nanosleep), 3);
    giveBack();
}

TEST_F(Mutex, NoCallNeedsAContext)
{
    const Failing instead(Call::nanosleep, 0, 0);
    EXPECT_EQ(KemSdMutexRequest(nullptr, &mutex, -1), 0);
    EXPECT_EQ(KemSdMutexRequest(nullptr, &mutex, 0), SDSTS_MUTEX_BUSY);
    EXPECT_EQ(KemSdMutexRequest(nullptr, &mutex, 1000), SDSTS_SEM_REQUEST);
    EXPECT_EQ(KemSdMutexRequest(nullptr, nullptr, 0), SDSTS_INVALID_PARAM);
    EXPECT_EQ(KemSdMutexClear(nullptr, &mutex), 0);
}

// ---- Critical sections

TEST_F(Mutex, CriticalSectionIsAMutexOfItsOwn)
{
    KEM_CRITSECHDL_T section;
    EXPECT_THAT(reported(KemSdCritSecInit, &section), Succeeds());
    EXPECT_THAT(reported(KemSdCritSecEnter, &section), Succeeds());
    EXPECT_THAT(reported(KemSdMutexRequest, &section, 0), Fails(SDSTS_MUTEX_BUSY, EBUSY));
    EXPECT_THAT(reported(KemSdCritSecExit, &section), Succeeds());
    EXPECT_THAT(reported(KemSdCritSecDelete, &section), Succeeds());
}

TEST_F(Mutex, CriticalSectionKeepsTheMutexsErrorNumberUnderAStatusOfItsOwn)
{
    KEM_CRITSECHDL_T section;
    EXPECT_THAT(refused(Call::pthread_mutex_init, ENOMEM, KemSdCritSecInit, &section),
                Fails(SDSTS_CRITSEC_INIT, ENOMEM));
    const Report entered = [&] {
        const Failing lock(Call::pthread_mutex_lock, EDEADLK, EINVAL); // errno, result
        return reported(KemSdCritSecEnter, &mutex);
    }();
    EXPECT_THAT(entered, Fails(SDSTS_CRITSEC_ENTER, EDEADLK));
    EXPECT_THAT(refused(Call::pthread_mutex_unlock, EPERM, KemSdCritSecExit, &mutex), Fails(SDSTS_CRITSEC_EXIT, EPERM));
}

TEST_F(Mutex, CriticalSectionsDeletionReportsTheMutexsStatusWithoutNumber)
{
    EXPECT_THAT(refused(Call::pthread_mutex_destroy, EBUSY, KemSdCritSecDelete, &mutex), Fails(SDSTS_MUTEX_CLOSE));
}

TEST_F(Mutex, CriticalSectionThatIsNullIsInvalid)
{
    EXPECT_THAT(reported(KemSdCritSecInit, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdCritSecEnter, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdCritSecExit, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdCritSecDelete, nullptr), Fails(SDSTS_INVALID_PARAM));
}

TEST_F(Mutex, CriticalSectionNeedsNoContext)
{
    EXPECT_EQ(KemSdCritSecEnter(nullptr, nullptr), SDSTS_INVALID_PARAM);
    EXPECT_EQ(KemSdCritSecEnter(nullptr, &mutex), 0);
    EXPECT_EQ(KemSdCritSecExit(nullptr, &mutex), 0);
}
