// Streams between two processes, one of which is the library and the other a peer that knows the layout alone. What a
// writer is told to do determines the messages that must come of it, whole and in order; a model derives them, a raw
// writer sends just these, a raw reader expects just these, and a reader by the library asks for them in portions of
// its own, as far as the messages allow.

#include <gtest/gtest.h>
#include <kemsd/ipc.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "ipc/librarypeer.h"
#include "support/child.h"
#include "support/rawpeer.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kSteps = 200;
#else
constexpr int kSteps = 1000;
#endif

// ---- The model

// One call of a writer: a piece of so many bytes, or, without bytes, a code.
struct Step {
    uint32_t bytes = 0;
    uint32_t code = 0;
    bool flush = true;
    bool split = true;
};

// The stream's bytes from a place on. They repeat after a number of bytes that no buffer's size divides; one in sixteen
// is a NUL.
std::string content(uint64_t place, size_t bytes)
{
    constexpr size_t kPeriod = 65521;
    static const std::string all = [] {
        std::string made(kPeriod, '\0');
        std::mt19937 random(1);
        for (char& byte : made) byte = static_cast<char>(random() % 16 ? random() % 255 + 1 : 0);
        return made;
    }();
    std::string wanted;
    while (wanted.size() < bytes) wanted += all.substr((place + wanted.size()) % kPeriod, bytes - wanted.size());
    return wanted;
}

class Messages {
public:
    explicit Messages(const std::vector<Step>& steps)
    {
        for (const Step& step : steps) {
            if (step.bytes)
                addPiece(step);
            else
                send(step.code);
        }
        EXPECT_TRUE(gathered_.empty()) << "the last step sends everything";
    }
    std::vector<RawMessage> take() { return std::move(sent_); }

private:
    void addPiece(const Step& step)
    {
        const bool startsAnew = !step.split && gathered_.size() + step.bytes > kRawPayloadBytes;
        if (startsAnew) send(0);
        for (uint32_t left = step.bytes; left > 0;) {
            const auto count = std::min(left, static_cast<uint32_t>(kRawPayloadBytes - gathered_.size()));
            gathered_ += content(place_, count);
            place_ += count;
            left -= count;
            if (gathered_.size() == kRawPayloadBytes) send(0);
        }
        if ((step.flush || startsAnew) && !gathered_.empty()) send(0);
    }
    void send(uint32_t code)
    {
        sent_.emplace_back(code, std::move(gathered_));
        gathered_.clear();
    }

    std::vector<RawMessage> sent_;
    std::string gathered_;
    uint64_t place_ = 0;
};

std::vector<RawMessage> messagesOf(const std::vector<Step>& steps) { return Messages(steps).take(); }

using Random = std::mt19937;

uint32_t between(Random& random, uint32_t least, uint32_t most)
{
    return std::uniform_int_distribution<uint32_t>(least, most)(random);
}

uint32_t randomBytes(Random& random)
{
    switch (between(random, 0, 9)) {
        case 0:
            return between(random, 2030, 2050);
        case 1:
            return between(random, 1, 10) * kRawPayloadBytes;
        case 2:
            return between(random, 1, 20000);
        case 3:
            return between(random, 0, 9) == 0 ? between(random, 1, 1 << 20) : 1;
        default:
            return between(random, 1, 300);
    }
}

Step randomStep(Random& random)
{
    Step step;
    if (between(random, 0, 14) == 0) {
        step.code = between(random, 0, 1) ? between(random, 1, 9) : 0xFFFFFFFF - between(random, 0, 9);
        return step;
    }
    step.bytes = randomBytes(random);
    step.flush = between(random, 0, 2) == 0;
    step.split = step.bytes > kRawPayloadBytes || between(random, 0, 1);
    return step;
}

std::vector<Step> randomSteps(unsigned seed, int count)
{
    Random random(seed);
    std::vector<Step> steps;
    for (int i = 0; i < count; ++i) steps.push_back(randomStep(random));
    steps.push_back({1, 0, true, true});
    return steps;
}

// ---- The four ends

void rawWrites(RawPeer& peer, int slot, const std::vector<RawMessage>& messages)
{
    for (size_t i = 0; i < messages.size(); ++i)
        if (!peer.send(slot, messages[i])) {
            ADD_FAILURE() << "message " << i << " of " << messages.size() << " could not be sent";
            return;
        }
}

