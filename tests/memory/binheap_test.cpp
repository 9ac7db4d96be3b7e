#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "sd/memheap/binheap.h"
#include "sd/memsys/memsys.h"
#include "support/failingcalls.h"
#include "support/heapwalker.h"

using namespace kemsd::test;
using namespace sd::memheap;

extern "C" void ovMemLinkBin(OV_MemHeapHeader_T* HeapHeader, OV_BYTE_T* BinMap, OV_MemBin_T* Bin);

namespace {

// A heap without a lock on a region of the test's own.
class BinHeap : public testing::Test {
protected:
    explicit BinHeap(OV_ULONG_T size = 1 << 20) { make(size); }
    ~BinHeap() override { drop(); }

    void make(OV_ULONG_T size)
    {
        drop();
        ovMemThreadHeap.ShortHeapSize = size;
        heap_ = static_cast<OV_MemHeap_T*>(malloc(size));
        memset(heap_, 0xA5, size);
        ovMemHeapInit(heap_, FALSE);
        EXPECT_TRUE(heapIsSound(*heap_));
    }

    void* take(OV_ULONG_T bytes)
    {
        void* block = ovMemHeapMalloc(heap_, bytes);
        EXPECT_TRUE(heapIsSound(*heap_));
        if (block) memset(block, 0x5A, bytes);
        return block;
    }

    void give(void* block)
    {
        ovMemHeapFree(heap_, block);
        EXPECT_TRUE(heapIsSound(*heap_));
    }

    char* end() const { return heap_->HeapHeader.HeapEnd; }
    OV_ULONG_T fastCount() const { return heap_->HeapHeader.FastBinCount; }
    OV_ULONG_T wholeSize() const
    {
        return static_cast<OV_ULONG_T>(end() - reinterpret_cast<char*>(&heap_->HeapBuffer));
    }

    // The region's first block.
    OV_MemBin_T* wholeBlock() const
    {
        void* first = &heap_->HeapBuffer;
        return static_cast<OV_MemBin_T*>(first);
    }

    OV_MemHeap_T* heap_ = nullptr;

private:
    void drop()
    {
        if (heap_) sd::unpoison(heap_, static_cast<size_t>(end() - reinterpret_cast<char*>(heap_)));
        free(heap_);
        heap_ = nullptr;
    }
};

} // namespace

TEST_F(BinHeap, FreshHeapIsOneFreeBlockInTheLastBin)
{
    const OV_MemHeapHeader_T& header = heap_->HeapHeader;
    OV_MemBin_T* whole = wholeBlock();
    EXPECT_EQ(header.Bin[31], whole);
    EXPECT_EQ(whole->size, wholeSize());
    EXPECT_EQ(whole->prevsize, 0u);
    EXPECT_EQ(whole->MemHeap, nullptr);
    EXPECT_EQ(whole->next, whole);
    EXPECT_EQ(whole->prev, whole);
    EXPECT_EQ(whole->index, 31);
    for (int i = 0; i < 32; ++i) EXPECT_EQ(header.BinMap[i], 31 - i);
    EXPECT_EQ(header.FastBinCount, 0u);
    EXPECT_EQ(end(), reinterpret_cast<char*>(heap_) + (1 << 20));
}

TEST_F(BinHeap, InitDoesNotClearTheEmptyBins)
{
    OV_MemBin_T* filler;
    memset(&filler, 0xA5, sizeof filler);
    for (int i = 0; i < 31; ++i) EXPECT_EQ(heap_->HeapHeader.Bin[i], filler) << i;
}

TEST_F(BinHeap, RequestsUpTo24BytesTakeA48ByteBlock)
{
    for (const OV_ULONG_T bytes : {0u, 1u, 23u, 24u}) {
        void* block = take(bytes);
        EXPECT_EQ(blockOf(block)->size, 48u) << bytes;
    }
}

