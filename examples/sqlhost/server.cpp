#include "server.h"

#include <kemsd/kemsd.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>

#include "memoryfile.h"
#include "sqlmemory.h"
#include "sqlvfs.h"
#include "text.h"

namespace sqlhost {
namespace {

char applicationName[] = "sqlhost"; // the library keeps the pointer

void attachThread(void* tctxp, KEM_BOOL_T) { KemSdVupUtilTlsSet(tctxp); }

void detachThread(void*, KEM_BOOL_T) { KemSdVupUtilTlsSet(nullptr); }

// Step one: the process-wide switches and hooks, before anything is allocated. There is no failover lease to guard and
// one thread to queue at a lock, so the guard and the lock statistics stay unregistered.
void setSwitches()
{
    KemSdSetMemoryManager(TRUE);
    KemSdSetMmapAllocCfg(FALSE);
    KemSdSetMemProtectCfg(FALSE);
    KemSdSetFailoverModeFlag(FALSE);
    KemSdSetFileLockingMode(KEM_FILE_LOCKING_ADVISORY);
    KemSdSetHardwareAcceleration(FALSE);
    KemSdSetAppFolderName(applicationName);
    KemSdSetUkrThreadAttachFunction(attachThread);
    KemSdSetUkrThreadDetachFunction(detachThread);
}

// What `body` prints on standard output, which belongs to query results.
std::string printedBy(const std::function<void()>& body)
{
    FILE* const kept = tmpfile();
    if (!kept) throw Failure("cannot make a temporary file");
    fflush(stdout);
    const int output = dup(STDOUT_FILENO);
    dup2(fileno(kept), STDOUT_FILENO);
    body();
    fflush(stdout);
    dup2(output, STDOUT_FILENO);
    close(output);
    std::string printed(static_cast<size_t>(ftell(kept)), '\0');
    rewind(kept);
    printed.resize(fread(printed.data(), 1, printed.size(), kept));
    fclose(kept);
    return printed;
}

// A line of what start-up said, fit for a terminal whatever the file held.
std::string shown(std::string_view line)
{
    std::string clean;
    for (const char c : line) clean += static_cast<unsigned char>(c) < ' ' || c == 127 ? '?' : c;
    return clean;
}

// Complaints about the configuration are always passed on, the summary that ends a good start on request.
void passOn(std::string_view printed, bool verbose)
{
    constexpr unsigned kShownLines = 10;
    unsigned lines = 0;
    if (!verbose) printed = printed.substr(0, printed.find("\nMemory configuration:\n"));
    while (!printed.empty()) {
        const std::string_view line = printed.substr(0, printed.find('\n'));
        printed.remove_prefix(std::min(line.size() + 1, printed.size()));
        if (line.empty() || ++lines > kShownLines) continue;
        fprintf(stderr, "kemsd: %s\n", shown(line).c_str());
    }
    if (lines > kShownLines) fprintf(stderr, "kemsd: %s\n", countedText(lines - kShownLines, "further line").c_str());
}

void require(int result, const char* what)
{
    if (result != SQLITE_OK) throw Failure(text("SQLite refused %s: %s", what, sqlite3_errstr(result)));
}

} // namespace

// The first constructor completes at once, so that the destructor runs when a later step throws.
Server::Server(const std::string& memoryFile, bool verbose) : Server()
{
    setSwitches();
    startMemory(memoryFile, verbose);
    startThread();
    startEngine();
}

void Server::startMemory(const std::string& memoryFile, bool verbose)
{
    const MemoryFile file(memoryFile);
    memoryFile_ = file.path();
    int status = 0;
    passOn(printedBy([&] {
               void* const callBack = reinterpret_cast<void*>(onMemoryMessage);
               status = ovMemThreadHeapInit(TRUE, callBack, applicationName, FALSE);
           }),
           verbose);
    if (status != 0)
        throw Failure(text("%s: no memory for the heaps at start-up (status %d)", memoryFile_.c_str(), status));
    thread_.NetCtx = &net_;
    if (ovMemCheckMemoryMinStatus(&thread_) != 0) throw Failure(memoryFile_ + ": the memory limit was rejected");
    ovMemSetThreadContext(&thread_);
}

void Server::startThread()
{
    if (KemSdInit(&context_, 0) != 0 || KemSdVupUtilTlsInit() != 0) throw Failure("no memory for the thread's context");
    thread_.pSdCtx = context_;
    KemSdUkrThreadAttach(&thread_, TRUE);
}

// One thread uses SQLite, so it is told to take no locks and start no threads.
void Server::startEngine()
{
    require(sqlite3_config(SQLITE_CONFIG_SINGLETHREAD), "to run on one thread");
    require(sqlite3_config(SQLITE_CONFIG_MALLOC, &kemsdMemoryMethods()), "kemsd's memory");
    require(sqlite3_initialize(), "to start");
    require(registerKemsdVfs(context_), "kemsd's files");
}

// Threads leave before the heaps end, the heaps before the locks, and the context, which every call may need, goes
// last.
Server::~Server()
{
    sqlite3_shutdown();
    endMessages(net_);
    if (KemSdVupUtilGlobals()->tlsKey) KemSdUkrThreadDetach(&thread_, FALSE);
    KemSdVupUtilTlsTerm();
    ovMemResetThreadContext();
    ovMemThreadHeapTerm();
    KemSyncEnvTerm(context_);
    if (context_) KemSdTerm(context_);
}

} // namespace sqlhost
