#include <gmock/gmock.h>
#include <kemsd/sync.h>

#include <cerrno>
#include <thread>
#include <vector>

#include "support/failingcalls.h"
#include "sync/waiting.h"

using namespace kemsd::test;
using testing::ElementsAre;

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 20000;

// Runs body(0) .. body(kThreads - 1) at the same time.
template <class Body>
void together(Body body)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) threads.emplace_back([&body, i] { body(i); });
    for (std::thread& thread : threads) thread.join();
}

int64_t load(const volatile int64_t& word) { return __atomic_load_n(&word, __ATOMIC_SEQ_CST); }

} // namespace

TEST(Atomic, AdditionsReturnTheValueBefore)
{
    volatile KEM_SDATOMIC_T store = 40;
    EXPECT_EQ(KemSdAtomicAdd(&store, 5), 40);
    EXPECT_EQ(KemSdAtomicAdd(&store, -45), 45);
    EXPECT_EQ(KemSdAtomicIncrement(&store), 0);
    EXPECT_EQ(KemSdAtomicDecrement(&store), 1);
    EXPECT_EQ(KemSdAtomicDecrement(&store), 0);
    EXPECT_EQ(store, -1);
}

TEST(Atomic, AdditionsUseAll64BitsAndWrap)
{
    volatile KEM_SDATOMIC_T store = 0xFFFFFFFF;
    KemSdAtomicIncrement(&store);
    EXPECT_EQ(store, 0x100000000);
    store = INT64_MAX;
    EXPECT_EQ(KemSdAtomicIncrement(&store), INT64_MAX);
    EXPECT_EQ(store, INT64_MIN);
}

TEST(Atomic, NoConcurrentAdditionIsLost)
{
    volatile KEM_SDATOMIC_T store = 0;
    together([&](int i) {
        for (int k = 0; k < kRounds; ++k) {
            KemSdAtomicIncrement(&store);
            KemSdAtomicAdd(&store, i);
            KemSdAtomicDecrement(&store);
        }
    });
    EXPECT_EQ(store, kRounds * (0 + 1 + 2 + 3));
}

TEST(Atomic, SetTurnsOnly0Into1)
{
    volatile KEM_SDATOMIC_T store = 0;
    KemSdAtomicSet(&store);
    EXPECT_EQ(store, 1);
    KemSdAtomicSet(&store);
    EXPECT_EQ(store, 1);
    store = 5;
    KemSdAtomicSet(&store);
    EXPECT_EQ(store, 5);
}

TEST(Atomic, UnsetTurnsOnly1Into0)
{
    volatile KEM_SDATOMIC_T store = 1;
    KemSdAtomicUnset(&store);
    EXPECT_EQ(store, 0);
    KemSdAtomicUnset(&store);
    EXPECT_EQ(store, 0);
    store = 0x100000001;
    KemSdAtomicUnset(&store);
    EXPECT_EQ(store, 0x100000001);
}

TEST(Atomic, BitAndKeepsTheCommonBits)
{
    volatile KEM_SDATOMIC_T store = 0x7F0F00000000FF0F;
    KemSdBitAnd(&store, 0x0FFF00000000F0FF);
    EXPECT_EQ(store, 0x0F0F00000000F00F);
    KemSdBitAnd(&store, -1);
    EXPECT_EQ(store, 0x0F0F00000000F00F);
}

TEST(Atomic, NoConcurrentBitAndIsLost)
{
    for (int round = 0; round < 200; ++round) {
        volatile KEM_SDATOMIC_T store = -1;
        together([&](int i) {
            for (int bit = i; bit < 64; bit += kThreads) KemSdBitAnd(&store, ~(int64_t{1} << bit));
        });
        ASSERT_EQ(store, 0);
    }
}

TEST(Atomic, CompareAndSwapTellsWhetherItTookPlace)
{
    volatile KEM_SDATOMIC_T store = 7;
    EXPECT_EQ(KemSdAtomicCompareAndSwap(&store, 7, INT64_MIN), TRUE);
    EXPECT_EQ(store, INT64_MIN);
    EXPECT_EQ(KemSdAtomicCompareAndSwap(&store, 7, 8), FALSE);
    EXPECT_EQ(store, INT64_MIN);
}

TEST(Atomic, OneOfTheConcurrentCompareAndSwapsWins)
{
    volatile KEM_SDATOMIC_T store = 0;
    together([&](int) {
        for (int k = 0; k < kRounds; ++k) {
            int64_t seen = load(store);
            while (!KemSdAtomicCompareAndSwap(&store, seen, seen + 1)) seen = load(store);
        }
    });
    EXPECT_EQ(store, kThreads * kRounds);
}

