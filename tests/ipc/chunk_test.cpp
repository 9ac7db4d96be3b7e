#include <kemsd/kemsd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "ipc/sysv.h"
#include "support/failingcalls.h"
#include "support/report.h"
#include "sync/waiting.h"

using namespace kemsd::test;
using testing::Each;
using testing::ElementsAre;

// Runs before the next copy out of this buffer and is forgotten: what another process may do in between.
static std::function<void()> beforeCopy;
static const char* copiedBuffer = nullptr;

extern "C" {
void* __real_memcpy(void* to, const void* from, size_t count);
void* __wrap_memcpy(void* to, const void* from, size_t count)
{
    const auto* source = static_cast<const char*>(from);
    if (beforeCopy && source >= copiedBuffer && source < copiedBuffer + SHMEM_CHUNK_SIZE)
        std::exchange(beforeCopy, nullptr)();
    return __real_memcpy(to, from, count);
}
}

namespace {

constexpr uint32_t kFailed = 0xFFFFFFFD;
constexpr size_t kChunk = 2048;
constexpr size_t kPayload = 2040;

// The text of that many bytes, no two neighbours of 251 alike.
std::string pattern(size_t count)
{
    std::string text(count, 0);
    for (size_t i = 0; i < count; ++i) text[i] = static_cast<char>(i % 251 + 1);
    return text;
}

struct Header {
    uint32_t code;
    uint32_t size;
    bool operator==(const Header&) const = default;
    friend std::ostream& operator<<(std::ostream& out, const Header& h) { return out << h.code << ", " << h.size; }
};

// What a read delivered.
struct Taken {
    KEM_STS_T sts;
    uint32_t code;
    std::string bytes;
};

// Both sides of one segment, attached twice by this process. Slot 2, unless a test says otherwise.
class Chunk : public testing::Test {
protected:
    static constexpr KEM_LONG_T kSlot = 2;
    static constexpr uint32_t kUntouchedCode = 77;

    void SetUp() override { open(-1); }

    void TearDown() override { close(); }

    void open(KEM_LONG_T timeout)
    {
        attach(server_, SHM_SERVER, 4 | 8 | 16, timeout);
        attach(client_, SHM_CLIENT, 4, timeout);
    }

    void close()
    {
        KemDeleteSingleSharedMemSeg(nullptr, &client_);
        KemDeleteSingleSharedMemSeg(nullptr, &server_);
    }

    void attach(OV_SHAREDMEM_SEG_T& segment, SHMEM_USERTYPE_T type, KEM_BIT32_T flags, KEM_LONG_T timeout)
    {
        KEM_IPCKEY_T key;
        char* buffer = nullptr;
        ASSERT_EQ(KemCreateSharedMemSeg(nullptr, file_.path(), type, flags, 0, &segment, timeout, &key, &buffer), 0);
        KemSetSharedMemSegBuffer(nullptr, &segment, buffer);
    }

    KEM_STS_T write(OV_SHAREDMEM_SEG_T& side, const std::string& bytes, bool flush = true, bool split = false)
    {
        return KemWriteSharedMemChunk(nullptr, &side, kSlot, static_cast<KEM_ULONG_T>(bytes.size()), flush, split,
                                      bytes.data());
    }

    // Reads into a buffer of exactly that many bytes.
    Taken read(OV_SHAREDMEM_SEG_T& side, size_t size)
    {
        Taken taken{0, kUntouchedCode, std::string(size, '?')};
        taken.sts = KemReadSharedMemChunk(nullptr, &side, kSlot, static_cast<KEM_ULONG_T>(size), FALSE, &taken.code,
                                          taken.bytes.data());
        return taken;
    }

    // Reads a string; bytes that were not written stay question marks.
    Taken readString(OV_SHAREDMEM_SEG_T& side, KEM_ULONG_T ignoredSize = 0)
    {
        Taken taken{0, kUntouchedCode, std::string(kPayload, '?')};
        taken.sts = KemReadSharedMemChunk(nullptr, &side, kSlot, ignoredSize, TRUE, &taken.code, taken.bytes.data());
        return taken;
    }

    // The buffers of the slot, and their semaphores as data ready and buffer free.
    char* toServer() const { return server_.buffer + 2 * kSlot * kChunk; }
    char* toClient() const { return toServer() + kChunk; }
    std::vector<int> toServerState() const { return pairAt(4 * kSlot + 1); }
    std::vector<int> toClientState() const { return pairAt(4 * kSlot + 3); }

    static Header header(const char* chunk)
    {
        Header h;
        __real_memcpy(&h, chunk, sizeof h);
        return h;
    }

    // A message to the server as a peer of another making sends it.
    void sendRaw(Header header, const std::string& payload = {})
    {
        change(id(), 4 * kSlot + 2, -1);
        __real_memcpy(toServer(), &header, sizeof header);
        __real_memcpy(toServer() + 8, payload.data(), payload.size());
        change(id(), 4 * kSlot + 1, 1);
    }

    int id() const { return server_.pShSemSet->id; }
    std::vector<int> pairAt(int member) const { return {semaphore(id(), member), semaphore(id(), member + 1)}; }

    SHMEM_CHUNK_REC_T& writing(OV_SHAREDMEM_SEG_T& side) { return side.chunkRec[1][kSlot]; }
    SHMEM_CHUNK_REC_T& reading(OV_SHAREDMEM_SEG_T& side) { return side.chunkRec[0][kSlot]; }

    SysVFile file_;
    OV_SHAREDMEM_SEG_T server_{};
    OV_SHAREDMEM_SEG_T client_{};
};

// For long texts, of which a failure is to say the place alone.
void expectSame(std::string_view got, std::string_view expected)
{
    ASSERT_EQ(got.size(), expected.size());
    const auto difference = std::mismatch(got.begin(), got.end(), expected.begin()).first - got.begin();
    EXPECT_EQ(static_cast<size_t>(difference), expected.size()) << "the first difference";
}

// A thread beside the test. A test that gives up early removes the set, so that the thread ends.
class Beside {
public:
    Beside(const SysVFile& file, const std::function<void()>& body) : file_(file), thread_(body) {}
    ~Beside()
    {
        if (!thread_.joinable()) return;
        file_.removeSet();
        thread_.join();
    }
    void join() { thread_.join(); }
    std::thread& thread() { return thread_; }

private:
    const SysVFile& file_;
    std::thread thread_;
};

void expectRecord(const SHMEM_CHUNK_REC_T& record, uint32_t code, uint32_t size, uint16_t offset)
{
    EXPECT_EQ(record.hdr.code, code);
    EXPECT_EQ(record.hdr.size, size);
    EXPECT_EQ(record.offset, offset);
}

void expectIdle(const SHMEM_CHUNK_REC_T& record) { expectRecord(record, 0, 0, 0); }

} // namespace

