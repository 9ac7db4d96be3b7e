#include <gtest/gtest.h>
#include <kemsd/file.h>
#include <sys/stat.h>

#include "support/failingcalls.h"
#include "support/openfile.h"
#include "support/report.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

class FileTransfer : public testing::Test {
protected:
    TempDir dir_;
    OpenFile file_{dir_.write("file", "0123456789")};
    char buffer_[16] = {};
    int count_ = 77;
    KEM_UINT_T moved_ = 77;
    KEM_OSRETCODE_T error_ = 77;
};

} // namespace

TEST_F(FileTransfer, ReadMovesThePosition)
{
    EXPECT_THAT(reported(KemSdFileRead, int(file_), buffer_, 4u, &count_), Succeeds());
    EXPECT_EQ(count_, 4);
    EXPECT_STREQ(buffer_, "0123");
    EXPECT_EQ(file_.position(), 4);
}

TEST_F(FileTransfer, ShortReadIsNoFailure)
{
    lseek(file_, 8, SEEK_SET);
    EXPECT_THAT(reported(KemSdFileRead, int(file_), buffer_, 10u, &count_), Succeeds());
    EXPECT_EQ(count_, 2);
    EXPECT_THAT(reported(KemSdFileRead, int(file_), buffer_, 10u, &count_), Succeeds());
    EXPECT_EQ(count_, 0) << "at the end of the file";
}

