// A peer that keeps to nothing: any header, changed at any time, semaphores at any value. Every call of the library
// returns, what it copies comes from the slot's own buffer, and neither the segment nor the caller's memory is touched
// beyond it. The library sees the segment between pages that nobody may touch, and of the segment the page of the slot
// alone; the caller's buffer is fenced in the same way. The peer keeps data-ready posted, so that no call waits.

#include <gtest/gtest.h>
#include <kemsd/ipc.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ipc/librarypeer.h"
#include "support/child.h"
#include "support/rawpeer.h"
#include "support/tempdir.h"
#include "sync/waiting.h"

using namespace kemsd::test;

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kReads = 4000;
constexpr int kGridSlots[] = {0, 4};
#else
constexpr int kReads = 40000;
constexpr int kGridSlots[] = {0, 1, 2, 3, 4};
#endif

constexpr size_t kPage = 4096;
constexpr int kPosted = 300; // more than any call takes
constexpr int kMostOfASemaphore = 32767;
constexpr uint32_t kFailed = 0xFFFFFFFD;

// Pages between two that nobody may touch.
class FencedPages {
public:
    explicit FencedPages(size_t pages)
        : bytes_((pages + 2) * kPage),
          all_(static_cast<char*>(mmap(nullptr, bytes_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)))
    {
        EXPECT_EQ(mprotect(begin(), size(), PROT_READ | PROT_WRITE), 0);
    }
    ~FencedPages() { munmap(all_, bytes_); }
    FencedPages(const FencedPages&) = delete;
    FencedPages& operator=(const FencedPages&) = delete;

    char* begin() const { return all_ + kPage; }
    char* end() const { return all_ + bytes_ - kPage; }
    size_t size() const { return bytes_ - 2 * kPage; }

private:
    size_t bytes_;
    char* all_;
};

// A second view of a segment inside a fence, of which one slot's page can be left open alone.
class FencedView {
public:
    explicit FencedView(int segment) : pages_(kRawSegmentBytes / kPage)
    {
        EXPECT_EQ(shmat(segment, pages_.begin(), SHM_REMAP), pages_.begin()) << strerror(errno);
    }
    ~FencedView() { shmdt(pages_.begin()); }

    char* base() const { return pages_.begin(); }
    void showOnly(int slot) const
    {
        EXPECT_EQ(mprotect(base(), kRawSegmentBytes, PROT_NONE), 0);
        EXPECT_EQ(mprotect(base() + static_cast<size_t>(slot) * kPage, kPage, PROT_READ | PROT_WRITE), 0);
    }

private:
    FencedPages pages_;
};
static_assert(kPage == 2 * kRawBufferBytes, "the two buffers of a slot are one page");

// ---- What a call does with a header that stays the same

struct Header {
    uint32_t code;
    uint32_t size;
    friend std::ostream& operator<<(std::ostream& out, const Header& header)
    {
        return out << "code " << header.code << ", size " << header.size;
    }
};

struct Expected {
    std::string bytes;  // what reaches the caller
    uint32_t code = 77; // what is stored; 77: nothing
    int taken = 0;      // data-ready
    int freed = 0;      // buffer-free
};

// The reader's state and rules.
class ExpectedReader {
public:
    ExpectedReader(const Header& header, const std::string& payload) : header_(header), payload_(payload) {}

