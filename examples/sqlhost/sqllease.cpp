// The write leases of SQLite's transactions. kemsd counts one lease a thread; a transaction over several files, and a
// single write inside it, share the one that the thread already holds.
#include <kemsd/file.h>

#include "sqlvfs.h"

namespace sqlhost {
namespace {

thread_local int uses = 0; // files and operations of this thread that want the lease
thread_local bool refused = false;

} // namespace

int takeLease(const char* path)
{
    if (refused) {
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

void refuseLeases(bool refuse) { refused = refuse; }

} // namespace sqlhost
