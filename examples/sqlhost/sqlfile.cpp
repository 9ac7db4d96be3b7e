// One open file of the file system "kemsd".
#include <kemsd/file.h>

#include <cstring>

#include "sqlvfs.h"

namespace sqlhost {
namespace {

KemsdFile& of(sqlite3_file* file) { return *reinterpret_cast<KemsdFile*>(file); }

int tooLong(KemsdFile& file)
{
    threadContext()->osRetCode = 0;
    return trouble(SQLITE_FULL, "a file may have at most 2 GiB:", file.path);
}

int fileClose(sqlite3_file* base)
{
    KemsdFile& file = of(base);
    unlockFile(file, SQLITE_LOCK_NONE);
    const KEM_STS_T status = KemSdMMAPFileClose(threadContext(), file.mapped);
    sqlite3_free(file.path);
    file.path = nullptr;
    return status == 0 ? SQLITE_OK : SQLITE_IOERR_CLOSE;
}

// Bytes past the end of the file read as zeros, and the result says that there were some.
int fileRead(sqlite3_file* base, void* data, int count, sqlite3_int64 position)
{
    KemsdFile& file = of(base);
    if (readMapped(file, data, count, position)) return SQLITE_OK;
    char* at = static_cast<char*>(data);
    int64_t left = count;
    while (left > 0 && position <= kLongestFile) {
        KEM_UINT_T got = 0;
        const KEM_LONG_T offset = static_cast<KEM_LONG_T>(position);
        if (KemSdFilePRead(threadContext(), file.handle(), at, offset, static_cast<KEM_UINT_T>(left), &got) != 0)
            return trouble(SQLITE_IOERR_READ, "cannot read", file.path);
        if (got == 0) break;
        at += got;
        left -= got;
        position += got;
    }
    if (left == 0) return SQLITE_OK;
    memset(at, 0, static_cast<size_t>(left));
    return SQLITE_IOERR_SHORT_READ;
}

// Inside a transaction the thread holds its lease; what is written outside one, to temporary files, takes its own.
KEM_STS_T writeAt(KemsdFile& file, void* data, KEM_LONG_T offset, KEM_UINT_T count, KEM_UINT_T* written)
{
    if (holdsLease()) return KemSdFilePWrite(threadContext(), file.handle(), data, offset, count, written, nullptr);
    KEM_OSRETCODE_T error = 0;
    OV_THDCTX_T& thread = ThreadContext::current();
    const KEM_STS_T status = KemSdLeasedFilePWrite(&thread, file.handle(), data, offset, count, written, &error);
    thread.pSdCtx->osRetCode = error; // giving the lease back may have overwritten it
    return status;
}

int fileWrite(sqlite3_file* base, const void* data, int count, sqlite3_int64 position)
{
    KemsdFile& file = of(base);
    if (position + count > kLongestFile) return tooLong(file);
    char* at = static_cast<char*>(const_cast<void*>(data));
    for (KEM_UINT_T left = static_cast<KEM_UINT_T>(count), written = 0; left > 0;
         left -= written, at += written, position += written) {
        const KEM_STS_T status = writeAt(file, at, static_cast<KEM_LONG_T>(position), left, &written);
        if (status == SDSTS_DISK_FULL) return trouble(SQLITE_FULL, "no space left for", file.path);
        if (status != 0 || written == 0) return trouble(SQLITE_IOERR_WRITE, "cannot write", file.path);
    }
    return SQLITE_OK;
}

int fileTruncate(sqlite3_file* base, sqlite3_int64 size)
{
    KemsdFile& file = of(base);
    if (size > kLongestFile) return tooLong(file);
    const LeaseScope lease(file.path);
    if (lease.result() != SQLITE_OK) return lease.result();
    KEM_LONG_T set = 0;
    const KEM_STS_T status =
        KemSdFileSetEndOfFile(threadContext(), file.handle(), static_cast<KEM_LONG_T>(size), &set, nullptr);
    const int error = threadContext()->osRetCode;
    followLength(file);
    threadContext()->osRetCode = error;
    if (status == SDSTS_DISK_FULL) return trouble(SQLITE_FULL, "no space left for", file.path);
    return status == 0 ? SQLITE_OK : trouble(SQLITE_IOERR_TRUNCATE, "cannot truncate", file.path);
}

int fileSync(sqlite3_file* base, int)
{
    KemsdFile& file = of(base);
    if (KemSdFileFlush(threadContext(), file.handle()) != 0)
        return trouble(SQLITE_IOERR_FSYNC, "cannot flush", file.path);
    if (!file.syncDirectory) return SQLITE_OK;
    file.syncDirectory = false;
    return flushDirectory(file.path);
}

// The length comes back cut to 32 bits, so a byte beyond the largest position tells a file that is too long.
int fileSize(sqlite3_file* base, sqlite3_int64* size)
{
    KemsdFile& file = of(base);
    KEM_LONG_T length = 0;
    if (KemSdFileLength(threadContext(), file.handle(), &length) != 0)
        return trouble(SQLITE_IOERR_FSTAT, "cannot tell the length of", file.path);
    char beyond;
    KEM_UINT_T got = 0;
    const KEM_STS_T status =
        KemSdFilePRead(threadContext(), file.handle(), &beyond, static_cast<KEM_LONG_T>(kLongestFile), 1, &got);
    if (status != 0) return trouble(SQLITE_IOERR_FSTAT, "cannot tell the length of", file.path);
    if (got != 0) {
        tooLong(file);
        return SQLITE_IOERR_FSTAT;
    }
    *size = length;
    return SQLITE_OK;
}

int fileLock(sqlite3_file* base, int level) { return lockFile(of(base), level); }

int fileUnlock(sqlite3_file* base, int level) { return unlockFile(of(base), level); }

int fileCheckReserved(sqlite3_file* base, int* reserved) { return checkReserved(of(base), reserved); }

int fileControl(sqlite3_file* base, int operation, void* argument)
{
    switch (operation) {
        case SQLITE_FCNTL_LOCKSTATE:
            *static_cast<int*>(argument) = of(base).lockLevel;
            return SQLITE_OK;
        case SQLITE_FCNTL_VFSNAME:
            *static_cast<char**>(argument) = sqlite3_mprintf("kemsd");
            return SQLITE_OK;
        default:
            return SQLITE_NOTFOUND;
    }
}

int fileSectorSize(sqlite3_file*) { return 4096; }

// A torn write leaves the bytes beside it alone, as on every disk that SQLite's own file system expects.
int fileCharacteristics(sqlite3_file*) { return SQLITE_IOCAP_POWERSAFE_OVERWRITE; }

} // namespace

const sqlite3_io_methods kKemsdFileMethods = {
    .iVersion = 1,
    .xClose = fileClose,
    .xRead = fileRead,
    .xWrite = fileWrite,
    .xTruncate = fileTruncate,
    .xSync = fileSync,
    .xFileSize = fileSize,
    .xLock = fileLock,
    .xUnlock = fileUnlock,
    .xCheckReservedLock = fileCheckReserved,
    .xFileControl = fileControl,
    .xSectorSize = fileSectorSize,
    .xDeviceCharacteristics = fileCharacteristics,
    .xShmMap = nullptr,
    .xShmLock = nullptr,
    .xShmBarrier = nullptr,
    .xShmUnmap = nullptr,
    .xFetch = nullptr,
    .xUnfetch = nullptr,
};

} // namespace sqlhost
