// Leases and the pause, step by step: one thread plays all parts. What the others do meanwhile is scripted into the
// calls on the events and the lock, which are caught on their way; so every wait ends at once and every order is the
// one that is meant.

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "file/pausefixture.h"
#include "support/failingcalls.h"
#include "support/openfile.h"
#include "support/report.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

using Deed = std::function<void()>;

struct Wait {
    KEM_PEVENTHDL_T event;
    KEM_LONG_T milliseconds;

    bool operator==(const Wait&) const = default;
};

constexpr size_t kMostWaits = 100;
constexpr KEM_LONG_T kOverAtOnce = -2;

std::vector<Wait> waits;    // so far
std::deque<Deed> meanwhile; // what happens during the waits to come, one deed each
Deed beforeEventIsSet;      // once, before the next setting of an event
Deed beforeStartWrite;      // once
std::vector<KEM_PEVENTHDL_T> cleared;

void doOnce(Deed& deed)
{
    if (!deed) return;
    const Deed now = std::move(deed);
    deed = nullptr;
    now();
}

} // namespace

extern "C" {
KEM_FUNC_M __real_KemSdEventWait(KEM_PSDCTX_T, KEM_PEVENTHDL_T, KEM_LONG_T);
KEM_FUNC_M __real_KemSdEventSet(KEM_PSDCTX_T, KEM_PEVENTHDL_T);
KEM_FUNC_M __real_KemSdEventClear(KEM_PSDCTX_T, KEM_PEVENTHDL_T);
KEM_STS_T __real_KemSdStartWrite(void*, KEM_SYNCCTX_T*, void*);

// The time has passed, or the event was cleared during the deed.
KEM_FUNC_M __wrap_KemSdEventWait(KEM_PSDCTX_T ctx, KEM_PEVENTHDL_T event, KEM_LONG_T milliseconds)
{
    waits.push_back({event, milliseconds});
    if (meanwhile.empty()) {
        if (event->iReady == 1 || waits.size() > kMostWaits) {
            ADD_FAILURE() << "a wait that nobody ends";
            std::exit(1);
        }
    } else {
        Deed deed = std::move(meanwhile.front());
        meanwhile.pop_front();
        doOnce(deed);
    }
    return __real_KemSdEventWait(ctx, event, kOverAtOnce);
}

KEM_FUNC_M __wrap_KemSdEventSet(KEM_PSDCTX_T ctx, KEM_PEVENTHDL_T event)
{
    doOnce(beforeEventIsSet);
    return __real_KemSdEventSet(ctx, event);
}

KEM_FUNC_M __wrap_KemSdEventClear(KEM_PSDCTX_T ctx, KEM_PEVENTHDL_T event)
{
    cleared.push_back(event);
    return __real_KemSdEventClear(ctx, event);
}

KEM_STS_T __wrap_KemSdStartWrite(void* owner, KEM_SYNCCTX_T* sync, void* lock)
{
    doOnce(beforeStartWrite);
    return __real_KemSdStartWrite(owner, sync, lock);
}
}

namespace {

void nothing() {}

class Pause : public testing::Test {
protected:
    Pause()
    {
        waits.clear();
        cleared.clear();
    }
    ~Pause() override { EXPECT_TRUE(meanwhile.empty()) << "waits that did not come"; }

    void expectNoLease(const ServerThread& thread)
    {
        EXPECT_FALSE(thread.counted());
        EXPECT_EQ(service_.leases(), 0);
    }
    void expectLease(const ServerThread& thread)
    {
        EXPECT_TRUE(thread.counted());
        EXPECT_EQ(service_.leases(), 1);
    }
    void setTime(long seconds) { clock_.emplace(Call::time, 0, seconds); }

    Service service_;
    OV_PAUSE_INTERFACE_T& pause_ = service_.pause();
    ServerThread pauser_{service_}, writer_{service_}, other_{service_};
    const Wait drain_{&pause_.writeIOEvtHdl, 1000};
    const Wait barrier_{&pause_.pauseWriteIOEvtHdl, 2000};
    std::optional<Failing> clock_;   // the time of day stands still
    std::optional<Failing> refused_; // begun by a deed
};

} // namespace

