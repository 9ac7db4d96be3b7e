/* Threads and processes, the machine, the process-wide thread-local slot, and clocks. */
#ifndef KEMSD_OS_H
#define KEMSD_OS_H

#include <kemsd/context.h>
#include <kemsd/file.h>

KEM_EXTERN_C_BEGIN

/* ---- Threads ---------------------------------------------------------------------------------------------------
 * POSIX threads under the status convention. A thread's id is its pthread_t and its handle a copy of that, so either
 * may stand for the other; both are passed by address. All calls are stateless and safe from any thread. Example:
 *
 *     KEM_THDID_T id;
 *     KEM_THDHDL_T worker;
 *     if (KemSdThreadCreate(ctx, work, NULL, 0, job, &id, &worker) != 0) return ctx->sts;
 *     KemSdThreadJoin(ctx, &worker);
 *
 * A call that takes a handle needs its address (null: SDSTS_INVALID_PARAM, unless the call is not supported) and, the
 * join apart, the handle of a thread that still exists. osRetCode is 0 where an entry does not name it.
 *
 * A process with threads that forks: between fork and exec the child may only close descriptors
 * (KemSdFileCloseAllFrom), because locks that other threads held stay held in it. */

typedef KEM_INT_T KEM_THDSTACKSIZE_T;
typedef void* (*KEM_PTHDFUNC_T)(void* pvParm);

/* Starts a thread that runs pThdFunc(pvParm); stores its id and its handle. The stack has 1 MiB, always: pvStackAddr
 * and thdStackSize are ignored. Every thread must be joined or deleted once. SDSTS_INVALID_PARAM: pThdFunc, pThdId or
 * pThdHdl is null. SDSTS_THREAD_CREATE: not started; osRetCode is the error number. */
KEM_API KEM_FUNC_M KemSdThreadCreate(KEM_PSDCTX_T pSdCtx, KEM_PTHDFUNC_T pThdFunc, KEM_PVOID_T pvStackAddr,
                                     KEM_THDSTACKSIZE_T thdStackSize, KEM_PVOID_T pvParm, KEM_PTHDID_T pThdId,
                                     KEM_PTHDHDL_T pThdHdl);

/* Waits for the thread's end. Handle 0 is no thread: 0 at once.
 * SDSTS_THREAD_JOIN: it cannot be joined; osRetCode is the error number, but the context's sts is 0. */
KEM_API KEM_FUNC_M KemSdThreadJoin(KEM_PSDCTX_T pSdCtx, KEM_PTHDHDL_T pThdHdl);

/* Detaches the thread, which goes on and frees itself when it ends. 0 also when it cannot be detached. */
KEM_API KEM_FUNC_M KemSdThreadDelete(KEM_PSDCTX_T pSdCtx, KEM_PTHDHDL_T pThdHdl);

/* Ends the calling thread; never returns and leaves the context alone. stsThdRet is ignored. The stack is unwound, so
 * no function between the thread's start and this call may be noexcept. */
KEM_API KEM_FUNC_M KemSdThreadExit(KEM_PSDCTX_T pSdCtx, KEM_STS_T stsThdRet);

/* Yields the processor. Always SDSTS_NOT_SUPPORTED, which is this call's normal answer. */
KEM_API KEM_FUNC_M KemSdThreadYield(KEM_PSDCTX_T pSdCtx);

/* Store the calling thread's id, or handle. SDSTS_INVALID_PARAM: nowhere to store it. SDSTS_THREAD_HANDLE_GET is kept
 * for a handle that cannot be had; here there always is one. */
KEM_API KEM_FUNC_M KemSdThreadIdGet(KEM_PSDCTX_T pSdCtx, KEM_PTHDID_T pThdId);
KEM_API KEM_FUNC_M KemSdThreadHandleGet(KEM_PSDCTX_T pSdCtx, KEM_PTHDHDL_T pThdHdl);

/* Set the thread's priority within the system's ordinary scheduling (SCHED_OTHER), or store its priority. Only a
 * negative result of the thread library is a failure: SDSTS_THREAD_PRIORITY_SET or SDSTS_THREAD_PRIORITY_GET with
 * errno. Its error numbers are positive, so a refused call is a success with that number in osRetCode.
 * SDSTS_INVALID_PARAM: plThdPriority is null. */
