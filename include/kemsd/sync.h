/* Synchronisation: atomics; spinlocks of three kinds and the calibration of their spinning; the queued reader-writer
 * lock; mutexes, events and semaphores for threads; semaphore sets shared between processes. */
#ifndef KEMSD_SYNC_H
#define KEMSD_SYNC_H

#include <kemsd/context.h>
#include <semaphore.h>

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

/* Calibrates the spin bound (below; a failure leaves it as it is) and reads the environment variables of the tunables'
 * names, once: a second call does nothing, nor does one by a thread that is inside already. It takes no lock; the
 * server calls it, or creates its first lock, before it starts other threads. An absent variable leaves its tunable
 * alone; text counts as its leading decimal number, 0 if there is none. KEM_SPINLOCK_MAXSPINLOOPS and _MAXSPINYIELDS
 * below 1 become 1; KEM_SPINLOCK_MAXWAITLOOPS is taken as it stands; negative KEM_RWLOCK_... become 0 for yields, 1 for
 * loops. When KEM_DISPLAY_LOCKCONFIG is set, even to nothing, the nine tunables are printed on standard output, a line
 * NAME=value each. */
KEM_API void KemSyncEnvInit(KEM_PSDCTX_T pSdCtx);

/* Makes the next KemSyncEnvInit run again in full. The tunables keep their values. */
KEM_API void KemSyncEnvTerm(KEM_PSDCTX_T pSdCtx);

/* ---- Spin-limit calibration --------------------------------------------------------------------------------------
 * Part of KemSyncEnvInit, which runs it once: the spin bound becomes the number of spin rounds that last as long as
 * handing the processor from one thread to another, measured by 10,000 round trips of one byte over two pipes. */

struct kem_pipehdl_t;

/* Shared by the calibrating thread and the two measuring threads; each field has one writer. */
typedef struct KemSyncEnvInitThrdArgs {
    KEM_STS_T sts1; /* how the first measuring thread ended */
    KEM_STS_T sts2; /* how the second one ended */
    struct kem_pipehdl_t* pPipeIn1;
    struct kem_pipehdl_t* pPipeOut1;
    struct kem_pipehdl_t* pPipeIn2;
    struct kem_pipehdl_t* pPipeOut2;
    double lDiffTimeCtxSwitch; /* microseconds that all round trips took */
    int64_t lNumOfTries;       /* round trips */
    volatile int64_t lReady1;  /* 1 once the first thread has seen the second one ready */
    volatile int64_t lReady2;  /* 1 once the second thread runs */
} KemSyncEnvInitThrdArgs;

/* The run condition of the spin-speed test: 1 after the first calibration. */
KEM_API extern volatile int64_t KEM_SDSYNC_BUSYSPIN_TEST_COND;
/* The number of processors that the last calibration found, 0 before. */
KEM_API extern KEM_ULONG_T KEM_SDSYNC_CPUCOUNT;

/* Calibrates: stores the bound in KEM_SDSYNC_BUSYSPIN_UPPERLIMIT and in *limit. On a single processor it is 1, without
 * measuring. 0 is a possible result: locks then yield after every failed attempt. Takes about a tenth of a second, and
 * during the spin test the bound is 400000, so no other thread may be waiting for a lock. The status is that of the
 * failing pipe or thread call; then, and when the clock has not moved, the bound stays as it was and *limit is not
 * written. Whatever happens, its threads have ended and its pipes are closed when it returns.
 * SDSTS_INVALID_PARAM: limit is null. */
KEM_API KEM_STS_T KemGetSpinUpperLimit(int64_t* limit);

/* The bodies of the two measuring threads. The first starts the second and joins it. They return their status. One that
 * fails closes the end that it writes and sets that to -1, so that the other one's read ends, too. */
KEM_API KEM_STS_T ovSdSyncMeasureContextSwitch1(KemSyncEnvInitThrdArgs* args);
KEM_API KEM_STS_T ovSdSyncMeasureContextSwitch2(KemSyncEnvInitThrdArgs* args);

/* ---- Lightweight spinlocks --------------------------------------------------------------------------------------
 * The small relative: 64 bytes inside the caller's own record, no allocation, and it finds out by itself who calls. The
 * variants, the re-entry and the spin bound are those of the spinlock above.
 *
 *     KemSdLWSpinlockInit(&record->lock);
 *     KemSdLWSpinlockAcquire(&record->lock);
 *     ...
 *     KemSdLWSpinlockRelease(&record->lock);
 */

