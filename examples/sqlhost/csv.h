// Comma-separated values as RFC 4180 has them: fields in quotes may hold commas, line ends and doubled quotes; lines
// end with a line feed, or carriage return and line feed. A byte order mark at the start is skipped.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "input.h"
#include "text.h"

namespace sqlhost {

struct CsvField {
    std::string value;
    bool quoted = false;

    // An empty field without quotes says nothing: it is NULL. Quotes make it an empty text.
    bool isNull() const { return value.empty() && !quoted; }
};

using CsvRow = std::vector<CsvField>;

class CsvReader {
public:
    CsvReader(KEM_PSDCTX_T context, const std::string& path);

    // Reads the next row; false at the end of the file. Throws Failure, naming file and line, for text that is no CSV.
    bool next(CsvRow& row);
    // The line on which the last row began, counted from 1.
    uint64_t line() const { return rowLine_; }
    const Input& input() const { return input_; }
    // A Failure about the last row: "FILE, line N: what".
    Failure failure(const std::string& what) const;

private:
    enum class FieldEnd { comma, row };

    FieldEnd readField(CsvField& field);
    void readQuoted(CsvField& field);
    FieldEnd endAfterQuotes();
    void append(CsvField& field, int c);
    bool takeLineEnd(int c);

    Input input_;
    uint64_t line_ = 1;
    uint64_t rowLine_ = 0;
};

// The text as one CSV field, in quotes when it needs them.
std::string csvField(std::string_view text);

} // namespace sqlhost
