// Accounting: the messages about a limit that is near or reached, the counts by block size, the figures that the server
// asks for, and debugging entry points that do nothing. The limit itself is tested where memory is obtained.
//
// Memory figures are read under lock 6001, the heap budget under 6002, never both at once; bucket tables under 6004.
// What steers the messages is read and written without a lock: a lost or doubled message is accepted.

#include <algorithm>
#include <bit>
#include <cstring>

#include "sd/memsys/memsys.h"

namespace sd::memsys {
namespace {

// ---- Messages

enum Level : int { kWarningLevel = 3, kErrorLevel = 4 };

constexpr int kUnsigned32 = 6; // type code of both arguments
constexpr OV_ULONG_T kQuietAllocations = 1000;
constexpr OV_ULONG_T kWarningPercent = 90;
constexpr OV_ULONG_T kLowestLimitKiB = 10240;
constexpr unsigned kUnitShift = 13; // ovMemSendErrorMessage counts in 8,192 bytes

// The call-back is loaded once; without one nothing is called and the result is 0.
int callBack(void* netCtx, int number, Level level, OV_ULONG_T first, OV_ULONG_T second)
{
    const OV_NETMESSAGE_T message = loadRelaxed(ovMemThreadHeap.fNetLocalMessage);
    return message ? message(netCtx, number, level, &first, kUnsigned32, &second, kUnsigned32) : 0;
}

// The next message is due only when malloc_count has reached this. The word has 32 bits, so beyond 2^32 allocations
// nothing is suppressed any more.
bool messagesQuiet()
{
    return loadRelaxed(ovMemThreadHeap.next_message_malloc_count) > loadRelaxed(ovMemThreadHeap.malloc_count);
}

void startQuietSpell()
{
    storeRelaxed(ovMemThreadHeap.next_message_malloc_count,
                 static_cast<OV_ULONG_T>(loadRelaxed(ovMemThreadHeap.malloc_count) + kQuietAllocations));
}

int shortageNumber() { return ovMemThreadHeap.MemoryLimit ? SDSTS_MEM_LIMIT_EXCEEDED : SDSTS_MEM_EXHAUSTED; }

// A warning that is made leaves the last kind as it was; one that comes too soon is only remembered.
void sendWarning()
{
    storeRelaxed(ovMemThreadHeap.MemMessage, memmsg_noerror);
    const OV_THDCTX_T* const context = loadRelaxed(ovMemThreadHeap.tctxp);
    if (!context) return;
    if (messagesQuiet()) {
        storeRelaxed(ovMemThreadHeap.LastMemMessage, memmsg_warning);
        return;
    }
    startQuietSpell();
    callBack(context->NetCtx, SDSTS_MEM_LIMIT_WARNING, kWarningLevel, loadRelaxed(ovMemThreadHeap.MemMessageUsedMemory),
             kWarningPercent);
}

// ---- Buckets

constexpr unsigned kLastBucket = OV_MEM_BUCKETS - 1;

// 0: up to 160 bytes; 1: up to 1,024; from there one bucket a power of two.
constexpr unsigned bucketOf(OV_ULONGLONG_T bytes)
{
    if (bytes <= 160) return 0;
    if (bytes <= 1024) return 1;
    return std::min(static_cast<unsigned>(std::bit_width(bytes - 1)) - 9, kLastBucket);
}
static_assert(bucketOf(0) == 0 && bucketOf(160) == 0 && bucketOf(161) == 1);
static_assert(bucketOf(1024) == 1 && bucketOf(1025) == 2 && bucketOf(2048) == 2 && bucketOf(2049) == 3);
static_assert(bucketOf(4194304) == 13 && bucketOf(4194305) == 14);
static_assert(bucketOf(8388608) == 14 && bucketOf(8388609) == 15 && bucketOf(~OV_ULONGLONG_T{0}) == 15);

using Buckets = volatile OV_ULONG_T[OV_MEM_BUCKETS];

void count(Buckets& sinceStart, Buckets& sinceReset, OV_ULONGLONG_T bytes)
{
    if (!bucketControl()) return;
    const unsigned bucket = bucketOf(bytes);
    const Locked locked(ovMemThreadHeap.SpinLockBlocks);
    addUnlocked(sinceStart[bucket], 1);
    addUnlocked(sinceReset[bucket], 1);
}

void clear(Buckets& buckets)
{
    for (volatile OV_ULONG_T& bucket : buckets) storeRelaxed(bucket, 0);
}

void copyOut(const Buckets& from, OV_ULONGLONG_T* to)
{
    for (unsigned i = 0; i < OV_MEM_BUCKETS; ++i) to[i] = loadRelaxed(from[i]);
}

// ---- Figures

// The heaps made so far, each at its full size. Deliberate: the product has 32 bits.
OV_ULONG_T heapBytes()
{
    const Locked locked(ovMemThreadHeap.MemHeapPool.SpinLock);
    const auto heaps = static_cast<OV_ULONG_T>(ovMemThreadHeap.MaxNumHeaps) -
                       static_cast<OV_ULONG_T>(loadRelaxed(ovMemThreadHeap.NumHeaps));
    return heaps * ovMemThreadHeap.HeapSize;
}

// ---- Debug records

// A field of the 32-byte debug record, wherever it lies.
template <class Field>
Field fieldAt(const void* record, size_t offset)
{
    Field field;
    memcpy(&field, static_cast<const char*>(record) + offset, sizeof field);
    return field;
}

constexpr size_t kRecordSize = 32;
constexpr size_t kInfoOffset = 0;
constexpr size_t kSizeOffset = 12;
constexpr size_t kNameOffset = 16;
constexpr size_t kLineOffset = 24;

} // namespace

namespace {

// Reports that a request of so many bytes failed, MemMessageUsedMemory being the bytes used at the event: the first of
// a row of failures at once, then at most one in 1,000 allocations.
void sendShortage(OV_ULONG_T requestedBytes)
{
    storeRelaxed(ovMemThreadHeap.MemMessage, memmsg_noerror);
    const OV_THDCTX_T* const context = loadRelaxed(ovMemThreadHeap.tctxp);
    if (!context) return;
    // The first error after a quiet spell is always made.
    if (loadRelaxed(ovMemThreadHeap.LastMemMessage) == memmsg_error && messagesQuiet()) return;
    storeRelaxed(ovMemThreadHeap.LastMemMessage, memmsg_error);
    startQuietSpell();
    callBack(context->NetCtx, shortageNumber(), kErrorLevel, loadRelaxed(ovMemThreadHeap.MemMessageUsedMemory),
             requestedBytes);
}

} // namespace

void reportShortage(OV_ULONG_T wantedBytes)
{
    if (!memoryControl()) return;
    storeRelaxed(ovMemThreadHeap.MemMessageUsedMemory, static_cast<OV_ULONG_T>(totalUsed()));
    sendShortage(wantedBytes);
}

void clearBuckets()
{
    clear(ovMemThreadHeap.AllocBlocks);
    clear(ovMemThreadHeap.DeAllocBlocks);
    clear(ovMemThreadHeap.AllocBlocksMark);
    clear(ovMemThreadHeap.DeAllocBlocksMark);
}

void countAllocation(OV_ULONGLONG_T bytes)
{
    count(ovMemThreadHeap.AllocBlocks, ovMemThreadHeap.AllocBlocksMark, bytes);
}

void countRelease(OV_ULONGLONG_T bytes)
{
    count(ovMemThreadHeap.DeAllocBlocks, ovMemThreadHeap.DeAllocBlocksMark, bytes);
}

} // namespace sd::memsys

