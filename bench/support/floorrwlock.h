// The reader-writer lock's floor: the locked operations of its steps one by one, on the same lock, nodes and lists, and
// nothing else: four to read and one to leave, four to write and two to leave. A waiter spins, then sleeps in a futex
// of its own.
#pragma once

#include <kemsd/sync.h>

namespace kemsd::bench {

// Rounds of spinning before a waiter sleeps.
inline constexpr int64_t kFloorRwSpins = 20000;

KEM_API void floorRwStartRead(KEM_SYNCCTX_T* context, KEM_RWLOCK_T* lock);
KEM_API void floorRwStartWrite(KEM_SYNCCTX_T* context, KEM_RWLOCK_T* lock);
KEM_API void floorRwEnd(KEM_SYNCCTX_T* context, KEM_RWLOCK_T* lock);
// Ends the nodes of a thread that holds no lock.
KEM_API void floorRwFreeNodes(KEM_SYNCCTX_T* context);

} // namespace kemsd::bench
