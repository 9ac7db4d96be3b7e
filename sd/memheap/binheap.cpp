// One heap: a region of fixed size, carved into blocks with boundary tags. Free blocks lie on 32 bins by size, each a
// circle; a skip map leads from an empty bin to the next non-empty one in a step. Small released blocks wait on exact
// fast bins, unjoined, until a request fails.
//
// No locks: the caller holds the heap's lock or owns the heap alone. Nothing is obtained from the system here; a heap
// that cannot serve returns null and the caller looks elsewhere. Freed payloads are poisoned for memory checkers; the
// headers of free blocks are not.

#include "sd/memheap/binheap.h"

#include "sd/base/invariant.h"
#include "sd/memsys/memsys.h"

extern "C" void ovMemLinkBin(OV_MemHeapHeader_T* HeapHeader, OV_BYTE_T* BinMap, OV_MemBin_T* Bin);

namespace {

using namespace sd::memheap;
using sd::poison;
using sd::storeRelaxed;
using sd::unpoison;

constexpr sd::SourcePoint kAddBin{"sd/memheap", 982, "ovMemAddBin"};
constexpr sd::SourcePoint kSearchBin{"sd/memheap", 1055, "ovMemSearchBin"};
constexpr const char* kLockSource = "sd/memheap";
constexpr long kLockLine = 611;

// A map entry of an empty last bin: no non-empty bin lies above.
constexpr OV_BYTE_T kNoneAbove = 32;

// Serves every heap whose own lock could not be made. Sharing is safe: a thread holds one heap's lock at a time. The
// free state of both variants in one picture: the exchange lock's word lies in the ticket lock's padding.
constinit KEM_SPINLOCK_T sharedLock{
    .xchg = {.slock = 1, .lSpinTime = 256, .bAcqWithId = 0, .thdMasterId = 0, .sLockCount = 0}};

// The block physically before or behind when it is free, else null.
OV_MemBin_T* freeBefore(OV_MemBin_T* block)
{
    if (block->prevsize == 0) return nullptr;
    auto* before = reinterpret_cast<OV_MemBin_T*>(reinterpret_cast<char*>(block) - block->prevsize);
    return before->MemHeap ? nullptr : before;
}

OV_MemBin_T* freeBehind(const OV_MemHeapHeader_T& header, OV_MemBin_T* block)
{
    OV_MemBin_T* behind = at(block, block->size);
    return !insideRegion(header, behind) || behind->MemHeap ? nullptr : behind;
}

bool isEmpty(const OV_MemHeapHeader_T& header, OV_LONG_T bin) { return header.BinMap[bin] != 0; }

// Writes the distances of the empty run below `bin`; `distance` is that of `bin` itself.
void renumberBelow(OV_MemHeapHeader_T& header, OV_LONG_T bin, OV_LONG_T distance)
{
    for (OV_LONG_T j = bin - 1; j >= 0 && isEmpty(header, j); --j)
        storeRelaxed(header.BinMap[j], static_cast<OV_BYTE_T>(distance + (bin - j)));
}

void addToBin(OV_MemHeapHeader_T& header, OV_MemBin_T* Bin, OV_LONG_T index)
{
    SD_INVARIANT(kAddBin, !Bin->MemHeap);
    Bin->index = index;
    if (isEmpty(header, index)) {
        storeRelaxed(header.BinMap[index], 0);
        renumberBelow(header, index, 0);
        Bin->next = Bin->prev = Bin;
        header.Bin[index] = Bin;
        return;
    }
    OV_MemBin_T* head = header.Bin[index];
    Bin->next = head;
    Bin->prev = head->prev;
    head->prev->next = Bin;
    head->prev = Bin;
}

void unlink(OV_MemHeapHeader_T& header, OV_MemBin_T* block)
{
    const OV_LONG_T index = block->index;
    if (block->next == block) {
        const OV_BYTE_T distance =
            index == kLastBin ? kNoneAbove : static_cast<OV_BYTE_T>(header.BinMap[index + 1] + 1);
        storeRelaxed(header.BinMap[index], distance);
        renumberBelow(header, index, distance);
        return;
    }
    if (header.Bin[index] == block) header.Bin[index] = block->next;
    block->prev->next = block->next;
    block->next->prev = block->prev;
}

// Puts `block` into the place that `old` holds in its circle.
void takePlace(OV_MemHeapHeader_T& header, OV_MemBin_T* block, OV_MemBin_T* old)
{
    const OV_LONG_T index = old->index;
    OV_MemBin_T* next = old->next == old ? block : old->next;
    OV_MemBin_T* prev = old->prev == old ? block : old->prev;
    if (header.Bin[index] == old) header.Bin[index] = block;
    block->next = next;
    block->prev = prev;
    block->index = index;
    next->prev = block;
    prev->next = block;
}

// The first block of a non-empty bin that suffices; it becomes the bin's head, so that the next search starts there.
OV_MemBin_T* searchBin(OV_MemHeapHeader_T& header, OV_LONG_T index, OV_ULONG_T need)
{
    OV_MemBin_T* const head = header.Bin[index];
    OV_MemBin_T* CurrentBin = head;
    do {
        SD_INVARIANT(kSearchBin, !CurrentBin->MemHeap);
        if (CurrentBin->size >= need) {
            header.Bin[index] = CurrentBin;
            return CurrentBin;
        }
        CurrentBin = CurrentBin->next;
    } while (CurrentBin != head);
    return nullptr;
}

// A block of at least `need` bytes: from its own bin, else the head of the nearest non-empty bin above. Every block
// there suffices, but for the single block of a region below 32 KiB, which lies in the last bin whatever its size.
OV_MemBin_T* findBlock(OV_MemHeapHeader_T& header, OV_ULONG_T need)
{
    OV_LONG_T bin = binIndex(need);
    if (!isEmpty(header, bin))
        if (OV_MemBin_T* found = searchBin(header, bin, need)) return found;
    while (bin < kLastBin) {
        bin = bin + 1 + header.BinMap[bin + 1];
        if (bin > kLastBin || !header.Bin[bin]) break;
        OV_MemBin_T* head = header.Bin[bin];
        if (head->size >= need) [[likely]]
            return head;
    }
    return nullptr;
}

// Joins everything that waits on the fast bins.
void flushFastBins(OV_MemHeapHeader_T& header)
{
    for (OV_MemAllocBlock_T*& fastBin : header.FastBin) {
        for (OV_MemAllocBlock_T* block = fastBin; block;) {
            auto* following = static_cast<OV_MemAllocBlock_T*>(block->marker);
            coalesce(header, reinterpret_cast<OV_MemBin_T*>(block));
            block = following;
        }
        fastBin = nullptr;
    }
    storeRelaxed(header.FastBinCount, 0);
}

// Hands out the chosen block whole when its rest could not hold a free block, else its top end.
void* takeFrom(OV_MemHeap_T& heap, OV_MemBin_T* Bin, OV_ULONG_T need)
{
    OV_MemHeapHeader_T& header = heap.HeapHeader;
    if (Bin->size < need + kSmallestFree) {
        unpoison(at(Bin, kSmallestFree), Bin->size - kSmallestFree);
        unlink(header, Bin);
        return handOut(heap, Bin);
    }
    void* served = cutTop(heap, Bin, Bin->size - need, need);
    const OV_LONG_T index = binIndex(Bin->size);
    if (index < Bin->index) {
        unlink(header, Bin);
        addToBin(header, Bin, index);
    }
    return served;
}

} // namespace

