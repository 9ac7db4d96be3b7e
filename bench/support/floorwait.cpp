#include "support/floorwait.h"

#include <cerrno>
#include <cstdlib>

namespace kemsd::bench {
namespace {

[[gnu::cold, gnu::noinline]] KEM_STS_T refused(KEM_PSDCTX_T ctx, int result, KEM_STS_T failure)
{
    if (ctx) {
        ctx->sts = failure;
        ctx->osRetCode = result;
    }
    return failure;
}

KEM_STS_T done(KEM_PSDCTX_T ctx)
{
    if (ctx) {
        ctx->sts = 0;
        ctx->osRetCode = 0;
    }
    return 0;
}

KEM_STS_T report(KEM_PSDCTX_T ctx, int result, KEM_STS_T failure)
{
    return result == 0 ? done(ctx) : refused(ctx, result, failure);
}

// For the calls that end the process.
void check(int result)
{
    if (result != 0) abort();
}

} // namespace

KEM_STS_T floorMutexRequest(KEM_PSDCTX_T ctx, KEM_MUTEXHDL_T* mutex)
{
    return report(ctx, pthread_mutex_lock(mutex), SDSTS_SEM_REQUEST);
}

KEM_STS_T floorMutexClear(KEM_PSDCTX_T ctx, KEM_MUTEXHDL_T* mutex)
{
    return report(ctx, pthread_mutex_unlock(mutex), SDSTS_SEM_CLEAR);
}

KEM_STS_T floorEventSet(KEM_PSDCTX_T ctx, KEM_EVENTHDL_T* event)
{
    if (const int result = pthread_mutex_lock(&event->mutex)) return refused(ctx, result, SDSTS_EVENT_SET);
    event->iReady = 1;
    return report(ctx, pthread_mutex_unlock(&event->mutex), SDSTS_EVENT_SET);
}

KEM_STS_T floorEventClear(KEM_PSDCTX_T ctx, KEM_EVENTHDL_T* event)
{
    if (const int result = pthread_mutex_lock(&event->mutex)) return refused(ctx, result, SDSTS_EVENT_CLEAR);
    event->iReady = 0;
    if (const int result = pthread_cond_broadcast(&event->cond)) return refused(ctx, result, SDSTS_EVENT_CLEAR);
    return report(ctx, pthread_mutex_unlock(&event->mutex), SDSTS_EVENT_CLEAR);
}

KEM_STS_T floorEventWait(KEM_PSDCTX_T ctx, KEM_EVENTHDL_T* event)
{
    if (const int result = pthread_mutex_lock(&event->mutex)) return refused(ctx, result, SDSTS_EVENT_WAIT);
    while (event->iReady) pthread_cond_wait(&event->cond, &event->mutex);
    return report(ctx, pthread_mutex_unlock(&event->mutex), SDSTS_EVENT_WAIT);
}

KEM_STS_T floorSignalWait(KEM_PSDCTX_T ctx, KEM_EVENTHDL_T* event)
{
    if (const int result = pthread_mutex_lock(&event->mutex)) return refused(ctx, result, SDSTS_EVENT_WAIT);
    while (event->iReady) pthread_cond_wait(&event->cond, &event->mutex);
    event->iReady = 1;
    return report(ctx, pthread_mutex_unlock(&event->mutex), SDSTS_EVENT_WAIT);
}

KEM_STS_T floorStdEventSet(KEM_PSDCTX_T ctx, KEM_STDEVENT_T* event)
{
    if (const int result = pthread_mutex_lock(&event->mutex)) return refused(ctx, result, SDSTS_EVENT_CLEAR);
    event->is_signaled = TRUE;
    check(pthread_cond_signal(&event->cond));
    check(pthread_mutex_unlock(&event->mutex));
    return done(ctx);
}

KEM_STS_T floorStdEventWait(KEM_PSDCTX_T ctx, KEM_STDEVENT_T* event)
{
    if (const int result = pthread_mutex_lock(&event->mutex)) return refused(ctx, result, SDSTS_EVENT_WAIT);
    while (!event->is_signaled) pthread_cond_wait(&event->cond, &event->mutex);
    event->is_signaled = FALSE;
    check(pthread_mutex_unlock(&event->mutex));
    return done(ctx);
}

KEM_STS_T floorCountingEventSet(KEM_PSDCTX_T ctx, KEM_COUNTINGEVENT_T* event)
{
    if (const int result = pthread_mutex_lock(&event->mutex)) return refused(ctx, result, SDSTS_EVENT_CLEAR);
    ++event->counter;
    check(pthread_cond_signal(&event->cond));
    check(pthread_mutex_unlock(&event->mutex));
    return done(ctx);
}

KEM_STS_T floorCountingEventWait(KEM_PSDCTX_T ctx, KEM_COUNTINGEVENT_T* event)
{
    if (const int result = pthread_mutex_lock(&event->mutex)) return refused(ctx, result, SDSTS_EVENT_WAIT);
    while (!event->counter) pthread_cond_wait(&event->cond, &event->mutex);
    --event->counter;
    check(pthread_mutex_unlock(&event->mutex));
    return done(ctx);
}

KEM_STS_T floorCntSemRequest(KEM_PSDCTX_T ctx, KEM_CNTSEMHDL_T* semaphore)
{
    for (;;) {
        if (sem_wait(semaphore) == 0) return done(ctx);
        if (errno != EINTR) return refused(ctx, -1, SDSTS_CNTSEM_REQUEST);
    }
}

KEM_STS_T floorCntSemClear(KEM_PSDCTX_T ctx, KEM_CNTSEMHDL_T* semaphore)
{
    return report(ctx, sem_post(semaphore), SDSTS_CNTSEM_CLEAR);
}

} // namespace kemsd::bench
