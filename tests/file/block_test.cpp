// Block files without waiting requests: made, opened, read, written, measured and positioned in blocks of 8192 bytes.

#include <gtest/gtest.h>
#include <kemsd/file.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "support/failingcalls.h"
#include "support/openfile.h"
#include "support/report.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

constexpr off_t kBlock = KEM_BLOCK_SIZE;
constexpr KEM_ULONG_T kBlocksIn2GiB = 262144;
constexpr off_t kGiB = INT64_C(1) << 30;
constexpr KEM_ULONG_T kUntouched = 77;

class Block : public testing::Test {
protected:
    // A sparse file of this length; it takes no space.
    void grow(off_t bytes) { ASSERT_EQ(ftruncate(file_, bytes), 0); }

    Report read(KEM_ULONG_T offset, KEM_ULONG_T blocks)
    {
        return reported(KemSdDirectIOFileRead, int(file_), offset, buffer_.data(), blocks, nullptr, &moved_, nullptr);
    }
    Report write(KEM_ULONG_T offset, KEM_ULONG_T blocks)
    {
        return reported(KemSdDirectIOFileWrite, int(file_), offset, buffer_.data(), blocks, nullptr, &moved_, nullptr);
    }

    TempDir dir_;
    const std::string path_ = dir_.write("file", std::string(kBlock, 'a') + std::string(kBlock, 'b') + "short");
    OpenFile file_{path_};
    std::string buffer_ = std::string(4 * kBlock, '.');
    KEM_ULONG_T moved_ = kUntouched;
};

mode_t modeOf(const std::string& path)
{
    struct stat record {};
    EXPECT_EQ(stat(path.c_str(), &record), 0);
    return record.st_mode & 0777;
}

} // namespace

// ---- Made, opened, closed, removed -------------------------------------------------------------------------------

TEST_F(Block, CreateLeavesAnEmptyClosedFile)
{
    resetCalls();
    EXPECT_THAT(reported(KemSdDirectIOFileCreate, path_.c_str(), 0600), Succeeds());
    EXPECT_EQ(std::filesystem::file_size(path_), 0u);
    EXPECT_EQ(calls(Call::creat), 1);
    EXPECT_EQ(calls(Call::close), 1);
    EXPECT_EQ(strayCloses(), 0);
}

TEST_F(Block, CreateReportsAMissingPathAndBothFailures)
{
    EXPECT_THAT(reported(KemSdDirectIOFileCreate, nullptr, 0600), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdDirectIOFileCreate, dir_.path("no/file").c_str(), 0600),
                Fails(SDSTS_FILE_CREATE, ENOENT));
    const Failing closing(Call::close, EIO);
    EXPECT_THAT(reported(KemSdDirectIOFileCreate, dir_.path("new").c_str(), 0600), Fails(SDSTS_FILE_CLOSE, EIO));
    EXPECT_TRUE(std::filesystem::exists(dir_.path("new")));
}

TEST_F(Block, FailoverModeLetsEverybodyReadAndWriteWhatIsMade)
{
    const mode_t before = umask(0);
    KemSdSetFailoverModeFlag(TRUE);
    KEM_FILEHDL_T handle = -1;
    EXPECT_EQ(KemSdDirectIOFileCreate(nullptr, dir_.path("made").c_str(), 0100), 0);
    EXPECT_EQ(KemSdDirectIOFileOpen(nullptr, dir_.path("opened").c_str(), O_RDWR, 0, O_CREAT, 0, 0, &handle, nullptr),
              0);
    KemSdSetFailoverModeFlag(FALSE);
    umask(before);
    EXPECT_EQ(modeOf(dir_.path("made")), 0766u);
    EXPECT_EQ(modeOf(dir_.path("opened")), 0666u);
    EXPECT_EQ(KemSdDirectIOFileClose(nullptr, handle, nullptr), 0);
}

