// A place for FIFOs, under a umask that takes permissions away.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/tempdir.h"

namespace kemsd::test {

constexpr mode_t kUmask = 077;
constexpr mode_t kFifoForEverybody = S_IFIFO | 0666;

// The process's umask, which can only be read by setting it.
inline mode_t currentUmask()
{
    const mode_t present = umask(0);
    umask(present);
    return present;
}

class FifoPlace : public testing::Test {
protected:
    FifoPlace() : before_(umask(kUmask)) {}
    ~FifoPlace() override { umask(before_); }

    // The file's st_mode, 0 when there is none.
    static mode_t modeOf(const std::string& path)
    {
        struct stat record {};
        return lstat(path.c_str(), &record) == 0 ? record.st_mode : 0;
    }

    // The descriptors of this process that have that file open.
    static std::vector<int> descriptorsOf(const std::string& path)
    {
        constexpr int kMost = 1024;
        struct stat file {
        }, open{};
        std::vector<int> found;
        if (stat(path.c_str(), &file) != 0) return found;
        for (int fd = 0; fd < kMost; ++fd)
            if (fstat(fd, &open) == 0 && open.st_dev == file.st_dev && open.st_ino == file.st_ino) found.push_back(fd);
        return found;
    }

    static void closeAll(const std::vector<int>& descriptors)
    {
        for (const int fd : descriptors) close(fd);
    }

    // What was written to the FIFO's descriptor is read back from it.
    static void expectBothWays(int fd)
    {
        char byte = 0;
        ASSERT_EQ(write(fd, "x", 1), 1);
        EXPECT_EQ(read(fd, &byte, 1), 1);
        EXPECT_EQ(byte, 'x');
    }

    const mode_t before_;
    TempDir dir_;
    const std::string path_ = dir_.path("pipe");
};

} // namespace kemsd::test