void rawReads(RawPeer& peer, int slot, const std::vector<RawMessage>& messages)
{
    for (size_t i = 0; i < messages.size(); ++i) {
        RawMessage got;
        if (!peer.receive(slot, got)) {
            ADD_FAILURE() << "message " << i << " of " << messages.size() << " did not come";
            return;
        }
        if (got != messages[i]) {
            ADD_FAILURE() << "message " << i << " is " << got << " instead of " << messages[i];
            return;
        }
    }
}

void libraryWrites(LibraryPeer& library, int slot, const std::vector<Step>& steps)
{
    uint64_t place = 0;
    for (size_t i = 0; i < steps.size(); ++i) {
        const Step& step = steps[i];
        KEM_STS_T status;
        if (step.bytes) {
            status = library.write(slot, content(place, step.bytes), step.flush, step.split);
            place += step.bytes;
        } else {
            status = library.writeCode(slot, step.code);
        }
        if (status != 0) {
            ADD_FAILURE() << "step " << i << " of " << steps.size() << ": status " << status;
            return;
        }
    }
}

// Reads what the messages hold, in portions that do not keep to the writer's: no portion leaves a message that is not
// full, unless at its end.
class LibraryReader {
public:
    LibraryReader(LibraryPeer& library, int slot, const std::vector<RawMessage>& messages, unsigned seed)
        : library_(library), slot_(slot), messages_(messages), random_(seed)
    {}

    void run()
    {
        while (next_ < messages_.size()) {
            const bool right = isCode(next_) ? takeCode() : between(random_, 0, 3) ? takeBytes() : takeString();
            if (!right) {
                ADD_FAILURE() << "at byte " << offset_ << " of message " << next_ << ", which is " << messages_[next_];
                return;
            }
        }
    }

private:
    static constexpr char kUntouched = '\x3C';
    static constexpr size_t kBehind = 64;

    // A place for so many bytes, with some behind it that must stay as they are.
    struct Place {
        explicit Place(size_t itsBytes) : bytes(itsBytes), held(itsBytes + kBehind, kUntouched) {}
        bool holds(const std::string& expected) const
        {
            return held == expected + std::string(bytes + kBehind - expected.size(), kUntouched);
        }
        size_t bytes;
        std::string held;
    };

    bool isCode(size_t message) const { return messages_[message].code != 0; }
    bool isFull(size_t message) const { return messages_[message].size == kRawPayloadBytes; }

    bool takeCode()
    {
        const uint32_t expected = messages_[next_].code;
        KEM_ULONG_T code = 0;
        Place place(kRawPayloadBytes);
        KEM_STS_T status;
        switch (between(random_, 0, 2)) {
            case 0:
                status = library_.readCode(slot_, code);
                break;
            case 1:
                status = library_.readString(slot_, code, place.held.data());
                break;
            default:
                status = library_.read(slot_, between(random_, 1, 2040), code, place.held.data());
        }
        const bool right = status == 0 && code == expected && place.holds("");
        if (right) ++next_;
        return right;
    }

    // What one read may take from here on: to the end of the first message that is not full, or a hundred further.
    std::string reach(bool& endsInCode) const
    {
        std::string bytes = messages_[next_].payload.substr(offset_);
        size_t last = next_;
        while (isFull(last) && last + 1 < messages_.size() && last < next_ + 100 && !isCode(last + 1))
            bytes += messages_[++last].payload;
        endsInCode = isFull(last) && last + 1 < messages_.size() && isCode(last + 1);
        return bytes;
    }

    bool takeBytes()
    {
        bool endsInCode = false;
        const std::string all = reach(endsInCode);
        const auto most = static_cast<uint32_t>(all.size());
        uint32_t wanted = between(random_, 1, most);
        if (between(random_, 0, 1)) wanted = std::min(most, between(random_, 1, 400));
        if (between(random_, 0, 3) == 0) wanted = most;
        const bool beyond = endsInCode && between(random_, 0, 2) == 0;
        if (beyond) wanted = most + between(random_, 1, 3000);

        const bool atStart = offset_ == 0;
        Place place(wanted);
        KEM_ULONG_T code = 77;
        const KEM_STS_T status = library_.read(slot_, wanted, code, place.held.data());
        if (status != 0 || !place.holds(all.substr(0, wanted))) return false;
        pass(std::min(most, wanted));
        if (beyond) return code == messages_[next_++].code;
        return code == 0 || (!atStart && code == 77);
    }

