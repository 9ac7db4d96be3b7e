// One directory searched step by step, by the library's own calls and by the server layer's.

#include <gtest/gtest.h>
#include <kemsd/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <set>
#include <string>

#include "support/failingcalls.h"
#include "support/report.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

class Search : public testing::Test {
protected:
    ~Search() override { KemSdFileFindClose(nullptr, &found_); }

    Report first(const std::string& text) { return reported(KemSdFileFindFirst, text.c_str(), 7u, &found_); }
    Report next() { return reported(KemSdFileFindNext, &found_); }
    Report close() { return reported(KemSdFileFindClose, &found_); }
    Report match() { return reported(KemSdFileMatch, &found_); }

    // All names that the text finds in the directory.
    std::set<std::string> names(const std::string& pattern)
    {
        std::set<std::string> all;
        if (first(dir_.path(pattern)).result != 0) return all;
        do all.insert(found_.pszFileName);
        while (next().result == 0);
        close();
        return all;
    }

    TempDir dir_;
    KEM_FILEFINDINFO_T found_{};
};

using Names = std::set<std::string>;

const std::string kLongName(200, 'n');

} // namespace

TEST_F(Search, FindsWhatThePatternMatchesAndNoHiddenFile)
{
    dir_.write("a.ind", "12345");
    dir_.write(".b.ind", "");
    dir_.write("c.txt", "");
    ASSERT_THAT(first(dir_.path("*.ind")), Succeeds());
    EXPECT_STREQ(found_.pszFileName, "a.ind");
    EXPECT_EQ(found_.pszFileName, found_.szTmp);
    EXPECT_EQ(found_.ulFileAttr, 0x8000u);
    EXPECT_EQ(found_.fileSize, 5u);
    struct stat record;
    ASSERT_EQ(stat(dir_.path("a.ind").c_str(), &record), 0);
    EXPECT_EQ(found_.createTime, record.st_mtime);
    EXPECT_EQ(found_.ulFindAttr, 7u);
    EXPECT_EQ(found_.szDirectory, dir_.path() + "/");
    EXPECT_STREQ(found_.szFilePattern, "*.ind");
    EXPECT_THAT(next(), Fails(SDSTS_FILE_NO_MORE));
    EXPECT_THAT(close(), Succeeds());
}

TEST_F(Search, PatternsAreThoseOfTheShell)
{
    for (const char* name : {"page1.ind", "page2.ind", "page10.ind", "[x]", "-r", "two\nlines", ".page3.ind"})
        dir_.write(name, "");
    EXPECT_EQ(names("page?.ind"), (Names{"page1.ind", "page2.ind"}));
    EXPECT_EQ(names("page[!1]*"), (Names{"page2.ind"}));
    EXPECT_EQ(names("*"), (Names{"page1.ind", "page2.ind", "page10.ind", "[x]", "-r", "two\nlines"}));
    EXPECT_EQ(names("[x]"), (Names{"[x]"})) << "a name that equals the pattern";
    EXPECT_EQ(names(".*"), (Names{}));
    EXPECT_EQ(names(".page3.ind"), (Names{})) << "hidden, although it equals the pattern";
    EXPECT_EQ(names("*\n*"), (Names{"two\nlines"}));
    EXPECT_EQ(names(R"(\[x\])"), (Names{"[x]"}));
}

TEST_F(Search, AnEmptyPatternMatchesNothing)
{
    dir_.write("a", "");
    EXPECT_THAT(first(dir_.path("") + "/"), Fails(SDSTS_FILE_NOT_FOUND));
    EXPECT_EQ(found_.hDir, nullptr);
    EXPECT_EQ(found_.pszFileName, nullptr);
}

TEST_F(Search, TextWithoutASlashSearchesTheCurrentDirectory)
{
    dir_.write("here", "");
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(dir_.path());
    EXPECT_THAT(first("he*"), Succeeds());
    std::filesystem::current_path(before);
    EXPECT_STREQ(found_.szDirectory, "./");
    EXPECT_STREQ(found_.pszFileName, "here");
}

TEST_F(Search, GoesOnInItsDirectoryWhenTheCurrentOneChanges)
{
    dir_.write("one", "1");
    dir_.write("two", "1");
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(dir_.path());
    EXPECT_THAT(first("*"), Succeeds());
    std::filesystem::current_path(before);
    EXPECT_THAT(next(), Succeeds());
}

TEST_F(Search, ADirectoryLeavesSizeAndTimeAsTheyWere)
{
    mkdir(dir_.path("sub").c_str(), 0700);
    found_.fileSize = 77;
    found_.createTime = 78;
    ASSERT_THAT(first(dir_.path("sub")), Succeeds());
    EXPECT_EQ(found_.ulFileAttr, 0x4000u);
    EXPECT_EQ(found_.fileSize, 77u);
    EXPECT_EQ(found_.createTime, 78);
}