/* First come, first served. */
typedef struct KEM_LWSPINLOCK_TICKET_T {
    volatile KEM_SDATOMIC_T grant; /* the ticket allowed to enter */
    KEM_SDATOMIC_T ticket;         /* the next ticket to hand out */
    uint64_t count;                /* re-entry depth of the owner */
    volatile KEM_THDID_T ThdId;    /* owner, 0 when free */
} KEM_LWSPINLOCK_TICKET_T;

typedef struct KEM_LWSPINLOCK_XCHG_T {
    volatile int64_t slock;     /* 1 free, 0 held; taking it swaps the lowest byte with 0 */
    KEM_LONG_T lSpinTime;       /* 256 after initialisation; read by nothing */
    int16_t count;              /* re-entry depth of the owner */
    volatile KEM_THDID_T ThdId; /* owner, 0 when free */
} KEM_LWSPINLOCK_XCHG_T;

typedef union KEM_LWSPINLOCK_T {
    KEM_LWSPINLOCK_TICKET_T ticket;
    KEM_LWSPINLOCK_XCHG_T xchg;
    char storage[64];
} KEM_LWSPINLOCK_T;

KEM_STATIC_ASSERT(offsetof(KEM_LWSPINLOCK_TICKET_T, ThdId) == 24, "ticket layout");
KEM_STATIC_ASSERT(offsetof(KEM_LWSPINLOCK_XCHG_T, count) == 12, "exchange layout");
KEM_STATIC_ASSERT(offsetof(KEM_LWSPINLOCK_XCHG_T, ThdId) == 16, "exchange layout");
KEM_STATIC_ASSERT(sizeof(KEM_LWSPINLOCK_T) == 64, "one cache line");

/* Make a free lock: of the variant in force, or of the one named. */
KEM_API void KemSdLWSpinlockInit(KEM_LWSPINLOCK_T* pLWLock);
KEM_API void KemSdLWSpinlockInitTicket(KEM_LWSPINLOCK_T* pLWLock);
KEM_API void KemSdLWSpinlockInitXchg(KEM_LWSPINLOCK_T* pSpinlock);

/* Clear the lock's words. A held exchange lock loses owner and depth but stays held. */
KEM_API void KemSdLWSpinlockDestroy(KEM_LWSPINLOCK_T* pLWLock);
KEM_API void KemSdLWSpinlockDestroyTicket(KEM_LWSPINLOCK_T* pLWLock);
KEM_API void KemSdLWSpinlockDestroyXchg(KEM_LWSPINLOCK_T* pLWLock);

/* Returns holding the lock; a thread that holds it goes one level deeper. */
KEM_API void KemSdLWSpinlockAcquire(KEM_LWSPINLOCK_T* pLWLock);

/* Undoes one acquisition; at depth 0 the lock is free. In the ticket variant a caller that is not the owner ends the
 * process with an assertion of "sd/sdlwsync"; the exchange variant does not check. */
KEM_API void KemSdLWSpinlockRelease(KEM_LWSPINLOCK_T* pLWLock);

/* TRUE when the calling thread holds the lock. */
KEM_API KEM_BOOL_T KemSdLWSpinlockOwner(KEM_LWSPINLOCK_T* pLWLock);

/* ---- Legacy spinlock --------------------------------------------------------------------------------------------
 * An exchange lock with a spin time of its own, and a record of who holds it and how often it was fought for. pSdCtx is
 * unused and nothing is reported. Neither fair nor checked. */

typedef struct KEM_OLDSPINLOCK_T {
    volatile int64_t slock;    /* 1 free, 0 held; taking it swaps the lowest byte with 0 */
    KEM_THDID_T thdMasterId;   /* owner, 0 when free */
    KEM_LONG_T lSpinTime;      /* reads before a yield, 256 at first; 0 or less: yield at once. The caller may set it */
    int16_t sLockCount;        /* re-entry depth of the owner */
    uint16_t usSpinlocktype;   /* 0 */
    const char* pszHolderFile; /* source position of the last acquisition that was no re-entry */
    KEM_LONG_T sHolderLine;
    KEM_LONG_T sYieldCount; /* yields of all waiters so far */
    KEM_LONG_T sGetCount;   /* acquisitions so far, re-entries included */
} KEM_OLDSPINLOCK_T;

