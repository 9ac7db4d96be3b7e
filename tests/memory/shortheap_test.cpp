// Units of work on one thread: how they begin, and what is requested, resized and released in them.

#include <gtest/gtest.h>

#include <thread>

#include "sd/base/settings.h"
#include "shortheapfixture.h"

using namespace kemsd::test;

// ---- Beginning

TEST_F(ShortHeap, InitGivesTheContextOneHeapOfItsOwn)
{
    context.MemShortExtBlocks = reinterpret_cast<OV_MemAllocExtBlock_T*>(&context);
    context.MemShortDisableFree = TRUE;
    EXPECT_EQ(ovMemShortCheckStatus(&context), FALSE);
    ovMemShortHeapInit(&context);
    EXPECT_EQ(ovMemShortCheckStatus(&context), TRUE);
    ASSERT_EQ(heapsOf(context).size(), 1u);
    EXPECT_EQ(context.MemShortHeap->HeapHeader.HeapEnd, reinterpret_cast<char*>(context.MemShortHeap) + kHeap);
    EXPECT_EQ(context.MemShortExtBlocks, nullptr);
    EXPECT_EQ(context.MemShortDisableFree, FALSE);
    EXPECT_EQ(record.NumShortNumHeapsInUsage, 1);
    EXPECT_EQ(record.UsedMemory, used + kHeap);
}

TEST_F(ShortHeap, SecondInitChangesNothing)
{
    ovMemShortHeapInit(&context);
    void* block = filled(context, kLargest + 1);
    ovMemShortDisableFree(&context);
    OV_MemHeap_T* heap = context.MemShortHeap;
    ovMemShortHeapInit(&context);
    EXPECT_EQ(context.MemShortHeap, heap);
    EXPECT_EQ(context.MemShortDisableFree, TRUE);
    EXPECT_EQ(largerBlocks(context), std::vector<void*>{block});
    EXPECT_EQ(record.NumShortNumHeapsInUsage, 1);
}

TEST_F(ShortHeap, InitWithoutMemoryLeavesTheContextWithoutAndTellsTheServer)
{
    {
        Failing noMemory(Call::malloc, ENOMEM);
        ovMemShortHeapInit(&context);
    }
    EXPECT_EQ(ovMemShortCheckStatus(&context), FALSE);
    EXPECT_EQ(record.NumShortNumHeapsInUsage, 0);
    EXPECT_EQ(
        messages(),
        (std::vector<Message>{{&netContext, SDSTS_MEM_EXHAUSTED, 4, static_cast<OV_ULONG_T>(used) + kHeap, kHeap}}));
}

TEST_F(ShortHeap, InitBeyondTheLimitLeavesTheContextWithoutAndTellsTheServer)
{
    record.MemoryLimit = used + kHeap - 1;
    ovMemShortHeapInit(&context);
    EXPECT_EQ(ovMemShortCheckStatus(&context), FALSE);
    EXPECT_EQ(messages(), (std::vector<Message>{{&netContext, SDSTS_MEM_LIMIT_EXCEEDED, 4,
                                                 static_cast<OV_ULONG_T>(used) + kHeap, kHeap}}));
    expectNothingElse();
    record.MemoryLimit = used + kHeap;
    ovMemShortHeapInit(&context);
    EXPECT_EQ(ovMemShortCheckStatus(&context), TRUE);
}

TEST_F(ShortHeap, NullContextDoesNothing)
{
    void* block = &block;
    ovMemShortHeapInit(nullptr);
    ovMemShortHeapTerm(nullptr);
    ovMemShortDisableFree(nullptr);
    EXPECT_EQ(ovMemShortCheckStatus(nullptr), FALSE);
    EXPECT_EQ(ovMemShortHeapMalloc(nullptr, 10, &block, __FILE__, __LINE__), SDSTS_INVALID_PARAM);
    EXPECT_EQ(ovMemShortHeapMalloc(nullptr, kLargest + 1, &block, __FILE__, __LINE__), SDSTS_INVALID_PARAM);
    ovMemShortHeapInit(&context);
    void* mine = filled(context, 10);
    EXPECT_EQ(ovMemShortHeapRealloc(nullptr, 10, mine, &block, __FILE__, __LINE__), SDSTS_INVALID_PARAM);
    EXPECT_EQ(block, &block);
}

