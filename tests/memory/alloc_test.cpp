// The entry points with the thread heaps off: everything goes to the system allocator.

#include <gtest/gtest.h>

#include <cstring>

#include "sd/base/settings.h"
#include "support/failingcalls.h"
#include "support/systemblock.h"
#include "support/threadheaps.h"

using namespace kemsd::test;

namespace {

int getBlock(size_t size, void** block) { return ovMalloc(nullptr, size, block, __FILE__, __LINE__); }
int give(void* block) { return ovFree(block, __FILE__, __LINE__); }

} // namespace

TEST(AllocOff, RequestOfZeroBytesIsInvalidAndStoresNothing)
{
    void* block = &block;
    EXPECT_EQ(getBlock(0, &block), SDSTS_INVALID_PARAM);
    EXPECT_EQ(ovMallocBase(nullptr, 0, 0, &block, 1, __FILE__, __LINE__), SDSTS_INVALID_PARAM);
    EXPECT_EQ(ovMallocPolicy(nullptr, 0, &block, 1, __FILE__, __LINE__), SDSTS_INVALID_PARAM);
    EXPECT_EQ(ovMallocAligned(nullptr, 64, 0, &block, __FILE__, __LINE__), SDSTS_INVALID_PARAM);
    EXPECT_EQ(block, &block);
}

TEST(AllocOff, WithoutTheMemoryManagerTheSystemsBlocksComeAsTheyAre)
{
    resetCalls();
    void* block = nullptr;
    ASSERT_EQ(getBlock(100, &block), 0);
    EXPECT_EQ(calls(Call::malloc), 1);
    memset(block, 1, 100);
    EXPECT_EQ(give(block), 0);
    EXPECT_EQ(liveBlocks(), 0);
}

TEST(AllocOff, WithTheMemoryManagerBlocksCarryHeadersOfTheirPolicy)
{
    KemSdSetMemoryManager(TRUE);
    void* classed = nullptr;
    void* exact = nullptr;
    ASSERT_EQ(getBlock(100, &classed), 0);
    EXPECT_EQ(headerOf(classed).policy, 2);
    EXPECT_EQ(headerOf(classed).poolIndex, 7u);
    ASSERT_EQ(ovMallocPolicy(nullptr, 100, &exact, 1, __FILE__, __LINE__), 0);
    EXPECT_EQ(headerOf(exact).policy, 1);
    EXPECT_EQ(give(classed), 0);
    EXPECT_EQ(give(exact), 0);
    EXPECT_EQ(liveBlocks(), 0);
}

TEST(AllocOff, AlignedBlocksNeverCarryAHeader)
{
    KemSdSetMemoryManager(TRUE);
    void* block = nullptr;
    ASSERT_EQ(ovMallocAligned(nullptr, 256, 100, &block, __FILE__, __LINE__), 0);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 256, 0u);
    EXPECT_EQ(ovFreeAligned(block, 256, __FILE__, __LINE__), 0);
    EXPECT_EQ(liveBlocks(), 0);
}

TEST(AllocOff, AlignmentThatTheSystemRefusesIsNoMemory)
{
    void* block = nullptr;
    EXPECT_EQ(ovMallocAligned(nullptr, 3, 100, &block, __FILE__, __LINE__), SDSTS_NO_MEMORY);
}

TEST(AllocOff, ReleasingNullIsInvalidUnlessDeallocationIsOff)
{
    EXPECT_EQ(give(nullptr), SDSTS_INVALID_PARAM);
    EXPECT_EQ(ovFreeAligned(nullptr, 64, __FILE__, __LINE__), SDSTS_INVALID_PARAM);
    EXPECT_EQ(ovFreeBase(nullptr, 0, __FILE__, __LINE__), SDSTS_INVALID_PARAM);
    KemSdSetMemoryManager(TRUE);
    KemSdSetMemDeallocOption();
    EXPECT_EQ(give(nullptr), 0);
    EXPECT_EQ(ovFreeAligned(nullptr, 64, __FILE__, __LINE__), SDSTS_INVALID_PARAM);
}

TEST(AllocOff, DeallocationOffReleasesNothingButAlignedBlocks)
{
    KemSdSetMemoryManager(TRUE);
    void* block = nullptr;
    void* aligned = nullptr;
    ASSERT_EQ(getBlock(100, &block), 0);
    ASSERT_EQ(ovMallocAligned(nullptr, 64, 100, &aligned, __FILE__, __LINE__), 0);
    KemSdSetMemDeallocOption();
    EXPECT_EQ(give(block), 0);
    EXPECT_EQ(liveBlocks(), 2);
    EXPECT_EQ(ovFreeAligned(aligned, 64, __FILE__, __LINE__), 0);
    EXPECT_EQ(liveBlocks(), 1);
    EXPECT_EQ(ovFreeBase(block, 0, __FILE__, __LINE__), 0);
    EXPECT_EQ(liveBlocks(), 0);
}

TEST(AllocOff, CallocFillsWithZerosAndRefusesEmptyRequests)
{
    auto* block = static_cast<unsigned char*>(nullptr);
    void* result = &result;
    ASSERT_EQ(ovCalloc(nullptr, 10, 7, &result, 2, __FILE__, __LINE__), 0);
    block = static_cast<unsigned char*>(result);
    for (int i = 0; i < 70; ++i) EXPECT_EQ(block[i], 0);
    give(result);
    result = &result;
    EXPECT_EQ(ovCalloc(nullptr, 0, 7, &result, 2, __FILE__, __LINE__), SDSTS_INVALID_PARAM);
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(ovCalloc(nullptr, 7, 0, nullptr, 2, __FILE__, __LINE__), SDSTS_INVALID_PARAM);
}

