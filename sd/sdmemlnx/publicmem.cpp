// Not built yet: the first form.
#include <kemsd/memory.h>
#include <cstring>

#include "sd/base/outcome.h"

KEM_FUNC_M KemSdMemClear(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T pvBuf, KEM_SIZE_T sizeCount)
{
    if (!pvBuf) return sd::finish(pSdCtx, sd::fail(SDSTS_INVALID_PARAM));
    memset(pvBuf, 0, sizeCount);
    return sd::finish(pSdCtx, sd::ok());
}
