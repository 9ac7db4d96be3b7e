// Files read and written through one shared mapping, or through their descriptors by the same calls. A handle carries
// all there is to know about its file; no locks, nothing allocated, the mapping made once and never moved.
//
// The address space behind the end of the file is mapped too, so a store there would end the process. What keeps it
// from happening: a copy ends at the file's length as the handle knows it, a write first moves the end of the file, and
// the space that a longer file will take is reserved before anything can be stored there.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <kemsd/file.h>
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "sd/base/leaseguard.h"
#include "sd/base/outcome.h"

namespace {

using sd::fail;
using sd::failErrno;
using sd::finish;
using sd::finishInvalid;
using sd::finishRefused;
using sd::ok;
using sd::Outcome;
using sd::passLeaseGuard;

// Only an open in plain mode makes a plain handle; one that was reset is a mapped one without mapping.
bool isPlain(const KEM_MMAPFILEHDL_T& file) { return file.iotype == KEM_IOTYPE_FILEIO; }

bool hasMapping(const KEM_MMAPHDL_T& file) { return file.fd != -1 && file.pmemmap; }

// Deliberate: some calls of plain mode drop the error number of the call inside.
KEM_STS_T dropErrorNumber(KEM_PSDCTX_T ctx, KEM_STS_T sts)
{
    if (ctx) ctx->osRetCode = 0;
    return sts;
}

// ---- Opening

enum OpenType : KEM_USHORT_T { kSOpen = 1, kOpen64 = 3, kExclusive = 4, kExclusive64 = 5, kSExclusive = 6 };

KEM_STS_T openAs(KEM_USHORT_T type, KEM_PSDCTX_T ctx, const char* path, int flags, int share, int mode,
                 KEM_PFILEHDL_T fd)
{
    switch (type) {
        case kSOpen:
            return KemSdFileSOpen(ctx, path, flags, share, mode, fd);
        case kOpen64:
            return KemSdFileOpen64(ctx, path, flags, mode, fd);
        case kExclusive:
            return KemSdFileOpenExclusiveMode(ctx, path, flags, mode, fd);
        case kExclusive64:
            return KemSdFileOpen64ExclusiveMode(ctx, path, flags, mode, fd);
        case kSExclusive:
            return KemSdFileSOpenExclusiveMode(ctx, path, flags, share, mode, fd);
        default:
            return KemSdFileOpen(ctx, path, flags, mode, fd);
    }
}

constexpr int protectionFor(int flags) { return (flags & O_ACCMODE) == O_RDONLY ? PROT_READ : PROT_READ | PROT_WRITE; }

// Gives up a descriptor whose file could not be mapped. The context keeps what the close leaves there, if it is given.
KEM_STS_T abandon(KEM_PSDCTX_T ctx, KEM_MMAPHDL_T& file, KEM_STS_T sts)
{
    KemSdFileClose(ctx, file.fd);
    file.fd = -1;
    return sts;
}

// Deliberate: the failed mapping's value and length stay in the handle.
KEM_STS_T mapFile(KEM_PSDCTX_T ctx, KEM_MMAPHDL_T& file, KEM_LONG64_T bytes, int protection)
{
    struct stat record;
    const bool known = fstat(file.fd, &record) == 0;
    file.cur = 0;
    file.size = known ? record.st_size : 0;
    if (!known) return abandon(nullptr, file, SDSTS_FILE_LENGTH);
    void* const mapping = mmap(nullptr, static_cast<size_t>(bytes), protection, MAP_SHARED, file.fd, 0);
    file.pmemmap = static_cast<KEM_UCHAR_T*>(mapping);
    file.len = bytes;
    return mapping == MAP_FAILED ? abandon(ctx, file, SDSTS_MMAP_FAILED) : 0;
}

// ---- Growing

constexpr KEM_OFF_T grownSize(const KEM_MMAPHDL_T& file, KEM_OFF_T needed)
{
    if (file.extend_size == 0) return needed;
    const KEM_OFF_T step = file.size + file.extend_size;
    return step > file.maxsize ? file.maxsize : std::max(needed, step);
}
constexpr KEM_MMAPHDL_T growing(KEM_ULONG_T extend, KEM_OFF_T max) { return {3, extend, max, nullptr, max, 0, 100}; }
static_assert(grownSize(growing(0, 1000), 150) == 150, "without a step exactly to what is needed");
static_assert(grownSize(growing(4096, 10000), 150) == 4196, "by a whole step");
static_assert(grownSize(growing(4096, 10000), 5000) == 5000, "beyond the step where more is needed");
static_assert(grownSize(growing(4096, 1000), 150) == 1000, "a step ends at the maximum");

// A store into a hole of a mapped file needs a block of the disk, and where there is none left it ends the process: the
// blocks are taken here, where running out of them is a status.
Outcome reserveSpace(KEM_FILEHDL_T fd, KEM_OFF_T from, KEM_OFF_T to)
{
    int result;
    do {
        result = fallocate(fd, FALLOC_FL_KEEP_SIZE, from, to - from);
    } while (result == -1 && errno == EINTR);
    if (result == 0 || errno == EOPNOTSUPP || errno == ENOSYS) return ok(); // such a file system promises nothing
    return failErrno(errno == ENOSPC || errno == EDQUOT ? SDSTS_DISK_FULL : SDSTS_FILE_SET_EOF);
}

// Either the file has its new length and the space for it, or the old one.
Outcome moveEnd(KEM_MMAPHDL_T& file, KEM_LONG_T bytes)
{
    KEM_LONG_T set;
    KEM_OSRETCODE_T error;
    const KEM_STS_T sts = KemSdFileSetEndOfFile(nullptr, file.fd, bytes, &set, &error);
    if (sts != 0) return fail(sts, error);
    if (set > file.size) {
        const Outcome space = reserveSpace(file.fd, file.size, set);
        if (space.failed()) {
            KemSdFileSetEndOfFile(nullptr, file.fd, static_cast<KEM_LONG_T>(file.size), &set, nullptr);
            return space;
        }
    }
    file.size = set;
    return ok();
}

// The end of a file is moved by 32-bit lengths: one that was cut would lose most of the file.
[[gnu::cold, gnu::noinline]] Outcome growTo(KEM_MMAPHDL_T& file, KEM_OFF_T needed)
{
    if (needed > file.maxsize) return fail(SDSTS_FILE_WRITE);
    const KEM_OFF_T bytes = grownSize(file, needed);
    if (bytes <= 0 || bytes > INT32_MAX) return fail(SDSTS_FILE_SET_EOF, EINVAL);
    return moveEnd(file, static_cast<KEM_LONG_T>(bytes));
}

// ---- Copying
//
// Results are stored before the bytes are copied: nothing is left to do behind the copy. Sums are formed only where
// they are known to fit: any number here may be any 64-bit number.

[[gnu::noinline]] KEM_STS_T copyLong(void* to, const void* from, size_t bytes)
{
    memcpy(to, from, bytes);
    return 0;
}

using Piece [[gnu::vector_size(16)]] = char;

inline Piece load(const char* from)
{
    Piece piece;
    memcpy(&piece, from, sizeof piece);
    return piece;
}

inline void store(char* to, Piece piece) { memcpy(to, &piece, sizeof piece); }

// Records of 16 to 64 bytes are moved in four pieces, which overlap where there is less to move.
inline KEM_STS_T copyLast(void* to, const void* from, size_t bytes)
{
    constexpr size_t kPiece = sizeof(Piece);
    if (bytes - kPiece > 3 * kPiece) return copyLong(to, from, bytes);
    const auto* source = static_cast<const char*>(from);
    auto* target = static_cast<char*>(to);
    const size_t second = bytes > 2 * kPiece ? kPiece : 0, last = bytes - kPiece, third = last - second;
    const Piece pieces[] = {load(source), load(source + second), load(source + third), load(source + last)};
    store(target, pieces[0]);
    store(target + second, pieces[1]);
    store(target + third, pieces[2]);
    store(target + last, pieces[3]);
    return 0;
}

template <class Count>
inline KEM_STS_T copyAndFinish(KEM_PSDCTX_T ctx, void* to, const void* from, KEM_UINT_T bytes, Count* moved)
{
    *moved = static_cast<Count>(bytes);
    finish(ctx, ok());
    return copyLast(to, from, bytes);
}

template <class Count>
KEM_STS_T readAt(KEM_PSDCTX_T ctx, const KEM_MMAPHDL_T& file, KEM_OFF_T at, void* to, KEM_UINT_T wanted, Count* got)
{
    *got = 0;
    if (!hasMapping(file) || at < 0) return finishRefused(ctx, SDSTS_FILE_READ, 0);
    const KEM_OFF_T left = std::min(file.size, file.len) - at;
    if (left <= 0) return finish(ctx, ok());
    const auto bytes = static_cast<KEM_UINT_T>(std::min<KEM_OFF_T>(wanted, left));
    return copyAndFinish(ctx, to, file.pmemmap + at, bytes, got);
}

Outcome makeRoom(KEM_MMAPHDL_T& file, KEM_OFF_T at, KEM_UINT_T bytes)
{
    if (!hasMapping(file) || at < 0 || bytes > file.len - at) return fail(SDSTS_FILE_WRITE);
    return at + bytes > file.size ? growTo(file, at + bytes) : ok();
}

template <class Count>
KEM_STS_T writeAt(KEM_PSDCTX_T ctx, KEM_MMAPHDL_T& file, KEM_OFF_T at, const void* from, KEM_UINT_T bytes,
                  Count* written, KEM_POSRETCODE_T error)
{
    *written = 0;
    const Outcome room = makeRoom(file, at, bytes);
    if (error) *error = room.os;
    if (room.failed()) return finish(ctx, room);
    return copyAndFinish(ctx, file.pmemmap + at, from, bytes, written);
}

// ---- The four calls that copy
//
// Nearly always all bytes lie in a mapped file and no guard is asked: then a call is a few comparisons and the copy.
// These are the calls in every other case.

[[gnu::cold, gnu::noinline]] KEM_STS_T readOtherwise(KEM_PSDCTX_T ctx, KEM_PMMAPFILEHDL_T handle, void* to,
                                                     KEM_UINT_T bytes, KEM_PINT_T got)
{
    if (handle && isPlain(*handle)) return dropErrorNumber(ctx, KemSdFileRead(ctx, handle->v.fd, to, bytes, got));
    passLeaseGuard();
    if (!handle || !to || !got) return finishInvalid(ctx);
    KEM_MMAPHDL_T& file = handle->v.mmaphdl;
    const KEM_STS_T sts = readAt(ctx, file, file.cur, to, bytes, got);
    file.cur += static_cast<KEM_UINT_T>(*got);
    return sts;
}

[[gnu::cold, gnu::noinline]] KEM_STS_T readAtOtherwise(KEM_PSDCTX_T ctx, const KEM_MMAPFILEHDL_T& handle, void* to,
                                                       KEM_LONG_T offset, KEM_UINT_T bytes, KEM_PUINT_T got)
{
    if (isPlain(handle)) return dropErrorNumber(ctx, KemSdFilePRead(ctx, handle.v.fd, to, offset, bytes, got));
    passLeaseGuard();
    if (!to || !got) return finishInvalid(ctx);
    return readAt(ctx, handle.v.mmaphdl, offset, to, bytes, got);
}

[[gnu::cold, gnu::noinline]] KEM_STS_T writeOtherwise(KEM_PSDCTX_T ctx, KEM_PMMAPFILEHDL_T handle, void* from,
                                                      KEM_UINT_T bytes, KEM_PINT_T written)
{
    if (handle && isPlain(*handle)) return KemSdFileWrite(ctx, handle->v.fd, from, bytes, written);
    // Deliberate: here alone the arguments come before the guard.
    if (!handle || !from || !written) return finishInvalid(ctx);
    passLeaseGuard();
    KEM_MMAPHDL_T& file = handle->v.mmaphdl;
    const KEM_STS_T sts = writeAt(ctx, file, file.cur, from, bytes, written, nullptr);
    file.cur += static_cast<KEM_UINT_T>(*written);
    return sts;
}

[[gnu::cold, gnu::noinline]] KEM_STS_T writeAtOtherwise(KEM_PSDCTX_T ctx, KEM_PMMAPFILEHDL_T handle, void* from,
                                                        KEM_LONG_T offset, KEM_UINT_T bytes, KEM_PUINT_T written,
                                                        KEM_POSRETCODE_T error)
{
    if (handle && isPlain(*handle)) return KemSdFilePWrite(ctx, handle->v.fd, from, offset, bytes, written, error);
    if (error) *error = 0;
    passLeaseGuard();
    if (!handle || !from || !written) return finishInvalid(ctx);
    return writeAt(ctx, handle->v.mmaphdl, offset, from, bytes, written, error);
}

// Whether a copy is all that is to be done.
inline bool onlyCopies(const KEM_MMAPFILEHDL_T& handle, KEM_OFF_T at, KEM_UINT_T bytes)
{
    const KEM_MMAPHDL_T& file = handle.v.mmaphdl;
    return !isPlain(handle) && !sd::failoverMode() && hasMapping(file) && at >= 0 &&
           bytes <= std::min(file.size, file.len) - at;
}

} // namespace

