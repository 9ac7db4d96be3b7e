#include "client/singlekeys.h"

#include <poll.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iterator>

#include "text.h"

namespace sqlhost {
namespace {

// Signals that end the program, or stop it: the terminal is the next program's then. The last ones are a thread's own
// faults, and cannot be left to another.
constexpr int kSignals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGTSTP, SIGABRT, SIGSEGV, SIGBUS};
constexpr size_t kFaults = 2;

// For the signals' handler. Written while it is not in force.
termios settings;
struct sigaction earlier[std::size(kSignals)];

// At once: output that nobody reads would hold it up.
int apply(const termios& wanted)
{
    int result;
    do result = tcsetattr(STDIN_FILENO, TCSANOW, &wanted);
    while (result == -1 && errno == EINTR);
    return result;
}

// The handler is gone when it is called, so that the signal has its usual effect once this has returned.
void restoreAndRaise(int number)
{
    apply(settings);
    raise(number);
}

// Signals that are ignored stay so. A program in the background restores as well, hence SIGTTOU.
void catchSignals()
{
    struct sigaction action = {};
    action.sa_handler = restoreAndRaise;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, SIGTTOU);
    for (size_t i = 0; i < std::size(kSignals); ++i) {
        sigaction(kSignals[i], nullptr, &earlier[i]);
        if (earlier[i].sa_handler != SIG_IGN) sigaction(kSignals[i], &action, nullptr);
    }
}

void leaveSignals()
{
    for (size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], &earlier[i], nullptr);
}

// SIG_BLOCK or SIG_UNBLOCK, for the calling thread.
void mask(int how)
{
    sigset_t signals;
    sigemptyset(&signals);
    for (size_t i = 0; i < std::size(kSignals) - kFaults; ++i) sigaddset(&signals, kSignals[i]);
    pthread_sigmask(how, &signals, nullptr);
}

// Takes what can be read without waiting.
void take(TypedAhead& ahead)
{
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    while (!ahead.ended && poll(&input, 1, 0) == 1) {
        char bytes[4096];
        const ssize_t got = read(STDIN_FILENO, bytes, sizeof bytes);
        if (got > 0) ahead.text.append(bytes, static_cast<size_t>(got));
        ahead.ended = got <= 0;
    }
}

} // namespace

// Whole lines are taken before, what there is of the next one after the change: only then can it be read.
SingleKeys::SingleKeys(TypedAhead& ahead)
{
    take(ahead);
    if (tcgetattr(STDIN_FILENO, &settings) == -1)
        throw Failure(text("cannot read the terminal's settings: %s", strerror(errno)));
    termios wanted = settings;
    wanted.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG);
    wanted.c_cc[VMIN] = 1;
    wanted.c_cc[VTIME] = 0;
    mask(SIG_BLOCK);
    catchSignals();
    if (apply(wanted) == -1) {
        const int error = errno;
        leaveSignals();
        mask(SIG_UNBLOCK);
        throw Failure(text("cannot change the terminal's settings: %s", strerror(error)));
    }
    take(ahead);
}

// A signal that comes meanwhile waits until all is as it was.
SingleKeys::~SingleKeys()
{
    apply(settings);
    leaveSignals();
    mask(SIG_UNBLOCK);
}

void SingleKeys::takeSignals() { mask(SIG_UNBLOCK); }

void SingleKeys::discard() { tcflush(STDIN_FILENO, TCIFLUSH); }

} // namespace sqlhost
