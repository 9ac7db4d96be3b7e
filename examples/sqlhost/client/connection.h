// A client's conversation with one server, and the link that makes a new one when the server has been restarted.
#pragma once

#include <kemsd/os.h>

#include <optional>

#include "client/door.h"
#include "wire/channel.h"

namespace sqlhost {

class Connection {
public:
    // Is let in by the server that is there. `segments`: the process's list, which stays. Throws Failure.
    Connection(KEM_PSDCTX_T context, const ServerDirectory& directory, OV_SHAREDMEM_SEG_LIST_T** segments);
    // Says goodbye.
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // The server that it was made with is still there.
    bool stands() const;
    const ServerIdentity& server() const { return server_; }

    // Sends a request. Throws PeerGone.
    void ask(char type, std::string_view payload);
    // For the answer, and for those who want to say something else.
    Channel& channel() { return *channel_; }
    KEM_PSDCTX_T context() { return context_; }

private:
    void takeLock();
    OV_SHAREDMEM_SEG_T* attach(unsigned segment, OV_SHAREDMEM_SEG_LIST_T** segments);
    static void* watchBody(void* connection);
    void watch(KEM_PSDCTX_T context);

    KEM_PSDCTX_T context_;
    const ServerDirectory& directory_;
    Door door_;
    ServerIdentity server_;
    LockFile clientsLock_;
    int64_t lockByte_ = 0;
    std::optional<Channel> channel_;
    KEM_STDEVENT_T endWatch_;
    KEM_THDHDL_T watcher_ = 0;
};

// The client's way to the server of a directory, whichever process that is.
class ServerLink {
public:
    ServerLink(KEM_PSDCTX_T context, const std::string& directory) : context_(context), directory_(directory) {}
    ~ServerLink();
    ServerLink(const ServerLink&) = delete;
    ServerLink& operator=(const ServerLink&) = delete;

    // A conversation that stands: the last one, or a new one when there is none or its server has ended. Throws
    // Failure.
    Connection& connection();
    // Ends it at once, whatever it is waiting for.
    void leave() { connection_.reset(); }

private:
    KEM_PSDCTX_T context_;
    const ServerDirectory directory_;
    OV_SHAREDMEM_SEG_LIST_T* segments_ = nullptr;
    std::optional<Connection> connection_;
};

} // namespace sqlhost
