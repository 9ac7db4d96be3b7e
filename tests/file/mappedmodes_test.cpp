// The same calls in plain mode, both modes side by side, and the lease guard in each.

#include <sys/mman.h>
#include <unistd.h>

#include <random>
#include <vector>

#include "mappedfile.h"
#include "support/guardpasses.h"

using namespace kemsd::test;

namespace {

using PlainFile = MappedFileTest;

constexpr const char* kDigits = "0123456789";

} // namespace

// ---- Plain mode

TEST_F(PlainFile, EveryCallIsThatOfTheDescriptor)
{
    openPlain(kDigits);
    EXPECT_THAT(read(4), Succeeds());
    EXPECT_EQ(text_, "0123");
    EXPECT_THAT(write("abc"), Succeeds());
    EXPECT_EQ(count_, 3);
    EXPECT_THAT(readAt(2, 3), Succeeds());
    EXPECT_EQ(text_, "23a");
    EXPECT_THAT(writeAt(12, "z"), Succeeds());
    EXPECT_EQ(error_, 0);
    EXPECT_THAT(seek(-1, SEEK_END), Succeeds());
    EXPECT_EQ(position_, 12);
    resetCalls();
    EXPECT_THAT(reported(KemSdMMAPFileFlush, MS_ASYNC, file_), Succeeds());
    EXPECT_EQ(calls(Call::fsync), 1);
    EXPECT_THAT(setEnd(5), Succeeds());
    EXPECT_EQ(length_, 5);
    EXPECT_EQ(content(), "0123a");
    EXPECT_THAT(reported(KemSdMMAPFileClose, file_), Succeeds());
    EXPECT_EQ(fcntl(file_.v.fd, F_GETFD), -1);
    file_.v.fd = -1;
}

TEST_F(PlainFile, TheGrowthPolicyIsIgnored)
{
    openPlain(kDigits);
    const KEM_MMAPFILEHDL_T before = file_;
    KemSdMMAPFileSetExtendSize(nullptr, 4096, 10000, &file_);
    EXPECT_EQ(memcmp(&file_, &before, sizeof file_), 0);
}

TEST_F(PlainFile, ReadsSeeksAndFlushesDropTheErrorNumber)
{
    openPlain(kDigits);
    const Failing calls[] = {{Call::read, EIO}, {Call::pread, EIO}, {Call::lseek, EIO}, {Call::fsync, EIO}};
    EXPECT_THAT(read(4), Fails(SDSTS_FILE_READ, 0));
    EXPECT_EQ(count_, -1);
    EXPECT_THAT(readAt(0, 4), Fails(SDSTS_FILE_READ, 0));
    EXPECT_THAT(seek(0, SEEK_SET), Fails(SDSTS_FILE_SEEK, 0));
    EXPECT_THAT(reported(KemSdMMAPFileFlush, 0, file_), Fails(SDSTS_FILE_FLUSH, 0));
    EXPECT_EQ(KemSdMMAPFileFlush(nullptr, 0, file_), SDSTS_FILE_FLUSH);
}

TEST_F(PlainFile, WritesTheEndAndTheCloseKeepTheErrorNumber)
{
    openPlain(kDigits);
    const int fd = file_.v.fd;
    {
        const Failing calls[] = {
            {Call::write, EIO}, {Call::pwrite, ENOSPC}, {Call::ftruncate, EROFS}, {Call::close, EIO}};
        EXPECT_THAT(write("a"), Fails(SDSTS_FILE_WRITE, EIO));
        EXPECT_THAT(writeAt(0, "a"), Fails(SDSTS_DISK_FULL, ENOSPC));
        EXPECT_EQ(error_, ENOSPC);
        EXPECT_THAT(setEnd(3), Fails(SDSTS_FILE_SET_EOF, EROFS));
        EXPECT_EQ(error_, EROFS);
        EXPECT_THAT(reported(KemSdMMAPFileClose, file_), Fails(SDSTS_FILE_CLOSE, EIO));
    }
    close(fd);
    file_.v.fd = -1;
}

// ---- Both modes side by side

namespace {

constexpr KEM_OFF_T kSide = 20000; // bytes that either file may have

class BothModes : public MappedFileTest {
protected:
    BothModes()
    {
        const std::string path = dir_.write("other", {});
        reported(KemSdMMAPFileOpen, path.c_str(), O_RDWR, 0, 0600, 0, KEM_IOTYPE_FILEIO, 0, &plain_);
        open({}, kSide);
        KemSdMMAPFileSetExtendSize(nullptr, 0, kSide, &file_);
    }
    ~BothModes() override { KemSdMMAPFileClose(nullptr, plain_); }

    // Does the same on either file and compares everything that came back.
    template <class Operation>
    void both(Operation operation)
    {
        const Report mapped = operation();
        const auto result =
            std::tuple(mapped.result, mapped.sts, mapped.osRetCode, text_, count_, error_, position_, length_);
        std::swap(file_, plain_);
        const Report plain = operation();
        std::swap(file_, plain_);
        EXPECT_EQ(result,
                  std::tuple(plain.result, plain.sts, plain.osRetCode, text_, count_, error_, position_, length_));
    }

    unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }
    std::string bytes() { return std::string(1 + below(300), static_cast<char>('a' + below(26))); }
    void step();

    KEM_MMAPFILEHDL_T plain_;
    std::mt19937 random_{20240611};
};

// One random operation that either file allows: none ends behind the largest size or goes before the start.
void BothModes::step()
{
    const auto place = static_cast<KEM_LONG_T>(below(kSide - 400));
    const std::string data = bytes();
    const auto count = static_cast<KEM_UINT_T>(data.size());
    switch (below(8)) {
        case 0:
            return both([&] { return read(count); });
        case 1:
            return both([&] { return readAt(place, count); });
        case 2:
            if (hdl().cur + count <= kSide) both([&] { return write(data); });
            return;
        case 3:
            return both([&] { return writeAt(place, data); });
        case 4:
            return both([&] { return seek(place, SEEK_SET); });
        case 5:
            if (hdl().cur < kSide / 2) both([&] { return seek(static_cast<KEM_LONG_T>(count), SEEK_CUR); });
            return;
        case 6:
            return both([&, back = -static_cast<KEM_LONG_T>(std::min<KEM_OFF_T>(count, hdl().size))] {
                return seek(back, SEEK_END);
            });
        default:
            return both([&] { return setEnd(place); });
    }
}

} // namespace

TEST_F(BothModes, DoTheSame)
{
    for (int i = 0; i < 3000 && !HasFailure(); i++) {
        SCOPED_TRACE(i);
        step();
        if (i % 50 == 0) {
            both([&] { return reported(KemSdMMAPFileFlush, MS_ASYNC, file_); });
            ASSERT_EQ(content(), dir_.read("other"));
        }
    }
    EXPECT_EQ(content(), dir_.read("other"));
    EXPECT_EQ(hdl().cur, lseek(plain_.v.fd, 0, SEEK_CUR));
}

// ---- The lease guard

namespace {

class MappedGuard : public MappedFileTest, protected GuardCounted {
protected:
    std::vector<Operation> guarded()
    {
        return {{"Read", 1, [this] { EXPECT_THAT(read(2), Succeeds()); }},
                {"PRead", 1, [this] { EXPECT_THAT(readAt(0, 2), Succeeds()); }},
                {"Write", 1, [this] { EXPECT_THAT(write("a"), Succeeds()); }},
                {"PWrite", 1, [this] { EXPECT_THAT(writeAt(0, "a"), Succeeds()); }},
                {"LSeek", 1, [this] { EXPECT_THAT(seek(0, 0), Succeeds()); }},
                {"Flush", 1, [this] { EXPECT_THAT(reported(KemSdMMAPFileFlush, MS_ASYNC, file_), Succeeds()); }},
                {"SetEndOfFile", 1, [this] { EXPECT_THAT(setEnd(10), Succeeds()); }}};
    }
    const Operation close_{"Close", 0, [this] {
                               EXPECT_THAT(reported(KemSdMMAPFileClose, file_), Succeeds());
                               hdl().fd = -1;
                           }};
};

} // namespace

TEST_F(MappedGuard, RunsOnceInEveryGuardedCallOfAMappedFile)
{
    expectPasses({{"Open", 1, [this] { open(kDigits); }}}, true);
    expectPasses(guarded(), true);
    expectPasses(guarded(), false);
    expectPasses({close_}, true);
}

TEST_F(MappedGuard, RunsOnceInEveryGuardedCallOfAPlainFile)
{
    expectPasses({{"Open", 1, [this] { openPlain(kDigits); }}}, true);
    expectPasses(guarded(), true);
    expectPasses(guarded(), false);
    expectPasses({close_}, true);
}

TEST_F(MappedGuard, RunsAgainWhereTheEndOfTheFileIsMoved)
{
    open(kDigits);
    KemSdMMAPFileSetExtendSize(nullptr, 0, kMapped, &file_);
    expectPasses({{"Write", 2, [this] { EXPECT_THAT(writeAt(10, "more"), Succeeds()); }},
                  {"Extend", 1, [this] { EXPECT_THAT(extend(50), Succeeds()); }}},
                 true);
}

TEST_F(MappedGuard, RunsBeforeTheArgumentsAreCheckedButOfASequentialWrite)
{
    open(kDigits);
    const auto invalid = [](KEM_STS_T sts) { EXPECT_EQ(sts, SDSTS_INVALID_PARAM); };
    expectPasses(
        {{"Read", 1, [&] { invalid(KemSdMMAPFileRead(nullptr, nullptr, nullptr, 0, nullptr)); }},
         {"PRead", 1, [&] { invalid(KemSdMMAPFilePRead(nullptr, file_, nullptr, 0, 0, nullptr)); }},
         {"Write", 0, [&] { invalid(KemSdMMAPFileWrite(nullptr, &file_, nullptr, 0, nullptr)); }},
         {"PWrite", 1, [&] { invalid(KemSdMMAPFilePWrite(nullptr, nullptr, nullptr, 0, 0, nullptr, nullptr)); }},
         {"LSeek", 1, [&] { invalid(KemSdMMAPFileLSeek(nullptr, nullptr, 0, 0, nullptr)); }}},
        true);
}
