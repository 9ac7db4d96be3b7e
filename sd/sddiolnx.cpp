// Block files: whole blocks of 8192 bytes, read and written at once or as requests that are collected later. All that
// crosses the interface is counted in blocks; bytes appear only here. A queued request lives in the caller's control
// block alone: nothing is allocated, locked or remembered between calls.
//
// Deliberate: offsets and counts in bytes have 32 bits, so block 524288 (4 GiB) is block 0 again.

#include <aio.h>
#include <fcntl.h>
#include <kemsd/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "sd/base/blocks.h"
#include "sd/base/leaseguard.h"
#include "sd/base/outcome.h"

namespace {

using sd::blockBytes32;
using sd::fail;
using sd::failErrno;
using sd::finish;
using sd::finishInvalid;
using sd::kBlockShift;
using sd::ok;
using sd::Outcome;
using sd::passLeaseGuard;

// What one read or write is to move, in blocks.
struct Transfer {
    KEM_FILEHDL_T file;
    KEM_ULONG_T offset;
    void* buffer;
    KEM_ULONG_T blocks;
};

// A request that ends at 2 GiB and comes out short counts one block more, because a file of 2^31 - 1 bytes cannot hold
// the last byte of that block. Deliberate: nobody looks whether any of it was moved.
constexpr KEM_ULONG_T kBlocksIn2GiB = UINT32_C(1) << (31 - kBlockShift);
constexpr KEM_ULONG_T movedBlocks(const Transfer& asked, ssize_t bytes)
{
    const auto whole = static_cast<KEM_ULONG_T>(bytes >> kBlockShift);
    const bool endsAt2GiB = asked.offset + asked.blocks == kBlocksIn2GiB;
    return whole < asked.blocks && endsAt2GiB ? whole + 1 : whole;
}
static_assert(movedBlocks({0, 262140, nullptr, 4}, 4 * KEM_BLOCK_SIZE - 1) == 4);
static_assert(movedBlocks({0, 262140, nullptr, 4}, 4 * KEM_BLOCK_SIZE) == 4);
static_assert(movedBlocks({0, 262140, nullptr, 4}, 0) == 1);
static_assert(movedBlocks({0, 262139, nullptr, 4}, 4 * KEM_BLOCK_SIZE - 1) == 3);

template <class Call>
ssize_t uninterrupted(Call call)
{
    ssize_t result;
    do {
        result = call();
    } while (result == -1 && errno == EINTR);
    return result;
}

Outcome readNow(const Transfer& asked, KEM_ULONG_T& moved)
{
    const ssize_t bytes = uninterrupted(
        [&] { return pread(asked.file, asked.buffer, blockBytes32(asked.blocks), blockBytes32(asked.offset)); });
    moved = bytes == -1 ? 0 : movedBlocks(asked, bytes);
    return bytes == -1 ? failErrno(SDSTS_FILE_READ) : ok();
}

// Deliberate: a full disk has no status of its own here, unlike in the wait.
Outcome writeNow(const Transfer& asked, KEM_ULONG_T& moved)
{
    const ssize_t bytes = uninterrupted(
        [&] { return pwrite(asked.file, asked.buffer, blockBytes32(asked.blocks), blockBytes32(asked.offset)); });
    moved = bytes == -1 ? 0 : movedBlocks(asked, bytes);
    // Less than a block is a failure too, with the error number of an earlier call: the system reported none.
    return moved == 0 ? failErrno(SDSTS_FILE_WRITE) : ok();
}

// How requests of one kind are handed to the system.
struct Queue {
    int (*submit)(aiocb*);
    KEM_STS_T pending;
    KEM_STS_T refused;
};
constexpr Queue kReads{aio_read, SDSTS_DIO_READ_PENDING, SDSTS_DIO_READ};
constexpr Queue kWrites{aio_write, SDSTS_DIO_WRITE_PENDING, SDSTS_DIO_WRITE};

Outcome enqueue(const Queue& queue, const Transfer& asked, aiocb& request)
{
    request.aio_fildes = asked.file;
    request.aio_reqprio = 0;
    request.aio_sigevent.sigev_notify = SIGEV_NONE; // only a wait collects it
    request.aio_buf = asked.buffer;
    request.aio_nbytes = blockBytes32(asked.blocks);
    request.aio_offset = blockBytes32(asked.offset);
    return queue.submit(&request) == -1 ? failErrno(queue.refused) : fail(queue.pending);
}

// The error number of a request that has ended, 0 when it went well. It is asked for in a busy loop, because the end
// has been announced already.
int endOf(const aiocb& request)
{
    int error;
    do {
        error = aio_error(&request);
    } while (error == EINPROGRESS);
    return error;
}

Outcome collect(aiocb& request, KEM_ULONG_T& moved)
{
    const aiocb* const list[] = {&request};
    if (uninterrupted([&] { return aio_suspend(list, 1, nullptr); }) == -1) return failErrno(SDSTS_DIO_SUSPEND);
    int error = endOf(request);
    const ssize_t bytes = aio_return(&request);
    if (bytes == -1) {
        // The return call itself leaves errno alone when it is the request that failed.
        if (error <= 0) error = errno;
        return fail(error == ENOSPC ? SDSTS_DISK_FULL : SDSTS_DIO_RETURN, error);
    }
    moved = static_cast<KEM_ULONG_T>(bytes >> kBlockShift);
    return ok();
}

// Deliberate: positions are signed 32-bit numbers of bytes, so those in every other 2 GiB are failures.
KEM_STS_T seekBlocks(KEM_PSDCTX_T ctx, KEM_FILEHDL_T file, KEM_LONG_T bytes, int origin, KEM_STS_T failure,
                     KEM_PULONG_T blocks)
{
    passLeaseGuard();
    if (!blocks) return finishInvalid(ctx);
    const auto position = static_cast<KEM_LONG_T>(lseek(file, bytes, origin));
    *blocks = position < 0 ? 0 : static_cast<KEM_ULONG_T>(position) >> kBlockShift;
    return finish(ctx, position < 0 ? failErrno(failure) : ok());
}

// The longest file whose offsets have that many bits, in bytes. Deliberate: the megabytes are cut to 32 bits, so that
// from 53 bits on, where nothing of them is left, the answer is -1.0.
constexpr double largestFile(long sizeBits)
{
    const auto megabytes = static_cast<uint32_t>(UINT64_C(1) << ((sizeBits - 21) & 63));
    return 1024.0 * (megabytes * 1024.0) - 1.0;
}
static_assert(largestFile(32) == 2147483647.0 && largestFile(44) == 8796093022207.0);
static_assert(largestFile(52) == 2251799813685247.0 && largestFile(53) == -1.0 && largestFile(64) == -1.0);

// Stores nothing when the process's limit is not known.
Outcome largestFileOn(const char* volume, double& bytes)
{
    const long sizeBits = pathconf(volume, _PC_FILESIZEBITS);
    const Outcome outcome = sizeBits == -1 ? failErrno(SDSTS_DIO_MAX_FILE_SIZE) : ok();
    const double onVolume = sizeBits == -1 ? 0.0 : largestFile(sizeBits);
    rlimit own;
    if (getrlimit(RLIMIT_FSIZE, &own) == -1) return failErrno(SDSTS_DIO_MAX_FILE_SIZE);
    const auto ofProcess = static_cast<double>(own.rlim_cur);
    bytes = own.rlim_cur != RLIM_INFINITY && ofProcess <= onVolume ? ofProcess : onVolume;
    return outcome;
}

} // namespace