TEST_F(ShortHeap, DisableFreeIsANoteThatTheNextInitClears)
{
    ovMemShortHeapInit(&context);
    ovMemShortDisableFree(&context);
    EXPECT_EQ(context.MemShortDisableFree, 1);
    void* block = filled(context, 100);
    EXPECT_EQ(give(block), 0);
    EXPECT_EQ(walkHeap(*context.MemShortHeap).usedBlocks, 0u) << "the note means nothing to the library";
    ovMemShortHeapTerm(&context);
    EXPECT_EQ(context.MemShortDisableFree, 1);
    ovMemShortHeapInit(&context);
    EXPECT_EQ(context.MemShortDisableFree, 0);
}

// ---- Requests

TEST_F(ShortHeap, SizesBelowOneAndNoPlaceForTheResultAreRefused)
{
    ovMemShortHeapInit(&context);
    for (const OV_LONG_T size : {0, -1, INT32_MIN}) {
        void* block = &block;
        EXPECT_EQ(request(context, size, &block), SDSTS_INVALID_PARAM) << size;
        EXPECT_EQ(block, &block);
    }
    EXPECT_EQ(request(context, 10, nullptr), SDSTS_INVALID_PARAM);
    EXPECT_EQ(request(context, kLargest + 1, nullptr), SDSTS_INVALID_PARAM);
}

TEST_F(ShortHeap, RequestsUpToMaxBlockComeFromTheCurrentHeap)
{
    ovMemShortHeapInit(&context);
    for (const OV_LONG_T size : {1, 24, 25, 160, 161, 2048, 40000, kLargest}) {
        void* block = filled(context, size);
        EXPECT_EQ(heapOf(block), context.MemShortHeap) << size;
        EXPECT_GE(sd::memheap::capacityOf(sd::memheap::blockOf(block)), static_cast<OV_ULONG_T>(size));
    }
    EXPECT_EQ(walkHeap(*context.MemShortHeap).usedBlocks, 8u);
    EXPECT_EQ(heapsOf(context).size(), 1u);
}

TEST_F(ShortHeap, ReleasedSmallBlockServesTheNextRequestOfItsSize)
{
    ovMemShortHeapInit(&context);
    void* block = filled(context, 100);
    EXPECT_EQ(give(block), 0);
    EXPECT_EQ(walkHeap(*context.MemShortHeap).fastBlocks, 1u);
    EXPECT_EQ(filled(context, 104), block);
}

TEST_F(ShortHeap, RequestOfMaxBlockPlusOneIsAnExternalBlockOfTheContext)
{
    ovMemShortHeapInit(&context);
    void* block = filled(context, kLargest + 1);
    EXPECT_EQ(largerBlocks(context), std::vector<void*>{block});
    EXPECT_EQ(externalHeaderOf(block)->size, static_cast<OV_ULONGLONG_T>(kLargest) + 1);
    EXPECT_EQ(record.UsedMemory, used + kHeap + kLargest + 1 + 32);
    ovMemShortHeapTerm(&context);
    EXPECT_EQ(context.MemShortExtBlocks, nullptr);
    expectNothingElse();
}

TEST_F(ShortHeap, FurtherExternalBlocksGoJustBehindTheHead)
{
    ovMemShortHeapInit(&context);
    void* first = filled(context, 70000);
    void* second = filled(context, 70000);
    void* third = filled(context, 70000);
    EXPECT_EQ(largerBlocks(context), (std::vector<void*>{first, third, second}));
}

TEST_F(ShortHeap, FullHeapsAreFollowedByAFurtherOneThatBecomesTheCurrent)
{
    ovMemShortHeapInit(&context);
    OV_MemHeap_T* first = context.MemShortHeap;
    fillHeaps(context);
    void* block = filled(context, 1000);
    OV_MemHeap_T* second = context.MemShortHeap;
    EXPECT_NE(second, first);
    EXPECT_EQ(heapOf(block), second);
    growTo(context, 3);
    EXPECT_EQ(heapsOf(context), (std::vector<OV_MemHeap_T*>{context.MemShortHeap, first, second}))
        << "each goes in just behind the one that was current";
    EXPECT_EQ(record.NumShortNumHeapsInUsage, 3);
    EXPECT_EQ(record.UsedMemory, used + 3 * kHeap);
}

