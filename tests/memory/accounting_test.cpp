#include <gtest/gtest.h>
#include <stdlib.h>

#include <climits>
#include <cstring>

#include "sd/memsys/memsys.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

OV_MemThreadHeap_T& record = ovMemThreadHeap;

// The record at its defaults, memory and buckets counted, the heaps off: the locks do not exist.
class Accounting : public testing::Test {
protected:
    void SetUp() override
    {
        setenv("ZANTOPATH", dir.path().c_str(), 1);
        if (record.NumThreadHeaps != 0) ovMemThreadHeapInit(0, nullptr, nullptr, 0);
        ovMemThreadHeapInit(1, nullptr, nullptr, 0);
        record.MemoryControl = 1;
        record.MemoryBlocksControl = 1;
        record.UsedAlignedMemory = 0;
    }

    void start(const char* text)
    {
        dir.write("bin/config.mem", text);
        ASSERT_EQ(ovMemThreadHeapInit(1, nullptr, nullptr, 0), 0);
    }

    TempDir dir;
};

// The bucket in which an allocation of that many bytes is counted.
int bucketOf(OV_ULONGLONG_T bytes)
{
    sd::memsys::clearBuckets();
    sd::memsys::countAllocation(bytes);
    for (int i = 0; i < OV_MEM_BUCKETS; ++i)
        if (record.AllocBlocks[i] == 1) return i;
    return -1;
}

// A loop over the table, against the library's arithmetic.
int bucketByTable(OV_ULONGLONG_T bytes)
{
    constexpr OV_ULONGLONG_T upTo[] = {160,    1024,   2048,   4096,    8192,    16384,   32768,  65536,
                                       131072, 262144, 524288, 1048576, 2097152, 4194304, 8388608};
    int bucket = 0;
    while (bucket < 15 && bytes > upTo[bucket]) ++bucket;
    return bucket;
}

struct Used {
    int result;
    OV_ULONGLONG_T ordinary = 99, heaps = 99, aligned = 99, maxUsed = 99, maxAligned = 99, maxTotal = 99;
};

Used used()
{
    Used u{};
    u.result = ovMemGetUsedMemory(&u.ordinary, &u.heaps, &u.aligned, &u.maxUsed, &u.maxAligned, &u.maxTotal);
    return u;
}

} // namespace

// ---- Buckets

TEST_F(Accounting, BucketBordersByTheTable)
{
    EXPECT_EQ(bucketOf(160), 0);
    EXPECT_EQ(bucketOf(161), 1);
    EXPECT_EQ(bucketOf(8388608), 14);
    EXPECT_EQ(bucketOf(8388609), 15);
    for (OV_ULONGLONG_T border = 1; border <= (OV_ULONGLONG_T{1} << 25); border *= 2)
        for (OV_ULONGLONG_T bytes = border - 1; bytes <= border + 1; ++bytes)
            EXPECT_EQ(bucketOf(bytes), bucketByTable(bytes)) << bytes;
    EXPECT_EQ(bucketOf(~OV_ULONGLONG_T{0}), 15);
}

TEST_F(Accounting, PositiveSizeIsAnAllocationInBothTables)
{
    ovMemAddBlockSizeToList(161);
    ovMemAddBlockSizeToList(1024);
    EXPECT_EQ(record.AllocBlocks[1], 2u);
    EXPECT_EQ(record.AllocBlocksMark[1], 2u);
    EXPECT_EQ(record.DeAllocBlocks[1] + record.DeAllocBlocksMark[1], 0u);
}

TEST_F(Accounting, NegativeSizeIsARelease)
{
    ovMemAddBlockSizeToList(-2049);
    EXPECT_EQ(record.DeAllocBlocks[3], 1u);
    EXPECT_EQ(record.DeAllocBlocksMark[3], 1u);
    EXPECT_EQ(record.AllocBlocks[3], 0u);
}

