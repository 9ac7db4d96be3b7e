// All paths that a search finds, as an array, and lists of found files.

#include <gtest/gtest.h>
#include <kemsd/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>

#include "support/failingcalls.h"
#include "support/report.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

int owner; // its address is what counts

KEM_FUNC_M findFor(KEM_PSDCTX_T ctx, const char* text, KEM_STR_T** paths, KEM_PUINT_T count)
{
    return KemSdFileFind(&owner, ctx, "no such parent", text, 0, paths, count);
}

class Collection : public testing::Test {
protected:
    ~Collection() override { release(); }

    Report find(const std::string& pattern) { return reported(findFor, dir_.path(pattern).c_str(), &paths_, &count_); }
    void release()
    {
        KemSdFileFreeNames(&owner, paths_, count_);
        paths_ = nullptr;
        count_ = 0;
    }
    void writeFiles(int count)
    {
        for (int i = 0; i < count; ++i) dir_.write("file" + std::to_string(i), "");
    }

    TempDir dir_;
    KEM_STR_T* paths_ = nullptr;
    KEM_UINT_T count_ = 77;
};

} // namespace

TEST_F(Collection, HoldsThePathOfEveryMatch)
{
    count_ = 0;
    writeFiles(40);
    dir_.write(".hidden", "");
    const long blocks = liveBlocks();
    ASSERT_THAT(find("*"), Succeeds());
    ASSERT_EQ(count_, 40u);
    std::set<std::string> expected;
    for (int i = 0; i < 40; ++i) expected.insert(dir_.path("file" + std::to_string(i)));
    EXPECT_EQ(std::set<std::string>(paths_, paths_ + count_), expected);
    EXPECT_EQ(liveBlocks(), blocks + 41);
    release();
    EXPECT_EQ(liveBlocks(), blocks);
}

TEST_F(Collection, TheSeventeenthMatchDoublesTheArrayOf16)
{
    count_ = 0;
    writeFiles(16);
    resetCalls();
    ASSERT_THAT(find("*"), Succeeds());
    EXPECT_EQ(count_, 16u);
    EXPECT_EQ(calls(Call::realloc), 0);
    release();
    dir_.write("one more", "");
    resetCalls();
    ASSERT_THAT(find("*"), Succeeds());
    EXPECT_EQ(count_, 17u);
    EXPECT_EQ(calls(Call::realloc), 1);
}

TEST_F(Collection, NothingFoundIsASuccessWithoutPaths)
{
    dir_.write("file", "");
    for (const char* text : {"*.ind", "missing/*", "file/", "file/*"}) {
        paths_ = reinterpret_cast<KEM_STR_T*>(this);
        count_ = 77;
        EXPECT_THAT(find(text), Succeeds()) << text;
        EXPECT_EQ(paths_, nullptr);
        EXPECT_EQ(count_, 0u);
    }
    EXPECT_THAT(find(std::string(2000, 'x')), Succeeds()) << "a search text that does not fit";
    EXPECT_EQ(count_, 0u);
}

TEST_F(Collection, APathLongerThanItsUsualRoomIsWhole)
{
    const std::string name(255, 'n');
    dir_.write(name, "");
    std::string slashes = dir_.path();
    slashes.append(1028 - slashes.size(), '/');
    ASSERT_THAT(reported(findFor, (slashes + "n*").c_str(), &paths_, &count_), Succeeds());
    ASSERT_EQ(count_, 1u);
    EXPECT_EQ(paths_[0], slashes + name);
}

TEST_F(Collection, AMatchThatCannotBeLookedAtEndsIt)
{
    writeFiles(3);
    const long blocks = liveBlocks();
    {
        const Failing unseen = Failing::nth(Call::fstatat, 1, EACCES);
        EXPECT_THAT(find("*"), Succeeds()) << "the first counts as a directory that cannot be read";
    }
    EXPECT_EQ(count_, 0u);
    const Failing unseen = Failing::nth(Call::fstatat, 3, EACCES);
    EXPECT_THAT(find("*"), Fails(SDSTS_FILE_FIND_NEXT, EACCES));
    EXPECT_EQ(paths_, nullptr);
    EXPECT_EQ(count_, 0u);
    EXPECT_EQ(liveBlocks(), blocks);
}

TEST_F(Collection, EndsWhereTheReaderFails)
{
    count_ = 0;
    writeFiles(5);
    const Failing unread = Failing::nth(Call::readdir_r, 4, EIO);
    EXPECT_THAT(find("file*"), Succeeds());
    EXPECT_LE(count_, 3u);
    EXPECT_GE(count_, 1u) << "two of four entries may be . and ..";
}

TEST_F(Collection, SurvivesEveryFailingRequestForMemory)
{
    writeFiles(33);
    const std::string text = dir_.path("*");
    const auto scenario = [&](long) {
        const Report report = reported(findFor, text.c_str(), &paths_, &count_);
        if (!allocationFailed()) {
            EXPECT_THAT(report, Succeeds());
            EXPECT_EQ(count_, 33u);
        } else {
            EXPECT_THAT(report, Fails(SDSTS_NO_MEMORY));
            EXPECT_EQ(paths_, nullptr);
            EXPECT_EQ(count_, 0u);
        }
        release();
    };
    EXPECT_EQ(sweepAllocationFailures(scenario), 36) << "33 paths, an array that grows twice";
}

