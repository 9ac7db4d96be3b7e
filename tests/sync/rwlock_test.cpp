#include <gmock/gmock.h>
#include <kemsd/memory.h>
#include <kemsd/sync.h>

#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "sd/base/atomic.h"
#include "support/failingcalls.h"
#include "support/report.h"
#include "support/rwwalker.h"
#include "sync/visitor.h"

using namespace kemsd::test;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

// ---- What the lock asks of the allocator

namespace {

struct Request {
    void* owner;
    size_t size;
};

std::vector<Request> requests;
long freed = 0;
int plannedStatus = 0; // answered instead of allocating
long plannedFor = 0;   // the request it is answered to, counted from 1; 0: none

} // namespace

extern "C" {
int __real_ovMalloc(void* address, size_t size, void** block, const char* file, long line);
int __real_ovFree(void* block, const char* file, long line);

int __wrap_ovMalloc(void* address, size_t size, void** block, const char* file, long line)
{
    requests.push_back({address, size});
    if (static_cast<long>(requests.size()) == plannedFor) return plannedStatus;
    return __real_ovMalloc(address, size, block, file, line);
}

int __wrap_ovFree(void* block, const char* file, long line)
{
    ++freed;
    return __real_ovFree(block, file, line);
}
}

namespace {

using Node = KEM_RWLOCKQNODE_T;
using Heads = std::array<Node*, KEM_RWLOCK_CAT_COUNT>;

constexpr size_t kListsSize = sizeof(Heads);

int owner; // stands for a thread context: its address alone is used

using State = RwState;

Heads headsOf(const void* lists)
{
    Heads heads{};
    if (lists) memcpy(heads.data(), lists, sizeof heads);
    return heads;
}

// ---- Fixtures

class RWLock : public testing::Test {
protected:
    void SetUp() override
    {
        use(storage);
        KEM_SDSYNC_ENV_INITED = 1; // the tunables are set by the tests
        initialise();
        requests.clear();
        freed = 0;
        plannedFor = 0;
        resetCalls();
    }
    void TearDown() override
    {
        EXPECT_EQ(KemRWLockFreeQNodes(&mine), 0);
        KEM_SDSYNC_ENV_INITED = 0;
        tune({1, 0, 1}, {1, 0, 1});
        setBound(20000);
    }

    // Of readers, or of writers.
    struct Tuning {
        int64_t spinLoops, yields, waits;
    };
    static void tune(Tuning readers, Tuning writers)
    {
        KEM_RWLOCK_RMAXSPINLOOPS = readers.spinLoops;
        KEM_RWLOCK_RMAXSPINYIELDS = readers.yields;
        KEM_RWLOCK_RMAXWAITLOOPS = readers.waits;
        KEM_RWLOCK_WMAXSPINLOOPS = writers.spinLoops;
        KEM_RWLOCK_WMAXSPINYIELDS = writers.yields;
        KEM_RWLOCK_WMAXWAITLOOPS = writers.waits;
    }
    static void setBound(int64_t bound) { __atomic_store_n(&KEM_SDSYNC_BUSYSPIN_UPPERLIMIT, bound, __ATOMIC_SEQ_CST); }

    void use(void* place) { lock = static_cast<KEM_RWLOCK_T*>(place); }
    void initialise(OV_BOOL_T toSleep = TRUE, KEM_RWLOCK_CAT category = RWLOCK_HASHSET_EXPLOCK)
    {
        ASSERT_EQ(KemRWLockInit(nullptr, 0, lock, toSleep, category), 0);
    }

    KEM_STS_T startRead() { return KemSdStartRead(&owner, &mine, lock); }
    KEM_STS_T startWrite() { return KemSdStartWrite(&owner, &mine, lock); }
    KEM_STS_T end() { return KemSdEndRW(&owner, &mine, lock); }
    KEM_USHORT_T mode() { return KemSdModeRW(&owner, &mine, lock); }
    KEM_BOOL_T owned() { return KemSdOwnerRW(&owner, &mine, lock); }

    State state() const { return State::of(*lock); }
    bool comesTo(const State& expected) const
    {
        return eventually([&] { return state() == expected; });
    }
    Node* heldNode(const KEM_SYNCCTX_T& context) const { return headsOf(context.pUsed)[lock->category]; }
    Node* cachedNode(const KEM_SYNCCTX_T& context) const { return headsOf(context.pFree)[lock->category]; }

    alignas(64) char storage[2 * sizeof(KEM_RWLOCK_T)];
    KEM_RWLOCK_T* lock = nullptr;
    KEM_SYNCCTX_T mine{};
};

// The states of a lock are the same wherever it lies.
class RWLockStates : public RWLock, public testing::WithParamInterface<size_t> {
protected:
    void SetUp() override
    {
        RWLock::SetUp();
        use(storage + GetParam());
        initialise();
    }
};

INSTANTIATE_TEST_SUITE_P(Places, RWLockStates, testing::Values(0, 8),
                         [](const auto& parameter) { return parameter.param == 0 ? "on16Bytes" : "off16Bytes"; });

} // namespace

// ---- Initialisation

TEST_F(RWLock, AFreshOneIsZeroButForItsTuningsAndArguments)
{
    tune({11, 12, 13}, {14, 15, 16});
    memset(static_cast<void*>(lock), 0xA5, sizeof *lock);
    EXPECT_EQ(KemRWLockInit(nullptr, 4711, lock, TRUE, RWLOCK_BGTP_LOCK), 0);
    KEM_RWLOCK_T expected;
    memset(static_cast<void*>(&expected), 0, sizeof expected);
    expected.lRdrMaxSpinLoops = 11;
    expected.lRdrMaxYields = 12;
    expected.lRdrMaxWaits = 13;
    expected.lWrtrMaxSpinLoops = 14;
    expected.lWrtrMaxYields = 15;
    expected.lWrtrMaxWaits = 16;
    expected.uiObjType = 4711;
    expected.bToSleep = TRUE;
    expected.category = RWLOCK_BGTP_LOCK;
    EXPECT_EQ(memcmp(lock, &expected, sizeof expected), 0);
}

