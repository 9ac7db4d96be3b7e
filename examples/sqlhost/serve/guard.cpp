#include "serve/guard.h"

#include <kemsd/os.h>

#include <algorithm>
#include <array>

#include "sqlvfs.h"

namespace sqlhost {
namespace {

constexpr int kStepsBetweenLooks = 1000; // of SQLite's machine
constexpr int kBusyMilliseconds = 10000; // for which a connection tries to get a lock
constexpr int kLongestPause = 10;

bool isOver(const void* channel) { return static_cast<const Channel*>(channel)->givenUp(); }

int interruptWhenOver(void* channel) { return isOver(channel); }

// The pauses between tries: 1, 2, 3 ... milliseconds, then ten at a time. Short ones, because the lock is held for
// about as long as a flush takes, and goes to whoever asks first.
int waitForLock(void* channel, int tries)
{
    constexpr int kGrowing = kLongestPause * (kLongestPause + 1) / 2;
    const int spent =
        tries < kLongestPause ? tries * (tries + 1) / 2 : kGrowing + (tries - kLongestPause) * kLongestPause;
    if (isOver(channel) || spent >= kBusyMilliseconds) return 0;
    KemSdSleep(threadContext(), static_cast<KEM_ULONG_T>(std::min(tries + 1, kLongestPause)));
    return 1;
}

bool isOneOf(const char* name, const auto& names)
{
    return name && std::any_of(names.begin(), names.end(),
                               [name](const char* other) { return sqlite3_stricmp(name, other) == 0; });
}

// Refused are settings that would keep a lock, or weaken the journal, beyond the request that makes them, and files
// other than the server's database: only a VACUUM attaches one, without a name.
int authorize(void*, int action, const char* first, const char* second, const char*, const char*)
{
    static constexpr std::array kFixed = {"busy_timeout", "journal_mode", "locking_mode", "temp_store_directory"};
    if (action == SQLITE_ATTACH) return first && !*first ? SQLITE_OK : SQLITE_DENY;
    if (action == SQLITE_PRAGMA && second && isOneOf(first, kFixed)) return SQLITE_DENY;
    return SQLITE_OK;
}

} // namespace

// Sorts and temporary tables stay in memory: a reader writes nothing, and so does not wait for the end of a pause.
void guard(Database& database, const Channel& channel)
{
    void* const over = const_cast<Channel*>(&channel);
    database.nameRivals("another client or process");
    database.run("PRAGMA temp_store=MEMORY");
    sqlite3_limit(database, SQLITE_LIMIT_LENGTH, kLongestValue);
    sqlite3_db_config(database, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_progress_handler(database, kStepsBetweenLooks, interruptWhenOver, over);
    sqlite3_busy_handler(database, waitForLock, over);
    sqlite3_set_authorizer(database, authorize, nullptr);
}

} // namespace sqlhost
