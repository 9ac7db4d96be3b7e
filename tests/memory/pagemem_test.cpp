#include <gmock/gmock.h>
#include <kemsd/kemsd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "sd/memsys/memsys.h"
#include "support/child.h"
#include "support/failingcalls.h"
#include "support/report.h"

using namespace kemsd::test;

namespace {

constexpr size_t kBlock = KEM_BLOCK_SIZE;
constexpr const char* kFile = "pagemem_test";

void* junk()
{
    static char somewhere;
    return &somewhere;
}

// Memory control on, no limit, no lock, as it is while the thread heaps are off.
class TrackedMem : public testing::Test {
protected:
    void SetUp() override { ovMemThreadHeap.MemoryControl = TRUE; }
    void TearDown() override { ovMemThreadHeap.MemoryControl = FALSE; }
};

class MappedPages : public testing::Test {
protected:
    size_t page = static_cast<size_t>(getpagesize());
};

OV_ULONGLONG_T used() { return ovMemThreadHeap.UsedAlignedMemory; }

size_t lengthOf(const void* mapped)
{
    size_t length;
    memcpy(&length, static_cast<const char*>(mapped) - 64, sizeof length);
    return length;
}

// Whether a child survives reading there.
bool readable(const char* at)
{
    const Ended child = inChild([at] {
        [[maybe_unused]] const char read = *const_cast<const volatile char*>(at);
        return 77;
    });
    return child.status == 77;
}

} // namespace

TEST_F(TrackedMem, CountingChargesBlocksAndReleasingGivesThemBack)
{
    char first[16], second[16];
    EXPECT_EQ(ovMemAlignedIncCounter(first, 3), 0);
    EXPECT_EQ(used(), 3 * kBlock);
    EXPECT_EQ(ovMemAlignedIncCounter(second, 1), 0);
    EXPECT_EQ(used(), 4 * kBlock);
    ovMemAlignedDecCounter(first);
    EXPECT_EQ(used(), kBlock);
    ovMemAlignedDecCounter(first); // not tracked any more
    EXPECT_EQ(used(), kBlock);
    ovMemAlignedDecCounter(nullptr);
    ovMemAlignedDecCounter(second);
    EXPECT_EQ(used(), 0u);
}

TEST_F(TrackedMem, NewestBlockStandsFirstInTheBucketOfItsAddress)
{
    constexpr uintptr_t kBucketSpan = 131 * 8;
    char* const address = reinterpret_cast<char*>(uintptr_t{0x10000});
    const size_t bucket = (0x10000 >> 3) % 131;
    for (int i = 0; i < 3; ++i) ASSERT_EQ(ovMemAlignedIncCounter(address + i * kBucketSpan, i + 1), 0);
    const OV_MemAlignedItem_T* item = ovMemThreadHeap.MemoryControlAlignedArray[bucket];
    for (int i = 2; i >= 0; --i, item = item->next) {
        ASSERT_NE(item, nullptr);
        EXPECT_EQ(item->block, address + i * kBucketSpan);
        EXPECT_EQ(item->size, (i + 1) * kBlock);
    }
    EXPECT_EQ(item, nullptr);
    ovMemAlignedDecCounter(address + kBucketSpan); // from the middle
    EXPECT_EQ(used(), 4 * kBlock);
    ovMemAlignedDecCounter(address + 2 * kBucketSpan);
    ovMemAlignedDecCounter(address);
    EXPECT_EQ(used(), 0u);
    EXPECT_EQ(ovMemThreadHeap.MemoryControlAlignedArray[bucket], nullptr);
}

TEST_F(TrackedMem, WithoutMemoryControlNothingIsTracked)
{
    ovMemThreadHeap.MemoryControl = FALSE;
    ovMemThreadHeap.MemoryLimit = 1;
    resetCalls();
    EXPECT_EQ(ovMemAlignedIncCounter(junk(), 3), 0);
    ovMemAlignedDecCounter(junk());
    EXPECT_EQ(calls(Call::malloc), 0);
    EXPECT_EQ(used(), 0u);
}

