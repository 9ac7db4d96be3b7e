#include "support/floorunit.h"

#include <array>

#include "support/floorbins.h"

namespace kemsd::bench {
namespace {

struct alignas(64) Settings {
    uint32_t largestHeapBlock;
    uint32_t heapBytes;
    volatile OV_BOOL_T bucketControl;
} settings;

struct alignas(64) Pool {
    KEM_SPINLOCK_T lock;
    Heap* first; // chained by next
} pool;

// The smallest block of each bin, and never less than a free block needs.
constexpr auto kSmallestIn = [] {
    std::array<uint32_t, OV_MEM_BINS> sizes{};
    for (uint32_t k = 0; k < OV_MEM_BINS; k++) sizes[k] = k <= 16 ? k * 128 : (k - 15) * 2048;
    sizes[0] = kSmallestFree;
    sizes[kLastBin] = 32768;
    return sizes;
}();
static_assert(binIndex(kSmallestIn[16]) == 16 && binIndex(kSmallestIn[17]) == 17 && binIndex(kSmallestIn[30]) == 30);

inline KEM_THDID_T self() { return reinterpret_cast<KEM_THDID_T>(__builtin_thread_pointer()); }

Heap* takeHeap()
{
    floorAcquire(pool.lock, self());
    Heap* heap = pool.first;
    if (heap) pool.first = heap->next;
    floorRelease(pool.lock);
    if (!heap) return nullptr;
    for (Used*& list : heap->HeapHeader.FastBin) list = nullptr;
    setRelaxed(heap->HeapHeader.FastBinCount, 0);
    makeWhole(heap, settings.heapBytes);
    return heap;
}

// The block of the nearest bin above an empty one, cut at its top, when it still belongs there afterwards.
inline void* cut(Heap* heap, uint32_t need)
{
    OV_MemHeapHeader_T& h = heap->HeapHeader;
    const uint32_t own = binIndex(need);
    const uint32_t k = own + h.BinMap[own];
    if (k == own || k > kLastBin) return nullptr;
    Free* b = h.Bin[k];
    const uint32_t size = b->size;
    if (size < need + kSmallestIn[k]) return nullptr;
    b->size = size - need;
    Free* top = at(b, size - need);
    top->size = need;
    top->prevsize = size - need;
    Free* next = at(b, size);
    if (reinterpret_cast<char*>(next) < h.HeapEnd) next->prevsize = need;
    Used* used = reinterpret_cast<Used*>(top);
    used->MemHeap = heap;
    used->marker = nullptr;
    return used + 1;
}

[[gnu::noinline]] int allocateFurther(OV_THDCTX_T* context, uint32_t request, void** block)
{
    Heap* heap = context->MemShortHeap;
    do {
        if (void* served = allocateIn(heap, request)) {
            *block = served;
            return 0;
        }
        heap = heap->next;
    } while (heap != context->MemShortHeap);
    Heap* further = takeHeap();
    if (!further) return 1;
    further->next = heap->next;
    heap->next = further;
    context->MemShortHeap = further;
    *block = allocateIn(further, request);
    return 0;
}

} // namespace

bool floorUnitsStart(unsigned heaps, unsigned heapBytes, unsigned largestHeapBlock)
{
    settings.heapBytes = heapBytes;
    settings.largestHeapBlock = largestHeapBlock;
    pool.lock.xchg.slock = 1;
    for (unsigned i = 0; i < heaps; i++) {
        Heap* heap = static_cast<Heap*>(malloc(heapBytes));
        if (!heap) return false;
        heap->next = pool.first;
        pool.first = heap;
    }
    return true;
}

void floorUnitBegin(OV_THDCTX_T* context)
{
    context->MemShortHeap = takeHeap();
    context->MemShortHeap->next = context->MemShortHeap;
}

int floorUnitAllocate(OV_THDCTX_T* context, OV_LONG_T size, void** block, const char*, long)
{
    const auto bytes = static_cast<uint32_t>(size);
    if (!context || !block || bytes - 1 >= settings.largestHeapBlock) return 1;
    Heap* heap = context->MemShortHeap;
    if (!heap) return 1;
    const uint32_t request = bytes <= 23 ? 24 : (bytes + 7) & ~7u;
    OV_MemHeapHeader_T& h = heap->HeapHeader;
    void* served = nullptr;
    if (isShort(request)) {
        Used*& list = h.FastBin[request / 8 - 1];
        if (Used* first = list) {
            list = static_cast<Used*>(first->marker);
            setRelaxed(h.FastBinCount, h.FastBinCount - 1);
            first->marker = nullptr;
            served = first + 1;
        }
    }
    if (!served) served = cut(heap, request + kHeader);
    if (!served) [[unlikely]]
        return allocateFurther(context, request, block);
    *block = served;
    return relaxed(settings.bucketControl) ? 1 : 0;
}

void floorUnitEnd(OV_THDCTX_T* context)
{
    Heap* const first = context->MemShortHeap;
    Heap* heap = first;
    do {
        Heap* next = heap->next;
        floorAcquire(pool.lock, self());
        heap->next = pool.first;
        pool.first = heap;
        floorRelease(pool.lock);
        heap = next;
    } while (heap != first);
    context->MemShortHeap = nullptr;
}

} // namespace kemsd::bench
