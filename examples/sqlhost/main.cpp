// sqlhost: a small SQL server at work. SQLite answers the questions; memory, files, locks, threads, clock and the way
// between the server and its clients are kemsd's.
#include <langinfo.h>

#include <CLI/CLI.hpp>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>

#include "client/commands.h"
#include "commands.h"
#include "serve/service.h"
#include "sqlvfs.h"
#include "text.h"
#include "wire/protocol.h"

namespace {

using sqlhost::Engine;
using sqlhost::Placement;
using sqlhost::Server;

constexpr int kFailed = 1;
constexpr int kUsage = 2;

struct Options {
    std::string memoryFile;
    bool verbose = false;
    std::vector<std::string> modules;
    sqlhost::ImportOptions import;
    std::string database, sqlFile = "-", workFile;
    std::string directory;
    std::vector<std::string> statements;
    bool csv = false;
    bool json = false;
    bool mapped = false;
    bool core = false;
    bool numa = false;
    sqlhost::BackupOptions backup;
    sqlhost::PruneOptions prune;
};

// Column widths need the characters' widths; numbers keep the decimal point.
void useUtf8()
{
    setlocale(LC_CTYPE, "");
    if (strcmp(nl_langinfo(CODESET), "UTF-8") != 0) setlocale(LC_CTYPE, "C.UTF-8");
}

void addMapped(CLI::App& command, Options& options)
{
    command.add_flag("--mapped", options.mapped, "Read the database through a mapping of its file");
}

// ---- Commands on a database file ---------------------------------------------------------------------------------

void addImport(CLI::App& app, Options& options)
{
    CLI::App* const command = app.add_subcommand("import", "Add the rows of a CSV file to a table, all or none");
    command->add_option("DB", options.import.database, "Database file, made when missing; or a server's directory")
        ->required();
    command->add_option("TABLE", options.import.table, "Table, made when missing")->required();
    command->add_option("FILE.csv", options.import.file, "CSV file whose first row names the columns")->required();
    command->add_flag("--spill", options.import.spill, "Write changed pages out early when memory is short");
    command->final_callback([&options] {
        const sqlhost::ImportOptions& import = options.import;
        if (std::filesystem::is_directory(import.database))
            return sqlhost::importOnServer(import.database, import.table, import.file, import.spill);
        Server server(options.memoryFile, options.verbose, Engine::oneThread);
        importCsv(server, import);
    });
}

void addModules(CLI::App& command, Options& options)
{
    command.add_option("--module", options.modules, "Module that adds functions to SQL; may be repeated")
        ->type_name("FILE.so")
        ->allow_extra_args(false);
}

void addRun(CLI::App& app, Options& options)
{
    CLI::App* const command = app.add_subcommand("run", "Run SQL statements and print their results");
    command->add_option("DB", options.database, "Database file")->required();
    command->add_option("FILE.sql", options.sqlFile, "File with statements, - for standard input (the default)");
    command->add_flag("--csv", options.csv, "Print results as CSV");
    addModules(*command, options);
    addMapped(*command, options);
    command->final_callback([&options] {
        if (options.mapped) sqlhost::readDatabasesMapped();
        Server server(options.memoryFile, options.verbose, Engine::oneThread);
        const sqlhost::SqlModules modules(server.context(), options.modules);
        runSql(server, modules, options.database, options.sqlFile, options.csv);
    });
}

void addMemory(CLI::App& app, Options& options)
{
    CLI::App* const command = app.add_subcommand("memory", "Put the database to work, then report the memory in use");
    command->add_option("DB", options.database, "Database file")->required();
    command->add_option("FILE.sql", options.workFile, "Statements to run instead of counting and sorting each table");
    command->final_callback([&options] {
        Server server(options.memoryFile, options.verbose, Engine::oneThread);
        reportMemory(server, options.database, options.workFile);
    });
}

void addInfo(CLI::App& app, Options& options)
{
    CLI::App* const command = app.add_subcommand("info", "Show the machine and this process as kemsd sees them");
    command->add_flag("--json", options.json, "Print it as JSON");
    command->final_callback([&options] { sqlhost::showInfo(options.json); });
}

void addPrune(CLI::App& app, Options& options)
{
    CLI::App* const command = app.add_subcommand("prune", "Remove all but the newest files that a pattern matches");
    command->add_option("DIR", options.prune.directory, "Directory, as that of backups")->required();
    command->add_option("PATTERN", options.prune.pattern, "Shell pattern of the names, in quotes")->required();
    command->add_option("--keep", options.prune.keep, "How many of them are kept")
        ->required()
        ->check(CLI::NonNegativeNumber);
    command->add_flag("--dry-run", options.prune.dryRun, "Only show what would be removed");
    command->final_callback([&options] { sqlhost::prune(options.prune); });
}

// ---- The server and its clients ----------------------------------------------------------------------------------

CLI::App* addServerCommand(CLI::App& app, Options& options, const char* name, const char* what)
{
    CLI::App* const command = app.add_subcommand(name, what);
    command->add_option("DIR", options.directory, "The server's directory")->required();
    return command;
}

void addServe(CLI::App& app, Options& options)
{
    CLI::App* const command =
        addServerCommand(app, options, "serve", "Serve the database of a directory, made when missing, until stopped");
    addModules(*command, options);
    addMapped(*command, options);
    command->add_flag("--numa", options.numa, "Bind the clients' threads to the machine's memory nodes in turn");
    command->add_flag("--core", options.core, "After a fatal signal end by abort(), for a core dump");
    command->final_callback([&options] {
        if (options.mapped) sqlhost::readDatabasesMapped();
        const auto placement = options.numa ? Placement::onNodes : Placement::anywhere;
        Server server(options.memoryFile, options.verbose, Engine::manyThreads, placement);
        const sqlhost::SqlModules modules(server.context(), options.modules);
        const auto end = options.core ? sqlhost::FatalEnd::byAbort : sqlhost::FatalEnd::bySignal;
        sqlhost::Service(server, modules, options.directory, end).run();
    });
}

void addSql(CLI::App& app, Options& options)
{
    CLI::App* const command = addServerCommand(app, options, "sql", "Have a server run SQL statements");
    command->add_option("STATEMENT", options.statements, "Statements; those of standard input when there are none");
    command->add_flag("--csv", options.csv, "Print results as CSV");
    command->final_callback([&options] { sqlhost::sqlOnServer(options.directory, options.statements, options.csv); });
}

void addShell(CLI::App& app, Options& options)
{
    CLI::App* const command = addServerCommand(app, options, "shell", "Have a server run what is typed at a prompt");
    command->final_callback([&options] { sqlhost::shellOnServer(options.directory); });
}

void addBackup(CLI::App& app, Options& options)
{
    CLI::App* const command = addServerCommand(app, options, "backup", "Copy the database while the server goes on");
    command->add_option("DEST", options.backup.destination, "File that becomes the copy")->required();
    command->add_flag("--force", options.backup.force, "Replace DEST when it exists");
    command->add_option("--limit", options.backup.seconds, "Seconds for which writing may stand still (60)")
        ->check(CLI::Range(uint32_t{1}, sqlhost::kLongestPause));
    command->final_callback([&options] {
        options.backup.directory = options.directory;
        sqlhost::backUp(options.backup);
    });
}

void addStatus(CLI::App& app, Options& options)
{
    CLI::App* const command = addServerCommand(app, options, "status", "Show what a server is doing");
    command->add_flag("--csv", options.csv, "Print it as CSV");
    command->final_callback([&options] { sqlhost::showStatus(options.directory, options.csv); });
}

void addStop(CLI::App& app, Options& options)
{
    CLI::App* const command = addServerCommand(app, options, "stop", "End a server and wait until it is gone");
    command->final_callback([&options] { sqlhost::stopServer(options.directory); });
}

} // namespace