// ---- Leases without a pause

TEST_F(Pause, ALeaseIsCountedAndTakesNoLock)
{
    writer_.sd = {kUntouchedSts, kUntouchedOs, 0, 0, 0, 0};
    EXPECT_EQ(KemSdGetWriteIOLease(&writer_.context), 0);
    expectLease(writer_);
    EXPECT_EQ(KemSdReleaseWriteIOLease(&writer_.context), 0);
    expectNoLease(writer_);
    EXPECT_EQ(writer_.sync.pUsed, nullptr);
    EXPECT_EQ(writer_.sync.pFree, nullptr);
    EXPECT_TRUE(waits.empty());
    EXPECT_TRUE(cleared.empty());
    EXPECT_EQ(writer_.sd.sts, kUntouchedSts);
    EXPECT_EQ(writer_.sd.osRetCode, kUntouchedOs);
}

TEST_F(Pause, LeasesOfSeveralThreadsAddUp)
{
    EXPECT_EQ(KemSdGetWriteIOLease(&writer_.context), 0);
    EXPECT_EQ(KemSdGetWriteIOLease(&other_.context), 0);
    EXPECT_EQ(service_.leases(), 2);
    EXPECT_EQ(KemSdReleaseWriteIOLease(&writer_.context), 0);
    expectLease(other_);
    EXPECT_EQ(KemSdReleaseWriteIOLease(&other_.context), 0);
}

TEST_F(Pause, GivingBackWithoutALeaseChangesNothing)
{
    ASSERT_EQ(KemSdGetWriteIOLease(&other_.context), 0);
    EXPECT_EQ(KemSdReleaseWriteIOLease(&writer_.context), 0);
    expectLease(other_);
    EXPECT_TRUE(cleared.empty());
    EXPECT_EQ(KemSdReleaseWriteIOLease(&other_.context), 0);
}

TEST_F(Pause, GivingBackNeverCountsBelowZero)
{
    writer_.context.bBusyWriteIO = TRUE;
    EXPECT_EQ(KemSdReleaseWriteIOLease(&writer_.context), 0);
    expectNoLease(writer_);
}

TEST_F(Pause, WithoutAThreadsContextsThereIsNothingToWorkOn)
{
    ServerThread noService(service_), noSync(service_);
    noService.context.svctxp = nullptr;
    noSync.context.pSyncCtx = nullptr;
    char data[1] = {};
    KEM_INT_T written = 77;
    KEM_UINT_T moved = 77;
    for (OV_THDCTX_T* context : {static_cast<OV_THDCTX_T*>(nullptr), &noService.context, &noSync.context}) {
        EXPECT_EQ(KemSdGetWriteIOLease(context), SDSTS_INVALID_PARAM);
        EXPECT_EQ(KemSdReleaseWriteIOLease(context), SDSTS_INVALID_PARAM);
        EXPECT_EQ(KemSdPauseWriteIO(context, 0), SDSTS_INVALID_PARAM);
        EXPECT_EQ(KemSdUnpauseWriteIO(context), SDSTS_INVALID_PARAM);
        EXPECT_EQ(KemSdLeasedFileWrite(context, 1, data, 1, &written), SDSTS_INVALID_PARAM);
        EXPECT_EQ(KemSdLeasedFilePWrite(context, 1, data, 0, 1, &moved, nullptr), SDSTS_INVALID_PARAM);
    }
    EXPECT_EQ(service_.leases(), 0);
    EXPECT_FALSE(service_.paused());
    EXPECT_EQ(written, 77);
    EXPECT_EQ(moved, 77u);
}

// ---- Making a pause

