// The calls on FIFOs for the server's own layers, and that all makers of FIFOs take turns.

#include <gtest/gtest.h>
#include <kemsd/ipc.h>
#include <signal.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ipc/fifofixture.h"
#include "support/failingcalls.h"

using namespace kemsd::test;

namespace {

constexpr OV_ULONG_T kNoCount = 0xFFFFFFFF;

class ServerPipe : public FifoPlace {
protected:
    void SetUp() override
    {
        ASSERT_EQ(ovUNIXMakeNmPipe(path_.c_str()), 0);
        ASSERT_EQ(ovUNIXConnectNmPipe(path_.c_str(), &fd_), 0);
        handle_ = {fd_, dup(fd_), name_.data()};
    }
    ~ServerPipe() override { closeAll(descriptorsOf(path_)); }

    std::string name_ = dir_.path("base");
    int fd_ = -1;
    KEM_PIPEHDL_T handle_{};
    char text_[4] = "abc";
    char buffer_[8] = {};
    OV_ULONG_T count_ = 77;
};

} // namespace

TEST_F(ServerPipe, MakesAFifoForEverybody)
{
    EXPECT_EQ(modeOf(path_), kFifoForEverybody);
    EXPECT_EQ(currentUmask(), kUmask);
}

TEST_F(ServerPipe, MakingLeavesAnExistingFileAlone)
{
    dir_.write("base", "content");
    EXPECT_EQ(ovUNIXMakeNmPipe(name_.c_str()), 0);
    EXPECT_EQ(dir_.read("base"), "content");
    EXPECT_EQ(currentUmask(), kUmask);
}

TEST_F(ServerPipe, ARefusedFifoLeavesTheUmaskZero)
{
    for (const int error : {ENOSPC, EACCES}) {
        umask(kUmask);
        Failing refused(Call::mkfifo, error);
        EXPECT_EQ(ovUNIXMakeNmPipe(name_.c_str()), SDSTS_NMPIPE_FAILED);
        EXPECT_EQ(currentUmask(), 0u);
    }
}

TEST_F(ServerPipe, ConnectsForBothDirections) { expectBothWays(fd_); }

TEST_F(ServerPipe, ConnectingGivesUpAfterFifteenPausesOfASecond)
{
    resetCalls();
    Failing instead(Call::nanosleep, 0, 0); // answers at once, as if the time had passed
    EXPECT_EQ(ovUNIXConnectNmPipe(name_.c_str(), &fd_), SDSTS_NMPIPE_CONNECT);
    EXPECT_EQ(calls(Call::open), 16);
    EXPECT_EQ(calls(Call::nanosleep), 15);
    EXPECT_EQ(lastSleep().tv_sec, 1);
    EXPECT_EQ(lastSleep().tv_nsec, 0);
    EXPECT_EQ(fd_, -1);
}

TEST_F(ServerPipe, ConnectingGoesOnAfterAnInterruptedOpen)
{
    Failing instead(Call::nanosleep, 0, 0);
    Failing interrupted = Failing::nth(Call::open, 1, EINTR);
    EXPECT_EQ(ovUNIXConnectNmPipe(path_.c_str(), &fd_), 0);
    EXPECT_EQ(instead.hits(), 1);
}

TEST_F(ServerPipe, DisconnectingClosesBothEndsAndRemovesTheBaseNameAlone)
{
    dir_.write("base", "");
    EXPECT_EQ(ovUNIXDisConnectNmPipe(handle_), 0);
    EXPECT_TRUE(descriptorsOf(path_).empty());
    EXPECT_EQ(modeOf(name_), 0u);
    EXPECT_EQ(modeOf(path_), kFifoForEverybody);
}

TEST_F(ServerPipe, DisconnectingFailsWhenEitherEndCannotBeClosed)
{
    dir_.write("base", "");
    for (const long k : {1, 2}) {
        resetCalls();
        Failing refused = Failing::nth(Call::close, k, EIO);
        const KEM_PIPEHDL_T both{dup(fd_), dup(fd_), name_.data()};
        EXPECT_EQ(ovUNIXDisConnectNmPipe(both), SDSTS_NMPIPE_FAILED);
        EXPECT_EQ(calls(Call::close), k);
        EXPECT_EQ(calls(Call::remove), 0);
    }
    EXPECT_EQ(modeOf(name_), S_IFREG | 0600u);
}

