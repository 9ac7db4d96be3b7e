// The end of a file moved to a new length.

#include <kemsd/file.h>
#include <unistd.h>

#include "sd/base/leaseguard.h"
#include "sd/base/outcome.h"

namespace {

using sd::fail;
using sd::finish;
using sd::ok;
using sd::Outcome;

Outcome truncateTo(KEM_FILEHDL_T file, KEM_LONG_T bytes)
{
    int result;
    do {
        result = ftruncate(file, bytes);
    } while (result == -1 && errno == EINTR);
    return result == -1 ? sd::writeFailure(SDSTS_FILE_SET_EOF) : ok();
}

} // namespace

KEM_FUNC_M KemSdFileSetEndOfFile(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_LONG_T lNewFileEOFBytes,
                                 KEM_PLONG_T plSetFileEOFBytes, KEM_POSRETCODE_T pOsRetCode)
{
    sd::passLeaseGuard();
    if (pOsRetCode) *pOsRetCode = 0;
    if (!plSetFileEOFBytes) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    const Outcome outcome = truncateTo(hFile, lNewFileEOFBytes);
    *plSetFileEOFBytes = outcome.failed() ? 0 : lNewFileEOFBytes;
    if (pOsRetCode) *pOsRetCode = outcome.os;
    return finish(pSdCtx, outcome);
}