TEST_F(Pause, IsInForceAtOnceWhenNoLeaseIsOut)
{
    setTime(1000);
    EXPECT_EQ(KemSdPauseWriteIO(&pauser_.context, 60), 0);
    EXPECT_TRUE(service_.paused());
    EXPECT_EQ(pause_.pauseWriteIOEvtHdl.iReady, 1);
    EXPECT_EQ(pause_.writeIOEvtHdl.iReady, 0);
    EXPECT_EQ(pause_.lPauseTimeout, 60);
    EXPECT_EQ(pause_.lPauseStartTime, 1000);
    EXPECT_EQ(pauser_.lockMode(), 0);
    EXPECT_TRUE(waits.empty());
}

TEST_F(Pause, ASecondOneIsRefusedAndChangesNothing)
{
    setTime(1000);
    ASSERT_EQ(KemSdPauseWriteIO(&pauser_.context, 60), 0);
    setTime(2000);
    other_.sd = {kUntouchedSts, kUntouchedOs, 0, 0, 0, 0};
    EXPECT_EQ(KemSdPauseWriteIO(&other_.context, 5), SDSTS_WRITEIO_PAUSED);
    EXPECT_TRUE(service_.paused());
    EXPECT_EQ(pause_.lPauseTimeout, 60);
    EXPECT_EQ(pause_.lPauseStartTime, 1000);
    EXPECT_EQ(other_.sd.sts, kUntouchedSts);
    EXPECT_EQ(other_.sync.pUsed, nullptr) << "the lock was not asked for";
}

TEST_F(Pause, ASecondOneThatPassedTheFirstLookIsRefusedUnderTheLock)
{
    beforeStartWrite = [this] { EXPECT_EQ(KemSdPauseWriteIO(&pauser_.context, 60), 0); };
    EXPECT_EQ(KemSdPauseWriteIO(&other_.context, 5), SDSTS_WRITEIO_PAUSED);
    EXPECT_TRUE(service_.paused());
    EXPECT_EQ(pause_.lPauseTimeout, 60);
    EXPECT_EQ(other_.lockMode(), 0);
}

TEST_F(Pause, WaitsInSlicesOfASecondForTheLastLease)
{
    ASSERT_EQ(KemSdGetWriteIOLease(&writer_.context), 0);
    meanwhile = {nothing, [this] {
                     EXPECT_TRUE(service_.paused());
                     EXPECT_EQ(pause_.pauseWriteIOEvtHdl.iReady, 1);
                     EXPECT_EQ(pauser_.lockMode(), 65535);
                     EXPECT_EQ(KemSdReleaseWriteIOLease(&writer_.context), 0);
                 }};
    EXPECT_EQ(KemSdPauseWriteIO(&pauser_.context, 0), 0);
    EXPECT_EQ(waits, (std::vector<Wait>{drain_, drain_}));
    expectNoLease(writer_);
    EXPECT_TRUE(service_.paused());
}

TEST_F(Pause, WaitsOnWhileAnotherLeaseIsOut)
{
    ASSERT_EQ(KemSdGetWriteIOLease(&writer_.context), 0);
    ASSERT_EQ(KemSdGetWriteIOLease(&other_.context), 0);
    meanwhile = {[this] {
                     EXPECT_EQ(KemSdReleaseWriteIOLease(&writer_.context), 0);
                     EXPECT_TRUE(cleared.empty()) << "not the last lease";
                 },
                 [this] { EXPECT_EQ(KemSdReleaseWriteIOLease(&other_.context), 0); }};
    EXPECT_EQ(KemSdPauseWriteIO(&pauser_.context, 0), 0);
    EXPECT_EQ(waits, (std::vector<Wait>{drain_, drain_}));
}

TEST_F(Pause, LooksAtTheCountAgainAfterSettingItsEvent)
{
    ASSERT_EQ(KemSdGetWriteIOLease(&writer_.context), 0);
    beforeEventIsSet = [this] { // of the barrier
        beforeEventIsSet = [this] { EXPECT_EQ(KemSdReleaseWriteIOLease(&writer_.context), 0); };
    };
    EXPECT_EQ(KemSdPauseWriteIO(&pauser_.context, 0), 0);
    EXPECT_EQ(cleared, std::vector{&pause_.writeIOEvtHdl}) << "cleared before it was set";
    EXPECT_TRUE(waits.empty());
}

