// Drives, read from a table of the test's own in the place of /etc/fstab.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <kemsd/os.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "support/failingcalls.h"
#include "support/report.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

constexpr int kJunk = 7777; // an error number that no call leaves

class Drives : public testing::Test {
protected:
    ~Drives() override { EXPECT_EQ(chdir(before_.c_str()), 0); }

    void table(const std::string& text) { dir_.write("fstab", text); }
    void goTo(const std::string& name)
    {
        std::filesystem::create_directories(dir_.path(name));
        ASSERT_EQ(chdir(dir_.path(name).c_str()), 0);
    }
    std::string path(const std::string& name) const { return dir_.path(name); }

    static KEM_DRIVES_T drives()
    {
        KEM_DRIVES_T found;
        memset(&found, 0xA5, sizeof found);
        EXPECT_THAT(reported(KemSdDrivesGet, &found), Succeeds());
        return found;
    }

    static KEM_DRIVEINFO_T drive(KEM_ULONG_T ordinal)
    {
        KEM_DRIVEINFO_T found;
        memset(&found, 0xA5, sizeof found);
        EXPECT_THAT(reported(KemSdDriveInfoGet, ordinal, &found), Succeeds());
        EXPECT_EQ(found.ulOrdinal, ordinal);
        return found;
    }

private:
    TempDir dir_;
    const Redirected redirected_{Call::setmntent, "/etc/fstab", dir_.path("fstab")};
    const std::string before_ = std::filesystem::current_path();
};

std::string entries(int count)
{
    std::string text;
    for (int i = 1; i <= count; ++i)
        text += "/dev/d" + std::to_string(i) + " /none/" + std::to_string(i) + " ext3 rw\n";
    return text;
}

bool isAllZero(const char* from, const char* to)
{
    return std::all_of(from, to, [](char c) { return c == 0; });
}

} // namespace

// ---- Counting

TEST_F(Drives, OfATableWith40EntriesAre32)
{
    table(entries(40));
    EXPECT_EQ(drives().ulDriveCnt, 32u);
    EXPECT_EQ(drives().bt32DriveMap, 0xFFFFFFFFu);
    char name[40];
    EXPECT_THAT(reported(KemSdDriveOrdinalToName, 32, sizeof name, name), Succeeds());
    EXPECT_STREQ(name, "/none/32");
    EXPECT_STREQ(drive(32).szDriveName, "/none/32");
}

TEST_F(Drives, AreTheEntriesWithoutCommentsAndBlankLinesAndWithEveryKindOfFileSystem)
{
    table("# comment\n\n/dev/a /none/a ext4\n   \n/dev/b none swap sw\nproc /none/p proc\n");
    EXPECT_EQ(drives().ulDriveCnt, 3u);
    EXPECT_EQ(drives().bt32DriveMap, 7u);
    EXPECT_STREQ(drive(2).szDriveName, "none");
}

TEST_F(Drives, TheCurrentOneIsTheLastEntryThatBeginsTheCurrentDirectory)
{
    goTo("home/x");
    table("/dev/a / ext4\n/dev/b /var ext4\n/dev/c " + path("home") + " ext4\n/dev/d " + path("home/y") + " ext4\n");
    EXPECT_EQ(drives().ulDriveCur, 3u);
    table("/dev/c " + path("home") + " ext4\n/dev/a / ext4\n");
    EXPECT_EQ(drives().ulDriveCur, 2u); // in the order of the file, whatever is longer
}

TEST_F(Drives, TheCurrentOneIsFoundByPlainText)
{
    goTo("homeless");
    table("/dev/a / ext4\n/dev/b " + path("home") + " ext4\n");
    EXPECT_EQ(drives().ulDriveCur, 2u);
}

TEST_F(Drives, TheCurrentOneIsTheFirstWhenNoEntryBeginsTheCurrentDirectory)
{
    table(entries(3));
    EXPECT_EQ(drives().ulDriveCur, 1u);
}

TEST_F(Drives, OfAnEmptyTableAreNone)
{
    table("");
    EXPECT_EQ(drives().ulDriveCnt, 0u);
    EXPECT_EQ(drives().bt32DriveMap, 0u);
    EXPECT_EQ(drives().ulDriveCur, 1u);
}

TEST_F(Drives, AreNotKnownWithoutATableOrACurrentDirectory)
{
    KEM_DRIVES_T found;
    memset(&found, 0xA5, sizeof found);
    EXPECT_THAT(reported(KemSdDrivesGet, &found), Fails(SDSTS_OSR_DRIVES, ENOENT));
    EXPECT_EQ(found.ulDriveCnt, 0u);
    EXPECT_EQ(found.ulDriveCur, 0u);
    table(entries(1));
    const Failing tooLong(Call::getcwd, ERANGE);
    EXPECT_THAT(reported(KemSdDrivesGet, &found), Fails(SDSTS_OSR_DRIVES, ERANGE));
    EXPECT_EQ(found.ulDriveCnt, 0u);
}

