// The lock order, as debug builds watch it.

#include <gtest/gtest.h>

#include "sd/memsys/memsys.h"

using namespace sd::memsys;

TEST(LockOrder, TableSaysWhatMayBeTakenInside)
{
    EXPECT_TRUE(mayTake(kHeapPoolLock, kHeapLock));
    EXPECT_TRUE(mayTake(kHeapPoolLock, kRecordLock));
    EXPECT_TRUE(mayTake(kShortPoolLock, kRecordLock));
    EXPECT_FALSE(mayTake(kShortPoolLock, kHeapLock));
    for (const OV_ULONG_T held : {kRecordLock, kBucketLock, kHeapLock})
        for (OV_ULONG_T wanted = kRecordLock; wanted <= kHeapLock; ++wanted) EXPECT_FALSE(mayTake(held, wanted));
}

#ifndef NDEBUG

TEST(LockOrderDeathTest, OrderOfTheTablePasses)
{
    noteTaken(kHeapPoolLock);
    noteTaken(kHeapLock);
    noteGiven(kHeapLock);
    noteTaken(kRecordLock);
    noteGiven(kHeapPoolLock);
    noteGiven(kRecordLock);
    noteTaken(kShortPoolLock);
    noteTaken(kRecordLock);
    noteGiven(kRecordLock);
    noteGiven(kShortPoolLock);
    noteTaken(kBucketLock);
    noteGiven(kBucketLock);
}

TEST(LockOrderDeathTest, PoolInsideAHeapStopsTheProcess)
{
    noteTaken(kHeapLock);
    EXPECT_DEATH(noteTaken(kHeapPoolLock), "lock order");
    noteGiven(kHeapLock);
}

TEST(LockOrderDeathTest, TwoHeapsStopTheProcess)
{
    noteTaken(kHeapLock);
    EXPECT_DEATH(noteTaken(kHeapLock), "lock order");
    noteGiven(kHeapLock);
}

TEST(LockOrderDeathTest, EveryHeldLockCounts)
{
    noteTaken(kHeapPoolLock);
    noteTaken(kRecordLock);
    EXPECT_DEATH(noteTaken(kHeapLock), "lock order") << "allowed under the pool's lock, not under the record's";
    noteGiven(kRecordLock);
    noteGiven(kHeapPoolLock);
}

TEST(LockOrderDeathTest, GivingALockThatIsNotHeldStopsTheProcess) { EXPECT_DEATH(noteGiven(kRecordLock), "not taken"); }

TEST(LockOrderDeathTest, LockedScopesAreWatched)
{
    KEM_SPINLOCK_T heapWord{}, poolWord{};
    heapWord.xchg.slock = 1;
    poolWord.xchg.slock = 1;
    OV_SPINLOCK_T heap{&heapWord, kHeapLock}, pool{&poolWord, kHeapPoolLock};
    const Locked held(heap);
    EXPECT_DEATH(Locked wrong(pool), "lock order");
}

#endif