TEST_F(ShortHeap, OlderHeapWithRoomServesBeforeAFurtherOneIsObtained)
{
    growTo(context, 3);
    OV_MemHeap_T* oldest = context.MemShortHeap->next;
    void* room = nullptr;
    fillHeaps(context);
    for (char* at = reinterpret_cast<char*>(&oldest->HeapBuffer); !room;
         at += reinterpret_cast<OV_MemAllocBlock_T*>(at)->size)
        if (reinterpret_cast<OV_MemAllocBlock_T*>(at)->size > 60000) room = at + sizeof(OV_MemAllocBlock_T);
    ovMemHeapFree(oldest, room);
    OV_MemHeap_T* current = context.MemShortHeap;
    EXPECT_EQ(heapOf(filled(context, 50000)), oldest);
    EXPECT_EQ(context.MemShortHeap, current);
    EXPECT_EQ(heapsOf(context).size(), 3u);
}

TEST_F(ShortHeap, NoFurtherHeapIsNoMemoryAndTheServerIsTold)
{
    ovMemShortHeapInit(&context);
    fillHeaps(context);
    record.MemoryLimit = record.UsedMemory + 10;
    void* block = &block;
    EXPECT_EQ(request(context, 1000, &block), SDSTS_NO_MEMORY);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(messages(), (std::vector<Message>{{&netContext, SDSTS_MEM_LIMIT_EXCEEDED, 4,
                                                 static_cast<OV_ULONG_T>(used) + 2 * kHeap, kHeap}}));
    EXPECT_EQ(heapsOf(context).size(), 1u);
    EXPECT_EQ(record.NumShortNumHeapsInUsage, 1);
}

TEST_F(ShortHeap, SecondShortageWithin1000AllocationsIsNotReported)
{
    record.MemoryLimit = used + 1;
    ovMemShortHeapInit(&context);
    ovMemShortHeapInit(&context);
    EXPECT_EQ(messages().size(), 1u);
    record.malloc_count = record.next_message_malloc_count;
    ovMemShortHeapInit(&context);
    EXPECT_EQ(messages().size(), 2u);
}

TEST_F(ShortHeap, ContextWithoutAHeapGetsOnlyLargerBlocks)
{
    void* block = &block;
    EXPECT_EQ(request(context, kLargest, &block), SDSTS_NO_MEMORY);
    EXPECT_EQ(block, nullptr);
    EXPECT_TRUE(messages().empty());
    block = filled(context, kLargest + 1);
    EXPECT_EQ(largerBlocks(context), std::vector<void*>{block});
    ovMemShortHeapTerm(&context);
    expectNothingElse();
}

TEST_F(ShortHeap, LargerBlocksFailureIsThatOfOvMalloc)
{
    ovMemShortHeapInit(&context);
    void* listed = filled(context, 70000);
    void* block = &block;
    {
        Failing noMemory(Call::malloc, ENOMEM);
        EXPECT_EQ(request(context, 80000, &block), SDSTS_NO_MEMORY);
    }
    EXPECT_EQ(block, nullptr);
    ASSERT_EQ(messages().size(), 1u);
    EXPECT_EQ(messages()[0].second, 80000u);
    EXPECT_EQ(largerBlocks(context), std::vector<void*>{listed});
}

TEST_F(ShortHeap, FreshHeapThatCannotServeStoresNullAndSucceeds)
{
    ovMemShortHeapInit(&context);
    record.MaxAllocBlock = 1 << 20;
    record.MemoryBlocksControl = 1;
    void* block = &block;
    EXPECT_EQ(request(context, 400000, &block), 0);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(heapsOf(context).size(), 2u);
    void* mine = filled(context, 100);
    block = &block;
    EXPECT_EQ(resize(context, 400000, mine, &block), SDSTS_NO_MEMORY);
    EXPECT_EQ(block, nullptr);
    EXPECT_TRUE(holds(mine, 100));
}

// ---- Resizing

