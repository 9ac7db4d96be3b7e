#include <gtest/gtest.h>
#include <kemsd/sync.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <string>

#include "support/child.h"
#include "support/failingcalls.h"

using namespace kemsd::test;

namespace {

struct Setting {
    const char* name;
    int64_t* value;
    int64_t initial;
};

constexpr Setting kSettings[] = {
    {"KEM_SPINLOCK_MAXSPINLOOPS", &KEM_SPINLOCK_MAXSPINLOOPS, 1},
    {"KEM_SPINLOCK_MAXSPINYIELDS", &KEM_SPINLOCK_MAXSPINYIELDS, 1},
    {"KEM_SPINLOCK_MAXWAITLOOPS", &KEM_SPINLOCK_MAXWAITLOOPS, 0},
    {"KEM_RWLOCK_RMAXSPINLOOPS", &KEM_RWLOCK_RMAXSPINLOOPS, 1},
    {"KEM_RWLOCK_RMAXSPINYIELDS", &KEM_RWLOCK_RMAXSPINYIELDS, 0},
    {"KEM_RWLOCK_RMAXWAITLOOPS", &KEM_RWLOCK_RMAXWAITLOOPS, 1},
    {"KEM_RWLOCK_WMAXSPINLOOPS", &KEM_RWLOCK_WMAXSPINLOOPS, 1},
    {"KEM_RWLOCK_WMAXSPINYIELDS", &KEM_RWLOCK_WMAXSPINYIELDS, 0},
    {"KEM_RWLOCK_WMAXWAITLOOPS", &KEM_RWLOCK_WMAXWAITLOOPS, 1},
};

constexpr char kDisplay[] = "KEM_DISPLAY_LOCKCONFIG";

const int64_t markBeforeMain = KEM_SDSYNC_ENV_INITED;

// Starts without any of the variables, in a process that has not looked at its environment yet, and leaves the settings
// as the process found them.
class LockEnvironment : public testing::Test {
protected:
    void SetUp() override
    {
        KemSyncEnvTerm(nullptr);
        for (const Setting& setting : kSettings) unsetenv(setting.name);
        unsetenv(kDisplay);
    }
    void TearDown() override
    {
        for (const Setting& setting : kSettings) *setting.value = setting.initial;
        KEM_SDSYNC_BUSYSPIN_UPPERLIMIT = 20000;
    }

    static void given(const char* name, const char* text) { setenv(name, text, 1); }

    // What one variable makes of its setting.
    static int64_t read(const Setting& setting, const char* text)
    {
        given(setting.name, text);
        KemSyncEnvTerm(nullptr);
        KemSyncEnvInit(nullptr);
        return *setting.value;
    }
};

// On one processor nothing is measured.
class SpinEnvironment : public LockEnvironment {
    Failing oneProcessor{Call::sysconf, 0, 1};
};

// Several processors, so that there is something to measure, and no time to settle.
class MeasuringEnvironment : public LockEnvironment {
protected:
    void TearDown() override
    {
        KemSdSetFailoverModeFlag(FALSE);
        LockEnvironment::TearDown();
    }

private:
    Failing processors{Call::sysconf, 0, 4};
    Failing noSleep{Call::nanosleep, EINTR};
};

const Setting& named(const std::string& name)
{
    for (const Setting& setting : kSettings)
        if (setting.name == name) return setting;
    ADD_FAILURE() << name;
    return kSettings[0];
}

} // namespace

TEST_F(SpinEnvironment, TheSettingsStartWithTheirInitialValues)
{
    for (const Setting& setting : kSettings) EXPECT_EQ(*setting.value, setting.initial) << setting.name;
    EXPECT_EQ(markBeforeMain, 0);
    EXPECT_EQ(bSdHardwareAcceleration, FALSE);
    EXPECT_EQ(lTotalNumOfSpinlocks, 0);
    EXPECT_EQ(KEM_SDSYNC_BUSYSPIN_UPPERLIMIT, 20000);
}

TEST_F(SpinEnvironment, AbsentVariablesLeaveTheSettingsUnchanged)
{
    int64_t value = 100;
    for (const Setting& setting : kSettings) *setting.value = ++value;
    KemSyncEnvInit(nullptr);
    value = 100;
    for (const Setting& setting : kSettings) EXPECT_EQ(*setting.value, ++value) << setting.name;
    EXPECT_EQ(KEM_SDSYNC_ENV_INITED, 1);
}

