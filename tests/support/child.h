// Children of a test: run a piece of code in a forked process, or a program, and get what it printed and how it ended.
// The child is killed after a time limit and always reaped.
#pragma once

#include <functional>
#include <memory>
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

// A process beside the test: it runs body and leaves with _exit(its result), its standard streams flushed. It is killed
// and reaped at the latest when the object goes.
class Child {
public:
    explicit Child(const std::function<int()>& body);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Waits for its end, killing it after so many seconds. To be called once.
    Ended ended(int seconds = kChildSeconds);

private:
    struct Streams;
    std::unique_ptr<Streams> streams_;
    int id_;
};

// Runs body in a child and waits for its end.
Ended inChild(const std::function<int()>& body, int seconds = kChildSeconds);

// Runs a program with these arguments (program[0] is its path) and this text on standard input; `environment` holds
// NAME=value entries that are added to, or replace those of, the present environment.
Ended runProgram(const std::vector<std::string>& program, const std::string& input = {},
                 const std::vector<std::string>& environment = {}, int seconds = kChildSeconds);

} // namespace kemsd::test