TEST_F(TrackedMem, TwoGibibytesAndMoreAreChargedAsTheWrappedValue)
{
    char negative[16], nothing[16];
    ovMemThreadHeap.UsedAlignedMemory = OV_ULONGLONG_T{1} << 40;
    EXPECT_EQ(ovMemAlignedIncCounter(negative, 1 << 18), 0); // 2^31 bytes
    EXPECT_EQ(used(), (OV_ULONGLONG_T{1} << 40) - (OV_ULONGLONG_T{1} << 31));
    EXPECT_EQ(ovMemAlignedIncCounter(nothing, 1 << 19), 0); // 2^32 bytes
    EXPECT_EQ(used(), (OV_ULONGLONG_T{1} << 40) - (OV_ULONGLONG_T{1} << 31));
    ovMemAlignedDecCounter(nothing);
    ovMemAlignedDecCounter(negative);
    EXPECT_EQ(used(), OV_ULONGLONG_T{1} << 40);
}

TEST_F(TrackedMem, MarksRiseWithTheCharge)
{
    char block[16];
    OV_MemThreadHeap_T& record = ovMemThreadHeap;
    record.UsedMemory = 1000;
    ASSERT_EQ(ovMemAlignedIncCounter(block, 2), 0);
    EXPECT_EQ(record.MaxUsedAlignedMarkMemory, 2 * kBlock);
    EXPECT_EQ(record.MaxUsedAlignedMemory, 2 * kBlock);
    EXPECT_EQ(record.MaxTotalUsedMarkMemory, 2 * kBlock + 1000);
    EXPECT_EQ(record.MaxTotalUsedMemory, 2 * kBlock + 1000);
    ovMemAlignedDecCounter(block);
    record.MaxUsedAlignedMarkMemory = 0;
    record.MaxTotalUsedMarkMemory = 0;
    ASSERT_EQ(ovMemAlignedIncCounter(block, 1), 0);
    EXPECT_EQ(record.MaxUsedAlignedMarkMemory, kBlock);
    EXPECT_EQ(record.MaxUsedAlignedMemory, 2 * kBlock);
    EXPECT_EQ(record.MaxTotalUsedMarkMemory, kBlock + 1000);
    EXPECT_EQ(record.MaxTotalUsedMemory, 2 * kBlock + 1000);
    ovMemAlignedDecCounter(block);
}

TEST_F(TrackedMem, MarkSinceStartRisesOnlyWhenTheMarkSinceResetDoes)
{
    char block[16];
    ovMemThreadHeap.MaxUsedAlignedMarkMemory = 100 * kBlock;
    ovMemThreadHeap.MaxUsedAlignedMemory = 0;
    ASSERT_EQ(ovMemAlignedIncCounter(block, 1), 0);
    EXPECT_EQ(ovMemThreadHeap.MaxUsedAlignedMemory, 0u);
    ovMemAlignedDecCounter(block);
}

TEST_F(TrackedMem, LimitCountsBothKindsAndIsReachedExactly)
{
    char block[16];
    ovMemThreadHeap.UsedMemory = 4 * kBlock;
    ovMemThreadHeap.MemoryLimit = 10 * kBlock;
    EXPECT_EQ(ovMemAlignedIncCounter(block, 7), SDSTS_ALIGNED_ALLOC);
    EXPECT_EQ(ovMemThreadHeap.MemMessageUsedMemory, 4 * kBlock); // what was used, without the request
    EXPECT_EQ(used(), 0u);
    EXPECT_EQ(ovMemAlignedIncCounter(block, 6), 0);
    EXPECT_EQ(used(), 6 * kBlock);
    ovMemAlignedDecCounter(block);
}

TEST_F(TrackedMem, NearTheLimitTheSumIsNotedForTheWarning)
{
    char block[16];
    ovMemThreadHeap.MemoryLimit = 1000 * kBlock;
    ovMemThreadHeap.UsedAlignedMemory = 950 * kBlock;
    EXPECT_EQ(ovMemAlignedIncCounter(block, 1), 0);
    EXPECT_EQ(ovMemThreadHeap.MemMessageUsedMemory, 951 * kBlock);
    ovMemAlignedDecCounter(block);
}

