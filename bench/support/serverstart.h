// Brings the memory manager up as a server does, from a configuration file of the benchmark's own.
#pragma once

namespace kemsd::bench {

inline constexpr int kSlots = 16;
inline constexpr unsigned kHeapBytes = 2u << 20;
inline constexpr unsigned kLargestHeapBlock = 64u << 10;

// One line for a run's heading.
inline constexpr const char* kMemorySetting =
    "thread heaps: numthreadheaps 16, heapsize 2M, maxblock 64K, no limit; memory manager on";

// Ends the program when the library does not come up with these settings. shortTerm: what the configuration file says
// of short-term heaps.
void startThreadHeaps(const char* shortTerm = "shortmemoryoff");

} // namespace kemsd::bench