KEM_STATIC_ASSERT(offsetof(KEM_OLDSPINLOCK_T, pszHolderFile) == 24, "legacy layout");
KEM_STATIC_ASSERT(sizeof(KEM_OLDSPINLOCK_T) == 48, "legacy layout");

KEM_API void KemSdOldSpinlockInit(KEM_PSDCTX_T pSdCtx, KEM_OLDSPINLOCK_T* pSpinlock);
/* thdId is the calling thread's own id; file is kept as a pointer. */
KEM_API void KemSdOldSpinlockAcquire(KEM_PSDCTX_T pSdCtx, KEM_OLDSPINLOCK_T* pSpinlock, KEM_THDID_T thdId,
                                     const char* file, long line);
KEM_API void KemSdOldSpinlockRelease(KEM_PSDCTX_T pSdCtx, KEM_OLDSPINLOCK_T* pSpinlock);

/* ---- Reader-writer lock -----------------------------------------------------------------------------------------
 * A queue lock: writers are served in the order of their arrival, waiting readers are admitted together. Every thread
 * waits on a word of its own. Locks are recursive. A thread keeps its queue nodes in a sync context of its own, one
 * node for each lock it has ever taken, so that taking a lock again allocates nothing.
 *
 *     KEM_RWLOCK_T lock;
 *     KemRWLockInit(ctx, 0, &lock, TRUE, RWLOCK_HASHSET_EXPLOCK);
 *
 *     static __thread KEM_SYNCCTX_T locks;              // each thread, zero at first
 *     KemSdStartRead(threadContext, &locks, &lock);
 *     ...
 *     KemSdEndRW(threadContext, &locks, &lock);
 *     KemRWLockFreeQNodes(&locks);                      // when the thread ends
 *
 * A lock has no end of its own: its memory may go when no thread holds it or waits for it, and every thread that took
 * it has freed its nodes or will never again meet a lock at that address. No call but KemRWLockInit takes a context. */

/* Which of the seven lists of a sync context the nodes of a lock live on; it has no effect on locking. */
typedef enum KEM_RWLOCK_CAT {
    RWLOCK_BLKCACHE_REUSABLEBINLOCK = 0,
    RWLOCK_DATCACHE_DATCBPOOLLOCK = 1,
    RWLOCK_KERNEL_KSMSEM = 2,
    RWLOCK_HASHSET_EXPLOCK = 3,
    RWLOCK_RESTRUCTURE_LOCK = 4,
    RWLOCK_BGTP_LOCK = 5,
    RWLOCK_PAUSEUPDATES_LOCK = 6
} KEM_RWLOCK_CAT;

#define KEM_RWLOCK_CAT_COUNT 7

/* The bits of lRdrCntAndFlags; the rest of the word is the number of active readers times RWLOCK_READER_UNIT. */
#define RWLOCK_WRITER_QUEUED 1   /* a writer heads the writer queue */
#define RWLOCK_WRITER_CLAIM 2    /* it has claimed the lock: the last reader to leave wakes it */
#define RWLOCK_READERS_WAITING 4 /* a batch of readers waits */
#define RWLOCK_READER_UNIT 8

/* A thread's place at one lock. */
typedef struct KEM_RWLOCKQNODE_T {
    volatile int64_t bBlocked;                 /* 1 while the owner waits; cleared by whoever lets it in */
    volatile int64_t bSuspended;               /* 1 while the owner sleeps on cond; under mutex */
    struct KEM_RWLOCKQNODE_T* volatile pQNext; /* writer: the next in line; reader: the one to wake after it */
    struct KEM_RWLOCKQNODE_T* pStrNext;        /* link in the owner's sync context */
    pthread_mutex_t mutex;                     /* for sleeping and waking alone */
    pthread_cond_t cond;
    int64_t bMode;                       /* 0 not held, 1 held for reading, 65535 for writing */
    int64_t sCount;                      /* recursion depth */
    void* pKey;                          /* the lock */
    int64_t lRdrMaxWaits, lWrtrMaxWaits; /* the lock's tunings at the node's creation */
    int64_t lCurrNumOfRdrYields, lCurrNumOfWrtrYields;
    int64_t lCurrNumOfRdrSpinLoops, lCurrNumOfWrtrSpinLoops; /* kept, not consulted */
} KEM_RWLOCKQNODE_T;

