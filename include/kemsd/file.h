/* Files with the status convention of context.h: descriptors opened, read, written, positioned and closed; whole-file
 * locks; search, directories, links and temporary names; files read and written through a mapping; block files, waiting
 * or not; leased writes and the pause that stops them all. */
#ifndef KEMSD_FILE_H
#define KEMSD_FILE_H

#include <aio.h>
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

/* ---- File locks -------------------------------------------------------------------------------------------------
 * One record lock over the whole of a file, however far it grows, taken without waiting. The mode of the process
 * (KemSdSetFileLockingMode) says what stands behind it:
 *
 *     KEM_FILE_LOCK_ADVISORY     a plain record lock
 *     KEM_FILE_LOCK_NOTSET       the same
 *     KEM_FILE_LOCK_MANDATORY    the file is marked first, so that the kernel enforces the lock on reads and writes
 *     KEM_FILE_LOCK_NONE         nothing: both calls run the lease guard and succeed
 *
 * In failover mode they do the same as in NONE: there the lease takes the place of the lock. Example:
 *
 *     if (KemSdFileLock(ctx, file, 1) != 0) {          // 0: shared, anything else: exclusive
 *         KEM_ULONG_T pid = 0;
 *         char name[64] = "";
 *         ... KemSdFileLockProcInfo(ctx, file, &pid, name, ...) ...    who holds it
 *     }
 *
 * The lock belongs to the process: its threads never exclude each other, closing any descriptor of the file drops it,
 * and a child does not inherit it. Refusals are reported at once; trying again is the caller's decision. osRetCode is
 * errno after a failure, else 0. Any thread may call. */

/* Takes the lock, shared when mode is 0, else exclusive; a held lock is changed to that kind. In MANDATORY mode a file
 * that does not carry the mark gets it: the set-group-ID bit on, group-execute off. The mark stays.
 * SDSTS_FILE_LOCK: another process holds a lock in the way (errno EACCES or EAGAIN), the descriptor does not allow the
 * kind of lock, or the file could not be marked. */
KEM_API KEM_FUNC_M KemSdFileLock(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hdlFile, KEM_USHORT_T mode);

/* Gives the lock back; without one it changes nothing. SDSTS_FILE_UNLOCK: the system refused. */
KEM_API KEM_FUNC_M KemSdFileUnlock(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hdlFile);

/* Names the process whose lock is in the way of an exclusive one, by the process table: its id, its command name in
 * parentheses, the letter of its state, its parent's id and its process group. *pid is 0 when no lock is in the way;
 * the others are then left alone, and also where the process cannot be looked at any more. The caller's buffer must
 * hold any command name, which the system cuts to 15 characters, with parentheses and a NUL (18 bytes; a kernel
 * thread's may be longer). White space in a name ends the field there, and what follows is misread. Not guarded.
 * SDSTS_INVALID_PARAM: a null output. SDSTS_FILE_LOCK: the locks could not be asked for. */
KEM_API KEM_FUNC_M KemSdFileLockProcInfo(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hdlFile, KEM_PULONG_T pid,
                                         KEM_PUCHAR_T processname, KEM_PUCHAR_T proc_stat, KEM_PULONG_T proc_parentid,
                                         KEM_PULONG_T proc_groupid);

/* Bits of the word that KemSdFileGetStatus changes; the caller's other bits are kept. */
#define KEM_FILE_STATUS_PENDING 0x1  /* set first, cleared when an answer was found */
#define KEM_FILE_STATUS_IN_USE 0x2   /* a process holds the file open */
#define KEM_FILE_STATUS_FREE 0x4     /* no process does */
#define KEM_FILE_STATUS_ABSENT 0x8   /* the file does not exist; PENDING stays set */
#define KEM_FILE_STATUS_UNKNOWN 0x10 /* it cannot be read, or there was no answer */

/* Whether any process of the machine holds the file open. Asks the system's fuser command, which must be on the search
 * path and sees what this process's user may see, through a shell and a temporary file; so it takes milliseconds.
 * A name of letters, digits and "_./+,:@%=-" goes into the command as it is, any other is quoted. Guarded.
 * SDSTS_INVALID_PARAM: a null pointer. SDSTS_FILE_STATUS, with UNKNOWN: a name that begins with "-", a name or a
 * temporary name that does not fit (osRetCode ENAMETOOLONG), no temporary file, no shell (errno), or no usable answer,
 * as from a machine without that command. */
