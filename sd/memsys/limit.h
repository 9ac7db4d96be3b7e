// Memory counted against the limit, for the files of this folder.
#pragma once

#include "sd/memsys/memsys.h"

namespace sd::memsys {

constexpr char kPolicy = 2; // of every block this folder obtains from the system

// Records the used bytes, plus those that could not be had, as the first argument of the next message.
void noteShortage(OV_ULONGLONG_T wanted);

// Gives back the count of a block that has been released.
void uncount(OV_ULONGLONG_T bytes);

// Resizes an external block to `size` bytes for the caller, counted; null leaves block and count as they were. The
// header is not rewritten.
OV_MemAllocExtBlock_T* resizeCounted(OV_MemAllocExtBlock_T* header, OV_ULONGLONG_T size);

} // namespace sd::memsys