/* In storage of the caller's. Writers come and go quicker where it lies on a boundary of 16 bytes. */
typedef struct KEM_RWLOCK_T {
    KEM_RWLOCKQNODE_T* volatile pReaderHead; /* the last of the waiting readers; null when none waits */
    KEM_RWLOCKQNODE_T* volatile pWriterHead; /* the writer that the last reader to leave wakes */
    KEM_RWLOCKQNODE_T* volatile pWriterTail; /* the last writer in line; null when there is none */
    volatile KEM_SDATOMIC_T lRdrCntAndFlags;
    int64_t lRdrMaxSpinLoops, lWrtrMaxSpinLoops; /* spin passes of KEM_SDSYNC_BUSYSPIN_UPPERLIMIT rounds in a row */
    int64_t lRdrMaxYields, lWrtrMaxYields;       /* yields after them */
    int64_t lRdrMaxWaits, lWrtrMaxWaits;         /* passes and yields before sleeping; below 1: never sleep */
    KEM_UINT_T uiObjType;                        /* the caller's; stored only */
    KEM_BOOL_T bToSleep;                         /* FALSE: waiters spin without end and never enter the kernel */
    KEM_RWLOCK_CAT category;
} KEM_RWLOCK_T;

KEM_STATIC_ASSERT(offsetof(KEM_RWLOCK_T, lRdrCntAndFlags) == 24, "lock layout");
KEM_STATIC_ASSERT(sizeof(KEM_RWLOCK_T) == 96, "lock layout");

/* A thread's nodes: seven lists each. Zero at first; one a thread, used by no other. */
typedef struct KEM_SYNCCTX_T {
    void* pUsed;               /* nodes of locks that the thread holds */
    void* pFree;               /* cached nodes of locks that it does not hold */
    int64_t lDatCacheClockPtr; /* the caller's own */
} KEM_SYNCCTX_T;

/* Makes a free lock with the present tunings (KEM_RWLOCK_...); the first lock runs KemSyncEnvInit. 0.
 * SDSTS_INVALID_PARAM: pRWLock is null, or category is none of the seven. */
KEM_API KEM_STS_T KemRWLockInit(KEM_PSDCTX_T pSdCtx, OV_UINT_T uiSemType, KEM_RWLOCK_T* pRWLock, OV_BOOL_T bToSleep,
                                KEM_RWLOCK_CAT category);

/* Return holding the lock pSem for reading, or for writing. tctxp is the owner of what has to be allocated (as in
 * ovMalloc). A thread that holds the lock goes one level deeper and keeps its mode: reading inside writing is writing.
 * SDSTS_SEM_REQUEST: writing was asked for inside reading; the reading goes on. SDSTS_INVALID_PARAM: null pSyncCtx or
 * pSem. SDSTS_NO_MEMORY, or another status of the allocator: the lock was not taken. */
KEM_API KEM_STS_T KemSdStartRead(void* tctxp, KEM_SYNCCTX_T* pSyncCtx, void* pSem);
KEM_API KEM_STS_T KemSdStartWrite(void* tctxp, KEM_SYNCCTX_T* pSyncCtx, void* pSem);

/* Undoes one of them. SDSTS_SEM_CLEAR: the thread does not hold the lock. SDSTS_INVALID_PARAM: null pSyncCtx or pSem.
 * An allocator's status, possible at a thread's very first release: the lock is free all the same. */
KEM_API KEM_STS_T KemSdEndRW(void* tctxp, KEM_SYNCCTX_T* pSyncCtx, void* pSem);

/* How the calling thread holds the lock: 0 not at all, 1 for reading, 65535 for writing; and whether it does. */
KEM_API KEM_USHORT_T KemSdModeRW(void* tctxp, KEM_SYNCCTX_T* pSyncCtx, void* pSem);
KEM_API KEM_BOOL_T KemSdOwnerRW(void* tctxp, KEM_SYNCCTX_T* pSyncCtx, void* pSem);

/* Ends one node, which must be on no list any more, once a thread that is letting its owner in has left it. 0, or
 * SDSTS_INVALID_PARAM: pNode is null. */
KEM_API KEM_STS_T KemRWLockQNodeDestroy(void* tctxp, KEM_RWLOCKQNODE_T* pNode);

