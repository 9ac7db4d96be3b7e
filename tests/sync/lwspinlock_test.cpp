#include <gmock/gmock.h>
#include <kemsd/os.h>
#include <kemsd/sync.h>

#include <array>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "sd/base/atomic.h"
#include "support/failingcalls.h"
#include "sync/waiting.h"

using namespace kemsd::test;
using testing::ElementsAre;

namespace {

// ---- The bytes of a lock

using Bytes = std::array<unsigned char, 64>;

Bytes bytesOf(const KEM_LWSPINLOCK_T& lock)
{
    Bytes bytes;
    memcpy(bytes.data(), &lock, bytes.size());
    return bytes;
}

// The given words over what was there before.
class Picture {
public:
    explicit Picture(unsigned char before = 0) { bytes_.fill(before); }
    template <class Word>
    Picture& with(size_t offset, Word word)
    {
        memcpy(bytes_.data() + offset, &word, sizeof word);
        return *this;
    }
    operator Bytes() const { return bytes_; }

private:
    Bytes bytes_;
};

constexpr unsigned char kJunk = 0xA5;

Bytes exchangePicture(int64_t slock, int16_t depth, KEM_THDID_T owner)
{
    return Picture().with(0, slock).with(8, int32_t{256}).with(12, depth).with(16, owner);
}

// Initialisation sets the four words alone.
Bytes ticketPicture(int64_t grant, int64_t next, uint64_t depth, KEM_THDID_T owner)
{
    return Picture(kJunk).with(0, grant).with(8, next).with(16, depth).with(24, owner);
}

KEM_THDID_T me()
{
    KEM_THDID_T id = 0;
    KemSdThreadIdGet(nullptr, &id);
    return id;
}

// ---- Fixtures

class LWSpinlock : public testing::Test {
protected:
    void use(bool tickets)
    {
        KemSdSetHardwareAcceleration(tickets);
        memset(&lock, kJunk, sizeof lock);
        KemSdLWSpinlockInit(&lock);
        resetCalls();
    }
    void TearDown() override
    {
        KemSdSetHardwareAcceleration(FALSE);
        setSpinBound(kInitialSpinBound);
    }

    uint64_t depth() const { return bSdHardwareAcceleration ? lock.ticket.count : uint64_t(lock.xchg.count); }

    KEM_LWSPINLOCK_T lock;
};

class LWExchangeLock : public LWSpinlock {
protected:
    void SetUp() override { use(false); }
};

class LWTicketLock : public LWSpinlock {
protected:
    void SetUp() override { use(true); }
};

// Rules that hold in both variants.
class AnyLWLock : public LWSpinlock, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override { use(GetParam()); }

    void whileOneWaits(const std::function<void(std::thread&)>& meanwhile)
    {
        kemsd::test::whileOneWaits([this] { KemSdLWSpinlockAcquire(&lock); }, [this] { KemSdLWSpinlockRelease(&lock); },
                                   meanwhile);
    }
};

INSTANTIATE_TEST_SUITE_P(Variants, AnyLWLock, testing::Bool(),
                         [](const auto& parameter) { return parameter.param ? "ticket" : "exchange"; });

} // namespace

// ---- Storage and state

TEST_F(LWExchangeLock, AFreshOneIsOneFreeWordAndItsSpinTime) { EXPECT_EQ(bytesOf(lock), exchangePicture(1, 0, 0)); }

TEST_F(LWTicketLock, AFreshOneHasFourZeroWordsAndTheRestIsTheCallers)
{
    EXPECT_EQ(bytesOf(lock), ticketPicture(0, 0, 0, 0));
}

TEST_F(LWSpinlock, TheNamedInitialisationsDoNotLookAtTheSwitch)
{
    use(true);
    KemSdLWSpinlockInitXchg(&lock);
    EXPECT_EQ(bytesOf(lock), exchangePicture(1, 0, 0));
    use(false);
    memset(&lock, kJunk, sizeof lock);
    KemSdLWSpinlockInitTicket(&lock);
    EXPECT_EQ(bytesOf(lock), ticketPicture(0, 0, 0, 0));
}