TEST_F(ShortHeap, ResizeOfNullIsARequest)
{
    ovMemShortHeapInit(&context);
    void* block = nullptr;
    EXPECT_EQ(resize(context, 100, nullptr, &block), 0);
    EXPECT_EQ(heapOf(block), context.MemShortHeap);
    EXPECT_EQ(resize(context, 0, nullptr, &block), SDSTS_INVALID_PARAM);
    EXPECT_EQ(resize(context, 100, nullptr, nullptr), SDSTS_INVALID_PARAM);
}

TEST_F(ShortHeap, ResizeToLessThanOneOrWithoutAPlaceIsRefused)
{
    ovMemShortHeapInit(&context);
    void* block = filled(context, 100);
    void* result = &result;
    EXPECT_EQ(resize(context, 0, block, &result), SDSTS_INVALID_PARAM);
    EXPECT_EQ(resize(context, -5, block, &result), SDSTS_INVALID_PARAM);
    EXPECT_EQ(resize(context, 50, block, nullptr), SDSTS_INVALID_PARAM);
    EXPECT_EQ(result, &result);
    EXPECT_TRUE(holds(block, 100));
}

TEST_F(ShortHeap, ShrinkingStaysInPlaceAndGrowingMovesWithinTheHeap)
{
    ovMemShortHeapInit(&context);
    record.MemoryBlocksControl = 1;
    void* block = filled(context, 2000); // bucket 2
    void* result = nullptr;
    ASSERT_EQ(resize(context, 500, block, &result), 0);
    EXPECT_EQ(result, block);
    EXPECT_TRUE(holds(block, 500));
    ASSERT_EQ(resize(context, 5000, block, &result), 0); // bucket 4
    EXPECT_NE(result, block);
    EXPECT_EQ(heapOf(result), context.MemShortHeap);
    EXPECT_TRUE(holds(result, 500));
    EXPECT_EQ(walkHeap(*context.MemShortHeap).usedBlocks, 1u);
    const Counts now = counts();
    EXPECT_EQ(now.allocated[2], 1u);
    EXPECT_EQ(now.allocated[1], 1u) << "each resize is an allocation of its size";
    EXPECT_EQ(now.allocated[4], 1u);
    EXPECT_EQ(now.released[2], 1u) << "and a release of the old capacity";
    EXPECT_EQ(now.released[1], 1u);
}

TEST_F(ShortHeap, GrowingBeyondItsHeapMovesToAFurtherOneAndCountsOneRelease)
{
    ovMemShortHeapInit(&context);
    void* block = filled(context, 1000);
    fillHeaps(context);
    record.MemoryBlocksControl = 1;
    void* result = nullptr;
    ASSERT_EQ(resize(context, 30000, block, &result), 0); // bucket 6
    EXPECT_EQ(heapOf(result), context.MemShortHeap);
    EXPECT_EQ(heapsOf(context).size(), 2u);
    EXPECT_TRUE(holds(result, 1000));
    const Counts now = counts();
    EXPECT_EQ(now.allocated[6], 1u);
    EXPECT_EQ(now.allocated[kRegionBucket], 1u);
    EXPECT_EQ(now.released[1], 1u);
}

TEST_F(ShortHeap, ResizeAcrossMaxBlockMovesBetweenHeapAndList)
{
    ovMemShortHeapInit(&context);
    void* block = filled(context, 1000);
    void* result = nullptr;
    ASSERT_EQ(resize(context, kLargest + 1, block, &result), 0);
    EXPECT_EQ(largerBlocks(context), std::vector<void*>{result});
    EXPECT_TRUE(holds(result, 1000));
    EXPECT_EQ(walkHeap(*context.MemShortHeap).usedBlocks, 0u);
    fillBlock(result, static_cast<size_t>(kLargest) + 1, 1);
    record.MemoryBlocksControl = 1;
    ASSERT_EQ(resize(context, kLargest, result, &block), 0);
    EXPECT_EQ(heapOf(block), context.MemShortHeap);
    EXPECT_TRUE(holds(block, static_cast<size_t>(kLargest)));
    EXPECT_EQ(context.MemShortExtBlocks, nullptr);
    EXPECT_EQ(record.UsedMemory, used + kHeap);
    const Counts now = counts();
    EXPECT_EQ(now.allocated[7], 1u);
    EXPECT_EQ(now.released[8], 1u);
}

