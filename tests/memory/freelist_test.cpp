#include <gtest/gtest.h>
#include <kemsd/kemsd.h>

#include <cstring>
#include <thread>

#include "sd/ThreadAllocator.h"
#include "support/failingcalls.h"
#include "support/systemblock.h"

using namespace kemsd::test;

namespace {

// The allocator's fields, in their order.
struct Fields {
    void** pool;
    long* counts;
    size_t limit;
    size_t size;
};

class FreeList : public testing::Test {
protected:
    void SetUp() override { allocator = ThdAlloc_Create(); }
    void TearDown() override { ThdAlloc_Destroy(allocator); }

    Fields& fields() { return *static_cast<Fields*>(allocator); }
    void* get(unsigned size, char policy = 2) { return ThdAlloc_get(allocator, size, policy); }
    void release(void* block) { ThdAlloc_release(allocator, block); }
    void compaction(long lowerLimit) { ThdAlloc_compaction(allocator, lowerLimit); }
    // Takes and releases that many blocks of a size.
    void fill(unsigned size, int blocks)
    {
        std::vector<void*> held;
        for (int i = 0; i < blocks; ++i) held.push_back(get(size));
        for (void* block : held) release(block);
    }

    void* allocator = nullptr;
};

class ThreadEntries : public testing::Test {
protected:
    void SetUp() override { KemSdSetMemoryManager(TRUE); }
    void TearDown() override { ovDestroyThreadAlloc(nullptr); }
};

} // namespace

TEST_F(FreeList, StartsEmpty)
{
    ASSERT_NE(allocator, nullptr);
    for (unsigned i = 0; i < 32; ++i) {
        EXPECT_EQ(fields().pool[i], nullptr);
        EXPECT_EQ(fields().counts[i], 0);
    }
    EXPECT_EQ(fields().size, 0u);
    EXPECT_EQ(ThdAlloc_getElementCountAryPtr(allocator), fields().counts);
}

TEST_F(FreeList, HoldsUpTo8MebibytesOr100WithHardwareAcceleration)
{
    EXPECT_EQ(fields().limit, 8388608u);
    bSdHardwareAcceleration = TRUE;
    void* const accelerated = ThdAlloc_Create();
    EXPECT_EQ(static_cast<Fields*>(accelerated)->limit, 104857600u);
    ThdAlloc_Destroy(accelerated);
}

TEST_F(FreeList, HundredBytesAreClass7AndComeBackForAnyRequestOfTheClass)
{
    void* const block = get(100);
    expectHeader(block, 7, 2, 64);
    expectSystemBlock(static_cast<char*>(block) - 64, 64 + 128);
    release(block);
    EXPECT_EQ(fields().counts[7], 1);
    EXPECT_EQ(fields().size, 192u);
    EXPECT_EQ(headerOf(block).policy, 0);
    EXPECT_EQ(get(65), block);
    expectHeader(block, 7, 2, 64);
    EXPECT_EQ(fields().counts[7], 0);
    EXPECT_EQ(fields().size, 0u);
    release(block);
}

TEST_F(FreeList, ClassIsTheSmallestPowerOfTwoNotBelowTheSize)
{
    for (unsigned i = 1; i <= 21; ++i) {
        void* const exact = get(1U << i);
        expectHeader(exact, i, 2, 64);
        release(exact);
        EXPECT_EQ(get((1U << (i - 1)) + 1), exact);
        release(exact);
    }
    void* const above = get(129);
    expectHeader(above, 8, 2, 64);
    release(above);
}

TEST_F(FreeList, OneByteIsClass0)
{
    void* const block = get(1);
    expectHeader(block, 0, 2, 64);
    expectSystemBlock(static_cast<char*>(block) - 64, 65);
    release(block);
    EXPECT_EQ(fields().counts[0], 1);
    EXPECT_EQ(fields().size, 65u);
    EXPECT_EQ(get(1), block);
    EXPECT_EQ(fields().size, 0u);
    release(block);
}

