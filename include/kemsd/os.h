/* Threads and processes, the machine and its resources, the process-wide thread-local slot, clocks, the console, and
 * modules loaded at run time. */
#ifndef KEMSD_OS_H
#define KEMSD_OS_H

#include <kemsd/context.h>
#include <kemsd/file.h>
#include <kemsd/sync.h>

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

/* SDSTS_NOT_SUPPORTED, whatever the arguments; but with a null pThdHdl, once another thread has declared a fatal
 * exception (memory.h), KemSdThreadSuspend never returns: the calling thread waits for the end of the process. */
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

/* ---- The machine ------------------------------------------------------------------------------------------------
 * Stateless and safe from any thread; nothing is remembered, each call asks the system. Sizes are KiB in 32 bits: from
 * 4 TiB on they read 0xFFFFFFFF. Texts are cut to their fields and always null-terminated. Where an entry says
 * asserted, a null pointer ends the process by assertion; other null outputs give SDSTS_INVALID_PARAM. osRetCode is
 * errno after a failure, else 0, where an entry does not say otherwise. Example:
 *
 *     KEM_PHYSMEMINFO_T memory;
 *     KemSdPhysMemInfoGet(ctx, &memory);
 *     printf("%u of %u KiB are free\n", memory.ulFree, memory.ulTotal);
 */

#define KEM_OSNAME_MAX 61

typedef struct KEM_OSINFO_T {
    char szOSName[KEM_OSNAME_MAX];  /* as uname says: "Linux" */
    char szVersion[KEM_OSNAME_MAX]; /* its release */
} KEM_OSINFO_T, *KEM_POSINFO_T;

typedef struct KEM_CPUINFO_T {
    KEM_ULONG_T ulCPUCnt;  /* processors online */
    KEM_ULONG_T ulCPUType; /* as KemSdCPUTypeGet */
    char szCPUTypeName[KEM_OSNAME_MAX];
} KEM_CPUINFO_T, *KEM_PCPUINFO_T;

typedef struct KEM_PHYSMEMINFO_T {
    KEM_ULONG_T ulTotal; /* KiB, as below */
    KEM_ULONG_T ulUsed;
    KEM_ULONG_T ulFree;
} KEM_PHYSMEMINFO_T, *KEM_PPHYSMEMINFO_T;

#define KEM_SWAP_STATUS_VALID 0x1       /* the figures are filled */
#define KEM_SWAP_STATUS_UNAVAILABLE 0x8 /* the system would not tell */

typedef struct KEM_SWAPINFO_T {
    KEM_BIT32_T bt32SwapStatus;
    char szSwapPath[KEM_FILEPATH_MAX]; /* left empty on this platform */
    KEM_ULONG_T ulTotal;
    KEM_ULONG_T ulUsed;
    KEM_ULONG_T ulFree;
} KEM_SWAPINFO_T, *KEM_PSWAPINFO_T;

/* Drives are the entries of /etc/fstab, whatever they mount: ordinal 1 is the first, at most 32 count. */
#define KEM_DRIVES_MAX 32

typedef struct KEM_DRIVES_T {
    KEM_ULONG_T ulDriveCnt;
    KEM_ULONG_T ulDriveCur;   /* ordinal of the last entry whose mount directory the current directory begins with */
    KEM_BIT32_T bt32DriveMap; /* bit i: there is a drive of ordinal i + 1 */
} KEM_DRIVES_T, *KEM_PDRIVES_T;

typedef struct KEM_DRIVETYPE_T {
    KEM_ULONG_T ulDriveType; /* 0 unknown, 1 removable, 2 fixed, 3 RAM, 4 remote */
    char szDriveTypeName[KEM_OSNAME_MAX];
} KEM_DRIVETYPE_T;

typedef struct KEM_DRIVEINFO_T {
    KEM_ULONG_T ulOrdinal;                /* 1 to 32 */
    char szDriveName[KEM_FILEPATH_MAX];   /* the mount directory */
    char szVolumeLabel[KEM_FILEPATH_MAX]; /* the same */
    KEM_DRIVETYPE_T driveType;
    char szFileSystemType[KEM_OSNAME_MAX];
    KEM_ULONG_T ulTotal; /* all zero where the file system does not answer */
    KEM_ULONG_T ulUsed;
    KEM_ULONG_T ulFree; /* to ordinary users */
} KEM_DRIVEINFO_T, *KEM_PDRIVEINFO_T;

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