TEST(AllocOff, CallocOfASizeThatWrapsIsNoMemoryAndFillsNothing)
{
    resetCalls();
    void* result = &result;
    EXPECT_EQ(ovCalloc(nullptr, 1L << 40, 1UL << 40, &result, 2, __FILE__, __LINE__), SDSTS_NO_MEMORY);
    EXPECT_EQ(result, nullptr);
    result = &result;
    EXPECT_EQ(ovCalloc(nullptr, -1, 16, &result, 2, __FILE__, __LINE__), SDSTS_NO_MEMORY);
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(calls(Call::malloc), 0);
}

TEST(AllocOff, ReallocOfNullAllocatesAndOfSizeZeroLeavesTheBlock)
{
    void* block = nullptr;
    ASSERT_EQ(ovRealloc(nullptr, 10, nullptr, &block, __FILE__, __LINE__), 0);
    strcpy(static_cast<char*>(block), "kept");
    void* resized = &resized;
    EXPECT_EQ(ovRealloc(nullptr, 0, block, &resized, __FILE__, __LINE__), SDSTS_INVALID_PARAM);
    EXPECT_EQ(resized, &resized);
    ASSERT_EQ(ovRealloc(nullptr, 10000, block, &resized, __FILE__, __LINE__), 0);
    EXPECT_STREQ(static_cast<char*>(resized), "kept");
    give(resized);
    EXPECT_EQ(liveBlocks(), 0);
}

TEST(AllocOff, FailedResizeStoresNullAndLeavesTheOldBlock)
{
    void* block = nullptr;
    ASSERT_EQ(getBlock(10, &block), 0);
    strcpy(static_cast<char*>(block), "kept");
    void* resized = &resized;
    {
        Failing noMemory(Call::realloc, ENOMEM);
        EXPECT_EQ(ovRealloc(nullptr, 10000, block, &resized, __FILE__, __LINE__), SDSTS_NO_MEMORY);
    }
    EXPECT_EQ(resized, nullptr);
    EXPECT_STREQ(static_cast<char*>(block), "kept");
    EXPECT_EQ(ovMemThreadHeap.MemMessageUsedMemory, 10000u);
    give(block);
}

TEST(AllocOff, StrDupOfThreeCharactersTakesEightBytesWithFiveZeros)
{
    KemSdSetMemoryManager(TRUE);
    char* copy = ovStrDup("abc", __FILE__, __LINE__);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(headerOf(copy).poolIndex, 3u) << "a block of eight bytes";
    EXPECT_STREQ(copy, "abc");
    for (int i = 3; i < 8; ++i) EXPECT_EQ(copy[i], 0);
    give(copy);
    EXPECT_EQ(ovStrDup(nullptr, __FILE__, __LINE__), nullptr);
}

TEST(AllocOff, StrDupWithoutMemoryIsNull)
{
    Failing noMemory(Call::malloc, ENOMEM);
    EXPECT_EQ(ovStrDup("abc", __FILE__, __LINE__), nullptr);
}

TEST(AllocOff, WhateverRequestFailsIsReportedAndNothingIsLost)
{
    for (const KEM_BOOL_T manager : {FALSE, TRUE}) {
        KemSdSetMemoryManager(manager);
        sweepAllocationFailures([](long) {
            void *block = nullptr, *aligned = nullptr, *resized = nullptr;
            const int first = getBlock(100, &block);
            ASSERT_EQ(first, block ? 0 : SDSTS_NO_MEMORY);
            if (!block) return;
            memset(block, 0x5A, 100);
            const int second = ovMallocAligned(nullptr, 64, 100, &aligned, __FILE__, __LINE__);
            EXPECT_EQ(second, aligned ? 0 : SDSTS_NO_MEMORY);
            const int third = ovRealloc(nullptr, 5000, block, &resized, __FILE__, __LINE__);
            EXPECT_EQ(third, resized ? 0 : SDSTS_NO_MEMORY);
            if (resized) block = resized;
            for (int i = 0; i < 100; ++i) EXPECT_EQ(static_cast<char*>(block)[i], 0x5A);
            if (aligned) ovFreeAligned(aligned, 64, __FILE__, __LINE__);
            give(block);
        });
    }
}

TEST(AllocOff, ShortageIsReportedOnlyWhenSomebodyListens)
{
    OV_THDCTX_T context{};
    ovMemSetThreadContext(&context);
    void* block = nullptr;
    Failing noMemory(Call::malloc, ENOMEM);
    EXPECT_EQ(getBlock(100, &block), SDSTS_NO_MEMORY);
    EXPECT_EQ(ovMemThreadHeap.LastMemMessage, memmsg_noerror);
    ovMemThreadHeap.fNetLocalMessage = recordMessage;
    EXPECT_EQ(getBlock(100, &block), SDSTS_NO_MEMORY);
    ASSERT_EQ(messages().size(), 1u);
    EXPECT_EQ(messages()[0].number, SDSTS_MEM_EXHAUSTED);
    EXPECT_EQ(messages()[0].second, 100u);
}

TEST(AllocOffDeath, CallocWithoutMemoryEndsInAWriteThroughNull)
{
    void* block = nullptr;
    Failing noMemory(Call::malloc, ENOMEM);
    EXPECT_DEATH(ovCalloc(nullptr, 10, 10, &block, 2, __FILE__, __LINE__), "");
}
