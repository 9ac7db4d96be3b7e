// What the memory manager tells the server, in words on standard error.
#pragma once

#include <kemsd/sync.h>

namespace sqlhost {

// The server's net context, handed to the message call-back with every message, on whichever thread it is made.
struct NetContext {
    NetContext() { KemSdCritSecInit(nullptr, &lock); }
    ~NetContext() { KemSdCritSecDelete(nullptr, &lock); }
    NetContext(const NetContext&) = delete;
    NetContext& operator=(const NetContext&) = delete;

    KEM_CRITSECHDL_T lock;      // guards what follows
    bool progressShown = false; // an unfinished line stands on standard error
    int lastNumber = 0;         // the last message shown
    unsigned repeats = 0;       // how often it came again since
};

// Shows an unfinished line, over the one before.
void showProgress(NetContext& net, const char* line);

// Clears an unfinished progress line, so that what follows starts on a line of its own.
void endProgress(NetContext& net);

// Says how often the last message came again.
void endMessages(NetContext& net);

// The memory manager's message call-back, registered with a thread context whose NetCtx is a NetContext. A message that
// follows its like is counted, not shown: near the limit a warning comes with every 1,000 allocations. Runs inside an
// allocation: it must not allocate from kemsd.
int onMemoryMessage(void* netCtx, int number, int level, void* first, int firstType, void* second, int secondType);

} // namespace sqlhost
