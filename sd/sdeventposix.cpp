// Standard and counting events: a mutex, a condition and a word in the caller's memory. A standard event's word holds
// one signal, a counting event's any number; everything else they share.
//
// The word is read and written only under the event's mutex. What the thread library refuses once the mutex is held is
// a programming error and ends the process; the texts and places of these assertions are fixed.

#include <pthread.h>
#include <time.h>

#include <kemsd/sync.h>
#include <cerrno>

#include "sd/base/invariant.h"
#include "sd/base/outcome.h"

namespace {

using sd::fail;
using sd::finish;
using sd::finishInvalid;
using sd::finishResult;
using sd::ok;
using sd::Outcome;
using sd::SourcePoint;

// ---- The assertions' places

constexpr SourcePoint at(unsigned line, const char* function) { return {"sd/sdeventposix", line, function}; }

constexpr SourcePoint kClockRead = at(41, "KemSdStdEventMakeWakeUpTime");

// The places of one kind of event. The reset is the standard event's alone.
struct Places {
    SourcePoint createDestroy;
    SourcePoint setSignal, setUnlock;
    SourcePoint resetUnlock;
    SourcePoint waitWait, waitUnlock;
    SourcePoint timedWait, timedUnlock;
    SourcePoint closeMutex, closeCond;
};

constexpr Places kStandard{
    .createDestroy = at(74, "KemSdStdEventCreate"),
    .setSignal = at(104, "KemSdStdEventSet"),
    .setUnlock = at(107, "KemSdStdEventSet"),
    .resetUnlock = at(132, "KemSdStdEventReset"),
    .waitWait = at(158, "KemSdStdEventWait"),
    .waitUnlock = at(163, "KemSdStdEventWait"),
    .timedWait = at(203, "KemSdStdEventTimedWait"),
    .timedUnlock = at(208, "KemSdStdEventTimedWait"),
    .closeMutex = at(226, "KemSdStdEventClose"),
    .closeCond = at(229, "KemSdStdEventClose"),
};

constexpr Places kCounting{
    .createDestroy = at(257, "KemSdCountingEventCreate"),
    .setSignal = at(287, "KemSdCountingEventSet"),
    .setUnlock = at(290, "KemSdCountingEventSet"),
    .resetUnlock = {},
    .waitWait = at(316, "KemSdCountingEventWait"),
    .waitUnlock = at(321, "KemSdCountingEventWait"),
    .timedWait = at(361, "KemSdCountingEventTimedWait"),
    .timedUnlock = at(366, "KemSdCountingEventTimedWait"),
    .closeMutex = at(384, "KemSdCountingEventClose"),
    .closeCond = at(387, "KemSdCountingEventClose"),
};

// The parameter's name is part of the assertion's text.
void mustBeZero(const SourcePoint& place, int osRetCode) { SD_INVARIANT(place, osRetCode == 0); }

// ---- The two words

bool signaled(const KEM_STDEVENT_T& event) { return event.is_signaled != 0; }
bool signaled(const KEM_COUNTINGEVENT_T& event) { return event.counter != 0; }

void addSignal(KEM_STDEVENT_T& event) { event.is_signaled = TRUE; }
void addSignal(KEM_COUNTINGEVENT_T& event) { ++event.counter; }

void consume(KEM_STDEVENT_T& event) { event.is_signaled = FALSE; }
void consume(KEM_COUNTINGEVENT_T& event) { --event.counter; }

// ---- What both do. A result is 0 or the number of the one refusal that is reported

// `fresh` holds the word's first value. The caller's record is written only when everything has succeeded.
template <class Event>
int create(Event& event, Event fresh, const SourcePoint& destroy)
{
    if (const int result = pthread_mutex_init(&fresh.mutex, nullptr)) return result;
    if (const int result = pthread_cond_init(&fresh.cond, nullptr)) {
        mustBeZero(destroy, pthread_mutex_destroy(&fresh.mutex));
        return result;
    }
    event = fresh;
    return 0;
}

template <class Event>
int set(Event& event, const Places& places)
{
    if (const int result = pthread_mutex_lock(&event.mutex)) return result;
    addSignal(event);
    mustBeZero(places.setSignal, pthread_cond_signal(&event.cond));
    mustBeZero(places.setUnlock, pthread_mutex_unlock(&event.mutex));
    return 0;
}

// Sleeping begins and ends with the mutex held. It stands apart, so that the straight way saves few registers.
template <class Event>
[[gnu::noinline]] void sleepUntilSignaled(Event& event, const SourcePoint& place)
{
    while (!signaled(event)) mustBeZero(place, pthread_cond_wait(&event.cond, &event.mutex));
}

template <class Event>
int wait(Event& event, const Places& places)
{
    if (const int result = pthread_mutex_lock(&event.mutex)) return result;
    if (!signaled(event)) [[unlikely]]
        sleepUntilSignaled(event, places.waitWait);
    consume(event);
    mustBeZero(places.waitUnlock, pthread_mutex_unlock(&event.mutex));
    return 0;
}

constexpr timespec wakeUpTime(timespec now, KEM_ULONG_T milliseconds)
{
    const long nanoseconds = milliseconds % 1000 * 1000000L + now.tv_nsec;
    return {now.tv_sec + milliseconds / 1000 + nanoseconds / 1000000000, nanoseconds % 1000000000};
}
static_assert(wakeUpTime({10, 500000000}, 1500).tv_sec == 12 && wakeUpTime({10, 500000000}, 1500).tv_nsec == 0);
static_assert(wakeUpTime({10, 999999999}, 0).tv_sec == 10 && wakeUpTime({10, 999999999}, 1).tv_nsec == 999999);

timespec makeWakeUpTime(KEM_ULONG_T milliseconds)
{
    timespec now{};
    mustBeZero(kClockRead, clock_gettime(CLOCK_REALTIME, &now));
    return wakeUpTime(now, milliseconds);
}

// False when the time is up. Deliberate: a signal that has come by then is not looked at; it is left for the next wait.
template <class Event>
bool sleepUntil(Event& event, const timespec& wakeUp, const SourcePoint& place)
{
    while (!signaled(event)) {
        const int result = pthread_cond_timedwait(&event.cond, &event.mutex, &wakeUp);
        if (result == ETIMEDOUT) return false;
        mustBeZero(place, result);
    }
    return true;
}

template <class Event>
Outcome timedWait(Event& event, KEM_ULONG_T milliseconds, const Places& places)
{
    const timespec wakeUp = makeWakeUpTime(milliseconds);
    if (const int result = pthread_mutex_lock(&event.mutex)) return fail(SDSTS_EVENT_WAIT, result);
    const bool inTime = sleepUntil(event, wakeUp, places.timedWait);
    if (inTime) consume(event);
    mustBeZero(places.timedUnlock, pthread_mutex_unlock(&event.mutex));
    return inTime ? ok() : fail(SDSTS_EVENT_TIMEOUT);
}

template <class Event>
void destroy(Event& event, const Places& places)
{
    mustBeZero(places.closeMutex, pthread_mutex_destroy(&event.mutex));
    mustBeZero(places.closeCond, pthread_cond_destroy(&event.cond));
}

} // namespace

