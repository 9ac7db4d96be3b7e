// What servers were compiled against: the widths of the types, the place and width of every field of every public
// record, and the number of every status. The numbers stand here literally, so that no change of a header passes
// unseen.

#include <gtest/gtest.h>
#include <kemsd/kemsd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

namespace {

struct Field {
    const char* name;
    size_t offset;
    size_t size;
    size_t expectedOffset;
    size_t expectedSize;
};

struct Record {
    const char* name;
    size_t size;
    size_t expectedSize;
    std::vector<Field> fields;
};

constexpr Field at(const char* name, size_t offset, size_t size, size_t expectedOffset, size_t expectedSize)
{
    return {name, offset, size, expectedOffset, expectedSize};
}
#define FIELD(record, field, offset, size) at(#field, offsetof(record, field), sizeof(record::field), offset, size)

const Record kRecords[] = {
    {"KEM_SDCTX_T",
     sizeof(KEM_SDCTX_T),
     16,
     {
         FIELD(KEM_SDCTX_T, sts, 0, 4),
         FIELD(KEM_SDCTX_T, osRetCode, 4, 4),
         FIELD(KEM_SDCTX_T, bFree, 8, 1),
         FIELD(KEM_SDCTX_T, bReserved1, 9, 1),
         FIELD(KEM_SDCTX_T, bReserved2, 10, 1),
         FIELD(KEM_SDCTX_T, fdBase, 12, 4),
     }},
    {"OV_ALLOCMEMBLKHDR_T",
     sizeof(OV_ALLOCMEMBLKHDR_T),
     8,
     {
         FIELD(OV_ALLOCMEMBLKHDR_T, poolIndex, 0, 4),
         FIELD(OV_ALLOCMEMBLKHDR_T, padding, 4, 2),
         FIELD(OV_ALLOCMEMBLKHDR_T, policy, 6, 1),
         FIELD(OV_ALLOCMEMBLKHDR_T, hlen, 7, 1),
     }},
    {"OV_MemBin_T",
     sizeof(OV_MemBin_T),
     40,
     {
         FIELD(OV_MemBin_T, size, 0, 4),
         FIELD(OV_MemBin_T, prevsize, 4, 4),
         FIELD(OV_MemBin_T, MemHeap, 8, 8),
         FIELD(OV_MemBin_T, next, 16, 8),
         FIELD(OV_MemBin_T, prev, 24, 8),
         FIELD(OV_MemBin_T, index, 32, 4),
     }},
    {"OV_MemAllocBlock_T",
     sizeof(OV_MemAllocBlock_T),
     24,
     {
         FIELD(OV_MemAllocBlock_T, size, 0, 4),
         FIELD(OV_MemAllocBlock_T, prevsize, 4, 4),
         FIELD(OV_MemAllocBlock_T, MemHeap, 8, 8),
         FIELD(OV_MemAllocBlock_T, marker, 16, 8),
     }},
    {"OV_MemHeapHeader_T",
     sizeof(OV_MemHeapHeader_T),
     480,
     {
         FIELD(OV_MemHeapHeader_T, SpinLock, 0, 16),
         FIELD(OV_MemHeapHeader_T, FastBin, 16, 160),
         FIELD(OV_MemHeapHeader_T, Bin, 176, 256),
         FIELD(OV_MemHeapHeader_T, HeapEnd, 432, 8),
         FIELD(OV_MemHeapHeader_T, FastBinCount, 440, 4),
         FIELD(OV_MemHeapHeader_T, BinMap, 444, 32),
     }},
    {"OV_MemHeap_T",
     sizeof(OV_MemHeap_T),
     512,
     {
         FIELD(OV_MemHeap_T, HeapHeader, 0, 480),
         FIELD(OV_MemHeap_T, next, 480, 8),
         FIELD(OV_MemHeap_T, prev, 488, 8),
         FIELD(OV_MemHeap_T, ThreadHeapId, 496, 4),
         FIELD(OV_MemHeap_T, HeapBuffer, 504, 8),
     }},
    {"OV_MemAllocExtBlock_T",
     sizeof(OV_MemAllocExtBlock_T),
     32,
     {
         FIELD(OV_MemAllocExtBlock_T, size, 0, 8),
         FIELD(OV_MemAllocExtBlock_T, prev, 8, 8),
         FIELD(OV_MemAllocExtBlock_T, next, 16, 8),
         FIELD(OV_MemAllocExtBlock_T, marker, 24, 8),
     }},
    {"OV_THDCTX_T",
     sizeof(OV_THDCTX_T),
     56,
     {
         FIELD(OV_THDCTX_T, NetCtx, 0, 8),
         FIELD(OV_THDCTX_T, MemShortHeap, 8, 8),
         FIELD(OV_THDCTX_T, MemShortExtBlocks, 16, 8),
         FIELD(OV_THDCTX_T, svctxp, 24, 8),
         FIELD(OV_THDCTX_T, pSyncCtx, 32, 8),
         FIELD(OV_THDCTX_T, pSdCtx, 40, 8),
         FIELD(OV_THDCTX_T, MemShortDisableFree, 48, 1),
         FIELD(OV_THDCTX_T, bBusyWriteIO, 49, 1),
     }},
    {"OV_MemAlignedItem_T",
     sizeof(OV_MemAlignedItem_T),
     24,
     {
         FIELD(OV_MemAlignedItem_T, size, 0, 8),
         FIELD(OV_MemAlignedItem_T, block, 8, 8),
         FIELD(OV_MemAlignedItem_T, next, 16, 8),
     }},
    {"OV_MemHeapPool_T",
     sizeof(OV_MemHeapPool_T),
     32,
     {
         FIELD(OV_MemHeapPool_T, MemHeap, 0, 8),
         FIELD(OV_MemHeapPool_T, SpinLock, 8, 16),
         FIELD(OV_MemHeapPool_T, NumHeaps, 24, 4),
     }},
    {"OV_MemThreadHeap_T",
     sizeof(OV_MemThreadHeap_T),
     2608,
     {
         FIELD(OV_MemThreadHeap_T, HeapSize, 0, 4),
         FIELD(OV_MemThreadHeap_T, ShortHeapSize, 4, 4),
         FIELD(OV_MemThreadHeap_T, MaxAllocBlock, 8, 4),
         FIELD(OV_MemThreadHeap_T, Heap, 16, 512),
         FIELD(OV_MemThreadHeap_T, HeapCopy, 528, 512),
         FIELD(OV_MemThreadHeap_T, MemHeapPool, 1040, 32),
         FIELD(OV_MemThreadHeap_T, MemShortHeapPool, 1072, 32),
         FIELD(OV_MemThreadHeap_T, NumThreadHeaps, 1104, 4),
         FIELD(OV_MemThreadHeap_T, NumHeaps, 1108, 4),
         FIELD(OV_MemThreadHeap_T, MaxNumHeaps, 1112, 4),
         FIELD(OV_MemThreadHeap_T, MemoryLimit, 1120, 8),
         FIELD(OV_MemThreadHeap_T, malloc_count, 1128, 8),
         FIELD(OV_MemThreadHeap_T, UsedMemory, 1136, 8),
         FIELD(OV_MemThreadHeap_T, UsedAlignedMemory, 1144, 8),
         FIELD(OV_MemThreadHeap_T, MaxUsedMemory, 1152, 8),
         FIELD(OV_MemThreadHeap_T, MaxUsedAlignedMemory, 1160, 8),
         FIELD(OV_MemThreadHeap_T, MaxTotalUsedMemory, 1168, 8),
         FIELD(OV_MemThreadHeap_T, MaxUsedMarkMemory, 1176, 8),
         FIELD(OV_MemThreadHeap_T, MaxUsedAlignedMarkMemory, 1184, 8),
         FIELD(OV_MemThreadHeap_T, MaxTotalUsedMarkMemory, 1192, 8),
         FIELD(OV_MemThreadHeap_T, AllocBlocks, 1200, 64),
         FIELD(OV_MemThreadHeap_T, DeAllocBlocks, 1264, 64),
         FIELD(OV_MemThreadHeap_T, AllocBlocksMark, 1328, 64),
         FIELD(OV_MemThreadHeap_T, DeAllocBlocksMark, 1392, 64),
         FIELD(OV_MemThreadHeap_T, tctxp, 1456, 8),
         FIELD(OV_MemThreadHeap_T, MaxShortMemoryPoolSize, 1464, 4),
         FIELD(OV_MemThreadHeap_T, LimitShortHeapsForRemove, 1468, 4),
         FIELD(OV_MemThreadHeap_T, NumShortNumHeapsInUsage, 1472, 4),
         FIELD(OV_MemThreadHeap_T, MemoryControlAlignedArray, 1480, 1048),
         FIELD(OV_MemThreadHeap_T, MemoryControl, 2528, 1),
         FIELD(OV_MemThreadHeap_T, MemoryBlocksControl, 2529, 1),
         FIELD(OV_MemThreadHeap_T, ShortMemoryOn, 2530, 1),
         FIELD(OV_MemThreadHeap_T, pSdCtx, 2536, 8),
         FIELD(OV_MemThreadHeap_T, SpinLock, 2544, 16),
         FIELD(OV_MemThreadHeap_T, SpinLockBlocks, 2560, 16),
         FIELD(OV_MemThreadHeap_T, fNetLocalMessage, 2576, 8),
         FIELD(OV_MemThreadHeap_T, next_message_malloc_count, 2584, 4),
         FIELD(OV_MemThreadHeap_T, MemMessageUsedMemory, 2588, 4),
         FIELD(OV_MemThreadHeap_T, LastMemMessage, 2592, 4),
         FIELD(OV_MemThreadHeap_T, MemMessage, 2596, 4),
         FIELD(OV_MemThreadHeap_T, MallocInitValue, 2600, 1),
         FIELD(OV_MemThreadHeap_T, FreeInitValue, 2601, 1),
         FIELD(OV_MemThreadHeap_T, ErrorExit, 2602, 1),
     }},
    {"OV_MEMINFO_T",
     sizeof(OV_MEMINFO_T),
     48,
     {
         FIELD(OV_MEMINFO_T, payload, 0, 8),
         FIELD(OV_MEMINFO_T, fname, 8, 8),
         FIELD(OV_MEMINFO_T, line, 16, 8),
         FIELD(OV_MEMINFO_T, sz, 24, 8),
         FIELD(OV_MEMINFO_T, pPrev, 32, 8),
         FIELD(OV_MEMINFO_T, pNext, 40, 8),
     }},
    {"KEM_DWATOMIC_T",
     sizeof(KEM_DWATOMIC_T),
     16,
     {
         FIELD(KEM_DWATOMIC_T, hi, 0, 8),
         FIELD(KEM_DWATOMIC_T, low, 8, 8),
     }},
    {"KEM_SPINLOCK_XCHG_T",
     sizeof(KEM_SPINLOCK_XCHG_T),
     40,
     {
         FIELD(KEM_SPINLOCK_XCHG_T, slock, 0, 8),
         FIELD(KEM_SPINLOCK_XCHG_T, lSpinTime, 8, 4),
         FIELD(KEM_SPINLOCK_XCHG_T, bAcqWithId, 16, 8),
         FIELD(KEM_SPINLOCK_XCHG_T, thdMasterId, 24, 8),
         FIELD(KEM_SPINLOCK_XCHG_T, sLockCount, 32, 2),
     }},
    {"KEM_SPINLOCK_TICKET_T",
     sizeof(KEM_SPINLOCK_TICKET_T),
     256,
     {
         FIELD(KEM_SPINLOCK_TICKET_T, padding0, 0, 64),
         FIELD(KEM_SPINLOCK_TICKET_T, lOwnerTicket, 64, 8),
         FIELD(KEM_SPINLOCK_TICKET_T, thdMasterId, 72, 8),
         FIELD(KEM_SPINLOCK_TICKET_T, sLockCount, 80, 2),
         FIELD(KEM_SPINLOCK_TICKET_T, padding1, 82, 46),
         FIELD(KEM_SPINLOCK_TICKET_T, grant, 128, 8),
         FIELD(KEM_SPINLOCK_TICKET_T, padding2, 136, 56),
         FIELD(KEM_SPINLOCK_TICKET_T, lTicket, 192, 8),
         FIELD(KEM_SPINLOCK_TICKET_T, padding3, 200, 56),
     }},
    {"KEM_SPINLOCK_T",
     sizeof(KEM_SPINLOCK_T),
     256,
     {
         FIELD(KEM_SPINLOCK_T, xchg, 0, 40),
         FIELD(KEM_SPINLOCK_T, ticket, 0, 256),
     }},
    {"OV_SPINLOCK_T",
     sizeof(OV_SPINLOCK_T),
     16,
     {
         FIELD(OV_SPINLOCK_T, pSpinlock, 0, 8),
         FIELD(OV_SPINLOCK_T, slkno, 8, 4),
     }},
    {"KEM_FILEFINDINFO_T",
     sizeof(KEM_FILEFINDINFO_T),
     1608,
     {
         FIELD(KEM_FILEFINDINFO_T, hDir, 0, 8),
         FIELD(KEM_FILEFINDINFO_T, ulSearchCnt, 8, 8),
         FIELD(KEM_FILEFINDINFO_T, findInfo, 16, 280),
         FIELD(KEM_FILEFINDINFO_T, szFilePattern, 296, 121),
         FIELD(KEM_FILEFINDINFO_T, szDirectory, 417, 1029),
         FIELD(KEM_FILEFINDINFO_T, szTmp, 1446, 121),
         FIELD(KEM_FILEFINDINFO_T, pszFileName, 1568, 8),
         FIELD(KEM_FILEFINDINFO_T, ulFileAttr, 1576, 8),
         FIELD(KEM_FILEFINDINFO_T, ulFindAttr, 1584, 8),
         FIELD(KEM_FILEFINDINFO_T, fileSize, 1592, 8),
         FIELD(KEM_FILEFINDINFO_T, createTime, 1600, 8),
     }},
    {"KEM_VUPUTILGLOBALS_T",
     sizeof(KEM_VUPUTILGLOBALS_T),
     48,
     {
         FIELD(KEM_VUPUTILGLOBALS_T, queryGovernorCheckFunction, 0, 8),
         FIELD(KEM_VUPUTILGLOBALS_T, tlsKey, 8, 8),
         FIELD(KEM_VUPUTILGLOBALS_T, exceptionMessageTargetImpl, 16, 8),
         FIELD(KEM_VUPUTILGLOBALS_T, procName, 24, 8),
         FIELD(KEM_VUPUTILGLOBALS_T, threadContextImpl, 32, 8),
         FIELD(KEM_VUPUTILGLOBALS_T, ukrUtilIsInitialized, 40, 1),
     }},
    {"KEM_TIMERECORD_T",
     sizeof(KEM_TIMERECORD_T),
     20,
     {
         FIELD(KEM_TIMERECORD_T, TimeValue, 0, 4),
         FIELD(KEM_TIMERECORD_T, Seconds, 4, 2),
         FIELD(KEM_TIMERECORD_T, Minutes, 6, 2),
         FIELD(KEM_TIMERECORD_T, Hours, 8, 2),
         FIELD(KEM_TIMERECORD_T, Day, 10, 2),
         FIELD(KEM_TIMERECORD_T, Month, 12, 2),
         FIELD(KEM_TIMERECORD_T, Year, 14, 2),
         FIELD(KEM_TIMERECORD_T, Weekday, 16, 2),
         FIELD(KEM_TIMERECORD_T, usFiller, 18, 2),
     }},
    {"KEM_UTC_TIMESTAMP_T",
     sizeof(KEM_UTC_TIMESTAMP_T),
     8,
     {
         FIELD(KEM_UTC_TIMESTAMP_T, lSeconds, 0, 4),
         FIELD(KEM_UTC_TIMESTAMP_T, lMicroseconds, 4, 4),
     }},
    {"KemSyncEnvInitThrdArgs",
     sizeof(KemSyncEnvInitThrdArgs),
     72,
     {
         FIELD(KemSyncEnvInitThrdArgs, sts1, 0, 4),
         FIELD(KemSyncEnvInitThrdArgs, sts2, 4, 4),
         FIELD(KemSyncEnvInitThrdArgs, pPipeIn1, 8, 8),
         FIELD(KemSyncEnvInitThrdArgs, pPipeOut1, 16, 8),
         FIELD(KemSyncEnvInitThrdArgs, pPipeIn2, 24, 8),
         FIELD(KemSyncEnvInitThrdArgs, pPipeOut2, 32, 8),
         FIELD(KemSyncEnvInitThrdArgs, lDiffTimeCtxSwitch, 40, 8),
         FIELD(KemSyncEnvInitThrdArgs, lNumOfTries, 48, 8),
         FIELD(KemSyncEnvInitThrdArgs, lReady1, 56, 8),
         FIELD(KemSyncEnvInitThrdArgs, lReady2, 64, 8),
     }},
    {"KEM_LWSPINLOCK_TICKET_T",
     sizeof(KEM_LWSPINLOCK_TICKET_T),
     32,
     {
         FIELD(KEM_LWSPINLOCK_TICKET_T, grant, 0, 8),
         FIELD(KEM_LWSPINLOCK_TICKET_T, ticket, 8, 8),
         FIELD(KEM_LWSPINLOCK_TICKET_T, count, 16, 8),
         FIELD(KEM_LWSPINLOCK_TICKET_T, ThdId, 24, 8),
     }},
    {"KEM_LWSPINLOCK_XCHG_T",
     sizeof(KEM_LWSPINLOCK_XCHG_T),
     24,
     {
         FIELD(KEM_LWSPINLOCK_XCHG_T, slock, 0, 8),
         FIELD(KEM_LWSPINLOCK_XCHG_T, lSpinTime, 8, 4),
         FIELD(KEM_LWSPINLOCK_XCHG_T, count, 12, 2),
         FIELD(KEM_LWSPINLOCK_XCHG_T, ThdId, 16, 8),
     }},
    {"KEM_LWSPINLOCK_T",
     sizeof(KEM_LWSPINLOCK_T),
     64,
     {
         FIELD(KEM_LWSPINLOCK_T, ticket, 0, 32),
         FIELD(KEM_LWSPINLOCK_T, xchg, 0, 24),
         FIELD(KEM_LWSPINLOCK_T, storage, 0, 64),
     }},
    {"KEM_OLDSPINLOCK_T",
     sizeof(KEM_OLDSPINLOCK_T),
     48,
     {
         FIELD(KEM_OLDSPINLOCK_T, slock, 0, 8),
         FIELD(KEM_OLDSPINLOCK_T, thdMasterId, 8, 8),
         FIELD(KEM_OLDSPINLOCK_T, lSpinTime, 16, 4),
         FIELD(KEM_OLDSPINLOCK_T, sLockCount, 20, 2),
         FIELD(KEM_OLDSPINLOCK_T, usSpinlocktype, 22, 2),
         FIELD(KEM_OLDSPINLOCK_T, pszHolderFile, 24, 8),
         FIELD(KEM_OLDSPINLOCK_T, sHolderLine, 32, 4),
         FIELD(KEM_OLDSPINLOCK_T, sYieldCount, 36, 4),
         FIELD(KEM_OLDSPINLOCK_T, sGetCount, 40, 4),
     }},
    {"KEM_RWLOCKQNODE_T",
     sizeof(KEM_RWLOCKQNODE_T),
     192,
     {
         FIELD(KEM_RWLOCKQNODE_T, bBlocked, 0, 8),
         FIELD(KEM_RWLOCKQNODE_T, bSuspended, 8, 8),
         FIELD(KEM_RWLOCKQNODE_T, pQNext, 16, 8),
         FIELD(KEM_RWLOCKQNODE_T, pStrNext, 24, 8),
         FIELD(KEM_RWLOCKQNODE_T, mutex, 32, 40),
         FIELD(KEM_RWLOCKQNODE_T, cond, 72, 48),
         FIELD(KEM_RWLOCKQNODE_T, bMode, 120, 8),
         FIELD(KEM_RWLOCKQNODE_T, sCount, 128, 8),
         FIELD(KEM_RWLOCKQNODE_T, pKey, 136, 8),
         FIELD(KEM_RWLOCKQNODE_T, lRdrMaxWaits, 144, 8),
         FIELD(KEM_RWLOCKQNODE_T, lWrtrMaxWaits, 152, 8),
         FIELD(KEM_RWLOCKQNODE_T, lCurrNumOfRdrYields, 160, 8),
         FIELD(KEM_RWLOCKQNODE_T, lCurrNumOfWrtrYields, 168, 8),
         FIELD(KEM_RWLOCKQNODE_T, lCurrNumOfRdrSpinLoops, 176, 8),
         FIELD(KEM_RWLOCKQNODE_T, lCurrNumOfWrtrSpinLoops, 184, 8),
     }},
    {"KEM_RWLOCK_T",
     sizeof(KEM_RWLOCK_T),
     96,
     {
         FIELD(KEM_RWLOCK_T, pReaderHead, 0, 8),
         FIELD(KEM_RWLOCK_T, pWriterHead, 8, 8),
         FIELD(KEM_RWLOCK_T, pWriterTail, 16, 8),
         FIELD(KEM_RWLOCK_T, lRdrCntAndFlags, 24, 8),
         FIELD(KEM_RWLOCK_T, lRdrMaxSpinLoops, 32, 8),
         FIELD(KEM_RWLOCK_T, lWrtrMaxSpinLoops, 40, 8),
         FIELD(KEM_RWLOCK_T, lRdrMaxYields, 48, 8),
         FIELD(KEM_RWLOCK_T, lWrtrMaxYields, 56, 8),
         FIELD(KEM_RWLOCK_T, lRdrMaxWaits, 64, 8),
         FIELD(KEM_RWLOCK_T, lWrtrMaxWaits, 72, 8),
         FIELD(KEM_RWLOCK_T, uiObjType, 80, 4),
         FIELD(KEM_RWLOCK_T, bToSleep, 84, 1),
         FIELD(KEM_RWLOCK_T, category, 88, 4),
     }},
    {"KEM_SYNCCTX_T",
     sizeof(KEM_SYNCCTX_T),
     24,
     {
         FIELD(KEM_SYNCCTX_T, pUsed, 0, 8),
         FIELD(KEM_SYNCCTX_T, pFree, 8, 8),
         FIELD(KEM_SYNCCTX_T, lDatCacheClockPtr, 16, 8),
     }},
    {"KEM_EVENTHDL_T",
     sizeof(KEM_EVENTHDL_T),
     96,
     {
         FIELD(KEM_EVENTHDL_T, mutex, 0, 40),
         FIELD(KEM_EVENTHDL_T, cond, 40, 48),
         FIELD(KEM_EVENTHDL_T, iReady, 88, 4),
     }},
    {"KEM_SHSEMSET_T",
     sizeof(KEM_SHSEMSET_T),
     8,
     {
         FIELD(KEM_SHSEMSET_T, nsems, 0, 2),
         FIELD(KEM_SHSEMSET_T, id, 4, 4),
     }},
    {"KEM_STDEVENT_T",
     sizeof(KEM_STDEVENT_T),
     96,
     {
         FIELD(KEM_STDEVENT_T, mutex, 0, 40),
         FIELD(KEM_STDEVENT_T, cond, 40, 48),
         FIELD(KEM_STDEVENT_T, is_signaled, 88, 1),
     }},
    {"KEM_COUNTINGEVENT_T",
     sizeof(KEM_COUNTINGEVENT_T),
     96,
     {
         FIELD(KEM_COUNTINGEVENT_T, mutex, 0, 40),
         FIELD(KEM_COUNTINGEVENT_T, cond, 40, 48),
         FIELD(KEM_COUNTINGEVENT_T, counter, 88, 4),
     }},
    {"SHMEM_HEADER_T",
     sizeof(SHMEM_HEADER_T),
     8,
     {
         FIELD(SHMEM_HEADER_T, code, 0, 4),
         FIELD(SHMEM_HEADER_T, size, 4, 4),
     }},
    {"SHMEM_CHUNK_REC_T",
     sizeof(SHMEM_CHUNK_REC_T),
     12,
     {
         FIELD(SHMEM_CHUNK_REC_T, hdr, 0, 8),
         FIELD(SHMEM_CHUNK_REC_T, offset, 8, 2),
     }},
    {"OV_SHAREDMEM_SEG_T",
     sizeof(OV_SHAREDMEM_SEG_T),
     1208,
     {
         FIELD(OV_SHAREDMEM_SEG_T, name, 0, 1029),
         FIELD(OV_SHAREDMEM_SEG_T, pShSemSet, 1032, 8),
         FIELD(OV_SHAREDMEM_SEG_T, chunkSize, 1040, 2),
         FIELD(OV_SHAREDMEM_SEG_T, type, 1044, 4),
         FIELD(OV_SHAREDMEM_SEG_T, bitmap, 1048, 4),
         FIELD(OV_SHAREDMEM_SEG_T, segSize, 1052, 2),
         FIELD(OV_SHAREDMEM_SEG_T, shmemHdl, 1056, 4),
         FIELD(OV_SHAREDMEM_SEG_T, chunkRec, 1060, 120),
         FIELD(OV_SHAREDMEM_SEG_T, buffer, 1184, 8),
         FIELD(OV_SHAREDMEM_SEG_T, lShmTimeOut, 1192, 4),
         FIELD(OV_SHAREDMEM_SEG_T, masterPID, 1196, 4),
         FIELD(OV_SHAREDMEM_SEG_T, masteripcKey, 1200, 4),
     }},
    {"OV_SHAREDMEM_SEG_LIST_T",
     sizeof(OV_SHAREDMEM_SEG_LIST_T),
     1216,
     {
         FIELD(OV_SHAREDMEM_SEG_LIST_T, shMemSeg, 0, 1208),
         FIELD(OV_SHAREDMEM_SEG_LIST_T, next, 1208, 8),
     }},
    {"KEM_PIPEHDL_T",
     sizeof(KEM_PIPEHDL_T),
     16,
     {
         FIELD(KEM_PIPEHDL_T, iFdRead, 0, 4),
         FIELD(KEM_PIPEHDL_T, iFdWrite, 4, 4),
         FIELD(KEM_PIPEHDL_T, pszPipeName, 8, 8),
     }},
    {"OV_PAUSE_INTERFACE_T",
     sizeof(OV_PAUSE_INTERFACE_T),
     320,
     {
         FIELD(OV_PAUSE_INTERFACE_T, bPauseWriteIO, 0, 1),
         FIELD(OV_PAUSE_INTERFACE_T, lBusyWriteIOCnt, 8, 8),
         FIELD(OV_PAUSE_INTERFACE_T, writeIOEvtHdl, 16, 96),
         FIELD(OV_PAUSE_INTERFACE_T, pauseWriteIOEvtHdl, 112, 96),
         FIELD(OV_PAUSE_INTERFACE_T, lPauseTimeout, 208, 8),
         FIELD(OV_PAUSE_INTERFACE_T, lPauseStartTime, 216, 8),
         FIELD(OV_PAUSE_INTERFACE_T, rwlockPauseUpdates, 224, 96),
     }},
    {"OV_SVCTX_T",
     sizeof(OV_SVCTX_T),
     328,
     {
         FIELD(OV_SVCTX_T, bAppTerminating, 0, 1),
         FIELD(OV_SVCTX_T, pauseinterface, 8, 320),
     }},
    {"KEM_OSINFO_T",
     sizeof(KEM_OSINFO_T),
     122,
     {
         FIELD(KEM_OSINFO_T, szOSName, 0, 61),
         FIELD(KEM_OSINFO_T, szVersion, 61, 61),
     }},
    {"KEM_CPUINFO_T",
     sizeof(KEM_CPUINFO_T),
     72,
     {
         FIELD(KEM_CPUINFO_T, ulCPUCnt, 0, 4),
         FIELD(KEM_CPUINFO_T, ulCPUType, 4, 4),
         FIELD(KEM_CPUINFO_T, szCPUTypeName, 8, 61),
     }},
    {"KEM_PHYSMEMINFO_T",
     sizeof(KEM_PHYSMEMINFO_T),
     12,
     {
         FIELD(KEM_PHYSMEMINFO_T, ulTotal, 0, 4),
         FIELD(KEM_PHYSMEMINFO_T, ulUsed, 4, 4),
         FIELD(KEM_PHYSMEMINFO_T, ulFree, 8, 4),
     }},
    {"KEM_SWAPINFO_T",
     sizeof(KEM_SWAPINFO_T),
     1048,
     {
         FIELD(KEM_SWAPINFO_T, bt32SwapStatus, 0, 4),
         FIELD(KEM_SWAPINFO_T, szSwapPath, 4, 1029),
         FIELD(KEM_SWAPINFO_T, ulTotal, 1036, 4),
         FIELD(KEM_SWAPINFO_T, ulUsed, 1040, 4),
         FIELD(KEM_SWAPINFO_T, ulFree, 1044, 4),
     }},
    {"KEM_DRIVES_T",
     sizeof(KEM_DRIVES_T),
     12,
     {
         FIELD(KEM_DRIVES_T, ulDriveCnt, 0, 4),
         FIELD(KEM_DRIVES_T, ulDriveCur, 4, 4),
         FIELD(KEM_DRIVES_T, bt32DriveMap, 8, 4),
     }},
    {"KEM_DRIVETYPE_T",
     sizeof(KEM_DRIVETYPE_T),
     68,
     {
         FIELD(KEM_DRIVETYPE_T, ulDriveType, 0, 4),
         FIELD(KEM_DRIVETYPE_T, szDriveTypeName, 4, 61),
     }},
    {"KEM_DRIVEINFO_T",
     sizeof(KEM_DRIVEINFO_T),
     2208,
     {
         FIELD(KEM_DRIVEINFO_T, ulOrdinal, 0, 4),
         FIELD(KEM_DRIVEINFO_T, szDriveName, 4, 1029),
         FIELD(KEM_DRIVEINFO_T, szVolumeLabel, 1033, 1029),
         FIELD(KEM_DRIVEINFO_T, driveType, 2064, 68),
         FIELD(KEM_DRIVEINFO_T, szFileSystemType, 2132, 61),
         FIELD(KEM_DRIVEINFO_T, ulTotal, 2196, 4),
         FIELD(KEM_DRIVEINFO_T, ulUsed, 2200, 4),
         FIELD(KEM_DRIVEINFO_T, ulFree, 2204, 4),
     }},
    {"KEM_OSRESOURCES_T",
     sizeof(KEM_OSRESOURCES_T),
     3500,
     {
         FIELD(KEM_OSRESOURCES_T, osInfo, 0, 122),
         FIELD(KEM_OSRESOURCES_T, timeRecCurSys, 124, 20),
         FIELD(KEM_OSRESOURCES_T, timeElapsedOS, 144, 4),
         FIELD(KEM_OSRESOURCES_T, cpuInfo, 148, 72),
         FIELD(KEM_OSRESOURCES_T, physMemInfo, 220, 12),
         FIELD(KEM_OSRESOURCES_T, swapInfo, 232, 1048),
         FIELD(KEM_OSRESOURCES_T, drives, 1280, 12),
         FIELD(KEM_OSRESOURCES_T, driveInfoArr, 1292, 2208),
     }},
    {"KemProcSysInfo",
     sizeof(KemProcSysInfo),
     28,
     {
         FIELD(KemProcSysInfo, vmPeak, 0, 4),
         FIELD(KemProcSysInfo, vmSize, 4, 4),
         FIELD(KemProcSysInfo, vmHWM, 8, 4),
         FIELD(KemProcSysInfo, vmStk, 12, 4),
         FIELD(KemProcSysInfo, vmData, 16, 4),
         FIELD(KemProcSysInfo, vmExe, 20, 4),
         FIELD(KemProcSysInfo, vmLib, 24, 4),
     }},
    {"KEM_CONSOLEHDL_T",
     sizeof(KEM_CONSOLEHDL_T),
     8,
     {
         FIELD(KEM_CONSOLEHDL_T, hTermIn, 0, 4),
         FIELD(KEM_CONSOLEHDL_T, hTermOut, 4, 4),
     }},
    {"KEM_KBDINFO_T",
     sizeof(KEM_KBDINFO_T),
     2,
     {
         FIELD(KEM_KBDINFO_T, chChar, 0, 1),
         FIELD(KEM_KBDINFO_T, chScan, 1, 1),
     }},
    {"KEM_MMAPHDL_T",
     sizeof(KEM_MMAPHDL_T),
     48,
     {
         FIELD(KEM_MMAPHDL_T, fd, 0, 4),
         FIELD(KEM_MMAPHDL_T, extend_size, 4, 4),
         FIELD(KEM_MMAPHDL_T, maxsize, 8, 8),
         FIELD(KEM_MMAPHDL_T, pmemmap, 16, 8),
         FIELD(KEM_MMAPHDL_T, len, 24, 8),
         FIELD(KEM_MMAPHDL_T, cur, 32, 8),
         FIELD(KEM_MMAPHDL_T, size, 40, 8),
     }},
    {"KEM_MMAPFILEHDL_T",
     sizeof(KEM_MMAPFILEHDL_T),
     56,
     {
         FIELD(KEM_MMAPFILEHDL_T, v, 0, 48),
         FIELD(KEM_MMAPFILEHDL_T, iotype, 48, 2),
     }},
    {"KEM_FILE_LIST",
     sizeof(KEM_FILE_LIST),
     1056,
     {
         FIELD(KEM_FILE_LIST, name, 0, 1029),
         FIELD(KEM_FILE_LIST, creationTime, 1032, 8),
         FIELD(KEM_FILE_LIST, fileSize, 1040, 4),
         FIELD(KEM_FILE_LIST, next, 1048, 8),
     }},
    {"OV_FINDINFO_T",
     sizeof(OV_FINDINFO_T),
     1184,
     {
         FIELD(OV_FINDINFO_T, hdir, 0, 8),
         FIELD(OV_FINDINFO_T, searchCnt, 8, 2),
         FIELD(OV_FINDINFO_T, filePattern, 10, 121),
         FIELD(OV_FINDINFO_T, directory, 131, 1029),
         FIELD(OV_FINDINFO_T, fname, 1160, 8),
         FIELD(OV_FINDINFO_T, fattr, 1168, 8),
         FIELD(OV_FINDINFO_T, findAttr, 1176, 8),
     }},
    {"KEM_BLOCKHDR_T",
     sizeof(KEM_BLOCKHDR_T),
     16,
     {
         FIELD(KEM_BLOCKHDR_T, ulBlockSize, 0, 4),
         FIELD(KEM_BLOCKHDR_T, pNextBlock, 8, 8),
     }},
    {"KEM_STACKHDR_T",
     sizeof(KEM_STACKHDR_T),
     56,
     {
         FIELD(KEM_STACKHDR_T, ulPageSize, 0, 4),
         FIELD(KEM_STACKHDR_T, ulItemAlignment, 4, 4),
         FIELD(KEM_STACKHDR_T, ulCreateBlockSize, 8, 4),
         FIELD(KEM_STACKHDR_T, ulDataOff, 16, 8),
         FIELD(KEM_STACKHDR_T, ulStackPtrOff, 24, 8),
         FIELD(KEM_STACKHDR_T, ulMaxAlloc, 32, 8),
         FIELD(KEM_STACKHDR_T, pCurrentBlock, 40, 8),
         FIELD(KEM_STACKHDR_T, pReservedBlock, 48, 8),
     }},
    {"KEM_NUMA_NODE_INFO",
     sizeof(KEM_NUMA_NODE_INFO),
     16,
     {
         FIELD(KEM_NUMA_NODE_INFO, numaNodeIdAry, 0, 8),
         FIELD(KEM_NUMA_NODE_INFO, numNumaNodes, 8, 8),
     }},
};

struct Status {
    const char* name;
    KEM_STS_T value;
    KEM_STS_T expected;
};

constexpr Status numbered(const char* name, KEM_STS_T value, KEM_STS_T expected) { return {name, value, expected}; }
#define STATUS(name, number) numbered(#name, name, number)

constexpr Status kStatuses[] = {
    STATUS(SDSTS_SUCCESS, 0),
    STATUS(SDSTS_NOT_SUPPORTED, 1130000),
    STATUS(SDSTS_INVALID_PARAM, 1130001),
    STATUS(SDSTS_NO_LOGIN_NAME, 1130002),
    STATUS(SDSTS_NO_MEMORY, 1130203),
    STATUS(SDSTS_PHYSMEM_ALLOC, 1130206),
    STATUS(SDSTS_MEMLOCK_FAILED, 1130207),
    STATUS(SDSTS_MEMUNLOCK_FAILED, 1130208),
    STATUS(SDSTS_ALIGNED_ALLOC, 1130210),
    STATUS(SDSTS_MEM_LIMIT_EXCEEDED, 1130212),
    STATUS(SDSTS_MEM_LIMIT_WARNING, 1130213),
    STATUS(SDSTS_MEM_LIMIT_TOO_LOW, 1130214),
    STATUS(SDSTS_MEM_EXHAUSTED, 1130215),
    STATUS(SDSTS_MMAP_FAILED, 1130216),
    STATUS(SDSTS_MUNMAP_FAILED, 1130217),
    STATUS(SDSTS_MREMAP_FAILED, 1130218),
    STATUS(SDSTS_MPROTECT_FAILED, 1130219),
    STATUS(SDSTS_THREAD_CREATE, 1130300),
    STATUS(SDSTS_THREAD_ID_GET, 1130304),
    STATUS(SDSTS_THREAD_HANDLE_GET, 1130305),
    STATUS(SDSTS_THREAD_PRIORITY_GET, 1130306),
    STATUS(SDSTS_THREAD_PRIORITY_SET, 1130307),
    STATUS(SDSTS_SESSION_ID_GET, 1130310),
    STATUS(SDSTS_PROCESS_NOT_ALIVE, 1130311),
    STATUS(SDSTS_THREAD_BASE_PRIORITY, 1130314),
    STATUS(SDSTS_THREAD_HIGH_PRIORITY, 1130315),
    STATUS(SDSTS_THREAD_JOIN, 1130316),
    STATUS(SDSTS_CNTSEM_CREATE, 1130400),
    STATUS(SDSTS_CNTSEM_CLOSE, 1130402),
    STATUS(SDSTS_CNTSEM_REQUEST, 1130403),
    STATUS(SDSTS_CNTSEM_TIMEOUT, 1130404),
    STATUS(SDSTS_CNTSEM_CLEAR, 1130405),
    STATUS(SDSTS_MUTEX_CREATE, 1130406),
    STATUS(SDSTS_MUTEX_CLOSE, 1130408),
    STATUS(SDSTS_MUTEX_BUSY, 1130409),
    STATUS(SDSTS_SEM_REQUEST, 1130410),
    STATUS(SDSTS_SEM_CLEAR, 1130411),
    STATUS(SDSTS_EVENT_CREATE, 1130412),
    STATUS(SDSTS_EVENT_SET, 1130415),
    STATUS(SDSTS_EVENT_TIMEOUT, 1130416),
    STATUS(SDSTS_EVENT_WAIT, 1130417),
    STATUS(SDSTS_EVENT_CLEAR, 1130418),
    STATUS(SDSTS_CRITSEC_INIT, 1130419),
    STATUS(SDSTS_CRITSEC_ENTER, 1130420),
    STATUS(SDSTS_CRITSEC_EXIT, 1130421),
    STATUS(SDSTS_IPC_CREATE, 1130500),
    STATUS(SDSTS_PIPE_MAKE, 1130502),
    STATUS(SDSTS_PIPE_OPEN, 1130503),
    STATUS(SDSTS_PIPE_CONNECT, 1130504),
    STATUS(SDSTS_PIPE_DISCONNECT, 1130505),
    STATUS(SDSTS_PIPE_CREATE, 1130508),
    STATUS(SDSTS_PIPE_CLOSE, 1130509),
    STATUS(SDSTS_PIPE_IO, 1130511),
    STATUS(SDSTS_FILE_FIND, 1130600),
    STATUS(SDSTS_FILE_NO_MORE, 1130601),
    STATUS(SDSTS_FILE_FIND_NEXT, 1130602),
    STATUS(SDSTS_FILE_FIND_CLOSE, 1130603),
    STATUS(SDSTS_DIR_CREATE, 1130604),
    STATUS(SDSTS_DIR_REMOVE, 1130605),
    STATUS(SDSTS_FILE_TEMPNAME, 1130606),
    STATUS(SDSTS_FILE_REMOVE, 1130607),
    STATUS(SDSTS_FILE_CREATE, 1130608),
    STATUS(SDSTS_FILE_OPEN, 1130610),
    STATUS(SDSTS_FILE_SOPEN, 1130611),
    STATUS(SDSTS_FILE_CLOSE, 1130612),
    STATUS(SDSTS_FILE_READ, 1130613),
    STATUS(SDSTS_FILE_WRITE, 1130614),
    STATUS(SDSTS_FILE_SEEK, 1130615),
    STATUS(SDSTS_FILE_TELL, 1130616),
    STATUS(SDSTS_FILE_LENGTH, 1130617),
    STATUS(SDSTS_FILE_EOF, 1130618),
    STATUS(SDSTS_FILE_GETS_EOF, 1130619),
    STATUS(SDSTS_FILE_GETS, 1130620),
    STATUS(SDSTS_FILE_STATUS, 1130621),
    STATUS(SDSTS_FILE_FLUSH, 1130622),
    STATUS(SDSTS_FILE_MATCH_STAT, 1130623),
    STATUS(SDSTS_FILE_NO_MATCH, 1130624),
    STATUS(SDSTS_DISK_FULL, 1130625),
    STATUS(SDSTS_FILE_LOCK, 1130626),
    STATUS(SDSTS_FILE_UNLOCK, 1130627),
    STATUS(SDSTS_DIO_READ, 1130628),
    STATUS(SDSTS_DIO_WRITE, 1130629),
    STATUS(SDSTS_FILE_SET_EOF, 1130630),
    STATUS(SDSTS_DIO_MAX_FILE_SIZE, 1130631),
    STATUS(SDSTS_DIO_SUSPEND, 1130632),
    STATUS(SDSTS_DIO_RETURN, 1130633),
    STATUS(SDSTS_DIO_SEEK, 1130634),
    STATUS(SDSTS_DIO_WRITE_PENDING, 1130637),
    STATUS(SDSTS_DIO_READ_PENDING, 1130638),
    STATUS(SDSTS_DIR_CHANGE, 1130643),
    STATUS(SDSTS_DIR_NOT_FOUND, 1130644),
    STATUS(SDSTS_FILE_NOT_FOUND, 1130647),
    STATUS(SDSTS_WRITEIO_PAUSED, 1130648),
    STATUS(SDSTS_CLOCK_FAILED, 1130700),
    STATUS(SDSTS_ELAPSED_FAILED, 1130701),
    STATUS(SDSTS_LOCALTIME_FAILED, 1130702),
    STATUS(SDSTS_ASCTIME_FAILED, 1130703),
    STATUS(SDSTS_CTIME_FAILED, 1130704),
    STATUS(SDSTS_SLEEP_FAILED, 1130705),
    STATUS(SDSTS_TIMEOFDAY_FAILED, 1130706),
    STATUS(SDSTS_TIME_FAILED, 1130708),
    STATUS(SDSTS_CONSOLE_WRITE, 1130801),
    STATUS(SDSTS_CONSOLE_FAILED, 1130802),
    STATUS(SDSTS_MODULE_LOAD, 1130900),
    STATUS(SDSTS_MODULE_SYMBOL, 1130902),
    STATUS(SDSTS_OSR_SYSCONF, 1131000),
    STATUS(SDSTS_OSR_BUFFER_SMALL, 1131001),
    STATUS(SDSTS_OSR_OSINFO, 1131002),
    STATUS(SDSTS_OSR_NO_SWAPINFO, 1131004),
    STATUS(SDSTS_OSR_DRIVE_NAME, 1131006),
    STATUS(SDSTS_OSR_DRIVES, 1131008),
    STATUS(SDSTS_OSR_DRIVE_INFO, 1131009),
    STATUS(SDSTS_MEMLOCK_PRIVILEGE, 1131015),
    STATUS(SDSTS_IPC_KEY, 1131017),
    STATUS(SDSTS_SHMEM_BAD_SEGMENT, 1131100),
    STATUS(SDSTS_SHMEM_CHUNK_FREE, 1131101),
    STATUS(SDSTS_TLS_FAILED, 1131200),
    STATUS(SDSTS_SHMEM_READ_BUSY, 1131917),
    STATUS(SDSTS_NMPIPE_CONNECT, 1008023),
    STATUS(SDSTS_NMPIPE_FAILED, 1008036),
};

// In every line of the public headers that begins so: the first word behind it that ends so.
std::set<std::string> declared(const std::string& begin, const std::string& end)
{
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(KEMSD_HEADERS)) {
        std::ifstream in(entry.path());
        for (std::string line; std::getline(in, line);) {
            if (!line.starts_with(begin)) continue;
            std::replace_if(
                line.begin(), line.end(), [](char c) { return !isalnum(c) && c != '_'; }, ' ');
            std::istringstream words(line.substr(begin.size()));
            std::string word;
            while (words >> word && !word.ends_with(end)) continue;
            if (words) names.insert(word);
        }
    }
    return names;
}

