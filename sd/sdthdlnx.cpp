// Threads and processes: each call is one call of the thread library or the system, its outcome stored in the caller's
// context. A thread's handle is a copy of its id. No state, no locks. The one that waits is the suspension of a thread
// that another one's fatal exception has stopped.
//
// No call here may be noexcept: a thread can end inside KemSdThreadExit, which unwinds the stack.

#include <pthread.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <kemsd/os.h>

#include "sd/base/outcome.h"
#include "sd/base/thread.h"

namespace {

using sd::fail;
using sd::failErrno;
using sd::finish;
using sd::ok;
using sd::Outcome;
using sd::restate;

constexpr size_t kThreadStackBytes = 1048576;

// Deliberate: only a negative result of the scheduling calls is a failure, and the thread library has none: its error
// numbers are positive and travel in osRetCode of a success.
Outcome schedulingOutcome(int result, KEM_STS_T failure) { return result < 0 ? failErrno(failure) : ok(result); }

Outcome startThread(pthread_t* id, KEM_PTHDFUNC_T function, void* argument)
{
    pthread_attr_t attributes; // owns nothing, so it is not destroyed
    int result = pthread_attr_init(&attributes);
    if (result == 0) result = pthread_attr_setstacksize(&attributes, kThreadStackBytes);
    if (result == 0) result = pthread_create(id, &attributes, function, argument);
    return result != 0 ? fail(SDSTS_THREAD_CREATE, result) : ok();
}

Outcome currentPriority(KEM_PTHDHDL_T pThdHdl, KEM_PLONG_T plThdPriority)
{
    if (!pThdHdl || !plThdPriority) return fail(SDSTS_INVALID_PARAM);
    int policy = 0;
    sched_param parameters{};
    const Outcome outcome =
        schedulingOutcome(pthread_getschedparam(*pThdHdl, &policy, &parameters), SDSTS_THREAD_PRIORITY_GET);
    if (!outcome.failed()) *plThdPriority = parameters.sched_priority;
    return outcome;
}

// The high and the base priority are the current one plus `above`, under a status of their own.
KEM_STS_T derivedPriority(KEM_PSDCTX_T ctx, KEM_PTHDHDL_T pThdHdl, KEM_PLONG_T plThdPriority, KEM_LONG_T above,
                          KEM_STS_T failure)
{
    const Outcome outcome = currentPriority(pThdHdl, plThdPriority);
    if (outcome.sts == SDSTS_THREAD_PRIORITY_GET) return finish(ctx, fail(failure, outcome.os));
    if (outcome.failed()) return finish(ctx, outcome);
    *plThdPriority += above;
    return finish(ctx, ok());
}

// Signals are still handled, and each ends one wait.
[[noreturn]] void waitForEver()
{
    for (;;) pause();
}

KEM_STS_T notSupported(KEM_PSDCTX_T ctx) { return finish(ctx, fail(SDSTS_NOT_SUPPORTED)); }

} // namespace

KEM_FUNC_M KemSdThreadCreate(KEM_PSDCTX_T pSdCtx, KEM_PTHDFUNC_T pThdFunc, KEM_PVOID_T, KEM_THDSTACKSIZE_T,
                             KEM_PVOID_T pvParm, KEM_PTHDID_T pThdId, KEM_PTHDHDL_T pThdHdl)
{
    // Deliberate: the caller's stack and stack size are ignored, every thread gets the same stack.
    if (!pThdId || !pThdFunc || !pThdHdl) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    const Outcome outcome = startThread(pThdId, pThdFunc, pvParm);
    if (!outcome.failed()) *pThdHdl = *pThdId;
    return finish(pSdCtx, outcome);
}

KEM_FUNC_M KemSdThreadJoin(KEM_PSDCTX_T pSdCtx, KEM_PTHDHDL_T pThdHdl)
{
    if (!pThdHdl) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    const int result = *pThdHdl == 0 ? 0 : pthread_join(*pThdHdl, nullptr);
    // Deliberate: the context reads status 0 also when the join failed.
    finish(pSdCtx, ok(result));
    return result != 0 ? SDSTS_THREAD_JOIN : 0;
}

