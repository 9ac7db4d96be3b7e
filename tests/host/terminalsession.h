// A program on a terminal of its own, and an operator who types and reads there. It is killed and reaped when the
// object goes.
#pragma once

#include <string>
#include <vector>

#include "support/child.h"
#include "support/terminal.h"

namespace kemsd::test {

class TerminalSession {
public:
    explicit TerminalSession(const std::vector<std::string>& program);
    ~TerminalSession();
    TerminalSession(const TerminalSession&) = delete;
    TerminalSession& operator=(const TerminalSession&) = delete;

    void type(std::string_view keys) const { terminal_.type(keys); }
    // Reads until this has been printed; all from where the last reading ended, line feeds alone between lines.
    std::string until(const std::string& text);
    // The terminal gives single keys, or whole lines.
    bool takesKeys() const { return !(terminal_.settings().c_lflag & ICANON); }
    const Terminal& terminal() const { return terminal_; }
    void signal(int number) const;
    // Reads the rest and waits for the end. Killed at the time limit, which is a failure.
    Ended wait();

private:
    bool fill(int milliseconds);

    Terminal terminal_;
    pid_t pid_ = -1;
    std::string printed_; // not taken yet
    bool waiting_ = true; // is of use: it has not been in vain yet
};

} // namespace kemsd::test
