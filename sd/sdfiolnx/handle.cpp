// File handles: descriptors opened, read, written, positioned, measured and closed. Each call is one system call whose
// outcome goes to the caller's context; nothing is buffered, allocated or remembered between calls, and no call
// retries.
//
// Offsets, positions and lengths are 32-bit: sign-extended on the way in, cut to their low 32 bits on the way out.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <kemsd/file.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sd/base/invariant.h"
#include "sd/base/leaseguard.h"
#include "sd/base/outcome.h"

namespace {

using sd::fail;
using sd::failErrno;
using sd::finish;
using sd::ok;
using sd::Outcome;
using sd::passLeaseGuard;
using sd::SourcePoint;
using sd::writeFailure;

constexpr SourcePoint kFileOpen{"sd/sdfiolnx", 71, "KemSdFileOpen"};
constexpr SourcePoint kFileSOpen{"sd/sdfiolnx", 84, "KemSdFileSOpen"};
constexpr SourcePoint kFileOpen64{"sd/sdfiolnx", 97, "KemSdFileOpen64"};
static_assert(O_EXCL == 0200, "the assertions of the plain opens spell the flag out");

constexpr KEM_ULONG_T kTypeBits = 0xF000; // of a st_mode
constexpr KEM_ULONG_T kDirectory = 0x4000;
static_assert(kTypeBits == S_IFMT && kDirectory == S_IFDIR);

constexpr size_t kProcPathCapacity = 4096;
constexpr long kDescriptorLimit = 0x7FFFFFFF;
constexpr KEM_FILEHDL_T kFirstClosed = 4; // Deliberate: one descriptor more than the three standard streams survives.

// What leaves through the interface, and what every failure test looks at: only exactly -1 is a failure.
// Deliberate: so position 2^32 - 1 of a large file counts as a failed seek.
constexpr KEM_LONG_T low32(int64_t result) { return static_cast<KEM_LONG_T>(result); }
static_assert(low32(0xFFFFFFFF) == -1 && low32(INT64_C(5) << 30) == 1 << 30);

// The six opens differ in the system call, the status of a failure and the flags they add.
struct OpenKind {
    int (*call)(const char*, int, ...);
    KEM_STS_T failure;
    int addedFlags = 0;
};
constexpr OpenKind kPlain{open, SDSTS_FILE_OPEN};
constexpr OpenKind kShared{open, SDSTS_FILE_SOPEN};
constexpr OpenKind kPlain64{open64, SDSTS_FILE_OPEN};
constexpr OpenKind kExclusive{open, SDSTS_FILE_OPEN, O_EXCL};
constexpr OpenKind kSharedExclusive{open, SDSTS_FILE_SOPEN, O_EXCL};
constexpr OpenKind kExclusive64{open64, SDSTS_FILE_OPEN, O_EXCL};

KEM_STS_T openFile(const OpenKind& kind, KEM_PSDCTX_T ctx, const char* path, int flags, int mode, KEM_PFILEHDL_T phFile)
{
    passLeaseGuard();
    if (!phFile || !path) return finish(ctx, fail(SDSTS_INVALID_PARAM));
    *phFile = kind.call(path, flags | kind.addedFlags, KemSdAddFailoverModePrivileges(mode));
    return finish(ctx, *phFile == -1 ? failErrno(kind.failure) : ok());
}

Outcome readFile(KEM_FILEHDL_T file, void* buffer, KEM_UINT_T bytes, int& got)
{
    got = low32(read(file, buffer, bytes));
    return got == -1 ? failErrno(SDSTS_FILE_READ) : ok();
}

Outcome seekFile(KEM_FILEHDL_T file, KEM_LONG_T offset, int origin, KEM_LONG_T& position)
{
    position = low32(lseek(file, offset, origin));
    return position == -1 ? failErrno(SDSTS_FILE_SEEK) : ok();
}

Outcome fileLength(KEM_FILEHDL_T file, KEM_LONG_T& length)
{
    struct stat record;
    const int result = fstat(file, &record);
    length = result == -1 ? 0 : low32(record.st_size);
    // Deliberate: a failure leaves the raw result as its error number, a success whatever errno holds.
    return result == -1 ? fail(SDSTS_FILE_LENGTH, result) : ok(errno);
}

Outcome readAt(KEM_FILEHDL_T file, void* data, KEM_UINT_T bytes, KEM_LONG_T offset, KEM_UINT_T& got)
{
    if (file == -1) return failErrno(SDSTS_FILE_READ);
    const KEM_LONG_T result = low32(pread(file, data, bytes, offset));
    if (result == -1) return failErrno(SDSTS_FILE_READ);
    got = static_cast<KEM_UINT_T>(result);
    return ok();
}

Outcome writeAt(KEM_FILEHDL_T file, const void* data, KEM_UINT_T bytes, KEM_LONG_T offset, KEM_UINT_T& written)
{
    // Deliberate: a handle without a file is reported with the read status.
    if (file == -1) return failErrno(SDSTS_FILE_READ);
    const KEM_LONG_T result = low32(pwrite(file, data, bytes, offset));
    if (result == -1) return writeFailure(SDSTS_FILE_WRITE);
    written = static_cast<KEM_UINT_T>(result);
    return ok();
}

// The failure of a step inside a larger operation, under that operation's own status.
constexpr Outcome restated(Outcome step, KEM_STS_T sts) { return fail(sts, step.os); }

// Reads one buffer full, keeps the first line of it and seeks back behind that line.
Outcome readLine(KEM_FILEHDL_T file, char* text, KEM_ULONG_T capacity)
{
    if (capacity == 1) {
        text[0] = 0;
        return ok();
    }
    int got;
    if (const Outcome step = readFile(file, text, capacity - 1, got); step.failed())
        return restated(step, SDSTS_FILE_GETS);
    if (got == 0) return fail(SDSTS_FILE_GETS_EOF);
    text[got] = 0;
    const void* newline = memchr(text, '\n', got);
    if (!newline) return ok(); // the line is longer than the buffer: this is its next piece
    const auto lineBytes = static_cast<int>(static_cast<const char*>(newline) - text + 1);
    KEM_LONG_T unused;
    if (const Outcome step = seekFile(file, lineBytes - got, SEEK_CUR, unused); step.failed())
        return restated(step, SDSTS_FILE_GETS);
    text[lineBytes] = 0;
    return ok();
}

// This process's descriptor directory, or null.
DIR* openDescriptorDirectory()
{
    char path[kProcPathCapacity];
    const int length = snprintf(path, sizeof path, "/proc/%ld/fd", static_cast<long>(getpid()));
    if (length <= 0 || static_cast<size_t>(length) >= sizeof path) return nullptr; // the compiler proves: never
    return opendir(path);
}

// The descriptor that an entry's name spells; -1 for any other name.
int namedDescriptor(const char* name)
{
    char* end;
    const long value = strtol(name, &end, 10);
    return end != name && *end == 0 && value >= 0 && value < kDescriptorLimit ? static_cast<int>(value) : -1;
}

KEM_STS_T answerNotAvailable(KEM_PSDCTX_T ctx, KEM_PBOOL_T available)
{
    if (!available) return finish(ctx, fail(SDSTS_INVALID_PARAM));
    *available = FALSE;
    return finish(ctx, ok());
}

} // namespace