TEST_F(LWExchangeLock, ItsBytesFollowAcquisitionReentryAndRelease)
{
    KemSdLWSpinlockAcquire(&lock);
    EXPECT_EQ(bytesOf(lock), exchangePicture(0, 1, me()));
    KemSdLWSpinlockAcquire(&lock);
    EXPECT_EQ(bytesOf(lock), exchangePicture(0, 2, me()));
    KemSdLWSpinlockRelease(&lock);
    EXPECT_EQ(bytesOf(lock), exchangePicture(0, 1, me()));
    KemSdLWSpinlockRelease(&lock);
    EXPECT_EQ(bytesOf(lock), exchangePicture(1, 0, 0));
}

TEST_F(LWExchangeLock, AcquisitionTakesTheLowestByteAndReleaseStoresTheWholeWord)
{
    lock.xchg.slock = 0x7F01;
    KemSdLWSpinlockAcquire(&lock);
    EXPECT_EQ(bytesOf(lock), exchangePicture(0x7F00, 1, me()));
    KemSdLWSpinlockRelease(&lock);
    EXPECT_EQ(bytesOf(lock), exchangePicture(1, 0, 0));
}

TEST_F(LWTicketLock, ItsBytesFollowAcquisitionReentryAndRelease)
{
    KemSdLWSpinlockAcquire(&lock);
    EXPECT_EQ(bytesOf(lock), ticketPicture(0, 1, 1, me()));
    KemSdLWSpinlockAcquire(&lock);
    EXPECT_EQ(bytesOf(lock), ticketPicture(0, 1, 2, me()));
    KemSdLWSpinlockRelease(&lock);
    EXPECT_EQ(bytesOf(lock), ticketPicture(0, 1, 1, me()));
    KemSdLWSpinlockRelease(&lock);
    EXPECT_EQ(bytesOf(lock), ticketPicture(1, 1, 0, 0));
    KemSdLWSpinlockAcquire(&lock);
    EXPECT_EQ(bytesOf(lock), ticketPicture(1, 2, 1, me()));
}

TEST_P(AnyLWLock, ThreeAcquisitionsNeedThreeReleases)
{
    std::vector<uint64_t> depths;
    for (int i = 0; i < 3; ++i) KemSdLWSpinlockAcquire(&lock);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(KemSdLWSpinlockOwner(&lock), TRUE);
        depths.push_back(depth());
        KemSdLWSpinlockRelease(&lock);
    }
    EXPECT_THAT(depths, ElementsAre(3u, 2u, 1u));
    EXPECT_EQ(depth(), 0u);
    EXPECT_EQ(KemSdLWSpinlockOwner(&lock), FALSE);
    KemSdLWSpinlockAcquire(&lock); // free again
    EXPECT_EQ(KemSdLWSpinlockOwner(&lock), TRUE);
}

TEST_P(AnyLWLock, OnlyTheThreadThatHoldsItIsTheOwner)
{
    EXPECT_EQ(KemSdLWSpinlockOwner(&lock), FALSE);
    KemSdLWSpinlockAcquire(&lock);
    EXPECT_EQ(KemSdLWSpinlockOwner(&lock), TRUE);
    KEM_BOOL_T another = TRUE;
    std::thread([&] { another = KemSdLWSpinlockOwner(&lock); }).join();
    EXPECT_EQ(another, FALSE);
}

TEST_P(AnyLWLock, TheOwnersWordHoldsTheThreadsId)
{
    KEM_THDID_T id = 0;
    std::thread thread([&] {
        KemSdLWSpinlockAcquire(&lock);
        id = me();
    });
    thread.join();
    EXPECT_EQ(GetParam() ? lock.ticket.ThdId : lock.xchg.ThdId, id);
    EXPECT_NE(id, me());
}

TEST_F(LWExchangeLock, ReleaseDoesNotAskWhoHoldsIt)
{
    std::thread([this] { KemSdLWSpinlockAcquire(&lock); }).join();
    KemSdLWSpinlockRelease(&lock);
    EXPECT_EQ(bytesOf(lock), exchangePicture(1, 0, 0));
}

TEST_F(LWExchangeLock, ReleasingAFreeOneCountsBelow0AndChangesNothingElse)
{
    KemSdLWSpinlockRelease(&lock);
    EXPECT_EQ(bytesOf(lock), exchangePicture(1, -1, 0));
    KemSdLWSpinlockAcquire(&lock);
    EXPECT_EQ(bytesOf(lock), exchangePicture(0, 1, me()));
}

TEST_F(LWExchangeLock, OnlyADepthOfExactly0Frees)
{
    KemSdLWSpinlockAcquire(&lock);
    lock.xchg.count = 0;
    KemSdLWSpinlockRelease(&lock);
    EXPECT_EQ(bytesOf(lock), exchangePicture(0, -1, me()));
}

