#include <gtest/gtest.h>
#include <kemsd/ipc.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "support/failingcalls.h"
#include "support/report.h"

using namespace kemsd::test;

namespace {

constexpr KEM_ULONG_T kNoCount = 0xFFFFFFFF;

bool isOpen(int fd)
{
    char unused;
    return read(fd, &unused, 0) == 0 || write(fd, &unused, 0) == 0;
}

class AnonymousPipe : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_THAT(reported(KemSdPipeCreate, &in_, &out_, 0u), Succeeds());
        read_ = in_.iFdRead;
        write_ = in_.iFdWrite;
    }
    ~AnonymousPipe() override
    {
        close(read_);
        close(write_);
    }

    KEM_PIPEHDL_T in_{-1, -1, nullptr};
    KEM_PIPEHDL_T out_{-1, -1, nullptr};
    int read_ = -1;
    int write_ = -1;
    char text_[8] = "abcdefg";
    char buffer_[16] = {};
    KEM_ULONG_T count_ = 77;
};

} // namespace

TEST_F(AnonymousPipe, BothHandlesHoldTheSamePair)
{
    EXPECT_GE(read_, 0);
    EXPECT_GE(write_, 0);
    EXPECT_NE(read_, write_);
    EXPECT_EQ(out_.iFdRead, read_);
    EXPECT_EQ(out_.iFdWrite, write_);
}

TEST_F(AnonymousPipe, CreationLeavesTheNamesAlone)
{
    char name[] = "name";
    KEM_PIPEHDL_T in{-1, -1, name}, out{-1, -1, nullptr};
    ASSERT_THAT(reported(KemSdPipeCreate, &in, &out, 4096u), Succeeds());
    EXPECT_EQ(in.pszPipeName, name);
    EXPECT_EQ(out.pszPipeName, nullptr);
    EXPECT_THAT(reported(KemSdPipeClose, &in), Succeeds());
}

TEST_F(AnonymousPipe, CreationWithoutAHandleIsInvalid)
{
    resetCalls();
    EXPECT_THAT(reported(KemSdPipeCreate, nullptr, &out_, 0u), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdPipeCreate, &in_, nullptr, 0u), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(KemSdPipeCreate(nullptr, nullptr, nullptr, 0), SDSTS_INVALID_PARAM);
    EXPECT_EQ(calls(Call::pipe), 0);
}

TEST_F(AnonymousPipe, CreationRefusedByTheSystemLeavesTheHandlesAlone)
{
    KEM_PIPEHDL_T in{-1, -2, nullptr}, out{-3, -4, nullptr};
    Failing full(Call::pipe, EMFILE);
    EXPECT_THAT(reported(KemSdPipeCreate, &in, &out, 0u), Fails(SDSTS_PIPE_CREATE, EMFILE));
    EXPECT_EQ(in.iFdRead, -1);
    EXPECT_EQ(in.iFdWrite, -2);
    EXPECT_EQ(out.iFdRead, -3);
    EXPECT_EQ(out.iFdWrite, -4);
}

TEST_F(AnonymousPipe, WhatIsWrittenIsReadInOrder)
{
    EXPECT_THAT(reported(KemSdPipeWrite, &out_, text_, 3u, &count_), Succeeds());
    EXPECT_EQ(count_, 3u);
    EXPECT_THAT(reported(KemSdPipeWrite, &out_, text_ + 3, 4u, &count_), Succeeds());
    EXPECT_EQ(count_, 4u);
    EXPECT_THAT(reported(KemSdPipeRead, &in_, buffer_, KEM_ULONG_T{sizeof buffer_}, &count_), Succeeds());
    EXPECT_EQ(count_, 7u);
    EXPECT_STREQ(buffer_, "abcdefg");
}

TEST_F(AnonymousPipe, TheEndOfThePipeIsNoFailure)
{
    close(write_);
    EXPECT_THAT(reported(KemSdPipeRead, &in_, buffer_, 4u, &count_), Succeeds());
    EXPECT_EQ(count_, 0u);
}

TEST_F(AnonymousPipe, ShortTransfersAreNotContinued)
{
    resetCalls();
    {
        Failing half(Call::write, 0, 2);
        EXPECT_THAT(reported(KemSdPipeWrite, &out_, text_, 4u, &count_), Succeeds());
        EXPECT_EQ(count_, 2u);
    }
    Failing half(Call::read, 0, 3);
    EXPECT_THAT(reported(KemSdPipeRead, &in_, buffer_, 4u, &count_), Succeeds());
    EXPECT_EQ(count_, 3u);
    EXPECT_EQ(calls(Call::write), 1);
    EXPECT_EQ(calls(Call::read), 1);
}

