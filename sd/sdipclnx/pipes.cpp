// Anonymous pipes, and named pipes as pairs of FIFOs. Stateless: nothing is kept between calls, no call retries but the
// connecting one, and the only lock is that of the FIFOs' makers (sd/sysunix/fifo.cpp).

#include <unistd.h>

#include <kemsd/ipc.h>
#include <kemsd/memory.h>
#include <cstring>
#include <initializer_list>

#include "sd/base/leaseguard.h"
#include "sd/base/outcome.h"
#include "sd/sysunix/fifo.h"

namespace {

using sd::fail;
using sd::failErrno;
using sd::finish;
using sd::ok;
using sd::Outcome;
using sd::passLeaseGuard;
using sd::restate;

constexpr const char* kSource = "sd/sdipclnx";

constexpr KEM_PIPEHDL_T kUninitialized{};
static_assert(sizeof kUninitialized == 2 * sizeof(int) + sizeof(char*), "every byte of a handle is a field's");

Outcome closeBoth(const KEM_PIPEHDL_T& pipe)
{
    Outcome first = close(pipe.iFdRead) == -1 ? failErrno(SDSTS_PIPE_CLOSE) : ok();
    // Deliberate: a failure of the writing end alone goes unreported.
    if (close(pipe.iFdWrite) == -1 && first.failed()) first = failErrno(SDSTS_PIPE_CLOSE);
    return first;
}

// Room for the name of either FIFO of a pipe.
KEM_STS_T allocateName(KEM_PSDCTX_T ctx, const char* pipe, char*& name)
{
    void* block = nullptr;
    const KEM_STS_T sts = KemSdMemAlloc(ctx, nullptr, strlen(pipe) + sizeof "_1", &block, kSource, __LINE__);
    name = static_cast<char*>(block);
    return sts;
}

// Does something to each FIFO of a pipe in turn, up to the first failure.
template <class Operation>
KEM_STS_T doToBoth(const char* pipe, char* name, Operation operation)
{
    for (const char* suffix : {"_1", "_2"}) {
        stpcpy(stpcpy(name, pipe), suffix);
        if (const KEM_STS_T sts = operation(); sts != 0) return sts;
    }
    return 0;
}

} // namespace

