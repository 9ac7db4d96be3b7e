// Word-sized atomics, the re-entrant spinlock in both its variants, and the process's lock tunables.
//
// A spinlock is pure user space: no kernel object, no list of locks, no memory beyond its own 256 bytes. The
// uncontended paths stand in sd/base/spinlock.h; here are the waiting loops, which hold nothing while they pause or
// yield, and the ABI. No call of this file writes a context. The tunables are read from the environment once, without a
// lock, before the server starts its worker threads.

#include <sched.h>

#include <kemsd/memory.h>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sd/base/spinlock.h"
#include "sd/sdsyncinit.h"

constinit OV_BOOL_T bSdHardwareAcceleration = FALSE;
constinit int64_t KEM_SDSYNC_ENV_INITED = 0;
constinit int64_t KEM_SPINLOCK_MAXSPINLOOPS = 1;
constinit int64_t KEM_SPINLOCK_MAXSPINYIELDS = 1;
constinit int64_t KEM_SPINLOCK_MAXWAITLOOPS = 0;
constinit int64_t KEM_RWLOCK_RMAXSPINLOOPS = 1;
constinit int64_t KEM_RWLOCK_RMAXSPINYIELDS = 0;
constinit int64_t KEM_RWLOCK_RMAXWAITLOOPS = 1;
constinit int64_t KEM_RWLOCK_WMAXSPINLOOPS = 1;
constinit int64_t KEM_RWLOCK_WMAXSPINYIELDS = 0;
constinit int64_t KEM_RWLOCK_WMAXWAITLOOPS = 1;
constinit volatile int64_t KEM_SDSYNC_BUSYSPIN_UPPERLIMIT = 20000;
constinit volatile int64_t lTotalNumOfSpinlocks = 0;

