// The terminal as it has to be to notice a key at once: no Enter is needed, nothing is shown, and Ctrl-C is a key.
#pragma once

#include <string>

namespace sqlhost {

// What was typed before anybody asked for it.
struct TypedAhead {
    std::string text;
    bool ended = false; // and then the end of the input
};

// Standard input gives single keys while the object lives; there is one at a time. The terminal has its settings back
// when it goes, and when a signal ends or stops the program. The making thread leaves such signals to another one, so
// that none cuts short what it waits for.
class SingleKeys {
public:
    // What has been typed until now is no key, but goes to `ahead`. Throws Failure.
    explicit SingleKeys(TypedAhead& ahead);
    ~SingleKeys();
    SingleKeys(const SingleKeys&) = delete;
    SingleKeys& operator=(const SingleKeys&) = delete;

    // For the thread that the signals are left to.
    static void takeSignals();
    // Throws away the keys that nobody has taken.
    void discard();
};

} // namespace sqlhost
