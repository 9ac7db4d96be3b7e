#include <fcntl.h>
#include <gtest/gtest.h>
#include <kemsd/ipc.h>
#include <kemsd/memory.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "ipc/fifofixture.h"
#include "support/failingcalls.h"
#include "support/report.h"

using namespace kemsd::test;

namespace {

// The requests for memory that went through the server-wide allocator.
struct Request {
    size_t bytes;
    std::string source;
};
std::vector<Request> requests;

} // namespace

extern "C" {
OV_STS_T __real_ovMalloc(void*, KEM_SIZE_T, void**, const char*, long);
OV_STS_T __wrap_ovMalloc(void* owner, KEM_SIZE_T bytes, void** block, const char* source, long line)
{
    requests.push_back({bytes, source});
    return __real_ovMalloc(owner, bytes, block, source, line);
}
}

namespace {

class NamedPipe : public FifoPlace {
protected:
    Report create(const std::string& name)
    {
        return reported(KemSdNamedPipeCreate, name.c_str(), nullptr, 0u, 0u, 0u, 0u, 0u, 0u);
    }
    Report open(KEM_PPIPEHDL_T handle)
    {
        return reported(KemSdNamedPipeOpen, nullptr, path_.c_str(), handle, 0u, 0u, 0u, 0u);
    }

    // What is left over by the kept contract of connecting is put away.
    void takeAway(long blocks)
    {
        closeAll(descriptorsOf(first_));
        closeAll(descriptorsOf(second_));
        EXPECT_EQ(liveBlocks(), blocks + 1) << "the name";
        ovFree(lastBlock(), __FILE__, __LINE__);
    }

    const std::string first_ = path_ + "_1";
    const std::string second_ = path_ + "_2";
    std::string name_ = path_;
    KEM_PIPEHDL_T handle_{-5, -6, name_.data()};
    int fd_ = 77;
};

} // namespace

// ---- One FIFO

TEST_F(NamedPipe, AFifoIsForEverybodyWhateverTheUmask)
{
    for (const mode_t mask : {0u, 022u, 0777u}) {
        const std::string path = dir_.path("fifo" + std::to_string(mask));
        umask(mask);
        EXPECT_THAT(reported(KemSdNamedPipeUnixCreate, path.c_str()), Succeeds());
        EXPECT_EQ(currentUmask(), mask);
        EXPECT_EQ(modeOf(path), kFifoForEverybody);
    }
}

TEST_F(NamedPipe, AnExistingFifoIsLeftAsItIs)
{
    ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
    resetCalls();
    EXPECT_THAT(reported(KemSdNamedPipeUnixCreate, path_.c_str()), Succeeds());
    EXPECT_EQ(modeOf(path_), S_IFIFO | 0600u);
    EXPECT_EQ(calls(Call::mkfifo), 0);
    EXPECT_EQ(currentUmask(), kUmask);
}

TEST_F(NamedPipe, ARefusedFifoIsReportedAndTheUmaskRestored)
{
    for (const int error : {ENOSPC, EACCES, EINTR}) {
        Failing refused(Call::mkfifo, error);
        EXPECT_THAT(reported(KemSdNamedPipeUnixCreate, path_.c_str()), Fails(SDSTS_PIPE_MAKE, error));
        EXPECT_EQ(currentUmask(), kUmask);
    }
    EXPECT_EQ(modeOf(path_), 0u);
    const std::string nowhere = dir_.path("none/pipe");
    EXPECT_THAT(reported(KemSdNamedPipeUnixCreate, nowhere.c_str()), Fails(SDSTS_PIPE_MAKE, ENOENT));
}

TEST_F(NamedPipe, ADanglingLinkIsNoFileAndCannotBecomeAFifo)
{
    ASSERT_EQ(symlink("nothing", path_.c_str()), 0);
    EXPECT_THAT(reported(KemSdNamedPipeUnixCreate, path_.c_str()), Fails(SDSTS_PIPE_MAKE, EEXIST));
    EXPECT_EQ(currentUmask(), kUmask);
}

