// Start-up of the thread heaps: defaults, the configuration file, clamps, the heaps of the slots and of the pool, the
// manager's locks, and the summary. Home of the record and of the debug builds' watch over the lock order.
//
// Start-up runs once, before other threads allocate, and takes no lock. It allocates while the slots are not built yet:
// they are opened, which decides the road of every request, only as its last step. Nothing is ever released here:
// termination closes the slots, the regions live until the process ends.

#include <algorithm>
#include <cassert>
#include <cstdint>

#include "sd/memsys/memsys.h"

constinit OV_MemThreadHeap_T ovMemThreadHeap = {};

namespace sd::memsys {

#ifndef NDEBUG
namespace {

constexpr int kMostHeld = 2; // the lock order allows no more
thread_local constinit OV_ULONG_T heldLocks[kMostHeld] = {};
thread_local constinit int heldCount = 0;

} // namespace

void noteTaken(OV_ULONG_T number)
{
    for (int i = 0; i < heldCount; ++i) assert(mayTake(heldLocks[i], number) && "lock order");
    assert(heldCount < kMostHeld);
    heldLocks[heldCount++] = number;
}

void noteGiven(OV_ULONG_T number)
{
    OV_ULONG_T* const end = heldLocks + heldCount;
    OV_ULONG_T* const found = std::find(heldLocks, end, number);
    assert(found != end && "a lock given that was not taken");
    std::copy(found + 1, end, found);
    --heldCount;
}
#endif

namespace {

constexpr OV_ULONG_T kKiB = 1024;
constexpr OV_ULONG_T kMiB = 1024 * kKiB;

constexpr int kLowestLimit = 10 * kMiB;
constexpr OV_LONG_T kFewestSlots = 4;
constexpr OV_ULONG_T kSmallestHeap = 512 * kKiB;
constexpr OV_ULONG_T kSmallestShortHeap = 320 * kKiB;
constexpr OV_ULONG_T kLargestHeap = 16 * kMiB;
constexpr OV_ULONG_T kLargestMaxBlock = 256 * kKiB;

constexpr long kRecordLockLine = 2182;
constexpr long kHeapPoolLockLine = 2263;
constexpr long kShortPoolLockLine = 2267;
constexpr long kBucketLockLine = 2282;

// NumHeaps counts the heaps configured until buildHeaps() leaves what may still be created. The other figures of the
// record, UsedAlignedMemory among them, keep what they hold.
void setDefaults()
{
    OV_MemThreadHeap_T& record = ovMemThreadHeap;
    record.HeapSize = 2 * kMiB;
    record.ShortHeapSize = kSmallestShortHeap;
    record.MaxAllocBlock = 64 * kKiB;
    record.NumThreadHeaps = 0;
    record.NumHeaps = record.MaxNumHeaps = 64;
    record.MemoryLimit = 0;
    record.malloc_count = 0;
    record.UsedMemory = 0;
    record.MaxUsedMemory = 0;
    record.MaxUsedAlignedMemory = 0;
    record.MaxTotalUsedMemory = 0;
    record.MaxUsedMarkMemory = 0;
    record.MaxUsedAlignedMarkMemory = 0;
    record.MaxTotalUsedMarkMemory = 0;
    clearBuckets();
    record.tctxp = nullptr;
    record.MaxShortMemoryPoolSize = 16;
    record.LimitShortHeapsForRemove = 4;
    record.NumShortNumHeapsInUsage = 0;
    record.MemoryControl = 0;
    record.MemoryBlocksControl = 0;
    record.ShortMemoryOn = 1;
    record.next_message_malloc_count = 0;
    record.LastMemMessage = memmsg_noerror;
    record.MemMessage = memmsg_noerror;
    record.MallocInitValue = 0xFF;
    record.FreeInitValue = 0xAB;
    record.ErrorExit = 0;
}

bool limitTooLow() { return ovMemThreadHeap.MemoryLimit != 0 && ovMemThreadHeap.MemoryLimit < kLowestLimit; }

// The server hears of it through ovMemCheckMemoryMinStatus.
void rejectLimit()
{
    printf("Memory Limit is %ld, Default is  %d", static_cast<long>(ovMemThreadHeap.MemoryLimit), kLowestLimit);
    ovMemThreadHeap.NumThreadHeaps = 0;
    ovMemThreadHeap.ErrorExit = 1;
    ovMemThreadHeap.MemoryControl = 0;
    ovMemThreadHeap.ShortMemoryOn = 0;
}

void clampSettings()
{
    OV_MemThreadHeap_T& record = ovMemThreadHeap;
    record.NumThreadHeaps = std::clamp(record.NumThreadHeaps, kFewestSlots, OV_LONG_T{OV_MEM_SLOTS});
    record.HeapSize = std::clamp(record.HeapSize, kSmallestHeap, kLargestHeap);
    if (record.ShortMemoryOn) record.ShortHeapSize = std::clamp(record.ShortHeapSize, kSmallestShortHeap, kLargestHeap);
    record.MaxAllocBlock = std::min(record.MaxAllocBlock, kLargestMaxBlock);
    record.MaxNumHeaps = record.NumHeaps;
}

// False, and no lock to take, when memory runs out. A lock of an earlier start serves on.
bool makeLock(OV_SPINLOCK_T& lock, LockNumber number, long line)
{
    if (lock.pSpinlock) return true;
    lock.slkno = number;
    lock.pSpinlock = KemSdSpinlockCreate(ovMemThreadHeap.pSdCtx, kSource, line);
    return lock.pSpinlock != nullptr;
}

// A context that could not be had stays null, which every call accepts.
bool makeContextAndRecordLock()
{
    if (!ovMemThreadHeap.pSdCtx) (void)KemSdInit(&ovMemThreadHeap.pSdCtx, 0);
    std::fill_n(ovMemThreadHeap.MemoryControlAlignedArray, OV_MEM_ALIGNED_BUCKETS, nullptr);
    return makeLock(ovMemThreadHeap.SpinLock, kRecordLock, kRecordLockLine);
}

// The budget of further heaps: what the slots and the pool leave of the configured number. That number is whatever the
// file says, so the difference is formed in 64 bits.
void setHeapBudget()
{
    const OV_LONG_T built = kSpareHeaps + ovMemThreadHeap.NumThreadHeaps;
    const int64_t left = int64_t{ovMemThreadHeap.NumHeaps} - built;
    ovMemThreadHeap.NumHeaps = static_cast<OV_LONG_T>(std::max(left, int64_t{0}));
    if (left < 0) ovMemThreadHeap.MaxNumHeaps = built;
}

OV_MemHeap_T* obtainRegion()
{
    return static_cast<OV_MemHeap_T*>(ovMemExtLockMalloc(static_cast<long>(ovMemThreadHeap.HeapSize)));
}

void initHeap(OV_MemHeap_T* heap, OV_LONG_T id)
{
    ovMemHeapInit(heap, TRUE);
    storeRelaxed(heap->ThreadHeapId, id);
}

void setSlot(OV_LONG_T i, OV_MemHeap_T* heap)
{
    ovMemThreadHeap.Heap[i] = heap;
    ovMemThreadHeap.HeapCopy[i] = heap;
}

// Heaps of an earlier start are left to their blocks.
void emptySlotsAndPool()
{
    retireHeaps(); // the pool is empty then
    for (OV_LONG_T i = 0; i < OV_MEM_SLOTS; ++i) setSlot(i, nullptr);
}

bool buildSlots()
{
    for (OV_LONG_T i = 0; i < ovMemThreadHeap.NumThreadHeaps; ++i) {
        OV_MemHeap_T* const heap = obtainRegion();
        if (!heap) return false;
        initHeap(heap, i);
        setSlot(i, heap);
    }
    return true;
}

bool aligned(const void* region) { return reinterpret_cast<uintptr_t>(region) % 8 == 0; }

bool buildPool()
{
    for (OV_LONG_T i = 0; i < kSpareHeaps; ++i) {
        OV_MemHeap_T* const heap = obtainRegion();
        if (!heap || !aligned(heap)) return false;
        initHeap(heap, kNoSlot);
        addToPool(heap);
    }
    return true;
}

bool buildHeaps()
{
    emptySlotsAndPool();
    if (ovMemThreadHeap.MaxAllocBlock == 0) return true;
    setHeapBudget();
    return buildSlots() && buildPool();
}

void printSummary()
{
    printf("\nMemory configuration:\n\n   Memory limit                 : ");
    if (ovMemThreadHeap.MemoryLimit)
        printf("%ldK\n", static_cast<long>(ovMemThreadHeap.MemoryLimit / kKiB));
    else
        printf("Undefined\n");
}

bool makeHeapPoolLock() { return makeLock(ovMemThreadHeap.MemHeapPool.SpinLock, kHeapPoolLock, kHeapPoolLockLine); }

bool makeShortPool()
{
    if (!ovMemThreadHeap.ShortMemoryOn) return true;
    ovMemThreadHeap.MemShortHeapPool.MemHeap = nullptr;
    ovMemThreadHeap.MemShortHeapPool.NumHeaps = 0;
    ovMemThreadHeap.NumShortNumHeapsInUsage = 0;
    return makeLock(ovMemThreadHeap.MemShortHeapPool.SpinLock, kShortPoolLock, kShortPoolLockLine);
}

bool makeBuckets()
{
    if (!ovMemThreadHeap.MemoryBlocksControl) return true;
    clearBuckets();
    return makeLock(ovMemThreadHeap.SpinLockBlocks, kBucketLock, kBucketLockLine);
}

// Builds what the settings ask for and opens the slots. A caller that goes on after a region was refused still gets its
// memory, from the slots that were built and otherwise from the system, so the locks are made and the slots opened all
// the same. Without one of the locks the slots stay closed.
int buildAndOpen()
{
    bool locks = makeContextAndRecordLock();
    const bool heaps = buildHeaps();
    if (heaps) printSummary();
    locks &= makeHeapPoolLock();
    locks &= makeShortPool();
    locks &= makeBuckets();
    if (locks) openSlots();
    return heaps && locks ? 0 : SDSTS_NO_MEMORY;
}

} // namespace
} // namespace sd::memsys

