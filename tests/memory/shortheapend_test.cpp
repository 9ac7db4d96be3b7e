// The end of units of work and the pool of spare heaps, what is counted and reported on the way, and the states in
// which the thread heaps are not on.

#include <gtest/gtest.h>

#include "sd/base/poison.h"
#include "sd/memxcpt.h"
#include "shortheapfixture.h"

using namespace kemsd::test;

// ---- The end, and the pool

TEST_F(ShortHeap, EndGivesTheHeapsToThePoolBehindItsHead)
{
    growTo(context, 3);
    const auto heaps = heapsOf(context);
    ovMemShortHeapTerm(&context);
    EXPECT_EQ(context.MemShortHeap, nullptr);
    EXPECT_EQ(ovMemShortCheckStatus(&context), FALSE);
    EXPECT_EQ(spareHeaps(), (std::vector<OV_MemHeap_T*>{heaps[0], heaps[2], heaps[1]}));
    expectNothingElse();
}

TEST_F(ShortHeap, NextUnitOfWorkTakesThePoolsHead)
{
    stock(3);
    const auto spare = spareHeaps();
    ovMemShortHeapInit(&context);
    EXPECT_EQ(context.MemShortHeap, spare[0]);
    EXPECT_EQ(walkHeap(*context.MemShortHeap).freeBlocks, 1u) << "as new";
    EXPECT_EQ(spareHeaps(), (std::vector<OV_MemHeap_T*>{spare[1], spare[2]}));
    EXPECT_EQ(record.NumShortNumHeapsInUsage, 1);
    EXPECT_EQ(record.UsedMemory, used + 3 * kHeap);
    growTo(context, 3);
    EXPECT_EQ(record.MemShortHeapPool.MemHeap, nullptr);
    EXPECT_TRUE(spareHeaps().empty());
    ovMemShortHeapTerm(&context);
    expectNothingElse();
}

TEST_F(ShortHeap, ThreeHeapsMeetAPoolOf15Of16OneIsKeptTwoAreReleased)
{
    OV_THDCTX_T other{};
    growTo(context, 3);
    growTo(other, 15);
    ovMemShortHeapTerm(&other);
    ASSERT_EQ(spareHeaps().size(), 15u);
    ovMemShortHeapTerm(&context);
    EXPECT_EQ(spareHeaps().size(), 16u);
    expectNothingElse();
}

TEST_F(ShortHeap, WithoutAPoolEveryHeapIsReleased)
{
    for (const OV_LONG_T most : {0, -1}) {
        record.MaxShortMemoryPoolSize = most;
        growTo(context, 3);
        ovMemShortHeapTerm(&context);
        EXPECT_TRUE(spareHeaps().empty());
        expectNothingElse();
    }
}

TEST_F(ShortHeap, PoolAboveTheLimitIsEmptiedWhenTheLastUnitOfWorkEnds)
{
    record.LimitShortHeapsForRemove = 4;
    OV_THDCTX_T other{};
    growTo(context, 4);
    growTo(other, 1);
    ovMemShortHeapTerm(&context);
    EXPECT_EQ(spareHeaps().size(), 4u);
    ovMemShortHeapTerm(&other);
    EXPECT_TRUE(spareHeaps().empty());
    EXPECT_EQ(record.MemShortHeapPool.MemHeap, nullptr);
    expectNothingElse();
}

TEST_F(ShortHeap, PoolAtTheLimitStaysAndSoDoesALargerOneWhileAHeapIsInUse)
{
    record.LimitShortHeapsForRemove = 4;
    stock(4);
    OV_THDCTX_T other{};
    ovMemShortHeapInit(&other);
    growTo(context, 5);
    ovMemShortHeapTerm(&context);
    EXPECT_EQ(spareHeaps().size(), 5u) << "one heap is still in use";
    ovMemShortHeapTerm(&other);
    EXPECT_TRUE(spareHeaps().empty());
}

TEST_F(ShortHeap, EmptyPoolIsNotTrimmed)
{
    record.LimitShortHeapsForRemove = -1;
    ovMemShortHeapTerm(&context);
    expectNothingElse();
    ovMemShortHeapInit(&context);
    ovMemShortHeapTerm(&context);
    EXPECT_TRUE(spareHeaps().empty());
    expectNothingElse();
}