template <class T, size_t width, bool isSigned>
constexpr bool isInteger = sizeof(T) == width&& std::is_integral_v<T>&& std::is_signed_v<T> == isSigned;

} // namespace

static_assert(isInteger<KEM_INT_T, 4, true> && isInteger<KEM_LONG_T, 4, true> && isInteger<KEM_STS_T, 4, true>);
static_assert(isInteger<KEM_ULONG_T, 4, false> && isInteger<KEM_UINT_T, 4, false> && isInteger<KEM_BIT32_T, 4, false>);
static_assert(isInteger<KEM_USHORT_T, 2, false> && isInteger<KEM_SHORT_T, 2, true> && isInteger<KEM_BOOL_T, 1, false>);
static_assert(isInteger<KEM_LONG64_T, 8, true> && isInteger<KEM_ULONGLONG_T, 8, false> &&
              isInteger<KEM_OFF_T, 8, true>);
static_assert(isInteger<KEM_SIZE_T, 8, false> && isInteger<KEM_TIME_T, 8, true> && isInteger<KEM_SDATOMIC_T, 8, true>);
static_assert(isInteger<KEM_OSRETCODE_T, 4, true> && isInteger<KEM_FILEHDL_T, 4, true>);
static_assert(isInteger<OV_LONG_T, 4, true> && isInteger<OV_ULONG_T, 4, false> && isInteger<OV_UINT_T, 4, false>);
static_assert(isInteger<OV_ULONGLONG_T, 8, false> && isInteger<OV_BOOL_T, 1, false> && isInteger<OV_BYTE_T, 1, false>);
static_assert(std::is_same_v<KEM_FUNC_M, KEM_STS_T> && isInteger<OV_STS_T, 4, true>);
static_assert(std::is_same_v<KEM_STR_T, char*> && std::is_same_v<KEM_PPVOID_T, void**>);
static_assert(TRUE == 1 && FALSE == 0 && KEM_BLOCK_SIZE == 8192);
static_assert(sizeof(MemoryMessage) == 4 && memmsg_noerror == 0 && memmsg_warning == 1 && memmsg_error == 2);
static_assert(sizeof(KEM_File_Locking_Mode) == 4 && KEM_FILE_LOCK_MANDATORY == 0 && KEM_FILE_LOCK_ADVISORY == 1 &&
              KEM_FILE_LOCK_NONE == 2 && KEM_FILE_LOCK_NOTSET == 3);
