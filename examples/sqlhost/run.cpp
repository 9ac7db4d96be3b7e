#include <algorithm>
#include <cstdio>

#include "commands.h"
#include "csv.h"
#include "database.h"
#include "input.h"
#include "table.h"

namespace sqlhost {
namespace {

using Cell = Table::Cell;
using Kind = Table::Kind;

constexpr char kNull[] = "NULL";
constexpr size_t kShownBlobBytes = 32;

std::string blobText(const unsigned char* bytes, size_t count)
{
    std::string shown = "x'";
    for (size_t i = 0; i < std::min(count, kShownBlobBytes); ++i) shown += text("%02x", bytes[i]);
    return count > kShownBlobBytes ? shown + "...' (" + countedText(count, "byte") + ")" : shown + "'";
}

// A text that reads NULL is put into quotes, so that NULL alone always is one.
Cell cellOf(sqlite3_stmt* statement, int column)
{
    const int type = sqlite3_column_type(statement, column);
    if (type == SQLITE_NULL) return {kNull, Kind::null};
    if (type == SQLITE_BLOB) {
        const auto* const bytes = static_cast<const unsigned char*>(sqlite3_column_blob(statement, column));
        return {blobText(bytes, static_cast<size_t>(sqlite3_column_bytes(statement, column))), Kind::text};
    }
    const char* const value = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
    if (!value) throw Failure("out of memory");
    if (type != SQLITE_TEXT) return {value, Kind::number};
    const std::string shown(value, static_cast<size_t>(sqlite3_column_bytes(statement, column)));
    return {shown == kNull ? "'NULL'" : shown, Kind::text};
}

uint64_t printAsTable(Statement& statement)
{
    const int columns = sqlite3_column_count(statement);
    std::vector<std::string> names;
    for (int i = 0; i < columns; ++i) names.emplace_back(sqlite3_column_name(statement, i));
    Table table(names);
    std::vector<Cell> cells(static_cast<size_t>(columns));
    uint64_t rows = 0;
    for (; statement.step(); ++rows) {
        for (int i = 0; i < columns; ++i) cells[static_cast<size_t>(i)] = cellOf(statement, i);
        table.add(cells);
    }
    table.print();
    printf("(%s)\n", countedText(rows, "row").c_str());
    return rows;
}

// What `import` reads back as the same values: NULL is an empty field, an empty text a pair of quotes.
std::string csvOf(sqlite3_stmt* statement, int column)
{
    if (sqlite3_column_type(statement, column) == SQLITE_NULL) return {};
    const char* const value = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
    if (!value) throw Failure("out of memory");
    return csvField({value, static_cast<size_t>(sqlite3_column_bytes(statement, column))});
}

void printField(const std::string& field, bool last)
{
    fwrite(field.data(), 1, field.size(), stdout);
    putchar(last ? '\n' : ',');
}

void printAsCsv(Statement& statement)
{
    const int columns = sqlite3_column_count(statement);
    for (int i = 0; i < columns; ++i) printField(csvField(sqlite3_column_name(statement, i)), i + 1 == columns);
    while (statement.step())
        for (int i = 0; i < columns; ++i) printField(csvOf(statement, i), i + 1 == columns);
}

void runStatement(Database& database, Statement& statement, bool asCsv)
{
    if (sqlite3_column_count(statement) == 0) {
        const int before = sqlite3_total_changes(database);
        statement.step();
        const int changed = sqlite3_total_changes(database) - before;
        if (changed > 0 && !asCsv) printf("(%s changed)\n", countedText(static_cast<uint64_t>(changed), "row").c_str());
    } else if (asCsv) {
        printAsCsv(statement);
    } else {
        printAsTable(statement);
    }
    if (fflush(stdout) != 0) throw Failure("cannot write the result");
}

bool isBlank(std::string_view sql) { return sql.find_first_not_of(" \t\r\n;") == std::string_view::npos; }

// The line of a place in the text, counted from 1.
size_t lineAt(const std::string& all, size_t place)
{
    return 1 + static_cast<size_t>(std::count(all.begin(), all.begin() + static_cast<ptrdiff_t>(place), '\n'));
}

// Where the next statement has its error, or begins.
size_t placeOf(const std::string& all, std::string_view rest, Database& database)
{
    const size_t begin = all.size() - rest.size();
    const int offset = sqlite3_error_offset(database);
    if (offset >= 0) return begin + static_cast<size_t>(offset);
    return std::min(all.find_first_not_of(" \t\r\n", begin), all.size());
}

} // namespace

void runSql(Server& server, const std::string& path, const std::string& file, bool asCsv)
{
    Database database(path, DatabaseMode::existing);
    Input input(server.context(), file);
    const std::string all = input.rest();
    if (all.find('\0') != std::string::npos) throw Failure(input.name() + " holds a NUL byte: it is no SQL text");
    for (std::string_view rest = all, next; !isBlank(rest); rest = next) try {
            next = rest;
            Statement statement(database, next);
            if (statement) runStatement(database, statement, asCsv);
        } catch (const Failure& failure) {
            fflush(stdout);
            throw Failure(text("%s, line %zu: %s", input.name().c_str(), lineAt(all, placeOf(all, rest, database)),
                               failure.what()));
        }
    if (database.inTransaction()) throw Failure(input.name() + " ends inside a transaction, which was undone");
}

} // namespace sqlhost
