#include "sqltext.h"

#include <algorithm>

namespace sqlhost {

bool isBlank(std::string_view sql) { return sql.find_first_not_of(" \t\r\n;") == std::string_view::npos; }

size_t lineAt(std::string_view all, size_t place)
{
    const std::string_view before = all.substr(0, place);
    return 1 + static_cast<size_t>(std::count(before.begin(), before.end(), '\n'));
}

size_t placeOf(std::string_view all, std::string_view rest, int offset)
{
    const size_t begin = all.size() - rest.size();
    if (offset >= 0) return begin + static_cast<size_t>(offset);
    return std::min(all.find_first_not_of(" \t\r\n", begin), all.size());
}

std::string_view takeWord(std::string_view& sql)
{
    const auto dropTo = [&sql](const char* end, size_t from, size_t length) {
        const size_t at = sql.find(end, from);
        sql.remove_prefix(at == std::string_view::npos ? sql.size() : at + length);
    };
    for (;;) {
        sql.remove_prefix(std::min(sql.find_first_not_of(" \t\r\n\f"), sql.size()));
        if (sql.starts_with("--"))
            dropTo("\n", 2, 1);
        else if (sql.starts_with("/*"))
            dropTo("*/", 2, 2);
        else
            break;
    }
    const auto isLetter = [](char c) { return (c | 32) >= 'a' && (c | 32) <= 'z'; };
    const std::string_view word(sql.begin(), std::find_if_not(sql.begin(), sql.end(), isLetter));
    sql.remove_prefix(word.size());
    return word;
}

} // namespace sqlhost
