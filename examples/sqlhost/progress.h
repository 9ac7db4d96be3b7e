// How far a long command has come, in one line on the terminal that standard error is; on anything else, nothing.
#pragma once

#include <cstdint>

#include "messages.h"

namespace sqlhost {

class Progress {
public:
    // `what`: the word for what is done. `total`: the bytes there are to do, 0 when they are not known.
    Progress(NetContext& net, const char* what, uint64_t total);
    // Clears the line.
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // So many bytes are done.
    void show(uint64_t bytes)
    {
        if (terminal_ && bytes >= next_) print(bytes);
    }

private:
    void print(uint64_t bytes);

    NetContext& net_;
    const char* const what_;
    const uint64_t total_;
    const bool terminal_;
    uint64_t next_ = 0; // from which on it is worth a new line
};

} // namespace sqlhost