// ---- Where a message lies

TEST_F(Chunk, EverySlotHasABufferAndTwoSemaphoresEachWay)
{
    for (KEM_LONG_T slot = 0; slot < 5; ++slot) {
        const auto name = static_cast<char>('a' + slot);
        EXPECT_EQ(KemWriteSharedMemChunk(nullptr, &client_, slot, 1, TRUE, FALSE, &name), 0);
        EXPECT_EQ(header(server_.buffer + 4096 * slot), (Header{0, 1}));
        EXPECT_EQ(server_.buffer[4096 * slot + 8], name);
        EXPECT_THAT(pairAt(4 * slot + 1), ElementsAre(1, 0));
        EXPECT_THAT(pairAt(4 * slot + 3), ElementsAre(0, 1));

        const auto answer = static_cast<char>('A' + slot);
        EXPECT_EQ(KemWriteSharedMemChunk(nullptr, &server_, slot, 1, TRUE, FALSE, &answer), 0);
        EXPECT_EQ(header(server_.buffer + 4096 * slot + 2048), (Header{0, 1}));
        EXPECT_EQ(server_.buffer[4096 * slot + 2048 + 8], answer);
        EXPECT_THAT(pairAt(4 * slot + 3), ElementsAre(1, 0));
    }
    for (KEM_LONG_T slot = 4; slot >= 0; --slot) {
        char got = 0;
        EXPECT_EQ(KemReadSharedMemChunk(nullptr, &server_, slot, 1, FALSE, nullptr, &got), 0);
        EXPECT_EQ(got, 'a' + slot);
        EXPECT_THAT(pairAt(4 * slot + 1), ElementsAre(0, 1));
        EXPECT_EQ(KemReadSharedMemChunk(nullptr, &client_, slot, 1, FALSE, nullptr, &got), 0);
        EXPECT_EQ(got, 'A' + slot);
        EXPECT_THAT(pairAt(4 * slot + 3), ElementsAre(0, 1));
    }
}

TEST_F(Chunk, MessageTouchesNoByteButItsOwn)
{
    memset(server_.buffer, 0x5A, 20480);
    ASSERT_EQ(write(client_, "abc"), 0);
    std::string expected(20480, 0x5A);
    const Header sent{0, 3};
    __real_memcpy(expected.data() + 4096 * kSlot, &sent, 8);
    __real_memcpy(expected.data() + 4096 * kSlot + 8, "abc", 3);
    expectSame({server_.buffer, 20480}, expected);
}

// ---- Writing

TEST_F(Chunk, BytesWithoutFlushAreGatheredAndNotSent)
{
    const std::string bytes = pattern(150);
    memset(toServer(), 0x5A, 8);
    ASSERT_EQ(write(client_, bytes.substr(0, 100), false), 0);
    EXPECT_THAT(toServerState(), ElementsAre(0, 0)); // the buffer is held
    expectRecord(writing(client_), 0, 100, 108);
    EXPECT_EQ(std::string(toServer() + 8, 100), bytes.substr(0, 100));
    EXPECT_THAT(std::string(toServer(), 8), Each(0x5A)); // no header yet

    ASSERT_EQ(write(client_, bytes.substr(100), true), 0);
    EXPECT_THAT(toServerState(), ElementsAre(1, 0));
    EXPECT_EQ(header(toServer()), (Header{0, 150})); // one message of both
    EXPECT_EQ(std::string(toServer() + 8, 150), bytes);
    expectIdle(writing(client_));
}

TEST_F(Chunk, FullBufferIsSentAtOnce)
{
    ASSERT_EQ(write(client_, pattern(2040), false), 0);
    EXPECT_THAT(toServerState(), ElementsAre(1, 0));
    EXPECT_EQ(header(toServer()), (Header{0, 2040}));
    expectSame({toServer() + 8, 2040}, pattern(2040));
    expectIdle(writing(client_));
}

TEST_F(Chunk, BufferThatFillsUpIsSentAtOnce)
{
    ASSERT_EQ(write(client_, pattern(2039), false), 0);
    EXPECT_THAT(toServerState(), ElementsAre(0, 0));
    ASSERT_EQ(write(client_, "x", false), 0);
    EXPECT_THAT(toServerState(), ElementsAre(1, 0));
    EXPECT_EQ(header(toServer()), (Header{0, 2040}));
    EXPECT_EQ(toServer()[2047], 'x');
}

TEST_F(Chunk, LongPieceIsSplitAndItsRestGathered)
{
    change(id(), 4 * kSlot + 2, 1); // a second free buffer, so that the writer need not wait for the reader
    const std::string bytes = pattern(3000);
    ASSERT_EQ(write(client_, bytes, false, true), 0);
    EXPECT_THAT(toServerState(), ElementsAre(1, 0));
    EXPECT_EQ(header(toServer()), (Header{0, 2040}));
    expectRecord(writing(client_), 0, 960, 968);
    expectSame({toServer() + 8, 960}, bytes.substr(2040));
}

TEST_F(Chunk, SplitPieceFillsTheBufferFirst)
{
    change(id(), 4 * kSlot + 2, 1);
    ASSERT_EQ(write(client_, pattern(2000), false), 0);
    ASSERT_EQ(write(client_, std::string(100, 'x'), false, true), 0);
    EXPECT_EQ(header(toServer()), (Header{0, 2040}));
    EXPECT_EQ(std::string(toServer() + 2008, 40), std::string(40, 'x'));
    expectRecord(writing(client_), 0, 60, 68);
}

