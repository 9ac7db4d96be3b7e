// The server's write pause: which client it belongs to, and whether it was in force all the time.
//
// A client that copies the database files asks for a pause. A connection of the pause's own first gets the right to
// write, as any writer does, but before those that have not begun: so no transaction is in progress, nor a journal left
// to be played back, and no other process can begin one. Then the write leases are withheld: writers wait at the
// barrier, without a limit to their patience, and readers read. The pause ends when its client says so or is gone, or
// at its limit: the first writer that finds it overdue ends it, or the server's first thread.
#pragma once

#include <chrono>
#include <optional>

#include "criticalsection.h"
#include "database.h"
#include "threadcontext.h"
#include "wire/channel.h"

namespace sqlhost {

class PauseHold;

class WritePause {
public:
    WritePause(OV_SVCTX_T& service, const std::string& database) : service_(service), path_(database) {}
    WritePause(const WritePause&) = delete;
    WritePause& operator=(const WritePause&) = delete;

    // For the first thread, again and again: ends a pause at its limit.
    void look();

    struct Shown {
        int64_t clientPid;
        std::chrono::seconds since, limit;
    };
    // The pause in force, if there is one. Any thread may ask.
    std::optional<Shown> shown();

private:
    friend class PauseHold;
    using Clock = std::chrono::steady_clock;

    void begin(const PauseHold& hold, const Channel& channel, int64_t clientPid, uint32_t seconds);
    std::optional<std::chrono::microseconds> end(const PauseHold& hold);
    void make(const Channel& channel, uint32_t seconds);
    bool raised() const { return __atomic_load_n(&service_.pauseinterface.bPauseWriteIO, __ATOMIC_ACQUIRE); }
    void lower();

    OV_SVCTX_T& service_;
    const std::string path_;
    CriticalSection lock_; // guards what follows; held for moments, never while a pause is being made
    bool making_ = false;
    const PauseHold* holder_ = nullptr; // of the last pause that was made, until it ends it
    int64_t clientPid_ = 0;
    uint32_t seconds_ = 0;
    Clock::time_point stopped_; // when the last writer had ended
    // While a pause is in force, and a moment longer: it may write, and does not.
    std::optional<Database> writer_;
};

// A client's hold on the pause. One thread uses it.
class PauseHold {
public:
    explicit PauseHold(WritePause& pause) : pause_(pause) {}
    // Ends the pause, if it is this client's.
    ~PauseHold();
    PauseHold(const PauseHold&) = delete;
    PauseHold& operator=(const PauseHold&) = delete;

    // Returns when nothing is being written any more. Throws Failure, also when there is a pause already.
    void begin(Database& database, const Channel& channel, int64_t clientPid, uint32_t seconds);
    // Ends the pause; how long writing stood still. Throws Failure when the pause had ended before.
    std::chrono::microseconds end();

private:
    WritePause& pause_;
    bool begun_ = false;
    uint32_t seconds_ = 0;
};

} // namespace sqlhost
