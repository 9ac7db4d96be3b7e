// The handler at work. The five signals are blocked in it: a fault of its own ends the process at once, by the system,
// and another thread that faults meanwhile waits for the end in the handler's first lines.
#include "serve/dossier.h"

#include <fcntl.h>
#include <kemsd/os.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "serve/reporttext.h"
#include "serve/service.h"

namespace sqlhost {
namespace {

constexpr size_t kStackBytes = 65536; // for the handler, and for what a sanitizer adds
constexpr size_t kTextBytes = 8192;
constexpr int kExitOfASignal = 128; // of a process that no signal ends, because it is the system's first

int threadId() { return static_cast<int>(syscall(SYS_gettid)); }

sigset_t setOf(const auto& numbers)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : numbers) sigaddset(&set, number);
    return set;
}

} // namespace

std::atomic<Dossier*> Dossier::inForce_{nullptr};

// ---- Threads -----------------------------------------------------------------------------------------------------

// Mapped pages: they count against no memory limit, and are touched only by a handler.
SignalStack::SignalStack()
{
    if (ovMmap(&pages_, kStackBytes, __FILE__, __LINE__) != 0) return;
    stack_t stack{};
    stack.ss_sp = pages_;
    stack.ss_size = kStackBytes;
    sigaltstack(&stack, &earlier_);
}

SignalStack::~SignalStack()
{
    if (!pages_) return;
    sigaltstack(&earlier_, nullptr);
    ovMunmap(pages_, __FILE__, __LINE__);
}

// An entry is free while its record is null. There is one for each client there may be, but a thread whose end is about
// to be noticed may still have one.
KnownThread::KnownThread(Dossier& dossier, const OV_THDCTX_T& record, const Session* session)
{
    for (Dossier::Entry& entry : dossier.entries_) {
        const OV_THDCTX_T* free = nullptr;
        if (!entry.record.compare_exchange_strong(free, &record)) continue;
        entry.session.store(session, std::memory_order_relaxed);
        entry.id.store(threadId(), std::memory_order_release); // pairs with the handler's look
        entry_ = &entry;
        return;
    }
}

KnownThread::~KnownThread()
{
    if (!entry_) return;
    entry_->id.store(0, std::memory_order_relaxed);
    entry_->session.store(nullptr, std::memory_order_relaxed);
    entry_->record.store(nullptr, std::memory_order_release);
}

// ---- The dossier's own coming and going --------------------------------------------------------------------------

Dossier::Dossier(Service& service, FatalEnd end)
    : service_(service), end_(end), path_(service.directory().dossier(getpid()))
{
    clock_gettime(CLOCK_MONOTONIC, &started_);
    first_ = std::make_unique<KnownThread>(*this, service.server().thread(), nullptr);
    look();
    inForce_.store(this, std::memory_order_release);
    struct sigaction action = {};
    action.sa_sigaction = onSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    action.sa_mask = setOf(kSignals);
    for (size_t i = 0; i < kSignalCount; ++i) sigaction(kSignals[i], &action, &earlier_[i]);
}

Dossier::~Dossier()
{
    for (size_t i = 0; i < kSignalCount; ++i) sigaction(kSignals[i], &earlier_[i], nullptr);
    inForce_.store(nullptr, std::memory_order_release);
}

// The two sets of figures take turns, so that a handler finds the latest one at rest.
void Dossier::look()
{
    constexpr int kSinceStart = 1;
    const unsigned next = 1 - latest_.load(std::memory_order_relaxed);
    Figures& now = figures_[next];
    clock_gettime(CLOCK_MONOTONIC, &now.when);
    now.counted =
        ovMemGetUsedMemory(&now.outside, &now.heaps, &now.aligned, &now.maxUsed, &now.maxAligned, &now.maxTotal) == 0;
    now.blocksCounted = ovMemGetUsedMemoryBlocks(kSinceStart, now.allocated, now.released) == 0;
    latest_.store(next, std::memory_order_release);
}

// ---- The end -----------------------------------------------------------------------------------------------------

// The thread that comes a second time has met the abort() of a reserve that cannot serve.
void Dossier::onSignal(int number, siginfo_t* signal, void* machine)
{
    Dossier* const dossier = inForce_.load(std::memory_order_acquire);
    const int self = threadId();
    int none = 0;
    if (!dossier) {
        ::signal(number, SIG_DFL);
        return;
    }
    if (dossier->handling_.compare_exchange_strong(none, self)) {
        dossier->write(number, *signal, machine);
        dossier->end(number);
    }
    if (none == self) dossier->end(number);
    for (;;) pause();
}

// A reserve that cannot serve ends the process by abort(): by exit() a dead server would look like one that was
// stopped.
void Dossier::write(int number, const siginfo_t& signal, const void* machine)
{
    clock_gettime(CLOCK_MONOTONIC, &ended_);
    KemSdXcptSetFatExceptionOccured(TRUE);
    const int file = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (file != -1) {
        ReportText report(file, static_cast<char*>(ovMemExtMalloc(kTextBytes, 2)), kTextBytes);
        addSignal(report, number, signal, machine);
        addProcess(report);
        addMemory(report);
        addWrites(report);
        addThreads(report);
        addLocks(report);
        addEnd(report);
        report.flush();
        close(file);
    }
    tell(number, file != -1);
}

void Dossier::end(int number) const
{
    const int last = end_ == FatalEnd::byAbort ? SIGABRT : number;
    ::signal(last, SIG_DFL);
    if (last == SIGABRT) abort();
    raise(last);
    const sigset_t all = setOf(kSignals);
    pthread_sigmask(SIG_UNBLOCK, &all, nullptr);
    _exit(kExitOfASignal + number);
}

} // namespace sqlhost