/* All of it. The caller's buffer extends driveInfoArr to drives.ulDriveCnt elements. */
typedef struct KEM_OSRESOURCES_T {
    KEM_OSINFO_T osInfo;
    KEM_TIMERECORD_T timeRecCurSys; /* now, local time */
    KEM_ULONG_T timeElapsedOS;      /* as KemSdTimeElapsedOS */
    KEM_CPUINFO_T cpuInfo;
    KEM_PHYSMEMINFO_T physMemInfo;
    KEM_SWAPINFO_T swapInfo;
    KEM_DRIVES_T drives;
    KEM_DRIVEINFO_T driveInfoArr[1];
} KEM_OSRESOURCES_T, *KEM_POSRESOURCES_T;

/* The number of processors online; 1 when the system does not know any. */
KEM_API KEM_ULONG_T KemSdCPUCountGet(void);

/* The kind of processor: 24 on "x86_64", 3, 4, 5 and 23 on "i386" to "i686", else 0. */
KEM_API KEM_ULONG_T KemSdCPUTypeGet(void);

/* Fills the record; szCPUTypeName is "X86_64" and the like, "Unknown" for type 0. Always 0. Asserted. */
KEM_API KEM_FUNC_M KemSdCPUInfoGet(KEM_PSDCTX_T pSdCtx, KEM_PCPUINFO_T pCPUInfo);

/* Fills the record; free are the pages that nothing uses, not even as a cache. Always 0. Guarded, asserted. */
KEM_API KEM_FUNC_M KemSdPhysMemInfoGet(KEM_PSDCTX_T pSdCtx, KEM_PPHYSMEMINFO_T pPhysMemInfo);

/* Fills the record; bt32SwapStatus says whether there are figures. Always 0. Asserted. */
KEM_API KEM_FUNC_M KemSdSwapInfoGet(KEM_PSDCTX_T pSdCtx, KEM_PSWAPINFO_T pSwapInfo);

/* Stores free physical memory and free swap together, in KiB. Guarded, asserted.
 * SDSTS_OSR_NO_SWAPINFO: the swap's figures are not to be had; 0 is stored. */
KEM_API KEM_FUNC_M KemSdAvailVirtMemGet(KEM_PSDCTX_T pSdCtx, size_t* pSizeAvailVirtMem);

/* Fills the record. Guarded, asserted. SDSTS_OSR_OSINFO: the system does not say. */
KEM_API KEM_FUNC_M KemSdOSInfoGet(KEM_PSDCTX_T pSdCtx, KEM_POSINFO_T pOSInfo);

/* Counts the drives. Guarded, asserted.
 * SDSTS_OSR_DRIVES: the current directory is not known or /etc/fstab cannot be read. */
KEM_API KEM_FUNC_M KemSdDrivesGet(KEM_PSDCTX_T pSdCtx, KEM_PDRIVES_T pDrives);

/* Writes a drive's mount directory, cut to sizeBuf - 1 characters. The ordinal (1 to 32), the buffer and a size above 0
 * are asserted. Guarded. SDSTS_OSR_DRIVE_NAME: there is no such drive; osRetCode is whatever errno holds
 * where /etc/fstab can be read but has fewer entries. */
KEM_API KEM_FUNC_M KemSdDriveOrdinalToName(KEM_PSDCTX_T pSdCtx, KEM_ULONG_T ulOrdinal, KEM_SIZE_T sizeBuf,
                                           KEM_STR_T pszDriveName);

/* Fills the record of one drive; the ordinal (1 to 32) and the record are asserted. Fixed drives are those of ext2 and
 * ext3, remote ones of nfs. Guarded. SDSTS_OSR_DRIVE_INFO: there is no such drive; osRetCode as for its name. */
KEM_API KEM_FUNC_M KemSdDriveInfoGet(KEM_PSDCTX_T pSdCtx, KEM_ULONG_T ulOrdinal, KEM_PDRIVEINFO_T pDriveInfo);

/* Fills the records of the first ulCnt drives, of all when there are fewer. Asserted. The first failure of
 * KemSdDrivesGet or KemSdDriveInfoGet. */
