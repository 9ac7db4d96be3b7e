// The locks on bytes are asked of the system directly: kemsd's cover the whole file and belong to the process.
#include "wire/lockfile.h"

#include <fcntl.h>
#include <kemsd/file.h>

#include <cerrno>
#include <cstring>

#include "text.h"

namespace sqlhost {
namespace {

struct flock lockOf(short type, int64_t byte)
{
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    return lock;
}

} // namespace

LockFile::LockFile(KEM_PSDCTX_T context, const std::string& path, Missing missing) : path_(path)
{
    constexpr int kOwnerOnly = 0600;
    const int flags = O_RDWR | O_CLOEXEC | (missing == Missing::make ? O_CREAT : 0);
    if (KemSdFileOpen(context, path.c_str(), flags, kOwnerOnly, &handle_) != 0)
        throw Failure(text("cannot open %s: %s", path.c_str(), strerror(context->osRetCode)));
}

LockFile::~LockFile()
{
    if (handle_ != -1) KemSdFileClose(nullptr, handle_);
}

bool LockFile::tryLockWhole(KEM_PSDCTX_T context)
{
    constexpr KEM_USHORT_T kExclusive = 1;
    if (KemSdFileLock(context, handle_, kExclusive) == 0) return true;
    const int error = context->osRetCode;
    if (error != EAGAIN && error != EACCES) throw Failure(text("cannot lock %s: %s", path_.c_str(), strerror(error)));
    return false;
}

// Its name comes in parentheses. A holder that has gone meanwhile has no id, one in another name space none of ours.
std::string LockFile::holder(KEM_PSDCTX_T context) const
{
    KEM_ULONG_T pid = 0, parent = 0, group = 0;
    KEM_UCHAR_T name[64] = "", state = 0; // the system keeps 15 characters of a name
    const KEM_STS_T status = KemSdFileLockProcInfo(context, handle_, &pid, name, &state, &parent, &group);
    if (status != 0 || static_cast<KEM_PROCID_T>(pid) <= 0) return "another process";
    return text("process %u %s", pid, reinterpret_cast<const char*>(name));
}

bool LockFile::tryLock(int64_t byte)
{
    struct flock lock = lockOf(F_WRLCK, byte);
    if (fcntl(handle_, F_OFD_SETLK, &lock) == 0) return true;
    if (errno != EAGAIN && errno != EACCES) throw Failure(text("cannot lock %s: %s", path_.c_str(), strerror(errno)));
    return false;
}

void LockFile::unlock(int64_t byte)
{
    struct flock lock = lockOf(F_UNLCK, byte);
    fcntl(handle_, F_OFD_SETLK, &lock);
}

// What cannot be asked counts as locked: nobody is declared dead by mistake.
bool LockFile::isLocked(int64_t byte) const
{
    struct flock lock = lockOf(F_WRLCK, byte);
    return fcntl(handle_, F_OFD_GETLK, &lock) == -1 || lock.l_type != F_UNLCK;
}

std::string LockFile::note(KEM_PSDCTX_T context) const
{
    char bytes[kLongestNote];
    KEM_UINT_T got = 0;
    if (KemSdFilePRead(context, handle_, bytes, 0, sizeof bytes, &got) != 0) return {};
    return {bytes, got};
}

} // namespace sqlhost
