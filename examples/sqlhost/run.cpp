#include <cstdio>

#include "commands.h"
#include "database.h"
#include "input.h"
#include "resultprinter.h"
#include "sqltext.h"

namespace sqlhost {
namespace {

void runStatement(Database& database, Statement& statement, ResultPrinter& printer)
{
    const int before = sqlite3_total_changes(database);
    bool row = statement.step();
    const std::vector<std::string> columns = statement.columns();
    if (columns.empty()) return printer.changed(static_cast<uint64_t>(sqlite3_total_changes(database) - before));
    printer.begin(columns);
    for (; row; row = statement.step()) printer.add(statement.row());
    printer.end();
}

} // namespace

void runSql(Server& server, const SqlModules& modules, const std::string& path, const std::string& file, bool asCsv)
{
    Database database(path, DatabaseMode::existing);
    modules.addTo(database, server.context());
    Input input(server.context(), file);
    ResultPrinter printer(asCsv);
    const std::string all = input.rest();
    if (all.find('\0') != std::string::npos) throw Failure(input.name() + " holds a NUL byte: it is no SQL text");
    for (std::string_view rest = all, next; !isBlank(rest); rest = next) try {
            next = rest;
            Statement statement(database, next);
            if (statement) runStatement(database, statement, printer);
            printer.flush();
        } catch (const Failure& failure) {
            fflush(stdout);
            const size_t place = placeOf(all, rest, sqlite3_error_offset(database));
            throw Failure(text("%s, line %zu: %s", input.name().c_str(), lineAt(all, place), failure.what()));
        }
    if (database.inTransaction()) throw Failure(input.name() + " ends inside a transaction, which was undone");
}

} // namespace sqlhost