TEST_F(RWLock, TheFirstOneReadsTheEnvironment)
{
    KemSyncEnvTerm(nullptr);
    setenv("KEM_RWLOCK_WMAXWAITLOOPS", "77", 1);
    initialise();
    unsetenv("KEM_RWLOCK_WMAXWAITLOOPS");
    EXPECT_EQ(lock->lWrtrMaxWaits, 77);
    EXPECT_EQ(KEM_SDSYNC_ENV_INITED, 1);
    KEM_RWLOCK_WMAXWAITLOOPS = 78;
    initialise();
    EXPECT_EQ(lock->lWrtrMaxWaits, 78) << "the environment is read once";
}

TEST_F(RWLock, InitialisationLeavesTheContextAlone)
{
    EXPECT_THAT(reported(KemRWLockInit, OV_UINT_T{1}, lock, OV_BOOL_T{TRUE}, RWLOCK_HASHSET_EXPLOCK), ReturnsOnly(0));
}

TEST_F(RWLock, InitialisationRefusesNoLockAndACategoryOutOfRange)
{
    memset(static_cast<void*>(lock), 0xA5, sizeof *lock);
    const KEM_RWLOCK_T before = *lock;
    EXPECT_EQ(KemRWLockInit(nullptr, 0, nullptr, TRUE, RWLOCK_HASHSET_EXPLOCK), SDSTS_INVALID_PARAM);
    for (const int category : {-1, 7})
        EXPECT_EQ(KemRWLockInit(nullptr, 0, lock, TRUE, static_cast<KEM_RWLOCK_CAT>(category)), SDSTS_INVALID_PARAM);
    EXPECT_EQ(memcmp(lock, &before, sizeof before), 0);
    initialise();
}

// ---- Missing arguments

TEST_F(RWLock, ACallWithoutSyncContextOrLockIsInvalid)
{
    for (const auto call : {KemSdStartRead, KemSdStartWrite, KemSdEndRW}) {
        EXPECT_EQ(call(&owner, nullptr, lock), SDSTS_INVALID_PARAM);
        EXPECT_EQ(call(&owner, &mine, nullptr), SDSTS_INVALID_PARAM);
    }
    EXPECT_EQ(KemRWLockQNodeDestroy(&owner, nullptr), SDSTS_INVALID_PARAM);
    EXPECT_EQ(KemRWLockFreeQNodes(nullptr), SDSTS_INVALID_PARAM);
    EXPECT_THAT(requests, IsEmpty());
    EXPECT_EQ(state(), (State{0, nullptr, nullptr, nullptr}));
}

TEST_F(RWLock, NobodyOwnsALockWithoutSyncContextOrLock)
{
    EXPECT_EQ(startWrite(), 0);
    EXPECT_EQ(KemSdModeRW(&owner, nullptr, lock), 0);
    EXPECT_EQ(KemSdModeRW(&owner, &mine, nullptr), 0);
    EXPECT_EQ(KemSdOwnerRW(&owner, nullptr, lock), FALSE);
    EXPECT_EQ(KemSdOwnerRW(&owner, &mine, nullptr), FALSE);
    EXPECT_EQ(end(), 0);
}

// ---- Alone

TEST_P(RWLockStates, AReaderCounts8AndLeavesNothing)
{
    EXPECT_EQ(startRead(), 0);
    EXPECT_EQ(state(), (State{8, nullptr, nullptr, nullptr}));
    EXPECT_TRUE(lockIsSound(*lock, {&mine}));
    const Node& node = *heldNode(mine);
    EXPECT_EQ(node.bMode, 1);
    EXPECT_EQ(node.sCount, 1);
    EXPECT_EQ(node.bBlocked, 0);
    EXPECT_EQ(node.bSuspended, 0);
    EXPECT_EQ(node.pQNext, nullptr);
    EXPECT_EQ(node.pKey, lock);
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(state(), (State{0, nullptr, nullptr, nullptr}));
    EXPECT_EQ(node.bMode, 0);
    EXPECT_EQ(node.sCount, 0);
    EXPECT_TRUE(lockIsSound(*lock, {&mine}));
}

TEST_P(RWLockStates, AWriterIsHeadAndTailAndLeavesItselfAsTheHead)
{
    EXPECT_EQ(startWrite(), 0);
    Node* node = heldNode(mine);
    EXPECT_EQ(state(), (State{3, nullptr, node, node}));
    EXPECT_TRUE(lockIsSound(*lock, {&mine}));
    EXPECT_EQ(node->bMode, 65535);
    EXPECT_EQ(node->sCount, 1);
    EXPECT_EQ(node->bBlocked, 0);
    EXPECT_EQ(node->bSuspended, 0);
    EXPECT_EQ(node->pQNext, nullptr);
    EXPECT_EQ(node->pKey, lock);
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(state(), (State{0, nullptr, node, nullptr}));
    EXPECT_EQ(node->bMode, 0);
    EXPECT_EQ(node->sCount, 0);
    EXPECT_TRUE(lockIsSound(*lock, {&mine}));
}

