// The import reads the file twice. The first pass finds what is malformed before the database is touched, and what type
// each column has; the second inserts. A column is INTEGER or REAL only if every value in it is a number that SQLite
// gives back as it was written ("007" is not), so nothing is lost by storing numbers as numbers.
//
// One transaction holds the whole import. Changed pages stay in memory until the commit, so that each is written once:
// the memory limit bounds what one import can change. With `spill` SQLite may write pages out earlier instead.
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "commands.h"
#include "csv.h"
#include "database.h"

namespace sqlhost {
namespace {

constexpr uint64_t kProgressRows = 4096;
constexpr char kChanged[] = "the file changed while it was imported, or is none that can be read twice";
constexpr size_t kExactDigits = 15; // what a REAL holds without loss

// ---- Column types ------------------------------------------------------------------------------------------------

enum class Looks { integer, longInteger, real, text };

bool takeDigits(std::string_view& rest, size_t& digits)
{
    const size_t end = std::min(rest.find_first_not_of("0123456789"), rest.size());
    digits += end;
    rest.remove_prefix(end);
    return end > 0;
}

// An exponent counts only after a fraction: "12e3" is more often a name than a number.
bool isFraction(std::string_view rest, size_t digits)
{
    rest.remove_prefix(1);
    if (!takeDigits(rest, digits) || digits > kExactDigits) return false;
    if (rest.empty()) return true;
    size_t exponent = 0;
    if (rest[0] != 'e' && rest[0] != 'E') return false;
    rest.remove_prefix(1);
    if (!rest.empty() && (rest[0] == '-' || rest[0] == '+')) rest.remove_prefix(1);
    return takeDigits(rest, exponent) && rest.empty() && exponent <= 2;
}

Looks looksLike(const std::string& value)
{
    std::string_view rest = value;
    size_t digits = 0;
    const bool negative = rest.starts_with('-');
    if (negative) rest.remove_prefix(1);
    const bool leadingZero = rest.size() > 1 && rest[0] == '0' && rest[1] != '.';
    if (leadingZero || !takeDigits(rest, digits)) return Looks::text;
    if (!rest.empty()) return rest[0] == '.' && isFraction(rest, digits) ? Looks::real : Looks::text;
    int64_t integer = 0;
    const auto parsed = std::from_chars(value.data(), value.data() + value.size(), integer);
    if (parsed.ec != std::errc() || (negative && integer == 0)) return Looks::text;
    return digits > kExactDigits ? Looks::longInteger : Looks::integer;
}

struct Column {
    std::string name;
    bool seen[4] = {}; // by Looks

