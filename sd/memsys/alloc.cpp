// The allocation entry points that the whole server uses. While the thread heaps are on, a request goes through them
// (threadheap.h); while they are off, to the system allocator with the headers of memheap/blockheader.
//
// Locks: 6005 of the heap that serves or takes back, around that step alone. A failed request changes nothing of the
// caller's. Shortage is reported through the server's call-back.

#include <cstring>

#include "sd/base/settings.h"
#include "sd/memsys/threadheap.h"

namespace sd::memsys {
namespace {

constexpr size_t kStringTail = 5; // zero bytes behind a duplicated string

int done(size_t bytes)
{
    reportPendingWarning(bytes);
    return 0;
}

// The report of a request that failed while the thread heaps are on.
int exhausted(size_t bytes)
{
    noteShortage(bytes);
    ovMemSendMessage(memmsg_error, static_cast<int>(bytes));
    return SDSTS_NO_MEMORY;
}

// The report of a request that failed while they are off.
int exhaustedSystem(size_t bytes)
{
    if (loadRelaxed(ovMemThreadHeap.fNetLocalMessage)) ovMemSendMessage(memmsg_error, static_cast<int>(bytes));
    return SDSTS_NO_MEMORY;
}

bool obtainFromSystem(void* owner, size_t alignment, size_t size, void** result, char policy)
{
    if (alignment != 0) return ovMemExtMallocAligned(result, alignment, size) == 0;
    if (memoryManagerOn())
        ovMemExtThreadMalloc(owner, size, result, policy);
    else
        *result = ovMemExtMalloc(size, policy);
    return *result != nullptr;
}

int requestFromSystem(void* owner, size_t alignment, size_t size, void** result, char policy)
{
    return obtainFromSystem(owner, alignment, size, result, policy) ? 0 : exhaustedSystem(size);
}

// ---- Requests through the heaps
//
// The common case is a leaf: it keeps nothing on the stack, tries the heap's lock once and pops a fast bin. Whatever
// else turns up goes to one of these functions, which finish the request.

int complete(void** result, size_t size, void* block)
{
    *result = block;
    if (!block) return exhausted(size);
    if (bucketControl()) countAllocation(size);
    return done(size);
}

[[gnu::noinline]] int reportServed(size_t size)
{
    if (bucketControl()) countAllocation(size);
    return done(size);
}

[[gnu::noinline]] int requestSlowly(void** result, size_t size, OV_ULONG_T id)
{
    return complete(result, size, serveSlowly(id, size));
}

[[gnu::noinline]] int requestAfter(Try lost, void** result, size_t size, OV_ULONG_T id)
{
    yieldAfterRace(lost);
    return requestSlowly(result, size, id);
}

// Goes on under the heap's lock, which the caller took.
[[gnu::noinline]] int requestFromBins(void** result, size_t size, OV_ULONG_T id, OV_MemHeap_T& heap)
{
    void* block = memheap::carve(heap, memheap::capacityFor(static_cast<OV_ULONG_T>(size)));
    releaseOnce(*heap.HeapHeader.SpinLock.pSpinlock);
    noteGiven(kHeapLock);
    return complete(result, size, block ? block : serveSlowly(id, size));
}

// Flattened, as the release of such a block is: a large request spends as much in calls as in the steps themselves.
[[gnu::noinline, gnu::flatten]] int requestExternal(void** result, size_t size)
{
    return complete(result, size, serveExternal(size));
}

// Requests of no bytes or without a place, beyond the heaps' largest, while the heaps are off, or from within the
// building of a heap.
[[gnu::noinline]] int requestElsewhere(void* owner, size_t alignment, size_t size, void** result, char policy)
{
    if (size == 0 || !result) return SDSTS_INVALID_PARAM;
    if (!heapsOn()) return requestFromSystem(owner, alignment, size, result, policy);
    if (size > loadRelaxed(slots.largest)) return requestExternal(result, size);
    return complete(result, size, requestFromHeaps(owner, result, size));
}

bool somethingToReport() { return bucketControl() || loadRelaxed(ovMemThreadHeap.MemMessage) == memmsg_warning; }

[[gnu::always_inline]] inline int request(void* owner, size_t alignment, size_t size, void** result, char policy)
{
    if (size - 1 >= loadRelaxed(slots.largest) || !result || (!owner && loadRelaxed(slots.builders) != 0)) [[unlikely]]
        return requestElsewhere(owner, alignment, size, result, policy);
    const OV_ULONG_T id = chooseSlot(owner ? owner : result);
    const OV_ULONG_T capacity = memheap::capacityFor(static_cast<OV_ULONG_T>(size));
    OV_MemHeap_T* heap = readyHeap(id, capacity);
    if (!heap) [[unlikely]]
        return requestSlowly(result, size, id);
    KEM_SPINLOCK_T& lock = *heap->HeapHeader.SpinLock.pSpinlock;
    if (const Try first = tryOnce(lock, currentThread()); first != Try::Taken) [[unlikely]]
        return requestAfter(first, result, size, id);
    noteTaken(kHeapLock);
    void* block = nullptr;
    if (servesSlot(*heap, id)) [[likely]] {
        block = memheap::popFast(heap->HeapHeader, capacity);
        if (!block) return requestFromBins(result, size, id, *heap);
    }
    releaseOnce(lock);
    noteGiven(kHeapLock);
    if (!block) [[unlikely]]
        return requestSlowly(result, size, id);
    *result = block;
    return somethingToReport() ? reportServed(size) : 0;
}

} // namespace

void releaseToSystem(void* block)
{
    if (memoryManagerOn())
        ovMemExtThreadFree(block);
    else
        ovMemExtFree(block);
}

namespace {

[[gnu::noinline]] int releaseWhileOff(void* block, size_t alignment)
{
    if (mayBeFromHeaps(block))
        releaseToHeaps(block);
    else if (alignment != 0)
        ovMemExtFreeAligned(block);
    else
        releaseToSystem(block);
    return 0;
}

// ---- Releases to the heaps: a leaf in the common case, as requests are

[[gnu::noinline]] int releaseSlowly(void* block)
{
    releaseToHeaps(block);
    return 0;
}

[[gnu::noinline, gnu::flatten]] int releaseOutside(void* block, uintptr_t marker)
{
    releaseExternal(block, marker);
    return 0;
}

[[gnu::noinline]] int releaseAfter(Try lost, void* block)
{
    yieldAfterRace(lost);
    return releaseSlowly(block);
}

// Goes on under the heap's lock, which the caller took.
[[gnu::noinline]] int releaseToBins(OV_MemHeap_T& heap, OV_MemAllocBlock_T* header)
{
    memheap::coalesce(heap.HeapHeader, reinterpret_cast<OV_MemBin_T*>(header));
    releaseOnce(*heap.HeapHeader.SpinLock.pSpinlock);
    noteGiven(kHeapLock);
    return 0;
}

[[gnu::always_inline]] inline int giveBack(void* block, size_t alignment)
{
    if (!block) [[unlikely]]
        return SDSTS_INVALID_PARAM;
    if (!heapsOn()) [[unlikely]]
        return releaseWhileOff(block, alignment);
    if (const uintptr_t marker = markerOf(block); marker != 0) [[unlikely]]
        return releaseOutside(block, marker);
    if (bucketControl()) [[unlikely]]
        return releaseSlowly(block);
    OV_MemAllocBlock_T* header = memheap::blockOf(block);
    OV_MemHeap_T* heap = header->MemHeap;
    if (loadRelaxed(heap->ThreadHeapId) == kShortTermHeap) [[unlikely]]
        return releaseSlowly(block);
    KEM_SPINLOCK_T& lock = *heap->HeapHeader.SpinLock.pSpinlock;
    if (const Try first = tryOnce(lock, currentThread()); first != Try::Taken) [[unlikely]]
        return releaseAfter(first, block);
    noteTaken(kHeapLock);
    if (!memheap::pushFast(heap->HeapHeader, header)) return releaseToBins(*heap, header);
    releaseOnce(lock);
    noteGiven(kHeapLock);
    return 0;
}

} // namespace
} // namespace sd::memsys

