// Units of work: where their memory comes from, and that it goes back with them.

#include "serve/unitofwork.h"

#include <string>
#include <vector>

#include "support/threadheaps.h"

namespace kemsd::test {
namespace {

using sqlhost::UnitOfWork;

constexpr size_t kLarge = 100000; // more than heaps serve

class UnitOfWorkMemory : public testing::Test {
protected:
    static OV_LONG_T heapsInUse() { return ovMemThreadHeap.NumShortNumHeapsInUsage; }
    static OV_ULONGLONG_T bytesInUse()
    {
        OV_ULONGLONG_T outside, heaps, aligned, maxUsed, maxAligned, maxTotal;
        EXPECT_EQ(0, ovMemGetUsedMemory(&outside, &heaps, &aligned, &maxUsed, &maxAligned, &maxTotal));
        return outside;
    }

    OV_THDCTX_T thread_{};
};

TEST_F(UnitOfWorkMemory, BeginsWithItsFirstAllocationAndEndsWithTheObject)
{
    ASSERT_EQ(0, startThreadHeaps("numthreadheaps 4 heapsize 512K maxblock 64K"));
    {
        UnitOfWork work(thread_);
        EXPECT_EQ(0, heapsInUse());
        std::pmr::string text(200, 'x', &work);
        EXPECT_EQ(1, heapsInUse());
        EXPECT_TRUE(ovMemShortCheckStatus(&thread_));
        EXPECT_EQ(std::string(200, 'x'), std::string_view(text));
    }
    EXPECT_EQ(0, heapsInUse());
    EXPECT_FALSE(ovMemShortCheckStatus(&thread_));
}

TEST_F(UnitOfWorkMemory, UnitThatNeedsNothingTakesNoHeap)
{
    ASSERT_EQ(0, startThreadHeaps("numthreadheaps 4 heapsize 512K"));
    const OV_ULONGLONG_T before = bytesInUse();
    {
        UnitOfWork work(thread_);
        const std::pmr::string text("short", &work);
    }
    EXPECT_EQ(before, bytesInUse());
}

// Beyond what one heap holds, and in blocks that no heap serves.
TEST_F(UnitOfWorkMemory, GivesBackWhatItsContainersDoNot)
{
    ASSERT_EQ(0, startThreadHeaps("numthreadheaps 4 heapsize 512K maxblock 64K maxshortmemorypoolsize 1"));
    OV_ULONGLONG_T afterOne = 0;
    for (int unit = 0; unit < 3; ++unit) {
        {
            UnitOfWork work(thread_);
            for (int i = 0; i < 1000; ++i) static_cast<char*>(work.allocate(1000, 8))[999] = 'x';
            for (int i = 0; i < 10; ++i) static_cast<char*>(work.allocate(kLarge, 8))[kLarge - 1] = 'x';
            EXPECT_LT(1, heapsInUse());
        }
        EXPECT_EQ(0, heapsInUse());
        if (unit == 0) afterOne = bytesInUse();
        EXPECT_EQ(afterOne, bytesInUse());
    }
}

TEST_F(UnitOfWorkMemory, GrowingTextMovesThroughBlocksOfEverySize)
{
    ASSERT_EQ(0, startThreadHeaps("numthreadheaps 4 heapsize 512K maxblock 64K"));
    UnitOfWork work(thread_);
    std::pmr::string text(&work);
    for (size_t i = 0; i < 4 * kLarge; ++i) text += static_cast<char>('a' + i % 26);
    for (size_t i = 0; i < text.size(); ++i) ASSERT_EQ('a' + static_cast<int>(i % 26), text[i]);
}

TEST_F(UnitOfWorkMemory, WithoutShortTermHeapsTheUsualHeapsServe)
{
    ASSERT_EQ(0, startThreadHeaps("numthreadheaps 4 heapsize 512K shortmemoryoff"));
    const size_t before = usedHeapBytes();
    {
        UnitOfWork work(thread_);
        const std::pmr::string text(200, 'x', &work);
        EXPECT_EQ(0, heapsInUse());
        EXPECT_LT(before, usedHeapBytes());
    }
    EXPECT_EQ(before, usedHeapBytes());
}

TEST_F(UnitOfWorkMemory, WithoutThreadHeapsTheSystemServes)
{
    UnitOfWork work(thread_);
    const std::pmr::string text(200, 'x', &work);
    EXPECT_FALSE(ovMemShortCheckStatus(&thread_));
}

// Heaps of 4 + 8 times 512 KiB and a short-term heap of 16 MiB do not go into 16 MiB.
TEST_F(UnitOfWorkMemory, MemoryThatIsShortForAShortTermHeapMayDoForTheRequest)
{
    ASSERT_EQ(0, startThreadHeaps("memorylimit 16M numthreadheaps 4 heapsize 512K numheaps 12 shortheapsize 16M"));
    UnitOfWork work(thread_);
    const std::pmr::string text(200, 'x', &work);
    EXPECT_FALSE(ovMemShortCheckStatus(&thread_));
}

TEST_F(UnitOfWorkMemory, MemoryThatCannotBeHadAtAllIsBadAlloc)
{
    ASSERT_EQ(0, startThreadHeaps("memorylimit 16M numthreadheaps 4 heapsize 512K numheaps 12"));
    UnitOfWork work(thread_);
    EXPECT_THROW(static_cast<void>(work.allocate(size_t{64} << 20, 8)), std::bad_alloc);
    EXPECT_THROW(static_cast<void>(work.allocate(size_t{8} << 30, 8)), std::bad_alloc);
    EXPECT_THROW(static_cast<void>(work.allocate(64, 64)), std::bad_alloc);
    EXPECT_NE(nullptr, work.allocate(0, 1));
}

} // namespace
} // namespace kemsd::test
