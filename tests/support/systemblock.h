// How many bytes a block of the system allocator has: exactly so under address sanitizer, at least so otherwise.
#pragma once

#include <gtest/gtest.h>
#include <malloc.h>

namespace kemsd::test {

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
