// Segments: the descriptors a process keeps in a list, their semaphore sets and shared memory, and the slots that the
// server hands out.
//
// Slots are handed out under semaphore 0 by any threads; the list and the rest of a descriptor are guarded by the
// caller, who publishes a descriptor's attached address last. These calls never write the context themselves; the
// semaphore and memory calls do.

#include <kemsd/ipc.h>
#include <kemsd/memory.h>
#include <bit>
#include <cstring>

#include "sd/base/atomic.h"
#include "sd/shmem/shmem.h"

namespace {

using sd::loadRelaxed;
using sd::storeRelaxed;
using sd::storeRelease;
using sd::shmem::hasSlot;
using sd::shmem::isAttached;
using sd::shmem::isBeingAttached;
using sd::shmem::kNotAttachedYet;
using sd::shmem::post;
using sd::shmem::request;

constexpr const char* kSource = "sd/shmem";
constexpr size_t kSharedBytes = SHMEM_SEG_SIZE * SHMEM_CHUNK_SIZE * 2;
constexpr KEM_USHORT_T kSemaphores = SHMEM_SEG_SIZE * 4 + 1;
static_assert(kSharedBytes == 20480 && kSemaphores == 21);

// The semaphore that guards the bitmap of slots.
constexpr KEM_USHORT_T kSlotMap = 0;

// ---- Finding

OV_SHAREDMEM_SEG_LIST_T* findEntry(OV_SHAREDMEM_SEG_LIST_T* list, const char* name)
{
    while (list && strcmp(list->shMemSeg.name, name) != 0) list = list->next;
    return list;
}

void prepare(OV_SHAREDMEM_SEG_T& segment, KEM_PROCID_T masterPid, KEM_IPCKEY_T masterKey)
{
    segment.shmemHdl = 0;
    segment.masterPID = masterPid;
    segment.masteripcKey = masterKey;
    storeRelaxed(segment.buffer, reinterpret_cast<char*>(kNotAttachedYet));
}

bool isMadeFor(const OV_SHAREDMEM_SEG_T& segment, KEM_PROCID_T masterPid, KEM_IPCKEY_T masterKey)
{
    return segment.masterPID == masterPid && segment.masteripcKey == masterKey;
}

// A client's entry whose server has been started anew: the objects of the old one are of no use.
KEM_STS_T renew(KEM_PSDCTX_T ctx, OV_SHAREDMEM_SEG_T& segment, KEM_PROCID_T masterPid, KEM_IPCKEY_T masterKey)
{
    const KEM_STS_T sts = KemDeleteSingleSharedMemSeg(ctx, &segment);
    if (sts == 0) prepare(segment, masterPid, masterKey);
    return sts;
}

void append(OV_SHAREDMEM_SEG_LIST_T*& list, OV_SHAREDMEM_SEG_LIST_T* entry)
{
    OV_SHAREDMEM_SEG_LIST_T** end = &list;
    while (*end) end = &(*end)->next;
    *end = entry;
}

KEM_STS_T addEntry(KEM_PSDCTX_T ctx, OV_SHAREDMEM_SEG_LIST_T*& list, KEM_PROCID_T masterPid, KEM_IPCKEY_T masterKey,
                   OV_SHAREDMEM_SEG_T*& segment)
{
    void* block = nullptr;
    const KEM_STS_T sts = KemSdMemAlloc(ctx, nullptr, sizeof(OV_SHAREDMEM_SEG_LIST_T), &block, kSource, __LINE__);
    if (sts != 0) return sts;
    memset(block, 0, sizeof(OV_SHAREDMEM_SEG_LIST_T));
    const auto entry = static_cast<OV_SHAREDMEM_SEG_LIST_T*>(block);
    prepare(entry->shMemSeg, masterPid, masterKey);
    append(list, entry);
    segment = &entry->shMemSeg;
    return 0;
}

void raise(KEM_PBOOL_T flag)
{
    if (flag) *flag = TRUE;
}

void lower(KEM_PBOOL_T flag)
{
    if (flag) *flag = FALSE;
}

// ---- Creating

bool isSide(SHMEM_USERTYPE_T type) { return type == SHM_SERVER || type == SHM_CLIENT; }

void reset(OV_SHAREDMEM_SEG_T& segment, const char* name, KEM_LONG_T timeout)
{
    memmove(segment.name, name, strlen(name) + 1); // it may be the descriptor's own
    storeRelaxed(segment.bitmap, 0);
    segment.chunkSize = SHMEM_CHUNK_SIZE;
    segment.segSize = SHMEM_SEG_SIZE;
    segment.lShmTimeOut = timeout;
    memset(segment.chunkRec, 0, sizeof segment.chunkRec);
}

// The slot map and every buffer are free, no data is ready.
KEM_STS_T openSemaphores(KEM_PSDCTX_T ctx, OV_SHAREDMEM_SEG_T& segment, KEM_BIT32_T flags)
{
    KEM_ULONG_T initial[kSemaphores];
    KEM_ULONG_T most[kSemaphores];
    for (unsigned i = 0; i < kSemaphores; ++i) {
        initial[i] = i % 2 == 0;
        most[i] = 1;
    }
    const KEM_STS_T sts = KemSdShSemSetCreate(ctx, segment.name, kSemaphores, flags, initial, most, &segment.pShSemSet);
    // A failure may have left a pointer to a descriptor that is gone.
    if (sts != 0) segment.pShSemSet = nullptr;
    return sts;
}

KEM_STS_T openMemory(KEM_PSDCTX_T ctx, OV_SHAREDMEM_SEG_T& segment, KEM_BIT32_T omode, KEM_BIT32_T imode,
                     KEM_IPCKEY_T& key, char*& buffer)
{
    void* base = nullptr;
    const KEM_STS_T sts =
        KemSdSharedMemAlloc(ctx, segment.name, kSharedBytes, omode, imode, &segment.shmemHdl, &key, &base);
    if (sts == 0) buffer = static_cast<char*>(base);
    if (segment.shmemHdl == -1) segment.shmemHdl = 0;
    return sts;
}

// ---- Deleting

// The set's descriptor goes whatever happens, so that an entry that stays is not released twice.
KEM_STS_T deleteSemaphores(KEM_PSDCTX_T ctx, OV_SHAREDMEM_SEG_T& segment)
{
    KEM_SHSEMSET_T* const set = segment.pShSemSet;
    if (!set) return 0;
    segment.pShSemSet = nullptr;
    return segment.type == SHM_CLIENT ? KemSdMemFree(ctx, set, kSource, __LINE__) : KemSdShSemSetClose(ctx, set);
}

// The id 0 is that of the first segment of a fresh namespace: an attached address tells it from none.
bool hasMemory(const OV_SHAREDMEM_SEG_T& segment) { return segment.shmemHdl != 0 || isAttached(segment); }

KEM_STS_T deleteMemory(KEM_PSDCTX_T ctx, OV_SHAREDMEM_SEG_T& segment)
{
    if (!hasMemory(segment)) return 0;
    const KEM_STS_T sts = KemSdSharedMemFree(ctx, segment.shmemHdl, loadRelaxed(segment.buffer));
    if (sts != 0) return sts;
    segment.shmemHdl = 0;
    storeRelaxed(segment.buffer, nullptr);
    return 0;
}

} // namespace

