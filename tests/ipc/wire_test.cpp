// The interface between two processes, byte for byte: the library on one side, on the other a peer that knows the
// layout alone. Here both ends are held by one process, each with an attachment of its own, and take turns.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <kemsd/sync.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "ipc/librarypeer.h"
#include "support/child.h"
#include "support/rawpeer.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

// What a key is made of: the letter, the device, the number of the path's file.
key_t keyByHand(const std::string& path, char letter)
{
    struct stat file {};
    EXPECT_EQ(stat(path.c_str(), &file), 0);
    return static_cast<key_t>(static_cast<uint32_t>(letter) << 24 | (file.st_dev & 0xFF) << 16 |
                              (file.st_ino & 0xFFFF));
}

std::string text(size_t bytes, unsigned from = 0)
{
    std::string made(bytes, '\0');
    for (size_t i = 0; i < bytes; ++i) made[i] = static_cast<char>((from + i) * 167 % 251 + 1);
    return made;
}

class Wire : public testing::Test {
protected:
    TempDir directory;
    const std::string path = directory.write("segment", "");
    const RawLeftovers leftovers{path};
};

} // namespace

TEST_F(Wire, SetAndSegmentAreFoundByThePathAndALetterEach)
{
    LibraryPeer server(path, RawSide::Server);
    ASSERT_EQ(server.open(), 0);
    const key_t segmentKey = keyByHand(path, 'w'), setKey = keyByHand(path, 'x');
    EXPECT_EQ(server.key(), segmentKey);
    EXPECT_EQ(shmget(segmentKey, 0, 0), server.descriptor().shmemHdl);
    EXPECT_EQ(semget(setKey, 0, 0), server.descriptor().pShSemSet->id);

    KEM_IPCKEY_T key = 0;
    EXPECT_EQ(KemSdSharedMemNameConvert(path.c_str(), 'w', &key), 0);
    EXPECT_EQ(key, segmentKey);
    EXPECT_EQ(KemSdSharedSemNameConvert(path.c_str(), 'x', &key), 0);
    EXPECT_EQ(key, setKey);
}

TEST_F(Wire, ServerMakes20480BytesThatEverybodyMayUseAnd21Members)
{
    LibraryPeer server(path, RawSide::Server);
    ASSERT_EQ(server.open(), 0);
    RawPeer client(path, RawSide::Client);
    ASSERT_TRUE(client.open());
    EXPECT_EQ(client.bytes(), 20480u);
    EXPECT_EQ(client.permissions(), 0666u);
    EXPECT_EQ(client.members(), 21);
    EXPECT_THAT(client.values(), testing::ElementsAre(1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1));
    EXPECT_EQ(std::string(client.base(), kRawSegmentBytes), std::string(kRawSegmentBytes, '\0'));
}

TEST_F(Wire, ClientFindsWhatAServerMadeAndLeavesItsValuesAlone)
{
    RawPeer server(path, RawSide::Server);
    ASSERT_TRUE(server.make());
    ASSERT_TRUE(server.setValue(7, 3));
    RawValues values = rawInitialValues();
    values[7] = 3;
    {
        LibraryPeer client(path, RawSide::Client);
        ASSERT_EQ(client.open(), 0);
        EXPECT_EQ(client.descriptor().shmemHdl, server.segment());
        EXPECT_EQ(client.descriptor().pShSemSet->id, server.set());
        EXPECT_EQ(server.values(), values);
    }
    EXPECT_EQ(server.values(), values) << "after the client has gone";
    EXPECT_EQ(leftovers.segment(), server.segment());
}

TEST_F(Wire, ServerThatGoesTakesSetAndSegmentWithIt)
{
    LibraryPeer server(path, RawSide::Server);
    ASSERT_EQ(server.open(), 0);
    const int set = leftovers.set(), segment = leftovers.segment();
    EXPECT_EQ(server.remove(), 0);
    EXPECT_TRUE(rawSetIsGone(set));
    EXPECT_TRUE(rawSegmentIsGone(segment));
    EXPECT_TRUE(leftovers.none());
}

TEST_F(Wire, SegmentLivesAsLongAsSomebodyIsAttached)
{
    LibraryPeer server(path, RawSide::Server);
    ASSERT_EQ(server.open(), 0);
    RawPeer client(path, RawSide::Client);
    ASSERT_TRUE(client.open());
    EXPECT_EQ(server.remove(), 0);
    EXPECT_EQ(leftovers.set(), -1);
    EXPECT_EQ(leftovers.segment(), client.segment());
    EXPECT_FALSE(client.awaitFree(0)) << "whoever waits for a removed set is refused";
}

