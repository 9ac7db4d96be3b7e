#include <cstdio>

#include "commands.h"
#include "csvtable.h"
#include "progress.h"

namespace sqlhost {
namespace {

uint64_t insertAll(Server& server, Database& database, const ImportOptions& options, const CsvSurvey& survey)
try {
    database.run("PRAGMA temp_store=MEMORY");
    TableImport import(database, {options.table, survey.columns, options.spill});
    CsvRows csv(server.context(), options.file, survey);
    Progress progress(server.net(), "importing", survey.bytes);
    while (csv.next()) try {
            import.insert(csv.row());
            progress.show(csv.position());
        } catch (const Failure& failure) {
            throw csv.failure(failure.what());
        }
    import.commit();
    return import.rows();
} catch (const Failure& failure) {
    throw Failure(std::string(failure.what()) + "; nothing was imported");
}

} // namespace

void importCsv(Server& server, const ImportOptions& options)
{
    const CsvSurvey survey = surveyCsv(server.context(), server.net(), options.file);
    Database database(options.database, DatabaseMode::create);
    const uint64_t rows = insertAll(server, database, options, survey);
    printf("%s imported into %s\n", countedText(rows, "row").c_str(), options.table.c_str());
}

} // namespace sqlhost
