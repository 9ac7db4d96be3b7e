/* The frame every call travels through: the context record, the process-wide switches and hooks, bit helpers.
 *
 * A context record receives the status and the operating system's error number of the last call made with it:
 *
 *     KEM_PSDCTX_T ctx;
 *     if (KemSdInit(&ctx, 0) != 0) return 1;
 *     if (KemSdFileOpen(ctx, path, O_RDWR, 0, &file) != 0)
 *         fprintf(stderr, "%s: status %d, %s\n", path, ctx->sts, strerror(ctx->osRetCode));
 *     KemSdTerm(ctx);
 *
 * The convention, which every call that takes a context follows unless its own entry says otherwise:
 *   - arguments are checked first: a missing pointer, a zero size or a value out of range gives SDSTS_INVALID_PARAM;
 *   - the call stores its status in `sts` and the error number (0 on success) in `osRetCode`, and returns the status;
 *   - a null context is always allowed: the call then only returns the status.
 * A context belongs to one caller at a time, as a rule one thread. The library keeps no list of contexts. */
#ifndef KEMSD_CONTEXT_H
#define KEMSD_CONTEXT_H

#include <kemsd/status.h>
#include <kemsd/types.h>

KEM_EXTERN_C_BEGIN

typedef struct KEM_SDCTX_T {
    KEM_STS_T sts;             /* status of the last call made with this context */
    KEM_OSRETCODE_T osRetCode; /* the errno that went with it, or 0 */
    KEM_BOOL_T bFree;          /* reserved, zero */
    KEM_BOOL_T bReserved1;     /* reserved, zero */
    KEM_BOOL_T bReserved2;     /* reserved, zero */
    KEM_ULONG_T fdBase;        /* reserved, zero */
} KEM_SDCTX_T, *KEM_PSDCTX_T, **KEM_PPSDCTX_T;

KEM_STATIC_ASSERT(sizeof(KEM_SDCTX_T) == 16, "the context record is 16 bytes");
KEM_STATIC_ASSERT(offsetof(KEM_SDCTX_T, fdBase) == 12, "three flag bytes and one of padding precede fdBase");

/* Allocates a cleared context and stores it in *ppSdCtx. `flags` is accepted and ignored.
 * SDSTS_INVALID_PARAM: ppSdCtx is null. SDSTS_NO_MEMORY: no memory; *ppSdCtx is as the allocator left it. */
KEM_API KEM_FUNC_M KemSdInit(KEM_PPSDCTX_T ppSdCtx, KEM_INT_T flags);

/* Releases a context made by KemSdInit. SDSTS_INVALID_PARAM: null. */
KEM_API KEM_FUNC_M KemSdTerm(KEM_PSDCTX_T pSdCtx);

/* Reports the context's error number: as decimal text in pszBuf when it is given and ulBufLen is at least 2, and in
 * *pOsRetCode when that is given. Only the "at least 2" guards the buffer; a buffer of 12 bytes holds every number.
 * The context is left unchanged. SDSTS_INVALID_PARAM: pSdCtx is null. */
KEM_API KEM_FUNC_M KemSdLastErrGet(KEM_PSDCTX_T pSdCtx, KEM_ULONG_T ulBufLen, KEM_STR_T pszBuf,
                                   KEM_POSRETCODE_T pOsRetCode);

/* ---- Process-wide switches ------------------------------------------------------------------------------------
 * The server sets them during start-up, before it starts worker threads; afterwards any thread may read them.
 * Setters return nothing. */

/* On: system blocks carry the memory manager's headers and small ones pass through the per-thread free lists
 * (memory.h). Set it before the first allocation: a block is released under the setting it was made under.
 * Initially off. */
KEM_API void KemSdSetMemoryManager(KEM_BOOL_T setMemoryManager);

/* ovFree releases nothing from now on; for a process about to end. Takes effect only while the memory manager is on. */
KEM_API void KemSdSetMemDeallocOption(void);

/* TRUE: ovMmap and ovMremap never map, they serve tracked aligned memory, and ovMprotect does nothing. Initially off.
 */
KEM_API void KemSdSetMmapAllocCfg(KEM_BOOL_T bDisableMmapCfg);

