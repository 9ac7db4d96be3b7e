// Drives: the entries of /etc/fstab, which is read anew by every call, so that nothing is kept and no lock is taken. An
// entry's position in the file is its ordinal; only the first 32 exist. What is mounted now plays no part.

#include <mntent.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <kemsd/os.h>
#include <cstring>
#include <iterator>

#include "sd/base/invariant.h"
#include "sd/base/leaseguard.h"
#include "sd/base/outcome.h"
#include "sd/sdosrlnx/fields.h"

namespace {

using sd::failErrno;
using sd::finish;
using sd::inKiB;
using sd::ok;
using sd::Outcome;
using sd::passLeaseGuard;
using sd::putText;
using sd::SourcePoint;

constexpr const char* kSource = "sd/sdosrlnx";
constexpr SourcePoint kDrives{kSource, 388, "KemSdDrivesGet"};
constexpr SourcePoint kNameOrdinal{kSource, 431, "KemSdDriveOrdinalToName"};
constexpr SourcePoint kNameBuffer{kSource, 432, "KemSdDriveOrdinalToName"};
constexpr SourcePoint kInfoOrdinal{kSource, 474, "KemSdDriveInfoGet"};
constexpr SourcePoint kInfoRecord{kSource, 475, "KemSdDriveInfoGet"};
constexpr SourcePoint kInfoArr{kSource, 541, "KemSdDriveInfoArrGet"};

constexpr const char* kMountTable = "/etc/fstab";
constexpr size_t kLineCapacity = 4096; // of an entry; what a longer line holds beyond is ignored

static_assert(KEM_DRIVES_MAX == 32, "the assertions spell it out, and a map has 32 bits");

enum DriveType : KEM_ULONG_T { Unknown, Removable, Fixed, Ram, Remote };
constexpr const char* kDriveTypeNames[] = {"Unknown", "Removable", "Fixed", "RAM", "Remote"};
static_assert(std::size(kDriveTypeNames) == Remote + 1);

// One reading of the table, from its first entry on.
class MountTable {
public:
    MountTable() : stream_(setmntent(kMountTable, "r")) {}
    ~MountTable()
    {
        if (stream_) endmntent(stream_);
    }
    MountTable(const MountTable&) = delete;
    MountTable& operator=(const MountTable&) = delete;

    bool isOpen() const { return stream_; }
    // The next entry, valid until the one after; null at the end.
    const mntent* next() { return getmntent_r(stream_, &entry_, line_, sizeof line_); }
    // The entry of an ordinal, when nothing was read before. Null without a table, or when it is shorter.
    const mntent* entry(KEM_ULONG_T ordinal)
    {
        const mntent* found = nullptr;
        for (KEM_ULONG_T i = 0; stream_ && i < ordinal; ++i) {
            found = next();
            if (!found) break;
        }
        return found;
    }

private:
    FILE* const stream_;
    mntent entry_;
    char line_[kLineCapacity];
};

template <size_t kCount>
bool isOneOf(const char* const (&texts)[kCount], const char* text)
{
    for (const char* each : texts)
        if (strcmp(text, each) == 0) return true;
    return false;
}

// Deliberate: of the disks only those of the oldest file systems count as fixed.
DriveType driveType(const mntent& entry)
{
    static constexpr const char* kRemoteSystems[] = {"nfs"};
    static constexpr const char* kMemorySystems[] = {"swap", "proc", "devpts", "tmpfs"};
    static constexpr const char* kRemovablePlaces[] = {"/mnt/floppy", "/mnt/cdrom"};
    static constexpr const char* kFixedSystems[] = {"ext2", "ext3"};
    if (isOneOf(kRemoteSystems, entry.mnt_type)) return Remote;
    if (isOneOf(kMemorySystems, entry.mnt_type)) return Ram;
    if (isOneOf(kRemovablePlaces, entry.mnt_dir)) return Removable;
    if (isOneOf(kFixedSystems, entry.mnt_type)) return Fixed;
    return Unknown;
}

// A file system that does not answer leaves the figures at 0.
void readSizes(const char* mountDirectory, KEM_DRIVEINFO_T& drive)
{
    struct statfs figures;
    if (statfs(mountDirectory, &figures) != 0) return;
    const auto blockBytes = static_cast<uint64_t>(figures.f_bsize);
    drive.ulTotal = inKiB(figures.f_blocks, blockBytes);
    drive.ulUsed = drive.ulTotal - inKiB(figures.f_bfree, blockBytes);
    drive.ulFree = inKiB(figures.f_bavail, blockBytes);
}

void describe(const mntent& entry, KEM_DRIVEINFO_T& drive)
{
    putText(drive.szDriveName, sizeof drive.szDriveName, entry.mnt_dir);
    putText(drive.szVolumeLabel, sizeof drive.szVolumeLabel, entry.mnt_dir);
    putText(drive.szFileSystemType, sizeof drive.szFileSystemType, *entry.mnt_type ? entry.mnt_type : "Unknown");
    drive.driveType.ulDriveType = driveType(entry);
    putText(drive.driveType.szDriveTypeName, sizeof drive.driveType.szDriveTypeName,
            KemSdDriveTypeAsString(drive.driveType.ulDriveType));
    readSizes(entry.mnt_dir, drive);
}

Outcome countDrives(KEM_DRIVES_T& drives)
{
    char here[KEM_FILEPATH_MAX];
    if (!getcwd(here, sizeof here)) return failErrno(SDSTS_OSR_DRIVES);
    MountTable table;
    if (!table.isOpen()) return failErrno(SDSTS_OSR_DRIVES);
    drives.ulDriveCur = 1;
    while (drives.ulDriveCnt < KEM_DRIVES_MAX) {
        const mntent* const entry = table.next();
        if (!entry) break;
        drives.bt32DriveMap |= KEM_BIT32_T{1} << drives.ulDriveCnt++;
        // Deliberate: the texts are compared, not the paths, so /home is thought to hold /homeless too.
        if (strncmp(here, entry->mnt_dir, strlen(entry->mnt_dir)) == 0) drives.ulDriveCur = drives.ulDriveCnt;
    }
    return ok();
}

} // namespace

