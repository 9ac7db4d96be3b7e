#include <gtest/gtest.h>
#include <stdlib.h>

#include <climits>
#include <ostream>
#include <vector>

#include "sd/memsys/memsys.h"
#include "support/messages.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

OV_MemThreadHeap_T& record = ovMemThreadHeap;

int netContext;

Message error(int number, OV_ULONG_T used, OV_ULONG_T requested) { return {&netContext, number, 4, used, requested}; }

Message warning(OV_ULONG_T used) { return {&netContext, SDSTS_MEM_LIMIT_WARNING, 3, used, 90}; }

// A call-back and a thread context, the record at its defaults, and 1,000,000 bytes used at the last event.
class Messages : public testing::Test {
protected:
    void SetUp() override
    {
        setenv("ZANTOPATH", dir.path().c_str(), 1);
        ovMemThreadHeapInit(1, reinterpret_cast<void*>(&recordMessage), nullptr, 0);
        context.NetCtx = &netContext;
        ovMemSetThreadContext(&context);
        record.MemMessageUsedMemory = 1000000;
        messages().clear();
    }
    void TearDown() override { ovMemResetThreadContext(); }

    TempDir dir;
    OV_THDCTX_T context{};
};

using List = std::vector<Message>;

} // namespace

TEST_F(Messages, FirstErrorWithALimitIsReportedAtOnce)
{
    record.MemoryLimit = 100 << 20;
    record.malloc_count = 50;
    ovMemSendMessage(2, 4000);
    EXPECT_EQ(messages(), List{error(SDSTS_MEM_LIMIT_EXCEEDED, 1000000, 4000)});
    EXPECT_EQ(record.LastMemMessage, memmsg_error);
    EXPECT_EQ(record.next_message_malloc_count, 1050u);
}

TEST_F(Messages, FirstErrorWithoutALimitSaysThatMemoryIsExhausted)
{
    ovMemSendMessage(2, 4000);
    EXPECT_EQ(messages(), List{error(SDSTS_MEM_EXHAUSTED, 1000000, 4000)});
}

TEST_F(Messages, SecondErrorWithin1000AllocationsIsSuppressed)
{
    ovMemSendMessage(2, 1);
    record.malloc_count = 999;
    ovMemSendMessage(2, 2);
    EXPECT_EQ(messages().size(), 1u);
    EXPECT_EQ(record.LastMemMessage, memmsg_error);
    record.malloc_count = 1000;
    ovMemSendMessage(2, 3);
    EXPECT_EQ(messages(), (List{error(SDSTS_MEM_EXHAUSTED, 1000000, 1), error(SDSTS_MEM_EXHAUSTED, 1000000, 3)}));
    EXPECT_EQ(record.next_message_malloc_count, 2000u);
}

TEST_F(Messages, FirstErrorIsNotHeldBackByAnEarlierWarning)
{
    ovMemSendMessage(1, 0);
    ovMemSendMessage(2, 5);
    EXPECT_EQ(messages(), (List{warning(1000000), error(SDSTS_MEM_EXHAUSTED, 1000000, 5)}));
}

TEST_F(Messages, WarningCarriesThePercentage)
{
    record.MemoryLimit = 100 << 20;
    record.malloc_count = 7;
    ovMemSendMessage(1, 12345);
    EXPECT_EQ(messages(), List{warning(1000000)});
    EXPECT_EQ(record.next_message_malloc_count, 1007u);
}

TEST_F(Messages, WarningThatIsMadeLeavesTheLastKind)
{
    ovMemSendMessage(1, 0);
    EXPECT_EQ(record.LastMemMessage, memmsg_noerror);
}

TEST_F(Messages, WarningThatIsSuppressedIsTheLastKind)
{
    ovMemSendMessage(2, 1);
    ovMemSendMessage(1, 0);
    EXPECT_EQ(messages().size(), 1u);
    EXPECT_EQ(record.LastMemMessage, memmsg_warning);
    ovMemSendMessage(2, 2);
    EXPECT_EQ(messages().size(), 2u) << "an error after a suppressed warning is again the first";
}

TEST_F(Messages, FollowingWarningWaits1000Allocations)
{
    ovMemSendMessage(1, 0);
    record.malloc_count = 999;
    ovMemSendMessage(1, 0);
    EXPECT_EQ(messages().size(), 1u);
    record.malloc_count = 1000;
    ovMemSendMessage(1, 0);
    EXPECT_EQ(messages().size(), 2u);
}

TEST_F(Messages, EveryMessageCallClearsThePendingWarning)
{
    for (const int type : {1, 2}) {
        record.MemMessage = memmsg_warning;
        ovMemSendMessage(type, 0);
        EXPECT_EQ(record.MemMessage, memmsg_noerror) << type;
    }
    record.MemMessage = memmsg_warning;
    ovMemResetThreadContext();
    ovMemSendMessage(1, 0);
    EXPECT_EQ(record.MemMessage, memmsg_noerror);
}

TEST_F(Messages, PendingWarningIsReportedOnceAfterASuccess)
{
    record.MemMessage = memmsg_warning;
    sd::memsys::reportPendingWarning(100);
    sd::memsys::reportPendingWarning(100);
    EXPECT_EQ(messages(), List{warning(1000000)});
}

TEST_F(Messages, WithoutAThreadContextNothingIsReportedOrRemembered)
{
    ovMemResetThreadContext();
    ovMemSendMessage(2, 1);
    ovMemSendMessage(1, 1);
    EXPECT_TRUE(messages().empty());
    EXPECT_EQ(record.LastMemMessage, memmsg_noerror);
    EXPECT_EQ(record.next_message_malloc_count, 0u);
}