TEST_F(Accounting, SizeOfZeroIsAReleaseInBucketZero)
{
    ovMemAddBlockSizeToList(0);
    EXPECT_EQ(record.DeAllocBlocks[0], 1u);
}

TEST_F(Accounting, ExtremeSizesAreInTheLastBucket)
{
    ovMemAddBlockSizeToList(LONG_MIN);
    ovMemAddBlockSizeToList(LONG_MAX);
    EXPECT_EQ(record.DeAllocBlocks[15], 1u);
    EXPECT_EQ(record.AllocBlocks[15], 1u);
}

TEST_F(Accounting, NothingIsCountedWhileBucketCountingIsOff)
{
    record.MemoryBlocksControl = 0;
    ovMemAddBlockSizeToList(10);
    ovMemAddBlockSizeToList(-10);
    sd::memsys::countAllocation(10);
    sd::memsys::countRelease(10);
    EXPECT_EQ(record.AllocBlocks[0] + record.DeAllocBlocks[0], 0u);
}

TEST_F(Accounting, BucketQueryGivesTheTableOfItsType)
{
    OV_ULONGLONG_T allocated[16], released[16];
    ovMemAddBlockSizeToList(10);
    ovMemAddBlockSizeToList(-5000);
    ASSERT_EQ(ovMemResetUsedMarkMemoryBlocks(), 0);
    ovMemAddBlockSizeToList(10);
    ASSERT_EQ(ovMemGetUsedMemoryBlocks(1, allocated, released), 0);
    EXPECT_EQ(allocated[0], 2u);
    EXPECT_EQ(released[4], 1u);
    for (const int type : {0, 2, -1}) {
        ASSERT_EQ(ovMemGetUsedMemoryBlocks(type, allocated, released), 0);
        EXPECT_EQ(allocated[0], 1u) << type;
        EXPECT_EQ(released[4], 0u) << type;
    }
}

TEST_F(Accounting, BucketQueriesFailWhileBucketCountingIsOff)
{
    OV_ULONGLONG_T allocated[16] = {7}, released[16] = {7};
    record.MemoryBlocksControl = 0;
    EXPECT_EQ(ovMemResetUsedMarkMemoryBlocks(), -1);
    EXPECT_EQ(ovMemGetUsedMemoryBlocks(1, allocated, released), -1);
    EXPECT_EQ(allocated[0], 7u);
}

TEST_F(Accounting, BucketQueryWithoutAPlaceIsInvalid)
{
    OV_ULONGLONG_T counts[16];
    EXPECT_EQ(ovMemGetUsedMemoryBlocks(1, nullptr, counts), SDSTS_INVALID_PARAM);
    EXPECT_EQ(ovMemGetUsedMemoryBlocks(1, counts, nullptr), SDSTS_INVALID_PARAM);
}

TEST_F(Accounting, BucketsCountUnderTheirLockOnceItExists)
{
    start("memoryblockscontrol heapsize 512K numthreadheaps 4");
    ASSERT_NE(record.SpinLockBlocks.pSpinlock, nullptr);
    ovMemAddBlockSizeToList(10);
    EXPECT_EQ(record.AllocBlocks[0], 1u);
    EXPECT_EQ(record.SpinLockBlocks.pSpinlock->xchg.slock, 1) << "given back";
}

// ---- Marks

TEST_F(Accounting, MarksAreResetToThePresentUse)
{
    record.UsedMemory = 100;
    record.UsedAlignedMemory = 23;
    record.MaxUsedMarkMemory = 1000;
    record.MaxUsedAlignedMarkMemory = 1000;
    record.MaxTotalUsedMarkMemory = 1000;
    ASSERT_EQ(ovMemResetMaxUsedMarkMemory(), 0);
    OV_ULONGLONG_T ordinary = 0, aligned = 0, total = 0;
    ASSERT_EQ(ovMemGetMaxUsedMarkMemory(&ordinary, &aligned, &total), 0);
    EXPECT_EQ(ordinary, 100u);
    EXPECT_EQ(aligned, 23u);
    EXPECT_EQ(total, 123u);
}

