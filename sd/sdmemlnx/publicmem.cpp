// The public, context-reporting memory calls: heap memory through the server-wide entry points, page-aligned and locked
// memory from the system, clearing and copying, and the pool calls this platform does not offer. No locks, no state.

#include <sys/mman.h>

#include <kemsd/memory.h>
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "sd/base/blocks.h"
#include "sd/base/outcome.h"

namespace {

using sd::blockBytes32;
using sd::fail;
using sd::failErrno;
using sd::finish;
using sd::ok;
using sd::Outcome;

constexpr const char* kSource = "sd/sdmemlnx";
constexpr long kReallocLine = 283;

constexpr KEM_SIZE_T kMostBlocks = SIZE_MAX >> sd::kBlockShift;

Outcome lockFailure()
{
    return failErrno(errno == EPERM ? SDSTS_MEMLOCK_PRIVILEGE : SDSTS_MEMLOCK_FAILED);
}

Outcome allocateAligned(KEM_SIZE_T blocks, void*& block)
{
    block = nullptr;
    if (blocks > kMostBlocks) return fail(SDSTS_ALIGNED_ALLOC, ENOMEM);
    block = valloc(blocks << sd::kBlockShift);
    return block ? ok() : failErrno(SDSTS_ALIGNED_ALLOC);
}

Outcome allocateLocked(KEM_SIZE_T blocks, void*& block)
{
    const size_t bytes = blockBytes32(blocks);
    block = valloc(bytes);
    if (!block) return failErrno(SDSTS_PHYSMEM_ALLOC);
    if (mlock(block, bytes) == 0) return ok();
    const Outcome refused = lockFailure();
    free(block);
    block = nullptr;
    return refused;
}

Outcome release(void* block)
{
    if (!block) return fail(SDSTS_INVALID_PARAM);
    free(block);
    return ok();
}

// Deliberate: the old block's size is formed in 32 bits.
void copyBlocks(void* to, KEM_SIZE_T toBytes, const void* from, KEM_SIZE_T fromBlocks)
{
    if (from) memcpy(to, from, std::min<KEM_SIZE_T>(blockBytes32(fromBlocks), toBytes));
}

Outcome unsupported()
{
    return fail(SDSTS_NOT_SUPPORTED);
}

Outcome heapResult(const void* block, KEM_STS_T sts)
{
    return fail(block ? sts : SDSTS_NO_MEMORY);
}

} // namespace

