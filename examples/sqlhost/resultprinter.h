// Results on standard output: as tables for people, or as CSV that `import` reads back as the same values.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "table.h"
#include "value.h"

namespace sqlhost {

class ResultPrinter {
public:
    // Answers end with the number of their rows, and are printed as they come when it is to be in pieces; the parts of
    // a report are parted by an empty line.
    enum class Style { answers, pieces, report };
    explicit ResultPrinter(bool asCsv, Style style = Style::answers) : asCsv_(asCsv), style_(style) {}

    // A result: its columns, its rows, its end.
    void begin(const std::vector<std::string>& columns);
    void add(const std::vector<Value>& row);
    void end();
    // Its end before all of it has come; false when there is no result.
    bool stop();
    // What a statement without a result did.
    void changed(uint64_t rows);
    // Lets go of what is printed. Throws Failure when it cannot be written.
    void flush();

private:
    bool asCsv_;
    Style style_;
    bool first_ = true;
    std::vector<std::string> columns_;
    std::unique_ptr<Table> table_; // of the result, or its piece
    uint64_t rows_ = 0;
};

} // namespace sqlhost
