// Preloaded into a backup: does something at one of the requests by which it copies. AT_REQUEST says what:
//
//     stop          stops it, as by SIGSTOP, in the middle of its second copy, which it makes under the pause
//     stop-first    in the middle of its first copy; at the end it says how much was written
//     refuse-write  the system does not take a write
//     fail-write    it takes it, and then the write fails; fail-read, likewise
//
// The second copy begins with the first request after something was said
// to the server, which goes by semaphores.
#include <aio.h>
#include <dlfcn.h>
#include <signal.h>
#include <sys/sem.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

constexpr int kMiddle = 30;

std::string_view what;
bool copiedOnce, paused; // a backup has one thread of its own
int reads, readsUnderPause, writes, writesUnderPause;
const aiocb* failing;

template <class Function>
Function* next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

int startRead(aiocb* request)
{
    copiedOnce = true;
    ++reads;
    if (paused) ++readsUnderPause;
    if (what == "stop-first" && reads == kMiddle) raise(SIGSTOP);
    if (what == "stop" && readsUnderPause == kMiddle) raise(SIGSTOP);
    if (what == "fail-read" && reads == kMiddle) failing = request;
    return next<decltype(aio_read)>("aio_read")(request);
}

int startWrite(aiocb* request)
{
    ++writes;
    if (paused) ++writesUnderPause;
    if (what == "refuse-write" && writes == kMiddle) {
        errno = EAGAIN;
        return -1;
    }
    if (what == "fail-write" && writes == kMiddle) failing = request;
    return next<decltype(aio_write)>("aio_write")(request);
}

[[gnu::constructor]] void begin()
{
    if (const char* asked = getenv("AT_REQUEST")) what = asked;
}

[[gnu::destructor]] void report()
{
    if (what == "stop-first") fprintf(stderr, "%d writes, %d under the pause\n", writes, writesUnderPause);
}

} // namespace

extern "C" int aio_read(aiocb* request) { return startRead(request); }

extern "C" int aio_write(aiocb* request) { return startWrite(request); }

extern "C" int aio_error(const aiocb* request)
{
    const int error = next<decltype(aio_error)>("aio_error")(request);
    return request == failing && error != EINPROGRESS ? EIO : error;
}

extern "C" ssize_t aio_return(aiocb* request)
{
    const ssize_t bytes = next<decltype(aio_return)>("aio_return")(request);
    return request == failing ? -1 : bytes;
}

extern "C" int semop(int set, sembuf* operations, size_t count)
{
    if (copiedOnce) paused = true;
    return static_cast<int>(syscall(SYS_semop, set, operations, count));
}

extern "C" int semtimedop(int set, sembuf* operations, size_t count, const timespec* limit)
{
    if (copiedOnce) paused = true;
    return static_cast<int>(syscall(SYS_semtimedop, set, operations, count, limit));
}
