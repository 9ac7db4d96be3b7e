// The outputs and ordinals that are asserted: what operators find in the message, and the lease guard before it.

#include <gtest/gtest.h>
#include <kemsd/os.h>
#include <unistd.h>

#include <csignal>
#include <string>

namespace {

struct Assertion {
    const char* source;
    const char* function;
    const char* text; // a regular expression
    bool guarded;
    void (*call)();
};

const Assertion kAssertions[] = {
    {"sd/sdosrlnx", "KemSdCPUInfoGet", "pCPUInfo != \\(\\(void \\*\\)0\\)", false,
     [] { KemSdCPUInfoGet(nullptr, nullptr); }},
    {"sd/sdosrlnx", "KemSdPhysMemInfoGet", "pPhysMemInfo != \\(\\(void \\*\\)0\\)", true,
     [] { KemSdPhysMemInfoGet(nullptr, nullptr); }},
    {"sd/sdosrlnx", "KemSdSwapInfoGet", "pSwapInfo != \\(\\(void \\*\\)0\\)", false,
     [] { KemSdSwapInfoGet(nullptr, nullptr); }},
    {"sd/sdosrlnx", "KemSdAvailVirtMemGet", "pSizeAvailVirtMem != \\(\\(void \\*\\)0\\)", true,
     [] { KemSdAvailVirtMemGet(nullptr, nullptr); }},
    {"sd/sdosrlnx", "KemSdOSInfoGet", "pOSInfo != \\(\\(void \\*\\)0\\)", true,
     [] { KemSdOSInfoGet(nullptr, nullptr); }},
    {"sd/sdosrlnx", "KemSdDrivesGet", "pDrives != \\(\\(void \\*\\)0\\)", true,
     [] { KemSdDrivesGet(nullptr, nullptr); }},
    {"sd/sdosrlnx", "KemSdDriveOrdinalToName", "ulOrdinal >= 1 && ulOrdinal <= 32", true,
     [] {
         char name[8];
         KemSdDriveOrdinalToName(nullptr, 0, sizeof name, name);
     }},
    {"sd/sdosrlnx", "KemSdDriveOrdinalToName", "ulOrdinal >= 1 && ulOrdinal <= 32", true,
     [] {
         char name[8];
         KemSdDriveOrdinalToName(nullptr, 33, sizeof name, name);
     }},
    {"sd/sdosrlnx", "KemSdDriveOrdinalToName", "pszDriveName != \\(\\(void \\*\\)0\\) && sizeBuf != 0", true,
     [] { KemSdDriveOrdinalToName(nullptr, 1, 8, nullptr); }},
    {"sd/sdosrlnx", "KemSdDriveOrdinalToName", "pszDriveName != \\(\\(void \\*\\)0\\) && sizeBuf != 0", true,
     [] {
         char name[8];
         KemSdDriveOrdinalToName(nullptr, 1, 0, name);
     }},
    {"sd/sdosrlnx", "KemSdDriveInfoGet", "ulOrdinal >= 1 && ulOrdinal <= 32", true,
     [] {
         KEM_DRIVEINFO_T drive;
         KemSdDriveInfoGet(nullptr, 0, &drive);
     }},
    {"sd/sdosrlnx", "KemSdDriveInfoGet", "ulOrdinal >= 1 && ulOrdinal <= 32", true,
     [] {
         KEM_DRIVEINFO_T drive;
         KemSdDriveInfoGet(nullptr, 33, &drive);
     }},
    {"sd/sdosrlnx", "KemSdDriveInfoGet", "pDriveInfo != \\(\\(void \\*\\)0\\)", true,
     [] { KemSdDriveInfoGet(nullptr, 1, nullptr); }},
    {"sd/sdosrlnx", "KemSdDriveInfoArrGet", "pDriveInfoArr != \\(\\(void \\*\\)0\\)", false,
     [] { KemSdDriveInfoArrGet(nullptr, 0, nullptr); }},
    {"sd/sdcommon", "KemSdOSResourcesSizeGet", "pSizeOSResource != \\(\\(void \\*\\)0\\)", false,
     [] { KemSdOSResourcesSizeGet(nullptr, nullptr); }},
    {"sd/sdcommon", "KemSdOSResourcesGet", "pOSResources != \\(\\(void \\*\\)0\\)", false,
     [] { KemSdOSResourcesGet(nullptr, 0, nullptr); }},
};

// Reached before the assertion, it ends the process another way.
constexpr int kGuardRan = 3;
void leaveInstead() { _exit(kGuardRan); }

void callUnderGuard(void (*call)())
{
    KemSdSetLeaseGuardAccessFunction(leaveInstead);
    KemSdSetFailoverModeFlag(TRUE);
    call();
}

} // namespace

TEST(SystemInformationDeath, AssertedArgumentsEndTheProcessWithTheirText)
{
    for (const Assertion& each : kAssertions)
        EXPECT_EXIT(each.call(), testing::KilledBySignal(SIGABRT),
                    each.source + std::string(":[0-9]+: ") + each.function + ": Assertion `" + each.text + "' failed");
}

TEST(SystemInformationDeath, GuardedCallsRunTheGuardBeforeTheirAssertions)
{
    for (const Assertion& each : kAssertions)
        if (each.guarded)
            EXPECT_EXIT(callUnderGuard(each.call), testing::ExitedWithCode(kGuardRan), "") << each.function;
        else
            EXPECT_EXIT(callUnderGuard(each.call), testing::KilledBySignal(SIGABRT), each.text) << each.function;
}