KEM_FUNC_M KemSdThreadDelete(KEM_PSDCTX_T pSdCtx, KEM_PTHDHDL_T pThdHdl)
{
    if (!pThdHdl) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    pthread_detach(*pThdHdl); // Deliberate: its result does not count.
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdThreadExit(KEM_PSDCTX_T, KEM_STS_T)
{
    // Deliberate: the thread's status is dropped, a join could not hand it on.
    pthread_exit(nullptr);
}

KEM_FUNC_M KemSdThreadYield(KEM_PSDCTX_T pSdCtx)
{
    sched_yield();
    // Deliberate: "not supported" although the processor was yielded.
    return notSupported(pSdCtx);
}

KEM_FUNC_M KemSdThreadIdGet(KEM_PSDCTX_T pSdCtx, KEM_PTHDID_T pThdId)
{
    if (!pThdId) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    *pThdId = sd::currentThread();
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdThreadHandleGet(KEM_PSDCTX_T pSdCtx, KEM_PTHDHDL_T pThdHdl)
{
    const KEM_STS_T sts = KemSdThreadIdGet(pSdCtx, pThdHdl);
    return sts == SDSTS_THREAD_ID_GET ? restate(pSdCtx, SDSTS_THREAD_HANDLE_GET) : sts;
}

KEM_FUNC_M KemSdThreadPrioritySet(KEM_PSDCTX_T pSdCtx, KEM_PTHDHDL_T pThdHdl, KEM_LONG_T lThdPriority)
{
    if (!pThdHdl) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    sched_param parameters{};
    parameters.sched_priority = lThdPriority;
    const int result = pthread_setschedparam(*pThdHdl, SCHED_OTHER, &parameters);
    return finish(pSdCtx, schedulingOutcome(result, SDSTS_THREAD_PRIORITY_SET));
}

KEM_FUNC_M KemSdThreadPriorityGet(KEM_PSDCTX_T pSdCtx, KEM_PTHDHDL_T pThdHdl, KEM_PLONG_T plThdPriority)
{
    return finish(pSdCtx, currentPriority(pThdHdl, plThdPriority));
}

KEM_FUNC_M KemSdThreadHighPriorityGet(KEM_PSDCTX_T pSdCtx, KEM_PTHDHDL_T pThdHdl, KEM_PLONG_T plThdPriority)
{
    return derivedPriority(pSdCtx, pThdHdl, plThdPriority, 1, SDSTS_THREAD_HIGH_PRIORITY);
}

KEM_FUNC_M KemSdThreadBasePriorityGet(KEM_PSDCTX_T pSdCtx, KEM_PTHDHDL_T pThdHdl, KEM_PLONG_T plThdPriority)
{
    return derivedPriority(pSdCtx, pThdHdl, plThdPriority, 0, SDSTS_THREAD_BASE_PRIORITY);
}

KEM_FUNC_M KemSdThreadSuspend(KEM_PSDCTX_T pSdCtx, KEM_PTHDHDL_T pThdHdl)
{
    // A thread can be suspended by itself alone, and only where nobody will ever ask it to go on.
    if (!pThdHdl && sd::stoppedByFatalException()) waitForEver();
    return notSupported(pSdCtx);
}

KEM_FUNC_M KemSdThreadResume(KEM_PSDCTX_T pSdCtx, KEM_PTHDHDL_T) { return notSupported(pSdCtx); }

KEM_FUNC_M KemSdThreadConcurrencyLevGet(KEM_PSDCTX_T pSdCtx, KEM_PINT_T) { return notSupported(pSdCtx); }

KEM_FUNC_M KemSdThreadConcurrencyLevSet(KEM_PSDCTX_T pSdCtx, KEM_INT_T) { return notSupported(pSdCtx); }

KEM_FUNC_M KemSdProcessIdGet(KEM_PSDCTX_T pSdCtx, KEM_PPROCID_T pProcId)
{
    if (!pProcId) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    *pProcId = getpid();
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdProcessSessionIdGet(KEM_PSDCTX_T pSdCtx, KEM_PSESSID_T pSessId)
{
    if (!pSessId) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    const KEM_STS_T sts = KemSdProcessIdGet(pSdCtx, &pSessId->__val[0]);
    return sts == SDSTS_SESSION_ID_GET ? restate(pSdCtx, sts) : sts;
}

KEM_FUNC_M KemSdProcessCheckAlive(KEM_PSDCTX_T pSdCtx, KEM_SESSID_T, KEM_PROCID_T procId)
{
    const pid_t result = waitpid(procId, nullptr, WNOHANG);
    // Deliberate: the call's own result takes the error number's place.
    return finish(pSdCtx, result < 0 ? fail(SDSTS_PROCESS_NOT_ALIVE, result) : ok(result));
}

KEM_FUNC_M KemSdProcessDelete(KEM_PSDCTX_T pSdCtx, KEM_SESSID_T, KEM_PROCID_T) { return finish(pSdCtx, ok()); }

KEM_FUNC_M KemSdProcessPriorityGet(KEM_PSDCTX_T pSdCtx, KEM_PLONG_T) { return notSupported(pSdCtx); }

KEM_FUNC_M KemSdProcessPrioritySet(KEM_PSDCTX_T pSdCtx, KEM_SESSID_T, KEM_PROCID_T, KEM_LONG_T)
{
    return notSupported(pSdCtx);
}