TEST_F(BinHeap, RequestOf25BytesTakesA56ByteBlock) { EXPECT_EQ(blockOf(take(25))->size, 56u); }

TEST_F(BinHeap, HandedOutBlockNamesItsHeapAndHasNoMarker)
{
    OV_MemAllocBlock_T* block = blockOf(take(100));
    EXPECT_EQ(block->MemHeap, heap_);
    EXPECT_EQ(block->marker, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block + 1) % 8, 0u);
}

TEST_F(BinHeap, FirstBlockLiesAtTheEndOfTheRegion)
{
    void* first = take(100);
    EXPECT_EQ(reinterpret_cast<char*>(blockOf(first)) + blockOf(first)->size, end());
    void* second = take(100);
    EXPECT_EQ(reinterpret_cast<char*>(blockOf(second)) + blockOf(second)->size,
              reinterpret_cast<char*>(blockOf(first)));
    EXPECT_EQ(blockOf(first)->prevsize, blockOf(second)->size);
}

TEST_F(BinHeap, Freed48ByteBlockComesBackUnchangedForRequestsOf17To24Bytes)
{
    for (OV_ULONG_T bytes = 17; bytes <= 24; ++bytes) {
        void* block = take(24);
        give(block);
        EXPECT_EQ(heap_->HeapHeader.FastBin[2], blockOf(block));
        EXPECT_EQ(fastCount(), 1u);
        EXPECT_EQ(blockOf(block)->MemHeap, heap_) << "neighbours must take it for a block in use";
        EXPECT_EQ(take(bytes), block);
        EXPECT_EQ(fastCount(), 0u);
        EXPECT_EQ(blockOf(block)->size, 48u);
        give(block);
        EXPECT_EQ(take(24), block);
    }
}

TEST_F(BinHeap, FastBinsAreLastInFirstOut)
{
    void* a = take(40);
    void* b = take(40);
    give(a);
    give(b);
    EXPECT_EQ(take(40), b);
    EXPECT_EQ(take(40), a);
}

TEST_F(BinHeap, FastBinsEndAt160Bytes)
{
    void* largest = take(160);
    void* beyond = take(161);
    give(largest);
    EXPECT_EQ(heap_->HeapHeader.FastBin[19], blockOf(largest));
    give(beyond);
    EXPECT_EQ(fastCount(), 1u) << "a block above 160 bytes is joined at once";
}

TEST_F(BinHeap, BinsOfBlockSizes)
{
    EXPECT_EQ(binIndex(2048), 16);
    EXPECT_EQ(binIndex(2049), 16);
    EXPECT_EQ(binIndex(4095), 16);
    EXPECT_EQ(binIndex(32767), 30);
    EXPECT_EQ(binIndex(32768), 31);
    EXPECT_EQ(binIndex(40), 0);
    EXPECT_EQ(binIndex(128), 1);
}

TEST_F(BinHeap, RemainderThatCannotHoldAFreeBlockIsHandedOutToo)
{
    void* wall = take(200);
    void* hole = take(1000); // block of 1024
    void* guard = take(200);
    ASSERT_TRUE(wall && guard);
    give(hole);
    // 1024 - 40 = 984: a block of 992 leaves 32 bytes, which go along; one of 984 leaves 40 and is split.
    void* whole = take(992 - 24);
    EXPECT_EQ(whole, hole);
    EXPECT_EQ(blockOf(whole)->size, 1024u);
    give(whole);
    void* split = take(984 - 24);
    EXPECT_NE(split, hole);
    EXPECT_EQ(blockOf(split)->size, 984u);
    EXPECT_EQ(blockOf(split)->prevsize, 40u);
}

