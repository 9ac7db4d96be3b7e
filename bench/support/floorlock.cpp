#include "support/floorlock.h"

namespace kemsd::bench {

void floorExchangeAcquire(KEM_SPINLOCK_T* lock, KEM_THDID_T id) { floorAcquireExchange(lock->xchg, id); }
void floorExchangeRelease(KEM_SPINLOCK_T* lock) { floorReleaseExchange(lock->xchg); }
void floorTicketAcquire(KEM_SPINLOCK_T* lock, KEM_THDID_T id) { floorAcquireTicket(lock->ticket, id); }
void floorTicketRelease(KEM_SPINLOCK_T* lock) { floorReleaseTicket(lock->ticket); }

} // namespace kemsd::bench
