#include "serve/reporttext.h"

#include <unistd.h>

namespace sqlhost {
namespace {

constexpr size_t kLongestNumber = 20; // digits of 64 bits

} // namespace

// A full buffer goes to the file. What that does not take is lost: there is nobody to tell.
void ReportText::add(char c)
{
    if (filled_ == size_) flush();
    buffer_[filled_++] = c;
    column_ = c == '\n' ? 0 : column_ + 1;
}

void ReportText::flush()
{
    for (size_t at = 0; at < filled_;) {
        const ssize_t written = write(file_, buffer_ + at, filled_ - at);
        if (written <= 0) break;
        at += static_cast<size_t>(written);
    }
    filled_ = 0;
}

ReportText& ReportText::operator<<(std::string_view text)
{
    for (const char c : text) add(c);
    return *this;
}

ReportText& ReportText::operator<<(uint64_t number) { return *this << Digits{number, 1}; }

ReportText& ReportText::operator<<(int64_t number)
{
    if (number < 0) add('-');
    const uint64_t bits = static_cast<uint64_t>(number);
    return *this << (number < 0 ? -bits : bits);
}

ReportText& ReportText::operator<<(Digits number)
{
    char digits[kLongestNumber];
    int count = 0;
    for (uint64_t rest = number.value; rest > 0; rest /= 10) digits[count++] = static_cast<char>('0' + rest % 10);
    for (int i = count; i < number.width; ++i) add('0');
    while (count > 0) add(digits[--count]);
    return *this;
}

ReportText& ReportText::operator<<(Hex number)
{
    *this << "0x";
    int shift = 60;
    while (shift > 0 && number.value >> shift == 0) shift -= 4;
    for (; shift >= 0; shift -= 4) add("0123456789abcdef"[number.value >> shift & 15]);
    return *this;
}

ReportText& ReportText::operator<<(Column column)
{
    do add(' ');
    while (column_ < column.at);
    return *this;
}

// The calendar in years that begin in March, so that a leap day comes last.
ReportText& operator<<(ReportText& report, UtcTime time)
{
    constexpr int64_t kDaysToEpoch = 719468, kDaysOf400Years = 146097;
    const int64_t days = time.seconds / 86400 + kDaysToEpoch;
    const uint64_t second = static_cast<uint64_t>(time.seconds % 86400);
    const int64_t era = days / kDaysOf400Years, day = days % kDaysOf400Years;
    const int64_t year = (day - day / 1460 + day / 36524 - day / 146096) / 365;
    const int64_t dayOfYear = day - (365 * year + year / 4 - year / 100);
    const int64_t month = (5 * dayOfYear + 2) / 153; // 0 is March
    const int64_t civilYear = era * 400 + year + (month >= 10);
    using Digits = ReportText::Digits;
    return report << Digits{static_cast<uint64_t>(civilYear), 4} << "-"
                  << Digits{static_cast<uint64_t>(month < 10 ? month + 3 : month - 9), 2} << "-"
                  << Digits{static_cast<uint64_t>(dayOfYear - (153 * month + 2) / 5 + 1), 2} << " "
                  << Digits{second / 3600, 2} << ":" << Digits{second / 60 % 60, 2} << ":" << Digits{second % 60, 2}
                  << "." << Digits{static_cast<uint64_t>(time.milliseconds), 3} << " UTC";
}

} // namespace sqlhost
