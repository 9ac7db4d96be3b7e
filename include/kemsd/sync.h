/* Atomics and the re-entrant spinlock with tunable spinning. */
#ifndef KEMSD_SYNC_H
#define KEMSD_SYNC_H

#include <kemsd/context.h>

KEM_EXTERN_C_BEGIN

/* ---- Atomics ---------------------------------------------------------------------------------------------------- */

/* A double-width value; the double-width swap is not provided on this platform. */
typedef struct KEM_DWATOMIC_T {
    int64_t hi;
    int64_t low;
} KEM_DWATOMIC_T;

KEM_API int64_t KemSdAtomicAdd(volatile KEM_SDATOMIC_T* store, int64_t v);
KEM_API int64_t KemSdAtomicIncrement(volatile KEM_SDATOMIC_T* store);
KEM_API int64_t KemSdAtomicDecrement(volatile KEM_SDATOMIC_T* store);
KEM_API void KemSdAtomicSet(volatile KEM_SDATOMIC_T* store);
KEM_API void KemSdAtomicUnset(volatile KEM_SDATOMIC_T* store);
KEM_API void KemSdBitAnd(volatile KEM_SDATOMIC_T* store, int64_t value);
KEM_API KEM_BOOL_T KemSdAtomicCompareAndSwap(volatile KEM_SDATOMIC_T* store, int64_t old_value, int64_t new_value);
KEM_API KEM_BOOL_T KemSdCmpXchgPtr(void* oldValue, void* newValue, void* volatile* store);
KEM_API KEM_BOOL_T KemSdCmpXchg2(KEM_DWATOMIC_T oldValue, KEM_DWATOMIC_T newValue, volatile KEM_DWATOMIC_T* store);
KEM_API int64_t KemSdAtomicIncrementWithCap(volatile KEM_SDATOMIC_T* store, int64_t cap);
KEM_API void KemSdWaitUntilTrue(volatile KEM_BOOL_T* pbFree);
KEM_API void KemSdWaitUntilFalse(volatile KEM_BOOL_T* pbFree);
KEM_API void KemSdMemoryBarrier(void);

/* ---- Spinlocks -------------------------------------------------------------------------------------------------- */

/* The exchange variant: one lock word, swapped. */
typedef struct KEM_SPINLOCK_XCHG_T {
    volatile int64_t slock;           /* 1 free, 0 held; taking it swaps the lowest byte with 0 */
    KEM_LONG_T lSpinTime;             /* 256 after initialisation; read by nothing */
    int64_t bAcqWithId;               /* always 0 */
    volatile KEM_THDID_T thdMasterId; /* owner, 0 when free */
    int16_t sLockCount;               /* re-entry depth of the owner */
} KEM_SPINLOCK_XCHG_T;

/* The ticket variant: first come, first served. The paddings keep `grant`, which waiters poll, and `lTicket`, which
 * arrivals increment, each on a 64-byte cache line of its own, away from the owner's bookkeeping. */
typedef struct KEM_SPINLOCK_TICKET_T {
    char padding0[64];
    KEM_SDATOMIC_T lOwnerTicket; /* the ticket held by the owner */
    KEM_THDID_T thdMasterId;     /* owner, 0 when free */
    int16_t sLockCount;          /* re-entry depth of the owner */
    char padding1[46];
    volatile KEM_SDATOMIC_T grant; /* the ticket allowed to enter */
    char padding2[56];
    volatile KEM_SDATOMIC_T lTicket; /* the next ticket to hand out */
    char padding3[56];
} KEM_SPINLOCK_TICKET_T;

typedef union KEM_SPINLOCK_T {
    KEM_SPINLOCK_XCHG_T xchg;
    KEM_SPINLOCK_TICKET_T ticket;
} KEM_SPINLOCK_T, *KEM_PSPINLOCK_T;

