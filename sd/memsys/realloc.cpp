// Resizing: ovRealloc. A block stays where it is when its heap has room in place or when it is and remains external;
// else it moves through the ordinary request. Every failed resize stores null and leaves the old block.
//
// A heap's lock is held around the resize in place; a short-term heap's block needs none. Deliberate: with bucket
// counting on, a moving resize counts the release at its start and again when the old block goes.

#include <algorithm>

#include "sd/memsys/threadheap.h"

namespace sd::memsys {
namespace {

// The list a short-term external block goes back to when its resize failed: the owner's, or the one it came from.
OV_MemAllocExtBlock_T*& listFor(void* owner, void* marker)
{
    return owner ? static_cast<OV_THDCTX_T*>(owner)->MemShortExtBlocks : *static_cast<OV_MemAllocExtBlock_T**>(marker);
}

void* resizeExternal(void* owner, OV_MemAllocExtBlock_T* header, size_t size)
{
    if (size > static_cast<size_t>(PTRDIFF_MAX) - kExternalHeader) return nullptr;
    void* const marker = header->marker;
    const bool shortTerm = marker != reinterpret_cast<void*>(kExternalMarker);
    if (shortTerm) unlinkShortTerm(header);
    OV_MemAllocExtBlock_T* resized = resizeCounted(header, size);
    if (!resized) {
        if (shortTerm) linkShortTerm(listFor(owner, marker), header);
        return nullptr;
    }
    if (bucketControl()) countAllocation(size);
    *resized = {.size = size, .prev = nullptr, .next = nullptr, .marker = reinterpret_cast<void*>(kExternalMarker)};
    return resized + 1;
}

void* resizeInHeap(OV_MemAllocBlock_T* header, void* block, size_t size)
{
    OV_MemHeap_T* heap = header->MemHeap;
    const auto bytes = static_cast<OV_ULONG_T>(size);
    if (loadRelaxed(heap->ThreadHeapId) == kShortTermHeap) return ovMemHeapRealloc(heap, block, bytes);
    Locked lock(heap->HeapHeader.SpinLock);
    return ovMemHeapRealloc(heap, block, bytes);
}

void* move(void* owner, void* block, OV_ULONGLONG_T capacity, size_t size)
{
    void* moved = requestFromHeaps(owner, block, size);
    if (!moved) return nullptr;
    KemSdMemCopy(nullptr, moved, block, std::min<OV_ULONGLONG_T>(capacity, size));
    if (bucketControl()) countAllocation(size);
    releaseToHeaps(block);
    return moved;
}

void* resizeInHeaps(void* owner, void* block, size_t size)
{
    const uintptr_t marker = markerOf(block);
    if (isSystemBlock(block, marker)) return resizeSystemBlock(block, size);
    if (marker != 0) {
        OV_MemAllocExtBlock_T* header = externalHeader(block);
        if (bucketControl()) countRelease(header->size);
        if (size > loadRelaxed(slots.largest)) return resizeExternal(owner, header, size);
        return move(owner, block, header->size, size);
    }
    OV_MemAllocBlock_T* header = memheap::blockOf(block);
    const OV_ULONG_T capacity = memheap::capacityOf(header);
    if (bucketControl()) countRelease(capacity);
    if (size <= loadRelaxed(slots.largest)) {
        if (void* resized = resizeInHeap(header, block, size)) {
            if (bucketControl()) countAllocation(size);
            return resized;
        }
    }
    return move(owner, block, capacity, size);
}

// A block of the heaps after their time: it moves to the system allocator.
void* moveOutOfHeaps(void* block, size_t size)
{
    const OV_ULONGLONG_T capacity =
        markerOf(block) == kExternalMarker ? externalHeader(block)->size : memheap::capacityOf(memheap::blockOf(block));
    void* moved = ovMemExtMalloc(size, kPolicy);
    if (!moved) return nullptr;
    KemSdMemCopy(nullptr, moved, block, std::min<OV_ULONGLONG_T>(capacity, size));
    releaseToHeaps(block);
    return moved;
}

void* resizeInSystem(void* block, size_t size)
{
    return mayBeFromHeaps(block) ? moveOutOfHeaps(block, size) : resizeSystemBlock(block, size);
}

} // namespace
} // namespace sd::memsys

using namespace sd::memsys;

int ovRealloc(void* UniqueAddress, size_t size, void* pvfOldBuf, void** ppvfNewBuf, const char* fname, long line)
{
    if (!pvfOldBuf) return ovMalloc(UniqueAddress, size, ppvfNewBuf, fname, line);
    if (size == 0 || !ppvfNewBuf) return SDSTS_INVALID_PARAM;
    const bool on = heapsOn();
    void* resized = on ? resizeInHeaps(UniqueAddress, pvfOldBuf, size) : resizeInSystem(pvfOldBuf, size);
    *ppvfNewBuf = resized;
    if (resized) {
        if (on) reportPendingWarning(size);
        return 0;
    }
    if (!on) noteShortage(size);
    if (sd::loadRelaxed(ovMemThreadHeap.fNetLocalMessage)) reportShortage(static_cast<OV_ULONG_T>(size));
    return SDSTS_NO_MEMORY;
}
