// The server's door, from outside: is there a server, and may I come in, or ask it to end.
#pragma once

#include "wire/handshake.h"
#include "wire/lockfile.h"
#include "wire/serverdir.h"

namespace sqlhost {

class Door {
public:
    // Throws Failure when no server has ever been there.
    Door(KEM_PSDCTX_T context, const ServerDirectory& directory);

    // The server that is there now, once it is ready. Throws Failure when there is none.
    ServerIdentity server();
    // Whether that server serves no more,
    bool hasEnded(KEM_PSDCTX_T context, const ServerIdentity& server) const;
    // and whether its process is gone.
    bool isGone(const ServerIdentity& server) const;

    // Asks that server to let the client in that holds this byte of clients.lock. Throws Failure, also when it refuses.
    Welcome enter(const ServerIdentity& server, int64_t lockByte);
    // Asks it to end.
    void stop(const ServerIdentity& server);

private:
    Welcome ask(const ServerIdentity& server, Hello hello);
    Welcome takeAnswer(const ServerIdentity& server, Fifo& fromServer, const Hello& hello);
    void requireServer(const ServerIdentity& server) const;

    KEM_PSDCTX_T context_;
    const ServerDirectory& directory_;
    LockFile serverLock_;
};

} // namespace sqlhost
