// Crash-time memory, as memory's own code sees it: the switch that sends every request there instead of to heaps that
// may be damaged, and the state behind it.
#pragma once

#include <kemsd/memory.h>
#include <algorithm>

#include "sd/base/atomic.h"

extern "C" {
// Not 0 once a fatal exception is declared; it never goes back.
extern OV_LONG_T iXcptExceptionStatus;
// The thread that declared it, stored before the switch. A later declaration puts another thread in its place.
extern KEM_THDID_T iXcptThdId;
// How the process ends when the reserve cannot serve: by abort(), else by exit(0).
extern KEM_BOOL_T bXcptDoCoreDump;

// -1: not created; else the status of the creation or, afterwards, of the deletion. Stored last of all.
extern OV_LONG_T iXcptHeaderStatus;
// The reserve's header as it was created; null before, and after the deletion.
extern KEM_PSTACKHDR_T pXcptStackHdr;
// The copy that requests go through, and two that are compared with it. Start-up, then the declaring thread alone.
extern KEM_STACKHDR_T XcptStackHdr;
extern KEM_STACKHDR_T XcptStackHdrSpare1st;
extern KEM_STACKHDR_T XcptStackHdrSpare2nd;
}

namespace sd {

// The same answer as ovXcptFatExceptionOccured, inlined into every allocation. Relaxed: the declaring thread sees its
// own store, and the requests themselves find out in order which thread declared it.
inline bool fatalExceptionDeclared() { return loadRelaxed(iXcptExceptionStatus) != 0; }

// Crash-time sizes are 32-bit. A larger request must not shrink to what its low half says: it stays larger than any
// reserve and ends the process.
constexpr OV_ULONG_T crashTimeSize(size_t size) { return static_cast<OV_ULONG_T>(std::min<size_t>(size, UINT32_MAX)); }
static_assert(crashTimeSize(5) == 5 && crashTimeSize((size_t{1} << 32) + 5) == UINT32_MAX);

} // namespace sd
