// A node that ends while its thread holds the lock, as debug builds watch it.

#include <gtest/gtest.h>
#include <kemsd/sync.h>

#ifndef NDEBUG

namespace {

class RWLockDeathTest : public testing::Test {
protected:
    void SetUp() override
    {
        KEM_SDSYNC_ENV_INITED = 1; // no calibration
        ASSERT_EQ(KemRWLockInit(nullptr, 0, &lock, TRUE, RWLOCK_HASHSET_EXPLOCK), 0);
    }
    void TearDown() override
    {
        EXPECT_EQ(KemSdEndRW(nullptr, &mine, &lock), 0);
        EXPECT_EQ(KemRWLockFreeQNodes(&mine), 0);
    }
    KEM_RWLOCK_T lock;
    KEM_SYNCCTX_T mine{};
};

} // namespace

TEST_F(RWLockDeathTest, AThreadThatEndsWhileItReadsStopsTheProcess)
{
    EXPECT_EQ(KemSdStartRead(nullptr, &mine, &lock), 0);
    EXPECT_DEATH(KemRWLockFreeQNodes(&mine), "the node of a held lock");
}

TEST_F(RWLockDeathTest, AThreadThatEndsWhileItWritesStopsTheProcess)
{
    EXPECT_EQ(KemSdStartWrite(nullptr, &mine, &lock), 0);
    EXPECT_DEATH(KemRWLockFreeQNodes(&mine), "the node of a held lock");
}

#endif
