// A mapped file that grows, and what stops it.

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include "mappedfile.h"
#include "support/child.h"
#include "support/smalldisk.h"

using namespace kemsd::test;

namespace {

constexpr size_t kStart = 100; // bytes that a file has before it grows

class MappedGrowth : public MappedFileTest {
protected:
    // A file of 100 bytes, the position at its end.
    void openGrowing(KEM_ULONG_T step, KEM_OFF_T maximum, KEM_LONG64_T mapped = kMapped)
    {
        open(std::string(kStart, 'a'), mapped);
        KemSdMMAPFileSetExtendSize(nullptr, step, maximum, &file_);
        hdl().cur = kStart;
    }

    void expectUnchanged()
    {
        EXPECT_EQ(count_, 0);
        EXPECT_EQ(hdl().size, static_cast<KEM_OFF_T>(kStart));
        EXPECT_EQ(hdl().cur, static_cast<KEM_OFF_T>(kStart));
        EXPECT_EQ(content(), std::string(kStart, 'a'));
    }
};

const std::string kFifty(50, 'b');

} // namespace

TEST_F(MappedGrowth, GrowsToExactlyWhatIsNeededWithoutAStep)
{
    openGrowing(0, 1000);
    EXPECT_THAT(write(kFifty), Succeeds());
    EXPECT_EQ(count_, 50);
    EXPECT_EQ(hdl().size, 150);
    EXPECT_EQ(content(), std::string(kStart, 'a') + kFifty);
}

TEST_F(MappedGrowth, GrowsByAWholeStep)
{
    openGrowing(4096, 10000);
    EXPECT_THAT(write(kFifty), Succeeds());
    EXPECT_EQ(hdl().size, 4196);
    EXPECT_EQ(fileLength(), 4196);
    EXPECT_EQ(hdl().cur, 150);
    resetCalls();
    EXPECT_THAT(write(kFifty), Succeeds());
    EXPECT_EQ(calls(Call::ftruncate), 0);
}

TEST_F(MappedGrowth, GrowsBeyondAStepWhereMoreIsNeeded)
{
    openGrowing(4096, 10000);
    EXPECT_THAT(write(std::string(5000, 'b')), Succeeds());
    EXPECT_EQ(hdl().size, 5100);
}

TEST_F(MappedGrowth, AStepEndsAtTheMaximum)
{
    openGrowing(4096, 1000);
    EXPECT_THAT(write(kFifty), Succeeds());
    EXPECT_EQ(hdl().size, 1000);
    EXPECT_EQ(fileLength(), 1000);
}

TEST_F(MappedGrowth, WritesUpToTheMaximumAndNotAByteFurther)
{
    for (const KEM_ULONG_T step : {0, 4096}) {
        openGrowing(step, 1000);
        EXPECT_THAT(write(std::string(901, 'b')), Fails(SDSTS_FILE_WRITE));
        expectUnchanged();
        EXPECT_THAT(writeAt(999, "bb"), Fails(SDSTS_FILE_WRITE));
        EXPECT_EQ(error_, 0);
        expectUnchanged();
        EXPECT_THAT(write(std::string(900, 'b')), Succeeds());
        EXPECT_EQ(fileLength(), 1000);
        EXPECT_THAT(reported(KemSdMMAPFileClose, file_), Succeeds());
    }
    hdl().fd = -1;
}

TEST_F(MappedGrowth, WithoutAMaximumAFileDoesNotGrow)
{
    open(std::string(kStart, 'a'));
    hdl().cur = kStart;
    EXPECT_THAT(write("b"), Fails(SDSTS_FILE_WRITE));
    expectUnchanged();
}

TEST_F(MappedGrowth, APositionedWriteGrowsAndLeavesThePositionAlone)
{
    openGrowing(0, 1000);
    EXPECT_THAT(writeAt(200, kFifty), Succeeds());
    EXPECT_EQ(hdl().cur, 100);
    EXPECT_EQ(content(), std::string(kStart, 'a') + std::string(100, '\0') + kFifty);
}

TEST_F(MappedGrowth, AWriteBehindTheEndLeavesZerosBetween)
{
    openGrowing(0, 1000);
    EXPECT_THAT(seek(20, SEEK_END), Succeeds());
    EXPECT_THAT(write("b"), Succeeds());
    EXPECT_EQ(content(), std::string(kStart, 'a') + std::string(20, '\0') + "b");
}

TEST_F(MappedGrowth, TheMaximumIsAtMostTheMapping)
{
    openGrowing(0, kMapped + 1);
    EXPECT_EQ(hdl().maxsize, kMapped);
    KemSdMMAPFileSetExtendSize(nullptr, 7, -5, &file_);
    EXPECT_EQ(hdl().extend_size, 7u);
    EXPECT_EQ(hdl().maxsize, -5);
    EXPECT_THAT(write("b"), Fails(SDSTS_FILE_WRITE));
}

