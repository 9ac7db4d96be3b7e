#include "support/floorwait.h"

namespace kemsd::bench {

void floorMutexRequest(KEM_MUTEXHDL_T* mutex) { pthread_mutex_lock(mutex); }

void floorMutexClear(KEM_MUTEXHDL_T* mutex) { pthread_mutex_unlock(mutex); }

void floorEventSet(KEM_EVENTHDL_T* event)
{
    pthread_mutex_lock(&event->mutex);
    event->iReady = 1;
    pthread_mutex_unlock(&event->mutex);
}

void floorEventClear(KEM_EVENTHDL_T* event)
{
    pthread_mutex_lock(&event->mutex);
    event->iReady = 0;
    pthread_cond_broadcast(&event->cond);
    pthread_mutex_unlock(&event->mutex);
}

void floorEventWait(KEM_EVENTHDL_T* event)
{
    pthread_mutex_lock(&event->mutex);
    while (event->iReady) pthread_cond_wait(&event->cond, &event->mutex);
    pthread_mutex_unlock(&event->mutex);
}

void floorSignalWait(KEM_EVENTHDL_T* event)
{
    pthread_mutex_lock(&event->mutex);
    while (event->iReady) pthread_cond_wait(&event->cond, &event->mutex);
    event->iReady = 1;
    pthread_mutex_unlock(&event->mutex);
}

void floorStdEventSet(KEM_STDEVENT_T* event)
{
    pthread_mutex_lock(&event->mutex);
    event->is_signaled = TRUE;
    pthread_cond_signal(&event->cond);
    pthread_mutex_unlock(&event->mutex);
}

void floorStdEventWait(KEM_STDEVENT_T* event)
{
    pthread_mutex_lock(&event->mutex);
    while (!event->is_signaled) pthread_cond_wait(&event->cond, &event->mutex);
    event->is_signaled = FALSE;
    pthread_mutex_unlock(&event->mutex);
}

void floorCountingEventSet(KEM_COUNTINGEVENT_T* event)
{
    pthread_mutex_lock(&event->mutex);
    ++event->counter;
    pthread_cond_signal(&event->cond);
    pthread_mutex_unlock(&event->mutex);
}

void floorCountingEventWait(KEM_COUNTINGEVENT_T* event)
{
    pthread_mutex_lock(&event->mutex);
    while (!event->counter) pthread_cond_wait(&event->cond, &event->mutex);
    --event->counter;
    pthread_mutex_unlock(&event->mutex);
}

void floorCntSemRequest(KEM_CNTSEMHDL_T* semaphore) { sem_wait(semaphore); }

void floorCntSemClear(KEM_CNTSEMHDL_T* semaphore) { sem_post(semaphore); }

} // namespace kemsd::bench
