// The lease guard: in failover mode it runs once, first, in every guarded call about the machine and the process, and
// in no other.

#include <gtest/gtest.h>
#include <kemsd/os.h>
#include <sys/resource.h>

#include <string>
#include <vector>

#include "support/failingcalls.h"
#include "support/guardpasses.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

class SystemInformationGuard : public testing::Test, protected GuardCounted {
protected:
    // Valid calls of everything guarded; what would change the process only seems to be done.
    std::vector<Operation> guarded()
    {
        return {
            {"PhysMemInfo", 1, [this] { return KemSdPhysMemInfoGet(nullptr, &memory_); }},
            {"AvailVirtMem", 1, [this] { return KemSdAvailVirtMemGet(nullptr, &size_); }},
            {"OSInfo", 1, [this] { return KemSdOSInfoGet(nullptr, &system_); }},
            {"Drives", 1, [this] { return KemSdDrivesGet(nullptr, &drives_); }},
            {"DriveOrdinalToName", 1, [this] { return KemSdDriveOrdinalToName(nullptr, 1, sizeof text_, text_); }},
            {"DriveInfo", 1, [this] { return KemSdDriveInfoGet(nullptr, 1, array_); }},
            {"PageSize", 1, [this] { return KemSdPageSizeGet(nullptr, &number_); }},
            {"MaxAlloc", 1, [this] { return KemSdMaxAllocGet(nullptr, &large_); }},
            {"LimitSet", 1, [] { return KemSdLimitSet(nullptr, RLIMIT_CORE, 1, 1); }},
            {"FdLimitSet", 1, [] { return KemSdFdLimitSet(nullptr, 1, 1); }},
            {"HomePath", 1, [this] { return KemSdHomePathGet(nullptr, sizeof text_, text_); }},
            {"setUserIds", 1, [] { return setUserIds(nullptr, "root"); }},
            {"Chroot", 1, [] { return KemChroot(nullptr, "/"); }},
        };
    }

    std::vector<Operation> unguarded()
    {
        return {
            {"CPUInfo", 0, [this] { return KemSdCPUInfoGet(nullptr, &processor_); }},
            {"SwapInfo", 0, [this] { return KemSdSwapInfoGet(nullptr, &swap_); }},
            {"MaxAlign", 0, [this] { return KemSdMaxAlignGet(nullptr, &number_); }},
            {"IsInfinite", 0, [this] { return KemSdIsInfinite(nullptr, 1, &answer_); }},
            {"LimitGet", 0, [this] { return KemSdLimitGet(nullptr, RLIMIT_CORE, &number_, &number_); }},
            {"FdLimitGet", 0, [this] { return KemSdFdLimitGet(nullptr, &number_, &number_); }},
            {"PathCreate", 0, [this] { return KemSdPathCreate(nullptr, 0, text_); }},
            {"WorkingSetGet", 0, [] { return KemSdProcessWorkingSetSizeGet(nullptr, {}, nullptr, nullptr); }},
            {"WorkingSetSet", 0, [] { return KemSdProcessWorkingSetSizeSet(nullptr, {}, 1, 1); }},
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

TEST_F(SystemInformationGuard, RunsOnceInEveryGuardedCallInFailoverMode) { expectPasses(guarded(), true); }

TEST_F(SystemInformationGuard, DoesNotRunOutsideFailoverMode) { expectPasses(guarded(), false); }

TEST_F(SystemInformationGuard, DoesNotRunInUnguardedCalls) { expectPasses(unguarded(), true); }

TEST_F(SystemInformationGuard, RunsBeforeTheArgumentsAreChecked)
{
    expectPasses(
        {
            {"PageSize", 1, [] { return KemSdPageSizeGet(nullptr, nullptr); }, SDSTS_INVALID_PARAM},
            {"MaxAlloc", 1, [] { return KemSdMaxAllocGet(nullptr, nullptr); }, SDSTS_INVALID_PARAM},
            {"HomePath", 1, [] { return KemSdHomePathGet(nullptr, 0, nullptr); }, SDSTS_INVALID_PARAM},
            {"setUserIds", 1, [] { return setUserIds(nullptr, nullptr); }, SDSTS_INVALID_PARAM},
            {"Chroot", 1, [] { return KemChroot(nullptr, nullptr); }, SDSTS_INVALID_PARAM},
        },
        true);
}

TEST_F(SystemInformationGuard, RunsWithEachGuardedCallOfAGatheringOne)
{
    expectPasses({{"DriveInfoArr", 3, [this] { return KemSdDriveInfoArrGet(nullptr, 2, array_); }}}, true);
    expectPasses({{"ResourcesSize", 1, [this] { return KemSdOSResourcesSizeGet(nullptr, &size_); }}}, true);
}