namespace sd::memheap {

void* carve(OV_MemHeap_T& heap, OV_ULONG_T capacity)
{
    OV_MemHeapHeader_T& header = heap.HeapHeader;
    const OV_ULONG_T need = capacity + kBlockHeader;
    OV_MemBin_T* found = findBlock(header, need);
    if (!found && header.FastBinCount != 0) {
        flushFastBins(header);
        found = findBlock(header, need);
    }
    return found ? takeFrom(heap, found, need) : nullptr;
}

// Three cases keep a block where it can stay: the block before keeps its place when the sum belongs to the same bin,
// the sum takes the place of the block behind when that one's bin fits, and else the sum is filed anew.
void coalesce(OV_MemHeapHeader_T& header, OV_MemBin_T* Bin)
{
    unpoison(at(Bin, kBlockHeader), kSmallestFree - kBlockHeader); // the links of a free block lie in the payload
    OV_MemBin_T* before = freeBefore(Bin);
    OV_MemBin_T* behind = freeBehind(header, Bin);
    OV_MemBin_T* start = before ? before : Bin;
    const OV_ULONG_T size = Bin->size + (before ? before->size : 0) + (behind ? behind->size : 0);
    const OV_LONG_T index = binIndex(size);
    if (before && before->index == index) {
        if (behind) unlink(header, behind);
    } else {
        if (before)
            unlink(header, before);
        else
            Bin->MemHeap = nullptr;
        if (behind && behind->index == index) {
            takePlace(header, start, behind);
        } else {
            if (behind) unlink(header, behind);
            addToBin(header, start, index);
        }
    }
    start->size = size;
    OV_MemBin_T* following = at(start, size);
    if (insideRegion(header, following)) following->prevsize = size;
    poison(at(start, kSmallestFree), size - kSmallestFree);
}

} // namespace sd::memheap

