#include "serve/writepause.h"

#include <kemsd/file.h>
#include <kemsd/status.h>

#include <mutex>

#include "serve/guard.h"
#include "sqlvfs.h"

namespace sqlhost {
namespace {

Failure refusal(KEM_STS_T status)
{
    if (status == SDSTS_WRITEIO_PAUSED) return Failure("writing is paused already, for another backup");
    if (status == -1) return Failure("the server is ending");
    return Failure(text("writing cannot be paused (status %d)", status));
}

class KeepWritersBack {
public:
    KeepWritersBack() { keepWritersBack(true); }
    ~KeepWritersBack() { keepWritersBack(false); }
    KeepWritersBack(const KeepWritersBack&) = delete;
    KeepWritersBack& operator=(const KeepWritersBack&) = delete;
};

} // namespace

// A flag that is down under the lock while nobody makes a pause tells that the last one has ended, whoever ended it.
void WritePause::begin(const PauseHold& hold, const Channel& channel, int64_t clientPid, uint32_t seconds)
{
    {
        const std::lock_guard locked(lock_);
        if (making_ || raised()) throw refusal(SDSTS_WRITEIO_PAUSED);
        making_ = true;
        holder_ = nullptr;
        writer_.reset();
    }
    try {
        make(channel, seconds);
    } catch (...) {
        const std::lock_guard locked(lock_);
        making_ = false;
        throw;
    }
    const std::lock_guard locked(lock_);
    making_ = false;
    holder_ = &hold;
    clientPid_ = clientPid;
    seconds_ = seconds;
}

// Nobody else uses the connection while a pause is being made. Once it may write, only leases that lead to nothing are
// out, and the pause does not wait for long.
void WritePause::make(const Channel& channel, uint32_t seconds)
try {
    const KeepWritersBack back;
    guard(writer_.emplace(path_, DatabaseMode::existing), channel);
    setLeaseMode(LeaseMode::reserving);
    writer_->run("BEGIN IMMEDIATE");
    setLeaseMode(LeaseMode::refused);
    stopped_ = Clock::now();
    const KEM_STS_T status = KemSdPauseWriteIO(&ThreadContext::current(), static_cast<KEM_TIME_T>(seconds));
    if (status != 0) throw refusal(status);
} catch (...) {
    writer_.reset();
    throw;
}

void WritePause::lower() { KemSdUnpauseWriteIO(&ThreadContext::current()); }

std::optional<std::chrono::microseconds> WritePause::end(const PauseHold& hold)
{
    const std::lock_guard locked(lock_);
    if (holder_ != &hold) return std::nullopt;
    holder_ = nullptr;
    writer_.reset();
    if (!raised()) return std::nullopt;
    lower();
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - stopped_);
}

void WritePause::look()
{
    const std::lock_guard locked(lock_);
    if (!holder_ || !writer_) return;
    const bool overdue = Clock::now() >= stopped_ + std::chrono::seconds(seconds_);
    if (raised() && !overdue) return;
    writer_.reset();
    if (raised()) lower();
}

std::optional<WritePause::Shown> WritePause::shown()
{
    const std::lock_guard locked(lock_);
    if (!holder_ || !raised()) return std::nullopt;
    const auto since = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - stopped_);
    return Shown{clientPid_, since, std::chrono::seconds(seconds_)};
}

// ---- Holds -------------------------------------------------------------------------------------------------------

PauseHold::~PauseHold()
{
    if (!begun_) return;
    pause_.end(*this);
    setLeaseMode(LeaseMode::usual);
}

// A read first undoes what a dead process has left half done, for which a lease is taken.
void PauseHold::begin(Database& database, const Channel& channel, int64_t clientPid, uint32_t seconds)
{
    if (begun_) throw Failure("this client has paused writing already");
    database.run("SELECT count(*) FROM sqlite_schema");
    try {
        pause_.begin(*this, channel, clientPid, seconds);
    } catch (...) {
        setLeaseMode(LeaseMode::usual);
        throw;
    }
    begun_ = true;
    seconds_ = seconds;
}

std::chrono::microseconds PauseHold::end()
{
    if (!begun_) throw Failure("this client has not paused writing");
    const auto stood = pause_.end(*this);
    begun_ = false;
    setLeaseMode(LeaseMode::usual);
    if (!stood)
        throw Failure(text("the pause was ended before, at its limit of %s or with the server",
                           countedText(seconds_, "second").c_str()));
    return *stood;
}

} // namespace sqlhost