TEST_F(ShortHeap, EndOfAContextThatHasNothingChangesNothing)
{
    stock(2);
    ovMemShortHeapTerm(&context);
    EXPECT_EQ(spareHeaps().size(), 2u);
    expectNothingElse();
}

TEST_F(ShortHeap, BlocksOfAnEndedUnitOfWorkAreOutOfBounds)
{
#if !defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "only the address sanitizer is told";
#endif
    ovMemShortHeapInit(&context);
    void* block = filled(context, 100);
    ovMemShortHeapTerm(&context);
    EXPECT_TRUE(sd::isPoisoned(block, 1));
    ovMemShortHeapInit(&context);
    EXPECT_EQ(filled(context, 100), block);
    EXPECT_FALSE(sd::isPoisoned(block, 100));
}

// ---- A region for a heap

TEST_F(ShortHeap, PoolThatEmptiedMeanwhileCountsTheNewHeapInUseOnce)
{
    record.MemShortHeapPool.NumHeaps = 1; // as it was read before another thread took the last heap
    OV_MemHeap_T* region = ovMemGetShortHeap();
    ASSERT_NE(region, nullptr);
    EXPECT_EQ(record.NumShortNumHeapsInUsage, 1);
    EXPECT_EQ(record.UsedMemory, used + kHeap);
    record.MemoryLimit = record.UsedMemory;
    EXPECT_EQ(ovMemGetShortHeap(), nullptr);
    EXPECT_EQ(record.NumShortNumHeapsInUsage, 1);
    record.MemShortHeapPool.NumHeaps = 0;
    context.MemShortHeap = region->next = region->prev = region;
    record.MaxShortMemoryPoolSize = 0;
    ovMemShortHeapTerm(&context);
    expectNothingElse();
}

TEST_F(ShortHeap, PendingWarningIsReportedWithARegionAndThenKeepsQuiet)
{
    record.MemoryLimit = (used + kHeap) / 9 * 10; // 90 % of it lie below what the first heap brings
    ovMemShortHeapInit(&context);
    const Message warning{&netContext, SDSTS_MEM_LIMIT_WARNING, 3, static_cast<OV_ULONG_T>(used) + kHeap, 90};
    EXPECT_EQ(messages(), std::vector<Message>{warning});
    EXPECT_EQ(record.MemMessage, memmsg_noerror);
    EXPECT_EQ(record.next_message_malloc_count, record.malloc_count + 1000);
    EXPECT_EQ(record.LastMemMessage, memmsg_noerror);

    ovMemShortHeapTerm(&context);
    record.MemMessage = memmsg_warning;
    ovMemShortHeapInit(&context); // a spare heap this time
    EXPECT_EQ(messages().size(), 1u);
    EXPECT_EQ(record.MemMessage, memmsg_noerror);
    EXPECT_EQ(record.LastMemMessage, memmsg_warning) << "a warning that came too soon";

    ovMemShortHeapTerm(&context);
    record.MemMessage = memmsg_warning;
    record.malloc_count = record.next_message_malloc_count;
    ovMemShortHeapInit(&context);
    EXPECT_EQ(messages(), (std::vector<Message>{warning, warning}));
}

TEST_F(ShortHeap, PendingWarningIsClearedAlsoWhenNobodyIsToHearIt)
{
    ovMemResetThreadContext();
    record.MemMessage = memmsg_warning;
    ovMemShortHeapInit(&context);
    EXPECT_EQ(record.MemMessage, memmsg_noerror);
    EXPECT_EQ(record.next_message_malloc_count, 0u);
    EXPECT_TRUE(messages().empty());
}

// ---- What is counted

TEST_F(ShortHeap, RegionsCountWhenTheyAreNewAndWhenAHeapEnds)
{
    record.MemoryBlocksControl = 1;
    // Bucket counting was off at the start, so its lock is missing, which one thread can do without.
    ovMemShortHeapInit(&context);
    EXPECT_EQ(counts().allocated[kRegionBucket], 1u);
    ovMemShortHeapTerm(&context); // kept
    EXPECT_EQ(counts().released[kRegionBucket], 1u);
    ovMemShortHeapInit(&context); // a spare one
    EXPECT_EQ(counts().allocated[kRegionBucket], 1u);
    record.LimitShortHeapsForRemove = 0;
    ovMemShortHeapTerm(&context); // kept, then released with the pool
    EXPECT_EQ(counts().released[kRegionBucket], 3u);
    record.MaxShortMemoryPoolSize = 0;
    ovMemShortHeapInit(&context);
    ovMemShortHeapTerm(&context); // released at once
    EXPECT_EQ(counts().allocated[kRegionBucket], 2u);
    EXPECT_EQ(counts().released[kRegionBucket], 4u);
}

