// Limits, home and paths, the process's memory, its user and its root.

#include <gtest/gtest.h>
#include <kemsd/os.h>
#include <pwd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "sd/sdosrlnx/procstatus.h"
#include "support/child.h"
#include "support/failingcalls.h"
#include "support/report.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

constexpr int kJunk = 7777;  // an error number that no call leaves
constexpr int kRefused = 99; // a child's word for a privilege that is missing

rlimit systemLimit(int type)
{
    rlimit limit;
    EXPECT_EQ(getrlimit(static_cast<__rlimit_resource_t>(type), &limit), 0);
    return limit;
}

} // namespace

// ---- Limits

TEST(Limit, IsTheSystemsWithTheErrorNumberAsItIs)
{
    const rlimit expected = systemLimit(RLIMIT_NOFILE);
    KEM_ULONG_T hard = 0, soft = 0;
    errno = kJunk;
    EXPECT_THAT(reported(KemSdLimitGet, RLIMIT_NOFILE, &hard, &soft), SucceedsWith(kJunk));
    EXPECT_EQ(hard, static_cast<KEM_ULONG_T>(expected.rlim_max));
    EXPECT_EQ(soft, static_cast<KEM_ULONG_T>(expected.rlim_cur));
}

TEST(Limit, IsCutToItsLow32Bits)
{
    const Ended ended = inChild([] {
        rlimit file = systemLimit(RLIMIT_FSIZE);
        file.rlim_cur = (UINT64_C(3) << 32) + 4096;
        if (setrlimit(RLIMIT_FSIZE, &file) != 0) return kRefused;
        KEM_ULONG_T hard = 0, soft = 0;
        return KemSdLimitGet(nullptr, RLIMIT_FSIZE, &hard, &soft) == 0 && soft == 4096 ? 0 : 1;
    });
    if (ended.status == kRefused) GTEST_SKIP() << "files may not be that large here";
    EXPECT_EQ(ended.status, 0);
}

TEST(Limit, ThatDoesNotExistIsTheRawFailureAndReads0)
{
    KEM_ULONG_T hard = 7, soft = 7;
    EXPECT_THAT(reported(KemSdLimitGet, -1, &hard, &soft), Fails(-1, EINVAL));
    EXPECT_EQ(hard, 0u);
    EXPECT_EQ(soft, 0u);
}

TEST(Limit, NeedsBothPlaces)
{
    KEM_ULONG_T limit = 7;
    EXPECT_THAT(reported(KemSdLimitGet, RLIMIT_NOFILE, nullptr, &limit), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdLimitGet, RLIMIT_NOFILE, &limit, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdFdLimitGet, nullptr, &limit), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdFdLimitGet, &limit, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(limit, 7u);
}

TEST(Limit, OfAllBitsSetIsAFiniteOne)
{
    const Ended ended = inChild([] {
        if (KemSdLimitSet(nullptr, RLIMIT_FSIZE, 0xFFFFFFFF, 65536) != 0) return kRefused;
        const rlimit file = systemLimit(RLIMIT_FSIZE);
        return file.rlim_max == 0xFFFFFFFF && file.rlim_cur == 65536 ? 0 : 1;
    });
    if (ended.status == kRefused) GTEST_SKIP() << "files may not be that large here";
    EXPECT_EQ(ended.status, 0);
}

TEST(Limit, ThatCannotBeSetIsMinus1WithTheErrorNumber)
{
    EXPECT_THAT(reported(KemSdLimitSet, RLIMIT_CORE, 1, 2), Fails(-1, EINVAL)); // the soft one above the hard one
    EXPECT_THAT(reported(KemSdLimitSet, -1, 2, 1), Fails(-1, EINVAL));
    const Failing refused(Call::setrlimit, EPERM);
    EXPECT_THAT(reported(KemSdLimitSet, RLIMIT_CORE, 1, 1), Fails(-1, EPERM));
}

TEST(Limit, ThatWasSetLeavesTheErrorNumberAsItIs)
{
    const Failing instead(Call::setrlimit, kJunk, 0); // answers as if it had been done
    EXPECT_THAT(reported(KemSdLimitSet, RLIMIT_CORE, 1, 1), SucceedsWith(kJunk));
}

