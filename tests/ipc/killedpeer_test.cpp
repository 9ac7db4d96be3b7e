// A process of an exchange is killed around each system call that it makes. Nothing undoes what it held, so its slot is
// lost; the other slots go on, and a server that deletes the segment and makes it anew has it whole again, with nothing
// left behind.
//
// Three processes: the victim and its partner talk on slot 0, the test on two others. The partner waits for what the
// victim does not do any more until the set goes. The segment goes with the last who is attached, so both are forked
// before the test attaches it.

#include <gtest/gtest.h>
#include <kemsd/ipc.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "ipc/librarypeer.h"
#include "support/child.h"
#include "support/failingcalls.h"
#include "support/rawpeer.h"
#include "support/tempdir.h"
#include "sync/waiting.h"

using namespace kemsd::test;

namespace {

constexpr int kVictimsSlot = 0;
constexpr int kOtherSlots[] = {1, 4};
constexpr KEM_ULONG_T kDone = 1; // the client's last word: the server may remove the set
constexpr long kTransferFailed = -3;

// A word that the test and its children share.
class SharedFlag {
public:
    SharedFlag()
        : word_(
              static_cast<int*>(mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
    {}
    ~SharedFlag() { munmap(word_, sizeof(int)); }
    SharedFlag(const SharedFlag&) = delete;
    SharedFlag& operator=(const SharedFlag&) = delete;
    void raise() const { __atomic_store_n(word_, 1, __ATOMIC_RELEASE); }
    bool raised() const { return __atomic_load_n(word_, __ATOMIC_ACQUIRE) != 0; }

private:
    int* word_;
};

// ---- What the two on slot 0 do; the result is the status of the call that ended it

std::string request() { return std::string(3000, 'q'); } // two messages
std::string reply() { return std::string(5, 'r'); }

KEM_STS_T ask(LibraryPeer& client, const SharedFlag& attached)
{
    KEM_STS_T status = client.open();
    if (status != 0) return status;
    attached.raise();
    status = client.write(kVictimsSlot, request());
    if (status != 0) return status;
    std::string got(reply().size(), '?');
    KEM_ULONG_T code = 0;
    status = client.read(kVictimsSlot, static_cast<KEM_ULONG_T>(got.size()), code, got.data());
    if (status != 0) return status;
    EXPECT_EQ(got, reply());
    return client.writeCode(kVictimsSlot, kDone);
}

KEM_STS_T askAndLeave(LibraryPeer& client, const SharedFlag& attached)
{
    const KEM_STS_T status = ask(client, attached);
    return status != 0 ? status : client.remove();
}

KEM_STS_T answer(LibraryPeer& server)
{
    std::string got(request().size(), '?');
    KEM_ULONG_T code = 0;
    KEM_STS_T status = server.read(kVictimsSlot, static_cast<KEM_ULONG_T>(got.size()), code, got.data());
    if (status != 0) return status;
    EXPECT_EQ(got, request());
    status = server.write(kVictimsSlot, reply());
    return status != 0 ? status : server.readCode(kVictimsSlot, code);
}

// The server that makes the segment and hands the slot out.
KEM_STS_T serve(LibraryPeer& server)
{
    KEM_STS_T status = server.open(kMakeIt);
    if (status != 0) return status;
    KEM_LONG_T slot = -1;
    status = KemGetSharedMemChunk(nullptr, &server.descriptor(), &slot);
    if (status != 0) return status;
    EXPECT_EQ(slot, kVictimsSlot);
    status = answer(server);
    if (status != 0) return status;
    status = KemPutSharedMemChunk(nullptr, &server.descriptor(), slot);
    return status != 0 ? status : server.remove();
}

// Another process of the server, which finds the segment made.
KEM_STS_T assist(LibraryPeer& server, const SharedFlag& attached)
{
    const KEM_STS_T status = server.open(kOpenIt);
    if (status != 0) return status;
    attached.raise();
    const KEM_STS_T answered = answer(server);
    server.remove();
    return answered;
}

// ---- The deaths

struct Death {
    const char* name;
    Call call;
    long k;
    When when;
};

std::string nameOf(const Death& death)
{
    return std::string(death.when == When::Before ? "Before_" : "After_") + death.name + std::to_string(death.k);
}

std::ostream& operator<<(std::ostream& out, const Death& death) { return out << nameOf(death); }

// Every call that the exchange makes, so many times, before and after.
std::vector<Death> deathsAround(const std::vector<std::pair<const char*, std::pair<Call, long>>>& callsMade)
{
    std::vector<Death> deaths;
    for (const auto& [name, made] : callsMade)
        for (long k = 1; k <= made.second; ++k)
            for (const When when : {When::Before, When::After}) deaths.push_back({name, made.first, k, when});
    return deaths;
}

constexpr long kClientsSemops = 8;  // two messages there, one back, and a code
constexpr long kServersSemops = 12; // the same, and the slot map twice

std::vector<Death> deathsOfAClient()
{
    return deathsAround({{"semget", {Call::semget, 1}},
                         {"shmget", {Call::shmget, 1}},
                         {"shmat", {Call::shmat, 1}},
                         {"semop", {Call::semop, kClientsSemops}},
                         {"shmdt", {Call::shmdt, 1}},
                         {"shmctl", {Call::shmctl, 1}}});
}

std::vector<Death> deathsOfAServer()
{
    return deathsAround({{"semget", {Call::semget, 1}},
                         {"semctl", {Call::semctl, 2}},
                         {"shmget", {Call::shmget, 1}},
                         {"shmat", {Call::shmat, 1}},
                         {"semop", {Call::semop, kServersSemops}},
                         {"shmdt", {Call::shmdt, 1}},
                         {"shmctl", {Call::shmctl, 1}}});
}

// ---- The processes

class KilledPeer : public testing::TestWithParam<Death> {
protected:
    // Kills itself on its way through body.
    template <class Body>
    static int victim(const Death& death, Body body)
    {
        const Interrupting end(death.call, death.k, death.when, [] { kill(getpid(), SIGKILL); });
        body();
        fprintf(stderr, "still alive\n");
        return 1;
    }

    // The victim's partner may have been served whole; or it was refused when the set went, wherever it then was.
    static int partner(KEM_STS_T status)
    {
        if (HasFailure()) return 1;
        for (const long allowed : {0l, long{SDSTS_CNTSEM_REQUEST}, long{SDSTS_CNTSEM_CLEAR}, kTransferFailed})
            if (status == allowed) return 0;
        fprintf(stderr, "status %d\n", status);
        return 1;
    }

    // Waits until the segment is there: its set is complete then. False: it will not come.
    bool segmentAppears(const SharedFlag& over) const
    {
        bool there = false;
        EXPECT_TRUE(eventually([&] {
            there = leftovers.segment() != -1;
            return there || over.raised();
        }));
        return there;
    }

    static void expectKilled(Child& child)
    {
        const Ended ended = child.ended();
        EXPECT_EQ(ended.signal, SIGKILL) << "exit status " << ended.status << "\n" << ended.out << ended.err;
    }
    static void expectRight(Child& child)
    {
        const Ended ended = child.ended();
        EXPECT_EQ(ended.status, 0) << ended.out << ended.err;
    }

    // Some requests and replies of a library's end and a raw one, on one slot.
    static void talk(LibraryPeer& library, RawPeer& peer, int slot)
    {
        for (int i = 0; i < 20; ++i) {
            ASSERT_TRUE(peer.send(slot, {0, "from the peer"}));
            ASSERT_EQ(library.taken(slot, 13), "from the peer");
            ASSERT_EQ(library.write(slot, "from the library"), 0);
            RawMessage got;
            ASSERT_TRUE(peer.receive(slot, got));
            ASSERT_EQ(got, RawMessage(0, "from the library"));
        }
    }

    // A segment fresh from its server serves every slot, and goes without a trace.
    void expectWhole(LibraryPeer& server)
    {
        ASSERT_EQ(server.open(kMakeIt), 0) << "nothing stands in its way";
        const int set = leftovers.set(), segment = leftovers.segment();
        {
            RawPeer client(path, RawSide::Client);
            ASSERT_TRUE(client.open());
            EXPECT_EQ(client.values(), rawInitialValues());
            for (int expected = 0; expected < kRawSlots; ++expected) {
                KEM_LONG_T slot = -1;
                ASSERT_EQ(KemGetSharedMemChunk(nullptr, &server.descriptor(), &slot), 0);
                ASSERT_EQ(slot, expected);
                talk(server, client, slot);
            }
            EXPECT_EQ(client.values(), rawInitialValues());
        }
        EXPECT_EQ(server.remove(), 0);
        EXPECT_TRUE(rawSetIsGone(set));
        EXPECT_TRUE(rawSegmentIsGone(segment));
        EXPECT_TRUE(leftovers.none());
    }

    TempDir directory;
    const std::string path = directory.write("segment", "");
    const RawLeftovers leftovers{path};
    const SharedFlag attached; // the victim's partner is
    const SharedFlag over;     // the test has looked at what the victim left: no segment will come any more
    const SharedFlag unused;
};

class KilledClient : public KilledPeer {};
class KilledServer : public KilledPeer {};

INSTANTIATE_TEST_SUITE_P(Deaths, KilledClient, testing::ValuesIn(deathsOfAClient()),
                         [](const auto& parameter) { return nameOf(parameter.param); });
INSTANTIATE_TEST_SUITE_P(Deaths, KilledServer, testing::ValuesIn(deathsOfAServer()),
                         [](const auto& parameter) { return nameOf(parameter.param); });

} // namespace

TEST_P(KilledClient, LosesItsSlotAndNothingElse)
{
    Child victimsProcess([&] {
        if (!segmentAppears(over)) return 1;
        LibraryPeer client(path, RawSide::Client);
        return victim(GetParam(), [&] { return askAndLeave(client, unused); });
    });
    Child partnersProcess([&] {
        if (!segmentAppears(over)) return 1;
        LibraryPeer assistant(path, RawSide::Server);
        return partner(assist(assistant, attached));
    });
    LibraryPeer server(path, RawSide::Server);
    ASSERT_EQ(server.open(kMakeIt), 0);
    const int set = leftovers.set(), segment = leftovers.segment();
    expectKilled(victimsProcess);
    {
        RawPeer client(path, RawSide::Client);
        ASSERT_TRUE(client.open());
        for (const int slot : kOtherSlots) talk(server, client, slot);
    }
    EXPECT_TRUE(eventually([&] { return attached.raised(); }));
    EXPECT_EQ(server.remove(), 0);
    expectRight(partnersProcess);
    EXPECT_TRUE(rawSetIsGone(set));
    EXPECT_TRUE(rawSegmentIsGone(segment));
    expectWhole(server);
}

TEST_P(KilledServer, LeavesOtherSlotsAtWorkAndItsSuccessorMakesEverythingAnew)
{
    Child victimsProcess([&] {
        LibraryPeer server(path, RawSide::Server);
        return victim(GetParam(), [&] { return serve(server); });
    });
    Child partnersProcess([&] {
        if (!segmentAppears(over)) return 0;
        LibraryPeer client(path, RawSide::Client);
        const KEM_STS_T status = ask(client, attached);
        // Detached by chance between two looks of the test, it would take the segment along.
        if (status == 0) eventually([&] { return over.raised(); });
        return partner(status);
    });
    expectKilled(victimsProcess);

    LibraryPeer client(path, RawSide::Client);
    const bool stands = leftovers.set() != -1 && leftovers.segment() != -1;
    if (stands) {
        EXPECT_TRUE(eventually([&] { return attached.raised(); }));
        ASSERT_EQ(client.open(), 0);
        RawPeer otherServer(path, RawSide::Server);
        ASSERT_TRUE(otherServer.open());
        for (const int slot : kOtherSlots) talk(client, otherServer, slot);
    }
    over.raise();
    if (!stands) expectRight(partnersProcess); // nothing is left that it could wait for

    // Whatever is left over is the successor's by right of its path; deleting it frees whoever waits.
    LibraryPeer successor(path, RawSide::Server);
    ASSERT_EQ(successor.open(kMakeOrTakeIt), 0);
    const int set = leftovers.set(), segment = leftovers.segment();
    EXPECT_EQ(successor.remove(), 0);
    if (stands) expectRight(partnersProcess);
    EXPECT_EQ(client.remove(), 0);
    EXPECT_TRUE(rawSetIsGone(set));
    EXPECT_TRUE(rawSegmentIsGone(segment));
    expectWhole(successor);
}

// ---- The grid is complete

TEST(KilledPeerGrid, HoldsEverySemaphoreOperationOfAnExchange)
{
    const TempDir directory;
    const std::string path = directory.write("segment", "");
    const RawLeftovers leftovers(path);
    const SharedFlag unused;
    const auto counted = [](KEM_STS_T status, long semops) {
        fprintf(stderr, "status %d, %ld semops\n", status, calls(Call::semop));
        return status == 0 && calls(Call::semop) == semops && calls(Call::shmat) == 1 && calls(Call::shmdt) == 1 ? 0
                                                                                                                 : 1;
    };
    Child server([&] {
        LibraryPeer peer(path, RawSide::Server);
        resetCalls();
        return counted(serve(peer), kServersSemops);
    });
    Child client([&] {
        eventually([&] { return leftovers.segment() != -1; });
        LibraryPeer peer(path, RawSide::Client);
        resetCalls();
        return counted(askAndLeave(peer, unused), kClientsSemops);
    });
    const Ended clientEnded = client.ended(), serverEnded = server.ended();
    EXPECT_EQ(clientEnded.status, 0) << clientEnded.err;
    EXPECT_EQ(serverEnded.status, 0) << serverEnded.err;
    EXPECT_TRUE(leftovers.none());
}

// ---- A client that outlives its server finds the next one

namespace {

class OutlivingClient : public testing::Test {
protected:
    ~OutlivingClient() override { KemDeleteSharedMemSeg(nullptr, segments); }

