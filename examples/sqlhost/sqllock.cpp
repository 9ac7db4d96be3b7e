// Locks between connections, on three places of the file that hold no data, as every SQLite program on this system has
// them:
//
//     PENDING    1 byte       a writer waits for the readers to leave: no new reader comes in
//     RESERVED   1 byte       one connection is going to write
//     SHARED     510 bytes    readers hold it together, the writer alone while it changes the file
//
// They belong to the open file, so two connections of one process exclude each other too, and closing another
// descriptor of the file drops nothing. kemsd's file locks belong to the process and cover the whole file: these go to
// the system directly. The kernel drops them when the process ends, however it ends.
//
// The lease for writing is taken before the first lock above SHARED is asked for, and goes with the last. Who waits for
// it while a pause is being made keeps its SHARED lock, and nobody could commit any more: so writers are kept back, and
// a pause begins to be made, only while the connection that asks for it is the one that may write.
#include <fcntl.h>

#include <cerrno>

#include "sqlvfs.h"

namespace sqlhost {
namespace {

struct Place {
    off_t at;
    off_t length;
};

constexpr Place kPending = {0x40000000, 1};
constexpr Place kReserved = {0x40000001, 1};
constexpr Place kBothBytes = {0x40000000, 2};
constexpr Place kShared = {0x40000002, 510};
constexpr Place kAll = {0x40000000, 512};

struct flock lockOf(short type, Place place)
{
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = place.at;
    lock.l_len = place.length;
    return lock;
}

int setLock(KemsdFile& file, short type, Place place)
{
    struct flock lock = lockOf(type, place);
    if (fcntl(file.handle(), F_OFD_SETLK, &lock) == 0) return SQLITE_OK;
    if (errno == EAGAIN || errno == EACCES) return SQLITE_BUSY;
    threadContext()->osRetCode = errno;
    return trouble(SQLITE_IOERR_LOCK, "cannot lock", file.path);
}

// A reader asks at the writer's door first, so that a waiting writer is not passed for ever.
int lockShared(KemsdFile& file)
{
    int result = setLock(file, F_RDLCK, kPending);
    if (result != SQLITE_OK) return result;
    result = setLock(file, F_RDLCK, kShared);
    const int opened = setLock(file, F_UNLCK, kPending);
    if (result == SQLITE_OK) result = opened;
    if (result != SQLITE_OK) return result;
    file.lockLevel = SQLITE_LOCK_SHARED;
    followLength(file); // nobody cuts it any more
    return SQLITE_OK;
}

int lockForWriting(KemsdFile& file, int level)
{
    if (level == SQLITE_LOCK_RESERVED) {
        const int result = setLock(file, F_WRLCK, kReserved);
        if (result == SQLITE_OK) file.lockLevel = level;
        return result;
    }
    if (file.lockLevel < SQLITE_LOCK_PENDING) {
        const int result = setLock(file, F_WRLCK, kPending);
        if (result != SQLITE_OK) return result;
        file.lockLevel = SQLITE_LOCK_PENDING;
    }
    const int result = setLock(file, F_WRLCK, kShared);
    if (result == SQLITE_OK) file.lockLevel = level;
    return result;
}

bool writes(const KemsdFile& file) { return file.lockLevel > SQLITE_LOCK_SHARED; }

int beginWriting(KemsdFile& file, int level)
{
    if (level == SQLITE_LOCK_RESERVED && leaseMode() == LeaseMode::reserving) return SQLITE_OK;
    if (writersAreKeptBack()) return SQLITE_BUSY;
    const int result = takeLease(file.path);
    file.leased = result == SQLITE_OK;
    return result;
}

void endWriting(KemsdFile& file)
{
    if (file.leased) giveLease();
    file.leased = false;
}

} // namespace

int lockFile(KemsdFile& file, int level)
{
    if (file.lockLevel >= level) return SQLITE_OK;
    if (level == SQLITE_LOCK_SHARED) return lockShared(file);
    if (!writes(file)) {
        const int begun = beginWriting(file, level);
        if (begun != SQLITE_OK) return begun;
    }
    const int result = lockForWriting(file, level);
    if (!writes(file)) endWriting(file);
    return result;
}

int unlockFile(KemsdFile& file, int level)
{
    if (file.lockLevel <= level) return SQLITE_OK;
    int result = SQLITE_OK;
    if (level == SQLITE_LOCK_SHARED) {
        if (file.lockLevel > SQLITE_LOCK_RESERVED) result = setLock(file, F_RDLCK, kShared);
        if (result == SQLITE_OK) result = setLock(file, F_UNLCK, kBothBytes);
    } else {
        result = setLock(file, F_UNLCK, kAll);
    }
    if (result != SQLITE_OK) return result == SQLITE_BUSY ? SQLITE_IOERR_RDLOCK : result;
    endWriting(file);
    file.lockLevel = level;
    return SQLITE_OK;
}

int checkReserved(KemsdFile& file, int* reserved)
{
    *reserved = writes(file);
    if (*reserved) return SQLITE_OK;
    struct flock lock = lockOf(F_WRLCK, kReserved);
    if (fcntl(file.handle(), F_OFD_GETLK, &lock) == -1) return SQLITE_IOERR_CHECKRESERVEDLOCK;
    *reserved = lock.l_type != F_UNLCK;
    return SQLITE_OK;
}

} // namespace sqlhost
