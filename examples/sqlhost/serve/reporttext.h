// Text that is put together and written inside a handler of signals: into a buffer that somebody else has provided, by
// write() alone. Nothing here allocates, locks or throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace sqlhost {

class ReportText {
public:
    ReportText(int file, char* buffer, size_t size) : file_(file), buffer_(buffer), size_(size) {}

    ReportText& operator<<(std::string_view text);
    ReportText& operator<<(const char* text) { return *this << std::string_view(text); }
    ReportText& operator<<(uint64_t number);
    ReportText& operator<<(int64_t number);
    ReportText& operator<<(uint32_t number) { return *this << uint64_t{number}; }
    ReportText& operator<<(int32_t number) { return *this << int64_t{number}; }

    struct Hex {
        uint64_t value;
    };
    ReportText& operator<<(Hex number);
    // With leading zeros.
    struct Digits {
        uint64_t value;
        int width;
    };
    ReportText& operator<<(Digits number);
    // Blanks up to a column of the present line, one at least.
    struct Column {
        size_t at;
    };
    ReportText& operator<<(Column column);

    // What has been gathered goes to the file: at the end, and after each part, so that what follows may fail.
    void flush();

private:
    void add(char c);

    int file_;
    char* buffer_;
    size_t size_;
    size_t filled_ = 0;
    size_t column_ = 0;
};

// A moment as people write it: "2026-11-21 21:50:33.123 UTC".
struct UtcTime {
    int64_t seconds; // since the epoch
    int64_t milliseconds;
};
ReportText& operator<<(ReportText& report, UtcTime time);

} // namespace sqlhost