    // What a client does before each request.
    OV_SHAREDMEM_SEG_T* found(KEM_PROCID_T serversId, bool& created)
    {
        KEM_BOOL_T toBeCreated = FALSE, wait = FALSE;
        OV_SHAREDMEM_SEG_T* segment = nullptr;
        EXPECT_EQ(KemFindShareMemSeg(nullptr, path.c_str(), SHM_CLIENT, &segments, TRUE, serversId, 1, &toBeCreated,
                                     &wait, &segment),
                  0);
        EXPECT_FALSE(wait);
        created = toBeCreated;
        if (!created || !segment) return segment;
        KEM_IPCKEY_T key;
        char* base = nullptr;
        EXPECT_EQ(KemCreateSharedMemSeg(nullptr, path.c_str(), SHM_CLIENT, kOpenIt, 0, segment, -1, &key, &base), 0);
        KemSetSharedMemSegBuffer(nullptr, segment, base);
        return segment;
    }

    // A request by the client's own entry, taken by the server.
    static void expectServed(OV_SHAREDMEM_SEG_T* segment, LibraryPeer& server, int slot)
    {
        ASSERT_EQ(KemWriteSharedMemChunk(nullptr, segment, slot, 5, TRUE, TRUE, "hello"), 0);
        EXPECT_EQ(server.taken(slot, 5), "hello");
    }

