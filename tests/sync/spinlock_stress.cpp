#include <gtest/gtest.h>
#include <kemsd/sync.h>

#include <ostream>
#include <string>

#include "support/child.h"
#include "sync/torture.h"

using namespace kemsd::test;

namespace {

struct Load {
    const char* name;
    bool tickets;
    bool reentrant;
    int64_t bound;
    long acquisitions; // by all threads together, in a release build

    friend std::ostream& operator<<(std::ostream& out, const Load& load) { return out << load.name; }
};

// A million and more of each of the four passages. The fair variant has few where its waiters spin for long: with more
// threads than processors the next in line is usually one that does not run.
constexpr Load kLoads[] = {
    {"exchange", false, true, 20000, 300000},
    {"exchangeBound100", false, true, 100, 4000000},
    {"exchangeBound1", false, true, 1, 600000},
    {"exchangeBound0", false, true, 0, 600000},
    {"exchangeNonReentrant", false, false, 20000, 200000},
    {"exchangeNonReentrantBound100", false, false, 100, 4000000},
    {"exchangeNonReentrantBound0", false, false, 0, 600000},
    {"ticket", true, true, 20000, 1500},
    {"ticketBound100", true, true, 100, 1000000},
    {"ticketBound1", true, true, 1, 60000},
    {"ticketBound0", true, true, 0, 100000},
    {"ticketNonReentrant", true, false, 20000, 1500},
    {"ticketNonReentrantBound100", true, false, 100, 1000000},
    {"ticketNonReentrantBound0", true, false, 0, 60000},
};

class SpinlockStress : public testing::TestWithParam<Load> {
protected:
    void SetUp() override
    {
        KemSdSetHardwareAcceleration(GetParam().tickets);
        setSpinBound(GetParam().bound);
        KemSdSpinlockInit(nullptr, &lock);
    }
    void TearDown() override
    {
        KemSdSetHardwareAcceleration(FALSE);
        setSpinBound(kInitialSpinBound);
    }

    alignas(64) KEM_SPINLOCK_T lock;
};

INSTANTIATE_TEST_SUITE_P(Loads, SpinlockStress, testing::ValuesIn(kLoads),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

struct Reentrant {
    KEM_SPINLOCK_T& lock;
    void acquire() { KemSdSpinlockAcquire(&lock, pthread_self()); }
    void release() { KemSdSpinlockRelease(&lock); }
    bool holds(int depth)
    {
        return KemSdSpinlockOwner(&lock, pthread_self()) && KemSdGetSpinlockRefCount(&lock) == depth;
    }
};

struct NonReentrant {
    KEM_SPINLOCK_T& lock;
    void acquire() { KemSdSpinlockAcquireNonReentrant(&lock, pthread_self()); }
    void release() { KemSdSpinlockReleaseNonReentrant(&lock); }
    bool holds(int) { return KemSdSpinlockOwner(&lock, pthread_self()); }
};

} // namespace

TEST_P(SpinlockStress, OneThreadAtATimeIsInside)
{
    if (GetParam().reentrant) {
        Reentrant passages{lock};
        torture(passages, GetParam().acquisitions, true);
    } else {
        NonReentrant passages{lock};
        torture(passages, GetParam().acquisitions, false);
    }
    EXPECT_EQ(KemSdSpinlockOwner(&lock, 0), TRUE);
}

// ---- Fairness

TEST(TicketOrder, ThreadsEnterInTheOrderOfTheirArrival)
{
    KemSdSetHardwareAcceleration(TRUE);
    alignas(64) KEM_SPINLOCK_T lock;
    KemSdSpinlockInit(nullptr, &lock);
    expectOrderOfArrival([&] { KemSdSpinlockAcquire(&lock, pthread_self()); }, [&] { KemSdSpinlockRelease(&lock); },
                         [&] { return sd::loadRelaxed(lock.ticket.lTicket); },
                         [&](int i, const auto& enter) {
                             const bool reentrant = i % 2;
                             (reentrant ? KemSdSpinlockAcquire : KemSdSpinlockAcquireNonReentrant)(&lock,
                                                                                                   pthread_self());
                             enter();
                             (reentrant ? KemSdSpinlockRelease : KemSdSpinlockReleaseNonReentrant)(&lock);
                         });
    KemSdSetHardwareAcceleration(FALSE);
}

// ---- The detector itself

namespace {

// Looks and takes in two steps, and between them waits for a second thread to have looked, too.
class BrokenLock {
public:
    void acquire()
    {
        eventually([this] { return sd::loadRelaxed(free_) == 1; });
        __atomic_fetch_add(&looked_, 1, __ATOMIC_RELAXED);
        eventually([this] { return sd::loadRelaxed(looked_) >= 2; });
        sd::storeRelaxed(free_, 0);
    }
    void release() { sd::storeRelaxed(free_, 1); }

private:
    int free_ = 1;
    int looked_ = 0;
};

// Two threads pass through the broken lock, the first inside staying until the second is inside, too.
long violationsOfABrokenLock()
{
    BrokenLock lock;
    Guarded guarded;
    int inside = 0;
    return together(2, [&](int i) {
        lock.acquire();
        const bool alone = pass(guarded, i + 1, [&] {
            __atomic_fetch_add(&inside, 1, __ATOMIC_RELAXED);
            eventually([&] { return sd::loadRelaxed(inside) == 2; });
            forgetMemory();
        });
        lock.release();
        return alone ? 0L : 1L;
    });
}

} // namespace

TEST(Detector, SeesALockThatLooksAndTakesInTwoSteps)
{
    const Ended ended = inChild([] { return static_cast<int>(violationsOfABrokenLock()); });
    if (kSeesRaces)
        EXPECT_NE(ended.err.find("ThreadSanitizer: data race"), std::string::npos) << ended.err;
    else
        EXPECT_GE(ended.status, 1);
}