void KemSdMMAPHdlReset(KEM_PMMAPFILEHDL_T phFile)
{
    if (!phFile) return;
    // Deliberate: a handle that is opened again keeps its growth step.
    phFile->v.mmaphdl = {.fd = -1,
                         .extend_size = phFile->v.mmaphdl.extend_size,
                         .maxsize = 0,
                         .pmemmap = nullptr,
                         .len = 0,
                         .cur = 0,
                         .size = 0};
    phFile->iotype = 0;
}

KEM_FUNC_M KemSdMMAPFileOpen(KEM_PSDCTX_T pSdCtx, const char* pszFilePath, KEM_INT_T iOFlag, KEM_INT_T iShFlag,
                             KEM_INT_T iPMode, KEM_LONG64_T mapsize, KEM_USHORT_T iotype, KEM_USHORT_T opentype,
                             KEM_PMMAPFILEHDL_T phFile)
{
    if (!phFile) return finishInvalid(pSdCtx);
    KEM_FILEHDL_T fd = -1;
    const KEM_STS_T opened = openAs(opentype, pSdCtx, pszFilePath, iOFlag, iShFlag, iPMode, &fd);
    if (opened != 0) return opened;
    phFile->v.fd = fd;
    phFile->iotype = iotype == KEM_IOTYPE_MMAP ? KEM_IOTYPE_MMAP : KEM_IOTYPE_FILEIO;
    return isPlain(*phFile) ? 0 : mapFile(pSdCtx, phFile->v.mmaphdl, mapsize, protectionFor(iOFlag));
}