TEST_F(Wire, SlotsAreHandedOutUnderMember0)
{
    LibraryPeer server(path, RawSide::Server);
    ASSERT_EQ(server.open(), 0);
    RawPeer client(path, RawSide::Client);
    ASSERT_TRUE(client.open());
    KEM_LONG_T slot = -2;
    ASSERT_EQ(KemGetSharedMemChunk(nullptr, &server.descriptor(), &slot), 0);
    EXPECT_EQ(slot, 0);
    EXPECT_EQ(client.values(), rawInitialValues());
    ASSERT_EQ(KemPutSharedMemChunk(nullptr, &server.descriptor(), slot), 0);
    EXPECT_EQ(client.values(), rawInitialValues());

    EXPECT_EQ(KemPutSharedMemChunk(nullptr, &server.descriptor(), slot), SDSTS_SHMEM_CHUNK_FREE);
    EXPECT_EQ(client.value(kRawSlotMapMember), 0);
    EXPECT_EQ(std::string(client.base(), kRawSegmentBytes), std::string(kRawSegmentBytes, '\0'))
        << "the slot map is the server's own";
}

// ---- One message, every slot, both sides

namespace {

class WireOfASlot : public Wire, public testing::WithParamInterface<std::tuple<RawSide, int>> {
protected:
    WireOfASlot() : side(std::get<0>(GetParam())), slot(std::get<1>(GetParam())) {}

    void SetUp() override
    {
        if (side == RawSide::Server) {
            ASSERT_EQ(library.open(), 0);
            ASSERT_TRUE(peer.open());
        } else {
            ASSERT_TRUE(peer.make());
            ASSERT_EQ(library.open(), 0);
        }
        memset(peer.base(), kFill, kRawSegmentBytes);
    }

    // The segment when nothing was written but this, at that place.
    static std::string segmentWith(size_t at, const std::string& bytes)
    {
        return std::string(kRawSegmentBytes, kFill).replace(at, bytes.size(), bytes);
    }
    std::string segment() const { return {peer.base(), kRawSegmentBytes}; }

    int ready(RawSide writer) const { return peer.value(4 * slot + (writer == RawSide::Client ? 1 : 3)); }
    int free(RawSide writer) const { return peer.value(4 * slot + (writer == RawSide::Client ? 2 : 4)); }
    size_t placeOf(RawSide writer) const
    {
        return static_cast<size_t>(4096 * slot + (writer == RawSide::Client ? 0 : 2048));
    }

    static constexpr char kFill = '\x5A';
    const RawSide side; // the library's
    const int slot;
    LibraryPeer library{path, side};
    RawPeer peer{path, otherSide(side)};
};

INSTANTIATE_TEST_SUITE_P(Slots, WireOfASlot,
                         testing::Combine(testing::Values(RawSide::Client, RawSide::Server), testing::Range(0, 5)),
                         [](const auto& parameter) {
                             const bool client = std::get<0>(parameter.param) == RawSide::Client;
                             return (client ? "Client" : "Server") + std::to_string(std::get<1>(parameter.param));
                         });

std::string header(uint32_t code, uint32_t size)
{
    std::string bytes(8, '\0');
    for (int i = 0; i < 4; ++i) {
        bytes[static_cast<size_t>(i)] = static_cast<char>(code >> 8 * i);
        bytes[static_cast<size_t>(i + 4)] = static_cast<char>(size >> 8 * i);
    }
    return bytes;
}

} // namespace

TEST_P(WireOfASlot, MessageIsItsHeaderAndItsBytesAndNothingElse)
{
    const std::string bytes = text(300);
    ASSERT_EQ(library.write(slot, bytes), 0);
    EXPECT_EQ(segment(), segmentWith(placeOf(side), header(0, 300) + bytes));
    RawValues values = rawInitialValues();
    values[static_cast<size_t>(rawReadyMember(side, slot))] = 1;
    values[static_cast<size_t>(rawFreeMember(side, slot))] = 0;
    EXPECT_EQ(peer.values(), values);

    RawMessage message;
    ASSERT_TRUE(peer.receive(slot, message));
    EXPECT_EQ(message, RawMessage(0, bytes));
    EXPECT_EQ(peer.values(), rawInitialValues());
}

