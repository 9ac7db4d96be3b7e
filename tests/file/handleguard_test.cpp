// The lease guard: in failover mode it runs once, first, in every guarded call, and in no other.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <kemsd/file.h>

#include <functional>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/openfile.h"
#include "support/tempdir.h"

namespace {

using kemsd::test::OpenFile;
using kemsd::test::TempDir;

int passes;
void countPass() { ++passes; }

struct Operation {
    const char* name;
    std::function<void()> call;
};

class HandleGuard : public testing::Test {
protected:
    HandleGuard() { KemSdSetLeaseGuardAccessFunction(countPass); }
    ~HandleGuard() override { KemSdSetFailoverModeFlag(FALSE); }

    static void expectPasses(const std::vector<Operation>& operations, int expected)
    {
        for (const Operation& operation : operations) {
            passes = 0;
            operation.call();
            EXPECT_EQ(passes, expected) << operation.name;
        }
    }

    // Valid calls of everything guarded.
    std::vector<Operation> guarded()
    {
        const char* path = path_.c_str();
        return {
            {"Open", [=, this] { opened(KemSdFileOpen(nullptr, path, O_RDONLY, 0, &handle_)); }},
            {"SOpen", [=, this] { opened(KemSdFileSOpen(nullptr, path, O_RDONLY, 0, 0, &handle_)); }},
            {"Open64", [=, this] { opened(KemSdFileOpen64(nullptr, path, O_RDONLY, 0, &handle_)); }},
            {"OpenExclusive", [=, this] { opened(KemSdFileOpenExclusiveMode(nullptr, path, O_RDONLY, 0, &handle_)); }},
            {"SOpenExclusive",
             [=, this] { opened(KemSdFileSOpenExclusiveMode(nullptr, path, O_RDONLY, 0, 0, &handle_)); }},
            {"Open64Exclusive",
             [=, this] { opened(KemSdFileOpen64ExclusiveMode(nullptr, path, O_RDONLY, 0, &handle_)); }},
            {"Create", [this] { opened(KemSdFileCreate(nullptr, dir_.path("new").c_str(), 0600, &handle_)); }},
            {"Read", [this] { EXPECT_EQ(KemSdFileRead(nullptr, file_, buffer_, 2, &count_), 0); }},
            {"Write", [this] { EXPECT_EQ(KemSdFileWrite(nullptr, file_, buffer_, 2, &count_), 0); }},
            {"PRead", [this] { EXPECT_EQ(KemSdFilePRead(nullptr, file_, buffer_, 0, 2, &moved_), 0); }},
            {"PWrite", [this] { EXPECT_EQ(KemSdFilePWrite(nullptr, file_, buffer_, 0, 2, &moved_, nullptr), 0); }},
            {"LSeek", [this] { EXPECT_EQ(KemSdFileLSeek(nullptr, file_, 0, SEEK_SET, &place_), 0); }},
            {"Tell", [this] { EXPECT_EQ(KemSdFileTell(nullptr, file_, &place_), 0); }},
            {"Eof", [this] { EXPECT_EQ(KemSdFileEof(nullptr, file_, &answer_), 0); }},
            {"Flush", [this] { EXPECT_EQ(KemSdFileFlush(nullptr, file_), 0); }},
            {"Length", [this] { EXPECT_EQ(KemSdFileLength(nullptr, file_, &place_), 0); }},
            {"Gets", [this] { EXPECT_EQ(KemSdFileGets(nullptr, file_, buffer_, sizeof buffer_), 0); }},
            {"Access", [=, this] { EXPECT_EQ(KemSdFileAccess(nullptr, path, F_OK, &answer_), 0); }},
            {"SetEndOfFile", [this] { EXPECT_EQ(KemSdFileSetEndOfFile(nullptr, file_, 9, &place_, nullptr), 0); }},
            {"IsAttrDirectory", [this] { EXPECT_EQ(KemSdIsAttrDirectory(nullptr, 0, &answer_), 0); }},
            {"Remove", [this] { EXPECT_EQ(KemSdFileRemove(nullptr, dir_.path("new").c_str()), 0); }},
        };
    }

    void opened(KEM_STS_T sts)
    {
        EXPECT_EQ(sts, 0);
        if (sts == 0) close(handle_);
    }

    TempDir dir_;
    const std::string path_ = dir_.write("file", "line\nmore\nand more\n");
    OpenFile file_{path_};
    KEM_FILEHDL_T handle_ = -1;
    char buffer_[8] = {};
    int count_ = 0;
    KEM_UINT_T moved_ = 0;
    KEM_LONG_T place_ = 0;
    KEM_BOOL_T answer_ = 0;
};

} // namespace

