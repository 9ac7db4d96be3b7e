// Directories removed with all that is in them, among them trees that somebody has prepared, or changes meanwhile.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <kemsd/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/failingcalls.h"
#include "support/report.h"
#include "support/tempdir.h"

using namespace kemsd::test;
namespace fs = std::filesystem;

namespace {

mode_t modeOf(const std::string& path)
{
    struct stat record;
    return lstat(path.c_str(), &record) == 0 ? record.st_mode & 07777 : 0;
}

size_t openDescriptors()
{
    const fs::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

class Removal : public testing::Test {
protected:
    Removal() { fs::create_directory(tree_); }
    ~Removal() override
    {
        EXPECT_EQ(openDescriptors(), descriptors_);
        EXPECT_EQ(liveBlocks(), blocks_);
        EXPECT_EQ(strayCloses(), 0);
    }

    Report remove() { return reported(KemSdDirRemove, tree_.c_str()); }
    bool gone() const { return !fs::exists(fs::symlink_status(tree_)); }
    std::string in(const std::string& name) const { return tree_ + "/" + name; }
    void write(const std::string& name) const { dir_.write("tree/" + name, "content"); }
    void makeDirectory(const std::string& name) const { fs::create_directories(in(name)); }
    static void link(const std::string& to, const std::string& path)
    {
        ASSERT_EQ(symlink(to.c_str(), path.c_str()), 0);
    }

    // A chain of directories, each with a file, made level by level because its path may be longer than any call takes.
    void makeChain(size_t levels, const std::string& name) const
    {
        int here = open(tree_.c_str(), O_RDONLY | O_DIRECTORY);
        for (size_t i = 0; i < levels; ++i) {
            close(openat(here, "f", O_WRONLY | O_CREAT, 0600));
            ASSERT_EQ(mkdirat(here, name.c_str(), 0700), 0);
            const int below = openat(here, name.c_str(), O_RDONLY | O_DIRECTORY);
            close(here);
            here = below;
        }
        close(here);
    }

    TempDir dir_;
    const std::string tree_ = dir_.path("tree");
    const size_t descriptors_ = openDescriptors();
    const long blocks_ = liveBlocks();
};

} // namespace

// ---- What goes and what stays

TEST_F(Removal, TakesEverythingInTheTree)
{
    for (const char* name : {"a", "b/c", "b/d/e", "b/d/f", "g/h/i/j"}) write(name);
    makeDirectory("empty/deeper");
    ASSERT_EQ(mkfifo(in("fifo").c_str(), 0600), 0);
    errno = EIO;
    EXPECT_THAT(remove(), Succeeds());
    EXPECT_TRUE(gone());
}

TEST_F(Removal, TakesAnEmptyDirectoryAndSlashesBehindItsName)
{
    EXPECT_THAT(reported(KemSdDirRemove, (tree_ + "///").c_str()), Succeeds());
    EXPECT_TRUE(gone());
}

TEST_F(Removal, TakesAReadOnlyFile)
{
    write("file");
    fs::permissions(in("file"), fs::perms::owner_read);
    EXPECT_THAT(remove(), Succeeds());
    EXPECT_TRUE(gone());
}

TEST_F(Removal, TakesManyEntriesWithManyNames)
{
    for (int i = 0; i < 600; ++i) {
        write("file with a longer name " + std::to_string(i));
        makeDirectory("directory with a longer name " + std::to_string(i));
    }
    EXPECT_THAT(remove(), Succeeds());
    EXPECT_TRUE(gone());
}

TEST_F(Removal, TakesNamesOfEveryKind)
{
    for (const std::string& name :
         {std::string(255, 'n'), std::string("two\nlines"), std::string("-rf"), std::string(" "), std::string("\\"),
          std::string("*"), std::string("[x]"), std::string("\x01\xff\xfe"), std::string("~"), std::string("a..")}) {
        write("files/" + name);
        makeDirectory("directories/" + name + "/" + name);
    }
    EXPECT_THAT(remove(), Succeeds());
    EXPECT_TRUE(gone());
}

TEST_F(Removal, HiddenNamesStayAndWithThemTheDirectoryAndItIsASuccess)
{
    for (const char* name : {"a", ".hidden", "b/c", "b/.hidden", "d/e", ".dir/f", "..."}) write(name);
    EXPECT_THAT(remove(), Succeeds());
    for (const char* name : {".hidden", "b/.hidden", ".dir/f", "..."}) EXPECT_TRUE(fs::exists(in(name))) << name;
    for (const char* name : {"a", "b/c", "d"}) EXPECT_FALSE(fs::exists(in(name))) << name;
}

// ---- Links

TEST_F(Removal, LinksGoAndWhatTheyLeadToStaysUntouched)
{
    const std::string outside = dir_.path("outside");
    dir_.write("outside/file", "text");
    fs::permissions(outside + "/file", fs::perms::owner_read);
    makeDirectory("sub");
    link(outside, in("directory"));
    link(outside, in("sub/directory"));
    link(outside + "/file", in("file"));
    link("nowhere", in("nowhere"));
    link("loop", in("loop"));
    link(".", in("self"));
    link("..", in("sub/above"));
    EXPECT_THAT(remove(), Succeeds());
    EXPECT_TRUE(gone());
    EXPECT_EQ(dir_.read("outside/file"), "text");
    EXPECT_EQ(modeOf(outside + "/file"), 0400u);
}

TEST_F(Removal, ALinkGivenAsTheDirectoryGoesItself)
{
    write("file");
    for (const char* name : {"link", "link/"}) {
        link(tree_, dir_.path("link"));
        EXPECT_THAT(reported(KemSdDirRemove, dir_.path(name).c_str()), Succeeds());
        EXPECT_FALSE(fs::exists(fs::symlink_status(dir_.path("link"))));
        EXPECT_TRUE(fs::exists(in("file")));
    }
    link(tree_, dir_.path("link"));
    const Failing kept(Call::unlink, EROFS);
    EXPECT_THAT(reported(KemSdDirRemove, dir_.path("link").c_str()), Fails(SDSTS_DIR_REMOVE, EROFS));
}

TEST_F(Removal, AnotherNameOfARemovedFileKeepsItsMode)
{
    write("file");
    fs::permissions(in("file"), fs::perms::owner_read);
    fs::create_hard_link(in("file"), dir_.path("other"));
    EXPECT_THAT(remove(), Succeeds());
    EXPECT_EQ(modeOf(dir_.path("other")), 0400u);
}

TEST_F(Removal, OnlyAFileThatMayNotGoIsMadeWritable)
{
    for (const int error : {EACCES, EPERM}) {
        write("file");
        fs::permissions(in("file"), fs::perms::owner_read);
        fs::create_hard_link(in("file"), dir_.path("other"));
        {
            const Failing refused = Failing::nth(Call::unlinkat, 1, error);
            EXPECT_THAT(remove(), Succeeds());
        }
        EXPECT_TRUE(gone());
        EXPECT_EQ(modeOf(dir_.path("other")), 0664u);
        fs::remove(dir_.path("other"));
        fs::create_directory(tree_);
    }
    write("file");
    fs::permissions(in("file"), fs::perms::owner_read);
    const Failing refused = Failing::nth(Call::unlinkat, 1, EBUSY);
    EXPECT_THAT(remove(), Fails(SDSTS_DIR_REMOVE, EBUSY));
    EXPECT_EQ(modeOf(in("file")), 0400u);
}

TEST_F(Removal, ALinkThatMayNotGoChangesNoMode)
{
    const std::string outside = dir_.write("outside", "");
    fs::permissions(outside, fs::perms::owner_read);
    link(outside, in("link"));
    const Failing refused = Failing::nth(Call::unlinkat, 1, EPERM);
    EXPECT_THAT(remove(), Succeeds());
    EXPECT_EQ(modeOf(outside), 0400u);
}

TEST_F(Removal, AFileExchangedForALinkBeforeItsModeIsChangedLeadsNowhere)
{
    const std::string outside = dir_.write("outside", "");
    fs::permissions(outside, fs::perms::owner_read);
    write("file");
    const Failing refused = Failing::nth(Call::unlinkat, 1, EACCES);
    const Interrupting exchange(Call::fchmodat, 1, When::Before, [&] {
        fs::remove(in("file"));
        link(outside, in("file"));
    });
    EXPECT_THAT(remove(), Succeeds());
    EXPECT_TRUE(exchange.happened());
    EXPECT_TRUE(gone());
    EXPECT_EQ(modeOf(outside), 0400u);
}

TEST_F(Removal, ADirectoryInThePlaceOfAFileThatMayNotGoKeepsItsMode)
{
    write("file");
    const Failing refused = Failing::nth(Call::unlinkat, 1, EACCES);
    const Interrupting exchange(Call::fstatat, 1, When::Before, [&] {
        fs::remove(in("file"));
        write("file/.hidden");
        fs::permissions(in("file"), fs::perms::owner_all);
    });
    EXPECT_THAT(remove(), Succeeds());
    EXPECT_TRUE(exchange.happened());
    EXPECT_EQ(modeOf(in("file")), 0700u);
}

// ---- What changes while the walk is on its way

TEST_F(Removal, ADirectoryExchangedForALinkIsNotEntered)
{
    dir_.write("outside/file", "text");
    write("sub/file");
    const Interrupting exchange(Call::openat, 2, When::Before, [&] {
        fs::remove_all(in("sub"));
        link(dir_.path("outside"), in("sub"));
    });
    EXPECT_THAT(remove(), Succeeds());
    EXPECT_TRUE(exchange.happened());
    EXPECT_TRUE(gone());
    EXPECT_TRUE(fs::exists(dir_.path("outside/file")));
}

TEST_F(Removal, WhatChangesItsKindGoesAllTheSame)
{
    write("a");
    {
        const Interrupting exchange(Call::unlinkat, 1, When::Before, [&] {
            fs::remove(in("a"));
            write("a/b");
        });
        EXPECT_THAT(remove(), Succeeds());
        EXPECT_TRUE(gone());
    }
    makeDirectory("a");
    const Interrupting exchange(Call::openat, 2, When::Before, [&] {
        fs::remove(in("a"));
        write("a");
    });
    EXPECT_THAT(remove(), Succeeds());
    EXPECT_TRUE(gone());
}

TEST_F(Removal, WhatVanishesMeanwhileIsGone)
{
    write("file");
    write("sub/file");
    for (const auto& [call, k] : std::vector<std::pair<Call, long>>{
             {Call::unlinkat, 1}, {Call::openat, 2}, {Call::getdents64, 3}, {Call::unlinkat, 2}}) {
        write("file");
        write("sub/file");
        const Interrupting other(call, k, When::Before, [&] {
            fs::remove(in("file"));
            fs::remove_all(in("sub"));
        });
        EXPECT_THAT(remove(), Succeeds());
        EXPECT_TRUE(other.happened());
        EXPECT_TRUE(gone());
    }
    write("file");
    const Interrupting everything(Call::getdents64, 1, When::Before, [&] { fs::remove_all(tree_); });
    EXPECT_THAT(remove(), Succeeds());
}

TEST_F(Removal, WhatIsAddedMeanwhileStaysAndIsNoFailure)
{
    write("sub/file");
    const Interrupting other(Call::openat, 2, When::After, [&] { write("late"); });
    EXPECT_THAT(remove(), Succeeds());
    EXPECT_TRUE(fs::exists(in("late")));
    EXPECT_FALSE(fs::exists(in("sub")));
}

TEST_F(Removal, AFileSystemThatTellsNoKindsIsAsked)
{
    const KindsHidden hidden;
    dir_.write("outside/file", "");
    write("a");
    write("b/c");
    link(dir_.path("outside"), in("link"));
    EXPECT_THAT(remove(), Succeeds());
    EXPECT_TRUE(gone());
    EXPECT_TRUE(fs::exists(dir_.path("outside/file")));
}

// ---- Depth

TEST_F(Removal, TakesATree500Deep)
{
    ASSERT_LT(tree_.size() + 2 * 490, 1028u);
    const size_t levels = (1028 - tree_.size() - 2) / 2; // a file in the last but one still fits
    makeChain(levels, "d");
    EXPECT_THAT(remove(), Succeeds());
    EXPECT_TRUE(gone());
}

TEST_F(Removal, ADeepTreeTakesFewDescriptors)
{
    makeChain(450, "d");
    const auto withFewDescriptors = [&] {
        const rlimit few{64, 64};
        setrlimit(RLIMIT_NOFILE, &few);
        return KemSdDirRemove(nullptr, tree_.c_str()) == 0 ? 0 : 1;
    };
    EXPECT_EQ(inChild(withFewDescriptors).status, 0);
    EXPECT_TRUE(gone());
}

TEST_F(Removal, TooFewDescriptorsAreReported)
{
    makeChain(20, "d");
    const auto withTooFew = [&] {
        const rlimit few{10, 10};
        setrlimit(RLIMIT_NOFILE, &few);
        KEM_SDCTX_T context{};
        return KemSdDirRemove(&context, tree_.c_str()) == SDSTS_DIR_REMOVE ? context.osRetCode : 0;
    };
    EXPECT_EQ(inChild(withTooFew).status, EMFILE);
    EXPECT_THAT(remove(), Succeeds());
}

TEST_F(Removal, APathBeyond1028CharactersStopsIt)
{
    const std::string name(100, 'd');
    makeChain(12, name);
    EXPECT_THAT(remove(), Fails(SDSTS_DIR_REMOVE, ENAMETOOLONG));
    EXPECT_FALSE(gone());
    EXPECT_FALSE(fs::exists(in("f"))) << "what came before is gone";
    EXPECT_THAT(reported(KemSdDirRemove, (tree_ + std::string(1029 - tree_.size(), 'x')).c_str()),
                Fails(SDSTS_DIR_REMOVE, ENAMETOOLONG));
}

TEST_F(Removal, APathOf1028CharactersIsTheLongest)
{
    std::string directory;
    while (tree_.size() + directory.size() + 102 < 1000) directory += std::string(100, 'd') + "/";
    const size_t left = 1028 - (tree_.size() + 1 + directory.size());
    write(directory + std::string(left, 'f'));
    EXPECT_THAT(remove(), Succeeds());
    makeDirectory(directory + std::string(left, 'd'));
    EXPECT_THAT(remove(), Succeeds());
    EXPECT_TRUE(gone());
    write(directory + std::string(left + 1, 'f'));
    EXPECT_THAT(remove(), Fails(SDSTS_DIR_REMOVE, ENAMETOOLONG));
}

TEST_F(Removal, ADeepDirectoryMovedAwayMeanwhileStopsIt)
{
    makeChain(40, "d");
    std::string moved = tree_;
    for (int i = 0; i < 38; ++i) moved += "/d";
    // The walk stands in the last directory when it asks for its entries; the one above it was closed.
    const Interrupting move(Call::getdents64, 2 * 40 + 1, When::Before,
                            [&] { fs::rename(moved + "/d/d", dir_.path("moved")); });
    EXPECT_THAT(remove(), Fails(SDSTS_DIR_REMOVE, ESTALE));
    EXPECT_TRUE(move.happened());
    EXPECT_TRUE(fs::exists(moved)) << "nothing is removed by name from where the walk did not expect to be";
    EXPECT_TRUE(fs::exists(dir_.path("moved")));
}

// ---- Failures

TEST_F(Removal, NeedsADirectory)
{
    EXPECT_THAT(reported(KemSdDirRemove, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdDirRemove, ""), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdDirRemove, in("missing").c_str()), Fails(SDSTS_DIR_REMOVE, ENOENT));
    write("file");
    EXPECT_THAT(reported(KemSdDirRemove, in("file").c_str()), Fails(SDSTS_DIR_REMOVE, ENOTDIR));
    EXPECT_TRUE(fs::exists(in("file")));
}

