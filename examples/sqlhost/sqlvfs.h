// SQLite's file system "kemsd": every file operation is one of kemsd's file calls, time and sleep are kemsd's clock.
//
// What it promises, and what not:
//   - a commit is on the disk when it returns: files are flushed, and so is the directory of a journal that was made
//     or removed;
//   - kemsd's positions are signed 32-bit numbers, so a file ends at 2 GiB: a write beyond that is SQLITE_FULL, a file
//     that is already longer is refused, and nothing is ever written at a position that was cut;
//   - locks cover the whole file (sqllock.cpp), so several readers or one writer use a database at a time, other SQLite
//     programs included;
//   - there is no shared memory between processes, so no write-ahead log.
#pragma once

#include <kemsd/context.h>
#include <sqlite3.h>

#include <string>

namespace sqlhost {

// Registers the file system as SQLite's default. All its calls report into `context`.
int registerKemsdVfs(KEM_PSDCTX_T context);

// Why the last file operation failed, in words, or empty; asking forgets it.
std::string takeFileTrouble();

// ---- Between the file system and its files -----------------------------------------------------------------------

constexpr int64_t kLongestFile = INT32_MAX; // the largest position that kemsd's file calls take

struct KemsdFile {
    sqlite3_file base; // must be first
    KEM_PSDCTX_T context;
    int handle;
    int lockLevel;      // SQLITE_LOCK_...
    bool syncDirectory; // a new journal: its name is not yet on the disk
    char* path;         // null for an unnamed temporary file
};

extern const sqlite3_io_methods kKemsdFileMethods;

// Notes why an operation on `path` failed, with the context's error number if it holds one, and returns `result`.
int trouble(int result, const char* what, const char* path, KEM_PSDCTX_T context);
// Makes the names in the directory of `path` durable.
int flushDirectory(KEM_PSDCTX_T context, const char* path);

// Moves the file's lock up or down to a level; SQLITE_BUSY when another process is in the way.
int lockFile(KemsdFile& file, int level);
int unlockFile(KemsdFile& file, int level);
// Whether any process holds the right to write.
int checkReserved(KemsdFile& file, int* reserved);

} // namespace sqlhost
