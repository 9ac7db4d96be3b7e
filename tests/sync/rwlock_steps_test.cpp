// What happens when one thread stands between two steps of the reader-writer lock while others come and go. Threads
// are stopped before a step of their choice; see steppedrwlock.h.

#include <gtest/gtest.h>
#include <kemsd/sync.h>

#include <vector>

#include "support/failingcalls.h"
#include "support/rwwalker.h"
#include "sync/steppedrwlock.h"

using namespace kemsd::test;

namespace {

using Node = KEM_RWLOCKQNODE_T;

// Stops a visitor before steps of its next errand.
class Stops {
public:
    explicit Stops(Visitor& visitor)
    {
        visitor.prepare([this] { mine = this; });
    }

    // Before the errand: where to stop first.
    void at(Step step, const volatile void* word)
    {
        step_ = step;
        __atomic_store_n(&word_, word, __ATOMIC_RELEASE);
    }
    void reached() { state_.await(kStopped); }
    bool stopped() const { return state_.value() == kStopped; }
    // From one stop to the next, should there be such a step, or to the end.
    void goOnUntil(Step step, const volatile void* word)
    {
        at(step, word);
        state_.set(kRunning);
    }
    void goOnTo(Step step, const volatile void* word)
    {
        goOnUntil(step, word);
        reached();
    }
    void goOn()
    {
        stopNoMore();
        state_.set(kRunning);
    }
    void stopNoMore() { __atomic_store_n(&word_, nullptr, __ATOMIC_RELEASE); }

    // The hook.
    static void pass(Step step, const volatile void* word)
    {
        if (!mine) return;
        if (mine->wants(step, word)) {
            mine->state_.set(kStopped);
            mine->state_.await(kRunning);
        }
        if (!mine->word()) mine = nullptr;
    }

private:
    static constexpr int kRunning = 0;
    static constexpr int kStopped = 1;
    static inline thread_local Stops* mine = nullptr;

    const volatile void* word() const { return __atomic_load_n(&word_, __ATOMIC_ACQUIRE); }
    bool wants(Step step, const volatile void* at) const { return word() == at && step_ == step; }

    Step step_{}; // changes only while the visitor stands or has no errand
    const volatile void* word_ = nullptr;
    Signal state_;
};

using State = RwState;

class RWLockSteps : public testing::TestWithParam<size_t> {
protected:
    void SetUp() override
    {
        KEM_SDSYNC_ENV_INITED = 1; // no calibration
        KEM_RWLOCK_RMAXWAITLOOPS = KEM_RWLOCK_WMAXWAITLOOPS = 1;
        setBound(1);
        ASSERT_EQ(steppedInit(&lock, TRUE), 0);
        setBeforeStep(Stops::pass);
    }
    void TearDown() override
    {
        setBeforeStep(nullptr);
        setBound(20000);
        KEM_SDSYNC_ENV_INITED = 0;
    }
    static void setBound(int64_t bound) { __atomic_store_n(&KEM_SDSYNC_BUSYSPIN_UPPERLIMIT, bound, __ATOMIC_SEQ_CST); }

    State state() const { return State::of(lock); }
    bool comesTo(const State& expected) const
    {
        return eventually([&] { return state() == expected; });
    }
    void endsFree(std::vector<Visitor*> visitors) const
    {
        std::vector<const KEM_SYNCCTX_T*> contexts;
        for (Visitor* visitor : visitors) contexts.push_back(&visitor->context);
        EXPECT_EQ(state().word, 0);
        EXPECT_EQ(state().readerHead, nullptr);
        EXPECT_EQ(state().writerTail, nullptr);
        EXPECT_TRUE(lockIsSound(lock, contexts));
    }

    // Brings a reader before its push onto the stack of a lock that is free: it is going to lead a batch.
    void bringToLead(Visitor& leader, Stops& stop, Visitor& writer)
    {
        EXPECT_EQ(writer.startWrite(), 0);
        stop.at(Step::exchange, &lock.pReaderHead);
        leader.beginRead();
        stop.reached();
        EXPECT_EQ(writer.end(), 0);
    }

