#include <gtest/gtest.h>
#include <kemsd/os.h>
#include <pthread.h>

#include <atomic>

#include "support/failingcalls.h"
#include "support/report.h"

using namespace kemsd::test;

namespace {

class Thread : public testing::Test {
protected:
    Report create(KEM_PTHDFUNC_T function, KEM_THDSTACKSIZE_T stackSize = 0, void* argument = nullptr)
    {
        return reported(KemSdThreadCreate, function, nullptr, stackSize, argument, &id_, &handle_);
    }

    KEM_THDID_T id_ = 0;
    KEM_THDHDL_T handle_ = 0;
};

void* storeOne(void* word)
{
    *static_cast<int*>(word) = 1;
    return nullptr;
}

void* storeStackSize(void* place)
{
    pthread_attr_t own;
    if (pthread_getattr_np(pthread_self(), &own) != 0) return nullptr;
    pthread_attr_getstacksize(&own, static_cast<size_t*>(place));
    pthread_attr_destroy(&own);
    return nullptr;
}

void* exitEarly(void* word)
{
    struct Unwound {
        int* word;
        ~Unwound() { *word += 2; }
    } unwound{static_cast<int*>(word)};
    KEM_SDCTX_T context{};
    context.sts = 1;
    KemSdThreadExit(&context, SDSTS_NO_MEMORY);
    *static_cast<int*>(word) = 100;
    return word;
}

void* endWhenReleased(void* released)
{
    while (!static_cast<std::atomic<bool>*>(released)->load()) sched_yield();
    return nullptr;
}

} // namespace

TEST_F(Thread, RunsItsFunctionWithItsParameterUntilJoined)
{
    int word = 0;
    EXPECT_THAT(create(storeOne, 0, &word), Succeeds());
    EXPECT_NE(id_, 0u);
    EXPECT_EQ(handle_, id_);
    EXPECT_THAT(reported(KemSdThreadJoin, &handle_), Succeeds());
    EXPECT_EQ(word, 1);
}

TEST_F(Thread, HasAStackOfOneMebibyteWhateverIsAsked)
{
    char stack[16];
    for (const KEM_THDSTACKSIZE_T asked : {0, 65536, 8 << 20, -1}) {
        size_t bytes = 0;
        EXPECT_THAT(reported(KemSdThreadCreate, storeStackSize, stack, asked, &bytes, &id_, &handle_), Succeeds());
        ASSERT_EQ(KemSdThreadJoin(nullptr, &handle_), 0);
        EXPECT_EQ(bytes, 1048576u) << asked;
    }
}