KEM_API KEM_FUNC_M KemSdFileGetStatus(KEM_PSDCTX_T pSdCtx, KEM_STR_T pszFileName, KEM_PBIT32_T pbt32Status);

/* ---- File search ------------------------------------------------------------------------------------------------
 * A search walks one directory for the names that a shell pattern matches. The search text is a directory and a pattern
 * ("data/" and "page?.ind"; without a "/" the directory is "./"). Names that begin with "." are never found. Example:
 *
 *     KEM_FILEFINDINFO_T found;
 *     KEM_STS_T sts = KemSdFileFindFirst(ctx, "data/page?.ind", 0, &found);
 *     if (sts == 0) {
 *         for (; sts == 0; sts = KemSdFileFindNext(ctx, &found)) use(found.szDirectory, found.pszFileName);
 *         KemSdFileFindClose(ctx, &found);
 *     }
 *
 * A search record belongs to one thread; any number of searches may walk one directory. What comes and goes in it
 * meanwhile is found or not. osRetCode is errno after a failure, else 0, where an entry does not say otherwise. */

#define KEM_FILEPATTERN_MAX 121
#define KEM_FILEPATH_MAX 1029

/* File attributes of a match. */
#define KEM_FILEATTR_DIRECTORY 0x4000
#define KEM_FILEATTR_FILE 0x8000

/* The state of a search, owned by the caller. */
typedef struct KEM_FILEFINDINFO_T {
    DIR* hDir;                               /* open while a search runs; null after it ended */
    KEM_ULONGLONG_T ulSearchCnt;             /* unused on this platform */
    struct dirent findInfo;                  /* buffer of the entry reader */
    char szFilePattern[KEM_FILEPATTERN_MAX]; /* pattern part of the search text */
    char szDirectory[KEM_FILEPATH_MAX];      /* directory part, ending with a slash */
    char szTmp[KEM_FILEPATTERN_MAX];         /* the current match's name, of a longer one its first 120 characters */
    char* pszFileName;          /* the match's whole name: szTmp, or findInfo.d_name if that is longer; else null */
    KEM_ULONGLONG_T ulFileAttr; /* 0x4000 for a directory, 0x8000 for anything else */
    KEM_ULONGLONG_T ulFindAttr; /* the caller's attribute filter; stored, not applied */
    KEM_ULONGLONG_T fileSize;   /* bytes of a matched non-directory */
    time_t createTime;          /* last modification of a matched non-directory */
} KEM_FILEFINDINFO_T, *KEM_PFILEFINDINFO_T;

/* Starts a search: opens the directory of the search text and finds the first match. The record needs no preparation;
 * only a success leaves a stream to close. Guarded.
 * SDSTS_INVALID_PARAM: a null pointer. SDSTS_FILE_NOT_FOUND: nothing matches. SDSTS_FILE_FIND: the directory cannot be
 * opened or a match cannot be looked at (errno), or a part of the text is longer than its field (ENAMETOOLONG). */
KEM_API KEM_FUNC_M KemSdFileFindFirst(KEM_PSDCTX_T pSdCtx, const char* pszFilePattern, KEM_ULONG_T ulAttr,
                                      KEM_PFILEFINDINFO_T pFileFindInfo);

/* Goes on to the next match. The stream stays open whatever the result. Guarded.
 * SDSTS_INVALID_PARAM: the record is null or no search runs in it. SDSTS_FILE_NO_MORE: there is none; osRetCode is the
 * reader's result. SDSTS_FILE_FIND_NEXT: it could not be looked at. */
KEM_API KEM_FUNC_M KemSdFileFindNext(KEM_PSDCTX_T pSdCtx, KEM_PFILEFINDINFO_T pFileFindInfo);

/* Ends the search. Not guarded. SDSTS_INVALID_PARAM: null. SDSTS_FILE_FIND_CLOSE: no search runs, as after a first
 * close (osRetCode is EFAULT), or the stream could not be closed (errno). */
KEM_API KEM_FUNC_M KemSdFileFindClose(KEM_PSDCTX_T pSdCtx, KEM_PFILEFINDINFO_T pFileFindInfo);

/* What FindFirst and FindNext do inside: the next name of the record's open stream that its pattern matches, or equals,
 * with attributes, size and time; symbolic links are followed. Guarded. SDSTS_INVALID_PARAM: the record or its stream
 * is null. SDSTS_FILE_NO_MATCH: the stream is at its end, or failed; osRetCode is the reader's result.
 * SDSTS_FILE_MATCH_STAT with errno: the match cannot be looked at, as a link that leads nowhere; the next call goes on
 * behind it. */
