// The spinlock's uncontended paths, inlined into every lock passage of the library, and what its relatives in
// sd/sdlwsync.cpp have in common with it. The waiting loops and the ABI live in sd/sdsync.cpp.
//
// Two variants share the storage and the hardware-acceleration switch picks one at every call. In both the owner test
// comes first: the owner's word can equal the caller's id only if the caller stored it, so the unlocked read is safe.
//
// Order: taking the lock is a locked instruction. Making it free is a release store of `slock` or `grant`; the next
// owner's exchange of `slock` or its read of `grant` pairs with it. The owner's bookkeeping is read by others without
// the lock: its last store is a release as well, so that whoever sees it sees the owner. These are the orders that
// store fences would give, and on x86-64 they cost nothing.
#pragma once

#include "sd/base/atomic.h"
#include "sd/base/settings.h"

namespace sd {

// Rounds of the spin-wait hint before a yield; 0 or less means a yield every round. Waiters look at it again and again:
// it may change while they wait.
inline int64_t spinBound() { return loadRelaxed(KEM_SDSYNC_BUSYSPIN_UPPERLIMIT); }

// ---- Exchange variant, of the spinlock and of the lightweight lock: the records differ in the names of two fields

inline volatile KEM_THDID_T& ownerOf(KEM_SPINLOCK_XCHG_T& lock) { return lock.thdMasterId; }
inline volatile KEM_THDID_T& ownerOf(KEM_LWSPINLOCK_XCHG_T& lock) { return lock.ThdId; }
inline int16_t& depthOf(KEM_SPINLOCK_XCHG_T& lock) { return lock.sLockCount; }
inline int16_t& depthOf(KEM_LWSPINLOCK_XCHG_T& lock) { return lock.count; }

// Swaps the lowest byte of a lock word with 0; true when the lock was free and now is the caller's.
inline bool takeLowestByte(volatile int64_t& slock)
{
    auto* lowest = reinterpret_cast<volatile signed char*>(&slock);
    // Acquire: pairs with the release store of `slock` by which the lock became free.
    return __atomic_exchange_n(lowest, static_cast<signed char>(0), __ATOMIC_ACQUIRE) > 0;
}

enum class Try { Taken, Held, RaceLost };

// One attempt: a look at the whole word, and if it is not 0, the swap.
inline Try tryExchange(volatile int64_t& slock)
{
    if (loadRelaxed(slock) == 0) return Try::Held;
    return takeLowestByte(slock) ? Try::Taken : Try::RaceLost;
}

// Goes on after a first attempt that ended otherwise than Taken, until the word is the caller's; in sd/sdsync.cpp.
void awaitExchange(volatile int64_t& slock, Try last);

template <class Lock>
inline void ownExchange(Lock& lock, KEM_THDID_T id)
{
    storeRelaxed(ownerOf(lock), id);
    storeRelease(depthOf(lock), 1); // whoever reads this depth finds the owner
}

// The waiting functions are the last step of their callers, so that a passage without contention saves no registers.
template <class Lock>
[[gnu::noinline]] void waitExchange(Lock& lock, Try last, KEM_THDID_T id)
{
    awaitExchange(lock.slock, last);
    ownExchange(lock, id);
}

template <class Lock>
inline void acquireExchange(Lock& lock, KEM_THDID_T id)
{
    if (loadRelaxed(ownerOf(lock)) == id) [[unlikely]] {
        addUnlocked(depthOf(lock), 1);
        return;
    }
    if (const Try first = tryExchange(lock.slock); first != Try::Taken) [[unlikely]]
        return waitExchange(lock, first, id);
    ownExchange(lock, id);
}

template <class Lock>
inline void freeExchange(Lock& lock)
{
    storeRelaxed(ownerOf(lock), 0);
    storeRelease(lock.slock, 1); // hands over: pairs with the exchange of the next owner
}

inline void releaseExchange(KEM_SPINLOCK_XCHG_T& lock)
{
    const int depth = addUnlocked(lock.sLockCount, -1) - 1;
    if (static_cast<int16_t>(depth) > 0) [[unlikely]]
        return;
    freeExchange(lock);
}

// ---- Ticket variant

// Of any ticket lock. The order of arrival is the order of this one word, so relaxed suffices.
inline KEM_SDATOMIC_T drawTicket(volatile KEM_SDATOMIC_T& next)
{
    return __atomic_fetch_add(&next, 1, __ATOMIC_RELAXED);
}

// Of any ticket lock. Acquire: pairs with the release store of `grant` by which the lock became free.
inline bool granted(const volatile KEM_SDATOMIC_T& grant, KEM_SDATOMIC_T ticket)
{
    return loadAcquire(grant) == ticket;
}

// Waits until `grant` has reached the ticket, then owns the lock; in sd/sdsync.cpp.
[[gnu::noinline]] void waitTicket(KEM_SPINLOCK_TICKET_T& lock, KEM_SDATOMIC_T ticket, KEM_THDID_T id);

inline void ownTicket(KEM_SPINLOCK_TICKET_T& lock, KEM_SDATOMIC_T ticket, KEM_THDID_T id)
{
    storeRelaxed(lock.thdMasterId, id);
    storeRelaxed(lock.sLockCount, 1);
    storeRelease(lock.lOwnerTicket, ticket); // whoever reads this ticket finds its owner and depth
}

inline void grantNext(KEM_SPINLOCK_TICKET_T& lock)
{
    storeRelaxed(lock.thdMasterId, 0);
    // Hands over: pairs with the next owner's read of `grant`.
    storeRelease(lock.grant, loadRelaxed(lock.lOwnerTicket) + 1);
}

inline void acquireTicket(KEM_SPINLOCK_TICKET_T& lock, KEM_THDID_T id)
{
    if (loadRelaxed(lock.thdMasterId) == id) [[unlikely]] {
        addUnlocked(lock.sLockCount, 1);
        return;
    }
    const KEM_SDATOMIC_T ticket = drawTicket(lock.lTicket);
    if (!granted(lock.grant, ticket)) [[unlikely]]
        return waitTicket(lock, ticket, id);
    ownTicket(lock, ticket, id);
}

inline void releaseTicket(KEM_SPINLOCK_TICKET_T& lock)
{
    const int depth = addUnlocked(lock.sLockCount, -1) - 1;
    if (static_cast<int16_t>(depth) > 0) [[unlikely]]
        return;
    grantNext(lock);
}

// Takes a ticket only when it would be granted at once: no waiter stands before it.
inline Try tryTicket(KEM_SPINLOCK_TICKET_T& lock, KEM_THDID_T id)
{
    KEM_SDATOMIC_T ticket = loadRelaxed(lock.lTicket);
    if (loadRelaxed(lock.thdMasterId) == id || !granted(lock.grant, ticket)) return Try::Held;
    if (!__atomic_compare_exchange_n(&lock.lTicket, &ticket, ticket + 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
        return Try::Held;
    ownTicket(lock, ticket, id);
    return Try::Taken;
}

// ---- The variant in force

inline void acquire(KEM_SPINLOCK_T& lock, KEM_THDID_T id)
{
    if (hardwareAcceleration())
        acquireTicket(lock.ticket, id);
    else
        acquireExchange(lock.xchg, id);
}

inline void release(KEM_SPINLOCK_T& lock)
{
    if (hardwareAcceleration())
        releaseTicket(lock.ticket);
    else
        releaseExchange(lock.xchg);
}

// ---- Passages of the library's own short ways
//
// A short way that tries once and leaves everything else to a function it ends in needs no stack frame. A lock it has
// taken so has depth 1, which its release need not read back.

// Held also stands for a lock that the caller has already: acquire() sorts that out.
inline Try tryOnce(KEM_SPINLOCK_T& lock, KEM_THDID_T id)
{
    if (hardwareAcceleration()) return tryTicket(lock.ticket, id);
    if (loadRelaxed(lock.xchg.thdMasterId) == id) [[unlikely]]
        return Try::Held;
    const Try result = tryExchange(lock.xchg.slock);
    if (result == Try::Taken) [[likely]]
        ownExchange(lock.xchg, id);
    return result;
}

// What a lost race asks for before the lock is waited for.
void yieldAfterRace(Try result);

// Releases a lock that was taken once: by tryOnce(), or by acquire() of a thread that did not hold it.
inline void releaseOnce(KEM_SPINLOCK_T& lock)
{
    if (hardwareAcceleration()) {
        storeRelaxed(lock.ticket.sLockCount, 0);
        grantNext(lock.ticket);
    } else {
        storeRelaxed(lock.xchg.sLockCount, 0);
        freeExchange(lock.xchg);
    }
}

} // namespace sd
