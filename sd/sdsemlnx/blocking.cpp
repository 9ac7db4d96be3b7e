// Mutexes, critical sections, events and counting semaphores, for threads of one process. Every object lies in the
// caller's memory and is a thin cover of the C library's own; nothing is kept here. The calls' vocabulary
// (request and clear, open by name) is that of systems with named kernel objects: names and maxima are ignored.
//
// An event's iReady is read and written only under the event's mutex, which is never held across anything but that
// word, the condition's calls and a look at the clock. A mutex or semaphore asked for with a time-out is tried once a
// second; nothing is held meanwhile.

#include <pthread.h>
#include <semaphore.h>
#include <sys/time.h>
#include <time.h>

#include <kemsd/os.h>
#include <kemsd/sync.h>
#include <cerrno>

#include "sd/base/outcome.h"

namespace {

using sd::fail;
using sd::failErrno;
using sd::finish;
using sd::finishInvalid;
using sd::finishResult;
using sd::ok;
using sd::Outcome;
using sd::restate;

constexpr KEM_LONG_T kNoLimit = -1;
constexpr KEM_LONG_T kNoWait = 0;
constexpr KEM_ULONG_T kAttemptMilliseconds = 1000;
constexpr int kSemaphoreAttempts = 5;

constexpr KEM_LONG_T kClear = 0; // iReady: waiters pass
constexpr KEM_LONG_T kSet = 1;   // waiters block

// ---- Mutexes

// Deliberate: the sum is divided before it is cut to 16 bits, so that some time-outs ask for no attempt at all and
// some negative ones for very many.
constexpr uint16_t attemptsWithin(KEM_LONG_T milliseconds)
{
    return static_cast<uint16_t>((int64_t{milliseconds} + 999) / 1000);
}
static_assert(attemptsWithin(1) == 1 && attemptsWithin(1000) == 1 && attemptsWithin(1001) == 2);
static_assert(attemptsWithin(-5) == 0 && attemptsWithin(-1998) == 0 && attemptsWithin(-1999) == 65535);
static_assert(attemptsWithin(65535000) == 65535 && attemptsWithin(65535001) == 0 && attemptsWithin(65536001) == 1);
static_assert(attemptsWithin(INT32_MAX) == 2147484 % 65536);

Outcome lockAtOnce(KEM_MUTEXHDL_T& mutex)
{
    const int result = pthread_mutex_trylock(&mutex);
    // Deliberate: only a held mutex is a failure; any other refusal passes for success, with its number.
    return result == EBUSY ? fail(SDSTS_MUTEX_BUSY, result) : ok(result);
}

Outcome lockInAttempts(KEM_PSDCTX_T ctx, KEM_MUTEXHDL_T& mutex, int attempts)
{
    if (attempts == 0) return ok(); // Deliberate: success without the mutex.
    for (int remaining = attempts - 1; remaining >= 0; --remaining) {
        const int result = pthread_mutex_trylock(&mutex);
        // Deliberate: a refusal other than EBUSY passes for success in the last attempt, with its number.
        if (result != EBUSY) return result != 0 && remaining != 0 ? fail(SDSTS_SEM_REQUEST, result) : ok(result);
        KemSdSleep(ctx, kAttemptMilliseconds); // Deliberate: after the last attempt too.
    }
    return fail(SDSTS_SEM_REQUEST, EBUSY);
}

// Here and below the ways that fail or take long stand apart: the straight way of a call is a few instructions around
// those of the C library.
[[gnu::noinline]] KEM_STS_T requestLimited(KEM_PSDCTX_T ctx, KEM_PMUTEXHDL_T phMutex, KEM_LONG_T milliseconds)
{
    if (!phMutex) return finishInvalid(ctx);
    if (milliseconds == kNoWait) return finish(ctx, lockAtOnce(*phMutex));
    return finish(ctx, lockInAttempts(ctx, *phMutex, attemptsWithin(milliseconds)));
}

// A critical section is a mutex with refusals of its own name; the error number stays that of the mutex.
KEM_STS_T renamed(KEM_PSDCTX_T ctx, KEM_STS_T sts, KEM_STS_T mutexFailure, KEM_STS_T critSecFailure)
{
    return sts == mutexFailure ? restate(ctx, critSecFailure) : sts;
}

// ---- Events: all of these give 0 or the number of the first call of the C library that failed

int setEvent(KEM_EVENTHDL_T& event)
{
    if (const int result = pthread_mutex_lock(&event.mutex)) return result;
    event.iReady = kSet;
    return pthread_mutex_unlock(&event.mutex);
}

[[gnu::noinline]] int unlockAfter(KEM_EVENTHDL_T& event, int result)
{
    const int unlocked = pthread_mutex_unlock(&event.mutex);
    return result != 0 ? result : unlocked;
}

// Lets waiters pass; `wake` decides how many of those already asleep are told.
int clearEvent(KEM_EVENTHDL_T& event, int (*wake)(pthread_cond_t*))
{
    if (const int result = pthread_mutex_lock(&event.mutex)) return result;
    event.iReady = kClear;
    if (const int result = wake(&event.cond)) return unlockAfter(event, result);
    return pthread_mutex_unlock(&event.mutex);
}

constexpr timespec fineDeadline(timeval now, KEM_LONG_T milliseconds)
{
    timespec deadline{now.tv_sec + milliseconds / 1000, (milliseconds % 1000 * 1000L + now.tv_usec) * 1000};
    if (deadline.tv_nsec > 999999999) {
        ++deadline.tv_sec;
        deadline.tv_nsec -= 1000000000;
    } else if (deadline.tv_nsec < 0) {
        --deadline.tv_sec;
        deadline.tv_nsec += 1000000000;
    }
    return deadline;
}
static_assert(fineDeadline({10, 999999}, 1).tv_sec == 11 && fineDeadline({10, 999999}, 1).tv_nsec == 999000);
static_assert(fineDeadline({10, 0}, -1999).tv_sec == 8 && fineDeadline({10, 0}, -1999).tv_nsec == 1000000);

timespec fineDeadlineIn(KEM_LONG_T milliseconds)
{
    timeval now{};
    gettimeofday(&now, nullptr);
    return fineDeadline(now, milliseconds);
}

// Deliberate: whole seconds and one more, so that the wait ends up to a second later than the time-out's whole seconds.
timespec coarseDeadlineIn(KEM_LONG_T milliseconds) { return {time(nullptr) + milliseconds / 1000 + 1, 0}; }

// All sleeping begins and ends with the event's mutex held.

int sleepWhileSet(KEM_EVENTHDL_T& event)
{
    int failure = 0;
    while (event.iReady == kSet && failure == 0) failure = pthread_cond_wait(&event.cond, &event.mutex);
    return failure;
}

int sleepUntil(KEM_EVENTHDL_T& event, timespec deadline)
{
    int failure = 0;
    // Deliberate: only the end of the time ends the wait. Any other refusal is tried again, but remembered.
    while (event.iReady == kSet && failure != ETIMEDOUT)
        if (const int result = pthread_cond_timedwait(&event.cond, &event.mutex, &deadline)) failure = result;
    return failure;
}

[[gnu::noinline]] int sleepForEvent(KEM_EVENTHDL_T& event, KEM_LONG_T milliseconds)
{
    if (milliseconds == kNoLimit) return sleepWhileSet(event);
    sleepUntil(event, fineDeadlineIn(milliseconds));
    return event.iReady == kSet ? ETIMEDOUT : 0; // the event decides, however the last wait ended
}

[[gnu::noinline]] int sleepForSignal(KEM_EVENTHDL_T& event, KEM_LONG_T milliseconds)
{
    return milliseconds == kNoLimit ? sleepWhileSet(event) : sleepUntil(event, coarseDeadlineIn(milliseconds));
}

int waitForEvent(KEM_EVENTHDL_T& event, KEM_LONG_T milliseconds)
{
    if (const int result = pthread_mutex_lock(&event.mutex)) return result;
    if (event.iReady == kSet) [[unlikely]]
        return unlockAfter(event, sleepForEvent(event, milliseconds));
    return pthread_mutex_unlock(&event.mutex);
}

int waitForSignal(KEM_EVENTHDL_T& event, KEM_LONG_T milliseconds)
{
    if (const int result = pthread_mutex_lock(&event.mutex)) return result;
    if (event.iReady == kSet) [[unlikely]]
        // Deliberate: after a failed wait, a time-out included, an event that is clear by now is reported as the
        // failure and left clear for the next caller.
        if (const int failure = sleepForSignal(event, milliseconds)) return unlockAfter(event, failure);
    event.iReady = kSet;
    return pthread_mutex_unlock(&event.mutex);
}

[[gnu::cold, gnu::noinline]] KEM_STS_T finishRefusedWait(KEM_PSDCTX_T ctx, int result)
{
    return finish(ctx, fail(result == ETIMEDOUT ? SDSTS_EVENT_TIMEOUT : SDSTS_EVENT_WAIT, result));
}

KEM_STS_T finishWait(KEM_PSDCTX_T ctx, int result)
{
    if (result != 0) [[unlikely]]
        return finishRefusedWait(ctx, result);
    return finish(ctx, ok());
}

// ---- Counting semaphores: their calls return -1 and set errno. Deliberate: that -1 takes the error number's place.

[[gnu::noinline]] int waitAgain(KEM_CNTSEMHDL_T& semaphore)
{
    int result = -1;
    while (result != 0 && errno == EINTR) result = sem_wait(&semaphore);
    return result;
}

int requestWithoutLimit(KEM_CNTSEMHDL_T& semaphore)
{
    if (sem_wait(&semaphore) == 0) [[likely]]
        return 0;
    return waitAgain(semaphore);
}

Outcome requestAtOnce(KEM_CNTSEMHDL_T& semaphore)
{
    int result = sem_trywait(&semaphore);
    while (result != 0 && errno == EINTR) result = sem_trywait(&semaphore);
    if (result == 0) return ok();
    return fail(errno == EAGAIN ? SDSTS_CNTSEM_TIMEOUT : SDSTS_CNTSEM_REQUEST, result);
}

// Deliberate: every time-out is about five seconds.
Outcome requestInAttempts(KEM_CNTSEMHDL_T& semaphore)
{
    for (int attempt = 0; attempt < kSemaphoreAttempts; ++attempt) {
        const int result = sem_trywait(&semaphore);
        if (result == 0) return ok();
        if (errno != EAGAIN && errno != EINTR) return fail(SDSTS_CNTSEM_REQUEST, result);
        KemSdSleep(nullptr, kAttemptMilliseconds); // Deliberate: after the last attempt too.
    }
    return fail(SDSTS_CNTSEM_TIMEOUT, -1);
}

[[gnu::noinline]] KEM_STS_T requestLimited(KEM_PSDCTX_T ctx, KEM_PCNTSEMHDL_T phSem, KEM_LONG_T milliseconds)
{
    if (!phSem) return finishInvalid(ctx);
    return finish(ctx, milliseconds == kNoWait ? requestAtOnce(*phSem) : requestInAttempts(*phSem));
}

[[gnu::noinline]] KEM_STS_T clearBy(KEM_PSDCTX_T ctx, KEM_CNTSEMHDL_T& semaphore, KEM_ULONG_T increment,
                                    KEM_PLONG_T previous)
{
    if (previous) sem_getvalue(&semaphore, previous);
    int last = 0; // Deliberate: the posts before it may have failed.
    for (KEM_ULONG_T i = 0; i < increment; ++i) last = sem_post(&semaphore);
    return finishResult(ctx, last, SDSTS_CNTSEM_CLEAR);
}

} // namespace

