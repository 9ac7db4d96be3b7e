// SQLite's file system "kemsd": every file operation is one of kemsd's file calls, time and sleep are kemsd's clock.
//
// What it promises, and what not:
//   - a commit is on the disk when it returns: files are flushed, and so is the directory of a journal that was made
//     or removed;
//   - kemsd's positions are signed 32-bit numbers, so a file ends at 2 GiB: a write beyond that is SQLITE_FULL, a file
//     that is already longer is refused, and nothing is ever written at a position that was cut;
//   - locks are those of every SQLite program (sqllock.cpp), so any of them may share a database with us;
//   - a connection that is about to write holds a write lease until its transaction has ended (sqllease.cpp), so a
//     write pause never finds a transaction half written, and readers do not notice it;
//   - there is no shared memory between processes, so no write-ahead log.
//
// A database can be read through a mapping of its file (sqlmap.cpp); it is written by its descriptor all the same.
//
// Any thread that has a ThreadContext may use it; the calls report into that thread's context.
#pragma once

#include <kemsd/file.h>
#include <sqlite3.h>

#include <string>

#include "threadcontext.h"

namespace sqlhost {

// Registers the file system as SQLite's default.
int registerKemsdVfs();

// Databases that are opened from now on are read through a mapping where one can be had.
void readDatabasesMapped();

// Why the calling thread's last file operation failed, in words, or empty; asking forgets it.
std::string takeFileTrouble();

// ---- Between the file system and its files -----------------------------------------------------------------------

constexpr int64_t kLongestFile = INT32_MAX; // the largest position that kemsd's file calls take

struct KemsdFile {
    sqlite3_file base;        // must be first
    KEM_MMAPFILEHDL_T mapped; // or plain: then there is only a descriptor
    int lockLevel;            // SQLITE_LOCK_...
    bool syncDirectory;       // a new journal: its name is not yet on the disk
    bool leased;              // one of the uses of its thread's write lease is its
    char* path;               // null for an unnamed temporary file

    int handle() const { return mapped.v.fd; }
};

extern const sqlite3_io_methods kKemsdFileMethods;

inline KEM_PSDCTX_T threadContext() { return ThreadContext::current().pSdCtx; }

// Notes why an operation on `path` failed, with the thread's last error number if there is one, and returns `result`.
int trouble(int result, const char* what, const char* path);
// Makes the names in the directory of `path` durable.
int flushDirectory(const char* path);

// Opens a file, for mapped reading if that is wanted of the databases and `database` says that it is one.
KEM_STS_T openFile(KemsdFile& file, const char* path, int flags, bool database);
// Reads through the mapping, if all bytes lie in it and may be read there now.
bool readMapped(const KemsdFile& file, void* data, int count, sqlite3_int64 position);
// Has the mapping follow the file's length. To be called when nobody else can cut the file any more, and after a cut.
void followLength(KemsdFile& file);

// Moves the file's lock up or down to a level; SQLITE_BUSY when another connection is in the way.
int lockFile(KemsdFile& file, int level);
int unlockFile(KemsdFile& file, int level);
// Whether any connection holds the right to write.
int checkReserved(KemsdFile& file, int* reserved);

// The calling thread's write lease, once however many of its files want it; waits while a pause is in force.
int takeLease(const char* path);
void giveLease();
bool holdsLease();

// A thread that pauses writing would wait for itself if it took a lease.
enum class LeaseMode {
    usual,
    reserving, // it has none: its connection gets the right to write, and makes no use of it
    refused,
};
LeaseMode leaseMode();
void setLeaseMode(LeaseMode mode);
// Whether transactions of all threads that do not write yet find the database busy.
void keepWritersBack(bool back);
bool writersAreKeptBack();

// A lease for one operation outside a transaction.
class LeaseScope {
public:
    explicit LeaseScope(const char* path) : result_(takeLease(path)) {}
    ~LeaseScope()
    {
        if (result_ == SQLITE_OK) giveLease();
    }
    LeaseScope(const LeaseScope&) = delete;
    LeaseScope& operator=(const LeaseScope&) = delete;

    // SQLITE_OK: it is held.
    int result() const { return result_; }

private:
    int result_;
};

} // namespace sqlhost
