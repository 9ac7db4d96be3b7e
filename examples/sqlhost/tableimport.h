// Rows on their way into a table: all of them or none.
#pragma once

#include <optional>

#include "database.h"

namespace sqlhost {

// The letters are those of the conversation with a server.
enum class ColumnType : char { integer = 'I', real = 'F', text = 'T' };

struct ImportColumn {
    std::string name;
    ColumnType type;
};

struct ImportTarget {
    std::string table; // made when it does not exist
    std::vector<ImportColumn> columns;
    bool spill = false; // let SQLite write changed pages out before the commit
};

// For each column a text, which its type may turn into a number, or NULL.
using ImportRow = std::vector<std::optional<std::string_view>>;

// One transaction holds the whole import. Changed pages stay in memory until the commit, so that each is written once:
// the memory limit bounds what one import can change. With `spill` SQLite may write pages out earlier instead.
class TableImport {
public:
    // Begins the transaction. Throws Failure, as the others do.
    TableImport(Database& database, const ImportTarget& target);
    // Undoes what has not been committed.
    ~TableImport();
    TableImport(const TableImport&) = delete;
    TableImport& operator=(const TableImport&) = delete;

    void insert(const ImportRow& row);
    void commit();
    uint64_t rows() const { return rows_; }

private:
    Database& database_;
    std::optional<Statement> insert_;
    uint64_t rows_ = 0;
};

} // namespace sqlhost
