// The floors of mutexes, events and semaphores: the calls of the C library that the algorithm needs, their results
// unread, as functions of a shared library.
#pragma once

#include <kemsd/sync.h>

namespace kemsd::bench {

KEM_API void floorMutexRequest(KEM_MUTEXHDL_T* mutex);
KEM_API void floorMutexClear(KEM_MUTEXHDL_T* mutex);

KEM_API void floorEventSet(KEM_EVENTHDL_T* event);
KEM_API void floorEventClear(KEM_EVENTHDL_T* event);
KEM_API void floorEventWait(KEM_EVENTHDL_T* event);
KEM_API void floorSignalWait(KEM_EVENTHDL_T* event);

KEM_API void floorStdEventSet(KEM_STDEVENT_T* event);
KEM_API void floorStdEventWait(KEM_STDEVENT_T* event);
KEM_API void floorCountingEventSet(KEM_COUNTINGEVENT_T* event);
KEM_API void floorCountingEventWait(KEM_COUNTINGEVENT_T* event);

KEM_API void floorCntSemRequest(KEM_CNTSEMHDL_T* semaphore);
KEM_API void floorCntSemClear(KEM_CNTSEMHDL_T* semaphore);

} // namespace kemsd::bench
