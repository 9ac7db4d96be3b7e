#include "text.h"

#include <cstdarg>
#include <cstdio>

namespace sqlhost {

std::string text(const char* format, ...)
{
    va_list arguments, again;
    va_start(arguments, format);
    va_copy(again, arguments);
    std::string result(static_cast<size_t>(vsnprintf(nullptr, 0, format, arguments)), '\0');
    vsnprintf(result.data(), result.size() + 1, format, again);
    va_end(again);
    va_end(arguments);
    return result;
}

std::string countText(uint64_t count)
{
    std::string digits = std::to_string(count);
    for (size_t at = digits.size(); at > 3;) digits.insert(at -= 3, 1, ',');
    return digits;
}

std::string bytesText(uint64_t bytes)
{
    if (bytes < 1024) return text("%u bytes", static_cast<unsigned>(bytes));
    const char* const units[] = {"KiB", "MiB", "GiB", "TiB"};
    size_t unit = 0;
    double value = static_cast<double>(bytes) / 1024;
    for (; value >= 1024 && unit < 3; ++unit) value /= 1024;
    const bool whole = value * 10 == static_cast<double>(static_cast<uint64_t>(value) * 10);
    return text("%.*f %s", whole ? 0 : 1, value, units[unit]);
}

std::string countedText(uint64_t count, const char* noun)
{
    return countText(count) + " " + noun + (count == 1 ? "" : "s");
}

} // namespace sqlhost
