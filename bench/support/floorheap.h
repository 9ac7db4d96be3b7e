// The thread heaps' floor: the same steps on the same blocks, written by hand for one known configuration.
//
// It keeps what the algorithm needs: the count, the prime's rotation, the slot, the check before the lock, one lock
// passage each way, fast bins, bin search, carving and coalescing, the change of a slot's heap, and for large blocks
// the accounting under the record's lock; also the tests for a short-term heap, for bucket counting and for a pending
// message. It leaves out what one known configuration makes needless: the roads with thread heaps off and the switch
// between lock variants. Divisions are multiplications by
// reciprocals. The functions are called, as every allocator is, by a direct call.
#pragma once

#include <cstddef>

namespace kemsd::bench {

// Builds the heaps; false without memory for them.
bool floorHeapsStart(unsigned slots, unsigned heapBytes, unsigned largestHeapBlock);

// 0, or 1 when there is no memory.
int floorAllocate(void* owner, size_t bytes, void** block);
int floorRelease(void* block);

// What a pair of calls spends on its two lock passages.
void floorTwoPassages(void* owner);

} // namespace kemsd::bench
