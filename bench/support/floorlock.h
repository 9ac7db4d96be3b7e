// The spinlock's floor: the variant read at every call, its locked operations with release stores, the waiting rules,
// and nothing else.
#pragma once

#include <kemsd/sync.h>
#include <sched.h>

#include <cstdint>

namespace kemsd::bench {

inline constexpr int kFloorSpins = 20000;

// TRUE selects the ticket variant. Hidden, and on a line that nobody writes while locks are used.
extern OV_BOOL_T floorTicketLocks __attribute__((visibility("hidden")));

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

// Swaps the lock word's lowest byte with 0; true when the lock was free and is ours.
inline bool floorTakeByte(volatile int64_t& slock)
{
    auto* byte = reinterpret_cast<volatile signed char*>(&slock);
    return __atomic_exchange_n(byte, static_cast<signed char>(0), __ATOMIC_ACQUIRE) > 0;
}

inline void floorOwnExchange(KEM_SPINLOCK_XCHG_T& lock, KEM_THDID_T id)
{
    setRelaxed(lock.thdMasterId, id);
    lock.sLockCount = 1;
}

// A lost race yields at once, a held lock after so many spins.
inline void floorAwaitWord(volatile int64_t& slock, bool raceLost)
{
    for (int count = 0;;) {
        if (raceLost || count >= kFloorSpins) {
            sched_yield();
            count = 0;
        } else {
            __builtin_ia32_pause();
            count++;
        }
        raceLost = false;
        if (relaxed(slock) == 0) continue;
        if (floorTakeByte(slock)) return;
        raceLost = true;
    }
}

[[gnu::noinline, gnu::cold]] inline void floorWaitExchange(KEM_SPINLOCK_XCHG_T& lock, KEM_THDID_T id, bool raceLost)
{
    floorAwaitWord(lock.slock, raceLost);
    floorOwnExchange(lock, id);
}

enum class FloorTry { taken, held, raceLost };

// The common case without a call: a free lock that is not ours already.
inline FloorTry floorTryWord(volatile int64_t& slock)
{
    if (relaxed(slock) == 0) [[unlikely]]
        return FloorTry::held;
    return floorTakeByte(slock) ? FloorTry::taken : FloorTry::raceLost;
}

inline FloorTry floorTryExchange(KEM_SPINLOCK_XCHG_T& lock, KEM_THDID_T id)
{
    const FloorTry result = floorTryWord(lock.slock);
    if (result == FloorTry::taken) [[likely]]
        floorOwnExchange(lock, id);
    return result;
}

inline void floorAcquireExchange(KEM_SPINLOCK_XCHG_T& lock, KEM_THDID_T id)
{
    if (relaxed(lock.thdMasterId) == id) [[unlikely]] {
        lock.sLockCount++;
        return;
    }
    const FloorTry first = floorTryExchange(lock, id);
    if (first != FloorTry::taken) [[unlikely]]
        floorWaitExchange(lock, id, first == FloorTry::raceLost);
}

inline void floorReleaseExchange(KEM_SPINLOCK_XCHG_T& lock)
{
    if (--lock.sLockCount > 0) [[unlikely]]
        return;
    setRelaxed(lock.thdMasterId, 0);
    __atomic_store_n(&lock.slock, 1, __ATOMIC_RELEASE);
}

inline void floorOwnTicket(KEM_SPINLOCK_TICKET_T& lock, KEM_SDATOMIC_T ticket, KEM_THDID_T id)
{
    setRelaxed(lock.thdMasterId, id);
    lock.sLockCount = 1;
    lock.lOwnerTicket = ticket;
}

[[gnu::noinline, gnu::cold]] inline void floorWaitTicket(KEM_SPINLOCK_TICKET_T& lock, KEM_SDATOMIC_T ticket,
                                                         KEM_THDID_T id)
{
    for (int count = 0;;) {
        __builtin_ia32_pause();
        if (__atomic_load_n(&lock.grant, __ATOMIC_ACQUIRE) == ticket) return floorOwnTicket(lock, ticket, id);
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
        return floorWaitTicket(lock, ticket, id);
    floorOwnTicket(lock, ticket, id);
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

// The same as functions of a shared library.
KEM_API void floorUseTicketLocks(bool tickets);
KEM_API void floorSpinlockAcquire(KEM_SPINLOCK_T* lock, KEM_THDID_T id);
KEM_API void floorSpinlockRelease(KEM_SPINLOCK_T* lock);

} // namespace kemsd::bench
