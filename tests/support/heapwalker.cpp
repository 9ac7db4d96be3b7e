#include "heapwalker.h"

namespace kemsd::test {
namespace {

constexpr size_t kBlockHeader = 24;
constexpr size_t kSmallestBlock = 40;

OV_LONG_T expectedBin(size_t size)
{
    if (size <= 2048) return static_cast<OV_LONG_T>(size / 128);
    if (size < 32768) return static_cast<OV_LONG_T>(size / 2048 + 15);
    return 31;
}

class Walker {
public:
    explicit Walker(OV_MemHeap_T& heap) : heap_(heap), header_(heap.HeapHeader) {}

    HeapWalk walk()
    {
        countFastBins();
        tileRegion();
        checkCircles();
        checkSkipMap();
        result_.usedBlocks -= result_.fastBlocks;
        result_.usedBytes -= result_.fastBytes;
        return result_;
    }

private:
    char* begin() { return reinterpret_cast<char*>(&heap_.HeapBuffer); }

    template <class... Words>
    void wrong(const Words&... words)
    {
        if (!result_.sound) return; // the first finding is the one to read
        result_.sound = testing::AssertionFailure();
        ((result_.sound << words), ...);
    }

    size_t offsetOf(const void* block) { return static_cast<size_t>(static_cast<const char*>(block) - begin()); }

    bool inRegion(const void* block) { return block >= begin() && block < header_.HeapEnd; }

    void countFastBins()
    {
        for (size_t f = 0; f < OV_MEM_FASTBINS && result_.sound; ++f)
            for (OV_MemAllocBlock_T* block = header_.FastBin[f]; block;
                 block = static_cast<OV_MemAllocBlock_T*>(block->marker)) {
                if (!inRegion(block)) return wrong("fast bin ", f, " leads out of the region");
                if (block->MemHeap != &heap_)
                    return wrong("block at ", offsetOf(block), " on fast bin ", f, " is not in use");
                if ((block->size - kBlockHeader) / 8 - 1 != f)
                    return wrong("block at ", offsetOf(block), " of ", block->size, " bytes lies on fast bin ", f);
                ++result_.fastBlocks;
                result_.fastBytes += block->size;
                if (result_.fastBlocks > header_.FastBinCount) return wrong("more blocks on fast bins than counted");
            }
        if (result_.fastBlocks != header_.FastBinCount)
            wrong(header_.FastBinCount, " blocks counted on fast bins, ", result_.fastBlocks, " found");
    }

    void tileRegion()
    {
        size_t previous = 0;
        bool previousFree = false;
        char* at = begin();
        while (at < header_.HeapEnd && result_.sound) {
            auto* block = reinterpret_cast<OV_MemBin_T*>(at);
            const bool isFree = block->MemHeap == nullptr;
            if (block->size < kSmallestBlock || block->size % 8 != 0)
                return wrong("block at ", offsetOf(at), " has size ", block->size);
            if (block->size > static_cast<size_t>(header_.HeapEnd - at))
                return wrong("block at ", offsetOf(at), " of ", block->size, " bytes passes the region's end");
            if (block->prevsize != previous)
                return wrong("block at ", offsetOf(at), " says ", block->prevsize, " bytes lie before it, not ",
                             previous);
            if (isFree && previousFree) return wrong("two free blocks touch at ", offsetOf(at));
            if (!isFree && block->MemHeap != &heap_)
                return wrong("block at ", offsetOf(at), " belongs to another heap");
            if (isFree) {
                ++result_.freeBlocks;
                result_.freeBytes += block->size;
                if (block->index < 0 || block->index > 31)
                    return wrong("free block at ", offsetOf(at), " has index ", block->index);
            } else {
                ++result_.usedBlocks;
                result_.usedBytes += block->size;
            }
            previous = block->size;
            previousFree = isFree;
            at += block->size;
        }
        if (result_.sound && at != header_.HeapEnd)
            wrong("the last block ends ", at - header_.HeapEnd, " past the region");
    }

    // A block may lie in a bin above its size (it shrank in place, or is the first of a small region), never below.
    void checkCircles()
    {
        size_t filed = 0;
        for (OV_LONG_T bin = 0; bin < OV_MEM_BINS && result_.sound; ++bin) {
            if (header_.BinMap[bin] != 0) continue;
            OV_MemBin_T* const head = header_.Bin[bin];
            OV_MemBin_T* block = head;
            do {
                if (!inRegion(block)) return wrong("bin ", bin, " leads out of the region");
                if (block->MemHeap) return wrong("block at ", offsetOf(block), " in bin ", bin, " is in use");
                if (block->index != bin)
                    return wrong("block at ", offsetOf(block), " in bin ", bin, " says ", block->index);
                if (block->next->prev != block || block->prev->next != block)
                    return wrong("the circle of bin ", bin, " is broken at ", offsetOf(block));
                if (expectedBin(block->size) != bin && !(bin == 31 && block->prevsize == 0))
                    return wrong("block of ", block->size, " bytes at ", offsetOf(block), " lies in bin ", bin);
                if (++filed > result_.freeBlocks) return wrong("more blocks in circles than free blocks");
                block = block->next;
            } while (block != head);
        }
        if (result_.sound && filed != result_.freeBlocks)
            wrong(result_.freeBlocks, " free blocks, ", filed, " of them in circles");
    }

    void checkSkipMap()
    {
        int above = 63; // bin 31 empty reads 32
        for (int bin = 31; bin >= 0 && result_.sound; --bin) {
            const int entry = header_.BinMap[bin];
            if (entry == 0) {
                above = bin;
                continue;
            }
            if (entry != above - bin) return wrong("skip map entry ", bin, " is ", entry, ", not ", above - bin);
        }
    }

    OV_MemHeap_T& heap_;
    OV_MemHeapHeader_T& header_;
    HeapWalk result_;
};

} // namespace

HeapWalk walkHeap(OV_MemHeap_T& heap) { return Walker(heap).walk(); }

} // namespace kemsd::test