KEM_API KEM_FUNC_M KemSdFileMatch(KEM_PSDCTX_T pSdCtx, KEM_PFILEFINDINFO_T pFileFindInfo);

/* Collects the paths (directory part and name) of all matches. *paszFilePaths becomes an array of *puNumFound paths,
 * owned by pUniqueAddress as in ovMalloc, for KemSdFileFreeNames, which ignores the null that stands for no paths.
 * szParentPath is ignored: the directory stands in szFileSpec. Nothing found, a directory that cannot be opened or
 * read, a first match that cannot be looked at, and a search text that does not fit are successes, with the paths found
 * so far. The search steps run the lease guard.
 * SDSTS_INVALID_PARAM: szFileSpec or an output is null. Otherwise the status of a failed allocation, or
 * SDSTS_FILE_FIND_NEXT for a later match that cannot be looked at; both outputs are then zero. */
KEM_API KEM_FUNC_M KemSdFileFind(void* pUniqueAddress, KEM_PSDCTX_T pSdCtx, const char* szParentPath,
                                 const char* szFileSpec, KEM_ULONG_T uFileAttrs, KEM_STR_T** paszFilePaths,
                                 KEM_PUINT_T puNumFound);
KEM_API void KemSdFileFreeNames(void* pUniqueAddress, KEM_STR_T* aszFileNames, KEM_UINT_T uNumNames);

/* A list of found files; the head is the caller's, the others come from ovMalloc. */
typedef struct _fileList {
    char name[KEM_FILEPATH_MAX];
    KEM_TIME_T creationTime; /* last modification */
    KEM_LONG_T fileSize;     /* bytes, low 32 bits */
    struct _fileList* next;
} KEM_FILE_LIST, *KEM_PFILE_LIST;

/* Copies the current match of a search into the list: with bAlloc into a new node, which becomes fileList's next in
 * place of whatever followed (so fileList is the list's tail), else into fileList itself, whose next becomes null.
 * Returns 0, or 1, with nothing changed: a null pointer, a record without a match, a name of more than 1028 characters,
 * no memory. */
KEM_API int KemSdAddFileListItem(KEM_PFILE_LIST fileList, KEM_PFILEFINDINFO_T fileinfo, KEM_BOOL_T bAlloc);
/* Frees all nodes behind fileList, which stays; null does nothing. Always 0. */
KEM_API int KemSdDeleteFileListItems(KEM_PFILE_LIST fileList);

/* The server layer's search record. hdir, directory (with its "/") and filePattern are the caller's. */
typedef struct OV_FINDINFO_T {
    DIR* hdir;
    uint16_t searchCnt; /* unused */
    char filePattern[KEM_FILEPATTERN_MAX];
    char directory[KEM_FILEPATH_MAX];
    char* fname;             /* the match's name, valid until the next call */
    OV_ULONGLONG_T fattr;    /* 0x4000 for a directory, 0x8000 for anything else */
    OV_ULONGLONG_T findAttr; /* unused */
} OV_FINDINFO_T;

/* Finds the next name of the record's stream that its own filePattern matches; filepattern and directory are ignored.
 * Guarded. 0, -1 at the end of the directory or when the record or its stream is null, SDSTS_NMPIPE_FAILED when the
 * match could not be looked at. */
KEM_API OV_STS_T ovMatchFile(OV_FINDINFO_T* pFindInfo, const char* filepattern, const char* directory);

/* ---- Directories, links and names -------------------------------------------------------------------------------
 * Stateless; any thread may call. osRetCode is errno after a failure, else 0, where an entry does not say otherwise. */

/* Makes a directory, open to all that the umask leaves. Guarded. SDSTS_INVALID_PARAM: null. SDSTS_DIR_CREATE: refused,
 * also when it exists. */
KEM_API KEM_FUNC_M KemSdDirCreate(KEM_PSDCTX_T pSdCtx, const char* pszDirName);
/* The same, but what exists already, of whatever kind, or comes into being meanwhile, is a success. */
KEM_API KEM_FUNC_M KemSdDirCreateEx(KEM_PSDCTX_T pSdCtx, const char* path);
/* Makes every directory that is missing along the path. The first failure of KemSdDirCreateEx; or 1, no status and not
 * stored in the context, for a null path and one longer than 1029 characters. */