KEM_FUNC_M KemSdMemInit(KEM_PSDCTX_T pSdCtx)
{
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdMemTerm(KEM_PSDCTX_T pSdCtx)
{
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdMemPoolInit(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T, KEM_ULONG_T)
{
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdMemPoolTerm(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T)
{
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdMemPoolFixedInit(KEM_PSDCTX_T pSdCtx, KEM_USHORT_T, KEM_ULONG_T, KEM_PVOID_T)
{
    return finish(pSdCtx, unsupported());
}

KEM_FUNC_M KemSdMemPoolFixedTerm(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T)
{
    return finish(pSdCtx, unsupported());
}

KEM_FUNC_M KemSdMemFixedAlloc(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T, KEM_PPVOID_T)
{
    return finish(pSdCtx, unsupported());
}

KEM_FUNC_M KemSdMemFixedFree(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T)
{
    return finish(pSdCtx, unsupported());
}

KEM_FUNC_M KemSdIsMemPageLocking(KEM_PSDCTX_T pSdCtx, KEM_PPVOID_T, KEM_PBOOL_T pbIsAvailable)
{
    if (!pbIsAvailable) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    *pbIsAvailable = FALSE;
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdMemAlloc(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T, KEM_SIZE_T sizeRequest, KEM_PPVOID_T ppvBuf,
                         const char* fname, long line)
{
    if (!ppvBuf || sizeRequest == 0) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    const KEM_STS_T sts = ovMalloc(nullptr, sizeRequest, ppvBuf, fname, line);
    return finish(pSdCtx, heapResult(*ppvBuf, sts));
}

KEM_FUNC_M KemSdMemAllocUsingPolicy(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T, KEM_SIZE_T sizeRequest, KEM_PPVOID_T ppvBuf,
                                    char policy, const char* fname, long line)
{
    if (!ppvBuf || sizeRequest == 0) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    const KEM_STS_T sts = ovMallocPolicy(nullptr, sizeRequest, ppvBuf, policy, fname, line);
    return finish(pSdCtx, heapResult(*ppvBuf, sts));
}

KEM_FUNC_M KemSdMemRealloc(KEM_PSDCTX_T pSdCtx, KEM_SIZE_T sizeNew, KEM_PVOID_T pvOldBuf, KEM_PPVOID_T ppvNewBuf,
                           const char* fname, long line)
{
    if (!pvOldBuf) return KemSdMemAlloc(pSdCtx, nullptr, sizeNew, ppvNewBuf, fname, line);
    if (!ppvNewBuf || sizeNew == 0) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    void* resized = nullptr;
    // Deliberate: this call's own source position, not the caller's.
    const KEM_STS_T sts = ovRealloc(nullptr, sizeNew, pvOldBuf, &resized, kSource, kReallocLine);
    if (resized) *ppvNewBuf = resized;
    return finish(pSdCtx, heapResult(resized, sts));
}

KEM_FUNC_M KemSdMemFree(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T pvBuf, const char* fname, long line)
{
    if (!pvBuf) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    ovFree(pvBuf, fname, line);
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdMemClear(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T pvBuf, KEM_SIZE_T sizeCount)
{
    if (!pvBuf) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    memset(pvBuf, 0, sizeCount);
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdMemCopy(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T pvDest, const void* pvSrc, KEM_SIZE_T sizeCopy)
{
    if (!pvDest || !pvSrc) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    memmove(pvDest, pvSrc, sizeCopy);
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdAlignedMemAlloc(KEM_PSDCTX_T pSdCtx, KEM_SIZE_T sizeRequestBlocks, KEM_PPVOID_T ppvBuf)
{
    if (!ppvBuf) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    return finish(pSdCtx, allocateAligned(sizeRequestBlocks, *ppvBuf));
}

KEM_FUNC_M KemSdAlignedMemRealloc(KEM_PSDCTX_T pSdCtx, KEM_SIZE_T oldBlocks, KEM_SIZE_T newBlocks, KEM_PPVOID_T ppvBuf)
{
    if (!ppvBuf) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    void* moved;
    const Outcome allocated = allocateAligned(newBlocks, moved);
    if (allocated.failed()) return finish(pSdCtx, allocated);
    copyBlocks(moved, newBlocks << sd::kBlockShift, *ppvBuf, oldBlocks);
    const Outcome released = release(*ppvBuf);
    if (released.failed())
        free(moved);
    else
        *ppvBuf = moved;
    return finish(pSdCtx, released);
}

KEM_FUNC_M KemSdAlignedMemFree(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T pvBuf)
{
    return finish(pSdCtx, release(pvBuf));
}

KEM_FUNC_M KemSdPhysMemAlloc(KEM_PSDCTX_T pSdCtx, KEM_SIZE_T sizeRequestBlocks, KEM_PPVOID_T ppvBuf)
{
    if (!ppvBuf) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    return finish(pSdCtx, allocateLocked(sizeRequestBlocks, *ppvBuf));
}

KEM_FUNC_M KemSdPhysMemRealloc(KEM_PSDCTX_T pSdCtx, KEM_SIZE_T oldBlocks, KEM_SIZE_T newBlocks, KEM_PPVOID_T ppvBuf)
{
    if (!ppvBuf) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    void* moved;
    const Outcome allocated = allocateLocked(newBlocks, moved);
    if (allocated.failed()) return finish(pSdCtx, allocated);
    copyBlocks(moved, blockBytes32(newBlocks), *ppvBuf, oldBlocks);
    const Outcome released = release(*ppvBuf);
    // Deliberate: the new block is not freed when there was no old one to free.
    if (!released.failed()) *ppvBuf = moved;
    return finish(pSdCtx, released);
}

KEM_FUNC_M KemSdPhysMemFree(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T pvBuf)
{
    return finish(pSdCtx, release(pvBuf));
}

KEM_FUNC_M KemSdMemLock(KEM_PSDCTX_T pSdCtx, KEM_ULONG_T ulBlocksToLock, KEM_PVOID_T pvBuf)
{
    if (!pvBuf || ulBlocksToLock == 0) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    return finish(pSdCtx, mlock(pvBuf, blockBytes32(ulBlocksToLock)) == 0 ? ok() : lockFailure());
}

KEM_FUNC_M KemSdMemUnlock(KEM_PSDCTX_T pSdCtx, KEM_ULONG_T ulBlocksToUnlock, KEM_PVOID_T pvBuf)
{
    if (!pvBuf || ulBlocksToUnlock == 0) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    const bool unlocked = munlock(pvBuf, blockBytes32(ulBlocksToUnlock)) == 0;
    return finish(pSdCtx, unlocked ? ok() : failErrno(SDSTS_MEMUNLOCK_FAILED));
}
