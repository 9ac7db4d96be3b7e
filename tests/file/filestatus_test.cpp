// Whether anybody has a file open, asked of a command that the test puts on the search path.

#include <gtest/gtest.h>
#include <kemsd/file.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/failingcalls.h"
#include "support/guardpasses.h"
#include "support/openfile.h"
#include "support/report.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

namespace fs = std::filesystem;

constexpr KEM_BIT32_T kPending = KEM_FILE_STATUS_PENDING, kInUse = KEM_FILE_STATUS_IN_USE, kFree = KEM_FILE_STATUS_FREE,
                      kAbsent = KEM_FILE_STATUS_ABSENT, kUnknown = KEM_FILE_STATUS_UNKNOWN;
constexpr KEM_BIT32_T kOthers = 0x80000040; // bits of the caller's own

class FileStatus : public testing::Test, protected GuardCounted {
protected:
    FileStatus()
    {
        fs::create_directory(dir_.path("tmp"));
        setenv("TMPDIR", dir_.path("tmp").c_str(), 1);
    }
    ~FileStatus() override
    {
        setenv("PATH", searchPath_.c_str(), 1);
        unsetenv("TMPDIR");
    }

    // What the command does: a shell script, called with the file's name.
    void command(const std::string& script)
    {
        const std::string tell = "printf '%s|' \"$@\" >'" + dir_.path("asked") + "'\n";
        chmod(dir_.write("bin/fuser", "#!/bin/sh\n" + tell + script + "\n").c_str(), 0755);
        setenv("PATH", (dir_.path("bin") + ":" + searchPath_).c_str(), 1);
    }

    Report ask(const std::string& name, KEM_BIT32_T before = kOthers)
    {
        status_ = before;
        return reported(KemSdFileGetStatus, const_cast<char*>(name.c_str()), &status_);
    }

    bool wasAsked() const { return fs::exists(dir_.path("asked")); }
    // Names left in the directory of temporary files.
    bool nothingLeft() const { return fs::is_empty(dir_.path("tmp")); }

    const std::string searchPath_ = getenv("PATH");
    TempDir dir_;
    const std::string file_ = dir_.write("file", "content");
    KEM_BIT32_T status_ = 0;
};

} // namespace

TEST_F(FileStatus, EveryFormOfAnswerIsRead)
{
    struct {
        const char* script;
        KEM_STS_T status;
        KEM_BIT32_T bits;
    } const kAnswers[] = {
        {"echo \"$1: 1234\"", 0, kInUse},
        {"echo \"$1:                1234c 5678m\"", 0, kInUse},
        {"echo \"$1:\" >&2; echo ' 1234'", 0, kFree}, // another line
        {"printf '%s:' \"$1\" >&2; printf ' 1234'; printf 'c\\n' >&2", 0, kInUse},
        {"printf '%s: 1234' \"$1\"", 0, kInUse},
        {"echo \"$1 1234\"", 0, kInUse},
        {"echo \"$1: -5\"", 0, kInUse},
        {"echo \"$1:\"; exit 1", 0, kFree},
        {"echo \"$1:1234\"", 0, kFree},
        {"echo \"$1: nobody\"", 0, kFree},
        {"echo \"$1\"", 0, kFree},
        {"exit 1", SDSTS_FILE_STATUS, kPending | kUnknown},
        {"echo 'not found' >&2; exit 127", SDSTS_FILE_STATUS, kPending | kUnknown},
        {"echo; echo \"$1: 1234\"", SDSTS_FILE_STATUS, kPending | kUnknown},
    };
    for (const auto& answer : kAnswers) {
        SCOPED_TRACE(answer.script);
        command(answer.script);
        const Report report = ask(file_);
        EXPECT_EQ(report.result, answer.status);
        EXPECT_EQ(report.sts, answer.status);
        EXPECT_EQ(report.osRetCode, 0);
        EXPECT_EQ(status_, kOthers | answer.bits);
        EXPECT_EQ(dir_.read("asked"), file_ + "|");
        EXPECT_TRUE(nothingLeft());
    }
}

TEST_F(FileStatus, AnAnswerReplacesAnEarlierOne)
{
    command("echo \"$1: 1234\"");
    EXPECT_THAT(ask(file_, kOthers | kFree), Succeeds());
    EXPECT_EQ(status_, kOthers | kInUse);
    command("echo \"$1:\"");
    EXPECT_THAT(ask(file_, status_ | kAbsent | kUnknown), Succeeds());
    EXPECT_EQ(status_, kOthers | kFree | kAbsent | kUnknown);
}

TEST_F(FileStatus, AMissingFileIsAbsentAndPending)
{
    command("echo \"$1: 1234\"");
    EXPECT_THAT(ask(dir_.path("none")), Succeeds());
    EXPECT_EQ(status_, kOthers | kPending | kAbsent);
    EXPECT_FALSE(wasAsked());
}

TEST_F(FileStatus, AFileThatCannotBeReadIsUnknown)
{
    command("echo \"$1: 1234\"");
    const Failing unreadable = Failing::nth(Call::access, 2, EACCES);
    EXPECT_THAT(ask(file_), Succeeds());
    EXPECT_EQ(status_, kOthers | kPending | kUnknown);
    EXPECT_FALSE(wasAsked());
}

TEST_F(FileStatus, MissingPointersAreInvalid)
{
    EXPECT_THAT(reported(KemSdFileGetStatus, nullptr, &status_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdFileGetStatus, const_cast<char*>("file"), nullptr), Fails(SDSTS_INVALID_PARAM));
}

// ---- Steps that fail