KEM_API KEM_FUNC_M KemSdCreatePath(KEM_PSDCTX_T pSdCtx, const char* path);

/* Removes a directory with all that is in it. Names that begin with "." are not found: they stay, and with them the
 * directory, and the answer is 0 all the same. A file whose removal is not permitted is made writable (0664) and tried
 * again. A symbolic link goes, pszDirName itself included; what it leads to is never touched. What goes by another hand
 * meanwhile is no failure. The first thing that cannot be removed stops the walk. Guarded.
 * SDSTS_INVALID_PARAM: null, or a name that KemSdIsSafeToDelete refuses. SDSTS_DIR_REMOVE: there is no such directory,
 * something could not be read or removed (errno), a path is longer than 1028 characters (ENAMETOOLONG), a directory was
 * moved away under the walk (ESTALE), or there is no memory (ENOMEM). */
KEM_API KEM_FUNC_M KemSdDirRemove(KEM_PSDCTX_T pSdCtx, const char* pszDirName);
/* TRUE when the name is neither null nor empty. */
KEM_API KEM_BOOL_T KemSdIsSafeToDelete(const char* pszDirName);

/* Changes the current directory, that of the whole process. Not guarded. SDSTS_INVALID_PARAM: null.
 * SDSTS_DIR_NOT_FOUND: there is none of that name. SDSTS_DIR_CHANGE: refused. */
KEM_API KEM_FUNC_M KemSdDirChange(KEM_PSDCTX_T pSdCtx, const char* pFullpath);

/* Makes an empty file that did not exist, named by the prefix (may be null) and six characters, in the directory that
 * TMPDIR names, else in /tmp, else in the current one; its path is the result. The caller removes it. The buffer must
 * hold 1031 bytes. Guarded.
 * SDSTS_INVALID_PARAM: pszTempNameBuf is null. SDSTS_FILE_TEMPNAME: the path would be too long (osRetCode 0), or the
 * file could not be made. */
KEM_API KEM_FUNC_M KemSdFileTempNameGet(KEM_PSDCTX_T pSdCtx, const char* pszPrefix, KEM_STR_T pszTempNameBuf);

/* Makes destPath a hard link to srcPath (linkType 1) or a symbolic link (any other value). Guarded.
 * SDSTS_INVALID_PARAM: a null path. SDSTS_FILE_CREATE: refused. */
KEM_API KEM_FUNC_M KemSdCreateLink(KEM_PSDCTX_T pSdCtx, const char* srcPath, const char* destPath,
                                   KEM_USHORT_T linkType);
/* The same as KemSdDirectIOFileRemove. */
KEM_API KEM_FUNC_M KemSdUnLink(KEM_PSDCTX_T pSdCtx, const char* path);

/* Text only, nothing is looked up. Each result is written to the caller's buffer, of at least the path's length and 3
 * bytes, and returned; a null buffer is returned as it is. The parent of a path is what leads up to its last "/" with
 * it, of a path that ends with "/" the whole path, and "./" where there is no "/". The extension begins at the last "."
 * of the whole path, with it or behind it; "dir.old/file" has "old/file". The canonical path is the path itself; its
 * call returns 0, or SDSTS_INVALID_PARAM for a null pointer. */
KEM_API KEM_STR_T KemSdFileGetParentPath(const char* szFilePath, KEM_STR_T szParent);
KEM_API KEM_STR_T KemSdFileGetExtension(const char* szFilePath, KEM_BOOL_T bIncludeDot, KEM_STR_T szExt);
KEM_API KEM_FUNC_M KemSdFileGetCanonicalPath(const char* szPath, KEM_INT_T iCanonPathSize, KEM_STR_T szCanonPath);

/* The login name of the session, else the name of the effective user; *sizeBuf is its length. No bound is applied to
 * the buffer. SDSTS_INVALID_PARAM: a null output. SDSTS_NO_LOGIN_NAME: neither is known; osRetCode is
 * why the user could not be looked up, 0 when there is none of that id; *sizeBuf is 0 and the first 8 bytes of the
 * buffer are zero. */
KEM_API KEM_FUNC_M KemSdGetSessionLoginUsername(KEM_PSDCTX_T pSdCtx, KEM_STR_T pszLoginUsername, KEM_SIZE_T* sizeBuf);