TEST_F(Pause, IsGivenUpByATerminatingServerWithTheFlagLeftUp)
{
    ASSERT_EQ(KemSdGetWriteIOLease(&writer_.context), 0);
    meanwhile = {[this] { service_.terminate(); }};
    EXPECT_EQ(KemSdPauseWriteIO(&pauser_.context, 7), -1);
    EXPECT_TRUE(service_.paused());
    EXPECT_EQ(pause_.pauseWriteIOEvtHdl.iReady, 1);
    EXPECT_EQ(pause_.lPauseTimeout, 0);
    EXPECT_EQ(pause_.lPauseStartTime, 0);
    EXPECT_EQ(pauser_.lockMode(), 0);
    EXPECT_EQ(KemSdReleaseWriteIOLease(&writer_.context), 0);
}

TEST_F(Pause, OfATerminatingServerSucceedsWhenNoLeaseIsOut)
{
    service_.terminate();
    EXPECT_EQ(KemSdPauseWriteIO(&pauser_.context, 0), 0);
}

TEST_F(Pause, WithoutMemoryForItsPlaceAtTheLockIsNotMade)
{
    Failing none(Call::malloc, ENOMEM);
    EXPECT_EQ(KemSdPauseWriteIO(&pauser_.context, 0), SDSTS_NO_MEMORY);
    EXPECT_FALSE(service_.paused());
    EXPECT_EQ(pause_.pauseWriteIOEvtHdl.iReady, 0);
}

TEST_F(Pause, WhoseBarrierCannotBeSetIsNotMade)
{
    Failing refused(Call::pthread_mutex_lock, EINVAL);
    EXPECT_EQ(KemSdPauseWriteIO(&pauser_.context, 0), SDSTS_EVENT_SET);
    EXPECT_EQ(pauser_.sd.osRetCode, EINVAL);
    EXPECT_FALSE(service_.paused());
    EXPECT_EQ(pauser_.lockMode(), 0);
}

TEST_F(Pause, WhoseEventsFailLeavesTheFlagUp)
{
    ASSERT_EQ(KemSdGetWriteIOLease(&writer_.context), 0);
    {
        Failing refused = Failing::nth(Call::pthread_mutex_lock, 2, EINVAL); // after the barrier's
        EXPECT_EQ(KemSdPauseWriteIO(&pauser_.context, 0), SDSTS_EVENT_SET);
    }
    EXPECT_TRUE(service_.paused());
    EXPECT_EQ(pauser_.lockMode(), 0);
    EXPECT_TRUE(waits.empty());
    ASSERT_EQ(KemSdUnpauseWriteIO(&pauser_.context), 0);

    meanwhile = {[this] { refused_.emplace(Call::pthread_mutex_lock, EINVAL); }};
    EXPECT_EQ(KemSdPauseWriteIO(&pauser_.context, 0), SDSTS_EVENT_WAIT);
    refused_.reset();
    EXPECT_TRUE(service_.paused());
    EXPECT_EQ(pauser_.lockMode(), 0);
    EXPECT_EQ(KemSdReleaseWriteIOLease(&writer_.context), 0);
}

TEST_F(Pause, WithoutATimeReportsTheClocksFailureAndIsInForce)
{
    Failing noTime(Call::time, EFAULT);
    EXPECT_EQ(KemSdPauseWriteIO(&pauser_.context, 0), SDSTS_TIME_FAILED);
    EXPECT_EQ(pauser_.sd.osRetCode, EFAULT);
    EXPECT_TRUE(service_.paused());
    EXPECT_EQ(pauser_.lockMode(), 0);
}

// ---- Ending a pause