TEST_F(NamedPipe, AFifoWithoutANameIsInvalid)
{
    EXPECT_THAT(reported(KemSdNamedPipeUnixCreate, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdNamedPipeUnixConnect, nullptr, &fd_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdNamedPipeUnixConnect, path_.c_str(), nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(fd_, 77);
}

TEST_F(NamedPipe, AFifoIsOpenedForBothDirectionsWithoutAPeer)
{
    ASSERT_THAT(reported(KemSdNamedPipeUnixCreate, path_.c_str()), Succeeds());
    resetCalls();
    EXPECT_THAT(reported(KemSdNamedPipeUnixConnect, path_.c_str(), &fd_), Succeeds());
    EXPECT_EQ(calls(Call::open), 1);
    EXPECT_EQ(calls(Call::nanosleep), 0);
    expectBothWays(fd_);
    close(fd_);
}

TEST_F(NamedPipe, ConnectingToNothingGivesUpAfterFifteenPausesOfASecond)
{
    resetCalls();
    Failing instead(Call::nanosleep, 0, 0); // answers at once, as if the time had passed
    EXPECT_THAT(reported(KemSdNamedPipeUnixConnect, path_.c_str(), &fd_), Fails(SDSTS_PIPE_CONNECT, ENOENT));
    EXPECT_EQ(calls(Call::open), 16);
    EXPECT_EQ(calls(Call::nanosleep), 15);
    EXPECT_EQ(lastSleep().tv_sec, 1);
    EXPECT_EQ(lastSleep().tv_nsec, 0);
    EXPECT_EQ(fd_, -1);
}

TEST_F(NamedPipe, ConnectingGoesOnAfterAnInterruptedOpen)
{
    ASSERT_THAT(reported(KemSdNamedPipeUnixCreate, path_.c_str()), Succeeds());
    resetCalls();
    Failing instead(Call::nanosleep, 0, 0);
    Failing interrupted = Failing::nth(Call::open, 1, EINTR);
    EXPECT_THAT(reported(KemSdNamedPipeUnixConnect, path_.c_str(), &fd_), Succeeds());
    EXPECT_EQ(calls(Call::open), 2);
    EXPECT_EQ(calls(Call::nanosleep), 1);
    close(fd_);
}

TEST_F(NamedPipe, AnInterruptedPauseLeavesTheOpensErrorNumber)
{
    Failing interrupted(Call::nanosleep, EINTR);
    Failing full(Call::open, EMFILE);
    EXPECT_THAT(reported(KemSdNamedPipeUnixConnect, path_.c_str(), &fd_), Fails(SDSTS_PIPE_CONNECT, EMFILE));
    EXPECT_EQ(interrupted.hits(), 15);
}

TEST_F(NamedPipe, ConnectingTakesWhateverFileHasTheName)
{
    dir_.write("pipe", "a regular file");
    EXPECT_THAT(reported(KemSdNamedPipeUnixConnect, path_.c_str(), &fd_), Succeeds());
    char byte = 0;
    EXPECT_EQ(read(fd_, &byte, 1), 1);
    EXPECT_EQ(byte, 'a');
    close(fd_);
}

// ---- A pipe of two

TEST_F(NamedPipe, CreationMakesBothFifosForEverybody)
{
    EXPECT_THAT(create(path_), Succeeds());
    EXPECT_EQ(modeOf(first_), kFifoForEverybody);
    EXPECT_EQ(modeOf(second_), kFifoForEverybody);
    EXPECT_EQ(modeOf(path_), 0u);
    EXPECT_EQ(currentUmask(), kUmask);
}

TEST_F(NamedPipe, CreatingAgainChangesNothing)
{
    ASSERT_THAT(create(path_), Succeeds());
    chmod(second_.c_str(), 0600);
    EXPECT_THAT(create(path_), Succeeds());
    EXPECT_EQ(modeOf(first_), kFifoForEverybody);
    EXPECT_EQ(modeOf(second_), S_IFIFO | 0600u);
}

TEST_F(NamedPipe, ARegularFileInPlaceOfAFifoIsASuccessAndLeftAlone)
{
    dir_.write("pipe_1", "content");
    EXPECT_THAT(create(path_), Succeeds());
    EXPECT_EQ(modeOf(first_), S_IFREG | 0600u);
    EXPECT_EQ(dir_.read("pipe_1"), "content");
    EXPECT_EQ(modeOf(second_), kFifoForEverybody);
}

TEST_F(NamedPipe, CreationStopsAtTheFirstRefusal)
{
    resetCalls();
    {
        Failing refused(Call::mkfifo, ENOSPC);
        EXPECT_THAT(create(path_), Fails(SDSTS_PIPE_MAKE, ENOSPC));
        EXPECT_EQ(calls(Call::mkfifo), 1);
    }
    Failing refused = Failing::nth(Call::mkfifo, 2, EACCES);
    EXPECT_THAT(create(path_), Fails(SDSTS_PIPE_MAKE, EACCES));
    EXPECT_EQ(modeOf(first_), kFifoForEverybody);
    EXPECT_EQ(modeOf(second_), 0u);
    EXPECT_EQ(currentUmask(), kUmask);
}

TEST_F(NamedPipe, CreationNeitherReadsNorWritesTheHandle)
{
    const KEM_PIPEHDL_T before = handle_;
    EXPECT_THAT(reported(KemSdNamedPipeCreate, path_.c_str(), &handle_, 1u, 2u, 3u, 4u, 5u, 6u), Succeeds());
    EXPECT_EQ(memcmp(&handle_, &before, sizeof handle_), 0);
}

TEST_F(NamedPipe, CreationWithoutANameIsInvalid)
{
    EXPECT_THAT(reported(KemSdNamedPipeCreate, nullptr, &handle_, 0u, 0u, 0u, 0u, 0u, 0u), Fails(SDSTS_INVALID_PARAM));
}

TEST_F(NamedPipe, CreationAsksForTheLongerNameAndFreesIt)
{
    const long blocks = liveBlocks();
    requests.clear();
    ASSERT_EQ(KemSdNamedPipeCreate(nullptr, path_.c_str(), nullptr, 0, 0, 0, 0, 0, 0), 0);
    EXPECT_EQ(liveBlocks(), blocks);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].bytes, path_.size() + 3);
    EXPECT_EQ(requests[0].source, "sd/sdipclnx");
}

