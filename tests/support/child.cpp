#include "child.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "stream.h"

namespace kemsd::test {
namespace {

struct Pipe {
    int read = -1;
    int write = -1;
    Pipe()
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) == 0) {
            read = ends[0];
            write = ends[1];
        } else {
            ADD_FAILURE() << "pipe2: " << strerror(errno);
        }
    }
    ~Pipe()
    {
        closeEnd(read);
        closeEnd(write);
    }
};

long milliseconds()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

void leaveToChild(Pipe& in, Pipe& out, Pipe& err)
{
    closeEnd(in.read);
    closeEnd(out.write);
    closeEnd(err.write);
}

// Serves the child's streams until both are closed or the limit has passed, then reaps it.
Ended attend(pid_t child, Pipe& in, Pipe& out, Pipe& err, const std::string& input, int seconds)
{
    Ended ended;
    leaveToChild(in, out, err);
    size_t written = 0;
    if (input.empty()) closeEnd(in.write);
    const long limit = milliseconds() + seconds * 1000L;
    while (out.read != -1 || err.read != -1) {
        pollfd ends[] = {{out.read, POLLIN, 0}, {err.read, POLLIN, 0}, {in.write, POLLOUT, 0}};
        const long left = limit - milliseconds();
        if (left <= 0 && !ended.late) {
            ended.late = true;
            kill(child, SIGKILL);
        }
        if (poll(ends, 3, ended.late ? 1000 : static_cast<int>(left)) <= 0) {
            if (ended.late) break; // a grandchild keeps the streams open
            continue;
        }
        if (ends[0].revents) drain(out.read, ended.out);
        if (ends[1].revents) drain(err.read, ended.err);
        if (ends[2].revents) {
            const ssize_t n = write(in.write, input.data() + written, input.size() - written);
            if (n > 0) written += static_cast<size_t>(n);
            if (n < 0 || written == input.size()) closeEnd(in.write);
        }
    }
    int status = 0;
    while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
    }
    if (WIFEXITED(status)) ended.status = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) ended.signal = WTERMSIG(status);
    EXPECT_FALSE(ended.late) << "the child was killed after " << seconds << " seconds";
    return ended;
}

void takeStreams(const Pipe& in, const Pipe& out, const Pipe& err)
{
    dup2(in.read, 0);
    dup2(out.write, 1);
    dup2(err.write, 2);
}

} // namespace

struct Child::Streams {
    Pipe in, out, err;
};

Child::Child(const std::function<int()>& body) : streams_(std::make_unique<Streams>())
{
    fflush(nullptr);
    id_ = fork();
    if (id_ == 0) {
        takeStreams(streams_->in, streams_->out, streams_->err);
        const int result = body();
        fflush(nullptr);
        _exit(result);
    }
    // At once, or the next child would keep this one's streams open.
    leaveToChild(streams_->in, streams_->out, streams_->err);
}

Child::~Child()
{
    if (id_ > 0) {
        kill(id_, SIGKILL);
        while (waitpid(id_, nullptr, 0) == -1 && errno == EINTR) {
        }
    }
}

Ended Child::ended(int seconds)
{
    const pid_t child = id_;
    id_ = -1;
    return attend(child, streams_->in, streams_->out, streams_->err, {}, seconds);
}

Ended inChild(const std::function<int()>& body, int seconds) { return Child(body).ended(seconds); }

Ended runProgram(const std::vector<std::string>& program, const std::string& input,
                 const std::vector<std::string>& environment, int seconds)
{
    signal(SIGPIPE, SIG_IGN);
    Pipe in, out, err;
    std::vector<char*> arguments;
    for (const std::string& word : program) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        takeStreams(in, out, err);
        signal(SIGPIPE, SIG_DFL);
        for (const std::string& entry : environment) putenv(const_cast<char*>(entry.c_str()));
        execvp(arguments[0], arguments.data());
        fprintf(stderr, "%s: %s\n", arguments[0], strerror(errno));
        _exit(127);
    }
    return attend(child, in, out, err, input, seconds);
}

} // namespace kemsd::test