TEST_P(RWLockStates, ReadersShareAndTheWordCountsThem)
{
    Visitor a(*lock), b(*lock);
    EXPECT_EQ(a.startRead(), 0);
    EXPECT_EQ(b.startRead(), 0);
    EXPECT_EQ(startRead(), 0);
    EXPECT_EQ(state(), (State{24, nullptr, nullptr, nullptr}));
    EXPECT_TRUE(lockIsSound(*lock, {&mine, &a.context, &b.context}));
    EXPECT_EQ(a.end(), 0);
    EXPECT_EQ(state().word, 16);
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(b.end(), 0);
    EXPECT_EQ(state().word, 0);
}

TEST_F(RWLock, ModeAndOwnershipAreTheCallersOwn)
{
    Visitor other(*lock);
    EXPECT_EQ(mode(), 0);
    EXPECT_EQ(owned(), FALSE);
    EXPECT_EQ(startRead(), 0);
    EXPECT_EQ(mode(), 1);
    EXPECT_EQ(owned(), TRUE);
    EXPECT_EQ(KemSdModeRW(nullptr, &other.context, lock), 0);
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(mode(), 0);
    EXPECT_EQ(owned(), FALSE);
    EXPECT_EQ(startWrite(), 0);
    EXPECT_EQ(mode(), 65535);
    EXPECT_EQ(owned(), TRUE);
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(mode(), 0);
    EXPECT_EQ(owned(), FALSE);
}

// ---- Nesting

TEST_P(RWLockStates, ReadingInsideReadingNests)
{
    for (int64_t depth = 1; depth <= 3; ++depth) {
        EXPECT_EQ(startRead(), 0);
        EXPECT_EQ(heldNode(mine)->sCount, depth);
        EXPECT_EQ(state().word, 8);
    }
    for (int64_t depth = 2; depth >= 1; --depth) {
        EXPECT_EQ(end(), 0);
        EXPECT_EQ(heldNode(mine)->sCount, depth);
        EXPECT_EQ(state().word, 8);
    }
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(state().word, 0);
}

TEST_P(RWLockStates, WritingInsideWritingNests)
{
    EXPECT_EQ(startWrite(), 0);
    EXPECT_EQ(startWrite(), 0);
    EXPECT_EQ(heldNode(mine)->sCount, 2);
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(mode(), 65535);
    EXPECT_EQ(state().word, 3);
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(state().word, 0);
}

TEST_P(RWLockStates, AWriterThatAsksToReadStaysAWriterOneLevelDeeper)
{
    EXPECT_EQ(startWrite(), 0);
    const State held = state();
    EXPECT_EQ(startRead(), 0);
    EXPECT_EQ(heldNode(mine)->sCount, 2);
    EXPECT_EQ(heldNode(mine)->bMode, 65535);
    EXPECT_EQ(mode(), 65535);
    EXPECT_EQ(state(), held);
    EXPECT_EQ(startWrite(), 0) << "it still may write";
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(state(), held);
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(state().word, 0);
}

TEST_P(RWLockStates, AReaderCannotBecomeAWriterAndGoesOnReading)
{
    EXPECT_EQ(startRead(), 0);
    EXPECT_EQ(startWrite(), SDSTS_SEM_REQUEST);
    EXPECT_EQ(heldNode(mine)->sCount, 1);
    EXPECT_EQ(mode(), 1);
    EXPECT_EQ(state(), (State{8, nullptr, nullptr, nullptr}));
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(state().word, 0);
}

TEST_F(RWLock, AnEndWithoutAStartIsRefused)
{
    EXPECT_EQ(end(), SDSTS_SEM_CLEAR) << "no node yet";
    EXPECT_EQ(startRead(), 0);
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(end(), SDSTS_SEM_CLEAR) << "a second end after the last";
    EXPECT_EQ(startWrite(), 0);
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(end(), SDSTS_SEM_CLEAR);
    EXPECT_EQ(state().word, 0);
    EXPECT_TRUE(lockIsSound(*lock, {&mine}));
}

TEST_F(RWLock, AnEndOfALockThatAnotherThreadHoldsIsRefused)
{
    Visitor other(*lock);
    EXPECT_EQ(other.startWrite(), 0);
    EXPECT_EQ(end(), SDSTS_SEM_CLEAR);
    EXPECT_EQ(state().word, 3);
    EXPECT_EQ(other.end(), 0);
}

TEST_F(RWLock, ANodeWithoutDepthIsNotHeld)
{
    EXPECT_EQ(startRead(), 0);
    heldNode(mine)->sCount = 0;
    EXPECT_EQ(end(), SDSTS_SEM_CLEAR);
    EXPECT_EQ(state().word, 8);
    heldNode(mine)->sCount = 1;
    EXPECT_EQ(end(), 0);
}

// ---- A thread's nodes

TEST_F(RWLock, ANodeCopiesTheTuningsWhenItIsMade)
{
    tune({21, 22, 23}, {24, 25, 26});
    initialise();
    EXPECT_EQ(startRead(), 0);
    lock->lRdrMaxYields = lock->lRdrMaxWaits = lock->lWrtrMaxYields = lock->lWrtrMaxWaits = 99;
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(startWrite(), 0);
    const Node& node = *heldNode(mine);
    EXPECT_EQ(node.lCurrNumOfRdrSpinLoops, 21);
    EXPECT_EQ(node.lCurrNumOfRdrYields, 22);
    EXPECT_EQ(node.lRdrMaxWaits, 23);
    EXPECT_EQ(node.lCurrNumOfWrtrSpinLoops, 24);
    EXPECT_EQ(node.lCurrNumOfWrtrYields, 25);
    EXPECT_EQ(node.lWrtrMaxWaits, 26);
    EXPECT_EQ(end(), 0);
}