    Expected read(size_t wanted)
    {
        Expected call;
        while (wanted > 0 && start(call)) {
            const size_t count = std::min(wanted, payload_.size() - at_);
            take(call, count);
            wanted -= count;
        }
        return call;
    }
    Expected readString()
    {
        Expected call;
        if (start(call)) {
            const std::string rest = payload_.substr(at_, left_);
            const size_t nul = rest.find('\0');
            take(call, rest.empty() ? 1 : nul == std::string::npos ? rest.size() : nul + 1);
            if (rest.empty()) call.bytes = std::string(1, '\0'); // of nothing comes the empty string
        }
        return call;
    }
    Expected readCode()
    {
        left_ = at_ = 0;
        return {"", header_.code, 1, 1};
    }
    size_t left() const { return left_; }
    size_t offset() const { return kRawHeaderBytes + at_; }

private:
    // False when the message is a code, which ends the call.
    bool start(Expected& call)
    {
        if (left_ > 0) return true;
        ++call.taken;
        call.code = header_.code;
        at_ = 0;
        if (header_.code == 0) {
            left_ = std::min<size_t>(header_.size, kRawPayloadBytes);
            return true;
        }
        ++call.freed;
        return false;
    }
    void take(Expected& call, size_t count)
    {
        call.bytes += payload_.substr(at_, count);
        at_ += count;
        left_ -= std::min(left_, count);
        if (left_ == 0) ++call.freed;
    }

    Header header_;
    std::string payload_;
    size_t left_ = 0, at_ = 0;
};

std::string payloadWithNulAt(size_t nul)
{
    std::string payload(kRawPayloadBytes, '\0');
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>(1 + i % 251);
    if (nul < payload.size()) payload[nul] = '\0';
    return payload;
}

constexpr uint32_t kSizes[] = {0, 1, 2039, 2040, 2041, 2048, 1u << 16, 1u << 31, 0xFFFFFFFF};
constexpr uint32_t kCodes[] = {0, 1, kFailed, 0xFFFFFFFF};
constexpr uint32_t kWanted[] = {0, 1, 2039, 2040, 2041, 4080, 65536};
constexpr size_t kNuls[] = {0, 1, 100, 2038, 2039, 2040}; // the last: none

// ---- The fixture

class HostilePeer : public testing::TestWithParam<RawSide> {
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
        own = library.descriptor().buffer;
        memset(caller.begin(), kUntouched, caller.size());
    }
    void TearDown() override { KemSetSharedMemSegBuffer(nullptr, &library.descriptor(), own); }

    // From now on the library sees the slot's page alone, through the fence.
    void fence(const FencedView& view, int slot)
    {
        view.showOnly(slot);
        KemSetSharedMemSegBuffer(nullptr, &library.descriptor(), view.base());
    }

    RawSide reading() const { return otherSide(GetParam()); }
    char* buffer(int slot) const { return peer.base() + rawBuffer(reading(), slot); }
    std::string segment() const { return {peer.base(), kRawSegmentBytes}; }

    // The peer's message stands, unread, as often as one likes.
    void lay(int slot, const Header& header, const std::string& payload)
    {
        memset(peer.base(), kUntouched, kRawSegmentBytes);
        memcpy(buffer(slot), &header, sizeof header);
        memcpy(buffer(slot) + sizeof header, payload.data(), payload.size());
        library.readRecord(slot) = {};
        post(slot);
    }
    void post(int slot)
    {
        ASSERT_TRUE(peer.setValue(rawReadyMember(reading(), slot), kPosted));
        ASSERT_TRUE(peer.setValue(rawFreeMember(reading(), slot), 0));
    }

    void expectState(int slot, const ExpectedReader& reader, const Expected& call)
    {
        const SHMEM_CHUNK_REC_T& record = library.readRecord(slot);
        EXPECT_EQ(record.hdr.code, 0u);
        EXPECT_EQ(record.hdr.size, reader.left());
        if (reader.left() > 0) {
            EXPECT_EQ(record.offset, reader.offset());
        }
        EXPECT_EQ(peer.value(rawReadyMember(reading(), slot)), kPosted - call.taken);
        EXPECT_EQ(peer.value(rawFreeMember(reading(), slot)), call.freed);
    }

    // The caller's memory holds these bytes at that place and is untouched elsewhere; then it is made so again.
    void expectCallerHolds(char* at, const std::string& bytes)
    {
        const auto before = static_cast<size_t>(at - caller.begin());
        const char* const behind = at + bytes.size();
        EXPECT_EQ(memcmp(at, bytes.data(), bytes.size()), 0) << "the bytes are those of the slot's buffer";
        EXPECT_EQ(memcmp(caller.begin(), untouched.data(), before), 0) << "before the caller's place";
        EXPECT_EQ(memcmp(behind, untouched.data(), static_cast<size_t>(caller.end() - behind)), 0)
            << "behind the bytes";
        memset(at, kUntouched, bytes.size());
    }

    // Twice in a row, so that the second call finds what the first left over.
    void readTwice(int slot, const Header& header, uint32_t wanted, char* at)
    {
        const std::string payload = payloadWithNulAt(kRawPayloadBytes);
        lay(slot, header, payload);
        const std::string before = segment();
        ExpectedReader reader(header, payload);
        for (int i = 0; i < 2; ++i) {
            const Expected expected = reader.read(wanted);
            KEM_ULONG_T code = 77;
            ASSERT_EQ(library.read(slot, wanted, code, at), 0);
            EXPECT_EQ(code, expected.code);
            expectCallerHolds(at, expected.bytes);
            expectState(slot, reader, expected);
            post(slot);
        }
        EXPECT_EQ(segment(), before) << "a reader writes nothing";
    }
    void readStringTwice(int slot, const Header& header, size_t nul)
    {
        const std::string payload = payloadWithNulAt(nul);
        lay(slot, header, payload);
        ExpectedReader reader(header, payload);
        char* const at = caller.end() - kRawPayloadBytes;
        for (int i = 0; i < 2; ++i) {
            const Expected expected = reader.readString();
            KEM_ULONG_T code = 77;
            ASSERT_EQ(library.readString(slot, code, at), 0);
            EXPECT_EQ(code, expected.code);
            expectCallerHolds(at, expected.bytes);
            expectState(slot, reader, expected);
            post(slot);
        }
    }

    static constexpr char kUntouched = '\x3C';
    TempDir directory;
    const std::string path = directory.write("segment", "");
    const RawLeftovers leftovers{path};
    LibraryPeer library{path, GetParam()};
    RawPeer peer{path, otherSide(GetParam())};
    char* own = nullptr;
    FencedPages caller{17};
    const std::string untouched = std::string(caller.size(), kUntouched);
};

