#include <gtest/gtest.h>
#include <kemsd/context.h>

#include "sd/base/settings.h"

namespace {

int attached;
void* attachedContext;
KEM_BOOL_T attachedNew;

void attach(void* tctxp, KEM_BOOL_T bNewThread)
{
    ++attached;
    attachedContext = tctxp;
    attachedNew = bNewThread;
}

KEM_TIME_T* statisticsWrite;
KEM_TIME_T* statisticsRead;
KEM_USHORT_T statisticsCount;

void statistics(KEM_TIME_T* write, KEM_TIME_T* read, KEM_USHORT_T count)
{
    statisticsWrite = write;
    statisticsRead = read;
    statisticsCount = count;
}

int guarded;
void guard() { ++guarded; }

} // namespace

TEST(Settings, StartOff)
{
    EXPECT_FALSE(bSdSetMemoryManager);
    EXPECT_FALSE(bTurnOffMemDealloc);
    EXPECT_FALSE(gbDisableMmap);
    EXPECT_FALSE(gbMemProtect);
    EXPECT_FALSE(KemSdIsFailoverMode());
    EXPECT_EQ(file_locking_mode, 1);
    EXPECT_FALSE(bSdHardwareAcceleration);
}

TEST(Settings, DeallocationOptionNeedsTheMemoryManagerAtThatMoment)
{
    KemSdSetMemDeallocOption();
    EXPECT_FALSE(bTurnOffMemDealloc);
    KemSdSetMemoryManager(TRUE);
    EXPECT_FALSE(bTurnOffMemDealloc) << "not turned on retroactively";
    KemSdSetMemDeallocOption();
    EXPECT_TRUE(bTurnOffMemDealloc);
}

TEST(Settings, SettersStoreWhatTheyAreGiven)
{
    KemSdSetMmapAllocCfg(TRUE);
    EXPECT_TRUE(gbDisableMmap);
    KemSdSetMemProtectCfg(TRUE);
    EXPECT_TRUE(gbMemProtect);
    KemSdSetFailoverModeFlag(TRUE);
    EXPECT_TRUE(KemSdIsFailoverMode());
    KemSdSetFailoverModeFlag(FALSE);
    EXPECT_FALSE(KemSdIsFailoverMode());
    KemSdSetFileLockingMode(KEM_FILE_LOCK_NOTSET);
    EXPECT_EQ(file_locking_mode, 3);
    KemSdSetFileLockingMode(KEM_FILE_LOCK_MANDATORY);
    EXPECT_EQ(file_locking_mode, 0);
}

TEST(Settings, AppFolderNameIsAppUntilSetAndKeepsThePointer)
{
    EXPECT_STREQ(KemSdAppFolderName(), "app");
    char name[] = "zebra";
    KemSdSetAppFolderName(name);
    EXPECT_EQ(KemSdAppFolderName(), name);
}

TEST(Hooks, DoNothingWhileNotRegistered)
{
    KemSdUkrThreadAttach(nullptr, TRUE);
    KemSdUkrThreadDetach(nullptr, TRUE);
    KemSdUpdateHMStatistics(nullptr, nullptr, 0);
    KemSdGetLeaseGuard();
    EXPECT_EQ(attached, 0);
}

TEST(Hooks, AttachAndDetachForwardBothArguments)
{
    int context;
    KemSdSetUkrThreadAttachFunction(attach);
    KemSdUkrThreadAttach(&context, TRUE);
    EXPECT_EQ(attached, 1);
    EXPECT_EQ(attachedContext, &context);
    EXPECT_EQ(attachedNew, TRUE);
    KemSdUkrThreadDetach(&context, FALSE);
    EXPECT_EQ(attached, 1) << "detach has a registration of its own";
    KemSdSetUkrThreadDetachFunction(attach);
    KemSdUkrThreadDetach(&context, FALSE);
    EXPECT_EQ(attached, 2);
    EXPECT_EQ(attachedNew, FALSE);
}

TEST(Hooks, RegisteringNullKeepsAnEarlierRegistration)
{
    KemSdSetUkrThreadAttachFunction(attach);
    KemSdSetUkrThreadAttachFunction(nullptr);
    KemSdUkrThreadAttach(nullptr, TRUE);
    EXPECT_EQ(attached, 1);
    KemSdSetUkrThreadDetachFunction(attach);
    KemSdSetUkrThreadDetachFunction(nullptr);
    KemSdUkrThreadDetach(nullptr, TRUE);
    EXPECT_EQ(attached, 2);
    KemSdSetHMStatisticsFunction(statistics);
    KemSdSetHMStatisticsFunction(nullptr);
    KEM_TIME_T write = 0, read = 0;
    KemSdUpdateHMStatistics(&write, &read, 3);
    EXPECT_EQ(statisticsWrite, &write);
    EXPECT_EQ(statisticsRead, &read);
    EXPECT_EQ(statisticsCount, 3);
}

TEST(Hooks, NullLeaseGuardSwitchesTheGuardOff)
{
    KemSdSetLeaseGuardAccessFunction(guard);
    KemSdGetLeaseGuard();
    EXPECT_EQ(guarded, 1);
    KemSdSetLeaseGuardAccessFunction(nullptr);
    KemSdGetLeaseGuard();
    EXPECT_EQ(guarded, 1);
}

TEST(Bits, CountIsTheNumberOfSetBits)
{
    EXPECT_EQ(KemSdBitCountGet(0), 0u);
    EXPECT_EQ(KemSdBitCountGet(0x80000001), 2u);
    EXPECT_EQ(KemSdBitCountGet(0xFFFFFFFF), 32u);
}

TEST(Bits, PositionsAreTakenModulo32)
{
    KEM_BIT32_T word = 0;
    KemSdBitPosSet(33, &word);
    EXPECT_EQ(word, 2u);
    EXPECT_EQ(KemSdBitPosIsSet(1, word), TRUE);
    EXPECT_EQ(KemSdBitPosIsSet(65, word), TRUE);
    EXPECT_EQ(KemSdBitPosIsSet(0, word), FALSE);
    KemSdBitPosSet(0, &word);
    EXPECT_EQ(word, 3u) << "bits already set stay";
}