TEST_F(Block, OpenTakesItsFlagsFromTypeAndAccessTogetherAndAddsNone)
{
    KEM_FILEHDL_T handle = -1;
    EXPECT_THAT(reported(KemSdDirectIOFileOpen, path_.c_str(), O_RDWR, O_TRUNC, O_APPEND, 0, O_TRUNC, &handle, nullptr),
                Succeeds());
    const int flags = fcntl(handle, F_GETFL);
    EXPECT_EQ(flags & O_ACCMODE, O_RDWR);
    EXPECT_EQ(flags & (O_APPEND | O_DIRECT | O_SYNC), O_APPEND);
    EXPECT_NE(std::filesystem::file_size(path_), 0u) << "share and attribute flags are ignored";
    EXPECT_THAT(reported(KemSdDirectIOFileClose, handle, nullptr), Succeeds());
}

TEST_F(Block, OpenAcceptsTheExclusiveFlag)
{
    KEM_FILEHDL_T handle = 77;
    EXPECT_THAT(reported(KemSdDirectIOFileOpen, path_.c_str(), O_RDWR, 0, O_CREAT | O_EXCL, 0600, 0, &handle, nullptr),
                Fails(SDSTS_FILE_OPEN, EEXIST));
    EXPECT_EQ(handle, -1);
}

TEST_F(Block, OpenReportsMissingArgumentsAndFailure)
{
    KEM_FILEHDL_T handle = 77;
    EXPECT_THAT(reported(KemSdDirectIOFileOpen, nullptr, O_RDWR, 0, 0, 0, 0, &handle, nullptr),
                Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdDirectIOFileOpen, path_.c_str(), O_RDWR, 0, 0, 0, 0, nullptr, nullptr),
                Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(handle, 77);
    EXPECT_THAT(reported(KemSdDirectIOFileOpen, dir_.path("no").c_str(), O_RDWR, 0, 0, 0, 0, &handle, nullptr),
                Fails(SDSTS_FILE_OPEN, ENOENT));
    EXPECT_EQ(handle, -1);
}

TEST_F(Block, CloseReportsTheSystemsFailure)
{
    EXPECT_THAT(reported(KemSdDirectIOFileClose, -1, nullptr), Fails(SDSTS_FILE_CLOSE, EBADF));
}

TEST_F(Block, RemoveUnlinksTheName)
{
    EXPECT_THAT(reported(KemSdDirectIOFileRemove, path_.c_str()), Succeeds());
    EXPECT_FALSE(std::filesystem::exists(path_));
    EXPECT_THAT(reported(KemSdDirectIOFileRemove, path_.c_str()), Fails(SDSTS_FILE_REMOVE, ENOENT));
    EXPECT_THAT(reported(KemSdDirectIOFileRemove, nullptr), Fails(SDSTS_INVALID_PARAM));
}

// ---- Read and written at once ------------------------------------------------------------------------------------

TEST_F(Block, ReadIsInBlocksAndLeavesThePosition)
{
    EXPECT_THAT(read(1, 1), Succeeds());
    EXPECT_EQ(moved_, 1u);
    EXPECT_EQ(buffer_, std::string(kBlock, 'b') + std::string(3 * kBlock, '.'));
    EXPECT_EQ(file_.position(), 0);
}

TEST_F(Block, ReadCountsWholeBlocksOnly)
{
    EXPECT_THAT(read(1, 2), Succeeds());
    EXPECT_EQ(moved_, 1u) << "the partial block is read, but does not count";
    EXPECT_EQ(buffer_.substr(kBlock, 6), "short.");
    EXPECT_THAT(read(2, 1), Succeeds());
    EXPECT_EQ(moved_, 0u);
}

TEST_F(Block, ReadAtOrPastTheEndIsZeroBlocks)
{
    for (const KEM_ULONG_T offset : {3u, 1000u}) {
        moved_ = kUntouched;
        EXPECT_THAT(read(offset, 1), Succeeds());
        EXPECT_EQ(moved_, 0u);
    }
}

TEST_F(Block, WriteIsInBlocksAndLeavesThePosition)
{
    EXPECT_THAT(write(1, 1), Succeeds());
    EXPECT_EQ(moved_, 1u);
    EXPECT_EQ(dir_.read("file"), std::string(kBlock, 'a') + std::string(kBlock, '.') + "short");
    EXPECT_EQ(file_.position(), 0);
}

TEST_F(Block, ShortWriteCountsWholeBlocksOnly)
{
    const Failing part(Call::pwrite, 0, 2 * kBlock + 100);
    EXPECT_THAT(write(0, 4), Succeeds());
    EXPECT_EQ(moved_, 2u);
}

