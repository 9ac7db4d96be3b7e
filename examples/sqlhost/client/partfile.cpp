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
    : context_(context), destination_(destination), file_{-1, destination + text(".part-%d", getpid())}
{
    constexpr int kOwnerOnly = 0600;
    if (file_.path.size() >= sizeof doomed) throw Failure("the name is too long: " + destination);
    if (KemSdDirectIOFileOpen(context_, file_.path.c_str(), O_RDWR, 0, O_CREAT | O_EXCL | O_CLOEXEC, kOwnerOnly, 0,
                              &file_.handle, nullptr) != 0)
        fail("make");
    memcpy(doomed, file_.path.c_str(), file_.path.size() + 1);
    catchSignals();
}

PartFile::~PartFile()
{
    if (file_.handle != -1) KemSdDirectIOFileClose(nullptr, file_.handle, nullptr);
    if (doomed[0]) KemSdDirectIOFileRemove(nullptr, file_.path.c_str());
    doomed[0] = '\0';
}

void PartFile::fail(const char* what) const
{
    throw Failure(text("cannot %s %s: %s", what, file_.path.c_str(), strerror(context_->osRetCode)));
}

void PartFile::take(const NamedFile& source, uint64_t bytes)
{
    if (bytes > INT32_MAX) throw Failure("a file may have at most 2 GiB: " + destination_);
    copyBlocks(context_, source, file_, bytes, length_);
    KEM_LONG_T set = 0; // it ends with a whole block until now
    if (KemSdFileSetEndOfFile(context_, file_.handle, static_cast<KEM_LONG_T>(bytes), &set, nullptr) != 0) fail("cut");
    length_ = bytes;
}

void PartFile::complete(Existing existing)
{
    if (KemSdFileFlush(context_, file_.handle) != 0) fail("flush");
    const KEM_FILEHDL_T closed = std::exchange(file_.handle, -1);
    if (KemSdDirectIOFileClose(context_, closed, nullptr) != 0) fail("close");
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
        result = renameat2(AT_FDCWD, file_.path.c_str(), AT_FDCWD, destination_.c_str(), RENAME_NOREPLACE);
    if (result == -1 && errno == EINVAL) result = std::rename(file_.path.c_str(), destination_.c_str());
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
