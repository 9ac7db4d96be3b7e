// FIFOs as the pipe calls need them, with a context or without. Every function runs the lease guard first.
#pragma once

#include <kemsd/ipc.h>

#include "sd/base/outcome.h"

namespace sd {

// What becomes of the process's umask when a FIFO could not be made.
enum class FailureUmask { Restored, Zero };

// Makes a FIFO that everybody may read and write, unless the name exists. `refused` is the status of a failing mkfifo.
Outcome makeFifo(const char* name, KEM_STS_T refused, FailureUmask after);

// Opens it for both directions, a second between the attempts. The context is that of the sleeps in between; `refused`
// is the status when the last attempt has failed, which leaves -1 in *fd.
Outcome connectFifo(KEM_PSDCTX_T ctx, const char* name, int* fd, KEM_STS_T refused);

// Closes both ends, then removes the base name; a close that fails ends it with `refused`.
Outcome disconnectFifos(const KEM_PIPEHDL_T* pipe, KEM_STS_T refused);

} // namespace sd
