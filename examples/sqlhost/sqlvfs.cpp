#include "sqlvfs.h"

#include <fcntl.h>
#include <kemsd/file.h>
#include <kemsd/os.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <utility>

#include "text.h"

namespace sqlhost {
namespace {

namespace fs = std::filesystem;

constexpr int kLongestPath = 1024;
constexpr int kCloseOnExec = O_CLOEXEC;

thread_local std::string lastTrouble;

// ---- Opening -----------------------------------------------------------------------------------------------------

int openFlags(int sqliteFlags)
{
    int flags = sqliteFlags & SQLITE_OPEN_READWRITE ? O_RDWR : O_RDONLY;
    if (sqliteFlags & SQLITE_OPEN_CREATE) flags |= O_CREAT;
    if (sqliteFlags & SQLITE_OPEN_EXCLUSIVE) flags |= O_EXCL | O_NOFOLLOW;
    return flags | kCloseOnExec;
}

bool mayStillBeRead(KEM_PSDCTX_T context)
{
    return context->osRetCode == EACCES || context->osRetCode == EPERM || context->osRetCode == EROFS;
}

int vfsRandomness(sqlite3_vfs*, int count, char* out)
{
    KEM_PSDCTX_T context = threadContext();
    KEM_FILEHDL_T source = -1;
    KEM_INT_T got = 0;
    if (KemSdFileOpen(context, "/dev/urandom", O_RDONLY | kCloseOnExec, 0, &source) != 0) return 0;
    KemSdFileRead(context, source, out, static_cast<KEM_UINT_T>(count), &got);
    KemSdFileClose(context, source);
    return got > 0 ? got : 0;
}

std::string temporaryName()
{
    uint64_t random = 0;
    vfsRandomness(nullptr, sizeof random, reinterpret_cast<char*>(&random));
    std::error_code failed;
    fs::path directory = fs::temp_directory_path(failed);
    if (failed) directory = ".";
    return (directory / text("sqlhost-%016llx", static_cast<unsigned long long>(random))).string();
}

// Files without a name of their own, and those to be deleted on close, lose their name as soon as they are open.
int vfsOpen(sqlite3_vfs*, const char* name, sqlite3_file* base, int flags, int* outFlags)
{
    KemsdFile& file = *new (base) KemsdFile{};
    KEM_PSDCTX_T context = threadContext();
    const std::string path = name ? name : temporaryName();
    const bool database = flags & SQLITE_OPEN_MAIN_DB;
    KEM_STS_T status = openFile(file, path.c_str(), openFlags(flags), database);
    if (status != 0 && (flags & SQLITE_OPEN_READWRITE) && mayStillBeRead(context)) {
        flags = (flags & ~(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE)) | SQLITE_OPEN_READONLY;
        status = openFile(file, path.c_str(), openFlags(flags), database);
    }
    if (status != 0) return trouble(SQLITE_CANTOPEN, "cannot open", path.c_str());
    file.path = sqlite3_mprintf("%s", path.c_str());
    if (!file.path) {
        KemSdMMAPFileClose(context, file.mapped);
        return SQLITE_NOMEM;
    }
    if (flags & SQLITE_OPEN_DELETEONCLOSE) KemSdFileRemove(context, path.c_str());
    file.syncDirectory = flags & (SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_SUPER_JOURNAL);
    file.base.pMethods = &kKemsdFileMethods; // only now does SQLite close it
    if (outFlags) *outFlags = flags;
    return SQLITE_OK;
}

// ---- Names -------------------------------------------------------------------------------------------------------

int vfsDelete(sqlite3_vfs*, const char* path, int syncDirectory)
{
    KEM_PSDCTX_T context = threadContext();
    const LeaseScope lease(path);
    if (lease.result() != SQLITE_OK) return lease.result();
    if (KemSdFileRemove(context, path) != 0) {
        if (context->osRetCode == ENOENT) return SQLITE_IOERR_DELETE_NOENT;
        return trouble(SQLITE_IOERR_DELETE, "cannot remove", path);
    }
    return syncDirectory ? flushDirectory(path) : SQLITE_OK;
}

int vfsAccess(sqlite3_vfs*, const char* path, int question, int* answer)
{
    const int mode = question == SQLITE_ACCESS_READWRITE ? R_OK | W_OK : question == SQLITE_ACCESS_READ ? R_OK : F_OK;
    KEM_BOOL_T matched = FALSE;
    KemSdFileAccess(threadContext(), path, mode, &matched);
    *answer = matched;
    return SQLITE_OK;
}

// Links are followed, so that a journal lies beside the file itself whichever name was used.
int vfsFullPathname(sqlite3_vfs*, const char* path, int size, char* out)
{
    std::error_code failed;
    std::string full = fs::weakly_canonical(fs::absolute(path, failed), failed).string();
    if (failed) full = path;
    if (full.size() >= static_cast<size_t>(size)) return SQLITE_CANTOPEN_FULLPATH;
    memcpy(out, full.c_str(), full.size() + 1);
    return SQLITE_OK;
}

// ---- Extensions: none --------------------------------------------------------------------------------------------

void* vfsDlOpen(sqlite3_vfs*, const char*) { return nullptr; }

void vfsDlError(sqlite3_vfs*, int size, char* out) { sqlite3_snprintf(size, out, "sqlhost loads no extensions"); }

// ---- Clock -------------------------------------------------------------------------------------------------------

int vfsSleep(sqlite3_vfs*, int microseconds)
{
    const KEM_ULONG_T milliseconds = (static_cast<KEM_ULONG_T>(microseconds) + 999) / 1000;
    KemSdSleep(threadContext(), milliseconds);
    return static_cast<int>(milliseconds * 1000);
}

// The timestamp's seconds are 32-bit; the full time value tells which 2^32 seconds they lie in.
int vfsCurrentTimeInt64(sqlite3_vfs*, sqlite3_int64* julianMilliseconds)
{
    constexpr sqlite3_int64 kEpoch = 210866760000000; // 1970-01-01 as milliseconds of the Julian day
    KEM_TIME_T seconds = 0;
    KEM_UTC_TIMESTAMP_T stamp = {};
    if (KemSdTime(threadContext(), &seconds) != 0) return SQLITE_ERROR;
    KemSdGetUtcTimestamp(threadContext(), nullptr, &stamp);
    if (threadContext()->sts != 0) return SQLITE_ERROR;
    seconds += static_cast<int32_t>(static_cast<uint32_t>(stamp.lSeconds) - static_cast<uint32_t>(seconds));
    *julianMilliseconds = kEpoch + sqlite3_int64{seconds} * 1000 + stamp.lMicroseconds / 1000;
    return SQLITE_OK;
}

int vfsCurrentTime(sqlite3_vfs* vfs, double* julianDay)
{
    sqlite3_int64 milliseconds = 0;
    const int result = vfsCurrentTimeInt64(vfs, &milliseconds);
    *julianDay = static_cast<double>(milliseconds) / 86400000.0;
    return result;
}

int vfsLastError(sqlite3_vfs*, int, char*) { return threadContext()->osRetCode; }

} // namespace

int trouble(int result, const char* what, const char* path)
{
    const int error = threadContext()->osRetCode;
    lastTrouble = text("%s %s", what, path ? path : "a temporary file");
    if (error > 0) lastTrouble += text(": %s", strerror(error));
    return result;
}

std::string takeFileTrouble() { return std::exchange(lastTrouble, {}); }

int flushDirectory(const char* path)
{
    KEM_PSDCTX_T context = threadContext();
    const std::string directory = (fs::path(path).parent_path() / "").string(); // full names only: never empty
    KEM_FILEHDL_T handle = -1;
    if (KemSdFileOpen(context, directory.c_str(), O_RDONLY | O_DIRECTORY | kCloseOnExec, 0, &handle) != 0)
        return trouble(SQLITE_IOERR_DIR_FSYNC, "cannot open", directory.c_str());
    const KEM_STS_T status = KemSdFileFlush(context, handle);
    int result = SQLITE_OK;
    if (status != 0) result = trouble(SQLITE_IOERR_DIR_FSYNC, "cannot flush", directory.c_str());
    KemSdFileClose(context, handle);
    return result;
}

int registerKemsdVfs()
{
    static sqlite3_vfs vfs = {};
    vfs.iVersion = 2;
    vfs.szOsFile = sizeof(KemsdFile);
    vfs.mxPathname = kLongestPath;
    vfs.zName = "kemsd";
    vfs.xOpen = vfsOpen;
    vfs.xDelete = vfsDelete;
    vfs.xAccess = vfsAccess;
    vfs.xFullPathname = vfsFullPathname;
    vfs.xDlOpen = vfsDlOpen;
    vfs.xDlError = vfsDlError;
    vfs.xRandomness = vfsRandomness;
    vfs.xSleep = vfsSleep;
    vfs.xCurrentTime = vfsCurrentTime;
    vfs.xGetLastError = vfsLastError;
    vfs.xCurrentTimeInt64 = vfsCurrentTimeInt64;
    return sqlite3_vfs_register(&vfs, 1);
}

} // namespace sqlhost