TEST_F(Block, WriteOfLessThanABlockFailsWithTheErrorNumberAsFound)
{
    errno = ERANGE;
    EXPECT_THAT(write(0, 0), Fails(SDSTS_FILE_WRITE, ERANGE));
    EXPECT_EQ(moved_, 0u);
    moved_ = kUntouched;
    const Failing part(Call::pwrite, ERANGE, kBlock - 1);
    EXPECT_THAT(write(0, 1), Fails(SDSTS_FILE_WRITE, ERANGE));
    EXPECT_EQ(moved_, 0u);
}

TEST_F(Block, InterruptedReadAndWriteAreRepeated)
{
    resetCalls();
    const Failing reading = Failing::nth(Call::pread, 1, EINTR);
    EXPECT_THAT(read(0, 1), Succeeds());
    EXPECT_EQ(moved_, 1u);
    EXPECT_EQ(calls(Call::pread), 2);
    const Failing writing = Failing::nth(Call::pwrite, 1, EINTR);
    EXPECT_THAT(write(0, 1), Succeeds());
    EXPECT_EQ(moved_, 1u);
    EXPECT_EQ(calls(Call::pwrite), 2);
}

TEST_F(Block, FailedReadAndWriteReportCountZero)
{
    {
        const Failing error(Call::pread, EIO);
        EXPECT_THAT(read(0, 1), Fails(SDSTS_FILE_READ, EIO));
        EXPECT_EQ(moved_, 0u);
    }
    moved_ = kUntouched;
    const Failing full(Call::pwrite, ENOSPC);
    EXPECT_THAT(write(0, 1), Fails(SDSTS_FILE_WRITE, ENOSPC)) << "a full disk has no status of its own here";
    EXPECT_EQ(moved_, 0u);
}

TEST_F(Block, ReadAndWriteNeedBufferAndCount)
{
    void* const buffer = buffer_.data();
    EXPECT_THAT(reported(KemSdDirectIOFileRead, int(file_), 0u, nullptr, 1u, nullptr, &moved_, nullptr),
                Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdDirectIOFileRead, int(file_), 0u, buffer, 1u, nullptr, nullptr, nullptr),
                Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdDirectIOFileWrite, int(file_), 0u, nullptr, 1u, nullptr, &moved_, nullptr),
                Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdDirectIOFileWrite, int(file_), 0u, buffer, 1u, nullptr, nullptr, nullptr),
                Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(moved_, kUntouched);
}

TEST_F(Block, OffsetsWrapAt4GiB)
{
    constexpr KEM_ULONG_T kBlocksIn4GiB = 2 * kBlocksIn2GiB;
    EXPECT_THAT(read(kBlocksIn4GiB, 1), Succeeds());
    EXPECT_EQ(buffer_[0], 'a') << "block 524288 addresses byte 0";
    buffer_.assign(buffer_.size(), 'w');
    EXPECT_THAT(write(kBlocksIn4GiB + 1, 1), Succeeds());
    EXPECT_EQ(dir_.read("file"), std::string(kBlock, 'a') + std::string(kBlock, 'w') + "short");
    EXPECT_THAT(read(0, kBlocksIn4GiB), Succeeds());
    EXPECT_EQ(moved_, 0u) << "counts wrap too: this one is 0 bytes";
}

// ---- The block that ends at 2 GiB --------------------------------------------------------------------------------

TEST_F(Block, PartialBlockAt2GiBIsReadAsAWholeOne)
{
    grow(2 * kGiB - 1);
    EXPECT_THAT(read(kBlocksIn2GiB - 4, 4), Succeeds());
    EXPECT_EQ(moved_, 4u);
    EXPECT_THAT(read(kBlocksIn2GiB - 1, 1), Succeeds());
    EXPECT_EQ(moved_, 1u);
    EXPECT_THAT(read(kBlocksIn2GiB - 2, 3), Succeeds());
    EXPECT_EQ(moved_, 1u) << "a request that ends elsewhere counts whole blocks";
    EXPECT_THAT(read(kBlocksIn2GiB - 4, 3), Succeeds());
    EXPECT_EQ(moved_, 3u);
}

TEST_F(Block, WholeBlocksAt2GiBAreNotCountedTwice)
{
    grow(2 * kGiB);
    EXPECT_THAT(read(kBlocksIn2GiB - 4, 4), Succeeds());
    EXPECT_EQ(moved_, 4u);
}

