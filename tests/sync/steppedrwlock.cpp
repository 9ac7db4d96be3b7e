// The lock's sources once more, under names of their own, the builtins that make its steps replaced by ones that ask
// first. The short way of writers is one instruction and stays as it is.

#include "sync/steppedrwlock.h"

#include <kemsd/memory.h>
#include <kemsd/sync.h>
#include <sched.h>

#include <cassert>
#include <cstring>
#include <type_traits>

namespace kemsd::test {
namespace {

BeforeStep beforeStep = nullptr;
bool shortWays = true;

bool shortWaysTaken() { return __atomic_load_n(&shortWays, __ATOMIC_RELAXED); }

// The word is handed through, so that it is named once.
template <class Word>
Word* asked(Step step, Word* at)
{
    if (const BeforeStep hook = __atomic_load_n(&beforeStep, __ATOMIC_ACQUIRE)) hook(step, at);
    return at;
}

} // namespace

void takeShortWays(bool taken) { __atomic_store_n(&shortWays, taken, __ATOMIC_RELAXED); }

void setBeforeStep(BeforeStep hook) { __atomic_store_n(&beforeStep, hook, __ATOMIC_RELEASE); }

} // namespace kemsd::test

#define sd stepped
#define KemRWLockInit stepped_init
#define KemSdStartRead stepped_startRead
#define KemSdStartWrite stepped_startWrite
#define KemSdEndRW stepped_end
#define KemSdModeRW stepped_mode
#define KemSdOwnerRW stepped_owner
#define KemRWLockQNodeDestroy stepped_destroyNode
#define KemRWLockFreeQNodes stepped_freeNodes

extern "C" {
static KEM_STS_T KemRWLockInit(KEM_PSDCTX_T, OV_UINT_T, KEM_RWLOCK_T*, OV_BOOL_T, KEM_RWLOCK_CAT);
static KEM_STS_T KemSdStartRead(void*, KEM_SYNCCTX_T*, void*);
static KEM_STS_T KemSdStartWrite(void*, KEM_SYNCCTX_T*, void*);
static KEM_STS_T KemSdEndRW(void*, KEM_SYNCCTX_T*, void*);
[[maybe_unused]] static KEM_USHORT_T KemSdModeRW(void*, KEM_SYNCCTX_T*, void*);
[[maybe_unused]] static KEM_BOOL_T KemSdOwnerRW(void*, KEM_SYNCCTX_T*, void*);
static KEM_STS_T KemRWLockQNodeDestroy(void*, KEM_RWLOCKQNODE_T*);
static KEM_STS_T KemRWLockFreeQNodes(KEM_SYNCCTX_T*);
}

#define __atomic_load_n(at, ...) __atomic_load_n(kemsd::test::asked(kemsd::test::Step::load, at), __VA_ARGS__)
#define __atomic_store_n(at, ...) __atomic_store_n(kemsd::test::asked(kemsd::test::Step::store, at), __VA_ARGS__)
#define __atomic_exchange_n(at, ...) \
    __atomic_exchange_n(kemsd::test::asked(kemsd::test::Step::exchange, at), __VA_ARGS__)
#define __atomic_compare_exchange_n(at, ...) \
    __atomic_compare_exchange_n(kemsd::test::asked(kemsd::test::Step::swap, at), __VA_ARGS__)
#define __atomic_fetch_add(at, ...) __atomic_fetch_add(kemsd::test::asked(kemsd::test::Step::add, at), __VA_ARGS__)

#include "sd/sdrwlock/protocol.h"
#define enterReadAtOnce(lock, node) (kemsd::test::shortWaysTaken() && enterReadAtOnce(lock, node))
#define enterWriteAtOnce(lock, node) (kemsd::test::shortWaysTaken() && enterWriteAtOnce(lock, node))
#define leaveWriteAtOnce(lock, node) (kemsd::test::shortWaysTaken() && leaveWriteAtOnce(lock, node))
#include "sd/sdrwlock/nodes.cpp"
#include "sd/sdrwlock/protocol.cpp"

namespace kemsd::test {

const LockCalls kSteppedCalls{KemSdStartRead, KemSdStartWrite, KemSdEndRW, KemRWLockFreeQNodes};

KEM_STS_T steppedInit(KEM_RWLOCK_T* lock, OV_BOOL_T toSleep)
{
    return KemRWLockInit(nullptr, 0, lock, toSleep, RWLOCK_HASHSET_EXPLOCK);
}

} // namespace kemsd::test
