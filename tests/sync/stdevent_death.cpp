// What the thread library refuses once an event's mutex is held, and a clock that cannot be read, end the process.

#include <gtest/gtest.h>
#include <kemsd/sync.h>

#include <cerrno>
#include <csignal>
#include <ostream>
#include <string>

#include "support/failingcalls.h"

using namespace kemsd::test;

namespace {

KEM_STDEVENT_T standard;
KEM_COUNTINGEVENT_T counting;

void ready(KEM_BOOL_T signaled)
{
    KemSdStdEventCreate(nullptr, &standard);
    if (signaled) KemSdStdEventSet(nullptr, &standard);
    KemSdCountingEventCreate(nullptr, &counting, signaled);
}

struct Assertion {
    const char* name;     // of the test
    const char* function; // as the message has it
    int line;
    Call refusing;
    KEM_BOOL_T signaled;
    void (*provoke)();

    friend std::ostream& operator<<(std::ostream& out, const Assertion& a) { return out << a.name; }
};

const Assertion kAssertions[] = {
    {"StdCreateDestroy", "KemSdStdEventCreate", 74, Call::pthread_mutex_destroy, FALSE,
     [] {
         const Failing init(Call::pthread_cond_init, EAGAIN);
         KemSdStdEventCreate(nullptr, &standard);
     }},
    {"StdSetSignal", "KemSdStdEventSet", 104, Call::pthread_cond_signal, FALSE,
     [] { KemSdStdEventSet(nullptr, &standard); }},
    {"StdSetUnlock", "KemSdStdEventSet", 107, Call::pthread_mutex_unlock, FALSE,
     [] { KemSdStdEventSet(nullptr, &standard); }},
    {"StdResetUnlock", "KemSdStdEventReset", 132, Call::pthread_mutex_unlock, FALSE,
     [] { KemSdStdEventReset(nullptr, &standard); }},
    {"StdWaitWait", "KemSdStdEventWait", 158, Call::pthread_cond_wait, FALSE,
     [] { KemSdStdEventWait(nullptr, &standard); }},
    {"StdWaitUnlock", "KemSdStdEventWait", 163, Call::pthread_mutex_unlock, TRUE,
     [] { KemSdStdEventWait(nullptr, &standard); }},
    {"StdTimedWaitClock", "KemSdStdEventMakeWakeUpTime", 41, Call::clock_gettime, TRUE,
     [] { KemSdStdEventTimedWait(nullptr, &standard, 0); }},
    {"StdTimedWaitWait", "KemSdStdEventTimedWait", 203, Call::pthread_cond_timedwait, FALSE,
     [] { KemSdStdEventTimedWait(nullptr, &standard, 0); }},
    {"StdTimedWaitUnlock", "KemSdStdEventTimedWait", 208, Call::pthread_mutex_unlock, TRUE,
     [] { KemSdStdEventTimedWait(nullptr, &standard, 0); }},
    {"StdTimedWaitUnlockAfterTheTime", "KemSdStdEventTimedWait", 208, Call::pthread_mutex_unlock, FALSE,
     [] { KemSdStdEventTimedWait(nullptr, &standard, 0); }},
    {"StdTimedWaitWithoutLimit", "KemSdStdEventWait", 158, Call::pthread_cond_wait, FALSE,
     [] { KemSdStdEventTimedWait(nullptr, &standard, -1); }},
    {"StdCloseMutex", "KemSdStdEventClose", 226, Call::pthread_mutex_destroy, FALSE,
     [] { KemSdStdEventClose(nullptr, &standard); }},
    {"StdCloseCond", "KemSdStdEventClose", 229, Call::pthread_cond_destroy, FALSE,
     [] { KemSdStdEventClose(nullptr, &standard); }},
    {"CountingCreateDestroy", "KemSdCountingEventCreate", 257, Call::pthread_mutex_destroy, FALSE,
     [] {
         const Failing init(Call::pthread_cond_init, EAGAIN);
         KemSdCountingEventCreate(nullptr, &counting, 1);
     }},
    {"CountingSetSignal", "KemSdCountingEventSet", 287, Call::pthread_cond_signal, FALSE,
     [] { KemSdCountingEventSet(nullptr, &counting); }},
    {"CountingSetUnlock", "KemSdCountingEventSet", 290, Call::pthread_mutex_unlock, FALSE,
     [] { KemSdCountingEventSet(nullptr, &counting); }},
    {"CountingWaitWait", "KemSdCountingEventWait", 316, Call::pthread_cond_wait, FALSE,
     [] { KemSdCountingEventWait(nullptr, &counting); }},
    {"CountingWaitUnlock", "KemSdCountingEventWait", 321, Call::pthread_mutex_unlock, TRUE,
     [] { KemSdCountingEventWait(nullptr, &counting); }},
    {"CountingTimedWaitClock", "KemSdStdEventMakeWakeUpTime", 41, Call::clock_gettime, TRUE,
     [] { KemSdCountingEventTimedWait(nullptr, &counting, 0); }},
    {"CountingTimedWaitWait", "KemSdCountingEventTimedWait", 361, Call::pthread_cond_timedwait, FALSE,
     [] { KemSdCountingEventTimedWait(nullptr, &counting, 0); }},
    {"CountingTimedWaitUnlock", "KemSdCountingEventTimedWait", 366, Call::pthread_mutex_unlock, TRUE,
     [] { KemSdCountingEventTimedWait(nullptr, &counting, 0); }},
    {"CountingTimedWaitUnlockAfterTheTime", "KemSdCountingEventTimedWait", 366, Call::pthread_mutex_unlock, FALSE,
     [] { KemSdCountingEventTimedWait(nullptr, &counting, 0); }},
    {"CountingCloseMutex", "KemSdCountingEventClose", 384, Call::pthread_mutex_destroy, FALSE,
     [] { KemSdCountingEventClose(nullptr, &counting); }},
    {"CountingCloseCond", "KemSdCountingEventClose", 387, Call::pthread_cond_destroy, FALSE,
     [] { KemSdCountingEventClose(nullptr, &counting); }},
};

class StdEventDeath : public testing::TestWithParam<Assertion> {};

INSTANTIATE_TEST_SUITE_P(Refused, StdEventDeath, testing::ValuesIn(kAssertions),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

} // namespace

TEST_P(StdEventDeath, EndsTheProcessWithItsFixedText)
{
    const Assertion& assertion = GetParam();
    const std::string text = "sd/sdeventposix:" + std::to_string(assertion.line) + ": " + assertion.function +
                             ": Assertion `osRetCode == 0' failed\\.";
    ready(assertion.signaled);
    EXPECT_EXIT(
        {
            const Failing refusing(assertion.refusing, EINVAL);
            assertion.provoke();
        },
        testing::KilledBySignal(SIGABRT), text);
}