TEST_F(AnonymousPipe, WriteReportsMissingArguments)
{
    EXPECT_THAT(reported(KemSdPipeWrite, nullptr, text_, 1u, &count_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdPipeWrite, &out_, nullptr, 1u, &count_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdPipeWrite, &out_, text_, 1u, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(count_, 77u);
}

TEST_F(AnonymousPipe, ReadReportsMissingArguments)
{
    EXPECT_THAT(reported(KemSdPipeRead, nullptr, buffer_, 1u, &count_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdPipeRead, &in_, nullptr, 1u, &count_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdPipeRead, &in_, buffer_, 1u, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(count_, 77u);
}

TEST_F(AnonymousPipe, WriteThroughAHandleOfZerosIsInvalid)
{
    KEM_PIPEHDL_T zero{};
    resetCalls();
    EXPECT_THAT(reported(KemSdPipeWrite, &zero, text_, 1u, &count_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(calls(Call::write), 0);
}

TEST_F(AnonymousPipe, ReadThroughAHandleOfZerosReadsDescriptorZero)
{
    ASSERT_EQ(dup2(read_, 0), 0);
    ASSERT_EQ(write(write_, "in", 2), 2);
    KEM_PIPEHDL_T zero{};
    EXPECT_THAT(reported(KemSdPipeRead, &zero, buffer_, 2u, &count_), Succeeds());
    EXPECT_STREQ(buffer_, "in");
}

TEST_F(AnonymousPipe, AFailedWriteIsNotRetriedAndCountsAllOnes)
{
    {
        resetCalls();
        Failing interrupted(Call::write, EINTR);
        EXPECT_THAT(reported(KemSdPipeWrite, &out_, text_, 1u, &count_), Fails(SDSTS_PIPE_IO, EINTR));
        EXPECT_EQ(calls(Call::write), 1);
    }
    EXPECT_EQ(count_, kNoCount);
    signal(SIGPIPE, SIG_IGN);
    close(read_);
    EXPECT_THAT(reported(KemSdPipeWrite, &out_, text_, 1u, &count_), Fails(SDSTS_PIPE_IO, EPIPE));
}

TEST_F(AnonymousPipe, AFailedReadIsNotRetriedAndCountsAllOnes)
{
    {
        resetCalls();
        Failing interrupted(Call::read, EINTR);
        EXPECT_THAT(reported(KemSdPipeRead, &in_, buffer_, 1u, &count_), Fails(SDSTS_PIPE_IO, EINTR));
        EXPECT_EQ(calls(Call::read), 1);
    }
    EXPECT_EQ(count_, kNoCount);
    KEM_PIPEHDL_T none{-1, -1, nullptr};
    EXPECT_THAT(reported(KemSdPipeRead, &none, buffer_, 1u, &count_), Fails(SDSTS_PIPE_IO, EBADF));
}

TEST_F(AnonymousPipe, ClosingOneHandleClosesBothEndsForTheOther)
{
    EXPECT_THAT(reported(KemSdPipeClose, &in_), Succeeds());
    EXPECT_FALSE(isOpen(read_));
    EXPECT_FALSE(isOpen(write_));
    EXPECT_THAT(reported(KemSdPipeClose, &out_), Fails(SDSTS_PIPE_CLOSE, EBADF));
}

TEST_F(AnonymousPipe, CloseWithoutAHandleIsInvalid)
{
    EXPECT_THAT(reported(KemSdPipeClose, nullptr), Fails(SDSTS_INVALID_PARAM));
}

TEST_F(AnonymousPipe, CloseGoesOnWhenTheReadingEndFails)
{
    Failing first = Failing::nth(Call::close, 1, EIO);
    EXPECT_THAT(reported(KemSdPipeClose, &in_), Fails(SDSTS_PIPE_CLOSE, EIO));
    EXPECT_FALSE(isOpen(write_));
}

TEST_F(AnonymousPipe, CloseDoesNotReportAFailureOfTheWritingEndAlone)
{
    Failing second = Failing::nth(Call::close, 2, EIO);
    EXPECT_THAT(reported(KemSdPipeClose, &in_), Succeeds());
    EXPECT_EQ(second.hits(), 1);
}

TEST_F(AnonymousPipe, CloseReportsTheLastErrorNumberWhenBothEndsFail)
{
    in_.iFdRead = -1; // EBADF
    Failing second = Failing::nth(Call::close, 2, EIO);
    EXPECT_THAT(reported(KemSdPipeClose, &in_), Fails(SDSTS_PIPE_CLOSE, EIO));
}

TEST(PipeHandle, IsInitializedWhenAnyByteIsNotZero)
{
    KEM_PIPEHDL_T handle{};
    EXPECT_EQ(KemSdNamedPipeIsInitialized(nullptr), FALSE);
    EXPECT_EQ(KemSdNamedPipeIsInitialized(&handle), FALSE);
    for (size_t i = 0; i < sizeof handle; ++i) {
        unsigned char bytes[sizeof handle] = {};
        bytes[i] = 1;
        memcpy(&handle, bytes, sizeof handle);
        EXPECT_EQ(KemSdNamedPipeIsInitialized(&handle), TRUE) << "byte " << i;
    }
}
