#include <gmock/gmock.h>
#include <kemsd/kemsd.h>

#include <cstring>

#include "support/failingcalls.h"
#include "support/report.h"
#include "support/systemblock.h"

using namespace kemsd::test;

namespace {

constexpr size_t kBlock = KEM_BLOCK_SIZE;
constexpr const char* kFile = "publicmem_test";

void* junk()
{
    static char somewhere;
    return &somewhere;
}

// Aligned blocks, every block filled with its number.
void* numbered(KEM_SIZE_T blocks)
{
    void* buffer = nullptr;
    EXPECT_EQ(KemSdAlignedMemAlloc(nullptr, blocks, &buffer), 0);
    for (KEM_SIZE_T i = 0; i < blocks; ++i)
        memset(static_cast<char*>(buffer) + i * kBlock, static_cast<int>(i + 1), kBlock);
    return buffer;
}

void expectNumbered(const void* buffer, KEM_SIZE_T blocks)
{
    for (size_t i = 0; i < blocks * kBlock; ++i)
        ASSERT_EQ(static_cast<const unsigned char*>(buffer)[i], i / kBlock + 1) << i;
}

} // namespace

TEST(PublicMem, InitTermAndPoolsDoNothing)
{
    char pool[8];
    EXPECT_THAT(reported(KemSdMemInit), Succeeds());
    EXPECT_THAT(reported(KemSdMemTerm), Succeeds());
    EXPECT_THAT(reported(KemSdMemPoolInit, pool, 4096u), Succeeds());
    EXPECT_THAT(reported(KemSdMemPoolInit, nullptr, 0u), Succeeds());
    EXPECT_THAT(reported(KemSdMemPoolTerm, pool), Succeeds());
    EXPECT_THAT(reported(KemSdMemPoolTerm, nullptr), Succeeds());
}

TEST(PublicMem, FixedPoolsAreNotOffered)
{
    void* block = junk();
    EXPECT_THAT(reported(KemSdMemPoolFixedInit, KEM_USHORT_T{64}, 10u, junk()), Fails(SDSTS_NOT_SUPPORTED));
    EXPECT_THAT(reported(KemSdMemPoolFixedTerm, junk()), Fails(SDSTS_NOT_SUPPORTED));
    EXPECT_THAT(reported(KemSdMemFixedAlloc, junk(), &block), Fails(SDSTS_NOT_SUPPORTED));
    EXPECT_EQ(block, junk());
    EXPECT_THAT(reported(KemSdMemFixedFree, junk()), Fails(SDSTS_NOT_SUPPORTED));
}

TEST(PublicMem, PageLockingIsNotAvailable)
{
    void* version = junk();
    KEM_BOOL_T available = 7;
    EXPECT_THAT(reported(KemSdIsMemPageLocking, &version, &available), Succeeds());
    EXPECT_EQ(version, junk());
    EXPECT_EQ(available, FALSE);
    EXPECT_THAT(reported(KemSdIsMemPageLocking, nullptr, nullptr), Fails(SDSTS_INVALID_PARAM));
}

TEST(PublicMem, AllocGivesABlockAndFreeTakesIt)
{
    const long before = liveBlocks();
    void* block = nullptr;
    EXPECT_THAT(reported(KemSdMemAlloc, nullptr, size_t{100}, &block, kFile, 1L), Succeeds());
    ASSERT_NE(block, nullptr);
    memset(block, 'x', 100);
    EXPECT_THAT(reported(KemSdMemFree, block, kFile, 2L), Succeeds());
    EXPECT_EQ(liveBlocks(), before);
}

TEST(PublicMem, AllocWantsAPlaceAndASize)
{
    void* block = junk();
    EXPECT_THAT(reported(KemSdMemAlloc, nullptr, size_t{100}, nullptr, kFile, 1L), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdMemAlloc, nullptr, size_t{0}, &block, kFile, 1L), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(block, junk());
    EXPECT_THAT(reported(KemSdMemAllocUsingPolicy, nullptr, size_t{100}, nullptr, char{1}, kFile, 1L),
                Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdMemAllocUsingPolicy, nullptr, size_t{0}, &block, char{1}, kFile, 1L),
                Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(block, junk());
}

