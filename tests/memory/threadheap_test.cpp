// Requests through the thread heaps: the choice of a slot, swaps, growth, the other slots, the way past the heaps.

#include "sd/memsys/threadheap.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "support/failingcalls.h"
#include "support/threadheaps.h"

using namespace kemsd::test;

namespace {

constexpr uintptr_t kMinusNine = static_cast<uintptr_t>(-9);

// Four slots, eight spare heaps of 512 KiB each, and no further ones.
constexpr const char* kSmall = "numthreadheaps 4 numheaps 12 heapsize 512K maxblock 64K shortmemoryoff";

class ThreadHeaps : public testing::Test {
protected:
    void start(const std::string& configuration = kSmall)
    {
        ASSERT_EQ(startThreadHeaps(configuration, recordMessage), 0);
        ASSERT_TRUE(sd::memsys::heapsOn());
        ovMemSetThreadContext(&context_);
    }

    // A request with this owner; null when it fails.
    void* take(size_t bytes, const void* owner)
    {
        void* block = takeUntracked(bytes, owner);
        if (block) taken_.insert(block);
        return block;
    }

    static void* takeUntracked(size_t bytes, const void* owner)
    {
        void* block = nullptr;
        ovMalloc(const_cast<void*>(owner), bytes, &block, __FILE__, __LINE__);
        return block;
    }

    void give(void* block)
    {
        taken_.erase(block);
        EXPECT_EQ(ovFree(block, __FILE__, __LINE__), 0);
    }

    void TearDown() override
    {
        while (!taken_.empty()) give(*taken_.begin());
    }

    static OV_MemHeap_T* heapOf(void* block) { return sd::memheap::blockOf(block)->MemHeap; }

    // An owner's address whose requests go to this slot while the first prime is in force.
    static const void* ownerOf(OV_LONG_T slot) { return reinterpret_cast<const void*>(uintptr_t{8} * (1297 + slot)); }

    // Leaves a heap without room for anything. Its blocks are never given back.
    static void fill(OV_MemHeap_T* heap)
    {
        for (const OV_ULONG_T bytes : {60000u, 8000u, 1000u, 100u, 24u})
            while (ovMemHeapMalloc(heap, bytes)) {
            }
        ASSERT_FALSE(sd::memheap::canServe(*heap, 24));
    }

    // Waits until some thread has yielded the processor a few times.
    static bool somebodyYielded()
    {
        constexpr long kLooks = 100000000;
        for (long i = 0; i < kLooks; ++i) {
            if (calls(Call::sched_yield) >= 3) return true;
            sd::pauseHint();
        }
        return false;
    }

    OV_THDCTX_T context_{};

private:
    std::set<void*> taken_;
};

} // namespace

TEST_F(ThreadHeaps, SlotIsTheOwnersAddressBy8ModPrimeModSlots)
{
    start("numthreadheaps 16");
    for (const uintptr_t address : {0x10UL, 0x7ffe12345678UL, 0x55d0c0ffee08UL, 0xFFFFFFFFFFFFFFF8UL}) {
        void* block = take(100, reinterpret_cast<void*>(address));
        EXPECT_EQ(heapOf(block), ovMemThreadHeap.Heap[(address >> 3) % 1297 % 16]) << std::hex << address;
    }
}

TEST_F(ThreadHeaps, PrimeRotatesEvery10000Allocations)
{
    start("numthreadheaps 16");
    constexpr unsigned kPrimes[] = {1297, 1301, 1303, 1307};
    constexpr uintptr_t kAddress = 0x55d0c0ffee08;
    for (unsigned window = 0; window < 4; ++window)
        for (const unsigned count : {0u, 9999u}) {
            ovMemThreadHeap.malloc_count = window * 10000 + count;
            void* block = take(100, reinterpret_cast<void*>(kAddress));
            EXPECT_EQ(heapOf(block)->ThreadHeapId, static_cast<OV_LONG_T>((kAddress >> 3) % kPrimes[window] % 16));
            give(block);
        }
    ovMemThreadHeap.malloc_count = 49 * 10000; // the last prime, then the first again
    EXPECT_EQ(heapOf(take(100, reinterpret_cast<void*>(kAddress)))->ThreadHeapId,
              OV_LONG_T((kAddress >> 3) % 1657 % 16));
    ovMemThreadHeap.malloc_count = 50 * 10000;
    EXPECT_EQ(heapOf(take(100, reinterpret_cast<void*>(kAddress)))->ThreadHeapId,
              OV_LONG_T((kAddress >> 3) % 1297 % 16));
    EXPECT_EQ(ovMemThreadHeap.malloc_count, 50u * 10000 + 1);
}

