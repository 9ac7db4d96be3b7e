// Resizing with the thread heaps on, and blocks that cross the switch between on and off.

#include <gtest/gtest.h>

#include <cstring>

#include "sd/base/settings.h"
#include "sd/memsys/threadheap.h"
#include "support/failingcalls.h"
#include "support/threadheaps.h"

using namespace kemsd::test;

namespace {

constexpr uintptr_t kMinusNine = static_cast<uintptr_t>(-9);
constexpr const char* kConfiguration = "numthreadheaps 4 numheaps 12 heapsize 512K maxblock 64K shortmemoryoff";

int getBlock(void* owner, size_t size, void** block) { return ovMalloc(owner, size, block, __FILE__, __LINE__); }
int give(void* block) { return ovFree(block, __FILE__, __LINE__); }

int resize(void* owner, size_t size, void* old, void** block)
{
    return ovRealloc(owner, size, old, block, __FILE__, __LINE__);
}

void* filled(void* owner, size_t size)
{
    void* block = nullptr;
    EXPECT_EQ(getBlock(owner, size, &block), 0);
    for (size_t i = 0; i < size; ++i) static_cast<unsigned char*>(block)[i] = static_cast<unsigned char>(i * 7);
    return block;
}

testing::AssertionResult holds(const void* block, size_t size)
{
    for (size_t i = 0; i < size; ++i)
        if (static_cast<const unsigned char*>(block)[i] != static_cast<unsigned char>(i * 7))
            return testing::AssertionFailure() << "byte " << i << " has changed";
    return testing::AssertionSuccess();
}

class Realloc : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(startThreadHeaps(kConfiguration, recordMessage), 0);
        ovMemSetThreadContext(&context_);
    }

    void* owner() { return &context_; }

    OV_THDCTX_T context_{};
};

} // namespace

TEST_F(Realloc, ShrinkingInAHeapStaysInPlace)
{
    void* block = filled(owner(), 1000);
    void* resized = nullptr;
    ASSERT_EQ(resize(owner(), 100, block, &resized), 0);
    EXPECT_EQ(resized, block);
    EXPECT_TRUE(holds(block, 100));
    give(resized);
    expectSoundThreadHeaps();
}

TEST_F(Realloc, GrowingInAHeapMovesWithinIt)
{
    void* block = filled(owner(), 100);
    OV_MemHeap_T* heap = sd::memheap::blockOf(block)->MemHeap;
    void* resized = nullptr;
    ASSERT_EQ(resize(owner(), 1000, block, &resized), 0);
    EXPECT_NE(resized, block);
    EXPECT_EQ(sd::memheap::blockOf(resized)->MemHeap, heap);
    EXPECT_TRUE(holds(resized, 100));
    give(resized);
    expectSoundThreadHeaps();
    EXPECT_EQ(usedHeapBytes(), 0u);
}

TEST_F(Realloc, GrowingBeyondTheHeapsRoomMovesToAnother)
{
    void* block = filled(owner(), 1000);
    OV_MemHeap_T* heap = sd::memheap::blockOf(block)->MemHeap;
    for (const OV_ULONG_T bytes : {30000u, 1000u, 24u})
        while (ovMemHeapMalloc(heap, bytes)) {
        }
    void* resized = nullptr;
    ASSERT_EQ(resize(owner(), 50000, block, &resized), 0);
    EXPECT_NE(sd::memheap::blockOf(resized)->MemHeap, heap);
    EXPECT_TRUE(holds(resized, 1000));
    give(resized);
    expectSoundThreadHeaps();
}

TEST_F(Realloc, GrowingAboveMaxBlockMovesToAnExternalBlock)
{
    void* block = filled(owner(), 1000);
    void* resized = nullptr;
    ASSERT_EQ(resize(owner(), 70000, block, &resized), 0);
    EXPECT_EQ(markerBefore(resized), kMinusNine);
    EXPECT_EQ(externalHeaderOf(resized)->size, 70000u);
    EXPECT_TRUE(holds(resized, 1000));
    EXPECT_EQ(usedHeapBytes(), 0u);
    give(resized);
}

