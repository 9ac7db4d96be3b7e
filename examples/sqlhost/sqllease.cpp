// The write leases of SQLite's transactions. kemsd counts one lease a thread; a transaction over several files, and a
// single write inside it, share the one that the thread already holds.
#include <kemsd/file.h>

#include <atomic>

#include "sqlvfs.h"

namespace sqlhost {
namespace {

thread_local int uses = 0; // files and operations of this thread that want the lease
thread_local LeaseMode mode = LeaseMode::usual;
std::atomic<bool> keptBack{false};

} // namespace

int takeLease(const char* path)
{
    if (mode != LeaseMode::usual) {
        threadContext()->osRetCode = 0;
        return trouble(SQLITE_IOERR_LOCK, "this client has paused writing to", path);
    }
    if (uses == 0 && KemSdGetWriteIOLease(&ThreadContext::current()) != 0)
        return trouble(SQLITE_IOERR_LOCK, "no write lease for", path);
    ++uses;
    return SQLITE_OK;
}

void giveLease()
{
    if (--uses == 0) KemSdReleaseWriteIOLease(&ThreadContext::current());
}

bool holdsLease() { return uses > 0; }

LeaseMode leaseMode() { return mode; }

void setLeaseMode(LeaseMode next) { mode = next; }

void keepWritersBack(bool back) { keptBack.store(back, std::memory_order_relaxed); }

bool writersAreKeptBack() { return keptBack.load(std::memory_order_relaxed); }

} // namespace sqlhost
