// Block counts and byte sizes of aligned, locked, mapped and direct-I/O memory.
#pragma once

#include <kemsd/types.h>
#include <cstddef>
#include <cstdint>

namespace sd {

constexpr unsigned kBlockShift = 13;
static_assert(KEM_BLOCK_SIZE == 1 << kBlockShift);

// Deliberate: several calls form their byte count in 32 bits, so it wraps at 2^19 blocks (4 GiB).
constexpr uint32_t blockBytes32(uint64_t blocks) { return static_cast<uint32_t>(blocks << kBlockShift); }

// Whole blocks that hold a byte size, low 32 bits; 0 for size 0.
constexpr uint32_t blocksForBytes(size_t bytes)
{
    return static_cast<uint32_t>((bytes >> kBlockShift) + (bytes % KEM_BLOCK_SIZE != 0));
}
static_assert(blocksForBytes(0) == 0 && blocksForBytes(1) == 1);
static_assert(blocksForBytes(8192) == 1 && blocksForBytes(8193) == 2);

} // namespace sd