TEST_F(Removal, TheFirstFailureStopsTheWalkAndNamesTheCause)
{
    write("a/b/file");
    write("c/d/file");
    struct Cause {
        Call call;
        long k;
        int error;
    };
    // The first directory is entered by the second openat and read by the third getdents64.
    for (const Cause& cause :
         {Cause{Call::openat, 1, EACCES}, Cause{Call::openat, 2, EMFILE}, Cause{Call::getdents64, 1, EIO},
          Cause{Call::getdents64, 3, EIO}, Cause{Call::unlinkat, 1, EROFS}}) {
        const Failing failing = Failing::nth(cause.call, cause.k, cause.error);
        EXPECT_THAT(remove(), Fails(SDSTS_DIR_REMOVE, cause.error));
        EXPECT_TRUE(fs::exists(in("a/b/file")));
        EXPECT_TRUE(fs::exists(in("c/d/file")));
    }
}

TEST_F(Removal, ADirectoryThatDoesNotGoAfterAGoodWalkIsNoFailure)
{
    write("sub/file");
    const Failing kept = Failing::nth(Call::unlinkat, 2, EBUSY);
    EXPECT_THAT(remove(), Succeeds());
    EXPECT_FALSE(fs::exists(in("sub/file")));
    EXPECT_TRUE(fs::exists(in("sub")));
}

