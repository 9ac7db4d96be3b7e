// The memory manager's record and what its files share: lock numbers and their order, slot numbers, markers, and the
// seams between the files of this folder.
//
// How the record is protected:
//   under 6001              UsedMemory, UsedAlignedMemory, MemoryLimit's test, the six high-water marks,
//                           MemoryControlAlignedArray
//   under 6002              MemHeapPool, NumHeaps, HeapCopy[], Heap[] (both also read without it, see threadheap.cpp)
//   under 6003              MemShortHeapPool, NumShortNumHeapsInUsage
//   under 6004              the four bucket tables
//   start-up only           sizes, NumThreadHeaps, MaxNumHeaps, switches, pSdCtx, the locks themselves
//   racy by design          malloc_count, next_message_malloc_count, MemMessage, LastMemMessage, MemMessageUsedMemory,
//                           tctxp, fNetLocalMessage: a lost or doubled message is accepted
#pragma once

#include <kemsd/memory.h>

#include <cstdio>

#include "sd/base/spinlock.h"
#include "sd/base/thread.h"

extern "C" {
extern OV_MemThreadHeap_T ovMemThreadHeap;

// The internal steps whose names the interface fixes; hidden.
void ovMemThreadHeapGetArg(OV_STR_T appname, int assumeConfigFileExists);
void* ovMemThreadHeapMalloc(void* UniqueAddress, OV_ULONGLONG_T bytes);
void ovMemThreadHeapFree(void* block);
void* ovMemExtLockMalloc(long size);
OV_MemHeap_T* ovMemGetShortHeap(void);
}