TEST_F(RWLock, TheFirstPassageAllocatesANodeAndTheTwoListsForItsOwner)
{
    const auto sizes = [] {
        std::vector<size_t> all;
        for (const Request& request : requests) all.push_back(request.size);
        return all;
    };
    mine.lDatCacheClockPtr = 4711;
    EXPECT_EQ(startRead(), 0);
    EXPECT_THAT(sizes(), ElementsAre(sizeof(Node), kListsSize));
    EXPECT_EQ(mine.pFree, nullptr);
    EXPECT_EQ(end(), 0);
    EXPECT_THAT(sizes(), ElementsAre(sizeof(Node), kListsSize, kListsSize));
    EXPECT_THAT(requests, Each(testing::Field(&Request::owner, &owner)));
    EXPECT_EQ(mine.lDatCacheClockPtr, 4711) << "the caller's own";
}

TEST_F(RWLock, LaterPassagesAllocateNothingAndTakeNoMutex)
{
    EXPECT_EQ(startRead(), 0);
    EXPECT_EQ(end(), 0);
    requests.clear();
    resetCalls();
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(i % 2 ? startRead() : startWrite(), 0);
        EXPECT_EQ(end(), 0);
    }
    EXPECT_THAT(requests, IsEmpty());
    EXPECT_EQ(calls(Call::malloc), 0);
    EXPECT_EQ(calls(Call::pthread_mutex_lock), 0);
    EXPECT_EQ(calls(Call::sched_yield), 0);
}

TEST_F(RWLock, AThreadKeepsANodeForEachLockOfACategory)
{
    KEM_RWLOCK_T second;
    ASSERT_EQ(KemRWLockInit(nullptr, 0, &second, TRUE, RWLOCK_HASHSET_EXPLOCK), 0);
    std::vector<Node*> nodes;
    for (int round = 0; round < 3; ++round) {
        for (KEM_RWLOCK_T* which : {lock, &second}) {
            EXPECT_EQ(KemSdStartRead(&owner, &mine, which), 0);
            nodes.push_back(heldNode(mine));
            EXPECT_EQ(nodes.back()->pKey, which);
            EXPECT_EQ(KemSdEndRW(&owner, &mine, which), 0);
        }
    }
    EXPECT_NE(nodes[0], nodes[1]);
    EXPECT_THAT(nodes, ElementsAre(nodes[0], nodes[1], nodes[0], nodes[1], nodes[0], nodes[1]));
    EXPECT_EQ(cachedNode(mine), nodes[1]) << "the one given back last stands first";
    EXPECT_EQ(nodes[1]->pStrNext, nodes[0]);
    EXPECT_EQ(nodes[0]->pStrNext, nullptr);
    EXPECT_TRUE(lockIsSound(*lock, {&mine}));
    EXPECT_TRUE(lockIsSound(second, {&mine}));
}

TEST_F(RWLock, HeldNodesAreFoundWhereverTheyStandOnTheirList)
{
    std::array<KEM_RWLOCK_T, 4> locks;
    for (KEM_RWLOCK_T& one : locks) ASSERT_EQ(KemRWLockInit(nullptr, 0, &one, TRUE, RWLOCK_HASHSET_EXPLOCK), 0);
    for (int round = 0; round < 2; ++round) {
        for (KEM_RWLOCK_T& one : locks) EXPECT_EQ(KemSdStartWrite(&owner, &mine, &one), 0);
        for (const size_t i : {2, 0, 3, 1}) {
            EXPECT_EQ(KemSdModeRW(&owner, &mine, &locks[i]), 65535);
            EXPECT_EQ(KemSdStartRead(&owner, &mine, &locks[i]), 0);
            EXPECT_EQ(KemSdEndRW(&owner, &mine, &locks[i]), 0);
            EXPECT_EQ(KemSdEndRW(&owner, &mine, &locks[i]), 0);
            EXPECT_EQ(KemSdModeRW(&owner, &mine, &locks[i]), 0);
            for (const KEM_RWLOCK_T& one : locks) EXPECT_TRUE(lockIsSound(one, {&mine}));
        }
    }
    EXPECT_EQ(headsOf(mine.pUsed), Heads{});
    EXPECT_EQ(requests.size(), locks.size() + 2);
}

TEST_F(RWLock, EachCategoryHasItsList)
{
    std::array<KEM_RWLOCK_T, KEM_RWLOCK_CAT_COUNT> locks;
    for (int category = 0; category < KEM_RWLOCK_CAT_COUNT; ++category) {
        KEM_RWLOCK_T& one = locks[category];
        ASSERT_EQ(KemRWLockInit(nullptr, 0, &one, TRUE, static_cast<KEM_RWLOCK_CAT>(category)), 0);
        EXPECT_EQ(KemSdStartRead(&owner, &mine, &one), 0);
        Heads expected{};
        expected[category] = headsOf(mine.pUsed)[category];
        ASSERT_NE(expected[category], nullptr);
        EXPECT_EQ(headsOf(mine.pUsed), expected);
        EXPECT_EQ(KemSdEndRW(&owner, &mine, &one), 0);
        EXPECT_EQ(headsOf(mine.pUsed), Heads{});
        EXPECT_EQ(headsOf(mine.pFree)[category], expected[category]);
    }
}

TEST_F(RWLock, FreeingTheNodesEndsEachOfThemAndTheContextMayServeAgain)
{
    const long before = liveBlocks();
    KEM_RWLOCK_T second;
    ASSERT_EQ(KemRWLockInit(nullptr, 0, &second, TRUE, RWLOCK_KERNEL_KSMSEM), 0);
    for (int round = 0; round < 2; ++round) {
        for (KEM_RWLOCK_T* which : {lock, &second}) {
            EXPECT_EQ(KemSdStartWrite(&owner, &mine, which), 0);
            EXPECT_EQ(KemSdEndRW(&owner, &mine, which), 0);
        }
        resetCalls();
        freed = 0;
        EXPECT_EQ(KemRWLockFreeQNodes(&mine), 0);
        EXPECT_EQ(mine.pUsed, nullptr);
        EXPECT_EQ(mine.pFree, nullptr);
        EXPECT_EQ(calls(Call::pthread_mutex_destroy), 2);
        EXPECT_EQ(calls(Call::pthread_cond_destroy), 2);
        EXPECT_EQ(freed, 4) << "two nodes, two lists";
        EXPECT_EQ(liveBlocks(), before);
    }
    EXPECT_EQ(KemRWLockFreeQNodes(&mine), 0) << "there is nothing left to free";
    EXPECT_EQ(freed, 4);
}