TEST_F(ThreadHeaps, WithoutOwnerTheResultVariablesAddressChooses)
{
    start("numthreadheaps 16");
    void* block = nullptr;
    ASSERT_EQ(ovMalloc(nullptr, 100, &block, __FILE__, __LINE__), 0);
    EXPECT_EQ(heapOf(block)->ThreadHeapId, OV_LONG_T((reinterpret_cast<uintptr_t>(&block) >> 3) % 1297 % 16));
}

TEST_F(ThreadHeaps, SmallRequestsCountInMallocCountAndHaveNoMarker)
{
    start();
    const auto before = ovMemThreadHeap.malloc_count;
    void* block = take(64 * 1024, ownerOf(0));
    EXPECT_EQ(ovMemThreadHeap.malloc_count, before + 1);
    EXPECT_EQ(markerBefore(block), 0u);
    EXPECT_EQ(heapOf(block), ovMemThreadHeap.Heap[0]);
}

TEST_F(ThreadHeaps, RequestAboveMaxBlockIsExternalAndCountsItsHeaderInUsedMemory)
{
    start();
    const auto used = ovMemThreadHeap.UsedMemory;
    const auto count = ovMemThreadHeap.malloc_count;
    void* block = take(64 * 1024 + 1, ownerOf(0));
    ASSERT_NE(block, nullptr);
    const OV_MemAllocExtBlock_T* header = externalHeaderOf(block);
    EXPECT_EQ(header->size, 64u * 1024 + 1);
    EXPECT_EQ(header->prev, nullptr);
    EXPECT_EQ(header->next, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(header->marker), kMinusNine);
    EXPECT_EQ(ovMemThreadHeap.UsedMemory, used + 64 * 1024 + 1 + 32);
    EXPECT_EQ(ovMemThreadHeap.malloc_count, count) << "not a heap allocation";
    give(block);
    EXPECT_EQ(ovMemThreadHeap.UsedMemory, used);
}

TEST_F(ThreadHeaps, FullHeapIsSwappedForTheFirstSpareThatServes)
{
    start();
    OV_MemHeap_T* const full = ovMemThreadHeap.Heap[1];
    OV_MemHeap_T* const spare = ovMemThreadHeap.MemHeapPool.MemHeap;
    OV_MemHeap_T* const second = spare->next;
    fill(full);
    void* block = take(8000, ownerOf(1));
    EXPECT_EQ(heapOf(block), spare);
    EXPECT_EQ(ovMemThreadHeap.Heap[1], spare);
    EXPECT_EQ(full->ThreadHeapId, 4095);
    EXPECT_EQ(ovMemThreadHeap.MemHeapPool.MemHeap, second) << "the pool goes on behind the heap that left";
    EXPECT_EQ(second->prev, full) << "the full heap took its place in the circle";
    expectSoundThreadHeaps();
}

TEST_F(ThreadHeaps, SoleSpareLeavesTheFullHeapAloneInThePool)
{
    start();
    OV_MemHeap_T* const full = ovMemThreadHeap.Heap[1];
    const std::vector<OV_MemHeap_T*> spares = poolHeaps();
    spares[0]->next = spares[0]->prev = spares[0]; // the others step aside
    fill(full);
    void* block = take(8000, ownerOf(1));
    EXPECT_EQ(heapOf(block), spares[0]);
    EXPECT_EQ(poolHeaps(), std::vector<OV_MemHeap_T*>{full});
    for (size_t i = 1; i < spares.size(); ++i) sd::memsys::addToPool(spares[i]);
    expectSoundThreadHeaps();
}