using namespace sd::memsys;
using sd::loadRelaxed;
using sd::storeRelaxed;

void ovMemSendMessage(int type, int size)
{
    if (type == memmsg_warning) sendWarning();
    if (type == memmsg_error) sendShortage(static_cast<OV_ULONG_T>(size));
}

void ovMemSendErrorMessage(long size)
{
    reportShortage(static_cast<OV_ULONG_T>(static_cast<unsigned long>(size) << kUnitShift));
}

int ovMemCheckMemoryMinStatus(void* tctxp)
{
    if (!ovMemThreadHeap.ErrorExit) return 0;
    if (!tctxp) return SDSTS_INVALID_PARAM;
    return callBack(static_cast<const OV_THDCTX_T*>(tctxp)->NetCtx, SDSTS_MEM_LIMIT_TOO_LOW, kErrorLevel,
                    static_cast<OV_ULONG_T>(ovMemThreadHeap.MemoryLimit), kLowestLimitKiB);
}

void ovMemAddBlockSizeToList(long size)
{
    if (size > 0)
        countAllocation(static_cast<OV_ULONGLONG_T>(size));
    else
        countRelease(-static_cast<OV_ULONGLONG_T>(size));
}

int ovMemResetUsedMarkMemoryBlocks(void)
{
    if (!bucketControl()) return -1;
    const Locked locked(ovMemThreadHeap.SpinLockBlocks);
    clear(ovMemThreadHeap.AllocBlocksMark);
    clear(ovMemThreadHeap.DeAllocBlocksMark);
    return 0;
}

int ovMemResetMaxUsedMarkMemory(void)
{
    if (!memoryControl()) return -1;
    const Locked locked(ovMemThreadHeap.SpinLock);
    storeRelaxed(ovMemThreadHeap.MaxUsedMarkMemory, loadRelaxed(ovMemThreadHeap.UsedMemory));
    storeRelaxed(ovMemThreadHeap.MaxUsedAlignedMarkMemory, loadRelaxed(ovMemThreadHeap.UsedAlignedMemory));
    storeRelaxed(ovMemThreadHeap.MaxTotalUsedMarkMemory, totalUsed());
    return 0;
}

