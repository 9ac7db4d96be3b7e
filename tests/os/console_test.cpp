// The console on a pseudo-terminal. The second that a key is waited for passes at once: what the operator does in it is
// done in place of the sleep.

#include <gtest/gtest.h>
#include <kemsd/os.h>
#include <kemsd/sync.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>

#include "support/child.h"
#include "support/failingcalls.h"
#include "support/report.h"
#include "support/terminal.h"

using namespace kemsd::test;
using testing::Matches;

namespace {

struct Pipe {
    Pipe() { EXPECT_EQ(0, pipe(ends)); }
    ~Pipe()
    {
        close(ends[0]);
        closeWriter();
    }
    void closeWriter()
    {
        if (ends[1] != -1) close(ends[1]);
        ends[1] = -1;
    }
    void put(std::string_view bytes) const
    {
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()), write(ends[1], bytes.data(), bytes.size()));
    }
    // What lies in it, without waiting.
    std::string take() const
    {
        char bytes[64];
        fcntl(ends[0], F_SETFL, reinterpret_cast<void*>(O_NONBLOCK));
        const ssize_t got = read(ends[0], bytes, sizeof bytes);
        return {bytes, got > 0 ? static_cast<size_t>(got) : 0};
    }

    int ends[2] = {-1, -1};
};

// Puts a descriptor in another one's place while it lives.
class InPlaceOf {
public:
    InPlaceOf(int place, int fd) : place_(place), kept_(dup(place)) { dup2(fd, place_); }
    ~InPlaceOf()
    {
        dup2(kept_, place_);
        close(kept_);
    }
    InPlaceOf(const InPlaceOf&) = delete;
    InPlaceOf& operator=(const InPlaceOf&) = delete;

private:
    int place_, kept_;
};

// ---- A key within the second

class ConsoleKeyHit : public testing::Test {
protected:
    // KemSdConsoleKeyHit, while the operator does this.
    Report hitWhile(const std::function<void()>& operation, int fd)
    {
        Failing second(Call::nanosleep, 0, 0, operation);
        KEM_CONSOLEHDL_T console{fd, -1};
        resetCalls();
        return reported(KemSdConsoleKeyHit, &console, &hit_, &key_);
    }
    Report hitWhile(const std::function<void()>& operation) { return hitWhile(operation, terminal_.program()); }
    Report hitBy(std::string_view keys)
    {
        return hitWhile([&] { terminal_.press(keys); });
    }

    void expectKey(int character, int scan) const
    {
        EXPECT_EQ(hit_, TRUE);
        EXPECT_EQ(key_.chChar, character);
        EXPECT_EQ(key_.chScan, scan);
    }
    void expectNoKey() const
    {
        EXPECT_EQ(hit_, FALSE);
        EXPECT_EQ(key_.chChar, 7);
        EXPECT_EQ(key_.chScan, 8);
    }
    int flags() const { return fcntl(terminal_.program(), F_GETFL, nullptr); }
    void expectRestored() const
    {
        EXPECT_TRUE(sameSettings(before_, terminal_.settings()));
        EXPECT_EQ(flags() & (O_NONBLOCK | O_APPEND), 0);
    }

    Terminal terminal_;
    termios before_ = terminal_.settings();
    KEM_BOOL_T hit_ = 5;
    KEM_KBDINFO_T key_{7, 8};
};

// A step that fails, whether the key is read all the same and the settings are restored, and how often the calls for
// settings are made.
struct BrokenStep {
    const char* name;
    Call call;
    long k;
    bool key, restored;
    long settingCalls;
};

constexpr BrokenStep kBrokenSteps[] = {
    {"make non-blocking", Call::fcntl, 1, false, true, 3}, // a read could wait for ever
    {"read the settings", Call::ioctl, 1, true, true, 1},  // so none are applied
    {"apply them", Call::ioctl, 2, true, true, 3},
    {"read the key", Call::read, 1, false, true, 3},
    {"restore the settings", Call::ioctl, 3, true, false, 3},
    {"clear the flags", Call::fcntl, 2, true, true, 3},
};

} // namespace

