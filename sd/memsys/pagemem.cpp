// Tracked aligned memory, charged against the memory limit, and pages mapped straight from the system.
//
// A tracked block has an item in one of the buckets of MemoryControlAlignedArray; buckets, UsedAlignedMemory and its
// marks change under the record's lock (6001). The limit is tested before the lock is taken, so concurrent requests may
// pass it together. Without memory control nothing is tracked.
//
// A mapping begins with a prefix whose first word is the mapping's length; the caller's pointer stands behind it:
//
//     [ length 8 ][ 56 ][ data ...        page-aligned, length is a whole number of pages
//
// When mappings are switched off, the same calls serve tracked aligned memory.

#include <sys/mman.h>
#include <unistd.h>

#include "sd/base/blocks.h"
#include "sd/base/outcome.h"
#include "sd/base/settings.h"
#include "sd/memsys/memsys.h"

namespace {

using sd::fail;
using sd::finish;
using sd::loadRelaxed;
using sd::storeRelaxed;
using sd::memsys::kSource;
using sd::memsys::Locked;

constexpr long kItemAllocLine = 3679;
constexpr long kItemFreeLine = 3812;

// ---- Tracking

OV_MemAlignedItem_T*& bucketOf(const void* block)
{
    return ovMemThreadHeap
        .MemoryControlAlignedArray[(reinterpret_cast<uintptr_t>(block) >> 3) % OV_MEM_ALIGNED_BUCKETS];
}

// Deliberate: only the low 32 bits count, with their sign, so 2 GiB and more are charged as the wrapped value.
constexpr int64_t chargedBytes(int64_t blocks)
{
    return static_cast<int32_t>(sd::blockBytes32(static_cast<uint64_t>(blocks)));
}
static_assert(chargedBytes(2) == 16384 && chargedBytes(1 << 18) == INT32_MIN && chargedBytes(1 << 19) == 0);

// Deliberate: the lock is taken under an address on the caller's own stack, not under its thread id.
KEM_THDID_T stackRequester(const void* onStack)
{
    return reinterpret_cast<KEM_THDID_T>(onStack) >> 1;
}

void report(MemoryMessage kind, OV_ULONGLONG_T used, int64_t bytes)
{
    storeRelaxed(ovMemThreadHeap.MemMessageUsedMemory, static_cast<OV_ULONG_T>(used));
    ovMemSendMessage(kind, static_cast<int>(bytes));
}

// Whether the limit allows that many bytes more; reports the shortage, or that the limit is near.
bool withinLimit(int64_t bytes)
{
    const OV_ULONGLONG_T limit = loadRelaxed(ovMemThreadHeap.MemoryLimit);
    if (limit == 0) return true;
    const OV_ULONGLONG_T used = sd::memsys::totalUsed();
    const OV_ULONGLONG_T wanted = used + static_cast<OV_ULONGLONG_T>(bytes);
    if (limit < wanted) {
        report(memmsg_error, used, bytes);
        return false;
    }
    if (loadRelaxed(ovMemThreadHeap.MemMessage) == memmsg_noerror && sd::memsys::warningLevel() < wanted)
        report(memmsg_warning, wanted, bytes);
    return true;
}

void track(OV_MemAlignedItem_T& item)
{
    OV_MemThreadHeap_T& record = ovMemThreadHeap;
    const char onStack = 0;
    const Locked locked(record.SpinLock, stackRequester(&onStack));
    OV_MemAlignedItem_T*& bucket = bucketOf(item.block);
    item.next = bucket;
    bucket = &item;
    const OV_ULONGLONG_T aligned = loadRelaxed(record.UsedAlignedMemory) + item.size;
    storeRelaxed(record.UsedAlignedMemory, aligned);
    sd::memsys::raiseMarks(record.MaxUsedAlignedMarkMemory, record.MaxUsedAlignedMemory, aligned);
    sd::memsys::raiseMarks(record.MaxTotalUsedMarkMemory, record.MaxTotalUsedMemory, sd::memsys::totalUsed());
}

// Takes the block's item off its bucket; null when it has none.
OV_MemAlignedItem_T* untrack(const void* block)
{
    const char onStack = 0;
    const Locked locked(ovMemThreadHeap.SpinLock, stackRequester(&onStack));
    OV_MemAlignedItem_T** link = &bucketOf(block);
    while (*link && (*link)->block != block) link = &(*link)->next;
    OV_MemAlignedItem_T* const item = *link;
    if (!item) return nullptr;
    *link = item->next;
    storeRelaxed(ovMemThreadHeap.UsedAlignedMemory, loadRelaxed(ovMemThreadHeap.UsedAlignedMemory) - item->size);
    return item;
}

// Tracks a block just made; one that cannot be tracked is freed and its place cleared.
KEM_STS_T trackNew(KEM_PSDCTX_T ctx, KEM_SIZE_T blocks, void*& block)
{
    const KEM_STS_T sts = ovMemAlignedIncCounter(block, static_cast<int64_t>(blocks));
    if (sts == 0) return 0;
    KemSdAlignedMemFree(nullptr, block);
    block = nullptr;
    return finish(ctx, fail(sts));
}

// ---- Mapped pages

constexpr size_t kPrefix = 64;

// Whole pages for the data and its prefix; 0 when that is beyond 64 bits.
size_t mappingLength(size_t size)
{
    const auto page = static_cast<size_t>(getpagesize());
    size_t rounded;
    if (__builtin_add_overflow(size, page - 1 + kPrefix, &rounded)) return 0;
    return rounded / page * page;
}

char* mappingOf(void* ptr)
{
    return static_cast<char*>(ptr) - kPrefix;
}

size_t& lengthIn(char* mapping)
{
    return *reinterpret_cast<size_t*>(mapping);
}

// The caller's pointer into a mapping of that length.
void* handOut(void* mapping, size_t length)
{
    lengthIn(static_cast<char*>(mapping)) = length;
    return static_cast<char*>(mapping) + kPrefix;
}

// Where ovMprotect works, an earlier one may have left the prefix unreadable. Its page is only ever widened here, so
// that no other thread loses access meanwhile.
bool openPrefix(char* mapping)
{
    if (!sd::protectionOn()) return true;
    return mprotect(mapping, static_cast<size_t>(getpagesize()), PROT_READ | PROT_WRITE) == 0;
}

// The block count of a byte size when mappings are off; false when it has more than 32 bits.
bool blockCount(size_t size, KEM_SIZE_T& blocks)
{
    blocks = sd::blocksForBytes(size);
    return size <= size_t{UINT32_MAX} << sd::kBlockShift;
}

KEM_STS_T refuse(void** ppBuf, KEM_STS_T sts)
{
    *ppBuf = nullptr;
    return sts;
}

} // namespace

