// Everything here runs in children: the calls close what the test program itself holds.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <kemsd/file.h>
#include <sys/resource.h>
#include <unistd.h>

#include "support/child.h"
#include "support/failingcalls.h"
#include "support/report.h"

using namespace kemsd::test;

namespace {

constexpr int kScanned = 64;

bool isOpen(int descriptor) { return fcntl(descriptor, F_GETFD) != -1; }

// Fills every number from 3 to `last`.
void openUpTo(int last)
{
    for (int i = 3; i <= last; ++i)
        if (!isOpen(i) && dup2(0, i) == -1) _exit(100);
}

// Prints the open descriptors below kScanned.
void printOpen()
{
    for (int i = 0; i < kScanned; ++i)
        if (isOpen(i)) printf("%d ", i);
}

void printReport(const Report& report)
{
    printf("%s", testing::PrintToString(testing::Matches(ReturnsOnly(0))(report)).c_str());
}

} // namespace

TEST(CloseAll, ButNoStdLeavesZeroToThree)
{
    const Ended child = inChild([] {
        openUpTo(20);
        printReport(reported(KemSdFileCloseAllButNoStd));
        printf(": ");
        printOpen();
        return 0;
    });
    EXPECT_EQ(child.out, "true: 0 1 2 3 ") << child.err;
    EXPECT_EQ(child.status, 0);
}

TEST(CloseAll, FromClosesThatDescriptorAndAllAbove)
{
    const Ended child = inChild([] {
        openUpTo(20);
        printReport(reported(KemSdFileCloseAllFrom, 7));
        printf(": ");
        printOpen();
        return 0;
    });
    EXPECT_EQ(child.out, "true: 0 1 2 3 4 5 6 ") << child.err;
}

TEST(CloseAll, FromReachesDescriptorsBeyondGaps)
{
    const Ended child = inChild([] {
        rlimit limit;
        if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 1;
        const int far = static_cast<int>(limit.rlim_cur < 1000 ? limit.rlim_cur : 1000) - 1;
        if (dup2(0, far) == -1) return 2;
        KemSdFileCloseAllFrom(nullptr, 5);
        return isOpen(far) ? 3 : 0;
    });
    EXPECT_EQ(child.status, 0);
}

TEST(CloseAll, FromANegativeDescriptorClosesEverything)
{
    const Ended child = inChild([] {
        openUpTo(8);
        KemSdFileCloseAllFrom(nullptr, -5);
        for (int i = 0; i < kScanned; ++i)
            if (isOpen(i)) return 1;
        return 0;
    });
    EXPECT_EQ(child.status, 0);
}

TEST(CloseAll, FromAboveTheHighestDescriptorClosesNothing)
{
    const Ended child = inChild([] {
        openUpTo(8);
        KemSdFileCloseAllFrom(nullptr, 0x7FFFFFFF);
        for (int i = 0; i <= 8; ++i)
            if (!isOpen(i)) return 1;
        return 0;
    });
    EXPECT_EQ(child.status, 0);
}

TEST(CloseAll, LeavesNoDirectoryStreamBehind)
{
    const long before = liveBlocks();
    resetCalls();
    KemSdFileCloseAllFrom(nullptr, 0x7FFFFFFF);
    EXPECT_EQ(calls(Call::opendir), 1);
    EXPECT_EQ(calls(Call::close), 0);
    EXPECT_EQ(liveBlocks(), before);
}

TEST(CloseAll, DoesNothingWhenTheDirectoryCannotBeOpened)
{
    resetCalls();
    Failing noMemory(Call::opendir, ENOMEM);
    EXPECT_THAT(reported(KemSdFileCloseAllFrom, 0), ReturnsOnly(0));
    EXPECT_EQ(calls(Call::close), 0);
}