TEST(PublicMem, AllocWithoutMemoryReportsNoMemory)
{
    Failing memory(Call::malloc, ENOMEM);
    void* block = junk();
    EXPECT_THAT(reported(KemSdMemAlloc, nullptr, size_t{100}, &block, kFile, 1L), Fails(SDSTS_NO_MEMORY));
    EXPECT_EQ(block, nullptr);
    EXPECT_THAT(reported(KemSdMemAllocUsingPolicy, nullptr, size_t{100}, &block, char{1}, kFile, 1L),
                Fails(SDSTS_NO_MEMORY));
}

TEST(PublicMem, AllocUsingPolicyPassesThePolicyOn)
{
    KemSdSetMemoryManager(TRUE);
    for (const char policy : {1, 2}) {
        void* block = nullptr;
        EXPECT_THAT(reported(KemSdMemAllocUsingPolicy, nullptr, size_t{100}, &block, policy, kFile, 1L), Succeeds());
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(static_cast<char*>(block)[-2], policy);
        EXPECT_EQ(KemSdMemFree(nullptr, block, kFile, 2), 0);
    }
}

TEST(PublicMem, ReallocKeepsTheData)
{
    void* block = nullptr;
    ASSERT_EQ(KemSdMemAlloc(nullptr, nullptr, 100, &block, kFile, 1), 0);
    memset(block, 'x', 100);
    EXPECT_THAT(reported(KemSdMemRealloc, size_t{1000}, block, &block, kFile, 2L), Succeeds());
    EXPECT_EQ(std::string(static_cast<char*>(block), 100), std::string(100, 'x'));
    EXPECT_EQ(KemSdMemFree(nullptr, block, kFile, 3), 0);
}

TEST(PublicMem, ReallocOfNothingAllocates)
{
    void* block = nullptr;
    EXPECT_THAT(reported(KemSdMemRealloc, size_t{0}, nullptr, &block, kFile, 1L), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdMemRealloc, size_t{10}, nullptr, nullptr, kFile, 1L), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdMemRealloc, size_t{10}, nullptr, &block, kFile, 1L), Succeeds());
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(KemSdMemFree(nullptr, block, kFile, 2), 0);
}

TEST(PublicMem, ReallocWantsAPlaceAndASize)
{
    void* block = nullptr;
    ASSERT_EQ(KemSdMemAlloc(nullptr, nullptr, 100, &block, kFile, 1), 0);
    void* moved = junk();
    EXPECT_THAT(reported(KemSdMemRealloc, size_t{0}, block, &moved, kFile, 2L), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdMemRealloc, size_t{10}, block, nullptr, kFile, 2L), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(moved, junk());
    EXPECT_EQ(KemSdMemFree(nullptr, block, kFile, 3), 0);
}

TEST(PublicMem, ReallocWithoutMemoryLeavesTheOldBlockAndThePlace)
{
    void* block = nullptr;
    ASSERT_EQ(KemSdMemAlloc(nullptr, nullptr, 100, &block, kFile, 1), 0);
    memset(block, 'x', 100);
    void* moved = junk();
    {
        Failing memory(Call::realloc, ENOMEM);
        EXPECT_THAT(reported(KemSdMemRealloc, size_t{1000}, block, &moved, kFile, 2L), Fails(SDSTS_NO_MEMORY));
    }
    EXPECT_EQ(moved, junk());
    EXPECT_EQ(std::string(static_cast<char*>(block), 100), std::string(100, 'x'));
    EXPECT_EQ(KemSdMemFree(nullptr, block, kFile, 3), 0);
}

TEST(PublicMem, FreeOfNothingIsInvalid)
{
    EXPECT_THAT(reported(KemSdMemFree, nullptr, kFile, 1L), Fails(SDSTS_INVALID_PARAM));
}

TEST(PublicMem, ClearZeroesExactlyTheBytes)
{
    char text[] = "abcdef";
    EXPECT_THAT(reported(KemSdMemClear, text + 1, size_t{3}), Succeeds());
    EXPECT_EQ(memcmp(text, "a\0\0\0ef", 7), 0);
    EXPECT_THAT(reported(KemSdMemClear, text, size_t{0}), Succeeds());
    EXPECT_EQ(text[0], 'a');
    EXPECT_THAT(reported(KemSdMemClear, nullptr, size_t{3}), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdMemClear, nullptr, size_t{0}), Fails(SDSTS_INVALID_PARAM));
}

