#include <gtest/gtest.h>
#include <kemsd/os.h>

#include <csignal>

TEST(TlsSlotDeath, ASecondInitWithoutTermAborts)
{
    EXPECT_EXIT((KemSdVupUtilTlsInit(), KemSdVupUtilTlsInit()), testing::KilledBySignal(SIGABRT),
                "sd/sdvuputil:[0-9]+: KemSdVupUtilTlsInit: "
                "Assertion `KemSdVupUtilGlobals\\(\\)->tlsKey == \\(\\(void \\*\\)0\\)' failed");
}

TEST(TlsSlotDeath, SetBeforeInitAborts)
{
    EXPECT_EXIT(KemSdVupUtilTlsSet(nullptr), testing::KilledBySignal(SIGABRT),
                "sd/sdvuputil:[0-9]+: KemSdVupUtilTlsSet: Assertion `key != \\(\\(void \\*\\)0\\)' failed");
}

TEST(TlsSlotDeath, SetAfterTermAborts)
{
    EXPECT_EXIT((KemSdVupUtilTlsInit(), KemSdVupUtilTlsTerm(), KemSdVupUtilTlsSet(nullptr)),
                testing::KilledBySignal(SIGABRT), "Assertion `key != ");
}
