// The server process at work on its directory. Its first thread lets clients in, notices when they are gone, and waits
// for the end; each client has a session with a thread of its own.
#pragma once

#include <optional>

#include "serve/dossier.h"
#include "serve/segments.h"
#include "serve/sessions.h"
#include "serve/writepause.h"
#include "server.h"
#include "sqlmodules.h"
#include "wire/handshake.h"
#include "wire/lockfile.h"
#include "wire/serverdir.h"

namespace sqlhost {

class Service {
public:
    // Claims the directory, which is made when missing, and clears what a server that was killed has left there.
    // SIGTERM, SIGINT and SIGHUP are blocked from now on. Throws Failure.
    Service(Server& server, const SqlModules& modules, const std::string& directory, FatalEnd end);
    // Leaves the directory as it was, but for the database and three empty files. All sessions have ended.
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // Serves until a signal or a client ends it, and all sessions have ended.
    void run();

    // For the sessions' threads.
    Server& server() { return server_; }
    const SqlModules& modules() const { return modules_; }
    const ServerDirectory& directory() const { return directory_; }
    const ServerIdentity& identity() const { return identity_; }
    Sessions& sessions() { return sessions_; }
    WritePause& pause() { return pause_; }
    Dossier& dossier() { return *dossier_; }
    CriticalSection& importTurn() { return importTurn_; }
    unsigned segmentCount() const { return segments_->count(); }
    // Wakes the first thread: a session has ended.
    void wake();

private:
    struct Claimed {};
    Service(Server& server, const SqlModules& modules, const std::string& directory, Claimed);
    void open(FatalEnd end);
    void clearStale();
    void openDatabase();
    void tryModules();
    void openDoor();
    void writeNote();
    void serveOnce();
    void end();
    void wait();
    void letIn();
    Welcome receive(const Hello& hello);
    void startSession(const Hello& hello, Welcome& welcome);
    void noticeTheGone();
    void clearAway();

    Server& server_;
    const SqlModules& modules_;
    ServerDirectory directory_;
    LockFile serverLock_;
    LockFile clientsLock_;
    ServerIdentity identity_;
    WritePause pause_;
    CriticalSection importTurn_; // held while the rows of an import are inserted
    Sessions sessions_;
    std::optional<Segments> segments_;
    std::optional<Fifo> fromClients_, toClients_;
    KEM_PIPEHDL_T wake_{-1, -1, nullptr};
    int signals_ = -1;
    bool ending_ = false;
    std::optional<Dossier> dossier_;
};

} // namespace sqlhost