    // Off and on a boundary of 16 bytes: the first has no short way for writers.
    struct alignas(16) Place {
        char before[24];
        KEM_RWLOCK_T off;
        char between[8];
        KEM_RWLOCK_T on;
    } place;
    KEM_RWLOCK_T& lock = GetParam() == 0 ? place.on : place.off;
};

INSTANTIATE_TEST_SUITE_P(Places, RWLockSteps, testing::Values(0, 8),
                         [](const auto& parameter) { return parameter.param == 0 ? "on16Bytes" : "off16Bytes"; });

} // namespace

// ---- Readers

TEST_P(RWLockSteps, ALeaderSetsItsFlagCountsItselfAndTakesTheStack)
{
    Visitor writer(lock, kSteppedCalls), reader(lock, kSteppedCalls);
    EXPECT_EQ(writer.startWrite(), 0);
    Stops stop(reader);
    stop.at(Step::exchange, &lock.pReaderHead);
    reader.beginRead();
    stop.reached();
    EXPECT_EQ(state(), (State{3, nullptr, writer.node, writer.node}));
    EXPECT_EQ(writer.end(), 0);
    stop.goOnTo(Step::swap, &lock.lRdrCntAndFlags);
    EXPECT_EQ(state(), (State{0, reader.node, writer.node, nullptr}));
    stop.goOnTo(Step::add, &lock.lRdrCntAndFlags);
    EXPECT_EQ(state(), (State{4, reader.node, writer.node, nullptr}));
    stop.goOnTo(Step::exchange, &lock.pReaderHead);
    EXPECT_EQ(state(), (State{8, reader.node, writer.node, nullptr}));
    EXPECT_EQ(seen(reader.node->bBlocked), 1);
    stop.goOn();
    EXPECT_EQ(reader.result(), 0);
    EXPECT_EQ(state(), (State{8, nullptr, writer.node, nullptr}));
    EXPECT_EQ(seen(reader.node->bBlocked), 0);
    EXPECT_EQ(seen(reader.node->pQNext), nullptr);
    EXPECT_EQ(reader.end(), 0);
    endsFree({&writer, &reader});
}

TEST_P(RWLockSteps, AReaderThatComesBeforeTheLeaderTakesTheStackJoinsTheBatch)
{
    Visitor writer(lock, kSteppedCalls), leader(lock, kSteppedCalls), follower(lock, kSteppedCalls);
    EXPECT_EQ(writer.startWrite(), 0);
    Stops stop(leader);
    stop.at(Step::swap, &lock.lRdrCntAndFlags);
    leader.beginRead();
    stop.reached();
    EXPECT_EQ(writer.end(), 0);
    follower.beginRead();
    EXPECT_TRUE(comesTo({0, follower.node, writer.node, nullptr}));
    stop.goOnTo(Step::exchange, &lock.pReaderHead);
    EXPECT_EQ(state(), (State{8, follower.node, writer.node, nullptr}));
    EXPECT_FALSE(follower.back());
    stop.goOn();
    EXPECT_EQ(leader.result(), 0);
    EXPECT_EQ(follower.result(), 0);
    EXPECT_EQ(state(), (State{16, nullptr, writer.node, nullptr}));
    EXPECT_EQ(seen(follower.node->pQNext), leader.node);
    EXPECT_EQ(leader.end(), 0);
    EXPECT_EQ(follower.end(), 0);
    endsFree({&writer, &leader, &follower});
}

