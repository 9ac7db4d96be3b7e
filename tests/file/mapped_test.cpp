#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <functional>
#include <vector>

#include "mappedfile.h"
#include "support/child.h"
#include "support/openfile.h"

using namespace kemsd::test;

namespace {

using MappedFile = MappedFileTest;

constexpr const char* kDigits = "0123456789";

bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

} // namespace

// ---- The handle

TEST_F(MappedFile, ResetForgetsAllButTheGrowthStep)
{
    memset(&file_, 0x5A, sizeof file_);
    hdl().extend_size = 4096;
    KemSdMMAPHdlReset(&file_);
    EXPECT_EQ(hdl().fd, -1);
    EXPECT_EQ(hdl().extend_size, 4096u);
    EXPECT_EQ(hdl().maxsize, 0);
    EXPECT_EQ(hdl().pmemmap, nullptr);
    EXPECT_EQ(hdl().len, 0);
    EXPECT_EQ(hdl().cur, 0);
    EXPECT_EQ(hdl().size, 0);
    EXPECT_EQ(file_.iotype, 0);
    KemSdMMAPHdlReset(nullptr);
}

TEST_F(MappedFile, OpensWithTheFilesLengthAtItsStart)
{
    open(kDigits);
    EXPECT_EQ(file_.iotype, KEM_IOTYPE_MMAP);
    EXPECT_EQ(hdl().cur, 0);
    EXPECT_EQ(hdl().size, 10);
    EXPECT_EQ(hdl().len, kMapped);
    ASSERT_NE(hdl().pmemmap, nullptr);
    EXPECT_EQ(memcmp(hdl().pmemmap, kDigits, 10), 0);
}

TEST_F(MappedFile, AnyOtherTypeOpensPlainWithoutAMapping)
{
    const std::string path = dir_.write("file", kDigits);
    for (const KEM_USHORT_T iotype : {0, 100, KEM_IOTYPE_FILEIO, 65535}) {
        resetCalls();
        EXPECT_THAT(openAs(path, kMapped, iotype), Succeeds());
        EXPECT_EQ(file_.iotype, KEM_IOTYPE_FILEIO);
        EXPECT_EQ(calls(Call::mmap), 0);
        EXPECT_EQ(hdl().pmemmap, nullptr);
        EXPECT_THAT(reported(KemSdMMAPFileClose, file_), Succeeds());
    }
    hdl().fd = -1;
}

// An exclusive open adds its flag, so that with the one for creation an existing file is refused.
TEST_F(MappedFile, EachTypeOfOpenIsThatOfItsOwnCall)
{
    struct {
        KEM_USHORT_T type;
        KEM_STS_T failure;
        bool exclusive;
        bool with64;
    } const kTypes[] = {
        {0, SDSTS_FILE_OPEN, false, false}, {1, SDSTS_FILE_SOPEN, false, false}, {2, SDSTS_FILE_OPEN, false, false},
        {3, SDSTS_FILE_OPEN, false, true},  {4, SDSTS_FILE_OPEN, true, false},   {5, SDSTS_FILE_OPEN, true, true},
        {6, SDSTS_FILE_SOPEN, true, false}, {7, SDSTS_FILE_OPEN, false, false},
    };
    const std::string path = dir_.write("file", kDigits);
    for (const auto& type : kTypes) {
        SCOPED_TRACE(type.type);
        resetCalls();
        EXPECT_THAT(openAs(dir_.path("none"), kMapped, KEM_IOTYPE_MMAP, type.type), Fails(type.failure, ENOENT));
        EXPECT_EQ(calls(Call::open64), type.with64);
        if (type.exclusive) {
            EXPECT_THAT(openAs(path, kMapped, KEM_IOTYPE_MMAP, type.type, O_RDWR | O_CREAT),
                        Fails(type.failure, EEXIST));
            continue;
        }
        EXPECT_THAT(openAs(path, kMapped, KEM_IOTYPE_MMAP, type.type, O_RDWR | O_CREAT), Succeeds());
        EXPECT_THAT(reported(KemSdMMAPFileClose, file_), Succeeds());
    }
    hdl().fd = -1;
}

