// Thread heaps for a test: started from the text of a configuration file, and checked as a whole. A test runs in a
// process of its own, so they are never taken down.
#pragma once

#include <gtest/gtest.h>
#include <kemsd/memory.h>

#include <set>
#include <string>
#include <vector>

#include "sd/memsys/memsys.h"
#include "support/heapwalker.h"
#include "support/messages.h"
#include "support/tempdir.h"

namespace kemsd::test {

inline int startThreadHeaps(const std::string& configuration, OV_NETMESSAGE_T messages = nullptr)
{
    TempDir place;
    place.write("bin/config.mem", configuration);
    setenv("ZANTOPATH", place.path().c_str(), 1);
    return ovMemThreadHeapInit(1, reinterpret_cast<void*>(messages), const_cast<char*>("test"), 0);
}

// The pool's circle, links checked.
inline std::vector<OV_MemHeap_T*> poolHeaps()
{
    std::vector<OV_MemHeap_T*> heaps;
    OV_MemHeap_T* const first = ovMemThreadHeap.MemHeapPool.MemHeap;
    if (!first) return heaps;
    OV_MemHeap_T* heap = first;
    do {
        EXPECT_EQ(heap->next->prev, heap);
        EXPECT_EQ(heap->prev->next, heap);
        heaps.push_back(heap);
        heap = heap->next;
    } while (heap != first && heaps.size() < 10000);
    EXPECT_EQ(heap, first) << "the pool is no circle";
    return heaps;
}

inline std::vector<OV_MemHeap_T*> slotHeaps()
{
    return {ovMemThreadHeap.Heap, ovMemThreadHeap.Heap + ovMemThreadHeap.NumThreadHeaps};
}

// With nobody at work: every heap stands in exactly one slot or once in the pool, its id says so, it is sound, and as
// many heaps exist as the budget says.
inline void expectSoundThreadHeaps()
{
    std::set<OV_MemHeap_T*> seen;
    OV_LONG_T id = 0;
    for (OV_MemHeap_T* heap : slotHeaps()) {
        ASSERT_NE(heap, nullptr);
        EXPECT_EQ(heap, ovMemThreadHeap.HeapCopy[id]) << "slot " << id << " looks as if it were being switched";
        EXPECT_EQ(heap->ThreadHeapId, id);
        EXPECT_TRUE(seen.insert(heap).second) << "slot " << id << " holds a heap that stands elsewhere too";
        EXPECT_TRUE(heapIsSound(*heap)) << "slot " << id;
        ++id;
    }
    for (OV_MemHeap_T* heap : poolHeaps()) {
        EXPECT_EQ(heap->ThreadHeapId, 4095);
        EXPECT_TRUE(seen.insert(heap).second) << "a pool heap stands elsewhere too";
        EXPECT_TRUE(heapIsSound(*heap)) << "in the pool";
    }
    EXPECT_EQ(static_cast<OV_LONG_T>(seen.size()), ovMemThreadHeap.MaxNumHeaps - ovMemThreadHeap.NumHeaps);
}

// Bytes handed out by all heaps, block headers included.
inline size_t usedHeapBytes()
{
    size_t bytes = 0;
    for (const auto& heaps : {slotHeaps(), poolHeaps()})
        for (OV_MemHeap_T* heap : heaps) bytes += walkHeap(*heap).usedBytes;
    return bytes;
}

// The word before a caller's pointer. Of a block that the system gave out as it is, a memory checker guards that word.
__attribute__((no_sanitize("address"))) inline uintptr_t markerBefore(const void* block)
{
    return static_cast<const uintptr_t*>(block)[-1];
}

inline OV_MemAllocExtBlock_T* externalHeaderOf(void* block) { return static_cast<OV_MemAllocExtBlock_T*>(block) - 1; }

} // namespace kemsd::test
