#include "support/floorlwlock.h"

namespace kemsd::bench {

void floorLWSpinlockAcquire(KEM_LWSPINLOCK_T* lock)
{
    if (relaxed(floorTicketLocks))
        floorAcquireLWTicket(lock->ticket);
    else
        floorAcquireLWExchange(lock->xchg);
}

void floorLWSpinlockRelease(KEM_LWSPINLOCK_T* lock)
{
    if (relaxed(floorTicketLocks))
        floorReleaseLWTicket(lock->ticket);
    else
        floorReleaseLWExchange(lock->xchg);
}

} // namespace kemsd::bench
