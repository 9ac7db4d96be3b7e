#include "background.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "support/stream.h"

namespace kemsd::test {

Background::Background(const std::vector<std::string>& program)
{
    ::signal(SIGPIPE, SIG_IGN);
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) == -1 || pipe2(out, O_CLOEXEC) == -1 || pipe2(err, O_CLOEXEC) == -1) {
        ADD_FAILURE() << "pipe2: " << strerror(errno);
        return;
    }
    std::vector<char*> arguments;
    for (const std::string& word : program) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        ::signal(SIGPIPE, SIG_DFL);
        execvp(arguments[0], arguments.data());
        fprintf(stderr, "%s: %s\n", arguments[0], strerror(errno));
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    in_ = in[1];
    out_ = out[0];
    err_ = err[0];
}

Background::~Background()
{
    closeEnd(in_);
    closeEnd(out_);
    closeEnd(err_);
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    kill(pid_, SIGCONT);
    waitpid(pid_, nullptr, 0);
}

void Background::say(const std::string& text)
{
    for (size_t at = 0; at < text.size();) {
        const ssize_t written = write(in_, text.data() + at, text.size() - at);
        if (written <= 0) {
            ADD_FAILURE() << "write: " << strerror(errno);
            return;
        }
        at += static_cast<size_t>(written);
    }
}

void Background::endInput() { closeEnd(in_); }

void Background::signal(int number) { kill(pid_, number); }

// Takes more of either stream: false when both have ended, or nothing came in time.
bool Background::fill(int seconds)
{
    pollfd ends[] = {{out_, POLLIN, 0}, {err_, POLLIN, 0}};
    if ((out_ == -1 && err_ == -1) || poll(ends, 2, seconds * 1000) <= 0) return false;
    if (ends[0].revents) drain(out_, printed_);
    if (ends[1].revents) drain(err_, complained_);
    return true;
}

std::string Background::line()
{
    size_t end;
    while ((end = printed_.find('\n')) == std::string::npos && out_ != -1 && fill(kChildSeconds)) {
    }
    const std::string line = printed_.substr(0, end);
    printed_.erase(0, end == std::string::npos ? end : end + 1);
    if (end == std::string::npos) ADD_FAILURE() << "no line, but \"" << line << "\", and complaints: " << complained_;
    return line;
}

Ended Background::wait()
{
    Ended ended;
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(kChildSeconds);
    int status = 0;
    while (waitpid(pid_, &status, WNOHANG) == 0) {
        pollfd ends[] = {{out_, POLLIN, 0}, {err_, POLLIN, 0}};
        poll(ends, 2, 10);
        if (ends[0].revents) drain(out_, printed_);
        if (ends[1].revents) drain(err_, complained_);
        if (std::chrono::steady_clock::now() < limit) continue;
        ended.late = true;
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
        break;
    }
    pid_ = -1;
    while (fill(1)) {
    }
    EXPECT_FALSE(ended.late) << "killed after " << kChildSeconds << " seconds";
    if (WIFEXITED(status)) ended.status = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) ended.signal = WTERMSIG(status);
    ended.out = std::exchange(printed_, {});
    ended.err = std::exchange(complained_, {});
    return ended;
}

} // namespace kemsd::test
