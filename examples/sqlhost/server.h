// The server around the engine: kemsd's start-up and shutdown in the order the library asks for, and SQLite on top.
#pragma once

#include <optional>
#include <string>

#include "messages.h"
#include "threadcontext.h"

namespace sqlhost {

// How many threads use SQLite: only the one that starts the server, or any.
enum class Engine { oneThread, manyThreads };

class Server {
public:
    // `memoryFile`: the memory configuration, or empty for the usual one. Throws Failure; what had started is stopped.
    Server(const std::string& memoryFile, bool verbose, Engine engine);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    KEM_PSDCTX_T context() { return thread_->context(); }
    OV_THDCTX_T& thread() { return thread_->record(); }
    OV_SVCTX_T& service() { return service_; }
    NetContext& net() { return net_; }
    const std::string& memoryFile() const { return memoryFile_; }

    // From now on no write waits for the end of a pause.
    void setTerminating();

private:
    Server() = default;
    void startMemory(const std::string& memoryFile, bool verbose);
    void startService();
    void startEngine(Engine engine);

    NetContext net_;
    OV_SVCTX_T service_{};
    std::optional<ThreadContext> thread_;
    std::string memoryFile_;
    bool serviceStarted_ = false;
};

} // namespace sqlhost
