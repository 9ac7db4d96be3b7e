#include "client/partfile.h"

#include <fcntl.h>
#include <kemsd/file.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <utility>

#include "text.h"

namespace sqlhost {
namespace {

constexpr int kEnding[] = {SIGINT, SIGTERM, SIGHUP};

char doomed[4096]; // the path that a signal removes, or empty

void removeAndEnd(int signal)
{
    unlink(doomed);
    ::signal(signal, SIG_DFL);
    raise(signal);
}

// A signal that is ignored stays so.
void catchSignals()
{
    for (const int signal : kEnding)
        if (::signal(signal, removeAndEnd) == SIG_IGN) ::signal(signal, SIG_IGN);
    ::signal(SIGXFSZ, SIG_IGN); // a file that grows too long is a failing write
}

} // namespace

PartFile::PartFile(KEM_PSDCTX_T context, const std::string& destination)
    : context_(context), destination_(destination), path_(destination + text(".part-%d", getpid()))
{
    constexpr int kOwnerOnly = 0600;
    if (path_.size() >= sizeof doomed) throw Failure("the name is too long: " + destination);
    if (KemSdFileOpenExclusiveMode(context_, path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kOwnerOnly, &handle_) != 0)
        fail("make");
    memcpy(doomed, path_.c_str(), path_.size() + 1);
    catchSignals();
}

PartFile::~PartFile()
{
    if (handle_ != -1) KemSdFileClose(nullptr, handle_);
    if (doomed[0]) KemSdFileRemove(nullptr, path_.c_str());
    doomed[0] = '\0';
}

void PartFile::fail(const char* what) const
{
    throw Failure(text("cannot %s %s: %s", what, path_.c_str(), strerror(context_->osRetCode)));
}

bool PartFile::holds(uint64_t place, const char* bytes, size_t count)
{
    KEM_UINT_T got = 0;
    there_.resize(count);
    if (KemSdFilePRead(context_, handle_, there_.data(), static_cast<KEM_LONG_T>(place), static_cast<KEM_UINT_T>(count),
                       &got) != 0)
        fail("read");
    return got == count && memcmp(there_.data(), bytes, count) == 0;
}

void PartFile::put(uint64_t place, char* bytes, size_t count)
{
    if (place + count > INT32_MAX) throw Failure("a file may have at most 2 GiB: " + destination_);
    if (holds(place, bytes, count)) return;
    for (KEM_UINT_T written = 0; count > 0; place += written, bytes += written, count -= written)
        if (KemSdFilePWrite(context_, handle_, bytes, static_cast<KEM_LONG_T>(place), static_cast<KEM_UINT_T>(count),
                            &written, nullptr) != 0)
            fail("write");
}

void PartFile::cut(uint64_t length)
{
    KEM_LONG_T set = 0;
    if (KemSdFileSetEndOfFile(context_, handle_, static_cast<KEM_LONG_T>(length), &set, nullptr) != 0) fail("cut");
}

void PartFile::complete(Existing existing)
{
    if (KemSdFileFlush(context_, handle_) != 0) fail("flush");
    const int closed = std::exchange(handle_, -1);
    if (KemSdFileClose(context_, closed) != 0) fail("close");
    rename(existing);
    doomed[0] = '\0';
    flushDirectory();
}

// Not every file system can refuse by itself; there, what comes into being at the last moment is replaced.
void PartFile::rename(Existing existing)
{
    int result = -1;
    errno = EINVAL;
    if (existing == Existing::refuse)
        result = renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, destination_.c_str(), RENAME_NOREPLACE);
    if (result == -1 && errno == EINVAL) result = std::rename(path_.c_str(), destination_.c_str());
    if (result == 0) return;
    if (errno == EEXIST) throw Failure(destination_ + " has come into being meanwhile");
    throw Failure(text("cannot name %s: %s", destination_.c_str(), strerror(errno)));
}

void PartFile::flushDirectory()
{
    const std::string directory = (std::filesystem::absolute(destination_).parent_path() / "").string();
    KEM_FILEHDL_T handle = -1;
    const bool flushed =
        KemSdFileOpen(context_, directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0, &handle) == 0 &&
        KemSdFileFlush(context_, handle) == 0;
    const int error = context_->osRetCode;
    if (handle != -1) KemSdFileClose(context_, handle);
    if (!flushed)
        throw Failure(
            text("%s is there, but its directory cannot be flushed: %s", destination_.c_str(), strerror(error)));
}

} // namespace sqlhost