TEST(OpenFileLimit, IsTheSystemsWithErrorNumber0)
{
    const rlimit expected = systemLimit(RLIMIT_NOFILE);
    KEM_ULONG_T hard = 0, soft = 0;
    errno = kJunk;
    EXPECT_THAT(reported(KemSdFdLimitGet, &hard, &soft), Succeeds());
    EXPECT_EQ(hard, static_cast<KEM_ULONG_T>(expected.rlim_max));
    EXPECT_EQ(soft, static_cast<KEM_ULONG_T>(expected.rlim_cur));
    const Failing refused(Call::getrlimit, EPERM);
    EXPECT_THAT(reported(KemSdFdLimitGet, &hard, &soft), Fails(-1, 0));
    EXPECT_EQ(hard, 0u);
    EXPECT_EQ(soft, 0u);
}

TEST(OpenFileLimit, IsSetWithErrorNumber0)
{
    EXPECT_THAT(reported(KemSdFdLimitSet, 1, 2), Fails(-1, 0));
    const Ended ended = inChild([] {
        errno = kJunk;
        EXPECT_THAT(reported(KemSdFdLimitSet, 100, 50), Succeeds());
        const rlimit files = systemLimit(RLIMIT_NOFILE);
        return files.rlim_max == 100 && files.rlim_cur == 50 ? 0 : 1;
    });
    EXPECT_EQ(ended.status, 0);
}

TEST(WorkingSet, HasNoLimitsHere)
{
    KEM_SIZE_T minimum = 7, maximum = 8;
    const KEM_SESSID_T session{};
    EXPECT_THAT(reported(KemSdProcessWorkingSetSizeGet, session, &minimum, &maximum), Succeeds());
    EXPECT_EQ(minimum, 7u);
    EXPECT_EQ(maximum, 8u);
    EXPECT_THAT(reported(KemSdProcessWorkingSetSizeGet, session, nullptr, nullptr), Succeeds());
    EXPECT_THAT(reported(KemSdProcessWorkingSetSizeSet, session, 1, 2), Succeeds());
}

// ---- Home and paths

TEST(HomePath, IsTheValueOfHomeWhateverTheBufferSize)
{
    setenv("HOME", "/home/somebody", 1);
    char path[32] = "";
    EXPECT_THAT(reported(KemSdHomePathGet, 1, path), Succeeds());
    EXPECT_STREQ(path, "/home/somebody");
}

TEST(HomePath, IsTheCurrentDirectoryWhenHomeIsNotSet)
{
    unsetenv("HOME");
    char path[8] = "before";
    EXPECT_THAT(reported(KemSdHomePathGet, sizeof path, path), Succeeds());
    EXPECT_STREQ(path, ".");
}

TEST(HomePath, IsNotWrittenToABufferOfSize0AndNeedsOne)
{
    char path[8] = "before";
    EXPECT_THAT(reported(KemSdHomePathGet, 0, path), Succeeds());
    EXPECT_STREQ(path, "before");
    EXPECT_THAT(reported(KemSdHomePathGet, 8, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdHomePathGet, 0, nullptr), Fails(SDSTS_INVALID_PARAM));
}

namespace {

KEM_STS_T pathOf4(KEM_PSDCTX_T ctx, KEM_USHORT_T count, char* path, const char* a, const char* b, const char* c,
                  const char* d)
{
    return KemSdPathCreate(ctx, count, path, a, b, c, d);
}

} // namespace

TEST(PathCreate, PutsThePiecesOneBehindTheOther)
{
    char path[32] = "before";
    EXPECT_THAT(reported(pathOf4, 4, path, "/a/", "b", ".", "txt"), Succeeds());
    EXPECT_STREQ(path, "/a/b.txt");
    EXPECT_THAT(reported(pathOf4, 2, path, "/a/", "b", ".", "txt"), Succeeds());
    EXPECT_STREQ(path, "/a/b");
}

TEST(PathCreate, LeavesNullAndEmptyPiecesOut)
{
    char path[32] = "before";
    EXPECT_THAT(reported(pathOf4, 4, path, nullptr, "/a", "", "/b"), Succeeds());
    EXPECT_STREQ(path, "/a/b");
    EXPECT_THAT(reported(pathOf4, 0, path, "/a", "/b", "/c", "/d"), Succeeds());
    EXPECT_STREQ(path, "");
    EXPECT_THAT(reported(pathOf4, 1, nullptr, "/a", "/b", "/c", "/d"), Fails(SDSTS_INVALID_PARAM));
}

// ---- Memory

