// The copy goes round a ring of slots: while the pieces in one half of them are being read, those in the other half are
// being written.
#include "client/blockcopy.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "text.h"

namespace sqlhost {
namespace {

constexpr KEM_ULONG_T kPieceBlocks = 8;
constexpr uint64_t kPiece = uint64_t{kPieceBlocks} * KEM_BLOCK_SIZE;
constexpr uint64_t kSlots = 16;

[[noreturn]] void fail(KEM_PSDCTX_T context, const char* what, const NamedFile& file)
{
    throw Failure(text("cannot %s %s: %s", what, file.path.c_str(), strerror(context->osRetCode)));
}

constexpr KEM_ULONG_T blocksIn(uint64_t bytes)
{
    return static_cast<KEM_ULONG_T>((bytes + KEM_BLOCK_SIZE - 1) / KEM_BLOCK_SIZE);
}

// A request that cannot be forgotten: until it is collected, the system goes on with its buffer and control block.
class Request {
public:
    Request() = default;
    ~Request()
    {
        KEM_ULONG_T ignored;
        if (out_) KemSdDirectIOWait(nullptr, -1, &control_, &ignored);
    }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    bool isOut() const { return out_; }

    void read(KEM_PSDCTX_T context, const NamedFile& file, KEM_ULONG_T offset, char* buffer, KEM_ULONG_T blocks)
    {
        KEM_ULONG_T none;
        out_ = KemSdDirectIOFileRead(context, file.handle, offset, buffer, blocks, &control_, &none, nullptr) ==
               SDSTS_DIO_READ_PENDING;
        if (!out_) fail(context, "read", file);
    }
    void write(KEM_PSDCTX_T context, const NamedFile& file, KEM_ULONG_T offset, char* buffer, KEM_ULONG_T blocks)
    {
        KEM_ULONG_T none;
        out_ = KemSdDirectIOFileWrite(context, file.handle, offset, buffer, blocks, &control_, &none, nullptr) ==
               SDSTS_DIO_WRITE_PENDING;
        if (!out_) fail(context, "write", file);
    }

    // How many blocks were moved.
    KEM_ULONG_T collect(KEM_PSDCTX_T context, const char* what, const NamedFile& file)
    {
        KEM_ULONG_T moved = 0;
        out_ = false;
        if (KemSdDirectIOWait(context, file.handle, &control_, &moved) != 0) fail(context, what, file);
        return moved;
    }

private:
    KEM_NOWAITIO_CB_T control_{};
    bool out_ = false;
};

// A piece on its way. The requests go before the buffers.
struct Slot {
    char bytes[kPiece];
    char there[kPiece]; // what the copy holds already
    Request reading, comparing, writing;
};

class Copy {
public:
    Copy(KEM_PSDCTX_T context, const NamedFile& from, const NamedFile& to, uint64_t bytes, uint64_t known)
        : context_(context), from_(from), to_(to), bytes_(bytes), known_(known)
    {}

    void run()
    {
        const uint64_t pieces = (bytes_ + kPiece - 1) / kPiece;
        for (uint64_t i = 0; i < pieces + kSlots; ++i) {
            if (i >= kSlots) complete(i - kSlots);
            if (i < pieces) fetch(i);
            if (i >= kSlots / 2 && i - kSlots / 2 < pieces) store(i - kSlots / 2);
        }
    }

private:
    Slot& slotOf(uint64_t piece) const { return slots_[piece % kSlots]; }
    static KEM_ULONG_T blockOf(uint64_t piece) { return static_cast<KEM_ULONG_T>(piece * kPieceBlocks); }
    uint64_t sizeOf(uint64_t piece) const { return std::min(kPiece, bytes_ - piece * kPiece); }

    void fetch(uint64_t piece)
    {
        Slot& slot = slotOf(piece);
        const uint64_t size = sizeOf(piece);
        slot.reading.read(context_, from_, blockOf(piece), slot.bytes, blocksIn(size));
        if (piece * kPiece + size <= known_)
            slot.comparing.read(context_, to_, blockOf(piece), slot.there, blocksIn(size));
    }

    void store(uint64_t piece)
    {
        Slot& slot = slotOf(piece);
        const uint64_t size = sizeOf(piece);
        slot.reading.collect(context_, "read", from_);
        if (slot.comparing.isOut()) {
            slot.comparing.collect(context_, "read", to_);
            if (memcmp(slot.bytes, slot.there, size) == 0) return;
        }
        slot.writing.write(context_, to_, blockOf(piece), slot.bytes, blocksIn(size));
    }

    void complete(uint64_t piece)
    {
        Slot& slot = slotOf(piece);
        if (!slot.writing.isOut()) return;
        const uint64_t written = uint64_t{slot.writing.collect(context_, "write", to_)} * KEM_BLOCK_SIZE;
        if (written < sizeOf(piece)) insist(piece * kPiece + written, slot.bytes + written, sizeOf(piece) - written);
    }

    // A write that ends early does not say why: the next byte does.
    void insist(uint64_t place, char* bytes, uint64_t count)
    {
        for (KEM_UINT_T written = 0; count > 0; place += written, bytes += written, count -= written)
            if (KemSdFilePWrite(context_, to_.handle, bytes, static_cast<KEM_LONG_T>(place),
                                static_cast<KEM_UINT_T>(count), &written, nullptr) != 0)
                fail(context_, "write", to_);
    }

    const KEM_PSDCTX_T context_;
    const NamedFile& from_;
    const NamedFile& to_;
    const uint64_t bytes_;
    const uint64_t known_;
    const std::unique_ptr<Slot[]> slots_ = std::make_unique<Slot[]>(kSlots);
};

} // namespace

void copyBlocks(KEM_PSDCTX_T context, const NamedFile& from, const NamedFile& to, uint64_t bytes, uint64_t known)
{
#if defined(__SANITIZE_THREAD__)
    // Of the C library's helpers the sanitizer survives only one that a thread it knows has started: the first.
    aioinit oneHelper{};
    oneHelper.aio_threads = 1;
    aio_init(&oneHelper);
#endif
    Copy(context, from, to, bytes, known).run();
}

} // namespace sqlhost
