#include <kemsd/kemsd.h>
#include <unistd.h>

#include <cstring>

#include "ipc/sysv.h"
#include "support/child.h"
#include "support/failingcalls.h"
#include "support/report.h"

using namespace kemsd::test;

namespace {

constexpr KEM_BIT32_T kAll = 4;
constexpr KEM_BIT32_T kMake = 8;
constexpr KEM_BIT32_T kNew = 16;
constexpr KEM_SIZE_T kBytes = 5000;

int guarded = 0; // passages of the lease guard

class SharedMem : public testing::Test {
protected:
    ~SharedMem() override
    {
        KemSdSetFailoverModeFlag(FALSE);
        if (id_ != kNoId && attached()) KemSdSharedMemFree(nullptr, id_, base_);
    }

    Report alloc(KEM_BIT32_T flags, KEM_SIZE_T bytes = kBytes)
    {
        return reported(KemSdSharedMemAlloc, file_.path(), bytes, flags, 0u, &id_, &key_, &base_);
    }

    Report free() { return reported(KemSdSharedMemFree, id_, std::exchange(base_, nullptr)); }

    bool attached() const { return base_ && base_ != reinterpret_cast<void*>(-1); }

    static constexpr KEM_SMEMHDL_T kNoId = -77003;
    SysVFile file_;
    KEM_SMEMHDL_T id_ = kNoId;
    KEM_IPCKEY_T key_ = 77;
    void* base_ = nullptr;
};

} // namespace

// ---- Keys and flags

TEST_F(SharedMem, KeyIsTheSystemsForThatPath)
{
    KEM_IPCKEY_T key = 0;
    EXPECT_EQ(KemSdSharedMemNameConvert(file_.path(), 119, &key), 0);
    EXPECT_EQ(key, ftok(file_.path(), 'w'));
    EXPECT_EQ(KemSdSharedMemNameConvert(file_.dir().path("missing").c_str(), 119, &key), SDSTS_IPC_KEY);
    EXPECT_EQ(key, -1);
}

TEST_F(SharedMem, KeyNeedsNameAndPlace)
{
    KEM_IPCKEY_T key = 7;
    EXPECT_EQ(KemSdSharedMemNameConvert(nullptr, 119, &key), SDSTS_INVALID_PARAM);
    EXPECT_EQ(key, 7);
    EXPECT_EQ(KemSdSharedMemNameConvert(file_.path(), 119, nullptr), SDSTS_INVALID_PARAM);
}

TEST_F(SharedMem, FlagsAreForAll)
{
    const auto mapped = [](KEM_BIT32_T flags) {
        KEM_BIT32_T system = 0;
        KemSdSharedMemFlagMap(flags, &system);
        return system;
    };
    EXPECT_EQ(mapped(0), 0u);
    EXPECT_EQ(mapped(1), 0x124u);
    EXPECT_EQ(mapped(2), 0x1B6u);
    EXPECT_EQ(mapped(4), 0x1B6u);
    EXPECT_EQ(mapped(1 | 4), 0x1B6u);
    EXPECT_EQ(mapped(8), 0x200u);
    EXPECT_EQ(mapped(16), 0x400u);
    EXPECT_EQ(mapped(1 | 8 | 16), 0x724u);
    EXPECT_EQ(mapped(~31u), 0u);
}

TEST_F(SharedMem, FlagsAreAddedToWhatIsThere)
{
    KEM_BIT32_T system = 1;
    KemSdSharedMemFlagMap(8, &system);
    EXPECT_EQ(system, 0x201u);
    KemSdSharedMemFlagMap(8, nullptr);
}

// ---- Allocating

TEST_F(SharedMem, AllocationMakesAndAttachesTheSegment)
{
    ASSERT_THAT(alloc(kAll | kMake | kNew), Succeeds());
    EXPECT_EQ(key_, file_.segmentKey());
    EXPECT_EQ(id_, file_.segment());
    shmid_ds state{};
    ASSERT_EQ(shmctl(id_, IPC_STAT, &state), 0);
    EXPECT_EQ(state.shm_segsz, kBytes);
    EXPECT_EQ(state.shm_perm.mode & 0777, 0666); // whatever the umask
    EXPECT_EQ(state.shm_nattch, 1u);
    memset(base_, 'x', kBytes);
}

