// A thread of the program as kemsd sees it: its context, its thread record, and its nodes of reader-writer locks.
#pragma once

#include <kemsd/file.h>
#include <kemsd/memory.h>
#include <kemsd/os.h>

#include "messages.h"

namespace sqlhost {

class ThreadContext {
public:
    // For the calling thread, once the thread-local slot stands. `service` may be null in a program that never writes
    // under a lease. Throws Failure.
    ThreadContext(NetContext* net, OV_SVCTX_T* service);
    // Does what is left of the three steps below.
    ~ThreadContext();
    ThreadContext(const ThreadContext&) = delete;
    ThreadContext& operator=(const ThreadContext&) = delete;

    KEM_PSDCTX_T context() { return record_.pSdCtx; }
    OV_THDCTX_T& record() { return record_; }

    // Leaves the thread-local slot; the thread allocates nothing of its own after it.
    void detach();
    // Frees the nodes of reader-writer locks; the thread holds none.
    void freeLocks();

    // The calling thread's record, which some ThreadContext has put there.
    static OV_THDCTX_T& current() { return *static_cast<OV_THDCTX_T*>(KemSdVupUtilTlsGet()); }

private:
    OV_THDCTX_T record_{};
    KEM_SYNCCTX_T locks_{};
    bool attached_ = false;
};

// The program's hooks for threads that come and go, which put the record into the thread-local slot.
void registerThreadHooks();

} // namespace sqlhost
