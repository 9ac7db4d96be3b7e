// Tells the memory checkers which bytes of our own arenas nobody may touch. Nothing in a release build.
#pragma once

#include <cstddef>

// The two compilers say in different ways that the address sanitizer is on.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) && !defined(__SANITIZE_ADDRESS__)
#define __SANITIZE_ADDRESS__ 1
#endif
#endif

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#elif defined(KEMSD_VALGRIND)
#include <valgrind/memcheck.h>
#endif

namespace sd {

inline void poison([[maybe_unused]] const void* from, [[maybe_unused]] size_t bytes)
{
#if defined(__SANITIZE_ADDRESS__)
    __asan_poison_memory_region(from, bytes);
#elif defined(KEMSD_VALGRIND)
    VALGRIND_MAKE_MEM_NOACCESS(from, bytes);
#endif
}

inline void unpoison([[maybe_unused]] const void* from, [[maybe_unused]] size_t bytes)
{
#if defined(__SANITIZE_ADDRESS__)
    __asan_unpoison_memory_region(from, bytes);
#elif defined(KEMSD_VALGRIND)
    VALGRIND_MAKE_MEM_UNDEFINED(from, bytes);
#endif
}

// Whether a memory checker guards any of these bytes. Always false in a release build.
inline bool isPoisoned([[maybe_unused]] const void* from, [[maybe_unused]] size_t bytes)
{
#if defined(__SANITIZE_ADDRESS__)
    return __asan_region_is_poisoned(const_cast<void*>(from), bytes) != nullptr;
#elif defined(KEMSD_VALGRIND)
    unsigned char validity[64];
    return VALGRIND_GET_VBITS(from, validity, bytes < sizeof validity ? bytes : sizeof validity) == 3;
#else
    return false;
#endif
}

} // namespace sd