namespace {

struct Key {
    const char* name;
    int key;
};
constexpr Key kKeys[] = {
    {"Name", 0},    {"Gid", 1},      {"VmHWM", 5},      {"VmLib", 6},         {"PPid", 10},    {"Pid", 11},
    {"VmPeak", 15}, {"VmLck", 16},   {"SleepAVG", 20},  {"Uid", 21},          {"VmSize", 25},  {"VmExe", 26},
    {"ShdPnd", 30}, {"VmRSS", 31},   {"VmStk", 35},     {"Groups", 36},       {"State", 40},   {"Mems_allowed", 41},
    {"Tgid", 45},   {"Threads", 46}, {"StaStk", 50},    {"SigQ", 51},         {"SigPnd", 55},  {"FDSize", 56},
    {"VmPTE", 60},  {"Brk", 61},     {"TracerPid", 65}, {"VmData", 66},       {"SigCgt", 70},  {"CapPrm", 75},
    {"SigIgn", 80}, {"CapEff", 85},  {"StaBrk", 90},    {"Cpus_allowed", 95}, {"CapInh", 100}, {"SigBlk", 105},
};

class ProcessMemory : public testing::Test {
protected:
    // Reads a status file of this text.
    void readStatus(const std::string& text, KemProcSysInfo& info)
    {
        const Redirected redirected(Call::fopen, "/proc/" + std::to_string(getpid()) + "/status",
                                    dir_.write("status", text));
        KemSdProcSysInfoGet(&info);
    }

private:
    TempDir dir_;
};

constexpr KemProcSysInfo kBefore{1, 2, 3, 4, 5, 6, 7};

} // namespace

TEST(StatusKey, OfEveryLineIsItsMember)
{
    for (const Key& each : kKeys) {
        EXPECT_EQ(sd::procstatus::keyOf((each.name + std::string(":\t1 kB\n")).c_str()), each.key) << each.name;
        EXPECT_EQ(sd::procstatus::keyOf((each.name + std::string(":")).c_str()), each.key) << each.name;
    }
}

TEST(StatusKey, OfANearMissIsInvalid)
{
    for (const char* line : {"VmPin:\t0 kB",
                             "Cpus_allowed_list:\t0-1",
                             "Mems_allowed_list:\t0",
                             "CapBnd:\t0",
                             "Vm:\t1",
                             "VmSiz:\t1",
                             "VmSizes:\t1",
                             "vmsize:\t1",
                             "VMSIZE:\t1",
                             " VmSize:\t1",
                             "VmSize :\t1",
                             "VmSize",
                             "VmSize\t1",
                             "VmSize 1: 2",
                             "Nam:",
                             "Pi",
                             "N",
                             ":",
                             "",
                             "\n",
                             "VmPeakVmSize:",
                             "NSpid:\t1",
                             "RssAnon:\t1 kB"})
        EXPECT_EQ(sd::procstatus::keyOf(line), PROC_STATUS_INVALID) << line;
}

TEST_F(ProcessMemory, FiguresComeFromTheirLines)
{
    KemProcSysInfo info = kBefore;
    readStatus(
        "Name:\tVmSize: 9\nVmPeak:\t  11 kB\nVmSize:\t 12 kB\nVmLck:\t 99 kB\nVmPin:\t 99 kB\nVmHWM:\t13 kB\n"
        "VmRSS:\t 99 kB\nRssAnon:\t 99 kB\nVmData:\t 14 kB\nVmStk:\t\t15 kB\nVmExe: 16\nVmLib:\t17 kB",
        info);
    EXPECT_EQ(info.vmPeak, 11u);
    EXPECT_EQ(info.vmSize, 12u);
    EXPECT_EQ(info.vmHWM, 13u);
    EXPECT_EQ(info.vmData, 14u);
    EXPECT_EQ(info.vmStk, 15u);
    EXPECT_EQ(info.vmExe, 16u);
    EXPECT_EQ(info.vmLib, 17u);
}

TEST_F(ProcessMemory, FiguresThatAreNoNumbersAre0AndThoseWithoutALineStay)
{
    KemProcSysInfo info = kBefore;
    readStatus("VmPeak:\tmany kB\nVmSize:\nVmHWM:13 kB\nVmStk:\t-1 kB\nVmExe:\t4294967297 kB\n\nV\n", info);
    EXPECT_EQ(info.vmPeak, 0u);
    EXPECT_EQ(info.vmSize, 0u);
    EXPECT_EQ(info.vmHWM, 0u); // the number is part of the first word
    EXPECT_EQ(info.vmStk, 0xFFFFFFFFu);
    EXPECT_EQ(info.vmExe, 1u);
    EXPECT_EQ(info.vmData, kBefore.vmData);
    EXPECT_EQ(info.vmLib, kBefore.vmLib);
}

TEST_F(ProcessMemory, LinesAreReadInPiecesOf254Characters)
{
    KemProcSysInfo info = kBefore;
    readStatus("Groups:" + std::string(247, ' ') + "VmSize: 8\nVmPeak: 9\n", info);
    EXPECT_EQ(info.vmSize, 8u);
    EXPECT_EQ(info.vmPeak, 9u);
    readStatus("Groups:" + std::string(248, ' ') + "VmSize: 10\n", info);
    EXPECT_EQ(info.vmSize, 8u);
}

