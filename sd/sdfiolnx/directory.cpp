// Directories made and changed, links, and temporary files. Stateless: nothing is kept between calls and no call
// retries. The removal of directories has a file of its own.

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <kemsd/file.h>
#include <cstring>

#include "sd/base/leaseguard.h"
#include "sd/base/outcome.h"

namespace {

using sd::fail;
using sd::failErrno;
using sd::finish;
using sd::ok;
using sd::Outcome;
using sd::passLeaseGuard;

constexpr mode_t kForAll = 0777; // of a new directory; the umask takes from it
constexpr size_t kLongestPath = KEM_FILEPATH_MAX;
constexpr KEM_FUNC_M kNoPath = 1; // Deliberate: no status of the catalogue
constexpr KEM_USHORT_T kHardLink = 1;
constexpr char kUniquePart[] = "XXXXXX"; // what mkstemp replaces

bool exists(const char* path) { return access(path, F_OK) == 0; }

// Where temporary files go; the empty text is the current directory.
const char* temporaryDirectory()
{
    const char* const wanted = getenv("TMPDIR");
    if (wanted && *wanted && exists(wanted)) return wanted;
    return exists("/tmp") ? "/tmp" : "";
}

// Deliberate: a slash that has to be added is not counted, so a path may have one character more than others.
bool composeTempName(const char* prefix, char* path)
{
    const char* const directory = temporaryDirectory();
    if (strlen(directory) + strlen(prefix) + strlen(kUniquePart) > kLongestPath) return false;
    char* end = stpcpy(path, directory);
    if (end != path && end[-1] != '/') *end++ = '/';
    stpcpy(stpcpy(end, prefix), kUniquePart);
    return true;
}

Outcome makeTempFile(const char* prefix, char* path)
{
    if (!composeTempName(prefix, path)) return fail(SDSTS_FILE_TEMPNAME);
    const int file = mkstemp(path);
    if (file == -1 || close(file) == -1) return failErrno(SDSTS_FILE_TEMPNAME);
    return ok();
}

} // namespace

KEM_FUNC_M KemSdDirCreate(KEM_PSDCTX_T pSdCtx, const char* pszDirName)
{
    passLeaseGuard();
    if (!pszDirName) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    return finish(pSdCtx, mkdir(pszDirName, kForAll) == -1 ? failErrno(SDSTS_DIR_CREATE) : ok());
}

KEM_FUNC_M KemSdDirCreateEx(KEM_PSDCTX_T pSdCtx, const char* path)
{
    KEM_BOOL_T there;
    if (const KEM_STS_T sts = KemSdFileAccess(pSdCtx, path, F_OK, &there); sts != 0 || there) return sts;
    const KEM_STS_T sts = KemSdDirCreate(pSdCtx, path);
    // Another maker may have come between the look and the call; a link that leads nowhere is still refused.
    return sts != 0 && path && exists(path) ? finish(pSdCtx, ok()) : sts;
}

KEM_FUNC_M KemSdCreatePath(KEM_PSDCTX_T pSdCtx, const char* path)
{
    if (!path || strlen(path) > kLongestPath) return kNoPath;
    char prefix[kLongestPath + 1];
    strcpy(prefix, path);
    for (char* slash = strchr(prefix, '/'); slash; slash = strchr(slash + 1, '/')) {
        if (slash == prefix) continue;
        *slash = 0;
        if (const KEM_STS_T sts = KemSdDirCreateEx(pSdCtx, prefix); sts != 0) return sts;
        *slash = '/';
    }
    return KemSdDirCreateEx(pSdCtx, prefix);
}

KEM_FUNC_M KemSdDirChange(KEM_PSDCTX_T pSdCtx, const char* pFullpath)
{
    if (!pFullpath) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    if (chdir(pFullpath) == 0) return finish(pSdCtx, ok());
    return finish(pSdCtx, failErrno(errno == ENOENT ? SDSTS_DIR_NOT_FOUND : SDSTS_DIR_CHANGE));
}

KEM_FUNC_M KemSdFileTempNameGet(KEM_PSDCTX_T pSdCtx, const char* pszPrefix, KEM_STR_T pszTempNameBuf)
{
    passLeaseGuard();
    if (!pszTempNameBuf) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    return finish(pSdCtx, makeTempFile(pszPrefix ? pszPrefix : "", pszTempNameBuf));
}

KEM_FUNC_M KemSdCreateLink(KEM_PSDCTX_T pSdCtx, const char* srcPath, const char* destPath, KEM_USHORT_T linkType)
{
    passLeaseGuard();
    if (!srcPath || !destPath) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    const int result = linkType == kHardLink ? link(srcPath, destPath) : symlink(srcPath, destPath);
    return finish(pSdCtx, result == -1 ? failErrno(SDSTS_FILE_CREATE) : ok());
}

KEM_FUNC_M KemSdUnLink(KEM_PSDCTX_T pSdCtx, const char* path) { return KemSdDirectIOFileRemove(pSdCtx, path); }
