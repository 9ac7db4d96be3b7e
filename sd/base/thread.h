// The calling thread's id without a call: the C library's thread id is the thread pointer on x86-64.
#pragma once

#include <kemsd/types.h>

namespace sd {

inline KEM_THDID_T currentThread() { return reinterpret_cast<KEM_THDID_T>(__builtin_thread_pointer()); }

} // namespace sd