TEST_F(Realloc, ExternalBlockAboveMaxBlockStaysExternalAndIsCounted)
{
    void* block = filled(owner(), 70000);
    const auto used = ovMemThreadHeap.UsedMemory;
    void* resized = nullptr;
    ASSERT_EQ(resize(owner(), 170000, block, &resized), 0);
    EXPECT_EQ(externalHeaderOf(resized)->size, 170000u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(externalHeaderOf(resized)->marker), kMinusNine);
    EXPECT_EQ(ovMemThreadHeap.UsedMemory, used + 100000);
    EXPECT_EQ(ovMemThreadHeap.MaxUsedMemory, used + 100000);
    EXPECT_TRUE(holds(resized, 70000));
    ASSERT_EQ(resize(owner(), 65537, resized, &block), 0);
    EXPECT_EQ(ovMemThreadHeap.UsedMemory, used - 70000 + 65537);
    EXPECT_TRUE(holds(block, 65537));
    give(block);
    EXPECT_EQ(ovMemThreadHeap.UsedMemory, used - 70032);
}

TEST_F(Realloc, ExternalBlockUpToMaxBlockMovesIntoAHeap)
{
    void* block = filled(owner(), 70000);
    const auto used = ovMemThreadHeap.UsedMemory;
    void* resized = nullptr;
    ASSERT_EQ(resize(owner(), 65536, block, &resized), 0);
    EXPECT_EQ(markerBefore(resized), 0u);
    EXPECT_TRUE(holds(resized, 65536));
    EXPECT_EQ(ovMemThreadHeap.UsedMemory, used - 70032);
    give(resized);
}

TEST_F(Realloc, ResizeBeyondTheLimitIsUndoneAndRecorded)
{
    void* block = filled(owner(), 70000);
    ovMemThreadHeap.MemoryLimit = ovMemThreadHeap.UsedMemory + 1000;
    const auto used = ovMemThreadHeap.UsedMemory;
    void* resized = &resized;
    EXPECT_EQ(resize(owner(), 80000, block, &resized), SDSTS_NO_MEMORY);
    EXPECT_EQ(resized, nullptr);
    EXPECT_EQ(ovMemThreadHeap.UsedMemory, used);
    EXPECT_TRUE(holds(block, 70000));
    ASSERT_EQ(messages().size(), 1u);
    EXPECT_EQ(messages()[0].number, SDSTS_MEM_LIMIT_EXCEEDED);
    EXPECT_EQ(messages()[0].second, 80000u) << "the requested bytes";
    give(block);
}

TEST_F(Realloc, ResizeAbove90PercentReportsTheWarning)
{
    void* block = filled(owner(), 70000);
    ovMemThreadHeap.MemoryLimit = ovMemThreadHeap.UsedMemory + 100000;
    void* resized = nullptr;
    ASSERT_EQ(resize(owner(), 80000, block, &resized), 0);
    ASSERT_EQ(messages().size(), 1u);
    EXPECT_EQ(messages()[0].number, SDSTS_MEM_LIMIT_WARNING);
    EXPECT_EQ(messages()[0].first, static_cast<OV_ULONG_T>(ovMemThreadHeap.UsedMemory));
    give(resized);
}

TEST_F(Realloc, FailingSystemResizeIsUndoneAndLeavesTheBlock)
{
    for (const KEM_BOOL_T manager : {FALSE, TRUE}) {
        KemSdSetMemoryManager(manager);
        void* block = filled(owner(), 70000);
        const auto used = ovMemThreadHeap.UsedMemory;
        void* resized = &resized;
        {
            Failing noMemory(Call::realloc, ENOMEM);
            EXPECT_EQ(resize(owner(), 3000000, block, &resized), SDSTS_NO_MEMORY);
            EXPECT_EQ(noMemory.hits(), 1);
        }
        EXPECT_EQ(resized, nullptr);
        EXPECT_EQ(ovMemThreadHeap.UsedMemory, used);
        EXPECT_TRUE(holds(block, 70000));
        EXPECT_EQ(give(block), 0) << "the old block is as good as before";
    }
}

