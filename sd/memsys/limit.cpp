// The memory limit: what is obtained from the system on behalf of the thread heaps is counted in UsedMemory, refused
// beyond MemoryLimit, and noted for a warning above 90 % of it.
//
// The counters change under lock 6001. The system allocator is never called under that lock: a block is obtained first
// and counted then, a refused one is given back afterwards.

#include "sd/memsys/limit.h"

namespace sd::memsys {
namespace {

void raiseUsedMarks()
{
    raiseMarks(ovMemThreadHeap.MaxUsedMarkMemory, ovMemThreadHeap.MaxUsedMemory,
               loadRelaxed(ovMemThreadHeap.UsedMemory));
    raiseMarks(ovMemThreadHeap.MaxTotalUsedMarkMemory, ovMemThreadHeap.MaxTotalUsedMemory, totalUsed());
}

bool beyondLimit() { return ovMemThreadHeap.MemoryLimit != 0 && totalUsed() > ovMemThreadHeap.MemoryLimit; }

void noteWarning()
{
    if (ovMemThreadHeap.MemoryLimit == 0 || loadRelaxed(ovMemThreadHeap.MemMessage) != memmsg_noerror) return;
    if (totalUsed() <= warningLevel()) return;
    noteShortage(0);
    storeRelaxed(ovMemThreadHeap.MemMessage, memmsg_warning);
}

// Counts what the system gave, or notes that it gave nothing; false when the block must go back.
bool countObtained(const void* block, OV_ULONGLONG_T bytes)
{
    Locked record(ovMemThreadHeap.SpinLock);
    if (!block) {
        noteShortage(0);
    } else {
        addUnlocked(ovMemThreadHeap.UsedMemory, bytes);
        if (beyondLimit()) {
            noteShortage(0);
            addUnlocked(ovMemThreadHeap.UsedMemory, -bytes);
            return false;
        }
        noteWarning();
    }
    raiseUsedMarks();
    return true;
}

} // namespace

void noteShortage(OV_ULONGLONG_T wanted)
{
    storeRelaxed(ovMemThreadHeap.MemMessageUsedMemory, static_cast<OV_ULONG_T>(totalUsed() + wanted));
}

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
        addUnlocked(ovMemThreadHeap.UsedMemory, grows);
        if (beyondLimit()) {
            noteShortage(0);
            addUnlocked(ovMemThreadHeap.UsedMemory, -grows);
            return nullptr;
        }
    }
    void* resized = resizeSystemBlock(header, size + kExternalHeader);
    Locked record(ovMemThreadHeap.SpinLock);
    if (resized) {
        noteWarning();
    } else {
        noteShortage(0);
        addUnlocked(ovMemThreadHeap.UsedMemory, -grows);
    }
    raiseUsedMarks();
    return static_cast<OV_MemAllocExtBlock_T*>(resized);
}

} // namespace sd::memsys

using namespace sd::memsys;

void* ovMemExtLockMalloc(long size)
{
    const auto bytes = static_cast<OV_ULONGLONG_T>(size);
    void* block = ovMemExtMalloc(bytes, kPolicy);
    if (!memoryControl()) return block;
    if (!sd::memsys::countObtained(block, bytes)) {
        ovMemExtFree(block);
        return nullptr;
    }
    return block;
}