void KemSdMMAPFileSetExtendSize(KEM_PSDCTX_T, KEM_ULONG_T size, KEM_OFF_T maxsize, KEM_PMMAPFILEHDL_T phFile)
{
    if (!phFile || phFile->iotype != KEM_IOTYPE_MMAP) return;
    phFile->v.mmaphdl.extend_size = size;
    phFile->v.mmaphdl.maxsize = std::min(maxsize, phFile->v.mmaphdl.len);
}

KEM_FUNC_M KemSdMMAPFileRead(KEM_PSDCTX_T pSdCtx, KEM_PMMAPFILEHDL_T phFile, KEM_PVOID_T pvBuf, KEM_UINT_T uiCnt,
                             KEM_PINT_T piRead)
{
    if (!phFile || !pvBuf || !piRead || !onlyCopies(*phFile, phFile->v.mmaphdl.cur, uiCnt)) [[unlikely]]
        return readOtherwise(pSdCtx, phFile, pvBuf, uiCnt, piRead);
    KEM_MMAPHDL_T& file = phFile->v.mmaphdl;
    const KEM_OFF_T at = file.cur;
    file.cur = at + uiCnt;
    return copyAndFinish(pSdCtx, pvBuf, file.pmemmap + at, uiCnt, piRead);
}

KEM_FUNC_M KemSdMMAPFilePRead(KEM_PSDCTX_T pSdCtx, KEM_MMAPFILEHDL_T hFile, KEM_PVOID_T pvData, KEM_LONG_T lFileOffset,
                              KEM_UINT_T nBytesToRead, KEM_PUINT_T pnBytesRead)
{
    if (!pvData || !pnBytesRead || !onlyCopies(hFile, lFileOffset, nBytesToRead)) [[unlikely]]
        return readAtOtherwise(pSdCtx, hFile, pvData, lFileOffset, nBytesToRead, pnBytesRead);
    return copyAndFinish(pSdCtx, pvData, hFile.v.mmaphdl.pmemmap + lFileOffset, nBytesToRead, pnBytesRead);
}

