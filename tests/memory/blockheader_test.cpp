#include <gtest/gtest.h>
#include <kemsd/kemsd.h>

#include <cstring>

#include "support/failingcalls.h"
#include "support/systemblock.h"

using namespace kemsd::test;

namespace {

constexpr size_t kMiB2 = 2097152;
constexpr size_t kTooLarge = static_cast<size_t>(PTRDIFF_MAX) - 63; // the first size whose sum with 64 is none

class BlockHeader : public testing::Test {
protected:
    void SetUp() override { KemSdSetMemoryManager(TRUE); }
};

class NoHeader : public testing::Test {};

// A block of that class whose system block holds capacity and prefix.
void expectBlock(void* block, OV_ULONG_T poolIndex, int policy, int hlen, size_t capacity)
{
    expectHeader(block, poolIndex, policy, hlen);
    expectSystemBlock(static_cast<char*>(block) - hlen, capacity + hlen);
}

void expectZero(const void* block, size_t bytes)
{
    const char* const data = static_cast<const char*>(block);
    for (size_t i = 0; i < bytes; ++i) ASSERT_EQ(data[i], 0) << i;
}

} // namespace

TEST_F(BlockHeader, NothingTakes64BytesOfClass0)
{
    void* const block = mallocModified(0, 2);
    expectBlock(block, 0, 2, 64, 0);
    freeModified(block);
}

TEST_F(BlockHeader, OneByteIsClass0)
{
    void* const block = mallocModified(1, 2);
    expectBlock(block, 0, 2, 64, 1);
    freeModified(block);
}

TEST_F(BlockHeader, ThreeBytesTakeFourOfClass2)
{
    void* const block = mallocModified(3, 2);
    expectBlock(block, 2, 2, 64, 4);
    freeModified(block);
}

TEST_F(BlockHeader, PowersOfTwoKeepTheirSizeAndOthersRoundUp)
{
    for (OV_ULONG_T k = 2; k <= 21; ++k) {
        const size_t power = size_t{1} << k;
        void* const exact = mallocModified(power, 2);
        expectBlock(exact, k, 2, 64, power);
        freeModified(exact);
        void* const below = mallocModified(power - 1, 2);
        expectBlock(below, k, 2, 64, power);
        freeModified(below);
    }
}

TEST_F(BlockHeader, ClassesAreTheSameWithHardwareAcceleration)
{
    bSdHardwareAcceleration = TRUE;
    void* const block = mallocModified(1025, 2);
    expectBlock(block, 11, 2, 64, 2048);
    freeModified(block);
}

TEST_F(BlockHeader, TwoMebibytesAreTheLargestPooledClass)
{
    void* const block = mallocModified(kMiB2, 2);
    expectBlock(block, 21, 2, 64, kMiB2);
    freeModified(block);
}

TEST_F(BlockHeader, LargerBlocksAreClass22AndMoreAndNotRounded)
{
    void* const block = mallocModified(kMiB2 + 1, 2);
    expectBlock(block, 22, 2, 64, kMiB2 + 1);
    freeModified(block);
    void* const four = mallocModified(2 * kMiB2, 2);
    expectBlock(four, 23, 2, 64, 2 * kMiB2);
    freeModified(four);
}

TEST_F(BlockHeader, Policy1TakesTheRequestAndEightBytes)
{
    auto* const block = static_cast<unsigned char*>(mallocModified(100, 1));
    expectBlock(block, 0, 1, 8, 100);
    EXPECT_EQ(block[-1], 0x08);
    EXPECT_EQ(block[-2], 0x01);
    freeModified(block);
}

TEST_F(BlockHeader, Policy1IsNeverRoundedOrClassed)
{
    void* const block = mallocModified(kMiB2 + 1, 1);
    expectBlock(block, 0, 1, 8, kMiB2 + 1);
    freeModified(block);
}

TEST_F(BlockHeader, AnyOtherPolicyIsLaidOutLike2)
{
    void* const block = mallocModified(100, 7);
    expectBlock(block, 7, 7, 64, 128);
    free(static_cast<char*>(block) - 64); // freeModified does not recognise it
}

TEST_F(BlockHeader, ClassedBlocksAre16ByteAligned)
{
    void* const block = mallocModified(5, 2);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 16, 0u);
    freeModified(block);
}