int main(int argc, char** argv)
{
    useUtf8();
    Options options;
    CLI::App app("SQLite with its memory, files, locks and clock on kemsd; alone, or as a server.", "sqlhost");
    app.add_option("--config", options.memoryFile,
                   "Memory configuration; without it $ZANTOPATH/bin/config.mem, or ours")
        ->type_name("FILE");
    app.add_flag("--verbose", options.verbose, "Show what start-up says");
    app.footer(
        "\nsqlhost import DB TABLE FILE.csv\nsqlhost run DB [FILE.sql|-]\nsqlhost memory DB [FILE.sql|-]\n"
        "sqlhost prune DIR PATTERN --keep N\nsqlhost info\n"
        "\nsqlhost serve DIR\nsqlhost sql DIR [STATEMENT...]\nsqlhost shell DIR\nsqlhost import DIR TABLE FILE.csv\n"
        "sqlhost backup DIR DEST\nsqlhost status DIR\nsqlhost stop DIR");
    app.require_subcommand(1);
    app.fallthrough();
    for (const auto add :
         {addImport, addRun, addMemory, addPrune, addInfo, addServe, addSql, addShell, addBackup, addStatus, addStop})
        add(app, options);
    try {
        app.parse(argc, argv);
        if (fflush(stdout) != 0) throw sqlhost::Failure("cannot write the result");
        return 0;
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kUsage;
    } catch (const std::exception& failure) {
        fflush(stdout);
        fprintf(stderr, "sqlhost: %s\n", failure.what());
        return kFailed;
    }
}
