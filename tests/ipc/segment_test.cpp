#include <kemsd/kemsd.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "ipc/sysv.h"
#include "support/failingcalls.h"
#include "support/report.h"

using namespace kemsd::test;
using testing::Each;
using testing::ElementsAre;

namespace {

constexpr KEM_BIT32_T kServer = 4 | 8 | 16;
constexpr KEM_BIT32_T kClient = 4;
constexpr KEM_PROCID_T kPid = 1000;
constexpr KEM_IPCKEY_T kKey = 2000;
constexpr int kSemaphores = 21;

char* notAttachedYet() { return reinterpret_cast<char*>(0xdeadbeef); }

// What KemFindShareMemSeg stored.
struct Found {
    KEM_STS_T sts;
    OV_SHAREDMEM_SEG_T* segment;
    KEM_BOOL_T create;
    KEM_BOOL_T wait;
};

class Segment : public testing::Test {
protected:
    ~Segment() override
    {
        KemDeleteSharedMemSeg(nullptr, list_);
        end(own_);
    }

    Found find(const char* name, SHMEM_USERTYPE_T type, KEM_BOOL_T create = TRUE, KEM_PROCID_T pid = kPid,
               KEM_IPCKEY_T key = kKey)
    {
        Found found{0, &own_, 77, 77};
        found.sts = KemFindShareMemSeg(nullptr, name, type, &list_, create, pid, key, &found.create, &found.wait,
                                       &found.segment);
        return found;
    }

    Report create(OV_SHAREDMEM_SEG_T& segment, SHMEM_USERTYPE_T type, KEM_BIT32_T flags, KEM_LONG_T timeout = -1)
    {
        buffer_ = nullptr;
        return reported(KemCreateSharedMemSeg, file_.path(), type, flags, 0u, &segment, timeout, &key_, &buffer_);
    }

    // Creates and publishes a segment of the test's own descriptor.
    void make(SHMEM_USERTYPE_T type = SHM_SERVER, KEM_BIT32_T flags = kServer)
    {
        ASSERT_EQ(create(own_, type, flags).result, 0);
        KemSetSharedMemSegBuffer(nullptr, &own_, buffer_);
    }

    // An entry of the list under this name, without objects.
    OV_SHAREDMEM_SEG_T* entry(const char* name, SHMEM_USERTYPE_T type, char* buffer)
    {
        OV_SHAREDMEM_SEG_T* const segment = find("new", type).segment;
        strcpy(segment->name, name);
        segment->type = type;
        segment->buffer = buffer;
        return segment;
    }

    static void end(OV_SHAREDMEM_SEG_T& segment)
    {
        if (segment.pShSemSet || segment.shmemHdl != 0) KemDeleteSingleSharedMemSeg(nullptr, &segment);
    }

    int semaphore(int member) const { return kemsd::test::semaphore(own_.pShSemSet->id, member); }

    SysVFile file_;
    OV_SHAREDMEM_SEG_LIST_T* list_ = nullptr;
    OV_SHAREDMEM_SEG_T own_{};
    KEM_IPCKEY_T key_ = 77;
    char* buffer_ = nullptr;
};

} // namespace

// ---- Finding: a new entry

TEST_F(Segment, FindMakesTheFirstEntryOfAnEmptyList)
{
    const Found found = find("a", SHM_CLIENT);
    EXPECT_EQ(found.sts, 0);
    ASSERT_NE(found.segment, nullptr);
    EXPECT_EQ(found.segment, &list_->shMemSeg);
    EXPECT_EQ(found.create, TRUE);
    EXPECT_EQ(found.wait, FALSE);
    EXPECT_EQ(list_->next, nullptr);
}

TEST_F(Segment, NewEntryIsZeroButForItsServerAndTheAddressNotYetAttached)
{
    const OV_SHAREDMEM_SEG_T* const made = find("a", SHM_CLIENT).segment;
    OV_SHAREDMEM_SEG_T expected;
    memset(&expected, 0, sizeof expected);
    expected.buffer = notAttachedYet();
    expected.masterPID = kPid;
    expected.masteripcKey = kKey;
    EXPECT_EQ(memcmp(made, &expected, sizeof expected), 0);
    EXPECT_STREQ(made->name, ""); // the creation stores it
}

TEST_F(Segment, FindAppendsAtTheTail)
{
    OV_SHAREDMEM_SEG_T* const first = entry("a", SHM_SERVER, notAttachedYet());
    OV_SHAREDMEM_SEG_T* const second = entry("b", SHM_SERVER, notAttachedYet());
    OV_SHAREDMEM_SEG_T* const third = find("c", SHM_SERVER).segment;
    EXPECT_EQ(&list_->shMemSeg, first);
    EXPECT_EQ(&list_->next->shMemSeg, second);
    EXPECT_EQ(&list_->next->next->shMemSeg, third);
    EXPECT_EQ(list_->next->next->next, nullptr);
}

TEST_F(Segment, FindWithoutCreateMakesNothing)
{
    const Found found = find("a", SHM_CLIENT, FALSE);
    EXPECT_EQ(found.sts, 0);
    EXPECT_EQ(found.segment, nullptr);
    EXPECT_EQ(found.create, FALSE);
    EXPECT_EQ(found.wait, FALSE);
    EXPECT_EQ(list_, nullptr);
}

