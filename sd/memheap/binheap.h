// The binned heap's arithmetic and its short paths, shared by the heap itself (binheap.cpp) and by the allocation entry
// points, which inline them.
//
// Nothing here takes a lock: the caller holds the heap's lock or owns the heap alone. FastBinCount and BinMap are also
// read without the lock by canServe(), so their stores are relaxed atomics.
#pragma once

#include <kemsd/memory.h>

#include <array>

#include "sd/base/atomic.h"
#include "sd/base/poison.h"

namespace sd::memheap {

constexpr OV_ULONG_T kBlockHeader = sizeof(OV_MemAllocBlock_T);
constexpr OV_ULONG_T kSmallestFree = sizeof(OV_MemBin_T);
constexpr OV_ULONG_T kLastFastBin = OV_MEM_FASTBINS - 1;
constexpr OV_LONG_T kLastBin = OV_MEM_BINS - 1;
// Larger requests would wrap when the header and the rounding are added.
constexpr OV_ULONG_T kLargestRequest = 0xFFFFFFC0;

// The capacity a request is served with: at least 24, a multiple of 8.
constexpr OV_ULONG_T capacityFor(OV_ULONG_T bytes) { return bytes <= 23 ? 24 : (bytes + 7) & ~OV_ULONG_T{7}; }
static_assert(capacityFor(0) == 24 && capacityFor(24) == 24 && capacityFor(25) == 32);

// The bin that holds free blocks of `size` bytes: steps of 128 up to 2048, steps of 2048 below 32768, then one bin.
constexpr OV_LONG_T binIndex(OV_ULONG_T size)
{
    return static_cast<OV_LONG_T>(size <= 2048 ? size / 128 : size < 32768 ? size / 2048 + 15 : kLastBin);
}
static_assert(binIndex(127) == 0 && binIndex(128) == 1);
static_assert(binIndex(2048) == 16 && binIndex(4095) == 16 && binIndex(4096) == 17);
static_assert(binIndex(32767) == 30 && binIndex(32768) == 31);

// The fast bin of blocks of that capacity; above kLastFastBin there is none. The smallest block has capacity 24, so
// fast bins 0 and 1 stay empty.
constexpr OV_ULONG_T fastBinIndex(OV_ULONG_T capacity) { return capacity / 8 - 1; }
static_assert(fastBinIndex(24) == 2 && fastBinIndex(160) == kLastFastBin && fastBinIndex(168) > kLastFastBin);

inline OV_MemAllocBlock_T* blockOf(void* callers)
{
    return reinterpret_cast<OV_MemAllocBlock_T*>(static_cast<char*>(callers) - kBlockHeader);
}

inline void* callersPointer(OV_MemAllocBlock_T* block) { return block + 1; }

inline OV_ULONG_T capacityOf(const OV_MemAllocBlock_T* block) { return block->size - kBlockHeader; }

// Whether a look under the lock is worth it: blocks on the fast bins (a flush may join them), a non-empty bin for that
// capacity, or a non-empty bin above. Read without the lock; a wrong answer costs a needless look or a needless swap.
inline bool canServe(const OV_MemHeap_T& heap, OV_ULONG_T capacity)
{
    if (loadRelaxed(heap.HeapHeader.FastBinCount) != 0) return true;
    const OV_LONG_T bin = binIndex(capacity);
    const OV_LONG_T distance = loadRelaxed(heap.HeapHeader.BinMap[bin]);
    return bin + distance <= kLastBin;
}

// The smallest free block that belongs in a bin.
constexpr OV_ULONG_T smallestIn(OV_LONG_T bin)
{
    if (bin == 0) return kSmallestFree;
    return static_cast<OV_ULONG_T>(bin <= 16 ? bin * 128 : bin == kLastBin ? 32768 : (bin - 15) * 2048);
}

constexpr auto kSmallestIn = [] {
    std::array<OV_LONG_T, OV_MEM_BINS> sizes{};
    for (OV_LONG_T bin = 0; bin <= kLastBin; ++bin)
        sizes[static_cast<size_t>(bin)] = static_cast<OV_LONG_T>(smallestIn(bin));
    return sizes;
}();
static_assert([] {
    for (OV_LONG_T bin = 1; bin <= kLastBin; ++bin)
        if (binIndex(smallestIn(bin)) != bin || binIndex(smallestIn(bin) - 1) != bin - 1) return false;
    return true;
}());

inline OV_MemBin_T* at(void* from, OV_ULONG_T bytes)
{
    return reinterpret_cast<OV_MemBin_T*>(static_cast<char*>(from) + bytes);
}

inline bool insideRegion(const OV_MemHeapHeader_T& header, const OV_MemBin_T* block)
{
    return reinterpret_cast<const char*>(block) < header.HeapEnd;
}

inline void* handOut(OV_MemHeap_T& heap, OV_MemBin_T* block)
{
    auto* allocated = reinterpret_cast<OV_MemAllocBlock_T*>(block);
    allocated->MemHeap = &heap;
    allocated->marker = nullptr;
    return callersPointer(allocated);
}

// Hands out the top end of a free block, all but `rest` bytes of it, which are a free block's at least and stay where
// it is filed.
inline void* cutTop(OV_MemHeap_T& heap, OV_MemBin_T* Bin, OV_ULONG_T rest, OV_ULONG_T need)
{
    Bin->size = rest;
    OV_MemBin_T* top = at(Bin, rest);
    unpoison(top, need);
    top->size = need;
    top->prevsize = rest;
    OV_MemBin_T* following = at(top, need);
    if (insideRegion(heap.HeapHeader, following)) following->prevsize = need;
    return handOut(heap, top);
}

// What a fresh heap does with nearly every request: the request's own bin is empty, and the block that serves, the head
// of the nearest bin above, still belongs there when it is cut. Null in every other case: nothing has changed then, and
// carve() knows what to do.
inline void* cutFromAbove(OV_MemHeap_T& heap, OV_ULONG_T capacity)
{
    OV_MemHeapHeader_T& header = heap.HeapHeader;
    const OV_ULONG_T need = capacity + kBlockHeader;
    const OV_LONG_T own = binIndex(need);
    const OV_LONG_T above = own + header.BinMap[own];
    if (above == own || above > kLastBin) return nullptr;
    OV_MemBin_T* head = header.Bin[above];
    const OV_ULONG_T rest = head->size - need; // beyond 2^31 when the block is the smaller one
    if (static_cast<OV_LONG_T>(rest) < kSmallestIn[static_cast<size_t>(above)]) return nullptr;
    return cutTop(heap, head, rest, need);
}

// Serves `capacity` from the bins; in binheap.cpp.
void* carve(OV_MemHeap_T& heap, OV_ULONG_T capacity);
// Joins a released block with its free neighbours and files it; in binheap.cpp.
void coalesce(OV_MemHeapHeader_T& header, OV_MemBin_T* Bin);

inline void* popFast(OV_MemHeapHeader_T& header, OV_ULONG_T capacity)
{
    const OV_ULONG_T fast = fastBinIndex(capacity);
    if (fast > kLastFastBin) return nullptr;
    OV_MemAllocBlock_T* block = header.FastBin[fast];
    if (!block) return nullptr;
    header.FastBin[fast] = static_cast<OV_MemAllocBlock_T*>(block->marker);
    storeRelaxed(header.FastBinCount, header.FastBinCount - 1);
    block->marker = nullptr;
    unpoison(block + 1, capacity);
    return callersPointer(block);
}

// Serves a capacity (24 or more, a multiple of 8), or null.
inline void* allocate(OV_MemHeap_T& heap, OV_ULONG_T capacity)
{
    if (void* served = popFast(heap.HeapHeader, capacity)) return served;
    return carve(heap, capacity);
}

// Puts a small block on its fast bin; false leaves a larger one as it is.
inline bool pushFast(OV_MemHeapHeader_T& header, OV_MemAllocBlock_T* block)
{
    const OV_ULONG_T capacity = capacityOf(block);
    const OV_ULONG_T fast = fastBinIndex(capacity);
    if (fast > kLastFastBin) return false;
    poison(block + 1, capacity);
    block->marker = header.FastBin[fast];
    header.FastBin[fast] = block;
    storeRelaxed(header.FastBinCount, header.FastBinCount + 1);
    return true;
}

inline void release(OV_MemHeap_T& heap, OV_MemAllocBlock_T* block)
{
    if (!pushFast(heap.HeapHeader, block)) coalesce(heap.HeapHeader, reinterpret_cast<OV_MemBin_T*>(block));
}

} // namespace sd::memheap