namespace sd::memsys {

constexpr const char* kSource = "sd/memsys";

// ---- Locks

enum LockNumber : OV_ULONG_T {
    kRecordLock = 6001,
    kHeapPoolLock = 6002,
    kShortPoolLock = 6003,
    kBucketLock = 6004,
    kHeapLock = 6005,
};

// The lock order. While holding the row's lock a thread may take these; 6001, 6004 and 6005 take nothing further.
//   6002 heap pool  -> 6005 a heap, 6001 record (a slot that grows)
//   6003 short pool -> 6001 record (termination only)
constexpr bool mayTake(OV_ULONG_T held, OV_ULONG_T wanted)
{
    return (held == kHeapPoolLock && (wanted == kHeapLock || wanted == kRecordLock)) ||
           (held == kShortPoolLock && wanted == kRecordLock);
}

#ifdef NDEBUG
inline void noteTaken(OV_ULONG_T) {}
inline void noteGiven(OV_ULONG_T) {}
#else
// Debug builds remember what each thread holds and stop at the first passage that breaks the order.
void noteTaken(OV_ULONG_T number);
void noteGiven(OV_ULONG_T number);
#endif

// Holds one of the manager's locks for a scope; no scope takes a lock that the thread holds already. Without thread
// heaps the locks do not exist and nothing is taken.
class Locked {
public:
    explicit Locked(const OV_SPINLOCK_T& lock, KEM_THDID_T id = currentThread())
        : lock_(lock.pSpinlock), number_(lock.slkno)
    {
        if (!lock_) [[unlikely]]
            return;
        noteTaken(number_);
        acquire(*lock_, id);
    }
    ~Locked()
    {
        if (!lock_) [[unlikely]]
            return;
        releaseOnce(*lock_);
        noteGiven(number_);
    }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

private:
    const KEM_PSPINLOCK_T lock_;
    const OV_ULONG_T number_;
};

// ---- Configuration

constexpr OV_LONG_T kConfiguredSlots = 16; // what a configuration file that says nothing else gives

// Reads an open configuration file to its end into the record; complains on standard output about what it cannot use.
void readConfiguration(FILE* file);

// ---- Slots

constexpr OV_LONG_T kNoSlot = 4095;              // ThreadHeapId of a heap in the pool or being switched
constexpr OV_LONG_T kShortTermHeap = 0x7FFFFFFF; // ThreadHeapId of a short-term heap: used without its lock
constexpr OV_LONG_T kSpareHeaps = 8;             // heaps in the pool after start-up

// The heaps stood at some time: blocks of theirs may still come back.
extern bool heapsHaveStood;

// What every request reads first, on a cache line of its own: the record's counters change all the time. Closing the
// slots leaves count and reciprocal, so that a request on its way still finds a slot.
struct alignas(64) Slots {
    OV_ULONG_T largest;    // the largest request that the heaps serve: MaxAllocBlock while they stand, else 0
    OV_ULONG_T count;      // NumThreadHeaps
    OV_ULONG_T reciprocal; // 2^32 / count, rounded up: n mod count by multiplication for n below 2^11
    OV_ULONG_T builders;   // threads that build a heap right now
    // The window of malloc_count that was last seen: its first count << 6 | its prime's index. One word, so that it is
    // never seen half; a stale one is renewed by whoever notices.
    OV_ULONGLONG_T window;
    bool open;
};

extern Slots slots;

// Whether requests take the road through the heaps. They do only when start-up has built everything, so that what
// start-up itself allocates takes the road for thread heaps off. NumThreadHeaps says what the interface promises.
inline bool heapsOn() { return loadRelaxed(slots.open); }

// Links a heap at the tail of the pool's circle. Under 6002, or at start-up.
void addToPool(OV_MemHeap_T* heap);

// Keeps the heaps of an earlier start where blocks of theirs that come back are recognised.
void retireHeaps();

// Opens the slots (start-up's last step) or closes them (termination, or a start-up that leaves them off).
void openSlots();
void closeSlots();

// ---- Blocks outside heaps

constexpr uintptr_t kExternalMarker = static_cast<uintptr_t>(-9);
constexpr OV_ULONGLONG_T kExternalHeader = sizeof(OV_MemAllocExtBlock_T);

// ---- Accounting

inline bool memoryControl() { return loadRelaxed(ovMemThreadHeap.MemoryControl); }
inline bool bucketControl() { return loadRelaxed(ovMemThreadHeap.MemoryBlocksControl); }

// Bytes of both kinds. Under 6001 for the limit's test; elsewhere a snapshot for a message.
inline OV_ULONGLONG_T totalUsed()
{
    return loadRelaxed(ovMemThreadHeap.UsedMemory) + loadRelaxed(ovMemThreadHeap.UsedAlignedMemory);
}

// The total above which a warning is due: 90 % of the limit, the division first.
inline OV_ULONGLONG_T warningLevel() { return ovMemThreadHeap.MemoryLimit / 100 * 90; }

// Raises the mark since the last reset to `now`, and the mark since start only when the first was raised. Under 6001.
inline void raiseMarks(volatile OV_ULONGLONG_T& sinceReset, volatile OV_ULONGLONG_T& sinceStart, OV_ULONGLONG_T now)
{
    if (loadRelaxed(sinceReset) >= now) return;
    storeRelaxed(sinceReset, now);
    if (loadRelaxed(sinceStart) < now) storeRelaxed(sinceStart, now);
}

// Counts an allocation or a release of that many bytes in its size bucket; only while bucketControl().
void countAllocation(OV_ULONGLONG_T bytes);
void countRelease(OV_ULONGLONG_T bytes);

// Sets the four bucket tables to 0.
void clearBuckets();

// Reports that so many bytes could not be had, when memory is accounted: what ovMemSendErrorMessage does, in bytes.
void reportShortage(OV_ULONG_T wantedBytes);

// Reports a pending warning after a successful request.
inline void reportPendingWarning(size_t bytes)
{
    if (loadRelaxed(ovMemThreadHeap.MemMessage) == memmsg_warning) [[unlikely]]
        ovMemSendMessage(memmsg_warning, static_cast<int>(bytes));
}

} // namespace sd::memsys
