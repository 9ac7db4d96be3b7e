#include <gtest/gtest.h>
#include <kemsd/sync.h>

#include <ostream>
#include <string>

#include "sync/torture.h"

using namespace kemsd::test;

namespace {

// ---- Lightweight

struct Load {
    const char* name;
    bool tickets;
    int64_t bound;
    long acquisitions; // by all threads together, in a release build

    friend std::ostream& operator<<(std::ostream& out, const Load& load) { return out << load.name; }
};

// Few in the fair variant where its waiters spin for long, as with the spinlock.
constexpr Load kLoads[] = {
    {"exchange", false, 20000, 300000}, {"exchangeBound100", false, 100, 4000000}, {"exchangeBound0", false, 0, 600000},
    {"ticket", true, 20000, 1500},      {"ticketBound100", true, 100, 1000000},    {"ticketBound0", true, 0, 100000},
};

class LWSpinlockStress : public testing::TestWithParam<Load> {
protected:
    void SetUp() override
    {
        KemSdSetHardwareAcceleration(GetParam().tickets);
        setSpinBound(GetParam().bound);
        KemSdLWSpinlockInit(&lock);
    }
    void TearDown() override
    {
        KemSdSetHardwareAcceleration(FALSE);
        setSpinBound(kInitialSpinBound);
    }

    KEM_LWSPINLOCK_T lock;
};

INSTANTIATE_TEST_SUITE_P(Loads, LWSpinlockStress, testing::ValuesIn(kLoads),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

struct Lightweight {
    KEM_LWSPINLOCK_T& lock;
    void acquire() { KemSdLWSpinlockAcquire(&lock); }
    void release() { KemSdLWSpinlockRelease(&lock); }
    bool holds(int depth)
    {
        const auto present = bSdHardwareAcceleration ? static_cast<int>(sd::loadRelaxed(lock.ticket.count))
                                                     : sd::loadRelaxed(lock.xchg.count);
        return KemSdLWSpinlockOwner(&lock) && present == depth;
    }
};

} // namespace

TEST_P(LWSpinlockStress, OneThreadAtATimeIsInside)
{
    Lightweight passages{lock};
    torture(passages, GetParam().acquisitions, true);
    if (GetParam().tickets)
        EXPECT_EQ(lock.ticket.grant, lock.ticket.ticket); // nobody waits
    else
        EXPECT_EQ(lock.xchg.slock, 1);
}

TEST(LWTicketOrder, ThreadsEnterInTheOrderOfTheirArrival)
{
    KemSdSetHardwareAcceleration(TRUE);
    KEM_LWSPINLOCK_T lock;
    KemSdLWSpinlockInit(&lock);
    expectOrderOfArrival([&] { KemSdLWSpinlockAcquire(&lock); }, [&] { KemSdLWSpinlockRelease(&lock); },
                         [&] { return sd::loadRelaxed(lock.ticket.ticket); },
                         [&](int, const auto& enter) {
                             KemSdLWSpinlockAcquire(&lock);
                             enter();
                             KemSdLWSpinlockRelease(&lock);
                         });
    KemSdSetHardwareAcceleration(FALSE);
}

// ---- Legacy

namespace {

struct Legacy {
    KEM_OLDSPINLOCK_T lock;
    void acquire() { KemSdOldSpinlockAcquire(nullptr, &lock, pthread_self(), "stress", 1); }
    void release() { KemSdOldSpinlockRelease(nullptr, &lock); }
    bool holds(int depth)
    {
        return sd::loadRelaxed(lock.thdMasterId) == pthread_self() && sd::loadRelaxed(lock.sLockCount) == depth;
    }
};

class LegacySpinlockStress : public testing::TestWithParam<KEM_LONG_T> {};

INSTANTIATE_TEST_SUITE_P(SpinTimes, LegacySpinlockStress, testing::Values(0, 256, 20000),
                         [](const auto& parameter) { return std::to_string(parameter.param); });

} // namespace

TEST_P(LegacySpinlockStress, OneThreadAtATimeIsInsideAndEveryAcquisitionIsCounted)
{
    constexpr long kAcquisitions = 4000000;
    Legacy passages;
    KemSdOldSpinlockInit(nullptr, &passages.lock);
    passages.lock.lSpinTime = GetParam();
    torture(passages, kAcquisitions, true);
    EXPECT_EQ(passages.lock.slock, 1);
    EXPECT_EQ(passages.lock.thdMasterId, 0u);
    // One passage in four is three acquisitions.
    const long rounds = (kAcquisitions / kShare + threadCount() - 1) / threadCount();
    EXPECT_EQ(passages.lock.sGetCount, threadCount() * (rounds + 2 * ((rounds + 3) / 4)));
    EXPECT_GE(passages.lock.sYieldCount, 0);
}
