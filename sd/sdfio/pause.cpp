// Write leases and the write pause. The state is the pauseinterface of the server's service context; nothing is kept
// here. A writer counts itself in, looks at the flag, writes and counts itself out. A pausing thread raises the flag,
// waits until the count is 0 and leaves the barrier event up, at which writers wait that found the flag.
//
// Both sides write one word and then read the other's: the writer counts and reads the flag, the pausing thread raises
// the flag and reads the count. So that never both go on, those four accesses are sequentially consistent.
//
// The one lock is rwlockPauseUpdates. The pausing thread holds it for writing while it makes the pause; a writer that
// found the flag holds it for reading from then on until it has its lease, and whoever ends a pause while doing so.
// Hence a pause begins only when nobody waits at the barrier of the one before. A lease that meets no pause takes no
// lock. Contexts are written by what is called here, never by these calls themselves.

#include <kemsd/file.h>
#include <kemsd/memory.h>
#include <kemsd/os.h>

#include "sd/base/atomic.h"

namespace {

using sd::loadRelaxed;

constexpr KEM_LONG_T kBarrierMilliseconds = 2000; // then a waiting writer looks whether the pause has had its time
constexpr KEM_LONG_T kDrainMilliseconds = 1000;   // then the pausing thread looks whether the server terminates
constexpr KEM_STS_T kGivenUp = -1;                // the server terminates while a pause is being made

// Null when the calls have nothing to work on.
OV_THDCTX_T* threadContext(void* tctxpv)
{
    auto* const thread = static_cast<OV_THDCTX_T*>(tctxpv);
    return thread && thread->svctxp && thread->pSyncCtx ? thread : nullptr;
}

bool terminating(const OV_THDCTX_T& thread) { return loadRelaxed(thread.svctxp->bAppTerminating); }

// ---- The two words. Sequentially consistent where the order named at the top of this file matters.

// After counting in or out: pairs with raiseFlag() and leasesOut() of the pausing thread.
bool paused(const OV_PAUSE_INTERFACE_T& pause) { return __atomic_load_n(&pause.bPauseWriteIO, __ATOMIC_SEQ_CST); }

// Before leasesOut(): pairs with countIn() and paused() of a writer.
void raiseFlag(OV_PAUSE_INTERFACE_T& pause) { __atomic_store_n(&pause.bPauseWriteIO, TRUE, __ATOMIC_SEQ_CST); }

// Release: what was done during the pause comes before what a writer does that finds the flag lowered.
void lowerFlag(OV_PAUSE_INTERFACE_T& pause) { sd::storeRelease(pause.bPauseWriteIO, FALSE); }

KEM_SDATOMIC_T leasesOut(const OV_PAUSE_INTERFACE_T& pause)
{
    return __atomic_load_n(&pause.lBusyWriteIOCnt, __ATOMIC_SEQ_CST);
}

void countIn(OV_THDCTX_T& thread)
{
    __atomic_add_fetch(&thread.svctxp->pauseinterface.lBusyWriteIOCnt, 1, __ATOMIC_SEQ_CST);
    thread.bBusyWriteIO = TRUE;
}

void countOut(OV_THDCTX_T& thread)
{
    __atomic_sub_fetch(&thread.svctxp->pauseinterface.lBusyWriteIOCnt, 1, __ATOMIC_SEQ_CST);
    thread.bBusyWriteIO = FALSE;
}

// ---- Ending a pause

// A thread that finds no memory for its place at the lock ends the pause without it, for writers would else wait for
// ever. If a pause is just being made, it is then over by the time its maker returns.
void endPause(OV_THDCTX_T& thread)
{
    OV_PAUSE_INTERFACE_T& pause = thread.svctxp->pauseinterface;
    const bool locked = KemSdStartRead(&thread, thread.pSyncCtx, &pause.rwlockPauseUpdates) == 0;
    if (paused(pause)) {
        lowerFlag(pause);
        KemSdEventClear(thread.pSdCtx, &pause.pauseWriteIOEvtHdl);
    }
    if (locked) KemSdEndRW(&thread, thread.pSyncCtx, &pause.rwlockPauseUpdates);
}

// ---- Leases

// The pausing thread waits for the last lease. If it has not yet begun to wait, it reads the count once more.
[[gnu::noinline]] KEM_STS_T wakePausingThread(KEM_PSDCTX_T ctx, OV_PAUSE_INTERFACE_T& pause)
{
    return leasesOut(pause) == 0 ? KemSdEventClear(ctx, &pause.writeIOEvtHdl) : 0;
}

void backOff(OV_THDCTX_T& thread)
{
    countOut(thread);
    wakePausingThread(thread.pSdCtx, thread.svctxp->pauseinterface);
}

// A waiting writer holds the lock for reading, so the two times are those of a pause that is made.
bool pauseIsOverdue(const OV_THDCTX_T& thread)
{
    const OV_PAUSE_INTERFACE_T& pause = thread.svctxp->pauseinterface;
    KEM_TIME_T now;
    return pause.lPauseTimeout != 0 && KemSdTime(thread.pSdCtx, &now) == 0 &&
           now - pause.lPauseStartTime >= pause.lPauseTimeout;
}

// One wait at the barrier. On 0 the thread has counted itself in once more, or its wait ran out.
KEM_STS_T waitAtBarrier(OV_THDCTX_T& thread)
{
    KEM_PEVENTHDL_T barrier = &thread.svctxp->pauseinterface.pauseWriteIOEvtHdl;
    const KEM_STS_T sts = KemSdEventWait(thread.pSdCtx, barrier, kBarrierMilliseconds);
    if (terminating(thread)) {
        endPause(thread);
        countIn(thread);
        return 0;
    }
    if (sts == SDSTS_EVENT_TIMEOUT) {
        if (pauseIsOverdue(thread)) endPause(thread);
        return 0;
    }
    if (sts == 0) countIn(thread);
    return sts;
}

// Goes on for a thread that has counted itself in and found the flag.
[[gnu::noinline]] KEM_STS_T waitForLease(OV_THDCTX_T& thread)
{
    OV_PAUSE_INTERFACE_T& pause = thread.svctxp->pauseinterface;
    backOff(thread);
    KEM_STS_T sts = KemSdStartRead(&thread, thread.pSyncCtx, &pause.rwlockPauseUpdates);
    if (sts != 0) return sts;
    while ((sts = waitAtBarrier(thread)) == 0) {
        if (!thread.bBusyWriteIO) continue;
        if (!paused(pause)) break;
        backOff(thread);
    }
    KemSdEndRW(&thread, thread.pSyncCtx, &pause.rwlockPauseUpdates);
    return sts;
}

// One look at the flag decides. With a second one that finds it raised only then, a counted writer would wait for the
// pause that waits for it.
//
// The short ways of taking a lease and giving it back end in a function for everything else: they need no stack.
inline KEM_STS_T takeLease(OV_THDCTX_T& thread)
{
    countIn(thread);
    if (paused(thread.svctxp->pauseinterface)) [[unlikely]]
        return waitForLease(thread);
    return 0;
}

inline KEM_STS_T giveLeaseBack(OV_THDCTX_T& thread, KEM_PSDCTX_T ctx)
{
    OV_PAUSE_INTERFACE_T& pause = thread.svctxp->pauseinterface;
    if (thread.bBusyWriteIO) [[likely]] {
        // Not below 0, whatever became of the count.
        if (loadRelaxed(pause.lBusyWriteIOCnt) > 0) [[likely]]
            countOut(thread);
        thread.bBusyWriteIO = FALSE;
    }
    if (paused(pause)) [[unlikely]]
        return wakePausingThread(ctx, pause);
    return 0;
}

// The context keeps what became of the write, whatever giving back has to do.
template <class Write>
KEM_STS_T writeUnderLease(void* tctxpv, Write write)
{
    OV_THDCTX_T* const thread = threadContext(tctxpv);
    if (!thread) return SDSTS_INVALID_PARAM;
    if (const KEM_STS_T sts = takeLease(*thread); sts != 0) [[unlikely]]
        return sts;
    const KEM_STS_T sts = write(thread->pSdCtx);
    giveLeaseBack(*thread, nullptr);
    return sts;
}

// ---- Pausing

// Waits under the raised flag until no lease is out; then the pause begins.
KEM_STS_T drainLeases(const OV_THDCTX_T& thread, KEM_TIME_T timeout)
{
    OV_PAUSE_INTERFACE_T& pause = thread.svctxp->pauseinterface;
    while (leasesOut(pause) >= 1) {
        if (const KEM_STS_T sts = KemSdEventSet(thread.pSdCtx, &pause.writeIOEvtHdl); sts != 0) return sts;
        // The last lease may have come back just before, and its clearing of the event been undone.
        if (leasesOut(pause) == 0) break;
        const KEM_STS_T sts = KemSdEventWait(thread.pSdCtx, &pause.writeIOEvtHdl, kDrainMilliseconds);
        // Deliberate: the flag stays up, a terminating server starts no writes.
        if (terminating(thread)) return kGivenUp;
        if (sts != 0 && sts != SDSTS_EVENT_TIMEOUT) return sts;
    }
    pause.lPauseTimeout = timeout;
    return KemSdTime(thread.pSdCtx, &pause.lPauseStartTime);
}

// Under the lock for writing.
KEM_STS_T beginPause(const OV_THDCTX_T& thread, KEM_TIME_T timeout)
{
    OV_PAUSE_INTERFACE_T& pause = thread.svctxp->pauseinterface;
    if (paused(pause)) return SDSTS_WRITEIO_PAUSED; // made while this thread waited for the lock
    if (const KEM_STS_T sts = KemSdEventSet(thread.pSdCtx, &pause.pauseWriteIOEvtHdl); sts != 0) return sts;
    raiseFlag(pause);
    return drainLeases(thread, timeout);
}

} // namespace

