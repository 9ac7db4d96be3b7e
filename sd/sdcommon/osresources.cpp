// The whole resource record: everything the machine's own calls say, gathered behind one another in one piece of the
// caller's memory whose end is an array with an element for each drive. Takes no lock and keeps nothing; the lease
// guard runs with each of the calls inside that is guarded.

#include <kemsd/os.h>
#include <cstddef>
#include <cstring>

#include "sd/base/invariant.h"
#include "sd/base/outcome.h"

namespace {

using sd::fail;
using sd::finish;
using sd::SourcePoint;

constexpr const char* kSource = "sd/sdcommon";
constexpr SourcePoint kSize{kSource, 61, "KemSdOSResourcesSizeGet"};
constexpr SourcePoint kResources{kSource, 96, "KemSdOSResourcesGet"};

constexpr size_t kFixedBytes = sizeof(KEM_OSRESOURCES_T); // one drive included
static_assert(kFixedBytes == offsetof(KEM_OSRESOURCES_T, driveInfoArr) + sizeof(KEM_DRIVEINFO_T),
              "nothing stands behind the drives");

constexpr size_t recordBytes(KEM_ULONG_T drives)
{
    return drives < 2 ? kFixedBytes : kFixedBytes + (drives - 1) * sizeof(KEM_DRIVEINFO_T);
}
static_assert(recordBytes(0) == recordBytes(1) && recordBytes(3) - recordBytes(1) == 2 * sizeof(KEM_DRIVEINFO_T));

KEM_STS_T readTime(KEM_PSDCTX_T ctx, KEM_OSRESOURCES_T& resources)
{
    KEM_TIME_T now;
    KEM_STS_T sts = KemSdTime(ctx, &now);
    if (sts == 0) sts = KemSdLocalTimeGet(ctx, now, &resources.timeRecCurSys);
    if (sts == 0) sts = KemSdTimeElapsedOS(ctx, &resources.timeElapsedOS);
    return sts;
}

// Everything but `drives`, up to the first failure.
KEM_STS_T readAll(KEM_PSDCTX_T ctx, KEM_OSRESOURCES_T& resources)
{
    KEM_STS_T sts = readTime(ctx, resources);
    if (sts == 0) sts = KemSdOSInfoGet(ctx, &resources.osInfo);
    if (sts == 0) sts = KemSdCPUInfoGet(ctx, &resources.cpuInfo);
    if (sts == 0) sts = KemSdPhysMemInfoGet(ctx, &resources.physMemInfo);
    if (sts == 0) sts = KemSdSwapInfoGet(ctx, &resources.swapInfo);
    if (sts == 0) sts = KemSdDriveInfoArrGet(ctx, resources.drives.ulDriveCnt, resources.driveInfoArr);
    return sts;
}

} // namespace

// The assertions stand as operators know them, "(void *)0" included.
// clang-format off
KEM_FUNC_M KemSdOSResourcesSizeGet(KEM_PSDCTX_T pSdCtx, size_t* pSizeOSResource)
{
    SD_INVARIANT(kSize, pSizeOSResource != ((void *)0));
    KEM_DRIVES_T drives;
    if (const KEM_STS_T sts = KemSdDrivesGet(pSdCtx, &drives); sts != 0) return sts;
    *pSizeOSResource = recordBytes(drives.ulDriveCnt);
    return 0;
}

KEM_FUNC_M KemSdOSResourcesGet(KEM_PSDCTX_T pSdCtx, KEM_SIZE_T sizeBuf, KEM_POSRESOURCES_T pOSResources)
{
    SD_INVARIANT(kResources, pOSResources != ((void *)0));
    memset(pOSResources, 0, sizeBuf);
    if (sizeBuf < kFixedBytes) return finish(pSdCtx, fail(SDSTS_OSR_BUFFER_SMALL));
    if (const KEM_STS_T sts = KemSdDrivesGet(pSdCtx, &pOSResources->drives); sts != 0) return sts;
    if (sizeBuf < recordBytes(pOSResources->drives.ulDriveCnt)) return finish(pSdCtx, fail(SDSTS_OSR_BUFFER_SMALL));
    return readAll(pSdCtx, *pOSResources);
}
// clang-format on