TEST_F(ThreadHeaps, SpareThatFailsUnderItsLockIsPassedBy)
{
    start();
    fill(ovMemThreadHeap.Heap[0]);
    // The first spare looks able (a block waits on a fast bin) but cannot serve.
    OV_MemHeap_T* const first = ovMemThreadHeap.MemHeapPool.MemHeap;
    OV_MemHeap_T* const second = first->next;
    void* small = ovMemHeapMalloc(first, 100);
    fill(first);
    ovMemHeapFree(first, small);
    void* block = take(8000, ownerOf(0));
    EXPECT_EQ(heapOf(block), second);
    expectSoundThreadHeaps();
}

TEST_F(ThreadHeaps, SlotThatIsBeingSwitchedIsWaitedFor)
{
    start();
    OV_MemHeap_T* const heap = ovMemThreadHeap.Heap[1];
    sd::storeRelaxed(ovMemThreadHeap.HeapCopy[1], ovMemThreadHeap.MemHeapPool.MemHeap);
    resetCalls();
    void* block = nullptr;
    std::thread waiter([&] { block = takeUntracked(100, ownerOf(1)); });
    EXPECT_TRUE(somebodyYielded());
    sd::storeRelaxed(ovMemThreadHeap.HeapCopy[1], heap);
    waiter.join();
    EXPECT_EQ(heapOf(block), heap);
    expectSoundThreadHeaps();
}

TEST_F(ThreadHeaps, LoserOfASwitchYieldsAndLooksAtTheSlotAgain)
{
    start();
    OV_MemHeap_T* const full = ovMemThreadHeap.Heap[1];
    OV_MemHeap_T* const spare = ovMemThreadHeap.MemHeapPool.MemHeap;
    fill(full);
    sd::storeRelaxed(full->ThreadHeapId, 4095); // another thread has begun to switch the slot
    resetCalls();
    void* block = nullptr;
    std::thread loser([&] { block = takeUntracked(100, ownerOf(1)); });
    EXPECT_TRUE(somebodyYielded());
    EXPECT_EQ(sd::loadAcquire(ovMemThreadHeap.Heap[1]), full);
    {
        const sd::memsys::Locked pool(ovMemThreadHeap.MemHeapPool.SpinLock);
        EXPECT_EQ(ovMemThreadHeap.MemHeapPool.MemHeap, spare) << "the loser leaves the pool alone";
    }
    sd::storeRelease(full->ThreadHeapId, 1); // ... and has given up
    loser.join();
    EXPECT_EQ(heapOf(block), spare);
    EXPECT_EQ(full->ThreadHeapId, 4095);
    expectSoundThreadHeaps();
}

TEST_F(ThreadHeaps, WhenNoSpareServesANewHeapIsMadeFromTheBudget)
{
    start("numthreadheaps 4 numheaps 14 heapsize 512K maxblock 64K shortmemoryoff");
    std::vector<void*> blocks;
    while (ovMemThreadHeap.NumHeaps == 2) blocks.push_back(take(60000, ownerOf(2)));
    EXPECT_EQ(ovMemThreadHeap.NumHeaps, 1);
    EXPECT_EQ(poolHeaps().size(), 9u) << "the full heap went to the pool";
    EXPECT_EQ(heapOf(blocks.back()), ovMemThreadHeap.Heap[2]);
    EXPECT_EQ(ovMemThreadHeap.Heap[2]->ThreadHeapId, 2);
    expectSoundThreadHeaps();
    while (ovMemThreadHeap.NumHeaps == 1) blocks.push_back(take(60000, ownerOf(2)));
    expectSoundThreadHeaps();
    for (void* b : blocks) give(b);
    expectSoundThreadHeaps();
    EXPECT_EQ(usedHeapBytes(), 0u);
}

TEST_F(ThreadHeaps, LockOfANewHeapComesFromTheSystemWhileItsSlotIsClosed)
{
    KemSdSetMemoryManager(TRUE); // a header before every block, so that both words can be read
    start("numthreadheaps 4 numheaps 13 heapsize 512K maxblock 64K shortmemoryoff");
    std::vector<void*> blocks;
    while (ovMemThreadHeap.NumHeaps == 1) blocks.push_back(take(60000, ownerOf(2)));
    EXPECT_EQ(markerBefore(ovMemThreadHeap.Heap[2]->HeapHeader.SpinLock.pSpinlock), kMinusNine);
    EXPECT_NE(markerBefore(ovMemThreadHeap.Heap[1]->HeapHeader.SpinLock.pSpinlock), kMinusNine) << "made at start-up";
}

