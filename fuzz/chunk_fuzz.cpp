// The chunk exchange with a peer that writes anything at any time, and semaphores that are always to be had.
//
// The first byte picks the side and how many calls are made, four bytes a call; the rest is what the peer writes: at
// every message that the library waits for, the buffer receives the bytes from where the last message's header ended,
// and starts again at the beginning when they are used up. All other buffers of the segment are poisoned while a call
// runs. A second, simpler reading of the rules says what each call must bring.

#include <kemsd/ipc.h>
#include <sanitizer/asan_interface.h>
#include <sys/sem.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr size_t kBuffer = 2048, kHeader = 8, kPayload = kBuffer - kHeader, kSegment = 10 * kBuffer;
constexpr int kSlots = 5;
constexpr uint32_t kFailed = 0xFFFFFFFD;
constexpr char kUntouched = '\x3C';

void require(bool holds, const char* what)
{
    if (holds) return;
    fprintf(stderr, "broken: %s\n", what);
    abort();
}

struct Message {
    uint32_t code, size;
    std::string payload; // the whole buffer behind the header
};

// The shared memory and its semaphores: what the library asks of the system ends here.
class Exchange {
public:
    Exchange(bool client, const uint8_t* bytes, size_t count)
        : memory_(static_cast<char*>(malloc(kSegment))), client_(client), bytes_(bytes), count_(count)
    {
        memset(memory_, kUntouched, kSegment);
        shadow_.assign(memory_, kSegment);
    }
    ~Exchange() { free(memory_); }
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    // One call of the library, which may touch the one buffer.
    void open(int slot, bool writing, int failingPost)
    {
        buffer_ = static_cast<size_t>(2 * slot + (writing != client_));
        writing_ = writing;
        failingPost_ = failingPost;
        messages_.clear();
        taken_ = given_ = 0;
        ASAN_POISON_MEMORY_REGION(memory_, kSegment);
        ASAN_UNPOISON_MEMORY_REGION(buffer(), kBuffer);
    }
    // Nothing has changed but what the call may change.
    void close()
    {
        ASAN_UNPOISON_MEMORY_REGION(memory_, kSegment);
        if (writing_) shadow_.replace(buffer_ * kBuffer, kBuffer, buffer(), kBuffer);
        require(memcmp(memory_, shadow_.data(), kSegment) == 0, "a reader writes nothing, a writer to its own buffer");
    }

    int operate(const sembuf& operation)
    {
        const auto ready = static_cast<unsigned short>(2 * buffer_ + 1);
        require(operation.sem_num == ready || operation.sem_num == ready + 1, "the semaphores of the slot's direction");
        require(operation.sem_op == 1 || operation.sem_op == -1, "one at a time");
        require((operation.sem_num == ready) == (operation.sem_op == (writing_ ? 1 : -1)), "each side its part");
        if (operation.sem_op == -1) {
            ++taken_;
            if (!writing_) peerWrites();
        } else if (++given_ == failingPost_) {
            errno = ERANGE;
            return -1;
        } else if (writing_) {
            messages_.push_back(message());
        }
        return 0;
    }

    char* memory() { return memory_; }
    // Those that came, or were sent, in this call.
    const std::vector<Message>& messages() const { return messages_; }
    int taken() const { return taken_; }
    int given() const { return given_; }
    bool postFailed() const { return failingPost_ > 0 && given_ >= failingPost_; }

private:
    char* buffer() { return memory_ + buffer_ * kBuffer; }

    Message message()
    {
        Message made;
        memcpy(&made.code, buffer(), 4);
        memcpy(&made.size, buffer() + 4, 4);
        made.payload.assign(buffer() + kHeader, kPayload);
        return made;
    }

