// The seam to crash-time memory: once a fatal exception is declared, the memory entry points send every request here
// instead of to heaps that may be damaged. Hidden; the server never calls these.
#pragma once

#include <kemsd/memory.h>

#include "sd/base/atomic.h"

extern "C" {
// Not 0 once a fatal exception is declared; it never goes back.
extern OV_LONG_T iXcptExceptionStatus;

OV_LONG_T ovXcptFatExceptionOccured(void);
OV_STS_T ovXcptMemAlloc(void* thdctxp, OV_ULONG_T size, void** result);
OV_STS_T ovXcptMemCalloc(void* thdctxp, OV_ULONG_T count, OV_ULONG_T size, void** result);
// *result is the old block or null on the way in, the new block on the way out.
OV_STS_T ovXcptMemRealloc(void* thdctxp, OV_ULONG_T size, void** result);
OV_STS_T ovXcptMemFree(void* thdctxp, void* block);
}

namespace sd {

// The same answer as ovXcptFatExceptionOccured, inlined into every allocation. Relaxed: the declaring thread sees its
// own store, and the requests themselves find out in order which thread declared it.
inline bool fatalExceptionDeclared()
{
    return loadRelaxed(iXcptExceptionStatus) != 0;
}

} // namespace sd