TEST_F(HandleGuard, RunsOnceInEveryGuardedCallInFailoverMode)
{
    KemSdSetFailoverModeFlag(TRUE);
    expectPasses(guarded(), 1);
}

TEST_F(HandleGuard, DoesNotRunOutsideFailoverMode) { expectPasses(guarded(), 0); }

TEST_F(HandleGuard, RunsBeforeTheArgumentsAreChecked)
{
    KemSdSetFailoverModeFlag(TRUE);
    const auto invalid = [](KEM_STS_T sts) { EXPECT_EQ(sts, SDSTS_INVALID_PARAM); };
    expectPasses(
        {
            {"Open", [&] { invalid(KemSdFileOpen(nullptr, nullptr, 0, 0, nullptr)); }},
            {"SOpen", [&] { invalid(KemSdFileSOpen(nullptr, nullptr, 0, 0, 0, nullptr)); }},
            {"Open64", [&] { invalid(KemSdFileOpen64(nullptr, nullptr, 0, 0, nullptr)); }},
            {"OpenExclusive", [&] { invalid(KemSdFileOpenExclusiveMode(nullptr, nullptr, 0, 0, nullptr)); }},
            {"SOpenExclusive", [&] { invalid(KemSdFileSOpenExclusiveMode(nullptr, nullptr, 0, 0, 0, nullptr)); }},
            {"Open64Exclusive", [&] { invalid(KemSdFileOpen64ExclusiveMode(nullptr, nullptr, 0, 0, nullptr)); }},
            {"Create", [&] { invalid(KemSdFileCreate(nullptr, nullptr, 0, nullptr)); }},
            {"Read", [&] { invalid(KemSdFileRead(nullptr, -1, nullptr, 0, nullptr)); }},
            {"Write", [&] { invalid(KemSdFileWrite(nullptr, -1, nullptr, 0, nullptr)); }},
            {"PRead", [&] { invalid(KemSdFilePRead(nullptr, -1, nullptr, 0, 0, nullptr)); }},
            {"PWrite", [&] { invalid(KemSdFilePWrite(nullptr, -1, nullptr, 0, 0, nullptr, nullptr)); }},
            {"Tell", [&] { invalid(KemSdFileTell(nullptr, -1, nullptr)); }},
            {"Eof", [&] { invalid(KemSdFileEof(nullptr, -1, nullptr)); }},
            {"Length", [&] { invalid(KemSdFileLength(nullptr, -1, nullptr)); }},
            {"Gets", [&] { invalid(KemSdFileGets(nullptr, -1, nullptr, 0)); }},
            {"Access", [&] { invalid(KemSdFileAccess(nullptr, nullptr, 0, nullptr)); }},
            {"Remove", [&] { invalid(KemSdFileRemove(nullptr, nullptr)); }},
            {"SetEndOfFile", [&] { invalid(KemSdFileSetEndOfFile(nullptr, -1, 0, nullptr, nullptr)); }},
            {"IsAttrDirectory", [&] { invalid(KemSdIsAttrDirectory(nullptr, 0, nullptr)); }},
        },
        1);
}

TEST_F(HandleGuard, DoesNotRunInUnguardedCalls)
{
    KemSdSetFailoverModeFlag(TRUE);
    constexpr KEM_FILEHDL_T kAboveAll = 0x7FFFFFFF;
    expectPasses(
        {
            {"Close", [] { EXPECT_EQ(KemSdFileClose(nullptr, -1), SDSTS_FILE_CLOSE); }},
            {"IsDirectIO", [this] { EXPECT_EQ(KemSdIsDirectIO(nullptr, nullptr, nullptr, &answer_), 0); }},
            {"IsNoWaitIO", [this] { EXPECT_EQ(KemSdIsNoWaitIO(nullptr, nullptr, nullptr, &answer_), 0); }},
            {"CloseAllFrom", [=] { EXPECT_EQ(KemSdFileCloseAllFrom(nullptr, kAboveAll), 0); }},
            {"AddFailoverModePrivileges", [] { EXPECT_EQ(KemSdAddFailoverModePrivileges(0), 0666u); }},
        },
        0);
}

TEST_F(HandleGuard, ClosingAllInheritedDescriptorsDoesNotRunIt)
{
    KemSdSetFailoverModeFlag(TRUE);
    const auto closeAll = [] {
        KemSdFileCloseAllButNoStd(nullptr);
        return passes;
    };
    EXPECT_EQ(kemsd::test::inChild(closeAll).status, 0);
}