TEST_F(ThreadHeaps, WithoutBudgetTheOtherSlotsServeInOrderAndThenTheSystem)
{
    start();
    for (OV_MemHeap_T* spare : poolHeaps()) fill(spare);
    fill(ovMemThreadHeap.Heap[0]);
    fill(ovMemThreadHeap.Heap[2]);
    OV_MemHeap_T* const kept = ovMemThreadHeap.Heap[2];
    void* block = take(60000, ownerOf(2));
    EXPECT_EQ(heapOf(block), ovMemThreadHeap.Heap[1]);
    EXPECT_EQ(ovMemThreadHeap.Heap[2], kept) << "the slot keeps its heap";
    EXPECT_EQ(kept->ThreadHeapId, 2);
    fill(ovMemThreadHeap.Heap[1]);
    EXPECT_EQ(heapOf(take(60000, ownerOf(2))), ovMemThreadHeap.Heap[3]);
    fill(ovMemThreadHeap.Heap[3]);
    void* outside = take(60000, ownerOf(2));
    ASSERT_NE(outside, nullptr);
    EXPECT_EQ(markerBefore(outside), kMinusNine);
    EXPECT_EQ(externalHeaderOf(outside)->size, 60000u);
    expectSoundThreadHeaps();
}

TEST_F(ThreadHeaps, OneFailingRequestMakesAtMostOneNewHeap)
{
    start("numthreadheaps 4 numheaps 20 heapsize 512K maxblock 64K shortmemoryoff");
    std::vector<void*> blocks;
    const OV_LONG_T before = ovMemThreadHeap.NumHeaps;
    while (ovMemThreadHeap.NumHeaps == before) blocks.push_back(take(60000, ownerOf(0)));
    EXPECT_EQ(ovMemThreadHeap.NumHeaps, before - 1);
}

TEST_F(ThreadHeaps, RegionBeyondTheLimitIsRefusedAndRecorded)
{
    // 12 heaps of 1 MiB; the budget would allow more, the limit of 20 MiB does not.
    start("numthreadheaps 4 numheaps 40 heapsize 1M maxblock 64K shortmemoryoff memorylimit 20M");
    ovMemThreadHeap.UsedMemory = 19 * 1024 * 1024 + 1;
    std::vector<void*> blocks;
    const OV_LONG_T budget = ovMemThreadHeap.NumHeaps;
    bool external = false;
    void* block;
    do {
        block = take(60000, ownerOf(0));
        if (block && markerBefore(block) == kMinusNine) external = true;
    } while (block && !external);
    EXPECT_EQ(ovMemThreadHeap.NumHeaps, budget) << "no region was granted";
    EXPECT_TRUE(external) << "the system served what still fits below the limit";
    // 19 MiB + 1 and the refused region of 1 MiB were the total at the event.
    while (take(60000, ownerOf(0))) {
    }
    EXPECT_GE(ovMemThreadHeap.MemMessageUsedMemory, 20u * 1024 * 1024);
    ASSERT_FALSE(messages().empty());
    EXPECT_EQ(messages().back().number, SDSTS_MEM_LIMIT_EXCEEDED);
    EXPECT_EQ(messages().back().second, 60000u);
    EXPECT_LE(ovMemThreadHeap.UsedMemory, 20u * 1024 * 1024);
    expectSoundThreadHeaps();
}

TEST_F(ThreadHeaps, NewRegionRefusedByTheLimitRecordsTheTotal)
{
    start("numthreadheaps 4 numheaps 40 heapsize 2M maxblock 64K shortmemoryoff memorylimit 40M");
    ovMemThreadHeap.UsedMemory = 39 * 1024 * 1024;
    EXPECT_EQ(ovMemExtLockMalloc(2 * 1024 * 1024), nullptr);
    EXPECT_EQ(ovMemThreadHeap.MemMessageUsedMemory, 41u * 1024 * 1024);
    EXPECT_EQ(ovMemThreadHeap.UsedMemory, 39u * 1024 * 1024);
}

