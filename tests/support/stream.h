// A descriptor of a child's stream, taken as far as it has come.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <string>

namespace kemsd::test {

// -1 is no descriptor, and what is left of one.
inline void closeEnd(int& end)
{
    if (end != -1) close(end);
    end = -1;
}

// Takes what is there; closes the end at end of file.
inline void drain(int& end, std::string& text)
{
    char buffer[4096];
    const ssize_t got = read(end, buffer, sizeof buffer);
    if (got > 0)
        text.append(buffer, static_cast<size_t>(got));
    else if (got == 0 || errno != EINTR)
        closeEnd(end);
}

} // namespace kemsd::test
