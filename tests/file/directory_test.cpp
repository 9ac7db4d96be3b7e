// Directories made and changed, paths created, temporary files, links.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <kemsd/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "support/failingcalls.h"
#include "support/report.h"
#include "support/tempdir.h"

using namespace kemsd::test;
namespace fs = std::filesystem;

namespace {

mode_t modeOf(const std::string& path)
{
    struct stat record;
    return stat(path.c_str(), &record) == 0 ? record.st_mode & 07777 : 0;
}

class Directory : public testing::Test {
protected:
    Directory() : mask_(umask(0)) {}
    ~Directory() override
    {
        umask(mask_);
        fs::current_path(before_);
    }

    const mode_t mask_;
    const fs::path before_ = fs::current_path();
    TempDir dir_;
    const std::string path_ = dir_.path("new");
};

} // namespace

// ---- Making

TEST_F(Directory, IsMadeForAllThatTheUmaskLeaves)
{
    EXPECT_THAT(reported(KemSdDirCreate, path_.c_str()), Succeeds());
    EXPECT_EQ(modeOf(path_), 0777u);
    umask(027);
    EXPECT_THAT(reported(KemSdDirCreate, dir_.path("masked").c_str()), Succeeds());
    EXPECT_EQ(modeOf(dir_.path("masked")), 0750u);
}

TEST_F(Directory, MakingReportsWhatIsInTheWay)
{
    EXPECT_THAT(reported(KemSdDirCreate, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdDirCreate, dir_.path().c_str()), Fails(SDSTS_DIR_CREATE, EEXIST));
    EXPECT_THAT(reported(KemSdDirCreate, dir_.path("a/b").c_str()), Fails(SDSTS_DIR_CREATE, ENOENT));
}

TEST_F(Directory, WhatExistsNeedNotBeMade)
{
    dir_.write("file", "");
    errno = EIO;
    for (const std::string& path : {dir_.path(), dir_.path("file")}) {
        resetCalls();
        EXPECT_THAT(reported(KemSdDirCreateEx, path.c_str()), Succeeds());
        EXPECT_EQ(calls(Call::mkdir), 0);
    }
    EXPECT_THAT(reported(KemSdDirCreateEx, path_.c_str()), Succeeds());
    EXPECT_TRUE(fs::is_directory(path_));
    EXPECT_THAT(reported(KemSdDirCreateEx, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdDirCreateEx, ""), Fails(SDSTS_DIR_CREATE, ENOENT));
}

TEST_F(Directory, WhatAnotherMakesMeanwhileExists)
{
    const Interrupting other(Call::mkdir, 1, When::Before, [&] { fs::create_directory(path_); });
    EXPECT_THAT(reported(KemSdDirCreateEx, path_.c_str()), Succeeds());
}

TEST_F(Directory, ALinkThatLeadsNowhereIsNoDirectory)
{
    ASSERT_EQ(symlink("nowhere", path_.c_str()), 0);
    EXPECT_THAT(reported(KemSdDirCreateEx, path_.c_str()), Fails(SDSTS_DIR_CREATE, EEXIST));
}

// ---- Paths

TEST_F(Directory, EveryMissingOneAlongAPathIsMade)
{
    const std::string path = dir_.path("a/b/c");
    EXPECT_THAT(reported(KemSdCreatePath, path.c_str()), Succeeds());
    EXPECT_TRUE(fs::is_directory(path));
    resetCalls();
    EXPECT_THAT(reported(KemSdCreatePath, path.c_str()), Succeeds());
    EXPECT_EQ(calls(Call::mkdir), 0) << "nothing is left to make";
}

TEST_F(Directory, PathsMayBeRelativeAndRepeatSlashes)
{
    fs::current_path(dir_.path());
    for (const char* path : {"one", "two/deep/", "three//deep///er", "./four/deep"})
        EXPECT_THAT(reported(KemSdCreatePath, path), Succeeds()) << path;
    for (const char* path : {"one", "two/deep", "three/deep/er", "four/deep"})
        EXPECT_TRUE(fs::is_directory(dir_.path(path))) << path;
    EXPECT_THAT(reported(KemSdCreatePath, "/"), Succeeds());
    EXPECT_THAT(reported(KemSdCreatePath, ("//" + dir_.path("five")).c_str()), Succeeds());
}