TEST_F(BinHeap, SearchPassesBlocksThatAreTooSmall)
{
    // Two free blocks of one bin, the first in the circle too small for the request.
    void* small = take(4200);
    ASSERT_TRUE(take(200));
    void* large = take(5000);
    ASSERT_TRUE(take(200));
    give(small);
    give(large);
    ASSERT_EQ(heap_->HeapHeader.Bin[17], reinterpret_cast<OV_MemBin_T*>(blockOf(small)));
    void* found = take(5000 - 24); // leaves too little to split off
    EXPECT_EQ(found, large);
    EXPECT_EQ(heap_->HeapHeader.Bin[17], reinterpret_cast<OV_MemBin_T*>(blockOf(small)));
}

TEST_F(BinHeap, SearchHeadRotatesToTheBlockLastFound)
{
    make(300000);
    void* small = take(33000);
    ASSERT_TRUE(take(200));
    void* large = take(120000);
    ASSERT_TRUE(take(200));
    const HeapWalk walk = walkHeap(*heap_);
    ASSERT_TRUE(take(static_cast<OV_ULONG_T>(walk.freeBytes) - 24)); // nothing else is free
    give(small);
    give(large);
    auto* served = reinterpret_cast<OV_MemBin_T*>(blockOf(large));
    ASSERT_EQ(heap_->HeapHeader.Bin[31], reinterpret_cast<OV_MemBin_T*>(blockOf(small)));
    ASSERT_TRUE(take(40000));
    EXPECT_EQ(heap_->HeapHeader.Bin[31], served) << "the next search starts there";
}

TEST_F(BinHeap, FailingRequestFlushesTheFastBinsAndIsRetriedOnce)
{
    make(65536);
    std::vector<void*> blocks;
    while (void* block = take(160)) blocks.push_back(block);
    for (void* block : blocks) give(block);
    EXPECT_EQ(fastCount(), blocks.size());
    void* big = take(8000);
    EXPECT_NE(big, nullptr);
    EXPECT_EQ(fastCount(), 0u);
    for (OV_MemAllocBlock_T* bin : heap_->HeapHeader.FastBin) EXPECT_EQ(bin, nullptr);
}

TEST_F(BinHeap, FlushThatDoesNotHelpReturnsNullAndKeepsTheBlocks)
{
    make(65536);
    void* block = take(100);
    give(block);
    EXPECT_EQ(take(100000), nullptr);
    EXPECT_EQ(fastCount(), 0u) << "the fast bins may have been flushed, nothing else";
    EXPECT_EQ(walkHeap(*heap_).freeBytes, wholeSize());
}

TEST_F(BinHeap, NoRoomAndNothingToFlushReturnsNull)
{
    make(65536);
    EXPECT_EQ(take(65536), nullptr);
    EXPECT_EQ(walkHeap(*heap_).freeBytes, wholeSize());
}

TEST_F(BinHeap, ReleasingThreeNeighboursInAnyOrderLeavesOneBlockOfTheirSum)
{
    int order[] = {0, 1, 2};
    do {
        make(1 << 20);
        ASSERT_TRUE(take(200));
        void* three[3];
        for (void*& block : three) block = take(1000);
        void* guard = take(200);
        for (const int i : order) give(three[i]);
        auto* joined = reinterpret_cast<OV_MemBin_T*>(blockOf(three[2])); // blocks are carved from the top
        EXPECT_EQ(joined->MemHeap, nullptr);
        EXPECT_EQ(joined->size, 3u * 1024);
        auto* after = reinterpret_cast<OV_MemBin_T*>(reinterpret_cast<char*>(joined) + joined->size);
        EXPECT_EQ(after->prevsize, 3u * 1024);
        EXPECT_EQ(joined->index, binIndex(3 * 1024));
        ASSERT_TRUE(guard);
    } while (std::next_permutation(order, order + 3));
}

