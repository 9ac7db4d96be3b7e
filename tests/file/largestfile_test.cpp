// The largest file that a file system and the process allow, as block files report it.

#include <gtest/gtest.h>
#include <kemsd/file.h>
#include <sys/resource.h>

#include "support/failingcalls.h"
#include "support/report.h"

using namespace kemsd::test;

namespace {

constexpr double kNotStored = -77.0;

struct Largest {
    Report report;
    double bytes;
};

Largest largestFile()
{
    double bytes = kNotStored;
    const Report report = reported(KemSdDirectIOMaxFileSizeGet, "/", &bytes);
    return {report, bytes};
}

// With that soft limit for the process; nothing may be printed meanwhile.
Largest largestFileWithin(rlim_t soft)
{
    rlimit before{};
    EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit lowered{soft, before.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &lowered), 0);
    const Largest result = largestFile();
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    return result;
}

bool processIsLimited()
{
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    return limit.rlim_cur != RLIM_INFINITY;
}

} // namespace

TEST(LargestBlockFile, FollowsTheFileSystemsBits)
{
    if (processIsLimited()) GTEST_SKIP() << "the process may only write files of a limited size";
    struct Case {
        long bits;
        double bytes;
    };
    for (const Case& c : {Case{21, 1048575.0},
                          {32, 2147483647.0},
                          {44, 8796093022207.0},
                          {52, 2251799813685247.0},
                          {53, -1.0},
                          {64, -1.0},
                          {255, -1.0},
                          {85, 1048575.0}, // the shift wraps at 64
                          {0, -1.0},
                          {-2, -1.0}}) {
        const Failing planned(Call::pathconf, 0, c.bits);
        const Largest largest = largestFile();
        EXPECT_THAT(largest.report, Succeeds()) << c.bits;
        EXPECT_EQ(largest.bytes, c.bytes) << c.bits;
    }
}

TEST(LargestBlockFile, IsTheProcessesLimitWhenThatIsNotAboveTheFileSystems)
{
    struct Case {
        long bits;
        rlim_t soft;
        double bytes;
    };
    constexpr rlim_t k2GiB = UINT64_C(1) << 31;
    for (const Case& c : {Case{32, 0, 0.0},
                          {32, 8192, 8192.0},
                          {32, k2GiB - 1, 2147483647.0},
                          {32, k2GiB, 2147483647.0},
                          {44, k2GiB, 2147483648.0},
                          {64, 0, -1.0},
                          {64, 8192, -1.0}}) {
        const Failing planned(Call::pathconf, 0, c.bits);
        const Largest largest = largestFileWithin(c.soft);
        EXPECT_THAT(largest.report, Succeeds()) << c.bits << ' ' << c.soft;
        EXPECT_EQ(largest.bytes, c.bytes) << c.bits << ' ' << c.soft;
    }
}

TEST(LargestBlockFile, OnAnUnknownFileSystemIsZeroWithAFailure)
{
    const Failing unknown(Call::pathconf, ENOENT);
    for (const rlim_t soft : {rlim_t{0}, rlim_t{8192}}) {
        const Largest largest = largestFileWithin(soft);
        EXPECT_THAT(largest.report, Fails(SDSTS_DIO_MAX_FILE_SIZE, ENOENT)) << soft;
        EXPECT_EQ(largest.bytes, 0.0) << soft;
    }
    const Largest largest = largestFile();
    EXPECT_THAT(largest.report, Fails(SDSTS_DIO_MAX_FILE_SIZE, ENOENT));
    EXPECT_EQ(largest.bytes, 0.0);
}

TEST(LargestBlockFile, IsNotStoredWhenTheProcessesLimitIsUnknown)
{
    const Failing unknown(Call::getrlimit, EPERM);
    for (const bool fileSystemToo : {false, true}) {
        const Failing planned(Call::pathconf, ENOENT, fileSystemToo ? -1 : 64);
        const Largest largest = largestFile();
        EXPECT_THAT(largest.report, Fails(SDSTS_DIO_MAX_FILE_SIZE, EPERM));
        EXPECT_EQ(largest.bytes, kNotStored);
    }
}

TEST(LargestBlockFile, NeedsNameAndOutput)
{
    double bytes = kNotStored;
    EXPECT_THAT(reported(KemSdDirectIOMaxFileSizeGet, nullptr, &bytes), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdDirectIOMaxFileSizeGet, "/", nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(bytes, kNotStored);
    EXPECT_THAT(reported(KemSdDirectIOMaxFileSizeGet, "/no/such/place", &bytes),
                Fails(SDSTS_DIO_MAX_FILE_SIZE, ENOENT));
    EXPECT_EQ(bytes, 0.0);
}