TEST_F(Directory, APathStopsAtTheFirstThatCannotBeMade)
{
    dir_.write("file", "");
    EXPECT_THAT(reported(KemSdCreatePath, dir_.path("file/a/b").c_str()), Fails(SDSTS_DIR_CREATE, ENOTDIR));
    EXPECT_THAT(reported(KemSdCreatePath, ""), Fails(SDSTS_DIR_CREATE, ENOENT));
    const Failing full = Failing::nth(Call::mkdir, 2, ENOSPC);
    EXPECT_THAT(reported(KemSdCreatePath, dir_.path("a/b/c").c_str()), Fails(SDSTS_DIR_CREATE, ENOSPC));
    EXPECT_TRUE(fs::exists(dir_.path("a")));
    EXPECT_FALSE(fs::exists(dir_.path("a/b")));
}

TEST_F(Directory, APathOf1029CharactersFitsAndALongerOneIsRefusedWithoutAStatus)
{
    std::string path = dir_.path("deep");
    while (path.size() + 11 <= 1029) path += "/0123456789";
    path.append(1029 - path.size(), 'x');
    EXPECT_THAT(reported(KemSdCreatePath, path.c_str()), Succeeds());
    EXPECT_TRUE(fs::is_directory(path));
    EXPECT_THAT(reported(KemSdCreatePath, (path + "x").c_str()), ReturnsOnly(1));
    EXPECT_THAT(reported(KemSdCreatePath, nullptr), ReturnsOnly(1));
}

// ---- The current directory

TEST_F(Directory, TheCurrentOneIsChanged)
{
    EXPECT_THAT(reported(KemSdDirChange, dir_.path().c_str()), Succeeds());
    EXPECT_TRUE(fs::equivalent(fs::current_path(), dir_.path()));
}

