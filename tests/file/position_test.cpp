#include <gtest/gtest.h>
#include <kemsd/file.h>
#include <unistd.h>

#include "support/failingcalls.h"
#include "support/openfile.h"
#include "support/report.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

class FilePosition : public testing::Test {
protected:
    // A sparse file of this length; it takes no space.
    void grow(off_t length) { ASSERT_EQ(ftruncate(file_, length), 0); }

    TempDir dir_;
    OpenFile file_{dir_.write("file", "0123456789")};
    KEM_LONG_T position_ = 77;
    KEM_LONG_T length_ = 77;
    KEM_BOOL_T atEof_ = 7;
};

constexpr off_t kGiB = INT64_C(1) << 30;

} // namespace

TEST_F(FilePosition, SeekMovesFromAllThreeOrigins)
{
    EXPECT_THAT(reported(KemSdFileLSeek, int(file_), 4, SEEK_SET, &position_), Succeeds());
    EXPECT_EQ(position_, 4);
    EXPECT_THAT(reported(KemSdFileLSeek, int(file_), 3, SEEK_CUR, &position_), Succeeds());
    EXPECT_EQ(position_, 7);
    EXPECT_THAT(reported(KemSdFileLSeek, int(file_), -1, SEEK_END, &position_), Succeeds());
    EXPECT_EQ(position_, 9) << "a negative offset is sign-extended";
    EXPECT_EQ(file_.position(), 9);
}

TEST_F(FilePosition, SeekNeedsNoPlaceForThePosition)
{
    EXPECT_THAT(reported(KemSdFileLSeek, int(file_), 4, SEEK_SET, nullptr), Succeeds());
    EXPECT_EQ(file_.position(), 4);
    EXPECT_THAT(reported(KemSdFileLSeek, -1, 4, SEEK_SET, nullptr), Fails(SDSTS_FILE_SEEK, EBADF));
}

TEST_F(FilePosition, SeekFailureReportsPositionMinusOne)
{
    EXPECT_THAT(reported(KemSdFileLSeek, int(file_), -1, SEEK_SET, &position_), Fails(SDSTS_FILE_SEEK, EINVAL));
    EXPECT_EQ(position_, -1);
    position_ = 77;
    Failing error(Call::lseek, ESPIPE);
    EXPECT_THAT(reported(KemSdFileLSeek, int(file_), 0, SEEK_SET, &position_), Fails(SDSTS_FILE_SEEK, ESPIPE));
    EXPECT_EQ(position_, -1);
}

TEST_F(FilePosition, SeekInALargeFileReportsTheLow32Bits)
{
    grow(5 * kGiB);
    EXPECT_THAT(reported(KemSdFileLSeek, int(file_), 0, SEEK_END, &position_), Succeeds());
    EXPECT_EQ(position_, kGiB);
    EXPECT_THAT(reported(KemSdFileLSeek, int(file_), -3, SEEK_END, &position_), Succeeds());
    EXPECT_EQ(position_, kGiB - 3);
    EXPECT_EQ(file_.position(), 5 * kGiB - 3);
}

TEST_F(FilePosition, SeekToThe32BitImageOfMinusOneCountsAsAFailure)
{
    grow(4 * kGiB);
    errno = ERANGE;
    EXPECT_THAT(reported(KemSdFileLSeek, int(file_), -1, SEEK_END, &position_), Fails(SDSTS_FILE_SEEK, ERANGE));
    EXPECT_EQ(position_, -1);
    EXPECT_EQ(file_.position(), 4 * kGiB - 1) << "the system did move";
    EXPECT_THAT(reported(KemSdFileLSeek, int(file_), -2, SEEK_END, &position_), Succeeds());
    EXPECT_EQ(position_, -2) << "only exactly -1 is a failure";
}

TEST_F(FilePosition, TellIsThePosition)
{
    resetCalls();
    lseek(file_, 6, SEEK_SET);
    EXPECT_THAT(reported(KemSdFileTell, int(file_), &position_), Succeeds());
    EXPECT_EQ(position_, 6);
    EXPECT_EQ(calls(Call::lseek), 2) << "ours above and one of its own";
}

TEST_F(FilePosition, TellTurnsTheSeeksFailureIntoItsOwn)
{
    EXPECT_THAT(reported(KemSdFileTell, -1, &position_), Fails(SDSTS_FILE_TELL, EBADF));
    EXPECT_EQ(position_, -1);
    EXPECT_THAT(reported(KemSdFileTell, int(file_), nullptr), Fails(SDSTS_INVALID_PARAM));
    Failing error(Call::lseek, ESPIPE);
    EXPECT_THAT(reported(KemSdFileTell, int(file_), &position_), Fails(SDSTS_FILE_TELL, ESPIPE));
}

