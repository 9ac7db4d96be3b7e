#include "server.h"

#include <kemsd/kemsd.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "memoryfile.h"
#include "printed.h"
#include "sqlmemory.h"
#include "sqlmutex.h"
#include "sqlvfs.h"
#include "text.h"

namespace sqlhost {
namespace {

char applicationName[] = "sqlhost"; // the library keeps the pointer

// Step one: the process-wide switches and hooks, before anything is allocated. There is no failover lease to guard, and
// nobody asks for lock statistics, so these two hooks stay unregistered.
// A server has more threads than there are processors: the spinlocks that go to whoever comes are the ones for it.
// Those by ticket hand the lock to the next in line even while that thread does not run, and all behind it wait. They
// come with the acceleration that placement needs, on machines that have processors enough.
void setSwitches(Placement placement)
{
    KemSdSetMemoryManager(TRUE);
    KemSdSetMmapAllocCfg(FALSE);
    KemSdSetMemProtectCfg(FALSE);
    KemSdSetFailoverModeFlag(FALSE);
    KemSdSetFileLockingMode(KEM_FILE_LOCK_ADVISORY);
    KemSdSetHardwareAcceleration(placement == Placement::onNodes);
    KemSdSetAppFolderName(applicationName);
    registerThreadHooks();
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

// An event that nobody has to wait for: events are created set.
bool makeClearEvent(KEM_PSDCTX_T context, KEM_PEVENTHDL_T event)
{
    return KemSdEventCreate(context, event) == 0 && KemSdEventClear(context, event) == 0;
}

} // namespace

// The first constructor completes at once, so that the destructor runs when a later step throws. The reserve for crash
// reports comes before the heaps, whose limit does not count it.
Server::Server(const std::string& memoryFile, bool verbose, Engine engine, Placement placement) : Server()
{
    setSwitches(placement);
    if (engine == Engine::manyThreads) KemSdXcptCreateStackHeader();
    startMemory(memoryFile, verbose);
    if (placement == Placement::onNodes) startPlacement();
    startService();
    startEngine(engine);
}

void Server::startMemory(const std::string& memoryFile, bool verbose)
{
    const MemoryFile file(memoryFile);
    memoryFile_ = file.path();
    int status = 0;
    // Standard output belongs to query results.
    passOn(printedBy(stdout,
                     [&] {
                         void* const callBack = reinterpret_cast<void*>(onMemoryMessage);
                         status = ovMemThreadHeapInit(TRUE, callBack, applicationName, FALSE);
                     }),
           verbose);
    if (status != 0)
        throw Failure(text("%s: no memory for the heaps at start-up (status %d)", memoryFile_.c_str(), status));
    if (KemSdVupUtilTlsInit() != 0) throw Failure("no memory for the threads' slot");
    thread_.emplace(&net_, &service_);
    if (ovMemCheckMemoryMinStatus(&thread()) != 0) throw Failure(memoryFile_ + ": the memory limit was rejected");
    ovMemSetThreadContext(&thread());
}

// The environment has the last word: who has switched nodes off there does not get them.
void Server::startPlacement()
{
    setenv("OV_TURN_OFF_NUMA", "false", 0);
    KemSdInitNumaResources();
    if (KemSdGetNumNumaNodes() == 0)
        fprintf(stderr, "sqlhost: --numa: there is one memory node, or none to be used: nothing to place\n");
}

void Server::placeThread()
{
    if (KemSdGetNumNumaNodes() == 0) return;
    const KEM_LONG64_T number = placedThreads_.fetch_add(1, std::memory_order_relaxed);
    KemSdBindThreadToNode(&ThreadContext::current(), KemSdGetNumaNodeId(number));
}

// The write pause: no pause, no lease out.
void Server::startService()
{
    OV_PAUSE_INTERFACE_T& pause = service_.pauseinterface;
    const bool made = makeClearEvent(context(), &pause.writeIOEvtHdl) &&
                      makeClearEvent(context(), &pause.pauseWriteIOEvtHdl) &&
                      KemRWLockInit(context(), 0, &pause.rwlockPauseUpdates, TRUE, RWLOCK_PAUSEUPDATES_LOCK) == 0;
    if (!made) throw Failure(text("cannot make the locks of the write pause (status %d)", context()->sts));
    serviceStarted_ = true;
}

// For one thread SQLite takes no locks. For many it takes ours, but none for a connection, which one thread at a time
// uses, and none to count its memory: kemsd counts already, and that one would be taken in every allocation.
void Server::startEngine(Engine engine)
{
    if (engine == Engine::oneThread) {
        require(sqlite3_config(SQLITE_CONFIG_SINGLETHREAD), "to run on one thread");
    } else {
        require(sqlite3_config(SQLITE_CONFIG_MULTITHREAD), "to run on many threads");
        require(sqlite3_config(SQLITE_CONFIG_MUTEX, &kemsdMutexMethods()), "kemsd's locks");
        require(sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0), "not to count its memory");
    }
    require(sqlite3_config(SQLITE_CONFIG_MALLOC, &kemsdMemoryMethods()), "kemsd's memory");
    require(sqlite3_initialize(), "to start");
    require(registerKemsdVfs(), "kemsd's files");
}

void Server::setTerminating() { __atomic_store_n(&service_.bAppTerminating, TRUE, __ATOMIC_SEQ_CST); }

// Threads leave before the heaps end, the heaps before the locks, and the context, which every call may need, goes
// last.
Server::~Server()
{
    sqlite3_shutdown();
    endMessages(net_);
    if (serviceStarted_) {
        KemSdEventClose(context(), &service_.pauseinterface.writeIOEvtHdl);
        KemSdEventClose(context(), &service_.pauseinterface.pauseWriteIOEvtHdl);
    }
    if (thread_) thread_->detach();
    KemSdVupUtilTlsTerm();
    ovMemResetThreadContext();
    ovMemThreadHeapTerm();
    if (thread_) thread_->freeLocks();
    KemSdDestroyNumaResources();
    KemSyncEnvTerm(thread_ ? thread_->context() : nullptr);
    thread_.reset();
    KemSdXcptDestroyStackHeader();
}

} // namespace sqlhost