TEST_F(ShortHeap, RequestsCountByTheSizeAskedForAndBlocksOfAnEndedHeapDoNot)
{
    ovMemShortHeapInit(&context);
    record.MemoryBlocksControl = 1;
    for (const OV_LONG_T size : {100, 100, 161, 3000, 70000}) filled(context, size);
    fillHeaps(context);
    filled(context, 5000);
    ovMemShortHeapTerm(&context);
    const Counts now = counts();
    EXPECT_EQ(now.allocated[0], 2u);
    EXPECT_EQ(now.allocated[1], 1u);
    EXPECT_EQ(now.allocated[3], 1u);
    EXPECT_EQ(now.allocated[4], 1u) << "the one that a further heap served";
    EXPECT_EQ(now.allocated[8], 1u);
    EXPECT_EQ(now.released[8], 1u) << "a larger block is released by itself";
    EXPECT_EQ(now.released[kRegionBucket], 2u);
    EXPECT_EQ(now.released[0] + now.released[1] + now.released[3] + now.released[4], 0u);
}

TEST_F(ShortHeap, WithoutMemoryControlNothingIsCounted)
{
    record.MemoryControl = 0;
    growTo(context, 2);
    filled(context, 70000);
    record.MaxShortMemoryPoolSize = 1;
    ovMemShortHeapTerm(&context);
    EXPECT_EQ(record.UsedMemory, used);
    EXPECT_EQ(record.NumShortNumHeapsInUsage, 0);
    EXPECT_EQ(liveBlocks(), live + 1);
}

TEST_F(ShortHeap, RequestsDoNotMoveTheCountThatSteersMessages)
{
    ovMemShortHeapInit(&context);
    const auto count = record.malloc_count;
    for (int i = 0; i < 100; ++i) filled(context, 100);
    EXPECT_EQ(record.malloc_count, count);
}

// ---- While the thread heaps are not on

TEST(ShortHeapOff, ContextsStayWithoutHeaps)
{
    OV_THDCTX_T context{};
    ovMemShortHeapInit(&context); // never started
    EXPECT_EQ(ovMemShortCheckStatus(&context), FALSE);
    ASSERT_EQ(startThreadHeaps(std::string(kConfiguration) + " shortmemoryoff"), 0);
    ovMemShortHeapInit(&context); // not asked for
    EXPECT_EQ(ovMemShortCheckStatus(&context), FALSE);
    ovMemShortHeapTerm(&context);
    ovMemThreadHeapInit(1, nullptr, nullptr, 0); // off
    ASSERT_EQ(startThreadHeaps(kConfiguration), 0);
    ovMemThreadHeapTerm();
    ovMemShortHeapInit(&context); // ended
    EXPECT_EQ(ovMemShortCheckStatus(&context), FALSE);
    EXPECT_EQ(ovMemThreadHeap.NumShortNumHeapsInUsage, 0);
}

TEST(ShortHeapOff, LargerBlockIsTheSystemsAndTheCallersAlone)
{
    for (const KEM_BOOL_T manager : {FALSE, TRUE}) {
        KemSdSetMemoryManager(manager);
        const long live = liveBlocks();
        OV_THDCTX_T context{};
        void* block = nullptr;
        ASSERT_EQ(request(context, 70000, &block), 0); // never started: every block is a larger one
        fillBlock(block, 70000, 1);
        EXPECT_EQ(context.MemShortExtBlocks, nullptr);
        ovMemShortHeapTerm(&context);
        EXPECT_TRUE(holds(block, 70000));
#if !defined(__SANITIZE_THREAD__) // its allocator keeps no words of its own before a block
        void* result = nullptr;
        ASSERT_EQ(resize(context, 80000, block, &result), 0);
        EXPECT_TRUE(holds(result, 70000));
        block = result;
#endif
        EXPECT_EQ(give(block), 0);
        EXPECT_EQ(liveBlocks(), live);
    }
}

