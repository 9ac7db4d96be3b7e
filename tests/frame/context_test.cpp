#include <gtest/gtest.h>
#include <kemsd/kemsd.h>

#include <cstring>

#include "support/failingcalls.h"

using namespace kemsd::test;

TEST(Context, InitClearsEveryField)
{
    KEM_PSDCTX_T context = nullptr;
    ASSERT_EQ(KemSdInit(&context, 0x55), 0);
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(context->sts, 0);
    EXPECT_EQ(context->osRetCode, 0);
    EXPECT_EQ(context->bFree, 0);
    EXPECT_EQ(context->bReserved1, 0);
    EXPECT_EQ(context->bReserved2, 0);
    EXPECT_EQ(context->fdBase, 0u);
    EXPECT_EQ(KemSdTerm(context), 0);
}

TEST(Context, InitWithoutPlaceIsInvalid) { EXPECT_EQ(KemSdInit(nullptr, 0), SDSTS_INVALID_PARAM); }

TEST(Context, InitWithoutMemoryReportsNoMemoryAndLeavesNothing)
{
    const long runs = sweepAllocationFailures([](long) {
        KEM_PSDCTX_T context = nullptr;
        const KEM_STS_T sts = KemSdInit(&context, 0);
        EXPECT_EQ(sts, allocationFailed() ? SDSTS_NO_MEMORY : 0);
        if (sts == 0) KemSdTerm(context);
    });
    EXPECT_GE(runs, 1);
}

TEST(Context, TermWithoutContextIsInvalid) { EXPECT_EQ(KemSdTerm(nullptr), SDSTS_INVALID_PARAM); }

TEST(Context, LastErrorIsReportedAsTextAndNumberAndStays)
{
    KEM_SDCTX_T context{};
    context.sts = SDSTS_FILE_OPEN;
    context.osRetCode = -42;
    char text[12];
    KEM_OSRETCODE_T number = 0;
    EXPECT_EQ(KemSdLastErrGet(&context, sizeof text, text, &number), 0);
    EXPECT_STREQ(text, "-42");
    EXPECT_EQ(number, -42);
    EXPECT_EQ(context.sts, SDSTS_FILE_OPEN);
    EXPECT_EQ(context.osRetCode, -42);
}

TEST(Context, LastErrorIntoABufferOfOneWritesNothingButTheNumber)
{
    KEM_SDCTX_T context{};
    context.osRetCode = 7;
    char text[1] = {'x'};
    KEM_OSRETCODE_T number = 0;
    EXPECT_EQ(KemSdLastErrGet(&context, 1, text, &number), 0);
    EXPECT_EQ(text[0], 'x');
    EXPECT_EQ(number, 7);
}

TEST(Context, LastErrorWantsTheContextAlone)
{
    KEM_SDCTX_T context{};
    EXPECT_EQ(KemSdLastErrGet(nullptr, 0, nullptr, nullptr), SDSTS_INVALID_PARAM);
    EXPECT_EQ(KemSdLastErrGet(&context, 0, nullptr, nullptr), 0);
}

TEST(Version, TextNamesTheBuildNumber)
{
    const char* build = strrchr(pszModuleVer, 'B');
    ASSERT_NE(build, nullptr);
    EXPECT_EQ(atoi(build + 1), usBuildVer);
}
