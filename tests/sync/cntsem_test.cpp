#include <gtest/gtest.h>
#include <kemsd/sync.h>

#include <cerrno>
#include <cstdint>
#include <thread>

#include "support/failingcalls.h"
#include "support/report.h"
#include "sync/refused.h"
#include "sync/waiting.h"

using namespace kemsd::test;

namespace {

class CntSem : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(KemSdCntSemCreate(nullptr, nullptr, 0, 0, &semaphore), 0);
        resetCalls();
    }
    void TearDown() override { EXPECT_EQ(KemSdCntSemClose(nullptr, &semaphore), 0); }

    KEM_LONG_T count()
    {
        KEM_LONG_T now = -1;
        EXPECT_EQ(KemSdCntSemClear(nullptr, &semaphore, 0, &now), 0);
        return now;
    }
    void raise(KEM_ULONG_T by) { ASSERT_EQ(KemSdCntSemClear(nullptr, &semaphore, by, nullptr), 0); }

    KEM_CNTSEMHDL_T semaphore;
};

constexpr KEM_LONG_T kTimeouts[] = {1, 10, 5000, 600000, INT32_MAX, -2, INT32_MIN};

} // namespace

// ---- Making and ending

TEST_F(CntSem, StartsWithItsCountAndHasNoUpperBound)
{
    KEM_CNTSEMHDL_T other;
    EXPECT_THAT(reported(KemSdCntSemCreate, "a name", 2, 2, &other), Succeeds());
    KEM_LONG_T before = -1;
    EXPECT_THAT(reported(KemSdCntSemClear, &other, 5, &before), Succeeds());
    EXPECT_EQ(before, 2);
    for (int i = 0; i < 7; ++i) EXPECT_THAT(reported(KemSdCntSemRequest, &other, 0), Succeeds()) << i;
    EXPECT_THAT(reported(KemSdCntSemRequest, &other, 0), Fails(SDSTS_CNTSEM_TIMEOUT, -1));
    EXPECT_THAT(reported(KemSdCntSemClose, &other), Succeeds());
}

TEST_F(CntSem, CreateReportsTheRawResult)
{
    KEM_CNTSEMHDL_T other;
    EXPECT_THAT(reported(KemSdCntSemCreate, nullptr, 0x80000000u, 0, &other), Fails(SDSTS_CNTSEM_CREATE, -1));
    EXPECT_THAT(refused(Call::sem_init, ENOSPC, KemSdCntSemCreate, nullptr, 1, 1, &other),
                Fails(SDSTS_CNTSEM_CREATE, -1));
    EXPECT_THAT(reported(KemSdCntSemCreate, nullptr, 1, 1, nullptr), Fails(SDSTS_INVALID_PARAM));
}

TEST_F(CntSem, OpenDoesNothing)
{
    raise(3);
    EXPECT_THAT(reported(KemSdCntSemOpen, "a name", &semaphore), Succeeds());
    EXPECT_EQ(count(), 3);
    EXPECT_THAT(reported(KemSdCntSemOpen, nullptr, nullptr), Succeeds());
    EXPECT_EQ(calls(Call::sem_init), 0);
}

TEST_F(CntSem, CloseReportsTheRawResult)
{
    EXPECT_THAT(refused(Call::sem_destroy, EINVAL, KemSdCntSemClose, &semaphore), Fails(SDSTS_CNTSEM_CLOSE, -1));
    EXPECT_THAT(reported(KemSdCntSemClose, nullptr), Fails(SDSTS_INVALID_PARAM));
}

// ---- Requests

TEST_F(CntSem, RequestWithoutSemaphoreIsInvalid)
{
    for (const KEM_LONG_T milliseconds : {-1, 0, 10})
        EXPECT_THAT(reported(KemSdCntSemRequest, nullptr, milliseconds), Fails(SDSTS_INVALID_PARAM)) << milliseconds;
}

TEST_F(CntSem, RequestWithoutLimitWaitsForAPost)
{
    std::thread waiter([&] { EXPECT_THAT(reported(KemSdCntSemRequest, &semaphore, -1), Succeeds()); });
    EXPECT_TRUE(eventually([] { return calls(Call::sem_wait) == 1; }));
    raise(1);
    waiter.join();
    EXPECT_EQ(count(), 0);
}

