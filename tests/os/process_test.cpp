#include <gtest/gtest.h>
#include <kemsd/os.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/failingcalls.h"
#include "support/report.h"

using namespace kemsd::test;

namespace {

// A child that waits to be ended; it is gone when the object goes.
class WaitingChild {
public:
    WaitingChild() : pid_(fork())
    {
        if (pid_ == 0) {
            alarm(kChildSeconds);
            for (;;) pause();
        }
        EXPECT_NE(pid_, -1);
    }
    ~WaitingChild()
    {
        end();
        waitpid(pid_, nullptr, 0);
    }

    pid_t pid() const { return pid_; }
    void end() const
    {
        if (pid_ > 0) kill(pid_, SIGKILL);
    }
    // Ended, but not yet reaped.
    void awaitEnd() const
    {
        siginfo_t unused;
        ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid_), &unused, WEXITED | WNOWAIT), 0);
    }

private:
    static constexpr unsigned kChildSeconds = 120;
    pid_t pid_;
};

constexpr KEM_SESSID_T kAnySession{{7, 8}};

} // namespace

TEST(Process, IdIsTheSystems)
{
    KEM_PROCID_T id = 0;
    EXPECT_THAT(reported(KemSdProcessIdGet, &id), Succeeds());
    EXPECT_EQ(id, getpid());
    EXPECT_THAT(reported(KemSdProcessIdGet, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(KemSdProcessIdGet(nullptr, &id), 0);
}

TEST(Process, SessionIdIsTheProcessIdInItsFirstHalfAlone)
{
    KEM_SESSID_T session{{7, 8}};
    EXPECT_THAT(reported(KemSdProcessSessionIdGet, &session), Succeeds());
    EXPECT_EQ(session.__val[0], getpid());
    EXPECT_EQ(session.__val[1], 8);
    EXPECT_THAT(reported(KemSdProcessSessionIdGet, nullptr), Fails(SDSTS_INVALID_PARAM));
}

TEST(Process, ARunningChildIsAlive)
{
    const WaitingChild child;
    EXPECT_THAT(reported(KemSdProcessCheckAlive, kAnySession, child.pid()), Succeeds());
}

TEST(Process, AnEndedChildIsReapedAndItsIdReportedOnce)
{
    const WaitingChild child;
    child.end();
    child.awaitEnd();
    EXPECT_THAT(reported(KemSdProcessCheckAlive, kAnySession, child.pid()), SucceedsWith(child.pid()));
    EXPECT_THAT(reported(KemSdProcessCheckAlive, kAnySession, child.pid()), Fails(SDSTS_PROCESS_NOT_ALIVE, -1));
}

TEST(Process, AStrangerIsNotAliveAndTheRawResultIsReported)
{
    EXPECT_THAT(reported(KemSdProcessCheckAlive, kAnySession, getpid()), Fails(SDSTS_PROCESS_NOT_ALIVE, -1));
    EXPECT_EQ(errno, ECHILD);
    Failing interrupted(Call::waitpid, EINTR);
    EXPECT_THAT(reported(KemSdProcessCheckAlive, kAnySession, 1), Fails(SDSTS_PROCESS_NOT_ALIVE, -1));
}

TEST(Process, DeleteDoesNothingToTheProcess)
{
    const WaitingChild child;
    EXPECT_THAT(reported(KemSdProcessDelete, kAnySession, child.pid()), Succeeds());
    EXPECT_THAT(reported(KemSdProcessCheckAlive, kAnySession, child.pid()), Succeeds());
}

TEST(Process, PrioritiesAreNotSupported)
{
    KEM_LONG_T priority = 77;
    EXPECT_THAT(reported(KemSdProcessPriorityGet, &priority), Fails(SDSTS_NOT_SUPPORTED));
    EXPECT_EQ(priority, 77);
    EXPECT_THAT(reported(KemSdProcessPrioritySet, kAnySession, getpid(), 1), Fails(SDSTS_NOT_SUPPORTED));
}
