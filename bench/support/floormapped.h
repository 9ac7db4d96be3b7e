// The mapped file's floor: a copy from or to a mapping of one's own, inside bounds that are looked at, and a position
// that moves.
#pragma once

#include <kemsd/types.h>

#include <cstdint>

namespace kemsd::bench {

struct FloorMapping {
    char* base;
    int64_t bytes;
    int64_t at;
};

// The bytes moved, fewer at the end of the mapping. Nothing is written where not all of it fits.
KEM_API unsigned floorMappedRead(FloorMapping* mapping, void* to, unsigned bytes);
KEM_API unsigned floorMappedReadAt(const FloorMapping* mapping, int64_t at, void* to, unsigned bytes);
KEM_API unsigned floorMappedWrite(FloorMapping* mapping, const void* from, unsigned bytes);
KEM_API unsigned floorMappedWriteAt(const FloorMapping* mapping, int64_t at, const void* from, unsigned bytes);

} // namespace kemsd::bench
