// What the two concerns of a segment share: how to tell that it is attached, and its semaphores.
#pragma once

#include <kemsd/ipc.h>

#include "sd/base/atomic.h"

namespace sd::shmem {

constexpr uintptr_t kNotAttachedYet = 0xdeadbeef;

// Acquire: pairs with the release store of KemSetSharedMemSegBuffer, so that whoever sees the address sees what the
// creation stored before.
inline uintptr_t address(const OV_SHAREDMEM_SEG_T& segment)
{
    return reinterpret_cast<uintptr_t>(loadAcquire(segment.buffer));
}

inline bool isBeingAttached(const OV_SHAREDMEM_SEG_T& segment) { return address(segment) == kNotAttachedYet; }

inline bool isAttached(const OV_SHAREDMEM_SEG_T& segment)
{
    const uintptr_t at = address(segment);
    return at != 0 && at != kNotAttachedYet;
}

inline bool hasSlot(const OV_SHAREDMEM_SEG_T* segment, KEM_LONG_T slot)
{
    return segment && slot >= 0 && slot < segment->segSize;
}

inline KEM_STS_T request(KEM_PSDCTX_T ctx, const OV_SHAREDMEM_SEG_T& segment, KEM_USHORT_T semaphore)
{
    return KemSdShSemSetRequest(ctx, semaphore, segment.pShSemSet, segment.lShmTimeOut);
}

inline KEM_STS_T post(KEM_PSDCTX_T ctx, const OV_SHAREDMEM_SEG_T& segment, KEM_USHORT_T semaphore)
{
    return KemSdShSemSetClear(ctx, semaphore, segment.pShSemSet);
}

} // namespace sd::shmem