KEM_API KEM_FUNC_M KemSdThreadPrioritySet(KEM_PSDCTX_T pSdCtx, KEM_PTHDHDL_T pThdHdl, KEM_LONG_T lThdPriority);
KEM_API KEM_FUNC_M KemSdThreadPriorityGet(KEM_PSDCTX_T pSdCtx, KEM_PTHDHDL_T pThdHdl, KEM_PLONG_T plThdPriority);

/* Store the priority plus 1, or the priority itself, as KemSdThreadPriorityGet gives it. osRetCode is 0 on success.
 * SDSTS_INVALID_PARAM: plThdPriority is null. SDSTS_THREAD_HIGH_PRIORITY, SDSTS_THREAD_BASE_PRIORITY with errno: the
 * query failed. */
KEM_API KEM_FUNC_M KemSdThreadHighPriorityGet(KEM_PSDCTX_T pSdCtx, KEM_PTHDHDL_T pThdHdl, KEM_PLONG_T plThdPriority);
KEM_API KEM_FUNC_M KemSdThreadBasePriorityGet(KEM_PSDCTX_T pSdCtx, KEM_PTHDHDL_T pThdHdl, KEM_PLONG_T plThdPriority);

/* SDSTS_NOT_SUPPORTED, whatever the arguments. */
KEM_API KEM_FUNC_M KemSdThreadSuspend(KEM_PSDCTX_T pSdCtx, KEM_PTHDHDL_T pThdHdl);
KEM_API KEM_FUNC_M KemSdThreadResume(KEM_PSDCTX_T pSdCtx, KEM_PTHDHDL_T pThdHdl);
KEM_API KEM_FUNC_M KemSdThreadConcurrencyLevGet(KEM_PSDCTX_T pSdCtx, KEM_PINT_T piConcurLev);
KEM_API KEM_FUNC_M KemSdThreadConcurrencyLevSet(KEM_PSDCTX_T pSdCtx, KEM_INT_T iConcurLev);

/* ---- Processes -------------------------------------------------------------------------------------------------
 * Stateless, safe from any thread. A session id is the process id in its first half. Example:
 *
 *     if (KemSdProcessCheckAlive(ctx, session, child) == SDSTS_PROCESS_NOT_ALIVE) restart(child);
 */

/* Stores the calling process's id. SDSTS_INVALID_PARAM: pProcId is null. */
KEM_API KEM_FUNC_M KemSdProcessIdGet(KEM_PSDCTX_T pSdCtx, KEM_PPROCID_T pProcId);

/* Stores the process id in the first half of *pSessId; the second half is left alone.
 * SDSTS_INVALID_PARAM: pSessId is null. SDSTS_SESSION_ID_GET is kept for an id that cannot be had. */
KEM_API KEM_FUNC_M KemSdProcessSessionIdGet(KEM_PSDCTX_T pSdCtx, KEM_PSESSID_T pSessId);

/* Asks, without waiting, after a child of this process; sessId is ignored. A child that has ended is reaped by the call
 * and still counts as alive this once. osRetCode is the raw result: 0 for a running child, its id for a reaped one, -1
 * otherwise. SDSTS_PROCESS_NOT_ALIVE: procId is no child of this process, or one reaped before. */
KEM_API KEM_FUNC_M KemSdProcessCheckAlive(KEM_PSDCTX_T pSdCtx, KEM_SESSID_T sessId, KEM_PROCID_T procId);

/* Does nothing to the process; 0. */
KEM_API KEM_FUNC_M KemSdProcessDelete(KEM_PSDCTX_T pSdCtx, KEM_SESSID_T sessId, KEM_PROCID_T procId);

/* SDSTS_NOT_SUPPORTED, whatever the arguments. */
KEM_API KEM_FUNC_M KemSdProcessPriorityGet(KEM_PSDCTX_T pSdCtx, KEM_PLONG_T plProcPriority);
KEM_API KEM_FUNC_M KemSdProcessPrioritySet(KEM_PSDCTX_T pSdCtx, KEM_SESSID_T sessId, KEM_PROCID_T procId,
                                           KEM_LONG_T lProcPriority);

