// A pseudo-terminal: what is typed at one end is read at the other. Both ends are closed when the object goes.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

namespace kemsd::test {

class Terminal {
public:
    Terminal() : operator_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        char name[64];
        if (operator_ != -1 && grantpt(operator_) == 0 && unlockpt(operator_) == 0 &&
            ptsname_r(operator_, name, sizeof name) == 0) {
            name_ = name;
            program_ = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC, 0);
        }
        if (program_ == -1) ADD_FAILURE() << "no pseudo-terminal: " << strerror(errno);
    }
    ~Terminal()
    {
        if (operator_ != -1) ::close(operator_);
        if (program_ != -1) ::close(program_);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    // The descriptor that a program has as its standard input and output, and the device's name.
    int program() const { return program_; }
    const std::string& name() const { return name_; }
    // The other one, at which the operator sits.
    int operators() const { return operator_; }

    void type(std::string_view keys) const
    {
        EXPECT_EQ(static_cast<ssize_t>(keys.size()), ::write(operator_, keys.data(), keys.size())) << strerror(errno);
    }
    // Types and waits until it can be read; what is typed at once arrives at once. A terminal that gathers lines has to
    // get a whole one.
    void press(std::string_view keys) const
    {
        type(keys);
        pollfd end = {program_, POLLIN, 0};
        EXPECT_EQ(1, poll(&end, 1, 30000)) << "the keys did not arrive";
    }

    termios settings() const
    {
        termios now{};
        EXPECT_EQ(0, tcgetattr(program_, &now)) << strerror(errno);
        return now;
    }

private:
    int operator_;
    int program_ = -1;
    std::string name_;
};

// Whether two terminals' settings are the same.
inline bool sameSettings(const termios& a, const termios& b)
{
    return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_cflag == b.c_cflag && a.c_lflag == b.c_lflag &&
           memcmp(a.c_cc, b.c_cc, sizeof a.c_cc) == 0;
}

} // namespace kemsd::test