namespace {

using sd::addUnlocked;
using sd::granted;
using sd::hardwareAcceleration;
using sd::loadAcquire;
using sd::loadRelaxed;
using sd::pauseHint;
using sd::spinBound;
using sd::storeRelaxed;
using sd::storeRelease;
using sd::Try;

// Operators find the locks of the exchange variant under this tag, whoever creates them.
constexpr const char* kSource = "sd/sdsync";
constexpr long kCreateLine = 617;
constexpr long kDestroyLine = 661;

constexpr size_t kCacheLineBytes = 64;
constexpr KEM_LONG_T kInitialSpinTime = 256;

// ---- Waiting

// Deliberate: the exchange variant counts in 32 bits. Under a bound beyond them the count wraps and never yields.
constexpr int32_t nextRound(int32_t round) { return static_cast<int32_t>(static_cast<uint32_t>(round) + 1); }
static_assert(nextRound(0) == 1 && nextRound(INT32_MAX) == INT32_MIN);

// Whether a waiter keeps the spin bound that it found on arrival or looks at it again in every round.
enum class Bound { Kept, Reread };

void waitForGrant(const KEM_SPINLOCK_TICKET_T& lock, KEM_SDATOMIC_T ticket, Bound bound)
{
    int64_t limit = spinBound();
    for (int64_t round = 0;;) {
        pauseHint();
        if (granted(lock.grant, ticket)) return;
        if (bound == Bound::Reread) limit = spinBound();
        if (++round < limit) continue;
        if (granted(lock.grant, ticket)) return;
        sched_yield();
        round = 0;
    }
}

// ---- Without re-entry: one acquisition, one release

void ownTicketOnce(KEM_SPINLOCK_TICKET_T& lock, KEM_SDATOMIC_T ticket, KEM_THDID_T id)
{
    storeRelaxed(lock.thdMasterId, id);
    storeRelease(lock.lOwnerTicket, ticket); // whoever reads this ticket finds its owner
}

[[gnu::noinline]] void waitTicketOnce(KEM_SPINLOCK_TICKET_T& lock, KEM_SDATOMIC_T ticket, KEM_THDID_T id)
{
    waitForGrant(lock, ticket, Bound::Reread);
    ownTicketOnce(lock, ticket, id);
}

void acquireTicketOnce(KEM_SPINLOCK_TICKET_T& lock, KEM_THDID_T id)
{
    const KEM_SDATOMIC_T ticket = sd::drawTicket(lock.lTicket);
    if (!granted(lock.grant, ticket)) [[unlikely]]
        return waitTicketOnce(lock, ticket, id);
    ownTicketOnce(lock, ticket, id);
}

// Frees the lock whatever its depth was.
void releaseExchangeOnce(KEM_SPINLOCK_XCHG_T& lock)
{
    addUnlocked(lock.sLockCount, -1);
    sd::freeExchange(lock);
}

// ---- The tunables

struct Tunable {
    const char* name; // of the environment variable, and of its line of output
    int64_t* value;
    long least;     // the smallest value taken as it stands
    long otherwise; // what a smaller one becomes
};

constexpr Tunable kTunables[] = {
    {"KEM_SPINLOCK_MAXSPINLOOPS", &KEM_SPINLOCK_MAXSPINLOOPS, 1, 1},
    {"KEM_SPINLOCK_MAXSPINYIELDS", &KEM_SPINLOCK_MAXSPINYIELDS, 1, 1},
    {"KEM_SPINLOCK_MAXWAITLOOPS", &KEM_SPINLOCK_MAXWAITLOOPS, LONG_MIN, LONG_MIN},
    {"KEM_RWLOCK_RMAXSPINLOOPS", &KEM_RWLOCK_RMAXSPINLOOPS, 0, 1},
    {"KEM_RWLOCK_RMAXSPINYIELDS", &KEM_RWLOCK_RMAXSPINYIELDS, 0, 0},
    {"KEM_RWLOCK_RMAXWAITLOOPS", &KEM_RWLOCK_RMAXWAITLOOPS, 0, 1},
    {"KEM_RWLOCK_WMAXSPINLOOPS", &KEM_RWLOCK_WMAXSPINLOOPS, 0, 1},
    {"KEM_RWLOCK_WMAXSPINYIELDS", &KEM_RWLOCK_WMAXSPINYIELDS, 0, 0},
    {"KEM_RWLOCK_WMAXWAITLOOPS", &KEM_RWLOCK_WMAXWAITLOOPS, 0, 1},
};

// Deliberate: text that is no number counts as 0, and what follows a number is ignored.
long bounded(const Tunable& tunable, const char* text)
{
    const long value = strtol(text, nullptr, 10);
    return value >= tunable.least ? value : tunable.otherwise;
}

void readTunables()
{
    for (const Tunable& tunable : kTunables) {
        const char* text = getenv(tunable.name);
        if (!text) continue;
        storeRelaxed(*tunable.value, bounded(tunable, text));
        // Deliberate: a given wait count looks at the spin count. Only a server that itself stored a negative one
        // sees a difference.
        if (tunable.value == &KEM_SPINLOCK_MAXWAITLOOPS && loadRelaxed(KEM_SPINLOCK_MAXSPINLOOPS) <= 0)
            storeRelaxed(KEM_SPINLOCK_MAXSPINLOOPS, 0);
    }
}

void printTunables()
{
    for (const Tunable& tunable : kTunables) printf("%s=%ld\n", tunable.name, loadRelaxed(*tunable.value));
}

} // namespace

namespace sd {

void awaitExchange(volatile int64_t& slock, Try last)
{
    int32_t round = 0;
    do {
        // A lost race yields at once: the lock is busy enough that spinning would only disturb its owner.
        if (last == Try::RaceLost || round >= spinBound()) {
            sched_yield();
            round = 0;
        } else {
            pauseHint();
            round = nextRound(round);
        }
        last = tryExchange(slock);
    } while (last != Try::Taken);
}

void yieldAfterRace(Try result)
{
    if (result == Try::RaceLost) sched_yield();
}

void waitTicket(KEM_SPINLOCK_TICKET_T& lock, KEM_SDATOMIC_T ticket, KEM_THDID_T id)
{
    waitForGrant(lock, ticket, Bound::Kept);
    ownTicket(lock, ticket, id);
}

} // namespace sd

