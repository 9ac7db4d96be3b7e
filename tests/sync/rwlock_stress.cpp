// Many threads pass through one reader-writer lock. What it protects is plain memory: a lost exclusion breaks its
// invariant, and a missing order is a data race that thread sanitizer reports.

#include <gtest/gtest.h>
#include <kemsd/sync.h>

#include <ostream>
#include <random>
#include <string>

#include "sd/base/atomic.h"
#include "support/child.h"
#include "support/rwwalker.h"
#include "sync/steppedrwlock.h"
#include "sync/torture.h"

using namespace kemsd::test;

namespace {

constexpr bool intact(const Guarded& guarded) { return guarded.first == guarded.second; }

// A thread's way through the lock.
class Passenger {
public:
    Passenger(KEM_RWLOCK_T& lock, const LockCalls& calls, int number)
        : lock_(lock), calls_(calls), random_(static_cast<unsigned>(number))
    {}
    ~Passenger() { calls_.freeNodes(&context_); }
    Passenger(const Passenger&) = delete;
    Passenger& operator=(const Passenger&) = delete;

    // So many in 10,000 of its passages write. True when it saw nobody where nobody may be.
    bool pass(Guarded& guarded, long mark, unsigned writesPer10000)
    {
        if (one(3000)) calls_.freeNodes(&context_); // as a thread that ends and one that begins
        return random_() % 10000 < writesPer10000 ? write(guarded, mark) : read(guarded);
    }

    bool read(Guarded& guarded)
    {
        bool right = calls_.startRead(nullptr, &context_, &lock_) == 0;
        const long count = guarded.count;
        right = right && intact(guarded);
        const bool deeper = one(4);
        if (deeper) right = right && calls_.startRead(nullptr, &context_, &lock_) == 0;
        if (one(16)) right = right && calls_.startWrite(nullptr, &context_, &lock_) == SDSTS_SEM_REQUEST;
        giveWay();
        right = right && intact(guarded) && guarded.count == count;
        if (deeper) right = right && calls_.end(nullptr, &context_, &lock_) == 0;
        return calls_.end(nullptr, &context_, &lock_) == 0 && right;
    }

    bool write(Guarded& guarded, long mark)
    {
        bool right = calls_.startWrite(nullptr, &context_, &lock_) == 0;
        const bool deeper = one(4);
        if (deeper) right = right && calls_.startRead(nullptr, &context_, &lock_) == 0;
        right = kemsd::test::pass(guarded, mark, [this] { giveWay(); }) && right;
        if (deeper) right = right && calls_.end(nullptr, &context_, &lock_) == 0;
        return calls_.end(nullptr, &context_, &lock_) == 0 && right;
    }

private:
    bool one(unsigned in) { return random_() % in == 0; }

    // Now and then the thread gives way inside, so that the others meet a held lock on any machine.
    void giveWay()
    {
        forgetMemory();
        if (one(512)) sched_yield();
        forgetMemory();
    }

    KEM_RWLOCK_T& lock_;
    const LockCalls& calls_;
    std::minstd_rand random_;
    KEM_SYNCCTX_T context_{};
};

// How waiters wait, and what the load is.
struct Load {
    const char* name;
    bool sleep;
    int64_t budget;
    int64_t yields;
    int64_t bound;
    unsigned writesPer10000;
    long acquisitions; // by all threads together, in a release build

    friend std::ostream& operator<<(std::ostream& out, const Load& load) { return out << load.name; }
};

class RWLockStress : public testing::TestWithParam<Load> {
protected:
    void SetUp() override
    {
        KEM_SDSYNC_ENV_INITED = 1; // no calibration
        KEM_SDSYNC_BUSYSPIN_UPPERLIMIT = GetParam().bound;
        KEM_RWLOCK_RMAXWAITLOOPS = KEM_RWLOCK_WMAXWAITLOOPS = GetParam().budget;
        KEM_RWLOCK_RMAXSPINYIELDS = KEM_RWLOCK_WMAXSPINYIELDS = GetParam().yields;
    }