KEM_STATIC_ASSERT(offsetof(KEM_SPINLOCK_XCHG_T, bAcqWithId) == 16, "exchange layout");
KEM_STATIC_ASSERT(offsetof(KEM_SPINLOCK_XCHG_T, thdMasterId) == 24, "exchange layout");
KEM_STATIC_ASSERT(offsetof(KEM_SPINLOCK_XCHG_T, sLockCount) == 32, "exchange layout");
KEM_STATIC_ASSERT(offsetof(KEM_SPINLOCK_TICKET_T, lOwnerTicket) == 64, "the owner's line");
KEM_STATIC_ASSERT(offsetof(KEM_SPINLOCK_TICKET_T, grant) == 128, "the waiters' line");
KEM_STATIC_ASSERT(offsetof(KEM_SPINLOCK_TICKET_T, lTicket) == 192, "the arrivals' line");
KEM_STATIC_ASSERT(sizeof(KEM_SPINLOCK_T) == 256, "four cache lines");

/* A spinlock with its number, for diagnostics. */
typedef struct OV_SPINLOCK_T {
    KEM_PSPINLOCK_T pSpinlock;
    OV_ULONG_T slkno;
} OV_SPINLOCK_T;

/* TRUE selects the ticket variant of every lock, FALSE the exchange variant. Also read by the memory calls. Initially
 * FALSE; set it through KemSdSetHardwareAcceleration before the first lock exists and leave it. */
KEM_API extern OV_BOOL_T bSdHardwareAcceleration;

KEM_API extern int64_t KEM_SDSYNC_ENV_INITED;
KEM_API extern int64_t KEM_SPINLOCK_MAXSPINLOOPS;
KEM_API extern int64_t KEM_SPINLOCK_MAXSPINYIELDS;
KEM_API extern int64_t KEM_SPINLOCK_MAXWAITLOOPS;
KEM_API extern int64_t KEM_RWLOCK_RMAXSPINLOOPS;
KEM_API extern int64_t KEM_RWLOCK_RMAXSPINYIELDS;
KEM_API extern int64_t KEM_RWLOCK_RMAXWAITLOOPS;
KEM_API extern int64_t KEM_RWLOCK_WMAXSPINLOOPS;
KEM_API extern int64_t KEM_RWLOCK_WMAXSPINYIELDS;
KEM_API extern int64_t KEM_RWLOCK_WMAXWAITLOOPS;
/* Rounds of the spin-wait hint before a waiter yields. */
KEM_API extern volatile int64_t KEM_SDSYNC_BUSYSPIN_UPPERLIMIT;
/* The library never changes it: the embedding server may. */
KEM_API extern volatile int64_t lTotalNumOfSpinlocks;

KEM_API KEM_PSPINLOCK_T KemSdSpinlockCreate(KEM_PSDCTX_T pSdCtx, const char* createFile, long createLine);
KEM_API void KemSdSpinlockInit(KEM_PSDCTX_T pSdCtx, KEM_PSPINLOCK_T pSpinlock);
KEM_API void KemSdSpinlockAcquire(KEM_PSPINLOCK_T pSpinlock, KEM_THDID_T RequestorId);
KEM_API void KemSdSpinlockAcquireNonReentrant(KEM_PSPINLOCK_T pSpinlock, KEM_THDID_T RequestorId);
KEM_API void KemSdSpinlockRelease(KEM_PSPINLOCK_T pSpinlock);
KEM_API void KemSdSpinlockReleaseNonReentrant(KEM_PSPINLOCK_T pSpinlock);
KEM_API KEM_BOOL_T KemSdSpinlockOwner(KEM_PSPINLOCK_T pSpinlock, KEM_THDID_T ThreadId);
KEM_API int16_t KemSdGetSpinlockRefCount(KEM_PSPINLOCK_T pSpinlock);
KEM_API void KemSdSpinlockTerm(KEM_PSPINLOCK_T pSpinlock);
KEM_API void KemSdSpinlockDestroy(KEM_PSDCTX_T pSdCtx, KEM_PSPINLOCK_T pSpinlock, const char* file, long line);
KEM_API int64_t KemSdGetSpinlockCount(void);
KEM_API void* KemSdGetFirstAllocSpinlock(void);
KEM_API void KemSdSetHardwareAcceleration(KEM_BOOL_T bUseHardwareAcceleration);
KEM_API void KemSyncEnvInit(KEM_PSDCTX_T pSdCtx);
KEM_API void KemSyncEnvTerm(KEM_PSDCTX_T pSdCtx);

KEM_EXTERN_C_END

#endif