TEST_F(ThreadHeaps, FirstRegionAbove90PercentSetsTheWarningAndTheNextRequestReportsItOnce)
{
    start("numthreadheaps 4 numheaps 40 heapsize 1M maxblock 64K shortmemoryoff memorylimit 100M");
    ovMemThreadHeap.UsedMemory = 90 * 1024 * 1024 - 1000;
    ovMemThreadHeap.malloc_count = 5000;
    void* block = take(100000, ownerOf(0));
    ASSERT_NE(block, nullptr);
    ASSERT_EQ(messages().size(), 1u);
    EXPECT_EQ(messages()[0].number, SDSTS_MEM_LIMIT_WARNING);
    EXPECT_EQ(messages()[0].level, 3);
    EXPECT_EQ(messages()[0].first, 90u * 1024 * 1024 - 1000 + 100032);
    EXPECT_EQ(messages()[0].second, 90u);
    EXPECT_EQ(ovMemThreadHeap.MemMessage, memmsg_noerror);
    EXPECT_EQ(ovMemThreadHeap.next_message_malloc_count, 6000u);
    ASSERT_NE(take(100000, ownerOf(0)), nullptr);
    EXPECT_EQ(messages().size(), 1u) << "the next warning waits for 1,000 allocations";
}

TEST_F(ThreadHeaps, HighWaterMarksFollowTheRegionsAndStayWhenMemoryGoes)
{
    start();
    const auto used = ovMemThreadHeap.UsedMemory;
    EXPECT_EQ(used, 12u * 512 * 1024);
    void* block = take(1 << 20, ownerOf(0));
    give(block);
    EXPECT_EQ(ovMemThreadHeap.UsedMemory, used);
    EXPECT_EQ(ovMemThreadHeap.MaxUsedMemory, used + (1 << 20) + 32);
    EXPECT_EQ(ovMemThreadHeap.MaxUsedMarkMemory, used + (1 << 20) + 32);
    EXPECT_EQ(ovMemThreadHeap.MaxTotalUsedMemory, used + (1 << 20) + 32);
}

TEST_F(ThreadHeaps, WithoutMemoryControlNothingIsCountedAndNothingRefused)
{
    start("numthreadheaps 4 numheaps 12 heapsize 512K memorylimit 12M nomemorycontrol shortmemoryoff");
    EXPECT_EQ(ovMemThreadHeap.UsedMemory, 0u);
    void* block = take(20 << 20, ownerOf(0));
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(ovMemThreadHeap.UsedMemory, 0u);
    give(block);
    EXPECT_EQ(ovMemThreadHeap.UsedMemory, 0u);
}

TEST_F(ThreadHeaps, MaxBlockOfZeroSendsEverythingOutside)
{
    start("maxblock 0");
    void* block = take(24, ownerOf(0));
    EXPECT_EQ(markerBefore(block), kMinusNine);
    give(block);
}

TEST_F(ThreadHeaps, FailedRequestStoresNullAndRecordsTheWantedBytes)
{
    start();
    const auto used = static_cast<OV_ULONG_T>(ovMemThreadHeap.UsedMemory);
    void* block = &block;
    Failing noMemory(Call::malloc, ENOMEM);
    EXPECT_EQ(ovMalloc(nullptr, 100000, &block, __FILE__, __LINE__), SDSTS_NO_MEMORY);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(ovMemThreadHeap.MemMessageUsedMemory, used + 100000);
    ASSERT_EQ(messages().size(), 1u);
    EXPECT_EQ(messages()[0].number, SDSTS_MEM_EXHAUSTED);
    EXPECT_EQ(messages()[0].first, used + 100000);
    EXPECT_EQ(messages()[0].second, 100000u);
}

TEST_F(ThreadHeaps, RequestThatWrapsWithItsHeaderIsNoMemory)
{
    start();
    resetCalls();
    const auto used = ovMemThreadHeap.UsedMemory;
    void* block = &block;
    EXPECT_EQ(ovMalloc(nullptr, ~size_t{0} - 8, &block, __FILE__, __LINE__), SDSTS_NO_MEMORY);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(calls(Call::malloc), 0);
    EXPECT_EQ(ovMemThreadHeap.UsedMemory, used);
}

