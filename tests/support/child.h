// Children of a test: run a piece of code in a forked process, or a program, and get what it printed and how it ended.
// The child is killed after a time limit and always reaped.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace kemsd::test {

struct Ended {
    int status = -1;   // exit status, or -1 when a signal ended it
    int signal = 0;    // the signal that ended it, or 0
    bool late = false; // killed at the time limit
    std::string out;   // standard output
    std::string err;   // standard error
};

constexpr int kChildSeconds = 120;

// Forks, runs body and leaves with _exit(its result), its standard streams flushed.
Ended inChild(const std::function<int()>& body, int seconds = kChildSeconds);

// Runs a program with these arguments (program[0] is its path) and this text on standard input; `environment` holds
// NAME=value entries that are added to, or replace those of, the present environment.
Ended runProgram(const std::vector<std::string>& program, const std::string& input = {},
                 const std::vector<std::string>& environment = {}, int seconds = kChildSeconds);

} // namespace kemsd::test
