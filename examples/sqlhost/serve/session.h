// A client's conversation with the server: a slot, and a thread of its own that answers what comes through it.
#pragma once

#include <kemsd/os.h>

#include <atomic>
#include <optional>

#include "database.h"
#include "serve/segments.h"
#include "threadcontext.h"
#include "wire/channel.h"
#include "wire/handshake.h"

namespace sqlhost {

struct Belongings;
class Service;

class Session {
public:
    Session(Service& service, const Slot& slot, const Hello& client);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Starts the thread. Throws Failure.
    void start();
    // The thread has done its last work, and may be joined.
    bool ended() const { return ended_.load(std::memory_order_acquire); }
    void join();

    Channel& channel() { return channel_; }
    const Slot& slot() const { return slot_; }
    int64_t clientPid() const { return client_.pid; }
    int64_t lockByte() const { return client_.lockByte; }
    // What it is doing, in a word, and how many requests it has read.
    const char* activity() const { return activity_.load(std::memory_order_relaxed); }
    uint64_t requests() const { return requests_.load(std::memory_order_relaxed); }

private:
    static void* threadBody(void* session);
    void work();
    void converse(OV_THDCTX_T& thread);
    Database& open(KEM_PSDCTX_T context, std::optional<Database>& database);
    bool answerNext(OV_THDCTX_T& thread, std::optional<Database>& database, Belongings& belongings);
    void refuseAll(const char* why);

    Service& service_;
    const Slot slot_;
    const Hello client_;
    Channel channel_;
    KEM_THDHDL_T thread_ = 0;
    std::atomic<bool> ended_{false};
    std::atomic<const char*> activity_{"starting"};
    std::atomic<uint64_t> requests_{0};
};

} // namespace sqlhost