TEST_F(Block, ShortRequestThatEndsAt2GiBCountsOneBlockMoreEvenWhenNothingWasMoved)
{
    grow(0);
    EXPECT_THAT(read(kBlocksIn2GiB - 4, 4), Succeeds());
    EXPECT_EQ(moved_, 1u);
    EXPECT_THAT(read(0x80000000u, 0x80040000u), Succeeds());
    EXPECT_EQ(moved_, 1u) << "the sum has 32 bits";
    const Failing nothing(Call::pwrite, 0, 0L);
    EXPECT_THAT(write(kBlocksIn2GiB - 4, 4), Succeeds());
    EXPECT_EQ(moved_, 1u);
    EXPECT_THAT(write(kBlocksIn2GiB - 5, 4), Fails(SDSTS_FILE_WRITE)) << "one that ends elsewhere has written nothing";
    EXPECT_EQ(moved_, 0u);
}

TEST_F(Block, FailureThatEndsAt2GiBCountsNothing)
{
    const Failing reading(Call::pread, EIO);
    EXPECT_THAT(read(kBlocksIn2GiB - 1, 1), Fails(SDSTS_FILE_READ, EIO));
    EXPECT_EQ(moved_, 0u);
    moved_ = kUntouched;
    const Failing writing(Call::pwrite, EFBIG);
    EXPECT_THAT(write(kBlocksIn2GiB - 1, 1), Fails(SDSTS_FILE_WRITE, EFBIG));
    EXPECT_EQ(moved_, 0u);
}

TEST_F(Block, PartialBlockAt2GiBIsWrittenAsAWholeOne)
{
    const Failing part(Call::pwrite, 0, 4 * kBlock - 1);
    EXPECT_THAT(write(kBlocksIn2GiB - 4, 4), Succeeds());
    EXPECT_EQ(moved_, 4u);
}

// ---- Size and position -------------------------------------------------------------------------------------------

TEST_F(Block, SizeIsWholeBlocksOfTheLow32Bits)
{
    for (const auto& [bytes, blocks] : {std::pair<off_t, KEM_ULONG_T>{0, 0},
                                        {10000, 1},
                                        {2 * kBlock, 2},
                                        {3 * kGiB, 393216},
                                        {4 * kGiB + 3 * kBlock - 1, 2}}) {
        grow(bytes);
        EXPECT_THAT(reported(KemSdDirectIOFileSize, int(file_), &moved_), Succeeds());
        EXPECT_EQ(moved_, blocks) << bytes;
    }
}

TEST_F(Block, SizeReportsAMissingOutputAndFailure)
{
    EXPECT_THAT(reported(KemSdDirectIOFileSize, int(file_), nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdDirectIOFileSize, -1, &moved_), Fails(SDSTS_FILE_LENGTH, EBADF));
    EXPECT_EQ(moved_, 0u);
}

TEST_F(Block, PointerMovesFromAllThreeOriginsInBlocks)
{
    grow(5 * kGiB);
    struct Move {
        KEM_LONG_T offset;
        int origin;
        KEM_ULONG_T blocks;
        off_t position;
    };
    for (const Move& move : {Move{3, SEEK_SET, 3, 3 * kBlock},
                             {4, SEEK_CUR, 7, 7 * kBlock},
                             {-2, SEEK_CUR, 5, 5 * kBlock},
                             {-1, SEEK_END, 131071, 5 * kGiB - kBlock},
                             {0, SEEK_SET, 0, 0},
                             {524289, SEEK_SET, 1, kBlock}}) {
        EXPECT_THAT(reported(KemSdDirectIOFilePointerSet, int(file_), move.offset, move.origin, &moved_), Succeeds());
        EXPECT_EQ(moved_, move.blocks);
        EXPECT_EQ(file_.position(), move.position);
        EXPECT_THAT(reported(KemSdDirectIOFilePointerGet, int(file_), &moved_), Succeeds());
        EXPECT_EQ(moved_, move.blocks);
    }
    lseek(file_, 2 * kBlock - 1, SEEK_SET);
    EXPECT_THAT(reported(KemSdDirectIOFilePointerGet, int(file_), &moved_), Succeeds());
    EXPECT_EQ(moved_, 1u) << "whole blocks";
}

