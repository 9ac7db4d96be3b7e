// The memory limit: what is obtained from the system on behalf of the thread heaps is counted in UsedMemory, refused
// beyond MemoryLimit, and noted for a warning above 90 % of it.
//
// The counters change under lock 6001. The system allocator is never called under that lock: a block is obtained first
// and counted then, a refused one is given back afterwards.

#include "sd/memsys/limit.h"

namespace sd::memsys {
namespace {

// UsedMemory and the total as they stand once a change is counted. Under 6001.
struct Figures {
    OV_ULONGLONG_T used;
    OV_ULONGLONG_T total;
};

Figures countChange(OV_ULONGLONG_T bytes)
{
    const OV_ULONGLONG_T used = addUnlocked(ovMemThreadHeap.UsedMemory, bytes) + bytes;
    return {used, used + loadRelaxed(ovMemThreadHeap.UsedAlignedMemory)};
}

void noteEvent(OV_ULONGLONG_T total)
{
    storeRelaxed(ovMemThreadHeap.MemMessageUsedMemory, static_cast<OV_ULONG_T>(total));
}

// Records the refused total and takes the change back.
void refuse(OV_ULONGLONG_T bytes, Figures now)
{
    noteEvent(now.total);
    addUnlocked(ovMemThreadHeap.UsedMemory, -bytes);
}

bool beyondLimit(Figures now) { return ovMemThreadHeap.MemoryLimit != 0 && now.total > ovMemThreadHeap.MemoryLimit; }

void noteWarning(Figures now)
{
    if (ovMemThreadHeap.MemoryLimit == 0 || loadRelaxed(ovMemThreadHeap.MemMessage) != memmsg_noerror) return;
    if (now.total <= warningLevel()) return;
    noteEvent(now.total);
    storeRelaxed(ovMemThreadHeap.MemMessage, memmsg_warning);
}

void raiseUsedMarks(Figures now)
{
    raiseMarks(ovMemThreadHeap.MaxUsedMarkMemory, ovMemThreadHeap.MaxUsedMemory, now.used);
    raiseMarks(ovMemThreadHeap.MaxTotalUsedMarkMemory, ovMemThreadHeap.MaxTotalUsedMemory, now.total);
}

// Counts a block that the system gave; false when it must go back.
bool countObtained(OV_ULONGLONG_T bytes)
{
    Locked record(ovMemThreadHeap.SpinLock);
    const Figures now = countChange(bytes);
    if (beyondLimit(now)) [[unlikely]] {
        refuse(bytes, now);
        return false;
    }
    noteWarning(now);
    raiseUsedMarks(now);
    return true;
}

// The system gave nothing.
void noteNothingObtained()
{
    Locked record(ovMemThreadHeap.SpinLock);
    const Figures now = countChange(0);
    noteEvent(now.total);
    raiseUsedMarks(now);
}

} // namespace

void noteShortage(OV_ULONGLONG_T wanted) { noteEvent(totalUsed() + wanted); }

void uncount(OV_ULONGLONG_T bytes)
{
    if (!memoryControl()) return;
    Locked record(ovMemThreadHeap.SpinLock);
    addUnlocked(ovMemThreadHeap.UsedMemory, -bytes);
}

OV_MemAllocExtBlock_T* resizeCounted(OV_MemAllocExtBlock_T* header, OV_ULONGLONG_T size)
{
    const OV_ULONGLONG_T grows = size - header->size; // wraps when it shrinks, and so does the sum
    if (!memoryControl()) return static_cast<OV_MemAllocExtBlock_T*>(resizeSystemBlock(header, size + kExternalHeader));
    {
        Locked record(ovMemThreadHeap.SpinLock);
        const Figures now = countChange(grows);
        if (beyondLimit(now)) {
            refuse(grows, now);
            return nullptr;
        }
    }
    void* resized = resizeSystemBlock(header, size + kExternalHeader);
    Locked record(ovMemThreadHeap.SpinLock);
    const Figures now = countChange(0);
    if (resized)
        noteWarning(now);
    else
        refuse(grows, now);
    raiseUsedMarks(countChange(0));
    return static_cast<OV_MemAllocExtBlock_T*>(resized);
}

} // namespace sd::memsys

using namespace sd::memsys;

void* ovMemExtLockMalloc(long size)
{
    const auto bytes = static_cast<OV_ULONGLONG_T>(size);
    void* block = ovMemExtMalloc(bytes, kPolicy);
    if (!memoryControl()) return block;
    if (!block) [[unlikely]] {
        noteNothingObtained();
        return nullptr;
    }
    if (!countObtained(bytes)) [[unlikely]] {
        ovMemExtFree(block);
        return nullptr;
    }
    return block;
}