TEST_F(SpinEnvironment, EveryVariableSetsItsOwnSetting)
{
    int64_t value = 5000000000;
    for (const Setting& setting : kSettings) given(setting.name, std::to_string(++value).c_str());
    KemSyncEnvInit(nullptr);
    value = 5000000000;
    for (const Setting& setting : kSettings) EXPECT_EQ(*setting.value, ++value) << setting.name;
}

TEST_F(SpinEnvironment, SpinlockSpinLoopsBelow1Become1)
{
    EXPECT_EQ(read(named("KEM_SPINLOCK_MAXSPINLOOPS"), "-4"), 1);
    EXPECT_EQ(read(named("KEM_SPINLOCK_MAXSPINLOOPS"), "0"), 1);
    EXPECT_EQ(read(named("KEM_SPINLOCK_MAXSPINLOOPS"), "2"), 2);
}

TEST_F(SpinEnvironment, SpinlockSpinYieldsBelow1Become1)
{
    EXPECT_EQ(read(named("KEM_SPINLOCK_MAXSPINYIELDS"), "-4"), 1);
    EXPECT_EQ(read(named("KEM_SPINLOCK_MAXSPINYIELDS"), "0"), 1);
    EXPECT_EQ(read(named("KEM_SPINLOCK_MAXSPINYIELDS"), "2"), 2);
}

TEST_F(SpinEnvironment, SpinlockWaitLoopsAreTakenAsTheyStand)
{
    EXPECT_EQ(read(named("KEM_SPINLOCK_MAXWAITLOOPS"), "-4"), -4);
    EXPECT_EQ(read(named("KEM_SPINLOCK_MAXWAITLOOPS"), "0"), 0);
    EXPECT_EQ(read(named("KEM_SPINLOCK_MAXWAITLOOPS"), "4"), 4);
    EXPECT_EQ(KEM_SPINLOCK_MAXSPINLOOPS, 1);
}

TEST_F(SpinEnvironment, AGivenWaitCountRaisesANegativeSpinCountTo0)
{
    KEM_SPINLOCK_MAXSPINLOOPS = -3;
    KemSyncEnvInit(nullptr);
    EXPECT_EQ(KEM_SPINLOCK_MAXSPINLOOPS, -3); // only a given one
    EXPECT_EQ(read(named("KEM_SPINLOCK_MAXWAITLOOPS"), "-4"), -4);
    EXPECT_EQ(KEM_SPINLOCK_MAXSPINLOOPS, 0);
}

TEST_F(SpinEnvironment, NegativeReaderWriterYieldsBecome0)
{
    for (const char* name : {"KEM_RWLOCK_RMAXSPINYIELDS", "KEM_RWLOCK_WMAXSPINYIELDS"}) {
        EXPECT_EQ(read(named(name), "-4"), 0) << name;
        EXPECT_EQ(read(named(name), "0"), 0) << name;
        EXPECT_EQ(read(named(name), "3"), 3) << name;
    }
}

TEST_F(SpinEnvironment, NegativeReaderWriterLoopsBecome1)
{
    for (const char* name : {"KEM_RWLOCK_RMAXSPINLOOPS", "KEM_RWLOCK_RMAXWAITLOOPS", "KEM_RWLOCK_WMAXSPINLOOPS",
                             "KEM_RWLOCK_WMAXWAITLOOPS"}) {
        EXPECT_EQ(read(named(name), "-4"), 1) << name;
        EXPECT_EQ(read(named(name), "0"), 0) << name;
        EXPECT_EQ(read(named(name), "3"), 3) << name;
    }
}

TEST_F(SpinEnvironment, TextCountsAsItsLeadingDecimalNumber)
{
    EXPECT_EQ(read(named("KEM_RWLOCK_WMAXSPINLOOPS"), "abc"), 0);
    EXPECT_EQ(read(named("KEM_RWLOCK_WMAXSPINLOOPS"), ""), 0);
    EXPECT_EQ(read(named("KEM_RWLOCK_WMAXSPINLOOPS"), " 12ab"), 12);
    EXPECT_EQ(read(named("KEM_RWLOCK_WMAXSPINLOOPS"), "0x10"), 0);
    EXPECT_EQ(read(named("KEM_RWLOCK_WMAXSPINLOOPS"), "010"), 10);
    EXPECT_EQ(read(named("KEM_SPINLOCK_MAXSPINLOOPS"), "abc"), 1);
}