TEST_F(TrackedMem, NoWarningBelow90PercentOrWhileOneIsPending)
{
    char block[16];
    ovMemThreadHeap.MemoryLimit = 1000 * kBlock;
    ovMemThreadHeap.UsedAlignedMemory = 800 * kBlock;
    EXPECT_EQ(ovMemAlignedIncCounter(block, 1), 0);
    EXPECT_EQ(ovMemThreadHeap.MemMessageUsedMemory, 0u);
    ovMemAlignedDecCounter(block);
    ovMemThreadHeap.UsedAlignedMemory = 950 * kBlock;
    ovMemThreadHeap.MemMessage = memmsg_warning;
    EXPECT_EQ(ovMemAlignedIncCounter(block, 1), 0);
    EXPECT_EQ(ovMemThreadHeap.MemMessageUsedMemory, 0u);
    ovMemAlignedDecCounter(block);
}

TEST_F(TrackedMem, WithoutRoomForTheItemNothingIsCharged)
{
    Failing memory(Call::malloc, ENOMEM);
    EXPECT_EQ(ovMemAlignedIncCounter(junk(), 1), SDSTS_ALIGNED_ALLOC);
    EXPECT_EQ(used(), 0u);
}

TEST_F(TrackedMem, LockIsFreeAgainAfterwards)
{
    alignas(64) KEM_SPINLOCK_T lock{};
    lock.xchg.slock = 1;
    ovMemThreadHeap.SpinLock = {&lock, 6001};
    char block[16];
    EXPECT_EQ(ovMemAlignedIncCounter(block, 1), 0);
    EXPECT_EQ(lock.xchg.slock, 1);
    EXPECT_EQ(lock.xchg.thdMasterId, 0u);
    ovMemAlignedDecCounter(block);
    ovMemAlignedDecCounter(block);
    EXPECT_EQ(lock.xchg.slock, 1);
    ovMemThreadHeap.SpinLock = {};
}

// The lock is held under this thread's id: asking with that id would pass as re-entry, asking with an address of the
// stack waits until it is released.
TEST_F(TrackedMem, LockIsNotAskedForUnderTheThreadId)
{
    alignas(64) KEM_SPINLOCK_T lock{};
    lock.xchg.thdMasterId = sd::currentThread();
    lock.xchg.sLockCount = 1;
    ovMemThreadHeap.SpinLock = {&lock, 6001};
    std::atomic<bool> released{false};
    std::thread releaser([&] {
        sched_yield();
        released = true;
        sd::releaseExchange(lock.xchg);
    });
    char block[16];
    EXPECT_EQ(ovMemAlignedIncCounter(block, 1), 0);
    EXPECT_TRUE(released);
    releaser.join();
    ovMemAlignedDecCounter(block);
    ovMemThreadHeap.SpinLock = {};
}

TEST_F(TrackedMem, AllocChargesAndFreeGivesBack)
{
    const long before = liveBlocks();
    void* buffer = nullptr;
    EXPECT_THAT(reported(KemSdAlignedMemAllocWrap, size_t{2}, &buffer), Succeeds());
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(used(), 2 * kBlock);
    EXPECT_THAT(reported(KemSdAlignedMemFreeWrap, buffer), Succeeds());
    EXPECT_EQ(used(), 0u);
    EXPECT_EQ(liveBlocks(), before);
    EXPECT_THAT(reported(KemSdAlignedMemFreeWrap, nullptr), Fails(SDSTS_INVALID_PARAM));
}