TEST_F(MappedFile, FailedOpenLeavesTheHandleAlone)
{
    KEM_MMAPFILEHDL_T before;
    memset(&before, 0x5A, sizeof before);
    KEM_MMAPFILEHDL_T handle = before;
    const std::string path = dir_.path("none");
    EXPECT_THAT(reported(KemSdMMAPFileOpen, path.c_str(), O_RDWR, 0, 0, kMapped, KEM_IOTYPE_MMAP, 0, &handle),
                Fails(SDSTS_FILE_OPEN, ENOENT));
    EXPECT_EQ(memcmp(&handle, &before, sizeof handle), 0);
}

TEST_F(MappedFile, OpenWithoutALengthClosesAndKeepsTheOpensStatus)
{
    const std::string path = dir_.write("file", kDigits);
    resetCalls();
    Failing broken(Call::fstat, EIO);
    const Report report = openAs(path, kMapped, KEM_IOTYPE_MMAP);
    EXPECT_EQ(report.result, SDSTS_FILE_LENGTH);
    EXPECT_EQ(report.sts, 0);
    EXPECT_EQ(report.osRetCode, 0);
    EXPECT_EQ(hdl().size, 0);
    EXPECT_EQ(hdl().fd, -1);
    EXPECT_EQ(calls(Call::close), 1);
    EXPECT_EQ(calls(Call::mmap), 0);
}

TEST_F(MappedFile, FailedMappingClosesOnceAndTheContextHoldsTheClose)
{
    const std::string path = dir_.write("file", kDigits);
    resetCalls();
    Failing full(Call::mmap, ENOMEM);
    const Report report = openAs(path, kMapped, KEM_IOTYPE_MMAP);
    EXPECT_EQ(report.result, SDSTS_MMAP_FAILED);
    EXPECT_EQ(report.sts, 0);
    EXPECT_EQ(report.osRetCode, 0);
    EXPECT_EQ(hdl().fd, -1);
    EXPECT_EQ(hdl().pmemmap, MAP_FAILED);
    EXPECT_EQ(hdl().len, kMapped);
    EXPECT_EQ(calls(Call::close), 1);
    EXPECT_EQ(strayCloses(), 0);
    EXPECT_THAT(read(4), Fails(SDSTS_FILE_READ));
}

TEST_F(MappedFile, FailedMappingReportsAFailedCloseInTheContextAlone)
{
    const std::string path = dir_.write("file", kDigits);
    Failing full(Call::mmap, ENOMEM);
    Failing broken(Call::close, EIO);
    const Report report = openAs(path, kMapped, KEM_IOTYPE_MMAP);
    EXPECT_EQ(report.result, SDSTS_MMAP_FAILED);
    EXPECT_EQ(report.sts, SDSTS_FILE_CLOSE);
    EXPECT_EQ(report.osRetCode, EIO);
}

TEST_F(MappedFile, ImpossibleLengthsAndFilesForWritingAloneCannotBeMapped)
{
    const std::string path = dir_.write("file", kDigits);
    for (const KEM_LONG64_T length : {KEM_LONG64_T{0}, KEM_LONG64_T{-1}, INT64_MIN})
        EXPECT_EQ(openAs(path, length, KEM_IOTYPE_MMAP).result, SDSTS_MMAP_FAILED) << length;
    EXPECT_EQ(openAs(path, kMapped, KEM_IOTYPE_MMAP, 0, O_WRONLY).result, SDSTS_MMAP_FAILED);
}

// ---- Reading

TEST_F(MappedFile, ReadsInSequenceUpToTheEnd)
{
    open(kDigits);
    EXPECT_THAT(read(4), Succeeds());
    EXPECT_EQ(text_, "0123");
    EXPECT_THAT(read(100), Succeeds());
    EXPECT_EQ(text_, "456789");
    EXPECT_EQ(hdl().cur, 10);
    EXPECT_THAT(read(4), Succeeds());
    EXPECT_EQ(count_, 0);
    EXPECT_EQ(hdl().cur, 10);
}

