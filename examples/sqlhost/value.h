// One value of a result.
#pragma once

#include <sqlite3.h>

#include <string_view>

namespace sqlhost {

// Numbers are held as the text that SQLite makes of them; a NULL holds nothing.
struct Value {
    int type = SQLITE_NULL; // SQLITE_INTEGER, SQLITE_FLOAT, SQLITE_TEXT, SQLITE_BLOB
    std::string_view bytes;
};

} // namespace sqlhost