    void peerWrites()
    {
        for (size_t i = 0; i < kBuffer && count_ > 0; ++i)
            buffer()[i] = static_cast<char>(bytes_[(cursor_ + i) % count_]);
        if (count_ > 0) cursor_ = (cursor_ + kHeader) % count_;
        shadow_.replace(buffer_ * kBuffer, kBuffer, buffer(), kBuffer);
        messages_.push_back(message());
    }

    char* memory_;
    std::string shadow_;
    const bool client_;
    const uint8_t* bytes_;
    const size_t count_;
    size_t cursor_ = 0;
    size_t buffer_ = 0;
    bool writing_ = false;
    int failingPost_ = 0;
    int taken_ = 0, given_ = 0;
    std::vector<Message> messages_;
};

Exchange* exchange = nullptr;

// A stream in the model: bytes not yet taken, or gathered; and whether it has failed for good.
struct Stream {
    std::string bytes; // reading: the rest of the buffer from the position on
    size_t left = 0;   // reading: how many of them were sent
    bool failed = false;
};

constexpr uint32_t kNoCode = 0x5A5A5A5A; // what stands where nothing was stored

struct Call {
    KEM_STS_T status = 0;
    uint32_t code = kNoCode;
    std::string bytes;
};

// What a read brings, given the messages that came meanwhile.
class Reading {
public:
    Reading(Stream& stream, const Exchange& came) : stream_(stream), came_(came) {}

    Call bytes(size_t wanted)
    {
        while (wanted > 0 && start()) {
            const size_t count = std::min(wanted, stream_.bytes.size());
            wanted -= count;
            if (!take(count)) break;
        }
        return call_;
    }
    Call string()
    {
        if (!start()) return call_;
        const size_t nul = stream_.bytes.substr(0, stream_.left).find('\0');
        const bool empty = stream_.left == 0;
        take(empty ? 1 : nul == std::string::npos ? stream_.left : nul + 1);
        if (empty) call_.bytes = std::string(1, '\0');
        return call_;
    }
    Call code()
    {
        if (stream_.left > 0) {
            stream_.left = 0;
            if (!give()) {
                call_.status = SDSTS_CNTSEM_CLEAR;
                return call_;
            }
        }
        call_.code = next().code;
        if (!give()) call_.status = SDSTS_CNTSEM_CLEAR;
        return call_;
    }
    void checkCounts() const
    {
        require(came_.messages().size() == taken_, "as many messages are taken as are needed");
        require(came_.given() == given_, "every message taken whole gives its buffer back");
    }

private:
    const Message& next()
    {
        require(taken_ < came_.messages().size(), "a message is waited for when one is needed");
        return came_.messages()[taken_++];
    }
    // The buffer goes back; the last of these may have failed.
    bool give()
    {
        ++given_;
        return !(came_.postFailed() && given_ == came_.given());
    }
    // False: a code has ended the call.
    bool start()
    {
        if (stream_.left > 0) return true;
        const Message& message = next();
        call_.code = message.code;
        if (message.code != 0) {
            give();
            return false;
        }
        stream_.left = std::min<size_t>(message.size, kPayload);
        stream_.bytes = message.payload;
        return true;
    }
    bool take(size_t count)
    {
        call_.bytes += stream_.bytes.substr(0, count);
        stream_.bytes.erase(0, count);
        stream_.left -= std::min(stream_.left, count);
        if (stream_.left > 0 || give()) return true;
        stream_.failed = true;
        call_.status = -3;
        call_.code = kFailed;
        return false;
    }

    Stream& stream_;
    const Exchange& came_;
    Call call_;
    size_t taken_ = 0;
    int given_ = 0;
};

// The library's side of a segment, and the model of its ten streams.
class Side {
public:
    Side(Exchange& shared, bool client) : shared_(shared)
    {
        segment_.pShSemSet = &set_;
        segment_.chunkSize = kBuffer;
        segment_.type = client ? SHM_CLIENT : SHM_SERVER;
        segment_.segSize = kSlots;
        segment_.lShmTimeOut = -1;
        KemSetSharedMemSegBuffer(nullptr, &segment_, shared.memory());
    }

