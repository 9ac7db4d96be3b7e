// The road of a request through the thread heaps: the choice of a slot and the short way through its heap, inlined into
// the entry points (alloc.cpp); everything else lies in threadheap.cpp.
//
// A slot is chosen by hashing the owning address with one of 50 primes, so that threads tend to different heaps; the
// prime changes every 10,000 allocations, so that they spread anew. Heap[], HeapCopy[] and ThreadHeapId are read
// without a lock and checked again under the heap's own.
#pragma once

#include <array>

#include "sd/memheap/binheap.h"
#include "sd/memsys/limit.h"

namespace sd::memsys {

constexpr OV_ULONGLONG_T kWindow = 10000; // allocations between two primes
constexpr OV_ULONGLONG_T kPrimes = 50;

// A prime with its reciprocal: x / prime == mulhi(x, reciprocal) >> 8 for every x below 2^61.
struct HashPrime {
    OV_ULONGLONG_T reciprocal;
    OV_ULONGLONG_T prime;
};

extern const std::array<HashPrime, kPrimes> kHashPrimes;

constexpr unsigned kWindowIndexBits = 6;
OV_ULONGLONG_T renewWindow(OV_ULONGLONG_T count);

inline const HashPrime& primeFor(OV_ULONGLONG_T count)
{
    OV_ULONGLONG_T window = loadRelaxed(slots.window);
    if (count - (window >> kWindowIndexBits) >= kWindow) [[unlikely]]
        window = renewWindow(count);
    return kHashPrimes[window & ((1u << kWindowIndexBits) - 1)];
}

// ((address >> 3) mod prime) mod slots.
constexpr OV_ULONG_T slotFor(const HashPrime& p, OV_ULONGLONG_T address, OV_ULONG_T count, OV_ULONG_T reciprocal)
{
    const OV_ULONGLONG_T x = address >> 3;
    const auto quotient = static_cast<OV_ULONGLONG_T>((static_cast<unsigned __int128>(x) * p.reciprocal) >> 72);
    const auto n = static_cast<OV_ULONG_T>(x - quotient * p.prime);
    return n - static_cast<OV_ULONG_T>((static_cast<OV_ULONGLONG_T>(n) * reciprocal) >> 32) * count;
}

// The word before a caller's pointer: 0 for a heap block, else an external block's marker. It may belong to a block
// that the system allocator gave out as it is, where a memory checker guards it: such a block is told from the guard.
inline uintptr_t markerOf(const void* block)
{
    const uintptr_t* word = static_cast<const uintptr_t*>(block) - 1;
    return isPoisoned(word, sizeof *word) ? uintptr_t{1} : *word;
}

inline OV_MemAllocExtBlock_T* externalHeader(void* block) { return static_cast<OV_MemAllocExtBlock_T*>(block) - 1; }

// A short-term external block off the list that its marker names, and onto a list (behind its head).
void unlinkShortTerm(OV_MemAllocExtBlock_T* header);
void linkShortTerm(OV_MemAllocExtBlock_T*& head, OV_MemAllocExtBlock_T* header);

// Releases as while the thread heaps are off; in alloc.cpp.
void releaseToSystem(void* block);

// Steps behind the short way; in threadheap.cpp.
void* serveSlowly(OV_ULONG_T id, OV_ULONG_T capacity, OV_ULONGLONG_T bytes);
void* serveExternal(OV_ULONGLONG_T bytes);
void releaseExternal(void* block, uintptr_t marker);
// True while this thread builds a heap. What it requests meanwhile must not wait for the slot that it keeps closed.
bool buildingHeap();

// The owning address of a request: the caller's, or the address of its result variable.
// Only a request without an owner can come from inside the building of a heap, so only it asks.
inline void* requestFromHeaps(void* owner, void* instead, OV_ULONGLONG_T bytes)
{
    if (bytes > slots.largest) [[unlikely]]
        return serveExternal(bytes);
    if (!owner) [[unlikely]] {
        if (buildingHeap()) return serveExternal(bytes);
        owner = instead;
    }
    const OV_ULONGLONG_T count = addUnlocked(ovMemThreadHeap.malloc_count, 1);
    const OV_ULONG_T id =
        slotFor(primeFor(count), reinterpret_cast<OV_ULONGLONG_T>(owner), slots.count, slots.reciprocal);
    const OV_ULONG_T capacity = memheap::capacityFor(static_cast<OV_ULONG_T>(bytes));

    // Pairs with the release store that publishes a heap in its slot.
    OV_MemHeap_T* heap = loadAcquire(ovMemThreadHeap.Heap[id]);
    if (heap && heap == loadRelaxed(ovMemThreadHeap.HeapCopy[id]) && memheap::canServe(*heap, capacity)) [[likely]] {
        KEM_SPINLOCK_T& lock = *heap->HeapHeader.SpinLock.pSpinlock;
        noteTaken(kHeapLock);
        acquire(lock, currentThread());
        void* block = loadRelaxed(heap->ThreadHeapId) == static_cast<OV_LONG_T>(id) ? memheap::allocate(*heap, capacity)
                                                                                    : nullptr;
        release(lock);
        noteGiven(kHeapLock);
        if (block) [[likely]]
            return block;
    }
    return serveSlowly(id, capacity, bytes);
}

inline void releaseToHeaps(void* block)
{
    const uintptr_t marker = markerOf(block);
    if (marker != 0) [[unlikely]] {
        releaseExternal(block, marker);
        return;
    }
    OV_MemAllocBlock_T* header = memheap::blockOf(block);
    OV_MemHeap_T* heap = header->MemHeap;
    if (bucketControl()) [[unlikely]]
        countRelease(memheap::capacityOf(header));
    if (loadRelaxed(heap->ThreadHeapId) == kShortTermHeap) [[unlikely]] {
        memheap::release(*heap, header);
        return;
    }
    KEM_SPINLOCK_T& lock = *heap->HeapHeader.SpinLock.pSpinlock;
    noteTaken(kHeapLock);
    acquire(lock, currentThread());
    memheap::release(*heap, header);
    release(lock);
    noteGiven(kHeapLock);
}

// ---- Blocks that cross the switch between thread heaps off and on

// A block released or resized while the heaps are on whose marker is neither a heap block's, nor ours, nor can be the
// address of a list head: it was made while they were off.
constexpr bool isSystemMarker(uintptr_t marker)
{
    constexpr uintptr_t kLowestAddress = 65536;
    constexpr uintptr_t kBeyondAddresses = uintptr_t{1} << 47;
    if (marker == 0 || marker == kExternalMarker) return false;
    return (marker & 7) != 0 || marker < kLowestAddress || marker >= kBeyondAddresses;
}
static_assert(!isSystemMarker(0) && !isSystemMarker(kExternalMarker) && !isSystemMarker(0x7ffe00001230));
static_assert(isSystemMarker(0x4002000000000007) && isSystemMarker(0x0801000000000000) && isSystemMarker(0x31));

// A block released or resized while the heaps are off, although they once were on: one of theirs?
bool isFromHeaps(void* block);

inline bool mayBeFromHeaps(void* block) { return loadRelaxed(heapsHaveStood) && isFromHeaps(block); }

} // namespace sd::memsys