/* ---- Mapped files -----------------------------------------------------------------------------------------------
 * A file read and written either through one shared mapping (KEM_IOTYPE_MMAP) or, by the same calls, through its
 * descriptor. The mapping is made once, at the length given at the open, and never moved: give the largest length that
 * the file will ever have. The file grows underneath in steps; reads and writes are copies. Example:
 *
 *     KEM_MMAPFILEHDL_T file;
 *     KemSdMMAPHdlReset(&file);
 *     if (KemSdMMAPFileOpen(ctx, path, O_RDWR | O_CREAT, 0, 0600, 1 << 30, KEM_IOTYPE_MMAP, 0, &file) != 0) return;
 *     KemSdMMAPFileSetExtendSize(ctx, 1 << 20, 1 << 30, &file);          // steps of 1 MiB up to 1 GiB
 *     KemSdMMAPFileWrite(ctx, &file, data, bytes, &written);
 *     KemSdMMAPFileClose(ctx, file);
 *
 * A handle belongs to one thread at a time. Guarded where a row of the calls says so; in plain mode a call is the file
 * handle call of the same name and reports what that does. In mapped mode:
 *   - SDSTS_INVALID_PARAM: a null handle, buffer or result (an error-number output may be null);
 *   - a handle without file or mapping is refused: reads and seeks with SDSTS_FILE_READ, writes with SDSTS_FILE_WRITE;
 *   - bytes behind the mapping do not exist: reads end there, writes that would pass it copy nothing;
 *   - the file's length is what this handle has seen or set: where another process has cut the file since, a copy
 *     raises SIGBUS, and holes that the file had at the open take their space from the disk when they are written;
 *   - osRetCode is 0 after reads and seeks, in plain mode too (and after a plain-mode flush), and errno of what failed
 *     after the others. */

#define KEM_IOTYPE_MMAP 101   /* mapped mode */
#define KEM_IOTYPE_FILEIO 102 /* plain mode */

typedef struct KEM_MMAPHDL_T {
    KEM_FILEHDL_T fd;        /* -1: none */
    KEM_ULONG_T extend_size; /* growth step in bytes; 0: grow to exactly what is needed */
    KEM_OFF_T maxsize;       /* bytes that growth may reach; 0 after a reset: the file does not grow */
    KEM_UCHAR_T* pmemmap;    /* the mapping, null when none */
    KEM_OFF_T len;           /* its length in bytes */
    KEM_OFF_T cur;           /* position of the sequential calls */
    KEM_OFF_T size;          /* the file's length as this handle knows it */
} KEM_MMAPHDL_T;

typedef struct KEM_MMAPFILEHDL_T {
    union {
        KEM_FILEHDL_T fd; /* all that counts in plain mode */
        KEM_MMAPHDL_T mmaphdl;
    } v;
    KEM_USHORT_T iotype; /* KEM_IOTYPE_MMAP, KEM_IOTYPE_FILEIO; 0 after a reset */
} KEM_MMAPFILEHDL_T, *KEM_PMMAPFILEHDL_T;

KEM_STATIC_ASSERT(sizeof(KEM_MMAPHDL_T) == 48 && sizeof(KEM_MMAPFILEHDL_T) == 56, "mapped file handle layout");

/* No file, no mapping, position, size and maximum 0. extend_size stays, for a handle that is opened again. */
KEM_API void KemSdMMAPHdlReset(KEM_PMMAPFILEHDL_T phFile);

/* Opens the file as opentype says: 1 KemSdFileSOpen, 3 KemSdFileOpen64, 4 KemSdFileOpenExclusiveMode,
 * 5 KemSdFileOpen64ExclusiveMode, 6 KemSdFileSOpenExclusiveMode, any other KemSdFileOpen; with iotype KEM_IOTYPE_MMAP
 * it is mapped, mapsize bytes long, writable unless iOFlag is O_RDONLY (storing through it then is the caller's fault).
 * Any other iotype is plain mode. A file opened for writing alone cannot be mapped.
 * SDSTS_INVALID_PARAM: phFile is null. The open's failure: the handle is left alone. Else the file is closed again:
 * SDSTS_FILE_LENGTH, its length could not be had (the context keeps the open's status); SDSTS_MMAP_FAILED, it could not
 * be mapped (the context keeps the close's). */
KEM_API KEM_FUNC_M KemSdMMAPFileOpen(KEM_PSDCTX_T pSdCtx, const char* pszFilePath, KEM_INT_T iOFlag, KEM_INT_T iShFlag,
                                     KEM_INT_T iPMode, KEM_LONG64_T mapsize, KEM_USHORT_T iotype, KEM_USHORT_T opentype,
                                     KEM_PMMAPFILEHDL_T phFile);

