// Keys as a terminal's descriptor delivers them, and the call that reads one from standard input. The only lock is the
// caller's; the terminal's settings are not touched here.

#include "sd/sdtiounix.h"

#include <unistd.h>

#include <kemsd/sync.h>

namespace {

using sd::KeyRead;
using sd::Outcome;

// Keys without a character arrive as one of these bytes and a scan code.
constexpr bool announcesScanCode(KEM_UCHAR_T byte) { return byte == 0 || byte == 224; }
static_assert(announcesScanCode(0) && announcesScanCode(0xE0) && !announcesScanCode('a'));

// False when no byte came; a failure is kept in `outcome`.
bool readByte(int fd, KEM_UCHAR_T& byte, Outcome& outcome)
{
    const ssize_t got = read(fd, &byte, 1);
    if (got == -1) outcome = sd::failErrno(SDSTS_CONSOLE_FAILED);
    return got == 1;
}

} // namespace

// Once the announcing byte has come there is a key, also when its scan code cannot be read.
KeyRead sd::readKey(int fd)
{
    KeyRead result{false, {0, 0}, ok()};
    KEM_UCHAR_T byte = 0;
    result.came = readByte(fd, byte, result.outcome);
    if (!result.came) return result;
    if (announcesScanCode(byte))
        readByte(fd, result.key.chScan, result.outcome);
    else
        result.key.chChar = byte;
    return result;
}

KEM_BOOL_T KemUnixConsoleIsKeyDown(KEM_PKBDINFO_T pKbInfo, KEM_LWSPINLOCK_T* pLock)
{
    if (pLock) KemSdLWSpinlockAcquire(pLock);
    const KeyRead result = sd::readKey(STDIN_FILENO);
    if (pLock) KemSdLWSpinlockRelease(pLock);
    if (pKbInfo) *pKbInfo = result.key;
    return result.came;
}