TEST_F(MappedFile, ReadsNothingBehindTheEnd)
{
    open(kDigits);
    for (const KEM_OFF_T behind : {KEM_OFF_T{11}, kMapped + 1, INT64_MAX}) {
        hdl().cur = behind;
        EXPECT_THAT(read(4), Succeeds());
        EXPECT_EQ(count_, 0);
        EXPECT_EQ(hdl().cur, behind);
    }
    for (const KEM_LONG_T offset : {10, 11, INT32_MAX}) {
        EXPECT_THAT(readAt(offset, 4), Succeeds());
        EXPECT_EQ(count_, 0);
    }
}

TEST_F(MappedFile, PositionedReadLeavesThePositionAlone)
{
    open(kDigits);
    hdl().cur = 2;
    EXPECT_THAT(readAt(7, 2), Succeeds());
    EXPECT_EQ(text_, "78");
    EXPECT_THAT(readAt(7, 9), Succeeds());
    EXPECT_EQ(text_, "789");
    EXPECT_EQ(hdl().cur, 2);
}

TEST_F(MappedFile, EveryCountIsCopiedWholeAndNoByteMore)
{
    std::string source(400, 0);
    for (size_t i = 0; i < source.size(); i++) source[i] = static_cast<char>(i * 7 + 1);
    open(source);
    for (KEM_UINT_T bytes = 0; bytes <= 200; bytes++) {
        char got[202];
        memset(got, '#', sizeof got);
        KEM_UINT_T count = 0;
        ASSERT_THAT(reported(KemSdMMAPFilePRead, file_, got + 1, 3, bytes, &count), Succeeds());
        ASSERT_EQ(count, bytes);
        ASSERT_EQ(std::string_view(got + 1, bytes), std::string_view(source).substr(3, bytes));
        ASSERT_EQ(got[0], '#');
        ASSERT_EQ(got[bytes + 1], '#') << bytes;

        ASSERT_THAT(writeAt(201, std::string(bytes < 199 ? bytes : 199, '+')), Succeeds());
        ASSERT_EQ(std::string(reinterpret_cast<char*>(hdl().pmemmap), 400),
                  source.substr(0, 201) + std::string(count_, '+') + source.substr(201 + count_))
            << bytes;
        memcpy(hdl().pmemmap, source.data(), source.size());
    }
}

// ---- Writing in place

TEST_F(MappedFile, WritesWhereItReads)
{
    open(kDigits);
    EXPECT_THAT(write("abc"), Succeeds());
    EXPECT_EQ(count_, 3);
    EXPECT_EQ(hdl().cur, 3);
    EXPECT_THAT(writeAt(8, "yz"), Succeeds());
    EXPECT_EQ(count_, 2);
    EXPECT_EQ(error_, 0);
    EXPECT_EQ(hdl().cur, 3);
    EXPECT_EQ(content(), "abc34567yz");
}

TEST_F(MappedFile, SharesItsBytesWithEveryOtherUser)
{
    open(kDigits);
    OpenFile other(dir_.path("file"));
    ASSERT_EQ(pwrite(other, "X", 1, 4), 1);
    EXPECT_THAT(readAt(3, 3), Succeeds());
    EXPECT_EQ(text_, "3X5");
}

TEST_F(MappedFile, WritingThroughAReadOnlyMappingIsTheCallersFault)
{
    const std::string path = dir_.write("file", kDigits);
    ASSERT_THAT(openAs(path, kMapped, KEM_IOTYPE_MMAP, 0, O_RDONLY), Succeeds());
    EXPECT_THAT(read(2), Succeeds());
    const Ended ended = inChild([this] {
        signal(SIGSEGV, SIG_DFL); // a sanitizer's report is not wanted
        write("x");
        return 0;
    });
    EXPECT_EQ(ended.signal, SIGSEGV);
}

// ---- Seeking