    void read(int slot, uint32_t wanted, bool string, bool withCode, int failingPost)
    {
        const size_t room = string ? kPayload : wanted;
        const std::unique_ptr<char[]> to(new char[room]);
        memset(to.get(), kUntouched, room);
        uint32_t code = kNoCode;
        shared_.open(slot, false, failingPost);
        const KEM_STS_T status =
            KemReadSharedMemChunk(nullptr, &segment_, slot, wanted, string, withCode ? &code : nullptr, to.get());
        shared_.close();
        Stream& stream = reading_[slot];
        if (stream.failed) return requireRefused(status, -1);

        Reading reading(stream, shared_);
        const Call expected = string ? reading.string() : reading.bytes(wanted);
        require(status == expected.status, "the status of a read");
        require(!withCode || code == expected.code, "the code of a read");
        require(memcmp(to.get(), expected.bytes.data(), expected.bytes.size()) == 0, "the bytes of a read");
        for (size_t i = expected.bytes.size(); i < room; ++i) require(to[i] == kUntouched, "no more bytes than taken");
        reading.checkCounts();
        checkRecord(slot);
    }

    void readCode(int slot, bool withCode, int failingPost)
    {
        uint32_t code = kNoCode;
        shared_.open(slot, false, failingPost);
        const KEM_STS_T status = KemReadSharedMemChunkCode(nullptr, &segment_, slot, withCode ? &code : nullptr);
        shared_.close();
        if (reading_[slot].failed) return requireRefused(status, SDSTS_SHMEM_READ_BUSY);

        Reading reading(reading_[slot], shared_);
        const Call expected = reading.code();
        require(status == expected.status, "the status of a code read");
        require(!withCode || code == expected.code, "the code of a code read");
        reading.checkCounts();
        checkRecord(slot);
    }

    void write(int slot, uint32_t size, bool flush, bool split, int failingPost)
    {
        const std::unique_ptr<char[]> from(new char[size]);
        for (uint32_t i = 0; i < size; ++i) from[i] = static_cast<char>(++written_ % 251);
        shared_.open(slot, true, failingPost);
        const KEM_STS_T status = KemWriteSharedMemChunk(nullptr, &segment_, slot, size, flush, split, from.get());
        shared_.close();
        if (size > kPayload && !split) return requireRefused(status, SDSTS_INVALID_PARAM);
        if (writing_[slot].failed) return requireRefused(status, -1);
        expected_.clear();
        addPiece(writing_[slot], std::string(from.get(), size), flush, split);
        checkSent(slot, status);
    }

    void writeCode(int slot, uint32_t code, int failingPost)
    {
        shared_.open(slot, true, failingPost);
        const KEM_STS_T status = KemWriteSharedMemChunkCode(nullptr, &segment_, slot, code);
        shared_.close();
        if (writing_[slot].failed) return requireRefused(status, -1);
        expected_.clear();
        send(writing_[slot], code);
        checkSent(slot, status);
    }

    // As a caller does who goes on after a failure.
    void clear(int slot)
    {
        segment_.chunkRec[0][slot] = segment_.chunkRec[1][slot] = {};
        reading_[slot] = writing_[slot] = {};
    }

private:
    struct Sent {
        uint32_t code;
        std::string payload;
    };

    void requireRefused(KEM_STS_T status, KEM_STS_T expected)
    {
        require(status == expected, "a call that is refused says why");
        require(shared_.taken() == 0 && shared_.given() == 0, "and touches no semaphore");
    }

    void checkRecord(int slot)
    {
        const SHMEM_CHUNK_REC_T& record = segment_.chunkRec[0][slot];
        const Stream& stream = reading_[slot];
        require(record.hdr.code == (stream.failed ? kFailed : 0), "a stream fails for good when its post does");
        require(record.hdr.size == stream.left, "what is left of a message");
        if (stream.left > 0) require(record.offset == kBuffer - stream.bytes.size(), "the place in a message");
    }

