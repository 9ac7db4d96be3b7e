// The thread heaps behind the short way: waiting out a slot that is being switched, swapping in a spare heap, building
// a new one, trying the other slots, and the blocks outside heaps.
//
// How a slot changes its heap. The heap h of slot `id` could not serve:
//   1. Whoever moves h's ThreadHeapId from `id` to 4095 by compare-and-swap switches the slot; the others yield and
//      look again. (Two switchers of one slot would put h into the pool twice and lose another heap.)
//   2. Under the pool's lock, HeapCopy[id] names the candidate. While it differs from Heap[id] everybody else who
//      comes to the slot waits.
//   3. Heap[id] gets the candidate, and then its ThreadHeapId becomes `id`. A thread that locked h before looks at
//      h's ThreadHeapId under h's lock and sees that h serves the slot no more.
// A heap outside a slot carries 4095, a fresh region from the moment it is obtained.
//
// Locks: 6002 around the pool and a switch; inside it 6005 of a candidate and 6001 when a region is obtained. Building
// the new heap happens outside 6002, with the slot closed: what it allocates goes to the system allocator.

#include "sd/memsys/threadheap.h"

#include <kemsd/os.h>

namespace sd::memsys {

constinit Slots slots{};
constinit bool heapsHaveStood = false;

namespace {

constinit KEM_THREAD_LOCAL bool building = false;

constexpr OV_ULONG_T kPrimeNumbers[kPrimes] = {
    1297, 1301, 1303, 1307, 1319, 1321, 1327, 1361, 1367, 1373, 1381, 1399, 1409, 1423, 1427, 1429, 1433,
    1439, 1447, 1451, 1453, 1459, 1471, 1481, 1483, 1487, 1489, 1493, 1499, 1511, 1523, 1531, 1543, 1549,
    1553, 1559, 1567, 1571, 1579, 1583, 1597, 1601, 1607, 1609, 1613, 1619, 1621, 1627, 1637, 1657};

constexpr std::array<HashPrime, kPrimes> reciprocals()
{
    std::array<HashPrime, kPrimes> table{};
    for (OV_ULONGLONG_T i = 0; i < kPrimes; ++i) {
        const OV_ULONGLONG_T prime = kPrimeNumbers[i];
        table[i] = {static_cast<OV_ULONGLONG_T>((static_cast<unsigned __int128>(1) << 72) / prime + 1), prime};
    }
    return table;
}

constexpr OV_ULONG_T reciprocalOf(OV_ULONG_T count)
{
    return static_cast<OV_ULONG_T>((OV_ULONGLONG_T{1} << 32) / count + 1);
}

} // namespace

constinit const std::array<HashPrime, kPrimes> kHashPrimes = reciprocals();

// The multiplications agree with the divisions at the ends of their ranges.
namespace {
constexpr bool agrees(OV_ULONGLONG_T address, OV_ULONG_T count)
{
    for (const HashPrime& p : reciprocals())
        if (slotFor(p, address, count, reciprocalOf(count)) != (address >> 3) % p.prime % count) return false;
    return true;
}
static_assert(agrees(~OV_ULONGLONG_T{0}, 64) && agrees(~OV_ULONGLONG_T{0} - 8, 5) && agrees(0, 4) && agrees(12968, 63));
} // namespace

OV_ULONGLONG_T renewWindow(OV_ULONGLONG_T count)
{
    const OV_ULONGLONG_T number = count / kWindow;
    const OV_ULONGLONG_T window = number * kWindow << kWindowIndexBits | number % kPrimes;
    storeRelaxed(slots.window, window);
    return window;
}

void openSlots()
{
    slots.count = static_cast<OV_ULONG_T>(ovMemThreadHeap.NumThreadHeaps);
    slots.reciprocal = reciprocalOf(slots.count);
    storeRelaxed(slots.largest, ovMemThreadHeap.MaxAllocBlock);
    storeRelaxed(heapsHaveStood, true);
    storeRelaxed(slots.open, true);
}

void closeSlots()
{
    storeRelaxed(slots.open, false);
    storeRelaxed(slots.largest, 0);
}

bool buildingHeap() { return building; }

namespace {

// Links a heap at the tail of a circle.
void addToCircle(OV_MemHeap_T*& first, OV_MemHeap_T* heap)
{
    if (!first) {
        first = heap->next = heap->prev = heap;
        return;
    }
    heap->next = first;
    heap->prev = first->prev;
    first->prev->next = heap;
    first->prev = heap;
}

// Calls `visit` for the heaps of a circle until it says true; whether it did.
template <class Visit>
bool anyInCircle(OV_MemHeap_T* first, Visit visit)
{
    if (!first) return false;
    OV_MemHeap_T* heap = first;
    do {
        if (visit(heap)) return true;
        heap = heap->next;
    } while (heap != first);
    return false;
}

// The heaps of earlier starts, a circle; changes only at start-up.
constinit OV_MemHeap_T* retired = nullptr;

} // namespace

void addToPool(OV_MemHeap_T* heap) { addToCircle(ovMemThreadHeap.MemHeapPool.MemHeap, heap); }

void retireHeaps()
{
    for (OV_MemHeap_T* volatile& slot : ovMemThreadHeap.Heap)
        if (OV_MemHeap_T* heap = loadRelaxed(slot)) addToCircle(retired, heap);
    while (OV_MemHeap_T* heap = ovMemThreadHeap.MemHeapPool.MemHeap) {
        ovMemThreadHeap.MemHeapPool.MemHeap = heap->next == heap ? nullptr : heap->next;
        heap->prev->next = heap->next;
        heap->next->prev = heap->prev;
        addToCircle(retired, heap);
    }
}

namespace {

using memheap::allocate;
using memheap::canServe;

// ---- The pool's circle, under 6002

// `heap` takes the place of `old`; the pool continues behind it.
void replaceInPool(OV_MemHeap_T*& first, OV_MemHeap_T* old, OV_MemHeap_T* heap)
{
    if (old->next == old) {
        first = heap->next = heap->prev = heap;
        return;
    }
    heap->next = old->next;
    heap->prev = old->prev;
    old->next->prev = heap;
    old->prev->next = heap;
    first = old->next;
}

// ---- A slot and its heap

void yield() { KemSdThreadYield(nullptr); }

// Looks at a slot until it is not being switched and its heap has served or cannot. Null with `heap` set: that heap
// cannot serve; null without one: the slot has none.
void* trySlot(OV_LONG_T id, OV_ULONG_T capacity, OV_MemHeap_T*& heap)
{
    for (;; yield()) {
        heap = loadAcquire(ovMemThreadHeap.Heap[id]);
        if (heap != loadRelaxed(ovMemThreadHeap.HeapCopy[id])) continue;
        if (!heap || !canServe(*heap, capacity)) return nullptr;
        Locked lock(heap->HeapHeader.SpinLock);
        if (loadRelaxed(heap->ThreadHeapId) == id) return allocate(*heap, capacity);
    }
}

void publish(OV_LONG_T id, OV_MemHeap_T* heap)
{
    // Release: what the heap holds, before its address. Pairs with the acquire load of Heap[id].
    storeRelease(ovMemThreadHeap.Heap[id], heap);
    storeRelease(heap->ThreadHeapId, id);
}

// Serves from the first spare heap that can and gives it to the slot in exchange for `full`. Under 6002.
void* swapInSpare(OV_LONG_T id, OV_ULONG_T capacity, OV_MemHeap_T* full)
{
    OV_MemHeap_T*& first = ovMemThreadHeap.MemHeapPool.MemHeap;
    OV_MemHeap_T* spare = first;
    if (!spare) return nullptr;
    do {
        if (canServe(*spare, capacity)) {
            storeRelaxed(ovMemThreadHeap.HeapCopy[id], spare);
            void* block;
            {
                Locked lock(spare->HeapHeader.SpinLock);
                block = allocate(*spare, capacity);
            }
            if (block) {
                replaceInPool(first, spare, full);
                publish(id, spare);
                return block;
            }
            storeRelaxed(ovMemThreadHeap.HeapCopy[id], full);
        }
        spare = spare->next;
    } while (spare != first);
    return nullptr;
}

// A region for one more heap, when the budget allows; the slot is closed and `full` lies in the pool then. Under 6002.
OV_MemHeap_T* obtainHeap(OV_LONG_T id, OV_MemHeap_T* full)
{
    if (ovMemThreadHeap.NumHeaps == 0) return nullptr;
    auto* heap = static_cast<OV_MemHeap_T*>(ovMemExtLockMalloc(ovMemThreadHeap.HeapSize));
    if (!heap) return nullptr;
    storeRelaxed(heap->ThreadHeapId, kNoSlot);
    storeRelaxed(ovMemThreadHeap.HeapCopy[id], heap);
    addToPool(full);
    storeRelaxed(ovMemThreadHeap.NumHeaps, ovMemThreadHeap.NumHeaps - 1);
    return heap;
}

void* serveFromNewHeap(OV_LONG_T id, OV_ULONG_T capacity, OV_MemHeap_T* heap)
{
    building = true;
    __atomic_fetch_add(&slots.builders, 1, __ATOMIC_RELAXED); // read by this thread alone to any effect
    ovMemHeapInit(heap, TRUE);
    __atomic_fetch_sub(&slots.builders, 1, __ATOMIC_RELAXED);
    building = false;
    void* block = allocate(*heap, capacity); // nobody else can reach the heap yet
    publish(id, heap);
    return block;
}

// What came of an attempt to give a slot another heap.
struct Switch {
    bool lostRace; // another thread switches the slot
    bool newHeap;  // the slot has a new heap, whatever it served
    void* block;
};

Switch switchSlot(OV_LONG_T id, OV_ULONG_T capacity, OV_MemHeap_T* full)
{
    OV_LONG_T expected = id;
    // Relaxed: only the winner is decided here; the slot's words change under 6002.
    if (!__atomic_compare_exchange_n(&full->ThreadHeapId, &expected, kNoSlot, false, __ATOMIC_RELAXED,
                                     __ATOMIC_RELAXED))
        return {.lostRace = true, .newHeap = false, .block = nullptr};
    OV_MemHeap_T* heap;
    {
        Locked pool(ovMemThreadHeap.MemHeapPool.SpinLock);
        if (void* block = swapInSpare(id, capacity, full)) return {.lostRace = false, .newHeap = false, .block = block};
        heap = obtainHeap(id, full);
        if (!heap) {
            storeRelease(full->ThreadHeapId, id);
            return {};
        }
    }
    return {.lostRace = false, .newHeap = true, .block = serveFromNewHeap(id, capacity, heap)};
}

void* tryOtherSlots(OV_LONG_T id, OV_ULONG_T capacity)
{
    for (OV_LONG_T j = 0; j < static_cast<OV_LONG_T>(slots.count); ++j) {
        OV_MemHeap_T* unused;
        if (j == id) continue;
        if (void* block = trySlot(j, capacity, unused)) return block;
    }
    return nullptr;
}

} // namespace

void* serveSlowly(OV_ULONG_T slot, OV_ULONGLONG_T bytes)
{
    const auto id = static_cast<OV_LONG_T>(slot);
    const OV_ULONG_T capacity = memheap::capacityFor(static_cast<OV_ULONG_T>(bytes));
    for (;; yield()) {
        OV_MemHeap_T* heap;
        if (void* block = trySlot(id, capacity, heap)) return block;
        if (!heap) return serveExternal(bytes);
        const Switch result = switchSlot(id, capacity, heap);
        if (result.lostRace) continue;
        if (result.block || result.newHeap) return result.block;
        if (void* block = tryOtherSlots(id, capacity)) return block;
        return serveExternal(bytes);
    }
}

void* requestFromHeaps(void* owner, void* instead, OV_ULONGLONG_T bytes)
{
    if (bytes > loadRelaxed(slots.largest)) return serveExternal(bytes);
    if (!owner) {
        if (buildingHeap()) return serveExternal(bytes);
        owner = instead;
    }
    return serveSlowly(chooseSlot(owner), bytes);
}

void releaseToHeaps(void* block)
{
    const uintptr_t marker = markerOf(block);
    if (marker != 0) {
        releaseExternal(block, marker);
        return;
    }
    OV_MemAllocBlock_T* header = memheap::blockOf(block);
    OV_MemHeap_T* heap = header->MemHeap;
    if (bucketControl()) countRelease(memheap::capacityOf(header));
    if (loadRelaxed(heap->ThreadHeapId) == kShortTermHeap) {
        memheap::release(*heap, header);
        return;
    }
    Locked lock(heap->HeapHeader.SpinLock);
    memheap::release(*heap, header);
}

// ---- Blocks outside heaps

void* serveExternal(OV_ULONGLONG_T bytes)
{
    if (bytes > static_cast<OV_ULONGLONG_T>(PTRDIFF_MAX) - kExternalHeader) return nullptr;
    auto* header = static_cast<OV_MemAllocExtBlock_T*>(ovMemExtLockMalloc(static_cast<long>(bytes + kExternalHeader)));
    if (!header) return nullptr;
    *header = {.size = bytes, .prev = nullptr, .next = nullptr, .marker = reinterpret_cast<void*>(kExternalMarker)};
    return header + 1;
}

void unlinkShortTerm(OV_MemAllocExtBlock_T* header)
{
    auto*& head = *static_cast<OV_MemAllocExtBlock_T**>(header->marker);
    if (header->next == header) {
        head = nullptr;
        return;
    }
    if (head == header) head = header->next;
    header->prev->next = header->next;
    header->next->prev = header->prev;
}

void linkShortTerm(OV_MemAllocExtBlock_T*& head, OV_MemAllocExtBlock_T* header)
{
    header->marker = &head;
    if (!head) {
        head = header->next = header->prev = header;
        return;
    }
    header->prev = head;
    header->next = head->next;
    head->next->prev = header;
    head->next = header;
}

// Every step of it.
[[gnu::noinline]] void releaseCounted(OV_MemAllocExtBlock_T* header)
{
    if (bucketControl()) countRelease(header->size);
    if (header->marker != reinterpret_cast<void*>(kExternalMarker)) unlinkShortTerm(header);
    uncount(header->size + kExternalHeader);
    ovMemExtFree(header);
}

namespace {

[[gnu::noinline]] void releaseAfter(Try lost, OV_MemAllocExtBlock_T* header)
{
    yieldAfterRace(lost);
    releaseCounted(header);
}

} // namespace

// As short as the common case allows: a leaf but for the system's own release.
void releaseExternal(void* block, uintptr_t marker)
{
    OV_MemAllocExtBlock_T* header = externalHeader(block);
    if (isSystemBlock(block, marker)) [[unlikely]]
        releaseToSystem(block);
    else if (marker != kExternalMarker || bucketControl()) [[unlikely]]
        releaseCounted(header);
    else if (const Try first = uncountOnce(header->size + kExternalHeader); first != Try::Taken) [[unlikely]]
        releaseAfter(first, header);
    else
        ovMemExtFree(header);
}

// ---- Blocks that cross the switch

namespace {

bool liesIn(const OV_MemHeap_T* heap, const void* block)
{
    return heap && block > heap && static_cast<const char*>(block) < heap->HeapHeader.HeapEnd;
}

bool liesInLongTermHeap(const void* block)
{
    const auto holdsBlock = [block](const OV_MemHeap_T* heap) { return liesIn(heap, block); };
    Locked pool(ovMemThreadHeap.MemHeapPool.SpinLock);
    for (OV_MemHeap_T* volatile& slot : ovMemThreadHeap.Heap)
        if (holdsBlock(loadAcquire(slot))) return true;
    return anyInCircle(ovMemThreadHeap.MemHeapPool.MemHeap, holdsBlock) || anyInCircle(retired, holdsBlock);
}

} // namespace

bool isFromHeaps(void* block) { return liesInLongTermHeap(block) || markerOf(block) == kExternalMarker; }

} // namespace sd::memsys

using namespace sd::memsys;

void* ovMemThreadHeapMalloc(void* UniqueAddress, OV_ULONGLONG_T bytes)
{
    return requestFromHeaps(UniqueAddress, &UniqueAddress, bytes);
}

void ovMemThreadHeapFree(void* block)
{
    if (block) releaseToHeaps(block);
}