TEST_F(Drives, LeaveNoDescriptorOpen)
{
    table(entries(2));
    const int before = open("/dev/null", O_RDONLY);
    close(before);
    drives();
    drive(2);
    KEM_DRIVEINFO_T unused;
    EXPECT_NE(KemSdDriveInfoGet(nullptr, 3, &unused), 0);
    const int after = open("/dev/null", O_RDONLY);
    close(after);
    EXPECT_EQ(after, before);
}

// ---- Names

TEST_F(Drives, NameIsCutToTheBufferAndTheRestOfItCleared)
{
    table("/dev/a /none/with\\040blank ext4\n");
    char name[24];
    memset(name, 'x', sizeof name);
    EXPECT_THAT(reported(KemSdDriveOrdinalToName, 1, sizeof name, name), Succeeds());
    EXPECT_STREQ(name, "/none/with blank");
    EXPECT_TRUE(isAllZero(name + strlen(name), name + sizeof name));
    EXPECT_THAT(reported(KemSdDriveOrdinalToName, 1, 6, name), Succeeds());
    EXPECT_STREQ(name, "/none");
    EXPECT_THAT(reported(KemSdDriveOrdinalToName, 1, 1, name), Succeeds());
    EXPECT_STREQ(name, "");
}

TEST_F(Drives, NameOfADriveThatIsNotThereIsReportedWithTheErrorNumberAsItIs)
{
    char name[8];
    memset(name, 'x', sizeof name);
    EXPECT_THAT(reported(KemSdDriveOrdinalToName, 1, sizeof name, name), Fails(SDSTS_OSR_DRIVE_NAME, ENOENT));
    EXPECT_TRUE(isAllZero(name, name + sizeof name));
    table(entries(2));
    errno = kJunk;
    EXPECT_THAT(reported(KemSdDriveOrdinalToName, 3, sizeof name, name), Fails(SDSTS_OSR_DRIVE_NAME, kJunk));
}

// ---- One drive

TEST_F(Drives, TypeFollowsTheFileSystemAndThenThePlace)
{
    const struct {
        const char* entry;
        KEM_ULONG_T type;
        const char* name;
    } cases[] = {
        {"a:/x /mnt/floppy nfs", 4, "Remote"},
        {"a:/x /none nfs4", 0, "Unknown"},
        {"/dev/a none swap", 3, "RAM"},
        {"proc /none proc", 3, "RAM"},
        {"devpts /none devpts", 3, "RAM"},
        {"tmpfs /mnt/cdrom tmpfs", 3, "RAM"},
        {"/dev/a /mnt/floppy ext2", 1, "Removable"},
        {"/dev/a /mnt/cdrom iso9660", 1, "Removable"},
        {"/dev/a /mnt/cdrom2 iso9660", 0, "Unknown"},
        {"/dev/a /none ext2", 2, "Fixed"},
        {"/dev/a /none ext3", 2, "Fixed"},
        {"/dev/a /none ext4", 0, "Unknown"},
        {"/dev/a /none xfs", 0, "Unknown"},
    };
    for (const auto& each : cases) {
        table(each.entry + std::string(" rw 0 0\n"));
        const KEM_DRIVEINFO_T found = drive(1);
        EXPECT_EQ(found.driveType.ulDriveType, each.type) << each.entry;
        EXPECT_STREQ(found.driveType.szDriveTypeName, each.name) << each.entry;
    }
}

TEST_F(Drives, RecordHoldsTheDirectoryTwiceAndTheFileSystem)
{
    table("/dev/a / ext4\n/dev/b /none/b xfs\n");
    const KEM_DRIVEINFO_T found = drive(2);
    EXPECT_STREQ(found.szDriveName, "/none/b");
    EXPECT_STREQ(found.szVolumeLabel, "/none/b");
    EXPECT_STREQ(found.szFileSystemType, "xfs");
}

TEST_F(Drives, FileSystemThatTheEntryDoesNotNameIsUnknown)
{
    table("/dev/a /none\n");
    EXPECT_STREQ(drive(1).szFileSystemType, "Unknown");
    EXPECT_EQ(drive(1).driveType.ulDriveType, 0u);
}

TEST_F(Drives, LongTextsAreCutToTheirFields)
{
    const std::string directory = "/" + std::string(1200, 'd');
    const std::string system(100, 's');
    table("/dev/a " + directory + " " + system + "\n");
    const KEM_DRIVEINFO_T found = drive(1);
    EXPECT_EQ(found.szDriveName, directory.substr(0, 1028));
    EXPECT_EQ(found.szVolumeLabel, directory.substr(0, 1028));
    EXPECT_EQ(found.szFileSystemType, system.substr(0, 60));
}

