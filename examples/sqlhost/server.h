// The server around the engine: kemsd's start-up and shutdown in the order the library asks for, and SQLite on top.
#pragma once

#include <atomic>
#include <optional>
#include <string>

#include "messages.h"
#include "threadcontext.h"

namespace sqlhost {

// How many threads use SQLite: only the one that starts the server, or any.
enum class Engine { oneThread, manyThreads };

// Where threads run and find their memory: wherever the system puts them, or bound to the machine's nodes in turn.
enum class Placement { anywhere, onNodes };

class Server {
public:
    // `memoryFile`: the memory configuration, or empty for the usual one. Throws Failure; what had started is stopped.
    Server(const std::string& memoryFile, bool verbose, Engine engine, Placement placement = Placement::anywhere);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    KEM_PSDCTX_T context() { return thread_->context(); }
    OV_THDCTX_T& thread() { return thread_->record(); }
    OV_SVCTX_T& service() { return service_; }
    NetContext& net() { return net_; }
    const std::string& memoryFile() const { return memoryFile_; }

    // Binds the calling thread to the next node in turn, where threads are placed.
    void placeThread();
    // From now on no write waits for the end of a pause.
    void setTerminating();

private:
    Server() = default;
    void startMemory(const std::string& memoryFile, bool verbose);
    void startPlacement();
    void startService();
    void startEngine(Engine engine);

    NetContext net_;
    OV_SVCTX_T service_{};
    std::optional<ThreadContext> thread_;
    std::string memoryFile_;
    std::atomic<KEM_LONG64_T> placedThreads_{0};
    bool serviceStarted_ = false;
};

} // namespace sqlhost