TEST_F(Removal, AfterAFailedWalkTheDirectoryIsTriedAndItsOwnFailureReported)
{
    const Failing unread(Call::getdents64, EIO);
    {
        const Failing kept(Call::unlinkat, EBUSY);
        EXPECT_THAT(remove(), Fails(SDSTS_DIR_REMOVE, EBUSY));
    }
    EXPECT_FALSE(gone());
    EXPECT_THAT(remove(), Fails(SDSTS_DIR_REMOVE, EIO)) << "the walk's, although the empty directory went";
    EXPECT_TRUE(gone());
}

TEST_F(Removal, DeepDownFailuresLeaveNothingOpen)
{
    makeChain(60, "d");
    for (const Call call : {Call::fstat, Call::openat, Call::getdents64, Call::unlinkat}) {
        const Failing failing(call, EIO);
        EXPECT_EQ(remove().result, SDSTS_DIR_REMOVE);
    }
    // Entering 61 directories, then the way up by "..".
    const Failing lost = Failing::nth(Call::openat, 62, EMFILE);
    EXPECT_THAT(remove(), Fails(SDSTS_DIR_REMOVE, EMFILE));
}

TEST_F(Removal, SurvivesEveryFailingRequestForMemory)
{
    const auto scenario = [&](long) {
        makeDirectory("a/b");
        const Report report = remove();
        if (allocationFailed())
            EXPECT_THAT(report, Fails(SDSTS_DIR_REMOVE, ENOMEM));
        else
            EXPECT_THAT(report, Succeeds());
    };
    EXPECT_EQ(sweepAllocationFailures(scenario), 2);
    EXPECT_TRUE(gone());
}