TEST_F(RWLock, ANodeEndsAfterItsMutexWasPassed)
{
    EXPECT_EQ(startRead(), 0);
    EXPECT_EQ(end(), 0);
    Node* node = cachedNode(mine);
    memset(mine.pFree, 0, kListsSize); // on no list any more
    pthread_mutex_lock(&node->mutex);
    resetCalls();
    KEM_STS_T result = -1;
    std::thread destroyer([&] { result = KemRWLockQNodeDestroy(&owner, node); });
    EXPECT_TRUE(eventually([] { return calls(Call::pthread_mutex_lock) == 1; }));
    EXPECT_EQ(calls(Call::pthread_mutex_destroy), 0);
    pthread_mutex_unlock(&node->mutex);
    destroyer.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(calls(Call::pthread_mutex_destroy), 1);
    EXPECT_EQ(calls(Call::pthread_cond_destroy), 1);
}

// ---- Memory runs out

TEST_F(RWLock, AFailedAllocationReportsTheAllocatorsStatusAndTakesNothing)
{
    plannedStatus = 4711;
    for (const auto start : {KemSdStartRead, KemSdStartWrite}) {
        for (plannedFor = 1; plannedFor <= 2; ++plannedFor) {
            const long before = liveBlocks();
            requests.clear();
            EXPECT_EQ(start(&owner, &mine, lock), 4711);
            EXPECT_EQ(static_cast<long>(requests.size()), plannedFor);
            EXPECT_EQ(state(), (State{0, nullptr, nullptr, nullptr}));
            EXPECT_EQ(mine.pUsed, nullptr);
            EXPECT_EQ(mode(), 0);
            EXPECT_EQ(end(), SDSTS_SEM_CLEAR);
            EXPECT_EQ(liveBlocks(), before);
        }
    }
}

TEST_F(RWLock, AFailedAllocationForAFurtherLockLeavesTheOthersAlone)
{
    KEM_RWLOCK_T second;
    ASSERT_EQ(KemRWLockInit(nullptr, 0, &second, TRUE, RWLOCK_HASHSET_EXPLOCK), 0);
    EXPECT_EQ(startWrite(), 0);
    plannedStatus = SDSTS_NO_MEMORY;
    plannedFor = static_cast<long>(requests.size()) + 1;
    EXPECT_EQ(KemSdStartWrite(&owner, &mine, &second), SDSTS_NO_MEMORY);
    EXPECT_EQ(seen(second.lRdrCntAndFlags), 0);
    EXPECT_EQ(mode(), 65535);
    EXPECT_EQ(end(), 0);
}

TEST_F(RWLock, AFirstReleaseWithoutMemoryFreesTheLockAndTheNodeIsOnNeitherList)
{
    for (const auto start : {KemSdStartRead, KemSdStartWrite}) {
        requests.clear();
        plannedStatus = 4711;
        plannedFor = 3;
        EXPECT_EQ(start(&owner, &mine, lock), 0);
        Node* node = heldNode(mine);
        EXPECT_EQ(end(), 4711);
        EXPECT_EQ(state().word, 0);
        EXPECT_EQ(state().writerTail, nullptr);
        EXPECT_EQ(headsOf(mine.pUsed), Heads{});
        EXPECT_EQ(mine.pFree, nullptr);
        EXPECT_EQ(mode(), 0);
        EXPECT_EQ(end(), SDSTS_SEM_CLEAR);
        EXPECT_EQ(KemRWLockQNodeDestroy(&owner, node), 0);
        EXPECT_EQ(start(&owner, &mine, lock), 0) << "with a new node";
        EXPECT_EQ(end(), 0);
        EXPECT_EQ(KemRWLockFreeQNodes(&mine), 0);
    }
}

TEST_F(RWLock, WhereverMemoryRunsOutNothingIsLostAndTheLockIsFree)
{
    KEM_RWLOCK_T second;
    ASSERT_EQ(KemRWLockInit(nullptr, 0, &second, TRUE, RWLOCK_KERNEL_KSMSEM), 0);
    const auto pass = [this](KEM_RWLOCK_T& which, auto start) {
        const KEM_STS_T started = start(&owner, &mine, &which);
        if (started != 0) {
            EXPECT_EQ(started, SDSTS_NO_MEMORY);
            EXPECT_TRUE(allocationFailed());
            return;
        }
        Node* node = headsOf(mine.pUsed)[which.category];
        const KEM_STS_T ended = KemSdEndRW(&owner, &mine, &which);
        if (ended != 0) {
            EXPECT_EQ(ended, SDSTS_NO_MEMORY);
            EXPECT_TRUE(allocationFailed());
            EXPECT_EQ(KemRWLockQNodeDestroy(&owner, node), 0); // nobody else knows it now
        }
    };
    const long met = sweepAllocationFailures([&](long) {
        requests.reserve(requests.size() + 100); // not the lock's
        pass(*lock, KemSdStartRead);
        pass(second, KemSdStartWrite);
        pass(*lock, KemSdStartWrite);
        EXPECT_TRUE(lockIsSound(*lock, {&mine}));
        EXPECT_TRUE(lockIsSound(second, {&mine}));
        EXPECT_EQ(KemRWLockFreeQNodes(&mine), 0);
    });
    EXPECT_EQ(met, 4) << "two nodes and the two lists";
}