TEST_F(SharedMem, SecondAllocationSeesTheSameBytes)
{
    ASSERT_THAT(alloc(kAll | kMake), Succeeds());
    KEM_SMEMHDL_T id = kNoId;
    KEM_IPCKEY_T key = 0;
    void* base = nullptr;
    ASSERT_THAT(reported(KemSdSharedMemAlloc, file_.path(), kBytes, kAll, 0u, &id, &key, &base), Succeeds());
    EXPECT_EQ(id, id_);
    EXPECT_EQ(key, key_);
    ASSERT_NE(base, base_);
    strcpy(static_cast<char*>(base_) + 100, "seen");
    EXPECT_STREQ(static_cast<char*>(base) + 100, "seen");
    EXPECT_THAT(reported(KemSdSharedMemFree, id, base), Succeeds());
}

TEST_F(SharedMem, InputFlagsAreNotUsed)
{
    ASSERT_THAT(reported(KemSdSharedMemAlloc, file_.path(), kBytes, kAll | kMake, ~0u, &id_, &key_, &base_),
                Succeeds());
    EXPECT_EQ(id_, file_.segment());
}

TEST_F(SharedMem, AllocationNeedsItsPlaces)
{
    const auto call = KemSdSharedMemAlloc;
    const KEM_BIT32_T flags = kAll | kMake;
    EXPECT_THAT(reported(call, nullptr, kBytes, flags, 0u, &id_, &key_, &base_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(call, file_.path(), kBytes, flags, 0u, nullptr, &key_, &base_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(call, file_.path(), kBytes, flags, 0u, &id_, nullptr, &base_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(call, file_.path(), kBytes, flags, 0u, &id_, &key_, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(file_.segment(), -1);
    EXPECT_EQ(id_, kNoId);
    EXPECT_EQ(key_, 77);
    EXPECT_EQ(base_, nullptr);
}

TEST_F(SharedMem, MissingPathGivesTheKeyMinusOne)
{
    const std::string missing = file_.dir().path("missing");
    EXPECT_THAT(reported(KemSdSharedMemAlloc, missing.c_str(), kBytes, kMake, 0u, &id_, &key_, &base_),
                Fails(SDSTS_IPC_KEY, ENOENT));
    EXPECT_EQ(key_, -1);
    EXPECT_EQ(id_, kNoId);
    EXPECT_EQ(base_, nullptr);
}

TEST_F(SharedMem, OpeningWhatDoesNotExistFails)
{
    EXPECT_THAT(alloc(kAll), Fails(SDSTS_IPC_CREATE, ENOENT));
    EXPECT_EQ(key_, file_.segmentKey());
    EXPECT_EQ(id_, -1);
    EXPECT_EQ(base_, nullptr);
}

TEST_F(SharedMem, SmallerSegmentIsRefused)
{
    ASSERT_THAT(alloc(kAll | kMake), Succeeds());
    KEM_SMEMHDL_T id = kNoId;
    void* base = nullptr;
    EXPECT_THAT(reported(KemSdSharedMemAlloc, file_.path(), kBytes + 1, kAll, 0u, &id, &key_, &base),
                Fails(SDSTS_IPC_CREATE, EINVAL));
}

TEST_F(SharedMem, RefusedSegmentReportsErrno)
{
    for (const int error : {ENOSPC, ENOMEM, EACCES}) {
        Failing refused(Call::shmget, error);
        EXPECT_THAT(alloc(kAll | kMake), Fails(SDSTS_IPC_CREATE, error));
        EXPECT_EQ(id_, -1);
        EXPECT_EQ(base_, nullptr);
    }
}

TEST_F(SharedMem, SegmentThatCannotBeAttachedStaysAndCanBeRemoved)
{
    {
        Failing refused(Call::shmat, ENOMEM);
        EXPECT_THAT(alloc(kAll | kMake), Fails(SDSTS_IPC_CREATE, ENOMEM));
    }
    EXPECT_EQ(id_, file_.segment());
    EXPECT_EQ(base_, reinterpret_cast<void*>(-1));
    EXPECT_EQ(attachments(id_), 0);
    EXPECT_THAT(free(), Succeeds());
    EXPECT_EQ(file_.segment(), -1);
}

// ---- Failover mode

TEST_F(SharedMem, ExistingSegmentIsRefusedOnRequestButNotInFailoverMode)
{
    const int made = shmget(file_.segmentKey(), kBytes, 0600 | IPC_CREAT);
    ASSERT_NE(made, -1);
    EXPECT_THAT(alloc(kAll | kMake | kNew), Fails(SDSTS_IPC_CREATE, EEXIST));
    KemSdSetFailoverModeFlag(TRUE);
    const Report taken = alloc(kMake | kNew); // no permissions asked for, so any owner may
    EXPECT_THAT(taken, Succeeds());
    EXPECT_EQ(id_, made);
}

TEST_F(SharedMem, LeaseGuardRunsFirstInTheAllocationAlone)
{
    KemSdSetLeaseGuardAccessFunction([] { ++guarded; });
    alloc(kAll | kMake);
    EXPECT_EQ(guarded, 0);
    KemSdSetFailoverModeFlag(TRUE);
    EXPECT_THAT(free(), Succeeds());
    EXPECT_EQ(guarded, 0);
    EXPECT_THAT(reported(KemSdSharedMemAlloc, nullptr, kBytes, kMake, 0u, &id_, &key_, &base_),
                Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(guarded, 1); // before the arguments are looked at
    EXPECT_THAT(alloc(kAll | kMake), Succeeds());
    EXPECT_EQ(guarded, 2);
}

// ---- Freeing

TEST_F(SharedMem, LastProcessToDetachRemovesTheSegment)
{
    ASSERT_THAT(alloc(kAll | kMake), Succeeds());
    const Ended child = inChild([this] {
        KEM_SMEMHDL_T id;
        KEM_IPCKEY_T key;
        void* base;
        if (KemSdSharedMemAlloc(nullptr, file_.path(), kBytes, kAll, 0, &id, &key, &base) != 0) return 1;
        if (attachments(id) != 3) return 2; // the parent's, the one inherited, the one just made
        if (KemSdSharedMemFree(nullptr, id, base) != 0) return 3;
        return attachments(id) == 2 ? 0 : 4;
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(attachments(id_), 1);
    EXPECT_EQ(file_.segment(), id_); // under its key, so it has not been marked for removal
    EXPECT_THAT(free(), Succeeds());
    EXPECT_EQ(file_.segment(), -1);
}

TEST_F(SharedMem, FreeingNeedsTheAddress)
{
    ASSERT_THAT(alloc(kAll | kMake), Succeeds());
    EXPECT_THAT(reported(KemSdSharedMemFree, id_, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(attachments(id_), 1);
}

TEST_F(SharedMem, RefusedDetachmentIsNoFailureAndKeepsTheSegment)
{
    ASSERT_THAT(alloc(kAll | kMake), Succeeds());
    {
        Failing refused(Call::shmdt, EINVAL);
        EXPECT_THAT(reported(KemSdSharedMemFree, id_, base_), Succeeds());
    }
    EXPECT_EQ(attachments(id_), 1);
    EXPECT_EQ(file_.segment(), id_);
}

TEST_F(SharedMem, SegmentOfUnknownStateIsNotRemoved)
{
    ASSERT_THAT(alloc(kAll | kMake), Succeeds());
    {
        Failing unknown(Call::shmctl, EACCES);
        EXPECT_THAT(free(), Succeeds());
        EXPECT_EQ(unknown.hits(), 1);
    }
    EXPECT_EQ(attachments(id_), 0);
}

TEST_F(SharedMem, RefusedRemovalIsNoFailure)
{
    ASSERT_THAT(alloc(kAll | kMake), Succeeds());
    {
        Failing refused = Failing::nth(Call::shmctl, 2, EPERM);
        EXPECT_THAT(free(), Succeeds());
        EXPECT_EQ(refused.hits(), 1);
    }
    EXPECT_EQ(attachments(id_), 0);
}

TEST_F(SharedMem, CallsWorkWithoutAContext)
{
    ASSERT_EQ(KemSdSharedMemAlloc(nullptr, file_.path(), kBytes, kAll | kMake, 0, &id_, &key_, &base_), 0);
    EXPECT_EQ(KemSdSharedMemFree(nullptr, id_, std::exchange(base_, nullptr)), 0);
    EXPECT_EQ(file_.segment(), -1);
}
