#include "hostfixture.h"

namespace kemsd::test {
namespace {

void addField(std::string& lines, const char* text, bool last)
{
    const std::string_view value = text ? text : "";
    if (text && (value.empty() || value.find_first_of(",\"\r\n") != value.npos)) {
        lines += '"';
        for (const char c : value) lines.append(c == '"' ? 2 : 1, c);
        lines += '"';
    } else {
        lines += value;
    }
    lines += last ? '\n' : ',';
}

} // namespace

PlainDatabase::PlainDatabase(const std::string& path)
{
    constexpr int kPatience = 30000; // milliseconds, with a client of the server that holds a lock for a moment
    EXPECT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &handle_)) << path;
    sqlite3_busy_timeout(handle_, kPatience);
}

void PlainDatabase::run(const std::string& sql)
{
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(handle_, sql.c_str(), nullptr, nullptr, nullptr)) << sqlite3_errmsg(handle_);
}

std::string PlainDatabase::csv(const std::string& sql)
{
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(SQLITE_OK, sqlite3_prepare_v2(handle_, sql.c_str(), -1, &statement, nullptr)) << sqlite3_errmsg(handle_);
    std::string lines;
    const int columns = sqlite3_column_count(statement);
    for (int i = 0; i < columns; ++i) addField(lines, sqlite3_column_name(statement, i), i + 1 == columns);
    while (sqlite3_step(statement) == SQLITE_ROW) {
        for (int i = 0; i < columns; ++i)
            addField(lines, reinterpret_cast<const char*>(sqlite3_column_text(statement, i)), i + 1 == columns);
    }
    EXPECT_EQ(SQLITE_OK, sqlite3_finalize(statement)) << sqlite3_errmsg(handle_);
    return lines;
}

std::string PlainDatabase::value(const std::string& sql)
{
    const std::string lines = csv(sql);
    const size_t begin = lines.find('\n') + 1;
    return lines.substr(begin, lines.size() - begin - 1);
}

Ended SqlHost::host(const std::vector<std::string>& arguments, const std::string& input) const
{
    std::vector<std::string> program = {SQLHOST};
    program.insert(program.end(), arguments.begin(), arguments.end());
    return runProgram(program, input);
}

std::string SqlHost::hostOk(const std::vector<std::string>& arguments, const std::string& input) const
{
    const Ended ended = host(arguments, input);
    EXPECT_EQ(0, ended.status) << ended.err;
    EXPECT_EQ("", ended.err);
    return ended.out;
}

} // namespace kemsd::test
