// How a client is let in: a record of its own to the server through one FIFO, the answer back through the other.
//
// Records have a fixed size below that which the system writes in one piece, so they never mix. The client's lock file
// keeps clients apart; an answer that its client did not wait for is still there for the next one, which knows by
// process id and nonce that it is not meant.
#pragma once

#include <kemsd/ipc.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "wire/serverdir.h"

namespace sqlhost {

enum class Wish : uint32_t { connect = 1, stop = 2 };

struct Hello {
    static constexpr uint32_t kMark = 0x4F4C4548;
    uint32_t mark = kMark;
    Wish wish = Wish::connect;
    int64_t pid = 0;      // of the client
    int64_t lockByte = 0; // the byte it holds in clients.lock
    uint64_t nonce = 0;
};

enum class Answered : uint32_t { welcome = 1, full = 2, ending = 3, failed = 4 };

struct Welcome {
    static constexpr uint32_t kMark = 0x4D4C4357;
    uint32_t mark = kMark;
    Answered result = Answered::welcome;
    int64_t clientPid = 0; // of the hello that this answers,
    uint64_t nonce = 0;    // and its nonce
    int64_t serverPid = 0;
    int32_t serverKey = -1;
    uint32_t segment = 0;
    int32_t slot = -1;
    int32_t reserved = 0;
};

static_assert(sizeof(Hello) == 32 && sizeof(Welcome) == 48, "records of both processes");

// One FIFO, opened for both directions, so that neither end waits for the other.
class Fifo {
public:
    // The FIFO must exist. Throws Failure.
    Fifo(KEM_PSDCTX_T context, const std::string& path);
    ~Fifo();
    Fifo(const Fifo&) = delete;
    Fifo& operator=(const Fifo&) = delete;

    // Writes a record at once or not at all: false, when the FIFO is full.
    template <class Record>
    bool put(KEM_PSDCTX_T context, const Record& record)
    {
        static_assert(std::is_trivially_copyable_v<Record>);
        return write(context, &record, sizeof record);
    }
    // Takes the next record, if there is one, from where its mark is: bytes before it are thrown away.
    template <class Record>
    bool take(KEM_PSDCTX_T context, Record& record)
    {
        static_assert(std::is_trivially_copyable_v<Record> && offsetof(Record, mark) == 0);
        return takeFromMark(context, &record, sizeof record, Record::kMark);
    }
    // Throws away what is there.
    void drain(KEM_PSDCTX_T context);
    // Waits until there is something to take, at most so long.
    bool wait(int milliseconds) const;

    int handle() const { return pipe_.iFdRead; }

private:
    bool write(KEM_PSDCTX_T context, const void* bytes, size_t count);
    void fill(KEM_PSDCTX_T context);
    bool takeFromMark(KEM_PSDCTX_T context, void* record, size_t size, uint32_t mark);

    KEM_PIPEHDL_T pipe_{-1, -1, nullptr};
    std::string read_; // not taken yet
};

std::string fifoToServer(const ServerDirectory& directory);
std::string fifoToClient(const ServerDirectory& directory);

} // namespace sqlhost