INSTANTIATE_TEST_SUITE_P(LibraryAs, HostilePeer, testing::Values(RawSide::Client, RawSide::Server),
                         [](const auto& p) { return p.param == RawSide::Client ? "Client" : "Server"; });

template <class Body>
void forEveryHeader(Body body)
{
    for (const uint32_t size : kSizes)
        for (const uint32_t code : kCodes) {
            const Header header{code, size};
            SCOPED_TRACE(testing::Message() << header);
            body(header);
            if (testing::Test::HasFailure()) return;
        }
}

} // namespace

// ---- Headers that lie

TEST_P(HostilePeer, AnyHeaderIsReadWithinTheBuffers)
{
    const FencedView view(peer.segment());
    for (const int slot : kGridSlots) {
        fence(view, slot);
        forEveryHeader([&](const Header& header) {
            for (const uint32_t wanted : kWanted) {
                SCOPED_TRACE(testing::Message() << "slot " << slot << ", wanted " << wanted);
                readTwice(slot, header, wanted, caller.end() - wanted);
                readTwice(slot, header, wanted, caller.begin());
            }
        });
    }
}

TEST_P(HostilePeer, StringUnderAnyHeaderIsFoundWithinTheBuffers)
{
    const FencedView view(peer.segment());
    for (const int slot : kGridSlots) {
        fence(view, slot);
        forEveryHeader([&](const Header& header) {
            for (const size_t nul : kNuls) {
                SCOPED_TRACE(testing::Message() << "slot " << slot << ", NUL at " << nul);
                readStringTwice(slot, header, nul);
            }
        });
    }
}

