#include <gmock/gmock.h>
#include <kemsd/sync.h>

#include <thread>

using testing::HasSubstr;

namespace {

constexpr char kAssertion[] =
    "sd/sdlwsync:302: KemSdLWSpinlockReleaseTicket: Assertion `ThdId == pLWLockticket->ThdId' failed";

class LWTicketLockDeath : public testing::Test {
protected:
    void SetUp() override
    {
        KemSdSetHardwareAcceleration(TRUE);
        KemSdLWSpinlockInit(&lock);
    }

    KEM_LWSPINLOCK_T lock;
};

} // namespace

TEST_F(LWTicketLockDeath, ReleasingOneThatAnotherThreadHoldsEndsTheProcess)
{
    std::thread([this] { KemSdLWSpinlockAcquire(&lock); }).join();
    EXPECT_DEATH(KemSdLWSpinlockRelease(&lock), HasSubstr(kAssertion));
}

TEST_F(LWTicketLockDeath, ReleasingAFreeOneEndsTheProcess)
{
    EXPECT_DEATH(KemSdLWSpinlockRelease(&lock), HasSubstr(kAssertion));
}