KEM_STS_T KemSdGetWriteIOLease(void* tctxpv)
{
    OV_THDCTX_T* const thread = threadContext(tctxpv);
    return thread ? takeLease(*thread) : SDSTS_INVALID_PARAM;
}

KEM_STS_T KemSdReleaseWriteIOLease(void* tctxpv)
{
    OV_THDCTX_T* const thread = threadContext(tctxpv);
    return thread ? giveLeaseBack(*thread, thread->pSdCtx) : SDSTS_INVALID_PARAM;
}

KEM_STS_T KemSdPauseWriteIO(void* tctxpv, KEM_TIME_T lTimeout)
{
    OV_THDCTX_T* const thread = threadContext(tctxpv);
    if (!thread) return SDSTS_INVALID_PARAM;
    OV_PAUSE_INTERFACE_T& pause = thread->svctxp->pauseinterface;
    if (paused(pause)) return SDSTS_WRITEIO_PAUSED;
    if (const KEM_STS_T sts = KemSdStartWrite(thread, thread->pSyncCtx, &pause.rwlockPauseUpdates); sts != 0)
        return sts;
    const KEM_STS_T sts = beginPause(*thread, lTimeout);
    KemSdEndRW(thread, thread->pSyncCtx, &pause.rwlockPauseUpdates);
    return sts;
}