TEST_F(BinHeap, BlockBeforeKeepsItsPlaceWhenTheSumBelongsToTheSameBin)
{
    ASSERT_TRUE(take(200));
    void* behind = take(200);
    void* before = take(40000);
    ASSERT_TRUE(take(200));
    give(before);
    auto* kept = reinterpret_cast<OV_MemBin_T*>(blockOf(before));
    OV_MemBin_T* next = kept->next;
    give(behind);
    EXPECT_EQ(kept->size, 40024u + 224u);
    EXPECT_EQ(kept->next, next) << "not filed anew";
}

TEST_F(BinHeap, SumTakesThePlaceOfTheBlockBehindWhenThatBinFits)
{
    ASSERT_TRUE(take(200));
    void* behind = take(40000);
    void* block = take(200);
    ASSERT_TRUE(take(200));
    give(behind);
    auto* old = reinterpret_cast<OV_MemBin_T*>(blockOf(behind));
    OV_MemBin_T *next = old->next, *prev = old->prev;
    ASSERT_NE(next, old);
    give(block);
    auto* start = reinterpret_cast<OV_MemBin_T*>(blockOf(block));
    EXPECT_EQ(start->size, 40024u + 224u);
    EXPECT_EQ(start->next, next);
    EXPECT_EQ(start->prev, prev);
}

TEST_F(BinHeap, SumAloneInItsBinTakesThePlaceOfTheBlockBehind)
{
    make(65536);
    void* behind = take(4200);
    void* block = take(200);
    void* rest = take(wholeSize() - 4224 - 224 - 24);
    ASSERT_TRUE(rest);
    give(behind);
    give(block);
    auto* start = reinterpret_cast<OV_MemBin_T*>(blockOf(block));
    EXPECT_EQ(heap_->HeapHeader.Bin[17], start);
    EXPECT_EQ(start->next, start);
    EXPECT_EQ(start->prev, start);
}

TEST_F(BinHeap, LinkBinJoinsABlockBehindTheFastBinsBack)
{
    void* block = take(100);
    ovMemLinkBin(&heap_->HeapHeader, heap_->HeapHeader.BinMap, reinterpret_cast<OV_MemBin_T*>(blockOf(block)));
    EXPECT_TRUE(heapIsSound(*heap_));
    EXPECT_EQ(walkHeap(*heap_).freeBytes, wholeSize());
}

TEST_F(BinHeap, SkipMapNamesTheNearestNonEmptyBinAbove)
{
    ASSERT_TRUE(take(200));
    void* hole = take(4200);
    ASSERT_TRUE(take(200));
    give(hole);
    EXPECT_EQ(heap_->HeapHeader.BinMap[17], 0);
    EXPECT_EQ(heap_->HeapHeader.BinMap[16], 1);
    EXPECT_EQ(heap_->HeapHeader.BinMap[0], 17);
    EXPECT_EQ(heap_->HeapHeader.BinMap[18], 13);
    EXPECT_EQ(take(4200), hole);
    EXPECT_EQ(heap_->HeapHeader.BinMap[17], 14);
    EXPECT_EQ(heap_->HeapHeader.BinMap[0], 31);
}

TEST_F(BinHeap, SkipMapOfAFullHeapLeadsBeyondTheLastBin)
{
    make(65536);
    ASSERT_TRUE(take(wholeSize() - 24));
    for (int i = 0; i < 32; ++i) EXPECT_EQ(heap_->HeapHeader.BinMap[i], 63 - i);
    EXPECT_FALSE(canServe(*heap_, 24));
}

TEST_F(BinHeap, PreCheckSeesFastBinsOwnBinAndBinsAbove)
{
    make(65536);
    void* all = take(wholeSize() - 24 - 224 - 48);
    void* middle = take(200);
    void* small = take(24);
    ASSERT_TRUE(all && middle && small);
    EXPECT_FALSE(canServe(*heap_, 24));
    give(middle); // 224 bytes free: bin 1
    EXPECT_TRUE(canServe(*heap_, 24));
    EXPECT_TRUE(canServe(*heap_, 128)) << "its own bin is not empty";
    EXPECT_FALSE(canServe(*heap_, 256));
    give(small);
    EXPECT_TRUE(canServe(*heap_, 30000)) << "a flush of the fast bins might help";
}

