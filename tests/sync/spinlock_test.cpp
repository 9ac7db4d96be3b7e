#include <gmock/gmock.h>
#include <kemsd/memory.h>
#include <kemsd/sync.h>

#include <array>
#include <cstring>
#include <functional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "sd/base/spinlock.h"
#include "support/failingcalls.h"
#include "sync/waiting.h"

using namespace kemsd::test;
using testing::ElementsAre;

// ---- What the locks ask of the allocator

namespace {

struct Request {
    std::string call;
    void* address; // the unique address, or the block released
    size_t alignment;
    size_t size;
    const char* file;
    long line;
};

std::vector<Request> requests;
int plannedStatus = 0; // answered instead of allocating

} // namespace

extern "C" {
int __real_ovMalloc(void* address, size_t size, void** block, const char* file, long line);
int __real_ovMallocAligned(void* address, size_t alignment, size_t size, void** block, const char* file, long line);
int __real_ovFree(void* block, const char* file, long line);
int __real_ovFreeAligned(void* block, size_t alignment, const char* file, long line);

int __wrap_ovMalloc(void* address, size_t size, void** block, const char* file, long line)
{
    requests.push_back({"ovMalloc", address, 0, size, file, line});
    return plannedStatus ? plannedStatus : __real_ovMalloc(address, size, block, file, line);
}

int __wrap_ovMallocAligned(void* address, size_t alignment, size_t size, void** block, const char* file, long line)
{
    requests.push_back({"ovMallocAligned", address, alignment, size, file, line});
    return plannedStatus ? plannedStatus : __real_ovMallocAligned(address, alignment, size, block, file, line);
}

int __wrap_ovFree(void* block, const char* file, long line)
{
    requests.push_back({"ovFree", block, 0, 0, file, line});
    return __real_ovFree(block, file, line);
}

int __wrap_ovFreeAligned(void* block, size_t alignment, const char* file, long line)
{
    requests.push_back({"ovFreeAligned", block, alignment, 0, file, line});
    return __real_ovFreeAligned(block, alignment, file, line);
}
}

namespace {

MATCHER_P6(Asks, call, address, alignment, size, file, line, "")
{
    return arg.call == call && arg.address == address && arg.alignment == static_cast<size_t>(alignment) &&
           arg.size == static_cast<size_t>(size) && strcmp(arg.file, file) == 0 && arg.line == line;
}

constexpr char kFile[] = "server/host.cpp";
constexpr long kLine = 4711;

// ---- The bytes of a lock

using Bytes = std::array<unsigned char, 256>;

Bytes bytesOf(const KEM_SPINLOCK_T& lock)
{
    Bytes bytes;
    memcpy(bytes.data(), &lock, bytes.size());
    return bytes;
}

// All bytes 0 but the given words.
class Picture {
public:
    template <class Word>
    Picture& with(size_t offset, Word word)
    {
        memcpy(bytes_.data() + offset, &word, sizeof word);
        return *this;
    }
    operator Bytes() const { return bytes_; }

private:
    Bytes bytes_{};
};

Bytes exchangePicture(int64_t slock, KEM_THDID_T owner, int16_t depth)
{
    return Picture().with(0, slock).with(8, int32_t{256}).with(24, owner).with(32, depth);
}

Bytes ticketPicture(int64_t ownerTicket, KEM_THDID_T owner, int16_t depth, int64_t grant, int64_t next)
{
    return Picture().with(64, ownerTicket).with(72, owner).with(80, depth).with(128, grant).with(192, next);
}

// ---- Fixtures

constexpr KEM_THDID_T kMe = 0x1122334455667788;
constexpr KEM_THDID_T kOther = 0x99;

class Spinlock : public testing::Test {
protected:
    void use(bool tickets)
    {
        KemSdSetHardwareAcceleration(tickets);
        memset(&lock, 0xA5, sizeof lock);
        KemSdSpinlockInit(nullptr, &lock);
        requests.clear();
        resetCalls();
    }
    void TearDown() override
    {
        plannedStatus = 0;
        KemSdSetHardwareAcceleration(FALSE);
        setSpinBound(kInitialSpinBound);
    }