TEST_F(ServerPipe, WhatIsWrittenIsRead)
{
    EXPECT_EQ(ovUNIXPipeWrite(handle_, text_, 3, &count_), 0);
    EXPECT_EQ(count_, 3u);
    EXPECT_EQ(ovUNIXPipeRead(handle_, buffer_, sizeof buffer_, &count_), 0);
    EXPECT_EQ(count_, 3u);
    EXPECT_STREQ(buffer_, "abc");
}

TEST_F(ServerPipe, ShortTransfersAreNotContinued)
{
    resetCalls();
    {
        Failing half(Call::write, 0, 2);
        EXPECT_EQ(ovUNIXPipeWrite(handle_, text_, 3, &count_), 0);
        EXPECT_EQ(count_, 2u);
    }
    Failing half(Call::read, 0, 1);
    EXPECT_EQ(ovUNIXPipeRead(handle_, buffer_, 3, &count_), 0);
    EXPECT_EQ(count_, 1u);
    EXPECT_EQ(calls(Call::write), 1);
    EXPECT_EQ(calls(Call::read), 1);
}

TEST_F(ServerPipe, AFailedTransferReturnsOneAndStoresTheCount)
{
    resetCalls();
    Failing interrupted(Call::write, EINTR);
    EXPECT_EQ(ovUNIXPipeWrite(handle_, text_, 3, &count_), 1);
    EXPECT_EQ(count_, kNoCount);
    EXPECT_EQ(calls(Call::write), 1);
    count_ = 77;
    Failing broken(Call::read, EIO);
    EXPECT_EQ(ovUNIXPipeRead(handle_, buffer_, 3, &count_), 1);
    EXPECT_EQ(count_, kNoCount);
    EXPECT_EQ(calls(Call::read), 1);
}

TEST_F(ServerPipe, MissingArgumentsAreInvalid)
{
    resetCalls();
    const KEM_PIPEHDL_T nameless{fd_, fd_, nullptr};
    EXPECT_EQ(ovUNIXMakeNmPipe(nullptr), SDSTS_INVALID_PARAM);
    EXPECT_EQ(ovUNIXConnectNmPipe(nullptr, &fd_), SDSTS_INVALID_PARAM);
    EXPECT_EQ(ovUNIXConnectNmPipe(path_.c_str(), nullptr), SDSTS_INVALID_PARAM);
    EXPECT_EQ(ovUNIXDisConnectNmPipe(nameless), SDSTS_INVALID_PARAM);
    EXPECT_EQ(ovUNIXPipeWrite(handle_, nullptr, 1, &count_), SDSTS_INVALID_PARAM);
    EXPECT_EQ(ovUNIXPipeWrite(handle_, text_, 1, nullptr), SDSTS_INVALID_PARAM);
    EXPECT_EQ(ovUNIXPipeRead(handle_, nullptr, 1, &count_), SDSTS_INVALID_PARAM);
    EXPECT_EQ(ovUNIXPipeRead(handle_, buffer_, 1, nullptr), SDSTS_INVALID_PARAM);
    EXPECT_EQ(calls(Call::close) + calls(Call::write) + calls(Call::read), 0);
    EXPECT_EQ(count_, 77u);
}

// ---- Turns

namespace {

// Makes FIFOs named by its number, half of them by each of the two calls; true when all are as they should be.
bool makeFifos(const std::string& place, int maker, int count)
{
    bool good = true;
    for (int i = 0; i < count; ++i) {
        const std::string path = place + '/' + std::to_string(maker) + '-' + std::to_string(i);
        const bool made = (maker + i) % 2 ? KemSdNamedPipeUnixCreate(nullptr, path.c_str()) == 0
                                          : ovUNIXMakeNmPipe(path.c_str()) == 0;
        struct stat record {};
        good = made && lstat(path.c_str(), &record) == 0 && record.st_mode == kFifoForEverybody && good;
    }
    return good;
}

} // namespace

TEST(FifoMakers, TakeTurnsSoThatTheUmaskIsRestored)
{
    constexpr int kMakers = 4;
    constexpr int kFifos = 250;
    const TempDir dir;
    const mode_t before = umask(kUmask);
    bool good[kMakers] = {};
    std::vector<std::thread> makers;
    for (int i = 0; i < kMakers; ++i) makers.emplace_back([&, i] { good[i] = makeFifos(dir.path(), i, kFifos); });
    for (std::thread& maker : makers) maker.join();
    EXPECT_EQ(umask(before), kUmask);
    for (const bool all : good) EXPECT_TRUE(all);
}
