#include "support/floormapped.h"

#include <cstring>

namespace kemsd::bench {
namespace {

inline unsigned readAt(const FloorMapping& mapping, int64_t at, void* to, unsigned bytes)
{
    if (at + bytes > mapping.bytes) [[unlikely]]
        bytes = at < mapping.bytes ? static_cast<unsigned>(mapping.bytes - at) : 0;
    memcpy(to, mapping.base + at, bytes);
    return bytes;
}

inline unsigned writeAt(const FloorMapping& mapping, int64_t at, const void* from, unsigned bytes)
{
    if (at + bytes > mapping.bytes) [[unlikely]]
        return 0;
    memcpy(mapping.base + at, from, bytes);
    return bytes;
}

} // namespace

unsigned floorMappedRead(FloorMapping* mapping, void* to, unsigned bytes)
{
    const unsigned moved = readAt(*mapping, mapping->at, to, bytes);
    mapping->at += moved;
    return moved;
}

unsigned floorMappedReadAt(const FloorMapping* mapping, int64_t at, void* to, unsigned bytes)
{
    return readAt(*mapping, at, to, bytes);
}

unsigned floorMappedWrite(FloorMapping* mapping, const void* from, unsigned bytes)
{
    const unsigned moved = writeAt(*mapping, mapping->at, from, bytes);
    mapping->at += moved;
    return moved;
}

unsigned floorMappedWriteAt(const FloorMapping* mapping, int64_t at, const void* from, unsigned bytes)
{
    return writeAt(*mapping, at, from, bytes);
}

} // namespace kemsd::bench