TEST_F(Chunk, SplitPieceWithFlushSendsItsRestToo)
{
    change(id(), 4 * kSlot + 2, 1);
    ASSERT_EQ(write(client_, pattern(2050), true, true), 0);
    EXPECT_THAT(toServerState(), ElementsAre(2, 0));
    EXPECT_EQ(header(toServer()), (Header{0, 10}));
    expectIdle(writing(client_));
}

TEST_F(Chunk, UnsplitPieceThatDoesNotFitGoesIntoAMessageOfItsOwnAtOnce)
{
    change(id(), 4 * kSlot + 2, 1);
    ASSERT_EQ(write(client_, pattern(2000), false), 0);
    ASSERT_EQ(write(client_, std::string(41, 'x'), false, false), 0);
    EXPECT_THAT(toServerState(), ElementsAre(2, 0)); // both were sent although no flush was asked for
    EXPECT_EQ(header(toServer()), (Header{0, 41}));
    EXPECT_EQ(std::string(toServer() + 8, 41), std::string(41, 'x'));
    expectSame({toServer() + 49, 1959}, pattern(2000).substr(41)); // the bytes of the message before
    expectIdle(writing(client_));
}

TEST_F(Chunk, UnsplitPieceThatJustFitsIsGathered)
{
    ASSERT_EQ(write(client_, pattern(2000), false), 0);
    ASSERT_EQ(write(client_, std::string(40, 'x'), false), 0);
    EXPECT_THAT(toServerState(), ElementsAre(1, 0));
    EXPECT_EQ(header(toServer()), (Header{0, 2040}));
}

TEST_F(Chunk, UnsplitPieceBeyondABufferIsRefusedBeforeAnythingIsTouched)
{
    ASSERT_EQ(write(client_, "abc", false), 0);
    const std::string bytes = pattern(2041);
    resetCalls();
    EXPECT_THAT(reported(KemWriteSharedMemChunk, &client_, kSlot, 2041u, TRUE, FALSE, bytes.data()),
                ReturnsOnly(SDSTS_INVALID_PARAM));
    EXPECT_EQ(calls(Call::semop), 0);
    expectRecord(writing(client_), 0, 3, 11);
    EXPECT_EQ(std::string(toServer() + 8, 3), "abc");
}

TEST_F(Chunk, WritingNothingDoesNothing)
{
    EXPECT_THAT(reported(KemWriteSharedMemChunk, &client_, kSlot, 0u, TRUE, FALSE, ""), ReturnsOnly(0));
    EXPECT_THAT(toServerState(), ElementsAre(0, 1));
    ASSERT_EQ(write(client_, "abc", false), 0);
    EXPECT_EQ(write(client_, "", true), 0); // not even the flush
    EXPECT_THAT(toServerState(), ElementsAre(0, 0));
}

TEST_F(Chunk, WriterWaitsForTheBuffer)
{
    ASSERT_EQ(write(client_, "one"), 0);
    Beside writer(file_, [this] { EXPECT_EQ(write(client_, "two"), 0); });
    const bool waiting = eventually([this] { return waiters(id(), 4 * kSlot + 2) == 1; });
    EXPECT_EQ(read(server_, 3).bytes, "one");
    writer.join();
    EXPECT_TRUE(waiting);
    EXPECT_EQ(read(server_, 3).bytes, "two");
}

// ---- Writing a code

TEST_F(Chunk, CodeIsSentInPlaceOfData)
{
    EXPECT_THAT(reported(KemWriteSharedMemChunkCode, &client_, kSlot, 4242u), Succeeds());
    EXPECT_THAT(toServerState(), ElementsAre(1, 0));
    EXPECT_EQ(header(toServer()), (Header{4242, 0}));
    expectIdle(writing(client_));
}

TEST_F(Chunk, GatheredDataTravelsWithTheCode)
{
    ASSERT_EQ(write(client_, "abc", false), 0);
    ASSERT_EQ(KemWriteSharedMemChunkCode(nullptr, &client_, kSlot, 0xFFFFFFFF), 0);
    EXPECT_THAT(toServerState(), ElementsAre(1, 0));
    EXPECT_EQ(header(toServer()), (Header{0xFFFFFFFF, 3}));
    expectIdle(writing(client_));
}

TEST_F(Chunk, CodeNeedsNoDataOnTheOtherSide)
{
    ASSERT_EQ(KemWriteSharedMemChunkCode(nullptr, &server_, kSlot, 5), 0);
    EXPECT_EQ(header(toClient()), (Header{5, 0}));
    EXPECT_THAT(toClientState(), ElementsAre(1, 0));
    EXPECT_THAT(toServerState(), ElementsAre(0, 1));
}

// ---- Reading

TEST_F(Chunk, ReaderTakesWhatWasSentInAnyPieces)
{
    ASSERT_EQ(write(client_, "abcdef"), 0);
    Taken taken = read(server_, 2);
    EXPECT_EQ(taken.sts, 0);
    EXPECT_EQ(taken.code, 0u);
    EXPECT_EQ(taken.bytes, "ab");
    EXPECT_THAT(toServerState(), ElementsAre(0, 0)); // the reader holds the buffer
    expectRecord(reading(server_), 0, 4, 10);
    EXPECT_EQ(read(server_, 3).bytes, "cde");
    expectRecord(reading(server_), 0, 1, 13);
    EXPECT_EQ(read(server_, 1).bytes, "f");
    EXPECT_THAT(toServerState(), ElementsAre(0, 1));
    expectRecord(reading(server_), 0, 0, 14);
}

TEST_F(Chunk, CodeIsStoredWhenAMessageBegins)
{
    ASSERT_EQ(write(client_, "abc"), 0);
    EXPECT_EQ(read(server_, 1).code, 0u);
    EXPECT_EQ(read(server_, 1).code, kUntouchedCode); // goes on in a message that has begun
    EXPECT_EQ(read(server_, 0).code, kUntouchedCode);
}

TEST_F(Chunk, ReadingNothingDoesNotWait)
{
    EXPECT_EQ(read(server_, 0).sts, 0);
    char unused = '?';
    EXPECT_THAT(reported(KemReadSharedMemChunk, &server_, kSlot, 0u, FALSE, nullptr, &unused), ReturnsOnly(0));
}

