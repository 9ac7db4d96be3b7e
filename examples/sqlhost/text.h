// Words for people: one-sentence failures, and numbers as they are read.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace sqlhost {

// Ends a command; its text is the one sentence that the user sees.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

[[gnu::format(printf, 1, 2)]] std::string text(const char* format, ...);

// "1,234,567"
std::string countText(uint64_t count);
// "768 bytes", "11.2 MiB"
std::string bytesText(uint64_t bytes);
// "1 row", "2 rows"
std::string countedText(uint64_t count, const char* noun);

} // namespace sqlhost