    bool takeString()
    {
        const std::string rest = messages_[next_].payload.substr(offset_);
        const size_t bytes = std::min(rest.find('\0'), rest.size() - 1) + 1;
        Place place(kRawPayloadBytes);
        KEM_ULONG_T code = 0;
        const KEM_STS_T status = library_.readString(slot_, code, place.held.data());
        if (status != 0 || code != 0 || !place.holds(rest.substr(0, bytes))) return false;
        pass(bytes);
        return true;
    }

    void pass(size_t bytes)
    {
        for (; bytes > 0; --bytes)
            if (++offset_ == messages_[next_].payload.size()) {
                ++next_;
                offset_ = 0;
            }
    }

    LibraryPeer& library_;
    const int slot_;
    const std::vector<RawMessage>& messages_;
    Random random_;
    size_t next_ = 0;
    size_t offset_ = 0;
};

void libraryReads(LibraryPeer& library, int slot, const std::vector<RawMessage>& messages, unsigned seed)
{
    LibraryReader(library, slot, messages, seed).run();
}

// ---- The two processes

class WireStream : public testing::TestWithParam<RawSide> {
protected:
    void SetUp() override
    {
        if (GetParam() == RawSide::Server) {
            ASSERT_EQ(library.open(), 0);
            ASSERT_TRUE(peer.open());
        } else {
            ASSERT_TRUE(peer.make());
            ASSERT_EQ(library.open(), 0);
        }
    }
    void TearDown() override { EXPECT_EQ(peer.values(), rawInitialValues()) << "all is read, all buffers are free"; }

    // The peer works in a process of its own.
    template <class Peer, class Library>
    void beside(Peer rawPart, Library libraryPart)
    {
        Child child([&] {
            rawPart();
            return HasFailure() ? 1 : 0;
        });
        libraryPart();
        const Ended ended = child.ended();
        EXPECT_EQ(ended.status, 0) << ended.out << ended.err;
    }

    void libraryToPeer(int slot, const std::vector<Step>& steps)
    {
        const std::vector<RawMessage> messages = messagesOf(steps);
        beside([&] { rawReads(peer, slot, messages); }, [&] { libraryWrites(library, slot, steps); });
    }
    void peerToLibrary(int slot, const std::vector<Step>& steps, unsigned seed)
    {
        const std::vector<RawMessage> messages = messagesOf(steps);
        beside([&] { rawWrites(peer, slot, messages); }, [&] { libraryReads(library, slot, messages, seed); });
        EXPECT_EQ(library.readRecord(slot).hdr.size, 0u);
    }

    TempDir directory;
    const std::string path = directory.write("segment", "");
    const RawLeftovers leftovers{path};
    LibraryPeer library{path, GetParam()};
    RawPeer peer{path, otherSide(GetParam())};
};

INSTANTIATE_TEST_SUITE_P(Sides, WireStream, testing::Values(RawSide::Client, RawSide::Server),
                         [](const auto& p) { return p.param == RawSide::Client ? "Client" : "Server"; });

// A piece of every size that meets an edge, up to several MiB.
std::vector<Step> piecesOfAllSizes(bool flush)
{
    std::vector<Step> steps;
    for (const uint32_t bytes : {1u, 2u, 2039u, 2040u, 2041u, 4079u, 4080u, 4081u, 65536u, 1u << 20, 3u << 20})
        steps.push_back({bytes, 0, flush, true});
    steps.push_back({1, 0, true, true});
    return steps;
}

// Pieces that stay whole, so that messages end before they are full.
std::vector<Step> wholePieces()
{
    std::vector<Step> steps;
    for (const uint32_t bytes : {1u, 2039u, 1u, 2040u, 1000u, 1040u, 1000u, 1041u, 2040u, 2040u, 1u})
        steps.push_back({bytes, 0, false, false});
    steps.back().flush = true;
    return steps;
}