void ovMemLinkBin(OV_MemHeapHeader_T* HeapHeader, OV_BYTE_T*, OV_MemBin_T* Bin) { coalesce(*HeapHeader, Bin); }

void ovMemHeapInit(OV_MemHeap_T* MemHeap, OV_BOOL_T LongTermHeap)
{
    OV_MemHeapHeader_T& header = MemHeap->HeapHeader;
    if (LongTermHeap) {
        header.SpinLock.slkno = sd::memsys::kHeapLock;
        KEM_PSPINLOCK_T lock = KemSdSpinlockCreate(ovMemThreadHeap.pSdCtx, kLockSource, kLockLine);
        header.SpinLock.pSpinlock = lock ? lock : &sharedLock;
    }
    for (OV_MemAllocBlock_T*& fastBin : header.FastBin) fastBin = nullptr;
    storeRelaxed(header.FastBinCount, 0);
    // A size that is no multiple of 8 leaves its last bytes unused.
    const OV_ULONG_T size = LongTermHeap ? ovMemThreadHeap.HeapSize : ovMemThreadHeap.ShortHeapSize;
    header.HeapEnd = reinterpret_cast<char*>(MemHeap) + (size & ~OV_ULONG_T{7});

    // Deliberate: the single block lies in the last bin whatever its size. Bins below are not cleared; the map says
    // that they are empty.
    auto* whole = reinterpret_cast<OV_MemBin_T*>(&MemHeap->HeapBuffer);
    whole->size = static_cast<OV_ULONG_T>(header.HeapEnd - reinterpret_cast<char*>(whole));
    whole->prevsize = 0;
    whole->MemHeap = nullptr;
    whole->next = whole->prev = whole;
    whole->index = kLastBin;
    header.Bin[kLastBin] = whole;
    for (OV_LONG_T i = 0; i <= kLastBin; ++i) storeRelaxed(header.BinMap[i], static_cast<OV_BYTE_T>(kLastBin - i));
    poison(whole + 1, whole->size - kSmallestFree);
}

void* ovMemHeapMalloc(OV_MemHeap_T* MemHeap, OV_ULONG_T bytes)
{
    if (bytes > kLargestRequest) return nullptr;
    return allocate(*MemHeap, capacityFor(bytes));
}

void ovMemHeapFree(OV_MemHeap_T* MemHeap, void* block) { release(*MemHeap, blockOf(block)); }

void* ovMemHeapRealloc(OV_MemHeap_T* MemHeap, void* block, OV_ULONG_T bytes)
{
    if (bytes > kLargestRequest) return nullptr;
    OV_MemAllocBlock_T* old = blockOf(block);
    const OV_ULONG_T need = capacityFor(bytes) + kBlockHeader;
    if (need > old->size) {
        void* moved = ovMemHeapMalloc(MemHeap, bytes);
        if (!moved) return nullptr;
        KemSdMemCopy(nullptr, moved, block, capacityOf(old));
        ovMemHeapFree(MemHeap, block);
        return moved;
    }
    const OV_ULONG_T rest = old->size - need;
    if (rest < kSmallestFree) return block;
    OV_MemHeapHeader_T& header = MemHeap->HeapHeader;
    old->size = need;
    OV_MemBin_T* tail = at(old, need);
    tail->size = rest;
    tail->prevsize = need;
    OV_MemBin_T* following = at(tail, rest);
    if (insideRegion(header, following)) following->prevsize = rest;
    coalesce(header, tail);
    return block;
}
