// The first step of every guarded operation, argument checks included: in failover mode the server's lease guard runs.
#pragma once

#include "sd/base/settings.h"

namespace sd {

inline void passLeaseGuard()
{
    if (failoverMode()) [[unlikely]]
        KemSdGetLeaseGuard();
}

} // namespace sd
