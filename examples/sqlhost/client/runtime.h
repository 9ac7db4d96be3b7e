// kemsd as a client starts it: no heaps and no locks of its own, so that a short command is short.
#pragma once

#include <optional>

#include "threadcontext.h"

namespace sqlhost {

class ClientRuntime {
public:
    // Throws Failure.
    ClientRuntime();
    ~ClientRuntime();
    ClientRuntime(const ClientRuntime&) = delete;
    ClientRuntime& operator=(const ClientRuntime&) = delete;

    KEM_PSDCTX_T context() { return thread_->context(); }

private:
    std::optional<ThreadContext> thread_;
};

} // namespace sqlhost