static_assert(KEM_FILE_STATUS_PENDING == 0x1 && KEM_FILE_STATUS_IN_USE == 0x2 && KEM_FILE_STATUS_FREE == 0x4 &&
              KEM_FILE_STATUS_ABSENT == 0x8 && KEM_FILE_STATUS_UNKNOWN == 0x10);
static_assert(KEM_FILEATTR_DIRECTORY == 0x4000 && KEM_FILEATTR_FILE == 0x8000 && KEM_FILEPATH_MAX == 1029);
static_assert(KEM_IOTYPE_MMAP == 101 && KEM_IOTYPE_FILEIO == 102);
static_assert(KEM_SWAP_STATUS_VALID == 0x1 && KEM_SWAP_STATUS_UNAVAILABLE == 0x8 && KEM_DRIVES_MAX == 32);
static_assert(PROC_STATUS_NAME == 0 && PROC_STATUS_GID == 1 && PROC_STATUS_VMHWM == 5 && PROC_STATUS_VMLIB == 6 &&
              PROC_STATUS_PPID == 10 && PROC_STATUS_PID == 11 && PROC_STATUS_VMPEAK == 15 && PROC_STATUS_VMLCK == 16 &&
              PROC_STATUS_SLEEPAV == 20 && PROC_STATUS_UID == 21 && PROC_STATUS_VMSIZE == 25 &&
              PROC_STATUS_VMEXE == 26 && PROC_STATUS_SHDPND == 30 && PROC_STATUS_VMRSS == 31 &&
              PROC_STATUS_VMSTK == 35 && PROC_STATUS_GROUPS == 36 && PROC_STATUS_STATE == 40 &&
              PROC_STATUS_MEMS_AL == 41 && PROC_STATUS_TGID == 45 && PROC_STATUS_THREADS == 46 &&
              PROC_STATUS_STASTK == 50 && PROC_STATUS_SIGQ == 51 && PROC_STATUS_SIGPND == 55 &&
              PROC_STATUS_FDSIZE == 56 && PROC_STATUS_VMPTE == 60 && PROC_STATUS_BRK == 61 &&
              PROC_STATUS_TRACERP == 65 && PROC_STATUS_VMDATA == 66 && PROC_STATUS_SIGCGT == 70 &&
              PROC_STATUS_CAPPRM == 75 && PROC_STATUS_SIGIGN == 80 && PROC_STATUS_CAPEFF == 85 &&
              PROC_STATUS_STABRK == 90 && PROC_STATUS_CPUS_AL == 95 && PROC_STATUS_CAPINH == 100 &&
              PROC_STATUS_SIGBLK == 105 && PROC_STATUS_INVALID == 113);

