#include <gtest/gtest.h>
#include <kemsd/file.h>
#include <unistd.h>

#include <cstring>

#include "support/failingcalls.h"
#include "support/openfile.h"
#include "support/report.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

class LineRead : public testing::Test {
protected:
    LineRead() { memset(line_, 'x', sizeof line_); }

    Report next(int file, KEM_ULONG_T capacity) { return reported(KemSdFileGets, file, line_, capacity); }

    TempDir dir_;
    char line_[10];
};

} // namespace

TEST_F(LineRead, ReturnsTheLineWithItsNewlineAndLeavesThePositionBehindIt)
{
    const OpenFile file(dir_.write("file", "ab\ncd"));
    EXPECT_THAT(next(file, 10), Succeeds());
    EXPECT_STREQ(line_, "ab\n");
    EXPECT_EQ(file.position(), 3);
    EXPECT_THAT(next(file, 10), Succeeds());
    EXPECT_STREQ(line_, "cd");
    EXPECT_THAT(next(file, 10), Fails(SDSTS_FILE_GETS_EOF));
}

TEST_F(LineRead, ReturnsALongLineInPieces)
{
    const OpenFile file(dir_.write("file", "abcdef\ng"));
    EXPECT_THAT(next(file, 4), Succeeds());
    EXPECT_STREQ(line_, "abc");
    EXPECT_EQ(line_[4], 'x') << "nothing is written behind the buffer";
    EXPECT_EQ(file.position(), 3);
    EXPECT_THAT(next(file, 4), Succeeds());
    EXPECT_STREQ(line_, "def");
    EXPECT_THAT(next(file, 4), Succeeds());
    EXPECT_STREQ(line_, "\n");
    EXPECT_EQ(file.position(), 7);
}

TEST_F(LineRead, FindsANewlineAtEitherEndOfTheBuffer)
{
    const OpenFile file(dir_.write("file", "\nab\n"));
    EXPECT_THAT(next(file, 10), Succeeds());
    EXPECT_STREQ(line_, "\n");
    EXPECT_EQ(file.position(), 1);
    EXPECT_THAT(next(file, 4), Succeeds());
    EXPECT_STREQ(line_, "ab\n");
    EXPECT_EQ(file.position(), 4);
}

TEST_F(LineRead, KeepsCarriageReturns)
{
    const OpenFile file(dir_.write("file", "a\r\nb"));
    EXPECT_THAT(next(file, 10), Succeeds());
    EXPECT_STREQ(line_, "a\r\n");
}

TEST_F(LineRead, LooksPastZeroBytesForTheNewline)
{
    const OpenFile file(dir_.write("file", std::string("a\0b\nc", 5)));
    EXPECT_THAT(next(file, 10), Succeeds());
    EXPECT_EQ(memcmp(line_, "a\0b\n", 5), 0);
    EXPECT_EQ(file.position(), 4);
}

TEST_F(LineRead, IntoABufferOfOneByteIsTheEmptyStringAndReadsNothing)
{
    const OpenFile file(dir_.write("file", "ab\n"));
    resetCalls();
    EXPECT_THAT(next(file, 1), Succeeds());
    EXPECT_EQ(line_[0], 0);
    EXPECT_EQ(line_[1], 'x');
    EXPECT_EQ(calls(Call::read), 0);
    EXPECT_EQ(file.position(), 0);
    EXPECT_THAT(next(-1, 1), Succeeds()) << "the handle is not even looked at";
}

TEST_F(LineRead, WithoutBufferIsInvalid)
{
    const OpenFile file(dir_.write("file", "ab\n"));
    EXPECT_THAT(reported(KemSdFileGets, int(file), nullptr, 10u), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdFileGets, int(file), nullptr, 1u), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(next(file, 0), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(line_[0], 'x');
    EXPECT_EQ(file.position(), 0);
}

TEST_F(LineRead, ReportsAFailedReadUnderItsOwnStatus)
{
    EXPECT_THAT(next(-1, 10), Fails(SDSTS_FILE_GETS, EBADF));
    const OpenFile file(dir_.write("file", "ab\n"));
    Failing error(Call::read, EIO);
    EXPECT_THAT(next(file, 10), Fails(SDSTS_FILE_GETS, EIO));
}

TEST_F(LineRead, ReportsAFailedSeekUnderItsOwnStatus)
{
    const OpenFile file(dir_.write("file", "ab\ncd"));
    Failing error(Call::lseek, EIO);
    EXPECT_THAT(next(file, 10), Fails(SDSTS_FILE_GETS, EIO));
}

TEST_F(LineRead, FromAPipeFailsAtTheSeekEvenWhenNothingFollowsTheLine)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], "ab\n", 3), 3);
    EXPECT_THAT(next(ends[0], 10), Fails(SDSTS_FILE_GETS, ESPIPE));
    close(ends[0]);
    close(ends[1]);
}