TEST_P(WireOfASlot, ReadTakesWhatTheHeaderSaysFromTheOthersBuffer)
{
    const RawSide other = otherSide(side);
    const std::string bytes = text(2040);
    ASSERT_TRUE(peer.send(slot, {0, bytes}));
    const std::string before = segment();
    EXPECT_EQ(library.taken(slot, 40), bytes.substr(0, 40));
    EXPECT_EQ(ready(other), 0);
    EXPECT_EQ(free(other), 0) << "the buffer is free once it is empty";
    EXPECT_EQ(library.taken(slot, 2000), bytes.substr(40));
    EXPECT_EQ(peer.values(), rawInitialValues());
    EXPECT_EQ(segment(), before) << "a reader writes nothing";
}

TEST_P(WireOfASlot, CodeTravelsInTheHeader)
{
    for (const uint32_t code : {1u, 0x01020304u, 0x80000000u, 0xFFFFFFFDu, 0xFFFFFFFFu}) {
        ASSERT_EQ(library.writeCode(slot, code), 0);
        EXPECT_EQ(segment().substr(placeOf(side), 8), header(code, 0));
        RawMessage message;
        ASSERT_TRUE(peer.receive(slot, message));
        EXPECT_EQ(message, RawMessage(code, ""));

        ASSERT_TRUE(peer.send(slot, {code, ""}));
        KEM_ULONG_T got = 0;
        ASSERT_EQ(library.readCode(slot, got), 0);
        EXPECT_EQ(got, code);

        ASSERT_TRUE(peer.send(slot, {code, ""}));
        char untouched = '?';
        got = 0;
        ASSERT_EQ(library.read(slot, 1, got, &untouched), 0);
        EXPECT_EQ(got, code);
        EXPECT_EQ(untouched, '?');
        EXPECT_EQ(peer.values(), rawInitialValues());
    }
}

TEST_P(WireOfASlot, GatheredPiecesAreOneMessage)
{
    ASSERT_EQ(library.write(slot, text(100), false), 0);
    EXPECT_EQ(ready(side), 0);
    EXPECT_EQ(free(side), 0) << "a gathering writer holds the buffer";
    ASSERT_EQ(library.write(slot, text(50, 7), false, false), 0);
    EXPECT_EQ(ready(side), 0);
    ASSERT_EQ(library.write(slot, text(1, 9)), 0);
    RawMessage message;
    ASSERT_TRUE(peer.receive(slot, message));
    EXPECT_EQ(message, RawMessage(0, text(100) + text(50, 7) + text(1, 9)));
}

TEST_P(WireOfASlot, FullBufferIsSentUnasked)
{
    ASSERT_EQ(library.write(slot, text(2000), false), 0);
    EXPECT_EQ(ready(side), 0);
    ASSERT_EQ(library.write(slot, text(40, 3), false), 0);
    EXPECT_EQ(ready(side), 1);
    RawMessage message;
    ASSERT_TRUE(peer.receive(slot, message));
    EXPECT_EQ(message, RawMessage(0, text(2000) + text(40, 3)));
}

TEST_P(WireOfASlot, CodeCarriesWhatWasGatheredAndTheReaderDropsIt)
{
    ASSERT_EQ(library.write(slot, text(100), false), 0);
    ASSERT_EQ(library.writeCode(slot, 5), 0);
    RawMessage message;
    ASSERT_TRUE(peer.receive(slot, message));
    EXPECT_EQ(message, RawMessage(5, text(100)));

    // Both ways to take a code are followed by a message that must not be mixed with the dropped bytes.
    for (const bool codeRead : {true, false}) {
        ASSERT_TRUE(peer.send(slot, {6, text(100)}));
        KEM_ULONG_T code = 0;
        char untouched = '?';
        ASSERT_EQ(codeRead ? library.readCode(slot, code) : library.read(slot, 1, code, &untouched), 0);
        EXPECT_EQ(code, 6u);
        EXPECT_EQ(untouched, '?');
        EXPECT_EQ(peer.values(), rawInitialValues());
        ASSERT_TRUE(peer.send(slot, {0, "fresh"}));
        EXPECT_EQ(library.taken(slot, 5), "fresh");
        EXPECT_EQ(peer.values(), rawInitialValues());
    }
}

