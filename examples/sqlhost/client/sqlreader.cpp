#include "client/sqlreader.h"

#include <sqlite3.h>

#include <string_view>

#include "sqltext.h"

namespace sqlhost {
namespace {

bool isWord(std::string_view word, const char* other) { return sqlite3_stricmp(std::string(word).c_str(), other) == 0; }

bool endsTransaction(std::string_view statement)
{
    const std::string_view word = takeWord(statement);
    if (isWord(word, "COMMIT") || isWord(word, "END")) return true;
    if (!isWord(word, "ROLLBACK")) return false;
    std::string_view next = takeWord(statement);
    if (isWord(next, "TRANSACTION")) next = takeWord(statement);
    return !isWord(next, "TO");
}

} // namespace

// A statement ends with a semicolon that is neither in a string or comment nor inside a trigger's body: SQLite knows.
bool SqlReader::readStatement(std::string& statement)
{
    for (int c = 0; (c = nextByte_()) >= 0;) {
        statement.push_back(static_cast<char>(c));
        if (c == '\n') ++nextLine_;
        if (c == ';' && sqlite3_complete(statement.c_str())) return true;
    }
    return false;
}

bool SqlReader::next()
{
    text_.clear();
    line_ = nextLine_;
    for (bool open = false;;) {
        std::string statement;
        const bool complete = readStatement(statement);
        text_ += statement;
        if (!complete) return !isBlank(text_);
        std::string_view first = statement;
        if (!open && isWord(takeWord(first), "BEGIN"))
            open = true;
        else if (open && endsTransaction(statement))
            open = false;
        if (!open) return true;
    }
}

} // namespace sqlhost
