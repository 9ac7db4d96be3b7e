// The chunk exchange's floor: for one message exactly the protocol's two semaphore operations, each by one system call,
// the header as one word, and one copy. No pieces are gathered, split or put together, nothing is looked up.
#pragma once

#include <kemsd/types.h>

#include <cstdint>

namespace kemsd::bench {

inline constexpr uint32_t kFloorPayload = 2040;

// One direction of a slot.
struct FloorDirection {
    char* buffer; // 2048 bytes that both processes see
    int set;
    uint16_t dataReady;
    uint16_t bufferFree;
};

// 0, or the system's error number.
KEM_API int floorChunkSend(const FloorDirection* direction, const char* bytes, uint32_t count);
KEM_API int floorChunkReceive(const FloorDirection* direction, char* bytes, uint32_t count);

} // namespace kemsd::bench
