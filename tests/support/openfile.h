// A descriptor of a test's own, opened by the system itself and closed when the object goes.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace kemsd::test {

class OpenFile {
public:
    explicit OpenFile(const std::string& path, int flags = O_RDWR) : fd_(open(path.c_str(), flags, 0600))
    {
        if (fd_ == -1) ADD_FAILURE() << path << ": " << strerror(errno);
    }
    ~OpenFile()
    {
        if (fd_ != -1) close(fd_);
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    operator int() const { return fd_; }
    off_t position() const { return lseek(fd_, 0, SEEK_CUR); }

private:
    int fd_;
};

} // namespace kemsd::test
