#include <gtest/gtest.h>
#include <kemsd/os.h>
#include <sys/personality.h>
#include <sys/resource.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>

#include "support/child.h"
#include "support/failingcalls.h"
#include "support/report.h"

using namespace kemsd::test;

namespace {

constexpr KEM_ULONG_T kTooLarge = 0xFFFFFFFF;

template <class Record>
Record filledWithJunk()
{
    Record record;
    memset(&record, 0xA5, sizeof record);
    return record;
}

utsname systemNames()
{
    utsname names;
    EXPECT_EQ(uname(&names), 0);
    return names;
}

} // namespace

TEST(ProcessorCount, IsThatOfTheProcessorsOnline)
{
    EXPECT_EQ(KemSdCPUCountGet(), static_cast<KEM_ULONG_T>(sysconf(_SC_NPROCESSORS_ONLN)));
    const Failing many(Call::sysconf, 0, 384);
    EXPECT_EQ(KemSdCPUCountGet(), 384u);
}

TEST(ProcessorCount, Is1WhenTheSystemKnowsNone)
{
    const Failing none(Call::sysconf, 0, 0);
    EXPECT_EQ(KemSdCPUCountGet(), 1u);
}

TEST(ProcessorCount, Is1WhenTheSystemDoesNotSay)
{
    const Failing refused(Call::sysconf, EINVAL);
    EXPECT_EQ(KemSdCPUCountGet(), 1u);
}

TEST(Processor, OfThisPlatformHasType24AndTheNameX86_64)
{
    ASSERT_STREQ(systemNames().machine, "x86_64");
    EXPECT_EQ(KemSdCPUTypeGet(), 24u);
    auto info = filledWithJunk<KEM_CPUINFO_T>();
    EXPECT_THAT(reported(KemSdCPUInfoGet, &info), Succeeds());
    EXPECT_EQ(info.ulCPUCnt, KemSdCPUCountGet());
    EXPECT_EQ(info.ulCPUType, 24u);
    EXPECT_STREQ(info.szCPUTypeName, "X86_64");
}

TEST(Processor, OfAProcessThatSeesItsMachineAsAnI686HasType23)
{
    const Ended ended = inChild([] {
        if (personality(PER_LINUX32) == -1 || strcmp(systemNames().machine, "i686") != 0) return 99;
        KEM_CPUINFO_T info;
        KemSdCPUInfoGet(nullptr, &info);
        return strcmp(info.szCPUTypeName, "80686") == 0 ? static_cast<int>(KemSdCPUTypeGet()) : 98;
    });
    if (ended.status == 99) GTEST_SKIP() << "the process may not take the machine for a smaller one";
    EXPECT_EQ(ended.status, 23);
}

TEST(Processor, ThatTheSystemDoesNotNameIsUnknown)
{
    const Failing refused(Call::uname, EFAULT);
    EXPECT_EQ(KemSdCPUTypeGet(), 0u);
    KEM_CPUINFO_T info;
    EXPECT_THAT(reported(KemSdCPUInfoGet, &info), Succeeds());
    EXPECT_STREQ(info.szCPUTypeName, "Unknown");
}

TEST(PhysicalMemory, IsTheSystemsPagesInKiB)
{
    const auto pages = static_cast<KEM_ULONG_T>(sysconf(_SC_PHYS_PAGES));
    const auto pageKiB = static_cast<KEM_ULONG_T>(sysconf(_SC_PAGESIZE) / 1024);
    KEM_PHYSMEMINFO_T memory{};
    EXPECT_THAT(reported(KemSdPhysMemInfoGet, &memory), Succeeds());
    EXPECT_EQ(memory.ulTotal, pages * pageKiB);
    EXPECT_GT(memory.ulFree, 0u);
    EXPECT_LT(memory.ulFree, memory.ulTotal);
    EXPECT_EQ(memory.ulUsed, memory.ulTotal - memory.ulFree);
}

