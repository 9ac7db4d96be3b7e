// Whole-file locks against a process that holds one, and what can be told about that process.

#include <gtest/gtest.h>
#include <kemsd/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <tuple>

#include "support/child.h"
#include "support/failingcalls.h"
#include "support/guardpasses.h"
#include "support/openfile.h"
#include "support/report.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

constexpr KEM_USHORT_T kShared = 0;
constexpr KEM_USHORT_T kExclusive = 1;

// A process that holds a lock on a file until the object goes.
class Holder {
public:
    Holder(const std::string& path, KEM_USHORT_T mode, const char* name = "holder")
        : child_([&] { return hold(path, mode, name); })
    {
        close(ready_[1]);
        ready_[1] = -1;
        if (read(ready_[0], &pid_, sizeof pid_) != sizeof pid_) ADD_FAILURE() << "the other process has no lock";
    }
    ~Holder() { close(ready_[0]); }

    pid_t pid() const { return pid_; }

private:
    int hold(const std::string& path, KEM_USHORT_T mode, const char* name)
    {
        prctl(PR_SET_NAME, name);
        OpenFile file(path);
        if (KemSdFileLock(nullptr, file, mode) != 0) return 1;
        const pid_t self = getpid();
        if (write(ready_[1], &self, sizeof self) != sizeof self) return 2;
        close(ready_[1]);
        char byte;
        return read(0, &byte, 1) == 0 ? 0 : 3; // until the parent lets go
    }

    struct Pipe {
        Pipe(int* ends)
        {
            if (pipe(ends) != 0) ADD_FAILURE() << "no pipe";
        }
    };
    int ready_[2] = {-1, -1};
    Pipe made_{ready_}; // before the child
    Child child_;
    pid_t pid_ = 0;
};

class FileLock : public testing::Test, protected GuardCounted {
protected:
    ~FileLock() override { KemSdSetFileLockingMode(KEM_FILE_LOCK_ADVISORY); }

    Report lock(KEM_USHORT_T mode) { return reported(KemSdFileLock, int(file_), mode); }
    Report unlock() { return reported(KemSdFileUnlock, int(file_)); }

    // Whether another process could lock the file exclusively.
    bool isFree()
    {
        return inChild([this] {
                   OpenFile other(path_);
                   struct flock lock = {};
                   lock.l_type = F_WRLCK;
                   return fcntl(other, F_SETLK, &lock) == 0 ? 0 : 1;
               }).status == 0;
    }
    unsigned modeBits()
    {
        struct stat record = {};
        stat(path_.c_str(), &record);
        return record.st_mode & 07777;
    }

    // The lock holder's entry, over values that no process has.
    Report askHolder()
    {
        pid_ = parent_ = group_ = 77;
        state_ = '?';
        memset(name_, 0, sizeof name_);
        return reported(KemSdFileLockProcInfo, int(file_), &pid_, name_, &state_, &parent_, &group_);
    }
    std::string name() const { return reinterpret_cast<const char*>(name_); }
    auto untouched() const { return std::tuple(name(), state_, parent_, group_) == std::tuple("", '?', 77u, 77u); }

    TempDir dir_;
    const std::string path_ = dir_.write("file", "content");
    OpenFile file_{path_};
    KEM_ULONG_T pid_ = 0, parent_ = 0, group_ = 0;
    KEM_UCHAR_T name_[64], state_ = 0;
};

} // namespace

// ---- Locks

TEST_F(FileLock, ExclusiveLockKeepsEveryOtherProcessOut)
{
    EXPECT_THAT(lock(7), Succeeds());
    EXPECT_FALSE(isFree());
    EXPECT_THAT(unlock(), Succeeds());
    EXPECT_TRUE(isFree());
}

TEST_F(FileLock, RefusalComesAtOnce)
{
    const Holder holder(path_, kExclusive);
    for (const KEM_USHORT_T mode : {kShared, kExclusive})
        EXPECT_THAT(lock(mode), testing::AnyOf(Fails(SDSTS_FILE_LOCK, EAGAIN), Fails(SDSTS_FILE_LOCK, EACCES)));
}

