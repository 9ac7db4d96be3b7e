#include "serve/writepause.h"

#include <kemsd/file.h>
#include <kemsd/status.h>

#include <mutex>

#include "sqlvfs.h"

namespace sqlhost {
namespace {

constexpr char kRead[] = "SELECT count(*) FROM sqlite_schema";

Failure refusal(KEM_STS_T status)
{
    if (status == SDSTS_WRITEIO_PAUSED) return Failure("writing is paused already, for another backup");
    if (status == -1) return Failure("the server is ending");
    return Failure(text("writing cannot be paused (status %d)", status));
}

} // namespace

// A flag that is down under the lock while nobody makes a pause tells that the last one has ended, whoever ended it.
void WritePause::begin(const PauseHold& hold, int64_t clientPid, uint32_t seconds)
{
    {
        const std::lock_guard locked(lock_);
        if (making_ || raised()) throw refusal(SDSTS_WRITEIO_PAUSED);
        making_ = true;
        holder_ = nullptr;
        reader_.reset();
        asked_ = Clock::now();
    }
    try {
        make(seconds);
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
    made_ = Clock::now();
}

// Nobody else uses the reader while a pause is being made.
void WritePause::make(uint32_t seconds)
{
    const KEM_STS_T status = KemSdPauseWriteIO(&ThreadContext::current(), static_cast<KEM_TIME_T>(seconds));
    if (status != 0) throw refusal(status);
    try {
        reader_.emplace(path_, DatabaseMode::existing);
        reader_->run(std::string("BEGIN; ") + kRead);
    } catch (...) {
        reader_.reset();
        lower();
        throw;
    }
}

void WritePause::lower() { KemSdUnpauseWriteIO(&ThreadContext::current()); }

std::optional<std::chrono::microseconds> WritePause::end(const PauseHold& hold)
{
    const std::lock_guard locked(lock_);
    if (holder_ != &hold) return std::nullopt;
    holder_ = nullptr;
    reader_.reset();
    if (!raised()) return std::nullopt;
    lower();
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - asked_);
}

void WritePause::look()
{
    const std::lock_guard locked(lock_);
    if (!holder_ || !reader_) return;
    const bool overdue = Clock::now() >= made_ + std::chrono::seconds(seconds_);
    if (raised() && !overdue) return;
    reader_.reset();
    if (raised()) lower();
}

std::optional<WritePause::Shown> WritePause::shown()
{
    const std::lock_guard locked(lock_);
    if (!holder_ || !raised()) return std::nullopt;
    const auto since = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - asked_);
    return Shown{clientPid_, since, std::chrono::seconds(seconds_)};
}

// ---- Holds -------------------------------------------------------------------------------------------------------

PauseHold::~PauseHold()
{
    if (!begun_) return;
    pause_.end(*this);
    refuseLeases(false);
}

// A read first undoes what a dead process has left half done, which during the pause nobody could. This thread would
// wait for itself if it wrote.
void PauseHold::begin(Database& database, int64_t clientPid, uint32_t seconds)
{
    if (begun_) throw Failure("this client has paused writing already");
    database.run(kRead);
    refuseLeases(true);
    try {
        pause_.begin(*this, clientPid, seconds);
    } catch (...) {
        refuseLeases(false);
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
    refuseLeases(false);
    if (!stood)
        throw Failure(text("the pause was ended before, at its limit of %s or with the server",
                           countedText(seconds_, "second").c_str()));
    return *stood;
}

} // namespace sqlhost