// ---- In the middle: a batch, a queue

TEST_P(RWLockStates, ReadersThatFindAWriterPileUpAndEnterTogetherWhenItLeaves)
{
    Visitor a(*lock), b(*lock), c(*lock);
    EXPECT_EQ(startWrite(), 0);
    Node* writer = heldNode(mine);
    a.beginRead();
    EXPECT_TRUE(comesTo({7, a.node, writer, writer}));
    b.beginRead();
    EXPECT_TRUE(comesTo({7, b.node, writer, writer}));
    c.beginRead();
    EXPECT_TRUE(comesTo({7, c.node, writer, writer}));
    EXPECT_TRUE(eventually([&] { return seen(c.node->pQNext) == b.node; }));
    EXPECT_TRUE(eventually([&] { return seen(b.node->pQNext) == a.node; }));
    EXPECT_EQ(seen(a.node->pQNext), nullptr);
    for (const Visitor* v : {&a, &b, &c}) EXPECT_EQ(seen(v->node->bBlocked), 1);
    EXPECT_TRUE(lockIsSound(*lock, {&mine, &a.context, &b.context, &c.context}));
    EXPECT_EQ(end(), 0);
    for (Visitor* v : {&a, &b, &c}) EXPECT_EQ(v->result(), 0);
    EXPECT_EQ(state(), (State{24, nullptr, writer, nullptr}));
    for (const Visitor* v : {&a, &b, &c}) {
        EXPECT_EQ(seen(v->node->bBlocked), 0);
        EXPECT_EQ(v->node->bMode, 1);
        EXPECT_EQ(v->node->sCount, 1);
    }
    EXPECT_TRUE(lockIsSound(*lock, {&mine, &a.context, &b.context, &c.context}));
    for (Visitor* v : {&a, &b, &c}) EXPECT_EQ(v->end(), 0);
    EXPECT_EQ(state(), (State{0, nullptr, writer, nullptr}));
    EXPECT_TRUE(lockIsSound(*lock, {&mine, &a.context, &b.context, &c.context}));
}

TEST_P(RWLockStates, AWriterThatFindsReadersClaimsTheLockAndTheLastOfThemLetsItIn)
{
    Visitor a(*lock), b(*lock), writer(*lock);
    EXPECT_EQ(a.startRead(), 0);
    EXPECT_EQ(b.startRead(), 0);
    writer.beginWrite();
    EXPECT_TRUE(comesTo({19, nullptr, writer.node, writer.node}));
    EXPECT_EQ(seen(writer.node->bBlocked), 1);
    EXPECT_TRUE(lockIsSound(*lock, {&a.context, &b.context, &writer.context}));
    EXPECT_EQ(a.end(), 0);
    EXPECT_EQ(state(), (State{11, nullptr, writer.node, writer.node}));
    EXPECT_FALSE(writer.back());
    EXPECT_EQ(b.end(), 0);
    EXPECT_EQ(writer.result(), 0);
    EXPECT_EQ(state(), (State{3, nullptr, writer.node, writer.node}));
    EXPECT_TRUE(lockIsSound(*lock, {&a.context, &b.context, &writer.context}));
    EXPECT_EQ(writer.end(), 0);
    EXPECT_EQ(state(), (State{0, nullptr, writer.node, nullptr}));
}

TEST_P(RWLockStates, ReadersThatComeAfterAWaitingWriterEnterAfterIt)
{
    Visitor reader(*lock), writer(*lock), late(*lock);
    EXPECT_EQ(reader.startRead(), 0);
    writer.beginWrite();
    EXPECT_TRUE(comesTo({11, nullptr, writer.node, writer.node}));
    late.beginRead();
    EXPECT_TRUE(comesTo({15, late.node, writer.node, writer.node}));
    EXPECT_TRUE(lockIsSound(*lock, {&reader.context, &writer.context, &late.context}));
    EXPECT_EQ(reader.end(), 0) << "the last reader, although others wait";
    EXPECT_EQ(writer.result(), 0);
    EXPECT_EQ(state(), (State{7, late.node, writer.node, writer.node}));
    EXPECT_FALSE(late.back());
    EXPECT_TRUE(lockIsSound(*lock, {&reader.context, &writer.context, &late.context}));
    EXPECT_EQ(writer.end(), 0);
    EXPECT_EQ(late.result(), 0);
    EXPECT_EQ(state(), (State{8, nullptr, writer.node, nullptr}));
    EXPECT_EQ(late.end(), 0);
}

TEST_P(RWLockStates, AWriterHandsTheLockStraightToTheNextAndLeavesHeadFlagsAndReadersAsTheyAre)
{
    Visitor first(*lock), second(*lock), third(*lock), reader(*lock);
    const std::vector<const KEM_SYNCCTX_T*> all{&first.context, &second.context, &third.context, &reader.context};
    EXPECT_EQ(first.startWrite(), 0);
    second.beginWrite();
    EXPECT_TRUE(eventually([&] { return seen(first.node->pQNext) == second.node; }));
    third.beginWrite();
    EXPECT_TRUE(eventually([&] { return seen(second.node->pQNext) == third.node; }));
    EXPECT_EQ(state(), (State{3, nullptr, first.node, third.node}));
    reader.beginRead();
    EXPECT_TRUE(comesTo({7, reader.node, first.node, third.node}));
    EXPECT_TRUE(lockIsSound(*lock, all));
    EXPECT_EQ(first.end(), 0);
    EXPECT_EQ(second.result(), 0);
    EXPECT_EQ(state(), (State{7, reader.node, first.node, third.node}));
    EXPECT_TRUE(lockIsSound(*lock, all));
    EXPECT_EQ(second.end(), 0);
    EXPECT_EQ(third.result(), 0);
    EXPECT_EQ(state(), (State{7, reader.node, first.node, third.node}));
    EXPECT_FALSE(reader.back());
    EXPECT_EQ(third.end(), 0);
    EXPECT_EQ(reader.result(), 0);
    EXPECT_EQ(state(), (State{8, nullptr, first.node, nullptr}));
    EXPECT_EQ(reader.end(), 0);
    EXPECT_TRUE(lockIsSound(*lock, all));
}

