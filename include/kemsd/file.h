/* Files: descriptors opened, read, written, positioned and closed with the status convention of context.h; leased
 * writes and the pause that stops them all. */
#ifndef KEMSD_FILE_H
#define KEMSD_FILE_H

#include <dirent.h>
#include <kemsd/context.h>
#include <kemsd/sync.h>

KEM_EXTERN_C_BEGIN

/* ---- File handles ----------------------------------------------------------------------------------------------
 * A handle is the operating system's file descriptor: no state of the library stands behind it, nothing is buffered,
 * and each call is one system call (two at most in KemSdFileEof and KemSdFileGets). Example:
 *
 *     KEM_FILEHDL_T file;
 *     KEM_INT_T written;
 *     if (KemSdFileOpen(ctx, "data.pag", O_RDWR | O_CREAT, 0600, &file) != 0) return ctx->sts;
 *     if (KemSdFileWrite(ctx, file, page, sizeof page, &written) == SDSTS_DISK_FULL) makeRoom();
 *     KemSdFileClose(ctx, file);
 *
 * Common to all calls here, unless an entry says otherwise:
 *   - a missing pointer gives SDSTS_INVALID_PARAM, osRetCode is then 0 and no system call is made;
 *   - on failure osRetCode holds errno, on success 0;
 *   - a guarded call first runs the lease guard (context.h) in failover mode, before it looks at its arguments;
 *   - offsets, positions, lengths and counts have 32 bits: offsets are sign-extended on the way in, results are the low
 *     32 bits. Positions of a file beyond 2 GiB therefore come back wrapped, and one whose low 32 bits are all set
 *     counts as a failure, with whatever errno holds;
 *   - only KemSdFileSetEndOfFile retries an interrupted system call; a short read or write is no failure and shows in
 *     the count;
 *   - any thread may call; threads that share a handle share its position. The positioned calls leave it alone. */

/* The permission bits for a file to be created: iPMode, and in failover mode read and write for everybody as well
 * (0666). The opens and KemSdFileCreate pass theirs through it; the umask of the process applies after it. */
KEM_API mode_t KemSdAddFailoverModePrivileges(KEM_INT_T iPMode);

/* The opens, guarded. pszFilePath: null-terminated; iOFlag: the O_ flags of the system; iPMode: permission bits of a
 * file that gets created; iShFlag: accepted and ignored; phFile receives the descriptor, or -1 when the call fails.
 * The plain ones end the process by assertion when iOFlag holds O_EXCL; the ...ExclusiveMode ones add that flag, so
 * that with O_CREAT an existing file is a failure (EEXIST).
 * SDSTS_INVALID_PARAM: pszFilePath or phFile is null; *phFile is left alone. SDSTS_FILE_OPEN with errno: the system
 * refused; the SOpen calls report SDSTS_FILE_SOPEN instead. */
KEM_API KEM_FUNC_M KemSdFileOpen(KEM_PSDCTX_T pSdCtx, const char* pszFilePath, KEM_INT_T iOFlag, KEM_INT_T iPMode,
                                 KEM_PFILEHDL_T phFile);
KEM_API KEM_FUNC_M KemSdFileSOpen(KEM_PSDCTX_T pSdCtx, const char* pszFilePath, KEM_INT_T iOFlag, KEM_INT_T iShFlag,
                                  KEM_INT_T iPMode, KEM_PFILEHDL_T phFile);
KEM_API KEM_FUNC_M KemSdFileOpen64(KEM_PSDCTX_T pSdCtx, const char* pszFilePath, KEM_INT_T iOFlag, KEM_INT_T iPMode,
                                   KEM_PFILEHDL_T phFile);
KEM_API KEM_FUNC_M KemSdFileOpenExclusiveMode(KEM_PSDCTX_T pSdCtx, const char* pszFilePath, KEM_INT_T iOFlag,
                                              KEM_INT_T iPMode, KEM_PFILEHDL_T phFile);
KEM_API KEM_FUNC_M KemSdFileSOpenExclusiveMode(KEM_PSDCTX_T pSdCtx, const char* pszFilePath, KEM_INT_T iOFlag,
                                               KEM_INT_T iShFlag, KEM_INT_T iPMode, KEM_PFILEHDL_T phFile);
KEM_API KEM_FUNC_M KemSdFileOpen64ExclusiveMode(KEM_PSDCTX_T pSdCtx, const char* pszFilePath, KEM_INT_T iOFlag,
                                                KEM_INT_T iPMode, KEM_PFILEHDL_T phFile);

/* Creates the file, or empties an existing one, and opens it for writing. Guarded.
 * SDSTS_INVALID_PARAM: pszFilePath or phFile is null. SDSTS_FILE_CREATE with errno: refused; *phFile is -1. */
