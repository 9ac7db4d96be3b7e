// This process as the system knows it: its limits, home directory, memory, user and root; and paths put together from
// their pieces. Each call asks anew; nothing is kept and no lock is taken. The changes of user and root are the whole
// process's and belong to start-up.

#include <pwd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <kemsd/os.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sd/base/leaseguard.h"
#include "sd/base/outcome.h"

// The status file's text; its fuzz target reads through these two as well.
namespace sd::procstatus {
PROC_STATUS keyOf(const char* line);
void read(FILE* file, KemProcSysInfo& info);
} // namespace sd::procstatus

namespace {

using sd::finish;
using sd::finishInvalid;
using sd::ok;
using sd::Outcome;
using sd::passLeaseGuard;

constexpr size_t kStatusTextCapacity = 255; // of the file's path, and of each line

// The system's own result as status. Deliberate: with whatever errno holds, also after a success.
KEM_STS_T finishRaw(KEM_PSDCTX_T ctx, int result) { return finish(ctx, Outcome{result, errno}); }

int readLimit(int type, KEM_ULONG_T& hard, KEM_ULONG_T& soft)
{
    rlimit limit{};
    const int result = getrlimit(type, &limit);
    hard = result == 0 ? static_cast<KEM_ULONG_T>(limit.rlim_max) : 0; // Deliberate: the low 32 bits
    soft = result == 0 ? static_cast<KEM_ULONG_T>(limit.rlim_cur) : 0;
    return result;
}

// Deliberate: 32 bits cannot say "no limit", so all bits set means just that many bytes or files.
int setLimit(int type, KEM_ULONG_T hard, KEM_ULONG_T soft)
{
    const rlimit limit{soft, hard};
    return setrlimit(type, &limit);
}

struct StatusKey {
    const char* name;
    PROC_STATUS key;
};
constexpr StatusKey kStatusKeys[] = {
    {"Name", PROC_STATUS_NAME},
    {"State", PROC_STATUS_STATE},
    {"SleepAVG", PROC_STATUS_SLEEPAV},
    {"Tgid", PROC_STATUS_TGID},
    {"Pid", PROC_STATUS_PID},
    {"PPid", PROC_STATUS_PPID},
    {"TracerPid", PROC_STATUS_TRACERP},
    {"Uid", PROC_STATUS_UID},
    {"Gid", PROC_STATUS_GID},
    {"FDSize", PROC_STATUS_FDSIZE},
    {"Groups", PROC_STATUS_GROUPS},
    {"VmPeak", PROC_STATUS_VMPEAK},
    {"VmSize", PROC_STATUS_VMSIZE},
    {"VmLck", PROC_STATUS_VMLCK},
    {"VmHWM", PROC_STATUS_VMHWM},
    {"VmRSS", PROC_STATUS_VMRSS},
    {"VmData", PROC_STATUS_VMDATA},
    {"VmStk", PROC_STATUS_VMSTK},
    {"VmExe", PROC_STATUS_VMEXE},
    {"VmLib", PROC_STATUS_VMLIB},
    {"VmPTE", PROC_STATUS_VMPTE},
    {"StaBrk", PROC_STATUS_STABRK},
    {"Brk", PROC_STATUS_BRK},
    {"StaStk", PROC_STATUS_STASTK},
    {"Threads", PROC_STATUS_THREADS},
    {"SigQ", PROC_STATUS_SIGQ},
    {"SigPnd", PROC_STATUS_SIGPND},
    {"ShdPnd", PROC_STATUS_SHDPND},
    {"SigBlk", PROC_STATUS_SIGBLK},
    {"SigIgn", PROC_STATUS_SIGIGN},
    {"SigCgt", PROC_STATUS_SIGCGT},
    {"CapInh", PROC_STATUS_CAPINH},
    {"CapPrm", PROC_STATUS_CAPPRM},
    {"CapEff", PROC_STATUS_CAPEFF},
    {"Cpus_allowed", PROC_STATUS_CPUS_AL},
    {"Mems_allowed", PROC_STATUS_MEMS_AL},
};

// The figure that a line's key names; null when the record has none.
KEM_ULONG_T* figureOf(KemProcSysInfo& info, PROC_STATUS key)
{
    switch (key) {
        case PROC_STATUS_VMHWM:
            return &info.vmHWM;
        case PROC_STATUS_VMLIB:
            return &info.vmLib;
        case PROC_STATUS_VMPEAK:
            return &info.vmPeak;
        case PROC_STATUS_VMSIZE:
            return &info.vmSize;
        case PROC_STATUS_VMEXE:
            return &info.vmExe;
        case PROC_STATUS_VMSTK:
            return &info.vmStk;
        case PROC_STATUS_VMDATA:
            return &info.vmData;
        default:
            return nullptr;
    }
}

// The number behind the first word of a line, 0 when there is none.
KEM_ULONG_T numberOf(const char* line)
{
    long number;
    return sscanf(line, "%*s %ld", &number) == 1 ? static_cast<KEM_ULONG_T>(number) : 0;
}

} // namespace