TEST_F(BinHeap, GrowingMovesAndCopiesAndReleasesTheOldBlock)
{
    auto* old = static_cast<unsigned char*>(take(40));
    for (int i = 0; i < 40; ++i) old[i] = static_cast<unsigned char>(i);
    auto* grown = static_cast<unsigned char*>(ovMemHeapRealloc(heap_, old, 100));
    EXPECT_TRUE(heapIsSound(*heap_));
    ASSERT_NE(grown, nullptr);
    EXPECT_NE(grown, old);
    for (int i = 0; i < 40; ++i) EXPECT_EQ(grown[i], i);
    EXPECT_EQ(take(40), old) << "the old block waits on its fast bin";
}

TEST_F(BinHeap, GrowingWithoutRoomReturnsNullAndLeavesTheBlock)
{
    make(65536);
    auto* block = static_cast<char*>(take(wholeSize() - 24 - 48));
    ASSERT_TRUE(block);
    ASSERT_TRUE(take(24));
    EXPECT_EQ(ovMemHeapRealloc(heap_, block, 65000), nullptr);
    EXPECT_TRUE(heapIsSound(*heap_));
    EXPECT_EQ(block[0], 0x5A);
    EXPECT_EQ(blockOf(block)->MemHeap, heap_);
}

TEST_F(BinHeap, ShrinkingByFewerThan40BytesKeepsPointerAndSize)
{
    void* block = take(500);
    EXPECT_EQ(blockOf(block)->size, 528u);
    EXPECT_EQ(ovMemHeapRealloc(heap_, block, 504 - 32), block); // 32 bytes less
    EXPECT_EQ(blockOf(block)->size, 528u);
    EXPECT_EQ(ovMemHeapRealloc(heap_, block, 504), block);
    EXPECT_EQ(blockOf(block)->size, 528u);
}

TEST_F(BinHeap, ShrinkingBy40BytesReturnsTheRestToTheBinsNeverToAFastBin)
{
    void* guard = take(200);
    void* block = take(504);
    ASSERT_TRUE(take(200));
    EXPECT_EQ(ovMemHeapRealloc(heap_, block, 504 - 40), block);
    EXPECT_TRUE(heapIsSound(*heap_));
    EXPECT_EQ(blockOf(block)->size, 488u);
    EXPECT_EQ(fastCount(), 0u);
    auto* rest = reinterpret_cast<OV_MemBin_T*>(reinterpret_cast<char*>(blockOf(block)) + 488);
    EXPECT_EQ(rest->size, 40u);
    EXPECT_EQ(rest->MemHeap, nullptr);
    EXPECT_EQ(blockOf(guard)->prevsize, 40u);
}

TEST_F(BinHeap, ShrinkingJoinsTheRestWithAFreeBlockBehind)
{
    void* behind = take(1000);
    void* block = take(1000);
    ASSERT_TRUE(take(200));
    give(behind);
    EXPECT_EQ(ovMemHeapRealloc(heap_, block, 100), block);
    EXPECT_TRUE(heapIsSound(*heap_));
    EXPECT_EQ(blockOf(block)->size, 128u);
}

TEST_F(BinHeap, RequestsAboveTheLargestSizeReturnNullAndChangeNothing)
{
    void* kept = take(100);
    give(kept);
    for (const OV_ULONG_T bytes : {0xFFFFFFC1u, 0xFFFFFFFFu}) {
        EXPECT_EQ(ovMemHeapMalloc(heap_, bytes), nullptr);
        EXPECT_EQ(fastCount(), 1u);
    }
    EXPECT_EQ(ovMemHeapMalloc(heap_, 0xFFFFFFC0u), nullptr); // fits nowhere, but does not wrap either
    void* block = take(100);
    EXPECT_EQ(ovMemHeapRealloc(heap_, block, 0xFFFFFFC1u), nullptr);
    EXPECT_TRUE(heapIsSound(*heap_));
}