TEST_F(ProcessMemory, FiguresStayWithoutAStatusFileAndWithAnEmptyOne)
{
    KemProcSysInfo info = kBefore;
    readStatus("", info);
    EXPECT_EQ(memcmp(&info, &kBefore, sizeof info), 0);
    const Failing refused(Call::fopen, EACCES);
    KemSdProcSysInfoGet(&info);
    EXPECT_EQ(memcmp(&info, &kBefore, sizeof info), 0);
    KemSdProcSysInfoGet(nullptr);
}

TEST_F(ProcessMemory, IsThisProcesss)
{
    KemProcSysInfo info{};
    KemSdProcSysInfoGet(&info);
    EXPECT_GT(info.vmSize, 0u);
    EXPECT_GE(info.vmPeak, info.vmSize);
    EXPECT_GT(info.vmHWM, 0u);
    EXPECT_GT(info.vmStk, 0u);
    EXPECT_GT(info.vmData, 0u);
    EXPECT_GT(info.vmExe, 0u);
    EXPECT_GT(info.vmLib, 0u);
}

// ---- User and root

TEST(UserIds, OfAUserWhoDoesNotExistAreMinus1WithTheErrorNumber)
{
    EXPECT_THAT(reported(setUserIds, nullptr), Fails(SDSTS_INVALID_PARAM));
    const Report report = reported(setUserIds, "no-such-user-of-kemsd");
    EXPECT_EQ(report.result, -1);
    EXPECT_EQ(report.sts, -1);
    EXPECT_NE(report.osRetCode, kUntouchedOs);
    const Failing unreadable(Call::getpwnam, EIO);
    EXPECT_THAT(reported(setUserIds, "root"), Fails(-1, EIO));
}

TEST(UserIds, ThatCannotBeSetAreMinus1ButTheContextSays0)
{
    const Failing refused(Call::setresuid, EPERM);
    const Report report = reported(setUserIds, "root");
    EXPECT_EQ(report.result, -1);
    EXPECT_EQ(report.sts, 0);
    EXPECT_EQ(report.osRetCode, 0);
}

TEST(UserIds, BecomeTheNamedUsersAllThree)
{
    const passwd* const other = getpwnam("nobody");
    if (getuid() != 0 || !other) GTEST_SKIP() << "only root can become nobody";
    const Ended ended = inChild([id = other->pw_uid] {
        EXPECT_THAT(reported(setUserIds, "nobody"), Succeeds());
        uid_t real, effective, saved;
        getresuid(&real, &effective, &saved);
        return real == id && effective == id && saved == id && !testing::Test::HasFailure() ? 0 : 1;
    });
    EXPECT_EQ(ended.status, 0) << ended.out;
}

TEST(UserIds, OfTheCallingUserNeedNoPrivilege)
{
    const passwd* const self = getpwuid(getuid());
    if (!self || getuid() != geteuid()) GTEST_SKIP() << "the process runs as nobody by name";
    const std::string name = self->pw_name;
    const Ended ended = inChild([&] { return setUserIds(nullptr, name.c_str()) == 0 ? 0 : 1; });
    EXPECT_EQ(ended.status, 0);
}

TEST(Root, BecomesTheDirectory)
{
    TempDir dir;
    dir.write("inside", "");
    const Ended ended = inChild([&] {
        errno = 0;
        const Report report = reported(KemChroot, dir.path().c_str());
        if (report.osRetCode == EPERM) return kRefused;
        return report.result == 0 && report.sts == 0 && report.osRetCode == 0 && access("/inside", F_OK) == 0 ? 0 : 1;
    });
    if (ended.status == kRefused) GTEST_SKIP() << "the process may not change its root";
    EXPECT_EQ(ended.status, 0);
}

TEST(Root, ThatCannotBeChangedIsMinus1WithTheErrorNumber)
{
    EXPECT_THAT(reported(KemChroot, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemChroot, "/no/such/directory/of/kemsd"), Fails(-1, ENOENT));
    const Failing refused(Call::chroot, EPERM);
    EXPECT_THAT(reported(KemChroot, "/"), Fails(-1, EPERM));
}

TEST(Root, ThatWasChangedLeavesTheErrorNumberAsItIs)
{
    const Failing instead(Call::chroot, kJunk, 0); // answers as if it had been done
    EXPECT_THAT(reported(KemChroot, "/"), SucceedsWith(kJunk));
}
