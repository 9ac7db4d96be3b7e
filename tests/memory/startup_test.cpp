#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "sd/memsys/memsys.h"
#include "support/child.h"
#include "support/failingcalls.h"
#include "support/tempdir.h"

using namespace kemsd::test;
using sd::memsys::heapsHaveStood;
using sd::memsys::heapsOn;

namespace {

OV_MemThreadHeap_T& record = ovMemThreadHeap;

// What start-up asked for, and what of it is refused (counted from 1; 0 refuses nothing).
struct LockAsked {
    std::string file;
    long line;
    bool operator==(const LockAsked&) const = default;
};
std::vector<LockAsked> locksAsked;
int regionsAsked;
int refusedRegion;
int crookedRegion;
long refusedLockLine; // from this line of sd/memsys on the k-th ...
int refusedHeapLock;  // ... or the k-th lock of a heap
int heapLocksAsked;
bool openWhileBuilding;
long lastRegionSize;

} // namespace

extern "C" {
void* __real_ovMemExtLockMalloc(long size);
KEM_PSPINLOCK_T __real_KemSdSpinlockCreate(KEM_PSDCTX_T pSdCtx, const char* createFile, long createLine);

void* __wrap_ovMemExtLockMalloc(long size)
{
    lastRegionSize = size;
    openWhileBuilding |= heapsOn();
    ++regionsAsked;
    if (regionsAsked == refusedRegion) return nullptr;
    void* const region = __real_ovMemExtLockMalloc(size);
    return regionsAsked == crookedRegion ? static_cast<char*>(region) + 4 : region;
}

KEM_PSPINLOCK_T __wrap_KemSdSpinlockCreate(KEM_PSDCTX_T pSdCtx, const char* createFile, long createLine)
{
    openWhileBuilding |= heapsOn();
    const bool heaps = std::string(createFile) == "sd/memheap";
    if (!heaps) locksAsked.push_back({createFile, createLine});
    if (heaps ? ++heapLocksAsked == refusedHeapLock : createLine == refusedLockLine) return nullptr;
    return __real_KemSdSpinlockCreate(pSdCtx, createFile, createLine);
}
}

namespace {

class Startup : public testing::Test {
protected:
    void SetUp() override { setenv("ZANTOPATH", dir.path().c_str(), 1); }

    // Starts with this text as the configuration file, anew also where an earlier test of the process has started.
    int start(const std::string& text)
    {
        dir.write("bin/config.mem", text);
        return startWithoutFile(0);
    }
    int startWithoutFile(int assume)
    {
        if (record.NumThreadHeaps != 0) ovMemThreadHeapInit(0, nullptr, nullptr, 0);
        locksAsked.clear();
        regionsAsked = heapLocksAsked = 0;
        openWhileBuilding = false;
        return ovMemThreadHeapInit(1, nullptr, application, assume);
    }

    // What a start with this text prints.
    std::string printed(const std::string& text)
    {
        return inChild([&] { return start(text); }).out;
    }

    // Runs a start in a process of its own, whose regions go with it; the check answers 0 or a number of its own.
    template <class Check>
    void expectInChild(Check check)
    {
        const Ended ended = inChild(check);
        EXPECT_EQ(ended.signal, 0) << ended.err;
        EXPECT_EQ(ended.status, 0) << ended.err;
    }

    TempDir dir;
    char application[4] = "app";
};

int callBack(void*, int, int, void*, int, void*, int) { return 0; }

int poolLength()
{
    const OV_MemHeap_T* const head = record.MemHeapPool.MemHeap;
    if (!head) return 0;
    int length = 0;
    const OV_MemHeap_T* heap = head;
    do {
        EXPECT_EQ(heap->next->prev, heap);
        EXPECT_EQ(heap->ThreadHeapId, 4095);
        ++length;
        heap = heap->next;
    } while (heap != head && length < 1000);
    return length;
}

constexpr const char* kUndefined = "\nMemory configuration:\n\n   Memory limit                 : Undefined\n";
constexpr int kSlots = 16;
constexpr int kPooled = 8;

} // namespace

// ---- Steps

