// Semaphore sets shared between processes: System V sets, found by the key of a path. The kernel does all the
// serialising; a descriptor is written by its maker alone, so requests and clears of any threads may share one. No
// locks, no state. Nothing is ever undone for a process that dies holding a member.

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/time.h>

#include <kemsd/memory.h>
#include <kemsd/sync.h>

#include "sd/base/ipcflags.h"
#include "sd/base/outcome.h"

namespace {

using sd::fail;
using sd::failErrno;
using sd::finish;
using sd::ok;
using sd::Outcome;

// The last argument of semctl, which the C library leaves to its users to declare.
union semun {
    int val;
    semid_ds* buf;
    unsigned short* array;
};

constexpr const char* kSource = "sd/sdsemlnx";
constexpr int kKeyId = 'x';
constexpr short kTake = -1;
constexpr short kGiveBack = 1;

// Deliberate: unlike those of shared memory these permissions are the owner's alone, and bit 2 gives less than bit 4.
// A set made with bit 2, or with none, can be used by root only.
constexpr KEM_BIT32_T systemFlags(KEM_BIT32_T flags)
{
    KEM_BIT32_T permissions = 0;
    if (flags & sd::kIpcBit2)
        permissions = 0100;
    else if (!(flags & sd::kIpcBit1) && flags & sd::kIpcBit4)
        permissions = 0200;
    return permissions | sd::systemMakeFlags(flags);
}
static_assert(systemFlags(2 | 8) == 01100 && systemFlags(4 | 8 | 16) == 03200 && systemFlags(1 | 4) == 0);

// ---- Making and opening

// The clean-up calls leave the context alone, because it is to keep the failure.
void release(void* block) { KemSdMemFree(nullptr, block, kSource, __LINE__); }

// A set that exists already may have more members than the caller means. Setting all values would then read on behind
// them, so it is refused like one that has fewer. Asking by permissions would need the right to read, which our own
// sets do not grant.
bool hasMoreMembers(key_t key, int members, int id) { return semget(key, members + 1, 0) == id; }

Outcome obtain(key_t key, KEM_USHORT_T size, KEM_BIT32_T flags, int& id)
{
    const int members = flags & sd::kIpcMake ? size : 0;
    id = semget(key, members, static_cast<int>(systemFlags(flags)));
    if (id == -1) return failErrno(SDSTS_IPC_CREATE);
    const bool mayBeOlder = members != 0 && !(flags & sd::kIpcFailIfExists);
    if (mayBeOlder && hasMoreMembers(key, members, id)) return fail(SDSTS_IPC_CREATE, EINVAL);
    return ok();
}

Outcome setValues(int id, KEM_USHORT_T size, const KEM_ULONG_T* initial)
{
    void* block = nullptr;
    const KEM_STS_T sts = KemSdMemAlloc(nullptr, nullptr, size * sizeof(unsigned short), &block, kSource, __LINE__);
    if (sts != 0) return fail(sts);
    const auto values = static_cast<unsigned short*>(block);
    // Deliberate: each value is cut to 16 bits.
    for (unsigned i = 0; i < size; ++i) values[i] = static_cast<unsigned short>(initial[i]);
    semun argument;
    argument.array = values;
    const int result = semctl(id, 0, SETALL, argument);
    release(block);
    return result == -1 ? fail(SDSTS_CNTSEM_CREATE, result) : ok();
}

// The descriptor of a set that could not be obtained or filled goes.
Outcome open(key_t key, KEM_USHORT_T size, KEM_BIT32_T flags, const KEM_ULONG_T* initial, KEM_SHSEMSET_T*& set)
{
    const Outcome obtained = obtain(key, size, flags, set->id);
    if (obtained.failed()) {
        release(set);
        set = nullptr;
        return obtained;
    }
    if (!(flags & sd::kIpcMake)) return ok();
    const Outcome filled = setValues(set->id, size, initial);
    if (!filled.failed()) {
        set->nsems = size;
        return ok();
    }
    semctl(set->id, 0, IPC_RMID);
    release(set);
    // Deliberate: when it was the system that refused the values, the caller keeps the pointer to what is gone.
    if (filled.sts != SDSTS_CNTSEM_CREATE) set = nullptr;
    return filled;
}

// ---- Requests and clears

int operate(int id, KEM_USHORT_T index, short by, short flags = 0)
{
    sembuf operation{index, by, flags};
    return semop(id, &operation, 1);
}

// Indices of a set that was only opened are left to the kernel.
bool hasMember(const KEM_SHSEMSET_T* set, KEM_USHORT_T index) { return set && (set->nsems == 0 || index < set->nsems); }

// Deliberate: it does not give up. Who had to try again obtains the member and is told that time ran out.
Outcome takeSpinning(int id, KEM_USHORT_T index)
{
    bool wasBusy = false;
    while (operate(id, index, kTake, IPC_NOWAIT) == -1) {
        if (errno == EAGAIN)
            wasBusy = true;
        else if (errno != EINTR)
            return failErrno(SDSTS_CNTSEM_REQUEST);
    }
    return wasBusy ? fail(SDSTS_CNTSEM_TIMEOUT, EAGAIN) : ok();
}

Outcome takeWaiting(int id, KEM_USHORT_T index)
{
    while (operate(id, index, kTake) == -1)
        if (errno != EINTR) return failErrno(SDSTS_CNTSEM_REQUEST);
    return ok();
}

constexpr long kNanosecondsPerSecond = 1000000000;

constexpr timespec timeOfDayAfter(timeval now, KEM_LONG_T milliseconds)
{
    const long nanoseconds = (milliseconds % 1000 * 1000L + now.tv_usec) * 1000;
    return {now.tv_sec + milliseconds / 1000 + nanoseconds / kNanosecondsPerSecond,
            nanoseconds % kNanosecondsPerSecond};
}
static_assert(timeOfDayAfter({100, 999999}, 1999).tv_sec == 102);
static_assert(timeOfDayAfter({100, 999999}, 1999).tv_nsec == 998999000);
static_assert(timeOfDayAfter({100, 1000}, 999).tv_sec == 101 && timeOfDayAfter({100, 1000}, 999).tv_nsec == 0);

Outcome takeWithin(int id, KEM_USHORT_T index, KEM_LONG_T milliseconds)
{
    timeval now{};
    gettimeofday(&now, nullptr);
    // Deliberate: a time of day where the system takes an interval. It is decades long, so the wait has no limit.
    const timespec limit = timeOfDayAfter(now, milliseconds);
    sembuf operation{index, kTake, 0};
    while (semtimedop(id, &operation, 1, &limit) == -1)
        if (errno != EINTR) return failErrno(errno == EAGAIN ? SDSTS_CNTSEM_TIMEOUT : SDSTS_CNTSEM_REQUEST);
    return ok();
}

Outcome take(int id, KEM_USHORT_T index, KEM_LONG_T milliseconds)
{
    if (milliseconds == -1) return takeWaiting(id, index);
    return milliseconds > 0 ? takeWithin(id, index, milliseconds) : takeSpinning(id, index);
}

} // namespace