    // One in so many of the load, the lock at a boundary of 16 bytes or between two.
    void load(const LockCalls& calls, long share, size_t place)
    {
        auto& lock = *reinterpret_cast<KEM_RWLOCK_T*>(storage + place);
        ASSERT_EQ(KemRWLockInit(nullptr, 0, &lock, GetParam().sleep, RWLOCK_DATCACHE_DATCBPOOLLOCK), 0);
        const int threads = threadCount();
        const long rounds = (GetParam().acquisitions / kShare / share + threads - 1) / threads;
        Guarded guarded;
        const long violations = together(threads, [&](int i) {
            Passenger passenger(lock, calls, i + 1);
            long seen = 0;
            for (long round = 0; round < rounds; ++round) {
                const unsigned writes = round == 0 ? 10000 : GetParam().writesPer10000; // each writes at least once
                seen += !passenger.pass(guarded, round * threads + i, writes);
            }
            return seen;
        });
        EXPECT_EQ(violations, 0);
        EXPECT_TRUE(intact(guarded));
        EXPECT_GE(guarded.count, threads);
        EXPECT_TRUE(lockIsSound(lock, {}));
        EXPECT_EQ(lock.lRdrCntAndFlags, 0);
    }

    alignas(16) char storage[sizeof(KEM_RWLOCK_T) + 16];
};

// At least a million acquisitions for each way of waiting, a hundred thousand under the sanitizers. Where nobody yields
// or sleeps, a waiter whose predecessor does not run burns a whole time slice, so few write.
constexpr Load kLoads[] = {
    {"budget1", true, 1, 0, 100, 1000, 1000000},       {"budget1WritersOnly", true, 1, 0, 100, 10000, 200000},
    {"budget1000", true, 1000, 10, 10, 1000, 1000000}, {"budget1000Even", true, 1000, 1, 1, 5000, 300000},
    {"budget0", true, 0, 1, 10, 1000, 1000000},        {"budget0WithoutYields", true, 0, 0, 100, 3, 1000000},
    {"budgetMinus1", true, -1, 3, 0, 1000, 1000000},   {"withoutSleep", false, 1, 1, 100, 3, 1000000},
};

INSTANTIATE_TEST_SUITE_P(Loads, RWLockStress, testing::ValuesIn(kLoads),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

// Between its steps a thread mostly goes on, sometimes dawdles, and now and then stands while others pass.
void dawdle(Step, const volatile void*)
{
    static thread_local std::minstd_rand random(
        static_cast<unsigned>(nanoseconds(CLOCK_MONOTONIC) ^ reinterpret_cast<uintptr_t>(&random)));
    const unsigned thrown = static_cast<unsigned>(random()) >> 8;
    if (thrown % 64 == 0)
        for (unsigned i = 0; i < thrown / 64 % 16; ++i) syscall(SYS_sched_yield);
    else if (thrown % 4 == 0)
        for (unsigned i = 0; i < thrown / 4 % 64; ++i) __builtin_ia32_pause();
}

} // namespace

TEST_P(RWLockStress, WritersAreAloneAndReadersAmongThemselves)
{
    load(kOwnCalls, 2, 0);
    load(kOwnCalls, 2, 8);
}

// Most flaws of a protocol show only when threads stop between its steps.
TEST_P(RWLockStress, ThreadsMayDawdleBetweenTheSteps)
{
    setBeforeStep(dawdle);
    load(kSteppedCalls, 20, 0);
    load(kSteppedCalls, 20, 8);
    setBeforeStep(nullptr);
}

TEST_P(RWLockStress, ThreadsMayDawdleWhereTheyGoByTheStepsAlone)
{
    setBeforeStep(dawdle);
    takeShortWays(false);
    load(kSteppedCalls, 20, 0);
    takeShortWays(true);
    setBeforeStep(nullptr);
}

// ---- Starvation

namespace {

// Others keep passing while one has its turns; true when it had enough of them, and they passed it all the while. Gives
// up after a minute.
template <class Others>
bool isServed(KEM_RWLOCK_T& lock, bool writes, int others, Others pass)
{
    constexpr long kTurns = 200, kOthersPassages = 2000;
    const long limit = nanoseconds(CLOCK_MONOTONIC) + 60000000000L;
    const auto inTime = [limit] { return nanoseconds(CLOCK_MONOTONIC) < limit; };
    Guarded guarded;
    long turns = 0, passages = 0;
    bool over = false;
    const long violations = together(others + 1, [&](int i) {
        Passenger passenger(lock, kOwnCalls, i + 1);
        long seen = 0;
        if (i == 0) {
            for (; (turns < kTurns || sd::loadRelaxed(passages) < kOthersPassages) && inTime(); ++turns)
                seen += !(writes ? passenger.write(guarded, i) : passenger.read(guarded));
            sd::storeRelaxed(over, true);
        } else {
            for (; !sd::loadRelaxed(over) && inTime(); __atomic_fetch_add(&passages, 1, __ATOMIC_RELAXED))
                seen += !pass(passenger, guarded, i);
        }
        return seen;
    });
    EXPECT_EQ(violations, 0);
    return inTime() && turns >= kTurns && passages >= kOthersPassages;
}

class RWLockStarvation : public testing::Test {
protected:
    void SetUp() override
    {
        KEM_SDSYNC_ENV_INITED = 1; // no calibration
        KEM_SDSYNC_BUSYSPIN_UPPERLIMIT = 100;
        ASSERT_EQ(KemRWLockInit(nullptr, 0, &lock, TRUE, RWLOCK_HASHSET_EXPLOCK), 0);
    }
    KEM_RWLOCK_T lock;
};

} // namespace

TEST_F(RWLockStarvation, AWriterIsServedUnderContinuousReaders)
{
    EXPECT_TRUE(isServed(lock, true, threadCount(),
                         [](Passenger& reader, Guarded& guarded, int) { return reader.read(guarded); }));
}

TEST_F(RWLockStarvation, AReaderIsServedUnderAContinuousWriter)
{
    EXPECT_TRUE(isServed(lock, false, 1,
                         [](Passenger& writer, Guarded& guarded, int mark) { return writer.write(guarded, mark); }));
}

// ---- The detector itself

namespace {

// Looks and takes in two steps, and between them waits for a second thread to have looked, too.
class BrokenLock {
public:
    void enter()
    {
        eventually([this] { return sd::loadRelaxed(inside_) == 0; });
        __atomic_fetch_add(&looked_, 1, __ATOMIC_RELAXED);
        eventually([this] { return sd::loadRelaxed(looked_) >= 2; });
        __atomic_fetch_add(&inside_, 1, __ATOMIC_RELAXED);
    }
    void leave() { __atomic_fetch_sub(&inside_, 1, __ATOMIC_RELAXED); }

private:
    int inside_ = 0;
    int looked_ = 0;
};

// A writer and a reader pass through the broken lock, the reader looking on while the writer is inside.
long violationsOfABrokenLock()
{
    BrokenLock lock;
    Guarded guarded;
    int stage = 0;
    const auto await = [&stage](int wanted) { eventually([&] { return sd::loadRelaxed(stage) >= wanted; }); };
    const auto reach = [&stage](int reached) {
        forgetMemory();
        sd::storeRelaxed(stage, reached);
    };
    return together(2, [&](int i) {
        lock.enter();
        bool right = true;
        if (i == 0) {
            right = pass(guarded, 1, [&] {
                reach(1);
                await(2);
            });
        } else {
            await(1);
            right = intact(guarded);
            reach(2);
        }
        lock.leave();
        return right ? 0L : 1L;
    });
}

} // namespace

TEST(RWLockDetector, SeesALockThatLooksAndTakesInTwoSteps)
{
    const Ended ended = inChild([] { return static_cast<int>(violationsOfABrokenLock()); });
    if (kSeesRaces)
        EXPECT_NE(ended.err.find("ThreadSanitizer: data race"), std::string::npos) << ended.err;
    else
        EXPECT_GE(ended.status, 1);
}
