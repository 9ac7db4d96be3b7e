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
// The lease for writing is taken before the first lock above SHARED is asked for, and goes with the last.
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
    if (fcntl(file.handle, F_OFD_SETLK, &lock) == 0) return SQLITE_OK;
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
    if (result == SQLITE_OK) file.lockLevel = SQLITE_LOCK_SHARED;
    return result;
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

} // namespace

int lockFile(KemsdFile& file, int level)
{
    if (file.lockLevel >= level) return SQLITE_OK;
    if (level == SQLITE_LOCK_SHARED) return lockShared(file);
    const bool begins = !writes(file);
    if (begins) {
        const int leased = takeLease(file.path);
        if (leased != SQLITE_OK) return leased;
    }
    const int result = lockForWriting(file, level);
    if (begins && !writes(file)) giveLease();
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
    if (writes(file)) giveLease();
    file.lockLevel = level;
    return SQLITE_OK;
}

int checkReserved(KemsdFile& file, int* reserved)
{
    *reserved = writes(file);
    if (*reserved) return SQLITE_OK;
    struct flock lock = lockOf(F_WRLCK, kReserved);
    if (fcntl(file.handle, F_OFD_GETLK, &lock) == -1) return SQLITE_IOERR_CHECKRESERVEDLOCK;
    *reserved = lock.l_type != F_UNLCK;
    return SQLITE_OK;
}

} // namespace sqlhost
