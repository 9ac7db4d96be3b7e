// Many threads pass through one lock. What the lock protects is plain memory: a lost exclusion breaks its invariant,
// and a missing order is a data race that thread sanitizer reports.

#include <gtest/gtest.h>
#include <kemsd/sync.h>
#include <sched.h>

#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "sd/base/atomic.h"
#include "support/child.h"
#include "sync/crowd.h"
#include "sync/waiting.h"

using namespace kemsd::test;

namespace {

constexpr long kShare = kSeesRaces ? 50 : kSanitized ? 10 : 1;

// What a lock protects: two words that are equal outside the critical section, and a count of passages.
struct Guarded {
    long count = 0;
    long first = 0;
    long second = 0;
};

// One passage; true when no other thread was seen inside.
template <class Between>
bool pass(Guarded& guarded, long mark, Between between)
{
    const bool intact = guarded.first == guarded.second;
    guarded.first = mark;
    ++guarded.count;
    between();
    const bool mine = guarded.first == mark;
    guarded.second = mark;
    return intact && mine;
}

// Keeps the compiler from carrying the guarded words over in registers.
void forgetMemory() { __atomic_signal_fence(__ATOMIC_SEQ_CST); }

struct Load {
    const char* name;
    bool tickets;
    bool reentrant;
    int64_t bound;
    long acquisitions; // by all threads together, in a release build

    friend std::ostream& operator<<(std::ostream& out, const Load& load) { return out << load.name; }
};

// 2,523,000 acquisitions. The fair variant has few where its waiters spin for long: with more threads than processors
// the next in line is usually one that does not run.
constexpr Load kLoads[] = {
    {"exchange", false, true, 20000, 300000},
    {"exchangeBound1", false, true, 1, 600000},
    {"exchangeBound0", false, true, 0, 600000},
    {"exchangeNonReentrant", false, false, 20000, 200000},
    {"exchangeNonReentrantBound0", false, false, 0, 600000},
    {"ticket", true, true, 20000, 1500},
    {"ticketBound1", true, true, 1, 60000},
    {"ticketBound0", true, true, 0, 100000},
    {"ticketNonReentrant", true, false, 20000, 1500},
    {"ticketNonReentrantBound0", true, false, 0, 60000},
};

class SpinlockStress : public testing::TestWithParam<Load> {
protected:
    void SetUp() override
    {
        KemSdSetHardwareAcceleration(GetParam().tickets);
        KEM_SDSYNC_BUSYSPIN_UPPERLIMIT = GetParam().bound;
        KemSdSpinlockInit(nullptr, &lock);
    }
    void TearDown() override
    {
        KemSdSetHardwareAcceleration(FALSE);
        KEM_SDSYNC_BUSYSPIN_UPPERLIMIT = 20000;
    }

    // One in four passages of the re-entrant kind goes three deep.
    bool passReentrant(long round, long mark)
    {
        const int depth = round % 4 == 0 ? 3 : 1;
        for (int i = 0; i < depth; ++i) KemSdSpinlockAcquire(&lock, pthread_self());
        const bool alone = pass(guarded, mark, [&] { gaveWay(round); }) && KemSdGetSpinlockRefCount(&lock) == depth &&
                           KemSdSpinlockOwner(&lock, pthread_self());
        for (int i = 0; i < depth; ++i) KemSdSpinlockRelease(&lock);
        return alone;
    }

    bool passNonReentrant(long round, long mark)
    {
        KemSdSpinlockAcquireNonReentrant(&lock, pthread_self());
        const bool alone = pass(guarded, mark, [&] { gaveWay(round); }) && KemSdSpinlockOwner(&lock, pthread_self());
        KemSdSpinlockReleaseNonReentrant(&lock);
        return alone;
    }

    // Now and then the owner gives way inside, so that the others meet a held lock on any machine.
    static void gaveWay(long round)
    {
        forgetMemory();
        if (round % 512 == 0) sched_yield();
    }

    alignas(64) KEM_SPINLOCK_T lock;
    Guarded guarded;
};

INSTANTIATE_TEST_SUITE_P(Loads, SpinlockStress, testing::ValuesIn(kLoads),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

} // namespace

TEST_P(SpinlockStress, OneThreadAtATimeIsInside)
{
    const int threads = threadCount();
    const long rounds = (GetParam().acquisitions / kShare + threads - 1) / threads;
    const long violations = together(threads, [&](int i) {
        long seen = 0;
        for (long round = 0; round < rounds; ++round) {
            const long mark = round * threads + i;
            seen += GetParam().reentrant ? !passReentrant(round, mark) : !passNonReentrant(round, mark);
        }
        return seen;
    });
    EXPECT_EQ(violations, 0);
    EXPECT_EQ(guarded.count, rounds * threads);
    EXPECT_EQ(guarded.first, guarded.second);
    EXPECT_EQ(KemSdSpinlockOwner(&lock, 0), TRUE);
}

// ---- Fairness

TEST(TicketOrder, ThreadsEnterInTheOrderOfTheirArrival)
{
    KemSdSetHardwareAcceleration(TRUE);
    alignas(64) KEM_SPINLOCK_T lock;
    KemSdSpinlockInit(nullptr, &lock);
    for (int round = 0; round < 5; ++round) {
        std::vector<int> order; // plain: the lock orders it
        std::vector<std::thread> waiters;
        KemSdSpinlockAcquire(&lock, pthread_self());
        const int64_t first = sd::loadRelaxed(lock.ticket.lTicket);
        for (int i = 0; i < 8; ++i) {
            waiters.emplace_back([&, i] {
                const bool reentrant = i % 2;
                (reentrant ? KemSdSpinlockAcquire : KemSdSpinlockAcquireNonReentrant)(&lock, pthread_self());
                order.push_back(i);
                (reentrant ? KemSdSpinlockRelease : KemSdSpinlockReleaseNonReentrant)(&lock);
            });
            // It has its place in the queue once its ticket is drawn.
            EXPECT_TRUE(eventually([&] { return sd::loadRelaxed(lock.ticket.lTicket) == first + i + 1; }));
        }
        EXPECT_TRUE(order.empty());
        KemSdSpinlockRelease(&lock);
        for (std::thread& waiter : waiters) waiter.join();
        EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7}));
    }
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