int ovMemThreadHeapInit(int UseThreadHeap, void* fNetLocalMessage, char* appname, int assumeConfigFileExists)
{
    using namespace sd::memsys;
    sd::storeRelaxed(ovMemThreadHeap.fNetLocalMessage, reinterpret_cast<OV_NETMESSAGE_T>(fNetLocalMessage));
    closeSlots();
    // Deliberate: a second call turns the heaps off. A third one starts anew.
    if (!UseThreadHeap || sd::loadRelaxed(ovMemThreadHeap.NumThreadHeaps) != 0) {
        sd::storeRelaxed(ovMemThreadHeap.NumThreadHeaps, 0);
        return 0;
    }
    setDefaults();
    ovMemThreadHeapGetArg(appname, assumeConfigFileExists);
    if (limitTooLow()) {
        rejectLimit();
        return 0;
    }
    if (ovMemThreadHeap.NumThreadHeaps == 0) {
        ovMemThreadHeap.ShortMemoryOn = 0;
        return 0;
    }
    clampSettings();
    return buildAndOpen();
}

void ovMemGetMemorySettings(OV_ULONGLONG_T* arg)
{
    if (!arg) return;
    const OV_MemThreadHeap_T& record = ovMemThreadHeap;
    const bool heaps = record.MaxAllocBlock != 0;
    const auto widened = [](OV_LONG_T value) { return static_cast<OV_ULONGLONG_T>(int64_t{value}); };
    arg[0] = record.MemoryLimit;
    arg[1] = heaps ? widened(sd::loadRelaxed(record.NumThreadHeaps)) : 0;
    arg[2] = heaps ? widened(record.MaxNumHeaps) : 0;
    arg[3] = heaps ? record.HeapSize : 0;
    arg[4] = heaps && record.ShortMemoryOn ? record.ShortHeapSize : 0;
    arg[5] = record.MaxAllocBlock;
    arg[6] = record.MemoryControl;
}

void ovMemThreadHeapTerm(void)
{
    sd::memsys::closeSlots();
    if (sd::loadRelaxed(ovMemThreadHeap.NumThreadHeaps) > 0) sd::storeRelaxed(ovMemThreadHeap.NumThreadHeaps, -1);
}

void ovMemSetThreadContext(void* tctxp) { sd::storeRelaxed(ovMemThreadHeap.tctxp, static_cast<OV_THDCTX_T*>(tctxp)); }

void ovMemResetThreadContext(void) { sd::storeRelaxed(ovMemThreadHeap.tctxp, nullptr); }