TEST_P(HostilePeer, CodeOfAnyHeaderIsTakenAndItsSizeForgotten)
{
    const FencedView view(peer.segment());
    for (const int slot : kGridSlots) {
        fence(view, slot);
        forEveryHeader([&](const Header& header) {
            const std::string payload = payloadWithNulAt(7);
            lay(slot, header, payload);
            ExpectedReader reader(header, payload);
            const Expected expected = reader.readCode();
            KEM_ULONG_T code = 77;
            ASSERT_EQ(library.readCode(slot, code), 0);
            EXPECT_EQ(code, expected.code);
            expectState(slot, reader, expected);
        });
    }
}

TEST_P(HostilePeer, CodeNeedsNoPlaceToBeStored)
{
    forEveryHeader([&](const Header& header) {
        lay(1, header, payloadWithNulAt(3));
        EXPECT_EQ(KemReadSharedMemChunk(nullptr, &library.descriptor(), 1, 1, FALSE, nullptr, caller.end() - 1), 0);
        library.readRecord(1) = {};
        EXPECT_EQ(KemReadSharedMemChunkCode(nullptr, &library.descriptor(), 1, nullptr), 0);
        memset(caller.begin(), kUntouched, caller.size());
    });
}

TEST_P(HostilePeer, WriterLooksAtNothingThatThePeerWrote)
{
    const FencedView view(peer.segment());
    for (const int slot : kGridSlots) {
        fence(view, slot);
        forEveryHeader([&](const Header& header) {
            char* const at = peer.base() + rawBuffer(GetParam(), slot);
            memcpy(at, &header, sizeof header);
            ASSERT_EQ(library.write(slot, "first", false), 0);
            memcpy(at, &header, sizeof header);
            ASSERT_EQ(library.write(slot, "second"), 0);
            RawMessage got;
            ASSERT_TRUE(peer.receive(slot, got));
            EXPECT_EQ(got, RawMessage(0, "firstsecond"));
            EXPECT_EQ(library.writeRecord(slot).hdr.size, 0u);
            EXPECT_EQ(library.writeRecord(slot).hdr.code, 0u);
        });
    }
}

// ---- Bytes that change while they are read

namespace {

// Stops the process at every access to a page, lets the one instruction through, and then acts as the peer would who
// had waited for just that.
class Watch {
public:
    Watch(char* page, size_t bytes, void (*act)(char* page)) : page_(page), bytes_(bytes), act_(act)
    {
        present_ = this;
        struct sigaction action {};
        action.sa_flags = SA_SIGINFO;
        action.sa_sigaction = [](int, siginfo_t* info, void* context) { present_->let(info, flagsOf(context)); };
        sigaction(SIGSEGV, &action, &beforeFault_);
        action.sa_sigaction = [](int, siginfo_t*, void* context) { present_->resume(flagsOf(context)); };
        sigaction(SIGTRAP, &action, &beforeStep_);
        protect(PROT_NONE);
    }
    ~Watch()
    {
        protect(PROT_READ | PROT_WRITE);
        sigaction(SIGSEGV, &beforeFault_, nullptr);
        sigaction(SIGTRAP, &beforeStep_, nullptr);
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    // Accesses among the page's first so many bytes.
    int seen() const { return seen_; }

private:
    static constexpr greg_t kSingleStep = 0x100;

    static greg_t& flagsOf(void* context) { return static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL]; }
    void protect(int how) const { syscall(SYS_mprotect, page_, kPage, how); }

    void let(const siginfo_t* info, greg_t& flags)
    {
        const char* const at = static_cast<char*>(info->si_addr);
        if (at < page_ || at >= page_ + kPage) {
            signal(SIGSEGV, SIG_DFL); // the instruction faults again
            return;
        }
        seen_ += at < page_ + bytes_;
        protect(PROT_READ | PROT_WRITE);
        flags |= kSingleStep;
    }
    void resume(greg_t& flags)
    {
        act_(page_);
        protect(PROT_NONE);
        flags &= ~kSingleStep;
    }

