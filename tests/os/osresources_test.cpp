// The whole resource record, with a mount table of the test's own.

#include <gtest/gtest.h>
#include <kemsd/os.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "support/failingcalls.h"
#include "support/report.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

constexpr size_t kDriveBytes = sizeof(KEM_DRIVEINFO_T);
constexpr size_t kFixedBytes = sizeof(KEM_OSRESOURCES_T);

// Memory for a record, with bytes behind it that nobody may touch.
class Buffer {
public:
    explicit Buffer(size_t bytes) : bytes_(bytes), words_((bytes + kGuard) / sizeof(KEM_ULONG_T) + 1, kJunk) {}
    ~Buffer()
    {
        const auto* const end = reinterpret_cast<const unsigned char*>(words_.data() + words_.size());
        EXPECT_TRUE(std::all_of(data() + bytes_, end, [](unsigned char c) { return c == 0xA5; })) << "written past it";
    }

    const unsigned char* data() const { return reinterpret_cast<const unsigned char*>(words_.data()); }
    KEM_OSRESOURCES_T* record() { return reinterpret_cast<KEM_OSRESOURCES_T*>(words_.data()); }
    size_t bytes() const { return bytes_; }

private:
    static constexpr size_t kGuard = 512;
    static constexpr KEM_ULONG_T kJunk = 0xA5A5A5A5;
    size_t bytes_;
    std::vector<KEM_ULONG_T> words_;
};

class Resources : public testing::Test {
protected:
    Resources()
    {
        setenv("TZ", "UTC", 1);
        tzset();
    }

    void drives(int count)
    {
        std::string text;
        for (int i = 1; i <= count; ++i) text += "/dev/d /none/" + std::to_string(i) + " ext3 rw\n";
        dir_.write("fstab", text);
    }

private:
    TempDir dir_;
    const Redirected redirected_{Call::setmntent, "/etc/fstab", dir_.path("fstab")};
};

} // namespace

TEST_F(Resources, NeedRoomForOneDriveAndForEachFurtherOne)
{
    for (const int count : {0, 1, 2, 5, 32, 40}) {
        drives(count);
        size_t bytes = 0;
        EXPECT_THAT(reported(KemSdOSResourcesSizeGet, &bytes), Succeeds());
        EXPECT_EQ(bytes, kFixedBytes + (std::max(1, std::min(count, 32)) - 1) * kDriveBytes) << count;
        Buffer buffer(bytes);
        EXPECT_THAT(reported(KemSdOSResourcesGet, bytes, buffer.record()), Succeeds()) << count;
    }
}

TEST_F(Resources, AreWhatTheSingleCallsSay)
{
    drives(3);
    const ClockAt moment(86399, 0); // Thu Jan  1 23:59:59 1970
    Buffer buffer(kFixedBytes + 2 * kDriveBytes);
    ASSERT_THAT(reported(KemSdOSResourcesGet, buffer.bytes(), buffer.record()), Succeeds());
    const KEM_OSRESOURCES_T& found = *buffer.record();

    EXPECT_EQ(found.timeRecCurSys.TimeValue, 86399);
    EXPECT_EQ(found.timeRecCurSys.Hours, 23);
    EXPECT_EQ(found.timeRecCurSys.Weekday, 4);
    KEM_ULONG_T elapsed = 0;
    KemSdTimeElapsedOS(nullptr, &elapsed);
    EXPECT_LE(found.timeElapsedOS, elapsed);
    EXPECT_GT(found.timeElapsedOS, 0u);
    KEM_OSINFO_T system;
    KemSdOSInfoGet(nullptr, &system);
    EXPECT_EQ(memcmp(&found.osInfo, &system, sizeof system), 0);
    EXPECT_EQ(found.cpuInfo.ulCPUCnt, KemSdCPUCountGet());
    EXPECT_STREQ(found.cpuInfo.szCPUTypeName, "X86_64");
    KEM_PHYSMEMINFO_T memory;
    KemSdPhysMemInfoGet(nullptr, &memory);
    EXPECT_EQ(found.physMemInfo.ulTotal, memory.ulTotal);
    EXPECT_EQ(found.swapInfo.bt32SwapStatus, 0x1u);
    EXPECT_EQ(found.drives.ulDriveCnt, 3u);
    EXPECT_EQ(found.drives.bt32DriveMap, 7u);
    for (KEM_ULONG_T i = 0; i < 3; ++i) {
        EXPECT_EQ(found.driveInfoArr[i].ulOrdinal, i + 1);
        EXPECT_EQ(found.driveInfoArr[i].szDriveName, "/none/" + std::to_string(i + 1));
    }
}

