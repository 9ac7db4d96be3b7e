// The chunk exchange: byte streams between a server and a client through the slots of a segment.
//
// A message in one direction of a slot makes one round: the writer waits for buffer-free, fills the buffer, writes the
// header and posts data-ready; the reader waits for data-ready, takes the header and the payload and posts buffer-free.
// Between the two a buffer belongs to one side, so nothing here is locked; the semaphore calls order the memory.
//
// The other process may be broken or hostile and write to the segment at any time. So a header is fetched by one load
// and only that copy counts, a size is bounded before it is used, and positions inside a buffer come from this
// process's own stream records alone: whatever the peer writes, nothing beyond the 2048 bytes of the buffer is touched.
//
// These calls never write the context themselves; the semaphore calls do.

#include <kemsd/ipc.h>
#include <algorithm>
#include <bit>
#include <cstring>

#include "sd/base/atomic.h"
#include "sd/shmem/shmem.h"

namespace {

using sd::loadRelaxed;
using sd::storeRelaxed;
using sd::shmem::hasSlot;
using sd::shmem::isAttached;
using sd::shmem::post;
using sd::shmem::request;

constexpr uint32_t kHeaderBytes = sizeof(SHMEM_HEADER_T);
constexpr uint32_t kPayloadBytes = SHMEM_CHUNK_SIZE - kHeaderBytes;
static_assert(kPayloadBytes == 2040);

constexpr KEM_STS_T kFailedEarlier = -1;
constexpr KEM_STS_T kTransferFailed = -3;
constexpr auto kFailed = static_cast<uint32_t>(kTransferFailed); // the code of a stream that failed for good

// ---- One direction of a slot

enum Direction { kReading = 0, kWriting = 1 }; // the rows of the stream records

struct Stream {
    KEM_PSDCTX_T ctx;
    OV_SHAREDMEM_SEG_T& segment;
    SHMEM_CHUNK_REC_T& record;
    char* chunk; // the buffer, which the other process may change at any time
    KEM_USHORT_T dataReady;
    KEM_USHORT_T bufferFree;
};

// Buffers alternate: even ones carry from client to server, odd ones back.
constexpr unsigned chunkIndex(KEM_LONG_T slot, SHMEM_USERTYPE_T type, Direction direction)
{
    const bool toServer = (type == SHM_CLIENT) == (direction == kWriting);
    return 2 * static_cast<unsigned>(slot) + (toServer ? 0 : 1);
}
static_assert(chunkIndex(3, SHM_CLIENT, kWriting) == 6 && chunkIndex(3, SHM_SERVER, kReading) == 6);
static_assert(chunkIndex(3, SHM_CLIENT, kReading) == 7 && chunkIndex(3, SHM_SERVER, kWriting) == 7);

constexpr KEM_USHORT_T dataReadyOf(unsigned chunk) { return static_cast<KEM_USHORT_T>(2 * chunk + 1); }
static_assert(dataReadyOf(0) == 1 && dataReadyOf(1) == 3 && dataReadyOf(9) == 19);

Stream streamOf(KEM_PSDCTX_T ctx, OV_SHAREDMEM_SEG_T& segment, KEM_LONG_T slot, Direction direction)
{
    const unsigned index = chunkIndex(slot, segment.type, direction);
    const KEM_USHORT_T ready = dataReadyOf(index);
    return {ctx,
            segment,
            segment.chunkRec[direction][slot],
            loadRelaxed(segment.buffer) + index * SHMEM_CHUNK_SIZE,
            ready,
            static_cast<KEM_USHORT_T>(ready + 1)};
}

// ---- Writing

// Waits for the buffer unless this side holds it already, with bytes gathered.
KEM_STS_T holdBuffer(const Stream& stream)
{
    if (stream.record.hdr.size != 0) return 0;
    const KEM_STS_T sts = request(stream.ctx, stream.segment, stream.bufferFree);
    if (sts == 0) stream.record.offset = kHeaderBytes;
    return sts;
}

uint32_t room(const Stream& stream) { return SHMEM_CHUNK_SIZE - stream.record.offset; }

void gather(const Stream& stream, const char* bytes, uint32_t count)
{
    memcpy(stream.chunk + stream.record.offset, bytes, count);
    stream.record.hdr.size += count;
    stream.record.offset = static_cast<uint16_t>(stream.record.offset + count);
}

KEM_STS_T send(const Stream& stream, uint32_t code)
{
    const SHMEM_HEADER_T header{code, stream.record.hdr.size};
    storeRelaxed(*reinterpret_cast<uint64_t*>(stream.chunk), std::bit_cast<uint64_t>(header));
    const KEM_STS_T sts = post(stream.ctx, stream.segment, stream.dataReady);
    if (sts == 0)
        stream.record = {};
    else
        stream.record.hdr.code = kFailed;
    return sts;
}

KEM_STS_T write(const Stream& stream, const char* bytes, uint32_t left, bool flush, bool split)
{
    while (left != 0) {
        if (const KEM_STS_T sts = holdBuffer(stream); sts != 0) return sts;
        if (left <= room(stream) || split) {
            const uint32_t count = std::min(left, room(stream));
            gather(stream, bytes, count);
            bytes += count;
            left -= count;
            if (!flush && room(stream) != 0) return 0;
        } else {
            flush = true; // what was gathered goes first, and the piece at once behind it
        }
        if (const KEM_STS_T sts = send(stream, 0); sts != 0) return sts;
    }
    return 0;
}

KEM_STS_T writeCode(const Stream& stream, uint32_t code)
{
    // Before the wait: a code that cannot be sent is lost, and so the direction has failed for good.
    stream.record.hdr.code = code;
    const KEM_STS_T sts = holdBuffer(stream);
    return sts != 0 ? sts : send(stream, code);
}

// ---- Reading

// The only look at the header of a message: what is done with it is done with this copy.
SHMEM_HEADER_T fetchHeader(const char* chunk)
{
    auto header = std::bit_cast<SHMEM_HEADER_T>(loadRelaxed(*reinterpret_cast<const uint64_t*>(chunk)));
    header.size = std::min(header.size, kPayloadBytes);
    return header;
}

KEM_STS_T receive(const Stream& stream)
{
    const KEM_STS_T sts = request(stream.ctx, stream.segment, stream.dataReady);
    if (sts == 0) stream.record = {fetchHeader(stream.chunk), kHeaderBytes};
    return sts;
}

KEM_STS_T giveBack(const Stream& stream) { return post(stream.ctx, stream.segment, stream.bufferFree); }

void deliver(KEM_PULONG_T place, uint32_t code)
{
    if (place) *place = code;
}

// Ends a message that carries a code; whatever data came with it goes unread.
KEM_STS_T takeCode(const Stream& stream, KEM_PULONG_T code)
{
    deliver(code, stream.record.hdr.code);
    stream.record = {};
    return giveBack(stream);
}

// Copies the string at the present position with its NUL, or all that was sent when it has none; returns its length.
uint32_t copyString(const Stream& stream, char* to)
{
    const char* const from = stream.chunk + stream.record.offset;
    const uint32_t most = std::min(stream.record.hdr.size, room(stream));
    // Bounded once more: a scan over bytes that change under it may say anything.
    const auto length = static_cast<uint32_t>(std::min<size_t>(strnlen(from, most), most));
    const bool terminated = length < most || most == 0;
    const uint32_t count = length + (terminated ? 1 : 0);
    memcpy(to, from, count);
    // The other process may have changed the terminator since, and an empty message has none.
    if (terminated) to[length] = 0;
    return count;
}

// Deliberate: bounded by the buffer, not by what was sent; the reader is to ask for what the writer wrote.
uint32_t copyBytes(const Stream& stream, char* to, uint32_t wanted)
{
    const uint32_t count = std::min(wanted, room(stream));
    memcpy(to, stream.chunk + stream.record.offset, count);
    return count;
}

// Goes on behind the bytes taken; the last ones give the buffer back.
KEM_STS_T advance(const Stream& stream, uint32_t count, KEM_PULONG_T code)
{
    SHMEM_CHUNK_REC_T& record = stream.record;
    record.offset = static_cast<uint16_t>(record.offset + count);
    record.hdr.size -= std::min(record.hdr.size, count);
    if (record.hdr.size != 0 || giveBack(stream) == 0) return 0;
    record.hdr.code = kFailed;
    deliver(code, kFailed);
    return kTransferFailed;
}

KEM_STS_T read(const Stream& stream, char* to, uint32_t wanted, bool string, KEM_PULONG_T code)
{
    while (string || wanted != 0) {
        if (stream.record.hdr.size == 0) {
            if (const KEM_STS_T sts = receive(stream); sts != 0) return sts;
            if (stream.record.hdr.code != 0) {
                takeCode(stream, code); // Deliberate: a buffer that could not be given back is not reported here.
                return 0;
            }
            deliver(code, 0);
        }
        const uint32_t count = string ? copyString(stream, to) : copyBytes(stream, to, wanted);
        const KEM_STS_T sts = advance(stream, count, code);
        if (sts != 0 || string) return sts;
        to += count;
        wanted -= count;
    }
    return 0;
}

KEM_STS_T readCode(const Stream& stream, KEM_PULONG_T code)
{
    if (stream.record.hdr.size != 0) {
        // A message not taken to its end is dropped: while this side keeps its buffer, no code can come.
        stream.record = {};
        if (const KEM_STS_T sts = giveBack(stream); sts != 0) return sts;
    }
    const KEM_STS_T sts = receive(stream);
    return sts != 0 ? sts : takeCode(stream, code);
}

} // namespace