KEM_API KEM_FUNC_M KemSdFileCreate(KEM_PSDCTX_T pSdCtx, const char* pszFilePath, KEM_INT_T iPMode,
                                   KEM_PFILEHDL_T phFile);

/* Closes the handle. Not guarded. SDSTS_FILE_CLOSE with errno: the system reported a failure. */
KEM_API KEM_FUNC_M KemSdFileClose(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile);

/* Reads up to uiCnt bytes at the file's position; *piRead is their number, 0 at the end of the file. Guarded.
 * SDSTS_INVALID_PARAM: pvBuf or piRead is null. SDSTS_FILE_READ with errno: failed; *piRead is -1. */
KEM_API KEM_FUNC_M KemSdFileRead(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PVOID_T pvBuf, KEM_UINT_T uiCnt,
                                 KEM_PINT_T piRead);

/* Writes up to uiCnt bytes at the file's position; *piWritten is their number. Guarded.
 * SDSTS_INVALID_PARAM: pvBuf or piWritten is null. SDSTS_DISK_FULL (ENOSPC) or SDSTS_FILE_WRITE with errno: failed;
 * *piWritten is -1. */
KEM_API KEM_FUNC_M KemSdFileWrite(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PVOID_T pvBuf, KEM_UINT_T uiCnt,
                                  KEM_PINT_T piWritten);

/* Reads up to nBytesToRead bytes at byte lFileOffset; *pnBytesRead is their number, 0 on any failure. Guarded.
 * SDSTS_INVALID_PARAM: pvData or pnBytesRead is null. SDSTS_FILE_READ with errno: failed; for handle -1 without a
 * system call, with errno as it was found. */
KEM_API KEM_FUNC_M KemSdFilePRead(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PVOID_T pvData, KEM_LONG_T lFileOffset,
                                  KEM_UINT_T nBytesToRead, KEM_PUINT_T pnBytesRead);

/* Writes up to nBytesToWrite bytes at byte lFileOffset; *pnBytesWritten is their number, 0 on any failure. *pOsRetCode,
 * which may be null, receives what osRetCode does. Guarded.
 * SDSTS_INVALID_PARAM: pvData or pnBytesWritten is null. SDSTS_DISK_FULL (ENOSPC) or SDSTS_FILE_WRITE with errno:
 * failed. SDSTS_FILE_READ, not the write status, for handle -1, with errno as it was found. */
KEM_API KEM_FUNC_M KemSdFilePWrite(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PVOID_T pvData, KEM_LONG_T lFileOffset,
                                   KEM_UINT_T nBytesToWrite, KEM_PUINT_T pnBytesWritten, KEM_POSRETCODE_T pOsRetCode);

/* Moves the position by lOffset bytes from iOrigin (SEEK_SET, SEEK_CUR or SEEK_END); *plPosition, which may be null, is
 * the new position. Guarded. SDSTS_FILE_SEEK with errno: failed; *plPosition is -1. */
KEM_API KEM_FUNC_M KemSdFileLSeek(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_LONG_T lOffset, KEM_INT_T iOrigin,
                                  KEM_PLONG_T plPosition);

/* Stores the position in bytes. Guarded.
 * SDSTS_INVALID_PARAM: plPosition is null. SDSTS_FILE_TELL with errno: failed; *plPosition is -1. */
KEM_API KEM_FUNC_M KemSdFileTell(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PLONG_T plPosition);

/* *pbAtEof is TRUE when position and length are equal. Guarded.
 * SDSTS_INVALID_PARAM: pbAtEof is null. SDSTS_FILE_EOF: the position could not be had (osRetCode is errno) or the
 * length could not (osRetCode is -1); *pbAtEof is left alone. */
KEM_API KEM_FUNC_M KemSdFileEof(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PBOOL_T pbAtEof);

/* Waits until all that was written is on the device. Guarded. SDSTS_FILE_FLUSH with errno: failed. */
KEM_API KEM_FUNC_M KemSdFileFlush(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile);

/* Stores the length in bytes. Guarded. osRetCode is whatever errno holds on success and -1 on failure.
 * SDSTS_INVALID_PARAM: plLength is null. SDSTS_FILE_LENGTH: failed; *plLength is 0. */
KEM_API KEM_FUNC_M KemSdFileLength(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PLONG_T plLength);

/* Reads one line into pvBuf of ulBufLen bytes: up to and with its newline, null-terminated, the position left behind
 * the newline. A line longer than ulBufLen - 1 bytes comes in pieces. A buffer of 1 byte receives the empty string and
 * nothing is read. The handle must allow seeking. Guarded.
 * SDSTS_INVALID_PARAM: pvBuf is null or ulBufLen is 0. SDSTS_FILE_GETS_EOF, osRetCode 0: at the end of the file.
 * SDSTS_FILE_GETS with errno: reading or seeking failed. */
