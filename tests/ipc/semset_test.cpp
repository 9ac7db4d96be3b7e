#include <kemsd/kemsd.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "ipc/sysv.h"
#include "support/child.h"
#include "support/failingcalls.h"
#include "support/report.h"
#include "sync/waiting.h"

using namespace kemsd::test;
using testing::ElementsAre;

namespace {

constexpr KEM_BIT32_T kOwner = 4;
constexpr KEM_BIT32_T kMake = 8;
constexpr KEM_BIT32_T kNew = 16;

class SemSet : public testing::Test {
protected:
    ~SemSet() override
    {
        if (set_) KemSdShSemSetClose(nullptr, set_);
    }

    Report create(KEM_USHORT_T size, KEM_BIT32_T flags, std::vector<KEM_ULONG_T> initial)
    {
        return reported(KemSdShSemSetCreate, file_.path(), size, flags, initial.data(), nullptr, &set_);
    }

    // A set made here, of members with these values.
    void make(std::vector<KEM_ULONG_T> initial)
    {
        ASSERT_THAT(create(static_cast<KEM_USHORT_T>(initial.size()), kOwner | kMake | kNew, initial), Succeeds());
    }

    // The id of a set that another program made under the same key, all its members 0.
    int makeForeign(int members) const { return semget(file_.setKey(), members, 0600 | IPC_CREAT | IPC_EXCL); }

    int value(int member) const { return semaphore(set_->id, member); }

    SysVFile file_;
    KEM_SHSEMSET_T* set_ = nullptr;
};

// A thread in a request, and how the request ended. A test that gives up early removes the set, so that the thread
// ends.
class Requesting {
public:
    Requesting(KEM_SHSEMSET_T* set, KEM_USHORT_T member, KEM_LONG_T timeout)
        : id_(set->id), thread_([=, this] { report_ = reported(KemSdShSemSetRequest, member, set, timeout); })
    {}
    ~Requesting()
    {
        if (!thread_.joinable()) return;
        semctl(id_, 0, IPC_RMID, 0);
        thread_.join();
    }
    Report report()
    {
        thread_.join();
        return report_;
    }
    std::thread& thread() { return thread_; }

private:
    int id_;
    Report report_{};
    std::thread thread_;
};

} // namespace

// ---- Keys and flags

TEST_F(SemSet, KeyIsTheSystemsForThatPath)
{
    KEM_IPCKEY_T key = 0;
    EXPECT_EQ(KemSdSharedSemNameConvert(file_.path(), 120, &key), 0);
    EXPECT_EQ(key, ftok(file_.path(), 'x'));
    EXPECT_EQ(KemSdSharedSemNameConvert(file_.path(), 0x500 + 120, &key), 0);
    EXPECT_EQ(key, ftok(file_.path(), 'x')); // the low byte of the number counts
}

TEST_F(SemSet, KeyOfAMissingPathIsMinusOne)
{
    KEM_IPCKEY_T key = 0;
    EXPECT_EQ(KemSdSharedSemNameConvert(file_.dir().path("missing").c_str(), 120, &key), SDSTS_IPC_KEY);
    EXPECT_EQ(key, -1);
}

TEST_F(SemSet, KeyNeedsNameAndPlace)
{
    KEM_IPCKEY_T key = 7;
    EXPECT_EQ(KemSdSharedSemNameConvert(nullptr, 120, &key), SDSTS_INVALID_PARAM);
    EXPECT_EQ(key, 7);
    EXPECT_EQ(KemSdSharedSemNameConvert(file_.path(), 120, nullptr), SDSTS_INVALID_PARAM);
}

TEST_F(SemSet, FlagsAreTheOwnersAlone)
{
    const auto mapped = [](KEM_BIT32_T flags) {
        KEM_BIT32_T system = 0;
        KemSdSharedSemFlagMap(flags, &system);
        return system;
    };
    EXPECT_EQ(mapped(0), 0u);
    EXPECT_EQ(mapped(1), 0u);
    EXPECT_EQ(mapped(2), 64u);
    EXPECT_EQ(mapped(4), 128u);
    EXPECT_EQ(mapped(1 | 2), 64u);
    EXPECT_EQ(mapped(1 | 4), 0u); // bit 1 takes away what bit 4 gives
    EXPECT_EQ(mapped(2 | 4), 64u);
    EXPECT_EQ(mapped(8), 0x200u);
    EXPECT_EQ(mapped(16), 0x400u);
    EXPECT_EQ(mapped(4 | 8 | 16), 0x680u);
    EXPECT_EQ(mapped(~31u), 0u);
}