TEST_F(Chunk, ReaderGoesOnIntoTheNextMessages)
{
    const std::string bytes = pattern(5000);
    Beside writer(file_, [&] { EXPECT_EQ(write(client_, bytes, true, true), 0); });
    const Taken taken = read(server_, 5000);
    writer.join();
    EXPECT_EQ(taken.sts, 0);
    EXPECT_EQ(taken.code, 0u);
    expectSame(taken.bytes, bytes);
    EXPECT_THAT(toServerState(), ElementsAre(0, 1));
}

TEST_F(Chunk, ReaderWaitsForData)
{
    Taken taken{};
    Beside reader(file_, [&] { taken = read(server_, 3); });
    const bool waiting = eventually([this] { return waiters(id(), 4 * kSlot + 1) == 1; });
    EXPECT_EQ(write(client_, "abc"), 0);
    reader.join();
    EXPECT_TRUE(waiting);
    EXPECT_EQ(taken.bytes, "abc");
}

TEST_F(Chunk, CodePointerIsOptional)
{
    ASSERT_EQ(write(client_, "abc"), 0);
    char bytes[3];
    EXPECT_EQ(KemReadSharedMemChunk(nullptr, &server_, kSlot, 3, FALSE, nullptr, bytes), 0);
    ASSERT_EQ(KemWriteSharedMemChunkCode(nullptr, &client_, kSlot, 5), 0);
    EXPECT_EQ(KemReadSharedMemChunk(nullptr, &server_, kSlot, 3, FALSE, nullptr, bytes), 0);
    ASSERT_EQ(KemWriteSharedMemChunkCode(nullptr, &client_, kSlot, 5), 0);
    EXPECT_EQ(KemReadSharedMemChunkCode(nullptr, &server_, kSlot, nullptr), 0);
    EXPECT_THAT(toServerState(), ElementsAre(0, 1));
}

TEST_F(Chunk, ReaderThatTakesMoreThanWasSentEndsTheMessage)
{
    __real_memcpy(toServer() + 8, "abcdefgh", 8);
    ASSERT_EQ(write(client_, "ABC"), 0);
    EXPECT_EQ(read(server_, 8).bytes, "ABCdefgh"); // Deliberate: bounded by the buffer alone
    EXPECT_EQ(reading(server_).hdr.size, 0u);
    EXPECT_THAT(toServerState(), ElementsAre(0, 1));
    ASSERT_EQ(write(client_, "next"), 0);
    EXPECT_EQ(read(server_, 4).bytes, "next");
}

TEST_F(Chunk, ReaderThatTakesMoreThanABufferWaitsForTheNextMessage)
{
    sendRaw({0, 10}, pattern(2040));
    change(id(), 4 * kSlot + 1, 1); // the same message once more
    expectSame(read(server_, 2045).bytes, pattern(2040) + pattern(5));
    expectRecord(reading(server_), 0, 5, 13);
    EXPECT_THAT(toServerState(), ElementsAre(0, 1));
}

// ---- Reading a string

TEST_F(Chunk, StringIsTakenWithItsTerminator)
{
    ASSERT_EQ(write(client_, std::string("abc\0", 4)), 0);
    const Taken taken = readString(server_, 2); // the size is ignored
    EXPECT_EQ(taken.sts, 0);
    EXPECT_EQ(taken.code, 0u);
    EXPECT_EQ(taken.bytes.substr(0, 5), std::string("abc\0?", 5));
    EXPECT_THAT(toServerState(), ElementsAre(0, 1));
}

TEST_F(Chunk, StringsOfOneMessageAreTakenOneByOne)
{
    ASSERT_EQ(write(client_, std::string("abc\0\0de\0x", 9)), 0);
    EXPECT_STREQ(readString(server_).bytes.c_str(), "abc");
    expectRecord(reading(server_), 0, 5, 12);
    EXPECT_EQ(readString(server_).bytes.substr(0, 2), std::string("\0?", 2));
    EXPECT_STREQ(readString(server_).bytes.c_str(), "de");
    EXPECT_EQ(read(server_, 1).bytes, "x"); // and data behind them
    EXPECT_THAT(toServerState(), ElementsAre(0, 1));
}

TEST_F(Chunk, StringWithoutTerminatorIsWhatWasSent)
{
    __real_memcpy(toServer() + 8, "------", 6);
    ASSERT_EQ(write(client_, "abc"), 0);
    EXPECT_EQ(readString(server_).bytes.substr(0, 4), "abc?");
    EXPECT_THAT(toServerState(), ElementsAre(0, 1));
}

TEST_F(Chunk, StringWithoutTerminatorEndsAtTheBuffersEnd)
{
    ASSERT_EQ(write(client_, std::string(2040, 'a')), 0);
    toServer()[2048] = 'b'; // the buffer behind
    expectSame(readString(server_).bytes, std::string(2040, 'a'));
    expectRecord(reading(server_), 0, 0, 2048);
    EXPECT_THAT(toServerState(), ElementsAre(0, 1));
}

TEST_F(Chunk, EmptyMessageReadsAsAnEmptyString)
{
    sendRaw({0, 0}, "stale");
    const Taken taken = readString(server_);
    EXPECT_EQ(taken.sts, 0);
    EXPECT_EQ(taken.bytes.substr(0, 2), std::string("\0?", 2));
    expectRecord(reading(server_), 0, 0, 9);
    EXPECT_THAT(toServerState(), ElementsAre(0, 1));
}

TEST_F(Chunk, StringReadReceivesACode)
{
    ASSERT_EQ(KemWriteSharedMemChunkCode(nullptr, &client_, kSlot, 9), 0);
    const Taken taken = readString(server_);
    EXPECT_EQ(taken.sts, 0);
    EXPECT_EQ(taken.code, 9u);
    EXPECT_THAT(taken.bytes, Each('?'));
}

// ---- Reading a code

TEST_F(Chunk, CodeIsReceivedInPlaceOfData)
{
    ASSERT_EQ(KemWriteSharedMemChunkCode(nullptr, &client_, kSlot, 4242), 0);
    const Taken taken = read(server_, 10);
    EXPECT_EQ(taken.sts, 0);
    EXPECT_EQ(taken.code, 4242u);
    EXPECT_THAT(taken.bytes, Each('?'));
    EXPECT_THAT(toServerState(), ElementsAre(0, 1));
    expectIdle(reading(server_));
}