TEST_F(ShortHeap, ExternalBlockThatStaysOneGoesBackOnTheListBehindTheHead)
{
    ovMemShortHeapInit(&context);
    void* first = filled(context, 70000);
    void* second = filled(context, 70000);
    void* third = filled(context, 70000);
    void* result = nullptr;
    ASSERT_EQ(resize(context, 170000, first, &result), 0);
    EXPECT_TRUE(holds(result, 70000));
    EXPECT_EQ(externalHeaderOf(result)->size, 170000u);
    EXPECT_EQ(largerBlocks(context), (std::vector<void*>{third, result, second})) << "the head moved on meanwhile";
    EXPECT_EQ(record.UsedMemory, used + kHeap + 70000 + 70000 + 170000 + 3 * 32);
    ovMemShortHeapTerm(&context);
    expectNothingElse();
}

TEST_F(ShortHeap, SoleExternalBlockStaysSoleWhenResized)
{
    ovMemShortHeapInit(&context);
    void* block = filled(context, 70000);
    void* result = nullptr;
    ASSERT_EQ(resize(context, 90000, block, &result), 0);
    EXPECT_EQ(largerBlocks(context), std::vector<void*>{result});
}

TEST_F(ShortHeap, FailedResizeStoresNullAndLeavesTheBlock)
{
    ovMemShortHeapInit(&context);
    void* small = filled(context, 1000);
    void* large = filled(context, 70000);
    fillHeaps(context);
    record.MemoryLimit = record.UsedMemory;
    for (const OV_LONG_T size : {30000, 80000})
        for (void* block : {small, large}) {
            const size_t bytes = block == small ? 1000 : 70000;
            void* result = &result;
            EXPECT_EQ(resize(context, size, block, &result), SDSTS_NO_MEMORY);
            EXPECT_EQ(result, nullptr);
            EXPECT_TRUE(holds(block, bytes));
            EXPECT_EQ(largerBlocks(context), std::vector<void*>{large});
        }
    record.MemoryLimit = 0;
    ovMemShortHeapTerm(&context);
    expectNothingElse();
}

TEST_F(ShortHeap, LongTermBlocksJoinTheUnitOfWorkWhenResizedByIt)
{
    ovMemShortHeapInit(&context);
    void *inHeap = nullptr, *outside = nullptr, *result = nullptr;
    ASSERT_EQ(ovMalloc(&context, 1000, &inHeap, __FILE__, __LINE__), 0);
    ASSERT_EQ(ovMalloc(&context, 70000, &outside, __FILE__, __LINE__), 0);
    fillBlock(inHeap, 1000, 1);
    fillBlock(outside, 70000, 1);
    ASSERT_EQ(resize(context, 500, inHeap, &result), 0);
    EXPECT_EQ(heapOf(result), context.MemShortHeap);
    EXPECT_TRUE(holds(result, 500));
    EXPECT_EQ(usedHeapBytes(), 0u);
    ASSERT_EQ(resize(context, 80000, outside, &result), 0);
    EXPECT_TRUE(holds(result, 70000));
    EXPECT_EQ(largerBlocks(context), std::vector<void*>{result});
    ovMemShortHeapTerm(&context);
    expectNothingElse();
}

TEST_F(ShortHeap, OvReallocResizesInTheHeapElseMovesTheBlockOutOfTheUnitOfWork)
{
    ovMemShortHeapInit(&context);
    void* block = filled(context, 1000);
    void* result = nullptr;
    ASSERT_EQ(ovRealloc(&context, 2000, block, &result, __FILE__, __LINE__), 0);
    EXPECT_EQ(heapOf(result), context.MemShortHeap);
    fillHeaps(context);
    ASSERT_EQ(ovRealloc(&context, 50000, result, &block, __FILE__, __LINE__), 0);
    EXPECT_NE(heapOf(block), context.MemShortHeap);
    EXPECT_TRUE(holds(block, 1000));
    ovMemShortHeapTerm(&context);
    EXPECT_TRUE(holds(block, 1000));
    give(block);
    EXPECT_EQ(usedHeapBytes(), 0u);
    expectNothingElse();
}