TEST_F(Accounting, MarksFailWhileMemoryIsNotCounted)
{
    OV_ULONGLONG_T value = 7;
    record.MemoryControl = 0;
    EXPECT_EQ(ovMemResetMaxUsedMarkMemory(), -1);
    EXPECT_EQ(ovMemGetMaxUsedMarkMemory(&value, &value, &value), -1);
    EXPECT_EQ(value, 7u);
}

TEST_F(Accounting, MarksWithoutAPlaceAreInvalid)
{
    OV_ULONGLONG_T value;
    EXPECT_EQ(ovMemGetMaxUsedMarkMemory(nullptr, &value, &value), SDSTS_INVALID_PARAM);
    EXPECT_EQ(ovMemGetMaxUsedMarkMemory(&value, nullptr, &value), SDSTS_INVALID_PARAM);
    EXPECT_EQ(ovMemGetMaxUsedMarkMemory(&value, &value, nullptr), SDSTS_INVALID_PARAM);
}

TEST_F(Accounting, MarkSinceStartIsRaisedOnlyWithTheMarkSinceReset)
{
    volatile OV_ULONGLONG_T sinceReset = 50, sinceStart = 20;
    sd::memsys::raiseMarks(sinceReset, sinceStart, 50);
    EXPECT_EQ(sinceStart, 20u);
    sd::memsys::raiseMarks(sinceReset, sinceStart, 51);
    EXPECT_EQ(sinceReset, 51u);
    EXPECT_EQ(sinceStart, 51u);
}

// ---- Figures

TEST_F(Accounting, WithTheHeapsOffOnlyAlignedBytesAreReported)
{
    record.UsedMemory = 100;
    record.UsedAlignedMemory = 23;
    record.MaxUsedMemory = 1;
    record.MaxUsedAlignedMemory = 2;
    record.MaxTotalUsedMemory = 3;
    const Used u = used();
    EXPECT_EQ(u.result, 0);
    EXPECT_EQ(u.ordinary, 0u);
    EXPECT_EQ(u.heaps, 0u);
    EXPECT_EQ(u.aligned, 23u);
    EXPECT_EQ(u.maxUsed, 1u);
    EXPECT_EQ(u.maxAligned, 2u);
    EXPECT_EQ(u.maxTotal, 3u);
}

TEST_F(Accounting, HeapsCountAtTheirFullSizeAndTheRestIsOrdinary)
{
    start("heapsize 1M numthreadheaps 4");
    record.UsedMemory = record.UsedMemory + 5000;
    const Used u = used();
    EXPECT_EQ(u.heaps, 12u << 20) << "four slots and eight spare heaps";
    EXPECT_EQ(u.ordinary, 5000u);
}

TEST_F(Accounting, HeapBytesAreStillReportedAfterTermination)
{
    start("heapsize 1M numthreadheaps 4");
    ovMemThreadHeapTerm();
    const Used u = used();
    EXPECT_EQ(u.heaps, 12u << 20);
    EXPECT_EQ(u.ordinary, 0u);
}

TEST_F(Accounting, HeapBytesKeepTheirLow32Bits)
{
    start("heapsize 1M numthreadheaps 4");
    record.HeapSize = 16 << 20;
    record.MaxNumHeaps = 300;
    record.NumHeaps = 43; // 257 heaps of 16 MiB: 4 GiB and 16 MiB
    record.UsedMemory = OV_ULONGLONG_T{257} << 24;
    const Used u = used();
    EXPECT_EQ(u.heaps, 16u << 20);
    EXPECT_EQ(u.ordinary, OV_ULONGLONG_T{1} << 32);
}

