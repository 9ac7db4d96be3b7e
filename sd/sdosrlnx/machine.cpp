// What the system says about the machine: processors, memory, swap, its own name and release, and what bounds the
// types of the interface. Each call asks anew; nothing is kept, no lock is taken.

#include <sys/resource.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <kemsd/os.h>
#include <cfloat>
#include <cstring>
#include <iterator>

#include "sd/base/invariant.h"
#include "sd/base/leaseguard.h"
#include "sd/base/outcome.h"
#include "sd/sdosrlnx/fields.h"

namespace {

using sd::failErrno;
using sd::finish;
using sd::finishInvalid;
using sd::inKiB;
using sd::ok;
using sd::Outcome;
using sd::passLeaseGuard;
using sd::putText;
using sd::SourcePoint;

constexpr const char* kSource = "sd/sdosrlnx";
constexpr SourcePoint kCPUInfo{kSource, 112, "KemSdCPUInfoGet"};
constexpr SourcePoint kPhysMemInfo{kSource, 141, "KemSdPhysMemInfoGet"};
constexpr SourcePoint kSwapInfo{kSource, 168, "KemSdSwapInfoGet"};
constexpr SourcePoint kAvailVirtMem{kSource, 197, "KemSdAvailVirtMemGet"};
constexpr SourcePoint kOSInfo{kSource, 224, "KemSdOSInfoGet"};

constexpr KEM_ULONG_T kStrictestAlignment = 8; // bytes

// By processor type. The numbers are the same on every platform, so most of them never come up here.
constexpr const char* kProcessorNames[] = {
    "Unknown",
    "8086/8088",
    "80286",
    "80386",
    "80486",
    "Pentium",
    "MIPS R4000",
    "Alpha 21064",
    "HP Precision Architecture RISC Version 1.0",
    "HP Precision Architecture RISC Version 1.1",
    "Multi-chip POWER Classic",
    "Single-chip POWER Classic",
    "POWER 2",
    "PowerPC 601",
    "PowerPC 603",
    "PowerPC 604",
    "PowerPC 620",
    "PowerPC 630",
    "PowerPC A35",
    "PowerPC RS64-II",
    "PowerPC RS64-III",
    "PowerPC RS64-IV",
    "PowerPC MPC7450",
    "80686",
    "X86_64",
    "sparc sun4",
    "sparc sun4c",
    "sparc sun4d",
    "sparc sun4m",
    "sparc sun4u",
    "sparc sun4v",
    "HP Precision Architecture RISC Version 2.0",
    "Intel Architecture-64",
};
static_assert(std::size(kProcessorNames) == 33);

struct Processor {
    const char* machine; // as uname spells it
    KEM_ULONG_T type;
};
constexpr Processor kProcessors[] = {{"i386", 3}, {"i486", 4}, {"i586", 5}, {"i686", 23}, {"x86_64", 24}};

KEM_ULONG_T processorType(const char* machine)
{
    for (const Processor& processor : kProcessors)
        if (strcmp(machine, processor.machine) == 0) return processor.type;
    return 0;
}

// 0 where the system does not say.
uint64_t systemFigure(int name)
{
    const long figure = sysconf(name);
    return figure > 0 ? static_cast<uint64_t>(figure) : 0;
}

void readPhysicalMemory(KEM_PHYSMEMINFO_T& memory)
{
    const uint64_t pageBytes = systemFigure(_SC_PAGESIZE);
    memory.ulTotal = inKiB(systemFigure(_SC_PHYS_PAGES), pageBytes);
    memory.ulFree = inKiB(systemFigure(_SC_AVPHYS_PAGES), pageBytes);
    memory.ulUsed = memory.ulTotal - memory.ulFree;
}

// False, with errno, where the system does not say.
bool readSwap(KEM_SWAPINFO_T& swap)
{
    swap = {};
    struct sysinfo figures;
    if (sysinfo(&figures) != 0) {
        swap.bt32SwapStatus = KEM_SWAP_STATUS_UNAVAILABLE;
        return false;
    }
    swap.ulTotal = inKiB(figures.totalswap, figures.mem_unit);
    swap.ulFree = inKiB(figures.freeswap, figures.mem_unit);
    swap.ulUsed = swap.ulTotal - swap.ulFree;
    swap.bt32SwapStatus = KEM_SWAP_STATUS_VALID;
    return true;
}

Outcome freeMemory(size_t& sizeKiB)
{
    sizeKiB = 0;
    KEM_SWAPINFO_T swap;
    if (!readSwap(swap)) return failErrno(SDSTS_OSR_NO_SWAPINFO);
    KEM_PHYSMEMINFO_T memory;
    readPhysicalMemory(memory);
    sizeKiB = size_t{swap.ulFree} + memory.ulFree;
    return ok();
}

} // namespace

