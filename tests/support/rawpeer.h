// A peer of the chunk exchange that knows nothing but what two processes share: the keys of a path, the places of the
// bytes and the members of the semaphore set. It works by the system's own calls and uses nothing of the library, so
// that library and peer can only agree by the interface itself.
//
//     const RawLeftovers leftovers(path);                          // first: it cleans up whatever happens
//     RawPeer server(path, RawSide::Server);
//     ASSERT_TRUE(server.make());
//     RawMessage request;
//     ASSERT_TRUE(server.receive(slot, request));
//     ASSERT_TRUE(server.send(slot, {0, "answer"}));
//
// Every wait ends after kRawSeconds; a false result says that it did, or that the system refused.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <utility>

namespace kemsd::test {

inline constexpr int kRawSeconds = 60;
inline constexpr int kRawSlots = 5;
inline constexpr int kRawMembers = 21;
inline constexpr int kRawSlotMapMember = 0;
inline constexpr size_t kRawHeaderBytes = 8;
inline constexpr size_t kRawPayloadBytes = 2040;
inline constexpr size_t kRawBufferBytes = 2048;
inline constexpr size_t kRawSegmentBytes = 20480;

enum class RawSide { Client, Server };

inline std::ostream& operator<<(std::ostream& out, RawSide side)
{
    return out << (side == RawSide::Client ? "client" : "server");
}

constexpr RawSide otherSide(RawSide side) { return side == RawSide::Client ? RawSide::Server : RawSide::Client; }

// Where a side writes for a slot, and the two members that go with it.
constexpr size_t rawBuffer(RawSide writer, int slot)
{
    return static_cast<size_t>(2 * slot + (writer == RawSide::Server)) * kRawBufferBytes;
}
constexpr int rawReadyMember(RawSide writer, int slot) { return 4 * slot + (writer == RawSide::Server ? 3 : 1); }
constexpr int rawFreeMember(RawSide writer, int slot) { return 4 * slot + (writer == RawSide::Server ? 4 : 2); }

// What a buffer holds: `size` is what its header says, the payload what lies behind it.
struct RawMessage {
    uint32_t code = 0;
    uint32_t size = 0;
    std::string payload;

    RawMessage() = default;
    RawMessage(uint32_t itsCode, std::string itsPayload)
        : code(itsCode), size(static_cast<uint32_t>(itsPayload.size())), payload(std::move(itsPayload))
    {}
    bool operator==(const RawMessage&) const = default;
    friend std::ostream& operator<<(std::ostream& out, const RawMessage& message);
};

using RawValues = std::array<unsigned short, kRawMembers>;
// Every slot idle, nothing sent.
RawValues rawInitialValues();

class RawPeer {
public:
    RawPeer(const std::string& path, RawSide side);
    // Detaches, as the end of its process would.
    ~RawPeer();
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;

    // Makes set and segment; false when either exists. Opens existing ones.
    bool make();
    bool open();
    void detach();
    // Removes set and segment for everybody.
    void remove();

    // One message from this side, or to it.
    bool send(int slot, const RawMessage& message);
    bool receive(int slot, RawMessage& message);

    // The same step by step.
    bool awaitFree(int slot) { return take(rawFreeMember(side_, slot)); }
    void write(int slot, const RawMessage& message);
    bool postReady(int slot) { return post(rawReadyMember(side_, slot)); }
    bool awaitReady(int slot) { return take(rawReadyMember(otherSide(side_), slot)); }
    RawMessage read(int slot) const;
    bool postFree(int slot) { return post(rawFreeMember(otherSide(side_), slot)); }

    bool take(int member);
    bool post(int member);
    // -1: the system refused.
    int value(int member) const;
    bool setValue(int member, int value);
    // How many wait for the member.
    int waiting(int member) const;
    RawValues values() const;
    // How many members the set has, how many bytes the segment, and its permissions. 0: refused.
    int members() const;
    size_t bytes() const;
    unsigned permissions() const;

    char* base() const { return base_; }
    int set() const { return set_; }
    int segment() const { return segment_; }

private:
    bool attach();

    key_t setKey_, segmentKey_;
    RawSide side_;
    int set_ = -1;
    int segment_ = -1;
    char* base_ = nullptr;
};

// Removes whatever stands under a path's keys, before a test and after it. A process of its own, forked when this is
// made, does so when the test's process dies, and after kRawLimit seconds, so that whoever still waits is refused and
// the test ends. To be made before any thread and any attachment; the file must outlive it.
class RawLeftovers {
public:
    explicit RawLeftovers(const std::string& path);
    ~RawLeftovers();
    RawLeftovers(const RawLeftovers&) = delete;
    RawLeftovers& operator=(const RawLeftovers&) = delete;

    // What stands under the keys now; -1: nothing.
    int set() const;
    int segment() const;
    // True when neither does.
    bool none() const { return set() == -1 && segment() == -1; }

private:
    void remove() const;
    [[noreturn]] void removeWhenDue(pid_t test) const;

    key_t setKey_, segmentKey_;
    pid_t heir_;
};

inline constexpr int kRawLimit = 100;

// True when no object of that id exists.
bool rawSetIsGone(int set);
bool rawSegmentIsGone(int segment);

} // namespace kemsd::test