TEST_F(FileStatus, EveryStepThatFailsLeavesUnknownAndNoTemporaryFile)
{
    command("echo \"$1: 1234\"");
    struct {
        Call call;
        int error;
    } const kSteps[] = {{Call::mkstemp, EROFS}, {Call::system, EAGAIN}, {Call::open, EMFILE}, {Call::read, EIO}};
    for (const auto& step : kSteps) {
        SCOPED_TRACE(strerror(step.error));
        Failing failing(step.call, step.error);
        EXPECT_THAT(ask(file_), Fails(SDSTS_FILE_STATUS, step.error));
        EXPECT_EQ(status_, kOthers | kPending | kUnknown);
        EXPECT_TRUE(nothingLeft());
    }
}

TEST_F(FileStatus, NamesThatDoNotFitAreNotAskedFor)
{
    command("echo \"$1: 1234\"");
    std::string deep = dir_.path();
    while (deep.size() < 1000) deep += "/" + std::string(200, 'd');
    fs::create_directories(deep);
    const std::string quotes = dir_.path(std::string(200, '\'') + "/" + std::string(200, '\''));
    fs::create_directories(quotes);
    for (const std::string& name : {deep, quotes}) {
        EXPECT_THAT(ask(name), Fails(SDSTS_FILE_STATUS, ENAMETOOLONG));
        EXPECT_EQ(status_, kOthers | kPending | kUnknown);
        EXPECT_TRUE(nothingLeft());
    }
    setenv("TMPDIR", deep.c_str(), 1);
    EXPECT_THAT(ask(file_), Fails(SDSTS_FILE_STATUS, ENAMETOOLONG));
    EXPECT_TRUE(fs::is_empty(deep));
    EXPECT_FALSE(wasAsked());
}

// ---- Names that a shell would read otherwise

TEST_F(FileStatus, HostileNamesArriveAsOneWord)
{
    command("printf '%s: 42\\n' \"$1\"");
    const fs::path before = fs::current_path();
    fs::current_path(dir_.path());
    for (const char* name : {"plain-_.+,:@%=name",
                             "two words",
                             "a  b\tc ",
                             "it's",
                             "''",
                             "\"quoted\"",
                             "$(touch pwned)",
                             "`touch pwned`",
                             "a;touch pwned",
                             "a&touch pwned&",
                             "a|touch pwned",
                             "a>pwned",
                             "*",
                             "?",
                             "[a-z]",
                             "~",
                             "#x",
                             "!x",
                             "$HOME",
                             "back\\slash",
                             "{a,b}",
                             "(x)",
                             "\xC3\xA4\xFF"}) {
        SCOPED_TRACE(name);
        dir_.write(name, "x");
        EXPECT_THAT(ask(name), Succeeds());
        EXPECT_EQ(status_, kOthers | kInUse);
        EXPECT_EQ(dir_.read("asked"), std::string(name) + "|");
        EXPECT_FALSE(fs::exists(dir_.path("pwned")));
        EXPECT_TRUE(nothingLeft());
    }
    fs::current_path(before);
}

TEST_F(FileStatus, ANameOfTwoLinesHasNoAnswerOfOne)
{
    command("printf '%s: 42\\n' \"$1\"");
    const std::string name = dir_.write("a\ntouch pwned", "x");
    EXPECT_THAT(ask(name), Fails(SDSTS_FILE_STATUS));
    EXPECT_EQ(status_, kOthers | kPending | kUnknown);
    EXPECT_EQ(dir_.read("asked"), name + "|");
}

TEST_F(FileStatus, ANameWithoutAProcessIsFreeWhateverItHolds)
{
    command("printf '%s:\\n' \"$1\"");
    EXPECT_THAT(ask(dir_.write("file 77 88", "x")), Succeeds());
    EXPECT_EQ(status_, kOthers | kFree);
}

TEST_F(FileStatus, ANameThatLooksLikeAnOptionIsNotAskedFor)
{
    command("echo \"$1: 1234\"");
    const fs::path before = fs::current_path();
    fs::current_path(dir_.path());
    dir_.write("-k", "x");
    EXPECT_THAT(ask("-k"), Fails(SDSTS_FILE_STATUS));
    EXPECT_EQ(status_, kOthers | kPending | kUnknown);
    EXPECT_FALSE(wasAsked());
    EXPECT_THAT(ask("./-k"), Succeeds());
    fs::current_path(before);
}

TEST_F(FileStatus, TheDirectoryOfTemporaryFilesMayHaveAnyName)
{
    command("echo \"$1: 1234\"");
    const std::string place = dir_.path("a $(touch pwned) 'b'");
    fs::create_directory(place);
    setenv("TMPDIR", place.c_str(), 1);
    EXPECT_THAT(ask(file_), Succeeds());
    EXPECT_EQ(status_, kOthers | kInUse);
    EXPECT_TRUE(fs::is_empty(place));
}

// ---- The system's own command, and the guard

// It complains first where it may not look at every process; then there is no answer.
TEST_F(FileStatus, TheSystemsCommandSeesThisProcess)
{
    const OpenFile open(file_);
    if (!runProgram({"sh", "-c", "exec fuser \"$0\" 2>&1", file_}).out.starts_with(file_ + ":"))
        GTEST_SKIP() << "no fuser that answers here";
    EXPECT_THAT(ask(file_), Succeeds());
    EXPECT_EQ(status_, kOthers | kInUse);
}

TEST_F(FileStatus, TheGuardComesFirst)
{
    const Operation query{"GetStatus", 1, [] { return KemSdFileGetStatus(nullptr, nullptr, nullptr); },
                          SDSTS_INVALID_PARAM};
    for (const bool failover : {true, false}) expectPasses({query}, failover);
}