KEM_STS_T KemFindShareMemSeg(KEM_PSDCTX_T pSdCtx, const char* name, SHMEM_USERTYPE_T type,
                             OV_SHAREDMEM_SEG_LIST_T** pShMemList, KEM_BOOL_T bCreate, KEM_PROCID_T curmasterPID,
                             KEM_IPCKEY_T curmasteripcKey, KEM_PBOOL_T pbToBeCreated, KEM_PBOOL_T pbWait,
                             OV_SHAREDMEM_SEG_T** ppShMemSeg)
{
    if (!name || !pShMemList || !ppShMemSeg) return SDSTS_INVALID_PARAM;
    lower(pbWait);
    lower(pbToBeCreated);
    *ppShMemSeg = nullptr;
    KEM_STS_T sts = 0;
    if (OV_SHAREDMEM_SEG_LIST_T* const entry = findEntry(*pShMemList, name)) {
        OV_SHAREDMEM_SEG_T& segment = entry->shMemSeg;
        if (segment.type != type) return 0;
        *ppShMemSeg = &segment;
        if (pbWait && isBeingAttached(segment)) {
            raise(pbWait);
            return 0;
        }
        if (type == SHM_SERVER || isMadeFor(segment, curmasterPID, curmasteripcKey)) return 0;
        sts = renew(pSdCtx, segment, curmasterPID, curmasteripcKey);
    } else if (!bCreate) {
        return 0;
    } else if (name[0] == 0 && *pShMemList) {
        *ppShMemSeg = &(*pShMemList)->shMemSeg; // Deliberate: an empty name stands for the first entry, as it is.
    } else {
        sts = addEntry(pSdCtx, *pShMemList, curmasterPID, curmasteripcKey, *ppShMemSeg);
    }
    if (sts == 0) raise(pbToBeCreated);
    return sts;
}

