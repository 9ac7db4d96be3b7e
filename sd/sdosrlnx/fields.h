// What the records of the machine hold: sizes in KiB, and texts cut to their fields.
#pragma once

#include <kemsd/types.h>
#include <cstring>

namespace sd {

// 4 TiB and more do not fit: they read 0xFFFFFFFF, and so does a product beyond 64 bits.
constexpr KEM_ULONG_T inKiB(uint64_t units, uint64_t unitBytes)
{
    constexpr uint64_t kTooLarge = UINT64_C(1) << 42;
    uint64_t bytes = 0;
    const bool wraps = __builtin_mul_overflow(units, unitBytes, &bytes);
    return wraps || bytes >= kTooLarge ? UINT32_MAX : static_cast<KEM_ULONG_T>(bytes >> 10);
}
static_assert(inKiB(1023, 1) == 0 && inKiB(3, 4096) == 12);
static_assert(inKiB((UINT64_C(1) << 42) - 1025, 1) == UINT32_MAX - 1 && inKiB(UINT64_C(1) << 42, 1) == UINT32_MAX);
static_assert(inKiB(UINT64_C(1) << 52, 4096) == UINT32_MAX);

// `field` has room for `capacity` characters, the terminator included; capacity is above 0.
inline void putText(char* field, size_t capacity, const char* text)
{
    const size_t length = strnlen(text, capacity - 1);
    memcpy(field, text, length);
    field[length] = 0;
}

} // namespace sd