TEST_F(Search, FollowsALinkToWhatItLeadsTo)
{
    mkdir(dir_.path("sub").c_str(), 0700);
    ASSERT_EQ(symlink("sub", dir_.path("link").c_str()), 0);
    ASSERT_THAT(first(dir_.path("link")), Succeeds());
    EXPECT_EQ(found_.ulFileAttr, 0x4000u);
}

TEST_F(Search, ALongNameIsWholeInTheEntryAndCutInTheNameField)
{
    for (const size_t length : {size_t{120}, size_t{121}, size_t{255}}) {
        const std::string name(length, 'x');
        dir_.write(name, "123");
        ASSERT_THAT(first(dir_.path("x*")), Succeeds()) << length;
        EXPECT_EQ(found_.pszFileName, name);
        EXPECT_EQ(std::string(found_.szTmp), name.substr(0, 120));
        EXPECT_EQ(found_.pszFileName == found_.szTmp, length == 120);
        EXPECT_EQ(found_.fileSize, 3u);
        EXPECT_THAT(next(), Fails(SDSTS_FILE_NO_MORE));
        EXPECT_EQ(found_.pszFileName, nullptr) << "no match stands in the record any more";
        close();
        unlink(dir_.path(name).c_str());
    }
}

TEST_F(Search, TextThatDoesNotFitItsFieldOpensNothing)
{
    const std::string directory(1027, 'd'), pattern(120, 'p');
    resetCalls();
    EXPECT_THAT(first("d" + directory + "/*"), Fails(SDSTS_FILE_FIND, ENAMETOOLONG));
    EXPECT_THAT(first(dir_.path("p" + pattern)), Fails(SDSTS_FILE_FIND, ENAMETOOLONG));
    EXPECT_EQ(calls(Call::opendir), 0);
    EXPECT_EQ(found_.hDir, nullptr);
    EXPECT_THAT(first(dir_.path(pattern)), Fails(SDSTS_FILE_NOT_FOUND));
    std::string slashes = dir_.path();
    slashes.append(1028 - slashes.size(), '/');
    dir_.write("a", "");
    EXPECT_THAT(first(slashes + "a"), Succeeds()) << "1028 characters fit";
}

TEST_F(Search, ADirectoryThatCannotBeOpenedIsReported)
{
    EXPECT_THAT(first(dir_.path("missing/*")), Fails(SDSTS_FILE_FIND, ENOENT));
    dir_.write("file", "");
    EXPECT_THAT(first(dir_.path("file/*")), Fails(SDSTS_FILE_FIND, ENOTDIR));
    EXPECT_EQ(found_.hDir, nullptr);
}

TEST_F(Search, AMatchThatCannotBeLookedAtHasAStatusInEachCall)
{
    ASSERT_EQ(symlink("nowhere", dir_.path("link").c_str()), 0);
    resetCalls();
    EXPECT_THAT(first(dir_.path("link")), Fails(SDSTS_FILE_FIND, ENOENT));
    EXPECT_EQ(found_.hDir, nullptr);
    EXPECT_EQ(calls(Call::closedir), 1);

    dir_.write("file", "");
    ASSERT_THAT(first(dir_.path("f*")), Succeeds());
    rewinddir(found_.hDir);
    {
        const Failing unseen(Call::fstatat, EACCES);
        EXPECT_THAT(next(), Fails(SDSTS_FILE_FIND_NEXT, EACCES));
        rewinddir(found_.hDir);
        EXPECT_THAT(match(), Fails(SDSTS_FILE_MATCH_STAT, EACCES));
        EXPECT_STREQ(found_.pszFileName, "file");
    }
    EXPECT_THAT(match(), Fails(SDSTS_FILE_NO_MATCH)) << "the next call goes on behind it";
}

TEST_F(Search, AReaderFailureEndsTheSearchWithItsResult)
{
    dir_.write("a", "");
    dir_.write("b", "");
    {
        const Failing unread(Call::readdir_r, EIO);
        EXPECT_THAT(first(dir_.path("*")), Fails(SDSTS_FILE_NOT_FOUND, EIO));
    }
    ASSERT_THAT(first(dir_.path("*")), Succeeds());
    const Failing unread(Call::readdir_r, EIO);
    EXPECT_THAT(next(), Fails(SDSTS_FILE_NO_MORE, EIO));
    EXPECT_THAT(match(), Fails(SDSTS_FILE_NO_MATCH, EIO));
    EXPECT_NE(found_.hDir, nullptr) << "the stream waits for its close";
}