TEST_F(Chunk, CodeInTheMiddleEndsTheRead)
{
    Beside writer(file_, [this] {
        EXPECT_EQ(write(client_, "abc"), 0);
        EXPECT_EQ(KemWriteSharedMemChunkCode(nullptr, &client_, kSlot, 9), 0);
    });
    // A read is bounded by the buffer, so only a whole one leads into the next message.
    const Taken taken = read(server_, 2045);
    writer.join();
    EXPECT_EQ(taken.sts, 0);
    EXPECT_EQ(taken.code, 9u);
    EXPECT_EQ(taken.bytes.substr(0, 3), "abc");
    EXPECT_EQ(taken.bytes.substr(2040), "?????");
}

TEST_F(Chunk, DataThatCameWithACodeIsDiscarded)
{
    ASSERT_EQ(write(client_, "stale", false), 0);
    ASSERT_EQ(KemWriteSharedMemChunkCode(nullptr, &client_, kSlot, 9), 0);
    EXPECT_EQ(read(server_, 5).code, 9u);
    expectIdle(reading(server_));
    ASSERT_EQ(write(client_, "fresh"), 0);
    EXPECT_EQ(read(server_, 5).bytes, "fresh");
}

TEST_F(Chunk, CodeReadDiscardsDataThatCameWithTheCode)
{
    ASSERT_EQ(write(client_, "stale", false), 0);
    ASSERT_EQ(KemWriteSharedMemChunkCode(nullptr, &client_, kSlot, 9), 0);
    KEM_ULONG_T code = 0;
    EXPECT_THAT(reported(KemReadSharedMemChunkCode, &server_, kSlot, &code), Succeeds());
    EXPECT_EQ(code, 9u);
    expectIdle(reading(server_));
    EXPECT_THAT(toServerState(), ElementsAre(0, 1));
    ASSERT_EQ(write(client_, "fresh"), 0);
    EXPECT_EQ(read(server_, 5).bytes, "fresh");
}

TEST_F(Chunk, CodeReadOfADataMessageIsZeroAndDiscardsIt)
{
    ASSERT_EQ(write(client_, "stale"), 0);
    KEM_ULONG_T code = 77;
    EXPECT_EQ(KemReadSharedMemChunkCode(nullptr, &server_, kSlot, &code), 0);
    EXPECT_EQ(code, 0u);
    expectIdle(reading(server_));
    EXPECT_THAT(toServerState(), ElementsAre(0, 1));
}

// The writer of the code waits for the buffer that the reader still holds.
TEST_F(Chunk, CodeReadDropsTheRestOfAMessage)
{
    ASSERT_EQ(write(client_, "abcdef"), 0);
    ASSERT_EQ(read(server_, 2).bytes, "ab");
    Beside writer(file_, [this] { EXPECT_EQ(KemWriteSharedMemChunkCode(nullptr, &client_, kSlot, 9), 0); });
    KEM_ULONG_T code = 0;
    EXPECT_EQ(KemReadSharedMemChunkCode(nullptr, &server_, kSlot, &code), 0);
    writer.join();
    EXPECT_EQ(code, 9u);
    EXPECT_THAT(toServerState(), ElementsAre(0, 1));
}

// ---- Arguments

TEST_F(Chunk, SlotsOutsideTheSegmentAreInvalid)
{
    char byte = 'x';
    KEM_ULONG_T code = 77;
    for (const KEM_LONG_T slot : {-1, 5, INT32_MIN, INT32_MAX}) {
        EXPECT_THAT(reported(KemWriteSharedMemChunk, &client_, slot, 1u, TRUE, TRUE, &byte),
                    ReturnsOnly(SDSTS_INVALID_PARAM));
        EXPECT_THAT(reported(KemWriteSharedMemChunkCode, &client_, slot, 5u), ReturnsOnly(SDSTS_INVALID_PARAM));
        EXPECT_THAT(reported(KemReadSharedMemChunk, &client_, slot, 1u, FALSE, &code, &byte),
                    ReturnsOnly(SDSTS_INVALID_PARAM));
        EXPECT_THAT(reported(KemReadSharedMemChunkCode, &client_, slot, &code), ReturnsOnly(SDSTS_INVALID_PARAM));
    }
    EXPECT_EQ(code, 77u);
}

TEST_F(Chunk, CallsNeedSegmentAndBuffer)
{
    char byte = 'x';
    KEM_ULONG_T code = 77;
    OV_SHAREDMEM_SEG_T* const none = nullptr;
    EXPECT_THAT(reported(KemWriteSharedMemChunk, none, kSlot, 1u, TRUE, TRUE, &byte), ReturnsOnly(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemWriteSharedMemChunk, &client_, kSlot, 0u, TRUE, TRUE, nullptr),
                ReturnsOnly(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemWriteSharedMemChunkCode, none, kSlot, 5u), ReturnsOnly(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemReadSharedMemChunk, none, kSlot, 1u, FALSE, &code, &byte),
                ReturnsOnly(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemReadSharedMemChunk, &client_, kSlot, 0u, FALSE, &code, nullptr),
                ReturnsOnly(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemReadSharedMemChunkCode, none, kSlot, &code), ReturnsOnly(SDSTS_INVALID_PARAM));
}

TEST_F(Chunk, SegmentThatIsNotAttachedIsInvalid)
{
    char byte = 'x';
    KEM_ULONG_T code = 77;
    char* const attached = client_.buffer;
    for (char* const buffer : {static_cast<char*>(nullptr), reinterpret_cast<char*>(0xdeadbeef)}) {
        client_.buffer = buffer;
        EXPECT_THAT(reported(KemWriteSharedMemChunk, &client_, kSlot, 1u, TRUE, TRUE, &byte),
                    ReturnsOnly(SDSTS_INVALID_PARAM));
        EXPECT_THAT(reported(KemWriteSharedMemChunkCode, &client_, kSlot, 5u), ReturnsOnly(SDSTS_INVALID_PARAM));
        EXPECT_THAT(reported(KemReadSharedMemChunk, &client_, kSlot, 1u, FALSE, &code, &byte),
                    ReturnsOnly(SDSTS_INVALID_PARAM));
        EXPECT_THAT(reported(KemReadSharedMemChunkCode, &client_, kSlot, &code), ReturnsOnly(SDSTS_INVALID_PARAM));
    }
    client_.buffer = attached;
    EXPECT_THAT(toServerState(), ElementsAre(0, 1));
}