TEST_P(RWLockSteps, ABatchIsLetInFromTheYoungestToTheOldestEachCountingItselfFirst)
{
    Visitor writer(lock, kSteppedCalls), leader(lock, kSteppedCalls), second(lock, kSteppedCalls),
        third(lock, kSteppedCalls);
    EXPECT_EQ(writer.startWrite(), 0);
    leader.beginRead();
    EXPECT_TRUE(comesTo({7, leader.node, writer.node, writer.node}));
    Stops stopSecond(second), stopThird(third);
    stopSecond.at(Step::add, &lock.lRdrCntAndFlags);
    stopThird.at(Step::add, &lock.lRdrCntAndFlags);
    second.beginRead();
    EXPECT_TRUE(comesTo({7, second.node, writer.node, writer.node}));
    third.beginRead();
    EXPECT_TRUE(comesTo({7, third.node, writer.node, writer.node}));
    EXPECT_EQ(writer.end(), 0);
    stopThird.reached();
    EXPECT_EQ(state(), (State{8, nullptr, writer.node, nullptr})) << "the leader is counted before it is let in";
    EXPECT_EQ(seen(second.node->bBlocked), 1);
    stopThird.goOn();
    EXPECT_EQ(third.result(), 0);
    stopSecond.reached();
    EXPECT_EQ(state().word, 16);
    EXPECT_EQ(seen(leader.node->bBlocked), 1);
    stopSecond.goOn();
    EXPECT_EQ(second.result(), 0);
    EXPECT_EQ(leader.result(), 0);
    EXPECT_EQ(state().word, 24);
    for (Visitor* reader : {&leader, &second, &third}) EXPECT_EQ(reader->end(), 0);
    endsFree({&writer, &leader, &second, &third});
}

TEST_P(RWLockSteps, AReaderThatIsOvertakenByAnotherEntersAllTheSame)
{
    Visitor slow(lock, kSteppedCalls), quick(lock, kSteppedCalls);
    Stops stop(slow);
    stop.at(Step::swap, &lock.lRdrCntAndFlags);
    slow.beginRead();
    stop.reached();
    EXPECT_EQ(quick.startRead(), 0);
    EXPECT_EQ(state().word, 8);
    stop.goOn();
    EXPECT_EQ(slow.result(), 0);
    EXPECT_EQ(state(), (State{16, nullptr, nullptr, nullptr}));
    EXPECT_EQ(slow.end(), 0);
    EXPECT_EQ(quick.end(), 0);
    endsFree({&slow, &quick});
}

TEST_P(RWLockSteps, AReaderThatIsOvertakenByAWriterWaits)
{
    Visitor reader(lock, kSteppedCalls), writer(lock, kSteppedCalls);
    Stops stop(reader);
    stop.at(Step::swap, &lock.lRdrCntAndFlags);
    reader.beginRead();
    stop.reached();
    EXPECT_EQ(writer.startWrite(), 0);
    stop.goOn();
    EXPECT_TRUE(comesTo({7, reader.node, writer.node, writer.node}));
    EXPECT_FALSE(reader.back());
    EXPECT_EQ(writer.end(), 0);
    EXPECT_EQ(reader.result(), 0);
    EXPECT_EQ(state(), (State{8, nullptr, writer.node, nullptr}));
    EXPECT_EQ(reader.end(), 0);
    endsFree({&reader, &writer});
}

// ---- A writer between the steps of a batch

TEST_P(RWLockSteps, AWriterThatComesWhileABatchWaitsLeavesTheClaimToItsLeader)
{
    Visitor before(lock, kSteppedCalls), leader(lock, kSteppedCalls), writer(lock, kSteppedCalls);
    Stops stop(leader);
    bringToLead(leader, stop, before);
    stop.goOnTo(Step::add, &lock.lRdrCntAndFlags);
    EXPECT_EQ(state(), (State{4, leader.node, before.node, nullptr}));
    writer.beginWrite();
    EXPECT_TRUE(comesTo({5, leader.node, writer.node, writer.node})) << "QUEUED alone";
    stop.goOnTo(Step::load, &lock.lRdrCntAndFlags);
    EXPECT_EQ(state().word, 9);
    stop.goOnTo(Step::swap, &lock.lRdrCntAndFlags);
    EXPECT_EQ(state().word, 9);
    stop.goOnTo(Step::exchange, &lock.pReaderHead);
    EXPECT_EQ(state(), (State{11, leader.node, writer.node, writer.node}));
    stop.goOn();
    EXPECT_EQ(leader.result(), 0);
    EXPECT_FALSE(writer.back()) << "the batch goes first";
    EXPECT_EQ(leader.end(), 0);
    EXPECT_EQ(writer.result(), 0);
    EXPECT_EQ(state(), (State{3, nullptr, writer.node, writer.node}));
    EXPECT_EQ(writer.end(), 0);
    endsFree({&before, &leader, &writer});
}