KEM_FUNC_M KemSdPipeCreate(KEM_PSDCTX_T pSdCtx, KEM_PPIPEHDL_T phPipeIn, KEM_PPIPEHDL_T phPipeOut, KEM_ULONG_T)
{
    if (!phPipeIn || !phPipeOut) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    int ends[2];
    if (pipe(ends) == -1) return finish(pSdCtx, failErrno(SDSTS_PIPE_CREATE));
    phPipeIn->iFdRead = phPipeOut->iFdRead = ends[0];
    phPipeIn->iFdWrite = phPipeOut->iFdWrite = ends[1];
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdPipeWrite(KEM_PSDCTX_T pSdCtx, KEM_PPIPEHDL_T phPipe, KEM_PVOID_T pvBuf, KEM_ULONG_T ulBytesToWrite,
                          KEM_PULONG_T pulBytesWritten)
{
    passLeaseGuard();
    if (!KemSdNamedPipeIsInitialized(phPipe) || !pvBuf || !pulBytesWritten)
        return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    const ssize_t written = write(phPipe->iFdWrite, pvBuf, ulBytesToWrite);
    *pulBytesWritten = static_cast<KEM_ULONG_T>(written);
    return finish(pSdCtx, written == -1 ? failErrno(SDSTS_PIPE_IO) : ok());
}

// Deliberate: no look at the handle's bytes, unlike before a write; a handle of zeros reads standard input.
KEM_FUNC_M KemSdPipeRead(KEM_PSDCTX_T pSdCtx, KEM_PPIPEHDL_T phPipe, KEM_PVOID_T pvBuf, KEM_ULONG_T ulBytesToRead,
                         KEM_PULONG_T pulBytesRead)
{
    passLeaseGuard();
    if (!phPipe || !pvBuf || !pulBytesRead) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    const ssize_t got = read(phPipe->iFdRead, pvBuf, ulBytesToRead);
    *pulBytesRead = static_cast<KEM_ULONG_T>(got);
    return finish(pSdCtx, got == -1 ? failErrno(SDSTS_PIPE_IO) : ok());
}

KEM_FUNC_M KemSdPipeClose(KEM_PSDCTX_T pSdCtx, KEM_PPIPEHDL_T phPipe)
{
    passLeaseGuard();
    if (!phPipe) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    return finish(pSdCtx, closeBoth(*phPipe));
}

KEM_BOOL_T KemSdNamedPipeIsInitialized(KEM_PPIPEHDL_T phPipe)
{
    return phPipe && memcmp(phPipe, &kUninitialized, sizeof kUninitialized) != 0;
}

KEM_FUNC_M KemSdNamedPipeUnixCreate(KEM_PSDCTX_T pSdCtx, const char* pszPipeName)
{
    return finish(pSdCtx, sd::makeFifo(pszPipeName, SDSTS_PIPE_MAKE, sd::FailureUmask::Restored));
}

KEM_FUNC_M KemSdNamedPipeUnixConnect(KEM_PSDCTX_T pSdCtx, const char* pszPipeName, KEM_PINT_T piFd)
{
    return finish(pSdCtx, sd::connectFifo(pSdCtx, pszPipeName, piFd, SDSTS_PIPE_CONNECT));
}

KEM_FUNC_M KemSdNamedPipeCreate(KEM_PSDCTX_T pSdCtx, const char* pszPipeName, KEM_PPIPEHDL_T, KEM_BIT32_T, KEM_BIT32_T,
                                KEM_ULONG_T, KEM_ULONG_T, KEM_ULONG_T, KEM_ULONG_T)
{
    if (!pszPipeName) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    char* name;
    if (const KEM_STS_T sts = allocateName(pSdCtx, pszPipeName, name); sts != 0) return sts;
    const KEM_STS_T sts = doToBoth(pszPipeName, name, [&] { return KemSdNamedPipeUnixCreate(pSdCtx, name); });
    KemSdMemFree(nullptr, name, kSource, __LINE__); // the context keeps what became of the FIFOs
    return sts;
}

KEM_FUNC_M KemSdNamedPipeConnect(KEM_PSDCTX_T pSdCtx, KEM_PPIPEHDL_T phPipe)
{
    if (!phPipe || !phPipe->pszPipeName) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    char* name;
    if (const KEM_STS_T sts = allocateName(pSdCtx, phPipe->pszPipeName, name); sts != 0) return sts;
    // Deliberate: the handle stays as it was, so the descriptors remain open and nobody's, and the name is not freed.
    int unkept;
    return doToBoth(phPipe->pszPipeName, name, [&] { return KemSdNamedPipeUnixConnect(pSdCtx, name, &unkept); });
}

// Deliberate: of the context only the status is written; the error number stays that of the failing step.
KEM_FUNC_M KemSdNamedPipeOpen(KEM_PSDCTX_T pSdCtx, const char*, const char* pszPipeName, KEM_PPIPEHDL_T phPipe,
                              KEM_BIT32_T, KEM_BIT32_T, KEM_BIT32_T, KEM_BIT32_T)
{
    if (!phPipe || !pszPipeName) return restate(pSdCtx, SDSTS_INVALID_PARAM);
    if (KemSdNamedPipeCreate(pSdCtx, pszPipeName, nullptr, 0, 0, 0, 0, 0, 0) != 0)
        return restate(pSdCtx, SDSTS_PIPE_OPEN);
    KEM_PIPEHDL_T connected{-1, -1, const_cast<char*>(pszPipeName)};
    if (KemSdNamedPipeConnect(pSdCtx, &connected) != 0) return restate(pSdCtx, SDSTS_PIPE_OPEN);
    phPipe->iFdRead = connected.iFdRead;
    phPipe->iFdWrite = connected.iFdWrite;
    return restate(pSdCtx, 0);
}

KEM_FUNC_M KemSdNamedPipeDisconnect(KEM_PSDCTX_T pSdCtx, KEM_PPIPEHDL_T phPipe)
{
    return finish(pSdCtx, sd::disconnectFifos(phPipe, SDSTS_PIPE_DISCONNECT));
}

KEM_FUNC_M KemSdNamedPipePeek(KEM_PSDCTX_T pSdCtx, KEM_PPIPEHDL_T, KEM_PVOID_T, KEM_ULONG_T, KEM_PULONG_T)
{
    return finish(pSdCtx, fail(SDSTS_NOT_SUPPORTED));
}

KEM_FUNC_M KemSdNamedPipeWait(KEM_PSDCTX_T pSdCtx, const char*, KEM_ULONG_T)
{
    return finish(pSdCtx, fail(SDSTS_NOT_SUPPORTED));
}