KEM_FUNC_M KemSdMutexCreate(KEM_PSDCTX_T pSdCtx, const char*, KEM_PMUTEXHDL_T phMutex)
{
    if (!phMutex) return finishInvalid(pSdCtx);
    return finishResult(pSdCtx, pthread_mutex_init(phMutex, nullptr), SDSTS_MUTEX_CREATE);
}

KEM_FUNC_M KemSdMutexOpen(KEM_PSDCTX_T pSdCtx, const char* pszMutexName, KEM_PMUTEXHDL_T phMutex)
{
    return finish(pSdCtx, {KemSdMutexCreate(nullptr, pszMutexName, phMutex), 0});
}

KEM_FUNC_M KemSdMutexRequest(KEM_PSDCTX_T pSdCtx, KEM_PMUTEXHDL_T phMutex, KEM_LONG_T lTimeout)
{
    if (!phMutex || lTimeout != kNoLimit) return requestLimited(pSdCtx, phMutex, lTimeout);
    // Deliberate: the error number is errno, not the call's result.
    if (pthread_mutex_lock(phMutex) != 0) [[unlikely]]
        return finish(pSdCtx, failErrno(SDSTS_SEM_REQUEST));
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdMutexClear(KEM_PSDCTX_T pSdCtx, KEM_PMUTEXHDL_T phMutex)
{
    if (!phMutex) return finishInvalid(pSdCtx);
    return finishResult(pSdCtx, pthread_mutex_unlock(phMutex), SDSTS_SEM_CLEAR);
}

KEM_FUNC_M KemSdMutexClose(KEM_PSDCTX_T pSdCtx, KEM_PMUTEXHDL_T phMutex)
{
    if (!phMutex) return finishInvalid(pSdCtx);
    return finishResult(pSdCtx, pthread_mutex_destroy(phMutex), SDSTS_MUTEX_CLOSE);
}

KEM_FUNC_M KemSdCritSecInit(KEM_PSDCTX_T pSdCtx, KEM_PCRITSECHDL_T phCritSec)
{
    return renamed(pSdCtx, KemSdMutexCreate(pSdCtx, nullptr, phCritSec), SDSTS_MUTEX_CREATE, SDSTS_CRITSEC_INIT);
}

KEM_FUNC_M KemSdCritSecEnter(KEM_PSDCTX_T pSdCtx, KEM_PCRITSECHDL_T phCritSec)
{
    return renamed(pSdCtx, KemSdMutexRequest(pSdCtx, phCritSec, kNoLimit), SDSTS_SEM_REQUEST, SDSTS_CRITSEC_ENTER);
}

KEM_FUNC_M KemSdCritSecExit(KEM_PSDCTX_T pSdCtx, KEM_PCRITSECHDL_T phCritSec)
{
    return renamed(pSdCtx, KemSdMutexClear(pSdCtx, phCritSec), SDSTS_SEM_CLEAR, SDSTS_CRITSEC_EXIT);
}

KEM_FUNC_M KemSdCritSecDelete(KEM_PSDCTX_T pSdCtx, KEM_PCRITSECHDL_T phCritSec)
{
    return finish(pSdCtx, {KemSdMutexClose(nullptr, phCritSec), 0});
}

KEM_FUNC_M KemSdEventCreate(KEM_PSDCTX_T pSdCtx, KEM_PEVENTHDL_T phEvent)
{
    if (!phEvent) return finishInvalid(pSdCtx);
    int result = pthread_mutex_init(&phEvent->mutex, nullptr);
    if (result == 0) result = pthread_cond_init(&phEvent->cond, nullptr);
    if (result == 0) phEvent->iReady = kSet;
    return finishResult(pSdCtx, result, SDSTS_EVENT_CREATE);
}

KEM_FUNC_M KemSdEventSet(KEM_PSDCTX_T pSdCtx, KEM_PEVENTHDL_T phEvent)
{
    if (!phEvent) return finishInvalid(pSdCtx);
    return finishResult(pSdCtx, setEvent(*phEvent), SDSTS_EVENT_SET);
}

KEM_FUNC_M KemSdEventClear(KEM_PSDCTX_T pSdCtx, KEM_PEVENTHDL_T phEvent)
{
    if (!phEvent) return finishInvalid(pSdCtx);
    return finishResult(pSdCtx, clearEvent(*phEvent, pthread_cond_broadcast), SDSTS_EVENT_CLEAR);
}

KEM_FUNC_M KemSdEventSignal(KEM_PSDCTX_T pSdCtx, KEM_PEVENTHDL_T phEvent)
{
    if (!phEvent) return finishInvalid(pSdCtx);
    return finishResult(pSdCtx, clearEvent(*phEvent, pthread_cond_signal), SDSTS_EVENT_CLEAR);
}

KEM_FUNC_M KemSdEventWait(KEM_PSDCTX_T pSdCtx, KEM_PEVENTHDL_T phEvent, KEM_LONG_T lTimeout)
{
    if (!phEvent) return finishInvalid(pSdCtx);
    return finishWait(pSdCtx, waitForEvent(*phEvent, lTimeout));
}

KEM_FUNC_M KemSdSignalWait(KEM_PSDCTX_T pSdCtx, KEM_PEVENTHDL_T phEvent, KEM_LONG_T lTimeout)
{
    if (!phEvent) return finishInvalid(pSdCtx);
    return finishWait(pSdCtx, waitForSignal(*phEvent, lTimeout));
}

// Deliberate: neither the mutex nor the condition is destroyed; they own nothing.
KEM_FUNC_M KemSdEventClose(KEM_PSDCTX_T pSdCtx, KEM_PEVENTHDL_T) { return finish(pSdCtx, ok()); }

KEM_FUNC_M KemSdCntSemCreate(KEM_PSDCTX_T pSdCtx, const char*, KEM_ULONG_T ulInitialCount, KEM_ULONG_T,
                             KEM_PCNTSEMHDL_T phSem)
{
    if (!phSem) return finishInvalid(pSdCtx);
    return finishResult(pSdCtx, sem_init(phSem, 0, ulInitialCount), SDSTS_CNTSEM_CREATE);
}

KEM_FUNC_M KemSdCntSemOpen(KEM_PSDCTX_T pSdCtx, const char*, KEM_PCNTSEMHDL_T) { return finish(pSdCtx, ok()); }

KEM_FUNC_M KemSdCntSemRequest(KEM_PSDCTX_T pSdCtx, KEM_PCNTSEMHDL_T phSem, KEM_LONG_T lTimeout)
{
    if (!phSem || lTimeout != kNoLimit) return requestLimited(pSdCtx, phSem, lTimeout);
    return finishResult(pSdCtx, requestWithoutLimit(*phSem), SDSTS_CNTSEM_REQUEST);
}

KEM_FUNC_M KemSdCntSemClear(KEM_PSDCTX_T pSdCtx, KEM_PCNTSEMHDL_T phSem, KEM_ULONG_T ulIncrementCount,
                            KEM_PLONG_T plPreviousCount)
{
    if (!phSem) return finishInvalid(pSdCtx);
    if (ulIncrementCount == 1 && !plPreviousCount) return finishResult(pSdCtx, sem_post(phSem), SDSTS_CNTSEM_CLEAR);
    return clearBy(pSdCtx, *phSem, ulIncrementCount, plPreviousCount);
}

KEM_FUNC_M KemSdCntSemClose(KEM_PSDCTX_T pSdCtx, KEM_PCNTSEMHDL_T phSem)
{
    if (!phSem) return finishInvalid(pSdCtx);
    return finishResult(pSdCtx, sem_destroy(phSem), SDSTS_CNTSEM_CLOSE);
}
