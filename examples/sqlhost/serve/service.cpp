#include "serve/service.h"

#include <fcntl.h>
#include <kemsd/file.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "database.h"
#include "serve/sysv.h"
#include "sqlvfs.h"
#include "text.h"

namespace sqlhost {
namespace {

namespace fs = std::filesystem;

constexpr int kWatchMilliseconds = 150; // between looks whether each client lives
constexpr int64_t kHighestLockByte = INT64_MAX / 2;

// The directory, for its owner alone when it has to be made.
ServerDirectory prepare(const std::string& named)
{
    ServerDirectory directory(named);
    std::error_code failed;
    if (fs::create_directories(directory.path, failed) && !failed)
        fs::permissions(directory.path, fs::perms::owner_all, failed);
    if (failed) throw Failure(text("cannot make %s: %s", directory.path.c_str(), failed.message().c_str()));
    return directory;
}

// One server a directory. Throws Failure when there is another.
void claim(KEM_PSDCTX_T context, LockFile& lock, const ServerDirectory& directory)
{
    if (lock.tryLock(0)) return;
    const auto other = ServerIdentity::fromNote(lock.note(context));
    throw Failure(other ? text("a server with process id %d serves %s already", other->pid, directory.path.c_str())
                        : text("another server serves %s already", directory.path.c_str()));
}

int blockedSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, signal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

} // namespace

// The inner constructor completes at once, so that the destructor runs when a later step throws.
Service::Service(Server& server, const std::string& directory) : Service(server, directory, Claimed())
{
    claim(server_.context(), serverLock_, directory_);
    open();
}

Service::Service(Server& server, const std::string& directory, Claimed)
    : server_(server),
      directory_(prepare(directory)),
      serverLock_(server.context(), directory_.serverLock, LockFile::Missing::make),
      clientsLock_(server.context(), directory_.clientsLock, LockFile::Missing::make),
      pause_(server.service(), directory_.database),
      sessions_(server.context())
{}

// The note tells from the first made object to the last removed one whose they are.
void Service::open()
{
    signals_ = blockedSignals();
    if (signals_ == -1) throw Failure(text("cannot wait for signals: %s", strerror(errno)));
    clearStale();
    KEM_UTC_TIMESTAMP_T now = {};
    KemSdGetUtcTimestamp(server_.context(), nullptr, &now);
    identity_.pid = getpid();
    identity_.stamp =
        static_cast<uint32_t>(now.lSeconds) * uint64_t{1000000} + static_cast<uint64_t>(now.lMicroseconds);
    setNote(identity_.note());
    openDatabase();
    segments_.emplace(server_.context(), directory_, identity_.pid);
    openDoor();
    identity_.key = segments_->firstKey();
    setNote(identity_.note());
}

void Service::clearStale()
{
    const auto dead = ServerIdentity::fromNote(serverLock_.note(server_.context()));
    if (!dead) return;
    for (unsigned segment = 1; fs::exists(directory_.exchange(segment)); ++segment) {
        removeStale(directory_.exchange(segment), dead->pid);
        KemSdFileRemove(server_.context(), directory_.exchange(segment).c_str());
    }
}

// Makes it when missing, undoes what a dead server left half done, and sees that it is a database.
void Service::openDatabase()
try {
    Database database(directory_.database, DatabaseMode::create);
    database.run("SELECT count(*) FROM sqlite_schema");
} catch (const Failure& failure) {
    const std::string why = failure.what();
    throw Failure(why.starts_with(directory_.database) ? why : directory_.database + ": " + why);
}

void Service::openDoor()
{
    KEM_PSDCTX_T context = server_.context();
    KEM_PIPEHDL_T same{-1, -1, nullptr};
    if (KemSdPipeCreate(context, &wake_, &same, 0) != 0)
        throw Failure(text("cannot make a pipe: %s", strerror(context->osRetCode)));
    fcntl(wake_.iFdRead, F_SETFL, O_NONBLOCK);
    fcntl(wake_.iFdWrite, F_SETFL, O_NONBLOCK);
    if (KemSdNamedPipeCreate(context, directory_.connect.c_str(), nullptr, 0, 0, 0, 0, 0, 0) != 0)
        throw Failure(
            text("cannot make the named pipe %s: %s", directory_.connect.c_str(), strerror(context->osRetCode)));
    fromClients_.emplace(context, fifoToServer(directory_));
    toClients_.emplace(context, fifoToClient(directory_));
}

void Service::setNote(const std::string& note)
{
    KEM_UINT_T written = 0;
    const LeaseScope lease(directory_.serverLock.c_str());
    if (KemSdFilePWrite(server_.context(), serverLock_.handle(), const_cast<char*>(note.data()), 0,
                        static_cast<KEM_UINT_T>(note.size()), &written, nullptr) != 0 ||
        written != note.size())
        throw Failure(
            text("cannot write %s: %s", directory_.serverLock.c_str(), strerror(server_.context()->osRetCode)));
}

void Service::wake()
{
    KEM_ULONG_T written = 0;
    char byte = 0;
    KemSdPipeWrite(nullptr, &wake_, &byte, 1, &written); // full is awake
}

// ---- At work -----------------------------------------------------------------------------------------------------

void Service::run()
{
    printf("serving %s, process id %d\n", directory_.path.c_str(), identity_.pid);
    fflush(stdout);
    while (!ending_) {
        wait();
        clearAway();
        letIn();
        noticeTheGone();
        pause_.look();
    }
    server_.setTerminating();
    sessions_.each([this](Session& session) { session.channel().giveUp(server_.context()); });
    for (clearAway(); !sessions_.empty(); clearAway()) {
        wait();
        letIn();
    }
}

void Service::wait()
{
    pollfd ends[] = {{signals_, POLLIN, 0}, {fromClients_->handle(), POLLIN, 0}, {wake_.iFdRead, POLLIN, 0}};
    poll(ends, 3, kWatchMilliseconds);
    signalfd_siginfo signal;
    while (read(signals_, &signal, sizeof signal) == sizeof signal) ending_ = true;
    char bytes[64];
    KEM_ULONG_T got = 0;
    while (KemSdPipeRead(server_.context(), &wake_, bytes, sizeof bytes, &got) == 0 && got > 0) {
    }
}

// An answer that finds no room is for a client that has stopped waiting: the next look finds it gone.
void Service::letIn()
{
    Hello hello;
    while (fromClients_->take(server_.context(), hello)) {
        const bool stop = hello.wish == Wish::stop;
        if (!stop && (hello.lockByte < 0 || hello.lockByte > kHighestLockByte)) continue;
        if (!stop && !clientsLock_.isLocked(hello.lockByte)) continue; // it is gone already
        ending_ = ending_ || stop;
        toClients_->put(server_.context(), receive(hello));
    }
}

Welcome Service::receive(const Hello& hello)
{
    Welcome welcome;
    welcome.clientPid = hello.pid;
    welcome.nonce = hello.nonce;
    welcome.serverPid = identity_.pid;
    welcome.serverKey = identity_.key;
    if (ending_)
        welcome.result = Answered::ending;
    else
        startSession(hello, welcome);
    return welcome;
}

// Once the session stands it owns the slot, even if its thread could not be started.
void Service::startSession(const Hello& hello, Welcome& welcome)
{
    std::optional<Slot> slot;
    try {
        welcome.result = Answered::full;
        slot = segments_->handOut();
        if (!slot) return;
        welcome.result = Answered::welcome;
        welcome.segment = slot->segment;
        welcome.slot = slot->slot;
        auto owner = std::make_unique<Session>(*this, *slot, hello);
        Session& session = *owner;
        sessions_.add(std::move(owner));
        slot.reset();
        session.start();
    } catch (const std::exception& failure) {
        fprintf(stderr, "sqlhost: %s\n", failure.what());
        if (slot) segments_->takeBack(*slot);
        welcome.result = Answered::failed;
    }
}

void Service::noticeTheGone()
{
    sessions_.each([this](Session& session) {
        if (session.channel().givenUp() || clientsLock_.isLocked(session.lockByte())) return;
        session.channel().giveUp(server_.context());
    });
}

void Service::clearAway()
{
    for (const std::unique_ptr<Session>& session : sessions_.takeEnded()) {
        session->join();
        segments_->takeBack(session->slot());
    }
}

// The lock itself stays until the process has ended, so that who waits for that end waits for all of it.
Service::~Service()
{
    KEM_PSDCTX_T context = server_.context();
    if (signals_ != -1) close(signals_);
    if (wake_.iFdRead != -1) KemSdPipeClose(context, &wake_);
    segments_.reset();
    if (identity_.pid == 0) return; // another server's directory
    for (const std::string& fifo : {fifoToServer(directory_), fifoToClient(directory_)})
        if (fs::is_fifo(fifo)) KemSdFileRemove(context, fifo.c_str());
    const LeaseScope lease(directory_.serverLock.c_str());
    KEM_LONG_T length = 0;
    KemSdFileSetEndOfFile(context, serverLock_.handle(), 0, &length, nullptr);
    serverLock_.keep();
}

} // namespace sqlhost
