// A server that comes and goes: its claim on the directory, what it makes there, and what it leaves.
#include "serve/service.h"

#include <fcntl.h>
#include <kemsd/file.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "database.h"
#include "serve/sysv.h"
#include "sqlvfs.h"
#include "text.h"

namespace sqlhost {
namespace {

namespace fs = std::filesystem;

// The directory, for its owner alone when it has to be made.
ServerDirectory prepare(const std::string& named)
{
    ServerDirectory directory(named);
    std::error_code ignored; // the next call tells
    fs::create_directories(fs::path(directory.path).parent_path(), ignored);
    if (mkdir(directory.path.c_str(), S_IRWXU) == -1 && errno != EEXIST)
        throw Failure(text("cannot make %s: %s", directory.path.c_str(), strerror(errno)));
    return directory;
}

// One server a directory. Throws Failure when there is another.
void claim(KEM_PSDCTX_T context, LockFile& lock, const ServerDirectory& directory)
{
    if (!lock.tryLockWhole(context)) throw Failure(directory.path + " is served by " + lock.holder(context));
}

// The signals that end the server are read, and one that a closed standard error would end it by is ignored.
int takeSignals()
{
    signal(SIGPIPE, SIG_IGN);
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, number);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

} // namespace

// The inner constructor completes at once, so that the destructor runs when a later step throws.
Service::Service(Server& server, const SqlModules& modules, const std::string& directory, FatalEnd end)
    : Service(server, modules, directory, Claimed())
{
    claim(server_.context(), serverLock_, directory_);
    open(end);
}

Service::Service(Server& server, const SqlModules& modules, const std::string& directory, Claimed)
    : server_(server),
      modules_(modules),
      directory_(prepare(directory)),
      serverLock_(server.context(), directory_.serverLock, LockFile::Missing::make),
      clientsLock_(server.context(), directory_.clientsLock, LockFile::Missing::make),
      pause_(server.service(), directory_.database),
      sessions_(server.context())
{}

// The note tells from the first made object to the last removed one whose they are.
void Service::open(FatalEnd end)
{
    signals_ = takeSignals();
    if (signals_ == -1) throw Failure(text("cannot wait for signals: %s", strerror(errno)));
    clearStale();
    KEM_UTC_TIMESTAMP_T now = {};
    KemSdGetUtcTimestamp(server_.context(), nullptr, &now);
    identity_.pid = getpid();
    identity_.stamp =
        static_cast<uint32_t>(now.lSeconds) * uint64_t{1000000} + static_cast<uint64_t>(now.lMicroseconds);
    writeNote();
    dossier_.emplace(*this, end);
    openDatabase();
    tryModules();
    segments_.emplace(server_.context(), directory_, identity_.pid);
    openDoor();
    identity_.key = segments_->firstKey();
    writeNote();
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

// A module that refuses is to be told to who starts the server, not to its clients.
void Service::tryModules()
{
    Database database(directory_.database, DatabaseMode::existing);
    modules_.addTo(database, server_.context());
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

void Service::writeNote()
{
    const std::string note = identity_.note();
    KEM_UINT_T written = 0;
    const LeaseScope lease(directory_.serverLock.c_str());
    if (KemSdFilePWrite(server_.context(), serverLock_.handle(), const_cast<char*>(note.data()), 0,
                        static_cast<KEM_UINT_T>(note.size()), &written, nullptr) != 0 ||
        written != note.size())
        throw Failure(
            text("cannot write %s: %s", directory_.serverLock.c_str(), strerror(server_.context()->osRetCode)));
}

// The lock itself stays until the process has ended, so that who waits for that end waits for all of it.
Service::~Service()
{
    KEM_PSDCTX_T context = server_.context();
    if (signals_ != -1) close(signals_);
    if (wake_.iFdRead != -1) KemSdPipeClose(context, &wake_);
    segments_.reset();
    if (identity_.pid == 0) return; // another server's directory
    std::error_code ignored;
    for (const std::string& fifo : {fifoToServer(directory_), fifoToClient(directory_)})
        if (fs::is_fifo(fifo, ignored)) KemSdFileRemove(context, fifo.c_str());
    const LeaseScope lease(directory_.serverLock.c_str());
    KEM_LONG_T length = 0;
    KemSdFileSetEndOfFile(context, serverLock_.handle(), 0, &length, nullptr);
    serverLock_.keep();
}

} // namespace sqlhost