// In two steps the leader would set the claim between them, its last reader let the writer in, and then the writer
// itself: one of the two would come too late, when the writer waits for something else or is gone.
TEST_P(RWLockSteps, AWriterThatComesBeforeTheLeadersLookSetsBothFlagsInOneStep)
{
    Visitor before(lock, kSteppedCalls), leader(lock, kSteppedCalls), writer(lock, kSteppedCalls);
    Stops stop(leader);
    bringToLead(leader, stop, before);
    stop.goOnTo(Step::add, &lock.lRdrCntAndFlags);
    stop.goOnTo(Step::load, &lock.lRdrCntAndFlags);
    EXPECT_EQ(state(), (State{8, leader.node, before.node, nullptr}));
    Stops stopWriter(writer);
    stopWriter.at(Step::swap, &lock.lRdrCntAndFlags);
    writer.beginWrite();
    stopWriter.reached();
    EXPECT_EQ(state(), (State{8, leader.node, writer.node, writer.node}));
    stopWriter.goOnUntil(Step::swap, &lock.lRdrCntAndFlags);
    EXPECT_TRUE(eventually([&] { return stopWriter.stopped() || state().word != 8; }));
    EXPECT_EQ(state(), (State{11, leader.node, writer.node, writer.node}));
    EXPECT_FALSE(stopWriter.stopped()) << "a second step";
    stopWriter.stopNoMore();
    stop.goOn();
    EXPECT_EQ(leader.result(), 0);
    EXPECT_EQ(state(), (State{11, nullptr, writer.node, writer.node}));
    EXPECT_EQ(leader.end(), 0);
    EXPECT_EQ(writer.result(), 0);
    EXPECT_EQ(state(), (State{3, nullptr, writer.node, writer.node}));
    EXPECT_EQ(writer.end(), 0);
    endsFree({&before, &leader, &writer});
}

TEST_P(RWLockSteps, AReaderThatLeavesBeforeTheClaimIsSetIsNotTheLast)
{
    Visitor before(lock, kSteppedCalls), leader(lock, kSteppedCalls), other(lock, kSteppedCalls),
        writer(lock, kSteppedCalls);
    Stops stop(leader);
    bringToLead(leader, stop, before);
    EXPECT_EQ(other.startRead(), 0);
    stop.goOnTo(Step::add, &lock.lRdrCntAndFlags);
    EXPECT_EQ(state().word, 12);
    writer.beginWrite();
    EXPECT_TRUE(comesTo({13, leader.node, writer.node, writer.node}));
    stop.goOnTo(Step::swap, &lock.lRdrCntAndFlags);
    EXPECT_EQ(state().word, 17);
    EXPECT_EQ(other.end(), 0);
    EXPECT_EQ(state().word, 9);
    EXPECT_EQ(seen(writer.node->bBlocked), 1);
    stop.goOn();
    EXPECT_EQ(leader.result(), 0);
    EXPECT_EQ(state().word, 11);
    EXPECT_EQ(leader.end(), 0);
    EXPECT_EQ(writer.result(), 0);
    EXPECT_EQ(writer.end(), 0);
    endsFree({&before, &leader, &other, &writer});
}

// ---- A writer that leaves