// ---- Growing by itself

TEST_F(MappedGrowth, ExtendsOnDemand)
{
    openGrowing(0, 1000);
    EXPECT_THAT(extend(700), Succeeds());
    EXPECT_EQ(error_, 0);
    EXPECT_EQ(hdl().size, 700);
    EXPECT_EQ(hdl().cur, 100);
    EXPECT_EQ(fileLength(), 700);
    hdl().extend_size = 4096;
    EXPECT_THAT(extend(701), Succeeds());
    EXPECT_EQ(fileLength(), 1000);
}

TEST_F(MappedGrowth, ExtensionBeyondTheMaximumWritesNeitherContextNorErrorNumber)
{
    openGrowing(4096, 1000);
    EXPECT_THAT(extend(1001), ReturnsOnly(SDSTS_FILE_WRITE));
    EXPECT_EQ(error_, -77);
    expectUnchanged();
}

TEST_F(MappedGrowth, APlainHandleIsNotExtended)
{
    openPlain(std::string(kStart, 'a'));
    hdl().maxsize = 1000;
    EXPECT_THAT(extend(200), ReturnsOnly(SDSTS_FILE_WRITE));
    EXPECT_EQ(fileLength(), 100);
}

TEST_F(MappedGrowth, SizesThatAreNoLengthsAreRefused)
{
    openGrowing(0, 1000);
    for (const KEM_LONG_T size : {0, -1, INT32_MIN}) {
        EXPECT_THAT(extend(size), Fails(SDSTS_FILE_SET_EOF, EINVAL)) << size;
        EXPECT_EQ(error_, EINVAL);
        expectUnchanged();
    }
}

// A length of 32 bits would have kept ten bytes of the file.
TEST_F(MappedGrowth, NeverReachesTwoGiBNorCutsTheFileInstead)
{
    constexpr KEM_LONG64_T kAll = INT64_C(1) << 32;
    openGrowing(0, kAll, kAll);
    ASSERT_EQ(ftruncate(hdl().fd, INT32_MAX - 10), 0);
    hdl().size = hdl().cur = INT32_MAX - 10;
    EXPECT_THAT(write(kFifty), Fails(SDSTS_FILE_SET_EOF, EINVAL));
    EXPECT_THAT(writeAt(INT32_MAX - 10, kFifty), Fails(SDSTS_FILE_SET_EOF, EINVAL));
    EXPECT_EQ(error_, EINVAL);
    hdl().extend_size = 4096;
    EXPECT_THAT(extend(INT32_MAX), Fails(SDSTS_FILE_SET_EOF, EINVAL));
    EXPECT_EQ(fileLength(), INT32_MAX - 10);
    EXPECT_EQ(hdl().size, INT32_MAX - 10);
}

// ---- The end set by the caller

TEST_F(MappedGrowth, SettingTheEndMovesTheSizeAlone)
{
    openGrowing(0, 1000);
    EXPECT_THAT(setEnd(40), Succeeds());
    EXPECT_EQ(length_, 40);
    EXPECT_EQ(error_, 0);
    EXPECT_EQ(hdl().size, 40);
    EXPECT_EQ(hdl().cur, 100);
    EXPECT_EQ(hdl().len, kMapped);
    EXPECT_THAT(read(4), Succeeds());
    EXPECT_EQ(count_, 0);
    EXPECT_THAT(setEnd(2000), Succeeds()) << "the maximum is for growth alone";
    EXPECT_EQ(content(), std::string(40, 'a') + std::string(1960, '\0'));
    EXPECT_THAT(setEnd(0), Succeeds());
    EXPECT_EQ(hdl().size, 0);
}

TEST_F(MappedGrowth, AnEndThatCannotBeSetIsReported)
{
    openGrowing(0, 1000);
    count_ = 0;
    EXPECT_THAT(setEnd(-1), Fails(SDSTS_FILE_SET_EOF, EINVAL));
    EXPECT_EQ(length_, 0);
    EXPECT_EQ(error_, EINVAL);
    expectUnchanged();
    EXPECT_THAT(reported(KemSdMMAPFileSetEndOfFile, &file_, -1, &length_, nullptr), Fails(SDSTS_FILE_SET_EOF, EINVAL));
}

// ---- Space

