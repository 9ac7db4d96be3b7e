// The server at work. Its first thread waits for clients at the door, for the ends of sessions and for signals, and
// looks in between whether the clients live.
#include "serve/service.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdio>
#include <functional>

#include "text.h"

namespace sqlhost {
namespace {

constexpr int kWatchMilliseconds = 150; // between looks whether each client lives
constexpr int64_t kHighestLockByte = INT64_MAX / 2;

// What fails for want of memory is said, and tried again with the next look: the sessions' threads still run.
void attempt(const std::function<void()>& step)
try {
    step();
} catch (const std::exception& failure) {
    fprintf(stderr, "sqlhost: %s\n", failure.what());
}

} // namespace

void Service::wake()
{
    KEM_ULONG_T written = 0;
    char byte = 0;
    KemSdPipeWrite(nullptr, &wake_, &byte, 1, &written); // full is awake
}

void Service::run()
{
    printf("serving %s, process id %d\n", directory_.path.c_str(), identity_.pid);
    fflush(stdout);
    while (!ending_) attempt([this] { serveOnce(); });
    server_.setTerminating();
    for (bool ended = false; !ended;)
        attempt([this, &ended] {
            end();
            ended = true;
        });
}

void Service::serveOnce()
{
    wait();
    clearAway();
    letIn();
    noticeTheGone();
    pause_.look();
    dossier_->look();
}

// From here on clients see a server that is not ready.
void Service::end()
{
    sessions_.each([this](Session& session) {
        if (!session.channel().givenUp()) session.channel().giveUp(server_.context());
    });
    identity_.key = -1;
    attempt([this] { writeNote(); });
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

} // namespace sqlhost