TEST_P(RWLockSteps, AWriterThatLeavesToABatchClearsItsFlagsCountsTheLeaderAndLeavesTheTailLast)
{
    Visitor writer(lock, kSteppedCalls), reader(lock, kSteppedCalls);
    EXPECT_EQ(writer.startWrite(), 0);
    reader.beginRead();
    EXPECT_TRUE(comesTo({7, reader.node, writer.node, writer.node}));
    Stops stop(writer);
    stop.at(Step::swap, &lock.lRdrCntAndFlags);
    writer.beginEnd();
    stop.reached();
    EXPECT_EQ(state(), (State{7, reader.node, writer.node, writer.node}));
    stop.goOnTo(Step::add, &lock.lRdrCntAndFlags);
    EXPECT_EQ(state(), (State{4, reader.node, writer.node, writer.node}));
    stop.goOnTo(Step::exchange, &lock.pReaderHead);
    EXPECT_EQ(state(), (State{8, reader.node, writer.node, writer.node}));
    stop.goOnTo(Step::swap, &lock.pWriterTail);
    EXPECT_EQ(state(), (State{8, nullptr, writer.node, writer.node}));
    EXPECT_EQ(reader.result(), 0);
    stop.goOn();
    EXPECT_EQ(writer.result(), 0);
    EXPECT_EQ(state(), (State{8, nullptr, writer.node, nullptr}));
    EXPECT_EQ(reader.end(), 0);
    endsFree({&writer, &reader});
}

TEST_P(RWLockSteps, AWriterThatComesWhileTheOneBeforeLeavesToABatchEntersAfterTheBatch)
{
    Visitor writer(lock, kSteppedCalls), reader(lock, kSteppedCalls), next(lock, kSteppedCalls);
    EXPECT_EQ(writer.startWrite(), 0);
    reader.beginRead();
    EXPECT_TRUE(comesTo({7, reader.node, writer.node, writer.node}));
    Stops stop(writer);
    stop.at(Step::add, &lock.lRdrCntAndFlags);
    writer.beginEnd();
    stop.reached();
    next.beginWrite();
    EXPECT_TRUE(eventually([&] { return seen(writer.node->pQNext) == next.node; }));
    EXPECT_EQ(state(), (State{4, reader.node, writer.node, next.node}));
    stop.goOn();
    EXPECT_EQ(writer.result(), 0);
    EXPECT_EQ(reader.result(), 0);
    EXPECT_EQ(state(), (State{11, nullptr, next.node, next.node}));
    EXPECT_FALSE(next.back());
    EXPECT_EQ(reader.end(), 0);
    EXPECT_EQ(next.result(), 0);
    EXPECT_EQ(next.end(), 0);
    endsFree({&writer, &reader, &next});
}

namespace {

// A writer inside, and the next one at the tail but not yet linked to it.
class RWLockLate : public RWLockSteps {
protected:
    void bringToTail(Visitor& writer, Visitor& late, Stops& stop)
    {
        EXPECT_EQ(writer.startWrite(), 0);
        stop.at(Step::store, &writer.node->pQNext);
        late.beginWrite();
        stop.reached();
        EXPECT_EQ(state(), (State{3, nullptr, writer.node, late.node}));
        resetCalls();
    }
    static bool yields()
    {
        return eventually([] { return calls(Call::sched_yield) >= 3; });
    }
};

INSTANTIATE_TEST_SUITE_P(Places, RWLockLate, testing::Values(0, 8),
                         [](const auto& parameter) { return parameter.param == 0 ? "on16Bytes" : "off16Bytes"; });

} // namespace

TEST_P(RWLockLate, AWriterThatLeavesWaitsForTheLinkAndLetsTheLateOneIn)
{
    Visitor writer(lock, kSteppedCalls), late(lock, kSteppedCalls);
    Stops stop(late);
    bringToTail(writer, late, stop);
    writer.beginEnd();
    EXPECT_TRUE(comesTo({0, nullptr, writer.node, late.node}));
    EXPECT_TRUE(yields()) << "the late one may need the processor";
    EXPECT_FALSE(writer.back());
    stop.goOn();
    EXPECT_EQ(writer.result(), 0);
    EXPECT_EQ(late.result(), 0);
    EXPECT_EQ(state(), (State{3, nullptr, late.node, late.node}));
    EXPECT_EQ(late.end(), 0);
    endsFree({&writer, &late});
}

