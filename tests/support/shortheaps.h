// Short-term heaps as a test sees them: a context's circle and list, and the pool, links checked.
#pragma once

#include "support/threadheaps.h"

namespace kemsd::test {

inline std::vector<OV_MemHeap_T*> heapCircle(OV_MemHeap_T* first)
{
    std::vector<OV_MemHeap_T*> heaps;
    for (OV_MemHeap_T* heap = first; heap && heaps.size() < 10000; heap = heap->next) {
        EXPECT_EQ(heap->next->prev, heap);
        heaps.push_back(heap);
        if (heap->next == first) return heaps;
    }
    EXPECT_EQ(first, nullptr) << "no circle";
    return heaps;
}

// The context's heaps, the current one first; each is marked as short-term and sound.
inline std::vector<OV_MemHeap_T*> heapsOf(const OV_THDCTX_T& context)
{
    const auto heaps = heapCircle(context.MemShortHeap);
    for (OV_MemHeap_T* heap : heaps) {
        EXPECT_EQ(heap->ThreadHeapId, 0x7FFFFFFF);
        EXPECT_TRUE(heapIsSound(*heap));
    }
    return heaps;
}

// The pool's heaps, its head first. Nobody may look into them.
inline std::vector<OV_MemHeap_T*> spareHeaps()
{
    const auto heaps = heapCircle(ovMemThreadHeap.MemShortHeapPool.MemHeap);
    EXPECT_EQ(ovMemThreadHeap.MemShortHeapPool.NumHeaps, static_cast<OV_LONG_T>(heaps.size()));
    return heaps;
}

// The context's larger blocks as the caller knows them, the list's head first.
inline std::vector<void*> largerBlocks(OV_THDCTX_T& context)
{
    std::vector<void*> blocks;
    OV_MemAllocExtBlock_T* const first = context.MemShortExtBlocks;
    for (OV_MemAllocExtBlock_T* header = first; header && blocks.size() < 10000; header = header->next) {
        EXPECT_EQ(header->next->prev, header);
        EXPECT_EQ(header->marker, &context.MemShortExtBlocks);
        blocks.push_back(header + 1);
        if (header->next == first) return blocks;
    }
    EXPECT_EQ(first, nullptr) << "no circle";
    return blocks;
}

// Block i of a unit of work has a pattern of its own.
inline void fillBlock(void* block, size_t bytes, unsigned seed)
{
    auto* at = static_cast<unsigned char*>(block);
    for (size_t i = 0; i < bytes; ++i) at[i] = static_cast<unsigned char>(seed + i * 7);
}

inline testing::AssertionResult blockHolds(const void* block, size_t bytes, unsigned seed)
{
    const auto* at = static_cast<const unsigned char*>(block);
    for (size_t i = 0; i < bytes; ++i)
        if (at[i] != static_cast<unsigned char>(seed + i * 7))
            return testing::AssertionFailure() << "byte " << i << " of " << bytes << " has changed";
    return testing::AssertionSuccess();
}

} // namespace kemsd::test