KEM_ULONG_T KemSdCPUCountGet(void)
{
    const uint64_t online = systemFigure(_SC_NPROCESSORS_ONLN);
    return online != 0 ? static_cast<KEM_ULONG_T>(online) : 1;
}

KEM_ULONG_T KemSdCPUTypeGet(void)
{
    utsname names;
    return uname(&names) == -1 ? 0 : processorType(names.machine);
}

// The assertions of this file stand as operators know them, "(void *)0" included.
// clang-format off
KEM_FUNC_M KemSdCPUInfoGet(KEM_PSDCTX_T pSdCtx, KEM_PCPUINFO_T pCPUInfo)
{
    SD_INVARIANT(kCPUInfo, pCPUInfo != ((void *)0));
    *pCPUInfo = {};
    pCPUInfo->ulCPUCnt = KemSdCPUCountGet();
    pCPUInfo->ulCPUType = KemSdCPUTypeGet();
    putText(pCPUInfo->szCPUTypeName, sizeof pCPUInfo->szCPUTypeName, kProcessorNames[pCPUInfo->ulCPUType]);
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdPhysMemInfoGet(KEM_PSDCTX_T pSdCtx, KEM_PPHYSMEMINFO_T pPhysMemInfo)
{
    passLeaseGuard();
    SD_INVARIANT(kPhysMemInfo, pPhysMemInfo != ((void *)0));
    readPhysicalMemory(*pPhysMemInfo);
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdSwapInfoGet(KEM_PSDCTX_T pSdCtx, KEM_PSWAPINFO_T pSwapInfo)
{
    SD_INVARIANT(kSwapInfo, pSwapInfo != ((void *)0));
    readSwap(*pSwapInfo); // Deliberate: not to be told the figures is no failure; the record says so itself.
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdAvailVirtMemGet(KEM_PSDCTX_T pSdCtx, size_t* pSizeAvailVirtMem)
{
    passLeaseGuard();
    SD_INVARIANT(kAvailVirtMem, pSizeAvailVirtMem != ((void *)0));
    return finish(pSdCtx, freeMemory(*pSizeAvailVirtMem));
}

KEM_FUNC_M KemSdOSInfoGet(KEM_PSDCTX_T pSdCtx, KEM_POSINFO_T pOSInfo)
{
    passLeaseGuard();
    SD_INVARIANT(kOSInfo, pOSInfo != ((void *)0));
    *pOSInfo = {};
    utsname names;
    if (uname(&names) == -1) return finish(pSdCtx, failErrno(SDSTS_OSR_OSINFO));
    putText(pOSInfo->szOSName, sizeof pOSInfo->szOSName, names.sysname);
    putText(pOSInfo->szVersion, sizeof pOSInfo->szVersion, names.release);
    return finish(pSdCtx, ok());
}
// clang-format on

KEM_FUNC_M KemSdPageSizeGet(KEM_PSDCTX_T pSdCtx, KEM_PULONG_T pPageSize)
{
    passLeaseGuard();
    if (!pPageSize) return finishInvalid(pSdCtx);
    const long bytes = sysconf(_SC_PAGESIZE);
    if (bytes == -1) return finish(pSdCtx, failErrno(SDSTS_OSR_SYSCONF));
    *pPageSize = static_cast<KEM_ULONG_T>(bytes);
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdMaxAllocGet(KEM_PSDCTX_T pSdCtx, KEM_PULONGLONG_T pMaxAlloc)
{
    passLeaseGuard();
    if (!pMaxAlloc) return finishInvalid(pSdCtx);
    rlimit data;
    if (getrlimit(RLIMIT_DATA, &data) == -1) return finish(pSdCtx, failErrno(SDSTS_OSR_SYSCONF));
    *pMaxAlloc = data.rlim_cur;
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdMaxAlignGet(KEM_PSDCTX_T pSdCtx, KEM_PULONG_T pMaxAlign)
{
    if (!pMaxAlign) return finishInvalid(pSdCtx);
    *pMaxAlign = kStrictestAlignment;
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdIsInfinite(KEM_PSDCTX_T pSdCtx, KEM_DOUBLE_T x, KEM_PBOOL_T pIsInfinite)
{
    if (!pIsInfinite) return finishInvalid(pSdCtx);
    *pIsInfinite = !(x >= -DBL_MAX && x <= DBL_MAX); // Deliberate: what is not a number counts as infinite.
    return finish(pSdCtx, ok());
}