// ---- Single releases

TEST_F(ShortHeap, OvFreeReleasesSingleBlocks)
{
    ovMemShortHeapInit(&context);
    void* small = filled(context, 1000);
    void* large = filled(context, 70000);
    void* other = filled(context, 70000);
    record.MemoryBlocksControl = 1;
    EXPECT_EQ(give(small), 0);
    EXPECT_EQ(give(large), 0);
    EXPECT_EQ(largerBlocks(context), std::vector<void*>{other});
    EXPECT_EQ(walkHeap(*context.MemShortHeap).usedBlocks, 0u);
    EXPECT_EQ(give(other), 0);
    EXPECT_EQ(context.MemShortExtBlocks, nullptr);
    EXPECT_EQ(record.UsedMemory, used + kHeap);
    const Counts now = counts();
    EXPECT_EQ(now.released[1], 1u);
    EXPECT_EQ(now.released[8], 2u);
}

TEST_F(ShortHeap, AnotherThreadMayReleaseWhileTheOwnerWaits)
{
    ovMemShortHeapInit(&context);
    void* small = filled(context, 100);
    void* large = filled(context, 70000);
    std::thread([&] {
        EXPECT_EQ(give(small), 0);
        EXPECT_EQ(give(large), 0);
    }).join();
    EXPECT_EQ(context.MemShortExtBlocks, nullptr);
    EXPECT_EQ(filled(context, 100), small);
    ovMemShortHeapTerm(&context);
    expectNothingElse();
}

TEST_F(ShortHeap, WhileDeallocationIsOffOnlyTheEndReleases)
{
    KemSdSetMemoryManager(TRUE);
    ovMemShortHeapInit(&context);
    void* large = filled(context, 70000);
    KemSdSetMemDeallocOption();
    EXPECT_EQ(give(large), 0);
    EXPECT_EQ(largerBlocks(context), std::vector<void*>{large});
    void* moved = nullptr;
    ASSERT_EQ(resize(context, 1000, large, &moved), 0);
    EXPECT_EQ(largerBlocks(context), std::vector<void*>{large}) << "the old block was not released";
    filled(context, 80000);
    ovMemShortHeapTerm(&context);
    bTurnOffMemDealloc = FALSE;
    expectNothingElse();
}

// ---- Failures one by one

TEST_F(ShortHeap, WhateverMemoryRequestFailsNothingIsLostOrDamaged)
{
    record.MaxShortMemoryPoolSize = 0;
    for (const KEM_BOOL_T manager : {FALSE, TRUE}) {
        const long asked = sweepAllocationFailures([&](long) {
            OV_THDCTX_T unit{};
            KemSdSetMemoryManager(manager);
            ovMemShortHeapInit(&unit);
            std::vector<std::pair<void*, size_t>> blocks;
            for (const OV_LONG_T size : {1000, 70000, 60000, 60000, 60000, 60000, 60000, 100}) {
                void* block = &block;
                const OV_STS_T sts = request(unit, size, &block);
                ASSERT_EQ(sts, block ? 0 : SDSTS_NO_MEMORY);
                if (!block) continue;
                fillBlock(block, static_cast<size_t>(size), 1);
                blocks.emplace_back(block, size);
            }
            for (auto& [block, bytes] : blocks) {
                const size_t wanted = bytes > 65536 ? 50000 : bytes + 10000;
                void* result = &result;
                const OV_STS_T sts = resize(unit, static_cast<OV_LONG_T>(wanted), block, &result);
                ASSERT_EQ(sts, result ? 0 : SDSTS_NO_MEMORY);
                ASSERT_TRUE(holds(result ? result : block, std::min(bytes, result ? wanted : bytes)));
            }
            heapsOf(unit);
            ovMemShortHeapTerm(&unit);
            ASSERT_EQ(record.NumShortNumHeapsInUsage, 0);
            ASSERT_EQ(record.UsedMemory, used);
            KemSdSetMemoryManager(FALSE);
        });
        EXPECT_GE(asked, 5) << "the scenario was too light";
    }
}