TEST_F(Pause, IsEndedByUnpausing)
{
    ASSERT_EQ(KemSdPauseWriteIO(&pauser_.context, 0), 0);
    EXPECT_EQ(KemSdUnpauseWriteIO(&other_.context), 0);
    EXPECT_FALSE(service_.paused());
    EXPECT_EQ(pause_.pauseWriteIOEvtHdl.iReady, 0);
    EXPECT_EQ(other_.lockMode(), 0);
    EXPECT_EQ(KemSdPauseWriteIO(&pauser_.context, 0), 0) << "the next one";
}

TEST_F(Pause, UnpausingWithoutAPauseDoesNothing)
{
    EXPECT_EQ(KemSdUnpauseWriteIO(&pauser_.context), 0);
    EXPECT_TRUE(cleared.empty());
}

TEST_F(Pause, IsEndedEvenWithoutMemoryForAPlaceAtTheLock)
{
    ASSERT_EQ(KemSdPauseWriteIO(&pauser_.context, 0), 0);
    Failing none(Call::malloc, ENOMEM);
    EXPECT_EQ(KemSdUnpauseWriteIO(&other_.context), 0);
    EXPECT_GE(none.hits(), 1);
    EXPECT_FALSE(service_.paused());
    EXPECT_EQ(pause_.pauseWriteIOEvtHdl.iReady, 0);
}

// ---- Leases under a pause

TEST_F(Pause, AWriterWaitsAtTheBarrierUntilThePauseIsEnded)
{
    ASSERT_EQ(KemSdPauseWriteIO(&pauser_.context, 0), 0);
    meanwhile = {nothing, [this] {
                     expectNoLease(writer_);
                     EXPECT_EQ(writer_.lockMode(), 1);
                     EXPECT_EQ(KemSdUnpauseWriteIO(&pauser_.context), 0);
                 }};
    EXPECT_EQ(KemSdGetWriteIOLease(&writer_.context), 0);
    EXPECT_EQ(waits, (std::vector<Wait>{barrier_, barrier_}));
    expectLease(writer_);
    EXPECT_EQ(writer_.lockMode(), 0);
}

TEST_F(Pause, OneThatOutlivesItsTimeIsEndedByAWaitingWriter)
{
    setTime(1000);
    ASSERT_EQ(KemSdPauseWriteIO(&pauser_.context, 5), 0);
    meanwhile = {[this] { setTime(1004); },
                 [this] {
                     EXPECT_TRUE(service_.paused()) << "a second is left";
                     setTime(1005);
                 },
                 [this] { EXPECT_FALSE(service_.paused()); }};
    EXPECT_EQ(KemSdGetWriteIOLease(&writer_.context), 0);
    EXPECT_EQ(waits.size(), 3u);
    expectLease(writer_);
    EXPECT_EQ(writer_.lockMode(), 0);
}

TEST_F(Pause, OneWithoutATimeLimitIsNotEndedByAWriter)
{
    setTime(1000);
    ASSERT_EQ(KemSdPauseWriteIO(&pauser_.context, 0), 0);
    meanwhile = {[this] { setTime(1000000); },
                 [this] {
                     EXPECT_TRUE(service_.paused());
                     EXPECT_EQ(KemSdUnpauseWriteIO(&pauser_.context), 0);
                 }};
    EXPECT_EQ(KemSdGetWriteIOLease(&writer_.context), 0);
}

TEST_F(Pause, AWriterThatCannotTellTheTimeGoesOnWaiting)
{
    setTime(1000);
    ASSERT_EQ(KemSdPauseWriteIO(&pauser_.context, 5), 0);
    meanwhile = {[this] { setTime(-1); },
                 [this] {
                     EXPECT_TRUE(service_.paused());
                     setTime(1005);
                 },
                 nothing};
    EXPECT_EQ(KemSdGetWriteIOLease(&writer_.context), 0);
}

TEST_F(Pause, OfATerminatingServerIsEndedByAWaitingWriter)
{
    ASSERT_EQ(KemSdPauseWriteIO(&pauser_.context, 0), 0);
    meanwhile = {[this] { service_.terminate(); }};
    EXPECT_EQ(KemSdGetWriteIOLease(&writer_.context), 0);
    EXPECT_FALSE(service_.paused());
    expectLease(writer_);
    EXPECT_EQ(writer_.lockMode(), 0);
}