TEST_F(ThreadHeaps, RequestWithoutAPlaceForItsResultIsInvalid)
{
    for (const bool on : {false, true}) {
        if (on) start();
        const auto count = ovMemThreadHeap.malloc_count;
        EXPECT_EQ(ovMalloc(nullptr, 100, nullptr, __FILE__, __LINE__), SDSTS_INVALID_PARAM);
        EXPECT_EQ(ovMallocAligned(nullptr, 64, 100, nullptr, __FILE__, __LINE__), SDSTS_INVALID_PARAM);
        EXPECT_EQ(ovCalloc(nullptr, 10, 10, nullptr, 2, __FILE__, __LINE__), SDSTS_INVALID_PARAM);
        void* block = take(100, ownerOf(0));
        EXPECT_EQ(ovRealloc(nullptr, 200, block, nullptr, __FILE__, __LINE__), SDSTS_INVALID_PARAM);
        give(block);
        EXPECT_EQ(ovMemThreadHeap.malloc_count, count + on) << "only the one request counts";
    }
}

TEST_F(ThreadHeaps, AlignmentAndPolicyAreNotUsed)
{
    start();
    void* block = nullptr;
    ASSERT_EQ(ovMallocAligned(const_cast<void*>(ownerOf(0)), 4096, 100, &block, __FILE__, __LINE__), 0);
    EXPECT_EQ(heapOf(block), ovMemThreadHeap.Heap[0]);
    EXPECT_EQ(ovFreeAligned(block, 4096, __FILE__, __LINE__), 0);
    ASSERT_EQ(ovMallocPolicy(const_cast<void*>(ownerOf(0)), 100, &block, 1, __FILE__, __LINE__), 0);
    EXPECT_EQ(markerBefore(block), 0u);
}

TEST_F(ThreadHeaps, CallocFillsHeapAndExternalBlocks)
{
    start();
    for (const long bytes : {100L, 200000L}) {
        void* dirty = take(static_cast<size_t>(bytes), ownerOf(0));
        memset(dirty, 0xFF, static_cast<size_t>(bytes));
        give(dirty);
        void* block = nullptr;
        ASSERT_EQ(ovCalloc(const_cast<void*>(ownerOf(0)), bytes, 1, &block, 2, __FILE__, __LINE__), 0);
        for (long i = 0; i < bytes; ++i) ASSERT_EQ(static_cast<char*>(block)[i], 0);
        give(block);
    }
}

TEST_F(ThreadHeaps, CallocOfASizeThatWrapsReportsTheShortage)
{
    start();
    void* block = &block;
    EXPECT_EQ(ovCalloc(nullptr, -1, 3, &block, 2, __FILE__, __LINE__), SDSTS_NO_MEMORY);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(messages().size(), 1u);
    EXPECT_EQ(ovMemThreadHeap.MemMessageUsedMemory, static_cast<OV_ULONG_T>(ovMemThreadHeap.UsedMemory) - 3);
}

TEST_F(ThreadHeaps, BucketsCountRequestedBytesOnAllocationAndCapacityOnRelease)
{
    start("numthreadheaps 4 memoryblockscontrol shortmemoryoff");
    void* block = take(158, ownerOf(0));      // bucket 0; its capacity of 160 too
    void* beyond = take(160 + 1, ownerOf(0)); // bucket 1
    void* large = take(300000, ownerOf(0));   // bucket 10
    OV_ULONGLONG_T allocated[16], released[16];
    ASSERT_EQ(ovMemGetUsedMemoryBlocks(1, allocated, released), 0);
    EXPECT_EQ(allocated[0], 1u);
    EXPECT_EQ(allocated[1], 1u);
    EXPECT_EQ(allocated[10], 1u);
    give(block);
    give(beyond);
    give(large);
    ASSERT_EQ(ovMemGetUsedMemoryBlocks(1, allocated, released), 0);
    EXPECT_EQ(released[0], 1u);
    EXPECT_EQ(released[1], 1u);
    EXPECT_EQ(released[10], 1u);
}

TEST_F(ThreadHeaps, ShortTermBlockIsUnlinkedFromItsListOnRelease)
{
    start();
    // Three external blocks on a context's circle, as short-term heaps leave them.
    OV_MemAllocExtBlock_T* headers[3];
    for (auto*& header : headers) {
        header = externalHeaderOf(take(100000, ownerOf(0)));
        sd::memsys::linkShortTerm(context_.MemShortExtBlocks, header);
    }
    EXPECT_EQ(context_.MemShortExtBlocks, headers[0]);
    EXPECT_EQ(headers[0]->next, headers[2]) << "new ones come just behind the head";
    give(headers[0] + 1); // the head moves on
    EXPECT_EQ(context_.MemShortExtBlocks, headers[2]);
    EXPECT_EQ(headers[2]->next, headers[1]);
    EXPECT_EQ(headers[2]->prev, headers[1]);
    give(headers[1] + 1);
    EXPECT_EQ(headers[2]->next, headers[2]);
    give(headers[2] + 1); // the last one clears the list
    EXPECT_EQ(context_.MemShortExtBlocks, nullptr);
}