TEST(PublicMem, CopyIsSafeForOverlaps)
{
    char text[] = "abcdef";
    EXPECT_THAT(reported(KemSdMemCopy, text + 1, text, size_t{4}), Succeeds());
    EXPECT_STREQ(text, "aabcdf");
    EXPECT_THAT(reported(KemSdMemCopy, text, text + 2, size_t{0}), Succeeds());
    EXPECT_STREQ(text, "aabcdf");
    EXPECT_THAT(reported(KemSdMemCopy, nullptr, text, size_t{1}), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdMemCopy, text, nullptr, size_t{1}), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdMemCopy, nullptr, nullptr, size_t{0}), Fails(SDSTS_INVALID_PARAM));
}

TEST(AlignedMem, BlocksAre8192BytesOnAPage)
{
    void* buffer = nullptr;
    EXPECT_THAT(reported(KemSdAlignedMemAlloc, size_t{3}, &buffer), Succeeds());
    EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer) % static_cast<uintptr_t>(getpagesize()), 0u);
    EXPECT_GE(malloc_usable_size(buffer), 3 * kBlock);
    memset(buffer, 'x', 3 * kBlock);
    EXPECT_THAT(reported(KemSdAlignedMemFree, buffer), Succeeds());
}

TEST(AlignedMem, WantsAPlaceAndReportsTheSystemsError)
{
    EXPECT_THAT(reported(KemSdAlignedMemAlloc, size_t{1}, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdAlignedMemFree, nullptr), Fails(SDSTS_INVALID_PARAM));
    Failing memory(Call::valloc, EAGAIN);
    void* buffer = junk();
    EXPECT_THAT(reported(KemSdAlignedMemAlloc, size_t{1}, &buffer), Fails(SDSTS_ALIGNED_ALLOC, EAGAIN));
    EXPECT_EQ(buffer, nullptr);
}

TEST(AlignedMem, ByteCountBeyond64BitsIsNotAskedFor)
{
    resetCalls();
    void* buffer = junk();
    EXPECT_THAT(reported(KemSdAlignedMemAlloc, size_t{1} << 51, &buffer), Fails(SDSTS_ALIGNED_ALLOC, ENOMEM));
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(calls(Call::valloc), 0);
}

TEST(AlignedMem, ByteCountIsFormedIn64Bits)
{
    Failing memory(Call::valloc, ENOMEM); // 2^32 bytes, not 0
    void* buffer = nullptr;
    EXPECT_THAT(reported(KemSdAlignedMemAlloc, size_t{1} << 19, &buffer), Fails(SDSTS_ALIGNED_ALLOC, ENOMEM));
    EXPECT_EQ(memory.hits(), 1);
}

TEST(AlignedMem, ReallocToMoreBlocksCopiesTheOldOnes)
{
    void* buffer = numbered(2);
    EXPECT_THAT(reported(KemSdAlignedMemRealloc, size_t{2}, size_t{3}, &buffer), Succeeds());
    EXPECT_GE(malloc_usable_size(buffer), 3 * kBlock);
    expectNumbered(buffer, 2);
    EXPECT_EQ(KemSdAlignedMemFree(nullptr, buffer), 0);
}

TEST(AlignedMem, ReallocToFewerBlocksCopiesTheNewOnes)
{
    void* buffer = numbered(3);
    EXPECT_THAT(reported(KemSdAlignedMemRealloc, size_t{3}, size_t{1}, &buffer), Succeeds());
    expectNumbered(buffer, 1);
    EXPECT_EQ(KemSdAlignedMemFree(nullptr, buffer), 0);
}

TEST(AlignedMem, ReallocFormsTheOldByteCountIn32Bits)
{
    void* buffer = numbered(1);
    // 2^19 blocks wrap to no bytes, so nothing is copied.
    EXPECT_THAT(reported(KemSdAlignedMemRealloc, size_t{1} << 19, size_t{1}, &buffer), Succeeds());
    memset(buffer, 0, kBlock);
    EXPECT_THAT(reported(KemSdAlignedMemRealloc, (size_t{1} << 19) + 1, size_t{2}, &buffer), Succeeds());
    EXPECT_EQ(static_cast<char*>(buffer)[kBlock - 1], 0);
    EXPECT_EQ(KemSdAlignedMemFree(nullptr, buffer), 0);
}

