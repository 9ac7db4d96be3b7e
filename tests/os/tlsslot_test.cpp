#include <gtest/gtest.h>
#include <kemsd/os.h>
#include <pthread.h>

#include "support/failingcalls.h"

using namespace kemsd::test;

namespace {

class TlsSlot : public testing::Test {
protected:
    ~TlsSlot() override { KemSdVupUtilTlsTerm(); }
};

int mine, other;

// Reports what the slot held at the thread's start, then sets a value of its own.
void* exchange(void*)
{
    void* const found = KemSdVupUtilTlsGet();
    return KemSdVupUtilTlsSet(&other) == 0 && KemSdVupUtilTlsGet() == &other ? found : &other;
}

} // namespace

TEST_F(TlsSlot, GlobalsAreOneRecordThatStartsEmpty)
{
    KEM_VUPUTILGLOBALS_T* const globals = KemSdVupUtilGlobals();
    EXPECT_EQ(globals, KemSdVupUtilGlobals());
    EXPECT_EQ(globals->queryGovernorCheckFunction, nullptr);
    EXPECT_EQ(globals->tlsKey, nullptr);
    EXPECT_EQ(globals->exceptionMessageTargetImpl, nullptr);
    EXPECT_EQ(globals->procName, nullptr);
    EXPECT_EQ(globals->threadContextImpl, nullptr);
    EXPECT_EQ(globals->ukrUtilIsInitialized, FALSE);
}

TEST_F(TlsSlot, GetIsNullBeforeInitAndAfterTerm)
{
    EXPECT_EQ(KemSdVupUtilTlsGet(), nullptr);
    ASSERT_EQ(KemSdVupUtilTlsInit(), 0);
    EXPECT_EQ(KemSdVupUtilTlsGet(), nullptr);
    EXPECT_EQ(KemSdVupUtilTlsSet(&mine), 0);
    EXPECT_EQ(KemSdVupUtilTlsGet(), &mine);
    KemSdVupUtilTlsTerm();
    EXPECT_EQ(KemSdVupUtilTlsGet(), nullptr);
}

TEST_F(TlsSlot, EachThreadHasAValueOfItsOwn)
{
    ASSERT_EQ(KemSdVupUtilTlsInit(), 0);
    ASSERT_EQ(KemSdVupUtilTlsSet(&mine), 0);
    pthread_t thread;
    void* foundByOther = &mine;
    ASSERT_EQ(pthread_create(&thread, nullptr, exchange, nullptr), 0);
    ASSERT_EQ(pthread_join(thread, &foundByOther), 0);
    EXPECT_EQ(foundByOther, nullptr);
    EXPECT_EQ(KemSdVupUtilTlsGet(), &mine);
}

TEST_F(TlsSlot, TheCellHoldsTheKey)
{
    ASSERT_EQ(KemSdVupUtilTlsInit(), 0);
    ASSERT_EQ(KemSdVupUtilTlsSet(&mine), 0);
    const auto* key = static_cast<const kem_tls_id_t*>(KemSdVupUtilGlobals()->tlsKey);
    EXPECT_EQ(pthread_getspecific(*key), &mine);
}

TEST_F(TlsSlot, OnlyTheKeyOfTheRecordIsTouched)
{
    KEM_VUPUTILGLOBALS_T* const globals = KemSdVupUtilGlobals();
    globals->queryGovernorCheckFunction = &mine;
    globals->threadContextImpl = &other;
    globals->ukrUtilIsInitialized = 5;
    ASSERT_EQ(KemSdVupUtilTlsInit(), 0);
    KemSdVupUtilTlsTerm();
    EXPECT_EQ(globals->queryGovernorCheckFunction, &mine);
    EXPECT_EQ(globals->threadContextImpl, &other);
    EXPECT_EQ(globals->ukrUtilIsInitialized, 5);
}

TEST_F(TlsSlot, TermGivesBackCellAndKey)
{
    const long before = liveBlocks();
    ASSERT_EQ(KemSdVupUtilTlsInit(), 0);
    const kem_tls_id_t key = *static_cast<const kem_tls_id_t*>(KemSdVupUtilGlobals()->tlsKey);
    KemSdVupUtilTlsTerm();
    EXPECT_EQ(liveBlocks(), before);
    EXPECT_EQ(KemSdVupUtilGlobals()->tlsKey, nullptr);
    EXPECT_EQ(pthread_setspecific(key, &mine), EINVAL) << "the key is gone";
}

TEST_F(TlsSlot, TermTwiceOrWithoutInitDoesNothing)
{
    KemSdVupUtilTlsTerm();
    ASSERT_EQ(KemSdVupUtilTlsInit(), 0);
    KemSdVupUtilTlsTerm();
    KemSdVupUtilTlsTerm();
    EXPECT_EQ(KemSdVupUtilTlsInit(), 0) << "a new start is allowed";
}

TEST_F(TlsSlot, InitWithoutMemoryReturnsTheAllocatorsStatus)
{
    Failing memory(Call::malloc, ENOMEM);
    EXPECT_EQ(KemSdVupUtilTlsInit(), SDSTS_NO_MEMORY);
    EXPECT_EQ(KemSdVupUtilGlobals()->tlsKey, nullptr);
}

TEST_F(TlsSlot, FailedKeyCreationGivesTheCellBack)
{
    const long before = liveBlocks();
    Failing keys(Call::pthread_key_create, EAGAIN);
    EXPECT_EQ(KemSdVupUtilTlsInit(), SDSTS_TLS_FAILED);
    EXPECT_EQ(liveBlocks(), before);
    EXPECT_EQ(KemSdVupUtilGlobals()->tlsKey, nullptr);
}

TEST_F(TlsSlot, FailedKeyCreationIsReportedBeforeTheSecondInitIsNoticed)
{
    ASSERT_EQ(KemSdVupUtilTlsInit(), 0);
    void* const cell = KemSdVupUtilGlobals()->tlsKey;
    Failing keys(Call::pthread_key_create, EAGAIN);
    EXPECT_EQ(KemSdVupUtilTlsInit(), SDSTS_TLS_FAILED);
    EXPECT_EQ(KemSdVupUtilGlobals()->tlsKey, cell);
}

TEST_F(TlsSlot, FailedSetIsReported)
{
    ASSERT_EQ(KemSdVupUtilTlsInit(), 0);
    ASSERT_EQ(KemSdVupUtilTlsSet(&mine), 0);
    Failing memory(Call::pthread_setspecific, ENOMEM);
    EXPECT_EQ(KemSdVupUtilTlsSet(&other), SDSTS_TLS_FAILED);
    EXPECT_EQ(KemSdVupUtilTlsGet(), &mine);
}