/* Ends all nodes of a thread that holds none of its locks any more and is about to end; the sync context may be used
 * again. 0, or SDSTS_INVALID_PARAM: pSyncCtx is null. */
KEM_API KEM_STS_T KemRWLockFreeQNodes(KEM_SYNCCTX_T* pSyncCtx);

/* ---- Mutexes and critical sections ------------------------------------------------------------------------------
 * For threads of one process, in the caller's memory; names are accepted and ignored. Neither recursive nor checked.
 * Time-outs here and below are milliseconds, -1 without limit, 0 not waiting. */

typedef pthread_mutex_t KEM_MUTEXHDL_T, *KEM_PMUTEXHDL_T;
typedef pthread_mutex_t KEM_CRITSECHDL_T, *KEM_PCRITSECHDL_T;

/* Make a free mutex; opening one makes it anew. osRetCode is the system's error number, 0 after an open.
 * SDSTS_INVALID_PARAM: phMutex is null. SDSTS_MUTEX_CREATE: the system refused. */
KEM_API KEM_FUNC_M KemSdMutexCreate(KEM_PSDCTX_T pSdCtx, const char* pszMutexName, KEM_PMUTEXHDL_T phMutex);
KEM_API KEM_FUNC_M KemSdMutexOpen(KEM_PSDCTX_T pSdCtx, const char* pszMutexName, KEM_PMUTEXHDL_T phMutex);

/* Takes the mutex. A positive lTimeout is coarse: an attempt a second, (lTimeout + 999) / 1000 of them in 16 bits, each
 * failing one followed by a second's sleep. A negative one other than -1 therefore returns 0 without the mutex when
 * that count is 0 (-5), and tries 65535 times for -1999.
 * SDSTS_INVALID_PARAM: null. SDSTS_MUTEX_BUSY: held, and lTimeout is 0. SDSTS_SEM_REQUEST: time ran out or the system
 * refused; osRetCode is the last attempt's error number, for lTimeout -1 what errno held. An error other than "held"
 * goes unreported when lTimeout is 0, and in the last attempt. */
KEM_API KEM_FUNC_M KemSdMutexRequest(KEM_PSDCTX_T pSdCtx, KEM_PMUTEXHDL_T phMutex, KEM_LONG_T lTimeout);

/* Gives it back. SDSTS_INVALID_PARAM: null. SDSTS_SEM_CLEAR: the system refused; osRetCode is its error number. */
KEM_API KEM_FUNC_M KemSdMutexClear(KEM_PSDCTX_T pSdCtx, KEM_PMUTEXHDL_T phMutex);

/* Ends it. SDSTS_INVALID_PARAM: null. SDSTS_MUTEX_CLOSE: the system refused, it is held; osRetCode is its error number.
 */
KEM_API KEM_FUNC_M KemSdMutexClose(KEM_PSDCTX_T pSdCtx, KEM_PMUTEXHDL_T phMutex);

/* The same four under names of their own, entering without time-out: SDSTS_CRITSEC_INIT, SDSTS_CRITSEC_ENTER and
 * SDSTS_CRITSEC_EXIT stand for the refusals. Deleting reports SDSTS_MUTEX_CLOSE, with osRetCode 0. */
KEM_API KEM_FUNC_M KemSdCritSecInit(KEM_PSDCTX_T pSdCtx, KEM_PCRITSECHDL_T phCritSec);
KEM_API KEM_FUNC_M KemSdCritSecEnter(KEM_PSDCTX_T pSdCtx, KEM_PCRITSECHDL_T phCritSec);
KEM_API KEM_FUNC_M KemSdCritSecExit(KEM_PSDCTX_T pSdCtx, KEM_PCRITSECHDL_T phCritSec);
KEM_API KEM_FUNC_M KemSdCritSecDelete(KEM_PSDCTX_T pSdCtx, KEM_PCRITSECHDL_T phCritSec);

/* ---- Events -----------------------------------------------------------------------------------------------------
 * Mind the words: waiters block while an event is set and pass while it is clear. It is created set. For threads of one
 * process.
 *
 *     KemSdEventCreate(ctx, &ready);
 *     KemSdEventWait(ctx, &ready, 1000);    // SDSTS_EVENT_TIMEOUT after a second, unless meanwhile another thread
 *     KemSdEventClear(ctx, &ready);         // lets everybody pass
 *
 * A null phEvent gives SDSTS_INVALID_PARAM, but to the close. */