TEST_P(RWLockLate, ReadersEnterWhileTheLinkIsMissingAndTheLastOfThemLetsTheLateOneIn)
{
    Visitor writer(lock, kSteppedCalls), late(lock, kSteppedCalls), reader(lock, kSteppedCalls);
    Stops stop(late);
    bringToTail(writer, late, stop);
    writer.beginEnd();
    EXPECT_TRUE(comesTo({0, nullptr, writer.node, late.node}));
    EXPECT_EQ(reader.startRead(), 0);
    EXPECT_EQ(state(), (State{8, nullptr, writer.node, late.node}));
    stop.goOn();
    EXPECT_EQ(writer.result(), 0);
    EXPECT_EQ(state(), (State{11, nullptr, late.node, late.node}));
    EXPECT_FALSE(late.back());
    EXPECT_EQ(reader.end(), 0);
    EXPECT_EQ(late.result(), 0);
    EXPECT_EQ(late.end(), 0);
    endsFree({&writer, &late, &reader});
}

TEST_P(RWLockLate, ABatchThatWaitedEntersBeforeTheLateOne)
{
    Visitor writer(lock, kSteppedCalls), late(lock, kSteppedCalls), reader(lock, kSteppedCalls);
    Stops stop(late);
    bringToTail(writer, late, stop);
    reader.beginRead();
    EXPECT_TRUE(comesTo({7, reader.node, writer.node, late.node}));
    writer.beginEnd();
    EXPECT_EQ(reader.result(), 0);
    EXPECT_TRUE(comesTo({8, nullptr, writer.node, late.node}));
    stop.goOn();
    EXPECT_EQ(writer.result(), 0);
    EXPECT_EQ(state(), (State{11, nullptr, late.node, late.node}));
    EXPECT_EQ(reader.end(), 0);
    EXPECT_EQ(late.result(), 0);
    EXPECT_EQ(late.end(), 0);
    endsFree({&writer, &late, &reader});
}

TEST_P(RWLockLate, ABatchThatFormsWhileTheLinkIsMissingGetsTheClaimFromItsLeader)
{
    Visitor writer(lock, kSteppedCalls), late(lock, kSteppedCalls), leader(lock, kSteppedCalls);
    Stops stop(late), stopLeader(leader);
    bringToTail(writer, late, stop);
    stopLeader.at(Step::exchange, &lock.pReaderHead);
    leader.beginRead();
    stopLeader.reached();
    writer.beginEnd();
    EXPECT_TRUE(comesTo({0, nullptr, writer.node, late.node}));
    stopLeader.goOnTo(Step::add, &lock.lRdrCntAndFlags);
    stop.goOn();
    EXPECT_EQ(writer.result(), 0);
    EXPECT_EQ(state(), (State{5, leader.node, late.node, late.node}));
    stopLeader.goOn();
    EXPECT_EQ(leader.result(), 0);
    EXPECT_EQ(state(), (State{11, nullptr, late.node, late.node}));
    EXPECT_EQ(leader.end(), 0);
    EXPECT_EQ(late.result(), 0);
    EXPECT_EQ(late.end(), 0);
    endsFree({&writer, &late, &leader});
}

// ---- Waking, sleeping, ending

TEST_P(RWLockSteps, ANodeOutlivesTheThreadThatIsStillLettingItsOwnerIn)
{
    KEM_RWLOCK_WMAXWAITLOOPS = -1; // it does not sleep
    ASSERT_EQ(steppedInit(&lock, TRUE), 0);
    Visitor reader(lock, kSteppedCalls), writer(lock, kSteppedCalls);
    EXPECT_EQ(reader.startRead(), 0);
    writer.beginWrite();
    EXPECT_TRUE(comesTo({11, nullptr, writer.node, writer.node}));
    Stops stop(reader);
    stop.at(Step::load, &writer.node->bSuspended); // inside the node's mutex, the writer let in already
    reader.beginEnd();
    stop.reached();
    EXPECT_EQ(writer.result(), 0);
    EXPECT_EQ(writer.end(), 0);
    resetCalls();
    writer.beginFreeNodes();
    EXPECT_TRUE(eventually([] { return calls(Call::pthread_mutex_lock) >= 1; }));
    EXPECT_EQ(calls(Call::pthread_mutex_destroy), 0);
    EXPECT_FALSE(writer.back());
    stop.goOn();
    EXPECT_EQ(reader.result(), 0);
    EXPECT_EQ(writer.result(), 0);
    EXPECT_EQ(calls(Call::pthread_mutex_destroy), 1);
    endsFree({&reader, &writer});
}