TEST_F(Realloc, SizeThatWrapsWithTheHeaderIsRefusedAndNothingChanges)
{
    void* block = filled(owner(), 70000);
    const auto used = ovMemThreadHeap.UsedMemory;
    void* resized = &resized;
    EXPECT_EQ(resize(owner(), ~size_t{0} - 8, block, &resized), SDSTS_NO_MEMORY);
    EXPECT_EQ(resized, nullptr);
    EXPECT_EQ(ovMemThreadHeap.UsedMemory, used);
    EXPECT_TRUE(holds(block, 70000));
    give(block);
}

TEST_F(Realloc, MoveThatFindsNoMemoryLeavesTheBlock)
{
    void* block = filled(owner(), 1000);
    void* resized = &resized;
    Failing noMemory(Call::malloc, ENOMEM);
    EXPECT_EQ(resize(owner(), 70000, block, &resized), SDSTS_NO_MEMORY);
    EXPECT_EQ(resized, nullptr);
    EXPECT_TRUE(holds(block, 1000));
    give(block);
}

TEST_F(Realloc, ShortTermBlockThatStaysExternalLeavesItsList)
{
    void* block = filled(owner(), 70000);
    sd::memsys::linkShortTerm(context_.MemShortExtBlocks, externalHeaderOf(block));
    void* resized = nullptr;
    ASSERT_EQ(resize(owner(), 90000, block, &resized), 0);
    EXPECT_EQ(context_.MemShortExtBlocks, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(externalHeaderOf(resized)->marker), kMinusNine);
    EXPECT_EQ(externalHeaderOf(resized)->next, nullptr);
    EXPECT_TRUE(holds(resized, 70000));
    give(resized);
}

TEST_F(Realloc, ShortTermBlockGoesBackBehindTheHeadWhenTheResizeFails)
{
    void* head = filled(owner(), 70000);
    void* block = filled(owner(), 70000);
    sd::memsys::linkShortTerm(context_.MemShortExtBlocks, externalHeaderOf(head));
    sd::memsys::linkShortTerm(context_.MemShortExtBlocks, externalHeaderOf(block));
    void* resized = &resized;
    {
        Failing noMemory(Call::realloc, ENOMEM);
        EXPECT_EQ(resize(owner(), 3000000, block, &resized), SDSTS_NO_MEMORY);
    }
    EXPECT_EQ(context_.MemShortExtBlocks, externalHeaderOf(head));
    EXPECT_EQ(externalHeaderOf(head)->next, externalHeaderOf(block));
    EXPECT_EQ(externalHeaderOf(block)->marker, &context_.MemShortExtBlocks);
    give(block);
    give(head);
    EXPECT_EQ(context_.MemShortExtBlocks, nullptr);
}

TEST_F(Realloc, ShortTermBlockWithoutOwnerGoesBackToTheListItsMarkerNamed)
{
    void* block = filled(owner(), 70000);
    sd::memsys::linkShortTerm(context_.MemShortExtBlocks, externalHeaderOf(block));
    void* resized = &resized;
    {
        Failing noMemory(Call::realloc, ENOMEM);
        EXPECT_EQ(resize(nullptr, 3000000, block, &resized), SDSTS_NO_MEMORY);
    }
    EXPECT_EQ(context_.MemShortExtBlocks, externalHeaderOf(block));
    EXPECT_EQ(externalHeaderOf(block)->next, externalHeaderOf(block));
    give(block);
}