KEM_FUNC_M KemSdShSemSetCreate(KEM_PSDCTX_T pSdCtx, const char* pszSemName, KEM_USHORT_T size, KEM_BIT32_T bt32Flag,
                               KEM_PULONG_T pulInitialCount, KEM_PULONG_T, KEM_SHSEMSET_T** ppShSemSet)
{
    const bool empty = size == 0 && bt32Flag & sd::kIpcMake;
    if (!pszSemName || pszSemName[0] == 0 || !pulInitialCount || !ppShSemSet || empty)
        return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    KEM_IPCKEY_T key;
    const KEM_STS_T converted = KemSdSharedSemNameConvert(pszSemName, kKeyId, &key);
    if (converted != 0) return finish(pSdCtx, failErrno(converted));
    void* block = nullptr;
    const KEM_STS_T allocated = KemSdMemAlloc(pSdCtx, nullptr, sizeof(KEM_SHSEMSET_T), &block, kSource, __LINE__);
    *ppShSemSet = static_cast<KEM_SHSEMSET_T*>(block);
    if (allocated != 0) return allocated;
    **ppShSemSet = {0, -1};
    return finish(pSdCtx, open(key, size, bt32Flag, pulInitialCount, *ppShSemSet));
}

KEM_FUNC_M KemSdShSemSetRequest(KEM_PSDCTX_T pSdCtx, KEM_USHORT_T index, KEM_SHSEMSET_T* pShSemSet, KEM_LONG_T lTimeout)
{
    if (!hasMember(pShSemSet, index)) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    return finish(pSdCtx, take(pShSemSet->id, index, lTimeout));
}

KEM_FUNC_M KemSdShSemSetClear(KEM_PSDCTX_T pSdCtx, KEM_USHORT_T index, KEM_SHSEMSET_T* pShSemSet)
{
    if (!hasMember(pShSemSet, index)) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    const int result = operate(pShSemSet->id, index, kGiveBack);
    return finish(pSdCtx, result == -1 ? fail(SDSTS_CNTSEM_CLEAR, result) : ok());
}

KEM_FUNC_M KemSdShSemSetClose(KEM_PSDCTX_T pSdCtx, KEM_SHSEMSET_T* pShSemSet)
{
    if (!pShSemSet) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    const bool madeHere = pShSemSet->nsems != 0;
    const bool removed = !madeHere || semctl(pShSemSet->id, 0, IPC_RMID) != -1;
    const Outcome outcome = removed ? ok() : failErrno(SDSTS_CNTSEM_CLOSE);
    release(pShSemSet);
    return finish(pSdCtx, outcome);
}

KEM_STS_T KemSdSharedSemNameConvert(const char* pszName, KEM_INT_T ipcid, KEM_IPCKEY_T* pIpcKey)
{
    if (!pszName || !pIpcKey) return SDSTS_INVALID_PARAM;
    *pIpcKey = ftok(pszName, ipcid);
    return *pIpcKey == -1 ? SDSTS_IPC_KEY : 0;
}

void KemSdSharedSemFlagMap(KEM_BIT32_T bt32Flag, KEM_PBIT32_T pbt32FlagOS)
{
    if (pbt32FlagOS) *pbt32FlagOS |= systemFlags(bt32Flag);
}
