// A column is INTEGER or REAL only if every value in it is a number that SQLite gives back as it was written ("007" is
// not), so nothing is lost by storing numbers as numbers.
#include "csvtable.h"

#include <sqlite3.h>

#include <algorithm>
#include <charconv>

#include "progress.h"

namespace sqlhost {
namespace {

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

struct Seen {
    bool looks[4] = {}; // by Looks

    void add(const CsvField& field)
    {
        if (!field.isNull()) looks[int(looksLike(field.value))] = true;
    }
    ColumnType type() const
    {
        const bool integers = looks[int(Looks::integer)], longOnes = looks[int(Looks::longInteger)],
                   reals = looks[int(Looks::real)];
        const bool numbers = !looks[int(Looks::text)] && (integers || longOnes || reals);
        if (!numbers || (reals && longOnes)) return ColumnType::text;
        return reals ? ColumnType::real : ColumnType::integer;
    }
};

// ---- Survey ------------------------------------------------------------------------------------------------------

bool sameName(const std::string& a, const std::string& b) { return sqlite3_stricmp(a.c_str(), b.c_str()) == 0; }

std::vector<ImportColumn> readHeader(CsvReader& csv, CsvRow& row)
{
    if (!csv.next(row)) throw Failure(csv.input().name() + " is empty: its first row names the columns");
    std::vector<ImportColumn> columns;
    for (const CsvField& field : row) {
        if (field.value.empty()) throw csv.failure(text("column %zu has no name", columns.size() + 1));
        const auto isSame = [&](const ImportColumn& other) { return sameName(other.name, field.value); };
        if (std::any_of(columns.begin(), columns.end(), isSame))
            throw csv.failure("two columns are named " + field.value);
        columns.push_back({field.value, ColumnType::text});
    }
    return columns;
}

void requireWidth(const CsvReader& csv, const CsvRow& row, size_t columns)
{
    if (row.size() != columns)
        throw csv.failure("the row has " + countedText(row.size(), "field") + ", the header has " + countText(columns));
}

} // namespace

CsvSurvey surveyCsv(KEM_PSDCTX_T context, NetContext& net, const std::string& file)
{
    CsvSurvey survey;
    CsvRow row;
    CsvReader csv(context, file);
    Progress progress(net, "checking", 0);
    survey.columns = readHeader(csv, row);
    std::vector<Seen> seen(survey.columns.size());
    while (csv.next(row)) {
        requireWidth(csv, row, seen.size());
        for (size_t i = 0; i < row.size(); ++i) seen[i].add(row[i]);
        progress.show(csv.input().position());
    }
    for (size_t i = 0; i < seen.size(); ++i) survey.columns[i].type = seen[i].type();
    survey.bytes = csv.input().position();
    return survey;
}

CsvRows::CsvRows(KEM_PSDCTX_T context, const std::string& file, const CsvSurvey& survey)
    : csv_(context, file), survey_(survey), values_(survey.columns.size())
{
    csv_.next(row_); // the header
}

// Numbers are taken as text too: the column's type turns them into numbers.
bool CsvRows::next()
{
    if (!csv_.next(row_)) {
        if (position() != survey_.bytes) throw Failure(csv_.input().name() + ": " + kChanged);
        return false;
    }
    if (row_.size() != values_.size()) throw csv_.failure(kChanged);
    for (size_t i = 0; i < values_.size(); ++i) {
        if (row_[i].isNull())
            values_[i].reset();
        else
            values_[i] = row_[i].value;
    }
    return true;
}

} // namespace sqlhost