KEM_API KEM_FUNC_M KemSdDriveInfoArrGet(KEM_PSDCTX_T pSdCtx, KEM_ULONG_T ulCnt, KEM_PDRIVEINFO_T pDriveInfoArr);

/* "Unknown", "Removable", "Fixed", "RAM" or "Remote" for 0 to 4; no other index is allowed. */
KEM_API const char* KemSdDriveTypeAsString(KEM_ULONG_T DriveType);

/* The bytes that KemSdOSResourcesGet needs, and that call: sizeBuf bytes are cleared and filled. Asserted.
 * SDSTS_OSR_BUFFER_SMALL (osRetCode 0): sizeBuf is less. Otherwise the first failure of the calls above and of the
 * clock's. */
KEM_API KEM_FUNC_M KemSdOSResourcesSizeGet(KEM_PSDCTX_T pSdCtx, size_t* pSizeOSResource);
KEM_API KEM_FUNC_M KemSdOSResourcesGet(KEM_PSDCTX_T pSdCtx, KEM_SIZE_T sizeBuf, KEM_POSRESOURCES_T pOSResources);

/* Store the system's page size in bytes, and the soft limit of this process's data segment in bytes (all bits set when
 * there is none). Guarded. SDSTS_OSR_SYSCONF: the system does not say. */
KEM_API KEM_FUNC_M KemSdPageSizeGet(KEM_PSDCTX_T pSdCtx, KEM_PULONG_T pPageSize);
KEM_API KEM_FUNC_M KemSdMaxAllocGet(KEM_PSDCTX_T pSdCtx, KEM_PULONGLONG_T pMaxAlloc);

/* Stores 8, the strictest alignment that any type of the interface asks for. Always 0. */
KEM_API KEM_FUNC_M KemSdMaxAlignGet(KEM_PSDCTX_T pSdCtx, KEM_PULONG_T pMaxAlign);

/* Stores FALSE for every finite number, TRUE for the infinities and for what is not a number. Always 0. */
KEM_API KEM_FUNC_M KemSdIsInfinite(KEM_PSDCTX_T pSdCtx, KEM_DOUBLE_T x, KEM_PBOOL_T pIsInfinite);

/* ---- This process's resources -----------------------------------------------------------------------------------
 * As above. The limits, the change of user and the change of root keep the system's own results, 0 and -1; the last two
 * change the whole process and belong to start-up. */

/* Store a limit (RLIMIT_...) of the process, low 32 bits; both 0 on failure. The result is the system's, 0 or -1, which
 * also becomes the context's status; osRetCode is then whatever errno holds. The Fd calls are those of the open files
 * (RLIMIT_NOFILE) and store osRetCode 0. The setting calls take 32-bit values as they are, so that 0xFFFFFFFF is a
 * limit of 4 GiB less one, and are guarded. */
KEM_API KEM_FUNC_M KemSdLimitGet(KEM_PSDCTX_T pSdCtx, KEM_INT_T limitType, KEM_PULONG_T pHardLimit,
                                 KEM_PULONG_T pSoftLimit);
KEM_API KEM_FUNC_M KemSdLimitSet(KEM_PSDCTX_T pSdCtx, KEM_INT_T limitType, KEM_ULONG_T hardLimit,
                                 KEM_ULONG_T softLimit);
KEM_API KEM_FUNC_M KemSdFdLimitGet(KEM_PSDCTX_T pSdCtx, KEM_PULONG_T pHardLimit, KEM_PULONG_T pSoftLimit);
KEM_API KEM_FUNC_M KemSdFdLimitSet(KEM_PSDCTX_T pSdCtx, KEM_ULONG_T hardLimit, KEM_ULONG_T softLimit);

/* Without effect on this platform: 0, the outputs are left alone. */
KEM_API KEM_FUNC_M KemSdProcessWorkingSetSizeGet(KEM_PSDCTX_T pSdCtx, KEM_SESSID_T currentProcessSession,
                                                 KEM_SIZE_T* pMinimum, KEM_SIZE_T* pMaximum);
KEM_API KEM_FUNC_M KemSdProcessWorkingSetSizeSet(KEM_PSDCTX_T pSdCtx, KEM_SESSID_T currentProcessSession,
                                                 KEM_SIZE_T minimum, KEM_SIZE_T maximum);