KEM_FUNC_M KemSdMMAPFileWrite(KEM_PSDCTX_T pSdCtx, KEM_PMMAPFILEHDL_T phFile, KEM_PVOID_T pvBuf, KEM_UINT_T uiCnt,
                              KEM_PINT_T piWritten)
{
    if (!phFile || !pvBuf || !piWritten || !onlyCopies(*phFile, phFile->v.mmaphdl.cur, uiCnt)) [[unlikely]]
        return writeOtherwise(pSdCtx, phFile, pvBuf, uiCnt, piWritten);
    KEM_MMAPHDL_T& file = phFile->v.mmaphdl;
    const KEM_OFF_T at = file.cur;
    file.cur = at + uiCnt;
    return copyAndFinish(pSdCtx, file.pmemmap + at, pvBuf, uiCnt, piWritten);
}

KEM_FUNC_M KemSdMMAPFilePWrite(KEM_PSDCTX_T pSdCtx, KEM_PMMAPFILEHDL_T phFile, KEM_PVOID_T pvData,
                               KEM_LONG_T lFileOffset, KEM_UINT_T nBytesToWrite, KEM_PUINT_T pnBytesWritten,
                               KEM_POSRETCODE_T pOsRetCode)
{
    if (!phFile || !pvData || !pnBytesWritten || !onlyCopies(*phFile, lFileOffset, nBytesToWrite)) [[unlikely]]
        return writeAtOtherwise(pSdCtx, phFile, pvData, lFileOffset, nBytesToWrite, pnBytesWritten, pOsRetCode);
    if (pOsRetCode) *pOsRetCode = 0;
    return copyAndFinish(pSdCtx, phFile->v.mmaphdl.pmemmap + lFileOffset, pvData, nBytesToWrite, pnBytesWritten);
}

