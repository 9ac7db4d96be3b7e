#include <gtest/gtest.h>
#include <kemsd/file.h>

#include "support/failingcalls.h"
#include "support/openfile.h"
#include "support/report.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

class EndOfFile : public testing::Test {
protected:
    TempDir dir_;
    OpenFile file_{dir_.write("file", "0123456789")};
    KEM_LONG_T set_ = 77;
    KEM_OSRETCODE_T error_ = 77;
};

} // namespace

TEST_F(EndOfFile, CutsTheFile)
{
    EXPECT_THAT(reported(KemSdFileSetEndOfFile, int(file_), 4, &set_, &error_), Succeeds());
    EXPECT_EQ(set_, 4);
    EXPECT_EQ(error_, 0);
    EXPECT_EQ(dir_.read("file"), "0123");
}

TEST_F(EndOfFile, GrowsTheFileWithZeros)
{
    EXPECT_THAT(reported(KemSdFileSetEndOfFile, int(file_), 12, &set_, &error_), Succeeds());
    EXPECT_EQ(set_, 12);
    EXPECT_EQ(dir_.read("file"), std::string("0123456789\0\0", 12));
}

TEST_F(EndOfFile, IsRetriedWhileInterrupted)
{
    resetCalls();
    const Failing interrupted = Failing::nth(Call::ftruncate, 1, EINTR);
    EXPECT_THAT(reported(KemSdFileSetEndOfFile, int(file_), 4, &set_, &error_), Succeeds());
    EXPECT_EQ(calls(Call::ftruncate), 2);
    EXPECT_EQ(set_, 4);
    EXPECT_EQ(error_, 0);
    EXPECT_EQ(dir_.read("file"), "0123");
}

TEST_F(EndOfFile, OtherFailuresAreNotRetried)
{
    resetCalls();
    Failing error(Call::ftruncate, EIO);
    EXPECT_THAT(reported(KemSdFileSetEndOfFile, int(file_), 4, &set_, &error_), Fails(SDSTS_FILE_SET_EOF, EIO));
    EXPECT_EQ(calls(Call::ftruncate), 1);
    EXPECT_EQ(set_, 0);
    EXPECT_EQ(error_, EIO);
}

TEST_F(EndOfFile, OnAFullDiskHasAStatusOfItsOwn)
{
    Failing full(Call::ftruncate, ENOSPC);
    EXPECT_THAT(reported(KemSdFileSetEndOfFile, int(file_), 4, &set_, &error_), Fails(SDSTS_DISK_FULL, ENOSPC));
    EXPECT_EQ(set_, 0);
    EXPECT_EQ(error_, ENOSPC);
}

TEST_F(EndOfFile, ReportsABadHandleAndANegativeLength)
{
    EXPECT_THAT(reported(KemSdFileSetEndOfFile, -1, 4, &set_, &error_), Fails(SDSTS_FILE_SET_EOF, EBADF));
    EXPECT_EQ(error_, EBADF);
    EXPECT_THAT(reported(KemSdFileSetEndOfFile, int(file_), -4, &set_, &error_), Fails(SDSTS_FILE_SET_EOF, EINVAL));
    EXPECT_EQ(set_, 0);
    EXPECT_EQ(dir_.read("file"), "0123456789");
}

TEST_F(EndOfFile, WithoutPlaceForTheLengthIsInvalid)
{
    EXPECT_THAT(reported(KemSdFileSetEndOfFile, int(file_), 4, nullptr, &error_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(error_, 0);
    EXPECT_EQ(dir_.read("file"), "0123456789");
}

TEST_F(EndOfFile, SkipsAMissingErrorNumber)
{
    EXPECT_THAT(reported(KemSdFileSetEndOfFile, int(file_), 4, &set_, nullptr), Succeeds());
    EXPECT_THAT(reported(KemSdFileSetEndOfFile, -1, 4, &set_, nullptr), Fails(SDSTS_FILE_SET_EOF, EBADF));
}