TEST_F(Startup, FileWithAHeapSizeAlone)
{
    ASSERT_EQ(start("heapsize 1M\n"), 0);
    EXPECT_EQ(record.NumThreadHeaps, 16);
    EXPECT_EQ(record.HeapSize, 1048576u);
    EXPECT_EQ(record.MemoryLimit, 0u);
    EXPECT_EQ(record.MemoryControl, 1);
    EXPECT_EQ(regionsAsked, kSlots + kPooled);
    EXPECT_EQ(lastRegionSize, 1048576);
    for (int i = 0; i < OV_MEM_SLOTS; ++i) {
        EXPECT_EQ(record.Heap[i], record.HeapCopy[i]);
        ASSERT_EQ(record.Heap[i] != nullptr, i < kSlots);
        if (i < kSlots) {
            EXPECT_EQ(record.Heap[i]->ThreadHeapId, i);
        }
    }
    EXPECT_EQ(poolLength(), kPooled);
    EXPECT_EQ(record.NumHeaps, 64 - kSlots - kPooled);
    EXPECT_EQ(record.MaxNumHeaps, 64);
    EXPECT_EQ(record.UsedMemory, 24u * 1048576);
}

TEST_F(Startup, LocksCarryTheirNumbersAndSourceLines)
{
    ASSERT_EQ(start("memoryblockscontrol"), 0);
    const std::vector<LockAsked> expected = {
        {"sd/memsys", 2182}, {"sd/memsys", 2263}, {"sd/memsys", 2267}, {"sd/memsys", 2282}};
    EXPECT_EQ(locksAsked, expected);
    EXPECT_EQ(heapLocksAsked, kSlots + kPooled);
    EXPECT_EQ(record.SpinLock.slkno, 6001u);
    EXPECT_EQ(record.MemHeapPool.SpinLock.slkno, 6002u);
    EXPECT_EQ(record.MemShortHeapPool.SpinLock.slkno, 6003u);
    EXPECT_EQ(record.SpinLockBlocks.slkno, 6004u);
    EXPECT_EQ(record.Heap[0]->HeapHeader.SpinLock.slkno, 6005u);
    for (const OV_SPINLOCK_T* lock : {&record.SpinLock, &record.MemHeapPool.SpinLock, &record.MemShortHeapPool.SpinLock,
                                      &record.SpinLockBlocks, &record.Heap[0]->HeapHeader.SpinLock})
        EXPECT_NE(lock->pSpinlock, nullptr);
    EXPECT_NE(record.pSdCtx, nullptr);
}

TEST_F(Startup, LocksOfWhatIsOffAreNotMade)
{
    ASSERT_EQ(start("shortmemoryoff"), 0);
    const std::vector<LockAsked> expected = {{"sd/memsys", 2182}, {"sd/memsys", 2263}};
    EXPECT_EQ(locksAsked, expected);
}

TEST_F(Startup, CallBackIsStoredInEveryCase)
{
    ovMemThreadHeapInit(0, reinterpret_cast<void*>(&callBack), nullptr, 0);
    EXPECT_EQ(record.fNetLocalMessage, &callBack);
    EXPECT_EQ(record.NumThreadHeaps, 0);
    EXPECT_FALSE(heapsOn());
    startWithoutFile(0);
    EXPECT_EQ(record.fNetLocalMessage, nullptr);
}

TEST_F(Startup, DefaultsOfEveryField)
{
    record.tctxp = reinterpret_cast<OV_THDCTX_T*>(&record);
    record.LastMemMessage = memmsg_error;
    record.MemMessage = memmsg_error;
    record.malloc_count = 5;
    record.UsedMemory = 5;
    record.MaxUsedMemory = 5;
    record.MaxTotalUsedMarkMemory = 5;
    record.next_message_malloc_count = 5;
    record.AllocBlocks[3] = 5;
    record.DeAllocBlocksMark[15] = 5;
    record.NumShortNumHeapsInUsage = 5;
    record.UsedAlignedMemory = 77;
    record.ErrorExit = 1;
    ASSERT_EQ(startWithoutFile(0), 0);
    EXPECT_EQ(record.HeapSize, 2097152u);
    EXPECT_EQ(record.ShortHeapSize, 327680u);
    EXPECT_EQ(record.MaxAllocBlock, 65536u);
    EXPECT_EQ(record.NumHeaps, 64);
    EXPECT_EQ(record.NumThreadHeaps, 0);
    EXPECT_EQ(record.MemoryLimit, 0u);
    EXPECT_EQ(record.MaxShortMemoryPoolSize, 16);
    EXPECT_EQ(record.LimitShortHeapsForRemove, 4);
    EXPECT_EQ(record.NumShortNumHeapsInUsage, 0);
    EXPECT_EQ(record.MemoryControl, 0);
    EXPECT_EQ(record.MemoryBlocksControl, 0);
    EXPECT_EQ(record.MallocInitValue, 0xFF);
    EXPECT_EQ(record.FreeInitValue, 0xAB);
    EXPECT_EQ(record.tctxp, nullptr);
    EXPECT_EQ(record.LastMemMessage, memmsg_noerror);
    EXPECT_EQ(record.MemMessage, memmsg_noerror);
    EXPECT_EQ(record.malloc_count + record.UsedMemory + record.MaxUsedMemory + record.MaxTotalUsedMarkMemory, 0u);
    EXPECT_EQ(record.next_message_malloc_count, 0u);
    EXPECT_EQ(record.AllocBlocks[3] + record.DeAllocBlocksMark[15], 0u);
    EXPECT_EQ(record.ErrorExit, 0);
    EXPECT_EQ(record.UsedAlignedMemory, 77u) << "start-up does not touch it";
}

