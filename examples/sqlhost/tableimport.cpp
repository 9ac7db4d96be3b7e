#include "tableimport.h"

namespace sqlhost {
namespace {

const char* typeName(ColumnType type)
{
    return type == ColumnType::integer ? "INTEGER" : type == ColumnType::real ? "REAL" : "TEXT";
}

std::string createSql(const ImportTarget& target)
{
    std::string list;
    for (const ImportColumn& column : target.columns)
        list += (list.empty() ? "" : ", ") + quotedName(column.name) + " " + typeName(column.type);
    return "CREATE TABLE IF NOT EXISTS " + quotedName(target.table) + "(" + list + ")";
}

std::string insertSql(const ImportTarget& target)
{
    std::string names, values;
    for (const ImportColumn& column : target.columns) {
        names += (names.empty() ? "" : ", ") + quotedName(column.name);
        values += values.empty() ? "?" : ", ?";
    }
    return "INSERT INTO " + quotedName(target.table) + "(" + names + ") VALUES(" + values + ")";
}

void undo(Database& database)
{
    database.rollBack();
    sqlite3_exec(database, "PRAGMA cache_spill=ON", nullptr, nullptr, nullptr);
}

} // namespace

// A constructor that throws has no destructor.
TableImport::TableImport(Database& database, const ImportTarget& target)
try : database_(database) {
    database_.run(target.spill ? "PRAGMA cache_spill=ON" : "PRAGMA cache_spill=OFF");
    database_.run("BEGIN IMMEDIATE");
    database_.run(createSql(target));
    insert_.emplace(database_, insertSql(target));
} catch (const Failure&) {
    undo(database);
    throw;
}

TableImport::~TableImport()
{
    insert_.reset();
    undo(database_);
}

void TableImport::insert(const ImportRow& row)
{
    for (size_t i = 0; i < row.size(); ++i) {
        const int place = static_cast<int>(i) + 1;
        const int result =
            row[i] ? sqlite3_bind_text64(*insert_, place, row[i]->data(), row[i]->size(), SQLITE_STATIC, SQLITE_UTF8)
                   : sqlite3_bind_null(*insert_, place);
        if (result != SQLITE_OK) throw Failure(database_.error());
    }
    insert_->step();
    insert_->reset();
    ++rows_;
}

void TableImport::commit() { database_.run("COMMIT"); }

} // namespace sqlhost
