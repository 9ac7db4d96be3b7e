// The spinlock's two small relatives: the lightweight lock, which lives inside the caller's record and finds out by
// itself who calls, and the legacy lock, which spins by a count of its own and keeps a record of who holds it.
//
// Both are pure user space. The lightweight lock's exchange variant is that of sd/base/spinlock.h; its ticket variant
// and the legacy lock have waiting loops of their own, here, which hold nothing while they pause or yield. Orders are
// those of the spinlock: taking is a locked instruction, making free a release store that the next owner's exchange of
// `slock` or read of `grant` pairs with. No call of this file writes a context.

#include <sched.h>

#include <cstring>

#include "sd/base/invariant.h"
#include "sd/base/spinlock.h"
#include "sd/base/thread.h"

namespace {

using sd::addUnlocked;
using sd::currentThread;
using sd::granted;
using sd::hardwareAcceleration;
using sd::loadRelaxed;
using sd::storeRelaxed;
using sd::storeRelease;
using sd::Try;

constexpr KEM_LONG_T kInitialSpinTime = 256;

// ---- Lightweight, exchange variant

// Deliberate: nobody asks who releases, unlike in the ticket variant. Only a depth of exactly 0 frees: releasing a free
// lock counts below 0 and changes nothing else.
void releaseExchange(KEM_LWSPINLOCK_XCHG_T& lock)
{
    if (addUnlocked(lock.count, -1) != 1) [[unlikely]]
        return;
    sd::freeExchange(lock);
}

// ---- Lightweight, ticket variant

constexpr sd::SourcePoint kReleaseTicket{"sd/sdlwsync", 302, "KemSdLWSpinlockReleaseTicket"};

// One round of spinning; true when the ticket has been granted.
bool spinForGrant(const KEM_LWSPINLOCK_TICKET_T& lock, KEM_SDATOMIC_T ticket)
{
    for (int64_t round = 0; round < sd::spinBound(); ++round) {
        sd::pauseHint();
        if (granted(lock.grant, ticket)) return true;
    }
    return granted(lock.grant, ticket);
}

void ownTicket(KEM_LWSPINLOCK_TICKET_T& lock, KEM_THDID_T id)
{
    storeRelaxed(lock.count, 1);
    storeRelease(lock.ThdId, id); // whoever reads the owner finds the depth
}

// Deliberate: unlike the spinlock's waiter this one does not pause at all under a bound of 0 or less, and looks at the
// grant between a yield and the next pause.
[[gnu::noinline]] void waitTicket(KEM_LWSPINLOCK_TICKET_T& lock, KEM_SDATOMIC_T ticket, KEM_THDID_T id)
{
    while (!spinForGrant(lock, ticket)) {
        sched_yield();
        if (granted(lock.grant, ticket)) break;
    }
    ownTicket(lock, id);
}

void acquireTicket(KEM_LWSPINLOCK_TICKET_T& lock, KEM_THDID_T id)
{
    if (loadRelaxed(lock.ThdId) == id) [[unlikely]] {
        addUnlocked(lock.count, 1);
        return;
    }
    const KEM_SDATOMIC_T ticket = sd::drawTicket(lock.ticket);
    if (!granted(lock.grant, ticket)) [[unlikely]]
        return waitTicket(lock, ticket, id);
    ownTicket(lock, id);
}

void releaseTicket(KEM_LWSPINLOCK_TICKET_T* pLWLockticket, KEM_THDID_T ThdId)
{
    SD_INVARIANT(kReleaseTicket, ThdId == pLWLockticket->ThdId);
    if (addUnlocked(pLWLockticket->count, -1) != 1) [[unlikely]]
        return;
    storeRelaxed(pLWLockticket->ThdId, 0);
    // Hands over: pairs with the next owner's read of `grant`, which its owner alone writes.
    storeRelease(pLWLockticket->grant, loadRelaxed(pLWLockticket->grant) + 1);
}

void clearTicket(KEM_LWSPINLOCK_TICKET_T& lock)
{
    storeRelaxed(lock.grant, 0);
    storeRelaxed(lock.ticket, 0);
    storeRelaxed(lock.count, 0);
    storeRelaxed(lock.ThdId, 0);
}

// ---- Legacy

// Reads the lock of another owner as often as its spin time says; true when it was found free.
// Deliberate: without the spin-wait hint. The spin time counts reads.
bool seenFree(const KEM_OLDSPINLOCK_T& lock)
{
    bool free = false;
    for (KEM_LONG_T left = loadRelaxed(lock.lSpinTime); !free && left > 0; --left) free = loadRelaxed(lock.slock) != 0;
    return free;
}

// An acquisition and its source position.
struct Holder {
    KEM_THDID_T id;
    const char* file;
    long line;
};

void ownLegacy(KEM_OLDSPINLOCK_T& lock, const Holder& holder)
{
    addUnlocked(lock.sGetCount, 1);
    storeRelaxed(lock.thdMasterId, holder.id);
    storeRelaxed(lock.sLockCount, 1);
    storeRelaxed(lock.pszHolderFile, holder.file);
    storeRelaxed(lock.sHolderLine, static_cast<KEM_LONG_T>(holder.line));
}

// Goes on after a first attempt that ended otherwise than Taken.
[[gnu::noinline]] void waitLegacy(KEM_OLDSPINLOCK_T& lock, Try last, Holder holder)
{
    uint32_t yields = 0;
    while (last != Try::Taken) {
        if (last == Try::Held && seenFree(lock) && sd::takeLowestByte(lock.slock)) break;
        ++yields;
        sched_yield();
        last = sd::tryExchange(lock.slock);
    }
    addUnlocked(lock.sYieldCount, static_cast<KEM_LONG_T>(yields));
    ownLegacy(lock, holder);
}

} // namespace

