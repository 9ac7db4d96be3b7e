// What a server that is about to die leaves for people: DIR/crash-PID.txt, written by the handler of the signal that
// ends it. The handler declares the fatal exception, has memory from the reserve that is set aside at the start, and
// takes no lock: what it cannot read without one, the first thread has noted down a moment before.
#pragma once

#include <kemsd/memory.h>
#include <signal.h>
#include <time.h>

#include <atomic>
#include <memory>
#include <string>

#include "serve/segments.h"

namespace sqlhost {

class KnownThread;
class ReportText;
class Service;
class Session;

// How a server ends after a fatal signal: by the signal itself, or by abort(), of which systems keep a core dump.
enum class FatalEnd { bySignal, byAbort };

// A stack of its own for a thread's signal handlers, so that the end of its usual one can be reported. Without memory
// the thread goes on without.
class SignalStack {
public:
    SignalStack();
    ~SignalStack();
    SignalStack(const SignalStack&) = delete;
    SignalStack& operator=(const SignalStack&) = delete;

private:
    void* pages_ = nullptr;
    stack_t earlier_{};
};

class Dossier {
public:
    // The calling thread is the server's first. From here on fatal signals are handled; one dossier a process.
    Dossier(Service& service, FatalEnd end);
    ~Dossier();
    Dossier(const Dossier&) = delete;
    Dossier& operator=(const Dossier&) = delete;

    // For the first thread, again and again: notes the figures down that are read under locks.
    void look();

private:
    friend class KnownThread;

    struct Entry {
        std::atomic<const OV_THDCTX_T*> record{nullptr}; // null: free
        std::atomic<int> id{0};
        std::atomic<const Session*> session{nullptr}; // null: the first thread
    };
    struct Figures {
        timespec when;
        bool counted, blocksCounted;
        OV_ULONGLONG_T outside, heaps, aligned, maxUsed, maxAligned, maxTotal;
        OV_ULONGLONG_T allocated[OV_MEM_BUCKETS], released[OV_MEM_BUCKETS];
    };
    static constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
    static constexpr size_t kSignalCount = sizeof kSignals / sizeof *kSignals;

    static void onSignal(int number, siginfo_t* signal, void* machine);
    void write(int number, const siginfo_t& signal, const void* machine);
    void tell(int number, bool written) const;
    void addSignal(ReportText& report, int number, const siginfo_t& signal, const void* machine) const;
    void addProcess(ReportText& report) const;
    void addMemory(ReportText& report) const;
    void addBlocks(ReportText& report, const Figures& figures) const;
    void addWrites(ReportText& report) const;
    void addThreads(ReportText& report) const;
    void addLocks(ReportText& report) const;
    void addEnd(ReportText& report) const;
    void addHeld(ReportText& report, const KEM_RWLOCK_T& lock) const;
    const Entry* entryOf(int id) const;
    [[noreturn]] void end(int number) const;

    static std::atomic<Dossier*> inForce_;

    Service& service_;
    const FatalEnd end_;
    const std::string path_;
    timespec started_, ended_;
    Entry entries_[1 + Segments::kMostClients];
    Figures figures_[2]; // one is being written, the other one counts
    std::atomic<unsigned> latest_{0};
    std::atomic<int> handling_{0}; // the thread that writes the dossier
    struct sigaction earlier_[kSignalCount];
    std::unique_ptr<KnownThread> first_;
};

// The calling thread, as long as the object lives: dossiers tell about it, and it has a stack for its handlers.
class KnownThread {
public:
    // `session`: the client whose thread it is, or null.
    KnownThread(Dossier& dossier, const OV_THDCTX_T& record, const Session* session);
    ~KnownThread();
    KnownThread(const KnownThread&) = delete;
    KnownThread& operator=(const KnownThread&) = delete;

private:
    SignalStack stack_;
    Dossier::Entry* entry_ = nullptr;
};

} // namespace sqlhost
