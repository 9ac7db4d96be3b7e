#include "wire/handshake.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "text.h"

namespace sqlhost {

// The library opens without waiting for a peer, but leaves the descriptor waiting and open across exec.
Fifo::Fifo(KEM_PSDCTX_T context, const std::string& path)
{
    int handle = -1;
    if (KemSdNamedPipeUnixConnect(context, path.c_str(), &handle) != 0)
        throw Failure(text("cannot open %s: %s", path.c_str(), strerror(context->osRetCode)));
    struct stat status;
    if (fstat(handle, &status) == -1 || !S_ISFIFO(status.st_mode)) {
        close(handle);
        throw Failure(path + " is no named pipe");
    }
    fcntl(handle, F_SETFL, O_NONBLOCK);
    fcntl(handle, F_SETFD, FD_CLOEXEC);
    pipe_.iFdRead = pipe_.iFdWrite = handle;
}

Fifo::~Fifo() { close(pipe_.iFdRead); }

bool Fifo::write(KEM_PSDCTX_T context, const void* bytes, size_t count)
{
    KEM_ULONG_T written = 0;
    return KemSdPipeWrite(context, &pipe_, const_cast<void*>(bytes), static_cast<KEM_ULONG_T>(count), &written) == 0 &&
           written == count;
}

// Adds what is there.
void Fifo::fill(KEM_PSDCTX_T context)
{
    char bytes[4096];
    KEM_ULONG_T got = 0;
    while (KemSdPipeRead(context, &pipe_, bytes, sizeof bytes, &got) == 0 && got > 0) read_.append(bytes, got);
}

void Fifo::drain(KEM_PSDCTX_T context)
{
    fill(context);
    read_.clear();
}

// Records are written whole, so what does not begin with the mark is none of ours, and one of ours may follow it.
bool Fifo::takeFromMark(KEM_PSDCTX_T context, void* record, size_t size, uint32_t mark)
{
    fill(context);
    const std::string_view word(reinterpret_cast<const char*>(&mark), sizeof mark);
    const size_t at = read_.find(word);
    read_.erase(0, at != std::string::npos ? at : read_.size() - std::min(read_.size(), sizeof mark - 1));
    if (read_.size() < size) return false;
    memcpy(record, read_.data(), size);
    read_.erase(0, size);
    return true;
}

bool Fifo::wait(int milliseconds) const
{
    pollfd end = {pipe_.iFdRead, POLLIN, 0};
    return poll(&end, 1, milliseconds) == 1;
}

std::string fifoToServer(const ServerDirectory& directory) { return directory.connect + "_1"; }

std::string fifoToClient(const ServerDirectory& directory) { return directory.connect + "_2"; }

} // namespace sqlhost
