// The process-wide switches, as the library's own code reads them. Their home is sdcommon/settings.cpp; the server sets
// them during start-up, before other threads run, and they are read freely afterwards, so every access is relaxed.
#pragma once

#include <kemsd/context.h>
#include <kemsd/sync.h>

#include "sd/base/atomic.h"

extern "C" {
extern KEM_BOOL_T bSdSetMemoryManager;
extern KEM_BOOL_T bTurnOffMemDealloc;
extern KEM_BOOL_T gbDisableMmap;
extern KEM_BOOL_T gbMemProtect;
extern KEM_BOOL_T bFailoverMode;
extern KEM_File_Locking_Mode file_locking_mode;
}

namespace sd {

inline bool memoryManagerOn() { return loadRelaxed(bSdSetMemoryManager); }
inline bool deallocationOff() { return loadRelaxed(bTurnOffMemDealloc); }
inline bool mappingOff() { return loadRelaxed(gbDisableMmap); }
inline bool protectionOn() { return loadRelaxed(gbMemProtect); }
inline bool failoverMode() { return loadRelaxed(bFailoverMode); }
// Ticket locks, larger free lists, the processor's bit scan.
inline bool hardwareAcceleration() { return loadRelaxed(bSdHardwareAcceleration); }

} // namespace sd