TEST_F(FileLock, SharedLocksStandSideBySide)
{
    const Holder holder(path_, kShared);
    EXPECT_THAT(lock(kShared), Succeeds());
    EXPECT_THAT(lock(kExclusive), Fails(SDSTS_FILE_LOCK, EAGAIN));
}

TEST_F(FileLock, CoversTheWholeFileHoweverFarItGrows)
{
    const Holder holder(path_, kShared);
    struct flock found = {};
    found.l_type = F_WRLCK;
    found.l_start = off_t{1} << 50;
    ASSERT_EQ(fcntl(file_, F_GETLK, &found), 0);
    EXPECT_EQ(found.l_type, F_RDLCK);
    EXPECT_EQ(found.l_start, 0);
    EXPECT_EQ(found.l_len, 0);
}

TEST_F(FileLock, UnlockWithoutALockChangesNothing) { EXPECT_THAT(unlock(), Succeeds()); }

TEST_F(FileLock, ReportsWhatTheSystemRefuses)
{
    EXPECT_THAT(reported(KemSdFileLock, -1, kExclusive), Fails(SDSTS_FILE_LOCK, EBADF));
    EXPECT_THAT(reported(KemSdFileUnlock, -1), Fails(SDSTS_FILE_UNLOCK, EBADF));
    const OpenFile readOnly(path_, O_RDONLY);
    EXPECT_THAT(reported(KemSdFileLock, int(readOnly), kExclusive), Fails(SDSTS_FILE_LOCK, EBADF));
    EXPECT_THAT(reported(KemSdFileLock, int(readOnly), kShared), Succeeds());
    Failing none(Call::fcntl, ENOLCK);
    EXPECT_THAT(lock(kExclusive), Fails(SDSTS_FILE_LOCK, ENOLCK));
    EXPECT_THAT(unlock(), Fails(SDSTS_FILE_UNLOCK, ENOLCK));
}

// ---- Modes

TEST_F(FileLock, ModeNoneTakesNoLockAndRunsTheGuard)
{
    const Holder holder(path_, kExclusive);
    KemSdSetFileLockingMode(KEM_FILE_LOCK_NONE);
    guardPasses = 0;
    resetCalls();
    EXPECT_THAT(lock(kExclusive), Succeeds());
    EXPECT_THAT(unlock(), Succeeds());
    EXPECT_EQ(calls(Call::fcntl), 0);
    EXPECT_EQ(guardPasses, 2);
}

TEST_F(FileLock, FailoverModeRunsTheGuardInPlaceOfTheLock)
{
    KemSdSetFailoverModeFlag(TRUE);
    KemSdSetFileLockingMode(KEM_FILE_LOCK_MANDATORY);
    guardPasses = 0;
    resetCalls();
    EXPECT_THAT(lock(kExclusive), Succeeds());
    EXPECT_EQ(guardPasses, 1);
    EXPECT_THAT(unlock(), Succeeds());
    EXPECT_EQ(guardPasses, 2);
    EXPECT_EQ(calls(Call::fcntl) + calls(Call::fchmod), 0);
}

TEST_F(FileLock, OtherwiseNoGuardRuns)
{
    guardPasses = 0;
    EXPECT_THAT(lock(kExclusive), Succeeds());
    EXPECT_THAT(unlock(), Succeeds());
    EXPECT_EQ(guardPasses, 0);
}

TEST_F(FileLock, ModeNotSetIsAdvisory)
{
    KemSdSetFileLockingMode(KEM_FILE_LOCK_NOTSET);
    resetCalls();
    EXPECT_THAT(lock(kExclusive), Succeeds());
    EXPECT_FALSE(isFree());
    EXPECT_EQ(calls(Call::fchmod), 0);
}

TEST_F(FileLock, MandatoryModeMarksTheFileForGood)
{
    KemSdSetFileLockingMode(KEM_FILE_LOCK_MANDATORY);
    struct {
        unsigned before, after;
        bool changed;
    } const kModes[] = {{0674, 02664, true}, {0644, 02644, true}, {02644, 02644, false}, {02674, 02674, false}};
    for (const auto& mode : kModes) {
        ASSERT_EQ(chmod(path_.c_str(), mode.before), 0);
        if (modeBits() != mode.before) GTEST_SKIP() << "this user may not set the group's bit";
        resetCalls();
        EXPECT_THAT(lock(kExclusive), Succeeds());
        EXPECT_EQ(modeBits(), mode.after);
        EXPECT_EQ(calls(Call::fchmod), mode.changed);
        EXPECT_FALSE(isFree());
        EXPECT_THAT(unlock(), Succeeds());
        EXPECT_EQ(modeBits(), mode.after);
    }
}