TEST_F(FreeList, SizesThatWrapAreClass0)
{
    for (const unsigned size : {0U, 0x80000001U, 0xFFFFFFFFU}) {
        void* const block = get(size);
        expectHeader(block, 0, 2, 64);
        release(block);
    }
}

TEST_F(FreeList, ABlockMadeForNothingServesOneByteOnlyIfItHasOne)
{
    void* const block = get(0);
    const bool fits = malloc_usable_size(static_cast<char*>(block) - 64) >= 65;
    release(block);
    EXPECT_EQ(fields().counts[0], fits ? 1 : 0);
    char* const one = static_cast<char*>(get(1));
    *one = 'x';
    release(one);
}

TEST_F(FreeList, Policy1IsNeverPooled)
{
    const long before = liveBlocks();
    auto* const block = static_cast<unsigned char*>(get(100, 1));
    expectHeader(block, 0, 1, 8);
    expectSystemBlock(block - 8, 108);
    EXPECT_EQ(liveBlocks(), before + 1);
    release(block);
    EXPECT_EQ(liveBlocks(), before);
    EXPECT_EQ(fields().size, 0u);
}

TEST_F(FreeList, Policy1WhoseSumWithTheHeaderWrapsIsRefused)
{
    resetCalls();
    EXPECT_EQ(get(0xFFFFFFF8U, 1), nullptr);
    EXPECT_EQ(get(0xFFFFFFFFU, 1), nullptr);
    EXPECT_EQ(calls(Call::malloc), 0);
}

TEST_F(FreeList, ABlockTakenOutCarriesThePolicyAskedFor)
{
    release(get(100));
    void* const block = get(100, 5);
    expectHeader(block, 7, 5, 64);
    headerOf(block).policy = 2;
    release(block);
}

TEST_F(FreeList, PaddingIsNeverWritten)
{
    void* const block = get(100);
    memcpy(headerOf(block).padding, "ab", 2);
    release(block);
    EXPECT_EQ(memcmp(headerOf(block).padding, "ab", 2), 0);
    EXPECT_EQ(get(100), block);
    EXPECT_EQ(memcmp(headerOf(block).padding, "ab", 2), 0);
    release(block);
}

TEST_F(FreeList, LastReleasedIsFirstReused)
{
    void* const first = get(100);
    void* const second = get(100);
    release(first);
    release(second);
    EXPECT_EQ(fields().counts[7], 2);
    EXPECT_EQ(get(100), second);
    EXPECT_EQ(get(100), first);
    release(first);
    release(second);
}

TEST_F(FreeList, WithoutMemoryThereIsNoBlock)
{
    Failing memory(Call::malloc, ENOMEM);
    EXPECT_EQ(get(100), nullptr);
    EXPECT_EQ(get(100, 1), nullptr);
    EXPECT_EQ(get(0), nullptr);
    EXPECT_EQ(memory.hits(), 3);
}

TEST_F(FreeList, AboveTheLimitAReleasedBlockIsFreed)
{
    fill(2097152, 4); // 4 x (2 MiB + 64) is above 8 MiB; the last one was still taken
    EXPECT_EQ(fields().counts[21], 4);
    EXPECT_EQ(fields().size, 4 * (2097152u + 64));
    void* const block = get(100);
    const long before = liveBlocks();
    release(block);
    EXPECT_EQ(liveBlocks(), before - 1);
    EXPECT_EQ(fields().counts[7], 0);
    EXPECT_EQ(fields().size, 4 * (2097152u + 64));
}

TEST_F(FreeList, AtTheLimitABlockIsStillTaken)
{
    void* const block = get(100);
    fields().size = fields().limit;
    release(block);
    EXPECT_EQ(fields().counts[7], 1);
    fields().size = 192;
}

TEST_F(FreeList, BlocksOfTheHeaderCallsArePooledToo)
{
    void* const block = mallocModified(100, 2);
    release(block);
    EXPECT_EQ(fields().counts[7], 1);
    EXPECT_EQ(get(128), block);
    release(block);
}