TEST_P(WireOfASlot, CodeReadTakesDataForCode0)
{
    ASSERT_TRUE(peer.send(slot, {0, text(100)}));
    KEM_ULONG_T code = 77;
    ASSERT_EQ(library.readCode(slot, code), 0);
    EXPECT_EQ(code, 0u);
    EXPECT_EQ(peer.values(), rawInitialValues());
    ASSERT_TRUE(peer.send(slot, {0, "fresh"}));
    EXPECT_EQ(library.taken(slot, 5), "fresh");
}

TEST_P(WireOfASlot, CodeReadDropsWhatIsUnreadAndWaitsForTheNextMessage)
{
    ASSERT_TRUE(peer.send(slot, {0, text(100)}));
    EXPECT_EQ(library.taken(slot, 40), text(40));
    Child sender([&] { return peer.send(slot, {9, ""}) ? 0 : 1; });
    KEM_ULONG_T code = 77;
    EXPECT_EQ(library.readCode(slot, code), 0);
    EXPECT_EQ(code, 9u);
    EXPECT_EQ(sender.ended().status, 0);
    EXPECT_EQ(peer.values(), rawInitialValues());
}

TEST_P(WireOfASlot, StringsAreTakenOneByOneWithTheirEnds)
{
    ASSERT_TRUE(peer.send(slot, {0, std::string("abc\0\0de\0rest", 12)}));
    for (const std::string& expected : {std::string("abc\0", 4), std::string("\0", 1), std::string("de\0", 3)}) {
        std::string got(2040, '?');
        KEM_ULONG_T code = 0;
        ASSERT_EQ(library.readString(slot, code, got.data()), 0);
        EXPECT_EQ(code, 0u);
        EXPECT_EQ(got, expected + std::string(2040 - expected.size(), '?'));
    }
    EXPECT_EQ(free(otherSide(side)), 0);
    EXPECT_EQ(library.taken(slot, 4), "rest");
    EXPECT_EQ(peer.values(), rawInitialValues());
}

TEST_P(WireOfASlot, StringWithoutEndIsTheRestOfItsMessage)
{
    for (const size_t bytes : {1, 7, 2039, 2040}) {
        ASSERT_TRUE(peer.send(slot, {0, text(bytes)}));
        std::string got(2040, '?');
        KEM_ULONG_T code = 0;
        ASSERT_EQ(library.readString(slot, code, got.data()), 0);
        EXPECT_EQ(got, text(bytes) + std::string(2040 - bytes, '?'));
        EXPECT_EQ(peer.values(), rawInitialValues());
    }
}

// ---- The file-system names of a named pipe

namespace {

class NamedPipeWire : public testing::Test {
protected:
    TempDir directory;
    const std::string name = directory.path("pipe");
};

mode_t modeOf(const std::string& path)
{
    struct stat file {};
    return stat(path.c_str(), &file) == 0 ? file.st_mode : 0;
}

} // namespace

TEST_F(NamedPipeWire, PipeIsTwoFifosNamed1And2ThatEverybodyMayUse)
{
    const mode_t before = umask(077);
    KEM_PIPEHDL_T unused{};
    EXPECT_EQ(KemSdNamedPipeCreate(nullptr, name.c_str(), &unused, 0, 0, 1, 0, 0, 0), 0);
    EXPECT_EQ(umask(before), 077u);
    EXPECT_EQ(modeOf(name + "_1"), S_IFIFO | 0666u);
    EXPECT_EQ(modeOf(name + "_2"), S_IFIFO | 0666u);
    EXPECT_EQ(modeOf(name), 0u);
}

TEST_F(NamedPipeWire, BytesPassBetweenTheLibraryAndWhoeverOpensTheFifo)
{
    for (const char* end : {"_1", "_2"}) {
        ASSERT_EQ(mkfifo((name + end).c_str(), 0600), 0);
        int library = -1;
        ASSERT_EQ(KemSdNamedPipeUnixConnect(nullptr, (name + end).c_str(), &library), 0);
        const int peer = open((name + end).c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        ASSERT_NE(peer, -1);
        char got[5] = {};
        EXPECT_EQ(write(library, "there", 5), 5);
        EXPECT_EQ(read(peer, got, sizeof got), 5);
        EXPECT_EQ(std::string(got, 5), "there");
        EXPECT_EQ(write(peer, "again", 5), 5);
        EXPECT_EQ(read(library, got, sizeof got), 5);
        EXPECT_EQ(std::string(got, 5), "again");
        close(peer);
        close(library);
    }
}
