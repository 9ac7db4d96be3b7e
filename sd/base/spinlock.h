// The spinlock's uncontended paths, inlined into every lock passage of the library. The waiting loops and the ABI live
// in sd/sdsync.cpp.
//
// Two variants share the storage and the hardware-acceleration switch picks one at every call. In both the owner test
// comes first: thdMasterId can equal the caller's id only if the caller stored it, so the unlocked read is safe.
//
// Order: taking the lock is a locked instruction. Making it free is a release store of `slock` or `grant`; the next
// owner's exchange of `slock` or its read of `grant` pairs with it. The owner's bookkeeping is read by others without
// the lock: its last store is a release as well, so that whoever sees it sees the owner. These are the orders that
// store fences would give, and on x86-64 they cost nothing.
#pragma once

#include "sd/base/atomic.h"
#include "sd/base/settings.h"

namespace sd {

// ---- Exchange variant

enum class Try { Taken, Held, RaceLost };

// Goes on after a first attempt that ended otherwise than Taken, until the lock is the caller's; in sd/sdsync.cpp. The
// waiting functions are the last step of their callers, so that a passage without contention saves no registers.
[[gnu::noinline]] void waitExchange(KEM_SPINLOCK_XCHG_T& lock, Try last, KEM_THDID_T id);

// One attempt: a look at the whole word, and if it is not 0, the swap of its lowest byte with 0.
inline Try tryExchange(KEM_SPINLOCK_XCHG_T& lock)
{
    if (loadRelaxed(lock.slock) == 0) return Try::Held;
    auto* lowest = reinterpret_cast<volatile signed char*>(&lock.slock);
    // Acquire: pairs with the release store of `slock` by which the lock became free.
    return __atomic_exchange_n(lowest, static_cast<signed char>(0), __ATOMIC_ACQUIRE) > 0 ? Try::Taken : Try::RaceLost;
}

inline void ownExchange(KEM_SPINLOCK_XCHG_T& lock, KEM_THDID_T id)
{
    storeRelaxed(lock.thdMasterId, id);
    storeRelease(lock.sLockCount, 1); // whoever reads this depth finds the owner
}

inline void acquireExchange(KEM_SPINLOCK_XCHG_T& lock, KEM_THDID_T id)
{
    if (loadRelaxed(lock.thdMasterId) == id) [[unlikely]] {
        addUnlocked(lock.sLockCount, 1);
        return;
    }
    if (const Try first = tryExchange(lock); first != Try::Taken) [[unlikely]]
        return waitExchange(lock, first, id);
    ownExchange(lock, id);
}

inline void releaseExchange(KEM_SPINLOCK_XCHG_T& lock)
{
    const int depth = addUnlocked(lock.sLockCount, -1) - 1;
    if (static_cast<int16_t>(depth) > 0) [[unlikely]]
        return;
    storeRelaxed(lock.thdMasterId, 0);
    storeRelease(lock.slock, 1); // hands over: pairs with the exchange of the next owner
}

// ---- Ticket variant

// Waits until `grant` has reached the ticket, then owns the lock; in sd/sdsync.cpp.
[[gnu::noinline]] void waitTicket(KEM_SPINLOCK_TICKET_T& lock, KEM_SDATOMIC_T ticket, KEM_THDID_T id);

// The order of arrival is the order of this one word, so relaxed suffices.
inline KEM_SDATOMIC_T drawTicket(KEM_SPINLOCK_TICKET_T& lock)
{
    return __atomic_fetch_add(&lock.lTicket, 1, __ATOMIC_RELAXED);
}

// Acquire: pairs with the release store of `grant` by which the lock became free.
inline bool granted(const KEM_SPINLOCK_TICKET_T& lock, KEM_SDATOMIC_T ticket)
{
    return loadAcquire(lock.grant) == ticket;
}

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
    const KEM_SDATOMIC_T ticket = drawTicket(lock);
    if (!granted(lock, ticket)) [[unlikely]]
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
    if (loadRelaxed(lock.thdMasterId) == id || !granted(lock, ticket)) return Try::Held;
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
    const Try result = tryExchange(lock.xchg);
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
        storeRelaxed(lock.xchg.thdMasterId, 0);
        storeRelease(lock.xchg.slock, 1); // hands over: pairs with the exchange of the next owner
    }
}

} // namespace sd