TEST_F(SpinEnvironment, ASecondInitialisationChangesNothing)
{
    given("KEM_RWLOCK_RMAXSPINLOOPS", "11");
    KemSyncEnvInit(nullptr);
    given("KEM_RWLOCK_RMAXSPINLOOPS", "12");
    given(kDisplay, "");
    resetCalls();
    const Ended ended = inChild([] {
        KemSyncEnvInit(nullptr);
        return calls(Call::getenv) == 0 ? 0 : 1;
    });
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.out, "");
    KemSyncEnvInit(nullptr);
    EXPECT_EQ(KEM_RWLOCK_RMAXSPINLOOPS, 11);
}

TEST_F(SpinEnvironment, AfterTerminationTheEnvironmentIsReadAgain)
{
    given("KEM_RWLOCK_RMAXSPINLOOPS", "11");
    KemSyncEnvInit(nullptr);
    given("KEM_RWLOCK_RMAXSPINLOOPS", "12");
    KemSyncEnvTerm(nullptr);
    EXPECT_EQ(KEM_SDSYNC_ENV_INITED, 0);
    EXPECT_EQ(KEM_RWLOCK_RMAXSPINLOOPS, 11); // values stay until then
    KemSyncEnvInit(nullptr);
    EXPECT_EQ(KEM_SDSYNC_ENV_INITED, 1);
    EXPECT_EQ(KEM_RWLOCK_RMAXSPINLOOPS, 12);
}

TEST_F(SpinEnvironment, AnyNonZeroMarkCountsAsInitialised)
{
    given("KEM_RWLOCK_RMAXSPINLOOPS", "11");
    KEM_SDSYNC_ENV_INITED = -1;
    KemSyncEnvInit(nullptr);
    EXPECT_EQ(KEM_SDSYNC_ENV_INITED, -1);
    EXPECT_EQ(KEM_RWLOCK_RMAXSPINLOOPS, 1);
}

TEST_F(SpinEnvironment, NoVariableIsReadMoreThanOnce)
{
    resetCalls();
    KemSyncEnvInit(nullptr);
    EXPECT_EQ(calls(Call::getenv), 10);
}

TEST_F(SpinEnvironment, TheContextIsLeftAlone)
{
    KEM_SDCTX_T context{};
    context.sts = -77001;
    context.osRetCode = -77002;
    KemSyncEnvInit(&context);
    KemSyncEnvTerm(&context);
    EXPECT_EQ(context.sts, -77001);
    EXPECT_EQ(context.osRetCode, -77002);
}

TEST_F(SpinEnvironment, NothingIsPrintedUnasked)
{
    const Ended ended = inChild([] {
        KemSyncEnvInit(nullptr);
        return 0;
    });
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.out, "");
    EXPECT_EQ(ended.err, "");
}

TEST_F(SpinEnvironment, AnEmptyDisplayVariablePrintsTheNineSettings)
{
    given(kDisplay, "");
    const Ended ended = inChild([] {
        KemSyncEnvInit(nullptr);
        return 0;
    });
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.out,
              "KEM_SPINLOCK_MAXSPINLOOPS=1\n"
              "KEM_SPINLOCK_MAXSPINYIELDS=1\n"
              "KEM_SPINLOCK_MAXWAITLOOPS=0\n"
              "KEM_RWLOCK_RMAXSPINLOOPS=1\n"
              "KEM_RWLOCK_RMAXSPINYIELDS=0\n"
              "KEM_RWLOCK_RMAXWAITLOOPS=1\n"
              "KEM_RWLOCK_WMAXSPINLOOPS=1\n"
              "KEM_RWLOCK_WMAXSPINYIELDS=0\n"
              "KEM_RWLOCK_WMAXWAITLOOPS=1\n");
    EXPECT_EQ(ended.err, "");
}

