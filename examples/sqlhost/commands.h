// The program's commands, one file each. They throw Failure; what was committed before stays committed.
#pragma once

#include <string>

#include "server.h"
#include "sqlmodules.h"

namespace sqlhost {

struct ImportOptions {
    std::string database, table, file;
    bool spill = false; // let SQLite write changed pages out before the commit
};

// Adds the file's rows to the table, which is made when it does not exist: all of them or none.
void importCsv(Server& server, const ImportOptions& options);

// Runs the statements of a file, or of standard input ("-"), and prints their results as tables or as CSV.
void runSql(Server& server, const SqlModules& modules, const std::string& database, const std::string& file,
            bool asCsv);

struct PruneOptions {
    std::string directory, pattern;
    size_t keep = 0;
    bool dryRun = false; // only say what would be removed
};

// Removes all but the newest of the regular files of a directory that a shell pattern matches, and prints their names.
void prune(const PruneOptions& options);

// Puts the database to work, with the statements of `file` or a workload of its own, and reports the memory in use.
void reportMemory(Server& server, const std::string& database, const std::string& file);

// Prints what kemsd tells about the machine and this process, as tables or as JSON.
void showInfo(bool asJson);

} // namespace sqlhost
