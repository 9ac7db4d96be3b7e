// Modules loaded at run time. Each call is one of the system's dynamic loader, which has its own locks and keeps the
// text of a thread's last failure. Loading and looking up pass the lease guard: both can run a module's code.

#include <dlfcn.h>

#include <kemsd/os.h>
#include <cstdio>

#include "sd/base/leaseguard.h"
#include "sd/base/outcome.h"

namespace {

using sd::fail;
using sd::failErrno;
using sd::finish;
using sd::ok;
using sd::passLeaseGuard;

// The loader forgets the text as it hands it out.
const char* takeErrorText()
{
    const char* const text = dlerror();
    return text ? text : "No errors";
}

KEM_STS_T notSupported(KEM_PSDCTX_T ctx) { return finish(ctx, fail(SDSTS_NOT_SUPPORTED)); }

} // namespace

KEM_FUNC_M KemSdModuleLoad(KEM_PSDCTX_T pSdCtx, const char* pszModuleName, KEM_PMODHDL_T phMod, KEM_BOOL_T)
{
    passLeaseGuard();
    if (!phMod) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    *phMod = dlopen(pszModuleName, RTLD_LAZY);
    if (*phMod) return finish(pSdCtx, ok());
    fprintf(stderr, "%s\n", takeErrorText());
    return finish(pSdCtx, fail(SDSTS_MODULE_LOAD));
}

KEM_FUNC_M KemSdModuleProcAddrGet(KEM_PSDCTX_T pSdCtx, KEM_MODHDL_T hMod, const char* pszProcName,
                                  KEM_PMODFUNC_T pModFunc)
{
    passLeaseGuard();
    if (!pszProcName || !pModFunc) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    *pModFunc = reinterpret_cast<KEM_MODFUNC_T>(dlsym(hMod, pszProcName));
    return finish(pSdCtx, *pModFunc ? ok() : failErrno(SDSTS_MODULE_SYMBOL));
}

KEM_FUNC_M KemSdModuleUnload(KEM_PSDCTX_T pSdCtx, KEM_MODHDL_T hMod)
{
    if (!hMod) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    // Deliberate: the loader's own result is the status.
    const int result = dlclose(hMod);
    return finish(pSdCtx, result != 0 ? failErrno(result) : ok());
}

const char* KemSdModuleGetErrorMessage(KEM_PSDCTX_T) { return takeErrorText(); }

KEM_FUNC_M KemSdModuleNameGet(KEM_PSDCTX_T pSdCtx, KEM_MODHDL_T, KEM_SIZE_T, KEM_STR_T) { return notSupported(pSdCtx); }

KEM_FUNC_M KemSdModuleHandleGet(KEM_PSDCTX_T pSdCtx, KEM_PMODHDL_T) { return notSupported(pSdCtx); }
