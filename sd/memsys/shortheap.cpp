// Short-term heaps: one thread's heaps for one unit of work, in a circle through its context, and the list of the
// larger blocks it took meanwhile. Nothing of a context is locked: only its own thread works on it. Ended heaps are
// kept, as they are, in the pool of spare ones for the next unit of work.
//
// Locks: 6003 around the pool and the count of heaps in use; inside it 6001, only while the pool is emptied. The pool's
// count is read without it first and looked at again under it.
//
// Nothing here keeps a heap beyond its unit of work but the pool. Blocks are not released one by one at the end.

#include <algorithm>

#include "sd/memsys/threadheap.h"

namespace sd::memsys {
namespace {

constexpr long kResizeLine = 5190; // where a larger block that stays one is resized

OV_MemHeapPool_T& pool() { return ovMemThreadHeap.MemShortHeapPool; }

OV_ULONG_T regionBytes() { return ovMemThreadHeap.ShortHeapSize; }

size_t blockArea(const OV_MemHeap_T& heap)
{
    return static_cast<size_t>(heap.HeapHeader.HeapEnd - reinterpret_cast<const char*>(&heap.HeapBuffer));
}

// Links a heap behind the first of a circle, or alone when there is none.
void linkBehind(OV_MemHeap_T* first, OV_MemHeap_T* heap)
{
    if (!first) {
        heap->next = heap->prev = heap;
        return;
    }
    heap->prev = first;
    heap->next = first->next;
    first->next->prev = heap;
    first->next = heap;
}

// ---- The pool and the count of heaps in use: these under 6003

void countInUse(OV_LONG_T change) { addUnlocked(ovMemThreadHeap.NumShortNumHeapsInUsage, change); }

OV_MemHeap_T* unlinkFirst()
{
    OV_MemHeap_T* const heap = pool().MemHeap;
    if (!heap) return nullptr;
    OV_MemHeap_T* const successor = heap->next;
    pool().MemHeap = successor == heap ? nullptr : successor;
    heap->prev->next = successor;
    successor->prev = heap->prev;
    addUnlocked(pool().NumHeaps, -1);
    return heap;
}

void addSpare(OV_MemHeap_T* heap)
{
    linkBehind(pool().MemHeap, heap);
    if (!pool().MemHeap) pool().MemHeap = heap;
    addUnlocked(pool().NumHeaps, 1);
}

// ---- A region for a heap

// The head of the pool, or null when another thread was quicker. Counts the heap in use either way.
OV_MemHeap_T* takeSpare()
{
    const Locked locked(pool().SpinLock);
    countInUse(1);
    return unlinkFirst();
}

void countInUseLocked(OV_LONG_T change)
{
    if (change == 0) return;
    const Locked locked(pool().SpinLock);
    countInUse(change);
}

// A new region, counted in use once when that has not happened yet; null takes back what has.
OV_MemHeap_T* obtainRegion(OV_LONG_T alreadyCounted)
{
    void* region = ovMemExtLockMalloc(static_cast<long>(regionBytes()));
    countInUseLocked((region ? 1 : 0) - alreadyCounted);
    if (region && bucketControl()) countAllocation(regionBytes());
    return static_cast<OV_MemHeap_T*>(region);
}

OV_MemHeap_T* obtainHeap()
{
    if (loadRelaxed(pool().NumHeaps) == 0) return obtainRegion(0);
    OV_MemHeap_T* spare = takeSpare();
    if (!spare) return obtainRegion(1);
    unpoison(&spare->HeapBuffer, blockArea(*spare));
    return spare;
}

// Makes the context's current heap of a region, in front of those it has.
void makeCurrent(OV_THDCTX_T& context, OV_MemHeap_T* region)
{
    ovMemHeapInit(region, FALSE);
    storeRelaxed(region->ThreadHeapId, kShortTermHeap);
    linkBehind(context.MemShortHeap, region);
    context.MemShortHeap = region;
}

// ---- Requests
//
// The common case is a leaf: a pop from the current heap's fast bin, or a cut from its free rest.

bool largerThanHeapsServe(OV_ULONG_T bytes) { return bytes > loadRelaxed(ovMemThreadHeap.MaxAllocBlock); }

void* searchCircle(OV_MemHeap_T* current, OV_ULONG_T capacity)
{
    OV_MemHeap_T* heap = current;
    do {
        if (void* served = memheap::allocate(*heap, capacity)) return served;
        heap = heap->next;
    } while (heap != current);
    return nullptr;
}

[[gnu::noinline]] OV_STS_T reportCounted(OV_ULONG_T bytes)
{
    countAllocation(bytes);
    return 0;
}

// Goes on when the current heap did not serve at once: its bins, the other heaps of the context, a further heap.
[[gnu::noinline]] OV_STS_T requestFromCircle(OV_THDCTX_T& context, OV_ULONG_T bytes, void** block)
{
    const OV_ULONG_T capacity = memheap::capacityFor(bytes);
    void* served = searchCircle(context.MemShortHeap, capacity);
    if (!served) {
        OV_MemHeap_T* further = ovMemGetShortHeap();
        if (!further) {
            *block = nullptr;
            return SDSTS_NO_MEMORY;
        }
        makeCurrent(context, further);
        served = memheap::allocate(*further, capacity);
    }
    *block = served;
    if (served && bucketControl()) countAllocation(bytes);
    return 0; // Deliberate: also when a fresh heap could not serve, which no setting makes it do
}

// Goes on when the fast bin is empty: a leaf again, which as a part of the first would make that keep registers.
[[gnu::noinline]] OV_STS_T requestFromRest(OV_THDCTX_T& context, OV_ULONG_T bytes, void** block)
{
    void* served = memheap::cutFromAbove(*context.MemShortHeap, memheap::capacityFor(bytes));
    if (!served) [[unlikely]]
        return requestFromCircle(context, bytes, block);
    *block = served;
    return bucketControl() ? reportCounted(bytes) : 0;
}

void list(OV_THDCTX_T& context, void* block) { linkShortTerm(context.MemShortExtBlocks, externalHeader(block)); }

// Requests that no heap of the context serves: wrong ones, larger ones, and those of a context without a heap.
[[gnu::noinline]] OV_STS_T requestElsewhere(OV_THDCTX_T* context, OV_LONG_T size, void** block, const char* fname,
                                            long line)
{
    if (!context || size < 1 || !block) return SDSTS_INVALID_PARAM;
    const auto bytes = static_cast<OV_ULONG_T>(size);
    if (!largerThanHeapsServe(bytes)) {
        *block = nullptr;
        return SDSTS_NO_MEMORY;
    }
    // While the thread heaps are off a block comes as the system gives it, without the header that would link it, and
    // stays the caller's to release.
    const bool linkable = heapsOn();
    const OV_STS_T sts = ovMalloc(context, bytes, block, fname, line);
    if (sts == 0 && linkable) list(*context, *block);
    return sts;
}

// ---- Resizing

// Once the thread heaps are off, ovFree no longer knows these blocks, so their own release is used in every state.
void releaseOld(void* block)
{
    if (!deallocationOff() && !fatalExceptionDeclared()) releaseToHeaps(block);
}

struct Caller {
    const char* fname;
    long line;
};

OV_STS_T move(OV_THDCTX_T& context, OV_LONG_T size, void* block, OV_ULONG_T capacity, void** newblock, Caller caller)
{
    const OV_STS_T sts = ovMemShortHeapMalloc(&context, size, newblock, caller.fname, caller.line);
    if (sts != 0) return sts;
    if (!*newblock) return SDSTS_NO_MEMORY;
    KemSdMemCopy(nullptr, *newblock, block, std::min(static_cast<OV_ULONG_T>(size), capacity));
    releaseOld(block);
    return 0;
}

// A larger block, or one of the system's from a time when the thread heaps were off.
OV_STS_T resizeOutside(OV_THDCTX_T& context, OV_LONG_T size, void* block, void** newblock, Caller caller)
{
    const auto bytes = static_cast<OV_ULONG_T>(size);
    const bool ofSystem = isSystemBlock(block, markerOf(block));
    if (ofSystem || (heapsOn() && largerThanHeapsServe(bytes))) {
        const OV_STS_T sts = ovRealloc(&context, bytes, block, newblock, kSource, kResizeLine);
        if (sts == 0 && !ofSystem) list(context, *newblock);
        return sts;
    }
    // Deliberate: the size's low 32 bits; no block of these calls is larger.
    return move(context, size, block, static_cast<OV_ULONG_T>(externalHeader(block)->size), newblock, caller);
}

OV_STS_T resizeInside(OV_THDCTX_T& context, OV_LONG_T size, void* block, void** newblock, Caller caller)
{
    const auto bytes = static_cast<OV_ULONG_T>(size);
    OV_MemHeap_T* heap = memheap::blockOf(block)->MemHeap;
    const OV_ULONG_T capacity = memheap::capacityOf(memheap::blockOf(block));
    if (loadRelaxed(heap->ThreadHeapId) == kShortTermHeap && !largerThanHeapsServe(bytes)) {
        if (void* resized = ovMemHeapRealloc(heap, block, bytes)) {
            *newblock = resized;
            if (bucketControl()) {
                countRelease(capacity);
                countAllocation(bytes);
            }
            return 0;
        }
    }
    return move(context, size, block, capacity, newblock, caller);
}

// ---- The end of a unit of work

// The lock is not held while a region goes, unless the pool is being emptied.
void releaseRegion(OV_MemHeap_T* heap)
{
    uncount(regionBytes());
    ovMemExtFree(heap);
}

bool poolHasRoom() { return loadRelaxed(pool().NumHeaps) < loadRelaxed(ovMemThreadHeap.MaxShortMemoryPoolSize); }

// Counts the heap out of use and keeps it if there is room; false when its region must go.
bool keepSpare(OV_MemHeap_T* heap)
{
    // Until it serves again nobody may touch the blocks of the unit of work that ended.
    poison(&heap->HeapBuffer, blockArea(*heap));
    const Locked locked(pool().SpinLock);
    countInUse(-1);
    if (!poolHasRoom()) return false;
    addSpare(heap);
    return true;
}

void endHeap(OV_MemHeap_T* heap)
{
    if (loadRelaxed(ovMemThreadHeap.MaxShortMemoryPoolSize) != 0 && poolHasRoom()) {
        if (!keepSpare(heap)) releaseRegion(heap);
    } else {
        releaseRegion(heap);
        countInUseLocked(-1);
    }
    // Deliberate: a heap that is kept counts as released, although taking it from the pool counts nothing.
    if (bucketControl()) countRelease(regionBytes());
}

void endHeaps(OV_MemHeap_T* first)
{
    OV_MemHeap_T* heap = first;
    do {
        OV_MemHeap_T* const successor = heap->next;
        endHeap(heap);
        heap = successor;
    } while (heap != first);
}

bool poolIsToBeEmptied()
{
    return loadRelaxed(ovMemThreadHeap.NumShortNumHeapsInUsage) == 0 &&
           loadRelaxed(pool().NumHeaps) > loadRelaxed(ovMemThreadHeap.LimitShortHeapsForRemove);
}

OV_LONG_T emptyPool()
{
    OV_LONG_T released = 0;
    const Locked locked(pool().SpinLock);
    if (!poolIsToBeEmptied()) return 0; // a unit of work has begun or ended meanwhile
    for (; OV_MemHeap_T* heap = unlinkFirst(); ++released) releaseRegion(heap);
    return released;
}

void trimPool()
{
    if (!poolIsToBeEmptied()) return;
    OV_LONG_T released = emptyPool();
    if (!bucketControl()) return;
    for (; released > 0; --released) countRelease(regionBytes());
}

} // namespace
} // namespace sd::memsys

