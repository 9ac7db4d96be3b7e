// One slot of a segment, as one of its two ends uses it: a stream of bytes and codes in either direction.
#pragma once

#include <atomic>
#include <string>
#include <string_view>

#include "wire/protocol.h"

namespace sqlhost {

// The other end is gone, or the exchange with it is broken: nothing more can be said over this channel.
struct PeerGone {};

class Channel {
public:
    // The segment is attached and outlives the channel. The slot's records are made those of an idle slot.
    Channel(OV_SHAREDMEM_SEG_T* segment, KEM_LONG_T slot);
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    // ---- For the thread that talks. Each throws PeerGone, at the latest when the other end has been given up.

    // Adds bytes to the message being gathered, which goes when it is full; with `flush` at the end too.
    void send(KEM_PSDCTX_T context, std::string_view bytes, bool flush);
    // Sends a code. Nothing may be left unsent.
    void sendCode(KEM_PSDCTX_T context, uint32_t code);

    struct Message {
        uint32_t code;         // 0 for data
        std::string_view data; // valid until the next call
        bool full() const { return data.size() == kMessageBytes; }
    };
    // Waits for the next message and takes it whole.
    Message receive(KEM_PSDCTX_T context);

    // ---- For any thread.

    // Ends the conversation: the thread that talks wakes up, wherever it waits, and finds the other end gone.
    void giveUp(KEM_PSDCTX_T context);
    bool givenUp() const { return over_.load(std::memory_order_acquire); }

private:
    void requireTalk() const;
    uint16_t dataReady(SHMEM_USERTYPE_T from) const;

    OV_SHAREDMEM_SEG_T* segment_;
    KEM_LONG_T slot_;
    std::atomic<bool> over_{false};
    char message_[kMessageBytes];
};

} // namespace sqlhost
