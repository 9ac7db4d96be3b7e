// Walks a binned heap and proves its invariants: the region is tiled by blocks whose previous sizes match, no two free
// blocks touch (but for blocks that wait on fast bins, which count as in use), every free block lies in the circle its
// index names and nowhere else, the skip map describes exactly the non-empty bins, and the fast bins hold exactly
// FastBinCount blocks of their size that belong to this heap.
#pragma once

#include <gtest/gtest.h>
#include <kemsd/memory.h>

#include <cstddef>

namespace kemsd::test {

struct HeapWalk {
    testing::AssertionResult sound = testing::AssertionSuccess();
    size_t freeBlocks = 0;
    size_t freeBytes = 0;  // whole blocks, headers included
    size_t fastBlocks = 0; // on the fast bins
    size_t fastBytes = 0;
    size_t usedBlocks = 0; // handed out
    size_t usedBytes = 0;
};

HeapWalk walkHeap(OV_MemHeap_T& heap);

// EXPECT_TRUE(heapIsSound(heap)) prints what is wrong and where.
inline testing::AssertionResult heapIsSound(OV_MemHeap_T& heap) { return walkHeap(heap).sound; }

} // namespace kemsd::test