TEST_F(SpinEnvironment, ThePrintedValuesAreTheBoundedOnes)
{
    int value = 10;
    for (const Setting& setting : kSettings) given(setting.name, std::to_string(++value).c_str());
    given("KEM_SPINLOCK_MAXSPINLOOPS", "-4");
    given("KEM_SPINLOCK_MAXWAITLOOPS", "-4");
    given("KEM_RWLOCK_RMAXSPINYIELDS", "-4");
    given(kDisplay, "no");
    const Ended ended = inChild([] {
        KemSyncEnvInit(nullptr);
        return 0;
    });
    EXPECT_EQ(ended.out,
              "KEM_SPINLOCK_MAXSPINLOOPS=1\n"
              "KEM_SPINLOCK_MAXSPINYIELDS=12\n"
              "KEM_SPINLOCK_MAXWAITLOOPS=-4\n"
              "KEM_RWLOCK_RMAXSPINLOOPS=14\n"
              "KEM_RWLOCK_RMAXSPINYIELDS=0\n"
              "KEM_RWLOCK_RMAXWAITLOOPS=16\n"
              "KEM_RWLOCK_WMAXSPINLOOPS=17\n"
              "KEM_RWLOCK_WMAXSPINYIELDS=18\n"
              "KEM_RWLOCK_WMAXWAITLOOPS=19\n");
}

// ---- The calibration is its first step

TEST_F(SpinEnvironment, InitialisationCalibratesTheSpinBoundOnce)
{
    KemSyncEnvInit(nullptr);
    EXPECT_EQ(KEM_SDSYNC_BUSYSPIN_UPPERLIMIT, 1); // one processor
    KEM_SDSYNC_BUSYSPIN_UPPERLIMIT = 77;
    KemSyncEnvInit(nullptr);
    EXPECT_EQ(KEM_SDSYNC_BUSYSPIN_UPPERLIMIT, 77);
    KemSyncEnvTerm(nullptr);
    KemSyncEnvInit(nullptr);
    EXPECT_EQ(KEM_SDSYNC_BUSYSPIN_UPPERLIMIT, 1);
}

TEST_F(MeasuringEnvironment, AFailedCalibrationGoesUnsaidAndTheTunablesAreRead)
{
    given("KEM_RWLOCK_RMAXSPINLOOPS", "11");
    Failing noPipe(Call::pipe, EMFILE);
    KemSyncEnvInit(nullptr);
    EXPECT_EQ(noPipe.hits(), 1);
    EXPECT_EQ(KEM_SDSYNC_BUSYSPIN_UPPERLIMIT, 20000);
    EXPECT_EQ(KEM_RWLOCK_RMAXSPINLOOPS, 11);
    EXPECT_EQ(KEM_SDSYNC_ENV_INITED, 1);
}

TEST_F(MeasuringEnvironment, AnInterruptedSettlingDoesNotMatter)
{
    KEM_SDSYNC_BUSYSPIN_UPPERLIMIT = -1;
    KemSyncEnvInit(nullptr);
    EXPECT_GE(KEM_SDSYNC_BUSYSPIN_UPPERLIMIT, 0);
}

namespace {

std::atomic<long> locksMade{0};
std::atomic<long> variablesReadMeanwhile{0};

// The server's guard: runs in the measuring threads too, and its first lock is a lock like any other.
void lockCreatingGuard()
{
    KEM_PSPINLOCK_T lock = KemSdSpinlockCreate(nullptr, __FILE__, __LINE__);
    KemSdSpinlockDestroy(nullptr, lock, __FILE__, __LINE__);
    locksMade += lock != nullptr;
    variablesReadMeanwhile += calls(Call::getenv) != 0;
}

} // namespace

TEST_F(MeasuringEnvironment, ALockCreatedOnTheWayDoesNotSetItUpAgain)
{
    KemSdSetLeaseGuardAccessFunction(lockCreatingGuard);
    KemSdSetFailoverModeFlag(TRUE);
    resetCalls();
    KemSyncEnvInit(nullptr);
    EXPECT_GE(locksMade, 40000);          // by both measuring threads and by the one that closes the pipes
    EXPECT_EQ(variablesReadMeanwhile, 0); // the calibration comes first
    EXPECT_EQ(calls(Call::getenv), 10);
    EXPECT_EQ(calls(Call::pthread_create), 2);
}
