// What a dossier says, part by part: what is certain first, what might fail on damaged memory last.
#include <kemsd/kemsd.h>
#include <sqlite3.h>
#include <unistd.h>

#include "serve/dossier.h"
#include "serve/faultplace.h"
#include "serve/reporttext.h"
#include "serve/service.h"
#include "serve/session.h"

namespace sqlhost {
namespace {

using Column = ReportText::Column;
using Hex = ReportText::Hex;

constexpr Column kValues{20};
constexpr uint64_t kNearTheStack =
    65536; // bytes around the stack pointer in which a thread that grows its stack faults

constexpr const char* signalName(int number)
{
    switch (number) {
        case SIGSEGV:
            return "SIGSEGV";
        case SIGBUS:
            return "SIGBUS";
        case SIGILL:
            return "SIGILL";
        case SIGFPE:
            return "SIGFPE";
        default:
            return "SIGABRT";
    }
}

// Sent by a process or a thread, this one included; else the machine's own.
bool isSent(const siginfo_t& signal) { return signal.si_code <= 0; }

uint64_t addressOf(const void* place) { return reinterpret_cast<uint64_t>(place); }

uint64_t loaded(const OV_BOOL_T volatile& word) { return __atomic_load_n(&word, __ATOMIC_RELAXED); }

int64_t microsecondsFrom(const timespec& earlier)
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (now.tv_sec - earlier.tv_sec) * 1000000 + (now.tv_nsec - earlier.tv_nsec) / 1000;
}

int64_t millisecondsFrom(const timespec& earlier) { return microsecondsFrom(earlier) / 1000; }

void addTitle(ReportText& report, const char* title)
{
    report.flush();
    report << "\n" << title << "\n\n";
}

void addBytes(ReportText& report, const char* what, uint64_t bytes)
{
    report << what << kValues << bytes / 1024 << " KiB\n";
}

void addCause(ReportText& report, const siginfo_t& signal, uint64_t stack)
{
    if (isSent(signal)) {
        report << "sent by" << kValues << "process " << signal.si_pid << "\n";
        return;
    }
    const uint64_t address = addressOf(signal.si_addr);
    report << "fault address" << kValues << Hex{address} << "\n";
    if (signal.si_signo == SIGSEGV && address + kNearTheStack > stack && address < stack + kNearTheStack)
        report << "likely cause" << kValues << "the thread's stack is full: the address lies at its end\n";
}

} // namespace

// On standard error too, which may be all that a supervisor keeps.
void Dossier::tell(int number, bool written) const
{
    char line[512];
    ReportText report(STDERR_FILENO, line, sizeof line);
    report << "sqlhost: " << signalName(number) << " ended the server; "
           << (written ? "a report lies in " : "no report could be written to ") << path_ << "\n";
    report.flush();
}

void Dossier::addSignal(ReportText& report, int number, const siginfo_t& signal, const void* machine) const
{
    const MachinePlace place = machinePlace(machine);
    report << "A server of sqlhost was ended by a signal.\n\n";
    report << "signal" << kValues << number << ", " << signalName(number) << "\n";
    addCause(report, signal, place.stack);
    report << "thread" << kValues << handling_.load(std::memory_order_relaxed);
    const Entry* const entry = entryOf(handling_.load(std::memory_order_relaxed));
    const Session* const session = entry ? entry->session.load(std::memory_order_relaxed) : nullptr;
    if (session)
        report << ", of client " << session->clientPid() << "\n";
    else
        report << (entry ? ", the server's first\n" : ", none of the server's own\n");
    report << "instruction" << kValues << Hex{place.instruction} << ", ";
    addPlace(report, place.instruction);
    report << "\nstack pointer" << kValues << Hex{place.stack} << "\n";
}

void Dossier::addProcess(ReportText& report) const
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const int64_t ran = millisecondsFrom(started_);
    report << "time" << kValues << UtcTime{now.tv_sec, now.tv_nsec / 1000000} << "\n";
    report << "running for" << kValues << ran / 1000 << "." << ReportText::Digits{static_cast<uint64_t>(ran % 1000), 3}
           << " seconds\n";
    report << "process" << kValues << getpid() << "\n";
    report << "directory" << kValues << service_.directory().path << "\n";
    report << "version" << kValues << pszModuleVer << ", SQLite " << sqlite3_libversion() << "\n";
    report << "afterwards" << kValues
           << (end_ == FatalEnd::byAbort ? "the process ended by abort()\n" : "the process ended by the signal\n");
}

// ---- Memory ------------------------------------------------------------------------------------------------------