TEST(Atomic, ThePointerSwapTakesTheStoreLast)
{
    int before = 0;
    int after = 0;
    void* volatile store = &before;
    EXPECT_EQ(KemSdCmpXchgPtr(&after, nullptr, &store), FALSE);
    EXPECT_EQ(store, &before);
    EXPECT_EQ(KemSdCmpXchgPtr(&before, &after, &store), TRUE);
    EXPECT_EQ(store, &after);
}

TEST(Atomic, TheDoubleWidthSwapIsFalseAndNeverTouchesTheStore)
{
    volatile KEM_DWATOMIC_T store{1, 2};
    EXPECT_EQ(KemSdCmpXchg2({1, 2}, {3, 4}, &store), FALSE);
    EXPECT_EQ(store.hi, 1);
    EXPECT_EQ(store.low, 2);
    EXPECT_EQ(KemSdCmpXchg2({1, 2}, {3, 4}, nullptr), FALSE);
}

TEST(Atomic, CappedTicketsHandOut0TwiceInEachCycle)
{
    volatile KEM_SDATOMIC_T store = 0;
    std::vector<int64_t> tickets;
    for (int k = 0; k < 11; ++k) tickets.push_back(KemSdAtomicIncrementWithCap(&store, 2));
    EXPECT_THAT(tickets, ElementsAre(0, 1, 2, 0, 0, 1, 2, 0, 0, 1, 2));
}

TEST(Atomic, ACapOf0HandsOutOnly0)
{
    volatile KEM_SDATOMIC_T store = 0;
    for (int k = 0; k < 5; ++k) EXPECT_EQ(KemSdAtomicIncrementWithCap(&store, 0), 0);
}

TEST(Atomic, AStoreBeyondTheCapIsReset)
{
    volatile KEM_SDATOMIC_T store = 10;
    EXPECT_EQ(KemSdAtomicIncrementWithCap(&store, 2), 0);
    EXPECT_EQ(store, 0);
    EXPECT_EQ(KemSdAtomicIncrementWithCap(&store, 2), 0);
    EXPECT_EQ(store, 1);
}

TEST(Atomic, ConcurrentCappedTicketsStayWithinTheCap)
{
    constexpr int64_t kCap = 3;
    volatile KEM_SDATOMIC_T store = 0;
    volatile KEM_SDATOMIC_T handedOut[kCap + 1] = {};
    volatile KEM_SDATOMIC_T beyond = 0;
    together([&](int) {
        for (int k = 0; k < kRounds; ++k) {
            const int64_t ticket = KemSdAtomicIncrementWithCap(&store, kCap);
            KemSdAtomicIncrement(ticket >= 0 && ticket <= kCap ? &handedOut[ticket] : &beyond);
        }
    });
    EXPECT_EQ(beyond, 0);
    for (int64_t ticket = 0; ticket <= kCap; ++ticket) EXPECT_GT(handedOut[ticket], 0) << ticket;
}

TEST(Atomic, WaitsReturnAtOnceWhenTheByteStandsAlready)
{
    volatile KEM_BOOL_T byte = 0x80;
    KemSdWaitUntilTrue(&byte);
    byte = 0;
    KemSdWaitUntilFalse(&byte);
    EXPECT_EQ(byte, 0);
}

TEST(Atomic, AWaitUntilTrueSpinsWithoutYieldingAndSeesWhatWasWrittenBefore)
{
    volatile KEM_BOOL_T bytes[] = {1, 0, 1}; // the neighbours do not count
    int written = 0;
    int seen = 0;
    resetCalls();
    std::thread waiter([&] {
        KemSdWaitUntilTrue(&bytes[1]);
        seen = written;
    });
    EXPECT_TRUE(keepsRunning(waiter));
    written = 7;
    __atomic_store_n(&bytes[1], 2, __ATOMIC_RELEASE);
    waiter.join();
    EXPECT_EQ(seen, 7);
    EXPECT_EQ(calls(Call::sched_yield), 0);
}

TEST(Atomic, AWaitUntilFalseSpinsWithoutYieldingAndSeesWhatWasWrittenBefore)
{
    volatile KEM_BOOL_T bytes[] = {0, 0x80, 0};
    int written = 0;
    int seen = 0;
    resetCalls();
    std::thread waiter([&] {
        KemSdWaitUntilFalse(&bytes[1]);
        seen = written;
    });
    EXPECT_TRUE(keepsRunning(waiter));
    written = 7;
    __atomic_store_n(&bytes[1], 0, __ATOMIC_RELEASE);
    waiter.join();
    EXPECT_EQ(seen, 7);
    EXPECT_EQ(calls(Call::sched_yield), 0);
}

TEST(Atomic, TheMemoryBarrierHasNoEffect)
{
    volatile KEM_SDATOMIC_T store = 5;
    errno = EDOM;
    resetCalls();
    KemSdMemoryBarrier();
    EXPECT_EQ(store, 5);
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(calls(Call::sched_yield), 0);
}