typedef struct kem_eventhdl_t {
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    KEM_LONG_T iReady; /* 1 set, waiters block; 0 clear; under mutex */
} KEM_EVENTHDL_T, *KEM_PEVENTHDL_T;

/* Makes an event that is set. SDSTS_EVENT_CREATE: the system refused; osRetCode is its error number. */
KEM_API KEM_FUNC_M KemSdEventCreate(KEM_PSDCTX_T pSdCtx, KEM_PEVENTHDL_T phEvent);

/* Set: waiters to come block. Clear: all waiters pass, and go on passing. Signal: clears as well but wakes one sleeper
 * only; others already asleep find it clear when their time is up. A refusal of the system, osRetCode being its error
 * number, is SDSTS_EVENT_SET of the first and SDSTS_EVENT_CLEAR of the others. */
KEM_API KEM_FUNC_M KemSdEventSet(KEM_PSDCTX_T pSdCtx, KEM_PEVENTHDL_T phEvent);
KEM_API KEM_FUNC_M KemSdEventClear(KEM_PSDCTX_T pSdCtx, KEM_PEVENTHDL_T phEvent);
KEM_API KEM_FUNC_M KemSdEventSignal(KEM_PSDCTX_T pSdCtx, KEM_PEVENTHDL_T phEvent);

/* Waits until the event is clear and leaves it so. Negative time-outs other than -1 are over at once.
 * SDSTS_EVENT_TIMEOUT (osRetCode ETIMEDOUT): still set. SDSTS_EVENT_WAIT: the system refused, with its number. */
KEM_API KEM_FUNC_M KemSdEventWait(KEM_PSDCTX_T pSdCtx, KEM_PEVENTHDL_T phEvent, KEM_LONG_T lTimeout);

/* Waits until the event is clear and sets it: each clearing lets one caller pass. The time-out is coarse: up to the
 * whole second after lTimeout's whole seconds, 0 to 1 second longer than they say. Statuses as above. An event cleared
 * as the time runs out stays clear for the next caller; KemSdEventSignal may have spent its one wake-up on the caller
 * that gives up, so clear where waiters have time-outs. */
KEM_API KEM_FUNC_M KemSdSignalWait(KEM_PSDCTX_T pSdCtx, KEM_PEVENTHDL_T phEvent, KEM_LONG_T lTimeout);

/* Does nothing; 0. */
KEM_API KEM_FUNC_M KemSdEventClose(KEM_PSDCTX_T pSdCtx, KEM_PEVENTHDL_T phEvent);

/* ---- Counting semaphores ----------------------------------------------------------------------------------------
 * For threads of one process; names and maxima are accepted and ignored. A null phSem gives SDSTS_INVALID_PARAM, but to
 * the open. */

typedef sem_t KEM_CNTSEMHDL_T, *KEM_PCNTSEMHDL_T;

/* SDSTS_CNTSEM_CREATE: the system refused, the count is beyond 2^31 - 1; osRetCode is -1. */
KEM_API KEM_FUNC_M KemSdCntSemCreate(KEM_PSDCTX_T pSdCtx, const char* pszSemName, KEM_ULONG_T ulInitialCount,
                                     KEM_ULONG_T ulMaxCount, KEM_PCNTSEMHDL_T phSem);

/* Does nothing; 0. */
KEM_API KEM_FUNC_M KemSdCntSemOpen(KEM_PSDCTX_T pSdCtx, const char* pszSemName, KEM_PCNTSEMHDL_T phSem);

/* Takes one from the count, waiting while it is 0. Any time-out other than -1 and 0 means five attempts, each failing
 * one followed by a second's sleep. SDSTS_CNTSEM_TIMEOUT: not obtained. SDSTS_CNTSEM_REQUEST: the system refused.
 * osRetCode is then -1. */
KEM_API KEM_FUNC_M KemSdCntSemRequest(KEM_PSDCTX_T pSdCtx, KEM_PCNTSEMHDL_T phSem, KEM_LONG_T lTimeout);

/* Adds ulIncrementCount to the count; *plPreviousCount, which may be null, is the count before. SDSTS_CNTSEM_CLEAR: the
 * last addition failed; osRetCode is -1. */
KEM_API KEM_FUNC_M KemSdCntSemClear(KEM_PSDCTX_T pSdCtx, KEM_PCNTSEMHDL_T phSem, KEM_ULONG_T ulIncrementCount,
                                    KEM_PLONG_T plPreviousCount);