TEST(PhysicalMemory, Of4TiBAndMoreReadsAllBitsSet)
{
    constexpr long k4TiBSquareRoot = 1L << 21; // pages of so many bytes
    KEM_PHYSMEMINFO_T memory{};
    {
        const Failing large(Call::sysconf, 0, k4TiBSquareRoot);
        EXPECT_THAT(reported(KemSdPhysMemInfoGet, &memory), Succeeds());
        EXPECT_EQ(memory.ulTotal, kTooLarge);
        EXPECT_EQ(memory.ulFree, kTooLarge);
        EXPECT_EQ(memory.ulUsed, 0u);
    }
    const Failing less(Call::sysconf, 0, k4TiBSquareRoot - 1);
    EXPECT_THAT(reported(KemSdPhysMemInfoGet, &memory), Succeeds());
    EXPECT_EQ(memory.ulTotal, ((UINT64_C(1) << 42) - (UINT64_C(1) << 22) + 1) >> 10);
}

TEST(PhysicalMemory, ThatTheSystemDoesNotTellReads0)
{
    const Failing refused(Call::sysconf, EINVAL);
    auto memory = filledWithJunk<KEM_PHYSMEMINFO_T>();
    EXPECT_THAT(reported(KemSdPhysMemInfoGet, &memory), Succeeds());
    EXPECT_EQ(memory.ulTotal, 0u);
    EXPECT_EQ(memory.ulUsed, 0u);
    EXPECT_EQ(memory.ulFree, 0u);
}

TEST(Swap, IsTheSystemsInKiBAndItsPathStaysEmpty)
{
    struct sysinfo figures;
    ASSERT_EQ(sysinfo(&figures), 0);
    auto swap = filledWithJunk<KEM_SWAPINFO_T>();
    EXPECT_THAT(reported(KemSdSwapInfoGet, &swap), Succeeds());
    EXPECT_EQ(swap.bt32SwapStatus, 0x1u);
    EXPECT_STREQ(swap.szSwapPath, "");
    EXPECT_EQ(swap.ulTotal, figures.totalswap * figures.mem_unit / 1024);
    EXPECT_LE(swap.ulFree, swap.ulTotal);
    EXPECT_EQ(swap.ulUsed, swap.ulTotal - swap.ulFree);
}

TEST(Swap, ThatTheSystemDoesNotTellIsMarkedInTheRecordAndNoFailure)
{
    const Failing refused(Call::sysinfo, EPERM);
    auto swap = filledWithJunk<KEM_SWAPINFO_T>();
    EXPECT_THAT(reported(KemSdSwapInfoGet, &swap), Succeeds());
    EXPECT_EQ(swap.bt32SwapStatus, 0x8u);
    EXPECT_EQ(swap.ulTotal, 0u);
    EXPECT_EQ(swap.ulUsed, 0u);
    EXPECT_EQ(swap.ulFree, 0u);
}

TEST(FreeMemory, IsThatOfTheMachineAndOfItsSwapIn64Bits)
{
    const Failing large(Call::sysconf, 0, 1L << 30);
    KEM_SWAPINFO_T before{}, after{};
    size_t sizeKiB = 0;
    KemSdSwapInfoGet(nullptr, &before);
    EXPECT_THAT(reported(KemSdAvailVirtMemGet, &sizeKiB), Succeeds());
    KemSdSwapInfoGet(nullptr, &after);
    EXPECT_GE(sizeKiB, size_t{kTooLarge} + std::min(before.ulFree, after.ulFree) / 2); // others use it meanwhile
    EXPECT_LE(sizeKiB, size_t{kTooLarge} + after.ulTotal);
}

TEST(FreeMemory, IsNotKnownWhereTheSwapIsNot)
{
    const Failing refused(Call::sysinfo, EPERM);
    size_t sizeKiB = 7;
    EXPECT_THAT(reported(KemSdAvailVirtMemGet, &sizeKiB), Fails(SDSTS_OSR_NO_SWAPINFO, EPERM));
    EXPECT_EQ(sizeKiB, 0u);
}

TEST(System, HasTheNameAndTheReleaseOfUnameInSixtyCharacters)
{
    const utsname names = systemNames();
    auto info = filledWithJunk<KEM_OSINFO_T>();
    EXPECT_THAT(reported(KemSdOSInfoGet, &info), Succeeds());
    EXPECT_EQ(info.szOSName, std::string(names.sysname).substr(0, 60));
    EXPECT_EQ(info.szVersion, std::string(names.release).substr(0, 60));
}