/* Copies the value of HOME, "." when it is not set, whole: of sizeBuf only 0 counts, nothing is written then. Guarded.
 * SDSTS_INVALID_PARAM: pszHomePath is null. */
KEM_API KEM_FUNC_M KemSdHomePathGet(KEM_PSDCTX_T pSdCtx, KEM_SIZE_T sizeBuf, KEM_STR_T pszHomePath);

/* Writes the usParmCount strings that follow one behind the other, null and empty ones left out; no separator, no
 * bound. SDSTS_INVALID_PARAM: pszPath is null. */
KEM_API KEM_FUNC_M KemSdPathCreate(KEM_PSDCTX_T pSdCtx, KEM_USHORT_T usParmCount, KEM_STR_T pszPath, ...);

/* This process's memory in KiB, as its status file says. */
typedef struct KemProcSysInfo {
    KEM_ULONG_T vmPeak; /* largest address space so far */
    KEM_ULONG_T vmSize; /* address space */
    KEM_ULONG_T vmHWM;  /* largest resident set so far */
    KEM_ULONG_T vmStk;  /* the main thread's stack */
    KEM_ULONG_T vmData; /* data, heap and mappings */
    KEM_ULONG_T vmExe;  /* program text */
    KEM_ULONG_T vmLib;  /* libraries */
} KemProcSysInfo;

/* Fills the record; a figure that the system does not give keeps its value. A null record does nothing. */
KEM_API void KemSdProcSysInfoGet(KemProcSysInfo* pInfo);

/* The lines of that file by number; PROC_STATUS_INVALID is any other line. */
typedef enum PROC_STATUS {
    PROC_STATUS_NAME = 0,
    PROC_STATUS_GID = 1,
    PROC_STATUS_VMHWM = 5,
    PROC_STATUS_VMLIB = 6,
    PROC_STATUS_PPID = 10,
    PROC_STATUS_PID = 11,
    PROC_STATUS_VMPEAK = 15,
    PROC_STATUS_VMLCK = 16,
    PROC_STATUS_SLEEPAV = 20,
    PROC_STATUS_UID = 21,
    PROC_STATUS_VMSIZE = 25,
    PROC_STATUS_VMEXE = 26,
    PROC_STATUS_SHDPND = 30,
    PROC_STATUS_VMRSS = 31,
    PROC_STATUS_VMSTK = 35,
    PROC_STATUS_GROUPS = 36,
    PROC_STATUS_STATE = 40,
    PROC_STATUS_MEMS_AL = 41,
    PROC_STATUS_TGID = 45,
    PROC_STATUS_THREADS = 46,
    PROC_STATUS_STASTK = 50,
    PROC_STATUS_SIGQ = 51,
    PROC_STATUS_SIGPND = 55,
    PROC_STATUS_FDSIZE = 56,
    PROC_STATUS_VMPTE = 60,
    PROC_STATUS_BRK = 61,
    PROC_STATUS_TRACERP = 65,
    PROC_STATUS_VMDATA = 66,
    PROC_STATUS_SIGCGT = 70,
    PROC_STATUS_CAPPRM = 75,
    PROC_STATUS_SIGIGN = 80,
    PROC_STATUS_CAPEFF = 85,
    PROC_STATUS_STABRK = 90,
    PROC_STATUS_CPUS_AL = 95,
    PROC_STATUS_CAPINH = 100,
    PROC_STATUS_SIGBLK = 105,
    PROC_STATUS_INVALID = 113
} PROC_STATUS;

/* Sets real, effective and saved user id to the named user's. The system's result, 0 or -1, which the context does not
 * learn: there stands 0. A user that does not exist: -1, in the context too, with errno. Guarded.
 * SDSTS_INVALID_PARAM: null. */
KEM_API KEM_FUNC_M setUserIds(KEM_PSDCTX_T pSdCtx, const char* userName);

/* Makes path the root directory. The system's result, 0 or -1, also in the context; osRetCode is whatever errno
 * holds. Guarded. SDSTS_INVALID_PARAM: null. */
KEM_API KEM_FUNC_M KemChroot(KEM_PSDCTX_T pSdCtx, const char* path);

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