TEST_F(MappedFile, SeeksFromTheStartFromThePositionAndFromTheEnd)
{
    open(kDigits);
    struct {
        KEM_LONG_T offset;
        KEM_INT_T origin;
        KEM_LONG_T position;
    } const kSeeks[] = {{4, SEEK_SET, 4},    {3, SEEK_CUR, 7},    {-2, SEEK_CUR, 5},
                        {-1, SEEK_END, 9},   {90, SEEK_END, 100}, {-101, SEEK_CUR, -1},
                        {-11, SEEK_END, -1}, {-5, SEEK_SET, -5},  {0, SEEK_SET, 0}};
    for (const auto& s : kSeeks) {
        EXPECT_THAT(seek(s.offset, s.origin), Succeeds());
        EXPECT_EQ(position_, s.position);
        EXPECT_EQ(hdl().cur, s.position);
    }
}

TEST_F(MappedFile, SeekAnswersTheLow32BitsOfThePosition)
{
    open(kDigits);
    hdl().cur = INT64_C(0x300000005);
    EXPECT_THAT(seek(2, SEEK_CUR), Succeeds());
    EXPECT_EQ(position_, 7);
    EXPECT_EQ(hdl().cur, INT64_C(0x300000007));
}

TEST_F(MappedFile, SeekFromAnywhereElseIsInvalidAndMovesNothing)
{
    open(kDigits);
    hdl().cur = 4;
    for (const int origin : {-1, 3, 4}) EXPECT_THAT(seek(1, origin), Fails(SDSTS_INVALID_PARAM)) << origin;
    EXPECT_EQ(hdl().cur, 4);
    EXPECT_EQ(position_, -77);
}

// ---- What does not exist

TEST_F(MappedFile, NegativePositionsHoldNoBytes)
{
    open(kDigits);
    hdl().cur = -1;
    EXPECT_THAT(read(4), Fails(SDSTS_FILE_READ));
    EXPECT_EQ(count_, 0);
    EXPECT_THAT(readAt(-1, 4), Fails(SDSTS_FILE_READ));
    EXPECT_EQ(count_, 0);
    EXPECT_THAT(write("abcd"), Fails(SDSTS_FILE_WRITE));
    EXPECT_EQ(count_, 0);
    EXPECT_THAT(writeAt(INT32_MIN, "abcd"), Fails(SDSTS_FILE_WRITE));
    EXPECT_EQ(count_, 0);
    EXPECT_EQ(error_, 0);
    EXPECT_EQ(hdl().cur, -1);
    EXPECT_EQ(content(), kDigits);
}

TEST_F(MappedFile, BytesBehindTheMappingDoNotExist)
{
    constexpr KEM_LONG64_T kPage = 4096;
    open(std::string(3 * kPage, 'a'), kPage);
    KemSdMMAPFileSetExtendSize(nullptr, 0, 1 << 30, &file_);
    EXPECT_EQ(hdl().maxsize, kPage);
    hdl().cur = kPage - 2;
    EXPECT_THAT(read(9), Succeeds());
    EXPECT_EQ(count_, 2);
    EXPECT_THAT(read(9), Succeeds());
    EXPECT_EQ(count_, 0);
    EXPECT_THAT(readAt(2 * kPage, 9), Succeeds());
    EXPECT_EQ(count_, 0);
    EXPECT_THAT(write("b"), Fails(SDSTS_FILE_WRITE));
    EXPECT_THAT(writeAt(kPage - 1, "bb"), Fails(SDSTS_FILE_WRITE));
    EXPECT_THAT(writeAt(kPage - 1, "b"), Succeeds());
    EXPECT_EQ(content(), std::string(kPage - 1, 'a') + "b" + std::string(2 * kPage, 'a'));
}

// The sum is one of 64 bits: one of 32 would lie inside the file again.
TEST_F(MappedFile, OffsetAndCountBeyondFourGiBAreNotInTheMapping)
{
    open(std::string(100, 'a'));
    hdl().maxsize = INT64_MAX;
    char byte = 'b';
    KEM_UINT_T written = 77;
    EXPECT_THAT(reported(KemSdMMAPFilePWrite, &file_, &byte, 50, UINT32_MAX - 20, &written, &error_),
                Fails(SDSTS_FILE_WRITE));
    EXPECT_EQ(written, 0u);
    hdl().cur = INT64_MAX;
    EXPECT_THAT(write("b"), Fails(SDSTS_FILE_WRITE));
    EXPECT_EQ(content(), std::string(100, 'a'));
}