// The assertions below stand as operators know them, "(void *)0" included.
// clang-format off
KEM_FUNC_M KemSdDrivesGet(KEM_PSDCTX_T pSdCtx, KEM_PDRIVES_T pDrives)
{
    passLeaseGuard();
    SD_INVARIANT(kDrives, pDrives != ((void *)0));
    *pDrives = {};
    return finish(pSdCtx, countDrives(*pDrives));
}

KEM_FUNC_M KemSdDriveOrdinalToName(KEM_PSDCTX_T pSdCtx, KEM_ULONG_T ulOrdinal, KEM_SIZE_T sizeBuf,
                                   KEM_STR_T pszDriveName)
{
    passLeaseGuard();
    SD_INVARIANT(kNameOrdinal, ulOrdinal >= 1 && ulOrdinal <= 32);
    SD_INVARIANT(kNameBuffer, pszDriveName != ((void *)0) && sizeBuf != 0);
    memset(pszDriveName, 0, sizeBuf);
    MountTable table;
    const mntent* const entry = table.entry(ulOrdinal);
    if (!entry) return finish(pSdCtx, failErrno(SDSTS_OSR_DRIVE_NAME));
    putText(pszDriveName, sizeBuf, entry->mnt_dir);
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdDriveInfoGet(KEM_PSDCTX_T pSdCtx, KEM_ULONG_T ulOrdinal, KEM_PDRIVEINFO_T pDriveInfo)
{
    passLeaseGuard();
    SD_INVARIANT(kInfoOrdinal, ulOrdinal >= 1 && ulOrdinal <= 32);
    SD_INVARIANT(kInfoRecord, pDriveInfo != ((void *)0));
    *pDriveInfo = {};
    pDriveInfo->ulOrdinal = ulOrdinal;
    MountTable table;
    const mntent* const entry = table.entry(ulOrdinal);
    if (!entry) return finish(pSdCtx, failErrno(SDSTS_OSR_DRIVE_INFO));
    describe(*entry, *pDriveInfo);
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdDriveInfoArrGet(KEM_PSDCTX_T pSdCtx, KEM_ULONG_T ulCnt, KEM_PDRIVEINFO_T pDriveInfoArr)
{
    SD_INVARIANT(kInfoArr, pDriveInfoArr != ((void *)0));
    KEM_DRIVES_T drives;
    KEM_STS_T sts = KemSdDrivesGet(pSdCtx, &drives);
    for (KEM_ULONG_T i = 0; sts == 0 && i < ulCnt && i < drives.ulDriveCnt; ++i)
        sts = KemSdDriveInfoGet(pSdCtx, i + 1, &pDriveInfoArr[i]);
    return sts;
}
// clang-format on

const char* KemSdDriveTypeAsString(KEM_ULONG_T DriveType) { return kDriveTypeNames[DriveType]; }
