// Units of work on one thread: their heaps, larger blocks and the pool, what is counted and reported, and the states in
// which the thread heaps are not on.

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "sd/base/poison.h"
#include "sd/base/settings.h"
#include "sd/memheap/binheap.h"
#include "sd/memxcpt.h"
#include "support/failingcalls.h"
#include "support/shortheaps.h"

using namespace kemsd::test;

namespace {

OV_MemThreadHeap_T& record = ovMemThreadHeap;

constexpr OV_ULONG_T kHeap = 320 * 1024;
constexpr OV_LONG_T kLargest = 64 * 1024;
constexpr size_t kRegionBucket = 10; // of 320 KiB
constexpr const char* kConfiguration = "numthreadheaps 4 numheaps 12 heapsize 512K maxblock 64K shortheapsize 320K";

int netContext;

OV_STS_T request(OV_THDCTX_T& context, OV_LONG_T size, void** block)
{
    return ovMemShortHeapMalloc(&context, size, block, __FILE__, __LINE__);
}

OV_STS_T resize(OV_THDCTX_T& context, OV_LONG_T size, void* block, void** newblock)
{
    return ovMemShortHeapRealloc(&context, size, block, newblock, __FILE__, __LINE__);
}

int give(void* block) { return ovFree(block, __FILE__, __LINE__); }

void* filled(OV_THDCTX_T& context, OV_LONG_T size)
{
    void* block = nullptr;
    EXPECT_EQ(request(context, size, &block), 0);
    if (block) fillBlock(block, static_cast<size_t>(size), 1);
    return block;
}

testing::AssertionResult holds(const void* block, size_t bytes) { return blockHolds(block, bytes, 1); }

OV_MemHeap_T* heapOf(void* block) { return sd::memheap::blockOf(block)->MemHeap; }

// Takes all room of the context's heaps for blocks of 1,000 bytes and more.
void fillHeaps(OV_THDCTX_T& context)
{
    for (OV_MemHeap_T* heap : heapsOf(context))
        for (const OV_ULONG_T bytes : {60000u, 10000u, 1000u})
            while (ovMemHeapMalloc(heap, bytes)) {
            }
}

// Gives the context that many heaps.
void growTo(OV_THDCTX_T& context, size_t heaps)
{
    ovMemShortHeapInit(&context);
    while (heapsOf(context).size() < heaps) {
        fillHeaps(context);
        ASSERT_NE(filled(context, 1000), nullptr);
    }
}

// Lets so many heaps end in the pool.
void stock(size_t heaps)
{
    OV_THDCTX_T context{};
    growTo(context, heaps);
    ovMemShortHeapTerm(&context);
    ASSERT_EQ(spareHeaps().size(), heaps);
}

struct Counts {
    OV_ULONGLONG_T allocated[OV_MEM_BUCKETS] = {};
    OV_ULONGLONG_T released[OV_MEM_BUCKETS] = {};
};

Counts counts()
{
    Counts now;
    EXPECT_EQ(ovMemGetUsedMemoryBlocks(1, now.allocated, now.released), 0);
    return now;
}

// What the library leaves behind on purpose stays in a leak checker's sight.
void* leftBehind[2];

class ShortHeap : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(startThreadHeaps(kConfiguration, recordMessage), 0);
        record.LimitShortHeapsForRemove = 100;
        context.NetCtx = &netContext;
        ovMemSetThreadContext(&context);
        used = record.UsedMemory;
        live = liveBlocks();
    }

    void TearDown() override { ovMemShortHeapTerm(&context); }

    // What the pool holds is all that is left.
    void expectNothingElse() const
    {
        EXPECT_EQ(record.NumShortNumHeapsInUsage, 0);
        EXPECT_EQ(record.UsedMemory, used + spareHeaps().size() * kHeap);
        EXPECT_EQ(liveBlocks(), live + static_cast<long>(spareHeaps().size()));
    }

    OV_THDCTX_T context{};
    OV_ULONGLONG_T used = 0;
    long live = 0;
};

} // namespace

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