KEM_FUNC_M KemSdDirectIOFileCreate(KEM_PSDCTX_T pSdCtx, const char* pszFilePath, KEM_INT_T iMode)
{
    KEM_FILEHDL_T file;
    const KEM_STS_T sts = KemSdFileCreate(pSdCtx, pszFilePath, iMode, &file);
    return sts == 0 ? KemSdFileClose(pSdCtx, file) : sts;
}

KEM_FUNC_M KemSdDirectIOFileOpen(KEM_PSDCTX_T pSdCtx, const char* pszFilePath, KEM_INT_T iAccessFlag, KEM_INT_T,
                                 KEM_INT_T iOType, KEM_INT_T iPMode, KEM_INT_T, KEM_PFILEHDL_T phFile, KEM_PPMUTEXHDL_T)
{
    passLeaseGuard();
    if (!phFile || !pszFilePath) return finishInvalid(pSdCtx);
    *phFile = open(pszFilePath, iOType | iAccessFlag, KemSdAddFailoverModePrivileges(iPMode));
    return finish(pSdCtx, *phFile == -1 ? failErrno(SDSTS_FILE_OPEN) : ok());
}

KEM_FUNC_M KemSdDirectIOFileClose(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PPMUTEXHDL_T)
{
    return KemSdFileClose(pSdCtx, hFile);
}

KEM_FUNC_M KemSdDirectIOFileRemove(KEM_PSDCTX_T pSdCtx, const char* pszFilePath)
{
    return KemSdFileRemove(pSdCtx, pszFilePath);
}

KEM_FUNC_M KemSdDirectIOFileRead(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_ULONG_T ulOffsetBlocks,
                                 KEM_PVOID_T pBuffer, KEM_ULONG_T ulBlocks, KEM_PNOWAITIO_CB_T pNoWaitCb,
                                 KEM_PULONG_T pulBlocksRead, KEM_PMUTEXHDL_T)
{
    passLeaseGuard();
    if (!pBuffer || !pulBlocksRead) return finishInvalid(pSdCtx);
    const Transfer asked{hFile, ulOffsetBlocks, pBuffer, ulBlocks};
    if (!pNoWaitCb) return finish(pSdCtx, readNow(asked, *pulBlocksRead));
    *pulBlocksRead = 0;
    return finish(pSdCtx, enqueue(kReads, asked, *pNoWaitCb));
}