KEM_STS_T KemWriteSharedMemChunk(KEM_PSDCTX_T pSdCtx, OV_SHAREDMEM_SEG_T* pShMem, KEM_LONG_T ChunkId, KEM_ULONG_T size,
                                 KEM_BOOL_T flush, KEM_BOOL_T bSplit, const char* buffer)
{
    if (!hasSlot(pShMem, ChunkId) || !isAttached(*pShMem) || !buffer) return SDSTS_INVALID_PARAM;
    if (size > kPayloadBytes && !bSplit) return SDSTS_INVALID_PARAM; // fits in no message
    const Stream stream = streamOf(pSdCtx, *pShMem, ChunkId, kWriting);
    if (stream.record.hdr.code != 0) return kFailedEarlier;
    return write(stream, buffer, size, flush, bSplit);
}

KEM_STS_T KemWriteSharedMemChunkCode(KEM_PSDCTX_T pSdCtx, OV_SHAREDMEM_SEG_T* pShMem, KEM_LONG_T ChunkId,
                                     KEM_ULONG_T code)
{
    if (!hasSlot(pShMem, ChunkId) || !isAttached(*pShMem)) return SDSTS_INVALID_PARAM;
    const Stream stream = streamOf(pSdCtx, *pShMem, ChunkId, kWriting);
    if (stream.record.hdr.code != 0) return kFailedEarlier;
    return writeCode(stream, code);
}