TEST_F(Startup, NoFileLeavesTheHeapsOff)
{
    EXPECT_EQ(startWithoutFile(0), 0);
    EXPECT_EQ(record.NumThreadHeaps, 0);
    EXPECT_EQ(record.ShortMemoryOn, 0);
    EXPECT_EQ(record.MemoryControl, 0);
    EXPECT_EQ(regionsAsked, 0);
    EXPECT_TRUE(locksAsked.empty());
    EXPECT_FALSE(heapsOn());
    EXPECT_FALSE(heapsHaveStood);
}

TEST_F(Startup, AssumedFileStartsWithTheDefaults)
{
    EXPECT_EQ(startWithoutFile(1), 0);
    EXPECT_EQ(record.NumThreadHeaps, 16);
    EXPECT_EQ(lastRegionSize, 2097152);
    EXPECT_EQ(record.ShortMemoryOn, 1);
}

TEST_F(Startup, FileMaySwitchTheHeapsOff)
{
    EXPECT_EQ(start("numthreadheaps 0"), 0);
    EXPECT_EQ(record.ShortMemoryOn, 0);
    EXPECT_EQ(record.MemoryControl, 1) << "memory is still counted";
    EXPECT_EQ(regionsAsked, 0);
    EXPECT_FALSE(heapsOn());
}

TEST_F(Startup, LimitBelow10MiBIsRejected)
{
    EXPECT_EQ(start("memorylimit 5M"), 0);
    EXPECT_EQ(record.NumThreadHeaps, 0);
    EXPECT_EQ(record.ErrorExit, 1);
    EXPECT_EQ(record.MemoryControl, 0);
    EXPECT_EQ(record.ShortMemoryOn, 0);
    EXPECT_EQ(record.MemoryLimit, 5u * 1048576) << "reported later";
    EXPECT_EQ(regionsAsked, 0);
    EXPECT_FALSE(heapsOn());
}

TEST_F(Startup, RejectedLimitIsPrintedWithTheLowestOne)
{
    EXPECT_EQ(printed("memorylimit 5M"), "Memory Limit is 5242880, Default is  10485760");
    EXPECT_EQ(printed("memorylimit 10485759"), "Memory Limit is 10485759, Default is  10485760");
}

TEST_F(Startup, LimitOf10MiBIsAccepted)
{
    dir.write("bin/config.mem", "memorylimit 10485760 numthreadheaps 4 heapsize 512K");
    ASSERT_EQ(startWithoutFile(0), 0);
    EXPECT_EQ(record.ErrorExit, 0);
    EXPECT_TRUE(heapsOn());
}

TEST_F(Startup, LimitOf20000GIsOneTebibyte)
{
    ASSERT_EQ(start("memorylimit 20000G"), 0);
    EXPECT_EQ(record.MemoryLimit, OV_ULONGLONG_T{1} << 40);
}

TEST_F(Startup, LimitTooSmallForTheHeapsIsNoMemory)
{
    EXPECT_EQ(start("memorylimit 20M"), SDSTS_NO_MEMORY) << "24 heaps of 2 MiB do not fit";
    EXPECT_EQ(record.NumThreadHeaps, 16);
    EXPECT_LE(record.UsedMemory, record.MemoryLimit);
}

// ---- Clamps

TEST_F(Startup, SmallSettingsAreRaised)
{
    ASSERT_EQ(start("heapsize 100K numthreadheaps 2 shortheapsize 1K"), 0);
    EXPECT_EQ(record.HeapSize, 524288u);
    EXPECT_EQ(record.NumThreadHeaps, 4);
    EXPECT_EQ(record.ShortHeapSize, 327680u);
}

