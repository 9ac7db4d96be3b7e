// The road of a request through the thread heaps. The choice of a slot and the look at its heap are inlined into the
// entry points (alloc.cpp), which finish the common case themselves; everything else lies in threadheap.cpp.
//
// A slot is chosen by hashing the owning address with one of 50 primes, so that threads tend to different heaps; the
// prime changes every 10,000 allocations, so that they spread anew. Heap[], HeapCopy[] and ThreadHeapId are read
// without a lock and checked again under the heap's own.
#pragma once

#include <array>

#include "sd/memheap/binheap.h"
#include "sd/memsys/limit.h"
#include "sd/memxcpt.h"

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

// The slot that serves an owner's next request; counts the request.
inline OV_ULONG_T chooseSlot(const void* owner)
{
    const OV_ULONGLONG_T count = addUnlocked(ovMemThreadHeap.malloc_count, 1);
    return slotFor(primeFor(count), reinterpret_cast<OV_ULONGLONG_T>(owner), slots.count, slots.reciprocal);
}

// The heap of a slot when a look under its lock is worth it, else null: the slot is empty or being switched, or its
// heap has no room.
inline OV_MemHeap_T* readyHeap(OV_ULONG_T id, OV_ULONG_T capacity)
{
    // Pairs with the release store that publishes a heap in its slot.
    OV_MemHeap_T* heap = loadAcquire(ovMemThreadHeap.Heap[id]);
    if (!heap || heap != loadRelaxed(ovMemThreadHeap.HeapCopy[id]) || !memheap::canServe(*heap, capacity))
        return nullptr;
    return heap;
}

inline bool servesSlot(const OV_MemHeap_T& heap, OV_ULONG_T id)
{
    return loadRelaxed(heap.ThreadHeapId) == static_cast<OV_LONG_T>(id);
}

// A request and a release through the heaps, by every step; `instead` stands for an owner that is null.
void* requestFromHeaps(void* owner, void* instead, OV_ULONGLONG_T bytes);
void releaseToHeaps(void* block);

// Steps of these two.
void* serveSlowly(OV_ULONG_T id, OV_ULONGLONG_T bytes);
void* serveExternal(OV_ULONGLONG_T bytes);
void releaseExternal(void* block, uintptr_t marker);
// The same of a block that is known to be ours, counted and off its list, whether the heaps are on or off.
void releaseCounted(OV_MemAllocExtBlock_T* header);

// True while this thread builds a heap. What it requests meanwhile must not wait for the slot that it keeps closed.
// Such requests have no owner, so only requests without one ask.
bool buildingHeap();

// ---- Blocks that cross the switch between thread heaps off and on

// What can be the address of a list head or of a block: a context or a heap, never in the lowest 4 MiB, where no
// program is loaded, nor beyond the user's half of the address space.
constexpr bool mayBeAddress(uintptr_t word)
{
    constexpr uintptr_t kLowest = uintptr_t{4} << 20;
    constexpr uintptr_t kBeyond = uintptr_t{1} << 47;
    if (word >> 48 != 0) return false; // policy and hlen of a header; the bytes below them were never written
    return word % 8 == 0 && word >= kLowest && word < kBeyond;
}
static_assert(mayBeAddress(0x7ffe00001230) && !mayBeAddress(0x31) && !mayBeAddress(0x186b0));
static_assert(!mayBeAddress(0x4002000000000007) && !mayBeAddress(0x0801000000000000) && !mayBeAddress(kExternalMarker));

// A block released or resized while the heaps are on that is neither a heap's nor an external one of ours: it was made
// while they were off. Such a block has a header whose policy makes the marker no address, or, without the memory
// manager, the system allocator's own words before it: its size, with flags in the low bits unless the block before it
// is free, and in front of that then the free block's size, where an external block has its link.
inline bool isSystemBlock(void* block, uintptr_t marker)
{
    if (marker == 0 || marker == kExternalMarker) return false;
    return !mayBeAddress(marker) || !mayBeAddress(reinterpret_cast<uintptr_t>(externalHeader(block)->next));
}

// A block released or resized while the heaps are off, although they once were on: one of theirs?
bool isFromHeaps(void* block);

// Once a fatal exception is declared nothing of the heaps is touched.
inline bool mayBeFromHeaps(void* block)
{
    return loadRelaxed(heapsHaveStood) && !fatalExceptionDeclared() && isFromHeaps(block);
}

} // namespace sd::memsys
