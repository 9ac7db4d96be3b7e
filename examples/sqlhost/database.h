// SQLite's connection and statement as objects; errors become Failures.
#pragma once

#include <sqlite3.h>

#include <string>
#include <string_view>

#include "text.h"

namespace sqlhost {

enum class DatabaseMode { existing, create };

class Database {
public:
    Database(const std::string& path, DatabaseMode mode);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    operator sqlite3*() const { return handle_; }
    // Runs statements that have no result.
    void run(const std::string& sql);
    // Undoes an open transaction, if there is one.
    void rollBack();
    bool inTransaction() const { return !sqlite3_get_autocommit(handle_); }
    // SQLite's own words for the last error, with what the file system knows about it.
    std::string error() const;

private:
    sqlite3* handle_ = nullptr;
};

// An SQL statement of a longer text.
class Statement {
public:
    // Takes the first statement off `sql`. Throws Failure. A text without a statement leaves the object empty.
    Statement(Database& database, std::string_view& sql);
    Statement(Database& database, const std::string& sql);
    ~Statement() { sqlite3_finalize(handle_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    operator sqlite3_stmt*() const { return handle_; }
    explicit operator bool() const { return handle_; }
    // Whether there is a row.
    bool step();
    void reset() { sqlite3_reset(handle_); }

private:
    void prepare(std::string_view& sql);

    Database& database_;
    sqlite3_stmt* handle_ = nullptr;
};

// The name as SQL takes it whatever it holds.
std::string quotedName(std::string_view name);

} // namespace sqlhost
