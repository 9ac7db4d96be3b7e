// Locks between processes. A record lock covers the whole file: shared from SQLITE_LOCK_SHARED on, exclusive from
// SQLITE_LOCK_RESERVED on. That is stricter than SQLite's own byte ranges, and collides with them as it must, so any
// SQLite program may share the database with us. The kernel drops the lock when the process ends, however it ends.
//
// kemsd offers no record locks yet: this is the one operation on files that goes to the system directly.
#include <fcntl.h>

#include <cerrno>

#include "sqlvfs.h"

namespace sqlhost {
namespace {

// The lock belongs to the open file, so that another descriptor of the same file, closed, does not drop it.
int setLock(KemsdFile& file, short type)
{
    struct flock whole = {};
    whole.l_type = type;
    whole.l_whence = SEEK_SET;
    if (fcntl(file.handle, F_OFD_SETLK, &whole) == 0) return SQLITE_OK;
    if (errno == EAGAIN || errno == EACCES) return SQLITE_BUSY;
    file.context->osRetCode = errno;
    return trouble(SQLITE_IOERR_LOCK, "cannot lock", file.path, file.context);
}

} // namespace

int lockFile(KemsdFile& file, int level)
{
    if (file.lockLevel >= level) return SQLITE_OK;
    const bool writing = level >= SQLITE_LOCK_RESERVED;
    if (!writing || file.lockLevel < SQLITE_LOCK_RESERVED) {
        const int result = setLock(file, writing ? F_WRLCK : F_RDLCK);
        if (result != SQLITE_OK) return result;
    }
    file.lockLevel = level;
    return SQLITE_OK;
}

int unlockFile(KemsdFile& file, int level)
{
    if (file.lockLevel <= level) return SQLITE_OK;
    const int result = setLock(file, level == SQLITE_LOCK_SHARED ? F_RDLCK : F_UNLCK);
    if (result != SQLITE_OK) return result == SQLITE_BUSY ? SQLITE_IOERR_RDLOCK : result;
    file.lockLevel = level;
    return SQLITE_OK;
}

int checkReserved(KemsdFile& file, int* reserved)
{
    struct flock whole = {};
    whole.l_type = F_RDLCK; // collides with a writer of any kind, and with no reader
    whole.l_whence = SEEK_SET;
    *reserved = file.lockLevel >= SQLITE_LOCK_RESERVED;
    if (*reserved) return SQLITE_OK;
    if (fcntl(file.handle, F_OFD_GETLK, &whole) == -1) return SQLITE_IOERR_CHECKRESERVEDLOCK;
    *reserved = whole.l_type != F_UNLCK;
    return SQLITE_OK;
}

} // namespace sqlhost