TEST_F(FreeList, ALargeBlockIsPooledOnlyIfItReallyHoldsItsClass)
{
    void* const rounded = get(2097153);
    expectHeader(rounded, 22, 2, 64);
    release(rounded);
    EXPECT_EQ(fields().counts[22], 1);
    EXPECT_EQ(get(4194304), rounded);
    release(rounded);
    void* const unrounded = mallocModified(2097153, 2);
    const long before = liveBlocks();
    release(unrounded);
    EXPECT_EQ(liveBlocks(), before - 1);
    EXPECT_EQ(fields().counts[22], 1);
}

TEST_F(FreeList, AClassBeyondTheListsIsFreed)
{
    void* const block = get(100);
    headerOf(block).poolIndex = 32;
    const long before = liveBlocks();
    release(block);
    EXPECT_EQ(liveBlocks(), before - 1);
    EXPECT_EQ(fields().size, 0u);
}

TEST_F(FreeList, CompactionTo0EmptiesEveryList)
{
    fill(1, 3);
    fill(100, 3);
    fill(5000, 2);
    const long before = liveBlocks();
    compaction(0);
    EXPECT_EQ(liveBlocks(), before - 8);
    EXPECT_EQ(fields().size, 0u);
    for (unsigned i = 0; i < 32; ++i) {
        EXPECT_EQ(fields().pool[i], nullptr);
        EXPECT_EQ(fields().counts[i], 0);
    }
}

TEST_F(FreeList, CompactionStopsAtTheLimitHavingTakenTheLargestFirst)
{
    fill(64, 5);   // 5 x 128 bytes
    fill(1024, 2); // 2 x 1088 bytes
    compaction(1728);
    EXPECT_EQ(fields().size, 1728u); // one of the large ones went, then the size was at the limit
    EXPECT_EQ(fields().counts[10], 1);
    compaction(1000);
    EXPECT_EQ(fields().counts[10], 0);
    EXPECT_EQ(fields().counts[6], 5);
    EXPECT_EQ(fields().size, 640u);
    compaction(500);
    EXPECT_EQ(fields().counts[6], 3);
}

TEST_F(FreeList, CompactionByPatternEmptiesEveryListAsShipped)
{
    fill(100, 3);
    fill(5000, 2);
    compaction(-1);
    EXPECT_EQ(fields().size, 0u);
    EXPECT_EQ(fields().counts[7], 0);
}

TEST_F(FreeList, CompactionByPatternLeavesWhatThePatternAsksFor)
{
    preallocPattern[7] = 2;
    fill(100, 3);
    fill(5000, 2);
    compaction(-1);
    EXPECT_EQ(fields().counts[7], 2);
    EXPECT_EQ(fields().size, 2 * 192u);
}

TEST_F(FreeList, OtherNegativeLimitsDoNothing)
{
    fill(100, 3);
    compaction(-2);
    compaction(LONG_MIN);
    EXPECT_EQ(fields().counts[7], 3);
}

TEST_F(FreeList, PreallocAllocatesNothingAsShipped)
{
    resetCalls();
    ThdAlloc_prealloc(allocator);
    EXPECT_EQ(calls(Call::malloc), 0);
    EXPECT_EQ(fields().size, 0u);
}

TEST_F(FreeList, PreallocFillsUpToThePattern)
{
    preallocPattern[0] = 1;
    preallocPattern[7] = 3;
    fill(100, 1);
    ThdAlloc_prealloc(allocator);
    EXPECT_EQ(fields().counts[0], 1);
    EXPECT_EQ(fields().counts[7], 3);
    EXPECT_EQ(fields().size, 65 + 3 * 192u);
    void* const block = get(100);
    expectHeader(block, 7, 2, 64);
    memset(block, 'x', 128);
    release(block);
}