    alignas(64) KEM_SPINLOCK_T lock;
};

class ExchangeLock : public Spinlock {
protected:
    void SetUp() override { use(false); }
};

class TicketLock : public Spinlock {
protected:
    void SetUp() override { use(true); }
};

// Rules that hold in both variants.
class AnyLock : public Spinlock, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override { use(GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(Variants, AnyLock, testing::Bool(),
                         [](const auto& parameter) { return parameter.param ? "ticket" : "exchange"; });

// The acquisitions that can wait: of each variant, with and without re-entry.
struct Passage {
    const char* name;
    bool tickets;
    void (*acquire)(KEM_PSPINLOCK_T, KEM_THDID_T);
    void (*release)(KEM_PSPINLOCK_T);

    friend std::ostream& operator<<(std::ostream& out, const Passage& passage) { return out << passage.name; }
};

constexpr Passage kPassages[] = {
    {"exchange", false, KemSdSpinlockAcquire, KemSdSpinlockRelease},
    {"exchangeNonReentrant", false, KemSdSpinlockAcquireNonReentrant, KemSdSpinlockReleaseNonReentrant},
    {"ticket", true, KemSdSpinlockAcquire, KemSdSpinlockRelease},
    {"ticketNonReentrant", true, KemSdSpinlockAcquireNonReentrant, KemSdSpinlockReleaseNonReentrant},
};

class Waiting : public Spinlock, public testing::WithParamInterface<Passage> {
protected:
    void SetUp() override { use(GetParam().tickets); }

    void whileOneWaits(const std::function<void(std::thread&)>& meanwhile)
    {
        kemsd::test::whileOneWaits([this] { GetParam().acquire(&lock, pthread_self()); },
                                   [this] { GetParam().release(&lock); }, meanwhile);
    }
};

INSTANTIATE_TEST_SUITE_P(Passages, Waiting, testing::ValuesIn(kPassages),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

} // namespace

// ---- Storage and state

TEST_F(ExchangeLock, AFreshOneIsOneFreeWordAndItsSpinTime) { EXPECT_EQ(bytesOf(lock), exchangePicture(1, 0, 0)); }

TEST_F(ExchangeLock, ItsBytesFollowAcquisitionReentryAndRelease)
{
    KemSdSpinlockAcquire(&lock, kMe);
    EXPECT_EQ(bytesOf(lock), exchangePicture(0, kMe, 1));
    KemSdSpinlockAcquire(&lock, kMe);
    EXPECT_EQ(bytesOf(lock), exchangePicture(0, kMe, 2));
    KemSdSpinlockRelease(&lock);
    EXPECT_EQ(bytesOf(lock), exchangePicture(0, kMe, 1));
    KemSdSpinlockRelease(&lock);
    EXPECT_EQ(bytesOf(lock), exchangePicture(1, 0, 0));
}

TEST_F(ExchangeLock, AcquisitionTakesTheLowestByteAndReleaseStoresTheWholeWord)
{
    lock.xchg.slock = 0x7F01;
    KemSdSpinlockAcquire(&lock, kMe);
    EXPECT_EQ(bytesOf(lock), exchangePicture(0x7F00, kMe, 1));
    KemSdSpinlockRelease(&lock);
    EXPECT_EQ(bytesOf(lock), exchangePicture(1, 0, 0));
}

TEST_F(ExchangeLock, AnyPositiveByteIsFree)
{
    lock.xchg.slock = 0x7F;
    KemSdSpinlockAcquire(&lock, kMe);
    EXPECT_EQ(bytesOf(lock), exchangePicture(0, kMe, 1));
    EXPECT_EQ(calls(Call::sched_yield), 0);
}

TEST_F(TicketLock, AFreshOneIsZero) { EXPECT_EQ(bytesOf(lock), Bytes{}); }

TEST_F(TicketLock, ItsBytesFollowAcquisitionReentryAndRelease)
{
    KemSdSpinlockAcquire(&lock, kMe);
    EXPECT_EQ(bytesOf(lock), ticketPicture(0, kMe, 1, 0, 1));
    KemSdSpinlockAcquire(&lock, kMe);
    EXPECT_EQ(bytesOf(lock), ticketPicture(0, kMe, 2, 0, 1));
    KemSdSpinlockRelease(&lock);
    EXPECT_EQ(bytesOf(lock), ticketPicture(0, kMe, 1, 0, 1));
    KemSdSpinlockRelease(&lock);
    EXPECT_EQ(bytesOf(lock), ticketPicture(0, 0, 0, 1, 1));
    KemSdSpinlockAcquire(&lock, kOther);
    EXPECT_EQ(bytesOf(lock), ticketPicture(1, kOther, 1, 1, 2));
    KemSdSpinlockRelease(&lock);
    EXPECT_EQ(bytesOf(lock), ticketPicture(1, 0, 0, 2, 2));
}

TEST_P(AnyLock, ThreeAcquisitionsNeedThreeReleases)
{
    std::vector<int16_t> depths;
    for (int i = 0; i < 3; ++i) KemSdSpinlockAcquire(&lock, kMe);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(KemSdSpinlockOwner(&lock, kMe));
        depths.push_back(KemSdGetSpinlockRefCount(&lock));
        KemSdSpinlockRelease(&lock);
    }
    EXPECT_THAT(depths, ElementsAre(3, 2, 1));
    EXPECT_EQ(KemSdGetSpinlockRefCount(&lock), 0);
    EXPECT_FALSE(KemSdSpinlockOwner(&lock, kMe));
    KemSdSpinlockAcquire(&lock, kOther); // free again
    EXPECT_TRUE(KemSdSpinlockOwner(&lock, kOther));
}

TEST_P(AnyLock, TheOwnerIsTheThreadThatHoldsIt)
{
    EXPECT_EQ(KemSdSpinlockOwner(&lock, 0), TRUE); // free
    KemSdSpinlockAcquire(&lock, kMe);
    EXPECT_EQ(KemSdSpinlockOwner(&lock, kMe), TRUE);
    EXPECT_EQ(KemSdSpinlockOwner(&lock, kOther), FALSE);
    EXPECT_EQ(KemSdSpinlockOwner(&lock, 0), FALSE);
}

TEST_P(AnyLock, RequesterId0OnAFreeLockCountsAsReentry)
{
    const Bytes before = bytesOf(lock);
    KemSdSpinlockAcquire(&lock, 0);
    EXPECT_EQ(KemSdGetSpinlockRefCount(&lock), 1);
    KemSdSpinlockAcquire(&lock, 0);
    EXPECT_EQ(KemSdGetSpinlockRefCount(&lock), 2);
    (GetParam() ? lock.ticket.sLockCount : lock.xchg.sLockCount) = 0;
    EXPECT_EQ(bytesOf(lock), before); // nothing else was touched
}

TEST_P(AnyLock, TermDoesNothing)
{
    KemSdSpinlockAcquire(&lock, kMe);
    const Bytes before = bytesOf(lock);
    KemSdSpinlockTerm(&lock);
    EXPECT_EQ(bytesOf(lock), before);
}

TEST_P(AnyLock, ReleaseDoesNotAskWhoHoldsIt)
{
    KemSdSpinlockAcquire(&lock, kOther);
    KemSdSpinlockRelease(&lock);
    EXPECT_FALSE(KemSdSpinlockOwner(&lock, kOther));
    KemSdSpinlockAcquire(&lock, kMe);
    EXPECT_TRUE(KemSdSpinlockOwner(&lock, kMe));
}

TEST_F(ExchangeLock, AnOverReleaseGoesBelow0AndTheNextReleaseStillFrees)
{
    KemSdSpinlockAcquire(&lock, kMe);
    for (int i = 0; i < 3; ++i) KemSdSpinlockRelease(&lock);
    EXPECT_EQ(bytesOf(lock), exchangePicture(1, 0, -2));
    KemSdSpinlockAcquire(&lock, kMe);
    EXPECT_EQ(bytesOf(lock), exchangePicture(0, kMe, 1));
}

TEST_F(TicketLock, AnOverReleaseLeavesItFree)
{
    KemSdSpinlockAcquire(&lock, kMe);
    for (int i = 0; i < 3; ++i) KemSdSpinlockRelease(&lock);
    EXPECT_EQ(bytesOf(lock), ticketPicture(0, 0, -2, 1, 1));
    KemSdSpinlockAcquire(&lock, kMe);
    EXPECT_EQ(bytesOf(lock), ticketPicture(1, kMe, 1, 1, 2));
}

// ---- Without re-entry

TEST_F(ExchangeLock, ANonReentrantAcquisitionByTheOwnerCountsAndReturns)
{
    KemSdSpinlockAcquireNonReentrant(&lock, kMe);
    EXPECT_EQ(bytesOf(lock), exchangePicture(0, kMe, 1));
    KemSdSpinlockAcquireNonReentrant(&lock, kMe);
    EXPECT_EQ(bytesOf(lock), exchangePicture(0, kMe, 2));
}

TEST_F(ExchangeLock, ANonReentrantReleaseFreesWhateverTheDepth)
{
    for (int i = 0; i < 3; ++i) KemSdSpinlockAcquire(&lock, kMe);
    KemSdSpinlockReleaseNonReentrant(&lock);
    EXPECT_EQ(bytesOf(lock), exchangePicture(1, 0, 2));
}

TEST_F(TicketLock, NonReentrantPassagesLeaveTheDepthAlone)
{
    lock.ticket.sLockCount = 7;
    KemSdSpinlockAcquireNonReentrant(&lock, kMe);
    EXPECT_EQ(bytesOf(lock), ticketPicture(0, kMe, 7, 0, 1));
    KemSdSpinlockReleaseNonReentrant(&lock);
    EXPECT_EQ(bytesOf(lock), ticketPicture(0, 0, 7, 1, 1));
    KemSdSpinlockAcquireNonReentrant(&lock, kOther);
    EXPECT_EQ(bytesOf(lock), ticketPicture(1, kOther, 7, 1, 2));
}

TEST_F(TicketLock, ANonReentrantAcquisitionDoesNotLookAtTheOwner)
{
    lock.ticket.thdMasterId = kMe; // of a free lock: no ticket is out
    KemSdSpinlockAcquireNonReentrant(&lock, kMe);
    EXPECT_EQ(bytesOf(lock), ticketPicture(0, kMe, 0, 0, 1));
}

// ---- Waiting

TEST_P(Waiting, ABoundOf1Yields)
{
    setSpinBound(1);
    whileOneWaits([](std::thread&) { EXPECT_TRUE(yields(3)); });
}

TEST_P(Waiting, ABoundOf0OrLessYields)
{
    setSpinBound(0);
    whileOneWaits([](std::thread&) {
        EXPECT_TRUE(yields(3));
        setSpinBound(-5);
        EXPECT_TRUE(yields(calls(Call::sched_yield) + 3));
    });
}

TEST_P(Waiting, BelowTheBoundNothingYields)
{
    setSpinBound(kNeverYield);
    whileOneWaits([](std::thread& waiter) { EXPECT_TRUE(keepsRunning(waiter)); });
    EXPECT_EQ(calls(Call::sched_yield), 0);
}

TEST_P(Waiting, TheDefaultBoundIsReached)
{
    whileOneWaits([](std::thread&) { EXPECT_TRUE(yields(2)); });
}

TEST_P(Waiting, AfterAYieldAFullRoundFollows)
{
    constexpr int64_t kBound = 200000;
    constexpr long kLeastOfARound = kBound / 2; // nanoseconds of processor time: no pause is that short
    setSpinBound(kBound);
    whileOneWaits([](std::thread& waiter) {
        EXPECT_TRUE(yields(1));
        clockid_t clock;
        ASSERT_EQ(pthread_getcpuclockid(waiter.native_handle(), &clock), 0);
        const long ran = nanoseconds(clock);
        const long before = calls(Call::sched_yield);
        EXPECT_TRUE(keepsRunning(waiter));
        const long made = calls(Call::sched_yield) - before;
        EXPECT_LE(made, (nanoseconds(clock) - ran) / kLeastOfARound + 1);
    });
}

TEST_P(Waiting, OnlyTheReentrantTicketPassageKeepsItsBound)
{
    setSpinBound(1);
    whileOneWaits([this](std::thread& waiter) {
        EXPECT_TRUE(yields(1));
        setSpinBound(kNeverYield);
        const long before = calls(Call::sched_yield);
        if (std::string(GetParam().name) == "ticket") {
            EXPECT_TRUE(yields(before + 10));
        } else {
            EXPECT_TRUE(keepsRunning(waiter));
            EXPECT_LE(calls(Call::sched_yield), before + 1); // one may have been under way
        }
    });
}

TEST_F(ExchangeLock, ALostRaceYieldsAtOnce)
{
    setSpinBound(kNeverYield);
    lock.xchg.slock = 0x80; // reads as free, but the byte taken out is not positive; after that it reads as held
    std::thread waiter([&] { KemSdSpinlockAcquire(&lock, kMe); });
    EXPECT_TRUE(yields(1));
    EXPECT_TRUE(keepsRunning(waiter));
    EXPECT_EQ(calls(Call::sched_yield), 1);
    sd::storeRelease(lock.xchg.slock, 1);
    waiter.join();
    EXPECT_EQ(calls(Call::sched_yield), 1);
    EXPECT_EQ(bytesOf(lock), exchangePicture(0, kMe, 1));
}

TEST_F(ExchangeLock, EveryLostRaceYields)
{
    setSpinBound(kNeverYield);
    lock.xchg.slock = 0x100; // the byte taken out is always 0
    std::thread waiter([&] { KemSdSpinlockAcquire(&lock, kMe); });
    EXPECT_TRUE(yields(20));
    sd::storeRelease(lock.xchg.slock, 1);
    waiter.join();
    EXPECT_EQ(bytesOf(lock), exchangePicture(0, kMe, 1));
}

TEST_F(ExchangeLock, AWaitBeginsWithWhatTheFirstAttemptMet)
{
    const auto yieldsOfWait = [&](sd::Try first, int64_t bound) {
        setSpinBound(bound);
        KemSdSpinlockInit(nullptr, &lock);
        resetCalls();
        sd::waitExchange(lock.xchg, first, kMe);
        EXPECT_EQ(bytesOf(lock), exchangePicture(0, kMe, 1));
        return calls(Call::sched_yield);
    };
    EXPECT_EQ(yieldsOfWait(sd::Try::RaceLost, kNeverYield), 1);
    EXPECT_EQ(yieldsOfWait(sd::Try::Held, kNeverYield), 0);
    EXPECT_EQ(yieldsOfWait(sd::Try::Held, 1), 0);
    EXPECT_EQ(yieldsOfWait(sd::Try::Held, 0), 1);
}

TEST_F(TicketLock, AWaitPausesOnceBeforeItYields)
{
    setSpinBound(0);
    const KEM_SDATOMIC_T ticket = sd::drawTicket(lock.ticket.lTicket);
    sd::waitTicket(lock.ticket, ticket, kMe);
    EXPECT_EQ(calls(Call::sched_yield), 0);
    EXPECT_EQ(bytesOf(lock), ticketPicture(0, kMe, 1, 0, 1));
}

// ---- Creation

TEST_F(ExchangeLock, CreationAsksFor256BytesUnderTheFixedTag)
{
    KEM_PSPINLOCK_T made = KemSdSpinlockCreate(nullptr, kFile, kLine);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(bytesOf(*made), exchangePicture(1, 0, 0));
    KemSdSpinlockDestroy(nullptr, made, kFile, kLine);
    EXPECT_THAT(requests, ElementsAre(Asks("ovMalloc", nullptr, 0, 256, "sd/sdsync", 617),
                                      Asks("ovFree", made, 0, 0, "sd/sdsync", 661)));
}

TEST_F(TicketLock, CreationAsksForAlignedBytesUnderTheCallersTag)
{
    KEM_PSPINLOCK_T made = KemSdSpinlockCreate(nullptr, kFile, kLine);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(bytesOf(*made), Bytes{});
    KemSdSpinlockDestroy(nullptr, made, "server/end.cpp", 12);
    EXPECT_THAT(requests, ElementsAre(Asks("ovMallocAligned", nullptr, 64, 256, kFile, kLine),
                                      Asks("ovFreeAligned", made, 64, 0, "server/end.cpp", 12)));
}

TEST_F(TicketLock, CreatedOnesStandOnCacheLinesOfTheirOwn)
{
    std::vector<KEM_PSPINLOCK_T> made;
    for (int i = 0; i < 16; ++i) made.push_back(KemSdSpinlockCreate(nullptr, kFile, kLine));
    for (KEM_PSPINLOCK_T one : made) {
        EXPECT_EQ(reinterpret_cast<uintptr_t>(one) % 64, 0u);
        KemSdSpinlockDestroy(nullptr, one, kFile, kLine);
    }
}

TEST_P(AnyLock, AnyStatusOfTheAllocatorGivesNull)
{
    for (const int status : {SDSTS_NO_MEMORY, SDSTS_INVALID_PARAM, -1}) {
        plannedStatus = status;
        EXPECT_EQ(KemSdSpinlockCreate(nullptr, kFile, kLine), nullptr) << status;
    }
}

TEST_P(AnyLock, CreationWithoutMemoryGivesNullAndLeavesNothingBehind)
{
    const long asked = sweepAllocationFailures([](long) {
        KEM_PSPINLOCK_T made = KemSdSpinlockCreate(nullptr, kFile, kLine);
        EXPECT_EQ(made == nullptr, allocationFailed());
        KemSdSpinlockDestroy(nullptr, made, kFile, kLine);
    });
    EXPECT_GE(asked, 1);
}

TEST_P(AnyLock, TheContextIsLeftAlone)
{
    KEM_SDCTX_T context{};
    context.sts = -77001;
    context.osRetCode = -77002;
    KemSdSpinlockDestroy(&context, KemSdSpinlockCreate(&context, kFile, kLine), kFile, kLine);
    plannedStatus = SDSTS_NO_MEMORY;
    EXPECT_EQ(KemSdSpinlockCreate(&context, kFile, kLine), nullptr);
    KemSdSpinlockInit(&context, &lock);
    EXPECT_EQ(context.sts, -77001);
    EXPECT_EQ(context.osRetCode, -77002);
}

TEST_P(AnyLock, CreationSetsUpTheLockEnvironmentAndInitialisationAloneDoesNot)
{
    const Failing oneProcessor(Call::sysconf, 0, 1); // nothing to measure
    KemSyncEnvTerm(nullptr);
    KemSdSpinlockInit(nullptr, &lock);
    EXPECT_EQ(KEM_SDSYNC_ENV_INITED, 0);
    plannedStatus = SDSTS_NO_MEMORY; // it comes first, whatever becomes of the lock
    KemSdSpinlockCreate(nullptr, kFile, kLine);
    EXPECT_EQ(KEM_SDSYNC_ENV_INITED, 1);
}

TEST_P(AnyLock, DestroyingNullDoesNothing)
{
    KemSdSpinlockDestroy(nullptr, nullptr, kFile, kLine);
    EXPECT_TRUE(requests.empty());
}

TEST_P(AnyLock, ThereIsNoListAndNoCountOfLocks)
{
    KEM_PSPINLOCK_T made = KemSdSpinlockCreate(nullptr, kFile, kLine);
    EXPECT_EQ(KemSdGetFirstAllocSpinlock(), nullptr);
    EXPECT_EQ(KemSdGetSpinlockCount(), 0);
    lTotalNumOfSpinlocks = 5000000000; // the server's to maintain
    EXPECT_EQ(KemSdGetSpinlockCount(), 5000000000);
    lTotalNumOfSpinlocks = 0;
    KemSdSpinlockDestroy(nullptr, made, kFile, kLine);
}

TEST_F(Spinlock, TheSwitchIsStoredAndReadAtEveryCall)
{
    use(false);
    lock.xchg.sLockCount = 3;
    lock.ticket.sLockCount = 9;
    EXPECT_EQ(KemSdGetSpinlockRefCount(&lock), 3);
    KemSdSetHardwareAcceleration(TRUE);
    EXPECT_EQ(bSdHardwareAcceleration, TRUE);
    EXPECT_EQ(KemSdGetSpinlockRefCount(&lock), 9);
    KemSdSetHardwareAcceleration(FALSE);
    EXPECT_EQ(bSdHardwareAcceleration, FALSE);
    EXPECT_EQ(KemSdGetSpinlockRefCount(&lock), 3);
}