TEST(Layout, EveryFieldOfEveryRecordIsWhereServersExpectIt)
{
    for (const Record& record : kRecords) {
        EXPECT_EQ(record.size, record.expectedSize) << record.name;
        for (const Field& field : record.fields) {
            EXPECT_EQ(field.offset, field.expectedOffset) << record.name << "." << field.name;
            EXPECT_EQ(field.size, field.expectedSize) << record.name << "." << field.name;
        }
    }
}

TEST(Layout, NoFieldIsMissingFromTheTable)
{
    for (const Record& record : kRecords) {
        size_t end = 0;
        for (const Field& field : record.fields) {
            EXPECT_LT(field.expectedOffset, end + 8) << record.name << ": more than padding before " << field.name;
            end = std::max(end, field.expectedOffset + field.expectedSize);
        }
        EXPECT_LT(record.expectedSize, end + 8) << record.name << ": more than padding at the end";
    }
}

TEST(Layout, EveryRecordOfTheHeadersIsInTheTable)
{
    std::set<std::string> listed;
    for (const Record& record : kRecords)
        if (std::string(record.name).ends_with("_T")) listed.insert(record.name);
    // The first name of a record that ends in _T; the names behind it point at the record.
    const std::set<std::string> found = declared("} ", "_T");
    EXPECT_EQ(found, listed);
}

TEST(Status, EveryNumberIsTheCatalogues)
{
    for (const Status& status : kStatuses) EXPECT_EQ(status.value, status.expected) << status.name;
}

TEST(Status, TheHeadersNameExactlyTheCatalogue)
{
    const std::string prefix = "SDSTS_";
    std::set<std::string> listed;
    for (const Status& status : kStatuses)
        EXPECT_TRUE(listed.insert(status.name + prefix.size()).second) << status.name;
    EXPECT_EQ(declared("#define " + prefix, ""), listed);
}

TEST(Status, NoNumberStandsTwice)
{
    std::set<KEM_STS_T> numbers;
    for (const Status& status : kStatuses) EXPECT_TRUE(numbers.insert(status.value).second) << status.name;
}