TEST_F(FreeList, PreallocStopsAtTheLimit)
{
    preallocPattern[6] = 100;
    preallocPattern[7] = 1;
    fields().limit = 1000;
    ThdAlloc_prealloc(allocator);
    EXPECT_EQ(fields().counts[6], 8); // 8 x 128 bytes are the first sum above 1000
    EXPECT_EQ(fields().counts[7], 0);
}

TEST_F(FreeList, PreallocEndsWithoutMemory)
{
    preallocPattern[6] = 5;
    preallocPattern[7] = 5;
    const Failing third = Failing::nth(Call::malloc, 3, ENOMEM);
    ThdAlloc_prealloc(allocator);
    EXPECT_EQ(fields().counts[6], 2);
    EXPECT_EQ(fields().counts[7], 0);
}

TEST_F(FreeList, CleanFreesEverythingAndLaterReleasesGoToTheSystem)
{
    void* const late = get(100);
    fill(1000, 3);
    const long before = liveBlocks();
    ThdAlloc_clean(allocator);
    EXPECT_EQ(liveBlocks(), before - 5); // three blocks, two arrays
    EXPECT_EQ(fields().pool, nullptr);
    EXPECT_EQ(fields().counts, nullptr);
    EXPECT_EQ(fields().size, 0u);
    EXPECT_EQ(ThdAlloc_getElementCountAryPtr(allocator), nullptr);
    release(late);
    EXPECT_EQ(liveBlocks(), before - 6);
    compaction(0);
    ThdAlloc_prealloc(allocator);
    ThdAlloc_clean(allocator);
}

TEST(FreeListObject, NoAllocatorDoesNothing)
{
    char block[8];
    ThdAlloc_Destroy(nullptr);
    EXPECT_EQ(ThdAlloc_get(nullptr, 100, 2), nullptr);
    ThdAlloc_release(nullptr, block);
    ThdAlloc_prealloc(nullptr);
    ThdAlloc_clean(nullptr);
    ThdAlloc_compaction(nullptr, 0);
    EXPECT_EQ(ThdAlloc_getElementCountAryPtr(nullptr), nullptr);
}

TEST_F(FreeList, ReleasingNothingDoesNothing)
{
    release(nullptr);
    EXPECT_EQ(fields().size, 0u);
}

TEST(FreeListObject, EveryFailingRequestGivesNoAllocatorOrNoBlock)
{
    KemSdSetMemoryManager(TRUE);
    const long runs = sweepAllocationFailures([](long) {
        EXPECT_EQ(ovCreateThreadAlloc(nullptr), 0);
        void* block = nullptr;
        ovThreadAlloc(nullptr, 100, &block, 2);
        EXPECT_TRUE(block || allocationFailed());
        EXPECT_EQ(ovThreadFree(block), 0);
        EXPECT_EQ(ovDestroyThreadAlloc(nullptr), 0);
    });
    EXPECT_EQ(runs, 4); // the object, its two arrays, the block
}

TEST_F(ThreadEntries, CreateMakesOneAllocatorOnlyWhileTheManagerIsOn)
{
    KemSdSetMemoryManager(FALSE);
    EXPECT_EQ(ovCreateThreadAlloc(nullptr), 0);
    EXPECT_EQ(memoryManagementObj, nullptr);
    KemSdSetMemoryManager(TRUE);
    EXPECT_EQ(ovCreateThreadAlloc(nullptr), 0);
    ThreadAllocator* const made = memoryManagementObj;
    EXPECT_NE(made, nullptr);
    EXPECT_EQ(ovCreateThreadAlloc(nullptr), 0);
    EXPECT_EQ(memoryManagementObj, made);
    EXPECT_EQ(ovDestroyThreadAlloc(nullptr), 0);
    EXPECT_EQ(memoryManagementObj, nullptr);
    EXPECT_EQ(ovDestroyThreadAlloc(nullptr), 0);
}

TEST_F(ThreadEntries, EachThreadHasItsOwnAllocator)
{
    ovCreateThreadAlloc(nullptr);
    const ThreadAllocator* other = memoryManagementObj;
    std::thread([&] { other = memoryManagementObj; }).join();
    EXPECT_EQ(other, nullptr);
}