KEM_API KEM_FUNC_M KemSdFileGets(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PVOID_T pvBuf, KEM_ULONG_T ulBufLen);

/* *pbMatched is TRUE when this process may use the file as iAccessMode asks (R_OK, W_OK, X_OK, F_OK), FALSE when it may
 * not, for whatever reason, a null name included. Guarded. SDSTS_INVALID_PARAM: pbMatched is null. */
KEM_API KEM_FUNC_M KemSdFileAccess(KEM_PSDCTX_T pSdCtx, const char* pszFileName, KEM_INT_T iAccessMode,
                                   KEM_PBOOL_T pbMatched);

/* Removes the name. Guarded. SDSTS_INVALID_PARAM: pszFileName is null. SDSTS_FILE_REMOVE with errno: refused. */
KEM_API KEM_FUNC_M KemSdFileRemove(KEM_PSDCTX_T pSdCtx, const char* pszFileName);

/* Cuts or grows the file to lNewFileEOFBytes bytes; an interrupted call is retried. *plSetFileEOFBytes is the new
 * length, 0 on failure; *pOsRetCode, which may be null, receives what osRetCode does. Guarded. SDSTS_INVALID_PARAM:
 * plSetFileEOFBytes is null. SDSTS_DISK_FULL (ENOSPC) or SDSTS_FILE_SET_EOF with errno: failed. */
KEM_API KEM_FUNC_M KemSdFileSetEndOfFile(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_LONG_T lNewFileEOFBytes,
                                         KEM_PLONG_T plSetFileEOFBytes, KEM_POSRETCODE_T pOsRetCode);

/* *pbIsDirectory is TRUE when ulFileAttr, a st_mode, is that of a directory. Guarded.
 * SDSTS_INVALID_PARAM: pbIsDirectory is null. */
KEM_API KEM_FUNC_M KemSdIsAttrDirectory(KEM_PSDCTX_T pSdCtx, KEM_ULONG_T ulFileAttr, KEM_PBOOL_T pbIsDirectory);

/* Whether the platform offers direct transfers, and transfers that do not wait, to callers that ask: *pbIsAvailable is
 * always FALSE. ppOSVersion and pszVolumeName are ignored. Not guarded. SDSTS_INVALID_PARAM: pbIsAvailable is null. */
KEM_API KEM_FUNC_M KemSdIsDirectIO(KEM_PSDCTX_T pSdCtx, KEM_PPVOID_T ppOSVersion, const char* pszVolumeName,
                                   KEM_PBOOL_T pbIsAvailable);
KEM_API KEM_FUNC_M KemSdIsNoWaitIO(KEM_PSDCTX_T pSdCtx, KEM_PPVOID_T ppOSVersion, const char* pszVolumeName,
                                   KEM_PBOOL_T pbIsAvailable);

/* Close the inherited descriptors: every open one numbered hFile or higher, or all but 0 to 3. Always 0, whatever
 * happened; the context is left alone. Not guarded. No other thread may be using such a descriptor.
 * These are the calls for a child between fork and exec. In a child of a threaded process no other call of the library
 * may come there: locks that other threads held at the fork are never released in the child. */
KEM_API KEM_FUNC_M KemSdFileCloseAllFrom(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile);
KEM_API KEM_FUNC_M KemSdFileCloseAllButNoStd(KEM_PSDCTX_T pSdCtx);

/* ---- File search ------------------------------------------------------------------------------------------------ */

#define KEM_FILEPATTERN_MAX 121
#define KEM_FILEPATH_MAX 1029

/* The state of a search, owned by the caller. */
typedef struct KEM_FILEFINDINFO_T {
    DIR* hDir;                               /* open while a search runs; null after it ended */
    KEM_ULONGLONG_T ulSearchCnt;             /* unused on this platform */
    struct dirent findInfo;                  /* buffer of the entry reader */
    char szFilePattern[KEM_FILEPATTERN_MAX]; /* pattern part of the search text */
    char szDirectory[KEM_FILEPATH_MAX];      /* directory part, ending with a slash */
    char szTmp[KEM_FILEPATTERN_MAX];         /* the current match's name */
    char* pszFileName;                       /* points at szTmp after a match */
    KEM_ULONGLONG_T ulFileAttr;              /* 0x4000 for a directory, 0x8000 for anything else */
    KEM_ULONGLONG_T ulFindAttr;              /* the caller's attribute filter; stored, not applied */
    KEM_ULONGLONG_T fileSize;                /* bytes of a matched non-directory */
    time_t createTime;                       /* last modification of a matched non-directory */
} KEM_FILEFINDINFO_T, *KEM_PFILEFINDINFO_T;