TEST_F(ThreadHeaps, ShortTermHeapsBlockIsReleasedWithoutALock)
{
    start();
    ovMemThreadHeap.ShortHeapSize = 400000;
    auto* heap = static_cast<OV_MemHeap_T*>(malloc(400000));
    memset(static_cast<void*>(heap), 0, sizeof *heap); // no lock to take
    ovMemHeapInit(heap, FALSE);
    heap->ThreadHeapId = 0x7FFFFFFF;
    void* block = ovMemHeapMalloc(heap, 100);
    void* resized = nullptr;
    ASSERT_EQ(ovRealloc(&context_, 50, block, &resized, __FILE__, __LINE__), 0);
    EXPECT_EQ(resized, block);
    give(block);
    EXPECT_EQ(walkHeap(*heap).usedBlocks, 0u);
    sd::unpoison(heap, 400000);
    free(heap);
}

TEST_F(ThreadHeaps, NullIsNothingToTheInternalRelease)
{
    start();
    ovMemThreadHeapFree(nullptr);
    void* block = ovMemThreadHeapMalloc(nullptr, 10);
    EXPECT_NE(block, nullptr);
    ovMemThreadHeapFree(block);
}

TEST_F(ThreadHeaps, StrDupComesFromTheHeaps)
{
    start();
    char* copy = ovStrDup("abc", __FILE__, __LINE__);
    EXPECT_EQ(markerBefore(copy), 0u);
    EXPECT_EQ(sd::memheap::blockOf(copy)->size, 48u);
    EXPECT_STREQ(copy, "abc");
    give(copy);
}

TEST_F(ThreadHeaps, EmptySlotOfAFailedStartUpIsServedByTheSystem)
{
    // The limit leaves room for two regions: slots 2 and 3 stay empty, and so does the pool.
    TempDir place;
    place.write("bin/config.mem", "numthreadheaps 4 heapsize 512K memorylimit 11M shortmemoryoff");
    setenv("ZANTOPATH", place.path().c_str(), 1);
    ovMemThreadHeap.UsedAlignedMemory = 11 * 1024 * 1024 - 2 * 512 * 1024;
    EXPECT_EQ(ovMemThreadHeapInit(1, nullptr, const_cast<char*>("test"), 0), SDSTS_NO_MEMORY);
    EXPECT_EQ(ovMemThreadHeap.NumThreadHeaps, 4);
    EXPECT_NE(ovMemThreadHeap.Heap[1], nullptr);
    EXPECT_EQ(ovMemThreadHeap.Heap[2], nullptr);
    ovMemThreadHeap.UsedAlignedMemory = 0;
    void* served = take(100, ownerOf(1));
    EXPECT_EQ(markerBefore(served), 0u);
    void* outside = take(100, ownerOf(2));
    EXPECT_EQ(markerBefore(outside), kMinusNine);
    give(served);
    give(outside);
}

TEST_F(ThreadHeaps, EveryFailingSystemRequestIsSurvived)
{
    start("numthreadheaps 4 numheaps 14 heapsize 512K maxblock 64K shortmemoryoff");
    sweepAllocationFailures([this](long) {
        std::vector<void*> blocks;
        for (int i = 0; i < 12; ++i)
            if (void* block = takeUntracked(200000, ownerOf(i % 4))) blocks.push_back(block);
        for (void*& block : blocks) {
            void* resized = nullptr;
            const int sts = ovRealloc(&context_, 300000, block, &resized, __FILE__, __LINE__);
            EXPECT_EQ(sts, resized ? 0 : SDSTS_NO_MEMORY);
            if (resized) block = resized;
        }
        for (void* block : blocks) give(block);
        EXPECT_EQ(ovMemThreadHeap.UsedMemory, 12u * 512 * 1024);
        expectSoundThreadHeaps();
    });
}
