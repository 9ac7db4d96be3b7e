// A second copy of the reader-writer lock, compiled so that a thread asks before each of its steps, that is before each
// access to memory that other threads may touch. A test may then stop it there, count, or let it dawdle.
#pragma once

#include <kemsd/sync.h>

#include "sync/visitor.h"

namespace kemsd::test {

enum class Step { load, store, exchange, swap, add };

// Called before each step, by every thread, with the word that is about to be touched. Null: nobody asks.
using BeforeStep = void (*)(Step step, const volatile void* at);
void setBeforeStep(BeforeStep hook);

// Whether readers and writers try the short ways, as they do at first, or go by the steps alone.
void takeShortWays(bool taken);

extern const LockCalls kSteppedCalls;
KEM_STS_T steppedInit(KEM_RWLOCK_T* lock, OV_BOOL_T toSleep);

} // namespace kemsd::test
