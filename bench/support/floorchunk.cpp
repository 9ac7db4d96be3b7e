#include "support/floorchunk.h"

#include <sys/sem.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kemsd::bench {
namespace {

constexpr uint32_t kHeader = 8;

int take(int set, uint16_t member)
{
    sembuf operation{member, -1, 0};
    while (semop(set, &operation, 1) == -1)
        if (errno != EINTR) return errno;
    return 0;
}

int give(int set, uint16_t member)
{
    sembuf operation{member, 1, 0};
    return semop(set, &operation, 1) == 0 ? 0 : errno;
}

} // namespace

int floorChunkSend(const FloorDirection* direction, const char* bytes, uint32_t count)
{
    if (const int error = take(direction->set, direction->bufferFree)) return error;
    memcpy(direction->buffer + kHeader, bytes, count);
    __atomic_store_n(reinterpret_cast<uint64_t*>(direction->buffer), uint64_t{count} << 32, __ATOMIC_RELAXED);
    return give(direction->set, direction->dataReady);
}

int floorChunkReceive(const FloorDirection* direction, char* bytes, uint32_t count)
{
    if (const int error = take(direction->set, direction->dataReady)) return error;
    const uint64_t header = __atomic_load_n(reinterpret_cast<uint64_t*>(direction->buffer), __ATOMIC_RELAXED);
    if (static_cast<uint32_t>(header) != 0) return EPROTO;
    memcpy(bytes, direction->buffer + kHeader, std::min(count, static_cast<uint32_t>(header >> 32)));
    return give(direction->set, direction->bufferFree);
}

} // namespace kemsd::bench
