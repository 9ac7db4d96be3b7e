#include <gmock/gmock.h>
#include <kemsd/kemsd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "support/failingcalls.h"
#include "support/report.h"
#include "support/stackwalker.h"

using namespace kemsd::test;
using testing::ElementsAre;

namespace {

// What the stack asked of the allocator and gave back to it, and which of its releases is refused (from 1; 0: none).
struct Asked {
    KEM_SIZE_T bytes;
    long line;
    bool operator==(const Asked&) const = default;
};
std::vector<Asked> asked;
std::vector<long> freedAt;
size_t refusedFree;
constexpr KEM_STS_T kRefused = 4711;

} // namespace

extern "C" {
KEM_FUNC_M __real_KemSdMemAllocUsingPolicy(KEM_PSDCTX_T ctx, KEM_PVOID_T pool, KEM_SIZE_T bytes, KEM_PPVOID_T result,
                                           char policy, const char* fname, long line);
KEM_FUNC_M __real_KemSdMemFree(KEM_PSDCTX_T ctx, KEM_PVOID_T block, const char* fname, long line);

KEM_FUNC_M __wrap_KemSdMemAllocUsingPolicy(KEM_PSDCTX_T ctx, KEM_PVOID_T pool, KEM_SIZE_T bytes, KEM_PPVOID_T result,
                                           char policy, const char* fname, long line)
{
    EXPECT_EQ(pool, nullptr);
    EXPECT_EQ(policy, 1);
    EXPECT_STREQ(fname, "sd/sdcommon");
    asked.push_back({bytes, line});
    return __real_KemSdMemAllocUsingPolicy(ctx, pool, bytes, result, policy, fname, line);
}

KEM_FUNC_M __wrap_KemSdMemFree(KEM_PSDCTX_T ctx, KEM_PVOID_T block, const char* fname, long line)
{
    EXPECT_EQ(ctx, nullptr);
    EXPECT_STREQ(fname, "sd/sdcommon");
    freedAt.push_back(line);
    return freedAt.size() == refusedFree ? kRefused : __real_KemSdMemFree(ctx, block, fname, line);
}
}

namespace {

constexpr KEM_ULONG_T kBlock = 3968; // the smallest that fills pages

class MemStack : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(getpagesize(), 4096) << "the sizes below are those of such pages";
        asked.clear();
        freedAt.clear();
        errno = 77;
        before_ = liveBlocks();
    }
    void TearDown() override
    {
        refusedFree = 0;
        if (stack) {
            EXPECT_THAT(reported(KemSdMemStackDelete, stack), Succeeds());
        }
        EXPECT_EQ(liveBlocks(), before_) << "blocks were left behind";
    }

    Report create(KEM_ULONG_T alignment, KEM_ULONG_T bytes)
    {
        return reported(KemSdMemStackCreate, &stack, alignment, bytes);
    }
    // A creation that finds this limit of the system; the allocator is not bound by it.
    Report createUnderLimit(rlim_t limit, KEM_ULONG_T alignment, KEM_ULONG_T bytes)
    {
        rlimit usual;
        EXPECT_EQ(getrlimit(RLIMIT_DATA, &usual), 0);
        const rlimit small{limit, usual.rlim_max};
        const Interrupting lower(Call::getrlimit, 1, When::Before, [&] { setrlimit(RLIMIT_DATA, &small); });
        const Interrupting back(Call::malloc, 2, When::Before, [&] { setrlimit(RLIMIT_DATA, &usual); });
        const Report report = create(alignment, bytes);
        setrlimit(RLIMIT_DATA, &usual);
        return report;
    }
    char* push(KEM_ULONG_T bytes)
    {
        void* item = nullptr;
        EXPECT_THAT(reported(KemSdMemStackAllocAndPush, stack, bytes, &item), Succeeds());
        if (item) memset(item, 0x5A, bytes);
        return static_cast<char*>(item);
    }
    // Where in its block the item lies.
    ptrdiff_t offsetOf(KEM_ULONG_T bytes)
    {
        char* const item = push(bytes);
        return item - block();
    }
    Report pop(void* item) { return reported(KemSdMemStackPopAndFree, stack, item); }
    char* block() const { return reinterpret_cast<char*>(stack->pCurrentBlock); }

    // A push that is refused and changes nothing.
    void expectRefused(KEM_ULONG_T bytes, KEM_STS_T status = SDSTS_INVALID_PARAM)
    {
        const KEM_STACKHDR_T held = *stack;
        void* item = this;
        EXPECT_THAT(reported(KemSdMemStackAllocAndPush, stack, bytes, &item), Fails(status));
        EXPECT_EQ(item, this);
        EXPECT_EQ(memcmp(&held, stack, sizeof held), 0);
    }
    void expectEmptyHeader()
    {
        ASSERT_NE(stack, nullptr);
        const KEM_STACKHDR_T empty{};
        EXPECT_EQ(memcmp(stack, &empty, sizeof empty), 0);
        expectRefused(0);
        expectRefused(1);
    }

    KEM_STACKHDR_T* stack = nullptr;