TEST_F(ThreadEntries, AllocatorServesAndTakesBack)
{
    ovCreateThreadAlloc(nullptr);
    void* block = nullptr;
    ovThreadAlloc(nullptr, 100, &block, 2);
    expectHeader(block, 7, 2, 64);
    void* const first = block;
    EXPECT_EQ(ovThreadFree(block), 0);
    EXPECT_EQ(ThdAlloc_getElementCountAryPtr(memoryManagementObj)[7], 1);
    ovThreadAlloc(nullptr, 128, &block, 2);
    EXPECT_EQ(block, first);
    EXPECT_EQ(ovThreadFree(block), 0);
    ovThreadAlloc(nullptr, 100, &block, 1);
    expectHeader(block, 0, 1, 8);
    EXPECT_EQ(ovThreadFree(block), 0);
}

TEST_F(ThreadEntries, TheSizeIsTakenIn32Bits)
{
    ovCreateThreadAlloc(nullptr);
    void* block = nullptr;
    ovThreadAlloc(nullptr, (size_t{1} << 32) + 100, &block, 2);
    expectHeader(block, 7, 2, 64);
    ovThreadFree(block);
}

TEST_F(ThreadEntries, WithoutAllocatorBlocksComeFromTheSystem)
{
    const long before = liveBlocks();
    void* block = nullptr;
    ovThreadAlloc(nullptr, 100, &block, 2);
    expectHeader(block, 7, 2, 64);
    EXPECT_EQ(ovThreadFree(block), 0);
    EXPECT_EQ(liveBlocks(), before);
    KemSdSetMemoryManager(FALSE);
    ovThreadAlloc(nullptr, 100, &block, 2);
    expectSystemBlock(block, 100);
    EXPECT_EQ(ovThreadFree(block), 0);
    EXPECT_EQ(liveBlocks(), before);
}

TEST_F(ThreadEntries, NullIsIgnored)
{
    EXPECT_EQ(ovThreadFree(nullptr), 0);
    ovThreadAlloc(nullptr, 100, nullptr, 2);
    ovCreateThreadAlloc(nullptr);
    resetCalls();
    EXPECT_EQ(ovThreadFree(nullptr), 0);
    ovThreadAlloc(nullptr, 100, nullptr, 2);
    EXPECT_EQ(calls(Call::malloc), 0);
}

TEST_F(ThreadEntries, PreallocNeedsHardwareAccelerationAndAnAllocator)
{
    preallocPattern[7] = 2;
    bSdHardwareAcceleration = TRUE;
    ovThreadPrealloc(nullptr);
    ovCreateThreadAlloc(nullptr);
    const long* const counts = ThdAlloc_getElementCountAryPtr(memoryManagementObj);
    bSdHardwareAcceleration = FALSE;
    ovThreadPrealloc(nullptr);
    EXPECT_EQ(counts[7], 0);
    bSdHardwareAcceleration = TRUE;
    ovThreadPrealloc(nullptr);
    EXPECT_EQ(counts[7], 2);
}

TEST_F(ThreadEntries, CompactionKeepsThePatternOnlyWithHardwareAcceleration)
{
    preallocPattern[7] = 1;
    EXPECT_EQ(ovFreelistCompaction(nullptr), 0);
    ovCreateThreadAlloc(nullptr);
    const long* const counts = ThdAlloc_getElementCountAryPtr(memoryManagementObj);
    bSdHardwareAcceleration = TRUE;
    ThdAlloc_prealloc(memoryManagementObj);
    EXPECT_EQ(ovFreelistCompaction(nullptr), 0);
    EXPECT_EQ(counts[7], 1);
    bSdHardwareAcceleration = FALSE;
    EXPECT_EQ(ovFreelistCompaction(nullptr), 0);
    EXPECT_EQ(counts[7], 0);
}