TEST_F(FileTransfer, ReadReportsMissingArgumentsAndFailure)
{
    EXPECT_THAT(reported(KemSdFileRead, int(file_), nullptr, 4u, &count_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdFileRead, int(file_), buffer_, 4u, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(count_, 77);
    EXPECT_THAT(reported(KemSdFileRead, -1, buffer_, 4u, &count_), Fails(SDSTS_FILE_READ, EBADF));
    EXPECT_EQ(count_, -1);
    resetCalls();
    Failing interrupted(Call::read, EINTR);
    EXPECT_THAT(reported(KemSdFileRead, int(file_), buffer_, 4u, &count_), Fails(SDSTS_FILE_READ, EINTR));
    EXPECT_EQ(calls(Call::read), 1) << "not retried";
}

TEST_F(FileTransfer, OnlyAResultOfMinusOneIsAFailure)
{
    Failing odd(Call::read, EIO, -2);
    EXPECT_THAT(reported(KemSdFileRead, int(file_), buffer_, 4u, &count_), Succeeds());
    EXPECT_EQ(count_, -2);
}

TEST_F(FileTransfer, AResultWhoseLow32BitsAreMinusOneIsAFailure)
{
    constexpr long kLow32BitsAreMinusOne = 0xFFFFFFFF;
    {
        Failing odd(Call::read, EIO, kLow32BitsAreMinusOne);
        EXPECT_THAT(reported(KemSdFileRead, int(file_), buffer_, 4u, &count_), Fails(SDSTS_FILE_READ, EIO));
    }
    {
        Failing odd(Call::write, EIO, kLow32BitsAreMinusOne);
        EXPECT_THAT(reported(KemSdFileWrite, int(file_), buffer_, 4u, &count_), Fails(SDSTS_FILE_WRITE, EIO));
    }
    {
        Failing odd(Call::pread, EIO, kLow32BitsAreMinusOne);
        EXPECT_THAT(reported(KemSdFilePRead, int(file_), buffer_, 0, 4u, &moved_), Fails(SDSTS_FILE_READ, EIO));
    }
    Failing odd(Call::pwrite, EIO, kLow32BitsAreMinusOne);
    EXPECT_THAT(reported(KemSdFilePWrite, int(file_), buffer_, 0, 4u, &moved_, &error_), Fails(SDSTS_FILE_WRITE, EIO));
}

TEST_F(FileTransfer, WriteMovesThePosition)
{
    char text[] = "abc";
    EXPECT_THAT(reported(KemSdFileWrite, int(file_), text, 3u, &count_), Succeeds());
    EXPECT_EQ(count_, 3);
    EXPECT_EQ(dir_.read("file"), "abc3456789");
    EXPECT_EQ(file_.position(), 3);
}

TEST_F(FileTransfer, ShortWriteIsNoFailure)
{
    Failing half(Call::write, 0, 2);
    EXPECT_THAT(reported(KemSdFileWrite, int(file_), buffer_, 4u, &count_), Succeeds());
    EXPECT_EQ(count_, 2);
}

TEST_F(FileTransfer, WriteOnAFullDiskHasAStatusOfItsOwn)
{
    Failing full(Call::write, ENOSPC);
    EXPECT_THAT(reported(KemSdFileWrite, int(file_), buffer_, 4u, &count_), Fails(SDSTS_DISK_FULL, ENOSPC));
    EXPECT_EQ(count_, -1);
}

TEST_F(FileTransfer, WriteOnTheFullDeviceReportsAFullDisk)
{
    const OpenFile full("/dev/full", O_WRONLY);
    EXPECT_THAT(reported(KemSdFileWrite, int(full), buffer_, 4u, &count_), Fails(SDSTS_DISK_FULL, ENOSPC));
}

TEST_F(FileTransfer, WriteReportsMissingArgumentsAndFailure)
{
    EXPECT_THAT(reported(KemSdFileWrite, int(file_), nullptr, 4u, &count_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdFileWrite, int(file_), buffer_, 4u, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(count_, 77);
    EXPECT_THAT(reported(KemSdFileWrite, -1, buffer_, 4u, &count_), Fails(SDSTS_FILE_WRITE, EBADF));
    EXPECT_EQ(count_, -1);
    resetCalls();
    Failing interrupted(Call::write, EINTR);
    EXPECT_THAT(reported(KemSdFileWrite, int(file_), buffer_, 4u, &count_), Fails(SDSTS_FILE_WRITE, EINTR));
    EXPECT_EQ(calls(Call::write), 1) << "not retried";
}

TEST_F(FileTransfer, PositionedReadLeavesThePosition)
{
    EXPECT_THAT(reported(KemSdFilePRead, int(file_), buffer_, 6, 10u, &moved_), Succeeds());
    EXPECT_EQ(moved_, 4u);
    EXPECT_STREQ(buffer_, "6789");
    EXPECT_EQ(file_.position(), 0);
}

TEST_F(FileTransfer, PositionedReadOfNoFileFailsWithTheErrorNumberAsFound)
{
    resetCalls();
    errno = ERANGE;
    EXPECT_THAT(reported(KemSdFilePRead, -1, buffer_, 0, 4u, &moved_), Fails(SDSTS_FILE_READ, ERANGE));
    EXPECT_EQ(moved_, 0u);
    EXPECT_EQ(calls(Call::pread), 0);
}

TEST_F(FileTransfer, PositionedReadFailureReportsCountZero)
{
    EXPECT_THAT(reported(KemSdFilePRead, int(file_), buffer_, -1, 4u, &moved_), Fails(SDSTS_FILE_READ, EINVAL));
    EXPECT_EQ(moved_, 0u);
    moved_ = 77;
    Failing error(Call::pread, EIO);
    EXPECT_THAT(reported(KemSdFilePRead, int(file_), buffer_, 0, 4u, &moved_), Fails(SDSTS_FILE_READ, EIO));
    EXPECT_EQ(moved_, 0u);
}

TEST_F(FileTransfer, PositionedReadWithoutBufferOrCountIsInvalid)
{
    EXPECT_THAT(reported(KemSdFilePRead, int(file_), nullptr, 0, 4u, &moved_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(moved_, 0u);
    EXPECT_THAT(reported(KemSdFilePRead, int(file_), buffer_, 0, 4u, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdFilePRead, -1, nullptr, 0, 4u, &moved_), Fails(SDSTS_INVALID_PARAM));
}

TEST_F(FileTransfer, PositionedWriteLeavesThePosition)
{
    char text[] = "abc";
    EXPECT_THAT(reported(KemSdFilePWrite, int(file_), text, 6, 3u, &moved_, &error_), Succeeds());
    EXPECT_EQ(moved_, 3u);
    EXPECT_EQ(error_, 0);
    EXPECT_EQ(dir_.read("file"), "012345abc9");
    EXPECT_EQ(file_.position(), 0);
}

TEST_F(FileTransfer, PositionedWriteToNoFileIsReportedWithTheReadStatus)
{
    resetCalls();
    errno = ERANGE;
    EXPECT_THAT(reported(KemSdFilePWrite, -1, buffer_, 0, 4u, &moved_, &error_), Fails(SDSTS_FILE_READ, ERANGE));
    EXPECT_EQ(moved_, 0u);
    EXPECT_EQ(error_, ERANGE);
    EXPECT_EQ(calls(Call::pwrite), 0);
}

TEST_F(FileTransfer, PositionedWriteOnAFullDiskHasAStatusOfItsOwn)
{
    Failing full(Call::pwrite, ENOSPC);
    EXPECT_THAT(reported(KemSdFilePWrite, int(file_), buffer_, 0, 4u, &moved_, &error_),
                Fails(SDSTS_DISK_FULL, ENOSPC));
    EXPECT_EQ(moved_, 0u);
    EXPECT_EQ(error_, ENOSPC);
}

TEST_F(FileTransfer, PositionedWriteFailureReportsCountZeroAndTheErrorNumberTwice)
{
    EXPECT_THAT(reported(KemSdFilePWrite, int(file_), buffer_, -1, 4u, &moved_, &error_),
                Fails(SDSTS_FILE_WRITE, EINVAL));
    EXPECT_EQ(moved_, 0u);
    EXPECT_EQ(error_, EINVAL);
    resetCalls();
    Failing interrupted(Call::pwrite, EINTR);
    EXPECT_THAT(reported(KemSdFilePWrite, int(file_), buffer_, 0, 4u, &moved_, &error_),
                Fails(SDSTS_FILE_WRITE, EINTR));
    EXPECT_EQ(calls(Call::pwrite), 1) << "not retried";
}

TEST_F(FileTransfer, PositionedWriteWithoutDataOrCountIsInvalid)
{
    EXPECT_THAT(reported(KemSdFilePWrite, int(file_), nullptr, 0, 4u, &moved_, &error_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(moved_, 0u);
    EXPECT_EQ(error_, 0);
    error_ = 77;
    EXPECT_THAT(reported(KemSdFilePWrite, int(file_), buffer_, 0, 4u, nullptr, &error_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(error_, 0);
    EXPECT_EQ(dir_.read("file"), "0123456789");
}

TEST_F(FileTransfer, PositionedWriteSkipsAMissingErrorNumber)
{
    char text[] = "abc";
    EXPECT_THAT(reported(KemSdFilePWrite, int(file_), text, 0, 3u, &moved_, nullptr), Succeeds());
    EXPECT_EQ(moved_, 3u);
    Failing error(Call::pwrite, EIO);
    EXPECT_THAT(reported(KemSdFilePWrite, int(file_), text, 0, 3u, &moved_, nullptr), Fails(SDSTS_FILE_WRITE, EIO));
}

TEST_F(FileTransfer, NegativeOffsetsAreSignExtended)
{
    // 0xFFFFFFFF as an unsigned offset would be a valid place of a large file.
    EXPECT_THAT(reported(KemSdFilePWrite, int(file_), buffer_, -1, 1u, &moved_, &error_),
                Fails(SDSTS_FILE_WRITE, EINVAL));
    struct stat record {};
    ASSERT_EQ(fstat(file_, &record), 0);
    EXPECT_EQ(record.st_size, 10);
}

TEST_F(FileTransfer, FlushSynchronises)
{
    resetCalls();
    EXPECT_THAT(reported(KemSdFileFlush, int(file_)), Succeeds());
    EXPECT_EQ(calls(Call::fsync), 1);
    EXPECT_THAT(reported(KemSdFileFlush, -1), Fails(SDSTS_FILE_FLUSH, EBADF));
    Failing error(Call::fsync, EIO);
    EXPECT_THAT(reported(KemSdFileFlush, int(file_)), Fails(SDSTS_FILE_FLUSH, EIO));
}

TEST_F(FileTransfer, WithoutContextTheStatusIsReturnedAlone)
{
    EXPECT_EQ(KemSdFileRead(nullptr, file_, buffer_, 4, &count_), 0);
    EXPECT_EQ(KemSdFileRead(nullptr, -1, buffer_, 4, &count_), SDSTS_FILE_READ);
    EXPECT_EQ(KemSdFilePWrite(nullptr, -1, buffer_, 0, 4, &moved_, nullptr), SDSTS_FILE_READ);
}