TEST_F(Thread, CreationWithoutFunctionIdOrHandleIsInvalid)
{
    resetCalls();
    EXPECT_THAT(reported(KemSdThreadCreate, nullptr, nullptr, 0, nullptr, &id_, &handle_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdThreadCreate, storeOne, nullptr, 0, nullptr, nullptr, &handle_),
                Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdThreadCreate, storeOne, nullptr, 0, nullptr, &id_, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(calls(Call::pthread_create), 0);
}

TEST_F(Thread, CreationReportsTheResultOfTheStepThatFailed)
{
    resetCalls();
    {
        Failing attributes(Call::pthread_attr_init, ENOMEM);
        EXPECT_THAT(create(storeOne), Fails(SDSTS_THREAD_CREATE, ENOMEM));
    }
    {
        Failing stack(Call::pthread_attr_setstacksize, EINVAL);
        EXPECT_THAT(create(storeOne), Fails(SDSTS_THREAD_CREATE, EINVAL));
    }
    EXPECT_EQ(calls(Call::pthread_create), 0);
    Failing thread(Call::pthread_create, EAGAIN);
    EXPECT_THAT(create(storeOne), Fails(SDSTS_THREAD_CREATE, EAGAIN));
    EXPECT_EQ(handle_, 0u);
}

TEST_F(Thread, JoinOfHandleZeroReturnsAtOnce)
{
    resetCalls();
    EXPECT_THAT(reported(KemSdThreadJoin, &handle_), Succeeds());
    EXPECT_EQ(calls(Call::pthread_join), 0);
}

TEST_F(Thread, FailedJoinLeavesStatusZeroInTheContext)
{
    KEM_SDCTX_T context{};
    context.sts = kUntouchedSts;
    handle_ = pthread_self();
    EXPECT_EQ(KemSdThreadJoin(&context, &handle_), SDSTS_THREAD_JOIN);
    EXPECT_EQ(context.sts, 0);
    EXPECT_EQ(context.osRetCode, EDEADLK);
    Failing join(Call::pthread_join, ESRCH);
    EXPECT_EQ(KemSdThreadJoin(&context, &handle_), SDSTS_THREAD_JOIN);
    EXPECT_EQ(context.sts, 0);
    EXPECT_EQ(context.osRetCode, ESRCH);
}

TEST_F(Thread, DeleteDetaches)
{
    static std::atomic<bool> released; // the thread may look at it after this test
    released = false;
    ASSERT_THAT(create(endWhenReleased, 0, &released), Succeeds());
    EXPECT_THAT(reported(KemSdThreadDelete, &handle_), Succeeds());
    EXPECT_EQ(KemSdThreadJoin(nullptr, &handle_), SDSTS_THREAD_JOIN) << "it cannot be joined any more";
    released = true;
}

TEST_F(Thread, DeleteIgnoresItsResult)
{
    resetCalls();
    handle_ = pthread_self();
    Failing detach(Call::pthread_detach, EINVAL);
    EXPECT_THAT(reported(KemSdThreadDelete, &handle_), Succeeds());
    EXPECT_EQ(calls(Call::pthread_detach), 1);
}

TEST_F(Thread, ExitEndsTheThreadAndUnwindsItsStack)
{
    int word = 0;
    ASSERT_THAT(create(exitEarly, 0, &word), Succeeds());
    EXPECT_EQ(KemSdThreadJoin(nullptr, &handle_), 0);
    EXPECT_EQ(word, 2);
}

TEST_F(Thread, ExitDropsItsStatusAndLeavesTheContextAlone)
{
    static KEM_SDCTX_T context;
    context = {};
    context.sts = kUntouchedSts;
    context.osRetCode = kUntouchedOs;
    const auto leave = [](void*) -> void* {
        KemSdThreadExit(&context, SDSTS_NO_MEMORY);
        return &context;
    };
    ASSERT_THAT(create(leave), Succeeds());
    void* result = &context;
    ASSERT_EQ(pthread_join(handle_, &result), 0);
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(context.sts, kUntouchedSts);
    EXPECT_EQ(context.osRetCode, kUntouchedOs);
}

TEST_F(Thread, YieldYieldsAndReportsNotSupported)
{
    resetCalls();
    EXPECT_THAT(reported(KemSdThreadYield), Fails(SDSTS_NOT_SUPPORTED));
    EXPECT_EQ(calls(Call::sched_yield), 1);
}

TEST_F(Thread, IdAndHandleAreTheCallersOwn)
{
    EXPECT_THAT(reported(KemSdThreadIdGet, &id_), Succeeds());
    EXPECT_EQ(id_, pthread_self());
    EXPECT_THAT(reported(KemSdThreadHandleGet, &handle_), Succeeds());
    EXPECT_EQ(handle_, pthread_self());
}

TEST_F(Thread, IdAndHandleWithoutPlaceAreInvalid)
{
    EXPECT_THAT(reported(KemSdThreadIdGet, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdThreadHandleGet, nullptr), Fails(SDSTS_INVALID_PARAM));
}

TEST_F(Thread, PriorityCallsWorkOnTheHandlesThread)
{
    handle_ = pthread_self();
    KEM_LONG_T priority = 77;
    EXPECT_THAT(reported(KemSdThreadPrioritySet, &handle_, 0), Succeeds());
    EXPECT_THAT(reported(KemSdThreadPriorityGet, &handle_, &priority), Succeeds());
    EXPECT_EQ(priority, 0);
    priority = 77;
    EXPECT_THAT(reported(KemSdThreadBasePriorityGet, &handle_, &priority), Succeeds());
    EXPECT_EQ(priority, 0);
    EXPECT_THAT(reported(KemSdThreadHighPriorityGet, &handle_, &priority), Succeeds());
    EXPECT_EQ(priority, 1) << "the current one plus 1";
}

TEST_F(Thread, PositiveErrorNumberOfAPriorityCallIsASuccess)
{
    handle_ = pthread_self();
    EXPECT_THAT(reported(KemSdThreadPrioritySet, &handle_, 1000), SucceedsWith(EINVAL));
    KEM_LONG_T priority = 77;
    Failing gone(Call::pthread_getschedparam, ESRCH);
    EXPECT_THAT(reported(KemSdThreadPriorityGet, &handle_, &priority), SucceedsWith(ESRCH));
    EXPECT_EQ(priority, 0);
    EXPECT_THAT(reported(KemSdThreadBasePriorityGet, &handle_, &priority), Succeeds());
    EXPECT_THAT(reported(KemSdThreadHighPriorityGet, &handle_, &priority), Succeeds());
}

TEST_F(Thread, NegativeResultOfAPriorityCallIsAFailureWithTheErrorNumber)
{
    handle_ = pthread_self();
    KEM_LONG_T priority = 77;
    Failing set(Call::pthread_setschedparam, EPERM, -1);
    Failing get(Call::pthread_getschedparam, EACCES, -1);
    EXPECT_THAT(reported(KemSdThreadPrioritySet, &handle_, 0), Fails(SDSTS_THREAD_PRIORITY_SET, EPERM));
    EXPECT_THAT(reported(KemSdThreadPriorityGet, &handle_, &priority), Fails(SDSTS_THREAD_PRIORITY_GET, EACCES));
    EXPECT_THAT(reported(KemSdThreadHighPriorityGet, &handle_, &priority), Fails(SDSTS_THREAD_HIGH_PRIORITY, EACCES));
    EXPECT_THAT(reported(KemSdThreadBasePriorityGet, &handle_, &priority), Fails(SDSTS_THREAD_BASE_PRIORITY, EACCES));
    EXPECT_EQ(priority, 77);
}

TEST_F(Thread, CallsWithoutHandleOrPlaceAreInvalid)
{
    KEM_LONG_T priority = 77;
    handle_ = pthread_self();
    EXPECT_THAT(reported(KemSdThreadJoin, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdThreadDelete, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdThreadPrioritySet, nullptr, 0), Fails(SDSTS_INVALID_PARAM));
    for (const auto get : {KemSdThreadPriorityGet, KemSdThreadHighPriorityGet, KemSdThreadBasePriorityGet}) {
        EXPECT_THAT(reported(get, nullptr, &priority), Fails(SDSTS_INVALID_PARAM));
        EXPECT_THAT(reported(get, &handle_, nullptr), Fails(SDSTS_INVALID_PARAM));
    }
    EXPECT_EQ(priority, 77);
}

TEST_F(Thread, SuspensionAndConcurrencyLevelsAreNotSupported)
{
    int level = 77;
    EXPECT_THAT(reported(KemSdThreadSuspend, &handle_), Fails(SDSTS_NOT_SUPPORTED));
    EXPECT_THAT(reported(KemSdThreadSuspend, nullptr), Fails(SDSTS_NOT_SUPPORTED));
    EXPECT_THAT(reported(KemSdThreadResume, &handle_), Fails(SDSTS_NOT_SUPPORTED));
    EXPECT_THAT(reported(KemSdThreadConcurrencyLevGet, &level), Fails(SDSTS_NOT_SUPPORTED));
    EXPECT_EQ(level, 77);
    EXPECT_THAT(reported(KemSdThreadConcurrencyLevSet, 4), Fails(SDSTS_NOT_SUPPORTED));
}

TEST_F(Thread, CallsNeedNoContext)
{
    int word = 0;
    EXPECT_EQ(KemSdThreadCreate(nullptr, storeOne, nullptr, 0, &word, &id_, &handle_), 0);
    EXPECT_EQ(KemSdThreadJoin(nullptr, &handle_), 0);
    EXPECT_EQ(KemSdThreadYield(nullptr), SDSTS_NOT_SUPPORTED);
    EXPECT_EQ(KemSdThreadHandleGet(nullptr, &handle_), 0);
}