void Dossier::addMemory(ReportText& report) const
{
    enum { limit, slots, maxHeaps, heapSize, shortHeapSize, maxBlock, control };
    OV_ULONGLONG_T settings[7] = {};
    ovMemGetMemorySettings(settings); // reads, and takes no lock
    const Figures& figures = figures_[latest_.load(std::memory_order_acquire)];
    addTitle(report, "Memory");
    report << "noted down" << kValues << millisecondsFrom(figures.when) << " ms before this report\n";
    if (settings[limit] != 0)
        addBytes(report, "limit", settings[limit]);
    else
        report << "limit" << kValues << "none\n";
    if (figures.counted) {
        addBytes(report, "in use", figures.outside + figures.heaps + figures.aligned);
        addBytes(report, "in use, highest", figures.maxTotal);
        addBytes(report, "outside heaps", figures.outside);
        addBytes(report, "aligned", figures.aligned);
        report << "heaps" << kValues << (settings[heapSize] ? figures.heaps / settings[heapSize] : 0) << " made, "
               << settings[maxHeaps] << " at most, " << settings[heapSize] / 1024 << " KiB each, " << settings[slots]
               << " for threads\n";
    } else {
        report << "in use" << kValues << "not counted\n";
    }
    report << "short-term heaps" << kValues;
    if (settings[shortHeapSize] != 0)
        report << settings[shortHeapSize] / 1024 << " KiB each\n";
    else
        report << "off\n";
    report << "largest block" << kValues << settings[maxBlock] / 1024 << " KiB from a heap\n";
    if (figures.blocksCounted) addBlocks(report, figures);
}

// Bucket 0 holds up to 160 bytes, bucket 1 up to 1 KiB, and each further one twice the one before.
void Dossier::addBlocks(ReportText& report, const Figures& figures) const
{
    constexpr Column kReleased{34};
    report << "\nblocks" << kValues << "allocated" << kReleased << "released\n";
    for (int i = 0; i < OV_MEM_BUCKETS; ++i) {
        if (i == 0)
            report << "to 160 bytes";
        else if (i == OV_MEM_BUCKETS - 1)
            report << "larger";
        else
            report << "to " << (1 << (i - 1)) << " KiB";
        report << kValues << figures.allocated[i] << kReleased << figures.released[i] << "\n";
    }
}

// ---- Writes, threads and locks -----------------------------------------------------------------------------------

void Dossier::addWrites(ReportText& report) const
{
    const OV_PAUSE_INTERFACE_T& pause = service_.server().service().pauseinterface;
    addTitle(report, "Writes");
    report << "write leases out" << kValues << int64_t{__atomic_load_n(&pause.lBusyWriteIOCnt, __ATOMIC_RELAXED)}
           << "\n";
    report << "writing" << kValues << (loaded(pause.bPauseWriteIO) ? "paused, or being paused" : "going on") << "\n";
}

void Dossier::addThreads(ReportText& report) const
{
    constexpr Column kClient{10}, kSegment{20}, kSlot{29}, kState{35}, kRequests{47}, kNotes{57};
    addTitle(report, "Threads");
    report << "thread" << kClient << "client" << kSegment << "segment" << kSlot << "slot" << kState << "state"
           << kRequests << "requests\n";
    for (const Entry& entry : entries_) {
        const int id = entry.id.load(std::memory_order_acquire);
        const OV_THDCTX_T* const record = entry.record.load(std::memory_order_relaxed);
        if (id == 0 || !record) continue;
        report << id << kClient;
        if (const Session* const session = entry.session.load(std::memory_order_relaxed))
            report << session->clientPid() << kSegment << session->slot().segment << kSlot
                   << int64_t{session->slot().slot} << kState << session->activity() << kRequests
                   << session->requests();
        else
            report << "none: the first thread";
        report << kNotes << (id == handling_.load(std::memory_order_relaxed) ? "ended the server " : "")
               << (loaded(record->bBusyWriteIO) ? "writes " : "") << (record->MemShortHeap ? "in a unit of work" : "")
               << "\n";
    }
}

// Each thread's nodes tell what it holds, of the locks of this kind that the server has. Other threads go on meanwhile.
void Dossier::addLocks(ReportText& report) const
{
    addTitle(report, "Reader-writer locks");
    report << "lock 3, sessions" << kValues;
    addHeld(report, service_.sessions().lock());
    report << "lock 6, write pause" << kValues;
    addHeld(report, service_.server().service().pauseinterface.rwlockPauseUpdates);
    report << "\nSpinlocks, mutexes and SQLite's locks do not tell who holds them.\n";
}

void Dossier::addHeld(ReportText& report, const KEM_RWLOCK_T& lock) const
{
    constexpr int kReading = 1;
    const int64_t word = __atomic_load_n(&lock.lRdrCntAndFlags, __ATOMIC_RELAXED);
    report << word / RWLOCK_READER_UNIT << " readers, " << (word & RWLOCK_WRITER_QUEUED ? "a writer" : "no writer")
           << (word & RWLOCK_READERS_WAITING ? ", readers wait" : "");
    for (const Entry& entry : entries_) {
        const OV_THDCTX_T* const record = entry.record.load(std::memory_order_acquire);
        if (!record || !record->pSyncCtx) continue;
        const int mode = KemSdModeRW(nullptr, record->pSyncCtx, const_cast<KEM_RWLOCK_T*>(&lock));
        if (mode == 0) continue;
        report << "; thread " << entry.id.load(std::memory_order_relaxed)
               << (mode == kReading ? " holds it for reading" : " holds it for writing");
    }
    report << "\n";
}

// A report without this line is not whole: the handler itself has failed.
void Dossier::addEnd(ReportText& report) const
{
    report.flush();
    report << "\nWritten in " << microsecondsFrom(ended_) << " microseconds.\n";
}

const Dossier::Entry* Dossier::entryOf(int id) const
{
    for (const Entry& entry : entries_)
        if (entry.id.load(std::memory_order_acquire) == id) return &entry;
    return nullptr;
}

} // namespace sqlhost
