#include "support/floorlock.h"

namespace kemsd::bench {

alignas(64) OV_BOOL_T floorTicketLocks = FALSE;

void floorUseTicketLocks(bool tickets) { setRelaxed(floorTicketLocks, tickets); }

void floorSpinlockAcquire(KEM_SPINLOCK_T* lock, KEM_THDID_T id) { floorAcquire(*lock, id); }

void floorSpinlockRelease(KEM_SPINLOCK_T* lock) { floorRelease(*lock); }

} // namespace kemsd::bench
