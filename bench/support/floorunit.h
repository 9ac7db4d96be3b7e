// The floor of a unit of work: short-term heaps by hand, for requests that such a heap serves.
//
// It keeps what the heaps need: the tests of what was asked for and of the one switch, the fast bin, the jump to the
// nearest non-empty bin, a cut from the top of its block, a further heap when the current one is full, and one lock
// passage for every heap that comes from the pool or goes back. The functions are called as ours are.
#pragma once

#include <kemsd/memory.h>

namespace kemsd::bench {

// Fills the pool: so many heaps of so many bytes. False without memory for them.
KEM_API bool floorUnitsStart(unsigned heaps, unsigned heapBytes, unsigned largestHeapBlock);

KEM_API void floorUnitBegin(OV_THDCTX_T* context);
// 0, or 1 when there is no memory.
KEM_API int floorUnitAllocate(OV_THDCTX_T* context, OV_LONG_T size, void** block, const char* name, long line);
KEM_API void floorUnitEnd(OV_THDCTX_T* context);

} // namespace kemsd::bench