TEST_P(RWLockSteps, AWaiterThatIsAboutToSleepIsNotMissed)
{
    Visitor reader(lock, kSteppedCalls), writer(lock, kSteppedCalls);
    EXPECT_EQ(reader.startRead(), 0);
    Stops stop(writer);
    stop.at(Step::store, &writer.node->bSuspended); // it has looked for the last time
    writer.beginWrite();
    stop.reached();
    resetCalls();
    reader.beginEnd();
    EXPECT_TRUE(eventually([] { return calls(Call::pthread_mutex_lock) >= 1; }));
    EXPECT_EQ(seen(writer.node->bBlocked), 1);
    EXPECT_FALSE(reader.back());
    stop.goOn();
    EXPECT_EQ(writer.result(), 0);
    EXPECT_EQ(reader.result(), 0);
    EXPECT_EQ(calls(Call::pthread_cond_wait), 1);
    EXPECT_EQ(calls(Call::pthread_cond_signal), 1);
    EXPECT_EQ(writer.end(), 0);
    endsFree({&reader, &writer});
}

TEST_P(RWLockSteps, AWaiterThatIsLetInBeforeItSleepsDoesNotSleep)
{
    Visitor reader(lock, kSteppedCalls), writer(lock, kSteppedCalls);
    EXPECT_EQ(reader.startRead(), 0);
    Stops stop(writer);
    stop.at(Step::load, &KEM_SDSYNC_BUSYSPIN_UPPERLIMIT); // in its only spin pass
    writer.beginWrite();
    stop.reached();
    resetCalls();
    EXPECT_EQ(reader.end(), 0);
    EXPECT_EQ(state().word, 3);
    stop.goOn();
    EXPECT_EQ(writer.result(), 0);
    EXPECT_EQ(calls(Call::pthread_cond_wait), 0);
    EXPECT_EQ(calls(Call::pthread_cond_signal), 0);
    EXPECT_EQ(writer.end(), 0);
    endsFree({&reader, &writer});
}

namespace {

const volatile void* watched = nullptr;
long looks = 0;

void countLooks(Step step, const volatile void* at)
{
    if (step == Step::load && at == __atomic_load_n(&watched, __ATOMIC_RELAXED))
        __atomic_fetch_add(&looks, 1, __ATOMIC_RELAXED);
}

} // namespace

TEST_P(RWLockSteps, ASpinPassLooksAsOftenAsItsLoopsTimesTheBound)
{
    constexpr int64_t kLoops = 4, kBound = 50, kWaits = 3;
    constexpr long kOtherLooks = 10; // between the passes and around the sleep
    KEM_RWLOCK_WMAXSPINLOOPS = kLoops;
    KEM_RWLOCK_WMAXWAITLOOPS = kWaits;
    ASSERT_EQ(steppedInit(&lock, TRUE), 0);
    setBound(kBound);
    Visitor reader(lock, kSteppedCalls), writer(lock, kSteppedCalls);
    EXPECT_EQ(reader.startRead(), 0);
    __atomic_store_n(&looks, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&watched, &writer.node->bBlocked, __ATOMIC_RELAXED);
    setBeforeStep(countLooks);
    writer.beginWrite();
    EXPECT_TRUE(eventually([&] { return seen(writer.node->bSuspended) == 1; }));
    EXPECT_GE(seen(looks), kLoops * kBound * kWaits);
    EXPECT_LE(seen(looks), kLoops * kBound * kWaits + kOtherLooks);
    EXPECT_EQ(reader.end(), 0);
    EXPECT_EQ(writer.result(), 0);
    EXPECT_EQ(writer.end(), 0);
    KEM_RWLOCK_WMAXSPINLOOPS = 1;
}
