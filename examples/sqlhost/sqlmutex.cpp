// SQLite asks for plain and for recursive mutexes, and has a dozen of its own that live as long as the engine. kemsd's
// mutex is not recursive, so each here knows its owner and how deep the owner is in. Taking a free one costs a read,
// the thread's id and kemsd's call; going deeper costs no call of kemsd.
//
// The owner is read without the mutex: a thread finds its own id there only if it put it there itself.
#include "sqlmutex.h"

#include <kemsd/memory.h>
#include <kemsd/os.h>
#include <kemsd/sync.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <new>

struct sqlite3_mutex {
    KEM_MUTEXHDL_T mutex;
    std::atomic<KEM_THDID_T> owner; // 0 when free
    int depth;                      // the owner's
    bool recursive;
};

namespace sqlhost {
namespace {

constexpr int kFirstStatic = SQLITE_MUTEX_STATIC_MAIN;
constexpr KEM_LONG_T kWithoutLimit = -1;
constexpr KEM_LONG_T kNotWaiting = 0;

std::array<sqlite3_mutex, SQLITE_MUTEX_STATIC_VFS3 - kFirstStatic + 1> statics;

bool make(sqlite3_mutex& mutex, bool recursive)
{
    mutex.owner.store(0, std::memory_order_relaxed);
    mutex.depth = 0;
    mutex.recursive = recursive;
    return KemSdMutexCreate(nullptr, nullptr, &mutex.mutex) == 0;
}

int start()
{
    for (sqlite3_mutex& mutex : statics)
        if (!make(mutex, false)) return SQLITE_NOMEM;
    return SQLITE_OK;
}

int end()
{
    for (sqlite3_mutex& mutex : statics) KemSdMutexClose(nullptr, &mutex.mutex);
    return SQLITE_OK;
}

sqlite3_mutex* allocate(int type)
{
    if (type >= kFirstStatic) return &statics[static_cast<size_t>(type - kFirstStatic)];
    void* block = nullptr;
    if (ovMalloc(KemSdVupUtilTlsGet(), sizeof(sqlite3_mutex), &block, "sqlhost/mutex", __LINE__) != 0) return nullptr;
    sqlite3_mutex* const mutex = new (block) sqlite3_mutex;
    if (make(*mutex, type == SQLITE_MUTEX_RECURSIVE)) return mutex;
    ovFree(block, "sqlhost/mutex", __LINE__);
    return nullptr;
}

void release(sqlite3_mutex* mutex)
{
    KemSdMutexClose(nullptr, &mutex->mutex);
    ovFree(mutex, "sqlhost/mutex", __LINE__);
}

int isHeld(sqlite3_mutex* mutex) { return mutex->owner.load(std::memory_order_relaxed) == pthread_self(); }

int isNotHeld(sqlite3_mutex* mutex) { return !isHeld(mutex); }

bool goDeeper(sqlite3_mutex& mutex)
{
    if (!mutex.recursive || !isHeld(&mutex)) return false;
    ++mutex.depth;
    return true;
}

void own(sqlite3_mutex& mutex)
{
    mutex.owner.store(pthread_self(), std::memory_order_relaxed);
    mutex.depth = 1;
}

// SQLite has no word for a mutex that cannot be taken, and could not go on safely.
void enter(sqlite3_mutex* mutex)
{
    if (goDeeper(*mutex)) return;
    if (KemSdMutexRequest(nullptr, &mutex->mutex, kWithoutLimit) != 0) abort();
    own(*mutex);
}

int tryEnter(sqlite3_mutex* mutex)
{
    if (goDeeper(*mutex)) return SQLITE_OK;
    if (KemSdMutexRequest(nullptr, &mutex->mutex, kNotWaiting) != 0) return SQLITE_BUSY;
    own(*mutex);
    return SQLITE_OK;
}

void leave(sqlite3_mutex* mutex)
{
    if (--mutex->depth > 0) return;
    mutex->owner.store(0, std::memory_order_relaxed);
    if (KemSdMutexClear(nullptr, &mutex->mutex) != 0) abort();
}

} // namespace

const sqlite3_mutex_methods& kemsdMutexMethods()
{
    static constexpr sqlite3_mutex_methods kMethods = {start,    end,   allocate, release,  enter,
                                                       tryEnter, leave, isHeld,   isNotHeld};
    return kMethods;
}

} // namespace sqlhost