/* How a mapped file grows: by steps of size bytes (0: exactly) up to maxsize bytes, at most the mapping's length.
 * Ignored in plain mode. The context is left alone. */
KEM_API void KemSdMMAPFileSetExtendSize(KEM_PSDCTX_T pSdCtx, KEM_ULONG_T size, KEM_OFF_T maxsize,
                                        KEM_PMMAPFILEHDL_T phFile);

/* Read up to uiCnt bytes at the position, which moves, or nBytesToRead at lFileOffset; the count is 0 at and behind the
 * end of the file. Guarded. SDSTS_FILE_READ: see above, and a negative position or offset. */
KEM_API KEM_FUNC_M KemSdMMAPFileRead(KEM_PSDCTX_T pSdCtx, KEM_PMMAPFILEHDL_T phFile, KEM_PVOID_T pvBuf,
                                     KEM_UINT_T uiCnt, KEM_PINT_T piRead);
KEM_API KEM_FUNC_M KemSdMMAPFilePRead(KEM_PSDCTX_T pSdCtx, KEM_MMAPFILEHDL_T hFile, KEM_PVOID_T pvData,
                                      KEM_LONG_T lFileOffset, KEM_UINT_T nBytesToRead, KEM_PUINT_T pnBytesRead);

/* Write all bytes at the position, which moves, or at lFileOffset; the file grows as it was told to, for a count of 0
 * behind its end too. Guarded, and once more where it grows. SDSTS_FILE_WRITE: see above, a negative position or
 * offset, growth beyond the maximum; SDSTS_DISK_FULL, SDSTS_FILE_SET_EOF: the growth failed. Nothing is written then.
 */
KEM_API KEM_FUNC_M KemSdMMAPFileWrite(KEM_PSDCTX_T pSdCtx, KEM_PMMAPFILEHDL_T phFile, KEM_PVOID_T pvBuf,
                                      KEM_UINT_T uiCnt, KEM_PINT_T piWritten);
KEM_API KEM_FUNC_M KemSdMMAPFilePWrite(KEM_PSDCTX_T pSdCtx, KEM_PMMAPFILEHDL_T phFile, KEM_PVOID_T pvData,
                                       KEM_LONG_T lFileOffset, KEM_UINT_T nBytesToWrite, KEM_PUINT_T pnBytesWritten,
                                       KEM_POSRETCODE_T pOsRetCode);

/* Moves the position by lOffset bytes from the start (iOrigin 0), from where it is (1) or from the end (2), unchecked;
 * *plPosition is the new one, low 32 bits. Guarded. SDSTS_INVALID_PARAM: another origin, nothing moves. */
KEM_API KEM_FUNC_M KemSdMMAPFileLSeek(KEM_PSDCTX_T pSdCtx, KEM_PMMAPFILEHDL_T phFile, KEM_LONG_T lOffset,
                                      KEM_INT_T iOrigin, KEM_PLONG_T plPosition);

/* Writes the mapping back as the system's MS_ASYNC, MS_SYNC and MS_INVALIDATE in flag ask. Guarded.
 * SDSTS_INVALID_PARAM: no mapping. SDSTS_FILE_FLUSH: failed. */
KEM_API KEM_FUNC_M KemSdMMAPFileFlush(KEM_PSDCTX_T pSdCtx, KEM_INT_T flag, KEM_MMAPFILEHDL_T hFile);

/* As KemSdFileSetEndOfFile, but what the file grows by is reserved as below; the handle's size follows, position and
 * mapping stay. SDSTS_INVALID_PARAM without storing it in the context: a handle without file or mapping. */
KEM_API KEM_FUNC_M KemSdMMAPFileSetEndOfFile(KEM_PSDCTX_T pSdCtx, KEM_PMMAPFILEHDL_T phFile,
                                             KEM_LONG_T lNewFileEOFBytes, KEM_PLONG_T plSetFileEOFBytes,
                                             KEM_POSRETCODE_T pOsRetCode);

/* Grows a mapped file to actualsizeneeded bytes or, by its step, beyond. The disk space is reserved, so that later
 * stores cannot run out of it. *pOsRetCode, which may be null, receives the error number.
 * SDSTS_FILE_WRITE, neither context nor *pOsRetCode written: more than the maximum. SDSTS_FILE_SET_EOF with EINVAL: a
 * size of 2 GiB or more. SDSTS_DISK_FULL (errno ENOSPC or EDQUOT), SDSTS_FILE_SET_EOF: the system refused; the file is
 * as it was. */