TEST_F(Startup, LargeSettingsAreLowered)
{
    ASSERT_EQ(start("maxblock 1M numthreadheaps 65 shortheapsize 17M heapsize 512K"), 0);
    EXPECT_EQ(record.MaxAllocBlock, 262144u);
    EXPECT_EQ(record.NumThreadHeaps, 64);
    EXPECT_EQ(record.ShortHeapSize, 16777216u);
    EXPECT_NE(record.Heap[63], nullptr);
}

TEST_F(Startup, HeapSizeEndsAt16MiB)
{
    ASSERT_EQ(start("heapsize 20M numthreadheaps 4"), 0);
    EXPECT_EQ(record.HeapSize, 16777216u);
}

TEST_F(Startup, NegativeNumberOfThreadHeapsBecomesFour)
{
    ASSERT_EQ(start("numthreadheaps -1 heapsize 512K"), 0);
    EXPECT_EQ(record.NumThreadHeaps, 4);
}

TEST_F(Startup, ShortHeapSizeIsLeftAloneWhenShortHeapsAreOff)
{
    ASSERT_EQ(start("shortmemoryoff shortheapsize 1K heapsize 512K"), 0);
    EXPECT_EQ(record.ShortHeapSize, 1024u);
}

TEST_F(Startup, BudgetBelowTheBuiltHeapsEndsAtThem)
{
    ASSERT_EQ(start("numheaps 20 numthreadheaps 16 heapsize 512K"), 0);
    EXPECT_EQ(record.NumHeaps, 0);
    EXPECT_EQ(record.MaxNumHeaps, 24);
}

TEST_F(Startup, BudgetOfTheBuiltHeapsLeavesNone)
{
    ASSERT_EQ(start("numheaps 24 numthreadheaps 16 heapsize 512K"), 0);
    EXPECT_EQ(record.NumHeaps, 0);
    EXPECT_EQ(record.MaxNumHeaps, 24);
}

TEST_F(Startup, MostNegativeBudgetIsNone)
{
    ASSERT_EQ(start("numheaps 2147483648 heapsize 512K"), 0);
    EXPECT_EQ(record.NumHeaps, 0);
    EXPECT_EQ(record.MaxNumHeaps, 24);
}

TEST_F(Startup, MaxBlockOfZeroBuildsNoHeaps)
{
    ASSERT_EQ(start("maxblock 0"), 0);
    EXPECT_EQ(regionsAsked, 0);
    EXPECT_EQ(record.Heap[0], nullptr);
    EXPECT_EQ(record.MemHeapPool.MemHeap, nullptr);
    EXPECT_EQ(record.NumHeaps, 64);
    EXPECT_TRUE(heapsOn()) << "every request is larger than 0 and goes to the system, counted";
    EXPECT_NE(record.MemHeapPool.SpinLock.pSpinlock, nullptr);
}

// ---- The examples of docs/memory-configuration.md

TEST_F(Startup, SmallExampleStandsBelowItsLimit)
{
    ASSERT_EQ(
        start("memorylimit     32M\nnumthreadheaps  4\nnumheaps        12\nheapsize        512K\nshortmemoryoff\n"), 0);
    EXPECT_EQ(regionsAsked, 12);
    EXPECT_EQ(record.UsedMemory, 6u << 20);
    EXPECT_EQ(record.NumHeaps, 0);
}

TEST_F(Startup, LargeExampleStandsBelowItsLimit)
{
    ASSERT_EQ(start("memorylimit 48G numthreadheaps 64 numheaps 200 heapsize 16M maxblock 256K shortheapsize 1M\n"
                    "maxshortmemorypoolsize 128 limitshortheapsforremove 128 memoryblockscontrol\n"),
              0);
    EXPECT_EQ(regionsAsked, 72);
    EXPECT_EQ(record.UsedMemory, OV_ULONGLONG_T{1152} << 20);
    EXPECT_EQ(record.NumHeaps, 128);
}

// ---- Summary

TEST_F(Startup, SummaryOfALimit)
{
    EXPECT_EQ(printed("memorylimit 64M"), "\nMemory configuration:\n\n   Memory limit                 : 65536K\n");
}

TEST_F(Startup, SummaryWithoutALimit)
{
    EXPECT_EQ(printed("heapsize 1M"), kUndefined);
    EXPECT_EQ(printed("maxblock 0"), kUndefined);
}

TEST_F(Startup, NothingIsPrintedWhileTheHeapsAreOff) { EXPECT_EQ(printed("numthreadheaps 0"), ""); }

// ---- The slots open last