TEST_F(NamedPipe, WithoutMemoryForTheNameNothingIsMade)
{
    resetCalls();
    Failing none(Call::malloc, ENOMEM);
    EXPECT_EQ(KemSdNamedPipeCreate(nullptr, path_.c_str(), nullptr, 0, 0, 0, 0, 0, 0), SDSTS_NO_MEMORY);
    EXPECT_EQ(KemSdNamedPipeConnect(nullptr, &handle_), SDSTS_NO_MEMORY);
    EXPECT_EQ(calls(Call::mkfifo), 0);
    EXPECT_EQ(calls(Call::open), 0);
}

TEST_F(NamedPipe, WithoutMemoryTheContextTellsSo)
{
    Failing none(Call::malloc, ENOMEM);
    KEM_SDCTX_T context{};
    EXPECT_EQ(KemSdNamedPipeCreate(&context, path_.c_str(), nullptr, 0, 0, 0, 0, 0, 0), SDSTS_NO_MEMORY);
    EXPECT_EQ(context.sts, SDSTS_NO_MEMORY);
    EXPECT_EQ(context.osRetCode, 0);
}

TEST_F(NamedPipe, ConnectingOpensBothFifosAndLeavesTheHandleAsItWas)
{
    ASSERT_THAT(create(path_), Succeeds());
    const KEM_PIPEHDL_T before = handle_;
    const long blocks = liveBlocks();
    EXPECT_THAT(reported(KemSdNamedPipeConnect, &handle_), Succeeds());
    EXPECT_EQ(memcmp(&handle_, &before, sizeof handle_), 0);
    EXPECT_EQ(descriptorsOf(first_).size(), 1u);
    EXPECT_EQ(descriptorsOf(second_).size(), 1u);
    takeAway(blocks);
}

TEST_F(NamedPipe, ConnectingStopsAtAMissingFifoAndLeavesTheOtherOpen)
{
    ASSERT_EQ(mkfifo(first_.c_str(), 0600), 0);
    Failing instead(Call::nanosleep, 0, 0);
    const long blocks = liveBlocks();
    EXPECT_THAT(reported(KemSdNamedPipeConnect, &handle_), Fails(SDSTS_PIPE_CONNECT, ENOENT));
    EXPECT_EQ(instead.hits(), 15);
    EXPECT_EQ(descriptorsOf(first_).size(), 1u);
    takeAway(blocks);
}

TEST_F(NamedPipe, ConnectingWithoutAHandleOrItsNameIsInvalid)
{
    KEM_PIPEHDL_T nameless{3, 4, nullptr};
    EXPECT_THAT(reported(KemSdNamedPipeConnect, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdNamedPipeConnect, &nameless), Fails(SDSTS_INVALID_PARAM));
}

TEST_F(NamedPipe, OpeningMakesTheFifosAndStoresNoDescriptors)
{
    const long blocks = liveBlocks();
    EXPECT_THAT(open(&handle_), Succeeds());
    EXPECT_EQ(handle_.iFdRead, -1);
    EXPECT_EQ(handle_.iFdWrite, -1);
    EXPECT_EQ(handle_.pszPipeName, name_.data());
    EXPECT_EQ(modeOf(first_), kFifoForEverybody);
    EXPECT_EQ(modeOf(second_), kFifoForEverybody);
    takeAway(blocks);
}