KEM_API KEM_FUNC_M KemSdExtendMMAPFile(KEM_PSDCTX_T pSdCtx, KEM_PMMAPFILEHDL_T phFile, KEM_LONG_T actualsizeneeded,
                                       KEM_POSRETCODE_T pOsRetCode);

/* Unmaps and closes; the handle is the caller's to reset. SDSTS_MUNMAP_FAILED: unmapping failed, the file is closed
 * (the context holds the close's result). SDSTS_INVALID_PARAM: there was no mapping, the file is closed all the same.
 * Else the close's status. */
KEM_API KEM_FUNC_M KemSdMMAPFileClose(KEM_PSDCTX_T pSdCtx, KEM_MMAPFILEHDL_T hFile);

/* ---- Block files ------------------------------------------------------------------------------------------------
 * Files read and written in blocks of 8192 bytes, at once or as requests that are collected later. All offsets,
 * positions, sizes and counts are numbers of blocks; in bytes they wrap at 4 GiB. The system's page cache is not passed
 * by: give O_DIRECT among the open's flags for that, and buffers aligned as the file system asks. Example:
 *
 *     KEM_NOWAITIO_CB_T request = {0};
 *     KEM_STS_T sts = KemSdDirectIOFileRead(ctx, file, 0, buffer, 16, &request, &blocks, NULL);
 *     computeMeanwhile();
 *     if (sts == SDSTS_DIO_READ_PENDING) sts = KemSdDirectIOWait(ctx, file, &request, &blocks);
 *
 * Until the wait has collected a request, its buffer and its control block must stay as they are. The C library serves
 * requests with threads of its own: those on one handle one after the other, those on different handles side by side.
 * Any thread may call; a control block is one request's. osRetCode is errno after a failure, else 0. A null buffer or
 * output gives SDSTS_INVALID_PARAM. All calls are guarded but the close and those on arrays of control blocks. */

/* The system's control block of a request; zero it before its first use. */
typedef struct aiocb KEM_NOWAITIO_CB_T, *KEM_PNOWAITIO_CB_T;

/* A mutex that other platforms need for a block file (sync.h); ignored here, null will do. */
typedef KEM_PMUTEXHDL_T* KEM_PPMUTEXHDL_T;

/* Makes the file, or empties it, and closes it. SDSTS_INVALID_PARAM: null path. SDSTS_FILE_CREATE: refused.
 * SDSTS_FILE_CLOSE: made, but the close failed. */
KEM_API KEM_FUNC_M KemSdDirectIOFileCreate(KEM_PSDCTX_T pSdCtx, const char* pszFilePath, KEM_INT_T iMode);

/* Opens with the flags iOType and iAccessFlag together; iShFlags and iAttrFlags are ignored.
 * SDSTS_INVALID_PARAM: a null path or handle. SDSTS_FILE_OPEN: refused; *phFile is -1. */
KEM_API KEM_FUNC_M KemSdDirectIOFileOpen(KEM_PSDCTX_T pSdCtx, const char* pszFilePath, KEM_INT_T iAccessFlag,
                                         KEM_INT_T iShFlags, KEM_INT_T iOType, KEM_INT_T iPMode, KEM_INT_T iAttrFlags,
                                         KEM_PFILEHDL_T phFile, KEM_PPMUTEXHDL_T pprwMutex);

/* SDSTS_FILE_CLOSE: the system reported a failure. */
KEM_API KEM_FUNC_M KemSdDirectIOFileClose(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PPMUTEXHDL_T pprwMutex);

/* Removes the name. SDSTS_INVALID_PARAM: null. SDSTS_FILE_REMOVE: refused. */
KEM_API KEM_FUNC_M KemSdDirectIOFileRemove(KEM_PSDCTX_T pSdCtx, const char* pszFilePath);

/* Reads ulBlocks blocks at block ulOffsetBlocks; the file's position is neither used nor moved. Without a control block
 * it waits: *pulBlocksRead is the number of whole blocks read, 0 at the end of the file; SDSTS_FILE_READ: failed, 0.
 * A partial block that ends the request at 2 GiB counts as a whole one, since a file of 2^31 - 1 bytes lacks its last
 * byte. With a control block the read is queued: SDSTS_DIO_READ_PENDING, no failure, count 0; SDSTS_DIO_READ: refused,
 * count 0. */