TEST_F(Messages, WithoutACallBackEverythingButTheCallHappens)
{
    record.fNetLocalMessage = nullptr;
    record.malloc_count = 3;
    ovMemSendMessage(2, 1);
    EXPECT_EQ(record.LastMemMessage, memmsg_error);
    EXPECT_EQ(record.next_message_malloc_count, 1003u);
    record.ErrorExit = 1;
    EXPECT_EQ(ovMemCheckMemoryMinStatus(&context), 0);
}

TEST_F(Messages, TypeThatIsNoneDoesNothing)
{
    record.MemMessage = memmsg_warning;
    ovMemSendMessage(0, 1);
    ovMemSendMessage(3, 1);
    EXPECT_TRUE(messages().empty());
    EXPECT_EQ(record.MemMessage, memmsg_warning);
}

TEST_F(Messages, SizesAreUnsigned)
{
    ovMemSendMessage(2, -1);
    EXPECT_EQ(messages(), List{error(SDSTS_MEM_EXHAUSTED, 1000000, 0xFFFFFFFFu)});
}

TEST_F(Messages, BeyondFourBillionAllocationsNothingIsSuppressed)
{
    record.malloc_count = OV_ULONGLONG_T{1} << 33;
    ovMemSendMessage(2, 1);
    ovMemSendMessage(2, 2);
    EXPECT_EQ(messages().size(), 2u);
}

// ---- ovMemSendErrorMessage

TEST_F(Messages, UnitsOf8192BytesAreReportedInBytes)
{
    record.MemoryControl = 1;
    record.MemoryLimit = 100 << 20;
    record.UsedMemory = (OV_ULONGLONG_T{3} << 32) + 500;
    record.UsedAlignedMemory = (OV_ULONGLONG_T{1} << 32) + 0xFFFFFFFF;
    record.MemMessage = memmsg_warning;
    ovMemSendErrorMessage(3);
    EXPECT_EQ(messages(), List{error(SDSTS_MEM_LIMIT_EXCEEDED, 499, 3 * 8192)});
    EXPECT_EQ(record.MemMessageUsedMemory, 499u);
    EXPECT_EQ(record.MemMessage, memmsg_noerror);
    EXPECT_EQ(record.LastMemMessage, memmsg_error);
}

TEST_F(Messages, UnitsWithoutALimitSayThatMemoryIsExhausted)
{
    record.MemoryControl = 1;
    record.UsedMemory = 0;
    record.UsedAlignedMemory = 0;
    ovMemSendErrorMessage(1);
    EXPECT_EQ(messages(), List{error(SDSTS_MEM_EXHAUSTED, 0, 8192)});
}

TEST_F(Messages, UnitsAreSuppressedLikeTheOthers)
{
    record.MemoryControl = 1;
    record.malloc_count = 10;
    ovMemSendErrorMessage(1);
    record.malloc_count = 1009;
    ovMemSendErrorMessage(1);
    EXPECT_EQ(messages().size(), 1u);
    EXPECT_EQ(record.next_message_malloc_count, 1010u);
    record.malloc_count = 1010;
    ovMemSendErrorMessage(1);
    EXPECT_EQ(messages().size(), 2u);
    EXPECT_EQ(record.next_message_malloc_count, 2010u);
}

TEST_F(Messages, UnitsAreNotReportedWhileMemoryIsNotCounted)
{
    record.MemMessage = memmsg_warning;
    ovMemSendErrorMessage(1);
    EXPECT_TRUE(messages().empty());
    EXPECT_EQ(record.MemMessage, memmsg_warning);
    EXPECT_EQ(record.MemMessageUsedMemory, 1000000u);
}

TEST_F(Messages, UnitsWithoutAThreadContextStillRecordTheUsedBytes)
{
    ovMemResetThreadContext();
    record.MemoryControl = 1;
    record.UsedMemory = 70;
    record.UsedAlignedMemory = 7;
    ovMemSendErrorMessage(1);
    EXPECT_EQ(record.MemMessageUsedMemory, 77u);
    EXPECT_TRUE(messages().empty());
}

TEST_F(Messages, ExtremeUnitsWrap)
{
    record.MemoryControl = 1;
    ovMemSendErrorMessage(LONG_MAX);
    ASSERT_EQ(messages().size(), 1u);
    EXPECT_EQ(messages()[0].second, static_cast<OV_ULONG_T>(-8192));
}

// ---- ovMemCheckMemoryMinStatus

TEST_F(Messages, AcceptedLimitIsNotReported)
{
    EXPECT_EQ(ovMemCheckMemoryMinStatus(&context), 0);
    EXPECT_EQ(ovMemCheckMemoryMinStatus(nullptr), 0);
    EXPECT_TRUE(messages().empty());
}

TEST_F(Messages, RejectedLimitIsReportedWithTheCallBacksResult)
{
    dir.write("bin/config.mem", "memorylimit 5M");
    ovMemThreadHeapInit(1, reinterpret_cast<void*>(&recordMessage), nullptr, 0);
    EXPECT_EQ(ovMemCheckMemoryMinStatus(&context), kMessageAnswer);
    EXPECT_EQ(messages(), List{error(SDSTS_MEM_LIMIT_TOO_LOW, 5 << 20, 10240)});
}

TEST_F(Messages, RejectedLimitIsAskedForWithAThreadContext)
{
    record.ErrorExit = 1;
    EXPECT_EQ(ovMemCheckMemoryMinStatus(nullptr), SDSTS_INVALID_PARAM);
    EXPECT_TRUE(messages().empty());
}