TEST_F(NamedPipe, OpeningReportsAFifoThatCannotBeMadeAndLeavesTheHandle)
{
    Failing refused(Call::mkfifo, EACCES);
    EXPECT_THAT(open(&handle_), Fails(SDSTS_PIPE_OPEN, EACCES)) << "the error number is that of the step";
    EXPECT_EQ(handle_.iFdRead, -5);
    EXPECT_EQ(handle_.iFdWrite, -6);
}

TEST_F(NamedPipe, OpeningReportsAFifoThatCannotBeOpenedAndLeavesTheHandle)
{
    const long blocks = liveBlocks();
    Failing instead(Call::nanosleep, 0, 0);
    Failing full(Call::open, EMFILE);
    EXPECT_THAT(open(&handle_), Fails(SDSTS_PIPE_OPEN, EMFILE));
    EXPECT_EQ(handle_.iFdRead, -5);
    takeAway(blocks);
}

TEST_F(NamedPipe, OpeningWithoutAHandleOrANameWritesTheStatusAlone)
{
    EXPECT_THAT(open(nullptr), Fails(SDSTS_INVALID_PARAM, kUntouchedOs));
    EXPECT_THAT(reported(KemSdNamedPipeOpen, nullptr, nullptr, &handle_, 0u, 0u, 0u, 0u),
                Fails(SDSTS_INVALID_PARAM, kUntouchedOs));
}

TEST_F(NamedPipe, DisconnectingClosesBothEndsAndRemovesTheBaseNameAlone)
{
    ASSERT_THAT(create(path_), Succeeds());
    dir_.write("pipe", "");
    ASSERT_EQ(KemSdNamedPipeUnixConnect(nullptr, first_.c_str(), &handle_.iFdRead), 0);
    ASSERT_EQ(KemSdNamedPipeUnixConnect(nullptr, second_.c_str(), &handle_.iFdWrite), 0);
    EXPECT_THAT(reported(KemSdNamedPipeDisconnect, &handle_), Succeeds());
    EXPECT_TRUE(descriptorsOf(first_).empty());
    EXPECT_TRUE(descriptorsOf(second_).empty());
    EXPECT_EQ(modeOf(path_), 0u);
    EXPECT_EQ(modeOf(first_), kFifoForEverybody);
    EXPECT_EQ(modeOf(second_), kFifoForEverybody);
}

TEST_F(NamedPipe, DisconnectingDoesNotReportAnAbsentBaseName)
{
    ASSERT_THAT(create(path_), Succeeds());
    ASSERT_EQ(KemSdNamedPipeUnixConnect(nullptr, first_.c_str(), &handle_.iFdRead), 0);
    ASSERT_EQ(KemSdNamedPipeUnixConnect(nullptr, second_.c_str(), &handle_.iFdWrite), 0);
    EXPECT_THAT(reported(KemSdNamedPipeDisconnect, &handle_), Succeeds());
}

TEST_F(NamedPipe, DisconnectingStopsAtTheFirstCloseThatFails)
{
    dir_.write("pipe", "");
    for (const long k : {1, 2}) {
        resetCalls();
        Failing refused = Failing::nth(Call::close, k, EIO);
        handle_.iFdRead = dup(1);
        handle_.iFdWrite = dup(1);
        EXPECT_THAT(reported(KemSdNamedPipeDisconnect, &handle_), Fails(SDSTS_PIPE_DISCONNECT, EIO));
        EXPECT_EQ(calls(Call::close), k);
        EXPECT_EQ(calls(Call::remove), 0);
    }
    EXPECT_EQ(modeOf(path_), S_IFREG | 0600u);
}

TEST_F(NamedPipe, DisconnectingWithoutAHandleOrItsNameIsInvalid)
{
    KEM_PIPEHDL_T nameless{-1, -1, nullptr};
    resetCalls();
    EXPECT_THAT(reported(KemSdNamedPipeDisconnect, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdNamedPipeDisconnect, &nameless), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(calls(Call::close), 0);
}

TEST_F(NamedPipe, PeekingAndWaitingForAnInstanceAreNotSupported)
{
    KEM_ULONG_T count = 0;
    char buffer[1];
    EXPECT_THAT(reported(KemSdNamedPipePeek, &handle_, buffer, 1u, &count), Fails(SDSTS_NOT_SUPPORTED));
    EXPECT_THAT(reported(KemSdNamedPipePeek, nullptr, nullptr, 0u, nullptr), Fails(SDSTS_NOT_SUPPORTED));
    EXPECT_THAT(reported(KemSdNamedPipeWait, path_.c_str(), 0u), Fails(SDSTS_NOT_SUPPORTED));
}
