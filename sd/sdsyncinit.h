// What the set-up of the lock environment (sdsync.cpp) and its calibration (sdsyncinit.cpp) share.
#pragma once

namespace sd {

// True in a thread that sets up the lock environment: the one inside KemSyncEnvInit and those that measure for it. A
// lock that such a thread creates on the way, a lease guard's say, does not set it up again.
extern constinit thread_local bool settingUpLocks;

} // namespace sd