// ---- Atomics: sequentially consistent, each a locked instruction

int64_t KemSdAtomicAdd(volatile KEM_SDATOMIC_T* store, int64_t v)
{
    return __atomic_fetch_add(store, v, __ATOMIC_SEQ_CST);
}

int64_t KemSdAtomicIncrement(volatile KEM_SDATOMIC_T* store) { return KemSdAtomicAdd(store, 1); }

int64_t KemSdAtomicDecrement(volatile KEM_SDATOMIC_T* store) { return KemSdAtomicAdd(store, -1); }

void KemSdAtomicSet(volatile KEM_SDATOMIC_T* store) { KemSdAtomicCompareAndSwap(store, 0, 1); }

void KemSdAtomicUnset(volatile KEM_SDATOMIC_T* store) { KemSdAtomicCompareAndSwap(store, 1, 0); }

void KemSdBitAnd(volatile KEM_SDATOMIC_T* store, int64_t value)
{
    int64_t seen = loadRelaxed(*store);
    // A failed swap leaves the store's present value in `seen`.
    while (!__atomic_compare_exchange_n(store, &seen, seen & value, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) {
    }
}

KEM_BOOL_T KemSdAtomicCompareAndSwap(volatile KEM_SDATOMIC_T* store, int64_t old_value, int64_t new_value)
{
    return __atomic_compare_exchange_n(store, &old_value, new_value, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

// Deliberate: the store comes last here, first everywhere else.
KEM_BOOL_T KemSdCmpXchgPtr(void* oldValue, void* newValue, void* volatile* store)
{
    return __atomic_compare_exchange_n(store, &oldValue, newValue, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

KEM_BOOL_T KemSdCmpXchg2(KEM_DWATOMIC_T, KEM_DWATOMIC_T, volatile KEM_DWATOMIC_T*) { return FALSE; }

// Deliberate: the caller that resets the store receives 0, and so does the next: 0 is handed out twice in each cycle.
int64_t KemSdAtomicIncrementWithCap(volatile KEM_SDATOMIC_T* store, int64_t cap)
{
    int64_t ticket = KemSdAtomicIncrement(store);
    while (ticket > cap) {
        const int64_t current = __atomic_load_n(store, __ATOMIC_SEQ_CST);
        if (current <= cap)
            ticket = KemSdAtomicIncrement(store);
        else if (KemSdAtomicCompareAndSwap(store, current, 0))
            return 0;
    }
    return ticket;
}

// Acquire: pairs with whatever store set the byte, so that what was written before it is seen after the wait.
void KemSdWaitUntilTrue(volatile KEM_BOOL_T* pbFree)
{
    while (!loadAcquire(*pbFree)) pauseHint();
}

void KemSdWaitUntilFalse(volatile KEM_BOOL_T* pbFree)
{
    while (loadAcquire(*pbFree)) pauseHint();
}

// Deliberate: the locked instructions and the locks' own release stores are the only ordering there is.
void KemSdMemoryBarrier(void) {}

// ---- Spinlocks

KEM_PSPINLOCK_T KemSdSpinlockCreate(KEM_PSDCTX_T pSdCtx, const char* createFile, long createLine)
{
    KemSyncEnvInit(pSdCtx);
    void* storage = nullptr;
    const int sts = hardwareAcceleration() ? ovMallocAligned(nullptr, kCacheLineBytes, sizeof(KEM_SPINLOCK_T), &storage,
                                                             createFile, createLine)
                                           : ovMalloc(nullptr, sizeof(KEM_SPINLOCK_T), &storage, kSource, kCreateLine);
    if (sts != 0) return nullptr;
    const auto lock = static_cast<KEM_PSPINLOCK_T>(storage);
    KemSdSpinlockInit(pSdCtx, lock);
    return lock;
}

void KemSdSpinlockInit(KEM_PSDCTX_T, KEM_PSPINLOCK_T pSpinlock)
{
    memset(pSpinlock, 0, sizeof *pSpinlock); // a free ticket lock
    if (hardwareAcceleration()) return;
    pSpinlock->xchg.lSpinTime = kInitialSpinTime;
    storeRelaxed(pSpinlock->xchg.slock, 1);
}

void KemSdSpinlockAcquire(KEM_PSPINLOCK_T pSpinlock, KEM_THDID_T RequestorId) { sd::acquire(*pSpinlock, RequestorId); }

void KemSdSpinlockAcquireNonReentrant(KEM_PSPINLOCK_T pSpinlock, KEM_THDID_T RequestorId)
{
    // Deliberate: the exchange variant tests for the owner and counts here too; an owner of the ticket variant would
    // wait for itself for ever.
    if (hardwareAcceleration())
        acquireTicketOnce(pSpinlock->ticket, RequestorId);
    else
        sd::acquireExchange(pSpinlock->xchg, RequestorId);
}

void KemSdSpinlockRelease(KEM_PSPINLOCK_T pSpinlock) { sd::release(*pSpinlock); }

void KemSdSpinlockReleaseNonReentrant(KEM_PSPINLOCK_T pSpinlock)
{
    if (hardwareAcceleration())
        sd::grantNext(pSpinlock->ticket);
    else
        releaseExchangeOnce(pSpinlock->xchg);
}

KEM_BOOL_T KemSdSpinlockOwner(KEM_PSPINLOCK_T pSpinlock, KEM_THDID_T ThreadId)
{
    const KEM_THDID_T owner =
        hardwareAcceleration() ? loadRelaxed(pSpinlock->ticket.thdMasterId) : loadRelaxed(pSpinlock->xchg.thdMasterId);
    return owner == ThreadId;
}

int16_t KemSdGetSpinlockRefCount(KEM_PSPINLOCK_T pSpinlock)
{
    return hardwareAcceleration() ? loadAcquire(pSpinlock->ticket.sLockCount) : loadAcquire(pSpinlock->xchg.sLockCount);
}

void KemSdSpinlockTerm(KEM_PSPINLOCK_T) {}

void KemSdSpinlockDestroy(KEM_PSDCTX_T, KEM_PSPINLOCK_T pSpinlock, const char* file, long line)
{
    if (!pSpinlock) return;
    KemSdSpinlockTerm(pSpinlock);
    if (hardwareAcceleration())
        ovFreeAligned(pSpinlock, kCacheLineBytes, file, line);
    else
        ovFree(pSpinlock, kSource, kDestroyLine);
}

int64_t KemSdGetSpinlockCount(void) { return loadRelaxed(lTotalNumOfSpinlocks); }

void* KemSdGetFirstAllocSpinlock(void) { return nullptr; }

void KemSdSetHardwareAcceleration(KEM_BOOL_T bUseHardwareAcceleration)
{
    storeRelaxed(bSdHardwareAcceleration, bUseHardwareAcceleration);
}

void KemSyncEnvInit(KEM_PSDCTX_T)
{
    // Acquire: pairs with the release store below, so that who finds the environment set up finds the tunables too.
    if (loadAcquire(KEM_SDSYNC_ENV_INITED) != 0 || sd::settingUpLocks) return;
    sd::settingUpLocks = true;
    int64_t limit;
    KemGetSpinUpperLimit(&limit); // Deliberate: a failure goes unsaid; the locks work with the bound as it was
    readTunables();
    if (getenv("KEM_DISPLAY_LOCKCONFIG")) printTunables();
    sd::settingUpLocks = false;
    storeRelease(KEM_SDSYNC_ENV_INITED, 1);
}

void KemSyncEnvTerm(KEM_PSDCTX_T) { storeRelease(KEM_SDSYNC_ENV_INITED, 0); }