TEST_F(Realloc, MovingResizeCountsTheReleaseTwice)
{
    ovMemThreadHeap.MemoryBlocksControl = 1;
    void* block = filled(owner(), 70000); // bucket 8
    OV_ULONGLONG_T allocated[16], released[16];
    void* resized = nullptr;
    ASSERT_EQ(resize(owner(), 1000, block, &resized), 0);
    ASSERT_EQ(ovMemGetUsedMemoryBlocks(1, allocated, released), 0);
    EXPECT_EQ(allocated[8], 1u);
    EXPECT_EQ(released[8], 2u);
    EXPECT_EQ(allocated[1], 1u);
    give(resized);
}

TEST_F(Realloc, ResizeInPlaceCountsOneReleaseAndOneAllocation)
{
    ovMemThreadHeap.MemoryBlocksControl = 1;
    void* block = filled(owner(), 1000); // bucket 1
    void* resized = nullptr;
    ASSERT_EQ(resize(owner(), 100, block, &resized), 0);
    OV_ULONGLONG_T allocated[16], released[16];
    ASSERT_EQ(ovMemGetUsedMemoryBlocks(1, allocated, released), 0);
    EXPECT_EQ(allocated[0], 1u);
    EXPECT_EQ(allocated[1], 1u);
    EXPECT_EQ(released[1], 1u);
    give(resized);
}

// ---- Blocks that cross the switch

class CrossingBlocks : public testing::TestWithParam<bool> {
protected:
    void SetUp() override { KemSdSetMemoryManager(GetParam()); }
    static void start() { ASSERT_EQ(startThreadHeaps(kConfiguration), 0); }
};

// Without the memory manager the system allocator's own words tell where a block came from; thread sanitizer's
// allocator keeps none in front of its blocks.
#if defined(__SANITIZE_THREAD__)
constexpr bool kManagers[] = {true};
#else
constexpr bool kManagers[] = {false, true};
#endif
INSTANTIATE_TEST_SUITE_P(MemoryManager, CrossingBlocks, testing::ValuesIn(kManagers),
                         [](const auto& info) { return info.param ? "On" : "Off"; });

TEST_P(CrossingBlocks, MadeBeforeTheHeapsIsReleasedAndResizedAfter)
{
    std::vector<std::pair<void*, size_t>> released, resized;
    for (const size_t size : {10u, 100u, 5000u, 100000u, 3000000u}) {
        released.emplace_back(filled(nullptr, size), size);
        resized.emplace_back(filled(nullptr, size), size);
    }
    start();
    const long live = liveBlocks();
    for (const auto& [block, size] : released) EXPECT_EQ(give(block), 0);
    for (const auto& [block, size] : resized) {
        void* larger = nullptr;
        ASSERT_EQ(resize(nullptr, size * 2, block, &larger), 0);
        EXPECT_TRUE(holds(larger, size));
        EXPECT_EQ(give(larger), 0);
    }
    EXPECT_EQ(liveBlocks(), live - 10);
}

TEST_P(CrossingBlocks, SystemBlockBehindAFreeOneIsNotTakenForAListsMember)
{
    // Neighbours in the system allocator: once the first is free, the second's own words carry no flags.
    void* first = filled(nullptr, 100000);
    void* second = filled(nullptr, 100000);
    void* guard = filled(nullptr, 100);
    start();
    EXPECT_EQ(give(first), 0);
    EXPECT_EQ(give(second), 0);
    EXPECT_EQ(give(guard), 0);
}

TEST_P(CrossingBlocks, HeapsOfAnEarlierStartStillTakeTheirBlocksBack)
{
    start();
    void* block = filled(nullptr, 100);
    OV_MemHeap_T* heap = sd::memheap::blockOf(block)->MemHeap;
    ovMemThreadHeapInit(1, nullptr, nullptr, 0); // a second call: off
    start();                                     // a third: anew
    ovMemThreadHeapTerm();
    EXPECT_EQ(give(block), 0);
    EXPECT_EQ(walkHeap(*heap).usedBlocks, 0u);
}