/* ---- The machine ------------------------------------------------------------------------------------------------ */

/* The number of processors online; 1 when the system does not know any. */
KEM_API KEM_ULONG_T KemSdCPUCountGet(void);

/* ---- The process-wide thread-local slot ------------------------------------------------------------------------
 * One pointer a thread. Init and Term belong to start-up and shut-down, while one thread uses the slot; Get and Set are
 * safe from any thread in between. Example:
 *
 *     if (KemSdVupUtilTlsInit() != 0) return 1;    // once
 *     KemSdVupUtilTlsSet(threadContext);           // in each thread
 *     use(KemSdVupUtilTlsGet());
 *     KemSdVupUtilTlsTerm();                       // once
 */

typedef pthread_key_t kem_tls_id_t;

/* The server's utility layer keeps pointers of its own here; the library touches tlsKey alone. */
typedef struct kem_vuputilglobals_t {
    void* queryGovernorCheckFunction; /* the server's */
    void* tlsKey;                     /* null, or the address of the cell that holds the kem_tls_id_t */
    void* exceptionMessageTargetImpl; /* the server's */
    const char* procName;             /* the server's */
    void* threadContextImpl;          /* the server's */
    KEM_BOOL_T ukrUtilIsInitialized;  /* the server's */
} kem_vuputilglobals_t, KEM_VUPUTILGLOBALS_T;

KEM_STATIC_ASSERT(sizeof(KEM_VUPUTILGLOBALS_T) == 48, "five pointers and a flag");

/* The one record of the process. */
KEM_API KEM_VUPUTILGLOBALS_T* KemSdVupUtilGlobals(void);

/* Makes the slot; every thread's value is null. A second call without KemSdVupUtilTlsTerm ends the process by
 * assertion. SDSTS_NO_MEMORY: no memory for the key. SDSTS_TLS_FAILED: the system has no key left. */
KEM_API KEM_FUNC_M KemSdVupUtilTlsInit(void);

/* The calling thread's value; null before it set one, and outside Init and Term. */
KEM_API void* KemSdVupUtilTlsGet(void);

/* Sets the calling thread's value, which may be null. Outside Init and Term it ends the process by assertion.
 * SDSTS_TLS_FAILED: the system could not store it. */
KEM_API KEM_FUNC_M KemSdVupUtilTlsSet(void* value);

/* Gives the slot back; values are dropped, nothing is called for them. Without a slot it does nothing. */
KEM_API void KemSdVupUtilTlsTerm(void);

/* ---- Clock and time --------------------------------------------------------------------------------------------
 * All calls are stateless and safe from any thread. Example:
 *
 *     KEM_TIME_T now;
 *     char text[32];
 *     KemSdTime(ctx, &now);
 *     KemSdCTime(ctx, now, sizeof text, text);    // "Thu Jan  1 01:00:00 1970\n"
 */

/* The system's broken-down time as it stands: Month counts from 0, Year from 1900, Weekday from Sunday = 0. */
typedef struct KEM_TIMERECORD_T {
    KEM_LONG_T TimeValue; /* low 32 bits of the time value */
    KEM_USHORT_T Seconds;
    KEM_USHORT_T Minutes;
    KEM_USHORT_T Hours;
    KEM_USHORT_T Day;
    KEM_USHORT_T Month;
    KEM_USHORT_T Year;
    KEM_USHORT_T Weekday;
    KEM_USHORT_T usFiller;
} KEM_TIMERECORD_T, *KEM_PTIMERECORD_T;

KEM_STATIC_ASSERT(sizeof(KEM_TIMERECORD_T) == 20, "the time record is 20 bytes");

typedef struct KEM_UTC_TIMESTAMP_T {
    KEM_LONG_T lSeconds;      /* since the epoch, low 32 bits */
    KEM_LONG_T lMicroseconds; /* 0 to 999,999 */
} KEM_UTC_TIMESTAMP_T, *KEM_PUTC_TIMESTAMP_T;

