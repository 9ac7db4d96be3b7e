// Resource strings, which this platform does not have: nothing is read, nothing is written.

#include <kemsd/os.h>

#include "sd/base/outcome.h"

KEM_FUNC_M KemSdUIResStringLoad(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T, KEM_USHORT_T, KEM_USHORT_T, KEM_STR_T, KEM_USHORT_T)
{
    return sd::finish(pSdCtx, sd::fail(SDSTS_NOT_SUPPORTED));
}

KEM_FUNC_M KemSdUIResStringAllocLoad(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T, KEM_USHORT_T, KEM_USHORT_T, KEM_STR_T*)
{
    return sd::finish(pSdCtx, sd::fail(SDSTS_NOT_SUPPORTED));
}