/* ---- Console -----------------------------------------------------------------------------------------------------
 * The terminal of an operator: text out, single keys in. A key is a character, or the character 0 and a scan code for
 * what arrives as two bytes of which the first is 0 or 224. Example:
 *
 *     kem_consolehdl_t console;
 *     KEM_KBDINFO_T key;
 *     KEM_BOOL_T hit;
 *     KemSdConsoleInit(ctx, &console);
 *     KemSdConsoleWrite(ctx, &console, 5, "ready");
 *     KemSdConsoleKeyHit(ctx, &console, &hit, &key);
 *
 * Reading changes the settings of a terminal that all threads share: one thread at a time. Where an entry does not say
 * otherwise osRetCode is errno after a failure, else 0. */

typedef struct kem_consolehdl_t {
    KEM_FILEHDL_T hTermIn;
    KEM_FILEHDL_T hTermOut;
} kem_consolehdl_t, KEM_CONSOLEHDL_T, *KEM_PCONSOLEHDL_T;

typedef struct KEM_KBDINFO_T {
    KEM_UCHAR_T chChar;
    KEM_UCHAR_T chScan; /* 0 for plain characters */
} KEM_KBDINFO_T, *KEM_PKBDINFO_T;

KEM_STATIC_ASSERT(sizeof(KEM_CONSOLEHDL_T) == 8 && sizeof(KEM_KBDINFO_T) == 2, "console records");

/* The handle of standard input and output; and none again. SDSTS_INVALID_PARAM: null. */
KEM_API KEM_FUNC_M KemSdConsoleInit(KEM_PSDCTX_T pSdCtx, KEM_PCONSOLEHDL_T phConsole);
KEM_API KEM_FUNC_M KemSdConsoleTerm(KEM_PSDCTX_T pSdCtx, KEM_PCONSOLEHDL_T phConsole);

/* Writes sizeWrite bytes, by one system call; nothing for a null text or size 0. SDSTS_CONSOLE_WRITE: failed. Without a
 * handle it writes to standard output all the same, and a success then reads SDSTS_INVALID_PARAM. A write that took a
 * part of the text counts as one that took all. */
KEM_API KEM_FUNC_M KemSdConsoleWrite(KEM_PSDCTX_T pSdCtx, KEM_PCONSOLEHDL_T phConsole, KEM_SIZE_T sizeWrite,
                                     const char* pchBuf);

/* SDSTS_NOT_SUPPORTED, whatever the arguments. */
KEM_API KEM_FUNC_M KemSdConsoleRead(KEM_PSDCTX_T pSdCtx, KEM_PCONSOLEHDL_T phConsole, KEM_SIZE_T sizeRead,
                                    char* pchBuf);

/* Waits for one character of the C library's standard input; phConsole is ignored. It goes to chChar when pKbdInfo is
 * given and uspbDB is FALSE. Always 0, also at the end of the input, which reads as character 255. */
KEM_API KEM_FUNC_M KemSdConsoleKeyGet(KEM_PSDCTX_T pSdCtx, KEM_BOOL_T uspbDB, KEM_PCONSOLEHDL_T phConsole,
                                      KEM_PKBDINFO_T pKbdInfo);

/* Gives the operator one second to press a key, without waiting for a whole line and without showing it. *pbKeyHit and
 * *pKbdInfo, both of which may be null, receive the answer; *pKbdInfo stays as it was when no key came. What was typed
 * before the call is discarded. Afterwards the terminal has its settings back and the descriptor's status flags are all
 * off, also when a step in between has failed.
 * SDSTS_INVALID_PARAM: phConsole is null. SDSTS_CONSOLE_FAILED: no key (osRetCode is EAGAIN), the input is no terminal
 * (ENOTTY), a signal cut the second short (EINTR), or another step failed; osRetCode is that of the first one that did,
 * and there can be a key all the same: *pbKeyHit tells. */
KEM_API KEM_FUNC_M KemSdConsoleKeyHit(KEM_PSDCTX_T pSdCtx, KEM_PCONSOLEHDL_T phConsole, KEM_PBOOL_T pbKeyHit,
                                      KEM_PKBDINFO_T pKbdInfo);

