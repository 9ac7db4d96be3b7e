/* Files: descriptors opened, read, written, positioned and closed with the status convention of context.h. */
#ifndef KEMSD_FILE_H
#define KEMSD_FILE_H

#include <dirent.h>
#include <kemsd/context.h>

KEM_EXTERN_C_BEGIN

/* ---- File handles ---------------------------------------------------------------------------------------------- */

KEM_API mode_t KemSdAddFailoverModePrivileges(KEM_INT_T iPMode);

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
KEM_API KEM_FUNC_M KemSdFileCreate(KEM_PSDCTX_T pSdCtx, const char* pszFilePath, KEM_INT_T iPMode,
                                   KEM_PFILEHDL_T phFile);
KEM_API KEM_FUNC_M KemSdFileClose(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile);
KEM_API KEM_FUNC_M KemSdFileRead(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PVOID_T pvBuf, KEM_UINT_T uiCnt,
                                 KEM_PINT_T piRead);
KEM_API KEM_FUNC_M KemSdFileWrite(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PVOID_T pvBuf, KEM_UINT_T uiCnt,
                                  KEM_PINT_T piWritten);
KEM_API KEM_FUNC_M KemSdFilePRead(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PVOID_T pvData, KEM_LONG_T lFileOffset,
                                  KEM_UINT_T nBytesToRead, KEM_PUINT_T pnBytesRead);
KEM_API KEM_FUNC_M KemSdFilePWrite(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PVOID_T pvData, KEM_LONG_T lFileOffset,
                                   KEM_UINT_T nBytesToWrite, KEM_PUINT_T pnBytesWritten, KEM_POSRETCODE_T pOsRetCode);
KEM_API KEM_FUNC_M KemSdFileLSeek(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_LONG_T lOffset, KEM_INT_T iOrigin,
                                  KEM_PLONG_T plPosition);
KEM_API KEM_FUNC_M KemSdFileTell(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PLONG_T plPosition);
KEM_API KEM_FUNC_M KemSdFileEof(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PBOOL_T pbAtEof);
KEM_API KEM_FUNC_M KemSdFileFlush(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile);
KEM_API KEM_FUNC_M KemSdFileLength(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PLONG_T plLength);
KEM_API KEM_FUNC_M KemSdFileGets(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PVOID_T pvBuf, KEM_ULONG_T ulBufLen);
KEM_API KEM_FUNC_M KemSdFileAccess(KEM_PSDCTX_T pSdCtx, const char* pszFileName, KEM_INT_T iAccessMode,
                                   KEM_PBOOL_T pbMatched);
KEM_API KEM_FUNC_M KemSdFileRemove(KEM_PSDCTX_T pSdCtx, const char* pszFileName);
KEM_API KEM_FUNC_M KemSdFileSetEndOfFile(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_LONG_T lNewFileEOFBytes,
                                         KEM_PLONG_T plSetFileEOFBytes, KEM_POSRETCODE_T pOsRetCode);
KEM_API KEM_FUNC_M KemSdIsAttrDirectory(KEM_PSDCTX_T pSdCtx, KEM_ULONG_T ulFileAttr, KEM_PBOOL_T pbIsDirectory);
KEM_API KEM_FUNC_M KemSdIsDirectIO(KEM_PSDCTX_T pSdCtx, KEM_PPVOID_T ppOSVersion, const char* pszVolumeName,
                                   KEM_PBOOL_T pbIsAvailable);
KEM_API KEM_FUNC_M KemSdIsNoWaitIO(KEM_PSDCTX_T pSdCtx, KEM_PPVOID_T ppOSVersion, const char* pszVolumeName,
                                   KEM_PBOOL_T pbIsAvailable);
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

KEM_EXTERN_C_END

#endif
