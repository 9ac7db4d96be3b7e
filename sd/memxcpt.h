// The seam to crash-time memory: once a fatal exception is declared, the memory entry points send every request here
// instead of to heaps that may be damaged, by the ovXcpt calls.
#pragma once

#include <kemsd/memory.h>

#include "sd/base/atomic.h"

extern "C" {
// Not 0 once a fatal exception is declared; it never goes back.
extern OV_LONG_T iXcptExceptionStatus;
}

namespace sd {

// The same answer as ovXcptFatExceptionOccured, inlined into every allocation. Relaxed: the declaring thread sees its
// own store, and the requests themselves find out in order which thread declared it.
inline bool fatalExceptionDeclared() { return loadRelaxed(iXcptExceptionStatus) != 0; }

} // namespace sd
