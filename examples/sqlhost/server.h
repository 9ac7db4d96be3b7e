// The server around the engine: kemsd's start-up and shutdown in the order the library asks for, and SQLite on top.
#pragma once

#include <kemsd/memory.h>

#include <string>

#include "messages.h"

namespace sqlhost {

class Server {
public:
    // `memoryFile`: the memory configuration, or empty for the usual one. Throws Failure; what had started is stopped.
    Server(const std::string& memoryFile, bool verbose);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    KEM_PSDCTX_T context() { return context_; }
    NetContext& net() { return net_; }
    const std::string& memoryFile() const { return memoryFile_; }

private:
    Server() = default;
    void startMemory(const std::string& memoryFile, bool verbose);
    void startThread();
    void startEngine();

    NetContext net_;
    OV_THDCTX_T thread_{};
    KEM_PSDCTX_T context_ = nullptr;
    std::string memoryFile_;
};

} // namespace sqlhost