KEM_STS_T KemReadSharedMemChunk(KEM_PSDCTX_T pSdCtx, OV_SHAREDMEM_SEG_T* pShMem, KEM_LONG_T ChunkId, KEM_ULONG_T size,
                                KEM_BOOL_T lookForTerminator, KEM_PULONG_T pCode, char* buffer)
{
    if (!hasSlot(pShMem, ChunkId) || !isAttached(*pShMem) || !buffer) return SDSTS_INVALID_PARAM;
    const Stream stream = streamOf(pSdCtx, *pShMem, ChunkId, kReading);
    if (stream.record.hdr.code != 0) return kFailedEarlier;
    return read(stream, buffer, size, lookForTerminator, pCode);
}

KEM_STS_T KemReadSharedMemChunkCode(KEM_PSDCTX_T pSdCtx, OV_SHAREDMEM_SEG_T* pShMem, KEM_LONG_T ChunkId,
                                    KEM_PULONG_T pCode)
{
    if (!hasSlot(pShMem, ChunkId) || !isAttached(*pShMem)) return SDSTS_INVALID_PARAM;
    const Stream stream = streamOf(pSdCtx, *pShMem, ChunkId, kReading);
    if (stream.record.hdr.code != 0) return SDSTS_SHMEM_READ_BUSY;
    return readCode(stream, pCode);
}