/* SDSTS_CNTSEM_CLOSE: the system refused; osRetCode is -1. */
KEM_API KEM_FUNC_M KemSdCntSemClose(KEM_PSDCTX_T pSdCtx, KEM_PCNTSEMHDL_T phSem);

/* ---- Shared semaphore sets --------------------------------------------------------------------------------------
 * Semaphores between processes: a System V set, found by the key of an existing path. Members are numbered from 0.
 *
 *     KEM_ULONG_T initial[2] = {1, 0};
 *     KEM_SHSEMSET_T* set;
 *     KemSdShSemSetCreate(ctx, "/srv/db/exchange", 2, 4 | 8, initial, NULL, &set);
 *     KemSdShSemSetRequest(ctx, 0, set, -1);
 *     KemSdShSemSetClear(ctx, 0, set);
 *     KemSdShSemSetClose(ctx, set);
 *
 * A process that dies holding a member leaves it taken: the kernel does not undo it. */

typedef struct KEM_SHSEMSET_T {
    uint16_t nsems; /* members, if this process made the set; 0 if it opened it: indices are then not checked */
    int id;         /* the System V id */
} KEM_SHSEMSET_T;

/* Makes a set of `size` members with these initial values (each cut to 16 bits), or opens an existing one, and stores
 * its new descriptor. bt32Flag: 8 make it, 16 fail if it exists, or else its values are set anew; permissions for the
 * owner by 2 (0100, which only root can use), else, when 1 is not set, by 4 (0200, which requests and clears need).
 * pulMaxCount is ignored.
 * SDSTS_INVALID_PARAM: no or an empty name, null pulInitialCount or ppShSemSet, a size of 0 with flag 8. SDSTS_IPC_KEY:
 * the path does not exist; nothing is stored. SDSTS_IPC_CREATE: the system refused the set, or with flag 8 one of
 * another size exists (EINVAL); null is stored. With osRetCode being errno.
 * SDSTS_CNTSEM_CREATE: it refused the initial values; the set is removed, osRetCode is -1, and *ppShSemSet is left
 * pointing at a descriptor that is gone. SDSTS_NO_MEMORY, or another status of the allocator: null is stored and no set
 * is left. */
KEM_API KEM_FUNC_M KemSdShSemSetCreate(KEM_PSDCTX_T pSdCtx, const char* pszSemName, KEM_USHORT_T size,
                                       KEM_BIT32_T bt32Flag, KEM_PULONG_T pulInitialCount, KEM_PULONG_T pulMaxCount,
                                       KEM_SHSEMSET_T** ppShSemSet);

/* Takes one from a member, waiting while it is 0. With lTimeout 0, or negative other than -1, it spins until it gets
 * it, and says SDSTS_CNTSEM_TIMEOUT although it has it if it did not get it at once. A positive lTimeout in practice
 * waits without limit: the system is given a time of day where it takes an interval.
 * SDSTS_INVALID_PARAM: null, or an index beyond a set made here. SDSTS_CNTSEM_TIMEOUT with EAGAIN: time ran out.
 * SDSTS_CNTSEM_REQUEST with errno: the system refused; EIDRM or EINVAL when the set was removed. */
KEM_API KEM_FUNC_M KemSdShSemSetRequest(KEM_PSDCTX_T pSdCtx, KEM_USHORT_T index, KEM_SHSEMSET_T* pShSemSet,
                                        KEM_LONG_T lTimeout);

/* Adds one to a member. SDSTS_INVALID_PARAM as above. SDSTS_CNTSEM_CLEAR: the system refused; osRetCode is -1. */
KEM_API KEM_FUNC_M KemSdShSemSetClear(KEM_PSDCTX_T pSdCtx, KEM_USHORT_T index, KEM_SHSEMSET_T* pShSemSet);

/* Frees the descriptor and, where this process made the set, removes it for everybody: waiters are refused.
 * SDSTS_INVALID_PARAM: null. SDSTS_CNTSEM_CLOSE with errno: the removal was refused; the descriptor is gone. */
KEM_API KEM_FUNC_M KemSdShSemSetClose(KEM_PSDCTX_T pSdCtx, KEM_SHSEMSET_T* pShSemSet);