TEST_F(SemSet, FlagsAreAddedToWhatIsThere)
{
    KEM_BIT32_T system = 1;
    KemSdSharedSemFlagMap(2 | 8, &system);
    EXPECT_EQ(system, 0x241u);
    KemSdSharedSemFlagMap(2, nullptr);
}

// ---- Creating

TEST_F(SemSet, CreatedMembersHaveTheInitialValues)
{
    ASSERT_THAT(create(3, kOwner | kMake, {1, 0, 1}), Succeeds());
    EXPECT_EQ(set_->nsems, 3);
    EXPECT_EQ(set_->id, file_.set());
    EXPECT_THAT(semaphores(set_->id, 3), ElementsAre(1, 0, 1));
}

TEST_F(SemSet, InitialValuesAreCutTo16Bits)
{
    ASSERT_THAT(create(3, kOwner | kMake, {65537, 65536, 0xFFFF7FFF}), Succeeds());
    EXPECT_THAT(semaphores(set_->id, 3), ElementsAre(1, 0, 32767));
}

TEST_F(SemSet, MaximumValuesAreIgnored)
{
    KEM_ULONG_T initial = 5;
    KEM_ULONG_T most = 1;
    const KEM_BIT32_T flags = kOwner | kMake;
    ASSERT_THAT(reported(KemSdShSemSetCreate, file_.path(), 1, flags, &initial, &most, &set_), Succeeds());
    EXPECT_EQ(value(0), 5);
}

TEST_F(SemSet, PermissionsAreThoseOfTheFlags)
{
    make({1});
    semid_ds state{};
    ASSERT_EQ(semaphore(set_->id, 0), 1);
    ASSERT_NE(semctl(set_->id, 0, IPC_STAT, &state), -1);
    EXPECT_EQ(state.sem_perm.uid, geteuid());
    if (geteuid() == 0) {
        EXPECT_EQ(state.sem_perm.mode & 0777, 0200); // any other owner had to change it to read the value
    }
}