TEST_F(Segment, FindWithoutMemoryLeavesTheListAlone)
{
    entry("a", SHM_SERVER, notAttachedYet());
    Failing noMemory(Call::malloc, ENOMEM);
    KEM_BOOL_T create = TRUE;
    KEM_BOOL_T wait = TRUE;
    OV_SHAREDMEM_SEG_T* segment = &own_;
    EXPECT_THAT(reported(KemFindShareMemSeg, "b", SHM_CLIENT, &list_, TRUE, kPid, kKey, &create, &wait, &segment),
                Fails(SDSTS_NO_MEMORY));
    EXPECT_EQ(segment, nullptr);
    EXPECT_EQ(create, FALSE);
    EXPECT_EQ(wait, FALSE);
    EXPECT_EQ(list_->next, nullptr);
}

TEST_F(Segment, FindNeedsNameListAndPlace)
{
    KEM_BOOL_T create = 77;
    KEM_BOOL_T wait = 77;
    OV_SHAREDMEM_SEG_T* segment = &own_;
    const auto call = KemFindShareMemSeg;
    EXPECT_THAT(reported(call, nullptr, SHM_CLIENT, &list_, TRUE, kPid, kKey, &create, &wait, &segment),
                ReturnsOnly(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(call, "a", SHM_CLIENT, nullptr, TRUE, kPid, kKey, &create, &wait, &segment),
                ReturnsOnly(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(call, "a", SHM_CLIENT, &list_, TRUE, kPid, kKey, &create, &wait, nullptr),
                ReturnsOnly(SDSTS_INVALID_PARAM));
    EXPECT_EQ(create, 77);
    EXPECT_EQ(wait, 77);
    EXPECT_EQ(segment, &own_);
    EXPECT_EQ(list_, nullptr);
}

TEST_F(Segment, FindLeavesTheContextToTheCallsItMakes)
{
    const auto call = KemFindShareMemSeg;
    OV_SHAREDMEM_SEG_T* segment = nullptr;
    EXPECT_THAT(reported(call, "a", SHM_SERVER, &list_, FALSE, kPid, kKey, nullptr, nullptr, &segment), ReturnsOnly(0));
    EXPECT_THAT(reported(call, "a", SHM_SERVER, &list_, TRUE, kPid, kKey, nullptr, nullptr, &segment), Succeeds());
}

// ---- Finding: an entry of that name

TEST_F(Segment, FindWorksWithoutFlags)
{
    OV_SHAREDMEM_SEG_T* segment = nullptr;
    ASSERT_EQ(KemFindShareMemSeg(nullptr, "a", SHM_CLIENT, &list_, TRUE, 1, 2, nullptr, nullptr, &segment), 0);
    EXPECT_NE(segment, nullptr);
}

TEST_F(Segment, EntryThatIsBeingAttachedIsToBeWaitedFor)
{
    for (const SHMEM_USERTYPE_T type : {SHM_SERVER, SHM_CLIENT}) {
        OV_SHAREDMEM_SEG_T* const made = entry(type == SHM_SERVER ? "server" : "client", type, notAttachedYet());
        // Another server's pid and key change nothing while it is being attached.
        const Found found = find(made->name, type, TRUE, kPid + 1, kKey + 1);
        EXPECT_EQ(found.sts, 0);
        EXPECT_EQ(found.segment, made);
        EXPECT_EQ(found.wait, TRUE);
        EXPECT_EQ(found.create, FALSE);
        EXPECT_EQ(made->masterPID, kPid);
    }
}

TEST_F(Segment, WithoutTheWaitFlagNobodyIsToldToWait)
{
    OV_SHAREDMEM_SEG_T* const made = entry("a", SHM_SERVER, notAttachedYet());
    OV_SHAREDMEM_SEG_T* segment = nullptr;
    KEM_BOOL_T create = 77;
    ASSERT_EQ(KemFindShareMemSeg(nullptr, "a", SHM_SERVER, &list_, TRUE, kPid, kKey, &create, nullptr, &segment), 0);
    EXPECT_EQ(segment, made);
    EXPECT_EQ(create, FALSE);
    // A client's entry of another server is to be created even so.
    OV_SHAREDMEM_SEG_T* const stale = entry("b", SHM_CLIENT, notAttachedYet());
    ASSERT_EQ(KemFindShareMemSeg(nullptr, "b", SHM_CLIENT, &list_, TRUE, kPid + 1, kKey, &create, nullptr, &segment),
              0);
    EXPECT_EQ(segment, stale);
    EXPECT_EQ(create, TRUE);
    EXPECT_EQ(stale->masterPID, kPid + 1);
}

TEST_F(Segment, ServersEntryIsFoundAsItIs)
{
    OV_SHAREDMEM_SEG_T* const made = entry("a", SHM_SERVER, nullptr);
    const Found found = find("a", SHM_SERVER, TRUE, kPid + 1, kKey + 1);
    EXPECT_EQ(found.segment, made);
    EXPECT_EQ(found.create, FALSE);
    EXPECT_EQ(found.wait, FALSE);
    EXPECT_EQ(made->masterPID, kPid);
    EXPECT_EQ(made->masteripcKey, kKey);
    EXPECT_EQ(list_->next, nullptr);
}

TEST_F(Segment, ClientsEntryOfTheSameServerIsFoundAsItIs)
{
    OV_SHAREDMEM_SEG_T* const made = entry("a", SHM_CLIENT, nullptr);
    const Found found = find("a", SHM_CLIENT);
    EXPECT_EQ(found.segment, made);
    EXPECT_EQ(found.create, FALSE);
    EXPECT_EQ(found.wait, FALSE);
}

TEST_F(Segment, ClientsEntryOfAServerStartedAnewIsDetachedAndToBeCreated)
{
    make(); // what the client attaches
    OV_SHAREDMEM_SEG_T* const client = find("", SHM_CLIENT).segment;
    const auto attach = [&] {
        ASSERT_EQ(create(*client, SHM_CLIENT, kClient).result, 0);
        KemSetSharedMemSegBuffer(nullptr, client, buffer_);
        ASSERT_EQ(attachments(own_.shmemHdl), 2);
    };
    const std::pair<KEM_PROCID_T, KEM_IPCKEY_T> servers[] = {{kPid + 1, kKey}, {kPid + 1, kKey + 1}};
    for (const auto& [pid, key] : servers) {
        attach();
        const Found found = find(file_.path(), SHM_CLIENT, FALSE, pid, key); // whether it may make one or not
        EXPECT_EQ(found.sts, 0);
        EXPECT_EQ(found.segment, client);
        EXPECT_EQ(found.create, TRUE);
        EXPECT_EQ(found.wait, FALSE);
        EXPECT_EQ(attachments(own_.shmemHdl), 1);
        EXPECT_EQ(file_.set(), own_.pShSemSet->id); // the set is the server's
        EXPECT_EQ(client->pShSemSet, nullptr);
        EXPECT_EQ(client->shmemHdl, 0);
        EXPECT_EQ(client->buffer, notAttachedYet());
        EXPECT_EQ(client->masterPID, pid);
        EXPECT_EQ(client->masteripcKey, key);
        EXPECT_STREQ(client->name, file_.path());
    }
    attach();
}

TEST_F(Segment, StaleEntryThatCannotBeDetachedStaysStale)
{
    OV_SHAREDMEM_SEG_T* const client = entry("a", SHM_CLIENT, nullptr);
    client->shmemHdl = 5; // an id without an address cannot be freed
    const Found found = find("a", SHM_CLIENT, TRUE, kPid + 1);
    EXPECT_EQ(found.sts, SDSTS_INVALID_PARAM);
    EXPECT_EQ(found.create, FALSE);
    EXPECT_EQ(client->masterPID, kPid);
    client->shmemHdl = 0;
}

TEST_F(Segment, EntryOfTheOtherSideIsNoMatchAndKeepsAnotherFromBeingMade)
{
    entry("a", SHM_SERVER, nullptr);
    const Found found = find("a", SHM_CLIENT);
    EXPECT_EQ(found.sts, 0);
    EXPECT_EQ(found.segment, nullptr);
    EXPECT_EQ(found.create, FALSE);
    EXPECT_EQ(list_->next, nullptr);
}

TEST_F(Segment, FirstEntryOfThatNameDecides)
{
    entry("b", SHM_SERVER, nullptr);
    entry("a", SHM_SERVER, nullptr);
    entry("a", SHM_CLIENT, nullptr);
    EXPECT_EQ(find("a", SHM_CLIENT).segment, nullptr);
    EXPECT_EQ(find("a", SHM_SERVER).segment, &list_->next->shMemSeg);
}

// ---- Finding: the empty name

// Deliberate: with create the empty name stands for the first entry, whatever it is.
TEST_F(Segment, EmptyNameStandsForTheFirstEntry)
{
    OV_SHAREDMEM_SEG_T* const first = entry("a", SHM_SERVER, notAttachedYet());
    entry("b", SHM_CLIENT, nullptr);
    const Found found = find("", SHM_CLIENT, TRUE, kPid + 1, kKey + 1);
    EXPECT_EQ(found.sts, 0);
    EXPECT_EQ(found.segment, first);
    EXPECT_EQ(found.create, TRUE);
    EXPECT_EQ(found.wait, FALSE);
    EXPECT_EQ(first->masterPID, kPid);
    EXPECT_STREQ(first->name, "a");
}

TEST_F(Segment, EmptyNameWithoutCreateFindsNothing)
{
    entry("a", SHM_SERVER, nullptr);
    const Found found = find("", SHM_SERVER, FALSE);
    EXPECT_EQ(found.segment, nullptr);
    EXPECT_EQ(found.create, FALSE);
}

TEST_F(Segment, EmptyNameOfAnEmptyListMakesAnEntry)
{
    const Found found = find("", SHM_SERVER);
    EXPECT_EQ(found.segment, &list_->shMemSeg);
    EXPECT_EQ(found.create, TRUE);
}

TEST_F(Segment, EmptyNameMatchesAnEntryOutOfUseFirst)
{
    entry("a", SHM_SERVER, nullptr);
    OV_SHAREDMEM_SEG_T* const second = entry("b", SHM_SERVER, nullptr);
    KemSetSharedMemSegBuffer(nullptr, second, nullptr);
    const Found found = find("", SHM_SERVER);
    EXPECT_EQ(found.segment, second);
    EXPECT_EQ(found.create, FALSE);
}

// ---- Creating

TEST_F(Segment, ServerCreatesBothObjects)
{
    memset(&own_, 0xAA, sizeof own_);
    own_.pShSemSet = nullptr;
    ASSERT_THAT(create(own_, SHM_SERVER, kServer, 4711), Succeeds());
    EXPECT_STREQ(own_.name, file_.path());
    EXPECT_EQ(own_.chunkSize, 2048);
    EXPECT_EQ(own_.segSize, 5);
    EXPECT_EQ(own_.type, SHM_SERVER);
    EXPECT_EQ(own_.bitmap, 0u);
    EXPECT_EQ(own_.lShmTimeOut, 4711);
    EXPECT_THAT(std::vector<char>(reinterpret_cast<char*>(own_.chunkRec), reinterpret_cast<char*>(own_.chunkRec + 2)),
                Each(0));
    EXPECT_EQ(own_.shmemHdl, file_.segment());
    EXPECT_EQ(own_.pShSemSet->id, file_.set());
    EXPECT_EQ(own_.pShSemSet->nsems, kSemaphores);
    EXPECT_EQ(key_, file_.segmentKey());
    EXPECT_NE(own_.buffer, buffer_); // publishing is the caller's
    shmid_ds state{};
    ASSERT_EQ(shmctl(own_.shmemHdl, IPC_STAT, &state), 0);
    EXPECT_EQ(state.shm_segsz, 20480u);
    own_.buffer = buffer_;
}

TEST_F(Segment, SemaphoresBeginWithEveryBufferFreeAndNoDataReady)
{
    make();
    EXPECT_THAT(semaphores(own_.pShSemSet->id, kSemaphores),
                ElementsAre(1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1));
    EXPECT_EQ(kemsd::test::semaphore(own_.pShSemSet->id, kSemaphores), -1);
}

TEST_F(Segment, NewSegmentIsZero)
{
    make();
    EXPECT_THAT(std::vector<char>(own_.buffer, own_.buffer + 20480), Each(0));
}

TEST_F(Segment, ClientOpensWhatTheServerCreated)
{
    make();
    OV_SHAREDMEM_SEG_T client{};
    ASSERT_THAT(create(client, SHM_CLIENT, kClient), Succeeds());
    EXPECT_EQ(client.type, SHM_CLIENT);
    EXPECT_EQ(client.shmemHdl, own_.shmemHdl);
    EXPECT_EQ(client.pShSemSet->id, own_.pShSemSet->id);
    EXPECT_EQ(client.pShSemSet->nsems, 0);
    KemSetSharedMemSegBuffer(nullptr, &client, buffer_);
    strcpy(own_.buffer + 20000, "seen");
    EXPECT_STREQ(client.buffer + 20000, "seen");
    EXPECT_EQ(KemDeleteSingleSharedMemSeg(nullptr, &client), 0);
}

TEST_F(Segment, ClientWithoutAServerFails)
{
    EXPECT_THAT(create(own_, SHM_CLIENT, kClient), Fails(SDSTS_IPC_CREATE, ENOENT));
    EXPECT_EQ(own_.pShSemSet, nullptr);
    EXPECT_EQ(own_.shmemHdl, 0);
}

TEST_F(Segment, SecondServerIsRefusedByTheExclusionBit)
{
    make();
    OV_SHAREDMEM_SEG_T second{};
    EXPECT_THAT(create(second, SHM_SERVER, kServer), Fails(SDSTS_IPC_CREATE, EEXIST));
    EXPECT_EQ(second.pShSemSet, nullptr);
    EXPECT_EQ(semaphore(0), 1);
}

TEST_F(Segment, NameOf1028CharactersIsTaken)
{
    std::string path = file_.dir().path();
    while (path.size() < 1028 - 150) path.append(1, '/').append(99, 'd');
    path += '/';
    path.append(1028 - path.size(), 'f');
    ASSERT_EQ(path.size(), 1028u);
    file_.dir().write(path.substr(file_.dir().path().size() + 1), "");
    ASSERT_THAT(reported(KemCreateSharedMemSeg, path.c_str(), SHM_SERVER, kServer, 0u, &own_, -1, &key_, &buffer_),
                Succeeds());
    EXPECT_EQ(own_.name, path);
    KemSetSharedMemSegBuffer(nullptr, &own_, buffer_);
}

TEST_F(Segment, NameOf1029CharactersIsRefused)
{
    const std::string name(1029, 'n');
    strcpy(own_.name, "kept");
    EXPECT_THAT(reported(KemCreateSharedMemSeg, name.c_str(), SHM_SERVER, kServer, 0u, &own_, -1, &key_, &buffer_),
                ReturnsOnly(SDSTS_SHMEM_BAD_SEGMENT));
    EXPECT_STREQ(own_.name, "kept");
    EXPECT_EQ(key_, 77);
}

TEST_F(Segment, SideOtherThanServerAndClientIsRefused)
{
    for (const int type : {2, -1})
        EXPECT_THAT(create(own_, static_cast<SHMEM_USERTYPE_T>(type), kServer), ReturnsOnly(SDSTS_SHMEM_BAD_SEGMENT));
    EXPECT_EQ(file_.set(), -1);
    EXPECT_STREQ(own_.name, "");
}

TEST_F(Segment, CreationNeedsItsArguments)
{
    const auto call = KemCreateSharedMemSeg;
    const char* const path = file_.path();
    EXPECT_THAT(reported(call, nullptr, SHM_SERVER, kServer, 0u, &own_, -1, &key_, &buffer_),
                ReturnsOnly(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(call, path, SHM_SERVER, kServer, 0u, nullptr, -1, &key_, &buffer_),
                ReturnsOnly(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(call, path, SHM_SERVER, kServer, 0u, &own_, -1, nullptr, &buffer_),
                ReturnsOnly(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(call, path, SHM_SERVER, kServer, 0u, &own_, -1, &key_, nullptr),
                ReturnsOnly(SDSTS_INVALID_PARAM));
    EXPECT_EQ(file_.set(), -1);
}

TEST_F(Segment, EmptyNameAndMissingPathAreTheSemaphoreSets)
{
    EXPECT_THAT(reported(KemCreateSharedMemSeg, "", SHM_SERVER, kServer, 0u, &own_, -1, &key_, &buffer_),
                Fails(SDSTS_INVALID_PARAM));
    const std::string missing = file_.dir().path("missing");
    EXPECT_THAT(reported(KemCreateSharedMemSeg, missing.c_str(), SHM_SERVER, kServer, 0u, &own_, -1, &key_, &buffer_),
                Fails(SDSTS_IPC_KEY, ENOENT));
}

TEST_F(Segment, DescriptorsOwnNameCreatesItAnew)
{
    make();
    ASSERT_EQ(KemDeleteSingleSharedMemSeg(nullptr, &own_), 0);
    ASSERT_THAT(reported(KemCreateSharedMemSeg, own_.name, SHM_SERVER, kServer, 0u, &own_, -1, &key_, &buffer_),
                Succeeds());
    EXPECT_STREQ(own_.name, file_.path());
    KemSetSharedMemSegBuffer(nullptr, &own_, buffer_);
}

TEST_F(Segment, RefusedSemaphoreSetLeavesNone)
{
    resetCalls();
    {
        Failing refused(Call::semget, ENOSPC);
        EXPECT_THAT(create(own_, SHM_SERVER, kServer), Fails(SDSTS_IPC_CREATE, ENOSPC));
    }
    EXPECT_EQ(own_.pShSemSet, nullptr);
    {
        Failing refused = Failing::nth(Call::semctl, 1, EACCES); // where the set's own call leaves a dangling pointer
        EXPECT_THAT(create(own_, SHM_SERVER, kServer), Fails(SDSTS_CNTSEM_CREATE, -1));
    }
    EXPECT_EQ(own_.pShSemSet, nullptr);
    EXPECT_EQ(file_.set(), -1);
    EXPECT_EQ(calls(Call::shmget), 0);
    EXPECT_EQ(buffer_, nullptr);
}

TEST_F(Segment, RefusedSharedMemoryClosesTheSemaphoreSetAndKeepsItsFailureInTheContext)
{
    const long before = liveBlocks();
    for (const Call call : {Call::shmget, Call::shmat}) {
        {
            Failing refused(call, EMFILE);
            EXPECT_THAT(create(own_, SHM_SERVER, kServer), Fails(SDSTS_IPC_CREATE, EMFILE));
        }
        EXPECT_EQ(own_.pShSemSet, nullptr);
        EXPECT_EQ(file_.set(), -1);
        EXPECT_EQ(liveBlocks(), before);
        EXPECT_EQ(buffer_, nullptr);
    }
    EXPECT_EQ(own_.shmemHdl, file_.segment()); // made before it could not be attached
    file_.removeSegment();
    own_.shmemHdl = 0;
}

TEST_F(Segment, ClientThatCannotAttachLeavesTheServersSet)
{
    make();
    OV_SHAREDMEM_SEG_T client{};
    const long before = liveBlocks();
    {
        Failing refused(Call::shmget, EACCES);
        EXPECT_THAT(create(client, SHM_CLIENT, kClient), Fails(SDSTS_IPC_CREATE, EACCES));
    }
    EXPECT_EQ(client.pShSemSet, nullptr);
    EXPECT_EQ(client.shmemHdl, 0);
    EXPECT_EQ(liveBlocks(), before);
    EXPECT_EQ(file_.set(), own_.pShSemSet->id);
}

TEST_F(Segment, CreationWithoutMemoryLeavesNothingBehind)
{
    const long requests = sweepAllocationFailures([this](long) {
        const Report report = create(own_, SHM_SERVER, kServer);
        EXPECT_EQ(report.result, allocationFailed() ? SDSTS_NO_MEMORY : 0);
        EXPECT_EQ(report.sts, report.result);
        EXPECT_EQ(own_.pShSemSet == nullptr, allocationFailed());
        EXPECT_EQ(file_.set() == -1, allocationFailed());
        EXPECT_EQ(file_.segment() == -1, allocationFailed());
        KemSetSharedMemSegBuffer(nullptr, &own_, buffer_);
        end(own_);
    });
    EXPECT_EQ(requests, 2);
}

// ---- Publishing

TEST_F(Segment, PublishingStoresTheAddressAndKeepsTheName)
{
    char somewhere;
    strcpy(own_.name, "a");
    KemSetSharedMemSegBuffer(nullptr, &own_, &somewhere);
    EXPECT_EQ(own_.buffer, &somewhere);
    EXPECT_STREQ(own_.name, "a");
    KemSetSharedMemSegBuffer(nullptr, nullptr, &somewhere);
}

TEST_F(Segment, PublishingNullEmptiesTheName)
{
    strcpy(own_.name, "abc");
    own_.buffer = notAttachedYet();
    KemSetSharedMemSegBuffer(nullptr, &own_, nullptr);
    EXPECT_EQ(own_.buffer, nullptr);
    EXPECT_EQ(own_.name[0], 0);
    EXPECT_EQ(own_.name[1], 'b');
}

TEST_F(Segment, NameIsTheDescriptorsAddress)
{
    char* name = nullptr;
    KemGetSharedMemSegName(nullptr, &own_, &name);
    EXPECT_EQ(static_cast<void*>(name), &own_);
    name = nullptr;
    KemGetSharedMemSegName(nullptr, nullptr, &name);
    EXPECT_EQ(name, nullptr);
    KemGetSharedMemSegName(nullptr, &own_, nullptr);
}

// ---- Deleting one

TEST_F(Segment, ServerRemovesItsSetAndTheLastToDetachTheMemory)
{
    make();
    OV_SHAREDMEM_SEG_T client{};
    ASSERT_EQ(create(client, SHM_CLIENT, kClient).result, 0);
    KemSetSharedMemSegBuffer(nullptr, &client, buffer_);
    EXPECT_THAT(reported(KemDeleteSingleSharedMemSeg, &own_), Succeeds());
    EXPECT_EQ(file_.set(), -1);
    EXPECT_EQ(attachments(client.shmemHdl), 1);
    EXPECT_THAT(reported(KemDeleteSingleSharedMemSeg, &client), Succeeds());
    EXPECT_EQ(file_.segment(), -1);
}

TEST_F(Segment, ClientFreesItsDescriptorAndLeavesTheSet)
{
    make();
    OV_SHAREDMEM_SEG_T client{};
    ASSERT_EQ(create(client, SHM_CLIENT, kClient).result, 0);
    KemSetSharedMemSegBuffer(nullptr, &client, buffer_);
    const long before = liveBlocks();
    EXPECT_THAT(reported(KemDeleteSingleSharedMemSeg, &client), Succeeds());
    EXPECT_EQ(liveBlocks(), before - 1);
    EXPECT_EQ(file_.set(), own_.pShSemSet->id);
    EXPECT_EQ(attachments(own_.shmemHdl), 1);
}

TEST_F(Segment, DeletedSegmentIsDetachedAndMayBeDeletedAgain)
{
    make();
    EXPECT_EQ(KemDeleteSingleSharedMemSeg(nullptr, &own_), 0);
    EXPECT_EQ(own_.pShSemSet, nullptr);
    EXPECT_EQ(own_.shmemHdl, 0);
    EXPECT_EQ(KemWriteSharedMemChunk(nullptr, &own_, 0, 1, TRUE, TRUE, "x"), SDSTS_INVALID_PARAM);
    resetCalls();
    EXPECT_THAT(reported(KemDeleteSingleSharedMemSeg, &own_), ReturnsOnly(0));
    EXPECT_EQ(calls(Call::shmdt), 0);
}

TEST_F(Segment, RefusedRemovalOfTheSetKeepsTheMemoryAttached)
{
    make();
    const long before = liveBlocks();
    {
        Failing refused(Call::semctl, EPERM);
        EXPECT_THAT(reported(KemDeleteSingleSharedMemSeg, &own_), Fails(SDSTS_CNTSEM_CLOSE, EPERM));
    }
    EXPECT_EQ(liveBlocks(), before - 1);
    EXPECT_EQ(own_.pShSemSet, nullptr); // its descriptor is gone, so a second attempt must not release it again
    EXPECT_EQ(attachments(own_.shmemHdl), 1);
    EXPECT_EQ(KemDeleteSingleSharedMemSeg(nullptr, &own_), 0);
    EXPECT_EQ(file_.segment(), -1);
}

TEST_F(Segment, DeletingNothingSucceeds)
{
    EXPECT_THAT(reported(KemDeleteSingleSharedMemSeg, &own_), ReturnsOnly(0));
    EXPECT_THAT(reported(KemDeleteSingleSharedMemSeg, nullptr), ReturnsOnly(SDSTS_INVALID_PARAM));
}

TEST_F(Segment, MemoryThatWasNeverAttachedIsAskedForByItsId)
{
    {
        Failing refused(Call::shmat, ENOMEM);
        ASSERT_EQ(create(own_, SHM_SERVER, kServer).result, SDSTS_IPC_CREATE);
    }
    own_.buffer = notAttachedYet();
    EXPECT_EQ(attachments(own_.shmemHdl), 0);
    EXPECT_EQ(KemDeleteSingleSharedMemSeg(nullptr, &own_), 0);
    EXPECT_EQ(file_.segment(), -1);
}

// The first segment of a fresh namespace has this id.
TEST_F(Segment, Id0IsASegmentWhenItIsAttached)
{
    static char memory[20480];
    {
        Failing id(Call::shmget, 0, 0);
        Failing address(Call::shmat, 0, reinterpret_cast<long>(memory));
        ASSERT_EQ(create(own_, SHM_SERVER, kServer).result, 0);
    }
    ASSERT_EQ(own_.shmemHdl, 0);
    KemSetSharedMemSegBuffer(nullptr, &own_, buffer_);
    resetCalls();
    Failing detached(Call::shmdt, 0, 0);
    Failing state(Call::shmctl, EINVAL);
    EXPECT_EQ(KemDeleteSingleSharedMemSeg(nullptr, &own_), 0);
    EXPECT_EQ(detached.hits(), 1);
    EXPECT_EQ(state.hits(), 1);
}

TEST_F(Segment, Id0WithoutAnAddressIsNone)
{
    for (char* const buffer : {notAttachedYet(), static_cast<char*>(nullptr)}) {
        own_.buffer = buffer;
        resetCalls();
        EXPECT_EQ(KemDeleteSingleSharedMemSeg(nullptr, &own_), 0);
        EXPECT_EQ(calls(Call::shmdt), 0);
    }
}

// ---- Deleting a list

TEST_F(Segment, EmptyListIsDeleted) { EXPECT_THAT(reported(KemDeleteSharedMemSeg, nullptr), ReturnsOnly(0)); }

TEST_F(Segment, DeletingAListFreesItsEntriesAndTheirObjects)
{
    const long before = liveBlocks();
    OV_SHAREDMEM_SEG_T* const made = entry("a", SHM_CLIENT, notAttachedYet());
    OV_SHAREDMEM_SEG_T* const server = entry("b", SHM_SERVER, notAttachedYet());
    ASSERT_EQ(create(*server, SHM_SERVER, kServer).result, 0);
    KemSetSharedMemSegBuffer(nullptr, server, buffer_);
    ASSERT_EQ(create(*made, SHM_CLIENT, kClient).result, 0);
    KemSetSharedMemSegBuffer(nullptr, made, buffer_);
    EXPECT_THAT(reported(KemDeleteSharedMemSeg, std::exchange(list_, nullptr)), Succeeds());
    EXPECT_EQ(file_.set(), -1);
    EXPECT_EQ(file_.segment(), -1);
    EXPECT_EQ(liveBlocks(), before);
}

TEST_F(Segment, EntriesThatFailStayChained)
{
    // Five entries of which the second, third and fifth cannot be deleted: an id without an address.
    OV_SHAREDMEM_SEG_T* made[5];
    for (auto*& segment : made) segment = entry("a", SHM_SERVER, nullptr);
    for (const int i : {1, 2, 4}) made[i]->shmemHdl = 5;
    const long before = liveBlocks();
    EXPECT_THAT(reported(KemDeleteSharedMemSeg, list_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(liveBlocks(), before - 2);
    const auto entryOf = [](OV_SHAREDMEM_SEG_T* segment) {
        return reinterpret_cast<OV_SHAREDMEM_SEG_LIST_T*>(segment);
    };
    EXPECT_EQ(entryOf(made[1])->next, entryOf(made[2]));
    EXPECT_EQ(entryOf(made[2])->next, entryOf(made[4]));
    EXPECT_EQ(entryOf(made[4])->next, nullptr);
    list_ = entryOf(made[1]);
    for (const int i : {1, 2, 4}) made[i]->shmemHdl = 0;
}

TEST_F(Segment, LastEntrysStatusIsTheLists)
{
    entry("a", SHM_SERVER, nullptr)->shmemHdl = 5;
    entry("b", SHM_SERVER, nullptr);
    EXPECT_EQ(KemDeleteSharedMemSeg(nullptr, list_), 0);
    EXPECT_EQ(list_->next, nullptr); // the kept entry no longer leads to the freed one
    list_->shMemSeg.shmemHdl = 0;
}

// ---- Slots

TEST_F(Segment, SlotsAreHandedOutLowestFirst)
{
    make();
    KEM_LONG_T slot = 77;
    for (int expected = 0; expected < 5; ++expected) {
        EXPECT_THAT(reported(KemGetSharedMemChunk, &own_, &slot), Succeeds());
        EXPECT_EQ(slot, expected);
        EXPECT_EQ(semaphore(0), 1);
    }
    EXPECT_EQ(own_.bitmap, 0x1Fu);
    EXPECT_THAT(reported(KemPutSharedMemChunk, &own_, 3), Succeeds());
    EXPECT_THAT(reported(KemPutSharedMemChunk, &own_, 1), Succeeds());
    EXPECT_EQ(own_.bitmap, 0x15u);
    EXPECT_THAT(reported(KemGetSharedMemChunk, &own_, &slot), Succeeds());
    EXPECT_EQ(slot, 1);
}

TEST_F(Segment, SixthSlotIsMinusOneAndNoFailure)
{
    make();
    KEM_LONG_T slot = 77;
    for (int i = 0; i < 5; ++i) ASSERT_EQ(KemGetSharedMemChunk(nullptr, &own_, &slot), 0);
    EXPECT_THAT(reported(KemGetSharedMemChunk, &own_, &slot), Succeeds());
    EXPECT_EQ(slot, -1);
    EXPECT_EQ(own_.bitmap, 0x1Fu);
    EXPECT_EQ(semaphore(0), 1);
}

TEST_F(Segment, SlotsAreHandedOutBeforeTheSegmentIsPublished)
{
    ASSERT_EQ(create(own_, SHM_SERVER, kServer).result, 0);
    own_.buffer = notAttachedYet();
    KEM_LONG_T slot = 77;
    EXPECT_EQ(KemGetSharedMemChunk(nullptr, &own_, &slot), 0);
    EXPECT_EQ(slot, 0);
    KemSetSharedMemSegBuffer(nullptr, &own_, buffer_);
}

// Deliberate: a slot that was not handed out leaves semaphore 0 taken.
TEST_F(Segment, PuttingASlotTwiceLeavesTheSemaphoreTaken)
{
    make();
    KEM_LONG_T slot = 77;
    ASSERT_EQ(KemGetSharedMemChunk(nullptr, &own_, &slot), 0);
    EXPECT_THAT(reported(KemPutSharedMemChunk, &own_, slot), Succeeds());
    EXPECT_EQ(semaphore(0), 1);
    EXPECT_EQ(KemPutSharedMemChunk(nullptr, &own_, slot), SDSTS_SHMEM_CHUNK_FREE);
    EXPECT_EQ(semaphore(0), 0);
    EXPECT_EQ(own_.bitmap, 0u);
}

TEST_F(Segment, SlotCallsNeedTheirArguments)
{
    make();
    KEM_LONG_T slot = 77;
    EXPECT_THAT(reported(KemGetSharedMemChunk, nullptr, &slot), ReturnsOnly(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemGetSharedMemChunk, &own_, nullptr), ReturnsOnly(SDSTS_INVALID_PARAM));
    EXPECT_EQ(slot, 77);
    EXPECT_THAT(reported(KemPutSharedMemChunk, nullptr, 0), ReturnsOnly(SDSTS_INVALID_PARAM));
    for (const KEM_LONG_T outside : {-1, 5, INT32_MIN, INT32_MAX})
        EXPECT_THAT(reported(KemPutSharedMemChunk, &own_, outside), ReturnsOnly(SDSTS_INVALID_PARAM));
    EXPECT_EQ(semaphore(0), 1);
}

TEST_F(Segment, SlotCallsReportTheRefusedRequest)
{
    make();
    KEM_LONG_T slot = 77;
    Failing refused(Call::semop, EACCES);
    EXPECT_THAT(reported(KemGetSharedMemChunk, &own_, &slot), Fails(SDSTS_CNTSEM_REQUEST, EACCES));
    EXPECT_EQ(slot, 77);
    own_.bitmap = 1;
    EXPECT_THAT(reported(KemPutSharedMemChunk, &own_, 0), Fails(SDSTS_CNTSEM_REQUEST, EACCES));
    EXPECT_EQ(own_.bitmap, 1u);
}

TEST_F(Segment, SlotCallsReportTheRefusedPost)
{
    make();
    KEM_LONG_T slot = 77;
    {
        Failing refused = Failing::nth(Call::semop, 2, EIDRM);
        EXPECT_THAT(reported(KemGetSharedMemChunk, &own_, &slot), Fails(SDSTS_CNTSEM_CLEAR, -1));
    }
    EXPECT_EQ(slot, 0);
    change(own_.pShSemSet->id, 0, 1);
    Failing refused = Failing::nth(Call::semop, 2, EIDRM);
    EXPECT_THAT(reported(KemPutSharedMemChunk, &own_, 0), Fails(SDSTS_CNTSEM_CLEAR, -1));
    EXPECT_EQ(own_.bitmap, 0u);
}

TEST_F(Segment, SlotCallsUseTheSegmentsTimeOut)
{
    ASSERT_EQ(create(own_, SHM_SERVER, kServer, 1000).result, 0);
    KemSetSharedMemSegBuffer(nullptr, &own_, buffer_);
    KEM_LONG_T slot = 77;
    resetCalls();
    Failing over(Call::semtimedop, EAGAIN);
    EXPECT_THAT(reported(KemGetSharedMemChunk, &own_, &slot), Fails(SDSTS_CNTSEM_TIMEOUT, EAGAIN));
    EXPECT_THAT(reported(KemPutSharedMemChunk, &own_, 0), Fails(SDSTS_CNTSEM_TIMEOUT, EAGAIN));
    EXPECT_EQ(over.hits(), 2);
}

TEST_F(Segment, ThreadsNeverHoldTheSameSlot)
{
    make();
    constexpr int kThreads = 6; // one more than there are slots
    constexpr int kRounds = 300;
    std::atomic<int> holders[5] = {};
    std::atomic<int> shared{0};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                KEM_LONG_T slot = 77;
                if (KemGetSharedMemChunk(nullptr, &own_, &slot) != 0) ++failures;
                if (slot < 0 || slot > 4) continue;
                if (++holders[slot] != 1) ++shared;
                --holders[slot];
                if (KemPutSharedMemChunk(nullptr, &own_, slot) != 0) ++failures;
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(shared, 0);
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(own_.bitmap, 0u);
}