mode_t KemSdAddFailoverModePrivileges(KEM_INT_T iPMode)
{
    return static_cast<mode_t>(sd::failoverMode() ? iPMode | 0666 : iPMode);
}

KEM_FUNC_M KemSdFileOpen(KEM_PSDCTX_T pSdCtx, const char* pszFilePath, KEM_INT_T iOFlag, KEM_INT_T iPMode,
                         KEM_PFILEHDL_T phFile)
{
    SD_INVARIANT(kFileOpen, (iOFlag & 0200) != 0200);
    return openFile(kPlain, pSdCtx, pszFilePath, iOFlag, iPMode, phFile);
}

KEM_FUNC_M KemSdFileSOpen(KEM_PSDCTX_T pSdCtx, const char* pszFilePath, KEM_INT_T iOFlag, KEM_INT_T, KEM_INT_T iPMode,
                          KEM_PFILEHDL_T phFile)
{
    SD_INVARIANT(kFileSOpen, (iOFlag & 0200) != 0200);
    return openFile(kShared, pSdCtx, pszFilePath, iOFlag, iPMode, phFile);
}

KEM_FUNC_M KemSdFileOpen64(KEM_PSDCTX_T pSdCtx, const char* pszFilePath, KEM_INT_T iOFlag, KEM_INT_T iPMode,
                           KEM_PFILEHDL_T phFile)
{
    SD_INVARIANT(kFileOpen64, (iOFlag & 0200) != 0200);
    return openFile(kPlain64, pSdCtx, pszFilePath, iOFlag, iPMode, phFile);
}

