// A program that runs beside the test, with pipes to its standard streams. It is killed and reaped when the object
// goes, and when the test's process dies.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/child.h"

namespace kemsd::test {

class Background {
public:
    explicit Background(const std::vector<std::string>& program);
    ~Background();
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

    pid_t pid() const { return pid_; }
    // It has not been waited for.
    bool stands() const { return pid_ > 0; }
    // Writes to its standard input.
    void say(const std::string& text);
    // Ends its standard input.
    void endInput();
    // The next line it prints, without the line feed; what there is when it prints none in time or ends.
    std::string line();
    void signal(int number);
    // Waits for its end and takes the rest of what it printed. Killed at the time limit, which is a failure.
    Ended wait();

private:
    bool fill(int seconds);

    pid_t pid_ = -1;
    int in_ = -1, out_ = -1, err_ = -1;
    std::string printed_, complained_; // not taken yet
};

} // namespace kemsd::test
