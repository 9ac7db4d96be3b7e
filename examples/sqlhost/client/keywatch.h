// A key that the operator presses while something takes its time.
#pragma once

#include <kemsd/ipc.h>
#include <kemsd/os.h>

#include <atomic>
#include <functional>

#include "client/singlekeys.h"

namespace sqlhost {

class KeyWatch {
public:
    // From now on the first key calls `onKey`, once, on a thread of the watch. What was typed before goes to `ahead`.
    // Throws Failure.
    KeyWatch(KEM_PSDCTX_T context, TypedAhead& ahead, std::function<void()> onKey);
    ~KeyWatch();
    KeyWatch(const KeyWatch&) = delete;
    KeyWatch& operator=(const KeyWatch&) = delete;

    // The key has come, or the terminal is gone.
    bool pressed() const { return pressed_.load(std::memory_order_acquire); }

private:
    static void* watchBody(void* watch);
    void watch();

    KEM_PSDCTX_T context_;
    SingleKeys keys_;
    std::function<void()> onKey_;
    std::atomic<bool> pressed_{false};
    KEM_PIPEHDL_T end_{-1, -1, nullptr}; // a byte in it ends the watch
    KEM_THDHDL_T thread_ = 0;
};

} // namespace sqlhost