TEST_F(Pause, ThatBeganAgainMakesTheWriterBackOffOnceMore)
{
    ASSERT_EQ(KemSdPauseWriteIO(&pauser_.context, 0), 0);
    cleared.clear();
    meanwhile = {[this] { KemSdEventClear(nullptr, &pause_.pauseWriteIOEvtHdl); }, // the flag is up again
                 [this] {
                     expectNoLease(writer_);
                     EXPECT_EQ(KemSdUnpauseWriteIO(&pauser_.context), 0);
                 }};
    EXPECT_EQ(KemSdGetWriteIOLease(&writer_.context), 0);
    EXPECT_EQ(cleared, (std::vector{&pause_.writeIOEvtHdl, &pause_.pauseWriteIOEvtHdl, &pause_.writeIOEvtHdl,
                                    &pause_.pauseWriteIOEvtHdl}));
    expectLease(writer_);
}

TEST_F(Pause, BackingOffWakesThePausingThread)
{
    ASSERT_EQ(KemSdPauseWriteIO(&pauser_.context, 0), 0);
    ASSERT_EQ(KemSdEventSet(nullptr, &pause_.writeIOEvtHdl), 0);
    meanwhile = {[this] {
        EXPECT_EQ(pause_.writeIOEvtHdl.iReady, 0);
        EXPECT_EQ(KemSdUnpauseWriteIO(&pauser_.context), 0);
    }};
    EXPECT_EQ(KemSdGetWriteIOLease(&writer_.context), 0);
}

TEST_F(Pause, AWriterWithoutMemoryForItsPlaceAtTheLockGetsNoLease)
{
    ASSERT_EQ(KemSdPauseWriteIO(&pauser_.context, 0), 0);
    Failing none(Call::malloc, ENOMEM);
    EXPECT_EQ(KemSdGetWriteIOLease(&writer_.context), SDSTS_NO_MEMORY);
    expectNoLease(writer_);
    EXPECT_TRUE(waits.empty());
}

TEST_F(Pause, AWriterWhoseWaitFailsGetsNoLease)
{
    ASSERT_EQ(KemSdPauseWriteIO(&pauser_.context, 0), 0);
    meanwhile = {[this] { refused_.emplace(Call::pthread_mutex_lock, EINVAL); }};
    EXPECT_EQ(KemSdGetWriteIOLease(&writer_.context), SDSTS_EVENT_WAIT);
    EXPECT_EQ(writer_.sd.osRetCode, EINVAL);
    expectNoLease(writer_);
    EXPECT_EQ(writer_.lockMode(), 0);
    EXPECT_TRUE(service_.paused());
}

TEST_F(Pause, GivingBackWithoutALeaseStillWakesThePausingThread)
{
    ASSERT_EQ(KemSdPauseWriteIO(&pauser_.context, 0), 0);
    ASSERT_EQ(KemSdEventSet(nullptr, &pause_.writeIOEvtHdl), 0);
    EXPECT_EQ(KemSdReleaseWriteIOLease(&writer_.context), 0);
    EXPECT_EQ(pause_.writeIOEvtHdl.iReady, 0);
    Failing refused(Call::pthread_mutex_lock, EINVAL);
    EXPECT_EQ(KemSdReleaseWriteIOLease(&writer_.context), SDSTS_EVENT_CLEAR);
    EXPECT_EQ(writer_.sd.osRetCode, EINVAL);
}

// ---- Leased writes

namespace {

Deed duringWrite; // runs as the lease guard, the first thing in a write

class LeasedWrite : public Pause {
protected:
    LeasedWrite()
    {
        KemSdSetLeaseGuardAccessFunction([] { doOnce(duringWrite); });
        KemSdSetFailoverModeFlag(TRUE);
    }
    ~LeasedWrite() override { KemSdSetFailoverModeFlag(FALSE); }