KEM_STS_T KemCreateSharedMemSeg(KEM_PSDCTX_T pSdCtx, const char* name, SHMEM_USERTYPE_T type, KEM_BIT32_T omode,
                                KEM_BIT32_T imode, OV_SHAREDMEM_SEG_T* pShMemSeg0, KEM_LONG_T lTimeOut,
                                KEM_IPCKEY_T* pipcKey, char** pBuf)
{
    if (!name || !pShMemSeg0 || !pipcKey || !pBuf) return SDSTS_INVALID_PARAM;
    if (strnlen(name, SHMEM_NAME_MAX) == SHMEM_NAME_MAX || !isSide(type)) return SDSTS_SHMEM_BAD_SEGMENT;
    OV_SHAREDMEM_SEG_T& segment = *pShMemSeg0;
    reset(segment, name, lTimeOut);
    if (const KEM_STS_T sts = openSemaphores(pSdCtx, segment, omode); sts != 0) return sts;
    if (const KEM_STS_T sts = openMemory(pSdCtx, segment, omode, imode, *pipcKey, *pBuf); sts != 0) {
        KemSdShSemSetClose(nullptr, segment.pShSemSet); // the context is to keep the failure
        segment.pShSemSet = nullptr;
        return sts;
    }
    segment.type = type;
    return 0;
}

KEM_STS_T KemDeleteSingleSharedMemSeg(KEM_PSDCTX_T pSdCtx, OV_SHAREDMEM_SEG_T* pShMemEntry)
{
    if (!pShMemEntry) return SDSTS_INVALID_PARAM;
    const KEM_STS_T sts = deleteSemaphores(pSdCtx, *pShMemEntry);
    return sts != 0 ? sts : deleteMemory(pSdCtx, *pShMemEntry);
}

KEM_STS_T KemDeleteSharedMemSeg(KEM_PSDCTX_T pSdCtx, OV_SHAREDMEM_SEG_LIST_T* shMemList)
{
    KEM_STS_T sts = 0;
    OV_SHAREDMEM_SEG_LIST_T* kept = nullptr;
    for (OV_SHAREDMEM_SEG_LIST_T* entry = shMemList; entry;) {
        OV_SHAREDMEM_SEG_LIST_T* const next = entry->next;
        sts = KemDeleteSingleSharedMemSeg(pSdCtx, &entry->shMemSeg);
        if (sts == 0)
            KemSdMemFree(pSdCtx, entry, kSource, __LINE__);
        else
            kept = entry;
        if (kept) kept->next = next;
        entry = next;
    }
    return sts;
}

KEM_STS_T KemGetSharedMemChunk(KEM_PSDCTX_T pSdCtx, OV_SHAREDMEM_SEG_T* pShMem, KEM_PLONG_T pChunkId)
{
    if (!pShMem || !pChunkId) return SDSTS_INVALID_PARAM;
    if (const KEM_STS_T sts = request(pSdCtx, *pShMem, kSlotMap); sts != 0) return sts;
    const uint32_t taken = loadRelaxed(pShMem->bitmap);
    const int slot = std::countr_one(taken);
    const bool found = slot < pShMem->segSize;
    if (found) storeRelaxed(pShMem->bitmap, taken | 1U << slot);
    *pChunkId = found ? slot : -1;
    return post(pSdCtx, *pShMem, kSlotMap);
}

KEM_STS_T KemPutSharedMemChunk(KEM_PSDCTX_T pSdCtx, OV_SHAREDMEM_SEG_T* pShMem, KEM_LONG_T ChunkId)
{
    if (!hasSlot(pShMem, ChunkId)) return SDSTS_INVALID_PARAM;
    if (const KEM_STS_T sts = request(pSdCtx, *pShMem, kSlotMap); sts != 0) return sts;
    const uint32_t taken = loadRelaxed(pShMem->bitmap);
    const uint32_t bit = 1U << ChunkId;
    // Deliberate: the semaphore stays taken. A server that gives back what it never had has lost count.
    if (!(taken & bit)) return SDSTS_SHMEM_CHUNK_FREE;
    storeRelaxed(pShMem->bitmap, taken & ~bit);
    return post(pSdCtx, *pShMem, kSlotMap);
}

void KemSetSharedMemSegBuffer(KEM_PSDCTX_T, OV_SHAREDMEM_SEG_T* pShMemSeg, char* buf)
{
    if (!pShMemSeg) return;
    if (!buf) pShMemSeg->name[0] = 0;
    storeRelease(pShMemSeg->buffer, buf); // publishes what the creation stored: pairs with the loads of address()
}

void KemGetSharedMemSegName(KEM_PSDCTX_T, OV_SHAREDMEM_SEG_T* pShMemSeg, char** pName)
{
    if (pShMemSeg && pName) *pName = pShMemSeg->name;
}