private:
    long before_ = 0;
};

} // namespace

// ---- Creation

TEST_F(MemStack, StartsWithOneReserveAndNoCurrentBlock)
{
    ASSERT_THAT(create(8, 10000), Succeeds());
    EXPECT_EQ(stack->ulPageSize, 4096u);
    EXPECT_EQ(stack->ulItemAlignment, 8u);
    EXPECT_EQ(stack->ulCreateBlockSize, 12160u);
    EXPECT_EQ(stack->ulDataOff, 16u);
    EXPECT_EQ(stack->ulStackPtrOff, 16u);
    KEM_ULONGLONG_T most = 0;
    KemSdMaxAllocGet(nullptr, &most);
    EXPECT_EQ(stack->ulMaxAlloc, most);
    EXPECT_EQ(walkStack(*stack), (StackWalk{{}, {12160}}));
    EXPECT_THAT(asked, ElementsAre(Asked{56, 846}, Asked{12160, 882}));
}

TEST_F(MemStack, AlignmentMustBeAPowerOfTwo)
{
    for (const KEM_ULONG_T alignment : {0u, 3u, 6u, 24u, 0x80000001u, ~0u})
        EXPECT_THAT(create(alignment, 1000), Fails(SDSTS_INVALID_PARAM)) << alignment;
    EXPECT_THAT(reported(KemSdMemStackCreate, nullptr, 8u, 1000u), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(stack, nullptr);
    EXPECT_TRUE(asked.empty());
}

TEST_F(MemStack, FirstItemLiesBehindTheHeadRoundedUpToTheAlignment)
{
    struct Case {
        KEM_ULONG_T alignment;
        KEM_ULONGLONG_T offset;
    };
    for (const auto& [alignment, offset] :
         {Case{1, 16}, Case{2, 16}, Case{8, 16}, Case{16, 16}, Case{32, 32}, Case{64, 64}, Case{1u << 31, 1u << 31}}) {
        ASSERT_THAT(create(alignment, 1000), Succeeds());
        EXPECT_EQ(stack->ulDataOff, offset) << alignment;
        EXPECT_EQ(stack->ulStackPtrOff, offset) << alignment;
        ASSERT_EQ(KemSdMemStackDelete(nullptr, stack), 0);
    }
    stack = nullptr;
}

TEST_F(MemStack, BlocksAndTheirAllowanceFillWholePages)
{
    struct Case {
        KEM_ULONG_T asked;
        KEM_ULONG_T size;
    };
    for (const auto& [bytes, size] : {Case{0, 3968}, Case{1, 3968}, Case{3968, 3968}, Case{3969, 8064},
                                      Case{10000, 12160}, Case{1048576, 1052544}}) {
        ASSERT_THAT(create(8, bytes), Succeeds());
        EXPECT_EQ(stack->ulCreateBlockSize, size);
        EXPECT_EQ(walkStack(*stack), (StackWalk{{}, {size}}));
        ASSERT_EQ(KemSdMemStackDelete(nullptr, stack), 0);
    }
    stack = nullptr;
}

TEST_F(MemStack, PageSizeOfOneRoundsNothing)
{
    const Failing one(Call::sysconf, 0, 1);
    ASSERT_THAT(create(8, 1000), Succeeds());
    EXPECT_EQ(stack->ulPageSize, 1u);
    EXPECT_EQ(stack->ulCreateBlockSize, 1000u);
    push(984);
    push(985);
    EXPECT_EQ(walkStack(*stack), (StackWalk{{1001, 1000}, {}}));
}

TEST_F(MemStack, BlockHasRoomForItsHead)
{
    const Failing one(Call::sysconf, 0, 1);
    EXPECT_THAT(create(8, 15), Fails(SDSTS_INVALID_PARAM));
    expectEmptyHeader();
    ASSERT_EQ(KemSdMemStackDelete(nullptr, stack), 0);
    ASSERT_THAT(create(8, 16), Succeeds());
    push(0);
    push(1);
    EXPECT_EQ(walkStack(*stack), (StackWalk{{17, 16}, {}}));
}

TEST_F(MemStack, FailedQueryOfTheSystemIsPassedOnAndLeavesAnEmptyHeader)
{
    {
        const Failing pages(Call::sysconf, EINVAL);
        EXPECT_THAT(create(8, 1000), Fails(SDSTS_OSR_SYSCONF, EINVAL));
    }
    expectEmptyHeader();
    ASSERT_EQ(KemSdMemStackDelete(nullptr, stack), 0);
    {
        const Failing limits(Call::getrlimit, EPERM);
        EXPECT_THAT(create(8, 1000), Fails(SDSTS_OSR_SYSCONF, EPERM));
    }
    expectEmptyHeader();
}

TEST_F(MemStack, WithoutMemoryForTheHeaderNothingIsStored)
{
    stack = reinterpret_cast<KEM_STACKHDR_T*>(this);
    const Failing none = Failing::nth(Call::malloc, 1, ENOMEM);
    EXPECT_THAT(create(8, 1000), Fails(SDSTS_NO_MEMORY));
    EXPECT_EQ(stack, nullptr);
}

TEST_F(MemStack, WithoutMemoryForTheBlockTheHeaderIsEmpty)
{
    const Failing none = Failing::nth(Call::malloc, 2, ENOMEM);
    EXPECT_THAT(create(8, 1000), Fails(SDSTS_NO_MEMORY));
    expectEmptyHeader();
}

TEST_F(MemStack, BlockBeyondTheSystemsLimitIsRefused)
{
    EXPECT_THAT(createUnderLimit(100000, 8, 100001), Fails(SDSTS_INVALID_PARAM));
    expectEmptyHeader();
}

TEST_F(MemStack, BlocksAreCutToTheSystemsLimit)
{
    ASSERT_THAT(createUnderLimit(100000, 8, 100000), Succeeds());
    EXPECT_EQ(stack->ulMaxAlloc, 100000u);
    EXPECT_EQ(stack->ulCreateBlockSize, 100000u);
    expectRefused(99985);
    push(99984);
    expectRefused(99985);
    push(99984);
    EXPECT_EQ(walkStack(*stack), (StackWalk{{100000, 100000}, {}}));
}

TEST_F(MemStack, LimitBelowTheHeadOrTheFirstItemServesNothing)
{
    EXPECT_THAT(createUnderLimit(8, 8, 8), Fails(SDSTS_INVALID_PARAM));
    expectEmptyHeader();
    ASSERT_EQ(KemSdMemStackDelete(nullptr, stack), 0);
    ASSERT_THAT(createUnderLimit(40, 64, 40), Succeeds());
    expectRefused(0);
    expectRefused(1);
}

TEST_F(MemStack, BlockBeyond32BitsIsRefusedAndNotCut)
{
    EXPECT_THAT(create(8, 0xFFFFFF81), Fails(SDSTS_INVALID_PARAM));
    expectEmptyHeader();
    ASSERT_EQ(KemSdMemStackDelete(nullptr, stack), 0);
    asked.clear();
    const Failing none = Failing::nth(Call::malloc, 2, ENOMEM);
    EXPECT_THAT(create(8, 0xFFFFFF80), Fails(SDSTS_NO_MEMORY));
    EXPECT_THAT(asked, ElementsAre(Asked{56, 846}, Asked{0xFFFFFF80, 882}));
}

// ---- Pushing

TEST_F(MemStack, ItemsLieBehindEachOtherAtTheAlignment)
{
    ASSERT_THAT(create(16, 1000), Succeeds());
    char* const first = push(1);
    EXPECT_EQ(first, block() + 16);
    EXPECT_EQ(push(16), first + 16);
    EXPECT_EQ(push(17), first + 32);
    EXPECT_EQ(push(3), first + 64);
    EXPECT_EQ(stack->ulStackPtrOff, 96u);
}

TEST_F(MemStack, AlignmentOfOneLeavesNoGaps)
{
    ASSERT_THAT(create(1, 1000), Succeeds());
    char* const first = push(3);
    EXPECT_EQ(push(5), first + 3);
    EXPECT_EQ(push(1), first + 8);
    EXPECT_EQ(stack->ulStackPtrOff, 25u);
}

TEST_F(MemStack, PushOfNothingGivesTheStackPointerAndLeavesIt)
{
    ASSERT_THAT(create(8, 1000), Succeeds());
    EXPECT_EQ(offsetOf(0), 16) << "the first one takes the reserve";
    push(100);
    EXPECT_EQ(offsetOf(0), 120);
    EXPECT_EQ(offsetOf(0), 120);
    EXPECT_EQ(stack->ulStackPtrOff, 120u);
}

TEST_F(MemStack, BlockIsFilledToItsLastByte)
{
    ASSERT_THAT(create(8, 1000), Succeeds());
    push(kBlock - 16);
    EXPECT_EQ(offsetOf(0), ptrdiff_t{kBlock});
    EXPECT_THAT(pop(block() + kBlock), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(walkStack(*stack), (StackWalk{{kBlock}, {}}));
    push(1);
    EXPECT_EQ(walkStack(*stack), (StackWalk{{kBlock, kBlock}, {}}));
    EXPECT_THAT(asked.back(), (Asked{kBlock, 1001}));
}

TEST_F(MemStack, ItemNeverSpansBlocks)
{
    ASSERT_THAT(create(8, 1000), Succeeds());
    push(3000);
    EXPECT_EQ(offsetOf(2000), 16);
    EXPECT_EQ(offsetOf(900), 2016) << "the older block is not looked at again";
    EXPECT_EQ(walkStack(*stack), (StackWalk{{kBlock, kBlock}, {}}));
}

TEST_F(MemStack, ItemLargerThanABlockGetsItsOwn)
{
    ASSERT_THAT(create(8, 1000), Succeeds());
    push(kBlock - 15);
    EXPECT_EQ(walkStack(*stack), (StackWalk{{8064}, {kBlock}})) << "the reserve is too small";
    EXPECT_EQ(stack->ulStackPtrOff, kBlock + 8);
    push(100000);
    EXPECT_EQ(walkStack(*stack), (StackWalk{{102272, 8064}, {kBlock}}));
}

TEST_F(MemStack, AlignmentLargerThanTheBlockObtainsALargerOne)
{
    ASSERT_THAT(create(4096, 0), Succeeds());
    EXPECT_EQ(stack->ulCreateBlockSize, kBlock);
    EXPECT_EQ(offsetOf(0), 4096);
    EXPECT_EQ(offsetOf(3968), 4096);
    EXPECT_EQ(walkStack(*stack), (StackWalk{{8064}, {kBlock}}));
    EXPECT_EQ(offsetOf(1), 4096) << "rounded up, the stack pointer is beyond the block";
    EXPECT_EQ(walkStack(*stack), (StackWalk{{8064, 8064}, {kBlock}}));
}

TEST_F(MemStack, SizeBeyond32BitsIsRefusedAndNotCut)
{
    ASSERT_THAT(create(8, 1000), Succeeds());
    push(10);
    for (const KEM_ULONG_T bytes : {0xFFFFFF71u, 0xFFFFFFEFu, 0xFFFFFFF0u, 0xFFFFFFFFu}) expectRefused(bytes);
    const Failing none(Call::malloc, ENOMEM);
    expectRefused(0xFFFFFF70, SDSTS_NO_MEMORY);
    EXPECT_THAT(asked.back(), (Asked{0xFFFFFF80, 1001}));
}

TEST_F(MemStack, PushWithoutStackOrPlaceIsInvalid)
{
    ASSERT_THAT(create(8, 1000), Succeeds());
    void* item;
    EXPECT_THAT(reported(KemSdMemStackAllocAndPush, nullptr, 8u, &item), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdMemStackAllocAndPush, stack, 8u, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(stack->pCurrentBlock, nullptr);
}

TEST_F(MemStack, PushWithoutMemoryChangesNothing)
{
    ASSERT_THAT(create(8, 1000), Succeeds());
    push(3000);
    const Failing none(Call::malloc, ENOMEM);
    expectRefused(1000, SDSTS_NO_MEMORY);
    push(900);
}

TEST_F(MemStack, ReserveKeepsItsOwnSize)
{
    ASSERT_THAT(create(8, 1000), Succeeds());
    push(20000);
    ASSERT_THAT(reported(KemSdMemStackReset, stack), Succeeds());
    asked.clear();
    push(8);
    EXPECT_EQ(walkStack(*stack), (StackWalk{{20352}, {kBlock}}));
    push(20328);
    EXPECT_EQ(walkStack(*stack), (StackWalk{{20352}, {kBlock}})) << "it has room to its own end";
    EXPECT_TRUE(asked.empty());
}

// ---- Popping

TEST_F(MemStack, PopReleasesAnItemAndAllBehindIt)
{
    ASSERT_THAT(create(8, 1000), Succeeds());
    push(100);
    char* const second = push(100);
    push(100);
    EXPECT_THAT(pop(second), Succeeds());
    EXPECT_EQ(push(50), second);
    EXPECT_THAT(pop(second + 3), Succeeds()) << "any byte of a block's data will do";
    EXPECT_EQ(push(1), second + 3);
}

TEST_F(MemStack, PopToTheFirstItemLeavesTheBottomBlockCurrent)
{
    ASSERT_THAT(create(8, 1000), Succeeds());
    char* const first = push(3000);
    push(3000);
    EXPECT_THAT(pop(first), Succeeds());
    EXPECT_EQ(block() + 16, first);
    EXPECT_EQ(stack->ulStackPtrOff, stack->ulDataOff);
    EXPECT_EQ(walkStack(*stack), (StackWalk{{kBlock}, {kBlock}}));
}

TEST_F(MemStack, PopOfWhatIsNotInTheStackChangesNothing)
{
    EXPECT_THAT(pop(this), Fails(SDSTS_INVALID_PARAM)) << "no stack";
    ASSERT_THAT(create(8, 1000), Succeeds());
    EXPECT_THAT(pop(this), Fails(SDSTS_INVALID_PARAM)) << "no current block";
    push(3000);
    char* const lower = block();
    push(3000);
    const KEM_STACKHDR_T held = *stack;
    for (void* const stranger : {static_cast<void*>(this), static_cast<void*>(nullptr), static_cast<void*>(lower),
                                 static_cast<void*>(lower + 15), static_cast<void*>(lower + kBlock),
                                 static_cast<void*>(block()), static_cast<void*>(block() + kBlock)}) {
        EXPECT_THAT(pop(stranger), Fails(SDSTS_INVALID_PARAM));
        EXPECT_EQ(memcmp(&held, stack, sizeof held), 0);
    }
    EXPECT_TRUE(freedAt.empty());
}

TEST_F(MemStack, PopKeepsTheLowestBlockAboveAsTheOnlyReserve)
{
    ASSERT_THAT(create(8, 1000), Succeeds());
    char* const first = push(3000);
    for (int i = 0; i < 3; ++i) push(3000);
    EXPECT_THAT(pop(first + 8), Succeeds());
    EXPECT_EQ(walkStack(*stack), (StackWalk{{kBlock}, {kBlock}}));
    EXPECT_THAT(freedAt, ElementsAre(1107, 1107));
    for (int i = 0; i < 3; ++i) push(3000);
    ASSERT_EQ(stack->pReservedBlock, nullptr);
}

TEST_F(MemStack, PopKeepsNothingBesideAReserve)
{
    ASSERT_THAT(create(8, 1000), Succeeds());
    char* const first = push(5000);
    push(7000);
    ASSERT_EQ(walkStack(*stack).reserves.size(), 1u);
    EXPECT_THAT(pop(first), Succeeds());
    EXPECT_EQ(walkStack(*stack), (StackWalk{{8064}, {kBlock}}));
    EXPECT_THAT(freedAt, ElementsAre(1107));
}

TEST_F(MemStack, PopKeepsNoBlockOfAnotherSize)
{
    ASSERT_THAT(create(8, 1000), Succeeds());
    char* const first = push(3000);
    push(3000);
    push(5000);
    push(5000);
    ASSERT_THAT(pop(first), Succeeds());
    EXPECT_EQ(walkStack(*stack), (StackWalk{{kBlock}, {kBlock}}));
    push(3900);
    char* const upper = push(3000);
    push(5000);
    EXPECT_THAT(pop(upper), Succeeds());
    EXPECT_EQ(walkStack(*stack), (StackWalk{{kBlock, kBlock}, {}})) << "the large block is gone";
}

TEST_F(MemStack, RefusedReleaseEndsAPopAndLeavesTheHeader)
{
    ASSERT_THAT(create(8, 1000), Succeeds());
    char* const first = push(3000);
    for (int i = 0; i < 3; ++i) push(3000);
    const KEM_STACKHDR_T held = *stack;
    refusedFree = 1;
    EXPECT_THAT(pop(first), Fails(kRefused));
    EXPECT_EQ(memcmp(&held, stack, sizeof held), 0);
    EXPECT_THAT(pop(first), Succeeds());
    EXPECT_THAT(freedAt, ElementsAre(1107, 1107, 1107));
}

// ---- Resetting and deleting

TEST_F(MemStack, ResetKeepsAllBlocksLargestFirst)
{
    ASSERT_THAT(create(8, 1000), Succeeds());
    for (const KEM_ULONG_T bytes : {5000u, 3900u, 20000u, 3901u, 9000u, 3902u}) push(bytes);
    EXPECT_THAT(reported(KemSdMemStackReset, stack), Succeeds());
    EXPECT_EQ(walkStack(*stack), (StackWalk{{}, {20352, 12160, 8064, kBlock, kBlock, kBlock}}));
    EXPECT_EQ(stack->ulStackPtrOff, stack->ulDataOff);
    EXPECT_TRUE(freedAt.empty());
    asked.clear();
    for (const KEM_ULONG_T bytes : {20000u, 9000u, 8000u, 3901u}) push(bytes);
    EXPECT_TRUE(asked.empty()) << "the reserves serve";
}

TEST_F(MemStack, ResetPutsABlockBeforeReservesOfItsSize)
{
    ASSERT_THAT(create(8, 1000), Succeeds());
    push(3000);
    char* const lower = block();
    push(3000);
    char* const upper = block();
    push(5000);
    EXPECT_THAT(reported(KemSdMemStackReset, stack), Succeeds());
    KEM_BLOCKHDR_T* const second = stack->pReservedBlock->pNextBlock;
    EXPECT_EQ(reinterpret_cast<char*>(second), lower) << "it came last";
    EXPECT_EQ(reinterpret_cast<char*>(second->pNextBlock), upper);
}

TEST_F(MemStack, ResetOfAnEmptyStackLeavesTheContext)
{
    ASSERT_THAT(create(8, 1000), Succeeds());
    EXPECT_THAT(reported(KemSdMemStackReset, stack), ReturnsOnly(0));
    EXPECT_EQ(walkStack(*stack), (StackWalk{{}, {kBlock}}));
    EXPECT_THAT(reported(KemSdMemStackReset, nullptr), Fails(SDSTS_INVALID_PARAM));
}

TEST_F(MemStack, DeleteFreesHeaderReservesAndChain)
{
    ASSERT_THAT(create(8, 1000), Succeeds());
    push(5000);
    push(9000);
    EXPECT_THAT(reported(KemSdMemStackDelete, stack), Succeeds());
    stack = nullptr;
    EXPECT_THAT(freedAt, ElementsAre(1158, 1168, 1181, 1181));
    EXPECT_THAT(reported(KemSdMemStackDelete, nullptr), Fails(SDSTS_INVALID_PARAM));
}

TEST_F(MemStack, DeleteWithARefusedHeaderLeavesTheStack)
{
    ASSERT_THAT(create(8, 1000), Succeeds());
    push(5000);
    refusedFree = 1;
    EXPECT_THAT(reported(KemSdMemStackDelete, stack), Fails(kRefused));
    EXPECT_THAT(freedAt, ElementsAre(1158));
    EXPECT_EQ(walkStack(*stack), (StackWalk{{8064}, {kBlock}}));
}

TEST_F(MemStack, DeleteReportsTheFirstRefusalAndFreesTheRest)
{
    for (const size_t refused : {size_t{2}, size_t{4}}) {
        ASSERT_THAT(create(8, 1000), Succeeds());
        push(5000);
        push(9000);
        const KEM_STACKHDR_T held = *stack;
        void* const left = refused == 2 ? held.pReservedBlock : held.pCurrentBlock->pNextBlock;
        refusedFree = refused;
        freedAt.clear();
        EXPECT_THAT(reported(KemSdMemStackDelete, stack), Fails(kRefused));
        EXPECT_THAT(freedAt, ElementsAre(1158, 1168, 1181, 1181));
        EXPECT_EQ(__real_KemSdMemFree(nullptr, left, nullptr, 0), 0);
    }
    stack = nullptr;
}

TEST_F(MemStack, CallsNeedNoContext)
{
    void *first, *second;
    ASSERT_EQ(KemSdMemStackCreate(nullptr, &stack, 8, 1000), 0);
    ASSERT_EQ(KemSdMemStackAllocAndPush(nullptr, stack, 3000, &first), 0);
    ASSERT_EQ(KemSdMemStackAllocAndPush(nullptr, stack, 3000, &second), 0);
    EXPECT_EQ(KemSdMemStackPopAndFree(nullptr, stack, second), 0);
    EXPECT_EQ(KemSdMemStackPopAndFree(nullptr, stack, nullptr), SDSTS_INVALID_PARAM);
    EXPECT_EQ(KemSdMemStackReset(nullptr, stack), 0);
}

TEST_F(MemStack, EveryAllocationMayFail)
{
    const long requests = sweepAllocationFailures([](long) {
        KEM_STACKHDR_T* own = nullptr;
        const KEM_STS_T created = KemSdMemStackCreate(nullptr, &own, 8, 1000);
        EXPECT_EQ(created, allocationFailed() ? SDSTS_NO_MEMORY : 0);
        if (!own) return;
        for (const KEM_ULONG_T bytes : {3000u, 3000u, 5000u, 100u}) {
            if (created != 0) break;
            const bool failedBefore = allocationFailed();
            const KEM_STACKHDR_T held = *own;
            void* item = nullptr;
            const KEM_STS_T pushed = KemSdMemStackAllocAndPush(nullptr, own, bytes, &item);
            if (allocationFailed() && !failedBefore) {
                EXPECT_EQ(pushed, SDSTS_NO_MEMORY);
                EXPECT_EQ(memcmp(&held, own, sizeof held), 0);
            } else {
                EXPECT_EQ(pushed, 0);
                memset(item, 1, bytes);
            }
            walkStack(*own);
        }
        EXPECT_EQ(KemSdMemStackReset(nullptr, own), 0);
        EXPECT_EQ(KemSdMemStackDelete(nullptr, own), 0);
    });
    EXPECT_EQ(requests, 4);
}

#if defined(__SANITIZE_ADDRESS__)
TEST(MemStackDeath, TouchingAReleasedItemIsSeenByAddressSanitizer)
{
    KEM_STACKHDR_T* stack = nullptr;
    void *kept, *released;
    ASSERT_EQ(KemSdMemStackCreate(nullptr, &stack, 8, 1000), 0);
    ASSERT_EQ(KemSdMemStackAllocAndPush(nullptr, stack, 96, &kept), 0);
    ASSERT_EQ(KemSdMemStackAllocAndPush(nullptr, stack, 100, &released), 0);
    ASSERT_EQ(KemSdMemStackPopAndFree(nullptr, stack, released), 0);
    memset(kept, 'x', 96);
    EXPECT_DEATH(*static_cast<volatile char*>(released) = 'x', "use-after-poison");
    ASSERT_EQ(KemSdMemStackReset(nullptr, stack), 0);
    EXPECT_DEATH(*static_cast<volatile char*>(kept) = 'x', "use-after-poison");
    EXPECT_EQ(KemSdMemStackDelete(nullptr, stack), 0);
}
#endif