TEST_F(BlockHeader, WithoutMemoryThereIsNoBlock)
{
    Failing memory(Call::malloc, ENOMEM);
    EXPECT_EQ(mallocModified(100, 2), nullptr);
    EXPECT_EQ(mallocModified(100, 1), nullptr);
    EXPECT_EQ(memory.hits(), 2);
}

TEST_F(BlockHeader, ASizeBeyondTheAddressSpaceIsNotAskedFor)
{
    resetCalls();
    for (const size_t s : {kTooLarge, SIZE_MAX - 63, SIZE_MAX - 7, SIZE_MAX}) {
        EXPECT_EQ(mallocModified(s, 2), nullptr);
        EXPECT_EQ(mallocModified(s, 1), nullptr);
        EXPECT_EQ(callocModified(s, 1, 2), nullptr);
        EXPECT_EQ(callocModified(s, 1, 1), nullptr);
    }
    EXPECT_EQ(calls(Call::malloc), 0);
    EXPECT_EQ(calls(Call::calloc), 0);
}

TEST_F(BlockHeader, CallocIsZeroUpToItsCapacity)
{
    void* const block = callocModified(10, 10, 2);
    expectHeader(block, 7, 2, 64);
    expectZero(block, 128);
    freeModified(block);
    void* const exact = callocModified(3, 7, 1);
    expectHeader(exact, 0, 1, 8);
    expectZero(exact, 21);
    freeModified(exact);
}

TEST_F(BlockHeader, CallocTakesWholeElementsThatCoverCapacityAndPrefix)
{
    void* const block = callocModified(10, 10, 2); // 128 + 64 bytes are 20 elements of 10
    expectSystemBlock(static_cast<char*>(block) - 64, 200);
    freeModified(block);
    void* const nothing = callocModified(0, 16, 2); // 64 bytes are 4 elements of 16
    expectHeader(nothing, 0, 2, 64);
    expectSystemBlock(static_cast<char*>(nothing) - 64, 64);
    freeModified(nothing);
}

TEST_F(BlockHeader, CallocsProductWraps)
{
    void* const block = callocModified(size_t{1} << 63, 2, 2);
    expectHeader(block, 0, 2, 64);
    freeModified(block);
}

TEST_F(BlockHeader, CallocWithoutMemoryGivesNone)
{
    Failing memory(Call::calloc, ENOMEM);
    EXPECT_EQ(callocModified(1, 100, 2), nullptr);
    EXPECT_EQ(memory.hits(), 1);
}

TEST_F(BlockHeader, ReallocOfNothingIsAPolicy2Block)
{
    void* const block = reallocModified(nullptr, 100);
    expectBlock(block, 7, 2, 64, 128);
    freeModified(block);
}

TEST_F(BlockHeader, ReallocWithinAClassReturnsTheSameBlock)
{
    void* const block = mallocModified(100, 2);
    resetCalls();
    for (const size_t s : {size_t{65}, size_t{127}, size_t{128}}) EXPECT_EQ(reallocModified(block, s), block);
    EXPECT_EQ(calls(Call::realloc), 0);
    expectHeader(block, 7, 2, 64);
    freeModified(block);
}

TEST_F(BlockHeader, ReallocIntoAnotherClassKeepsTheDataAndThePolicy)
{
    void* block = mallocModified(100, 2);
    memset(block, 'x', 100);
    block = reallocModified(block, 3000);
    expectBlock(block, 12, 2, 64, 4096);
    EXPECT_EQ(std::string(static_cast<char*>(block), 100), std::string(100, 'x'));
    block = reallocModified(block, 20);
    expectBlock(block, 5, 2, 64, 32);
    EXPECT_EQ(std::string(static_cast<char*>(block), 20), std::string(20, 'x'));
    freeModified(block);
}

TEST_F(BlockHeader, ReallocOfAPolicy1BlockAlwaysResizes)
{
    void* block = mallocModified(100, 1);
    memset(block, 'x', 100);
    resetCalls();
    block = reallocModified(block, 100);
    EXPECT_EQ(calls(Call::realloc), 1);
    expectBlock(block, 0, 1, 8, 100);
    block = reallocModified(block, 110);
    EXPECT_EQ(calls(Call::realloc), 2);
    expectBlock(block, 0, 1, 8, 110);
    EXPECT_EQ(std::string(static_cast<char*>(block), 100), std::string(100, 'x'));
    freeModified(block);
}