TEST(System, ThatDoesNotTellItsNameLeavesAnEmptyRecord)
{
    const Failing refused(Call::uname, EFAULT);
    auto info = filledWithJunk<KEM_OSINFO_T>();
    EXPECT_THAT(reported(KemSdOSInfoGet, &info), Fails(SDSTS_OSR_OSINFO, EFAULT));
    EXPECT_STREQ(info.szOSName, "");
    EXPECT_STREQ(info.szVersion, "");
}

TEST(PageSize, IsTheSystems)
{
    KEM_ULONG_T bytes = 0;
    EXPECT_THAT(reported(KemSdPageSizeGet, &bytes), Succeeds());
    EXPECT_EQ(bytes, static_cast<KEM_ULONG_T>(getpagesize()));
}

TEST(PageSize, ReportsMissingPlaceAndTheSystemsFailure)
{
    EXPECT_THAT(reported(KemSdPageSizeGet, nullptr), Fails(SDSTS_INVALID_PARAM));
    const Failing refused(Call::sysconf, EINVAL);
    KEM_ULONG_T bytes = 7;
    EXPECT_THAT(reported(KemSdPageSizeGet, &bytes), Fails(SDSTS_OSR_SYSCONF, EINVAL));
    EXPECT_EQ(bytes, 7u);
}

TEST(LargestAllocation, IsTheSoftLimitOfTheDataSegmentIn64Bits)
{
    constexpr KEM_ULONGLONG_T kMoreThan32Bits = UINT64_C(5) << 32;
    const Ended ended = inChild([] {
        rlimit data;
        if (getrlimit(RLIMIT_DATA, &data) != 0 || data.rlim_max < kMoreThan32Bits) return 99;
        data.rlim_cur = kMoreThan32Bits;
        KEM_ULONGLONG_T bytes = 0;
        return setrlimit(RLIMIT_DATA, &data) == 0 && KemSdMaxAllocGet(nullptr, &bytes) == 0 && bytes == kMoreThan32Bits
                   ? 0
                   : 1;
    });
    if (ended.status == 99) GTEST_SKIP() << "the data segment may not be that large here";
    EXPECT_EQ(ended.status, 0);
}

TEST(LargestAllocation, ReportsMissingPlaceAndTheSystemsFailure)
{
    EXPECT_THAT(reported(KemSdMaxAllocGet, nullptr), Fails(SDSTS_INVALID_PARAM));
    KEM_ULONGLONG_T bytes = 7;
    EXPECT_THAT(reported(KemSdMaxAllocGet, &bytes), Succeeds());
    const Failing refused(Call::getrlimit, EPERM);
    bytes = 7;
    EXPECT_THAT(reported(KemSdMaxAllocGet, &bytes), Fails(SDSTS_OSR_SYSCONF, EPERM));
    EXPECT_EQ(bytes, 7u);
}

TEST(LargestAlignment, Is8)
{
    KEM_ULONG_T bytes = 0;
    EXPECT_THAT(reported(KemSdMaxAlignGet, &bytes), Succeeds());
    EXPECT_EQ(bytes, 8u);
    EXPECT_THAT(reported(KemSdMaxAlignGet, nullptr), Fails(SDSTS_INVALID_PARAM));
}

TEST(Infinity, IsEverythingButTheFiniteNumbers)
{
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    const struct {
        double number;
        KEM_BOOL_T infinite;
    } cases[] = {{0, FALSE},         {1e308, FALSE},       {DBL_MAX, FALSE},
                 {-DBL_MAX, FALSE},  {DBL_MIN / 4, FALSE}, {kInfinity, TRUE},
                 {-kInfinity, TRUE}, {std::nan(""), TRUE}, {-std::nan(""), TRUE}};
    for (const auto& each : cases) {
        KEM_BOOL_T infinite = 7;
        EXPECT_THAT(reported(KemSdIsInfinite, each.number, &infinite), Succeeds());
        EXPECT_EQ(infinite, each.infinite) << each.number;
    }
    EXPECT_THAT(reported(KemSdIsInfinite, 1.0, nullptr), Fails(SDSTS_INVALID_PARAM));
}
