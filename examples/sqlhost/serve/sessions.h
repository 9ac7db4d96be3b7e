// The sessions that stand. The server's first thread adds and removes them, any session may look at all of them.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "serve/session.h"

namespace sqlhost {

class Sessions {
public:
    // Throws Failure.
    explicit Sessions(KEM_PSDCTX_T context);
    Sessions(const Sessions&) = delete;
    Sessions& operator=(const Sessions&) = delete;

    void add(std::unique_ptr<Session> session);
    // Takes those out that have ended.
    std::vector<std::unique_ptr<Session>> takeEnded();
    // Shows each in turn; none comes or goes meanwhile.
    void each(const std::function<void(Session&)>& look);
    bool empty();
    // For reports on it.
    const KEM_RWLOCK_T& lock() const { return lock_; }

private:
    KEM_RWLOCK_T lock_; // guards what follows
    std::vector<std::unique_ptr<Session>> sessions_;
};

} // namespace sqlhost