TEST_F(CntSem, RequestWithoutLimitGoesOnAfterAnInterruption)
{
    raise(1);
    EXPECT_THAT(refusedNth(Call::sem_wait, 1, EINTR, KemSdCntSemRequest, &semaphore, -1), Succeeds());
    EXPECT_EQ(calls(Call::sem_wait), 2);
    EXPECT_EQ(count(), 0);
}

TEST_F(CntSem, RequestWithoutLimitReportsTheRawResultOfARefusal)
{
    EXPECT_THAT(refused(Call::sem_wait, EINVAL, KemSdCntSemRequest, &semaphore, -1), Fails(SDSTS_CNTSEM_REQUEST, -1));
}

TEST_F(CntSem, RequestAtOnceTakesOneOrSaysThatThereIsNone)
{
    raise(1);
    EXPECT_THAT(reported(KemSdCntSemRequest, &semaphore, 0), Succeeds());
    EXPECT_THAT(reported(KemSdCntSemRequest, &semaphore, 0), Fails(SDSTS_CNTSEM_TIMEOUT, -1));
    EXPECT_EQ(calls(Call::nanosleep), 0);
}

TEST_F(CntSem, RequestAtOnceGoesOnAfterAnInterruption)
{
    raise(1);
    EXPECT_THAT(refusedNth(Call::sem_trywait, 1, EINTR, KemSdCntSemRequest, &semaphore, 0), Succeeds());
    EXPECT_EQ(calls(Call::sem_trywait), 2);
    EXPECT_THAT(refusedNth(Call::sem_trywait, 1, EINTR, KemSdCntSemRequest, &semaphore, 0),
                Fails(SDSTS_CNTSEM_TIMEOUT, -1));
}

TEST_F(CntSem, RequestAtOnceReportsTheRawResultOfARefusal)
{
    EXPECT_THAT(refused(Call::sem_trywait, EINVAL, KemSdCntSemRequest, &semaphore, 0), Fails(SDSTS_CNTSEM_REQUEST, -1));
    EXPECT_EQ(calls(Call::sem_trywait), 1);
}

TEST_F(CntSem, TimedRequestSleepsFiveTimesASecondWhateverTheTimeout)
{
    for (const KEM_LONG_T milliseconds : kTimeouts) {
        resetCalls();
        const Failing instead(Call::nanosleep, 0, 0); // answers at once, as if the second had passed
        EXPECT_THAT(reported(KemSdCntSemRequest, &semaphore, milliseconds), Fails(SDSTS_CNTSEM_TIMEOUT, -1))
            << milliseconds;
        EXPECT_EQ(calls(Call::sem_trywait), 5) << milliseconds;
        EXPECT_EQ(calls(Call::nanosleep), 5) << milliseconds;
        EXPECT_EQ(lastSleep().tv_sec, 1);
        EXPECT_EQ(lastSleep().tv_nsec, 0);
    }
}

TEST_F(CntSem, TimedRequestTakesOneThatIsThereWithoutASleep)
{
    raise(1);
    EXPECT_THAT(reported(KemSdCntSemRequest, &semaphore, 10), Succeeds());
    EXPECT_EQ(calls(Call::nanosleep), 0);
    EXPECT_EQ(count(), 0);
}

TEST_F(CntSem, TimedRequestTakesOneThatComesWhileItSleeps)
{
    const Failing instead(Call::nanosleep, 0, 0, [&] { raise(1); });
    EXPECT_THAT(reported(KemSdCntSemRequest, &semaphore, 10), Succeeds());
    EXPECT_EQ(calls(Call::sem_trywait), 2);
    EXPECT_EQ(count(), 0);
}

TEST_F(CntSem, TimedRequestDoesNotLookAgainAfterTheLastSleep)
{
    const Failing instead(Call::nanosleep, 0, 0, [&] {
        if (calls(Call::nanosleep) == 5) raise(1);
    });
    EXPECT_THAT(reported(KemSdCntSemRequest, &semaphore, 10), Fails(SDSTS_CNTSEM_TIMEOUT, -1));
    EXPECT_EQ(count(), 1);
}

TEST_F(CntSem, TimedRequestCountsAnInterruptedAttempt)
{
    const Failing instead(Call::nanosleep, 0, 0);
    raise(1);
    EXPECT_THAT(refusedNth(Call::sem_trywait, 1, EINTR, KemSdCntSemRequest, &semaphore, 10), Succeeds());
    EXPECT_EQ(calls(Call::nanosleep), 1);
    resetCalls();
    EXPECT_THAT(refused(Call::sem_trywait, EINTR, KemSdCntSemRequest, &semaphore, 10), Fails(SDSTS_CNTSEM_TIMEOUT, -1));
    EXPECT_EQ(calls(Call::sem_trywait), 5);
    EXPECT_EQ(calls(Call::nanosleep), 5);
}