TEST_F(MappedFile, HandleWithoutAMappingIsRefused)
{
    open(kDigits);
    const KEM_MMAPFILEHDL_T mapped = file_;
    KEM_MMAPFILEHDL_T without[3] = {mapped, mapped, mapped};
    without[0].v.mmaphdl.fd = -1;
    without[1].v.mmaphdl.pmemmap = nullptr;
    KemSdMMAPHdlReset(&without[2]);
    for (const KEM_MMAPFILEHDL_T& handle : without) {
        file_ = handle;
        EXPECT_THAT(read(4), Fails(SDSTS_FILE_READ));
        EXPECT_EQ(count_, 0);
        EXPECT_THAT(readAt(0, 4), Fails(SDSTS_FILE_READ));
        EXPECT_THAT(write("abcd"), Fails(SDSTS_FILE_WRITE));
        EXPECT_THAT(writeAt(0, "abcd"), Fails(SDSTS_FILE_WRITE));
        EXPECT_THAT(seek(0, SEEK_SET), Fails(SDSTS_FILE_READ));
        EXPECT_THAT(reported(KemSdMMAPFileFlush, MS_SYNC, file_), Fails(SDSTS_INVALID_PARAM));
        EXPECT_THAT(setEnd(4), ReturnsOnly(SDSTS_INVALID_PARAM));
    }
    file_ = mapped;
    EXPECT_EQ(content(), kDigits);
}

TEST_F(MappedFile, MissingPointersAreInvalid)
{
    open(kDigits);
    const auto invalid = Fails(SDSTS_INVALID_PARAM);
    const KEM_PMMAPFILEHDL_T none = nullptr;
    char buffer[4];
    KEM_INT_T moved;
    KEM_UINT_T count;
    EXPECT_THAT(reported(KemSdMMAPFileOpen, "/", 0, 0, 0, kMapped, KEM_IOTYPE_MMAP, 0, none), invalid);
    EXPECT_THAT(openAs({}, kMapped, KEM_IOTYPE_MMAP, 0), Fails(SDSTS_FILE_OPEN, ENOENT));
    EXPECT_THAT(reported(KemSdMMAPFileOpen, nullptr, 0, 0, 0, kMapped, KEM_IOTYPE_MMAP, 0, &file_), invalid);
    EXPECT_THAT(reported(KemSdMMAPFileRead, none, buffer, 4, &moved), invalid);
    EXPECT_THAT(reported(KemSdMMAPFileRead, &file_, nullptr, 4, &moved), invalid);
    EXPECT_THAT(reported(KemSdMMAPFileRead, &file_, buffer, 4, nullptr), invalid);
    EXPECT_THAT(reported(KemSdMMAPFilePRead, file_, nullptr, 0, 4, &count), invalid);
    EXPECT_THAT(reported(KemSdMMAPFilePRead, file_, buffer, 0, 4, nullptr), invalid);
    EXPECT_THAT(reported(KemSdMMAPFileWrite, none, buffer, 4, &moved), invalid);
    EXPECT_THAT(reported(KemSdMMAPFileWrite, &file_, nullptr, 4, &moved), invalid);
    EXPECT_THAT(reported(KemSdMMAPFileWrite, &file_, buffer, 4, nullptr), invalid);
    for (KEM_POSRETCODE_T error : {&error_, KEM_POSRETCODE_T{}}) {
        error_ = -77;
        EXPECT_THAT(reported(KemSdMMAPFilePWrite, none, buffer, 0, 4, &count, error), invalid);
        EXPECT_THAT(reported(KemSdMMAPFilePWrite, &file_, nullptr, 0, 4, &count, error), invalid);
        EXPECT_THAT(reported(KemSdMMAPFilePWrite, &file_, buffer, 0, 4, nullptr, error), invalid);
        EXPECT_THAT(reported(KemSdMMAPFileSetEndOfFile, none, 4, &length_, error), invalid);
        EXPECT_THAT(reported(KemSdMMAPFileSetEndOfFile, &file_, 4, nullptr, error), invalid);
        EXPECT_EQ(error_, error ? 0 : -77);
    }
    EXPECT_THAT(reported(KemSdMMAPFileLSeek, none, 0, 0, &position_), invalid);
    EXPECT_THAT(reported(KemSdMMAPFileLSeek, &file_, 0, 0, nullptr), invalid);
    EXPECT_THAT(reported(KemSdExtendMMAPFile, none, 4, &error_), invalid);
    KemSdMMAPFileSetExtendSize(nullptr, 1, 1, nullptr);
    EXPECT_EQ(hdl().cur, 0);
    EXPECT_EQ(content(), kDigits);
}