using namespace sd::memsys;

int ovMallocBase(void* UniqueAddress, size_t alignment, size_t size, void** ppvfBuf, char policy, const char*, long)
{
    return request(UniqueAddress, alignment, size, ppvfBuf, policy);
}

int ovMalloc(void* UniqueAddress, size_t size, void** ppvfBuf, const char*, long)
{
    return request(UniqueAddress, 0, size, ppvfBuf, kPolicy);
}

int ovMallocPolicy(void* UniqueAddress, size_t size, void** ppvfBuf, char policy, const char* fname, long line)
{
    return ovMallocBase(UniqueAddress, 0, size, ppvfBuf, policy, fname, line);
}

int ovMallocAligned(void* UniqueAddress, size_t alignment, size_t size, void** ppvfBuf, const char* fname, long line)
{
    return ovMallocBase(UniqueAddress, alignment, size, ppvfBuf, kPolicy, fname, line);
}

int ovCalloc(void* UniqueAddress, long num, size_t size, void** ppvfBuf, char policy, const char*, long)
{
    if (num == 0 || size == 0) {
        if (ppvfBuf) *ppvfBuf = nullptr;
        return SDSTS_INVALID_PARAM;
    }
    if (!ppvfBuf) return SDSTS_INVALID_PARAM;
    size_t bytes;
    if (num < 0 || __builtin_mul_overflow(static_cast<size_t>(num), size, &bytes)) {
        *ppvfBuf = nullptr;
        if (heapsOn()) noteShortage(static_cast<size_t>(num) * size);
        return exhaustedSystem(static_cast<size_t>(num) * size);
    }
    if (heapsOn()) {
        *ppvfBuf = requestFromHeaps(UniqueAddress, ppvfBuf, bytes);
        if (bucketControl()) countAllocation(bytes);
    } else {
        obtainFromSystem(UniqueAddress, 0, bytes, ppvfBuf, policy);
    }
    // Deliberate: the fill comes without a null test; a failed allocation is not survivable here.
    memset(*ppvfBuf, 0, bytes);
    return heapsOn() ? done(bytes) : 0;
}

int ovFreeBase(void* ptr, size_t alignment, const char*, long) { return giveBack(ptr, alignment); }

int ovFree(void* ptr, const char*, long)
{
    if (sd::deallocationOff()) [[unlikely]]
        return 0;
    return giveBack(ptr, 0);
}

int ovFreeAligned(void* ptr, size_t alignment, const char* fname, long line)
{
    return ovFreeBase(ptr, alignment, fname, line);
}

char* ovStrDup(const char* pStr, const char* fname, long line)
{
    if (!pStr) return nullptr;
    const size_t length = strlen(pStr);
    void* copy = nullptr;
    if (ovMalloc(nullptr, length + kStringTail, &copy, fname, line) != 0) return nullptr;
    memcpy(copy, pStr, length);
    memset(static_cast<char*>(copy) + length, 0, kStringTail);
    return static_cast<char*>(copy);
}
