// What the server asks of the system's shared memory and semaphores directly, because kemsd has no call for it.
#pragma once

#include <kemsd/ipc.h>

#include <string>

namespace sqlhost {

// Removes the segment and the semaphore set of a key file that the dead server of that process id has left. Objects of
// another, living program whose key is the same by chance are left alone.
void removeStale(const std::string& keyFile, KEM_PROCID_T deadServer);

// Takes a segment out of everybody's reach: it goes with the last process that has it attached, which may be a client
// that outlives the server.
void removeSegment(const OV_SHAREDMEM_SEG_T& segment);

// Makes a slot as it was at first: buffers free, no data ready, nothing of its last client left to read. Nobody uses
// it.
void resetSlot(OV_SHAREDMEM_SEG_T& segment, KEM_LONG_T slot);

} // namespace sqlhost