KEM_FUNC_M KemSdDirectIOFileWrite(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_ULONG_T ulOffsetBlocks,
                                  KEM_PVOID_T pBuffer, KEM_ULONG_T ulBlocks, KEM_PNOWAITIO_CB_T pNoWaitCb,
                                  KEM_PULONG_T pulBlocksWritten, KEM_PPMUTEXHDL_T)
{
    passLeaseGuard();
    if (!pBuffer || !pulBlocksWritten) return finishInvalid(pSdCtx);
    const Transfer asked{hFile, ulOffsetBlocks, pBuffer, ulBlocks};
    if (!pNoWaitCb) return finish(pSdCtx, writeNow(asked, *pulBlocksWritten));
    const Outcome outcome = enqueue(kWrites, asked, *pNoWaitCb);
    // Deliberate: a refused write leaves the system's -1 where a refused read leaves 0.
    *pulBlocksWritten = outcome.sts == SDSTS_DIO_WRITE ? UINT32_MAX : 0;
    return finish(pSdCtx, outcome);
}

KEM_FUNC_M KemSdDirectIOWait(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T, KEM_PNOWAITIO_CB_T pNoWaitCb, KEM_PULONG_T pulBlocksRW)
{
    passLeaseGuard();
    if (!pNoWaitCb || !pulBlocksRW) return finishInvalid(pSdCtx);
    return finish(pSdCtx, collect(*pNoWaitCb, *pulBlocksRW));
}

KEM_FUNC_M KemSdDirectIOFileSize(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PULONG_T pulFileLengthBlocks)
{
    passLeaseGuard();
    if (!pulFileLengthBlocks) return finishInvalid(pSdCtx);
    struct stat record;
    const bool known = fstat(hFile, &record) != -1;
    *pulFileLengthBlocks = known ? static_cast<uint32_t>(record.st_size) >> kBlockShift : 0;
    return finish(pSdCtx, known ? ok() : failErrno(SDSTS_FILE_LENGTH));
}

KEM_FUNC_M KemSdDirectIOFilePointerGet(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_PULONG_T pulFilePositionBlocks)
{
    return seekBlocks(pSdCtx, hFile, 0, SEEK_CUR, SDSTS_FILE_TELL, pulFilePositionBlocks);
}

KEM_FUNC_M KemSdDirectIOFilePointerSet(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_LONG_T lOffsetBlocks,
                                       KEM_INT_T iOrigin, KEM_PULONG_T pulFilePositionBlocks)
{
    const auto bytes = static_cast<KEM_LONG_T>(blockBytes32(static_cast<KEM_ULONG_T>(lOffsetBlocks)));
    return seekBlocks(pSdCtx, hFile, bytes, iOrigin, SDSTS_DIO_SEEK, pulFilePositionBlocks);
}

KEM_FUNC_M KemSdDirectIOFileChangeSize(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_ULONG_T ulNewFileEOFBlocks,
                                       KEM_PULONG_T pulSetFileEOFBlocks)
{
    passLeaseGuard();
    if (!pulSetFileEOFBlocks) return finishInvalid(pSdCtx);
    const bool done = ftruncate(hFile, blockBytes32(ulNewFileEOFBlocks)) != -1;
    *pulSetFileEOFBlocks = done ? ulNewFileEOFBlocks : 0;
    return finish(pSdCtx, done ? ok() : failErrno(SDSTS_FILE_SET_EOF));
}

KEM_FUNC_M KemSdDirectIOFileSetEndOfFile(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hFile, KEM_ULONG_T ulNewFileEOFBlocks,
                                         KEM_PULONG_T pulSetFileEOFBlocks)
{
    return KemSdDirectIOFileChangeSize(pSdCtx, hFile, ulNewFileEOFBlocks, pulSetFileEOFBlocks);
}

KEM_FUNC_M KemSdDirectIOMaxFileSizeGet(KEM_PSDCTX_T pSdCtx, const char* pszVolumeName,
                                       KEM_PDOUBLE_T pdMaxFileSizeInBytes)
{
    passLeaseGuard();
    if (!pszVolumeName || !pdMaxFileSizeInBytes) return finishInvalid(pSdCtx);
    return finish(pSdCtx, largestFileOn(pszVolumeName, *pdMaxFileSizeInBytes));
}

KEM_FUNC_M KemSdDirectIONoWaitCbsInit(KEM_PSDCTX_T pSdCtx, KEM_PNOWAITIO_CB_T, KEM_ULONG_T)
{
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdDirectIONoWaitCbsTerm(KEM_PSDCTX_T pSdCtx, KEM_PNOWAITIO_CB_T, KEM_ULONG_T)
{
    return finishInvalid(pSdCtx);
}