/* TRUE: ovMprotect really changes the protection of mapped memory. Initially off. */
KEM_API void KemSdSetMemProtectCfg(KEM_BOOL_T bMemProtect);

/* Failover mode: guarded operations call the lease guard first, and created files are readable and writable by
 * everybody. Initially off. */
KEM_API void KemSdSetFailoverModeFlag(KEM_BOOL_T bIsFailoverMode);
KEM_API KEM_BOOL_T KemSdIsFailoverMode(void);

/* How whole-file locks behave (file.h). Initially ADVISORY. */
typedef enum KEM_File_Locking_Mode {
    KEM_FILE_LOCK_MANDATORY = 0,
    KEM_FILE_LOCK_ADVISORY = 1,
    KEM_FILE_LOCK_NONE = 2,
    KEM_FILE_LOCK_NOTSET = 3
} KEM_File_Locking_Mode;
KEM_API void KemSdSetFileLockingMode(KEM_File_Locking_Mode mode);

/* The application folder's name, initially "app". The pointer itself is kept: the string must outlive its use. */
KEM_API void KemSdSetAppFolderName(KEM_STR_T name);
KEM_API KEM_STR_T KemSdAppFolderName(void);

/* ---- Hooks the server registers -------------------------------------------------------------------------------
 * Same rule as the switches: registered once, before other threads run. Each caller does nothing while its hook is
 * not registered. */

/* The lease guard: called first by every guarded operation in failover mode; it may block, or end the process, when
 * this instance no longer holds the failover lease. A null function switches the guard off. */
typedef void (*KEM_LMFUNC_T)(void);
KEM_API void KemSdSetLeaseGuardAccessFunction(KEM_LMFUNC_T pfGetLG);
KEM_API void KemSdGetLeaseGuard(void);

/* Thread attach and detach: the caller passes both arguments on. Registering null keeps an earlier registration. */
typedef void (*KEM_UKRFUNC_T)(void* tctxp, KEM_BOOL_T bNewThread);
KEM_API void KemSdSetUkrThreadAttachFunction(KEM_UKRFUNC_T pfThdAtt);
KEM_API void KemSdUkrThreadAttach(void* tctxp, KEM_BOOL_T bNewThread);
KEM_API void KemSdSetUkrThreadDetachFunction(KEM_UKRFUNC_T pfThdDet);
KEM_API void KemSdUkrThreadDetach(void* tctxp, KEM_BOOL_T bNewThread);

/* Lock-wait statistics: arrays of usNumberThreads waiting times each. Registering null keeps an earlier registration.
 */
typedef void (*KEM_HMSTATFUNC_T)(KEM_TIME_T* WriteMonitorWaitTimes, KEM_TIME_T* ReadMonitorWaitTimes,
                                 KEM_USHORT_T usNumberThreads);
KEM_API void KemSdSetHMStatisticsFunction(KEM_HMSTATFUNC_T pfHMStats);
KEM_API void KemSdUpdateHMStatistics(KEM_TIME_T* WriteMonitorWaitTimes, KEM_TIME_T* ReadMonitorWaitTimes,
                                     KEM_USHORT_T usNumberThreads);

/* ---- Bit helpers ---------------------------------------------------------------------------------------------- */

/* The number of bits set. */
KEM_API KEM_ULONG_T KemSdBitCountGet(KEM_BIT32_T bt32);
/* Sets bit ulBitPos mod 32 of *pBt32; bit 0 is the least significant. A null word is left alone. */
KEM_API void KemSdBitPosSet(KEM_ULONG_T ulBitPos, KEM_PBIT32_T pBt32);
/* TRUE when bit ulBitPos mod 32 is set. */
KEM_API KEM_BOOL_T KemSdBitPosIsSet(KEM_ULONG_T ulBitPos, KEM_BIT32_T bt32);

/* ---- Version -------------------------------------------------------------------------------------------------- */

/* Product letters, dotted version, and the build number behind a B: "KEM 1.0.0 B1". */
KEM_API extern const char* const pszModuleVer;
KEM_API extern const KEM_USHORT_T usBuildVer;

KEM_EXTERN_C_END

#endif