using namespace sd::memsys;

OV_MemHeap_T* ovMemGetShortHeap(void)
{
    OV_MemHeap_T* region = obtainHeap();
    if (!region) {
        noteShortage(regionBytes());
        ovMemSendMessage(memmsg_error, static_cast<int>(regionBytes()));
        return nullptr;
    }
    reportPendingWarning(regionBytes());
    return region;
}

void ovMemShortHeapInit(OV_THDCTX_T* tctxp)
{
    if (!tctxp || tctxp->MemShortHeap || !ovMemThreadHeap.ShortMemoryOn || !heapsOn()) return;
    OV_MemHeap_T* region = ovMemGetShortHeap();
    if (!region) return;
    makeCurrent(*tctxp, region);
    tctxp->MemShortExtBlocks = nullptr;
    tctxp->MemShortDisableFree = FALSE;
}

OV_BOOL_T ovMemShortCheckStatus(OV_THDCTX_T* tctxp) { return tctxp && tctxp->MemShortHeap; }

OV_STS_T ovMemShortHeapMalloc(OV_THDCTX_T* tctxp, OV_LONG_T size, void** block, const char* fname, long line)
{
    const auto bytes = static_cast<OV_ULONG_T>(size);
    if (!tctxp || !block || bytes - 1 >= sd::loadRelaxed(ovMemThreadHeap.MaxAllocBlock)) [[unlikely]]
        return requestElsewhere(tctxp, size, block, fname, line);
    OV_MemHeap_T* heap = tctxp->MemShortHeap;
    if (!heap) [[unlikely]]
        return requestElsewhere(tctxp, size, block, fname, line);
    void* served = sd::memheap::popFast(heap->HeapHeader, sd::memheap::capacityFor(bytes));
    if (!served) return requestFromRest(*tctxp, bytes, block);
    *block = served;
    return bucketControl() ? reportCounted(bytes) : 0;
}