TEST_F(BlockHeader, ReallocWithinALargeClassStillResizes)
{
    void* block = mallocModified(kMiB2 + 1, 2);
    resetCalls();
    block = reallocModified(block, kMiB2 + 5000);
    EXPECT_EQ(calls(Call::realloc), 1);
    expectBlock(block, 22, 2, 64, kMiB2 + 5000);
    freeModified(block);
}

TEST_F(BlockHeader, AFailedReallocLeavesTheOldBlockWithADeadHeader)
{
    void* const block = mallocModified(100, 2);
    memset(block, 'x', 100);
    {
        Failing memory(Call::realloc, ENOMEM);
        EXPECT_EQ(reallocModified(block, 3000), nullptr);
    }
    expectHeader(block, 7, 0, 64);
    EXPECT_EQ(std::string(static_cast<char*>(block), 100), std::string(100, 'x'));
    free(static_cast<char*>(block) - 64); // freeModified does not recognise it any more
}

TEST_F(BlockHeader, ReallocBeyondTheAddressSpaceIsAFailedOne)
{
    for (const char policy : {1, 2}) {
        void* const block = mallocModified(100, policy);
        resetCalls();
        EXPECT_EQ(reallocModified(block, kTooLarge), nullptr);
        EXPECT_EQ(calls(Call::realloc), 0);
        EXPECT_EQ(headerOf(block).policy, 0);
        free(static_cast<char*>(block) - headerOf(block).hlen);
    }
}

TEST_F(BlockHeader, EntryPointsPutHeadersInFrontWhileTheManagerIsOn)
{
    void* block = ovMemExtMalloc(100, 2);
    expectHeader(block, 7, 2, 64);
    block = ovMemExtRealloc(block, 200);
    expectHeader(block, 8, 2, 64);
    ovMemExtFree(block);
    void* const zero = ovMemExtCalloc(4, 25, 1);
    expectHeader(zero, 0, 1, 8);
    expectZero(zero, 100);
    ovMemExtFree(zero);
}

TEST_F(BlockHeader, EntryPointsMultiplyCallocsCountsIn64Bits)
{
    resetCalls();
    Failing memory(Call::calloc, ENOMEM); // 2^32 bytes, not 0
    EXPECT_EQ(ovMemExtCalloc(1U << 31, 2, 2), nullptr);
    EXPECT_EQ(memory.hits(), 1);
}

TEST_F(NoHeader, EntryPointsUseTheSystemAllocatorWhileTheManagerIsOff)
{
    void* block = ovMemExtMalloc(100, 2);
    ASSERT_NE(block, nullptr);
    expectSystemBlock(block, 100);
    memset(block, 'x', 100);
    block = ovMemExtRealloc(block, 200);
    expectSystemBlock(block, 200);
    EXPECT_EQ(std::string(static_cast<char*>(block), 100), std::string(100, 'x'));
    ovMemExtFree(block);
    void* const zero = ovMemExtCalloc(4, 25, 2);
    expectSystemBlock(zero, 100);
    expectZero(zero, 100);
    ovMemExtFree(zero);
    ovMemExtFree(nullptr);
}

TEST_F(NoHeader, ThreadEntryPointsUseTheSystemAllocatorWhileTheManagerIsOff)
{
    void* block = nullptr;
    ovMemExtThreadMalloc(nullptr, 100, &block, 2);
    ASSERT_NE(block, nullptr);
    expectSystemBlock(block, 100);
    ovMemExtThreadFree(block);
}

TEST_F(BlockHeader, AlignedMemoryNeverHasAHeader)
{
    for (const KEM_BOOL_T managerOn : {TRUE, FALSE}) {
        KemSdSetMemoryManager(managerOn);
        void* block = nullptr;
        EXPECT_EQ(ovMemExtMallocAligned(&block, 4096, 100), 0);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 4096, 0u);
        expectSystemBlock(block, 100);
        ovMemExtFreeAligned(block);
    }
    ovMemExtFreeAligned(nullptr);
}