int ovMemAlignedIncCounter(void* block, int64_t size)
{
    if (!sd::memsys::memoryControl()) return 0;
    const int64_t bytes = chargedBytes(size);
    if (!withinLimit(bytes)) return SDSTS_ALIGNED_ALLOC;
    void* place = nullptr;
    if (ovMalloc(nullptr, sizeof(OV_MemAlignedItem_T), &place, kSource, kItemAllocLine) != 0)
        return SDSTS_ALIGNED_ALLOC;
    auto* const item = static_cast<OV_MemAlignedItem_T*>(place);
    *item = {static_cast<OV_ULONGLONG_T>(bytes), block, nullptr};
    track(*item);
    return 0;
}

void ovMemAlignedDecCounter(void* block)
{
    if (!block || !sd::memsys::memoryControl()) return;
    if (OV_MemAlignedItem_T* const item = untrack(block)) ovFree(item, kSource, kItemFreeLine);
}

KEM_FUNC_M KemSdAlignedMemAllocWrap(KEM_PSDCTX_T pSdCtxp, KEM_SIZE_T sizeRequestBlocks, KEM_PPVOID_T ppvBuf)
{
    const KEM_STS_T sts = KemSdAlignedMemAlloc(pSdCtxp, sizeRequestBlocks, ppvBuf);
    if (sts != 0) {
        ovMemSendErrorMessage(static_cast<long>(sizeRequestBlocks));
        return sts;
    }
    return trackNew(pSdCtxp, sizeRequestBlocks, *ppvBuf);
}