/* Stores the current time in seconds since the epoch.
 * SDSTS_INVALID_PARAM: pTimeCur is null. SDSTS_TIME_FAILED with errno: the system has no time to give. */
KEM_API KEM_FUNC_M KemSdTime(KEM_PSDCTX_T pSdCtx, KEM_PTIME_T pTimeCur);

/* Stores the clock ticks since an arbitrary point; the system's tick rate says how many make a second.
 * SDSTS_INVALID_PARAM: pClockTicks is null. SDSTS_CLOCK_FAILED with errno: the system call failed. */
KEM_API KEM_FUNC_M KemSdClock(KEM_PSDCTX_T pSdCtx, clock_t* pClockTicks);

/* Stores the whole seconds since the point KemSdClock counts from, low 32 bits.
 * SDSTS_INVALID_PARAM: pTimeElapsed is null. SDSTS_ELAPSED_FAILED with errno, and 0 stored: the system call failed or
 * the tick rate is 0 or -1. */
KEM_API KEM_FUNC_M KemSdTimeElapsedOS(KEM_PSDCTX_T pSdCtx, KEM_PULONG_T pTimeElapsed);

/* Fills *pTimestamp with the wall-clock time; pContext is unused. There is no result: a failure leaves the record
 * untouched and stores SDSTS_TIMEOFDAY_FAILED with errno in the context; a null record stores SDSTS_INVALID_PARAM. */
KEM_API void KemSdGetUtcTimestamp(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T pContext, KEM_PUTC_TIMESTAMP_T pTimestamp);

/* Breaks timeVal down into local time.
 * SDSTS_INVALID_PARAM: pTimeRec is null. SDSTS_LOCALTIME_FAILED with errno: the year does not fit; the record then
 * holds TimeValue and zeros. */
KEM_API KEM_FUNC_M KemSdLocalTimeGet(KEM_PSDCTX_T pSdCtx, KEM_TIME_T timeVal, KEM_PTIMERECORD_T pTimeRec);

/* Writes the record as text, "Thu Jan  1 01:00:00 1970" cut to sizeBuf - 1 characters, trailing white space removed,
 * the rest of the sizeBuf bytes zero. A record whose TimeValue is 0 gives the empty string.
 * SDSTS_INVALID_PARAM: a null pointer or sizeBuf 0. SDSTS_ASCTIME_FAILED with errno: the record cannot be formatted. */
KEM_API KEM_FUNC_M KemSdTimeStrGet(KEM_PSDCTX_T pSdCtx, KEM_PTIMERECORD_T pTimeRec, KEM_SIZE_T sizeBuf,
                                   KEM_STR_T pszTime);

/* Writes timeVal as local-time text, the newline at its end included, cut to sizeBuf - 1 characters.
 * SDSTS_INVALID_PARAM: null buffer or sizeBuf 0. SDSTS_CTIME_FAILED with errno, and the empty string: the year does
 * not fit. */
KEM_API KEM_FUNC_M KemSdCTime(KEM_PSDCTX_T pSdCtx, KEM_TIME_T timeVal, KEM_SIZE_T sizeBuf, KEM_STR_T pszTimeLocal);

/* Sleeps; a signal ends the sleep early and it is not resumed.
 * SDSTS_SLEEP_FAILED: interrupted; osRetCode then is -1, the system call's result, not errno. */
KEM_API KEM_FUNC_M KemSdSleep(KEM_PSDCTX_T pSdCtx, KEM_ULONG_T ulMilliseconds);

/* A packed DOS time and date (16-bit words, passed as 32-bit) as a time value between 0 and 2^32 - 1. The formula uses
 * the packed fields unshifted and leaves out the month; peers compute the same value, so it stays. */
KEM_API KEM_TIME_T KemSdTimetFromDOS(KEM_ULONG_T dos_time, KEM_ULONG_T dos_date);

/* Copies size and creation time out of a search record, each only if its pointer is given.
 * Returns 0, or 1 when fileinfo is null. */
KEM_API int KemSdGetFileSizeAndCreateDate(KEM_PFILEFINDINFO_T fileinfo, KEM_ULONGLONG_T* size, KEM_PTIME_T time);

KEM_EXTERN_C_END

#endif
