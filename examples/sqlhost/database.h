// SQLite's connection and statement as objects; errors become Failures.
#pragma once

#include <sqlite3.h>

#include <string>
#include <string_view>
#include <vector>

#include "text.h"
#include "value.h"

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
    // Who else may hold the database, for the sentence about a lock.
    void nameRivals(const char* rivals) { rivals_ = rivals; }
    bool inTransaction() const { return !sqlite3_get_autocommit(handle_); }
    // SQLite's own words for the last error, with what the file system knows about it.
    std::string error() const;

private:
    sqlite3* handle_ = nullptr;
    const char* rivals_ = "another process";
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
    // The names of the result's columns; a statement without a result has none. Certain once a step has been made.
    std::vector<std::string> columns() const;
    // The row that step() has found, valid until the next call.
    const std::vector<Value>& row();

private:
    void prepare(std::string_view& sql);

    Database& database_;
    sqlite3_stmt* handle_ = nullptr;
    std::vector<Value> row_;
};

// The name as SQL takes it whatever it holds.
std::string quotedName(std::string_view name);

} // namespace sqlhost