TEST(AlignedMem, AFailedReallocKeepsTheOldBlock)
{
    void* buffer = numbered(1);
    void* const old = buffer;
    {
        Failing memory(Call::valloc, ENOMEM);
        EXPECT_THAT(reported(KemSdAlignedMemRealloc, size_t{1}, size_t{2}, &buffer),
                    Fails(SDSTS_ALIGNED_ALLOC, ENOMEM));
    }
    EXPECT_EQ(buffer, old);
    expectNumbered(buffer, 1);
    EXPECT_EQ(KemSdAlignedMemFree(nullptr, buffer), 0);
    EXPECT_THAT(reported(KemSdAlignedMemRealloc, size_t{1}, size_t{2}, nullptr), Fails(SDSTS_INVALID_PARAM));
}

TEST(AlignedMem, ReallocOfNothingFreesTheNewBlockAndReportsTheFailedFree)
{
    const long before = liveBlocks();
    void* buffer = nullptr;
    EXPECT_THAT(reported(KemSdAlignedMemRealloc, size_t{1}, size_t{2}, &buffer), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(liveBlocks(), before);
}

TEST(LockedMem, AllocLocksItsBlocks)
{
    resetCalls();
    Failing lock(Call::mlock, 0, 0); // the test's own limit on locked memory does not matter
    void* buffer = nullptr;
    EXPECT_THAT(reported(KemSdPhysMemAlloc, size_t{2}, &buffer), Succeeds());
    EXPECT_EQ(lock.hits(), 1);
    EXPECT_GE(malloc_usable_size(buffer), 2 * kBlock);
    EXPECT_THAT(reported(KemSdPhysMemFree, buffer), Succeeds());
    EXPECT_THAT(reported(KemSdPhysMemFree, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdPhysMemAlloc, size_t{2}, nullptr), Fails(SDSTS_INVALID_PARAM));
}

TEST(LockedMem, AllocReportsWhatFailed)
{
    const long before = liveBlocks();
    void* buffer = junk();
    {
        Failing memory(Call::valloc, ENOMEM);
        EXPECT_THAT(reported(KemSdPhysMemAlloc, size_t{2}, &buffer), Fails(SDSTS_PHYSMEM_ALLOC, ENOMEM));
    }
    {
        Failing lock(Call::mlock, EPERM);
        EXPECT_THAT(reported(KemSdPhysMemAlloc, size_t{2}, &buffer), Fails(SDSTS_MEMLOCK_PRIVILEGE, EPERM));
    }
    Failing lock(Call::mlock, ENOMEM);
    EXPECT_THAT(reported(KemSdPhysMemAlloc, size_t{2}, &buffer), Fails(SDSTS_MEMLOCK_FAILED, ENOMEM));
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(liveBlocks(), before);
}

TEST(LockedMem, AllocFormsItsByteCountIn32Bits)
{
    Failing lock(Call::mlock, 0, 0);
    void* buffer = nullptr;
    EXPECT_THAT(reported(KemSdPhysMemAlloc, size_t{1} << 19, &buffer), Succeeds()); // no bytes
    EXPECT_THAT(reported(KemSdPhysMemFree, buffer), Succeeds());
}

TEST(LockedMem, ReallocCopiesTheSmallerOfTheTwoSizes)
{
    Failing lock(Call::mlock, 0, 0);
    void* buffer = numbered(2);
    EXPECT_THAT(reported(KemSdPhysMemRealloc, size_t{2}, size_t{3}, &buffer), Succeeds());
    expectNumbered(buffer, 2);
    EXPECT_THAT(reported(KemSdPhysMemRealloc, size_t{3}, size_t{1}, &buffer), Succeeds());
    expectNumbered(buffer, 1);
    EXPECT_EQ(KemSdPhysMemFree(nullptr, buffer), 0);
}

TEST(LockedMem, AFailedReallocKeepsTheOldBlock)
{
    void* buffer = numbered(1);
    void* const old = buffer;
    {
        Failing memory(Call::valloc, ENOMEM);
        EXPECT_THAT(reported(KemSdPhysMemRealloc, size_t{1}, size_t{2}, &buffer), Fails(SDSTS_PHYSMEM_ALLOC, ENOMEM));
    }
    {
        Failing lock(Call::mlock, EPERM);
        EXPECT_THAT(reported(KemSdPhysMemRealloc, size_t{1}, size_t{2}, &buffer),
                    Fails(SDSTS_MEMLOCK_PRIVILEGE, EPERM));
    }
    EXPECT_EQ(buffer, old);
    expectNumbered(buffer, 1);
    EXPECT_EQ(KemSdPhysMemFree(nullptr, buffer), 0);
    EXPECT_THAT(reported(KemSdPhysMemRealloc, size_t{1}, size_t{2}, nullptr), Fails(SDSTS_INVALID_PARAM));
}

// In a child, because the new block stays behind.
TEST(LockedMem, ReallocOfNothingLeavesTheNewBlockAllocated)
{
    Failing lock(Call::mlock, 0, 0);
    const long before = liveBlocks();
    void* buffer = nullptr;
    EXPECT_THAT(reported(KemSdPhysMemRealloc, size_t{1}, size_t{2}, &buffer), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(liveBlocks(), before + 1);
    free(lastBlock());
}

TEST(LockedMem, LockAndUnlockReportWhatFailed)
{
    char byte;
    EXPECT_THAT(reported(KemSdMemLock, 1u, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdMemLock, 0u, &byte), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdMemUnlock, 1u, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdMemUnlock, 0u, &byte), Fails(SDSTS_INVALID_PARAM));
    {
        Failing lock(Call::mlock, EPERM);
        EXPECT_THAT(reported(KemSdMemLock, 1u, &byte), Fails(SDSTS_MEMLOCK_PRIVILEGE, 1));
    }
    {
        Failing lock(Call::mlock, ENOMEM);
        EXPECT_THAT(reported(KemSdMemLock, 1u, &byte), Fails(SDSTS_MEMLOCK_FAILED, ENOMEM));
    }
    Failing unlock(Call::munlock, EPERM);
    EXPECT_THAT(reported(KemSdMemUnlock, 1u, &byte), Fails(SDSTS_MEMUNLOCK_FAILED, EPERM));
}

TEST(LockedMem, LockAndUnlockCoverTheBlocks)
{
    void* buffer = numbered(1);
    EXPECT_THAT(reported(KemSdMemLock, 1u, buffer), Succeeds());
    EXPECT_THAT(reported(KemSdMemUnlock, 1u, buffer), Succeeds());
    // 2^19 blocks wrap to no bytes.
    EXPECT_THAT(reported(KemSdMemLock, 1u << 19, buffer), Succeeds());
    EXPECT_THAT(reported(KemSdMemUnlock, 1u << 19, buffer), Succeeds());
    EXPECT_EQ(KemSdAlignedMemFree(nullptr, buffer), 0);
}

TEST(PublicMem, EveryFailingRequestIsReportedAndLeavesNothing)
{
    Failing lock(Call::mlock, 0, 0);
    const long runs = sweepAllocationFailures([](long) {
        void* heap = nullptr;
        KEM_STS_T sts = KemSdMemAlloc(nullptr, nullptr, 100, &heap, kFile, 1);
        EXPECT_EQ(sts, heap ? 0 : SDSTS_NO_MEMORY);
        if (heap) KemSdMemFree(nullptr, heap, kFile, 2);
        void* aligned = nullptr;
        sts = KemSdAlignedMemAlloc(nullptr, 1, &aligned);
        EXPECT_EQ(sts, aligned ? 0 : SDSTS_ALIGNED_ALLOC);
        if (aligned) {
            void* const old = aligned;
            sts = KemSdAlignedMemRealloc(nullptr, 1, 2, &aligned);
            EXPECT_EQ(sts, aligned != old ? 0 : SDSTS_ALIGNED_ALLOC);
            KemSdAlignedMemFree(nullptr, aligned);
        }
        void* locked = nullptr;
        sts = KemSdPhysMemAlloc(nullptr, 1, &locked);
        EXPECT_EQ(sts, locked ? 0 : SDSTS_PHYSMEM_ALLOC);
        if (locked) KemSdPhysMemFree(nullptr, locked);
    });
    EXPECT_EQ(runs, 4);
}
