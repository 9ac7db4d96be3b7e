// The floors of mutexes, events and semaphores: the calls of the C library that each needs, and what cannot be left out
// around them: a result that is read, a status, and both stored where a context is given. Calls that go on after an
// interruption or a wake-up do so here too. Handles are not looked at.
#pragma once

#include <kemsd/sync.h>

namespace kemsd::bench {

KEM_API KEM_STS_T floorMutexRequest(KEM_PSDCTX_T ctx, KEM_MUTEXHDL_T* mutex);
KEM_API KEM_STS_T floorMutexClear(KEM_PSDCTX_T ctx, KEM_MUTEXHDL_T* mutex);

KEM_API KEM_STS_T floorEventSet(KEM_PSDCTX_T ctx, KEM_EVENTHDL_T* event);
KEM_API KEM_STS_T floorEventClear(KEM_PSDCTX_T ctx, KEM_EVENTHDL_T* event);
KEM_API KEM_STS_T floorEventWait(KEM_PSDCTX_T ctx, KEM_EVENTHDL_T* event);
KEM_API KEM_STS_T floorSignalWait(KEM_PSDCTX_T ctx, KEM_EVENTHDL_T* event);

KEM_API KEM_STS_T floorStdEventSet(KEM_PSDCTX_T ctx, KEM_STDEVENT_T* event);
KEM_API KEM_STS_T floorStdEventWait(KEM_PSDCTX_T ctx, KEM_STDEVENT_T* event);
KEM_API KEM_STS_T floorCountingEventSet(KEM_PSDCTX_T ctx, KEM_COUNTINGEVENT_T* event);
KEM_API KEM_STS_T floorCountingEventWait(KEM_PSDCTX_T ctx, KEM_COUNTINGEVENT_T* event);

KEM_API KEM_STS_T floorCntSemRequest(KEM_PSDCTX_T ctx, KEM_CNTSEMHDL_T* semaphore);
KEM_API KEM_STS_T floorCntSemClear(KEM_PSDCTX_T ctx, KEM_CNTSEMHDL_T* semaphore);

} // namespace kemsd::bench