TEST_F(TrackedMem, AllocReportsWhatFailedAndChargesNothing)
{
    EXPECT_THAT(reported(KemSdAlignedMemAllocWrap, size_t{2}, nullptr), Fails(SDSTS_INVALID_PARAM));
    Failing memory(Call::valloc, ENOMEM);
    void* buffer = junk();
    EXPECT_THAT(reported(KemSdAlignedMemAllocWrap, size_t{2}, &buffer), Fails(SDSTS_ALIGNED_ALLOC, ENOMEM));
    EXPECT_EQ(used(), 0u);
}

TEST_F(TrackedMem, ABlockBeyondTheLimitIsFreed)
{
    const long before = liveBlocks();
    ovMemThreadHeap.MemoryLimit = kBlock;
    void* buffer = junk();
    EXPECT_THAT(reported(KemSdAlignedMemAllocWrap, size_t{2}, &buffer), Fails(SDSTS_ALIGNED_ALLOC));
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(liveBlocks(), before);
    EXPECT_EQ(used(), 0u);
}

TEST_F(TrackedMem, ReallocMovesTheCharge)
{
    void* buffer = nullptr;
    ASSERT_EQ(KemSdAlignedMemAllocWrap(nullptr, 1, &buffer), 0);
    memset(buffer, 'x', kBlock);
    EXPECT_THAT(reported(KemSdAlignedMemReallocWrap, size_t{1}, size_t{3}, &buffer), Succeeds());
    EXPECT_EQ(used(), 3 * kBlock);
    EXPECT_EQ(static_cast<char*>(buffer)[kBlock - 1], 'x');
    EXPECT_EQ(KemSdAlignedMemFreeWrap(nullptr, buffer), 0);
    EXPECT_EQ(used(), 0u);
}

TEST_F(TrackedMem, AFailedReallocKeepsTheOldBlockUntracked)
{
    void* buffer = nullptr;
    ASSERT_EQ(KemSdAlignedMemAllocWrap(nullptr, 1, &buffer), 0);
    void* const old = buffer;
    {
        Failing memory(Call::valloc, ENOMEM);
        EXPECT_THAT(reported(KemSdAlignedMemReallocWrap, size_t{1}, size_t{3}, &buffer),
                    Fails(SDSTS_ALIGNED_ALLOC, ENOMEM));
    }
    EXPECT_EQ(buffer, old);
    EXPECT_EQ(used(), 0u);
    EXPECT_EQ(KemSdAlignedMemFreeWrap(nullptr, buffer), 0);
    EXPECT_THAT(reported(KemSdAlignedMemReallocWrap, size_t{1}, size_t{3}, nullptr), Fails(SDSTS_INVALID_PARAM));
}

TEST_F(TrackedMem, AReallocThatCannotBeTrackedFreesBothBlocks)
{
    const long before = liveBlocks();
    void* buffer = nullptr;
    ASSERT_EQ(KemSdAlignedMemAllocWrap(nullptr, 1, &buffer), 0);
    ovMemThreadHeap.MemoryLimit = 2 * kBlock;
    EXPECT_THAT(reported(KemSdAlignedMemReallocWrap, size_t{1}, size_t{3}, &buffer), Fails(SDSTS_ALIGNED_ALLOC));
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(liveBlocks(), before);
    EXPECT_EQ(used(), 0u);
}

TEST_F(TrackedMem, EveryFailingRequestIsReportedAndChargesNothing)
{
    const long runs = sweepAllocationFailures([](long) {
        void* buffer = nullptr;
        const KEM_STS_T made = KemSdAlignedMemAllocWrap(nullptr, 1, &buffer);
        EXPECT_EQ(made, buffer ? 0 : SDSTS_ALIGNED_ALLOC);
        if (buffer) {
            const KEM_STS_T moved = KemSdAlignedMemReallocWrap(nullptr, 1, 2, &buffer);
            EXPECT_EQ(moved, allocationFailed() ? SDSTS_ALIGNED_ALLOC : 0);
            EXPECT_EQ(used(), moved == 0 ? 2 * kBlock : 0);
        }
        if (buffer) KemSdAlignedMemFreeWrap(nullptr, buffer);
        EXPECT_EQ(used(), 0u);
    });
    EXPECT_EQ(runs, 4); // block and item, twice
}