TEST_P(RWLockStates, WritersEnterInTheOrderOfTheirArrival)
{
    constexpr size_t kWriters = 6;
    std::vector<std::unique_ptr<Visitor>> writers;
    for (size_t i = 0; i < kWriters; ++i) writers.push_back(std::make_unique<Visitor>(*lock));
    EXPECT_EQ(startWrite(), 0);
    const Node* before = heldNode(mine);
    for (const auto& writer : writers) {
        writer->beginWrite();
        EXPECT_TRUE(eventually([&] { return seen(before->pQNext) == writer->node; }));
        before = writer->node;
    }
    EXPECT_EQ(end(), 0);
    for (size_t i = 0; i < kWriters; ++i) {
        EXPECT_EQ(writers[i]->result(), 0);
        for (size_t later = i + 1; later < kWriters; ++later) EXPECT_FALSE(writers[later]->back());
        EXPECT_EQ(writers[i]->end(), 0);
    }
    EXPECT_EQ(state().word, 0);
    EXPECT_EQ(state().writerTail, nullptr);
}

TEST_P(RWLockStates, AWriterNestedInsideKeepsTheOthersOutUntilItsLastEnd)
{
    Visitor reader(*lock);
    EXPECT_EQ(startWrite(), 0);
    EXPECT_EQ(startRead(), 0);
    reader.beginRead();
    EXPECT_TRUE(eventually([&] { return state().word == 7; }));
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(state().word, 7);
    EXPECT_FALSE(reader.back());
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(reader.result(), 0);
    EXPECT_EQ(reader.end(), 0);
}

TEST_P(RWLockStates, AWriterGetsInHoweverReadersOverlap)
{
    Visitor a(*lock), b(*lock), writer(*lock);
    EXPECT_EQ(a.startRead(), 0);
    writer.beginWrite();
    EXPECT_TRUE(comesTo({11, nullptr, writer.node, writer.node}));
    // Two readers relieve each other, so that one of them would always be inside.
    Visitor *inside = &a, *outside = &b;
    int passedTheWriter = 0;
    while (!writer.back() && passedTheWriter < 100) {
        outside->beginRead();
        EXPECT_TRUE(eventually([&] { return outside->back() || (state().word & RWLOCK_READERS_WAITING); }));
        EXPECT_EQ(inside->end(), 0);
        EXPECT_TRUE(eventually([&] { return outside->back() || writer.back(); }));
        passedTheWriter += outside->back();
        std::swap(inside, outside);
    }
    EXPECT_EQ(passedTheWriter, 0);
    EXPECT_EQ(writer.result(), 0);
    EXPECT_EQ(writer.end(), 0);
    EXPECT_EQ(inside->result(), 0);
    EXPECT_EQ(inside->end(), 0);
}

// ---- How a waiter waits

namespace {

enum class Role { reader, writer };

class RWLockWaiting : public RWLock, public testing::WithParamInterface<Role> {
protected:
    // The waiter's own tunings; those of the other role would show.
    void tuneWaiter(Tuning tuning)
    {
        const Tuning other{2, tuning.yields + 3, tuning.waits > 0 ? -1 : 1};
        if (GetParam() == Role::reader)
            tune(tuning, other);
        else
            tune(other, tuning);
        initialise();
        setBound(0);
    }

    // One waits while this thread holds the lock and `meanwhile` looks on.
    template <class Meanwhile>
    void whileOneWaits(Meanwhile meanwhile)
    {
        Visitor waiter(*lock);
        EXPECT_EQ(startWrite(), 0);
        resetCalls();
        GetParam() == Role::reader ? waiter.beginRead() : waiter.beginWrite();
        EXPECT_TRUE(eventually([&] { return seen(waiter.node->bBlocked) == 1; }));
        meanwhile(waiter);
        EXPECT_FALSE(waiter.back());
        EXPECT_EQ(end(), 0);
        EXPECT_EQ(waiter.result(), 0);
        EXPECT_EQ(seen(waiter.node->bBlocked), 0);
        EXPECT_EQ(seen(waiter.node->bSuspended), 0);
        EXPECT_EQ(waiter.end(), 0);
        EXPECT_TRUE(lockIsSound(*lock, {&mine, &waiter.context}));
    }

    static bool sleeps(const Visitor& waiter)
    {
        return eventually([&] { return seen(waiter.node->bSuspended) == 1; });
    }

    // It sleeps in the end, after so many yields.
    void sleepsAfterYields(Tuning tuning, long yields)
    {
        SCOPED_TRACE(testing::Message() << tuning.spinLoops << " loops, " << tuning.yields << " yields, "
                                        << tuning.waits << " waits");
        tuneWaiter(tuning);
        whileOneWaits([&](const Visitor& waiter) {
            EXPECT_TRUE(sleeps(waiter));
            EXPECT_EQ(calls(Call::sched_yield), yields);
        });
        EXPECT_EQ(calls(Call::sched_yield), yields);
    }
};

INSTANTIATE_TEST_SUITE_P(Roles, RWLockWaiting, testing::Values(Role::reader, Role::writer),
                         [](const auto& parameter) { return parameter.param == Role::reader ? "reader" : "writer"; });

} // namespace

