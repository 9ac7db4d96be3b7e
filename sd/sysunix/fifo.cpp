// FIFOs: making and opening one, parting from a pair, and the calls by which the server's own layers do so without a
// context. It owns one lock, which serialises the makers of this process while the umask is theirs. The lock is taken
// after the lease guard and never around a wait of our own.

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <kemsd/file.h>
#include <kemsd/os.h>
#include <cstdio>

#include "sd/base/leaseguard.h"
#include "sd/sysunix/fifo.h"

namespace sd {
namespace {

constexpr mode_t kEverybody = 0666;
constexpr int kAttempts = 16;
constexpr KEM_ULONG_T kPauseMilliseconds = 1000;

// The umask belongs to the process: of two makers that swap it at once the later would put back the other's 0.
constinit pthread_mutex_t umaskLock = PTHREAD_MUTEX_INITIALIZER;

} // namespace

Outcome makeFifo(const char* name, KEM_STS_T refused, FailureUmask after)
{
    passLeaseGuard();
    if (!name) return fail(SDSTS_INVALID_PARAM);
    pthread_mutex_lock(&umaskLock);
    const mode_t previous = umask(0);
    struct stat unused;
    // Any kind of file will do: its owner is trusted to know what stands under the name.
    const bool made = stat(name, &unused) == 0 || mkfifo(name, kEverybody) == 0;
    const Outcome outcome = made ? ok() : failErrno(refused);
    if (made || after == FailureUmask::Restored) umask(previous);
    pthread_mutex_unlock(&umaskLock);
    return outcome;
}

Outcome connectFifo(KEM_PSDCTX_T ctx, const char* name, int* fd, KEM_STS_T refused)
{
    passLeaseGuard();
    if (!name || !fd) return fail(SDSTS_INVALID_PARAM);
    const mode_t mode = KemSdAddFailoverModePrivileges(0);
    for (int attempt = 1;; ++attempt) {
        // Open at both ends by itself, so it waits for no peer.
        *fd = open(name, O_RDWR, mode);
        if (*fd != -1) return ok();
        if (attempt == kAttempts) return failErrno(refused);
        KemSdSleep(ctx, kPauseMilliseconds);
    }
}

Outcome disconnectFifos(const KEM_PIPEHDL_T* pipe, KEM_STS_T refused)
{
    passLeaseGuard();
    if (!pipe || !pipe->pszPipeName) return fail(SDSTS_INVALID_PARAM);
    if (close(pipe->iFdRead) == -1 || close(pipe->iFdWrite) == -1) return failErrno(refused);
    // Deliberate: the base name, which is usually absent; the FIFOs stay for the next connection.
    remove(pipe->pszPipeName);
    return ok();
}

} // namespace sd

using sd::FailureUmask;
using sd::passLeaseGuard;

OV_STS_T ovUNIXMakeNmPipe(const char* pname)
{
    // Deliberate: unlike KemSdNamedPipeUnixCreate a failure leaves the umask 0.
    return sd::makeFifo(pname, SDSTS_NMPIPE_FAILED, FailureUmask::Zero).sts;
}

OV_STS_T ovUNIXConnectNmPipe(const char* pipename, int* fd)
{
    return sd::connectFifo(nullptr, pipename, fd, SDSTS_NMPIPE_CONNECT).sts;
}

OV_STS_T ovUNIXDisConnectNmPipe(KEM_PIPEHDL_T ph) { return sd::disconnectFifos(&ph, SDSTS_NMPIPE_FAILED).sts; }

OV_STS_T ovUNIXPipeWrite(KEM_PIPEHDL_T ph, OV_PVOID_T pBuf, OV_ULONG_T bytesToWrite, OV_ULONG_T* pBytesWritten)
{
    passLeaseGuard();
    if (!pBuf || !pBytesWritten) return SDSTS_INVALID_PARAM;
    const ssize_t written = write(ph.iFdWrite, pBuf, bytesToWrite);
    *pBytesWritten = static_cast<OV_ULONG_T>(written);
    return written == -1;
}

OV_STS_T ovUNIXPipeRead(KEM_PIPEHDL_T ph, OV_PVOID_T pBuf, OV_ULONG_T bytesToRead, OV_ULONG_T* pBytesRead)
{
    passLeaseGuard();
    if (!pBuf || !pBytesRead) return SDSTS_INVALID_PARAM;
    const ssize_t got = read(ph.iFdRead, pBuf, bytesToRead);
    *pBytesRead = static_cast<OV_ULONG_T>(got);
    return got == -1;
}
