#include "table.h"

#include <unistd.h>

#include <cstdio>

#include "text.h"

namespace sqlhost {
namespace {

// libsmartcols returns a negative errno; only memory can be short here.
void check(int result)
{
    if (result != 0) throw Failure("out of memory while laying out a table");
}

} // namespace

Table::Table(const std::vector<std::string>& columns) : table_(scols_new_table()), numeric_(columns.size(), true)
{
    if (!table_) check(-1);
    scols_table_set_termforce(table_, SCOLS_TERMFORCE_NEVER); // nothing is cut to the terminal's width
    scols_table_enable_colors(table_, isatty(STDOUT_FILENO));
    scols_table_set_column_separator(table_, "  ");
    for (const std::string& name : columns) {
        libscols_column* const column = scols_table_new_column(table_, name.empty() ? " " : name.c_str(), 0, 0);
        if (!column) check(-1);
        scols_cell_set_color(scols_column_get_header(column), "bold");
    }
}

void Table::add(const std::vector<Cell>& cells)
{
    libscols_line* const line = scols_table_new_line(table_, nullptr);
    if (!line) check(-1);
    for (size_t i = 0; i < cells.size(); ++i) {
        check(scols_line_set_data(line, i, cells[i].text.c_str()));
        if (cells[i].kind == Kind::text) numeric_[i] = false;
        if (cells[i].kind == Kind::null) scols_cell_set_color(scols_line_get_cell(line, i), "darkgray");
    }
}

void Table::print()
{
    for (size_t i = 0; i < numeric_.size(); ++i)
        if (numeric_[i]) scols_column_set_flags(scols_table_get_column(table_, i), SCOLS_FL_RIGHT);
    fflush(stdout);
    check(scols_print_table(table_));
}

} // namespace sqlhost
