// Preloaded into a program: stops it, as by SIGSTOP, before the n-th time that it writes a page or more, so that a test
// finds it in the middle of a copy. $KEMSD_TEST_STOP_AT_WRITE says which time.
#include <signal.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

extern "C" ssize_t write(int file, const void* bytes, size_t count)
{
    static std::atomic<int> large{0};
    const char* const when = getenv("KEMSD_TEST_STOP_AT_WRITE");
    if (when && count >= 4096 && ++large == atoi(when)) raise(SIGSTOP);
    return syscall(SYS_write, file, bytes, count);
}
