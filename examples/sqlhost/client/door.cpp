#include "client/door.h"

#include <kemsd/os.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <random>

#include "text.h"

namespace sqlhost {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience(15); // with a server that starts, or is slow
constexpr KEM_ULONG_T kLookMilliseconds = 5;
constexpr int kAnswerMilliseconds = 100;

const std::string& existing(const ServerDirectory& directory)
{
    std::error_code ignored;
    if (!std::filesystem::exists(directory.serverLock, ignored)) throw Failure("no server serves " + directory.path);
    return directory.serverLock;
}

uint64_t newNonce()
{
    std::random_device random;
    return uint64_t{random()} << 32 | random();
}

} // namespace

Door::Door(KEM_PSDCTX_T context, const ServerDirectory& directory)
    : context_(context), directory_(directory), serverLock_(context, existing(directory), LockFile::Missing::refuse)
{}

// A server that holds its lock and has not said that it is ready is still starting.
ServerIdentity Door::server()
{
    for (const auto end = Clock::now() + kPatience; Clock::now() < end;) {
        if (!serverLock_.isLocked(0)) throw Failure("no server serves " + directory_.path);
        const auto server = ServerIdentity::fromNote(serverLock_.note(context_));
        if (server && server->ready()) return *server;
        KemSdSleep(context_, kLookMilliseconds);
    }
    throw Failure("the server of " + directory_.path + " does not get ready");
}

bool Door::hasEnded(KEM_PSDCTX_T context, const ServerIdentity& server) const
{
    return !serverLock_.isLocked(0) || ServerIdentity::fromNote(serverLock_.note(context)) != server;
}

// A server that ends says first that it is not ready any more, and keeps its lock to the last.
bool Door::isGone(const ServerIdentity& server) const
{
    const auto now = ServerIdentity::fromNote(serverLock_.note(context_));
    return !serverLock_.isLocked(0) || (now && !now->isSameProcess(server));
}

void Door::requireServer(const ServerIdentity& server) const
{
    if (hasEnded(context_, server)) throw Failure(text("the server with process id %d has ended", server.pid));
}

Welcome Door::enter(const ServerIdentity& server, int64_t lockByte)
{
    Hello hello;
    hello.lockByte = lockByte;
    const Welcome welcome = ask(server, hello);
    if (welcome.result == Answered::full)
        throw Failure(text("the server with process id %d serves as many clients as it can", server.pid));
    if (welcome.result == Answered::ending) throw Failure(text("the server with process id %d is ending", server.pid));
    if (welcome.result != Answered::welcome)
        throw Failure(text("the server with process id %d could not serve one more client", server.pid));
    return welcome;
}

void Door::stop(const ServerIdentity& server)
{
    Hello hello;
    hello.wish = Wish::stop;
    ask(server, hello);
}

// One client at a time stands at the door: its lock goes with the end of this function, or of the process.
Welcome Door::ask(const ServerIdentity& server, Hello hello)
{
    LockFile turn(context_, directory_.connectLock, LockFile::Missing::make);
    for (const auto end = Clock::now() + kPatience; !turn.tryLock(0); KemSdSleep(context_, kLookMilliseconds)) {
        requireServer(server);
        if (Clock::now() > end) throw Failure("another client stands at the door of " + directory_.path);
    }
    requireServer(server);
    Fifo toServer(context_, fifoToServer(directory_)), fromServer(context_, fifoToClient(directory_));
    fromServer.drain(context_);
    hello.pid = getpid();
    hello.nonce = newNonce();
    if (!toServer.put(context_, hello)) throw Failure("nobody reads " + fifoToServer(directory_));
    return takeAnswer(server, fromServer, hello);
}

Welcome Door::takeAnswer(const ServerIdentity& server, Fifo& fromServer, const Hello& hello)
{
    Welcome welcome;
    for (const auto end = Clock::now() + kPatience; Clock::now() < end;) {
        if (fromServer.wait(kAnswerMilliseconds) && fromServer.take(context_, welcome)) {
            if (welcome.clientPid == hello.pid && welcome.nonce == hello.nonce) return welcome;
            continue; // for a client that did not wait
        }
        requireServer(server);
    }
    throw Failure(text("the server with process id %d does not answer", server.pid));
}

} // namespace sqlhost