    TempDir directory;
    const std::string path = directory.write("segment", "");
    const RawLeftovers leftovers{path};
    OV_SHAREDMEM_SEG_LIST_T* segments = nullptr;
};

} // namespace

TEST_F(OutlivingClient, LetsGoOfTheKilledServersSegmentAndOpensTheSuccessors)
{
    SharedFlag goOn;
    Child victimsProcess([&] {
        LibraryPeer server(path, RawSide::Server);
        if (server.open(kMakeIt) != 0) return 1;
        eventually([&] { return goOn.raised(); });
        return raise(SIGKILL);
    });
    EXPECT_TRUE(eventually([&] { return leftovers.segment() != -1; }));
    bool created = false;
    OV_SHAREDMEM_SEG_T* const segment = found(1001, created);
    ASSERT_NE(segment, nullptr);
    EXPECT_TRUE(created);
    ASSERT_EQ(KemWriteSharedMemChunk(nullptr, segment, 2, 4, TRUE, TRUE, "lost"), 0);
    goOn.raise();
    EXPECT_EQ(victimsProcess.ended().signal, SIGKILL);
    EXPECT_EQ(found(1001, created), segment);
    EXPECT_FALSE(created) << "nobody told the client yet";
    const int set = segment->pShSemSet->id, shared = segment->shmemHdl;

    LibraryPeer successor(path, RawSide::Server);
    ASSERT_EQ(successor.open(kMakeOrTakeIt), 0);
    ASSERT_EQ(successor.remove(), 0);
    EXPECT_TRUE(rawSetIsGone(set));
    EXPECT_FALSE(rawSegmentIsGone(shared)) << "the client is attached";

    EXPECT_EQ(found(1001, created), segment);
    EXPECT_EQ(KemWriteSharedMemChunk(nullptr, segment, 2, 4, TRUE, TRUE, "lost"), SDSTS_CNTSEM_REQUEST);
    successor.open(kMakeOrTakeIt);
    EXPECT_EQ(found(1002, created), segment);
    EXPECT_TRUE(created);
    expectServed(segment, successor, 2);
    EXPECT_EQ(found(1002, created), segment);
    EXPECT_FALSE(created);
    expectServed(segment, successor, 2);

    EXPECT_EQ(KemDeleteSharedMemSeg(nullptr, std::exchange(segments, nullptr)), 0);
    EXPECT_EQ(successor.remove(), 0);
    EXPECT_TRUE(leftovers.none());
}