TEST_F(Chunk, SegmentWithoutASetIsRefusedByTheSemaphoreCalls)
{
    KEM_SHSEMSET_T* const set = std::exchange(client_.pShSemSet, nullptr);
    EXPECT_THAT(reported(KemWriteSharedMemChunk, &client_, kSlot, 1u, TRUE, TRUE, "x"), Fails(SDSTS_INVALID_PARAM));
    client_.pShSemSet = set;
}

// ---- Earlier failures

TEST_F(Chunk, StreamThatFailedRefusesEverything)
{
    char byte = 'x';
    KEM_ULONG_T code = 77;
    writing(client_).hdr.code = kFailed;
    reading(client_).hdr.code = kFailed;
    EXPECT_THAT(reported(KemWriteSharedMemChunk, &client_, kSlot, 1u, TRUE, TRUE, &byte), ReturnsOnly(-1));
    EXPECT_THAT(reported(KemWriteSharedMemChunk, &client_, kSlot, 0u, TRUE, TRUE, &byte), ReturnsOnly(-1));
    EXPECT_THAT(reported(KemWriteSharedMemChunkCode, &client_, kSlot, 5u), ReturnsOnly(-1));
    EXPECT_THAT(reported(KemReadSharedMemChunk, &client_, kSlot, 1u, FALSE, &code, &byte), ReturnsOnly(-1));
    EXPECT_THAT(reported(KemReadSharedMemChunk, &client_, kSlot, 0u, FALSE, &code, &byte), ReturnsOnly(-1));
    EXPECT_THAT(reported(KemReadSharedMemChunkCode, &client_, kSlot, &code), ReturnsOnly(SDSTS_SHMEM_READ_BUSY));
    EXPECT_EQ(code, 77u);
    EXPECT_EQ(write(server_, "abc"), 0); // the other side's own record is not concerned
}

TEST_F(Chunk, InvalidArgumentsComeBeforeEarlierFailures)
{
    const std::string bytes = pattern(2041);
    writing(client_).hdr.code = kFailed;
    reading(client_).hdr.code = kFailed;
    EXPECT_EQ(write(client_, bytes), SDSTS_INVALID_PARAM);
    EXPECT_EQ(KemReadSharedMemChunk(nullptr, &client_, kSlot, 1, FALSE, nullptr, nullptr), SDSTS_INVALID_PARAM);
}

TEST_F(Chunk, RefusedRequestOfAWriterLeavesTheStreamAsItWas)
{
    {
        Failing refused(Call::semop, EACCES);
        EXPECT_THAT(reported(KemWriteSharedMemChunk, &client_, kSlot, 3u, TRUE, TRUE, "abc"),
                    Fails(SDSTS_CNTSEM_REQUEST, EACCES));
        expectIdle(writing(client_));
    }
    EXPECT_EQ(write(client_, "abc"), 0);
    EXPECT_EQ(read(server_, 3).bytes, "abc");
}

TEST_F(Chunk, RefusedRequestOfACodeFailsTheStreamForGood)
{
    {
        Failing refused(Call::semop, EACCES);
        EXPECT_THAT(reported(KemWriteSharedMemChunkCode, &client_, kSlot, 5u), Fails(SDSTS_CNTSEM_REQUEST, EACCES));
    }
    expectRecord(writing(client_), 5, 0, 0);
    EXPECT_EQ(write(client_, "abc"), -1);
    EXPECT_EQ(KemWriteSharedMemChunkCode(nullptr, &client_, kSlot, 5), -1);
}

TEST_F(Chunk, RefusedPostOfAWriterFailsTheStreamForGood)
{
    {
        Failing refused = Failing::nth(Call::semop, 2, EACCES);
        EXPECT_THAT(reported(KemWriteSharedMemChunk, &client_, kSlot, 3u, TRUE, TRUE, "abc"),
                    Fails(SDSTS_CNTSEM_CLEAR, -1));
    }
    expectRecord(writing(client_), kFailed, 3, 11);
    EXPECT_EQ(write(client_, "abc"), -1);
    writing(client_) = {}; // the caller's own way back
    change(id(), 4 * kSlot + 2, 1);
    EXPECT_EQ(write(client_, "abc"), 0);
}

TEST_F(Chunk, RefusedPostOfACodeFailsTheStreamForGood)
{
    {
        Failing refused = Failing::nth(Call::semop, 2, EACCES);
        EXPECT_THAT(reported(KemWriteSharedMemChunkCode, &client_, kSlot, 5u), Fails(SDSTS_CNTSEM_CLEAR, -1));
    }
    EXPECT_EQ(writing(client_).hdr.code, kFailed);
    EXPECT_EQ(KemWriteSharedMemChunkCode(nullptr, &client_, kSlot, 5), -1);
}

TEST_F(Chunk, RefusedRequestOfAReaderLeavesTheStreamAsItWas)
{
    ASSERT_EQ(write(client_, "abc"), 0);
    {
        Failing refused(Call::semop, EACCES);
        char bytes[3];
        KEM_ULONG_T code = 77;
        EXPECT_THAT(reported(KemReadSharedMemChunk, &server_, kSlot, 3u, FALSE, &code, bytes),
                    Fails(SDSTS_CNTSEM_REQUEST, EACCES));
        EXPECT_THAT(reported(KemReadSharedMemChunkCode, &server_, kSlot, &code), Fails(SDSTS_CNTSEM_REQUEST, EACCES));
        EXPECT_EQ(code, 77u);
        expectIdle(reading(server_));
    }
    EXPECT_EQ(read(server_, 3).bytes, "abc");
}