KEM_FUNC_M KemSdStdEventCreate(KEM_PSDCTX_T pSdCtx, KEM_STDEVENT_T* pEvent)
{
    if (!pEvent) return finishInvalid(pSdCtx);
    return finishResult(pSdCtx, create(*pEvent, {}, kStandard.createDestroy), SDSTS_EVENT_CREATE);
}

KEM_FUNC_M KemSdCountingEventCreate(KEM_PSDCTX_T pSdCtx, KEM_COUNTINGEVENT_T* pEvent, KEM_ULONG_T initialValue)
{
    if (!pEvent) return finishInvalid(pSdCtx);
    return finishResult(pSdCtx, create(*pEvent, {.mutex{}, .cond{}, .counter = initialValue}, kCounting.createDestroy),
                        SDSTS_EVENT_CREATE);
}

KEM_FUNC_M KemSdStdEventSet(KEM_PSDCTX_T pSdCtx, KEM_STDEVENT_T* pEvent)
{
    if (!pEvent) return finishInvalid(pSdCtx);
    return finishResult(pSdCtx, set(*pEvent, kStandard), SDSTS_EVENT_CLEAR);
}

KEM_FUNC_M KemSdCountingEventSet(KEM_PSDCTX_T pSdCtx, KEM_COUNTINGEVENT_T* pEvent)
{
    if (!pEvent) return finishInvalid(pSdCtx);
    return finishResult(pSdCtx, set(*pEvent, kCounting), SDSTS_EVENT_CLEAR);
}

KEM_FUNC_M KemSdStdEventReset(KEM_PSDCTX_T pSdCtx, KEM_STDEVENT_T* pEvent)
{
    if (!pEvent) return finishInvalid(pSdCtx);
    const int result = pthread_mutex_lock(&pEvent->mutex);
    if (result == 0) {
        consume(*pEvent);
        mustBeZero(kStandard.resetUnlock, pthread_mutex_unlock(&pEvent->mutex));
    }
    return finishResult(pSdCtx, result, SDSTS_EVENT_SET);
}

KEM_FUNC_M KemSdStdEventWait(KEM_PSDCTX_T pSdCtx, KEM_STDEVENT_T* pEvent)
{
    if (!pEvent) return finishInvalid(pSdCtx);
    return finishResult(pSdCtx, wait(*pEvent, kStandard), SDSTS_EVENT_WAIT);
}

KEM_FUNC_M KemSdStdEventTimedWait(KEM_PSDCTX_T pSdCtx, KEM_STDEVENT_T* pEvent, KEM_LONG_T miliseconds)
{
    if (miliseconds < 0) return KemSdStdEventWait(pSdCtx, pEvent);
    if (!pEvent) return finishInvalid(pSdCtx);
    return finish(pSdCtx, timedWait(*pEvent, static_cast<KEM_ULONG_T>(miliseconds), kStandard));
}

KEM_FUNC_M KemSdCountingEventWait(KEM_PSDCTX_T pSdCtx, KEM_COUNTINGEVENT_T* pEvent)
{
    if (!pEvent) return finishInvalid(pSdCtx);
    return finishResult(pSdCtx, wait(*pEvent, kCounting), SDSTS_EVENT_WAIT);
}

KEM_FUNC_M KemSdCountingEventTimedWait(KEM_PSDCTX_T pSdCtx, KEM_COUNTINGEVENT_T* pEvent, KEM_LONG_T miliseconds)
{
    if (miliseconds < 0) return KemSdCountingEventWait(pSdCtx, pEvent);
    if (!pEvent) return finishInvalid(pSdCtx);
    return finish(pSdCtx, timedWait(*pEvent, static_cast<KEM_ULONG_T>(miliseconds), kCounting));
}

KEM_FUNC_M KemSdStdEventClose(KEM_PSDCTX_T pSdCtx, KEM_STDEVENT_T* pEvent)
{
    if (!pEvent) return finishInvalid(pSdCtx);
    destroy(*pEvent, kStandard);
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdCountingEventClose(KEM_PSDCTX_T pSdCtx, KEM_COUNTINGEVENT_T* pEvent)
{
    if (!pEvent) return finishInvalid(pSdCtx);
    destroy(*pEvent, kCounting);
    return finish(pSdCtx, ok());
}