    static inline Watch* present_ = nullptr;
    char* page_;
    size_t bytes_;
    void (*act_)(char* page);
    int seen_ = 0;
    struct sigaction beforeFault_, beforeStep_;
};

} // namespace

TEST_P(HostilePeer, HeaderIsLookedAtOnce)
{
    const int slot = 0;
    const FencedView view(peer.segment());
    fence(view, slot);
    const size_t half = rawBuffer(reading(), slot);
    for (const Header& header : {Header{0, 5}, Header{7, 5}}) {
        SCOPED_TRACE(testing::Message() << header);
        lay(slot, header, payloadWithNulAt(kRawPayloadBytes));
        KEM_ULONG_T code = 77;
        int seen = 0;
        {
            // Whoever looks again finds another message.
            const Watch watch(view.base(), half + kRawHeaderBytes, [](char* page) {
                for (char* const at : {page, page + kRawBufferBytes}) {
                    const Header other{at[0] ? 0u : 7u, 256};
                    memcpy(at, &other, sizeof other);
                }
            });
            ASSERT_EQ(library.read(slot, 1, code, caller.end() - 1), 0);
            seen = watch.seen();
        }
        EXPECT_EQ(seen, 1);
        EXPECT_EQ(code, header.code);
        EXPECT_EQ(library.readRecord(slot).hdr.size, header.code == 0 ? 4u : 0u);
    }
}

namespace {

// Writes to the segment all the time, by the peer's own view of it.
class Rewriter {
public:
    template <class Body>
    explicit Rewriter(Body body)
        : thread_([this, body] {
              for (uint32_t round = 0; !__atomic_load_n(&over_, __ATOMIC_RELAXED); ++round) body(round);
          })
    {}
    ~Rewriter()
    {
        __atomic_store_n(&over_, true, __ATOMIC_RELAXED);
        thread_.join();
    }

private:
    bool over_ = false;
    std::thread thread_;
};

void put(char* at, uint64_t value) { __atomic_store_n(reinterpret_cast<uint64_t*>(at), value, __ATOMIC_RELAXED); }
void put(char* at, uint32_t value) { __atomic_store_n(reinterpret_cast<uint32_t*>(at), value, __ATOMIC_RELAXED); }
void put(char* at, char value) { __atomic_store_n(at, value, __ATOMIC_RELAXED); }

uint64_t asWord(const Header& header)
{
    uint64_t word;
    memcpy(&word, &header, sizeof word);
    return word;
}

// Until both kinds have been seen often enough; the limit is for a machine that lets the rewriter run too rarely.
bool enough(int reads, int one, int other)
{
    return reads >= kReads && ((one > 9 && other > 9) || reads >= 50 * kReads);
}

} // namespace

TEST_P(HostilePeer, HeaderThatChangesAllTheTimeIsReadWithinTheBuffers)
{
    const int slot = 4;
    const FencedView view(peer.segment());
    fence(view, slot);
    lay(slot, {0, 1}, payloadWithNulAt(100));
    const Rewriter rewriter([header = buffer(slot)](uint32_t round) {
        const Header next{kCodes[round % 7 % std::size(kCodes)], kSizes[round % std::size(kSizes)]};
        if (round % 2) {
            put(header, asWord(next));
        } else {
            put(header, next.code);
            put(header + 4, next.size);
        }
    });
    std::mt19937 random(5);
    for (int i = 0; i < kReads; ++i) {
        post(slot);
        const uint32_t wanted = kWanted[random() % std::size(kWanted)];
        KEM_ULONG_T code = 0;
        const KEM_STS_T status = random() % 3 ? library.read(slot, wanted, code, caller.end() - wanted)
                                              : library.readString(slot, code, caller.end() - kRawPayloadBytes);
        ASSERT_EQ(status, 0);
        ASSERT_NE(std::find(std::begin(kCodes), std::end(kCodes), code), std::end(kCodes)) << code;
        const SHMEM_CHUNK_REC_T& record = library.readRecord(slot);
        ASSERT_EQ(record.hdr.code, 0u);
        ASSERT_LE(record.hdr.size, kRawPayloadBytes);
        if (record.hdr.size > 0) {
            ASSERT_LE(record.offset + record.hdr.size, kRawBufferBytes);
        }
    }
}