KEM_STS_T KemSdUnpauseWriteIO(void* tctxpv)
{
    OV_THDCTX_T* const thread = threadContext(tctxpv);
    if (!thread) return SDSTS_INVALID_PARAM;
    endPause(*thread);
    return 0;
}

KEM_STS_T KemSdLeasedFileWrite(void* tctxpv, KEM_FILEHDL_T hFile, KEM_PVOID_T pvBuf, KEM_UINT_T uiCnt,
                               KEM_PINT_T piWritten)
{
    return writeUnderLease(tctxpv,
                           [=](KEM_PSDCTX_T ctx) { return KemSdFileWrite(ctx, hFile, pvBuf, uiCnt, piWritten); });
}

KEM_STS_T KemSdLeasedFilePWrite(void* tctxpv, KEM_FILEHDL_T hFile, KEM_PVOID_T pvData, KEM_LONG_T lFileOffset,
                                KEM_UINT_T nBytesToWrite, KEM_PUINT_T pnBytesWritten, KEM_POSRETCODE_T pOsRetCode)
{
    return writeUnderLease(tctxpv, [=](KEM_PSDCTX_T ctx) {
        return KemSdFilePWrite(ctx, hFile, pvData, lFileOffset, nBytesToWrite, pnBytesWritten, pOsRetCode);
    });
}
