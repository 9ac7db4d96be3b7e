// Databases read through a mapping of their file: a read is a copy, without a system call.
//
// A byte that another process has cut off since cannot be read but ends this one (SIGBUS). Who shares a database by
// SQLite's rules cuts it only under the exclusive lock, so the mapping is read only under a lock of one's own, and only
// up to the length that the file has under it. What lies behind, what is read without a lock, and all writing goes by
// the descriptor; the system shows both the same bytes.
#include <fcntl.h>
#include <sys/mman.h>

#include "sqlvfs.h"

namespace sqlhost {
namespace {

constexpr KEM_USHORT_T kOpen = 0;
constexpr KEM_USHORT_T kOpenExclusive = 4;
constexpr KEM_LONG64_T kMappedBytes = kLongestFile; // addresses, not memory: no file is longer than its mapping

bool databasesMapped = false;

bool isMapped(const KemsdFile& file) { return file.mapped.iotype == KEM_IOTYPE_MMAP; }

KEM_STS_T openMode(KemsdFile& file, const char* path, int flags, KEM_USHORT_T mode)
{
    constexpr int kPermissions = 0644;
    const KEM_USHORT_T type = flags & O_EXCL ? kOpenExclusive : kOpen;
    KemSdMMAPHdlReset(&file.mapped);
    return KemSdMMAPFileOpen(threadContext(), path, flags, 0, kPermissions, kMappedBytes, mode, type, &file.mapped);
}

} // namespace

void readDatabasesMapped() { databasesMapped = true; }

// Not every file system maps files, and not every process has the addresses: then it is done without.
KEM_STS_T openFile(KemsdFile& file, const char* path, int flags, bool database)
{
    if (!database || !databasesMapped) return openMode(file, path, flags, KEM_IOTYPE_FILEIO);
    const KEM_STS_T status = openMode(file, path, flags, KEM_IOTYPE_MMAP);
    if (status == SDSTS_MMAP_FAILED) return openMode(file, path, flags, KEM_IOTYPE_FILEIO);
    if (status != 0) return status;
    file.mapped.v.mmaphdl.size = 0; // nothing may be read yet
    // A stray store shall end the process, not change the database.
    mprotect(file.mapped.v.mmaphdl.pmemmap, static_cast<size_t>(kMappedBytes), PROT_READ);
    return 0;
}

bool readMapped(const KemsdFile& file, void* data, int count, sqlite3_int64 position)
{
    if (!isMapped(file) || file.lockLevel < SQLITE_LOCK_SHARED) return false;
    if (position + count > file.mapped.v.mmaphdl.size) return false;
    KEM_UINT_T got = 0;
    return KemSdMMAPFilePRead(threadContext(), file.mapped, data, static_cast<KEM_LONG_T>(position),
                              static_cast<KEM_UINT_T>(count), &got) == 0;
}

// A length that cannot be told, or is beyond 2 GiB and comes back cut, is never longer than the file.
void followLength(KemsdFile& file)
{
    if (!isMapped(file)) return;
    KEM_LONG_T length = 0;
    KemSdFileLength(threadContext(), file.handle(), &length);
    file.mapped.v.mmaphdl.size = length;
}

} // namespace sqlhost