/* ---- Leased writes and the write pause --------------------------------------------------------------------------
 * A server stops all writing for a while, so that an outside party can copy consistent files: its writers take a lease
 * around each write, and a pause waits until all leases are back and lets no new one out.
 *
 *     KemSdLeasedFilePWrite(threadContext, file, page, offset, sizeof page, &written, NULL);    // every writer
 *
 *     if (KemSdPauseWriteIO(threadContext, 60) == 0) {                                           // the backup
 *         copyFiles();
 *         KemSdUnpauseWriteIO(threadContext);
 *     }
 *
 * The state is the pauseinterface of the server's service context. The server makes it so:
 *
 *     memset(&service, 0, sizeof service);
 *     KemSdEventCreate(ctx, &service.pauseinterface.writeIOEvtHdl);       // events are created set:
 *     KemSdEventClear(ctx, &service.pauseinterface.writeIOEvtHdl);        // clear both
 *     KemSdEventCreate(ctx, &service.pauseinterface.pauseWriteIOEvtHdl);
 *     KemSdEventClear(ctx, &service.pauseinterface.pauseWriteIOEvtHdl);
 *     KemRWLockInit(ctx, 0, &service.pauseinterface.rwlockPauseUpdates, TRUE, RWLOCK_PAUSEUPDATES_LOCK);
 *
 * tctxpv is always the calling thread's OV_THDCTX_T (memory.h), whose svctxp, pSyncCtx and pSdCtx are used; null, or a
 * null svctxp or pSyncCtx, gives SDSTS_INVALID_PARAM. Any number of writers, but one pausing party at a time. No call
 * stores its own status in pSdCtx: there stands that of the last event, clock or file call made on the way. */

typedef struct OV_PAUSE_INTERFACE_T {
    volatile OV_BOOL_T bPauseWriteIO;        /* TRUE while a pause is being made or in force */
    volatile KEM_SDATOMIC_T lBusyWriteIOCnt; /* leases out */
    KEM_EVENTHDL_T writeIOEvtHdl;            /* cleared when the last lease comes back under a pause */
    KEM_EVENTHDL_T pauseWriteIOEvtHdl;       /* the barrier: set while paused */
    KEM_TIME_T lPauseTimeout;                /* longest pause in seconds; 0: without limit */
    KEM_TIME_T lPauseStartTime;              /* when it took effect, as KemSdTime says */
    KEM_RWLOCK_T rwlockPauseUpdates;         /* written by the pausing thread, read by waiting writers */
} OV_PAUSE_INTERFACE_T;

/* What the library reads of the server's service context; the server's own record begins with it. */
typedef struct OV_SVCTX_T {
    volatile OV_BOOL_T bAppTerminating; /* TRUE: waiters end the pause and go on, a pausing thread gives up */
    OV_PAUSE_INTERFACE_T pauseinterface;
} OV_SVCTX_T;

/* Takes a lease, waiting while a pause is being made or in force; a thread takes one at a time. A pause that has
 * outlived its time-out is ended by the first waiting writer that sees it, within about two seconds. The read lock's or
 * the event's status: no lease. */
KEM_API KEM_STS_T KemSdGetWriteIOLease(void* tctxpv);

/* Gives the lease back; a thread without one changes nothing. 0, or the status of waking the pausing thread. */
KEM_API KEM_STS_T KemSdReleaseWriteIOLease(void* tctxpv);

/* Waits until no lease is out and keeps new ones from going out. A lease holder must not call it: it would wait for
 * itself. lTimeout: see lPauseTimeout. SDSTS_WRITEIO_PAUSED: a pause is in force or being made. -1: the server is
 * terminating; the barrier stays up, so that a terminating server writes nothing more than its writers' last leases.
 * A failing lock, event or clock call: its status; a barrier that was up by then stays up until KemSdUnpauseWriteIO. */
KEM_API KEM_STS_T KemSdPauseWriteIO(void* tctxpv, KEM_TIME_T lTimeout);

/* Ends the pause, if there is one; any thread may. Always 0. */
KEM_API KEM_STS_T KemSdUnpauseWriteIO(void* tctxpv);

/* A lease around KemSdFileWrite or KemSdFilePWrite with the thread's pSdCtx. The write's status, or the lease's
 * failure: nothing is written. */
KEM_API KEM_STS_T KemSdLeasedFileWrite(void* tctxpv, KEM_FILEHDL_T hFile, KEM_PVOID_T pvBuf, KEM_UINT_T uiCnt,
                                       KEM_PINT_T piWritten);
KEM_API KEM_STS_T KemSdLeasedFilePWrite(void* tctxpv, KEM_FILEHDL_T hFile, KEM_PVOID_T pvData, KEM_LONG_T lFileOffset,
                                        KEM_UINT_T nBytesToWrite, KEM_PUINT_T pnBytesWritten,
                                        KEM_POSRETCODE_T pOsRetCode);

KEM_EXTERN_C_END

#endif
