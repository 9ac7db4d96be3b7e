// The thread heaps' floor: the same steps on the same blocks, written by hand for one known configuration.
//
// It keeps what the algorithm needs: the tests of the switches, the count, the prime's rotation, the slot, the check
// before the lock, one lock passage each way, fast bins, bin search, carving and coalescing, the change of a slot's
// heap, and for large blocks the accounting under the record's lock. What only other configurations come to (thread
// heaps off, short-term heaps, bucket counts, messages) is tested for and not built. Divisions are multiplications by
// reciprocals. The functions are called as ours are.
#pragma once

#include <kemsd/types.h>

#include <cstddef>

namespace kemsd::bench {

// Builds the heaps; false without memory for them.
KEM_API bool floorHeapsStart(unsigned slots, unsigned heapBytes, unsigned largestHeapBlock);

// 0, or 1 when there is no memory.
KEM_API int floorHeapAllocate(void* owner, size_t bytes, void** block);
KEM_API int floorHeapRelease(void* block);

// What a pair of calls spends on its two lock passages.
KEM_API void floorTwoPassages(void* owner);

} // namespace kemsd::bench
