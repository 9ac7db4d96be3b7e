// The lease guard: in failover mode it runs once, first, in every guarded call about the machine and the process, and
// in no other.

#include <gtest/gtest.h>
#include <kemsd/os.h>
#include <sys/resource.h>

#include <functional>
#include <string>
#include <vector>

#include "support/failingcalls.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

int passes;
void countPass() { ++passes; }

struct Operation {
    const char* name;
    std::function<KEM_STS_T()> call;
    KEM_STS_T result = 0;
};

class SystemInformationGuard : public testing::Test {
protected:
    SystemInformationGuard() { KemSdSetLeaseGuardAccessFunction(countPass); }
    ~SystemInformationGuard() override { KemSdSetFailoverModeFlag(FALSE); }

    static void expectPasses(const std::vector<Operation>& operations, int expected)
    {
        for (const Operation& operation : operations) {
            passes = 0;
            EXPECT_EQ(operation.call(), operation.result) << operation.name;
            EXPECT_EQ(passes, expected) << operation.name;
        }
    }

    // Valid calls of everything guarded; what would change the process only seems to be done.
    std::vector<Operation> guarded()
    {
        return {
            {"PhysMemInfo", [this] { return KemSdPhysMemInfoGet(nullptr, &memory_); }},
            {"AvailVirtMem", [this] { return KemSdAvailVirtMemGet(nullptr, &size_); }},
            {"OSInfo", [this] { return KemSdOSInfoGet(nullptr, &system_); }},
            {"Drives", [this] { return KemSdDrivesGet(nullptr, &drives_); }},
            {"DriveOrdinalToName", [this] { return KemSdDriveOrdinalToName(nullptr, 1, sizeof text_, text_); }},
            {"DriveInfo", [this] { return KemSdDriveInfoGet(nullptr, 1, array_); }},
            {"PageSize", [this] { return KemSdPageSizeGet(nullptr, &number_); }},
            {"MaxAlloc", [this] { return KemSdMaxAllocGet(nullptr, &large_); }},
            {"LimitSet", [] { return KemSdLimitSet(nullptr, RLIMIT_CORE, 1, 1); }},
            {"FdLimitSet", [] { return KemSdFdLimitSet(nullptr, 1, 1); }},
            {"HomePath", [this] { return KemSdHomePathGet(nullptr, sizeof text_, text_); }},
            {"setUserIds", [] { return setUserIds(nullptr, "root"); }},
            {"Chroot", [] { return KemChroot(nullptr, "/"); }},
        };
    }

    std::vector<Operation> unguarded()
    {
        return {
            {"CPUInfo", [this] { return KemSdCPUInfoGet(nullptr, &processor_); }},
            {"SwapInfo", [this] { return KemSdSwapInfoGet(nullptr, &swap_); }},
            {"MaxAlign", [this] { return KemSdMaxAlignGet(nullptr, &number_); }},
            {"IsInfinite", [this] { return KemSdIsInfinite(nullptr, 1, &answer_); }},
            {"LimitGet", [this] { return KemSdLimitGet(nullptr, RLIMIT_CORE, &number_, &number_); }},
            {"FdLimitGet", [this] { return KemSdFdLimitGet(nullptr, &number_, &number_); }},
            {"PathCreate", [this] { return KemSdPathCreate(nullptr, 0, text_); }},
            {"WorkingSetGet", [] { return KemSdProcessWorkingSetSizeGet(nullptr, {}, nullptr, nullptr); }},
            {"WorkingSetSet", [] { return KemSdProcessWorkingSetSizeSet(nullptr, {}, 1, 1); }},
        };
    }

    TempDir dir_;
    const std::string table_ = dir_.write("fstab", "/dev/a /none/a ext4\n/dev/b /none/b ext4\n");
    const Redirected redirected_{Call::setmntent, "/etc/fstab", table_};
    const Failing limits_{Call::setrlimit, 0, 0};
    const Failing users_{Call::setresuid, 0, 0};
    const Failing roots_{Call::chroot, 0, 0};
    KEM_PHYSMEMINFO_T memory_;
    KEM_OSINFO_T system_;
    KEM_CPUINFO_T processor_;
    KEM_SWAPINFO_T swap_;
    KEM_DRIVES_T drives_;
    KEM_DRIVEINFO_T array_[2];
    size_t size_;
    KEM_ULONG_T number_;
    KEM_ULONGLONG_T large_;
    KEM_BOOL_T answer_;
    char text_[1024];
};

} // namespace

TEST_F(SystemInformationGuard, RunsOnceInEveryGuardedCallInFailoverMode)
{
    KemSdSetFailoverModeFlag(TRUE);
    expectPasses(guarded(), 1);
}

TEST_F(SystemInformationGuard, DoesNotRunOutsideFailoverMode) { expectPasses(guarded(), 0); }

TEST_F(SystemInformationGuard, DoesNotRunInUnguardedCalls)
{
    KemSdSetFailoverModeFlag(TRUE);
    expectPasses(unguarded(), 0);
}

TEST_F(SystemInformationGuard, RunsBeforeTheArgumentsAreChecked)
{
    KemSdSetFailoverModeFlag(TRUE);
    expectPasses(
        {
            {"PageSize", [] { return KemSdPageSizeGet(nullptr, nullptr); }, SDSTS_INVALID_PARAM},
            {"MaxAlloc", [] { return KemSdMaxAllocGet(nullptr, nullptr); }, SDSTS_INVALID_PARAM},
            {"HomePath", [] { return KemSdHomePathGet(nullptr, 0, nullptr); }, SDSTS_INVALID_PARAM},
            {"setUserIds", [] { return setUserIds(nullptr, nullptr); }, SDSTS_INVALID_PARAM},
            {"Chroot", [] { return KemChroot(nullptr, nullptr); }, SDSTS_INVALID_PARAM},
        },
        1);
}

TEST_F(SystemInformationGuard, RunsWithEachGuardedCallOfAGatheringOne)
{
    KemSdSetFailoverModeFlag(TRUE);
    expectPasses({{"DriveInfoArr", [this] { return KemSdDriveInfoArrGet(nullptr, 2, array_); }}}, 3);
    expectPasses({{"ResourcesSize", [this] { return KemSdOSResourcesSizeGet(nullptr, &size_); }}}, 1);
}