TEST_F(BinHeap, RegionBelow32KiBNeverHandsOutMoreThanItHas)
{
    make(8192);
    EXPECT_EQ(heap_->HeapHeader.BinMap[31], 0) << "filed in the last bin whatever its size";
    EXPECT_EQ(take(8000), nullptr);
    void* block = take(wholeSize() - 24);
    ASSERT_NE(block, nullptr);
    EXPECT_LE(static_cast<char*>(block) + capacityOf(blockOf(block)), end());
    give(block);
    EXPECT_NE(take(100), nullptr);
}

TEST_F(BinHeap, RegionOfAnOddSizeLeavesItsLastBytesUnused)
{
    make(100003);
    EXPECT_EQ(end(), reinterpret_cast<char*>(heap_) + 100000);
    void* block = take(100);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 8, 0u);
}

TEST_F(BinHeap, LongTermHeapHasLock6005AndTheConfiguredSize)
{
    ovMemThreadHeap.HeapSize = 1 << 19;
    auto* heap = static_cast<OV_MemHeap_T*>(malloc(1 << 19));
    ovMemHeapInit(heap, TRUE);
    EXPECT_EQ(heap->HeapHeader.SpinLock.slkno, 6005u);
    ASSERT_NE(heap->HeapHeader.SpinLock.pSpinlock, nullptr);
    EXPECT_EQ(heap->HeapHeader.HeapEnd, reinterpret_cast<char*>(heap) + (1 << 19));
    KemSdSpinlockDestroy(nullptr, heap->HeapHeader.SpinLock.pSpinlock, __FILE__, __LINE__);
    sd::unpoison(heap, 1 << 19);
    free(heap);
}

TEST_F(BinHeap, HeapsWhoseLocksCannotBeMadeShareOne)
{
    ovMemThreadHeap.HeapSize = 1 << 19;
    auto* heaps = static_cast<char*>(malloc(2 << 19));
    auto* a = reinterpret_cast<OV_MemHeap_T*>(heaps);
    auto* b = reinterpret_cast<OV_MemHeap_T*>(heaps + (1 << 19));
    KemSyncEnvInit(nullptr);
    {
        Failing noMemory(Call::malloc, ENOMEM);
        ovMemHeapInit(a, TRUE);
        ovMemHeapInit(b, TRUE);
    }
    KEM_PSPINLOCK_T lock = a->HeapHeader.SpinLock.pSpinlock;
    ASSERT_NE(lock, nullptr);
    EXPECT_EQ(b->HeapHeader.SpinLock.pSpinlock, lock);
    KemSdSpinlockAcquire(lock, pthread_self());
    EXPECT_EQ(KemSdGetSpinlockRefCount(lock), 1);
    KemSdSpinlockRelease(lock);
    sd::unpoison(heaps, 2 << 19);
    free(heaps);
}

TEST_F(BinHeap, BlockInUseOnASearchedBinStopsTheProcess)
{
    void* hole = take(1000);
    ASSERT_TRUE(take(200));
    give(hole);
    wholeBlock()->MemHeap = heap_;
    EXPECT_DEATH(ovMemHeapMalloc(heap_, 60000),
                 "sd/memheap:1055: ovMemSearchBin: Assertion `!CurrentBin->MemHeap' failed");
}

TEST_F(BinHeap, BlockInUseWhenFiledStopsTheProcess)
{
    make(48 * 1024);
    // A request whose own bin is empty takes the head of the last bin unsearched; its rest moves to a lower bin.
    wholeBlock()->MemHeap = heap_;
    EXPECT_DEATH(ovMemHeapMalloc(heap_, 20000), "sd/memheap:982: ovMemAddBin: Assertion `!Bin->MemHeap' failed");
}
