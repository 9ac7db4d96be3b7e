#include <gtest/gtest.h>
#include <kemsd/sync.h>

#include <cstring>
#include <functional>
#include <thread>

#include "sd/base/atomic.h"
#include "support/failingcalls.h"
#include "sync/waiting.h"

using namespace kemsd::test;

namespace {

constexpr KEM_THDID_T kMe = 0x1122334455667788;
constexpr KEM_THDID_T kOther = 0x99;
constexpr char kFile[] = "server/host.cpp";
constexpr char kOtherFile[] = "server/other.cpp";

class LegacySpinlock : public testing::Test {
protected:
    void SetUp() override
    {
        memset(&lock, 0xA5, sizeof lock);
        KemSdOldSpinlockInit(nullptr, &lock);
        resetCalls();
    }

    void acquire(KEM_THDID_T id, const char* file = kFile, long line = 1)
    {
        KemSdOldSpinlockAcquire(nullptr, &lock, id, file, line);
    }
    void release() { KemSdOldSpinlockRelease(nullptr, &lock); }

    void whileOneWaits(const std::function<void(std::thread&)>& meanwhile)
    {
        kemsd::test::whileOneWaits([this] { acquire(pthread_self()); }, [this] { release(); }, meanwhile);
    }

    KEM_OLDSPINLOCK_T lock;
};

} // namespace

TEST_F(LegacySpinlock, AFreshOneIsAFreeWordAndItsSpinTime)
{
    KEM_OLDSPINLOCK_T fresh{};
    fresh.slock = 1;
    fresh.lSpinTime = 256;
    EXPECT_EQ(memcmp(&lock, &fresh, sizeof lock), 0);
}

TEST_F(LegacySpinlock, AHeldOneSaysByWhomAndSinceWhere)
{
    acquire(kMe, kFile, 4711);
    EXPECT_EQ(lock.slock, 0);
    EXPECT_EQ(lock.thdMasterId, kMe);
    EXPECT_EQ(lock.sLockCount, 1);
    EXPECT_EQ(lock.pszHolderFile, kFile);
    EXPECT_EQ(lock.sHolderLine, 4711);
    EXPECT_EQ(lock.sGetCount, 1);
    EXPECT_EQ(lock.sYieldCount, 0);
}

TEST_F(LegacySpinlock, AReentryCountsAndLeavesThePositionOfTheFirst)
{
    acquire(kMe, kFile, 4711);
    acquire(kMe, kOtherFile, 12);
    EXPECT_EQ(lock.sLockCount, 2);
    EXPECT_EQ(lock.sGetCount, 2);
    EXPECT_EQ(lock.pszHolderFile, kFile);
    EXPECT_EQ(lock.sHolderLine, 4711);
}

TEST_F(LegacySpinlock, ThreeAcquisitionsAndReleasesShowAGetCountOf3)
{
    for (int i = 0; i < 3; ++i) acquire(kMe);
    for (int depth = 3; depth > 0; --depth) {
        EXPECT_EQ(lock.slock, 0);
        EXPECT_EQ(lock.sLockCount, depth);
        release();
    }
    EXPECT_EQ(lock.slock, 1);
    EXPECT_EQ(lock.sLockCount, 0);
    EXPECT_EQ(lock.thdMasterId, 0u);
    EXPECT_EQ(lock.sGetCount, 3);
}

TEST_F(LegacySpinlock, AReleaseLeavesTheHoldersPosition)
{
    acquire(kMe, kFile, 4711);
    release();
    EXPECT_EQ(lock.pszHolderFile, kFile);
    EXPECT_EQ(lock.sHolderLine, 4711);
}