TEST_F(Search, ClosingEndsItAndASecondCloseIsRefused)
{
    dir_.write("a", "");
    ASSERT_THAT(first(dir_.path("*")), Succeeds());
    EXPECT_THAT(close(), Succeeds());
    EXPECT_EQ(found_.hDir, nullptr);
    errno = EIO;
    EXPECT_THAT(close(), Fails(SDSTS_FILE_FIND_CLOSE, EFAULT));
    EXPECT_THAT(next(), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(match(), Fails(SDSTS_INVALID_PARAM));
    ASSERT_THAT(first(dir_.path("*")), Succeeds());
    DIR* const stream = found_.hDir;
    {
        const Failing refused(Call::closedir, EIO);
        EXPECT_THAT(close(), Fails(SDSTS_FILE_FIND_CLOSE, EIO));
    }
    closedir(stream);
}

TEST_F(Search, MissingArgumentsAreRefused)
{
    EXPECT_THAT(reported(KemSdFileFindFirst, nullptr, 0u, &found_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdFileFindFirst, "*", 0u, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdFileFindNext, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdFileFindClose, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdFileMatch, nullptr), Fails(SDSTS_INVALID_PARAM));
}

TEST_F(Search, TwoSearchesOfOneDirectoryDoNotDisturbEachOther)
{
    dir_.write("a", "");
    dir_.write("b", "");
    KEM_FILEFINDINFO_T other;
    ASSERT_THAT(first(dir_.path("*")), Succeeds());
    const std::string name = found_.pszFileName;
    ASSERT_EQ(KemSdFileFindFirst(nullptr, dir_.path("*").c_str(), 0, &other), 0);
    EXPECT_EQ(KemSdFileFindNext(nullptr, &other), 0);
    EXPECT_EQ(KemSdFileFindNext(nullptr, &other), SDSTS_FILE_NO_MORE);
    EXPECT_EQ(found_.pszFileName, name);
    EXPECT_THAT(next(), Succeeds());
    EXPECT_EQ(KemSdFileFindClose(nullptr, &other), 0);
}

// ---- The server layer's step

namespace {

class ServerSearch : public testing::Test {
protected:
    ~ServerSearch() override
    {
        if (search_.hdir) closedir(search_.hdir);
    }

    OV_STS_T start(const std::string& directory, const char* pattern)
    {
        search_.hdir = opendir(directory.c_str());
        strcpy(search_.directory, directory.c_str());
        strcpy(search_.filePattern, pattern);
        return step();
    }
    OV_STS_T step() { return ovMatchFile(&search_, "no such name", "no such directory"); }

    TempDir dir_;
    OV_FINDINFO_T search_{};
};

} // namespace

TEST_F(ServerSearch, UsesTheTextsOfItsRecord)
{
    dir_.write("a.ind", "");
    dir_.write(".b.ind", "");
    dir_.write("c.txt", "");
    ASSERT_EQ(start(dir_.path() + "/", "*.ind"), 0);
    EXPECT_STREQ(search_.fname, "a.ind");
    EXPECT_EQ(search_.fattr, 0x8000u);
    EXPECT_EQ(step(), -1);
}

TEST_F(ServerSearch, TellsDirectoriesByTheirAttribute)
{
    mkdir(dir_.path("sub").c_str(), 0700);
    ASSERT_EQ(start(dir_.path() + "/", "*"), 0);
    EXPECT_EQ(search_.fattr, 0x4000u);
}

TEST_F(ServerSearch, ANameThatOnlyEqualsThePatternDoesNotMatch)
{
    dir_.write("[x]", "");
    EXPECT_EQ(start(dir_.path() + "/", "[x]"), -1);
}

TEST_F(ServerSearch, AMatchThatCannotBeLookedAtHasAPipesStatus)
{
    dir_.write("a", "");
    EXPECT_EQ(start(dir_.path() + "/", "*"), 0);
    rewinddir(search_.hdir);
    strcpy(search_.directory, "/nowhere/");
    EXPECT_EQ(step(), SDSTS_NMPIPE_FAILED);
    EXPECT_STREQ(search_.fname, "a");
}

TEST_F(ServerSearch, APathLongerThanAnyFieldStillFits)
{
    dir_.write(kLongName, "");
    std::string slashes = dir_.path();
    slashes.append(1028 - slashes.size(), '/');
    EXPECT_EQ(start(slashes, "n*"), 0);
    EXPECT_EQ(search_.fname, kLongName);
}

TEST_F(ServerSearch, ARecordWithoutStreamEndsAtOnce)
{
    EXPECT_EQ(ovMatchFile(nullptr, "*", "./"), -1);
    EXPECT_EQ(ovMatchFile(&search_, "*", "./"), -1);
}
