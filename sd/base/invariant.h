// Fixed assertions: internal consistency failures end the process through the C library's own assertion failure, in
// every build type. Operators search for these texts, so source, line and function are data of the assertion and do not
// follow the code as it moves.
#pragma once

// <assert.h> leaves its own failure function out when NDEBUG is set.
extern "C" [[noreturn]] void __assert_fail(const char* expression, const char* file, unsigned line,
                                           const char* function) noexcept;

namespace sd {

struct SourcePoint {
    const char* file;
    unsigned line;
    const char* function;
};

} // namespace sd

// `point` is a SourcePoint; the expression's own text becomes the assertion's text, byte for byte.
#define SD_INVARIANT(point, expression)                                               \
    do {                                                                              \
        if (!(expression)) [[unlikely]]                                               \
            __assert_fail(#expression, (point).file, (point).line, (point).function); \
    } while (false)
