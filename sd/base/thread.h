// The calling thread: its id without a call, since the C library's thread id is the thread pointer on x86-64, and
// whether it may go on.
#pragma once

#include <kemsd/types.h>

namespace sd {

inline KEM_THDID_T currentThread() { return reinterpret_cast<KEM_THDID_T>(__builtin_thread_pointer()); }

// True once another thread has declared a fatal exception: whoever is about to wait for its end may do so for ever. At
// home with crash-time memory.
bool stoppedByFatalException();

} // namespace sd