TEST_F(MappedGrowth, ReservesTheSpaceThatItTakes)
{
    openGrowing(1 << 16, kMapped);
    resetCalls();
    EXPECT_THAT(write(kFifty), Succeeds());
    EXPECT_EQ(calls(Call::fallocate), 1);
    EXPECT_EQ(fileLength(), (1 << 16) + 100);
    EXPECT_THAT(setEnd(1 << 17), Succeeds());
    EXPECT_EQ(calls(Call::fallocate), 2);
    EXPECT_THAT(setEnd(10), Succeeds());
    EXPECT_EQ(calls(Call::fallocate), 2);
}

TEST_F(MappedGrowth, WithoutSpaceNothingHasChanged)
{
    struct {
        Call call;
        int error;
        KEM_STS_T status;
    } const kCauses[] = {{Call::fallocate, ENOSPC, SDSTS_DISK_FULL},
                         {Call::fallocate, EDQUOT, SDSTS_DISK_FULL},
                         {Call::fallocate, EIO, SDSTS_FILE_SET_EOF},
                         {Call::ftruncate, ENOSPC, SDSTS_DISK_FULL},
                         {Call::ftruncate, EROFS, SDSTS_FILE_SET_EOF}};
    openGrowing(4096, kMapped);
    for (const auto& cause : kCauses) {
        SCOPED_TRACE(strerror(cause.error));
        Failing failing(cause.call, cause.error);
        EXPECT_THAT(write(kFifty), Fails(cause.status, cause.error));
        expectUnchanged();
        EXPECT_THAT(writeAt(90, kFifty), Fails(cause.status, cause.error));
        EXPECT_EQ(error_, cause.error);
        expectUnchanged();
        EXPECT_THAT(extend(200), Fails(cause.status, cause.error));
        EXPECT_EQ(error_, cause.error);
        EXPECT_THAT(reported(KemSdExtendMMAPFile, &file_, 200, nullptr), Fails(cause.status, cause.error));
        EXPECT_THAT(setEnd(200), Fails(cause.status, cause.error));
        EXPECT_EQ(length_, 0);
        EXPECT_EQ(error_, cause.error);
        expectUnchanged();
    }
    EXPECT_THAT(write(kFifty), Succeeds());
}

TEST_F(MappedGrowth, ReservationIsRetriedWhileInterrupted)
{
    openGrowing(0, kMapped);
    resetCalls();
    const Failing interrupted = Failing::nth(Call::fallocate, 1, EINTR);
    EXPECT_THAT(write(kFifty), Succeeds());
    EXPECT_EQ(calls(Call::fallocate), 2);
}

TEST_F(MappedGrowth, FileSystemsWithoutReservationsGrowAllTheSame)
{
    openGrowing(0, kMapped);
    for (const int error : {EOPNOTSUPP, ENOSYS}) {
        Failing unknown(Call::fallocate, error);
        EXPECT_THAT(write(kFifty), Succeeds());
    }
    EXPECT_EQ(fileLength(), 200);
}

// The system's own limit, which also sends a signal.
TEST_F(MappedGrowth, ALimitOnTheFilesSizeIsAStatus)
{
    openGrowing(0, kMapped);
    const Ended ended = inChild([this] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {4096, 4096};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 1;
        EXPECT_THAT(writeAt(8192, kFifty), Fails(SDSTS_FILE_SET_EOF, EFBIG));
        EXPECT_EQ(error_, EFBIG);
        expectUnchanged();
        EXPECT_THAT(writeAt(2000, kFifty), Succeeds());
        return HasFailure() ? 2 : 0;
    });
    EXPECT_EQ(ended.status, 0) << ended.out;
}

TEST_F(MappedGrowth, AFullDiskIsAStatusAndNeverASignal)
{
    constexpr int kNotAllowed = 77;
    const Ended ended = inChild([this] {
        if (!mountDisk(dir_.path(), 1 << 16)) return kNotAllowed;
        openGrowing(0, kMapped);
        EXPECT_THAT(write(std::string(60000, 'b')), Succeeds());
        EXPECT_THAT(write(std::string(60000, 'c')), Fails(SDSTS_DISK_FULL, ENOSPC));
        EXPECT_EQ(count_, 0);
        EXPECT_EQ(fileLength(), 60100);
        EXPECT_EQ(hdl().size, 60100);
        EXPECT_THAT(setEnd(120000), Fails(SDSTS_DISK_FULL, ENOSPC));
        EXPECT_EQ(fileLength(), 60100);
        EXPECT_THAT(write(std::string(1000, 'd')), Succeeds()) << "the refused growth has left its space";
        return HasFailure() ? 2 : 0;
    });
    if (ended.status == kNotAllowed) GTEST_SKIP() << "no file system may be mounted here";
    EXPECT_EQ(ended.signal, 0);
    EXPECT_EQ(ended.status, 0) << ended.out;
}
