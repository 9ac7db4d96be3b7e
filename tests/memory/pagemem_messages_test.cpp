// What the server hears about tracked aligned memory.

#include <gmock/gmock.h>
#include <kemsd/kemsd.h>

#include <vector>

#include "sd/memsys/memsys.h"
#include "support/failingcalls.h"
#include "support/messages.h"

using namespace kemsd::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr OV_ULONG_T kBlock = KEM_BLOCK_SIZE;

class TrackedMemMessages : public testing::Test {
protected:
    void SetUp() override
    {
        ovMemThreadHeap.MemoryControl = TRUE;
        ovMemThreadHeap.MemoryLimit = OV_ULONGLONG_T{1000} * kBlock;
        ovMemThreadHeap.fNetLocalMessage = recordMessage;
        ovMemThreadHeap.tctxp = &context;
    }
    void TearDown() override
    {
        ovMemThreadHeap.MemoryControl = FALSE;
        ovMemThreadHeap.tctxp = nullptr;
    }

    OV_THDCTX_T context{};
    char block[16];
};

} // namespace

TEST_F(TrackedMemMessages, NearTheLimitTheBlockIsTrackedAndTheServerWarned)
{
    ovMemThreadHeap.UsedAlignedMemory = OV_ULONGLONG_T{950} * kBlock;
    EXPECT_EQ(ovMemAlignedIncCounter(block, 1), 0);
    EXPECT_THAT(messages(), ElementsAre(Message{nullptr, SDSTS_MEM_LIMIT_WARNING, 3, 951 * kBlock, 90}));
    ovMemAlignedDecCounter(block);
}

TEST_F(TrackedMemMessages, BeyondTheLimitTheShortageCarriesUsedAndRequestedBytes)
{
    ovMemThreadHeap.UsedAlignedMemory = OV_ULONGLONG_T{950} * kBlock;
    ovMemThreadHeap.UsedMemory = OV_ULONGLONG_T{10} * kBlock;
    EXPECT_EQ(ovMemAlignedIncCounter(block, 41), SDSTS_ALIGNED_ALLOC);
    EXPECT_THAT(messages(), ElementsAre(Message{nullptr, SDSTS_MEM_LIMIT_EXCEEDED, 4, 960 * kBlock, 41 * kBlock}));
}

TEST_F(TrackedMemMessages, SecondShortageSoonAfterIsSuppressed)
{
    EXPECT_EQ(ovMemAlignedIncCounter(block, 1001), SDSTS_ALIGNED_ALLOC);
    EXPECT_EQ(ovMemAlignedIncCounter(block, 1001), SDSTS_ALIGNED_ALLOC);
    EXPECT_EQ(messages().size(), 1u);
}

TEST_F(TrackedMemMessages, BelowTheWarningLevelTheServerHearsNothing)
{
    EXPECT_EQ(ovMemAlignedIncCounter(block, 900), 0); // exactly 90 per cent
    EXPECT_THAT(messages(), IsEmpty());
    ovMemAlignedDecCounter(block);
}

TEST_F(TrackedMemMessages, MemoryThatTheSystemRefusesIsReportedInBlocks)
{
    ovMemThreadHeap.UsedMemory = 500;
    ovMemThreadHeap.UsedAlignedMemory = 70;
    Failing memory(Call::valloc, ENOMEM);
    void* buffer = nullptr;
    EXPECT_EQ(KemSdAlignedMemAllocWrap(nullptr, 7, &buffer), SDSTS_ALIGNED_ALLOC);
    EXPECT_THAT(messages(), ElementsAre(Message{nullptr, SDSTS_MEM_LIMIT_EXCEEDED, 4, 570, 7 * kBlock}));
}

TEST_F(TrackedMemMessages, WithoutALimitTheMemoryIsExhausted)
{
    ovMemThreadHeap.MemoryLimit = 0;
    Failing memory(Call::valloc, ENOMEM);
    void* buffer = nullptr;
    EXPECT_EQ(KemSdAlignedMemAllocWrap(nullptr, 7, &buffer), SDSTS_ALIGNED_ALLOC);
    EXPECT_THAT(messages(), ElementsAre(Message{nullptr, SDSTS_MEM_EXHAUSTED, 4, 0, 7 * kBlock}));
}

TEST_F(TrackedMemMessages, AFailedReallocationReportsTheNewBlocks)
{
    void* buffer = nullptr;
    ASSERT_EQ(KemSdAlignedMemAllocWrap(nullptr, 1, &buffer), 0);
    {
        Failing memory(Call::valloc, ENOMEM);
        EXPECT_EQ(KemSdAlignedMemReallocWrap(nullptr, 1, 9, &buffer), SDSTS_ALIGNED_ALLOC);
    }
    EXPECT_THAT(messages(), ElementsAre(Message{nullptr, SDSTS_MEM_LIMIT_EXCEEDED, 4, 0, 9 * kBlock}));
    EXPECT_EQ(KemSdAlignedMemFreeWrap(nullptr, buffer), 0);
}
