// The lightweight lock's floor: as the spinlock's, but the caller's id is its own to find.
#pragma once

#include "support/floorlock.h"

namespace kemsd::bench {

inline KEM_THDID_T floorSelf() { return reinterpret_cast<KEM_THDID_T>(__builtin_thread_pointer()); }

inline void floorOwnLWExchange(KEM_LWSPINLOCK_XCHG_T& lock, KEM_THDID_T id)
{
    setRelaxed(lock.ThdId, id);
    lock.count = 1;
}

[[gnu::noinline, gnu::cold]] inline void floorWaitLWExchange(KEM_LWSPINLOCK_XCHG_T& lock, bool raceLost)
{
    floorAwaitWord(lock.slock, raceLost);
    floorOwnLWExchange(lock, floorSelf());
}

inline void floorAcquireLWExchange(KEM_LWSPINLOCK_XCHG_T& lock)
{
    const KEM_THDID_T id = floorSelf();
    if (relaxed(lock.ThdId) == id) [[unlikely]] {
        lock.count++;
        return;
    }
    const FloorTry first = floorTryWord(lock.slock);
    if (first != FloorTry::taken) [[unlikely]]
        return floorWaitLWExchange(lock, first == FloorTry::raceLost);
    floorOwnLWExchange(lock, id);
}

inline void floorReleaseLWExchange(KEM_LWSPINLOCK_XCHG_T& lock)
{
    if (--lock.count != 0) [[unlikely]]
        return;
    setRelaxed(lock.ThdId, 0);
    __atomic_store_n(&lock.slock, 1, __ATOMIC_RELEASE);
}

inline bool floorLWGranted(const KEM_LWSPINLOCK_TICKET_T& lock, KEM_SDATOMIC_T ticket)
{
    return __atomic_load_n(&lock.grant, __ATOMIC_ACQUIRE) == ticket;
}

inline void floorOwnLWTicket(KEM_LWSPINLOCK_TICKET_T& lock, KEM_THDID_T id)
{
    lock.count = 1;
    setRelaxed(lock.ThdId, id);
}

[[gnu::noinline, gnu::cold]] inline void floorWaitLWTicket(KEM_LWSPINLOCK_TICKET_T& lock, KEM_SDATOMIC_T ticket)
{
    do {
        for (int count = 0; count < kFloorSpins; count++) {
            __builtin_ia32_pause();
            if (floorLWGranted(lock, ticket)) return floorOwnLWTicket(lock, floorSelf());
        }
        sched_yield();
    } while (!floorLWGranted(lock, ticket));
    floorOwnLWTicket(lock, floorSelf());
}

inline void floorAcquireLWTicket(KEM_LWSPINLOCK_TICKET_T& lock)
{
    const KEM_THDID_T id = floorSelf();
    if (relaxed(lock.ThdId) == id) [[unlikely]] {
        lock.count++;
        return;
    }
    const KEM_SDATOMIC_T ticket = __atomic_fetch_add(&lock.ticket, 1, __ATOMIC_RELAXED);
    if (!floorLWGranted(lock, ticket)) [[unlikely]]
        return floorWaitLWTicket(lock, ticket);
    floorOwnLWTicket(lock, id);
}

inline void floorReleaseLWTicket(KEM_LWSPINLOCK_TICKET_T& lock)
{
    if (relaxed(lock.ThdId) != floorSelf()) [[unlikely]]
        __builtin_trap();
    if (--lock.count != 0) [[unlikely]]
        return;
    setRelaxed(lock.ThdId, 0);
    __atomic_store_n(&lock.grant, lock.grant + 1, __ATOMIC_RELEASE);
}

// The same as functions of a shared library, in the variant that floorUseTicketLocks selected.
KEM_API void floorLWSpinlockAcquire(KEM_LWSPINLOCK_T* lock);
KEM_API void floorLWSpinlockRelease(KEM_LWSPINLOCK_T* lock);

} // namespace kemsd::bench
