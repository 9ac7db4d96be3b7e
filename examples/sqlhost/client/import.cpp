#include <algorithm>
#include <cstdio>

#include "client/asker.h"
#include "client/commands.h"
#include "client/runtime.h"
#include "csvtable.h"
#include "progress.h"
#include "wire/fields.h"

namespace sqlhost {
namespace {

constexpr char kNothing[] = "nothing was imported";

std::string described(const std::string& table, const CsvSurvey& survey, bool spill)
{
    FieldWriter fields;
    fields.number(static_cast<uint8_t>(spill ? kImportSpills : 0));
    fields.text(table);
    fields.number(static_cast<uint16_t>(survey.columns.size()));
    for (const ImportColumn& column : survey.columns) {
        fields.text(column.name);
        fields.number(static_cast<char>(column.type));
    }
    return fields.bytes();
}

// A number that is no place tells nothing, so lines are counted up to the one before it.
void addRow(FieldWriter& fields, const CsvRows& csv)
{
    fields.number(static_cast<uint32_t>(std::min<uint64_t>(csv.line(), kNoPlace - 1)));
    for (const auto& value : csv.row()) {
        if (value)
            fields.text(*value);
        else
            fields.number(kNull);
    }
}

// Sends what has been gathered in pieces that the server takes; the last, short one only at the end.
void sendRows(Connection& connection, FieldWriter& gathered, bool atEnd)
{
    std::string_view rest = gathered.bytes();
    while (rest.size() >= kLongestRows || (atEnd && !rest.empty())) {
        const std::string_view piece = rest.substr(0, kLongestRows);
        askForNumber(connection, kRequestRows, piece, kNothing);
        rest.remove_prefix(piece.size());
    }
    const std::string kept(rest);
    gathered.clear();
    gathered.add(kept);
}

bool nextRow(CsvRows& csv)
try {
    return csv.next();
} catch (const Failure& failure) {
    throw Failure(std::string(failure.what()) + "; " + kNothing);
}

void sendAll(Connection& connection, CsvRows& csv, Progress& progress)
{
    FieldWriter gathered;
    while (nextRow(csv)) {
        addRow(gathered, csv);
        if (gathered.bytes().size() < kLongestRows) continue;
        sendRows(connection, gathered, false);
        progress.show(csv.position());
    }
    sendRows(connection, gathered, true);
}

// The server's complaint about the import, in the words of the one about a local import.
[[noreturn]] void refuse(const ServerError& error, const std::string& file)
{
    const std::string where = error.place == kNoPlace ? "" : text("%s, line %u: ", file.c_str(), error.place);
    throw Failure(where + error.what() + "; " + kNothing);
}

} // namespace

void importOnServer(const std::string& directory, const std::string& table, const std::string& file, bool spill)
{
    ClientRuntime runtime;
    NetContext net;
    ServerLink link(runtime.context(), directory);
    link.connection(); // the first complaint is that there is no server
    const CsvSurvey survey = surveyCsv(runtime.context(), net, file);
    if (survey.columns.size() > UINT16_MAX) throw Failure(file + " has more columns than a table may have");
    Connection& connection = link.connection();
    uint64_t rows = 0;
    try {
        CsvRows csv(runtime.context(), file, survey);
        Progress progress(net, "importing", survey.bytes);
        askForNumber(connection, kRequestImport, described(table, survey, spill), kNothing);
        sendAll(connection, csv, progress);
        rows = askForNumber(connection, kRequestInsert, {}, kOutcomeUnknown);
    } catch (const ServerError& error) {
        refuse(error, file);
    }
    printf("%s imported into %s\n", countedText(rows, "row").c_str(), table.c_str());
}

} // namespace sqlhost