TEST_F(Accounting, FiguresFailWhileMemoryIsNotCounted)
{
    record.MemoryControl = 0;
    const Used u = used();
    EXPECT_EQ(u.result, -1);
    EXPECT_EQ(u.ordinary, 99u);
}

TEST_F(Accounting, FiguresWithoutAPlaceAreInvalid)
{
    OV_ULONGLONG_T v;
    for (int missing = 0; missing < 6; ++missing) {
        OV_ULONGLONG_T* places[6] = {&v, &v, &v, &v, &v, &v};
        places[missing] = nullptr;
        EXPECT_EQ(ovMemGetUsedMemory(places[0], places[1], places[2], places[3], places[4], places[5]),
                  SDSTS_INVALID_PARAM);
    }
}

TEST_F(Accounting, LocksAreGivenBack)
{
    start("heapsize 512K numthreadheaps 4");
    used();
    ovMemResetMaxUsedMarkMemory();
    EXPECT_EQ(record.SpinLock.pSpinlock->xchg.slock, 1);
    EXPECT_EQ(record.MemHeapPool.SpinLock.pSpinlock->xchg.slock, 1);
}

TEST_F(Accounting, WarningLevelDividesFirst)
{
    record.MemoryLimit = 10485799;
    EXPECT_EQ(sd::memsys::warningLevel(), 104857u * 90);
    record.MemoryLimit = 100 << 20;
    EXPECT_EQ(sd::memsys::warningLevel(), 1048576u * 90);
}

// ---- Debugging entry points

TEST(DebugRecords, NullGivesNullNamesAndZeros)
{
    EXPECT_EQ(ovMemMgrGetAllocBlkHd(), nullptr);
    EXPECT_EQ(ovMemMgrGetMemInfoHd(), nullptr);
    EXPECT_EQ(ovMemMgrGetAllocBlkNxt(nullptr), nullptr);
    EXPECT_STREQ(ovMemMgrGetAllocBlkFN(nullptr), "Null Pointer");
    EXPECT_EQ(ovMemMgrGetAllocBlkLn(nullptr), 0u);
    EXPECT_EQ(ovMemMgrGetAllocBlkSz(nullptr), 0u);
    EXPECT_EQ(ovMemMgrGetAllocBlkMI(nullptr), nullptr);
}

TEST(DebugRecords, FieldsAreReadAtTheirPlaces)
{
    char block[33] = {};
    char* const blk = block + 1; // wherever it lies
    char name[] = "source.c";
    OV_MEMINFO_T info{};
    const OV_MEMINFO_T* const infoAt = &info;
    const char* const nameAt = name;
    const OV_ULONG_T size = 0x80000001, line = 4711;
    memcpy(blk, &infoAt, 8);
    memcpy(blk + 12, &size, 4);
    memcpy(blk + 16, &nameAt, 8);
    memcpy(blk + 24, &line, 4);
    EXPECT_EQ(ovMemMgrGetAllocBlkNxt(blk), blk + 32);
    EXPECT_EQ(ovMemMgrGetAllocBlkFN(blk), name);
    EXPECT_EQ(ovMemMgrGetAllocBlkLn(blk), line);
    EXPECT_EQ(ovMemMgrGetAllocBlkSz(blk), size);
    EXPECT_EQ(ovMemMgrGetAllocBlkMI(blk), &info);
}

TEST(DebugRecords, ChecksAreAlwaysTrueAndTagsZero)
{
    char comment[] = "comment";
    ovMemInfo(1, comment);
    ovSetMemTag(comment, 5, __FILE__, __LINE__);
    EXPECT_STREQ(comment, "comment");
    EXPECT_EQ(ovGetMemTag(nullptr, comment, __FILE__, __LINE__), 0u);
    EXPECT_EQ(ovCheckMemTag(comment, 5, 8, __FILE__, __LINE__, __FILE__, __LINE__), TRUE);
    EXPECT_EQ(ovCheckMemoryMarker(comment, __FILE__, __LINE__, 8), TRUE);
}
