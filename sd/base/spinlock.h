// The spinlock's uncontended paths, inlined into every lock passage of the library. The waiting loops and the ABI live
// in sd/sdsync.cpp.
//
// Two variants share the storage and the hardware-acceleration switch picks one at every call. In both the owner test
// comes first: thdMasterId can equal the caller's id only if the caller stored it, so the unlocked read is safe.
//
// Order: taking the lock is a locked instruction. Making it free is a release store of `slock` or `grant`, which the
// next owner's locked instruction or its read of `grant` pairs with; that is the order a store fence would give, and on
// x86-64 it costs nothing. The owner's bookkeeping is read by others without the lock, so it is relaxed.
#pragma once

#include "sd/base/atomic.h"
#include "sd/base/settings.h"

namespace sd {

// Waits until the exchange lock is ours; in sd/sdsync.cpp.
void waitExchange(KEM_SPINLOCK_XCHG_T& lock);
// Waits until `grant` has reached our ticket; in sd/sdsync.cpp.
void waitTicket(KEM_SPINLOCK_TICKET_T& lock, KEM_SDATOMIC_T ticket);

// Swaps the lowest byte of the lock word with 0; true when the lock was free and is ours.
inline bool takeByte(volatile int64_t& slock)
{
    return __atomic_exchange_n(reinterpret_cast<volatile signed char*>(&slock), static_cast<signed char>(0),
                               __ATOMIC_ACQUIRE) > 0;
}

inline void acquireExchange(KEM_SPINLOCK_XCHG_T& lock, KEM_THDID_T id)
{
    if (loadRelaxed(lock.thdMasterId) == id) [[unlikely]] {
        addUnlocked(lock.sLockCount, 1);
        return;
    }
    if (loadRelaxed(lock.slock) == 0 || !takeByte(lock.slock)) [[unlikely]]
        waitExchange(lock);
    storeRelaxed(lock.thdMasterId, id);
    storeRelaxed(lock.sLockCount, 1);
}

inline void acquireTicket(KEM_SPINLOCK_TICKET_T& lock, KEM_THDID_T id)
{
    if (loadRelaxed(lock.thdMasterId) == id) [[unlikely]] {
        addUnlocked(lock.sLockCount, 1);
        return;
    }
    const KEM_SDATOMIC_T ticket = __atomic_fetch_add(&lock.lTicket, 1, __ATOMIC_RELAXED);
    if (loadAcquire(lock.grant) != ticket) [[unlikely]]
        waitTicket(lock, ticket);
    storeRelaxed(lock.thdMasterId, id);
    storeRelaxed(lock.sLockCount, 1);
    storeRelaxed(lock.lOwnerTicket, ticket);
}

inline void releaseExchange(KEM_SPINLOCK_XCHG_T& lock)
{
    const auto depth = static_cast<int16_t>(loadRelaxed(lock.sLockCount) - 1);
    storeRelaxed(lock.sLockCount, depth);
    if (depth > 0) [[unlikely]]
        return;
    storeRelaxed(lock.thdMasterId, 0);
    storeRelease(lock.slock, 1);
}

inline void releaseTicket(KEM_SPINLOCK_TICKET_T& lock)
{
    const auto depth = static_cast<int16_t>(loadRelaxed(lock.sLockCount) - 1);
    storeRelaxed(lock.sLockCount, depth);
    if (depth > 0) [[unlikely]]
        return;
    storeRelaxed(lock.thdMasterId, 0);
    storeRelease(lock.grant, loadRelaxed(lock.lOwnerTicket) + 1);
}

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

} // namespace sd