TEST_P(RWLockWaiting, ABudgetCountsSpinPassesAndYieldsTogether)
{
    sleepsAfterYields({1, 10, 1000}, 909);   // 90 passes of 1 + 10, then 1 + 9
    sleepsAfterYields({1, 1, 1000}, 500);    // in turn
    sleepsAfterYields({1, 5000, 1000}, 999); // one pass
    sleepsAfterYields({1, 0, 1000}, 0);      // spin passes alone
}

TEST_P(RWLockWaiting, ABudgetOf1IsOneSpinPass)
{
    sleepsAfterYields({1, 10, 1}, 0);
    sleepsAfterYields({1, 0, 1}, 0);
}

TEST_P(RWLockWaiting, ASpinPassWithoutLoopsCountsAsOneWait)
{
    sleepsAfterYields({0, 1, 5}, 2); // spin, yield, spin, yield, spin
    sleepsAfterYields({0, 0, 3}, 0);
}

TEST_P(RWLockWaiting, ABudgetOf0OrLessNeverSleeps)
{
    for (const int64_t budget : {0, -1}) {
        tuneWaiter({1, 7, budget});
        whileOneWaits([](const Visitor&) { EXPECT_TRUE(eventually([] { return calls(Call::sched_yield) > 5000; })); });
        EXPECT_EQ(calls(Call::pthread_cond_wait), 0);
    }
}

TEST_P(RWLockWaiting, WithoutYieldsAndBudgetItSpins)
{
    tuneWaiter({1, 0, 0});
    whileOneWaits([](Visitor& waiter) { EXPECT_TRUE(keepsRunning(waiter.thread())); });
    EXPECT_EQ(calls(Call::sched_yield), 0);
    EXPECT_EQ(calls(Call::pthread_cond_wait), 0);
}

TEST_P(RWLockWaiting, ALockWithoutSleepNeverEntersTheKernel)
{
    tuneWaiter({1, 1, 1});
    initialise(FALSE);
    whileOneWaits([](Visitor& waiter) { EXPECT_TRUE(keepsRunning(waiter.thread())); });
    EXPECT_EQ(calls(Call::sched_yield), 0);
    EXPECT_EQ(calls(Call::pthread_cond_wait), 0);
    EXPECT_EQ(calls(Call::pthread_cond_signal), 0);
}

TEST_P(RWLockWaiting, YieldsAndBudgetAreTheNodesSpinLoopsTheLocks)
{
    tuneWaiter({1, 10, 100});
    setBound(1);
    Visitor waiter(*lock);
    // The node has its copies; the lock now says otherwise.
    lock->lRdrMaxYields = lock->lWrtrMaxYields = 1;
    lock->lRdrMaxWaits = lock->lWrtrMaxWaits = -1;
    const auto passOne = [&](auto meanwhile) {
        EXPECT_EQ(startWrite(), 0);
        resetCalls();
        GetParam() == Role::reader ? waiter.beginRead() : waiter.beginWrite();
        meanwhile();
        EXPECT_EQ(end(), 0);
        EXPECT_EQ(waiter.result(), 0);
        EXPECT_EQ(waiter.end(), 0);
    };
    passOne([&] {
        EXPECT_TRUE(sleeps(waiter));
        EXPECT_EQ(calls(Call::sched_yield), 90); // 9 passes of 1 + 10, then a spin pass
    });
    lock->lRdrMaxSpinLoops = lock->lWrtrMaxSpinLoops = INT64_MAX;
    passOne([&] {
        EXPECT_TRUE(keepsRunning(waiter.thread()));
        EXPECT_EQ(calls(Call::sched_yield), 0) << "it is still in its first spin pass";
    });
}

TEST_P(RWLockWaiting, TheSpinBoundIsReadAfresh)
{
    tuneWaiter({1, 5, 6});
    setBound(INT64_MAX);
    whileOneWaits([](Visitor& waiter) {
        EXPECT_TRUE(keepsRunning(waiter.thread()));
        EXPECT_EQ(calls(Call::sched_yield), 0);
        setBound(0);
        EXPECT_TRUE(sleeps(waiter));
        EXPECT_EQ(calls(Call::sched_yield), 5);
    });
}

TEST_P(RWLockWaiting, ASleeperIsWokenOnce)
{
    tuneWaiter({1, 0, 1});
    whileOneWaits([](const Visitor& waiter) { EXPECT_TRUE(sleeps(waiter)); });
    EXPECT_EQ(calls(Call::pthread_cond_wait), 1);
    EXPECT_EQ(calls(Call::pthread_cond_signal), 1);
}

TEST_P(RWLockWaiting, WhoDoesNotSleepIsNotSignalled)
{
    tuneWaiter({1, 1, 0});
    whileOneWaits([](const Visitor&) {});
    EXPECT_EQ(calls(Call::pthread_cond_signal), 0);
}

TEST_P(RWLockWaiting, ASleeperThatWakesWithoutReasonSleepsAgain)
{
    tuneWaiter({1, 0, 1});
    whileOneWaits([](const Visitor& waiter) {
        for (long time = 1; time <= 3; ++time) {
            EXPECT_TRUE(sleeps(waiter));
            pthread_mutex_lock(&waiter.node->mutex); // to be had while it sleeps
            pthread_cond_signal(&waiter.node->cond);
            pthread_mutex_unlock(&waiter.node->mutex);
            EXPECT_TRUE(eventually([&] { return calls(Call::pthread_cond_wait) == time + 1; }));
        }
        EXPECT_EQ(seen(waiter.node->bBlocked), 1);
    });
    EXPECT_EQ(calls(Call::pthread_cond_wait), 4);
}