TEST_F(Startup, SlotsOpenWhenEverythingStands)
{
    ASSERT_EQ(start("memoryblockscontrol"), 0);
    EXPECT_FALSE(openWhileBuilding);
    EXPECT_TRUE(heapsOn());
    EXPECT_TRUE(heapsHaveStood);
}

TEST_F(Startup, TerminationClosesTheSlots)
{
    ASSERT_EQ(start(""), 0);
    ovMemThreadHeapTerm();
    EXPECT_EQ(record.NumThreadHeaps, -1);
    EXPECT_FALSE(heapsOn());
    EXPECT_TRUE(heapsHaveStood);
    EXPECT_NE(record.Heap[0], nullptr) << "no region is released";
    ovMemThreadHeapTerm();
    EXPECT_EQ(record.NumThreadHeaps, -1);
}

TEST_F(Startup, TerminationWithoutHeapsChangesNothing)
{
    ASSERT_EQ(startWithoutFile(0), 0);
    ovMemThreadHeapTerm();
    EXPECT_EQ(record.NumThreadHeaps, 0);
}

TEST_F(Startup, SecondCallTurnsTheHeapsOff)
{
    ASSERT_EQ(start("heapsize 1M"), 0);
    const int regions = regionsAsked;
    EXPECT_EQ(ovMemThreadHeapInit(1, nullptr, application, 1), 0);
    EXPECT_EQ(record.NumThreadHeaps, 0);
    EXPECT_FALSE(heapsOn());
    EXPECT_TRUE(heapsHaveStood);
    EXPECT_EQ(regionsAsked, regions);
    EXPECT_EQ(record.HeapSize, 1048576u) << "the settings stay";
}

TEST_F(Startup, CallAfterTerminationTurnsTheHeapsOff)
{
    ASSERT_EQ(start(""), 0);
    ovMemThreadHeapTerm();
    EXPECT_EQ(ovMemThreadHeapInit(1, nullptr, application, 1), 0);
    EXPECT_EQ(record.NumThreadHeaps, 0);
}

TEST_F(Startup, ThirdCallStartsAnew)
{
    dir.write("bin/config.mem", "heapsize 512K");
    expectInChild([&] {
        const auto again = [&] { return ovMemThreadHeapInit(1, nullptr, application, 0); };
        if (again() != 0 || !heapsOn()) return 1;
        const OV_MemHeap_T* const first = record.Heap[0];
        record.malloc_count = 5;
        if (again() != 0 || heapsOn()) return 2;
        if (again() != 0 || !heapsOn()) return 3;
        if (record.Heap[0] == first || record.malloc_count != 0) return 4;
        return poolLength() == kPooled && record.NumHeaps == 40 ? 0 : 5;
    });
}

// ---- Failures

TEST_F(Startup, EveryRefusedRegionIsNoMemoryAndTheSlotsStillOpen)
{
    dir.write("bin/config.mem", "heapsize 512K memoryblockscontrol");
    for (int k = 1; k <= kSlots + kPooled; ++k) {
        SCOPED_TRACE(k);
        expectInChild([&] {
            refusedRegion = k;
            if (startWithoutFile(0) != SDSTS_NO_MEMORY) return 1;
            if (record.NumThreadHeaps != 16 || !heapsOn() || !heapsHaveStood) return 2;
            if (openWhileBuilding) return 3;
            if (regionsAsked != k) return 4;
            for (int i = 0; i < kSlots; ++i)
                if ((record.Heap[i] != nullptr) != (i < k - 1) || record.Heap[i] != record.HeapCopy[i]) return 5;
            if (poolLength() != (k > kSlots ? k - 1 - kSlots : 0)) return 6;
            // Who goes on in spite of it is not left without locks.
            return record.MemHeapPool.SpinLock.pSpinlock && record.SpinLockBlocks.pSpinlock ? 0 : 7;
        });
    }
}

TEST_F(Startup, RefusedRegionPrintsNoSummary)
{
    refusedRegion = 3;
    const Ended ended = inChild([&] { return start("") == SDSTS_NO_MEMORY ? 0 : 1; });
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.out, "");
}

TEST_F(Startup, PoolRegionOffItsAlignmentIsNoMemory)
{
    dir.write("bin/config.mem", "heapsize 512K");
    expectInChild([&] {
        crookedRegion = kSlots + 1;
        return startWithoutFile(0) == SDSTS_NO_MEMORY && !record.MemHeapPool.MemHeap ? 0 : 1;
    });
}

