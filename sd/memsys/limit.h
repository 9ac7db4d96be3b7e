// Memory counted against the limit, for the files of this folder.
#pragma once

#include "sd/base/settings.h"
#include "sd/memsys/memsys.h"

namespace sd::memsys {

constexpr char kPolicy = 2; // of every block this folder obtains from the system

// Records the used bytes, plus those that could not be had, as the first argument of the next message.
void noteShortage(OV_ULONGLONG_T wanted);

// Gives back the count of a block that has been released.
void uncount(OV_ULONGLONG_T bytes);
// The same with one try for the lock; what comes of it otherwise leaves it to uncount().
inline Try uncountOnce(OV_ULONGLONG_T bytes)
{
    if (!memoryControl()) return Try::Taken;
    const KEM_PSPINLOCK_T lock = ovMemThreadHeap.SpinLock.pSpinlock;
    if (!lock) [[unlikely]]
        return Try::Held;
    if (const Try first = tryOnce(*lock, currentThread()); first != Try::Taken) [[unlikely]]
        return first;
    noteTaken(kRecordLock);
    addUnlocked(ovMemThreadHeap.UsedMemory, -bytes);
    releaseOnce(*lock);
    noteGiven(kRecordLock);
    return Try::Taken;
}

// Resizes a block of the system allocator's. Its header's policy is cleared by a failing resize, and a block so marked
// can no longer be released; here the old block stays as good as it was, as the callers promise.
inline void* resizeSystemBlock(void* block, size_t bytes)
{
    if (!memoryManagerOn()) return ovMemExtRealloc(block, bytes);
    OV_ALLOCMEMBLKHDR_T* header = static_cast<OV_ALLOCMEMBLKHDR_T*>(block) - 1;
    const char policy = header->policy;
    void* resized = ovMemExtRealloc(block, bytes);
    if (!resized) header->policy = policy;
    return resized;
}

// Resizes an external block to `size` bytes for the caller, counted; null leaves block and count as they were. The
// header is not rewritten.
OV_MemAllocExtBlock_T* resizeCounted(OV_MemAllocExtBlock_T* header, OV_ULONGLONG_T size);

} // namespace sd::memsys
