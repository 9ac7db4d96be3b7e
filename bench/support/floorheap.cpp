#include "support/floorheap.h"

#include <kemsd/memory.h>
#include <stdlib.h>

#include <array>
#include <bit>
#include <cstdint>

#include "support/floorbins.h"
#include "support/floorlock.h"

namespace kemsd::bench {
namespace {

constexpr OV_LONG_T kNoSlot = 4095;
constexpr OV_LONG_T kShortTermHeap = 0x7FFFFFFF;
constexpr unsigned kSpareHeaps = 8;
constexpr unsigned kFurtherHeaps = 40;
constexpr size_t kExternal = sizeof(OV_MemAllocExtBlock_T);
constexpr size_t kSystemPrefix = 64;
constexpr uint16_t kSystemTag = 0x4002; // policy 2, then hlen 64
constexpr size_t kLargestClass = 2u << 20;

// ---- The slot of a caller

constexpr uint64_t kWindow = 10000; // requests between two primes

struct Prime {
    uint64_t prime;
    uint64_t reciprocal; // 2^64 / prime, rounded up: exact for dividends below 2^53
};

constexpr std::array<uint16_t, 50> kPrimeNumbers{
    1297, 1301, 1303, 1307, 1319, 1321, 1327, 1361, 1367, 1373, 1381, 1399, 1409, 1423, 1427, 1429, 1433,
    1439, 1447, 1451, 1453, 1459, 1471, 1481, 1483, 1487, 1489, 1493, 1499, 1511, 1523, 1531, 1543, 1549,
    1553, 1559, 1567, 1571, 1579, 1583, 1597, 1601, 1607, 1609, 1613, 1619, 1621, 1627, 1637, 1657};

constexpr auto kPrimes = [] {
    std::array<Prime, kPrimeNumbers.size()> primes{};
    for (size_t i = 0; i < primes.size(); i++) primes[i] = {kPrimeNumbers[i], UINT64_MAX / kPrimeNumbers[i] + 1};
    return primes;
}();

constexpr uint64_t remainder(uint64_t dividend, const Prime& p)
{
    const auto quotient = static_cast<uint64_t>((static_cast<unsigned __int128>(dividend) * p.reciprocal) >> 64);
    return dividend - quotient * p.prime;
}
static_assert(remainder((1ull << 44) - 1, kPrimes[0]) == ((1ull << 44) - 1) % 1297);
static_assert(remainder(1657, kPrimes[49]) == 0 && remainder(1656, kPrimes[49]) == 1656);

// What every call reads stands on lines that no call writes.
struct alignas(64) Settings {
    uint64_t largestHeapBlock;
    uint64_t slots;
    uint64_t slotReciprocal; // 2^32 / slots, rounded up
    uint32_t heapBytes;
    volatile OV_BOOL_T releaseNothing;
    volatile OV_BOOL_T bucketControl;
    volatile MemoryMessage pendingMessage;
    // The number of the first request of the present window, times 64, and the window's prime. One word, so that it is
    // always whole; written once a window.
    volatile uint64_t window;
} settings;

alignas(64) volatile uint64_t requests;

struct alignas(64) Slots {
    Heap* volatile heap[OV_MEM_SLOTS];
    Heap* volatile copy[OV_MEM_SLOTS]; // names the candidate while a slot changes its heap
} slots;

struct alignas(64) Pool {
    KEM_SPINLOCK_T* lock;
    Heap* first;
    unsigned budget;
} pool;

struct alignas(64) Record {
    KEM_SPINLOCK_T* lock;
    uint64_t limit;
    uint64_t used, usedAligned;
    uint64_t mostUsed, mostUsedMark, mostTotal, mostTotalMark;
} record;

inline KEM_THDID_T self() { return reinterpret_cast<KEM_THDID_T>(__builtin_thread_pointer()); }

[[gnu::noinline, gnu::cold]] uint64_t renewWindow(uint64_t count)
{
    const uint64_t number = count / kWindow;
    const uint64_t window = number * kWindow << 6 | number % kPrimes.size();
    setRelaxed(settings.window, window);
    return window;
}

inline unsigned slotOf(const void* owner)
{
    const uint64_t count = relaxed(requests);
    setRelaxed(requests, count + 1);
    uint64_t window = relaxed(settings.window);
    if (count - (window >> 6) >= kWindow) [[unlikely]]
        window = renewWindow(count);
    const uint64_t hash = remainder(reinterpret_cast<uintptr_t>(owner) >> 3, kPrimes[window & 63]);
    return static_cast<unsigned>(hash - (hash * settings.slotReciprocal >> 32) * settings.slots);
}

// ---- A heap of a slot

KEM_SPINLOCK_T* makeLock()
{
    auto* lock = static_cast<KEM_SPINLOCK_T*>(aligned_alloc(64, sizeof(KEM_SPINLOCK_T)));
    if (!lock) return nullptr;
    *lock = {};
    lock->xchg.slock = 1;
    return lock;
}

Heap* makeHeap(OV_LONG_T id)
{
    Heap* heap = static_cast<Heap*>(malloc(settings.heapBytes));
    if (!heap) return nullptr;
    OV_MemHeapHeader_T& h = heap->HeapHeader;
    h = {};
    h.SpinLock.pSpinlock = makeLock();
    makeWhole(heap, settings.heapBytes);
    heap->next = heap->prev = heap;
    heap->ThreadHeapId = id;
    return h.SpinLock.pSpinlock ? heap : nullptr;
}

// ---- A slot's heap

inline KEM_SPINLOCK_T& lockOf(Heap* heap) { return *heap->HeapHeader.SpinLock.pSpinlock; }

void poolAdd(Heap* heap)
{
    if (!pool.first) {
        pool.first = heap->next = heap->prev = heap;
        return;
    }
    heap->next = pool.first;
    heap->prev = pool.first->prev;
    pool.first->prev->next = heap;
    pool.first->prev = heap;
}

void poolReplace(Heap* out, Heap* in)
{
    if (out->next == out) {
        pool.first = in->next = in->prev = in;
        return;
    }
    in->next = out->next;
    in->prev = out->prev;
    out->prev->next = in;
    out->next->prev = in;
    pool.first = in->next;
}

void* allocateLocked(Heap* heap, uint32_t request)
{
    floorAcquire(lockOf(heap), self());
    void* block = allocateIn(heap, request);
    floorRelease(lockOf(heap));
    return block;
}

// Under the pool's lock: a spare heap that serves takes the slot, and the slot's heap its place among the spares.
void* swapIn(Heap* heap, unsigned id, uint32_t request, uint32_t k)
{
    Heap* spare = pool.first;
    do {
        if (mayServe(spare->HeapHeader, k)) {
            slots.copy[id] = spare;
            if (void* block = allocateLocked(spare, request)) {
                setRelaxed(heap->ThreadHeapId, kNoSlot);
                poolReplace(spare, heap);
                setRelaxed(spare->ThreadHeapId, id);
                __atomic_store_n(&slots.heap[id], spare, __ATOMIC_RELEASE);
                return block;
            }
            slots.copy[id] = heap;
        }
        spare = spare->next;
    } while (spare != pool.first);
    return nullptr;
}

// Under the pool's lock: a new heap takes the slot.
void* growIn(Heap* heap, unsigned id, uint32_t request)
{
    if (pool.budget == 0) return nullptr;
    Heap* fresh = makeHeap(static_cast<OV_LONG_T>(id));
    if (!fresh) return nullptr;
    pool.budget--;
    slots.copy[id] = fresh;
    setRelaxed(heap->ThreadHeapId, kNoSlot);
    poolAdd(heap);
    void* block = allocateIn(fresh, request);
    __atomic_store_n(&slots.heap[id], fresh, __ATOMIC_RELEASE);
    return block;
}

[[gnu::noinline, gnu::cold]] void* changeHeap(Heap* heap, unsigned id, uint32_t request, uint32_t k)
{
    floorAcquire(*pool.lock, self());
    // Another thread may have changed the slot while this one waited: then its new heap may serve.
    void* block = slots.heap[id] != heap ? allocateLocked(slots.heap[id], request) : nullptr;
    if (!block) block = swapIn(slots.heap[id], id, request, k);
    if (!block) block = growIn(slots.heap[id], id, request);
    floorRelease(*pool.lock);
    for (unsigned j = 0; !block && j < settings.slots; j++)
        if (j != id && mayServe(slots.heap[j]->HeapHeader, k)) block = allocateLocked(slots.heap[j], request);
    return block;
}

// ---- Blocks outside the heaps

void* systemAllocate(size_t bytes)
{
    const size_t index = 64u - static_cast<unsigned>(std::countl_zero(bytes - 1));
    const size_t capacity = bytes <= kLargestClass ? size_t{1} << index : bytes;
    char* start = static_cast<char*>(malloc(capacity + kSystemPrefix));
    if (!start) return nullptr;
    auto* header = reinterpret_cast<OV_ALLOCMEMBLKHDR_T*>(start + kSystemPrefix) - 1;
    header->poolIndex = static_cast<OV_ULONG_T>(index);
    __builtin_memcpy(&header->policy, &kSystemTag, sizeof kSystemTag);
    return start + kSystemPrefix;
}

void systemRelease(void* block)
{
    uint16_t tag;
    __builtin_memcpy(&tag, static_cast<char*>(block) - sizeof tag, sizeof tag);
    free(tag == kSystemTag ? static_cast<char*>(block) - kSystemPrefix : block);
}

inline void raise(uint64_t& mark, uint64_t& most, uint64_t now)
{
    if (mark >= now) return;
    mark = now;
    if (most < now) most = now;
}

[[gnu::noinline]] int allocateExternal(size_t bytes, void** block)
{
    const size_t whole = bytes + kExternal;
    auto* external = static_cast<OV_MemAllocExtBlock_T*>(systemAllocate(whole));
    if (!external) return 1;
    floorAcquire(*record.lock, self());
    record.used += whole;
    const uint64_t total = record.used + record.usedAligned;
    const bool over = record.limit != 0 && total > record.limit;
    if (over) record.used -= whole;
    raise(record.mostUsedMark, record.mostUsed, record.used);
    raise(record.mostTotalMark, record.mostTotal, record.used + record.usedAligned);
    floorRelease(*record.lock);
    if (over) {
        systemRelease(external);
        return 1;
    }
    *external = {bytes, nullptr, nullptr, reinterpret_cast<void*>(static_cast<uintptr_t>(-9))};
    *block = external + 1;
    return 0;
}

[[gnu::noinline]] int releaseExternal(void* block)
{
    auto* external = static_cast<OV_MemAllocExtBlock_T*>(block) - 1;
    if (external->marker != reinterpret_cast<void*>(static_cast<uintptr_t>(-9))) abort();
    floorAcquire(*record.lock, self());
    record.used -= external->size + kExternal;
    floorRelease(*record.lock);
    systemRelease(external);
    return 0;
}

// ---- Behind the short way: each of these is the last thing that the short way does

inline int deliver(void* got, void** block)
{
    *block = got;
    // Neither ever happens here; what a request has to look at stays.
    if (relaxed(settings.bucketControl) || relaxed(settings.pendingMessage) == memmsg_warning) [[unlikely]]
        abort();
    return 0;
}

// Every step, in the order of the algorithm. A lost race for a lock comes here and yields first.
[[gnu::noinline]] int allocateGenerally(unsigned id, uint32_t request, void** block, bool raceLost)
{
    const uint32_t k = binIndex(request);
    for (;; raceLost = true) {
        if (raceLost) sched_yield();
        Heap* heap = __atomic_load_n(&slots.heap[id], __ATOMIC_ACQUIRE);
        if (heap != relaxed(slots.copy[id])) continue;
        void* got = nullptr;
        if (mayServe(heap->HeapHeader, k)) {
            floorAcquire(lockOf(heap), self());
            const bool serves = relaxed(heap->ThreadHeapId) == static_cast<OV_LONG_T>(id);
            if (serves) got = allocateIn(heap, request);
            floorRelease(lockOf(heap));
            if (!serves) continue;
        }
        if (!got) got = changeHeap(heap, id, request, k);
        return got ? deliver(got, block) : allocateExternal(request, block);
    }
}

// The heap is locked and its fast bin is empty, or the request has none.
[[gnu::noinline]] int allocateFromLocked(Heap* heap, unsigned id, uint32_t request, void** block)
{
    void* got = allocateFromBins(heap, request);
    floorReleaseExchange(lockOf(heap).xchg);
    return got ? deliver(got, block) : allocateGenerally(id, request, block, false);
}

[[gnu::noinline]] int releaseGenerally(Heap* heap, Used* used, bool raceLost)
{
    if (relaxed(settings.bucketControl)) abort();
    if (relaxed(heap->ThreadHeapId) == kShortTermHeap) {
        releaseIn(heap, used);
        return 0;
    }
    if (raceLost) sched_yield();
    floorAcquire(lockOf(heap), self());
    releaseIn(heap, used);
    floorRelease(lockOf(heap));
    return 0;
}

[[gnu::noinline]] int releaseToLocked(Heap* heap, Used* used)
{
    linkBlock(heap->HeapHeader, reinterpret_cast<Free*>(used));
    floorReleaseExchange(lockOf(heap).xchg);
    return 0;
}

} // namespace

bool floorHeapsStart(unsigned slotCount, unsigned heapBytes, unsigned largestHeapBlock)
{
    settings.largestHeapBlock = largestHeapBlock;
    settings.slots = slotCount;
    settings.slotReciprocal = (uint64_t{1} << 32) / slotCount + 1;
    settings.heapBytes = heapBytes;
    for (unsigned i = 0; i < slotCount; i++) {
        Heap* heap = makeHeap(static_cast<OV_LONG_T>(i));
        if (!heap) return false;
        slots.heap[i] = heap;
        slots.copy[i] = heap;
    }
    for (unsigned i = 0; i < kSpareHeaps; i++) {
        Heap* spare = makeHeap(kNoSlot);
        if (!spare) return false;
        poolAdd(spare);
    }
    pool.budget = kFurtherHeaps;
    pool.lock = makeLock();
    record.lock = makeLock();
    return pool.lock && record.lock;
}

// The short way has no call but the last one, so it needs no frame.
int floorHeapAllocate(void* owner, size_t bytes, void** block)
{
    if (bytes - 1 >= settings.largestHeapBlock) [[unlikely]]
        return bytes == 0 || settings.slots == 0 ? 1 : allocateExternal(bytes, block);
    const unsigned id = slotOf(owner);
    const uint32_t request = bytes < 24 ? 24 : (static_cast<uint32_t>(bytes) + 7) & ~7u;
    Heap* heap = __atomic_load_n(&slots.heap[id], __ATOMIC_ACQUIRE);
    OV_MemHeapHeader_T& h = heap->HeapHeader;
    if (heap != relaxed(slots.copy[id]) || !mayServe(h, binIndex(request)) || relaxed(floorTicketLocks)) [[unlikely]]
        return allocateGenerally(id, request, block, false);

    KEM_SPINLOCK_XCHG_T& lock = lockOf(heap).xchg;
    const KEM_THDID_T me = self();
    if (relaxed(lock.thdMasterId) == me) [[unlikely]]
        return allocateGenerally(id, request, block, false);
    const FloorTry first = floorTryExchange(lock, me);
    if (first != FloorTry::taken) [[unlikely]]
        return allocateGenerally(id, request, block, first == FloorTry::raceLost);
    if (relaxed(heap->ThreadHeapId) != static_cast<OV_LONG_T>(id)) [[unlikely]] {
        floorReleaseExchange(lock);
        return allocateGenerally(id, request, block, false);
    }
    Used* got = isShort(request) ? h.FastBin[request / 8 - 1] : nullptr;
    if (!got) return allocateFromLocked(heap, id, request, block);
    h.FastBin[request / 8 - 1] = static_cast<Used*>(got->marker);
    setRelaxed(h.FastBinCount, h.FastBinCount - 1);
    got->marker = nullptr;
    floorReleaseExchange(lock);
    return deliver(got + 1, block);
}

int floorHeapRelease(void* block)
{
    if (relaxed(settings.releaseNothing) || !block || settings.slots == 0) [[unlikely]]
        return 1;
    Used* used = static_cast<Used*>(block) - 1;
    if (used->marker) [[unlikely]]
        return releaseExternal(block);
    Heap* heap = used->MemHeap;
    if (relaxed(settings.bucketControl) || relaxed(heap->ThreadHeapId) == kShortTermHeap || relaxed(floorTicketLocks))
        [[unlikely]]
        return releaseGenerally(heap, used, false);

    KEM_SPINLOCK_XCHG_T& lock = lockOf(heap).xchg;
    const KEM_THDID_T me = self();
    if (relaxed(lock.thdMasterId) == me) [[unlikely]]
        return releaseGenerally(heap, used, false);
    const FloorTry first = floorTryExchange(lock, me);
    if (first != FloorTry::taken) [[unlikely]]
        return releaseGenerally(heap, used, first == FloorTry::raceLost);
    if (!isShort(used->size - kHeader)) return releaseToLocked(heap, used);
    OV_MemHeapHeader_T& h = heap->HeapHeader;
    const uint32_t f = (used->size - kHeader) / 8 - 1;
    used->marker = h.FastBin[f];
    h.FastBin[f] = used;
    setRelaxed(h.FastBinCount, h.FastBinCount + 1);
    floorReleaseExchange(lock);
    return 0;
}

void floorTwoPassages(void*)
{
    KEM_SPINLOCK_T& lock = lockOf(slots.heap[0]);
    for (int i = 0; i < 2; i++) {
        floorAcquire(lock, self());
        floorRelease(lock);
    }
}

} // namespace kemsd::bench
