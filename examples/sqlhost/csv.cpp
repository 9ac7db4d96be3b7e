#include "csv.h"

#include "text.h"

namespace sqlhost {
namespace {

constexpr size_t kLongestField = 1'000'000'000; // what SQLite takes

} // namespace

CsvReader::CsvReader(KEM_PSDCTX_T context, const std::string& path) : input_(context, path)
{
    constexpr int kMark[] = {0xEF, 0xBB, 0xBF};
    if (input_.peek() != kMark[0]) return;
    for (const int byte : kMark)
        if (input_.get() != byte) throw Failure(path + ", line 1: the file begins with half a byte order mark");
}

Failure CsvReader::failure(const std::string& what) const
{
    return Failure(text("%s, line %llu: ", input_.name().c_str(), static_cast<unsigned long long>(rowLine_)) + what);
}

bool CsvReader::next(CsvRow& row)
{
    rowLine_ = line_;
    if (input_.peek() == Input::kEnd) return false;
    size_t count = 0;
    for (FieldEnd end = FieldEnd::comma; end == FieldEnd::comma; ++count) {
        if (row.size() == count) row.emplace_back();
        end = readField(row[count]);
    }
    row.resize(count);
    return true;
}

CsvReader::FieldEnd CsvReader::readField(CsvField& field)
{
    field.value.clear();
    field.quoted = input_.peek() == '"';
    if (field.quoted) {
        readQuoted(field);
        return endAfterQuotes();
    }
    for (;;) {
        const int c = input_.get();
        if (c == ',') return FieldEnd::comma;
        if (c == Input::kEnd || takeLineEnd(c)) return FieldEnd::row;
        if (c == '"') throw failure("a quote stands inside a field that does not begin with one");
        append(field, c);
    }
}

void CsvReader::readQuoted(CsvField& field)
{
    const uint64_t opened = line_;
    input_.get();
    for (;;) {
        const int c = input_.get();
        if (c == Input::kEnd)
            throw failure(text("the quoted field that begins on line %llu is never closed",
                               static_cast<unsigned long long>(opened)));
        if (c == '"' && input_.peek() != '"') return;
        if (c == '"') input_.get();
        if (c == '\n') ++line_;
        append(field, c);
    }
}

CsvReader::FieldEnd CsvReader::endAfterQuotes()
{
    const int c = input_.get();
    if (c == ',') return FieldEnd::comma;
    if (c == Input::kEnd || takeLineEnd(c)) return FieldEnd::row;
    throw failure("text follows a closing quote");
}

void CsvReader::append(CsvField& field, int c)
{
    if (c == '\0') throw failure("a field holds a NUL byte");
    if (field.value.size() == kLongestField) throw failure("a field is longer than 1,000,000,000 bytes");
    field.value.push_back(static_cast<char>(c));
}

bool CsvReader::takeLineEnd(int c)
{
    if (c == '\r' && input_.peek() == '\n') c = input_.get();
    if (c == '\r') throw failure("a carriage return without a line feed");
    if (c != '\n') return false;
    ++line_;
    return true;
}

std::string csvField(std::string_view text)
{
    if (!text.empty() && text.find_first_of(",\"\r\n") == std::string_view::npos) return std::string(text);
    std::string quoted = "\"";
    for (const char c : text) quoted.append(c == '"' ? 2 : 1, c);
    return quoted + '"';
}

} // namespace sqlhost