TEST_F(Directory, ChangingTellsAMissingOneFromOtherFailures)
{
    EXPECT_THAT(reported(KemSdDirChange, path_.c_str()), Fails(SDSTS_DIR_NOT_FOUND, ENOENT));
    EXPECT_THAT(reported(KemSdDirChange, dir_.write("file", "").c_str()), Fails(SDSTS_DIR_CHANGE, ENOTDIR));
    EXPECT_THAT(reported(KemSdDirChange, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(fs::current_path(), before_);
}

// ---- Links

TEST_F(Directory, LinksAreHardOrSymbolic)
{
    const std::string file = dir_.write("file", "text");
    EXPECT_THAT(reported(KemSdCreateLink, file.c_str(), dir_.path("hard").c_str(), KEM_USHORT_T{1}), Succeeds());
    EXPECT_EQ(fs::hard_link_count(file), 2u);
    for (const KEM_USHORT_T type : {0, 2, 65535}) {
        const std::string link = dir_.path("link" + std::to_string(type));
        EXPECT_THAT(reported(KemSdCreateLink, "file", link.c_str(), type), Succeeds());
        EXPECT_EQ(fs::read_symlink(link), "file");
    }
    EXPECT_EQ(dir_.read("link0"), "text");
}

TEST_F(Directory, LinkingReportsWhatIsInTheWay)
{
    const std::string file = dir_.write("file", "");
    for (const KEM_USHORT_T type : {1, 2}) {
        EXPECT_THAT(reported(KemSdCreateLink, file.c_str(), file.c_str(), type), Fails(SDSTS_FILE_CREATE, EEXIST));
        EXPECT_THAT(reported(KemSdCreateLink, nullptr, "x", type), Fails(SDSTS_INVALID_PARAM));
        EXPECT_THAT(reported(KemSdCreateLink, "x", nullptr, type), Fails(SDSTS_INVALID_PARAM));
    }
    EXPECT_THAT(reported(KemSdCreateLink, path_.c_str(), dir_.path("hard").c_str(), KEM_USHORT_T{1}),
                Fails(SDSTS_FILE_CREATE, ENOENT));
}

TEST_F(Directory, UnlinkingRemovesAName)
{
    const std::string file = dir_.write("file", "");
    EXPECT_THAT(reported(KemSdUnLink, file.c_str()), Succeeds());
    EXPECT_FALSE(fs::exists(file));
    EXPECT_THAT(reported(KemSdUnLink, file.c_str()), Fails(SDSTS_FILE_REMOVE, ENOENT));
    EXPECT_THAT(reported(KemSdUnLink, nullptr), Fails(SDSTS_INVALID_PARAM));
}

// ---- Temporary files

namespace {

class TemporaryFile : public Directory {
protected:
    TemporaryFile()
    {
        if (const char* value = getenv("TMPDIR")) saved_ = value;
        unsetenv("TMPDIR");
        memset(name_, 'j', sizeof name_);
    }
    ~TemporaryFile() override
    {
        for (const std::string& path : made_) unlink(path.c_str());
        saved_.empty() ? unsetenv("TMPDIR") : setenv("TMPDIR", saved_.c_str(), 1);
    }

    Report make(const char* prefix)
    {
        const Report report = reported(KemSdFileTempNameGet, prefix, name_);
        if (report.result == 0) made_.emplace_back(name_);
        return report;
    }
    // What the file is called before its six unique characters, if it exists and is empty.
    std::string stem() const
    {
        const std::string path = name_;
        if (!fs::is_regular_file(path) || !fs::is_empty(path)) return "no empty file " + path;
        return path.substr(0, path.size() - 6);
    }

    std::string saved_;
    std::vector<std::string> made_;
    char name_[1031];
};

// An existing directory whose path has this many characters.
std::string directoryOfLength(const TempDir& dir, size_t length)
{
    std::string path = dir.path("d");
    while (length - path.size() > 200) path += "/" + std::string(100, 'd');
    path += "/" + std::string(length - path.size() - 1, 'e');
    fs::create_directories(path);
    return path;
}

} // namespace

TEST_F(TemporaryFile, StandsInTmpUnderPrefixAndSixCharacters)
{
    ASSERT_THAT(make("ix"), Succeeds());
    EXPECT_EQ(stem(), "/tmp/ix");
    EXPECT_EQ(std::string(name_).find("XXXXXX"), std::string::npos);
    EXPECT_EQ(modeOf(name_), 0600u);
    ASSERT_THAT(make("ix"), Succeeds());
    EXPECT_NE(made_[0], made_[1]);
    ASSERT_THAT(make(nullptr), Succeeds());
    EXPECT_EQ(stem(), "/tmp/");
}

TEST_F(TemporaryFile, StandsWhereTheEnvironmentSaysIfThatExists)
{
    for (const std::string& place : {dir_.path(), dir_.path() + "/"}) {
        setenv("TMPDIR", place.c_str(), 1);
        ASSERT_THAT(make("ix"), Succeeds());
        EXPECT_EQ(stem(), dir_.path("ix"));
    }
    for (const std::string& place : {std::string(), dir_.path("missing"), std::string(3000, 'x')}) {
        setenv("TMPDIR", place.c_str(), 1);
        ASSERT_THAT(make("ix"), Succeeds()) << place;
        EXPECT_EQ(stem(), "/tmp/ix");
    }
}

TEST_F(TemporaryFile, StandsInTheCurrentDirectoryWhereThereIsNoOther)
{
    fs::current_path(dir_.path());
    const Failing missing(Call::access, ENOENT);
    ASSERT_THAT(make("ix"), Succeeds());
    EXPECT_EQ(stem(), "ix");
    EXPECT_EQ(std::string(name_).size(), 8u);
}

TEST_F(TemporaryFile, APlaceThatLeavesNoRoomIsAFailure)
{
    const std::string place = directoryOfLength(dir_, 1000);
    setenv("TMPDIR", place.c_str(), 1);
    ASSERT_THAT(make(std::string(23, 'p').c_str()), Succeeds());
    EXPECT_EQ(strlen(name_), 1030u) << "the longest: the slash is not counted";
    resetCalls();
    EXPECT_THAT(make(std::string(24, 'p').c_str()), Fails(SDSTS_FILE_TEMPNAME));
    EXPECT_EQ(calls(Call::mkstemp), 0) << "not made elsewhere";
}

TEST_F(TemporaryFile, APrefixThatLeavesNoRoomIsAFailure)
{
    EXPECT_THAT(make(std::string(1020, 'p').c_str()), Fails(SDSTS_FILE_TEMPNAME));
    EXPECT_THAT(make(std::string(1019, 'p').c_str()), Fails(SDSTS_FILE_TEMPNAME, ENAMETOOLONG))
        << "it fits the buffer, the system refuses it";
    const Failing missing(Call::access, ENOENT);
    EXPECT_THAT(make(std::string(1024, 'p').c_str()), Fails(SDSTS_FILE_TEMPNAME));
    EXPECT_THAT(make(std::string(1023, 'p').c_str()), Fails(SDSTS_FILE_TEMPNAME, ENAMETOOLONG));
    EXPECT_THAT(make(std::string(5000, 'p').c_str()), Fails(SDSTS_FILE_TEMPNAME));
}

TEST_F(TemporaryFile, FailuresAreReported)
{
    EXPECT_THAT(reported(KemSdFileTempNameGet, "ix", nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(make("no/such/"), Fails(SDSTS_FILE_TEMPNAME, ENOENT));
    setenv("TMPDIR", dir_.path().c_str(), 1);
    int kept = -1;
    {
        // The descriptor that is not closed is the next one.
        kept = dup(0);
        ::close(kept);
        const Failing unclosed(Call::close, EIO);
        EXPECT_THAT(make("ix"), Fails(SDSTS_FILE_TEMPNAME, EIO));
    }
    ::close(kept);
    EXPECT_EQ(stem(), dir_.path("ix")) << "the file stays";
}