TEST_F(Startup, HeapsWhoseLocksCannotBeMadeShareOneAndStartUpSucceeds)
{
    dir.write("bin/config.mem", "heapsize 512K");
    expectInChild([&] {
        refusedHeapLock = 2;
        if (startWithoutFile(0) != 0 || !heapsOn()) return 1;
        const auto lockOf = [](int i) { return record.Heap[i]->HeapHeader.SpinLock.pSpinlock; };
        return lockOf(1) && lockOf(1) != lockOf(0) && poolLength() == kPooled ? 0 : 2;
    });
}

TEST_F(Startup, WithoutAManagersLockTheSlotsStayClosed)
{
    dir.write("bin/config.mem", "heapsize 512K memoryblockscontrol");
    for (const long line : {2182L, 2263L, 2267L, 2282L}) {
        SCOPED_TRACE(line);
        expectInChild([&] {
            refusedLockLine = line;
            if (startWithoutFile(0) != SDSTS_NO_MEMORY) return 1;
            return heapsOn() || record.NumThreadHeaps != 16 ? 2 : 0;
        });
    }
}

TEST_F(Startup, EveryFailingSystemAllocationIsSurvived)
{
    dir.write("bin/config.mem", "heapsize 512K memoryblockscontrol");
    constexpr int kEnoughAllocations = 1000;
    int noMemory = 0;
    for (int k = 1; k <= kEnoughAllocations; ++k) {
        SCOPED_TRACE(k);
        const Ended ended = inChild([&] {
            const Failing once = Failing::nth(Call::malloc, k, ENOMEM);
            const int sts = startWithoutFile(0);
            if (once.hits() == 0) return sts == 0 ? 3 : 4;
            if (sts == SDSTS_NO_MEMORY) return 2;
            return sts == 0 && heapsOn() ? 0 : 5;
        });
        ASSERT_EQ(ended.signal, 0) << ended.err;
        ASSERT_LE(ended.status, 3) << ended.err;
        if (ended.status == 3) break;
        noMemory += ended.status == 2;
        ASSERT_LT(k, kEnoughAllocations) << "start-up still meets failures";
    }
    EXPECT_GE(noMemory, kSlots + kPooled);
}

// ---- Settings and contexts

TEST_F(Startup, SettingsInTheirOrder)
{
    ASSERT_EQ(start("memorylimit 100M heapsize 1M shortheapsize 400K maxblock 32K numheaps 40 numthreadheaps 8"), 0);
    OV_ULONGLONG_T settings[8] = {};
    settings[7] = 99;
    ovMemGetMemorySettings(settings);
    const OV_ULONGLONG_T expected[8] = {100 << 20, 8, 40, 1 << 20, 400 << 10, 32 << 10, 1, 99};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(settings[i], expected[i]) << i;
}

TEST_F(Startup, SettingsWithoutShortHeapsGiveTheirSizeAsZero)
{
    ASSERT_EQ(start("shortmemoryoff heapsize 512K"), 0);
    OV_ULONGLONG_T settings[7];
    ovMemGetMemorySettings(settings);
    EXPECT_EQ(settings[4], 0u);
    EXPECT_EQ(settings[3], 524288u);
}

TEST_F(Startup, SettingsWithAMaxBlockOfZeroGiveZerosForTheHeaps)
{
    ASSERT_EQ(start("maxblock 0 memorylimit 100M"), 0);
    OV_ULONGLONG_T settings[7];
    ovMemGetMemorySettings(settings);
    const OV_ULONGLONG_T expected[7] = {100 << 20, 0, 0, 0, 0, 0, 1};
    for (int i = 0; i < 7; ++i) EXPECT_EQ(settings[i], expected[i]) << i;
}

TEST_F(Startup, SettingsAreWidenedWithTheirSign)
{
    ASSERT_EQ(start("heapsize 512K"), 0);
    ovMemThreadHeapTerm();
    OV_ULONGLONG_T settings[7];
    ovMemGetMemorySettings(settings);
    EXPECT_EQ(settings[1], ~OV_ULONGLONG_T{0});
}

TEST_F(Startup, SettingsWithoutAPlaceDoNothing)
{
    ovMemGetMemorySettings(nullptr);
    EXPECT_EQ(record.NumThreadHeaps, 0);
}

TEST_F(Startup, ThreadContextIsSetAndReset)
{
    OV_THDCTX_T context{};
    ovMemSetThreadContext(&context);
    EXPECT_EQ(record.tctxp, &context);
    ovMemResetThreadContext();
    EXPECT_EQ(record.tctxp, nullptr);
}