OV_STS_T ovMemShortHeapRealloc(OV_THDCTX_T* tctxp, OV_LONG_T size, void* block, void** newblock, const char* fname,
                               long line)
{
    if (!block) return ovMemShortHeapMalloc(tctxp, size, newblock, fname, line);
    if (!tctxp || size < 1 || !newblock) return SDSTS_INVALID_PARAM;
    const Caller caller{fname, line};
    return markerOf(block) != 0 ? resizeOutside(*tctxp, size, block, newblock, caller)
                                : resizeInside(*tctxp, size, block, newblock, caller);
}

void ovMemShortHeapTerm(OV_THDCTX_T* tctxp)
{
    if (!tctxp) return;
    OV_MemHeap_T* const first = tctxp->MemShortHeap;
    tctxp->MemShortHeap = nullptr;
    if (sd::fatalExceptionDeclared()) { // heaps and list may be damaged
        tctxp->MemShortExtBlocks = nullptr;
        return;
    }
    // Deliberate: once the thread heaps are off, the regions stay where they are, as those of all heaps do.
    if (first && heapsOn()) endHeaps(first);
    trimPool();
    while (tctxp->MemShortExtBlocks) releaseCounted(tctxp->MemShortExtBlocks->next);
}

void ovMemShortDisableFree(OV_THDCTX_T* tctxp)
{
    if (tctxp) tctxp->MemShortDisableFree = TRUE;
}