    const char* type() const
    {
        const bool numbers = !seen[int(Looks::text)] &&
                             (seen[int(Looks::integer)] || seen[int(Looks::longInteger)] || seen[int(Looks::real)]);
        if (!numbers || (seen[int(Looks::real)] && seen[int(Looks::longInteger)])) return "TEXT";
        return seen[int(Looks::real)] ? "REAL" : "INTEGER";
    }
};

// ---- First pass --------------------------------------------------------------------------------------------------

struct Survey {
    std::vector<Column> columns;
    uint64_t bytes = 0;
};

class Progress {
public:
    Progress(Server& server, const char* what) : net_(server.net()), what_(what), terminal_(isatty(STDERR_FILENO)) {}
    ~Progress() { endProgress(net_); }
    void show(uint64_t rows, const std::string& more = {})
    {
        if (!terminal_ || rows % kProgressRows != 0) return;
        showProgress(net_, (text("%s: ", what_) + countedText(rows, "row") + more).c_str());
    }

private:
    NetContext& net_;
    const char* what_;
    bool terminal_;
};

bool sameName(const std::string& a, const std::string& b) { return sqlite3_stricmp(a.c_str(), b.c_str()) == 0; }

std::vector<Column> readHeader(CsvReader& csv, CsvRow& row)
{
    if (!csv.next(row)) throw Failure(csv.input().name() + " is empty: its first row names the columns");
    std::vector<Column> columns;
    for (const CsvField& field : row) {
        if (field.value.empty()) throw csv.failure(text("column %zu has no name", columns.size() + 1));
        const auto isSame = [&](const Column& other) { return sameName(other.name, field.value); };
        if (std::any_of(columns.begin(), columns.end(), isSame))
            throw csv.failure("two columns are named " + field.value);
        columns.push_back({field.value});
    }
    return columns;
}

void requireWidth(const CsvReader& csv, const CsvRow& row, size_t columns)
{
    if (row.size() != columns)
        throw csv.failure("the row has " + countedText(row.size(), "field") + ", the header has " + countText(columns));
}

Survey surveyFile(Server& server, const std::string& file)
{
    Survey survey;
    CsvRow row;
    CsvReader csv(server.context(), file);
    Progress progress(server, "checking");
    survey.columns = readHeader(csv, row);
    for (uint64_t rows = 0; csv.next(row); progress.show(++rows)) {
        requireWidth(csv, row, survey.columns.size());
        for (size_t i = 0; i < row.size(); ++i)
            if (!row[i].isNull()) survey.columns[i].seen[int(looksLike(row[i].value))] = true;
    }
    survey.bytes = csv.input().position();
    return survey;
}

// ---- Second pass -------------------------------------------------------------------------------------------------

void makeTable(Database& database, const std::string& table, const std::vector<Column>& columns)
{
    std::string list;
    for (const Column& column : columns)
        list += (list.empty() ? "" : ", ") + quotedName(column.name) + " " + column.type();
    database.run("CREATE TABLE IF NOT EXISTS " + quotedName(table) + "(" + list + ")");
}

std::string insertSql(const std::string& table, const std::vector<Column>& columns)
{
    std::string names, values;
    for (const Column& column : columns) {
        names += (names.empty() ? "" : ", ") + quotedName(column.name);
        values += values.empty() ? "?" : ", ?";
    }
    return "INSERT INTO " + quotedName(table) + "(" + names + ") VALUES(" + values + ")";
}

// Numbers are bound as text too: the column's type turns them into numbers.
void bindRow(Database& database, Statement& insert, const CsvRow& row)
{
    for (size_t i = 0; i < row.size(); ++i) {
        const std::string& value = row[i].value;
        const int place = static_cast<int>(i) + 1;
        const int result = row[i].isNull() ? sqlite3_bind_null(insert, place)
                                           : sqlite3_bind_text(insert, place, value.c_str(),
                                                               static_cast<int>(value.size()), SQLITE_STATIC);
        if (result != SQLITE_OK) throw Failure(database.error());
    }
}

uint64_t insertRows(Server& server, Database& database, const ImportOptions& options, const Survey& survey)
{
    CsvReader csv(server.context(), options.file);
    Progress progress(server, "importing");
    CsvRow row;
    uint64_t rows = 0;
    csv.next(row); // the header
    Statement insert(database, insertSql(options.table, survey.columns));
    for (; csv.next(row); ++rows) try {
            if (row.size() != survey.columns.size()) throw Failure(kChanged);
            bindRow(database, insert, row);
            insert.step();
            insert.reset();
            const uint64_t percent = csv.input().position() * 100 / survey.bytes;
            progress.show(rows, text(", %u %%", static_cast<unsigned>(percent)));
        } catch (const Failure& failure) {
            throw csv.failure(failure.what());
        }
    if (csv.input().position() != survey.bytes) throw Failure(csv.input().name() + ": " + kChanged);
    return rows;
}

uint64_t insertAll(Server& server, Database& database, const ImportOptions& options, const Survey& survey)
try {
    database.run("PRAGMA temp_store=MEMORY");
    if (!options.spill) database.run("PRAGMA cache_spill=OFF");
    database.run("BEGIN IMMEDIATE");
    makeTable(database, options.table, survey.columns);
    const uint64_t rows = insertRows(server, database, options, survey);
    database.run("COMMIT");
    return rows;
} catch (const Failure& failure) {
    database.rollBack();
    throw Failure(std::string(failure.what()) + "; nothing was imported");
}

} // namespace

void importCsv(Server& server, const ImportOptions& options)
{
    const Survey survey = surveyFile(server, options.file);
    Database database(options.database, DatabaseMode::create);
    const uint64_t rows = insertAll(server, database, options, survey);
    printf("%s imported into %s\n", countedText(rows, "row").c_str(), options.table.c_str());
}

} // namespace sqlhost