/* The key of a path: the system's ftok with ipcid's low byte, -1 on failure. SDSTS_INVALID_PARAM: null. SDSTS_IPC_KEY:
 * the path does not exist. */
KEM_API KEM_STS_T KemSdSharedSemNameConvert(const char* pszName, KEM_INT_T ipcid, KEM_IPCKEY_T* pIpcKey);

/* Adds the system's flags for bt32Flag to *pbt32FlagOS, as said at KemSdShSemSetCreate. */
KEM_API void KemSdSharedSemFlagMap(KEM_BIT32_T bt32Flag, KEM_PBIT32_T pbt32FlagOS);

/* ---- Standard and counting events -------------------------------------------------------------------------------
 * Two small primitives for threads of one process. A standard event holds one signal, which one wait consumes; a
 * counting event holds any number. Time-outs are milliseconds of the real-time clock, so setting the clock moves
 * pending ones; negative means without limit.
 *
 *     KemSdStdEventCreate(ctx, &wake);
 *     KemSdStdEventSet(ctx, &wake);                 // one thread
 *     KemSdStdEventTimedWait(ctx, &wake, 500);      // another: 0, or SDSTS_EVENT_TIMEOUT
 *
 * osRetCode is the system's error number. A null event gives SDSTS_INVALID_PARAM. What the system refuses after the
 * mutex has been taken is misuse and ends the process with the assertion "osRetCode == 0" of "sd/sdeventposix". */

typedef struct kem_stdevent_t {
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    KEM_BOOL_T is_signaled; /* under mutex */
} KEM_STDEVENT_T;

typedef struct kem_countingevent_t {
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    KEM_ULONG_T counter; /* under mutex; wraps */
} KEM_COUNTINGEVENT_T;

/* Make an event without a signal, or with initialValue. SDSTS_EVENT_CREATE: the system refused; *pEvent is as it was.
 */
KEM_API KEM_FUNC_M KemSdStdEventCreate(KEM_PSDCTX_T pSdCtx, KEM_STDEVENT_T* pEvent);
KEM_API KEM_FUNC_M KemSdCountingEventCreate(KEM_PSDCTX_T pSdCtx, KEM_COUNTINGEVENT_T* pEvent, KEM_ULONG_T initialValue);

/* Signal: lets one waiter through, now or later. SDSTS_EVENT_CLEAR: the mutex could not be had. */
KEM_API KEM_FUNC_M KemSdStdEventSet(KEM_PSDCTX_T pSdCtx, KEM_STDEVENT_T* pEvent);
KEM_API KEM_FUNC_M KemSdCountingEventSet(KEM_PSDCTX_T pSdCtx, KEM_COUNTINGEVENT_T* pEvent);

/* Takes an unconsumed signal back. SDSTS_EVENT_SET: the mutex could not be had. */
KEM_API KEM_FUNC_M KemSdStdEventReset(KEM_PSDCTX_T pSdCtx, KEM_STDEVENT_T* pEvent);

/* Wait for a signal and consume it. SDSTS_EVENT_WAIT: the mutex could not be had. SDSTS_EVENT_TIMEOUT, osRetCode 0:
 * none came in time; one that comes at the last moment is left for the next. */
KEM_API KEM_FUNC_M KemSdStdEventWait(KEM_PSDCTX_T pSdCtx, KEM_STDEVENT_T* pEvent);
KEM_API KEM_FUNC_M KemSdStdEventTimedWait(KEM_PSDCTX_T pSdCtx, KEM_STDEVENT_T* pEvent, KEM_LONG_T miliseconds);
KEM_API KEM_FUNC_M KemSdCountingEventWait(KEM_PSDCTX_T pSdCtx, KEM_COUNTINGEVENT_T* pEvent);
KEM_API KEM_FUNC_M KemSdCountingEventTimedWait(KEM_PSDCTX_T pSdCtx, KEM_COUNTINGEVENT_T* pEvent,
                                               KEM_LONG_T miliseconds);

/* End the event; no thread may be waiting. */
KEM_API KEM_FUNC_M KemSdStdEventClose(KEM_PSDCTX_T pSdCtx, KEM_STDEVENT_T* pEvent);
KEM_API KEM_FUNC_M KemSdCountingEventClose(KEM_PSDCTX_T pSdCtx, KEM_COUNTINGEVENT_T* pEvent);

KEM_EXTERN_C_END

#endif
