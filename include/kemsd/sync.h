/* Atomics and the re-entrant spinlock with tunable spinning. */
#ifndef KEMSD_SYNC_H
#define KEMSD_SYNC_H

#include <kemsd/context.h>

KEM_EXTERN_C_BEGIN

/* ---- Atomics ----------------------------------------------------------------------------------------------------
 * Locked, sequentially consistent operations on 64-bit words that any threads share. No pointer may be null.
 *
 *     static volatile KEM_SDATOMIC_T users;
 *     if (KemSdAtomicDecrement(&users) == 1) closeDown();    // the last one
 */

/* A double-width value; the double-width swap is not provided on this platform. */
typedef struct KEM_DWATOMIC_T {
    int64_t hi;
    int64_t low;
} KEM_DWATOMIC_T;

/* Each adds (v, 1, -1) to *store and returns the value before. The sum wraps. */
KEM_API int64_t KemSdAtomicAdd(volatile KEM_SDATOMIC_T* store, int64_t v);
KEM_API int64_t KemSdAtomicIncrement(volatile KEM_SDATOMIC_T* store);
KEM_API int64_t KemSdAtomicDecrement(volatile KEM_SDATOMIC_T* store);

/* Set turns a 0 into 1, Unset a 1 into 0; a store that holds anything else is left alone. */
KEM_API void KemSdAtomicSet(volatile KEM_SDATOMIC_T* store);
KEM_API void KemSdAtomicUnset(volatile KEM_SDATOMIC_T* store);

/* Replaces *store with *store AND value. */
KEM_API void KemSdBitAnd(volatile KEM_SDATOMIC_T* store, int64_t value);

/* TRUE when the store held the old value and now holds the new one; FALSE leaves it alone. KemSdCmpXchgPtr takes the
 * store last. */
KEM_API KEM_BOOL_T KemSdAtomicCompareAndSwap(volatile KEM_SDATOMIC_T* store, int64_t old_value, int64_t new_value);
KEM_API KEM_BOOL_T KemSdCmpXchgPtr(void* oldValue, void* newValue, void* volatile* store);

/* Always FALSE; the store is never touched and may be null. */
KEM_API KEM_BOOL_T KemSdCmpXchg2(KEM_DWATOMIC_T oldValue, KEM_DWATOMIC_T newValue, volatile KEM_DWATOMIC_T* store);

/* Hands out tickets 0 to cap (0 or more) round and round, from a store that starts at 0. In each cycle 0 is handed out
 * twice: alone, with cap 2, callers get 0 1 2 0 0 1 2 0 0 1 2 ... */
KEM_API int64_t KemSdAtomicIncrementWithCap(volatile KEM_SDATOMIC_T* store, int64_t cap);

/* Return once the byte reads non-zero (zero). They spin with the processor's spin-wait hint and never yield, so they
 * are for waits of a few instructions. What was written before the byte was set (cleared) by a release store is seen
 * after the return. */
KEM_API void KemSdWaitUntilTrue(volatile KEM_BOOL_T* pbFree);
KEM_API void KemSdWaitUntilFalse(volatile KEM_BOOL_T* pbFree);

/* Does nothing and is no barrier; order comes from the atomics above and from the locks. */
KEM_API void KemSdMemoryBarrier(void);

/* ---- Spinlocks --------------------------------------------------------------------------------------------------
 * For critical sections of a few instructions: a waiter spins in user space, and yields the processor after
 * KEM_SDSYNC_BUSYSPIN_UPPERLIMIT rounds. No call stores a status; pSdCtx may be null everywhere, pSpinlock only where
 * it is said. Any thread may call anything at any time, but the switch between the variants is set once, at start-up.
 *
 *     KEM_PSPINLOCK_T lock = KemSdSpinlockCreate(ctx, __FILE__, __LINE__);
 *     KemSdSpinlockAcquire(lock, pthread_self());
 *     ...
 *     KemSdSpinlockRelease(lock);
 *     KemSdSpinlockDestroy(ctx, lock, __FILE__, __LINE__);
 *
 * Misuse is not detected: releasing a lock that another thread holds frees it under that thread's feet. */

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

/* 256 bytes. Storage of the caller's own is to be 64-byte aligned when the ticket variant is in force. */
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

/* 1 once KemSyncEnvInit has run. */
KEM_API extern int64_t KEM_SDSYNC_ENV_INITED;

/* The tunables, with their values before the environment is read: 1, 1, 0. The spinlocks spin by
 * KEM_SDSYNC_BUSYSPIN_UPPERLIMIT alone; these three are kept for the rest of the server. */
KEM_API extern int64_t KEM_SPINLOCK_MAXSPINLOOPS;
KEM_API extern int64_t KEM_SPINLOCK_MAXSPINYIELDS;
KEM_API extern int64_t KEM_SPINLOCK_MAXWAITLOOPS;
/* Spin loops, yields and waits of readers (R) and writers (W) of the reader-writer lock: 1, 0, 1 each. */
KEM_API extern int64_t KEM_RWLOCK_RMAXSPINLOOPS;
KEM_API extern int64_t KEM_RWLOCK_RMAXSPINYIELDS;
KEM_API extern int64_t KEM_RWLOCK_RMAXWAITLOOPS;
KEM_API extern int64_t KEM_RWLOCK_WMAXSPINLOOPS;
KEM_API extern int64_t KEM_RWLOCK_WMAXSPINYIELDS;
KEM_API extern int64_t KEM_RWLOCK_WMAXWAITLOOPS;

