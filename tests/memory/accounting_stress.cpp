// Threads that count, report and ask at the same time: bucket counts are exact, figures consistent, messages racy but
// clean under the thread sanitizer.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <thread>
#include <vector>

#include "sd/memsys/memsys.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

OV_MemThreadHeap_T& record = ovMemThreadHeap;

constexpr int kThreads = 4;
constexpr int kRounds = 5000;

std::atomic<int> reports{0};

int report(void* netCtx, int, int, void* first, int, void* second, int)
{
    if (netCtx && first && second) reports.fetch_add(1);
    return 0;
}

OV_THDCTX_T messageContext{&reports, nullptr, nullptr, nullptr, nullptr, nullptr, FALSE, FALSE};

void countAndReport()
{
    for (int i = 0; i < kRounds; ++i) {
        ovMemAddBlockSizeToList(200);
        ovMemAddBlockSizeToList(-5000);
        ovMemSendMessage(1 + i % 2, i);
        ovMemSendErrorMessage(1);
        if (i % 64 == 0) ovMemResetThreadContext();
        ovMemSetThreadContext(&messageContext);
    }
}

void ask()
{
    for (int i = 0; i < kRounds; ++i) {
        OV_ULONGLONG_T allocated[16], released[16], figures[6];
        EXPECT_EQ(ovMemGetUsedMemoryBlocks(1, allocated, released), 0);
        EXPECT_LE(allocated[1], OV_ULONGLONG_T{kThreads} * kRounds);
        EXPECT_EQ(ovMemGetUsedMemory(&figures[0], &figures[1], &figures[2], &figures[3], &figures[4], &figures[5]), 0);
        EXPECT_EQ(figures[1], 12u << 19);
        EXPECT_EQ(ovMemResetMaxUsedMarkMemory(), 0);
        if (i % 16 == 0) {
            EXPECT_EQ(ovMemResetUsedMarkMemoryBlocks(), 0);
        }
    }
}

} // namespace

TEST(AccountingStress, CountsAreExactWhileOthersReportAndAsk)
{
    TempDir dir;
    setenv("ZANTOPATH", dir.path().c_str(), 1);
    dir.write("bin/config.mem", "memoryblockscontrol heapsize 512K numthreadheaps 4");
    ASSERT_EQ(ovMemThreadHeapInit(1, reinterpret_cast<void*>(&report), nullptr, 0), 0);
    ovMemSetThreadContext(&messageContext);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) threads.emplace_back(countAndReport);
    threads.emplace_back(ask);
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(record.AllocBlocks[1], OV_ULONG_T{kThreads} * kRounds);
    EXPECT_EQ(record.DeAllocBlocks[4], OV_ULONG_T{kThreads} * kRounds);
    EXPECT_LE(record.AllocBlocksMark[1], record.AllocBlocks[1]);
    EXPECT_GE(reports, 1);
}