TEST_F(Chunk, BufferThatCannotBeGivenBackFailsTheReadForGood)
{
    ASSERT_EQ(write(client_, "abc"), 0);
    char bytes[4] = "???";
    KEM_ULONG_T code = 77;
    Failing refused = Failing::nth(Call::semop, 2, EACCES);
    KEM_SDCTX_T context{};
    EXPECT_EQ(KemReadSharedMemChunk(&context, &server_, kSlot, 3, FALSE, &code, bytes), -3);
    EXPECT_EQ(context.sts, SDSTS_CNTSEM_CLEAR); // of the post, which writes the context
    EXPECT_EQ(context.osRetCode, -1);
    EXPECT_EQ(code, kFailed);
    EXPECT_STREQ(bytes, "abc");
    expectRecord(reading(server_), kFailed, 0, 11);
    EXPECT_EQ(read(server_, 1).sts, -1);
    EXPECT_EQ(KemReadSharedMemChunkCode(nullptr, &server_, kSlot, &code), SDSTS_SHMEM_READ_BUSY);
}

TEST_F(Chunk, BufferThatCannotBeGivenBackFailsTheStringReadToo)
{
    ASSERT_EQ(write(client_, std::string("a\0", 2)), 0);
    Failing refused = Failing::nth(Call::semop, 2, EACCES);
    const Taken taken = readString(server_);
    EXPECT_EQ(taken.sts, -3);
    EXPECT_EQ(taken.code, kFailed);
}

// Deliberate: the code has come, and the read reports nothing else.
TEST_F(Chunk, BufferOfACodeThatCannotBeGivenBackIsNotReportedByTheRead)
{
    ASSERT_EQ(KemWriteSharedMemChunkCode(nullptr, &client_, kSlot, 9), 0);
    Failing refused = Failing::nth(Call::semop, 2, EACCES);
    const Taken taken = read(server_, 3);
    EXPECT_EQ(taken.sts, 0);
    EXPECT_EQ(taken.code, 9u);
    EXPECT_EQ(refused.hits(), 1);
    expectIdle(reading(server_));
}

TEST_F(Chunk, BufferOfACodeThatCannotBeGivenBackIsReportedByTheCodeRead)
{
    ASSERT_EQ(KemWriteSharedMemChunkCode(nullptr, &client_, kSlot, 9), 0);
    Failing refused = Failing::nth(Call::semop, 2, EACCES);
    KEM_ULONG_T code = 0;
    EXPECT_THAT(reported(KemReadSharedMemChunkCode, &server_, kSlot, &code), Fails(SDSTS_CNTSEM_CLEAR, -1));
    EXPECT_EQ(code, 9u);
    expectIdle(reading(server_));
}

TEST_F(Chunk, RestThatCannotBeDroppedIsReportedByTheCodeRead)
{
    ASSERT_EQ(write(client_, "abc"), 0);
    ASSERT_EQ(read(server_, 1).bytes, "a");
    Failing refused(Call::semop, EACCES);
    KEM_ULONG_T code = 77;
    EXPECT_THAT(reported(KemReadSharedMemChunkCode, &server_, kSlot, &code), Fails(SDSTS_CNTSEM_CLEAR, -1));
    EXPECT_EQ(code, 77u);
    EXPECT_EQ(refused.hits(), 1);
}

TEST_F(Chunk, RemovedSetRefusesTheWaitingReader)
{
    Report report{};
    Beside reader(file_, [&] {
        char byte;
        report = reported(KemReadSharedMemChunk, &client_, kSlot, 1u, FALSE, nullptr, &byte);
    });
    const bool waiting = eventually([this] { return waiters(id(), 4 * kSlot + 3) == 1; });
    file_.removeSet();
    reader.join();
    EXPECT_TRUE(waiting);
    EXPECT_THAT(report, Fails(SDSTS_CNTSEM_REQUEST, EIDRM));
}

// ---- Time-outs

TEST_F(Chunk, RequestsUseTheSegmentsTimeOutAndReportIt)
{
    close();
    open(1000);
    Failing over(Call::semtimedop, EAGAIN);
    char byte = 'x';
    EXPECT_THAT(reported(KemWriteSharedMemChunk, &client_, kSlot, 1u, TRUE, TRUE, &byte),
                Fails(SDSTS_CNTSEM_TIMEOUT, EAGAIN));
    EXPECT_THAT(reported(KemWriteSharedMemChunkCode, &client_, kSlot, 5u), Fails(SDSTS_CNTSEM_TIMEOUT, EAGAIN));
    EXPECT_THAT(reported(KemReadSharedMemChunk, &client_, kSlot, 1u, FALSE, nullptr, &byte),
                Fails(SDSTS_CNTSEM_TIMEOUT, EAGAIN));
    EXPECT_THAT(reported(KemReadSharedMemChunkCode, &client_, kSlot, nullptr), Fails(SDSTS_CNTSEM_TIMEOUT, EAGAIN));
    EXPECT_EQ(over.hits(), 4);
    expectRecord(writing(client_), 5, 0, 0); // the code that could not be sent
    expectIdle(reading(client_));
}

TEST_F(Chunk, TimeOutOf0ExchangesWhatIsReady)
{
    close();
    open(0);
    EXPECT_EQ(write(client_, "abc"), 0);
    EXPECT_EQ(read(server_, 3).bytes, "abc");
}

// Deliberate: the request reports a time-out although it took the semaphore, and the exchange passes that on.
TEST_F(Chunk, TimeOutOf0LosesASemaphoreThatWasNotReadyAtOnce)
{
    close();
    open(0);
    Taken taken{};
    Beside reader(file_, [&] { taken = read(server_, 3); });
    EXPECT_TRUE(keepsRunning(reader.thread()));
    EXPECT_EQ(write(client_, "abc"), 0);
    reader.join();
    EXPECT_EQ(taken.sts, SDSTS_CNTSEM_TIMEOUT);
    EXPECT_EQ(taken.bytes, "???");
    EXPECT_THAT(toServerState(), ElementsAre(0, 0));
    expectIdle(reading(server_));
}

// ---- What another process may write

