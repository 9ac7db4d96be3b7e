#include "client/keywatch.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "text.h"

namespace sqlhost {

KeyWatch::KeyWatch(KEM_PSDCTX_T context, TypedAhead& ahead, std::function<void()> onKey)
    : context_(context), keys_(ahead), onKey_(std::move(onKey))
{
    KEM_PIPEHDL_T same{-1, -1, nullptr};
    if (KemSdPipeCreate(context_, &end_, &same, 0) != 0) throw Failure("cannot make a pipe");
    KEM_THDID_T id = 0;
    if (KemSdThreadCreate(context_, watchBody, nullptr, 0, this, &id, &thread_) == 0) return;
    KemSdPipeClose(context_, &end_);
    throw Failure("no thread to wait for a key");
}

// The rest of a key that came as several bytes is not the beginning of the next statement.
KeyWatch::~KeyWatch()
{
    KEM_ULONG_T written = 0;
    char byte = 0;
    KemSdPipeWrite(context_, &end_, &byte, 1, &written);
    KemSdThreadJoin(context_, &thread_);
    KemSdPipeClose(context_, &end_);
    if (pressed()) keys_.discard();
}

void* KeyWatch::watchBody(void* watch)
{
    static_cast<KeyWatch*>(watch)->watch();
    return nullptr;
}

// A key that comes at the end of the watch is not taken.
void KeyWatch::watch()
{
    SingleKeys::takeSignals();
    pollfd ends[] = {{STDIN_FILENO, POLLIN, 0}, {end_.iFdRead, POLLIN, 0}};
    while (poll(ends, 2, -1) == -1 && errno == EINTR) {
    }
    if (ends[1].revents) return;
    KemUnixConsoleIsKeyDown(nullptr, nullptr);
    pressed_.store(true, std::memory_order_release);
    onKey_();
}

} // namespace sqlhost