TEST_F(Resources, DoNotFitABufferSmallerThanTheFixedRecord)
{
    drives(0);
    for (const size_t bytes : {size_t{0}, size_t{1}, offsetof(KEM_OSRESOURCES_T, drives) + 2, kFixedBytes - 1}) {
        Buffer buffer(bytes);
        EXPECT_THAT(reported(KemSdOSResourcesGet, bytes, buffer.record()), Fails(SDSTS_OSR_BUFFER_SMALL)) << bytes;
        for (size_t i = 0; i < bytes; ++i) ASSERT_EQ(buffer.data()[i], 0) << i;
    }
}

TEST_F(Resources, ThatDoNotFitStillTellHowManyDrivesThereAre)
{
    drives(3);
    Buffer buffer(kFixedBytes + 2 * kDriveBytes - 1);
    EXPECT_THAT(reported(KemSdOSResourcesGet, buffer.bytes(), buffer.record()), Fails(SDSTS_OSR_BUFFER_SMALL));
    EXPECT_EQ(buffer.record()->drives.ulDriveCnt, 3u);
    EXPECT_STREQ(buffer.record()->osInfo.szOSName, "");
}

TEST_F(Resources, EndAtTheFirstFailure)
{
    drives(2);
    const struct {
        Call call;
        long which; // of the calls
        int error;
        KEM_STS_T sts;
    } failures[] = {
        {Call::getcwd, 1, ERANGE, SDSTS_OSR_DRIVES},       {Call::setmntent, 1, EACCES, SDSTS_OSR_DRIVES},
        {Call::time, 1, EFAULT, SDSTS_TIME_FAILED},        {Call::localtime_r, 1, EOVERFLOW, SDSTS_LOCALTIME_FAILED},
        {Call::times, 1, EOVERFLOW, SDSTS_ELAPSED_FAILED}, {Call::uname, 1, EFAULT, SDSTS_OSR_OSINFO},
        {Call::setmntent, 2, EMFILE, SDSTS_OSR_DRIVES},    {Call::setmntent, 4, EMFILE, SDSTS_OSR_DRIVE_INFO},
    };
    for (const auto& each : failures) {
        const Failing failing = Failing::nth(each.call, each.which, each.error);
        Buffer buffer(kFixedBytes + kDriveBytes);
        EXPECT_THAT(reported(KemSdOSResourcesGet, buffer.bytes(), buffer.record()), Fails(each.sts, each.error));
        EXPECT_EQ(failing.hits(), 1) << each.sts;
        EXPECT_EQ(buffer.record()->driveInfoArr[1].szDriveName[0], 0) << each.sts;
    }
}

TEST_F(Resources, AreThereWithoutFiguresOfTheSwap)
{
    drives(1);
    const Failing refused(Call::sysinfo, EPERM);
    Buffer buffer(kFixedBytes);
    EXPECT_THAT(reported(KemSdOSResourcesGet, buffer.bytes(), buffer.record()), Succeeds());
    EXPECT_EQ(buffer.record()->swapInfo.bt32SwapStatus, 0x8u);
    EXPECT_STREQ(buffer.record()->driveInfoArr[0].szDriveName, "/none/1");
}

TEST_F(Resources, SizeIsNotKnownWithoutAMountTable)
{
    size_t bytes = 7;
    EXPECT_THAT(reported(KemSdOSResourcesSizeGet, &bytes), Fails(SDSTS_OSR_DRIVES, ENOENT));
    EXPECT_EQ(bytes, 7u);
}