TEST_F(ConsoleKeyHit, PlainKeyIsCharacterWithScanCodeZero)
{
    EXPECT_THAT(hitBy("k"), Succeeds());
    expectKey('k', 0);
    expectRestored();
}

TEST_F(ConsoleKeyHit, ExtendedKeyIsCharacterZeroWithScanCode)
{
    EXPECT_THAT(hitBy("\xE0\x48"), Succeeds()); // 224, 72
    expectKey(0, 72);
    EXPECT_THAT(hitBy({"\0\x3B", 2}), Succeeds());
    expectKey(0, 59);
    expectRestored();
}

TEST_F(ConsoleKeyHit, AnnouncedScanCodeThatDoesNotComeIsAKeyAndAFailure)
{
    EXPECT_THAT(hitBy("\xE0"), Fails(SDSTS_CONSOLE_FAILED, EAGAIN));
    expectKey(0, 0);
    expectRestored();
}

TEST_F(ConsoleKeyHit, OnlyTheFirstKeyIsTaken)
{
    EXPECT_THAT(hitBy("ab"), Succeeds());
    expectKey('a', 0);
}

TEST_F(ConsoleKeyHit, NoKeyIsAFailureThatLeavesTheTerminalAsItWas)
{
    EXPECT_THAT(hitWhile([] {}), Fails(SDSTS_CONSOLE_FAILED, EAGAIN));
    expectNoKey();
    expectRestored();
}

TEST_F(ConsoleKeyHit, WaitsForOneSecond)
{
    hitWhile([] {});
    EXPECT_EQ(calls(Call::nanosleep), 1);
    EXPECT_EQ(lastSleep().tv_sec, 1);
    EXPECT_EQ(lastSleep().tv_nsec, 0);
}

TEST_F(ConsoleKeyHit, KeysNeedNoEnterMakeNoSignalAndStayUnseenMeanwhile)
{
    termios meanwhile{};
    int flagsMeanwhile = 0;
    hitWhile([&] {
        meanwhile = terminal_.settings();
        flagsMeanwhile = flags();
    });
    EXPECT_NE(before_.c_lflag & ICANON, 0u);
    EXPECT_EQ(meanwhile.c_lflag, before_.c_lflag & ~static_cast<tcflag_t>(ISIG | ICANON | ECHO));
    EXPECT_EQ(meanwhile.c_cc[VMIN], 1);
    EXPECT_EQ(meanwhile.c_cc[VTIME], 0);
    EXPECT_NE(flagsMeanwhile & O_NONBLOCK, 0);
}

TEST_F(ConsoleKeyHit, WhatWasTypedBeforeDoesNotCount)
{
    terminal_.type("early\n");
    pollfd end = {terminal_.program(), POLLIN, 0};
    ASSERT_EQ(1, poll(&end, 1, 30000));
    EXPECT_THAT(hitWhile([] {}), Fails(SDSTS_CONSOLE_FAILED, EAGAIN));
    expectNoKey();
}

TEST_F(ConsoleKeyHit, StatusFlagsEndAtZeroWhateverTheyWere)
{
    fcntl(terminal_.program(), F_SETFL, reinterpret_cast<void*>(O_NONBLOCK | O_APPEND));
    EXPECT_THAT(hitBy("k"), Succeeds());
    expectRestored();
}

TEST_F(ConsoleKeyHit, BothAnswersMayBeNull)
{
    Failing second(Call::nanosleep, 0, 0, [&] { terminal_.press("k"); });
    KEM_CONSOLEHDL_T console{terminal_.program(), -1};
    EXPECT_THAT(reported(KemSdConsoleKeyHit, &console, nullptr, nullptr), Succeeds());
    EXPECT_EQ(KemSdConsoleKeyHit(nullptr, &console, nullptr, nullptr), 0);
}