KEM_FUNC_M KemSdFileOpenExclusiveMode(KEM_PSDCTX_T pSdCtx, const char* pszFilePath, KEM_INT_T iOFlag, KEM_INT_T iPMode,
                                      KEM_PFILEHDL_T phFile)
{
    return openFile(kExclusive, pSdCtx, pszFilePath, iOFlag, iPMode, phFile);
}

KEM_FUNC_M KemSdFileSOpenExclusiveMode(KEM_PSDCTX_T pSdCtx, const char* pszFilePath, KEM_INT_T iOFlag, KEM_INT_T,
                                       KEM_INT_T iPMode, KEM_PFILEHDL_T phFile)
{
    return openFile(kSharedExclusive, pSdCtx, pszFilePath, iOFlag, iPMode, phFile);
}

KEM_FUNC_M KemSdFileOpen64ExclusiveMode(KEM_PSDCTX_T pSdCtx, const char* pszFilePath, KEM_INT_T iOFlag,
                                        KEM_INT_T iPMode, KEM_PFILEHDL_T phFile)
{
    return openFile(kExclusive64, pSdCtx, pszFilePath, iOFlag, iPMode, phFile);
}

KEM_FUNC_M KemSdFileCreate(KEM_PSDCTX_T pSdCtx, const char* pszFilePath, KEM_INT_T iPMode, KEM_PFILEHDL_T phFile)
{
    passLeaseGuard();
    if (!phFile || !pszFilePath) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    *phFile = creat(pszFilePath, KemSdAddFailoverModePrivileges(iPMode));
    return finish(pSdCtx, *phFile == -1 ? failErrno(SDSTS_FILE_CREATE) : ok());
}

KEM_FUNC_M KemSdFileClose(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile)
{
    return finish(pSdCtx, close(hFile) == -1 ? failErrno(SDSTS_FILE_CLOSE) : ok());
}

KEM_FUNC_M KemSdFileRead(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PVOID_T pvBuf, KEM_UINT_T uiCnt,
                         KEM_PINT_T piRead)
{
    passLeaseGuard();
    if (!pvBuf || !piRead) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    return finish(pSdCtx, readFile(hFile, pvBuf, uiCnt, *piRead));
}

KEM_FUNC_M KemSdFileWrite(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PVOID_T pvBuf, KEM_UINT_T uiCnt,
                          KEM_PINT_T piWritten)
{
    passLeaseGuard();
    if (!pvBuf || !piWritten) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    *piWritten = low32(write(hFile, pvBuf, uiCnt));
    return finish(pSdCtx, *piWritten == -1 ? writeFailure(SDSTS_FILE_WRITE) : ok());
}

KEM_FUNC_M KemSdFilePRead(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PVOID_T pvData, KEM_LONG_T lFileOffset,
                          KEM_UINT_T nBytesToRead, KEM_PUINT_T pnBytesRead)
{
    passLeaseGuard();
    if (pnBytesRead) *pnBytesRead = 0;
    if (!pvData || !pnBytesRead) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    return finish(pSdCtx, readAt(hFile, pvData, nBytesToRead, lFileOffset, *pnBytesRead));
}

KEM_FUNC_M KemSdFilePWrite(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PVOID_T pvData, KEM_LONG_T lFileOffset,
                           KEM_UINT_T nBytesToWrite, KEM_PUINT_T pnBytesWritten, KEM_POSRETCODE_T pOsRetCode)
{
    passLeaseGuard();
    if (pOsRetCode) *pOsRetCode = 0;
    if (pnBytesWritten) *pnBytesWritten = 0;
    if (!pvData || !pnBytesWritten) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    const Outcome outcome = writeAt(hFile, pvData, nBytesToWrite, lFileOffset, *pnBytesWritten);
    if (pOsRetCode) *pOsRetCode = outcome.os;
    return finish(pSdCtx, outcome);
}