KEM_FUNC_M KemSdAlignedMemReallocWrap(KEM_PSDCTX_T pSdCtxp, KEM_SIZE_T oldBlocks, KEM_SIZE_T newBlocks,
                                      KEM_PPVOID_T ppvBuf)
{
    // Deliberate: the old block stays untracked when the reallocation fails.
    if (ppvBuf) ovMemAlignedDecCounter(*ppvBuf);
    const KEM_STS_T sts = KemSdAlignedMemRealloc(pSdCtxp, oldBlocks, newBlocks, ppvBuf);
    if (sts != 0) {
        ovMemSendErrorMessage(static_cast<long>(newBlocks));
        return sts;
    }
    return trackNew(pSdCtxp, newBlocks, *ppvBuf);
}

KEM_FUNC_M KemSdAlignedMemFreeWrap(KEM_PSDCTX_T pSdCtxp, KEM_PVOID_T pvBuf)
{
    ovMemAlignedDecCounter(pvBuf);
    return KemSdAlignedMemFree(pSdCtxp, pvBuf);
}

int ovMmap(void** ppBuf, size_t size, const char*, long)
{
    if (!ppBuf) return SDSTS_INVALID_PARAM;
    if (sd::mappingOff()) {
        KEM_SIZE_T blocks;
        if (!blockCount(size, blocks)) return refuse(ppBuf, SDSTS_MMAP_FAILED);
        return KemSdAlignedMemAllocWrap(nullptr, blocks, ppBuf);
    }
    const size_t length = mappingLength(size);
    if (length == 0) return refuse(ppBuf, SDSTS_MMAP_FAILED);
    void* const mapping = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED) return refuse(ppBuf, SDSTS_MMAP_FAILED);
    *ppBuf = handOut(mapping, length);
    return 0;
}

int ovMremap(void* pOldBuf, size_t aOldSize, void** ppBuf, size_t size, const char* fname, long line)
{
    if (!ppBuf) return SDSTS_INVALID_PARAM;
    if (sd::mappingOff()) {
        KEM_SIZE_T blocks;
        if (!blockCount(size, blocks)) return SDSTS_MREMAP_FAILED;
        // Deliberate: the old block is the one at ppBuf; pOldBuf is not looked at.
        return KemSdAlignedMemReallocWrap(nullptr, sd::blocksForBytes(aOldSize), blocks, ppBuf);
    }
    if (!pOldBuf) return ovMmap(ppBuf, size, fname, line);
    const size_t length = mappingLength(size);
    if (length == 0) return refuse(ppBuf, SDSTS_MREMAP_FAILED);
    char* const old = mappingOf(pOldBuf);
    void* const mapping = mremap(old, lengthIn(old), length, MREMAP_MAYMOVE);
    if (mapping == MAP_FAILED) return refuse(ppBuf, SDSTS_MREMAP_FAILED);
    *ppBuf = handOut(mapping, length);
    return 0;
}

int ovMunmap(void* ptr, const char*, long)
{
    if (!ptr) return 0;
    if (sd::mappingOff()) return KemSdAlignedMemFreeWrap(nullptr, ptr);
    char* const mapping = mappingOf(ptr);
    if (!openPrefix(mapping)) return SDSTS_MUNMAP_FAILED;
    return munmap(mapping, lengthIn(mapping)) == 0 ? 0 : SDSTS_MUNMAP_FAILED;
}

int ovMprotect(void* ptr, int prot, const char*, long)
{
    if (!ptr || sd::mappingOff() || !sd::protectionOn()) return 0;
    char* const mapping = mappingOf(ptr);
    if (!openPrefix(mapping)) return SDSTS_MPROTECT_FAILED;
    return mprotect(mapping, lengthIn(mapping), prot) == 0 ? 0 : SDSTS_MPROTECT_FAILED;
}