TEST_F(FilePosition, EndOfFileIsPositionEqualsLength)
{
    EXPECT_THAT(reported(KemSdFileEof, int(file_), &atEof_), Succeeds());
    EXPECT_EQ(atEof_, FALSE);
    lseek(file_, 0, SEEK_END);
    EXPECT_THAT(reported(KemSdFileEof, int(file_), &atEof_), Succeeds());
    EXPECT_EQ(atEof_, TRUE);
    lseek(file_, 1, SEEK_CUR);
    EXPECT_THAT(reported(KemSdFileEof, int(file_), &atEof_), Succeeds());
    EXPECT_EQ(atEof_, FALSE) << "beyond the end is not at the end";
}

TEST_F(FilePosition, AnEmptyFileIsAtItsEndRightAfterOpening)
{
    const OpenFile empty(dir_.write("empty", ""));
    EXPECT_THAT(reported(KemSdFileEof, int(empty), &atEof_), Succeeds());
    EXPECT_EQ(atEof_, TRUE);
}

TEST_F(FilePosition, EndOfFileComparesTheLow32Bits)
{
    grow(5 * kGiB);
    lseek(file_, kGiB, SEEK_SET);
    EXPECT_THAT(reported(KemSdFileEof, int(file_), &atEof_), Succeeds());
    EXPECT_EQ(atEof_, TRUE);
}

TEST_F(FilePosition, EndOfFileSuccessStoresErrorNumberZero)
{
    errno = ERANGE; // what the length step would leave in the context
    EXPECT_THAT(reported(KemSdFileEof, int(file_), &atEof_), Succeeds());
}

TEST_F(FilePosition, EndOfFileTakesTwoSystemCalls)
{
    resetCalls();
    EXPECT_THAT(reported(KemSdFileEof, int(file_), &atEof_), Succeeds());
    EXPECT_EQ(calls(Call::lseek), 1);
    EXPECT_EQ(calls(Call::fstat), 1);
}

TEST_F(FilePosition, EndOfFileKeepsTheErrorNumberOfTheStepThatFailed)
{
    EXPECT_THAT(reported(KemSdFileEof, int(file_), nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdFileEof, -1, &atEof_), Fails(SDSTS_FILE_EOF, EBADF));
    Failing error(Call::fstat, EIO);
    EXPECT_THAT(reported(KemSdFileEof, int(file_), &atEof_), Fails(SDSTS_FILE_EOF, -1));
    EXPECT_EQ(atEof_, 7) << "no answer";
}

TEST_F(FilePosition, LengthIsTheFilesSize)
{
    errno = 0;
    EXPECT_THAT(reported(KemSdFileLength, int(file_), &length_), Succeeds());
    EXPECT_EQ(length_, 10);
}

TEST_F(FilePosition, LengthOfALargeFileIsItsLow32BitsSigned)
{
    errno = 0;
    grow(5 * kGiB);
    EXPECT_THAT(reported(KemSdFileLength, int(file_), &length_), Succeeds());
    EXPECT_EQ(length_, kGiB);
    grow(3 * kGiB);
    EXPECT_THAT(reported(KemSdFileLength, int(file_), &length_), Succeeds());
    EXPECT_EQ(length_, -kGiB);
}

TEST_F(FilePosition, LengthStoresTheCurrentErrorNumberOnSuccess)
{
    errno = ERANGE;
    EXPECT_THAT(reported(KemSdFileLength, int(file_), &length_), SucceedsWith(ERANGE));
}

TEST_F(FilePosition, LengthStoresTheRawResultOnFailure)
{
    EXPECT_THAT(reported(KemSdFileLength, -1, &length_), Fails(SDSTS_FILE_LENGTH, -1));
    EXPECT_EQ(length_, 0);
    length_ = 77;
    Failing error(Call::fstat, EIO);
    EXPECT_THAT(reported(KemSdFileLength, int(file_), &length_), Fails(SDSTS_FILE_LENGTH, -1));
    EXPECT_EQ(length_, 0);
}

TEST_F(FilePosition, LengthWithoutPlaceIsInvalid)
{
    EXPECT_THAT(reported(KemSdFileLength, int(file_), nullptr), Fails(SDSTS_INVALID_PARAM));
}
