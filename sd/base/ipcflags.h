// The flag bits by which callers say how a System V object is to be made or opened. Semaphore sets and shared memory
// agree on making it; each maps the permission bits in its own way.
#pragma once

#include <sys/ipc.h>

#include <kemsd/types.h>

namespace sd {

constexpr KEM_BIT32_T kIpcBit1 = 1;
constexpr KEM_BIT32_T kIpcBit2 = 2;
constexpr KEM_BIT32_T kIpcBit4 = 4;
constexpr KEM_BIT32_T kIpcMake = 8;
constexpr KEM_BIT32_T kIpcFailIfExists = 16;

constexpr KEM_BIT32_T systemMakeFlags(KEM_BIT32_T flags)
{
    return (flags & kIpcMake ? IPC_CREAT : 0) | (flags & kIpcFailIfExists ? IPC_EXCL : 0);
}
static_assert(systemMakeFlags(8) == 0x200 && systemMakeFlags(16) == 0x400 && systemMakeFlags(7) == 0);

} // namespace sd