PROC_STATUS sd::procstatus::keyOf(const char* line)
{
    const size_t length = strcspn(line, ":");
    if (line[length] != ':') return PROC_STATUS_INVALID;
    for (const StatusKey& each : kStatusKeys)
        if (strlen(each.name) == length && memcmp(line, each.name, length) == 0) return each.key;
    return PROC_STATUS_INVALID;
}

void sd::procstatus::read(FILE* file, KemProcSysInfo& info)
{
    char line[kStatusTextCapacity];
    while (fgets(line, sizeof line, file))
        if (KEM_ULONG_T* const figure = figureOf(info, keyOf(line))) *figure = numberOf(line);
}

KEM_FUNC_M KemSdLimitGet(KEM_PSDCTX_T pSdCtx, KEM_INT_T limitType, KEM_PULONG_T pHardLimit, KEM_PULONG_T pSoftLimit)
{
    if (!pHardLimit || !pSoftLimit) return finishInvalid(pSdCtx);
    return finishRaw(pSdCtx, readLimit(limitType, *pHardLimit, *pSoftLimit));
}

KEM_FUNC_M KemSdLimitSet(KEM_PSDCTX_T pSdCtx, KEM_INT_T limitType, KEM_ULONG_T hardLimit, KEM_ULONG_T softLimit)
{
    passLeaseGuard();
    return finishRaw(pSdCtx, setLimit(limitType, hardLimit, softLimit));
}

KEM_FUNC_M KemSdFdLimitGet(KEM_PSDCTX_T pSdCtx, KEM_PULONG_T pHardLimit, KEM_PULONG_T pSoftLimit)
{
    if (!pHardLimit || !pSoftLimit) return finishInvalid(pSdCtx);
    return finish(pSdCtx, Outcome{readLimit(RLIMIT_NOFILE, *pHardLimit, *pSoftLimit), 0});
}

KEM_FUNC_M KemSdFdLimitSet(KEM_PSDCTX_T pSdCtx, KEM_ULONG_T hardLimit, KEM_ULONG_T softLimit)
{
    passLeaseGuard();
    return finish(pSdCtx, Outcome{setLimit(RLIMIT_NOFILE, hardLimit, softLimit), 0});
}

KEM_FUNC_M KemSdProcessWorkingSetSizeGet(KEM_PSDCTX_T pSdCtx, KEM_SESSID_T, KEM_SIZE_T*, KEM_SIZE_T*)
{
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdProcessWorkingSetSizeSet(KEM_PSDCTX_T pSdCtx, KEM_SESSID_T, KEM_SIZE_T, KEM_SIZE_T)
{
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdHomePathGet(KEM_PSDCTX_T pSdCtx, KEM_SIZE_T sizeBuf, KEM_STR_T pszHomePath)
{
    passLeaseGuard();
    if (!pszHomePath) return finishInvalid(pSdCtx);
    if (sizeBuf == 0) return finish(pSdCtx, ok());
    const char* const home = getenv("HOME");
    strcpy(pszHomePath, home ? home : "."); // Deliberate: whole, whatever sizeBuf says.
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdPathCreate(KEM_PSDCTX_T pSdCtx, KEM_USHORT_T usParmCount, KEM_STR_T pszPath, ...)
{
    if (!pszPath) return finishInvalid(pSdCtx);
    char* end = pszPath;
    *end = 0;
    va_list pieces;
    va_start(pieces, pszPath);
    for (unsigned i = 0; i < usParmCount; ++i)
        if (const char* const piece = va_arg(pieces, const char*)) end = stpcpy(end, piece);
    va_end(pieces);
    return finish(pSdCtx, ok());
}

void KemSdProcSysInfoGet(KemProcSysInfo* pInfo)
{
    if (!pInfo) return;
    char path[kStatusTextCapacity];
    snprintf(path, sizeof path, "/proc/%d/status", getpid());
    FILE* const file = fopen(path, "r");
    if (!file) return;
    sd::procstatus::read(file, *pInfo);
    fclose(file);
}

KEM_FUNC_M setUserIds(KEM_PSDCTX_T pSdCtx, const char* userName)
{
    passLeaseGuard();
    if (!userName) return finishInvalid(pSdCtx);
    finish(pSdCtx, ok());
    errno = 0; // a name that is just not there need not set it
    const passwd* const user = getpwnam(userName);
    if (!user) return finish(pSdCtx, Outcome{-1, errno});
    // Deliberate: the context does not learn what came of the change.
    return setresuid(user->pw_uid, user->pw_uid, user->pw_uid);
}

KEM_FUNC_M KemChroot(KEM_PSDCTX_T pSdCtx, const char* path)
{
    passLeaseGuard();
    if (!path) return finishInvalid(pSdCtx);
    return finishRaw(pSdCtx, chroot(path));
}
