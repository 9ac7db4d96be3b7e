// The free lists' floor: class by one bit scan, pop or push, two counters, the header.
#pragma once

#include <kemsd/types.h>

#include <cstddef>

namespace kemsd::bench {

// Gives the calling thread its lists.
KEM_API void floorListsCreate();
KEM_API void floorListsDestroy();

KEM_API void floorListAllocate(size_t bytes, void** block, char policy);
KEM_API int floorListRelease(void* block);

} // namespace kemsd::bench
