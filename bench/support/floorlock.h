// The spinlock's floor: the variant read at every call, its locked operations with release stores, the waiting rules,
// and nothing else.
#pragma once

#include <kemsd/sync.h>
#include <sched.h>

#include <cstdint>

namespace kemsd::bench {

inline constexpr int kFloorSpins = 20000;

// TRUE selects the ticket variant. On a line that nobody writes while locks are used.
extern OV_BOOL_T floorTicketLocks;

template <class T>
inline T relaxed(const volatile T& word)
{
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
}
template <class T, class V>
inline void setRelaxed(volatile T& word, V value)
{
    __atomic_store_n(&word, static_cast<T>(value), __ATOMIC_RELAXED);
}

[[gnu::noinline, gnu::cold]] inline void floorWaitExchange(KEM_SPINLOCK_XCHG_T& lock)
{
    for (int count = 0;;) {
        if (relaxed(lock.slock) != 0) {
            auto* byte = reinterpret_cast<volatile signed char*>(&lock.slock);
            if (__atomic_exchange_n(byte, static_cast<signed char>(0), __ATOMIC_ACQUIRE) > 0) return;
            sched_yield();
            count = 0;
        } else if (count >= kFloorSpins) {
            sched_yield();
            count = 0;
        } else {
            __builtin_ia32_pause();
            count++;
        }
    }
}

inline void floorAcquireExchange(KEM_SPINLOCK_XCHG_T& lock, KEM_THDID_T id)
{
    if (relaxed(lock.thdMasterId) == id) [[unlikely]] {
        lock.sLockCount++;
        return;
    }
    auto* byte = reinterpret_cast<volatile signed char*>(&lock.slock);
    if (relaxed(lock.slock) == 0 || __atomic_exchange_n(byte, static_cast<signed char>(0), __ATOMIC_ACQUIRE) <= 0)
        [[unlikely]]
        floorWaitExchange(lock);
    setRelaxed(lock.thdMasterId, id);
    lock.sLockCount = 1;
}

inline void floorReleaseExchange(KEM_SPINLOCK_XCHG_T& lock)
{
    if (--lock.sLockCount > 0) [[unlikely]]
        return;
    setRelaxed(lock.thdMasterId, 0);
    __atomic_store_n(&lock.slock, 1, __ATOMIC_RELEASE);
}

[[gnu::noinline, gnu::cold]] inline void floorWaitTicket(KEM_SPINLOCK_TICKET_T& lock, KEM_SDATOMIC_T ticket)
{
    for (int count = 0;;) {
        __builtin_ia32_pause();
        if (__atomic_load_n(&lock.grant, __ATOMIC_ACQUIRE) == ticket) return;
        if (++count < kFloorSpins) continue;
        sched_yield();
        count = 0;
    }
}

inline void floorAcquireTicket(KEM_SPINLOCK_TICKET_T& lock, KEM_THDID_T id)
{
    if (relaxed(lock.thdMasterId) == id) [[unlikely]] {
        lock.sLockCount++;
        return;
    }
    const KEM_SDATOMIC_T ticket = __atomic_fetch_add(&lock.lTicket, 1, __ATOMIC_RELAXED);
    if (__atomic_load_n(&lock.grant, __ATOMIC_ACQUIRE) != ticket) [[unlikely]]
        floorWaitTicket(lock, ticket);
    setRelaxed(lock.thdMasterId, id);
    lock.sLockCount = 1;
    lock.lOwnerTicket = ticket;
}

inline void floorReleaseTicket(KEM_SPINLOCK_TICKET_T& lock)
{
    if (--lock.sLockCount > 0) [[unlikely]]
        return;
    setRelaxed(lock.thdMasterId, 0);
    __atomic_store_n(&lock.grant, lock.lOwnerTicket + 1, __ATOMIC_RELEASE);
}

inline void floorAcquire(KEM_SPINLOCK_T& lock, KEM_THDID_T id)
{
    if (relaxed(floorTicketLocks))
        floorAcquireTicket(lock.ticket, id);
    else
        floorAcquireExchange(lock.xchg, id);
}

inline void floorRelease(KEM_SPINLOCK_T& lock)
{
    if (relaxed(floorTicketLocks))
        floorReleaseTicket(lock.ticket);
    else
        floorReleaseExchange(lock.xchg);
}

// The same as functions that are called, as every lock of a library is; by a direct call.
void floorSpinlockAcquire(KEM_SPINLOCK_T* lock, KEM_THDID_T id);
void floorSpinlockRelease(KEM_SPINLOCK_T* lock);

} // namespace kemsd::bench
