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
#include "sd/sdosrlnx/procstatus.h"

namespace {

using sd::finish;
using sd::finishInvalid;
using sd::ok;
using sd::Outcome;
using sd::passLeaseGuard;

constexpr size_t kPathCapacity = 255; // of the status file

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

} // namespace

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
    char path[kPathCapacity];
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
