// Tables for people, laid out by libsmartcols.
#pragma once

#include <libsmartcols/libsmartcols.h>

#include <string>
#include <vector>

namespace sqlhost {

class Table {
public:
    enum class Kind { null, number, text };
    struct Cell {
        std::string text;
        Kind kind = Kind::text;
    };

    explicit Table(const std::vector<std::string>& columns);
    ~Table() { scols_unref_table(table_); }
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;

    // One cell for each column.
    void add(const std::vector<Cell>& cells);
    // Columns of numbers alone are right-aligned.
    void print();

private:
    libscols_table* table_;
    std::vector<bool> numeric_;
};

} // namespace sqlhost