TEST_F(TrackedMem, ThreadsTrackTogether)
{
    alignas(64) KEM_SPINLOCK_T lock{};
    lock.xchg.slock = 1;
    ovMemThreadHeap.SpinLock = {&lock, 6001};
    const auto work = [] {
        for (int i = 0; i < 300; ++i) {
            void* buffer = nullptr;
            ASSERT_EQ(KemSdAlignedMemAllocWrap(nullptr, 1, &buffer), 0);
            ASSERT_EQ(KemSdAlignedMemFreeWrap(nullptr, buffer), 0);
        }
    };
    std::thread first(work), second(work);
    first.join();
    second.join();
    EXPECT_EQ(used(), 0u);
    ovMemThreadHeap.SpinLock = {};
}

TEST_F(MappedPages, OneByteMapsOnePageAndStands64BytesIn)
{
    void* mapped = nullptr;
    EXPECT_EQ(ovMmap(&mapped, 1, kFile, 1), 0);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(mapped) % page, 64u);
    EXPECT_EQ(lengthOf(mapped), page);
    memset(mapped, 'x', page - 64);
    EXPECT_EQ(ovMunmap(mapped, kFile, 2), 0);
}

TEST_F(MappedPages, LengthIsDataAndPrefixInWholePages)
{
    const std::pair<size_t, size_t> cases[] = {
        {0, page}, {page - 64, page}, {page - 63, 2 * page}, {10 * page, 11 * page}};
    for (const auto& [size, length] : cases) {
        void* mapped = nullptr;
        ASSERT_EQ(ovMmap(&mapped, size, kFile, 1), 0);
        EXPECT_EQ(lengthOf(mapped), length) << size;
        EXPECT_EQ(ovMunmap(mapped, kFile, 2), 0);
    }
}

TEST_F(MappedPages, MmapReportsAndStoresNull)
{
    EXPECT_EQ(ovMmap(nullptr, 1, kFile, 1), SDSTS_INVALID_PARAM);
    void* mapped = junk();
    {
        Failing map(Call::mmap, ENOMEM);
        EXPECT_EQ(ovMmap(&mapped, 1, kFile, 1), SDSTS_MMAP_FAILED);
    }
    EXPECT_EQ(mapped, nullptr);
    resetCalls();
    mapped = junk();
    EXPECT_EQ(ovMmap(&mapped, SIZE_MAX - 100, kFile, 1), SDSTS_MMAP_FAILED);
    EXPECT_EQ(mapped, nullptr);
    EXPECT_EQ(calls(Call::mmap), 0);
}

TEST_F(MappedPages, MremapKeepsTheDataAndStoresTheNewLength)
{
    void* mapped = nullptr;
    ASSERT_EQ(ovMmap(&mapped, 1000, kFile, 1), 0);
    memset(mapped, 'x', 1000);
    void* moved = nullptr;
    EXPECT_EQ(ovMremap(mapped, 1000, &moved, 100000, kFile, 2), 0);
    EXPECT_EQ(lengthOf(moved), (100000 + 64 + page - 1) / page * page);
    EXPECT_EQ(std::string(static_cast<char*>(moved), 1000), std::string(1000, 'x'));
    EXPECT_EQ(ovMremap(moved, 100000, &moved, 10, kFile, 3), 0);
    EXPECT_EQ(lengthOf(moved), page);
    EXPECT_EQ(ovMunmap(moved, kFile, 4), 0);
}

TEST_F(MappedPages, MremapOfNothingMaps)
{
    void* mapped = nullptr;
    EXPECT_EQ(ovMremap(nullptr, 0, &mapped, 1, kFile, 1), 0);
    EXPECT_EQ(lengthOf(mapped), page);
    EXPECT_EQ(ovMunmap(mapped, kFile, 2), 0);
    Failing map(Call::mmap, ENOMEM);
    EXPECT_EQ(ovMremap(nullptr, 0, &mapped, 1, kFile, 1), SDSTS_MMAP_FAILED);
}