KEM_FUNC_M KemSdFileLSeek(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_LONG_T lOffset, KEM_INT_T iOrigin,
                          KEM_PLONG_T plPosition)
{
    passLeaseGuard();
    KEM_LONG_T position;
    const Outcome outcome = seekFile(hFile, lOffset, iOrigin, position);
    if (plPosition) *plPosition = position;
    return finish(pSdCtx, outcome);
}

KEM_FUNC_M KemSdFileTell(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PLONG_T plPosition)
{
    passLeaseGuard();
    if (!plPosition) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    const Outcome outcome = seekFile(hFile, 0, SEEK_CUR, *plPosition);
    return finish(pSdCtx, outcome.failed() ? restated(outcome, SDSTS_FILE_TELL) : ok());
}

KEM_FUNC_M KemSdFileEof(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PBOOL_T pbAtEof)
{
    passLeaseGuard();
    if (!pbAtEof) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    KEM_LONG_T position, length;
    Outcome step = seekFile(hFile, 0, SEEK_CUR, position);
    if (!step.failed()) step = fileLength(hFile, length);
    if (step.failed()) return finish(pSdCtx, restated(step, SDSTS_FILE_EOF));
    *pbAtEof = position == length;
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdFileFlush(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile)
{
    passLeaseGuard();
    return finish(pSdCtx, fsync(hFile) == -1 ? failErrno(SDSTS_FILE_FLUSH) : ok());
}

KEM_FUNC_M KemSdFileLength(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PLONG_T plLength)
{
    passLeaseGuard();
    if (!plLength) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    return finish(pSdCtx, fileLength(hFile, *plLength));
}

KEM_FUNC_M KemSdFileGets(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PVOID_T pvBuf, KEM_ULONG_T ulBufLen)
{
    passLeaseGuard();
    if (!pvBuf || ulBufLen == 0) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    return finish(pSdCtx, readLine(hFile, static_cast<char*>(pvBuf), ulBufLen));
}

KEM_FUNC_M KemSdFileAccess(KEM_PSDCTX_T pSdCtx, const char* pszFileName, KEM_INT_T iAccessMode, KEM_PBOOL_T pbMatched)
{
    passLeaseGuard();
    if (!pbMatched) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    *pbMatched = pszFileName && access(pszFileName, iAccessMode) == 0;
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdFileRemove(KEM_PSDCTX_T pSdCtx, const char* pszFileName)
{
    passLeaseGuard();
    if (!pszFileName) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    return finish(pSdCtx, unlink(pszFileName) == -1 ? failErrno(SDSTS_FILE_REMOVE) : ok());
}

KEM_FUNC_M KemSdIsAttrDirectory(KEM_PSDCTX_T pSdCtx, KEM_ULONG_T ulFileAttr, KEM_PBOOL_T pbIsDirectory)
{
    passLeaseGuard();
    if (!pbIsDirectory) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    *pbIsDirectory = (ulFileAttr & kTypeBits) == kDirectory;
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdIsDirectIO(KEM_PSDCTX_T pSdCtx, KEM_PPVOID_T, const char*, KEM_PBOOL_T pbIsAvailable)
{
    return answerNotAvailable(pSdCtx, pbIsAvailable);
}

KEM_FUNC_M KemSdIsNoWaitIO(KEM_PSDCTX_T pSdCtx, KEM_PPVOID_T, const char*, KEM_PBOOL_T pbIsAvailable)
{
    return answerNotAvailable(pSdCtx, pbIsAvailable);
}

KEM_FUNC_M KemSdFileCloseAllFrom(KEM_PSDCTX_T, KEM_FILEHDL_T hFile)
{
    DIR* const directory = openDescriptorDirectory();
    if (!directory) return 0;
    const int own = dirfd(directory);
    while (const dirent* entry = readdir(directory)) {
        const int descriptor = namedDescriptor(entry->d_name);
        if (descriptor != -1 && descriptor >= hFile && descriptor != own) close(descriptor);
    }
    closedir(directory);
    return 0;
}

KEM_FUNC_M KemSdFileCloseAllButNoStd(KEM_PSDCTX_T pSdCtx) { return KemSdFileCloseAllFrom(pSdCtx, kFirstClosed); }