TEST_P(HostilePeer, StringThatChangesUnderTheSearchStillEnds)
{
    const int slot = 2;
    constexpr size_t kFlickering = 50, kLasting = 120;
    const FencedView view(peer.segment());
    fence(view, slot);
    lay(slot, {0, 2040}, payloadWithNulAt(kLasting));
    const Rewriter rewriter(
        [at = buffer(slot) + kRawHeaderBytes + kFlickering](uint32_t round) { put(at, round % 2 ? '\0' : 'x'); });
    char* const at = caller.end() - kRawPayloadBytes;
    int shorter = 0, longer = 0;
    for (int i = 0; !enough(i, shorter, longer); ++i) {
        if (i % (kPosted / 2) == 0) post(slot);
        library.readRecord(slot) = {};
        memset(at, kUntouched, 2 * kLasting);
        KEM_ULONG_T code = 77;
        ASSERT_EQ(library.readString(slot, code, at), 0);
        const size_t copied = std::string(at, 2 * kLasting).find_last_not_of(kUntouched) + 1;
        ASSERT_TRUE(copied == kFlickering + 1 || copied == kLasting + 1) << copied;
        ASSERT_EQ(at[copied - 1], '\0') << "whoever asks for a string gets one";
        ++(copied == kFlickering + 1 ? shorter : longer);
    }
}

TEST_P(HostilePeer, WriterIsNotConfusedByChangesToItsBuffer)
{
    const int slot = 3;
    const FencedView view(peer.segment());
    fence(view, slot);
    char* const at = peer.base() + rawBuffer(GetParam(), slot);
    const Rewriter rewriter([at](uint32_t round) {
        put(at, asWord({kCodes[round % std::size(kCodes)], kSizes[round % std::size(kSizes)]}));
        put(at + 8 * (1 + round % 255), uint64_t{round});
    });
    const std::string piece = payloadWithNulAt(9);
    for (int i = 0; i < kReads / 4; ++i) {
        ASSERT_EQ(library.write(slot, piece.substr(0, 1 + static_cast<size_t>(i) % 2000), i % 3 == 0, i % 2), 0);
        ASSERT_TRUE(peer.setValue(rawFreeMember(GetParam(), slot), 2));
        ASSERT_TRUE(peer.setValue(rawReadyMember(GetParam(), slot), 0));
        ASSERT_LT(library.writeRecord(slot).hdr.size, kRawPayloadBytes);
        ASSERT_EQ(library.writeRecord(slot).hdr.code, 0u);
    }
}

// ---- Semaphores out of bounds

TEST_P(HostilePeer, DataReadyThatCannotBePostedFailsTheDirectionForGood)
{
    const int slot = 1, member = rawReadyMember(GetParam(), slot);
    ASSERT_TRUE(peer.setValue(member, kMostOfASemaphore));
    EXPECT_EQ(library.write(slot, "lost"), SDSTS_CNTSEM_CLEAR);
    EXPECT_EQ(library.writeRecord(slot).hdr.code, kFailed);
    ASSERT_TRUE(peer.setValue(member, 0));
    EXPECT_EQ(library.write(slot, "refused"), -1);
    EXPECT_EQ(library.writeCode(slot, 1), -1);
    EXPECT_EQ(peer.value(member), 0);

    library.writeRecord(slot) = {};
    ASSERT_TRUE(peer.setValue(rawFreeMember(GetParam(), slot), 1));
    EXPECT_EQ(library.write(slot, "again"), 0);
    RawMessage got;
    ASSERT_TRUE(peer.receive(slot, got));
    EXPECT_EQ(got, RawMessage(0, "again"));

    ASSERT_TRUE(peer.setValue(member, kMostOfASemaphore));
    EXPECT_EQ(library.writeCode(slot, 5), SDSTS_CNTSEM_CLEAR);
    EXPECT_EQ(library.writeRecord(slot).hdr.code, kFailed);
    EXPECT_EQ(library.write(slot, "refused"), -1);
}