TEST_F(Chunk, SizeBeyondTheBufferCountsAsAFullOne)
{
    for (const uint32_t size : {2041u, 4096u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        sendRaw({0, size}, pattern(2040));
        toServer()[2048] = 'b'; // the buffer behind
        expectSame(read(server_, 2040).bytes, pattern(2040));
        expectRecord(reading(server_), 0, 0, 2048);
        EXPECT_THAT(toServerState(), ElementsAre(0, 1));
    }
}

TEST_F(Chunk, SizeBeyondTheBufferDoesNotLeadAStringOutOfIt)
{
    sendRaw({0, 0xFFFFFFFF}, std::string(2040, 'a'));
    memset(toServer() + 2048, 'b', 2048);
    expectSame(readString(server_).bytes, std::string(2040, 'a'));
    EXPECT_THAT(toServerState(), ElementsAre(0, 1));
}

TEST_F(Chunk, SizeOfACodeMeansNothing)
{
    sendRaw({9, 0xFFFFFFFF});
    EXPECT_EQ(read(server_, 10).code, 9u);
    expectIdle(reading(server_));
}

TEST_F(Chunk, HeaderChangedAfterItWasFetchedChangesNothing)
{
    sendRaw({0, 6}, "abcdef");
    copiedBuffer = toServer();
    beforeCopy = [this] {
        const Header other{5, 0xFFFF};
        __real_memcpy(toServer(), &other, sizeof other);
    };
    EXPECT_EQ(read(server_, 4).bytes, "abcd");
    EXPECT_FALSE(beforeCopy);
    expectRecord(reading(server_), 0, 2, 12);
    const Taken rest = read(server_, 2);
    EXPECT_EQ(rest.sts, 0);
    EXPECT_EQ(rest.bytes, "ef");
    EXPECT_THAT(toServerState(), ElementsAre(0, 1));
}

TEST_F(Chunk, TerminatorChangedAfterTheScanIsWrittenAgain)
{
    sendRaw({0, 8}, std::string("abc\0defg", 8));
    copiedBuffer = toServer();
    beforeCopy = [this] { toServer()[8 + 3] = 'X'; };
    EXPECT_EQ(readString(server_).bytes.substr(0, 5), std::string("abc\0?", 5));
    EXPECT_FALSE(beforeCopy);
    expectRecord(reading(server_), 0, 4, 12);
}

TEST_F(Chunk, WritersHeaderComesFromItsOwnRecord)
{
    ASSERT_EQ(write(client_, "abc", false), 0);
    const Header other{5, 0xFFFFFFFF};
    __real_memcpy(toServer(), &other, sizeof other);
    ASSERT_EQ(write(client_, "de", true), 0);
    EXPECT_EQ(header(toServer()), (Header{0, 5}));
    EXPECT_EQ(std::string(toServer() + 8, 5), "abcde");
}

// ---- Streams

TEST_F(Chunk, MessageCostsTwoSemaphoreOperationsOnEachSide)
{
    resetCalls();
    ASSERT_EQ(write(client_, "abc", false), 0);
    EXPECT_EQ(calls(Call::semop), 1);
    ASSERT_EQ(write(client_, "def", false), 0);
    EXPECT_EQ(calls(Call::semop), 1);
    ASSERT_EQ(write(client_, "ghi", true), 0);
    EXPECT_EQ(calls(Call::semop), 2);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(read(server_, 3).sts, 0);
    EXPECT_EQ(calls(Call::semop), 4);
}

TEST_F(Chunk, BytesArriveInOrderWhateverTheirPieces)
{
    const std::string bytes = pattern(60000);
    Beside writer(file_, [&] {
        size_t at = 0;
        for (unsigned i = 1; at < bytes.size(); ++i) {
            const size_t count = std::min<size_t>(i * 37 % 4500, bytes.size() - at);
            const bool last = at + count == bytes.size();
            EXPECT_EQ(write(client_, bytes.substr(at, count), last || i % 3 == 0, true), 0);
            at += count;
        }
    });
    // Full buffers and flushes make messages of any size; single bytes take them all.
    std::string got;
    while (got.size() < bytes.size()) {
        const Taken taken = read(server_, 1);
        ASSERT_EQ(taken.sts, 0);
        got += taken.bytes;
    }
    writer.join();
    expectSame(got, bytes);
    EXPECT_THAT(toServerState(), ElementsAre(0, 1));
}

TEST_F(Chunk, RequestAndReplyMayOverlap)
{
    constexpr int kMessages = 200;
    const std::string bytes = pattern(3000);
    const auto both = [&](OV_SHAREDMEM_SEG_T& side) {
        Beside writer(file_, [&] {
            for (int i = 0; i < kMessages; ++i) EXPECT_EQ(write(side, bytes, true, true), 0);
        });
        for (int i = 0; i < kMessages; ++i) {
            const Taken taken = read(side, bytes.size());
            EXPECT_EQ(taken.sts, 0);
            expectSame(taken.bytes, bytes);
        }
        writer.join();
    };
    Beside client(file_, [&] { both(client_); });
    both(server_);
    client.join();
}

TEST_F(Chunk, SlotsAreIndependent)
{
    std::vector<std::thread> threads;
    for (KEM_LONG_T slot = 0; slot < 5; ++slot) {
        threads.emplace_back([this, slot] {
            for (KEM_ULONG_T i = 0; i < 200; ++i) {
                KEM_ULONG_T answer = 0;
                EXPECT_EQ(
                    KemWriteSharedMemChunk(nullptr, &client_, slot, sizeof i, TRUE, FALSE, reinterpret_cast<char*>(&i)),
                    0);
                EXPECT_EQ(KemReadSharedMemChunk(nullptr, &client_, slot, sizeof answer, FALSE, nullptr,
                                                reinterpret_cast<char*>(&answer)),
                          0);
                EXPECT_EQ(answer, i + static_cast<KEM_ULONG_T>(slot));
            }
            EXPECT_EQ(KemWriteSharedMemChunkCode(nullptr, &client_, slot, 1), 0);
        });
        threads.emplace_back([this, slot] {
            for (;;) {
                KEM_ULONG_T code = 0;
                KEM_ULONG_T asked = 0;
                const KEM_STS_T sts = KemReadSharedMemChunk(nullptr, &server_, slot, sizeof asked, FALSE, &code,
                                                            reinterpret_cast<char*>(&asked));
                EXPECT_EQ(sts, 0);
                if (sts != 0 || code != 0) return;
                asked += static_cast<KEM_ULONG_T>(slot);
                EXPECT_EQ(KemWriteSharedMemChunk(nullptr, &server_, slot, sizeof asked, TRUE, FALSE,
                                                 reinterpret_cast<char*>(&asked)),
                          0);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
}