TEST_F(BlockHeader, AlignedMemoryReportsTheSystemsResult)
{
    void* block = nullptr;
    EXPECT_EQ(ovMemExtMallocAligned(nullptr, 16, 100), SDSTS_INVALID_PARAM);
    Failing memory(Call::posix_memalign, ENOMEM);
    EXPECT_EQ(ovMemExtMallocAligned(&block, 16, 100), ENOMEM);
}

TEST_F(BlockHeader, ThreadEntryWithoutAllocatorGivesAnOrdinaryBlock)
{
    void* block = nullptr;
    ovMemExtThreadMalloc(nullptr, 100, &block, 2);
    expectBlock(block, 7, 2, 64, 128);
    ovMemExtThreadFree(block);
}

TEST_F(BlockHeader, ThreadEntryServesUpTo2MebibytesFromTheFreeLists)
{
    ovCreateThreadAlloc(nullptr);
    void* block = nullptr;
    ovMemExtThreadMalloc(nullptr, kMiB2 - 5, &block, 2);
    expectBlock(block, 21, 2, 64, kMiB2);
    void* const first = block;
    ovMemExtThreadFree(block);
    ovMemExtThreadMalloc(nullptr, kMiB2, &block, 2);
    EXPECT_EQ(block, first);
    ovMemExtThreadFree(block);
    ovDestroyThreadAlloc(nullptr);
}

TEST_F(BlockHeader, ThreadEntryServesLargerBlocksFromTheSystem)
{
    ovCreateThreadAlloc(nullptr);
    const long before = liveBlocks();
    void* block = nullptr;
    ovMemExtThreadMalloc(nullptr, kMiB2 + 1, &block, 2);
    expectBlock(block, 22, 2, 64, kMiB2 + 1);
    ovMemExtThreadFree(block);
    EXPECT_EQ(liveBlocks(), before);
    ovDestroyThreadAlloc(nullptr);
}

TEST_F(BlockHeader, ThreadFreeSendsClass21ToTheFreeListsAndClass22ToTheSystem)
{
    ovCreateThreadAlloc(nullptr);
    void* const pooled = mallocModified(kMiB2, 2);
    void* const large = mallocModified(kMiB2 + 1, 2);
    void* const exact = mallocModified(100, 1);
    const long before = liveBlocks();
    ovMemExtThreadFree(large);
    EXPECT_EQ(liveBlocks(), before - 1);
    ovMemExtThreadFree(exact);
    EXPECT_EQ(liveBlocks(), before - 2);
    ovMemExtThreadFree(pooled);
    EXPECT_EQ(liveBlocks(), before - 2);
    ovDestroyThreadAlloc(nullptr);
    EXPECT_LT(liveBlocks(), before - 2);
}

TEST_F(BlockHeader, ThreadEntriesIgnoreNull)
{
    resetCalls();
    ovMemExtThreadMalloc(nullptr, 100, nullptr, 2);
    ovMemExtThreadFree(nullptr);
    EXPECT_EQ(calls(Call::malloc), 0);
    KemSdSetMemoryManager(FALSE);
    ovMemExtThreadFree(nullptr);
}

TEST_F(BlockHeader, EveryFailingRequestLeavesTheCallersBlocks)
{
    const long runs = sweepAllocationFailures([](long) {
        void* block = ovMemExtMalloc(100, 1);
        void* zero = ovMemExtCalloc(3, 40, 2);
        if (block) {
            memset(block, 'x', 100);
            void* const larger = ovMemExtRealloc(block, 1000);
            EXPECT_EQ(std::string(static_cast<char*>(larger ? larger : block), 100), std::string(100, 'x'));
            if (larger)
                ovMemExtFree(larger);
            else
                free(static_cast<char*>(block) - 8); // its header is dead
        }
        if (zero) ovMemExtFree(zero);
        void* aligned = nullptr;
        const OV_STS_T result = ovMemExtMallocAligned(&aligned, 64, 100);
        EXPECT_EQ(result, aligned ? 0 : ENOMEM);
        ovMemExtFreeAligned(aligned);
    });
    EXPECT_EQ(runs, 4);
}