TEST_F(ConsoleKeyHit, WithoutConsoleNothingIsTouched)
{
    resetCalls();
    EXPECT_THAT(reported(KemSdConsoleKeyHit, nullptr, &hit_, &key_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(hit_, 5);
    EXPECT_EQ(key_.chChar, 7);
    EXPECT_EQ(calls(Call::ioctl) + calls(Call::fcntl) + calls(Call::read) + calls(Call::nanosleep), 0);
}

TEST_F(ConsoleKeyHit, EveryStepThatStillMakesSenseIsTakenAfterAFailingOne)
{
    for (const BrokenStep& step : kBrokenSteps) {
        SCOPED_TRACE(step.name);
        const Failing broken = Failing::nth(step.call, step.k, EIO);
        EXPECT_THAT(hitBy("k\n"), Fails(SDSTS_CONSOLE_FAILED, EIO));
        EXPECT_EQ(broken.hits(), 1);
        EXPECT_EQ(calls(Call::fcntl), 2);
        EXPECT_EQ(calls(Call::ioctl), step.settingCalls);
        EXPECT_EQ(calls(Call::nanosleep), 1);
        EXPECT_EQ(hit_, step.key);
        EXPECT_EQ(sameSettings(before_, terminal_.settings()), step.restored);
        tcsetattr(terminal_.program(), TCSAFLUSH, &before_);
    }
}

TEST_F(ConsoleKeyHit, SecondThatIsCutShortIsAFailureAlsoWithAKey)
{
    Failing second(Call::nanosleep, EINTR, -1, [&] { terminal_.press("k"); });
    KEM_CONSOLEHDL_T console{terminal_.program(), -1};
    EXPECT_THAT(reported(KemSdConsoleKeyHit, &console, &hit_, &key_), Fails(SDSTS_CONSOLE_FAILED, EINTR));
    expectKey('k', 0);
    expectRestored();
}

TEST_F(ConsoleKeyHit, ScanCodeThatCannotBeReadIsReported)
{
    const Failing broken = Failing::nth(Call::read, 2, EIO);
    EXPECT_THAT(hitBy("\xE0\x48"), Fails(SDSTS_CONSOLE_FAILED, EIO));
    expectKey(0, 0);
    expectRestored();
}

TEST_F(ConsoleKeyHit, TheFirstOfSeveralFailuresIsReported)
{
    const Failing settings(Call::ioctl, EIO);
    const Failing flags(Call::fcntl, EPERM);
    EXPECT_THAT(hitWhile([] {}), Fails(SDSTS_CONSOLE_FAILED, EPERM));
    expectNoKey();
}

TEST_F(ConsoleKeyHit, SignalDoesNotKeepTheTerminalFromBeingRestored)
{
    const Failing interrupted = Failing::nth(Call::ioctl, 3, EINTR);
    EXPECT_THAT(hitBy("k"), Succeeds());
    EXPECT_EQ(interrupted.hits(), 1);
    expectRestored();
}

TEST_F(ConsoleKeyHit, WhatIsNoTerminalIsAFailureThatAppliesNothingAndReadsAllTheSame)
{
    const Pipe pipe;
    EXPECT_THAT(hitWhile([&] { pipe.put("k"); }, pipe.ends[0]), Fails(SDSTS_CONSOLE_FAILED, ENOTTY));
    expectKey('k', 0);
    EXPECT_EQ(calls(Call::ioctl), 1);
    EXPECT_EQ(fcntl(pipe.ends[0], F_GETFL, nullptr) & O_NONBLOCK, 0);
}

TEST_F(ConsoleKeyHit, EndOfInputIsNoKey)
{
    Pipe pipe;
    pipe.closeWriter();
    EXPECT_THAT(hitWhile([] {}, pipe.ends[0]), Fails(SDSTS_CONSOLE_FAILED, ENOTTY));
    expectNoKey();
}

TEST_F(ConsoleKeyHit, ClosedDescriptorIsAFailure)
{
    EXPECT_THAT(hitWhile([] {}, -1), Fails(SDSTS_CONSOLE_FAILED, EBADF));
    expectNoKey();
}

// ---- The key that is down

namespace {

using KeyDown = KEM_BOOL_T (*)(KEM_PKBDINFO_T, KEM_LWSPINLOCK_T*);

class ConsoleKeyDown : public testing::TestWithParam<KeyDown> {
protected:
    // Reads a key from standard input, which holds these bytes and then ends.
    KEM_BOOL_T keyDownAfter(std::string_view bytes, KEM_LWSPINLOCK_T* lock = nullptr)
    {
        Pipe input;
        input.put(bytes);
        input.closeWriter();
        const InPlaceOf standardInput(STDIN_FILENO, input.ends[0]);
        key_ = {7, 8};
        return GetParam()(&key_, lock);
    }
    void expectKey(int character, int scan) const
    {
        EXPECT_EQ(key_.chChar, character);
        EXPECT_EQ(key_.chScan, scan);
    }

    KEM_KBDINFO_T key_;
};

} // namespace

TEST_P(ConsoleKeyDown, IsThePlainOrExtendedKeyThatComes)
{
    EXPECT_EQ(keyDownAfter("kl"), TRUE);
    expectKey('k', 0);
    EXPECT_EQ(keyDownAfter("\xE0\x48"), TRUE);
    expectKey(0, 72);
    EXPECT_EQ(keyDownAfter({"\0\x3B", 2}), TRUE);
    expectKey(0, 59);
}

TEST_P(ConsoleKeyDown, AnnouncedScanCodeThatDoesNotComeIsAKeyWithScanCodeZero)
{
    EXPECT_EQ(keyDownAfter("\xE0"), TRUE);
    expectKey(0, 0);
    const Failing broken = Failing::nth(Call::read, 2, EIO);
    EXPECT_EQ(keyDownAfter("\xE0\x48"), TRUE);
    expectKey(0, 0);
}

TEST_P(ConsoleKeyDown, NoKeyIsFalseAndStoresZeros)
{
    EXPECT_EQ(keyDownAfter(""), FALSE);
    expectKey(0, 0);
    const Failing broken(Call::read, EIO);
    EXPECT_EQ(keyDownAfter("k"), FALSE);
    expectKey(0, 0);
}

TEST_P(ConsoleKeyDown, TheAnswerMayBeNull)
{
    const Pipe input;
    input.put("k");
    const InPlaceOf standardInput(STDIN_FILENO, input.ends[0]);
    EXPECT_EQ(GetParam()(nullptr, nullptr), TRUE);
}

TEST_P(ConsoleKeyDown, HoldsTheCallersLockWhileItReads)
{
    KEM_LWSPINLOCK_T lock;
    KemSdLWSpinlockInit(&lock);
    for (const std::string_view bytes : {"k", ""}) {
        const Interrupting reading(Call::read, 1, When::Before, [&] { EXPECT_TRUE(KemSdLWSpinlockOwner(&lock)); });
        EXPECT_EQ(keyDownAfter(bytes, &lock), !bytes.empty());
        EXPECT_TRUE(reading.happened());
        EXPECT_FALSE(KemSdLWSpinlockOwner(&lock));
    }
    KemSdLWSpinlockDestroy(&lock);
}

INSTANTIATE_TEST_SUITE_P(BothNames, ConsoleKeyDown, testing::Values(KemSdConsoleIsKeyDown, KemUnixConsoleIsKeyDown),
                         [](const auto& test) { return test.index == 0 ? "Console" : "UnixConsole"; });

// ---- Text out, characters in

TEST(Console, HandleIsStandardInputAndOutputUntilItIsCleared)
{
    KEM_CONSOLEHDL_T console{9, 9};
    EXPECT_THAT(reported(KemSdConsoleInit, &console), Succeeds());
    EXPECT_EQ(console.hTermIn, 0);
    EXPECT_EQ(console.hTermOut, 1);
    EXPECT_THAT(reported(KemSdConsoleTerm, &console), Succeeds());
    EXPECT_EQ(console.hTermIn, 0);
    EXPECT_EQ(console.hTermOut, 0);
    EXPECT_THAT(reported(KemSdConsoleInit, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdConsoleTerm, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(KemSdConsoleInit(nullptr, nullptr), SDSTS_INVALID_PARAM);
}

TEST(Console, WritesToItsOutput)
{
    const Pipe output;
    KEM_CONSOLEHDL_T console{-1, output.ends[1]};
    EXPECT_THAT(reported(KemSdConsoleWrite, &console, 5, "ready..."), Succeeds());
    EXPECT_EQ(output.take(), "ready");
}

TEST(Console, NullTextOrSizeZeroWritesNothing)
{
    KEM_CONSOLEHDL_T console{-1, -1};
    resetCalls();
    EXPECT_THAT(reported(KemSdConsoleWrite, &console, 5, nullptr), Succeeds());
    EXPECT_THAT(reported(KemSdConsoleWrite, &console, 0, "ready"), Succeeds());
    EXPECT_EQ(calls(Call::write), 0);
}

TEST(Console, WriteFailureIsReported)
{
    KEM_CONSOLEHDL_T console{-1, -1};
    EXPECT_THAT(reported(KemSdConsoleWrite, &console, 5, "ready"), Fails(SDSTS_CONSOLE_WRITE, EBADF));
}

TEST(Console, WithoutHandleStandardOutputIsWrittenAndTheHandleRefused)
{
    const Pipe output;
    Report report, failed;
    fflush(stdout);
    {
        const InPlaceOf standardOutput(STDOUT_FILENO, output.ends[1]);
        report = reported(KemSdConsoleWrite, nullptr, 5, "ready");
        const Failing full(Call::write, EIO);
        failed = reported(KemSdConsoleWrite, nullptr, 5, "ready");
    }
    EXPECT_EQ(output.take(), "ready");
    EXPECT_THAT(report, Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(failed, Fails(SDSTS_CONSOLE_WRITE, EIO));
}

TEST(Console, ReadingLinesIsNotSupportedAndWritesNothing)
{
    KEM_CONSOLEHDL_T console{0, 1};
    char text[] = "text";
    EXPECT_THAT(reported(KemSdConsoleRead, &console, sizeof text, text), Fails(SDSTS_NOT_SUPPORTED));
    EXPECT_THAT(reported(KemSdConsoleRead, nullptr, 0, nullptr), Fails(SDSTS_NOT_SUPPORTED));
    EXPECT_STREQ(text, "text");
}

// In a child, whose standard input as the C library sees it is used up afterwards.
TEST(Console, KeyGetTakesOneCharacterOfStandardInputATime)
{
    Pipe input;
    input.put("a\xE0xb");
    input.closeWriter();
    const Ended ended = inChild([&] {
        dup2(input.ends[0], STDIN_FILENO);
        for (const KEM_BOOL_T unkept : {FALSE, FALSE, TRUE, FALSE, FALSE}) {
            KEM_KBDINFO_T key{7, 8};
            const bool succeeded = Matches(Succeeds())(reported(KemSdConsoleKeyGet, unkept, nullptr, &key));
            printf("%d,%d,%d ", succeeded, key.chChar, key.chScan);
        }
        KemSdConsoleKeyGet(nullptr, FALSE, nullptr, nullptr);
        return 0;
    });
    // The third was not to be kept; the last one is the end.
    EXPECT_EQ(ended.out, "1,97,0 1,224,0 1,7,8 1,98,0 1,255,0 ");
    EXPECT_EQ(ended.status, 0);
}