KEM_API KEM_FUNC_M KemSdDirectIOFileRead(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_ULONG_T ulOffsetBlocks,
                                         KEM_PVOID_T pBuffer, KEM_ULONG_T ulBlocks, KEM_PNOWAITIO_CB_T pNoWaitCb,
                                         KEM_PULONG_T pulBlocksRead, KEM_PMUTEXHDL_T prwMutex);

/* Writes likewise. SDSTS_FILE_WRITE: failed, a full disk included, or not one whole block was written; count 0. Queued:
 * SDSTS_DIO_WRITE_PENDING, no failure, count 0; SDSTS_DIO_WRITE: refused, count 0xFFFFFFFF. */
KEM_API KEM_FUNC_M KemSdDirectIOFileWrite(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_ULONG_T ulOffsetBlocks,
                                          KEM_PVOID_T pBuffer, KEM_ULONG_T ulBlocks, KEM_PNOWAITIO_CB_T pNoWaitCb,
                                          KEM_PULONG_T pulBlocksWritten, KEM_PPMUTEXHDL_T pprwMutex);

/* Waits until a queued request has ended; *pulBlocksRW is the number of whole blocks moved, fewer than asked at the end
 * of the file or of the disk, and is left alone by a failure. hFile is ignored. A request is collected once.
 * SDSTS_INVALID_PARAM: a null control block. SDSTS_DIO_SUSPEND: waiting failed, the request is still out.
 * SDSTS_DISK_FULL (ENOSPC), SDSTS_DIO_RETURN: the request failed; osRetCode is its own error number. */
KEM_API KEM_FUNC_M KemSdDirectIOWait(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PNOWAITIO_CB_T pNoWaitCb,
                                     KEM_PULONG_T pulBlocksRW);

/* The number of whole blocks, of the low 32 bits of the length. SDSTS_FILE_LENGTH: failed, 0. */
KEM_API KEM_FUNC_M KemSdDirectIOFileSize(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PULONG_T pulFileLengthBlocks);

/* The position, or the one lOffsetBlocks from iOrigin (SEEK_SET, SEEK_CUR, SEEK_END), in whole blocks of its low 32
 * bits as a signed number; a negative one is a failure. SDSTS_FILE_TELL, SDSTS_DIO_SEEK: failed, 0. */
KEM_API KEM_FUNC_M KemSdDirectIOFilePointerGet(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile,
                                               KEM_PULONG_T pulFilePositionBlocks);
KEM_API KEM_FUNC_M KemSdDirectIOFilePointerSet(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_LONG_T lOffsetBlocks,
                                               KEM_INT_T iOrigin, KEM_PULONG_T pulFilePositionBlocks);

/* Both: cut or grow the file to that many blocks, which are also the result. SDSTS_FILE_SET_EOF: failed, 0; an
 * interrupted call is not retried. */
KEM_API KEM_FUNC_M KemSdDirectIOFileChangeSize(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_ULONG_T ulNewFileEOFBlocks,
                                               KEM_PULONG_T pulSetFileEOFBlocks);
KEM_API KEM_FUNC_M KemSdDirectIOFileSetEndOfFile(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile,
                                                 KEM_ULONG_T ulNewFileEOFBlocks, KEM_PULONG_T pulSetFileEOFBlocks);

/* The largest file in bytes: what the volume's file system allows by its number of file-size bits, or the process's
 * limit when that is lower. File systems of 53 bits and more, the usual ones, answer -1.0. SDSTS_INVALID_PARAM: a null
 * name. SDSTS_DIO_MAX_FILE_SIZE: the file system's limit is not known and counts as 0.0, or the process's is not known
 * and nothing is stored. */
KEM_API KEM_FUNC_M KemSdDirectIOMaxFileSizeGet(KEM_PSDCTX_T pSdCtx, const char* pszVolumeName,
                                               KEM_PDOUBLE_T pdMaxFileSizeInBytes);

/* For arrays of control blocks. Init has nothing to prepare: 0. Term is not provided here: SDSTS_INVALID_PARAM. */
KEM_API KEM_FUNC_M KemSdDirectIONoWaitCbsInit(KEM_PSDCTX_T pSdCtx, KEM_PNOWAITIO_CB_T pNoWaitCb, KEM_ULONG_T numCbs);
KEM_API KEM_FUNC_M KemSdDirectIONoWaitCbsTerm(KEM_PSDCTX_T pSdCtx, KEM_PNOWAITIO_CB_T pNoWaitCb, KEM_ULONG_T numCbs);

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