/* Reads a key from standard input as it is set up, so it waits unless the input does not; TRUE when there was one.
 * *pKbInfo, which may be null, is zero when there was none. Readers that give the same lock, initialised by
 * KemSdLWSpinlockInit, take turns; null: no lock. Both names do the same. */
KEM_API KEM_BOOL_T KemSdConsoleIsKeyDown(KEM_PKBDINFO_T pKbInfo, KEM_LWSPINLOCK_T* pLock);
KEM_API KEM_BOOL_T KemUnixConsoleIsKeyDown(KEM_PKBDINFO_T pKbInfo, KEM_LWSPINLOCK_T* pLock);

/* ---- Modules -----------------------------------------------------------------------------------------------------
 * Shared objects loaded at run time, by the system's dynamic loader. Any thread may call. Example:
 *
 *     KEM_MODHDL_T module;
 *     KEM_MODFUNC_T start;
 *     if (KemSdModuleLoad(ctx, "/opt/server/plug.so", &module, TRUE) != 0) return ctx->sts;
 *     if (KemSdModuleProcAddrGet(ctx, module, "plugStart", &start) == 0) start();
 */

typedef void* KEM_MODHDL_T;
typedef KEM_MODHDL_T* KEM_PMODHDL_T;
typedef void (*KEM_MODFUNC_T)(void);
typedef KEM_MODFUNC_T* KEM_PMODFUNC_T;

/* Loads the module and what it needs; functions are bound at their first call. The name goes to the loader as it is,
 * which searches for one without a "/"; null: the program itself. bIsFileNameWithAbsolutePath is ignored. In failover
 * mode the lease guard runs first. *phMod is null on failure. SDSTS_INVALID_PARAM: phMod is null. SDSTS_MODULE_LOAD,
 * osRetCode 0: not loaded; the loader's text stands on standard error, and KemSdModuleGetErrorMessage no longer has it.
 */
KEM_API KEM_FUNC_M KemSdModuleLoad(KEM_PSDCTX_T pSdCtx, const char* pszModuleName, KEM_PMODHDL_T phMod,
                                   KEM_BOOL_T bIsFileNameWithAbsolutePath);

/* Stores the address of a module's function, null on failure. A null module stands for all that the program has loaded
 * with it. In failover mode the lease guard runs first.
 * SDSTS_INVALID_PARAM: a null name or output. SDSTS_MODULE_SYMBOL: there is none; osRetCode is whatever errno holds. */
KEM_API KEM_FUNC_M KemSdModuleProcAddrGet(KEM_PSDCTX_T pSdCtx, KEM_MODHDL_T hMod, const char* pszProcName,
                                          KEM_PMODFUNC_T pModFunc);

/* Gives the module back, once for each time that it was loaded; it is unmapped when nobody else has it, and its handle
 * must not be used after that. 0, or the loader's own result, which is no status of the catalogue, with errno.
 * SDSTS_INVALID_PARAM: null. */
KEM_API KEM_FUNC_M KemSdModuleUnload(KEM_PSDCTX_T pSdCtx, KEM_MODHDL_T hMod);

/* The loader's text about this thread's last failure, once, valid until the loader is used again; else "No errors". */
KEM_API const char* KemSdModuleGetErrorMessage(KEM_PSDCTX_T pSdCtx);

/* SDSTS_NOT_SUPPORTED, whatever the arguments; nothing is written. */
KEM_API KEM_FUNC_M KemSdModuleNameGet(KEM_PSDCTX_T pSdCtx, KEM_MODHDL_T hMod, KEM_SIZE_T sizeBuf, KEM_STR_T pszModName);
KEM_API KEM_FUNC_M KemSdModuleHandleGet(KEM_PSDCTX_T pSdCtx, KEM_PMODHDL_T phMod);
KEM_API KEM_FUNC_M KemSdUIResStringLoad(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T pvInst, KEM_USHORT_T sBaseId,
                                        KEM_USHORT_T sStringId, KEM_STR_T pszDest, KEM_USHORT_T sDestSize);
KEM_API KEM_FUNC_M KemSdUIResStringAllocLoad(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T pvInst, KEM_USHORT_T sBaseID,
                                             KEM_USHORT_T sStringID, KEM_STR_T* ppszResString);

KEM_EXTERN_C_END

#endif
