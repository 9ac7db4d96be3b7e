// What was received is only ever as much as the library says that a message still holds, so nothing is taken for data
// that the other end did not send, however it frames its bytes.
#include "wire/channel.h"

#include <algorithm>
#include <cstring>

namespace sqlhost {
namespace {

// The slot's two directions, by which end talks.
size_t bufferOf(KEM_LONG_T slot, SHMEM_USERTYPE_T from)
{
    return static_cast<size_t>(2 * slot + (from == SHM_CLIENT ? 0 : 1)) * SHMEM_CHUNK_SIZE;
}

SHMEM_USERTYPE_T otherEnd(SHMEM_USERTYPE_T end) { return end == SHM_CLIENT ? SHM_SERVER : SHM_CLIENT; }

} // namespace

Channel::Channel(OV_SHAREDMEM_SEG_T* segment, KEM_LONG_T slot) : segment_(segment), slot_(slot)
{
    segment_->chunkRec[0][slot_] = {};
    segment_->chunkRec[1][slot_] = {};
}

void Channel::requireTalk() const
{
    if (givenUp()) throw PeerGone();
}

// Message by message, so that a waiting thread that has been woken to give up writes into one buffer at most.
void Channel::send(KEM_PSDCTX_T context, std::string_view bytes, bool flush)
{
    while (!bytes.empty()) {
        requireTalk();
        const size_t room = kMessageBytes - segment_->chunkRec[1][slot_].hdr.size;
        const std::string_view piece = bytes.substr(0, room);
        bytes.remove_prefix(piece.size());
        const bool last = bytes.empty();
        if (KemWriteSharedMemChunk(context, segment_, slot_, static_cast<KEM_ULONG_T>(piece.size()), last && flush,
                                   TRUE, piece.data()) != 0)
            throw PeerGone();
    }
}

void Channel::sendCode(KEM_PSDCTX_T context, uint32_t code)
{
    requireTalk();
    if (KemWriteSharedMemChunkCode(context, segment_, slot_, code) != 0) throw PeerGone();
}

// The first byte brings the message; its record then tells how many there are.
Channel::Message Channel::receive(KEM_PSDCTX_T context)
{
    requireTalk();
    KEM_ULONG_T code = 0;
    if (KemReadSharedMemChunk(context, segment_, slot_, 1, FALSE, &code, message_) != 0) throw PeerGone();
    requireTalk();
    if (code != 0) return {code, {}};
    const uint32_t rest = std::min<uint32_t>(segment_->chunkRec[0][slot_].hdr.size, kMessageBytes - 1);
    if (rest > 0 && KemReadSharedMemChunk(context, segment_, slot_, rest, FALSE, &code, message_ + 1) != 0)
        throw PeerGone();
    return {0, {message_, 1 + size_t{rest}}};
}

uint16_t Channel::dataReady(SHMEM_USERTYPE_T from) const
{
    return static_cast<uint16_t>(4 * slot_ + (from == SHM_CLIENT ? 1 : 3));
}

// The other end writes nothing any more, or nothing that counts: its buffer is ours to leave a message in. The two
// posts stay, so that a thread that is only about to wait does not wait either.
void Channel::giveUp(KEM_PSDCTX_T context)
{
    over_.store(true, std::memory_order_release);
    const SHMEM_USERTYPE_T here = segment_->type, there = otherEnd(here);
    const SHMEM_HEADER_T wakeUp = {kCodeWakeUp, 0};
    uint64_t word;
    memcpy(&word, &wakeUp, sizeof word);
    __atomic_store_n(reinterpret_cast<uint64_t*>(segment_->buffer + bufferOf(slot_, there)), word, __ATOMIC_RELAXED);
    KemSdShSemSetClear(context, dataReady(there), segment_->pShSemSet);
    KemSdShSemSetClear(context, static_cast<uint16_t>(dataReady(here) + 1), segment_->pShSemSet);
}

} // namespace sqlhost
