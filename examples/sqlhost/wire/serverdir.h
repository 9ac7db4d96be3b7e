// A server's directory: the names in it, and what the server says about itself there.
#pragma once

#include <kemsd/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sqlhost {

struct ServerDirectory {
    // `path`: the directory as the user named it.
    explicit ServerDirectory(const std::string& path);

    std::string path;        // full
    std::string database;    // the database
    std::string serverLock;  // locked by the server; its note is the server's identity
    std::string clientsLock; // a byte for each connection, locked by the client
    std::string connectLock; // byte 0 locked by the client that is being let in
    std::string connect;     // the named pipe: connect_1 to the server, connect_2 back

    // The file whose key names a segment and its semaphores; segments are counted from 1.
    std::string exchange(unsigned segment) const;
    // What a server with that process id writes when a fatal signal ends it.
    std::string dossier(KEM_PROCID_T pid) const;
    // The name that the file of a client's rows has for a moment.
    std::string spool(unsigned segment, unsigned slot) const;
};

// Which server it is. Another one has another identity, even if it has the same process id.
struct ServerIdentity {
    KEM_PROCID_T pid = 0;
    KEM_IPCKEY_T key = -1; // of its first segment; -1 while it starts, and once it ends
    uint64_t stamp = 0;    // microseconds since the epoch at its start

    bool ready() const { return key != -1; }
    bool operator==(const ServerIdentity&) const = default;
    // The same server, starting, at work or ending.
    bool isSameProcess(const ServerIdentity& other) const { return pid == other.pid && stamp == other.stamp; }

    // The note in serverLock: always of the same length, so that a new one covers the old.
    std::string note() const;
    static std::optional<ServerIdentity> fromNote(std::string_view note);
};

} // namespace sqlhost