TEST_F(Drives, SizesAreThoseOfTheFileSystemInKiB)
{
    constexpr int kTries = 1000; // others write to the same file system
    table("/dev/a " + path("") + " ext4\n");
    for (int i = 0; i < kTries; ++i) {
        struct statfs before, after;
        ASSERT_EQ(statfs(path("").c_str(), &before), 0);
        const KEM_DRIVEINFO_T found = drive(1);
        ASSERT_EQ(statfs(path("").c_str(), &after), 0);
        if (before.f_bfree != after.f_bfree || before.f_bavail != after.f_bavail) continue;
        const auto kiB = [&](uint64_t blocks) {
            return static_cast<KEM_ULONG_T>(std::min<uint64_t>(blocks * before.f_bsize >> 10, 0xFFFFFFFF));
        };
        EXPECT_EQ(found.ulTotal, kiB(before.f_blocks));
        EXPECT_EQ(found.ulFree, kiB(before.f_bavail));
        EXPECT_EQ(found.ulUsed, found.ulTotal - kiB(before.f_bfree));
        return;
    }
    GTEST_SKIP() << "the file system of the temporary files never rests";
}

TEST_F(Drives, SizesOfAFileSystemThatDoesNotAnswerAre0)
{
    table("/dev/a / ext3\n");
    const Failing refused(Call::statfs, EACCES);
    const KEM_DRIVEINFO_T found = drive(1);
    EXPECT_EQ(found.ulTotal, 0u);
    EXPECT_EQ(found.ulUsed, 0u);
    EXPECT_EQ(found.ulFree, 0u);
    EXPECT_STREQ(found.driveType.szDriveTypeName, "Fixed");
}

TEST_F(Drives, RecordOfADriveThatIsNotThereHoldsItsOrdinalAlone)
{
    KEM_DRIVEINFO_T found;
    EXPECT_THAT(reported(KemSdDriveInfoGet, 1, &found), Fails(SDSTS_OSR_DRIVE_INFO, ENOENT));
    table(entries(2));
    memset(&found, 0xA5, sizeof found);
    errno = kJunk;
    EXPECT_THAT(reported(KemSdDriveInfoGet, 3, &found), Fails(SDSTS_OSR_DRIVE_INFO, kJunk));
    EXPECT_EQ(found.ulOrdinal, 3u);
    KEM_DRIVEINFO_T empty{};
    empty.ulOrdinal = 3;
    EXPECT_EQ(memcmp(&found, &empty, sizeof found), 0);
}

TEST(DriveType, HasAText)
{
    const char* const texts[] = {"Unknown", "Removable", "Fixed", "RAM", "Remote"};
    for (KEM_ULONG_T i = 0; i < 5; ++i) EXPECT_STREQ(KemSdDriveTypeAsString(i), texts[i]);
}

// ---- All drives

TEST_F(Drives, ArrayIsFilledUpToItsLengthOrTheNumberOfDrives)
{
    table(entries(3));
    std::vector<KEM_DRIVEINFO_T> array(5);
    for (const KEM_ULONG_T room : {0u, 2u, 5u}) {
        for (KEM_DRIVEINFO_T& each : array) each.ulOrdinal = 99;
        EXPECT_THAT(reported(KemSdDriveInfoArrGet, room, array.data()), Succeeds());
        const KEM_ULONG_T filled = std::min(room, 3u);
        for (KEM_ULONG_T i = 0; i < 5; ++i) EXPECT_EQ(array[i].ulOrdinal, i < filled ? i + 1 : 99) << room;
    }
    EXPECT_STREQ(array[2].szDriveName, "/none/3");
}

TEST_F(Drives, ArrayEndsAtTheFirstFailure)
{
    KEM_DRIVEINFO_T array[3]{};
    EXPECT_THAT(reported(KemSdDriveInfoArrGet, 3, array), Fails(SDSTS_OSR_DRIVES, ENOENT));
    table("/dev/a / ext4\n/dev/b / ext4\n/dev/c / ext4\n");
    const Interrupting shrinking(Call::setmntent, 3, When::Before, [this] { table("/dev/a / ext4\n"); });
    errno = kJunk;
    EXPECT_THAT(reported(KemSdDriveInfoArrGet, 3, array), Fails(SDSTS_OSR_DRIVE_INFO, kJunk));
    EXPECT_TRUE(shrinking.happened());
    EXPECT_STREQ(array[0].szDriveName, "/");
    EXPECT_STREQ(array[1].szDriveName, "");
    EXPECT_EQ(array[2].ulOrdinal, 0u);
}
