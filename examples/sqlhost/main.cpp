// sqlhost: a small SQL server's engine room at work. SQLite answers the questions; memory, files, clock and sleep are
// kemsd's.
#include <langinfo.h>

#include <CLI/CLI.hpp>
#include <clocale>
#include <cstdio>
#include <cstring>

#include "commands.h"
#include "text.h"

namespace {

constexpr int kFailed = 1;
constexpr int kUsage = 2;

struct Options {
    std::string memoryFile;
    bool verbose = false;
    sqlhost::ImportOptions import;
    std::string database, sqlFile = "-", workFile;
    bool csv = false;
};

// Column widths need the characters' widths; numbers keep the decimal point.
void useUtf8()
{
    setlocale(LC_CTYPE, "");
    if (strcmp(nl_langinfo(CODESET), "UTF-8") != 0) setlocale(LC_CTYPE, "C.UTF-8");
}

CLI::App* addImport(CLI::App& app, Options& options)
{
    CLI::App* const command = app.add_subcommand("import", "Add the rows of a CSV file to a table, all or none");
    command->add_option("DB", options.import.database, "Database file, made when missing")->required();
    command->add_option("TABLE", options.import.table, "Table, made when missing")->required();
    command->add_option("FILE.csv", options.import.file, "CSV file whose first row names the columns")->required();
    command->add_flag("--spill", options.import.spill, "Write changed pages out early when memory is short");
    return command;
}

CLI::App* addRun(CLI::App& app, Options& options)
{
    CLI::App* const command = app.add_subcommand("run", "Run SQL statements and print their results");
    command->add_option("DB", options.database, "Database file")->required();
    command->add_option("FILE.sql", options.sqlFile, "File with statements, - for standard input (the default)");
    command->add_flag("--csv", options.csv, "Print results as CSV");
    return command;
}

CLI::App* addMemory(CLI::App& app, Options& options)
{
    CLI::App* const command = app.add_subcommand("memory", "Put the database to work, then report the memory in use");
    command->add_option("DB", options.database, "Database file")->required();
    command->add_option("FILE.sql", options.workFile, "Statements to run instead of counting and sorting each table");
    return command;
}

} // namespace

int main(int argc, char** argv)
{
    useUtf8();
    Options options;
    CLI::App app("SQLite with its memory, files, clock and sleep on kemsd.", "sqlhost");
    app.add_option("--config", options.memoryFile,
                   "Memory configuration; without it $ZANTOPATH/bin/config.mem, or ours")
        ->type_name("FILE");
    app.add_flag("--verbose", options.verbose, "Show what start-up says");
    app.footer("\nsqlhost import DB TABLE FILE.csv\nsqlhost run DB [FILE.sql|-]\nsqlhost memory DB [FILE.sql|-]");
    app.require_subcommand(1);
    app.fallthrough();
    CLI::App* const import = addImport(app, options);
    CLI::App* const run = addRun(app, options);
    addMemory(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kUsage;
    }
    try {
        sqlhost::Server server(options.memoryFile, options.verbose);
        if (import->parsed())
            importCsv(server, options.import);
        else if (run->parsed())
            runSql(server, options.database, options.sqlFile, options.csv);
        else
            reportMemory(server, options.database, options.workFile);
        if (fflush(stdout) != 0) throw sqlhost::Failure("cannot write the result");
        return 0;
    } catch (const std::exception& failure) {
        fflush(stdout);
        fprintf(stderr, "sqlhost: %s\n", failure.what());
        return kFailed;
    }
}