TEST_P(CrossingBlocks, HeapAndExternalBlocksAreReleasedAfterTermination)
{
    start();
    const auto used = ovMemThreadHeap.UsedMemory;
    void* small = filled(nullptr, 100);
    void* large = filled(nullptr, 100000);
    ovMemThreadHeapTerm();
    EXPECT_EQ(give(small), 0);
    EXPECT_EQ(give(large), 0);
    EXPECT_EQ(ovMemThreadHeap.UsedMemory, used);
    ovMemThreadHeap.NumThreadHeaps = 4; // for the walk alone
    EXPECT_EQ(usedHeapBytes(), 0u);
}

TEST_P(CrossingBlocks, PoolHeapsBlockIsReleasedAfterTermination)
{
    start();
    OV_MemHeap_T* spare = ovMemThreadHeap.MemHeapPool.MemHeap->prev;
    void* block = ovMemHeapMalloc(spare, 100);
    ovMemThreadHeapTerm();
    EXPECT_EQ(give(block), 0);
    EXPECT_EQ(walkHeap(*spare).usedBlocks, 0u);
}

TEST_P(CrossingBlocks, HeapAndExternalBlocksMoveToTheSystemWhenResizedAfterTermination)
{
    start();
    void* small = filled(nullptr, 100);
    void* large = filled(nullptr, 100000);
    ovMemThreadHeapTerm();
    for (void* block : {small, large}) {
        const size_t size = block == small ? 100 : 100000;
        void* resized = nullptr;
        ASSERT_EQ(resize(nullptr, size + 50, block, &resized), 0);
        EXPECT_TRUE(holds(resized, size));
        EXPECT_EQ(give(resized), 0);
    }
    ovMemThreadHeap.NumThreadHeaps = 4;
    EXPECT_EQ(usedHeapBytes(), 0u);
}

TEST_P(CrossingBlocks, ResizeAfterTerminationWithoutMemoryLeavesTheBlock)
{
    start();
    void* block = filled(nullptr, 100);
    ovMemThreadHeapTerm();
    void* resized = &resized;
    {
        Failing noMemory(Call::malloc, ENOMEM);
        EXPECT_EQ(resize(nullptr, 500, block, &resized), SDSTS_NO_MEMORY);
    }
    EXPECT_EQ(resized, nullptr);
    EXPECT_TRUE(holds(block, 100));
    EXPECT_EQ(give(block), 0);
}

TEST_P(CrossingBlocks, HeapBlockIsLeftAloneOnceAFatalExceptionIsDeclared)
{
    start();
    void* block = filled(nullptr, 100);
    OV_MemHeap_T* heap = sd::memheap::blockOf(block)->MemHeap;
    ovMemThreadHeapTerm();
    KemSdXcptCreateStackHeader();
    ASSERT_EQ(KemSdXcptSetFatExceptionOccured(TRUE), 0);
    EXPECT_EQ(give(block), 0);
    EXPECT_EQ(walkHeap(*heap).usedBlocks, 1u);
    iXcptExceptionStatus = 0; // which nothing but a test does
    KemSdXcptDestroyStackHeader();
    EXPECT_EQ(give(block), 0);
    EXPECT_EQ(walkHeap(*heap).usedBlocks, 0u);
}

TEST_P(CrossingBlocks, NewRequestsAfterTerminationComeFromTheSystem)
{
    start();
    ovMemThreadHeapTerm();
    const auto count = ovMemThreadHeap.malloc_count;
    void* block = filled(nullptr, 100);
    EXPECT_EQ(ovMemThreadHeap.malloc_count, count);
    EXPECT_EQ(give(block), 0);
}

TEST_P(CrossingBlocks, ContextMadeBeforeTheHeapsIsReleasedAfter)
{
    KEM_PSDCTX_T context = nullptr;
    ASSERT_EQ(KemSdInit(&context, 0), 0);
    start();
    const long live = liveBlocks();
    EXPECT_EQ(KemSdTerm(context), 0);
    EXPECT_EQ(liveBlocks(), live - 1);
}
