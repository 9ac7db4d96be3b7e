// Crash-time memory: what requests get once a fatal exception is declared. There is no reserve yet, so every request
// finds none and no block is ever one of ours. Takes no lock and touches no heap.

#include "sd/memxcpt.h"

extern "C" {
constinit OV_LONG_T iXcptExceptionStatus = 0;
}

namespace {

OV_STS_T noReserve(void** result)
{
    *result = nullptr;
    return SDSTS_NO_MEMORY;
}

} // namespace

OV_LONG_T ovXcptFatExceptionOccured(void) { return sd::loadRelaxed(iXcptExceptionStatus); }

OV_STS_T ovXcptMemAlloc(void*, OV_ULONG_T, void** result) { return noReserve(result); }

OV_STS_T ovXcptMemCalloc(void*, OV_UINT_T, OV_ULONG_T, void** result) { return noReserve(result); }

OV_STS_T ovXcptMemRealloc(void*, OV_ULONG_T, void** result) { return noReserve(result); }

OV_STS_T ovXcptMemFree(void*, void*) { return SDSTS_INVALID_PARAM; }