TEST_F(MappedPages, AFailedMremapStoresNullAndLeavesTheOldMapping)
{
    void* mapped = nullptr;
    ASSERT_EQ(ovMmap(&mapped, 1000, kFile, 1), 0);
    void* moved = junk();
    {
        Failing remap(Call::mremap, ENOMEM);
        EXPECT_EQ(ovMremap(mapped, 1000, &moved, 100000, kFile, 2), SDSTS_MREMAP_FAILED);
    }
    EXPECT_EQ(moved, nullptr);
    moved = junk();
    resetCalls();
    EXPECT_EQ(ovMremap(mapped, 1000, &moved, SIZE_MAX, kFile, 3), SDSTS_MREMAP_FAILED);
    EXPECT_EQ(calls(Call::mremap), 0);
    EXPECT_EQ(moved, nullptr);
    EXPECT_EQ(ovMremap(mapped, 1000, nullptr, 10, kFile, 3), SDSTS_INVALID_PARAM);
    EXPECT_EQ(lengthOf(mapped), page);
    EXPECT_EQ(ovMunmap(mapped, kFile, 4), 0);
}

TEST_F(MappedPages, MunmapOfNothingIsFineAndAFailedOneIsReported)
{
    EXPECT_EQ(ovMunmap(nullptr, kFile, 1), 0);
    void* mapped = nullptr;
    ASSERT_EQ(ovMmap(&mapped, 1, kFile, 1), 0);
    {
        Failing unmap(Call::munmap, EINVAL);
        EXPECT_EQ(ovMunmap(mapped, kFile, 2), SDSTS_MUNMAP_FAILED);
    }
    EXPECT_EQ(ovMunmap(mapped, kFile, 3), 0);
}

TEST_F(MappedPages, ProtectionDoesNothingUntilItIsSwitchedOn)
{
    void* mapped = nullptr;
    ASSERT_EQ(ovMmap(&mapped, 1, kFile, 1), 0);
    resetCalls();
    EXPECT_EQ(ovMprotect(mapped, PROT_NONE, kFile, 2), 0);
    KemSdSetMemProtectCfg(TRUE);
    EXPECT_EQ(ovMprotect(nullptr, PROT_NONE, kFile, 2), 0);
    KemSdSetMmapAllocCfg(TRUE);
    EXPECT_EQ(ovMprotect(mapped, PROT_NONE, kFile, 2), 0);
    EXPECT_EQ(calls(Call::mprotect), 0);
    KemSdSetMmapAllocCfg(FALSE);
    EXPECT_EQ(ovMunmap(mapped, kFile, 3), 0);
}

TEST_F(MappedPages, ProtectionCoversThePrefixAndTheData)
{
    KemSdSetMemProtectCfg(TRUE);
    void* mapped = nullptr;
    ASSERT_EQ(ovMmap(&mapped, 2 * page, kFile, 1), 0);
    char* const data = static_cast<char*>(mapped);
    memset(data, 'x', 2 * page);
    EXPECT_EQ(ovMprotect(mapped, PROT_NONE, kFile, 2), 0);
    EXPECT_FALSE(readable(data - 64));
    EXPECT_FALSE(readable(data + 2 * page - 1));
    EXPECT_EQ(ovMprotect(mapped, PROT_READ, kFile, 3), 0);
    EXPECT_EQ(lengthOf(mapped), 3 * page);
    EXPECT_EQ(data[2 * page - 1], 'x');
    EXPECT_EQ(ovMunmap(mapped, kFile, 4), 0);
}

TEST_F(MappedPages, AMappingWithoutAnyAccessCanBeUnmapped)
{
    KemSdSetMemProtectCfg(TRUE);
    void* mapped = nullptr;
    ASSERT_EQ(ovMmap(&mapped, 2 * page, kFile, 1), 0);
    ASSERT_EQ(ovMprotect(mapped, PROT_NONE, kFile, 2), 0);
    EXPECT_EQ(ovMunmap(mapped, kFile, 3), 0);
    // Nothing of it is left.
    unsigned char resident[3];
    EXPECT_EQ(mincore(static_cast<char*>(mapped) - 64, 3 * page, resident), -1);
    EXPECT_EQ(errno, ENOMEM);
}