TEST_P(HostilePeer, BufferFreeThatCannotBePostedFailsTheDirectionForGood)
{
    const int slot = 1, member = rawFreeMember(reading(), slot);
    const std::string payload = payloadWithNulAt(3);
    for (const bool string : {false, true}) {
        lay(slot, {0, 4}, payload);
        ASSERT_TRUE(peer.setValue(member, kMostOfASemaphore));
        KEM_ULONG_T code = 77;
        EXPECT_EQ(string ? library.readString(slot, code, caller.begin()) : library.read(slot, 4, code, caller.begin()),
                  -3);
        EXPECT_EQ(code, kFailed);
        EXPECT_EQ(library.readRecord(slot).hdr.code, kFailed);
        expectCallerHolds(caller.begin(), payload.substr(0, 4));
        EXPECT_EQ(library.read(slot, 4, code, caller.begin()), -1);
        EXPECT_EQ(library.readCode(slot, code), SDSTS_SHMEM_READ_BUSY);
        EXPECT_EQ(peer.value(rawReadyMember(reading(), slot)), kPosted - 1);
    }
    lay(slot, {0, 4}, payload);
    KEM_ULONG_T code = 77;
    EXPECT_EQ(library.read(slot, 4, code, caller.begin()), 0) << "a cleared record works again";
}

TEST_P(HostilePeer, CodeComesThroughAlthoughItsBufferCannotBeFreed)
{
    const int slot = 1, member = rawFreeMember(reading(), slot);
    lay(slot, {9, 4}, payloadWithNulAt(3));
    ASSERT_TRUE(peer.setValue(member, kMostOfASemaphore));
    KEM_ULONG_T code = 77;
    EXPECT_EQ(library.read(slot, 4, code, caller.begin()), 0);
    EXPECT_EQ(code, 9u);
    code = 77;
    EXPECT_EQ(library.readCode(slot, code), SDSTS_CNTSEM_CLEAR);
    EXPECT_EQ(code, 9u);
    EXPECT_EQ(library.readRecord(slot).hdr.code, 0u);
    EXPECT_EQ(library.readRecord(slot).hdr.size, 0u);
}

TEST_P(HostilePeer, WhoeverWaitsIsRefusedWhenTheSetGoes)
{
    const int slot = 2;
    const int ready = rawReadyMember(reading(), slot), free = rawFreeMember(GetParam(), slot);
    Child reader([&] {
        KEM_ULONG_T code;
        return library.read(slot, 1, code, caller.begin()) == SDSTS_CNTSEM_REQUEST ? 0 : 1;
    });
    Child codeReader([&] {
        KEM_ULONG_T code;
        return library.readCode(slot, code) == SDSTS_CNTSEM_REQUEST ? 0 : 1;
    });
    Child writer([&] { return library.write(slot, std::string(5000, 'x')) == SDSTS_CNTSEM_REQUEST ? 0 : 1; });
    Child codeWriter([&] {
        return eventually([&] { return peer.value(free) == 0; }) && library.writeCode(slot, 1) == SDSTS_CNTSEM_REQUEST
                   ? 0
                   : 1;
    });
    EXPECT_TRUE(eventually([&] { return peer.waiting(ready) == 2 && peer.waiting(free) == 2; }));
    peer.remove();
    for (Child* child : {&reader, &codeReader, &writer, &codeWriter}) EXPECT_EQ(child->ended().status, 0);
    EXPECT_EQ(library.write(slot, "x"), SDSTS_CNTSEM_REQUEST);
    library.remove(); // what the peer left of it
}
