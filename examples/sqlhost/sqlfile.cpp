// One open file of the file system "kemsd".
#include <kemsd/file.h>

#include <cstring>

#include "sqlvfs.h"

namespace sqlhost {
namespace {

KemsdFile& of(sqlite3_file* file) { return *reinterpret_cast<KemsdFile*>(file); }

int tooLong(KemsdFile& file)
{
    file.context->osRetCode = 0;
    return trouble(SQLITE_FULL, "a file may have at most 2 GiB:", file.path, file.context);
}

int fileClose(sqlite3_file* base)
{
    KemsdFile& file = of(base);
    const KEM_STS_T status = KemSdFileClose(file.context, file.handle);
    sqlite3_free(file.path);
    file.path = nullptr;
    return status == 0 ? SQLITE_OK : SQLITE_IOERR_CLOSE;
}

// Bytes past the end of the file read as zeros, and the result says that there were some.
int fileRead(sqlite3_file* base, void* data, int count, sqlite3_int64 position)
{
    KemsdFile& file = of(base);
    char* at = static_cast<char*>(data);
    int64_t left = count;
    while (left > 0 && position <= kLongestFile) {
        KEM_UINT_T got = 0;
        const KEM_LONG_T offset = static_cast<KEM_LONG_T>(position);
        if (KemSdFilePRead(file.context, file.handle, at, offset, static_cast<KEM_UINT_T>(left), &got) != 0)
            return trouble(SQLITE_IOERR_READ, "cannot read", file.path, file.context);
        if (got == 0) break;
        at += got;
        left -= got;
        position += got;
    }
    if (left == 0) return SQLITE_OK;
    memset(at, 0, static_cast<size_t>(left));
    return SQLITE_IOERR_SHORT_READ;
}

int fileWrite(sqlite3_file* base, const void* data, int count, sqlite3_int64 position)
{
    KemsdFile& file = of(base);
    if (position + count > kLongestFile) return tooLong(file);
    char* at = static_cast<char*>(const_cast<void*>(data));
    for (KEM_UINT_T left = static_cast<KEM_UINT_T>(count), written = 0; left > 0;
         left -= written, at += written, position += written) {
        KEM_OSRETCODE_T error = 0;
        const KEM_LONG_T offset = static_cast<KEM_LONG_T>(position);
        const KEM_STS_T status = KemSdFilePWrite(file.context, file.handle, at, offset, left, &written, &error);
        if (status == SDSTS_DISK_FULL) return trouble(SQLITE_FULL, "no space left for", file.path, file.context);
        if (status != 0 || written == 0) return trouble(SQLITE_IOERR_WRITE, "cannot write", file.path, file.context);
    }
    return SQLITE_OK;
}

int fileTruncate(sqlite3_file* base, sqlite3_int64 size)
{
    KemsdFile& file = of(base);
    if (size > kLongestFile) return tooLong(file);
    KEM_LONG_T set = 0;
    KEM_OSRETCODE_T error = 0;
    const KEM_STS_T status =
        KemSdFileSetEndOfFile(file.context, file.handle, static_cast<KEM_LONG_T>(size), &set, &error);
    if (status == SDSTS_DISK_FULL) return trouble(SQLITE_FULL, "no space left for", file.path, file.context);
    return status == 0 ? SQLITE_OK : trouble(SQLITE_IOERR_TRUNCATE, "cannot truncate", file.path, file.context);
}

int fileSync(sqlite3_file* base, int)
{
    KemsdFile& file = of(base);
    if (KemSdFileFlush(file.context, file.handle) != 0)
        return trouble(SQLITE_IOERR_FSYNC, "cannot flush", file.path, file.context);
    if (!file.syncDirectory) return SQLITE_OK;
    file.syncDirectory = false;
    return flushDirectory(file.context, file.path);
}

// The length comes back cut to 32 bits, so a byte beyond the largest position tells a file that is too long.
int fileSize(sqlite3_file* base, sqlite3_int64* size)
{
    KemsdFile& file = of(base);
    KEM_LONG_T length = 0;
    if (KemSdFileLength(file.context, file.handle, &length) != 0)
        return trouble(SQLITE_IOERR_FSTAT, "cannot tell the length of", file.path, file.context);
    char beyond;
    KEM_UINT_T got = 0;
    const KEM_STS_T status =
        KemSdFilePRead(file.context, file.handle, &beyond, static_cast<KEM_LONG_T>(kLongestFile), 1, &got);
    if (status != 0) return trouble(SQLITE_IOERR_FSTAT, "cannot tell the length of", file.path, file.context);
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
