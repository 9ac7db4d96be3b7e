// The lease guard: in failover mode it runs once, first, in every guarded call, and in no other.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <kemsd/file.h>

#include <string>
#include <vector>

#include "support/child.h"
#include "support/guardpasses.h"
#include "support/openfile.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

class HandleGuard : public testing::Test, protected GuardCounted {
protected:
    // Valid calls of everything guarded.
    std::vector<Operation> guarded()
    {
        const char* path = path_.c_str();
        return {
            {"Open", 1, [=, this] { opened(KemSdFileOpen(nullptr, path, O_RDONLY, 0, &handle_)); }},
            {"SOpen", 1, [=, this] { opened(KemSdFileSOpen(nullptr, path, O_RDONLY, 0, 0, &handle_)); }},
            {"Open64", 1, [=, this] { opened(KemSdFileOpen64(nullptr, path, O_RDONLY, 0, &handle_)); }},
            {"OpenExclusive", 1,
             [=, this] { opened(KemSdFileOpenExclusiveMode(nullptr, path, O_RDONLY, 0, &handle_)); }},
            {"SOpenExclusive", 1,
             [=, this] { opened(KemSdFileSOpenExclusiveMode(nullptr, path, O_RDONLY, 0, 0, &handle_)); }},
            {"Open64Exclusive", 1,
             [=, this] { opened(KemSdFileOpen64ExclusiveMode(nullptr, path, O_RDONLY, 0, &handle_)); }},
            {"Create", 1, [this] { opened(KemSdFileCreate(nullptr, dir_.path("new").c_str(), 0600, &handle_)); }},
            {"Read", 1, [this] { EXPECT_EQ(KemSdFileRead(nullptr, file_, buffer_, 2, &count_), 0); }},
            {"Write", 1, [this] { EXPECT_EQ(KemSdFileWrite(nullptr, file_, buffer_, 2, &count_), 0); }},
            {"PRead", 1, [this] { EXPECT_EQ(KemSdFilePRead(nullptr, file_, buffer_, 0, 2, &moved_), 0); }},
            {"PWrite", 1, [this] { EXPECT_EQ(KemSdFilePWrite(nullptr, file_, buffer_, 0, 2, &moved_, nullptr), 0); }},
            {"LSeek", 1, [this] { EXPECT_EQ(KemSdFileLSeek(nullptr, file_, 0, SEEK_SET, &place_), 0); }},
            {"Tell", 1, [this] { EXPECT_EQ(KemSdFileTell(nullptr, file_, &place_), 0); }},
            {"Eof", 1, [this] { EXPECT_EQ(KemSdFileEof(nullptr, file_, &answer_), 0); }},
            {"Flush", 1, [this] { EXPECT_EQ(KemSdFileFlush(nullptr, file_), 0); }},
            {"Length", 1, [this] { EXPECT_EQ(KemSdFileLength(nullptr, file_, &place_), 0); }},
            {"Gets", 1, [this] { EXPECT_EQ(KemSdFileGets(nullptr, file_, buffer_, sizeof buffer_), 0); }},
            {"Access", 1, [=, this] { EXPECT_EQ(KemSdFileAccess(nullptr, path, F_OK, &answer_), 0); }},
            {"SetEndOfFile", 1, [this] { EXPECT_EQ(KemSdFileSetEndOfFile(nullptr, file_, 9, &place_, nullptr), 0); }},
            {"IsAttrDirectory", 1, [this] { EXPECT_EQ(KemSdIsAttrDirectory(nullptr, 0, &answer_), 0); }},
            {"Remove", 1, [this] { EXPECT_EQ(KemSdFileRemove(nullptr, dir_.path("new").c_str()), 0); }},
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

TEST_F(HandleGuard, RunsOnceInEveryGuardedCallInFailoverMode) { expectPasses(guarded(), true); }

TEST_F(HandleGuard, DoesNotRunOutsideFailoverMode) { expectPasses(guarded(), false); }

TEST_F(HandleGuard, RunsBeforeTheArgumentsAreChecked)
{
    const auto invalid = [](KEM_STS_T sts) { EXPECT_EQ(sts, SDSTS_INVALID_PARAM); };
    expectPasses(
        {
            {"Open", 1, [&] { invalid(KemSdFileOpen(nullptr, nullptr, 0, 0, nullptr)); }},
            {"SOpen", 1, [&] { invalid(KemSdFileSOpen(nullptr, nullptr, 0, 0, 0, nullptr)); }},
            {"Open64", 1, [&] { invalid(KemSdFileOpen64(nullptr, nullptr, 0, 0, nullptr)); }},
            {"OpenExclusive", 1, [&] { invalid(KemSdFileOpenExclusiveMode(nullptr, nullptr, 0, 0, nullptr)); }},
            {"SOpenExclusive", 1, [&] { invalid(KemSdFileSOpenExclusiveMode(nullptr, nullptr, 0, 0, 0, nullptr)); }},
            {"Open64Exclusive", 1, [&] { invalid(KemSdFileOpen64ExclusiveMode(nullptr, nullptr, 0, 0, nullptr)); }},
            {"Create", 1, [&] { invalid(KemSdFileCreate(nullptr, nullptr, 0, nullptr)); }},
            {"Read", 1, [&] { invalid(KemSdFileRead(nullptr, -1, nullptr, 0, nullptr)); }},
            {"Write", 1, [&] { invalid(KemSdFileWrite(nullptr, -1, nullptr, 0, nullptr)); }},
            {"PRead", 1, [&] { invalid(KemSdFilePRead(nullptr, -1, nullptr, 0, 0, nullptr)); }},
            {"PWrite", 1, [&] { invalid(KemSdFilePWrite(nullptr, -1, nullptr, 0, 0, nullptr, nullptr)); }},
            {"Tell", 1, [&] { invalid(KemSdFileTell(nullptr, -1, nullptr)); }},
            {"Eof", 1, [&] { invalid(KemSdFileEof(nullptr, -1, nullptr)); }},
            {"Length", 1, [&] { invalid(KemSdFileLength(nullptr, -1, nullptr)); }},
            {"Gets", 1, [&] { invalid(KemSdFileGets(nullptr, -1, nullptr, 0)); }},
            {"Access", 1, [&] { invalid(KemSdFileAccess(nullptr, nullptr, 0, nullptr)); }},
            {"Remove", 1, [&] { invalid(KemSdFileRemove(nullptr, nullptr)); }},
            {"SetEndOfFile", 1, [&] { invalid(KemSdFileSetEndOfFile(nullptr, -1, 0, nullptr, nullptr)); }},
            {"IsAttrDirectory", 1, [&] { invalid(KemSdIsAttrDirectory(nullptr, 0, nullptr)); }},
        },
        true);
}

TEST_F(HandleGuard, DoesNotRunInUnguardedCalls)
{
    constexpr KEM_FILEHDL_T kAboveAll = 0x7FFFFFFF;
    expectPasses(
        {
            {"Close", 0, [] { EXPECT_EQ(KemSdFileClose(nullptr, -1), SDSTS_FILE_CLOSE); }},
            {"IsDirectIO", 0, [this] { EXPECT_EQ(KemSdIsDirectIO(nullptr, nullptr, nullptr, &answer_), 0); }},
            {"IsNoWaitIO", 0, [this] { EXPECT_EQ(KemSdIsNoWaitIO(nullptr, nullptr, nullptr, &answer_), 0); }},
            {"CloseAllFrom", 0, [=] { EXPECT_EQ(KemSdFileCloseAllFrom(nullptr, kAboveAll), 0); }},
            {"AddFailoverModePrivileges", 0, [] { EXPECT_EQ(KemSdAddFailoverModePrivileges(0), 0666u); }},
        },
        true);
}

TEST_F(HandleGuard, ClosingAllInheritedDescriptorsDoesNotRunIt)
{
    KemSdSetFailoverModeFlag(TRUE);
    const auto closeAll = [] {
        KemSdFileCloseAllButNoStd(nullptr);
        return guardPasses;
    };
    EXPECT_EQ(inChild(closeAll).status, 0);
}