TEST_F(CntSem, TimedRequestGoesOnAfterAnInterruptedSleep)
{
    EXPECT_THAT(refused(Call::nanosleep, EINTR, KemSdCntSemRequest, &semaphore, 10), Fails(SDSTS_CNTSEM_TIMEOUT, -1));
    EXPECT_EQ(calls(Call::sem_trywait), 5);
}

TEST_F(CntSem, TimedRequestReportsARefusalAtOnce)
{
    const Failing instead(Call::nanosleep, 0, 0);
    EXPECT_THAT(refused(Call::sem_trywait, EINVAL, KemSdCntSemRequest, &semaphore, 10),
                Fails(SDSTS_CNTSEM_REQUEST, -1));
    EXPECT_EQ(calls(Call::nanosleep), 0);
    EXPECT_THAT(refusedNth(Call::sem_trywait, 3, EINVAL, KemSdCntSemRequest, &semaphore, 10),
                Fails(SDSTS_CNTSEM_REQUEST, -1));
    EXPECT_EQ(calls(Call::nanosleep), 2);
}

// ---- Clears

TEST_F(CntSem, ClearAddsThreeAndGivesTheCountBefore)
{
    raise(4);
    KEM_LONG_T before = -1;
    EXPECT_THAT(reported(KemSdCntSemClear, &semaphore, 3, &before), Succeeds());
    EXPECT_EQ(before, 4);
    EXPECT_EQ(count(), 7);
}

TEST_F(CntSem, ClearByNothingSucceedsAndGivesTheCount)
{
    raise(2);
    resetCalls();
    KEM_LONG_T before = -1;
    EXPECT_THAT(reported(KemSdCntSemClear, &semaphore, 0, &before), Succeeds());
    EXPECT_EQ(before, 2);
    EXPECT_THAT(reported(KemSdCntSemClear, &semaphore, 0, nullptr), Succeeds());
    EXPECT_EQ(calls(Call::sem_post), 0);
    EXPECT_EQ(calls(Call::sem_getvalue), 1);
}

TEST_F(CntSem, ClearReportsTheLastPostAlone)
{
    EXPECT_THAT(refusedNth(Call::sem_post, 1, EOVERFLOW, KemSdCntSemClear, &semaphore, 3, nullptr), Succeeds());
    EXPECT_EQ(count(), 2);
    EXPECT_THAT(refusedNth(Call::sem_post, 3, EOVERFLOW, KemSdCntSemClear, &semaphore, 3, nullptr),
                Fails(SDSTS_CNTSEM_CLEAR, -1));
    EXPECT_EQ(count(), 4);
}

TEST_F(CntSem, ClearBeyondTheLargestCountFails)
{
    KEM_CNTSEMHDL_T other;
    ASSERT_EQ(KemSdCntSemCreate(nullptr, nullptr, INT32_MAX, 0, &other), 0);
    KEM_LONG_T before = -1;
    EXPECT_THAT(reported(KemSdCntSemClear, &other, 1, &before), Fails(SDSTS_CNTSEM_CLEAR, -1));
    EXPECT_EQ(before, INT32_MAX);
    EXPECT_EQ(KemSdCntSemClose(nullptr, &other), 0);
}

TEST_F(CntSem, ClearWithoutSemaphoreIsInvalid)
{
    KEM_LONG_T before = -1;
    EXPECT_THAT(reported(KemSdCntSemClear, nullptr, 1, &before), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(before, -1);
}

TEST_F(CntSem, NoCallNeedsAContext)
{
    EXPECT_EQ(KemSdCntSemClear(nullptr, &semaphore, 1, nullptr), 0);
    EXPECT_EQ(KemSdCntSemRequest(nullptr, &semaphore, -1), 0);
    EXPECT_EQ(KemSdCntSemRequest(nullptr, &semaphore, 0), SDSTS_CNTSEM_TIMEOUT);
    EXPECT_EQ(KemSdCntSemOpen(nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(KemSdCntSemClose(nullptr, nullptr), SDSTS_INVALID_PARAM);
}