TEST_F(Collection, MissingArgumentsAreRefused)
{
    EXPECT_THAT(reported(findFor, nullptr, &paths_, &count_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(findFor, "*", nullptr, &count_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(findFor, "*", &paths_, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(count_, 77u);
    count_ = 0;
    KemSdFileFreeNames(nullptr, nullptr, 5);
}

// ---- Lists

namespace {

class FileList : public testing::Test {
protected:
    FileList()
    {
        match_.pszFileName = match_.szTmp;
        setMatch("first", 11, 100);
    }
    ~FileList() override { KemSdDeleteFileListItems(&head_); }

    void setMatch(const char* name, KEM_ULONGLONG_T bytes, time_t at)
    {
        strcpy(match_.szTmp, name);
        match_.fileSize = bytes;
        match_.createTime = at;
    }

    KEM_FILEFINDINFO_T match_{};
    KEM_FILE_LIST head_{};
};

} // namespace

TEST_F(FileList, WithoutAllocationTheNodeItselfIsFilled)
{
    head_.next = &head_;
    EXPECT_EQ(KemSdAddFileListItem(&head_, &match_, FALSE), 0);
    EXPECT_STREQ(head_.name, "first");
    EXPECT_EQ(head_.fileSize, 11);
    EXPECT_EQ(head_.creationTime, 100);
    EXPECT_EQ(head_.next, nullptr);
}

TEST_F(FileList, WithAllocationANodeIsLinkedBehind)
{
    const long blocks = liveBlocks();
    ASSERT_EQ(KemSdAddFileListItem(&head_, &match_, TRUE), 0);
    setMatch("second", (UINT64_C(1) << 32) + 5, 200);
    ASSERT_EQ(KemSdAddFileListItem(head_.next, &match_, TRUE), 0);
    EXPECT_STREQ(head_.next->name, "first");
    EXPECT_STREQ(head_.next->next->name, "second");
    EXPECT_EQ(head_.next->next->fileSize, 5) << "the low 32 bits";
    EXPECT_EQ(head_.next->next->next, nullptr);
    EXPECT_STREQ(head_.name, "") << "the head is left alone";
    EXPECT_EQ(liveBlocks(), blocks + 2);
    EXPECT_EQ(KemSdDeleteFileListItems(&head_), 0);
    EXPECT_EQ(head_.next, nullptr);
    EXPECT_EQ(liveBlocks(), blocks);
}

TEST_F(FileList, ANewNodeTakesThePlaceOfWhatFollowed)
{
    KEM_FILE_LIST other{};
    head_.next = &other;
    ASSERT_EQ(KemSdAddFileListItem(&head_, &match_, TRUE), 0);
    EXPECT_NE(head_.next, &other);
    EXPECT_EQ(head_.next->next, nullptr);
}

TEST_F(FileList, WhatCannotBeAddedChangesNothing)
{
    KEM_FILE_LIST other{};
    head_.next = &other;
    const long blocks = liveBlocks();
    for (const KEM_BOOL_T allocate : {TRUE, FALSE}) {
        EXPECT_EQ(KemSdAddFileListItem(nullptr, &match_, allocate), 1);
        EXPECT_EQ(KemSdAddFileListItem(&head_, nullptr, allocate), 1);
        match_.pszFileName = nullptr;
        EXPECT_EQ(KemSdAddFileListItem(&head_, &match_, allocate), 1) << "no match";
        std::string name(1029, 'x');
        match_.pszFileName = name.data();
        EXPECT_EQ(KemSdAddFileListItem(&head_, &match_, allocate), 1) << "too long";
    }
    match_.pszFileName = match_.szTmp;
    {
        const Failing empty(Call::malloc, ENOMEM);
        EXPECT_EQ(KemSdAddFileListItem(&head_, &match_, TRUE), 1);
    }
    EXPECT_EQ(head_.next, &other);
    EXPECT_STREQ(head_.name, "");
    EXPECT_EQ(liveBlocks(), blocks);
    head_.next = nullptr;
}

TEST_F(FileList, ANameThatFillsTheFieldFits)
{
    std::string name(1028, 'x');
    match_.pszFileName = name.data();
    EXPECT_EQ(KemSdAddFileListItem(&head_, &match_, FALSE), 0);
    EXPECT_EQ(head_.name, name);
}

TEST_F(FileList, NoListHasNothingToDelete) { EXPECT_EQ(KemSdDeleteFileListItems(nullptr), 0); }

TEST_F(FileList, TakesTheMatchesOfASearch)
{
    const TempDir dir;
    const std::string longName(255, 'n');
    dir.write(longName, "123");
    ASSERT_EQ(KemSdFileFindFirst(nullptr, dir.path("*").c_str(), 0, &match_), 0);
    EXPECT_EQ(KemSdAddFileListItem(&head_, &match_, FALSE), 0);
    EXPECT_EQ(head_.name, longName);
    EXPECT_EQ(head_.fileSize, 3);
    EXPECT_EQ(KemSdFileFindNext(nullptr, &match_), SDSTS_FILE_NO_MORE);
    EXPECT_EQ(KemSdAddFileListItem(&head_, &match_, FALSE), 1) << "behind the last match";
    KemSdFileFindClose(nullptr, &match_);
}