TEST_F(Block, PositionWhoseLow32BitsAreNegativeIsAFailure)
{
    grow(5 * kGiB);
    struct Case {
        off_t position;
        bool fails;
        KEM_ULONG_T blocks;
    };
    for (const Case& at : {Case{2 * kGiB - kBlock, false, 262143},
                           {2 * kGiB, true, 0},
                           {4 * kGiB - 1, true, 0},
                           {4 * kGiB, false, 0},
                           {4 * kGiB + kBlock, false, 1}}) {
        lseek(file_, at.position, SEEK_SET);
        moved_ = kUntouched;
        errno = ERANGE;
        const Report report = reported(KemSdDirectIOFilePointerGet, int(file_), &moved_);
        EXPECT_EQ(report.result, at.fails ? SDSTS_FILE_TELL : 0) << at.position;
        EXPECT_EQ(report.osRetCode, at.fails ? ERANGE : 0) << at.position;
        EXPECT_EQ(moved_, at.blocks) << at.position;
    }
    errno = ERANGE;
    EXPECT_THAT(reported(KemSdDirectIOFilePointerSet, int(file_), -kBlock, SEEK_END, &moved_), Succeeds());
    grow(4 * kGiB);
    EXPECT_THAT(reported(KemSdDirectIOFilePointerSet, int(file_), -1, SEEK_END, &moved_),
                Fails(SDSTS_DIO_SEEK, ERANGE));
    EXPECT_EQ(moved_, 0u);
}

TEST_F(Block, PointerCallsReportAMissingOutputAndFailure)
{
    EXPECT_THAT(reported(KemSdDirectIOFilePointerGet, int(file_), nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdDirectIOFilePointerSet, int(file_), 1, SEEK_SET, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(file_.position(), 0);
    EXPECT_THAT(reported(KemSdDirectIOFilePointerGet, -1, &moved_), Fails(SDSTS_FILE_TELL, EBADF));
    EXPECT_EQ(moved_, 0u);
    moved_ = kUntouched;
    EXPECT_THAT(reported(KemSdDirectIOFilePointerSet, int(file_), -1, SEEK_SET, &moved_),
                Fails(SDSTS_DIO_SEEK, EINVAL));
    EXPECT_EQ(moved_, 0u);
    EXPECT_THAT(reported(KemSdDirectIOFilePointerSet, int(file_), 262144, SEEK_SET, &moved_),
                Fails(SDSTS_DIO_SEEK, EINVAL))
        << "2 GiB is a negative offset";
}

TEST_F(Block, EndOfFileIsSetInBlocksUnderBothNames)
{
    for (const auto call : {KemSdDirectIOFileChangeSize, KemSdDirectIOFileSetEndOfFile}) {
        struct Case {
            KEM_ULONG_T blocks;
            off_t bytes;
        };
        for (const Case& end : {Case{1, kBlock}, {5, 5 * kBlock}, {393216, 3 * kGiB}, {524290, 2 * kBlock}, {0, 0}}) {
            EXPECT_THAT(reported(call, int(file_), end.blocks, &moved_), Succeeds());
            EXPECT_EQ(moved_, end.blocks);
            EXPECT_EQ(std::filesystem::file_size(path_), static_cast<uintmax_t>(end.bytes)) << end.blocks;
        }
        EXPECT_THAT(reported(call, int(file_), 1u, nullptr), Fails(SDSTS_INVALID_PARAM));
        EXPECT_THAT(reported(call, -1, 1u, &moved_), Fails(SDSTS_FILE_SET_EOF, EBADF));
        EXPECT_EQ(moved_, 0u);
        resetCalls();
        moved_ = kUntouched;
        const Failing interrupted(Call::ftruncate, EINTR);
        EXPECT_THAT(reported(call, int(file_), 1u, &moved_), Fails(SDSTS_FILE_SET_EOF, EINTR));
        EXPECT_EQ(moved_, 0u);
        EXPECT_EQ(calls(Call::ftruncate), 1) << "not repeated";
        const Failing full(Call::ftruncate, ENOSPC);
        EXPECT_THAT(reported(call, int(file_), 1u, &moved_), Fails(SDSTS_FILE_SET_EOF, ENOSPC));
    }
}
