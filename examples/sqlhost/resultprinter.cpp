#include "resultprinter.h"

#include <algorithm>
#include <cstdio>

#include "csv.h"
#include "text.h"

namespace sqlhost {
namespace {

using Cell = Table::Cell;
using Kind = Table::Kind;

constexpr char kNull[] = "NULL";
constexpr size_t kShownBlobBytes = 32;
constexpr uint64_t kRowsOfAPiece = 500;

std::string blobText(std::string_view bytes)
{
    std::string shown = "x'";
    for (const char byte : bytes.substr(0, kShownBlobBytes)) shown += text("%02x", static_cast<unsigned char>(byte));
    return bytes.size() > kShownBlobBytes ? shown + "...' (" + countedText(bytes.size(), "byte") + ")" : shown + "'";
}

// A text that reads NULL is put into quotes, so that NULL alone always is one.
Cell cellOf(const Value& value)
{
    if (value.type == SQLITE_NULL) return {kNull, Kind::null};
    if (value.type == SQLITE_BLOB) return {blobText(value.bytes), Kind::text};
    const std::string shown(value.bytes);
    if (value.type != SQLITE_TEXT) return {shown, Kind::number};
    return {shown == kNull ? "'NULL'" : shown, Kind::text};
}

void printField(const std::string& field, bool last)
{
    fwrite(field.data(), 1, field.size(), stdout);
    putchar(last ? '\n' : ',');
}

} // namespace

void ResultPrinter::begin(const std::vector<std::string>& columns)
{
    rows_ = 0;
    if (style_ == Style::report && !first_) putchar('\n');
    first_ = false;
    columns_ = columns;
    if (!asCsv_)
        table_ = std::make_unique<Table>(columns);
    else
        for (size_t i = 0; i < columns.size(); ++i) printField(csvField(columns[i]), i + 1 == columns.size());
}

// In CSV, NULL is an empty field and an empty text a pair of quotes.
void ResultPrinter::add(const std::vector<Value>& row)
{
    if (style_ == Style::pieces && rows_ > 0 && rows_ % kRowsOfAPiece == 0) {
        table_->print();
        table_ = std::make_unique<Table>(columns_);
    }
    ++rows_;
    if (asCsv_) {
        for (size_t i = 0; i < row.size(); ++i)
            printField(row[i].type == SQLITE_NULL ? "" : csvField(row[i].bytes), i + 1 == row.size());
        return;
    }
    std::vector<Cell> cells;
    for (const Value& value : row) cells.push_back(cellOf(value));
    table_->add(cells);
}

void ResultPrinter::end()
{
    if (asCsv_) return;
    table_->print();
    table_.reset();
    if (style_ != Style::report) printf("(%s)\n", countedText(rows_, "row").c_str());
}

bool ResultPrinter::stop()
{
    if (!table_) return false;
    table_->print();
    table_.reset();
    printf("(stopped after %s)\n", countedText(rows_, "row").c_str());
    return true;
}

void ResultPrinter::changed(uint64_t rows)
{
    if (rows > 0 && !asCsv_) printf("(%s changed)\n", countedText(rows, "row").c_str());
}

void ResultPrinter::flush()
{
    if (fflush(stdout) != 0) throw Failure("cannot write the result");
}

} // namespace sqlhost
