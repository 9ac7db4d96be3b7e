// Removal of a directory with all that is in it.
//
// The walk stands in one directory at a time, holds it by its descriptor, and calls everything by its bare name from
// there. No link is followed on the way, so what is renamed or exchanged meanwhile cannot lead the walk elsewhere.
//
// A directory is read once: its files go at once, the names of its sub-directories are put on a stack that all levels
// share. Then these are entered, one after the other. Near the top the directory above stays open meanwhile; further
// down it is closed and found again by "..", which must lead to the same one: a deep tree takes no more descriptors.
// There is no recursion; a walk takes one block of memory, and one more for the names. No locks.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <kemsd/file.h>
#include <kemsd/memory.h>
#include <cstring>
#include <string_view>

#include "sd/base/leaseguard.h"
#include "sd/base/outcome.h"

namespace {

using sd::fail;
using sd::failErrno;
using sd::finish;
using sd::ok;
using sd::Outcome;
using sd::passLeaseGuard;

constexpr const char* kSource = "sd/sdfiolnx";
constexpr size_t kLongestPath = KEM_FILEPATH_MAX - 1;
constexpr size_t kMostLevels = kLongestPath / 2 + 1; // a level takes a slash and a character at least
constexpr size_t kLevelsKeptOpen = 32;
constexpr size_t kEntryBytes = 32768;    // read from a directory at once
constexpr size_t kFirstNameBytes = 4096; // of the stack of names
constexpr int kLost = -1;                // no directory to stand in
constexpr int kEnter = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int kGoUp = O_PATH | O_DIRECTORY | O_CLOEXEC;
constexpr mode_t kWritable = 0664;

// A directory that is being emptied, as it is left.
struct Level {
    int above;         // the directory above it, or kLost when that was closed
    dev_t aboveDevice; // which one it was
    ino_t aboveInode;
    size_t abovePrefix;
    size_t firstName; // where the names of its own sub-directories begin
};

struct Walk {
    int here;      // the directory it stands in
    size_t prefix; // characters of a path before the name of an entry of that directory
    size_t depth;
    char* names; // each with its NUL; the last one is that of the directory to enter, or to remove, next
    size_t nameBytes;
    size_t nameCapacity;
    Level levels[kMostLevels];
    alignas(dirent64) char entries[kEntryBytes];
};

// ---- The stack of names

Outcome pushName(Walk& walk, std::string_view name)
{
    const size_t wanted = walk.nameBytes + name.size() + 1;
    if (wanted > walk.nameCapacity) {
        const size_t capacity = walk.nameCapacity ? 2 * walk.nameCapacity : kFirstNameBytes;
        void* names;
        if (ovRealloc(nullptr, capacity, walk.names, &names, kSource, __LINE__) != 0)
            return fail(SDSTS_DIR_REMOVE, ENOMEM);
        walk.names = static_cast<char*>(names);
        walk.nameCapacity = capacity;
    }
    memcpy(walk.names + walk.nameBytes, name.data(), name.size());
    walk.names[wanted - 1] = 0;
    walk.nameBytes = wanted;
    return ok();
}
static_assert(kFirstNameBytes > kLongestPath + 1, "one doubling always makes room for a name");

const char* lastName(const Walk& walk)
{
    const auto* const before = static_cast<const char*>(memrchr(walk.names, 0, walk.nameBytes - 1));
    return before ? before + 1 : walk.names;
}

void popName(Walk& walk) { walk.nameBytes = lastName(walk) - walk.names; }

// ---- What is no directory

// The entry may be a link, or have been exchanged for one since it was seen; the mode of what that leads to is not
// changed, nor that of a directory.
void makeWritable(int directory, const char* name)
{
    struct stat record;
    if (fstatat(directory, name, &record, AT_SYMLINK_NOFOLLOW) == -1) return;
    if (!S_ISLNK(record.st_mode) && !S_ISDIR(record.st_mode))
        (void)fchmodat(directory, name, kWritable, AT_SYMLINK_NOFOLLOW);
}

// Changes the mode only where that can help, because the file may have other names that stay. The result is an error
// number; what has gone already is a success.
int removeFile(int directory, const char* name)
{
    if (unlinkat(directory, name, 0) == 0 || errno == ENOENT) return 0;
    if (errno != EACCES && errno != EPERM) return errno;
    makeWritable(directory, name);
    return unlinkat(directory, name, 0) == 0 || errno == ENOENT ? 0 : errno;
}

// ---- The entries of the directory that the walk stands in

bool isDirectory(int directory, const dirent64& entry)
{
    if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_DIR;
    struct stat record;
    return fstatat(directory, entry.d_name, &record, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(record.st_mode);
}

Outcome removeOrKeepForLater(Walk& walk, const dirent64& entry)
{
    const std::string_view name = entry.d_name;
    if (walk.prefix + name.size() > kLongestPath) return fail(SDSTS_DIR_REMOVE, ENAMETOOLONG);
    if (isDirectory(walk.here, entry)) return pushName(walk, name);
    const int error = removeFile(walk.here, entry.d_name);
    if (error == EISDIR) return pushName(walk, name); // a directory has taken the file's place
    return error != 0 ? fail(SDSTS_DIR_REMOVE, error) : ok();
}

Outcome readDirectory(Walk& walk)
{
    for (;;) {
        const ssize_t bytes = getdents64(walk.here, walk.entries, sizeof walk.entries);
        if (bytes == 0) return ok();
        // A directory that somebody else has removed has no entries.
        if (bytes == -1) return errno == ENOENT ? ok() : failErrno(SDSTS_DIR_REMOVE);
        for (ssize_t at = 0; at < bytes;) {
            const auto& entry = *reinterpret_cast<const dirent64*>(walk.entries + at);
            at += entry.d_reclen;
            if (entry.d_name[0] == '.') continue; // Deliberate: hidden names stay, as no search finds them.
            if (const Outcome removed = removeOrKeepForLater(walk, entry); removed.failed()) return removed;
        }
    }
}

// ---- Down and up

// Removes the directory named last, now that its contents are dealt with. Deliberate: that it does not go is no failure
// of its own. After one it says why, unless that is only what the failure left inside.
Outcome removeLast(Walk& walk, Outcome contents)
{
    const bool removed = unlinkat(walk.here, lastName(walk), AT_REMOVEDIR) == 0;
    if (!removed && contents.failed() && errno != ENOTEMPTY && errno != EEXIST) contents.os = errno;
    popName(walk);
    return contents;
}

// What has taken the place of a directory, or why it could not be entered.
Outcome notEntered(Walk& walk, int error)
{
    if (error == ENOTDIR || error == ELOOP) error = removeFile(walk.here, lastName(walk));
    return removeLast(walk, error == 0 || error == ENOENT ? ok() : fail(SDSTS_DIR_REMOVE, error));
}

// Deep down the directory above is closed; what it was is written down first. The result is an error number.
int closeAbove(Level& level)
{
    struct stat record;
    if (fstat(level.above, &record) == -1) return errno;
    level.aboveDevice = record.st_dev;
    level.aboveInode = record.st_ino;
    close(level.above);
    level.above = kLost;
    return 0;
}

// Enters the directory named last and reads it.
Outcome enterLast(Walk& walk)
{
    const char* const name = lastName(walk);
    const int entered = openat(walk.here, name, kEnter);
    if (entered == -1) return notEntered(walk, errno);
    Level level{walk.here, 0, 0, walk.prefix, walk.nameBytes};
    if (const int error = walk.depth < kLevelsKeptOpen ? 0 : closeAbove(level); error != 0) {
        close(entered);
        return notEntered(walk, error);
    }
    walk.levels[walk.depth++] = level;
    walk.here = entered;
    walk.prefix += strlen(name) + 1;
    return readDirectory(walk);
}

// The directory above, which may have been left behind when this one was moved.
int findAbove(const Walk& walk, const Level& level)
{
    if (level.above != kLost) return level.above;
    const int above = openat(walk.here, "..", kGoUp);
    struct stat record;
    if (above == -1) return kLost;
    if (fstat(above, &record) == 0 && record.st_dev == level.aboveDevice && record.st_ino == level.aboveInode)
        return above;
    close(above);
    errno = ESTALE;
    return kLost;
}

// Goes up and removes what the walk stood in. Lost, it goes up to a level whose descriptor was kept.
Outcome leave(Walk& walk, Outcome contents)
{
    const Level& level = walk.levels[--walk.depth];
    const int above = findAbove(walk, level);
    if (above == kLost && !contents.failed()) contents = failErrno(SDSTS_DIR_REMOVE);
    if (walk.here != kLost) close(walk.here);
    walk.here = above;
    walk.prefix = level.abovePrefix;
    walk.nameBytes = level.firstName;
    if (above != kLost) return removeLast(walk, contents);
    popName(walk);
    return contents;
}

Outcome removeTree(Walk& walk, std::string_view top)
{
    Outcome outcome = pushName(walk, top);
    if (outcome.failed()) return outcome;
    outcome = enterLast(walk);
    while (walk.depth > 0) {
        const bool waiting = walk.nameBytes > walk.levels[walk.depth - 1].firstName;
        outcome = waiting && !outcome.failed() ? enterLast(walk) : leave(walk, outcome);
    }
    ovFree(walk.names, kSource, __LINE__);
    return outcome;
}

// ---- The whole

Outcome walkAndRemove(std::string_view name)
{
    void* block;
    if (ovMalloc(nullptr, sizeof(Walk), &block, kSource, __LINE__) != 0) return fail(SDSTS_DIR_REMOVE, ENOMEM);
    Walk& walk = *static_cast<Walk*>(block);
    walk.here = AT_FDCWD;
    walk.prefix = walk.depth = walk.nameBytes = walk.nameCapacity = 0;
    walk.names = nullptr;
    const Outcome outcome = removeTree(walk, name);
    ovFree(block, kSource, __LINE__);
    return outcome;
}

// Without the slashes at the end, which would lead through a link.
std::string_view withoutSlashes(std::string_view name)
{
    while (name.size() > 1 && name.back() == '/') name.remove_suffix(1);
    return name;
}

Outcome removeDirectory(const char* given)
{
    const std::string_view name = withoutSlashes(given);
    if (name.size() > kLongestPath) return fail(SDSTS_DIR_REMOVE, ENAMETOOLONG);
    char path[kLongestPath + 1];
    path[name.copy(path, name.size())] = 0;
    struct stat record;
    if (lstat(path, &record) == -1) return failErrno(SDSTS_DIR_REMOVE);
    if (S_ISLNK(record.st_mode)) return unlink(path) == -1 ? failErrno(SDSTS_DIR_REMOVE) : ok();
    return S_ISDIR(record.st_mode) ? walkAndRemove(name) : fail(SDSTS_DIR_REMOVE, ENOTDIR);
}

} // namespace

KEM_FUNC_M KemSdDirRemove(KEM_PSDCTX_T pSdCtx, const char* pszDirName)
{
    passLeaseGuard();
    if (!KemSdIsSafeToDelete(pszDirName)) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    return finish(pSdCtx, removeDirectory(pszDirName));
}

KEM_BOOL_T KemSdIsSafeToDelete(const char* pszDirName) { return pszDirName && *pszDirName; }