// Codes at the start, in a row, behind gathered bytes, behind a full message, and at the end.
std::vector<Step> codesAmongData()
{
    return {{0, 1},    {0, 0xFFFFFFFF}, {100, 0, false}, {0, 2}, {100, 0, true},   {0, 3},
            {2040, 0}, {0, 4},          {5000, 0, true}, {0, 5}, {5000, 0, false}, {0, 6}};
}

// What two threads of a process do at once.
void atOnce(const std::function<void()>& one, const std::function<void()>& other)
{
    std::thread thread(one);
    other();
    thread.join();
}

} // namespace

TEST_P(WireStream, PiecesFromOneByteToSeveralMegabytesArriveWhole)
{
    for (const bool flush : {true, false}) {
        libraryToPeer(1, piecesOfAllSizes(flush));
        peerToLibrary(2, piecesOfAllSizes(flush), 1);
    }
}

TEST_P(WireStream, UnsplitPiecesLieInOneMessageEach)
{
    libraryToPeer(0, wholePieces());
    peerToLibrary(0, wholePieces(), 2);
}

TEST_P(WireStream, CodesComeWhereTheyWereWritten)
{
    libraryToPeer(3, codesAmongData());
    for (unsigned seed = 0; seed < 20; ++seed) peerToLibrary(4, codesAmongData(), seed);
}

TEST_P(WireStream, BothDirectionsOfASlotFlowAtOnce)
{
    const int slot = 2;
    const std::vector<Step> there = randomSteps(11, kSteps), back = randomSteps(12, kSteps);
    const std::vector<RawMessage> thereMessages = messagesOf(there), backMessages = messagesOf(back);
    beside([&] { atOnce([&] { rawReads(peer, slot, thereMessages); }, [&] { rawWrites(peer, slot, backMessages); }); },
           [&] {
               atOnce([&] { libraryWrites(library, slot, there); },
                      [&] { libraryReads(library, slot, backMessages, 13); });
           });
}

TEST_P(WireStream, AllSlotsFlowAtOnceInBothDirections)
{
    std::vector<std::vector<Step>> steps;
    std::vector<std::vector<RawMessage>> messages;
    for (unsigned i = 0; i < 2 * kRawSlots; ++i) {
        steps.push_back(randomSteps(20 + i, kSteps / 5));
        messages.push_back(messagesOf(steps.back()));
    }
    const auto allSlots = [&](const std::function<void(int slot)>& writer,
                              const std::function<void(int slot)>& reader) {
        std::vector<std::thread> threads;
        for (int slot = 0; slot < kRawSlots; ++slot) {
            threads.emplace_back(writer, slot);
            threads.emplace_back(reader, slot);
        }
        for (std::thread& thread : threads) thread.join();
    };
    const auto there = [](int slot) { return static_cast<size_t>(slot); };
    const auto back = [](int slot) { return static_cast<size_t>(kRawSlots + slot); };
    beside(
        [&] {
            allSlots([&](int slot) { rawWrites(peer, slot, messages[back(slot)]); },
                     [&](int slot) { rawReads(peer, slot, messages[there(slot)]); });
        },
        [&] {
            allSlots([&](int slot) { libraryWrites(library, slot, steps[there(slot)]); },
                     [&](int slot) { libraryReads(library, slot, messages[back(slot)], static_cast<unsigned>(slot)); });
        });
}

// ---- Any sequence at all

namespace {

class RandomStream : public WireStream {};

INSTANTIATE_TEST_SUITE_P(Sides, RandomStream, testing::Values(RawSide::Client, RawSide::Server),
                         [](const auto& p) { return p.param == RawSide::Client ? "Client" : "Server"; });

} // namespace

TEST_P(RandomStream, IsWrittenAsTheMessagesOfItsSteps)
{
    for (unsigned seed = 100; seed < 104; ++seed) libraryToPeer(static_cast<int>(seed % 5), randomSteps(seed, kSteps));
}

TEST_P(RandomStream, IsReadInWhateverPortions)
{
    for (unsigned seed = 200; seed < 204; ++seed)
        peerToLibrary(static_cast<int>(seed % 5), randomSteps(seed, kSteps), seed + 1000);
}