int ovMemGetMaxUsedMarkMemory(OV_ULONGLONG_T* bytesMaxMarkUsed, OV_ULONGLONG_T* bytesMaxMarkAligned,
                              OV_ULONGLONG_T* bytesMaxMarkTotal)
{
    if (!bytesMaxMarkUsed || !bytesMaxMarkAligned || !bytesMaxMarkTotal) return SDSTS_INVALID_PARAM;
    if (!memoryControl()) return -1;
    const Locked locked(ovMemThreadHeap.SpinLock);
    *bytesMaxMarkUsed = loadRelaxed(ovMemThreadHeap.MaxUsedMarkMemory);
    *bytesMaxMarkAligned = loadRelaxed(ovMemThreadHeap.MaxUsedAlignedMarkMemory);
    *bytesMaxMarkTotal = loadRelaxed(ovMemThreadHeap.MaxTotalUsedMarkMemory);
    return 0;
}

int ovMemGetUsedMemoryBlocks(int type, OV_ULONGLONG_T* AllocBlocks, OV_ULONGLONG_T* DeAllocBlocks)
{
    constexpr int kSinceStart = 1;
    if (!AllocBlocks || !DeAllocBlocks) return SDSTS_INVALID_PARAM;
    if (!bucketControl()) return -1;
    const bool sinceStart = type == kSinceStart;
    const Locked locked(ovMemThreadHeap.SpinLockBlocks);
    copyOut(sinceStart ? ovMemThreadHeap.AllocBlocks : ovMemThreadHeap.AllocBlocksMark, AllocBlocks);
    copyOut(sinceStart ? ovMemThreadHeap.DeAllocBlocks : ovMemThreadHeap.DeAllocBlocksMark, DeAllocBlocks);
    return 0;
}

int ovMemGetUsedMemory(OV_ULONGLONG_T* bytesOrdinary, OV_ULONGLONG_T* bytesHeaps, OV_ULONGLONG_T* bytesAligned,
                       OV_ULONGLONG_T* bytesMaxUsed, OV_ULONGLONG_T* bytesMaxAligned, OV_ULONGLONG_T* bytesMaxTotal)
{
    if (!bytesOrdinary || !bytesHeaps || !bytesAligned || !bytesMaxUsed || !bytesMaxAligned || !bytesMaxTotal)
        return SDSTS_INVALID_PARAM;
    if (!memoryControl()) return -1;
    {
        const Locked locked(ovMemThreadHeap.SpinLock);
        *bytesOrdinary = loadRelaxed(ovMemThreadHeap.UsedMemory);
        *bytesAligned = loadRelaxed(ovMemThreadHeap.UsedAlignedMemory);
        *bytesMaxUsed = loadRelaxed(ovMemThreadHeap.MaxUsedMemory);
        *bytesMaxAligned = loadRelaxed(ovMemThreadHeap.MaxUsedAlignedMemory);
        *bytesMaxTotal = loadRelaxed(ovMemThreadHeap.MaxTotalUsedMemory);
    }
    // Also after termination: the heaps stay where they are.
    if (loadRelaxed(ovMemThreadHeap.NumThreadHeaps) != 0) {
        *bytesHeaps = heapBytes();
        *bytesOrdinary -= *bytesHeaps;
    } else {
        *bytesHeaps = 0;
        *bytesOrdinary = 0;
    }
    return 0;
}

void ovMemInfo(int, char*) {}

void* ovMemMgrGetAllocBlkHd(void) { return nullptr; }

void* ovMemMgrGetMemInfoHd(void) { return nullptr; }

void* ovMemMgrGetAllocBlkNxt(void* blk) { return blk ? static_cast<char*>(blk) + kRecordSize : nullptr; }

char* ovMemMgrGetAllocBlkFN(void* blk)
{
    return blk ? fieldAt<char*>(blk, kNameOffset) : const_cast<char*>("Null Pointer");
}

OV_ULONG_T ovMemMgrGetAllocBlkLn(void* blk) { return blk ? fieldAt<OV_ULONG_T>(blk, kLineOffset) : 0; }

OV_ULONG_T ovMemMgrGetAllocBlkSz(void* blk) { return blk ? fieldAt<OV_ULONG_T>(blk, kSizeOffset) : 0; }

OV_MEMINFO_T* ovMemMgrGetAllocBlkMI(void* blk) { return blk ? fieldAt<OV_MEMINFO_T*>(blk, kInfoOffset) : nullptr; }

OV_BOOL_T ovCheckMemoryMarker(void*, const char*, long, long) { return TRUE; }

OV_ULONG_T ovGetMemTag(void*, void*, const char*, long) { return 0; }

void ovSetMemTag(void*, OV_ULONG_T, const char*, long) {}

OV_BOOL_T ovCheckMemTag(void*, OV_ULONG_T, long, const char*, long, const char*, long) { return TRUE; }
