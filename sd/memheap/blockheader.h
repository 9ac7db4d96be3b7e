// The header before the caller's pointer and its size classes, for the two files that write it: blockheader.cpp and
// the per-thread free lists.
//
//     exact       [ header 8 ][ data: the request            policy 1, hlen  8, poolIndex 0
//     classed     [ 56 ][ header 8 ][ data: capacity         other policies (2), hlen 64, poolIndex = the class
//
// The first 8 of the 56 bytes are the free list's link while the block lies in one. A class of 21 or less is a block of
// exactly 2^class bytes; from class 22 on the capacity is the request and the class only says "large".
#pragma once

#include <kemsd/memory.h>
#include <bit>
#include <cstdint>

namespace sd {

constexpr char kDeadPolicy = 0;
constexpr char kExactPolicy = 1;
constexpr char kClassedPolicy = 2;

constexpr size_t kHeaderBytes = sizeof(OV_ALLOCMEMBLKHDR_T);
constexpr size_t kExactPrefix = kHeaderBytes;
constexpr size_t kClassedPrefix = 64;

constexpr size_t kPoolLimit = 2097152; // bytes; larger requests are neither rounded nor pooled
constexpr OV_ULONG_T kLargestPooledClass = 21;
static_assert(size_t{1} << kLargestPooledClass == kPoolLimit);

// Capacity plus prefix of a larger request is no object size; the system allocator would refuse it as well.
constexpr size_t kLargestRequest = PTRDIFF_MAX - kClassedPrefix;

// The place of the highest bit; 0 for 0. Deliberate: hardware acceleration makes no difference, since the bit scan is
// part of every x86-64 processor.
constexpr OV_ULONG_T floorLog2(size_t s)
{
    return static_cast<OV_ULONG_T>(std::bit_width(s | 1) - 1);
}

struct SizeClass {
    size_t capacity;
    OV_ULONG_T poolIndex;
    size_t prefix;

    constexpr bool operator==(const SizeClass&) const = default;
};

constexpr SizeClass sizeClass(size_t s, char policy)
{
    if (policy == kExactPolicy) return {s, 0, kExactPrefix};
    const OV_ULONG_T k = floorLog2(s);
    if (s > kPoolLimit) return {s, k + 1, kClassedPrefix};
    if ((s & (s - 1)) == 0) return {s, k, kClassedPrefix};
    return {size_t{1} << (k + 1), k + 1, kClassedPrefix};
}
static_assert(sizeClass(100, kExactPolicy) == SizeClass{100, 0, 8});
static_assert(sizeClass(0, kClassedPolicy) == SizeClass{0, 0, 64});
static_assert(sizeClass(1, kClassedPolicy) == SizeClass{1, 0, 64});
static_assert(sizeClass(3, kClassedPolicy) == SizeClass{4, 2, 64});
static_assert(sizeClass(4, kClassedPolicy) == SizeClass{4, 2, 64});
static_assert(sizeClass(kPoolLimit - 1, kClassedPolicy) == SizeClass{kPoolLimit, 21, 64});
static_assert(sizeClass(kPoolLimit, kClassedPolicy) == SizeClass{kPoolLimit, 21, 64});
static_assert(sizeClass(kPoolLimit + 1, kClassedPolicy) == SizeClass{kPoolLimit + 1, 22, 64});

inline OV_ALLOCMEMBLKHDR_T* headerOf(void* block)
{
    return static_cast<OV_ALLOCMEMBLKHDR_T*>(block) - 1;
}

// policy and hlen as the little-endian 16-bit word they form.
constexpr uint16_t headerTag(char policy, size_t prefix)
{
    return static_cast<uint16_t>(static_cast<unsigned char>(policy) | prefix << 8);
}
constexpr uint16_t kClassedTag = headerTag(kClassedPolicy, kClassedPrefix);
constexpr uint16_t kExactTag = headerTag(kExactPolicy, kExactPrefix);
static_assert(kClassedTag == 0x4002 && kExactTag == 0x0801);

inline uint16_t tagOf(const void* block)
{
    uint16_t tag;
    __builtin_memcpy(&tag, static_cast<const char*>(block) - sizeof tag, sizeof tag);
    return tag;
}

// Writes policy and hlen of a block whose poolIndex stands; returns the block. One store, and release reads the same
// two bytes as one word: a load wider than the store before it would wait for that store to leave the processor.
inline void* retag(void* block, size_t prefix, char policy)
{
    const uint16_t tag = headerTag(policy, prefix);
    __builtin_memcpy(static_cast<char*>(block) - sizeof tag, &tag, sizeof tag);
    return block;
}

// Writes the header at the end of the prefix, leaving the padding alone; returns the caller's pointer.
inline void* writeHeader(void* base, size_t prefix, char policy, OV_ULONG_T poolIndex)
{
    char* const block = static_cast<char*>(base) + prefix;
    headerOf(block)->poolIndex = poolIndex;
    return retag(block, prefix, policy);
}

} // namespace sd