TEST_F(FileLock, AFileThatCannotBeMarkedIsNotLocked)
{
    KemSdSetFileLockingMode(KEM_FILE_LOCK_MANDATORY);
    for (const Call call : {Call::fstat, Call::fchmod}) {
        Failing refused(call, EPERM);
        EXPECT_THAT(lock(kExclusive), Fails(SDSTS_FILE_LOCK, EPERM));
    }
    EXPECT_TRUE(isFree());
}

// ---- The holder

TEST_F(FileLock, NobodyIsProcessZero)
{
    EXPECT_THAT(lock(kExclusive), Succeeds()) << "one's own lock is in nobody's way";
    EXPECT_THAT(askHolder(), Succeeds());
    EXPECT_EQ(pid_, 0u);
    EXPECT_TRUE(untouched());
}

TEST_F(FileLock, HolderIsNamedAsTheProcessTableDoes)
{
    for (const KEM_USHORT_T mode : {kShared, kExclusive}) {
        const Holder holder(path_, mode);
        EXPECT_THAT(askHolder(), Succeeds());
        EXPECT_EQ(pid_, static_cast<KEM_ULONG_T>(holder.pid()));
        EXPECT_EQ(name(), "(holder)");
        EXPECT_TRUE(strchr("RSD", state_)) << state_;
        EXPECT_EQ(parent_, static_cast<KEM_ULONG_T>(getpid()));
        EXPECT_EQ(group_, static_cast<KEM_ULONG_T>(getpgrp()));
    }
}

TEST_F(FileLock, WhiteSpaceInTheHoldersNameEndsIt)
{
    const Holder holder(path_, kExclusive, "two words");
    EXPECT_THAT(askHolder(), Succeeds());
    EXPECT_EQ(pid_, static_cast<KEM_ULONG_T>(holder.pid()));
    EXPECT_EQ(name(), "(two");
    EXPECT_EQ(state_, 'w');
    EXPECT_EQ(parent_, 77u);
    EXPECT_EQ(group_, 77u);
}

TEST_F(FileLock, HolderThatCannotBeLookedAtHasItsIdAlone)
{
    const Holder holder(path_, kExclusive);
    Failing gone(Call::fopen, ENOENT);
    EXPECT_THAT(askHolder(), Succeeds());
    EXPECT_EQ(pid_, static_cast<KEM_ULONG_T>(holder.pid()));
    EXPECT_TRUE(untouched());
}

TEST_F(FileLock, HolderQueryReportsWhatTheSystemRefuses)
{
    Failing none(Call::fcntl, EBADF);
    EXPECT_THAT(askHolder(), Fails(SDSTS_FILE_LOCK, EBADF));
    EXPECT_EQ(pid_, 77u);
    EXPECT_TRUE(untouched());
}

TEST_F(FileLock, HolderQueryNeedsEveryOutput)
{
    const auto ask = [this](KEM_PULONG_T pid, KEM_PUCHAR_T name, KEM_PUCHAR_T state, KEM_PULONG_T parent,
                            KEM_PULONG_T group) {
        return reported(KemSdFileLockProcInfo, int(file_), pid, name, state, parent, group);
    };
    const auto invalid = Fails(SDSTS_INVALID_PARAM);
    EXPECT_THAT(ask(nullptr, name_, &state_, &parent_, &group_), invalid);
    EXPECT_THAT(ask(&pid_, nullptr, &state_, &parent_, &group_), invalid);
    EXPECT_THAT(ask(&pid_, name_, nullptr, &parent_, &group_), invalid);
    EXPECT_THAT(ask(&pid_, name_, &state_, nullptr, &group_), invalid);
    EXPECT_THAT(ask(&pid_, name_, &state_, &parent_, nullptr), invalid);
}
