// Blocks of the system allocator and the headers in front of them.
#pragma once

#include <gtest/gtest.h>
#include <kemsd/memory.h>
#include <malloc.h>

namespace kemsd::test {

inline OV_ALLOCMEMBLKHDR_T& headerOf(void* block) { return static_cast<OV_ALLOCMEMBLKHDR_T*>(block)[-1]; }

inline void expectHeader(void* block, OV_ULONG_T poolIndex, int policy, int hlen)
{
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(headerOf(block).poolIndex, poolIndex);
    EXPECT_EQ(headerOf(block).policy, policy);
    EXPECT_EQ(headerOf(block).hlen, hlen);
}

// How many bytes a block has: exactly so under address sanitizer, at least so otherwise.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSystemBlocksAreExact = true;
#else
constexpr bool kSystemBlocksAreExact = false;
#endif

inline void expectSystemBlock(const void* base, size_t bytes)
{
    const size_t usable = malloc_usable_size(const_cast<void*>(base));
    if (kSystemBlocksAreExact)
        EXPECT_EQ(usable, bytes);
    else
        EXPECT_GE(usable, bytes);
}

} // namespace kemsd::test