TEST_F(MappedPages, AFailedProtectionIsReported)
{
    KemSdSetMemProtectCfg(TRUE);
    void* mapped = nullptr;
    ASSERT_EQ(ovMmap(&mapped, 1, kFile, 1), 0);
    {
        Failing protect(Call::mprotect, EACCES);
        EXPECT_EQ(ovMprotect(mapped, PROT_READ, kFile, 2), SDSTS_MPROTECT_FAILED);
        EXPECT_EQ(ovMunmap(mapped, kFile, 2), SDSTS_MUNMAP_FAILED);
    }
    {
        const Failing second = Failing::nth(Call::mprotect, 2, EACCES);
        EXPECT_EQ(ovMprotect(mapped, PROT_READ, kFile, 3), SDSTS_MPROTECT_FAILED);
    }
    EXPECT_EQ(ovMunmap(mapped, kFile, 4), 0);
}

TEST_F(TrackedMem, MmapWithMappingsOffServesTrackedBlocks)
{
    KemSdSetMmapAllocCfg(TRUE);
    resetCalls();
    void* buffer = nullptr;
    EXPECT_EQ(ovMmap(&buffer, 8193, kFile, 1), 0);
    EXPECT_EQ(used(), 2 * kBlock);
    EXPECT_EQ(calls(Call::mmap), 0);
    memset(buffer, 'x', 2 * kBlock);
    void* moved = buffer;
    EXPECT_EQ(ovMremap(buffer, 8193, &moved, 3 * kBlock, kFile, 2), 0);
    EXPECT_EQ(used(), 3 * kBlock);
    EXPECT_EQ(static_cast<char*>(moved)[2 * kBlock - 1], 'x');
    EXPECT_EQ(ovMunmap(moved, kFile, 3), 0);
    EXPECT_EQ(used(), 0u);
    EXPECT_EQ(ovMunmap(nullptr, kFile, 3), 0);
}

TEST_F(TrackedMem, MremapWithMappingsOffTakesTheOldBlockFromThePlace)
{
    KemSdSetMmapAllocCfg(TRUE);
    void* buffer = nullptr;
    ASSERT_EQ(ovMmap(&buffer, 1, kFile, 1), 0);
    EXPECT_EQ(ovMremap(junk(), 1, &buffer, 2 * kBlock, kFile, 2), 0);
    EXPECT_EQ(used(), 2 * kBlock);
    EXPECT_EQ(ovMunmap(buffer, kFile, 3), 0);
}

TEST_F(TrackedMem, MappingsOffReportTheTrackedStatus)
{
    KemSdSetMmapAllocCfg(TRUE);
    ovMemThreadHeap.MemoryLimit = kBlock;
    void* buffer = junk();
    EXPECT_EQ(ovMmap(&buffer, 8193, kFile, 1), SDSTS_ALIGNED_ALLOC);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(used(), 0u);
}

TEST_F(TrackedMem, MappingsOffRefuseABlockCountBeyond32Bits)
{
    KemSdSetMmapAllocCfg(TRUE);
    void* buffer = nullptr;
    ASSERT_EQ(ovMmap(&buffer, 1, kFile, 1), 0);
    void* const old = buffer;
    EXPECT_EQ(ovMremap(buffer, 1, &buffer, size_t{1} << 45, kFile, 2), SDSTS_MREMAP_FAILED);
    EXPECT_EQ(buffer, old);
    EXPECT_EQ(used(), kBlock);
    EXPECT_EQ(ovMunmap(buffer, kFile, 3), 0);
    buffer = junk();
    EXPECT_EQ(ovMmap(&buffer, size_t{1} << 45, kFile, 1), SDSTS_MMAP_FAILED);
    EXPECT_EQ(buffer, nullptr);
}