TEST(ShortHeapOff, UnitOfWorkGoesOnAfterTheThreadHeapsHaveEnded)
{
    ASSERT_EQ(startThreadHeaps(kConfiguration), 0);
    OV_THDCTX_T context{};
    ovMemShortHeapInit(&context);
    leftBehind[0] = context.MemShortHeap;
    const auto withHeap = record.UsedMemory;
    const long live = liveBlocks();
    void* small = filled(context, 1000);
    void* first = filled(context, 70000);
    void* second = filled(context, 70000);
    void* result = nullptr;
    ovMemThreadHeapTerm();

    EXPECT_EQ(heapOf(filled(context, 100)), context.MemShortHeap);
    ASSERT_EQ(resize(context, 5000, small, &result), 0);
    EXPECT_TRUE(holds(result, 1000));
    ASSERT_EQ(resize(context, 30000, first, &result), 0); // into the heap
    EXPECT_EQ(heapOf(result), context.MemShortHeap);
    EXPECT_TRUE(holds(result, 30000));
    EXPECT_EQ(largerBlocks(context), std::vector<void*>{second});
    ASSERT_EQ(resize(context, 90000, second, &result), 0); // out of the unit of work
    EXPECT_TRUE(holds(result, 70000));
    EXPECT_EQ(context.MemShortExtBlocks, nullptr);
#if defined(__SANITIZE_THREAD__) // its allocator keeps no words of its own before a block
    free(result);
#else
    EXPECT_EQ(give(result), 0);
#endif
    EXPECT_EQ(record.UsedMemory, withHeap);
    ovMemShortHeapTerm(&context);
    EXPECT_EQ(ovMemShortCheckStatus(&context), FALSE);
    EXPECT_EQ(liveBlocks(), live);
}

TEST(ShortHeapOff, EndReleasesTheLargerBlocksAndLeavesTheRegions)
{
    for (const KEM_BOOL_T manager : {FALSE, TRUE}) {
        KemSdSetMemoryManager(manager);
        ASSERT_EQ(startThreadHeaps(kConfiguration), 0);
        OV_THDCTX_T context{};
        ovMemShortHeapInit(&context);
        leftBehind[manager] = context.MemShortHeap;
        const auto withHeap = record.UsedMemory;
        const long live = liveBlocks();
        for (int i = 0; i < 3; ++i) filled(context, 70000);
        ovMemThreadHeapTerm();
        ovMemShortHeapTerm(&context);
        EXPECT_EQ(context.MemShortHeap, nullptr);
        EXPECT_EQ(context.MemShortExtBlocks, nullptr);
        EXPECT_EQ(record.UsedMemory, withHeap);
        EXPECT_EQ(liveBlocks(), live);
        EXPECT_EQ(record.NumShortNumHeapsInUsage, 1);
        ovMemThreadHeapInit(1, nullptr, nullptr, 0);
    }
}

TEST(ShortHeapOff, PoolIsStillTrimmed)
{
    ASSERT_EQ(startThreadHeaps(kConfiguration), 0);
    stock(3);
    record.LimitShortHeapsForRemove = 2;
    ovMemThreadHeapTerm();
    OV_THDCTX_T context{};
    ovMemShortHeapTerm(&context);
    EXPECT_TRUE(spareHeaps().empty());
}

TEST_F(ShortHeap, OnceAFatalExceptionIsDeclaredTheContextOnlyForgets)
{
    stock(2);
    growTo(context, 3);
    void* small = filled(context, 100);
    void* large = filled(context, 70000);
    const auto heap = context.MemShortHeap;
    leftBehind[0] = heap;
    leftBehind[1] = large;
    const auto usedBefore = record.UsedMemory;
    const long liveBefore = liveBlocks();
    record.LimitShortHeapsForRemove = 0;
    iXcptExceptionStatus = 1;
    ovMemShortHeapTerm(&context);
    iXcptExceptionStatus = 0;
    EXPECT_EQ(context.MemShortHeap, nullptr);
    EXPECT_EQ(context.MemShortExtBlocks, nullptr);
    EXPECT_EQ(record.UsedMemory, usedBefore);
    EXPECT_EQ(liveBlocks(), liveBefore);
    EXPECT_TRUE(spareHeaps().empty());
    EXPECT_EQ(record.NumShortNumHeapsInUsage, 3);
    EXPECT_TRUE(holds(small, 100));
    EXPECT_TRUE(holds(large, 70000));
    EXPECT_TRUE(heapIsSound(*heap));
}