    void send(Stream& stream, uint32_t code)
    {
        expected_.push_back({code, std::move(stream.bytes)});
        stream.bytes.clear();
    }
    void addPiece(Stream& stream, const std::string& piece, bool flush, bool split)
    {
        const bool startsAnew = !split && stream.bytes.size() + piece.size() > kPayload;
        if (startsAnew) send(stream, 0);
        for (const char byte : piece) {
            stream.bytes += byte;
            if (stream.bytes.size() == kPayload) send(stream, 0);
        }
        if ((flush || startsAnew) && !piece.empty() && !stream.bytes.empty()) send(stream, 0);
    }
    void checkSent(int slot, KEM_STS_T status)
    {
        const std::vector<Message>& sent = shared_.messages();
        const bool failed = shared_.postFailed();
        require(failed ? sent.size() < expected_.size() : sent.size() == expected_.size(), "the messages that are due");
        for (size_t i = 0; i < sent.size(); ++i) {
            require(sent[i].code == expected_[i].code, "the code of a message");
            require(sent[i].size == expected_[i].payload.size(), "the size of a message");
            require(sent[i].payload.compare(0, sent[i].size, expected_[i].payload) == 0, "the bytes of a message");
        }
        require(status == (failed ? SDSTS_CNTSEM_CLEAR : 0), "the status of a write");
        const SHMEM_CHUNK_REC_T& record = segment_.chunkRec[1][slot];
        writing_[slot].failed = failed;
        require(record.hdr.code == (failed ? kFailed : 0), "a stream fails for good when its post does");
        if (!failed) require(record.hdr.size == writing_[slot].bytes.size(), "what is gathered");
    }

    Exchange& shared_;
    KEM_SHSEMSET_T set_{0, 1};
    OV_SHAREDMEM_SEG_T segment_{};
    Stream reading_[kSlots], writing_[kSlots];
    std::vector<Sent> expected_;
    uint64_t written_ = 0;
};

// Around every edge: small, about one buffer, several.
uint32_t bytesFor(uint8_t kind, uint16_t number)
{
    switch (kind) {
        case 0:
            return number % 300;
        case 1:
            return 2030 + number % 20;
        case 2:
            return number % 3 * 2040 + number % 7;
        default:
            return number;
    }
}

void make(Side& side, const uint8_t* call)
{
    const int slot = call[1] % kSlots;
    const int failingPost = call[1] / 8 % 8 == 7 ? 1 + call[1] / 64 : 0;
    const auto number = static_cast<uint16_t>(call[2] | call[3] << 8);
    const uint32_t bytes = bytesFor(call[0] / 8 % 4, number);
    const bool one = call[0] & 32, other = call[0] & 64;
    switch (call[0] % 8) {
        case 0:
        case 1:
        case 2:
            return side.read(slot, bytes, false, !one, failingPost);
        case 3:
            return side.read(slot, number, true, !one, failingPost);
        case 4:
            return side.readCode(slot, !one, failingPost);
        case 5:
            return side.write(slot, bytes, one, other, failingPost);
        case 6:
            return side.writeCode(slot, one ? number : 0xFFFF0000 + number, failingPost);
        default:
            return side.clear(slot);
    }
}

} // namespace

extern "C" int __wrap_semop(int, sembuf* operations, size_t count)
{
    require(count == 1, "one operation a call");
    return exchange->operate(*operations);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1) return 0;
    const bool client = data[0] & 1;
    const size_t calls = std::min<size_t>(data[0] / 2, (size - 1) / 4);
    const uint8_t* const script = data + 1;
    Exchange shared(client, script + 4 * calls, size - 1 - 4 * calls);
    exchange = &shared;
    Side side(shared, client);
    for (size_t i = 0; i < calls; ++i) make(side, script + 4 * i);
    exchange = nullptr;
    return 0;
}
