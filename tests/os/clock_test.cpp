#include <gtest/gtest.h>
#include <kemsd/os.h>
#include <sys/times.h>

#include <cstring>
#include <string>

#include "support/failingcalls.h"
#include "support/report.h"

using namespace kemsd::test;

namespace {

class Clock : public testing::Test {
protected:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1);
        tzset();
    }
};

constexpr KEM_TIME_T kMoment = 86399; // Thu Jan  1 23:59:59 1970 UTC
constexpr KEM_TIME_T kNoSuchYear = INT64_MAX;

} // namespace

TEST_F(Clock, TimeAgreesWithTheSystemClock)
{
    const time_t before = time(nullptr);
    KEM_TIME_T now = 0;
    EXPECT_THAT(reported(KemSdTime, &now), Succeeds());
    EXPECT_LE(before, now);
    EXPECT_LE(now, time(nullptr));
}

TEST_F(Clock, TimeWithoutPlaceIsInvalid)
{
    EXPECT_THAT(reported(KemSdTime, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(KemSdTime(nullptr, nullptr), SDSTS_INVALID_PARAM);
}

TEST_F(Clock, TimeReportsTheSystemsFailure)
{
    Failing time(Call::time, EFAULT);
    KEM_TIME_T now = 0;
    EXPECT_THAT(reported(KemSdTime, &now), Fails(SDSTS_TIME_FAILED, EFAULT));
}

TEST_F(Clock, ClockCountsTicks)
{
    tms unused;
    const clock_t before = times(&unused);
    clock_t ticks = 0;
    EXPECT_THAT(reported(KemSdClock, &ticks), Succeeds());
    EXPECT_LE(before, ticks);
    EXPECT_LE(ticks, times(&unused));
}

TEST_F(Clock, ClockReportsMissingPlaceAndFailure)
{
    clock_t ticks = 0;
    EXPECT_THAT(reported(KemSdClock, nullptr), Fails(SDSTS_INVALID_PARAM));
    Failing clock(Call::times, EOVERFLOW);
    EXPECT_THAT(reported(KemSdClock, &ticks), Fails(SDSTS_CLOCK_FAILED, EOVERFLOW));
}

TEST_F(Clock, ElapsedTimeIsTicksInWholeSeconds)
{
    tms unused;
    const long rate = sysconf(_SC_CLK_TCK);
    const auto before = static_cast<KEM_ULONG_T>(times(&unused) / rate);
    KEM_ULONG_T elapsed = 0;
    EXPECT_THAT(reported(KemSdTimeElapsedOS, &elapsed), Succeeds());
    const auto after = static_cast<KEM_ULONG_T>(times(&unused) / rate);
    EXPECT_LE(before, elapsed);
    EXPECT_LE(elapsed, after);
}

TEST_F(Clock, ElapsedTimeReportsMissingPlace)
{
    EXPECT_THAT(reported(KemSdTimeElapsedOS, nullptr), Fails(SDSTS_INVALID_PARAM));
}

TEST_F(Clock, ElapsedTimeIsZeroWhenTheTicksFail)
{
    Failing clock(Call::times, EOVERFLOW);
    KEM_ULONG_T elapsed = 7;
    EXPECT_THAT(reported(KemSdTimeElapsedOS, &elapsed), Fails(SDSTS_ELAPSED_FAILED, EOVERFLOW));
    EXPECT_EQ(elapsed, 0u);
}

TEST_F(Clock, ElapsedTimeIsZeroWhenTheTickRateIsZeroOrMinusOne)
{
    for (const long rate : {0L, -1L}) {
        Failing noRate(Call::sysconf, EINVAL, rate);
        KEM_ULONG_T elapsed = 7;
        EXPECT_THAT(reported(KemSdTimeElapsedOS, &elapsed), Fails(SDSTS_ELAPSED_FAILED, EINVAL)) << rate;
        EXPECT_EQ(elapsed, 0u);
    }
}

TEST_F(Clock, UtcTimestampFillsBothFields)
{
    KEM_SDCTX_T context{};
    context.sts = kUntouchedSts;
    context.osRetCode = kUntouchedOs;
    KEM_UTC_TIMESTAMP_T stamp{-1, -1};
    const auto before = static_cast<KEM_LONG_T>(time(nullptr));
    KemSdGetUtcTimestamp(&context, nullptr, &stamp);
    EXPECT_EQ(context.sts, 0);
    EXPECT_EQ(context.osRetCode, 0);
    EXPECT_LE(before - 1, stamp.lSeconds); // the coarse clock of time() may lag behind by a tick
    EXPECT_LE(0, stamp.lMicroseconds);
    EXPECT_LT(stamp.lMicroseconds, 1000000);
}

TEST_F(Clock, UtcTimestampFailureLeavesTheRecordUntouched)
{
    Failing clock(Call::gettimeofday, EFAULT);
    KEM_SDCTX_T context{};
    KEM_UTC_TIMESTAMP_T stamp{-1, -2};
    KemSdGetUtcTimestamp(&context, nullptr, &stamp);
    EXPECT_EQ(context.sts, SDSTS_TIMEOFDAY_FAILED);
    EXPECT_EQ(context.osRetCode, EFAULT);
    EXPECT_EQ(stamp.lSeconds, -1);
    EXPECT_EQ(stamp.lMicroseconds, -2);
}

TEST_F(Clock, UtcTimestampWithoutRecordIsInvalid)
{
    KEM_SDCTX_T context{};
    KemSdGetUtcTimestamp(&context, nullptr, nullptr);
    EXPECT_EQ(context.sts, SDSTS_INVALID_PARAM);
    KemSdGetUtcTimestamp(nullptr, nullptr, nullptr);
}

TEST_F(Clock, LocalTimeCopiesTheSystemsFieldsAsTheyStand)
{
    KEM_TIMERECORD_T record;
    memset(&record, 0xFF, sizeof record);
    EXPECT_THAT(reported(KemSdLocalTimeGet, kMoment, &record), Succeeds());
    EXPECT_EQ(record.TimeValue, 86399);
    EXPECT_EQ(record.Seconds, 59);
    EXPECT_EQ(record.Minutes, 59);
    EXPECT_EQ(record.Hours, 23);
    EXPECT_EQ(record.Day, 1);
    EXPECT_EQ(record.Month, 0);
    EXPECT_EQ(record.Year, 70);
    EXPECT_EQ(record.Weekday, 4);
    EXPECT_EQ(record.usFiller, 0);
}

TEST_F(Clock, LocalTimeReportsMissingRecordAndFailure)
{
    EXPECT_THAT(reported(KemSdLocalTimeGet, kMoment, nullptr), Fails(SDSTS_INVALID_PARAM));
    KEM_TIMERECORD_T record;
    memset(&record, 0xFF, sizeof record);
    EXPECT_THAT(reported(KemSdLocalTimeGet, kNoSuchYear, &record), Fails(SDSTS_LOCALTIME_FAILED, EOVERFLOW));
    EXPECT_EQ(record.TimeValue, -1); // the low 32 bits of the value given
    EXPECT_EQ(record.Year, 0);
}

TEST_F(Clock, TimeTextDropsTheNewlineAndZeroesTheRest)
{
    KEM_TIMERECORD_T record;
    ASSERT_EQ(KemSdLocalTimeGet(nullptr, kMoment, &record), 0);
    char text[40];
    memset(text, 'x', sizeof text);
    EXPECT_THAT(reported(KemSdTimeStrGet, &record, sizeof text, text), Succeeds());
    EXPECT_STREQ(text, "Thu Jan  1 23:59:59 1970");
    for (size_t i = strlen(text); i < sizeof text; ++i) EXPECT_EQ(text[i], 0) << i;
}

TEST_F(Clock, TimeTextOfTimeValueZeroIsAllZero)
{
    KEM_TIMERECORD_T record{};
    record.Day = 3;
    char text[16];
    memset(text, 'x', sizeof text);
    EXPECT_THAT(reported(KemSdTimeStrGet, &record, sizeof text, text), Succeeds());
    for (const char c : text) EXPECT_EQ(c, 0);
}

TEST_F(Clock, TimeTextInTenBytesIsItsFirstNineCharactersWithoutTrailingBlanks)
{
    KEM_TIMERECORD_T record;
    ASSERT_EQ(KemSdLocalTimeGet(nullptr, kMoment, &record), 0);
    char text[10];
    EXPECT_THAT(reported(KemSdTimeStrGet, &record, sizeof text, text), Succeeds());
    EXPECT_STREQ(text, "Thu Jan"); // "Thu Jan  " trimmed
}

TEST_F(Clock, TimeTextNeverTouchesTheFirstCharacter)
{
    KEM_TIMERECORD_T record;
    ASSERT_EQ(KemSdLocalTimeGet(nullptr, kMoment, &record), 0);
    char two[2];
    EXPECT_THAT(reported(KemSdTimeStrGet, &record, sizeof two, two), Succeeds());
    EXPECT_STREQ(two, "T");
    char one[1] = {'x'};
    EXPECT_THAT(reported(KemSdTimeStrGet, &record, sizeof one, one), Succeeds());
    EXPECT_EQ(one[0], 0);
}

TEST_F(Clock, TimeTextReportsMissingArguments)
{
    KEM_TIMERECORD_T record{};
    char text[8] = "keep";
    EXPECT_THAT(reported(KemSdTimeStrGet, nullptr, sizeof text, text), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdTimeStrGet, &record, sizeof text, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdTimeStrGet, &record, 0, text), Fails(SDSTS_INVALID_PARAM));
    EXPECT_STREQ(text, "keep");
}

TEST_F(Clock, TimeTextOfARecordThatCannotBeFormattedFails)
{
    KEM_TIMERECORD_T record{};
    record.TimeValue = 1;
    record.Day = 65535;
    char text[40];
    EXPECT_THAT(reported(KemSdTimeStrGet, &record, sizeof text, text), Fails(SDSTS_ASCTIME_FAILED, EOVERFLOW));
    EXPECT_STREQ(text, "");
}

TEST_F(Clock, CTimeKeepsTheNewline)
{
    char text[100];
    EXPECT_THAT(reported(KemSdCTime, kMoment, sizeof text, text), Succeeds());
    EXPECT_STREQ(text, "Thu Jan  1 23:59:59 1970\n");
}

TEST_F(Clock, CTimeIsCutToTheBuffer)
{
    char text[11];
    EXPECT_THAT(reported(KemSdCTime, kMoment, sizeof text, text), Succeeds());
    EXPECT_STREQ(text, "Thu Jan  1");
}

TEST_F(Clock, CTimeReportsMissingBufferAndFailure)
{
    char text[40] = "before";
    EXPECT_THAT(reported(KemSdCTime, kMoment, sizeof text, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdCTime, kMoment, 0, text), Fails(SDSTS_INVALID_PARAM));
    EXPECT_STREQ(text, "before");
    EXPECT_THAT(reported(KemSdCTime, kNoSuchYear, sizeof text, text), Fails(SDSTS_CTIME_FAILED, EINVAL));
    EXPECT_STREQ(text, "");
}

TEST_F(Clock, SleepOf2500MillisecondsIsTwoSecondsAndAHalf)
{
    Failing instead(Call::nanosleep, 0, 0); // answers at once, as if the time had passed
    EXPECT_THAT(reported(KemSdSleep, 2500), Succeeds());
    EXPECT_EQ(lastSleep().tv_sec, 2);
    EXPECT_EQ(lastSleep().tv_nsec, 500000000);
}

TEST_F(Clock, InterruptedSleepReportsTheRawResultAndIsNotResumed)
{
    resetCalls();
    Failing interrupted(Call::nanosleep, EINTR);
    EXPECT_THAT(reported(KemSdSleep, 1000), Fails(SDSTS_SLEEP_FAILED, -1));
    EXPECT_EQ(calls(Call::nanosleep), 1);
}

TEST_F(Clock, SleepOfZeroReturns) { EXPECT_THAT(reported(KemSdSleep, 0), Succeeds()); }

TEST_F(Clock, TimeFromDosIsTheFormulasValue)
{
    EXPECT_EQ(KemSdTimetFromDOS(0, 0), 2255994240);
    // 2 seconds and day 1 more than the zero value: unshifted fields, no month.
    EXPECT_EQ(KemSdTimetFromDOS(1, 1), 2255994240 + 2 + 86400);
    EXPECT_EQ(KemSdTimetFromDOS(0x7E0, 0), 2255994240 + 60 * 0x7E0);
    EXPECT_EQ(KemSdTimetFromDOS(0, 0x1E0), KemSdTimetFromDOS(0, 0)); // the month is not used
    EXPECT_GE(KemSdTimetFromDOS(0xFFFF, 0xFFFF), 0);
}

TEST_F(Clock, FileSizeAndCreationTimeComeFromTheSearchRecord)
{
    KEM_FILEFINDINFO_T info{};
    info.fileSize = 5000000000;
    info.createTime = 1234;
    KEM_ULONGLONG_T size = 0;
    KEM_TIME_T created = 0;
    EXPECT_EQ(KemSdGetFileSizeAndCreateDate(&info, &size, &created), 0);
    EXPECT_EQ(size, 5000000000u);
    EXPECT_EQ(created, 1234);
    EXPECT_EQ(KemSdGetFileSizeAndCreateDate(&info, nullptr, nullptr), 0);
    EXPECT_EQ(KemSdGetFileSizeAndCreateDate(nullptr, &size, &created), 1);
}