TEST_F(SemSet, CreationNeedsItsArguments)
{
    KEM_ULONG_T initial = 1;
    KEM_SHSEMSET_T untouched;
    KEM_SHSEMSET_T* set = &untouched;
    const KEM_BIT32_T flags = kOwner | kMake;
    const auto call = KemSdShSemSetCreate;
    EXPECT_THAT(reported(call, nullptr, 1, flags, &initial, nullptr, &set), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(call, "", 1, flags, &initial, nullptr, &set), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(call, file_.path(), 1, flags, nullptr, nullptr, &set), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(call, file_.path(), 1, flags, &initial, nullptr, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(call, file_.path(), 0, flags, &initial, nullptr, &set), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(KemSdShSemSetCreate(nullptr, nullptr, 1, flags, &initial, nullptr, &set), SDSTS_INVALID_PARAM);
    EXPECT_EQ(set, &untouched);
    EXPECT_EQ(file_.set(), -1);
}

TEST_F(SemSet, CreationUnderAMissingPathHasNoKey)
{
    KEM_ULONG_T initial = 1;
    KEM_SHSEMSET_T untouched;
    KEM_SHSEMSET_T* set = &untouched;
    const std::string missing = file_.dir().path("missing");
    EXPECT_THAT(reported(KemSdShSemSetCreate, missing.c_str(), 1, kMake, &initial, nullptr, &set),
                Fails(SDSTS_IPC_KEY, ENOENT));
    EXPECT_EQ(set, &untouched);
}

TEST_F(SemSet, RefusedSetLeavesNull)
{
    const long before = liveBlocks();
    for (const int error : {ENOSPC, EACCES, ENOMEM}) {
        Failing refused(Call::semget, error);
        EXPECT_THAT(create(2, kOwner | kMake, {1, 1}), Fails(SDSTS_IPC_CREATE, error));
        EXPECT_EQ(set_, nullptr);
    }
    EXPECT_EQ(liveBlocks(), before);
}

// Deliberate: the output pointer stays as it was set although the descriptor is gone.
TEST_F(SemSet, RefusedValuesRemoveTheSetAndLeaveADanglingPointer)
{
    const long before = liveBlocks();
    {
        Failing refused = Failing::nth(Call::semctl, 1, EACCES);
        EXPECT_THAT(create(2, kOwner | kMake, {1, 1}), Fails(SDSTS_CNTSEM_CREATE, -1));
    }
    EXPECT_NE(set_, nullptr);
    set_ = nullptr;
    EXPECT_EQ(file_.set(), -1);
    EXPECT_EQ(liveBlocks(), before);
}

TEST_F(SemSet, ValueBeyondTheSystemsLimitIsRefused)
{
    EXPECT_THAT(create(2, kOwner | kMake, {1, 32768}), Fails(SDSTS_CNTSEM_CREATE, -1));
    set_ = nullptr;
    EXPECT_EQ(file_.set(), -1);
}

TEST_F(SemSet, RefusedRemovalAfterRefusedValuesIsNotReported)
{
    {
        Failing refused(Call::semctl, EPERM);
        EXPECT_THAT(create(2, kOwner | kMake, {1, 1}), Fails(SDSTS_CNTSEM_CREATE, -1));
        EXPECT_EQ(refused.hits(), 2);
    }
    set_ = nullptr;
}

TEST_F(SemSet, CreationWithoutMemoryLeavesNothingBehind)
{
    const long requests = sweepAllocationFailures([this](long) {
        KEM_SHSEMSET_T untouched;
        set_ = &untouched;
        const Report report = create(2, kOwner | kMake, {1, 1});
        EXPECT_EQ(report.sts, report.result);
        EXPECT_EQ(report.result, allocationFailed() ? SDSTS_NO_MEMORY : 0);
        EXPECT_EQ(set_ == nullptr, allocationFailed());
        EXPECT_EQ(file_.set() == -1, allocationFailed());
        if (set_) KemSdShSemSetClose(nullptr, set_);
        set_ = nullptr;
    });
    EXPECT_EQ(requests, 2); // descriptor and values
}

TEST_F(SemSet, CreatingTwiceWithExclusionFails)
{
    make({1});
    KEM_SHSEMSET_T* first = set_;
    EXPECT_THAT(create(1, kOwner | kMake | kNew, {0}), Fails(SDSTS_IPC_CREATE, EEXIST));
    EXPECT_EQ(set_, nullptr);
    set_ = first;
    EXPECT_EQ(value(0), 1);
}

TEST_F(SemSet, CreatingOverAnExistingSetResetsItsValues)
{
    const int id = makeForeign(2);
    change(id, 0, 7);
    ASSERT_THAT(create(2, kOwner | kMake, {0, 1}), Succeeds());
    EXPECT_EQ(set_->id, id);
    EXPECT_THAT(semaphores(id, 2), ElementsAre(0, 1));
}

TEST_F(SemSet, ExistingSetOfFewerMembersIsRefused)
{
    ASSERT_NE(makeForeign(2), -1);
    EXPECT_THAT(create(3, kOwner | kMake, {1, 1, 1}), Fails(SDSTS_IPC_CREATE, EINVAL));
    EXPECT_EQ(set_, nullptr);
}

// Setting the values of all its members would read on behind ours.
TEST_F(SemSet, ExistingSetOfMoreMembersIsRefused)
{
    const int id = makeForeign(300);
    change(id, 2, 7);
    const long before = liveBlocks();
    EXPECT_THAT(create(2, kOwner | kMake, {1, 1}), Fails(SDSTS_IPC_CREATE, EINVAL));
    EXPECT_EQ(set_, nullptr);
    EXPECT_EQ(liveBlocks(), before);
    EXPECT_EQ(file_.set(), id); // it is not ours to remove
    EXPECT_THAT(semaphores(id, 3), ElementsAre(0, 0, 7));
}

// ---- Opening

TEST_F(SemSet, OpeningFindsTheSetAndLeavesItsValues)
{
    make({1, 4});
    KEM_ULONG_T initial[] = {0, 0};
    KEM_SHSEMSET_T* opened = nullptr;
    ASSERT_THAT(reported(KemSdShSemSetCreate, file_.path(), 2, 0, initial, nullptr, &opened), Succeeds());
    EXPECT_EQ(opened->nsems, 0);
    EXPECT_EQ(opened->id, set_->id);
    EXPECT_THAT(semaphores(set_->id, 2), ElementsAre(1, 4));
    EXPECT_THAT(reported(KemSdShSemSetClose, opened), Succeeds());
}

TEST_F(SemSet, OpeningNeedsNoSize)
{
    make({1});
    KEM_ULONG_T unused = 0;
    KEM_SHSEMSET_T* opened = nullptr;
    ASSERT_THAT(reported(KemSdShSemSetCreate, file_.path(), 0, 0, &unused, nullptr, &opened), Succeeds());
    KemSdShSemSetClose(nullptr, opened);
}

TEST_F(SemSet, OpeningWhatDoesNotExistFails)
{
    EXPECT_THAT(create(2, kOwner, {1, 1}), Fails(SDSTS_IPC_CREATE, ENOENT));
    EXPECT_EQ(set_, nullptr);
}

TEST_F(SemSet, IndexOfAnOpenedSetIsLeftToTheKernel)
{
    make({1, 1});
    KEM_ULONG_T unused = 0;
    KEM_SHSEMSET_T* opened = nullptr;
    ASSERT_THAT(reported(KemSdShSemSetCreate, file_.path(), 2, 0, &unused, nullptr, &opened), Succeeds());
    for (const KEM_LONG_T timeout : {-1, 0, 1000})
        EXPECT_THAT(reported(KemSdShSemSetRequest, 500, opened, timeout), Fails(SDSTS_CNTSEM_REQUEST, EFBIG));
    EXPECT_THAT(reported(KemSdShSemSetClear, 500, opened), Fails(SDSTS_CNTSEM_CLEAR, -1));
    KemSdShSemSetClose(nullptr, opened);
}

TEST_F(SemSet, IndexOfASetMadeHereIsChecked)
{
    make({1, 1});
    resetCalls();
    for (const KEM_LONG_T timeout : {-1, 0, 1000})
        EXPECT_THAT(reported(KemSdShSemSetRequest, 2, set_, timeout), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdShSemSetClear, 2, set_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(calls(Call::semop) + calls(Call::semtimedop), 0);
    EXPECT_THAT(reported(KemSdShSemSetRequest, 1, set_, -1), Succeeds());
}

TEST_F(SemSet, CallsWithoutASetAreInvalid)
{
    EXPECT_THAT(reported(KemSdShSemSetRequest, 0, nullptr, -1), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdShSemSetClear, 0, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdShSemSetClose, nullptr), Fails(SDSTS_INVALID_PARAM));
}

// ---- Requests

TEST_F(SemSet, RequestTakesOneAndClearAddsOne)
{
    make({2, 5});
    for (const KEM_LONG_T timeout : {-1, 0}) EXPECT_THAT(reported(KemSdShSemSetRequest, 0, set_, timeout), Succeeds());
    EXPECT_THAT(semaphores(set_->id, 2), ElementsAre(0, 5));
    EXPECT_THAT(reported(KemSdShSemSetClear, 1, set_), Succeeds());
    EXPECT_THAT(semaphores(set_->id, 2), ElementsAre(0, 6));
    EXPECT_THAT(reported(KemSdShSemSetRequest, 1, set_, 20), Succeeds());
    EXPECT_THAT(semaphores(set_->id, 2), ElementsAre(0, 5));
}

TEST_F(SemSet, CallsWorkWithoutAContext)
{
    make({1});
    EXPECT_EQ(KemSdShSemSetRequest(nullptr, 0, set_, -1), 0);
    EXPECT_EQ(KemSdShSemSetClear(nullptr, 0, set_), 0);
    EXPECT_EQ(value(0), 1);
}

TEST_F(SemSet, RequestWithoutLimitWaitsForTheClear)
{
    make({0});
    Requesting waiting(set_, 0, -1);
    ASSERT_TRUE(eventually([&] { return waiters(set_->id, 0) == 1; }));
    EXPECT_THAT(reported(KemSdShSemSetClear, 0, set_), Succeeds());
    EXPECT_THAT(waiting.report(), Succeeds());
    EXPECT_EQ(value(0), 0);
}

// Deliberate: the member is obtained and the status says that time ran out.
TEST_F(SemSet, RequestWithoutWaitSpinsUntilItObtainsTheMemberAndReportsATimeOut)
{
    for (const KEM_LONG_T timeout : {0, -2, INT32_MIN}) {
        make({0});
        Requesting spinning(set_, 0, timeout);
        EXPECT_TRUE(keepsRunning(spinning.thread()));
        EXPECT_EQ(waiters(set_->id, 0), 0); // it never sleeps in the system
        change(set_->id, 0, 1);
        EXPECT_THAT(spinning.report(), Fails(SDSTS_CNTSEM_TIMEOUT, EAGAIN));
        EXPECT_EQ(value(0), 0);
        KemSdShSemSetClose(nullptr, set_);
        set_ = nullptr;
    }
}

TEST_F(SemSet, RequestWithoutWaitThatWasOnlyInterruptedSucceeds)
{
    make({1});
    resetCalls();
    Failing interrupted = Failing::nth(Call::semop, 1, EINTR);
    EXPECT_THAT(reported(KemSdShSemSetRequest, 0, set_, 0), Succeeds());
    EXPECT_EQ(calls(Call::semop), 2);
    EXPECT_EQ(value(0), 0);
}

TEST_F(SemSet, RequestWithoutWaitThatWasBusyOnceReportsATimeOut)
{
    make({1});
    Failing busy = Failing::nth(Call::semop, 1, EAGAIN);
    EXPECT_THAT(reported(KemSdShSemSetRequest, 0, set_, 0), Fails(SDSTS_CNTSEM_TIMEOUT, EAGAIN));
    EXPECT_EQ(value(0), 0);
}

TEST_F(SemSet, RequestWithoutLimitIsRetriedWhenInterrupted)
{
    make({1});
    resetCalls();
    Failing interrupted = Failing::nth(Call::semop, 1, EINTR);
    EXPECT_THAT(reported(KemSdShSemSetRequest, 0, set_, -1), Succeeds());
    EXPECT_EQ(calls(Call::semop), 2);
}

TEST_F(SemSet, SignalDoesNotEndTheWait)
{
    static std::atomic<int> signals{0};
    struct sigaction action {};
    action.sa_handler = [](int) { ++signals; }; // without restart: the system's wait is interrupted
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    make({0});
    for (const KEM_LONG_T timeout : {-1, 1000}) {
        signals = 0;
        Requesting waiting(set_, 0, timeout);
        ASSERT_TRUE(eventually([&] { return waiters(set_->id, 0) == 1; }));
        pthread_kill(waiting.thread().native_handle(), SIGUSR1);
        EXPECT_TRUE(eventually([&] { return signals == 1 && waiters(set_->id, 0) == 1; }));
        change(set_->id, 0, 1);
        EXPECT_THAT(waiting.report(), Succeeds());
    }
}

// Deliberate: the system is given the time of day at which the wait is to end, where it takes an interval.
TEST_F(SemSet, PositiveTimeOutIsATimeOfDay)
{
    make({32000});
    for (KEM_LONG_T timeout = 1; timeout <= 3000; timeout += 7) {
        timeval before, after;
        gettimeofday(&before, nullptr);
        ASSERT_THAT(reported(KemSdShSemSetRequest, 0, set_, timeout), Succeeds());
        gettimeofday(&after, nullptr);
        const timespec given = lastInterval();
        const long givenMicroseconds = given.tv_sec * 1000000 + given.tv_nsec / 1000;
        ASSERT_LE(before.tv_sec * 1000000 + before.tv_usec + timeout * 1000L, givenMicroseconds);
        ASSERT_GE(after.tv_sec * 1000000 + after.tv_usec + timeout * 1000L, givenMicroseconds);
        ASSERT_LT(given.tv_nsec, 1000000000); // carried
        ASSERT_EQ(given.tv_nsec % 1000, 0);
    }
}

TEST_F(SemSet, LargestTimeOutIsComputedIn64Bits)
{
    make({1});
    timeval now;
    gettimeofday(&now, nullptr);
    EXPECT_THAT(reported(KemSdShSemSetRequest, 0, set_, INT32_MAX), Succeeds());
    EXPECT_GE(lastInterval().tv_sec, now.tv_sec + INT32_MAX / 1000);
    EXPECT_LE(lastInterval().tv_sec, now.tv_sec + INT32_MAX / 1000 + 120);
}

TEST_F(SemSet, PositiveTimeOutReportsTheSystemsTimeOut)
{
    make({0});
    Failing over(Call::semtimedop, EAGAIN);
    EXPECT_THAT(reported(KemSdShSemSetRequest, 0, set_, 1000), Fails(SDSTS_CNTSEM_TIMEOUT, EAGAIN));
    EXPECT_EQ(over.hits(), 1);
}

TEST_F(SemSet, PositiveTimeOutEndsTheWaitOnAClockAtItsBeginning)
{
    make({0});
    Failing noClock(Call::gettimeofday, EFAULT); // leaves the time of day at zero: the interval is the time-out
    EXPECT_THAT(reported(KemSdShSemSetRequest, 0, set_, 30), Fails(SDSTS_CNTSEM_TIMEOUT, EAGAIN));
    EXPECT_EQ(lastInterval().tv_sec, 0);
    EXPECT_EQ(lastInterval().tv_nsec, 30000000);
}

TEST_F(SemSet, PositiveTimeOutIsRetriedWithTheSameTimeWhenInterrupted)
{
    make({1});
    resetCalls();
    Failing interrupted = Failing::nth(Call::semtimedop, 1, EINTR);
    EXPECT_THAT(reported(KemSdShSemSetRequest, 0, set_, 1000), Succeeds());
    EXPECT_EQ(calls(Call::semtimedop), 2);
    EXPECT_EQ(calls(Call::gettimeofday), 1);
}

TEST_F(SemSet, PositiveTimeOutWaitsForTheClear)
{
    make({0});
    Requesting waiting(set_, 0, 1);
    ASSERT_TRUE(eventually([&] { return waiters(set_->id, 0) == 1; }));
    change(set_->id, 0, 1);
    EXPECT_THAT(waiting.report(), Succeeds());
}

TEST_F(SemSet, OtherFailuresOfARequestAreItsOwn)
{
    make({1});
    for (const KEM_LONG_T timeout : {-1, 0, -7, 1000}) {
        Failing refused(timeout > 0 ? Call::semtimedop : Call::semop, EACCES);
        EXPECT_THAT(reported(KemSdShSemSetRequest, 0, set_, timeout), Fails(SDSTS_CNTSEM_REQUEST, EACCES));
        EXPECT_EQ(refused.hits(), 1);
    }
    Failing full(Call::semop, EAGAIN); // without the wait flag it is no time-out
    EXPECT_THAT(reported(KemSdShSemSetRequest, 0, set_, -1), Fails(SDSTS_CNTSEM_REQUEST, EAGAIN));
}

TEST_F(SemSet, RemovalRefusesTheWaiters)
{
    for (const KEM_LONG_T timeout : {-1, 1000}) {
        make({0});
        Requesting waiting(set_, 0, timeout);
        ASSERT_TRUE(eventually([&] { return waiters(set_->id, 0) == 1; }));
        file_.removeSet();
        EXPECT_THAT(waiting.report(), Fails(SDSTS_CNTSEM_REQUEST, EIDRM));
        EXPECT_THAT(reported(KemSdShSemSetClose, set_), Fails(SDSTS_CNTSEM_CLOSE, EINVAL));
        set_ = nullptr;
    }
}

TEST_F(SemSet, RemovalEndsTheSpinning)
{
    make({0});
    Requesting spinning(set_, 0, 0);
    EXPECT_TRUE(keepsRunning(spinning.thread()));
    file_.removeSet();
    const Report ended = spinning.report();
    EXPECT_TRUE(ended.osRetCode == EINVAL || ended.osRetCode == EIDRM) << ended;
    EXPECT_EQ(ended.result, SDSTS_CNTSEM_REQUEST);
    EXPECT_EQ(ended.sts, SDSTS_CNTSEM_REQUEST);
}

TEST_F(SemSet, MembersAreTakenByOneThreadAtATime)
{
    make({1});
    constexpr int kThreads = 4;
    constexpr int kRounds = 500;
    std::atomic<int> inside{0};
    std::atomic<int> crowded{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                EXPECT_EQ(KemSdShSemSetRequest(nullptr, 0, set_, -1), 0);
                if (++inside != 1) ++crowded;
                --inside;
                EXPECT_EQ(KemSdShSemSetClear(nullptr, 0, set_), 0);
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(crowded, 0);
    EXPECT_EQ(value(0), 1);
}

TEST_F(SemSet, MemberOfADeadProcessStaysTaken)
{
    make({1});
    const Ended child = inChild([this] { return KemSdShSemSetRequest(nullptr, 0, set_, -1) == 0 ? 0 : 1; });
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(value(0), 0);
}

// ---- Clears

TEST_F(SemSet, ClearBeyondTheSystemsLimitIsRefused)
{
    make({32767});
    EXPECT_THAT(reported(KemSdShSemSetClear, 0, set_), Fails(SDSTS_CNTSEM_CLEAR, -1));
    EXPECT_EQ(value(0), 32767);
}

TEST_F(SemSet, ClearReportsTheRawResult)
{
    make({0});
    resetCalls();
    Failing refused(Call::semop, EINTR);
    EXPECT_THAT(reported(KemSdShSemSetClear, 0, set_), Fails(SDSTS_CNTSEM_CLEAR, -1));
    EXPECT_EQ(calls(Call::semop), 1); // never tried again
}

// ---- Closing

TEST_F(SemSet, ClosingASetMadeHereRemovesIt)
{
    make({1});
    const long before = liveBlocks();
    EXPECT_THAT(reported(KemSdShSemSetClose, set_), Succeeds());
    set_ = nullptr;
    EXPECT_EQ(file_.set(), -1);
    EXPECT_EQ(liveBlocks(), before - 1);
}

TEST_F(SemSet, ClosingAnOpenedSetLeavesIt)
{
    make({1});
    KEM_ULONG_T unused = 0;
    KEM_SHSEMSET_T* opened = nullptr;
    ASSERT_THAT(reported(KemSdShSemSetCreate, file_.path(), 1, 0, &unused, nullptr, &opened), Succeeds());
    const long before = liveBlocks();
    EXPECT_THAT(reported(KemSdShSemSetClose, opened), Succeeds());
    EXPECT_EQ(liveBlocks(), before - 1);
    EXPECT_EQ(file_.set(), set_->id);
    EXPECT_EQ(value(0), 1);
}

TEST_F(SemSet, RefusedRemovalStillFreesTheDescriptor)
{
    make({1});
    const long before = liveBlocks();
    {
        Failing refused(Call::semctl, EPERM);
        EXPECT_THAT(reported(KemSdShSemSetClose, set_), Fails(SDSTS_CNTSEM_CLOSE, EPERM));
    }
    set_ = nullptr;
    EXPECT_EQ(liveBlocks(), before - 1);
}

// ---- An ordinary user

namespace {

// Runs body in a child that is no longer root.
Ended asOrdinaryUser(const SysVFile& file, const std::function<int()>& body)
{
    std::filesystem::permissions(file.dir().path(), std::filesystem::perms(0755));
    return inChild([&] {
        constexpr uid_t kNobody = 65534;
        if (geteuid() == 0 && (setresgid(kNobody, kNobody, kNobody) != 0 || setresuid(kNobody, kNobody, kNobody) != 0))
            return 99;
        return body();
    });
}

} // namespace

TEST_F(SemSet, OrdinaryUserCannotFillASetMadeWithBit2)
{
    const Ended child = asOrdinaryUser(file_, [this] {
        const Report report = create(1, 2 | kMake, {1});
        return report.result == SDSTS_CNTSEM_CREATE && report.osRetCode == -1 && file_.set() == -1 ? 0 : 1;
    });
    EXPECT_EQ(child.status, 0) << child.out;
}

TEST_F(SemSet, OrdinaryUserUsesASetMadeWithBit4)
{
    const Ended child = asOrdinaryUser(file_, [this] {
        if (create(1, kOwner | kMake, {1}).result != 0) return 1;
        if (KemSdShSemSetRequest(nullptr, 0, set_, -1) != 0) return 2;
        if (KemSdShSemSetClear(nullptr, 0, set_) != 0) return 3;
        KEM_ULONG_T unused = 0;
        KEM_SHSEMSET_T* opened = nullptr;
        if (KemSdShSemSetCreate(nullptr, file_.path(), 1, kOwner, &unused, nullptr, &opened) != 0) return 4;
        if (KemSdShSemSetRequest(nullptr, 0, opened, -1) != 0) return 5;
        KemSdShSemSetClose(nullptr, opened);
        return KemSdShSemSetClose(nullptr, set_) == 0 ? 0 : 6;
    });
    EXPECT_EQ(child.status, 0) << child.out;
}
