#include "database.h"

#include "sqlvfs.h"

namespace sqlhost {
namespace {

// Another process may be about to finish: wait that long, in sleeps of SQLite's own.
constexpr int kBusyMilliseconds = 2000;

Value valueOf(sqlite3_stmt* statement, int column)
{
    const int type = sqlite3_column_type(statement, column);
    if (type == SQLITE_NULL) return {};
    const void* const bytes =
        type == SQLITE_BLOB ? sqlite3_column_blob(statement, column) : sqlite3_column_text(statement, column);
    const auto count = static_cast<size_t>(sqlite3_column_bytes(statement, column));
    if (!bytes && (type != SQLITE_BLOB || count > 0)) throw Failure("out of memory");
    return {type, {static_cast<const char*>(bytes), count}};
}

} // namespace

Database::Database(const std::string& path, DatabaseMode mode)
{
    const int flags = SQLITE_OPEN_READWRITE | (mode == DatabaseMode::create ? SQLITE_OPEN_CREATE : 0);
    if (sqlite3_open_v2(path.c_str(), &handle_, flags, "kemsd") != SQLITE_OK) {
        const std::string reason = error();
        sqlite3_close(handle_);
        throw Failure(path + ": " + reason);
    }
    sqlite3_busy_timeout(handle_, kBusyMilliseconds);
}

Database::~Database() { sqlite3_close(handle_); }

void Database::run(const std::string& sql)
{
    if (sqlite3_exec(handle_, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) throw Failure(error());
}

void Database::rollBack()
{
    if (inTransaction()) sqlite3_exec(handle_, "ROLLBACK", nullptr, nullptr, nullptr);
}

std::string Database::error() const
{
    const int code = sqlite3_errcode(handle_);
    const std::string why = takeFileTrouble();
    std::string words = sqlite3_errmsg(handle_);
    if (code == SQLITE_BUSY) words += text(" by %s", rivals_);
    const bool fileIsToBlame = code == SQLITE_CANTOPEN || code == SQLITE_FULL || code == SQLITE_IOERR;
    return fileIsToBlame && !why.empty() ? words + " (" + why + ")" : words;
}

Statement::Statement(Database& database, std::string_view& sql) : database_(database) { prepare(sql); }

Statement::Statement(Database& database, const std::string& sql) : database_(database)
{
    std::string_view rest = sql;
    prepare(rest);
}

void Statement::prepare(std::string_view& sql)
{
    const char* rest = nullptr;
    if (sqlite3_prepare_v2(database_, sql.data(), static_cast<int>(sql.size()), &handle_, &rest) != SQLITE_OK)
        throw Failure(database_.error());
    sql.remove_prefix(static_cast<size_t>(rest - sql.data()));
}

bool Statement::step()
{
    const int result = sqlite3_step(handle_);
    if (result != SQLITE_ROW && result != SQLITE_DONE) throw Failure(database_.error());
    return result == SQLITE_ROW;
}

std::vector<std::string> Statement::columns() const
{
    std::vector<std::string> names;
    for (int i = 0, count = sqlite3_column_count(handle_); i < count; ++i) {
        const char* const name = sqlite3_column_name(handle_, i);
        if (!name) throw Failure("out of memory");
        names.emplace_back(name);
    }
    return names;
}

const std::vector<Value>& Statement::row()
{
    row_.resize(static_cast<size_t>(sqlite3_data_count(handle_)));
    for (size_t i = 0; i < row_.size(); ++i) row_[i] = valueOf(handle_, static_cast<int>(i));
    return row_;
}

std::string quotedName(std::string_view name)
{
    std::string quoted = "\"";
    for (const char c : name) quoted.append(c == '"' ? 2 : 1, c);
    return quoted + '"';
}

} // namespace sqlhost