// ---- Lightweight spinlocks

void KemSdLWSpinlockInit(KEM_LWSPINLOCK_T* pLWLock)
{
    if (hardwareAcceleration())
        KemSdLWSpinlockInitTicket(pLWLock);
    else
        KemSdLWSpinlockInitXchg(pLWLock);
}

void KemSdLWSpinlockInitTicket(KEM_LWSPINLOCK_T* pLWLock) { clearTicket(pLWLock->ticket); }

void KemSdLWSpinlockInitXchg(KEM_LWSPINLOCK_T* pSpinlock)
{
    memset(pSpinlock, 0, sizeof *pSpinlock);
    pSpinlock->xchg.lSpinTime = kInitialSpinTime;
    storeRelaxed(pSpinlock->xchg.slock, 1);
}

void KemSdLWSpinlockDestroy(KEM_LWSPINLOCK_T* pLWLock)
{
    if (hardwareAcceleration())
        KemSdLWSpinlockDestroyTicket(pLWLock);
    else
        KemSdLWSpinlockDestroyXchg(pLWLock);
}

void KemSdLWSpinlockDestroyTicket(KEM_LWSPINLOCK_T* pLWLock) { clearTicket(pLWLock->ticket); }

void KemSdLWSpinlockDestroyXchg(KEM_LWSPINLOCK_T* pLWLock)
{
    // Deliberate: a held lock stays held, so that whoever still uses it waits for ever instead of walking in.
    storeRelaxed(pLWLock->xchg.ThdId, 0);
    storeRelaxed(pLWLock->xchg.count, 0);
}

void KemSdLWSpinlockAcquire(KEM_LWSPINLOCK_T* pLWLock)
{
    if (hardwareAcceleration())
        acquireTicket(pLWLock->ticket, currentThread());
    else
        sd::acquireExchange(pLWLock->xchg, currentThread());
}

void KemSdLWSpinlockRelease(KEM_LWSPINLOCK_T* pLWLock)
{
    if (hardwareAcceleration())
        releaseTicket(&pLWLock->ticket, currentThread());
    else
        releaseExchange(pLWLock->xchg);
}

KEM_BOOL_T KemSdLWSpinlockOwner(KEM_LWSPINLOCK_T* pLWLock)
{
    return loadRelaxed(hardwareAcceleration() ? pLWLock->ticket.ThdId : pLWLock->xchg.ThdId) == currentThread();
}

// ---- Legacy spinlock

void KemSdOldSpinlockInit(KEM_PSDCTX_T, KEM_OLDSPINLOCK_T* pSpinlock)
{
    *pSpinlock = {};
    pSpinlock->lSpinTime = kInitialSpinTime;
    storeRelaxed(pSpinlock->slock, 1);
}

void KemSdOldSpinlockAcquire(KEM_PSDCTX_T, KEM_OLDSPINLOCK_T* pSpinlock, KEM_THDID_T thdId, const char* file, long line)
{
    KEM_OLDSPINLOCK_T& lock = *pSpinlock;
    if (loadRelaxed(lock.thdMasterId) == thdId) [[unlikely]] {
        addUnlocked(lock.sLockCount, 1);
        addUnlocked(lock.sGetCount, 1);
        return;
    }
    if (const Try first = sd::tryExchange(lock.slock); first != Try::Taken) [[unlikely]]
        return waitLegacy(lock, first, {thdId, file, line});
    ownLegacy(lock, {thdId, file, line});
}

void KemSdOldSpinlockRelease(KEM_PSDCTX_T, KEM_OLDSPINLOCK_T* pSpinlock)
{
    if (addUnlocked(pSpinlock->sLockCount, -1) != 1) return;
    storeRelaxed(pSpinlock->thdMasterId, 0);
    // Hands over: pairs with the exchange of the next owner. The holder's position stays, as a trace of the last one.
    storeRelease(pSpinlock->slock, 1);
}
