#include "terminalsession.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>

namespace kemsd::test {
namespace {

using Clock = std::chrono::steady_clock;

// A session of its own, so that the terminal is its controlling one and nobody else's.
[[noreturn]] void become(const std::vector<std::string>& program, int terminal)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setsid();
    ioctl(terminal, TIOCSCTTY, 0);
    for (const int stream : {0, 1, 2}) dup2(terminal, stream);
    std::vector<char*> arguments;
    for (const std::string& word : program) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    execv(arguments[0], arguments.data());
    _exit(127);
}

} // namespace

TerminalSession::TerminalSession(const std::vector<std::string>& program)
{
    fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) become(program, terminal_.program());
    if (pid_ == -1) ADD_FAILURE() << "fork: " << strerror(errno);
}

TerminalSession::~TerminalSession()
{
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

bool TerminalSession::fill(int milliseconds)
{
    pollfd end = {terminal_.operators(), POLLIN, 0};
    if (poll(&end, 1, milliseconds) != 1) return false;
    char bytes[4096];
    const ssize_t got = read(terminal_.operators(), bytes, sizeof bytes);
    for (ssize_t i = 0; i < got; ++i)
        if (bytes[i] != '\r') printed_ += bytes[i];
    return got > 0;
}

std::string TerminalSession::until(const std::string& text)
{
    size_t at;
    const auto limit = Clock::now() + std::chrono::seconds(kChildSeconds);
    while ((at = printed_.find(text)) == std::string::npos && waiting_ && Clock::now() < limit) fill(100);
    if (at == std::string::npos) {
        waiting_ = false;
        ADD_FAILURE() << "no \"" << text << "\", but \"" << std::exchange(printed_, {}) << "\"";
        return {};
    }
    const std::string taken = printed_.substr(0, at + text.size());
    printed_.erase(0, taken.size());
    return taken;
}

void TerminalSession::signal(int number) const { kill(pid_, number); }

Ended TerminalSession::wait()
{
    Ended ended;
    const auto limit = Clock::now() + std::chrono::seconds(kChildSeconds);
    int status = 0;
    while (waitpid(pid_, &status, WNOHANG) == 0) {
        fill(10);
        if (Clock::now() < limit) continue;
        ended.late = true;
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
        break;
    }
    pid_ = -1;
    EXPECT_FALSE(ended.late) << "killed after " << kChildSeconds << " seconds";
    while (fill(0)) {
    }
    if (WIFEXITED(status)) ended.status = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) ended.signal = WTERMSIG(status);
    ended.out = std::exchange(printed_, {});
    return ended;
}

} // namespace kemsd::test
