// The free lists' floor: class by one bit scan, pop or push, two counters, the header.
#pragma once

#include <cstddef>

namespace kemsd::bench {

// Gives the calling thread its lists.
void floorListsCreate();
void floorListsDestroy();

void floorListAllocate(size_t bytes, void** block, char policy);
int floorListRelease(void* block);

} // namespace kemsd::bench