/* Rounds of the spin-wait hint before a waiter yields, 20000 at first; 0 or less: it yields in every round. */
KEM_API extern volatile int64_t KEM_SDSYNC_BUSYSPIN_UPPERLIMIT;
/* 0; the library never changes it: the embedding server may. */
KEM_API extern volatile int64_t lTotalNumOfSpinlocks;

/* A new, free lock, or null when memory runs out. The first one runs KemSyncEnvInit. In the ticket variant the lock is
 * 64-byte aligned while the thread heaps are off, and its memory is accounted to createFile and createLine; in the
 * exchange variant to the fixed tag "sd/sdsync", 617. */
KEM_API KEM_PSPINLOCK_T KemSdSpinlockCreate(KEM_PSDCTX_T pSdCtx, const char* createFile, long createLine);

/* Makes a free lock of the caller's 256 bytes. Does not run KemSyncEnvInit. */
KEM_API void KemSdSpinlockInit(KEM_PSDCTX_T pSdCtx, KEM_PSPINLOCK_T pSpinlock);

/* Returns holding the lock. RequestorId is the calling thread's own id, as pthread_self gives it, and not 0. A thread
 * that holds the lock already goes one level deeper, 32767 at most, and needs as many releases as acquisitions. */
KEM_API void KemSdSpinlockAcquire(KEM_PSPINLOCK_T pSpinlock, KEM_THDID_T RequestorId);

/* The same for a caller that never holds the lock already, to be undone by KemSdSpinlockReleaseNonReentrant. In the
 * ticket variant a thread that does hold it waits for itself for ever; in the exchange variant it goes one level
 * deeper and returns. */
KEM_API void KemSdSpinlockAcquireNonReentrant(KEM_PSPINLOCK_T pSpinlock, KEM_THDID_T RequestorId);

/* Undoes one KemSdSpinlockAcquire; the lock is free when the depth has fallen to 0 or below. */
KEM_API void KemSdSpinlockRelease(KEM_PSPINLOCK_T pSpinlock);

/* Undoes one KemSdSpinlockAcquireNonReentrant: frees the lock whatever its depth. */
KEM_API void KemSdSpinlockReleaseNonReentrant(KEM_PSPINLOCK_T pSpinlock);

/* TRUE when that thread holds the lock. Certain only for the calling thread's own id. */
KEM_API KEM_BOOL_T KemSdSpinlockOwner(KEM_PSPINLOCK_T pSpinlock, KEM_THDID_T ThreadId);

/* The present owner's depth; 0 when free. KemSdSpinlockAcquireNonReentrant does not count in the ticket variant. */
KEM_API int16_t KemSdGetSpinlockRefCount(KEM_PSPINLOCK_T pSpinlock);

/* Does nothing. */
KEM_API void KemSdSpinlockTerm(KEM_PSPINLOCK_T pSpinlock);

/* Frees a lock that KemSdSpinlockCreate made; null is ignored. The memory's release is tagged like its allocation:
 * with file and line in the ticket variant, with "sd/sdsync", 661 in the exchange variant. */
KEM_API void KemSdSpinlockDestroy(KEM_PSDCTX_T pSdCtx, KEM_PSPINLOCK_T pSpinlock, const char* file, long line);

/* lTotalNumOfSpinlocks. */
KEM_API int64_t KemSdGetSpinlockCount(void);

/* Always null: there is no list of locks. */
KEM_API void* KemSdGetFirstAllocSpinlock(void);

/* Stores bSdHardwareAcceleration. Every call on a lock reads it and a lock does not know its variant, so it must never
 * change while locks exist. */
KEM_API void KemSdSetHardwareAcceleration(KEM_BOOL_T bUseHardwareAcceleration);

/* Reads the environment variables of the tunables' names, once: a second call does nothing. It takes no lock; the
 * server calls it, or creates its first lock, before it starts other threads. An absent variable leaves its tunable
 * alone; text counts as its leading decimal number, 0 if there is none. KEM_SPINLOCK_MAXSPINLOOPS and _MAXSPINYIELDS
 * below 1 become 1; KEM_SPINLOCK_MAXWAITLOOPS is taken as it stands; negative KEM_RWLOCK_... become 0 for yields, 1 for
 * loops. When KEM_DISPLAY_LOCKCONFIG is set, even to nothing, the nine tunables are printed on standard output, a line
 * NAME=value each. */
KEM_API void KemSyncEnvInit(KEM_PSDCTX_T pSdCtx);

/* Makes the next KemSyncEnvInit run again in full. The tunables keep their values. */
KEM_API void KemSyncEnvTerm(KEM_PSDCTX_T pSdCtx);

KEM_EXTERN_C_END

#endif
