// The operator's terminal: text out, single keys in. No state and no locks of its own. While KemSdConsoleKeyHit waits
// for its key the terminal has other settings; it gets its own back whatever has failed meanwhile.

#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <kemsd/os.h>
#include <cstdio>

#include "sd/sdtiounix.h"

namespace {

using sd::fail;
using sd::failErrno;
using sd::finish;
using sd::KeyRead;
using sd::ok;
using sd::Outcome;

constexpr KEM_ULONG_T kKeyMilliseconds = 1000;

Outcome writeText(int fd, const char* text, KEM_SIZE_T bytes)
{
    return write(fd, text, bytes) == -1 ? failErrno(SDSTS_CONSOLE_WRITE) : ok();
}

// ---- The steps of waiting for a key

Outcome stepOutcome(int result) { return result == -1 ? failErrno(SDSTS_CONSOLE_FAILED) : ok(); }

Outcome setStatusFlags(int fd, int flags) { return stepOutcome(fcntl(fd, F_SETFL, flags)); }

Outcome readSettings(int fd, termio& settings) { return stepOutcome(ioctl(fd, TCGETA, &settings)); }

// After what is being printed, and input that came before does not count.
Outcome applySettings(int fd, const termio& settings) { return stepOutcome(ioctl(fd, TCSETAF, &settings)); }

// A signal may end the wait for what is being printed, but not the restoring.
Outcome restoreSettings(int fd, const termio& settings)
{
    Outcome outcome = applySettings(fd, settings);
    while (outcome.os == EINTR) outcome = applySettings(fd, settings);
    return outcome;
}

// Every key at once, as it is and unseen.
termio keyByKey(termio settings)
{
    settings.c_lflag &= static_cast<unsigned short>(~(ISIG | ICANON | ECHO));
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    return settings;
}

Outcome letAKeyArrive() { return KemSdSleep(nullptr, kKeyMilliseconds) != 0 ? failErrno(SDSTS_CONSOLE_FAILED) : ok(); }

// Every step that still makes sense is taken after a failing one; what is reported is the first failure.
KeyRead awaitKey(int fd)
{
    Outcome first = ok();
    const auto succeeds = [&first](Outcome step) {
        if (!first.failed()) first = step;
        return !step.failed();
    };
    KeyRead result{false, {0, 0}, ok()};
    termio settings;
    const bool nonBlocking = succeeds(setStatusFlags(fd, O_NONBLOCK));
    const bool restorable = succeeds(readSettings(fd, settings));
    if (restorable) succeeds(applySettings(fd, keyByKey(settings)));
    succeeds(letAKeyArrive());
    if (nonBlocking) { // else it would wait, for ever if nobody types
        result = sd::readKey(fd);
        succeeds(result.outcome);
    }
    if (restorable) succeeds(restoreSettings(fd, settings));
    // Deliberate: all flags off, not as they were.
    succeeds(setStatusFlags(fd, 0));
    result.outcome = first;
    return result;
}

} // namespace

KEM_FUNC_M KemSdConsoleInit(KEM_PSDCTX_T pSdCtx, KEM_PCONSOLEHDL_T phConsole)
{
    if (!phConsole) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    *phConsole = {STDIN_FILENO, STDOUT_FILENO};
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdConsoleTerm(KEM_PSDCTX_T pSdCtx, KEM_PCONSOLEHDL_T phConsole)
{
    if (!phConsole) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    *phConsole = {};
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdConsoleWrite(KEM_PSDCTX_T pSdCtx, KEM_PCONSOLEHDL_T phConsole, KEM_SIZE_T sizeWrite, const char* pchBuf)
{
    if (phConsole) {
        const bool nothing = !pchBuf || sizeWrite == 0;
        return finish(pSdCtx, nothing ? ok() : writeText(phConsole->hTermOut, pchBuf, sizeWrite));
    }
    // Deliberate: the text goes to standard output, and only then the missing handle is refused.
    const Outcome written = writeText(STDOUT_FILENO, pchBuf, sizeWrite);
    return finish(pSdCtx, written.failed() ? written : fail(SDSTS_INVALID_PARAM));
}

KEM_FUNC_M KemSdConsoleRead(KEM_PSDCTX_T pSdCtx, KEM_PCONSOLEHDL_T, KEM_SIZE_T, char*)
{
    return finish(pSdCtx, fail(SDSTS_NOT_SUPPORTED));
}

KEM_FUNC_M KemSdConsoleKeyGet(KEM_PSDCTX_T pSdCtx, KEM_BOOL_T uspbDB, KEM_PCONSOLEHDL_T, KEM_PKBDINFO_T pKbdInfo)
{
    const auto character = static_cast<KEM_UCHAR_T>(getchar());
    if (pKbdInfo && !uspbDB) *pKbdInfo = {character, 0};
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdConsoleKeyHit(KEM_PSDCTX_T pSdCtx, KEM_PCONSOLEHDL_T phConsole, KEM_PBOOL_T pbKeyHit,
                              KEM_PKBDINFO_T pKbdInfo)
{
    if (!phConsole) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    const KeyRead result = awaitKey(phConsole->hTermIn);
    if (pbKeyHit) *pbKeyHit = result.came;
    if (pKbdInfo && result.came) *pKbdInfo = result.key;
    return finish(pSdCtx, result.outcome);
}

KEM_BOOL_T KemSdConsoleIsKeyDown(KEM_PKBDINFO_T pKbInfo, KEM_LWSPINLOCK_T* pLock)
{
    return KemUnixConsoleIsKeyDown(pKbInfo, pLock);
}