TEST_F(LegacySpinlock, ReleaseDoesNotAskWhoHoldsItAndFreesAtExactly0)
{
    acquire(kOther);
    release();
    EXPECT_EQ(lock.slock, 1);
    release();
    EXPECT_EQ(lock.slock, 1);
    EXPECT_EQ(lock.sLockCount, -1);
    acquire(kMe);
    EXPECT_EQ(lock.sLockCount, 1);
    lock.sLockCount = 0;
    release();
    EXPECT_EQ(lock.slock, 0);
    EXPECT_EQ(lock.thdMasterId, kMe);
}

TEST_F(LegacySpinlock, AcquisitionTakesTheLowestByteAndReleaseStoresTheWholeWord)
{
    lock.slock = 0x7F01;
    acquire(kMe);
    EXPECT_EQ(lock.slock, 0x7F00);
    release();
    EXPECT_EQ(lock.slock, 1);
}

TEST_F(LegacySpinlock, ItsFiguresWrapAfterTwoThousandMillion)
{
    lock.sGetCount = INT32_MAX;
    acquire(kMe);
    EXPECT_EQ(lock.sGetCount, INT32_MIN);
}

TEST_F(LegacySpinlock, TheContextIsLeftAlone)
{
    KEM_SDCTX_T context{};
    context.sts = -77001;
    context.osRetCode = -77002;
    KemSdOldSpinlockInit(&context, &lock);
    KemSdOldSpinlockAcquire(&context, &lock, kMe, kFile, 1);
    KemSdOldSpinlockRelease(&context, &lock);
    EXPECT_EQ(context.sts, -77001);
    EXPECT_EQ(context.osRetCode, -77002);
}

// ---- Waiting

TEST_F(LegacySpinlock, AWaiterYieldsAndCountsItsYields)
{
    whileOneWaits([this](std::thread&) {
        EXPECT_TRUE(yields(3));
        EXPECT_EQ(sd::loadRelaxed(lock.sYieldCount), 0); // told when the lock is had
    });
    EXPECT_GE(lock.sYieldCount, 3);
    EXPECT_EQ(lock.sYieldCount, calls(Call::sched_yield));
    EXPECT_EQ(lock.sGetCount, 2);
}

TEST_F(LegacySpinlock, YieldsAddUpOverTheLocksLife)
{
    whileOneWaits([](std::thread&) { EXPECT_TRUE(yields(1)); });
    whileOneWaits([](std::thread&) { EXPECT_TRUE(yields(calls(Call::sched_yield) + 1)); });
    EXPECT_EQ(lock.sYieldCount, calls(Call::sched_yield));
}

TEST_F(LegacySpinlock, ASpinTimeOf0OrLessYieldsAtOnce)
{
    for (const KEM_LONG_T spinTime : {0, -1, INT32_MIN}) {
        sd::storeRelaxed(lock.lSpinTime, spinTime);
        const long before = calls(Call::sched_yield);
        whileOneWaits([before](std::thread&) { EXPECT_TRUE(yields(before + 20)); });
    }
}

TEST_F(LegacySpinlock, BelowItsSpinTimeNothingYields)
{
    lock.lSpinTime = INT32_MAX; // seconds
    setSpinBound(0);            // of the other locks
    whileOneWaits([](std::thread& waiter) { EXPECT_TRUE(keepsRunning(waiter)); });
    setSpinBound(kInitialSpinBound);
    EXPECT_EQ(calls(Call::sched_yield), 0);
    EXPECT_EQ(lock.sYieldCount, 0);
}

TEST_F(LegacySpinlock, ALostRaceYieldsAtOnce)
{
    lock.lSpinTime = INT32_MAX;
    lock.slock = 0x80; // reads as free, but the byte taken out is not positive; after that it reads as held
    std::thread waiter([&] { acquire(kMe); });
    EXPECT_TRUE(yields(1));
    EXPECT_TRUE(keepsRunning(waiter));
    EXPECT_EQ(calls(Call::sched_yield), 1);
    sd::storeRelease(lock.slock, 1);
    waiter.join();
    EXPECT_EQ(lock.sYieldCount, 1);
    EXPECT_EQ(lock.thdMasterId, kMe);
}