TEST_F(LWTicketLock, OnlyADepthOfExactly0Frees)
{
    KemSdLWSpinlockAcquire(&lock);
    lock.ticket.count = 0;
    KemSdLWSpinlockRelease(&lock);
    EXPECT_EQ(bytesOf(lock), ticketPicture(0, 1, UINT64_MAX, me()));
}

TEST_F(LWExchangeLock, DestroyingAHeldOneClearsOwnerAndDepthAndLeavesItHeld)
{
    KemSdLWSpinlockAcquire(&lock);
    KemSdLWSpinlockDestroy(&lock);
    EXPECT_EQ(bytesOf(lock), exchangePicture(0, 0, 0));
}

TEST_F(LWTicketLock, DestroyingOneClearsItsFourWords)
{
    KemSdLWSpinlockAcquire(&lock);
    KemSdLWSpinlockDestroy(&lock);
    EXPECT_EQ(bytesOf(lock), ticketPicture(0, 0, 0, 0));
}

TEST_F(LWSpinlock, TheNamedDestructionsDoNotLookAtTheSwitch)
{
    use(false);
    KemSdLWSpinlockAcquire(&lock);
    KemSdSetHardwareAcceleration(TRUE);
    KemSdLWSpinlockDestroyXchg(&lock);
    EXPECT_EQ(bytesOf(lock), exchangePicture(0, 0, 0));
    use(true);
    KemSdLWSpinlockAcquire(&lock);
    KemSdSetHardwareAcceleration(FALSE);
    KemSdLWSpinlockDestroyTicket(&lock);
    EXPECT_EQ(bytesOf(lock), ticketPicture(0, 0, 0, 0));
}

// ---- Waiting

TEST_P(AnyLWLock, ABoundOf1Yields)
{
    setSpinBound(1);
    whileOneWaits([](std::thread&) { EXPECT_TRUE(yields(3)); });
}

TEST_P(AnyLWLock, ABoundOf0OrLessYields)
{
    setSpinBound(0);
    whileOneWaits([](std::thread&) {
        EXPECT_TRUE(yields(3));
        setSpinBound(-5);
        EXPECT_TRUE(yields(calls(Call::sched_yield) + 3));
    });
}

TEST_P(AnyLWLock, BelowTheBoundNothingYields)
{
    setSpinBound(kNeverYield);
    whileOneWaits([](std::thread& waiter) { EXPECT_TRUE(keepsRunning(waiter)); });
    EXPECT_EQ(calls(Call::sched_yield), 0);
}

TEST_P(AnyLWLock, TheBoundIsReadInEveryRound)
{
    setSpinBound(1);
    whileOneWaits([](std::thread& waiter) {
        EXPECT_TRUE(yields(1));
        setSpinBound(kNeverYield);
        const long before = calls(Call::sched_yield);
        EXPECT_TRUE(keepsRunning(waiter));
        EXPECT_LE(calls(Call::sched_yield), before + 1); // one may have been under way
        setSpinBound(1);
        EXPECT_TRUE(yields(calls(Call::sched_yield) + 3));
    });
}

TEST_F(LWExchangeLock, ALostRaceYieldsAtOnce)
{
    setSpinBound(kNeverYield);
    lock.xchg.slock = 0x80; // reads as free, but the byte taken out is not positive; after that it reads as held
    std::thread waiter([&] { KemSdLWSpinlockAcquire(&lock); });
    EXPECT_TRUE(yields(1));
    EXPECT_TRUE(keepsRunning(waiter));
    EXPECT_EQ(calls(Call::sched_yield), 1);
    sd::storeRelease(lock.xchg.slock, 1);
    waiter.join();
    EXPECT_EQ(calls(Call::sched_yield), 1);
    EXPECT_EQ(lock.xchg.count, 1);
}

TEST_F(LWTicketLock, AWaiterOwnsItOnceItsTicketIsGranted)
{
    setSpinBound(0);
    lock.ticket.ticket = 7;
    KEM_THDID_T id = 0;
    std::thread waiter([&] {
        KemSdLWSpinlockAcquire(&lock);
        id = me();
    });
    EXPECT_TRUE(yields(1));
    sd::storeRelease(lock.ticket.grant, 7);
    waiter.join();
    EXPECT_EQ(bytesOf(lock), ticketPicture(7, 8, 1, id));
}