TEST_F(MappedFile, WorksWithoutAContext)
{
    open(kDigits);
    char buffer[4];
    KEM_INT_T moved;
    EXPECT_EQ(KemSdMMAPFileRead(nullptr, &file_, buffer, 4, &moved), 0);
    EXPECT_EQ(KemSdMMAPFileWrite(nullptr, &file_, buffer, 4, &moved), 0);
    hdl().cur = -1;
    EXPECT_EQ(KemSdMMAPFileRead(nullptr, &file_, buffer, 4, &moved), SDSTS_FILE_READ);
    EXPECT_EQ(content(), "0123012389");
}

// ---- Flush and close

TEST_F(MappedFile, FlushWritesTheMappingBack)
{
    open(kDigits);
    write("abc");
    resetCalls();
    for (const int flag : {MS_SYNC, MS_ASYNC, MS_SYNC | MS_INVALIDATE})
        EXPECT_THAT(reported(KemSdMMAPFileFlush, flag, file_), Succeeds());
    EXPECT_EQ(calls(Call::msync), 3);
    EXPECT_THAT(reported(KemSdMMAPFileFlush, MS_SYNC | MS_ASYNC, file_), Fails(SDSTS_FILE_FLUSH, EINVAL));
    Failing broken(Call::msync, EIO);
    EXPECT_THAT(reported(KemSdMMAPFileFlush, MS_SYNC, file_), Fails(SDSTS_FILE_FLUSH, EIO));
}

TEST_F(MappedFile, CloseUnmapsAndCloses)
{
    open(kDigits);
    resetCalls();
    EXPECT_THAT(reported(KemSdMMAPFileClose, file_), Succeeds());
    EXPECT_EQ(calls(Call::munmap), 1);
    EXPECT_FALSE(isOpen(hdl().fd));
    hdl().fd = -1;
}

TEST_F(MappedFile, CloseReportsAFailedClose)
{
    open(kDigits);
    const int fd = hdl().fd;
    {
        Failing broken(Call::close, EIO);
        EXPECT_THAT(reported(KemSdMMAPFileClose, file_), Fails(SDSTS_FILE_CLOSE, EIO));
    }
    close(fd);
    hdl().fd = -1;
}

TEST_F(MappedFile, CloseAfterAFailedUnmappingStillCloses)
{
    open(kDigits);
    {
        Failing broken(Call::munmap, EINVAL);
        const Report report = reported(KemSdMMAPFileClose, file_);
        EXPECT_EQ(report.result, SDSTS_MUNMAP_FAILED);
        EXPECT_EQ(report.sts, 0);
        EXPECT_EQ(report.osRetCode, 0);
    }
    EXPECT_FALSE(isOpen(hdl().fd));
    munmap(hdl().pmemmap, kMapped);
    hdl().fd = -1;
}

TEST_F(MappedFile, CloseWithoutAMappingClosesAndIsInvalid)
{
    open(kDigits);
    munmap(hdl().pmemmap, kMapped);
    hdl().pmemmap = nullptr;
    EXPECT_THAT(reported(KemSdMMAPFileClose, file_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_FALSE(isOpen(hdl().fd));
    KemSdMMAPHdlReset(&file_);
    EXPECT_THAT(reported(KemSdMMAPFileClose, file_), Fails(SDSTS_INVALID_PARAM));
}