KEM_FUNC_M KemSdMMAPFileLSeek(KEM_PSDCTX_T pSdCtx, KEM_PMMAPFILEHDL_T phFile, KEM_LONG_T lOffset, KEM_INT_T iOrigin,
                              KEM_PLONG_T plPosition)
{
    if (phFile && isPlain(*phFile))
        return dropErrorNumber(pSdCtx, KemSdFileLSeek(pSdCtx, phFile->v.fd, lOffset, iOrigin, plPosition));
    passLeaseGuard();
    if (!phFile || !plPosition) return finishInvalid(pSdCtx);
    KEM_MMAPHDL_T& file = phFile->v.mmaphdl;
    if (!hasMapping(file)) return finish(pSdCtx, fail(SDSTS_FILE_READ));
    if (iOrigin != SEEK_SET && iOrigin != SEEK_CUR && iOrigin != SEEK_END) return finishInvalid(pSdCtx);
    file.cur = lOffset + (iOrigin == SEEK_SET ? 0 : iOrigin == SEEK_CUR ? file.cur : file.size);
    *plPosition = static_cast<KEM_LONG_T>(file.cur);
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdMMAPFileFlush(KEM_PSDCTX_T pSdCtx, KEM_INT_T flag, KEM_MMAPFILEHDL_T hFile)
{
    if (isPlain(hFile)) return dropErrorNumber(pSdCtx, KemSdFileFlush(pSdCtx, hFile.v.fd));
    passLeaseGuard();
    const KEM_MMAPHDL_T& file = hFile.v.mmaphdl;
    if (!hasMapping(file)) return finishInvalid(pSdCtx);
    const int result = msync(file.pmemmap, static_cast<size_t>(file.len), flag);
    return finish(pSdCtx, result == -1 ? failErrno(SDSTS_FILE_FLUSH) : ok());
}

KEM_FUNC_M KemSdMMAPFileSetEndOfFile(KEM_PSDCTX_T pSdCtx, KEM_PMMAPFILEHDL_T phFile, KEM_LONG_T lNewFileEOFBytes,
                                     KEM_PLONG_T plSetFileEOFBytes, KEM_POSRETCODE_T pOsRetCode)
{
    if (phFile && isPlain(*phFile))
        return KemSdFileSetEndOfFile(pSdCtx, phFile->v.fd, lNewFileEOFBytes, plSetFileEOFBytes, pOsRetCode);
    if (pOsRetCode) *pOsRetCode = 0;
    if (!phFile || !plSetFileEOFBytes) return finishInvalid(pSdCtx);
    // Deliberate: the context is left alone.
    if (!hasMapping(phFile->v.mmaphdl)) return SDSTS_INVALID_PARAM;
    const Outcome outcome = moveEnd(phFile->v.mmaphdl, lNewFileEOFBytes);
    *plSetFileEOFBytes = outcome.failed() ? 0 : lNewFileEOFBytes;
    if (pOsRetCode) *pOsRetCode = outcome.os;
    return finish(pSdCtx, outcome);
}

KEM_FUNC_M KemSdExtendMMAPFile(KEM_PSDCTX_T pSdCtx, KEM_PMMAPFILEHDL_T phFile, KEM_LONG_T actualsizeneeded,
                               KEM_POSRETCODE_T pOsRetCode)
{
    if (!phFile) return finishInvalid(pSdCtx);
    const Outcome outcome = isPlain(*phFile) ? fail(SDSTS_FILE_WRITE) : growTo(phFile->v.mmaphdl, actualsizeneeded);
    // Deliberate: beyond the maximum neither the context nor the error number is written.
    if (outcome.sts == SDSTS_FILE_WRITE) return outcome.sts;
    if (pOsRetCode) *pOsRetCode = outcome.os;
    return finish(pSdCtx, outcome);
}

KEM_FUNC_M KemSdMMAPFileClose(KEM_PSDCTX_T pSdCtx, KEM_MMAPFILEHDL_T hFile)
{
    if (isPlain(hFile)) return KemSdFileClose(pSdCtx, hFile.v.fd);
    const KEM_MMAPHDL_T& file = hFile.v.mmaphdl;
    if (!file.pmemmap) {
        KemSdFileClose(nullptr, file.fd);
        return finishInvalid(pSdCtx);
    }
    const bool unmapped = munmap(file.pmemmap, static_cast<size_t>(file.len)) == 0;
    // Deliberate: the context holds the close's status, also where the unmapping's is returned.
    const KEM_STS_T closed = KemSdFileClose(pSdCtx, file.fd);
    return unmapped ? closed : SDSTS_MUNMAP_FAILED;
}
