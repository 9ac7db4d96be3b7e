// A CSV file as the table that an import makes of it. It is read twice: the survey finds what is malformed before
// anything is done with it, and what type each column has; then its rows are taken.
#pragma once

#include "csv.h"
#include "messages.h"
#include "tableimport.h"

namespace sqlhost {

struct CsvSurvey {
    std::vector<ImportColumn> columns;
    uint64_t bytes = 0; // of the file
};

// Throws Failure, naming file and line.
CsvSurvey surveyCsv(KEM_PSDCTX_T context, NetContext& net, const std::string& file);

// The rows of a file that has been surveyed.
class CsvRows {
public:
    CsvRows(KEM_PSDCTX_T context, const std::string& file, const CsvSurvey& survey);

    // Takes the next row: false at the end of the file. Throws Failure, also when it is not the file of the survey.
    bool next();
    // What an import takes, valid until the next row.
    const ImportRow& row() const { return values_; }
    uint64_t line() const { return csv_.line(); }
    // Bytes of the file done.
    uint64_t position() const { return csv_.input().position(); }
    Failure failure(const std::string& what) const { return csv_.failure(what); }

private:
    CsvReader csv_;
    const CsvSurvey& survey_;
    CsvRow row_;
    ImportRow values_;
};

} // namespace sqlhost