    KEM_STS_T write() { return KemSdLeasedFileWrite(&writer_.context, file_, text_, 3, &written_); }
    KEM_STS_T pwrite() { return KemSdLeasedFilePWrite(&writer_.context, file_, text_, 6, 3, &moved_, &error_); }

    TempDir dir_;
    OpenFile file_{dir_.write("file", "0123456789")};
    char text_[4] = "abc";
    KEM_INT_T written_ = 77;
    KEM_UINT_T moved_ = 77;
    KEM_OSRETCODE_T error_ = 77;
};

} // namespace

TEST_F(LeasedWrite, HoldsALeaseWhileItWrites)
{
    int seen = 0;
    const auto look = [&] {
        ++seen;
        expectLease(writer_);
    };
    duringWrite = look;
    EXPECT_EQ(write(), 0);
    expectNoLease(writer_);
    EXPECT_EQ(written_, 3);
    duringWrite = look;
    EXPECT_EQ(pwrite(), 0);
    expectNoLease(writer_);
    EXPECT_EQ(moved_, 3u);
    EXPECT_EQ(error_, 0);
    EXPECT_EQ(dir_.read("file"), "abc345abc9");
    EXPECT_EQ(seen, 2);
}

TEST_F(LeasedWrite, ReportsTheWritesFailureAndGivesTheLeaseBack)
{
    Failing full(Call::write, ENOSPC);
    EXPECT_EQ(write(), SDSTS_DISK_FULL);
    EXPECT_EQ(writer_.sd.osRetCode, ENOSPC);
    EXPECT_EQ(written_, -1);
    expectNoLease(writer_);
    Failing broken(Call::pwrite, EIO);
    EXPECT_EQ(pwrite(), SDSTS_FILE_WRITE);
    EXPECT_EQ(writer_.sd.osRetCode, EIO);
    EXPECT_EQ(error_, EIO);
    EXPECT_EQ(moved_, 0u);
    expectNoLease(writer_);
}

TEST_F(LeasedWrite, WaitsWhileAPauseIsInForce)
{
    ASSERT_EQ(KemSdPauseWriteIO(&pauser_.context, 0), 0);
    const Deed end = [this] {
        EXPECT_EQ(dir_.read("file"), "0123456789");
        EXPECT_EQ(KemSdUnpauseWriteIO(&pauser_.context), 0);
    };
    meanwhile = {nothing, end};
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(dir_.read("file"), "abc3456789");
}

TEST_F(LeasedWrite, WithoutALeaseWritesNothing)
{
    ASSERT_EQ(KemSdPauseWriteIO(&pauser_.context, 0), 0);
    resetCalls();
    Failing none(Call::malloc, ENOMEM);
    EXPECT_EQ(write(), SDSTS_NO_MEMORY);
    EXPECT_EQ(pwrite(), SDSTS_NO_MEMORY);
    EXPECT_EQ(written_, 77);
    EXPECT_EQ(moved_, 77u);
    EXPECT_EQ(calls(Call::write) + calls(Call::pwrite), 0);
}

TEST_F(LeasedWrite, WakesAPausingThreadAndKeepsTheWritesOutcomeInTheContext)
{
    ASSERT_EQ(KemSdEventSet(nullptr, &pause_.writeIOEvtHdl), 0);
    duringWrite = [this] { pause_.bPauseWriteIO = TRUE; };
    Failing full(Call::write, ENOSPC);
    EXPECT_EQ(write(), SDSTS_DISK_FULL);
    EXPECT_EQ(pause_.writeIOEvtHdl.iReady, 0);
    EXPECT_EQ(writer_.sd.sts, SDSTS_DISK_FULL);
    EXPECT_EQ(writer_.sd.osRetCode, ENOSPC);
}

TEST_F(LeasedWrite, DoesNotReportAWakingThatFails)
{
    duringWrite = [this] { pause_.bPauseWriteIO = TRUE; };
    Failing refused(Call::pthread_mutex_lock, EINVAL);
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(refused.hits(), 1);
    EXPECT_EQ(writer_.sd.sts, 0);
    expectNoLease(writer_);
}
