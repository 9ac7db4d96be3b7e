// Path texts and the name of the session's user.

#include <gtest/gtest.h>
#include <kemsd/file.h>
#include <pwd.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "support/failingcalls.h"
#include "support/report.h"

using namespace kemsd::test;

TEST(PathText, TheParentReachesToTheLastSlash)
{
    struct Case {
        const char* path;
        const char* parent;
    };
    char parent[64];
    for (const Case& c : {Case{"/tmp/a", "/tmp/"}, Case{"a/b/c", "a/b/"}, Case{"/a", "/"}, Case{"a/", "a/"},
                          Case{"/", "/"}, Case{"a//b", "a//"}, Case{"a", "./"}, Case{"", "./"}, Case{nullptr, "./"}}) {
        EXPECT_EQ(KemSdFileGetParentPath(c.path, parent), parent);
        EXPECT_STREQ(parent, c.parent) << (c.path ? c.path : "null");
    }
}

TEST(PathText, TheExtensionBeginsAtTheLastDotOfTheWholePath)
{
    struct Case {
        const char* path;
        const char* with;
        const char* without;
    };
    char extension[64];
    for (const Case& c : {Case{"a.ind", ".ind", "ind"}, Case{"a.b.c", ".c", "c"},
                          Case{"dir.old/file", ".old/file", "old/file"}, Case{".hidden", ".hidden", "hidden"},
                          Case{"a.", ".", ""}, Case{"a", "", ""}, Case{"", "", ""}, Case{nullptr, "", ""}}) {
        EXPECT_EQ(KemSdFileGetExtension(c.path, TRUE, extension), extension);
        EXPECT_STREQ(extension, c.with);
        EXPECT_EQ(KemSdFileGetExtension(c.path, FALSE, extension), extension);
        EXPECT_STREQ(extension, c.without);
    }
}

TEST(PathText, TheCanonicalPathIsThePathItselfWhateverTheSize)
{
    char path[64] = "unchanged";
    EXPECT_EQ(KemSdFileGetCanonicalPath("../a//./b", 0, path), 0);
    EXPECT_STREQ(path, "../a//./b");
    EXPECT_EQ(KemSdFileGetCanonicalPath(nullptr, 64, path), SDSTS_INVALID_PARAM);
    EXPECT_EQ(KemSdFileGetCanonicalPath(path, 64, nullptr), SDSTS_INVALID_PARAM);
    EXPECT_STREQ(path, "../a//./b");
}

TEST(PathText, ThePathsOwnBufferMayTakeTheResult)
{
    char path[] = "dir.d/file";
    EXPECT_STREQ(KemSdFileGetExtension(path, FALSE, path), "d/file");
    EXPECT_STREQ(KemSdFileGetParentPath(path, path), "d/");
    EXPECT_EQ(KemSdFileGetCanonicalPath(path, 0, path), 0);
    EXPECT_STREQ(path, "d/");
}

TEST(PathText, WithoutABufferThereIsNoResult)
{
    EXPECT_EQ(KemSdFileGetParentPath("a/b", nullptr), nullptr);
    EXPECT_EQ(KemSdFileGetExtension("a.b", TRUE, nullptr), nullptr);
}

TEST(PathText, OnlyANameThatSaysSomethingIsSafeToDelete)
{
    EXPECT_EQ(KemSdIsSafeToDelete("a"), TRUE);
    EXPECT_EQ(KemSdIsSafeToDelete(""), FALSE);
    EXPECT_EQ(KemSdIsSafeToDelete(nullptr), FALSE);
}

// ---- The session's user

namespace {

// What the session answers: its user's name, or an error number.
std::string sessionName;
int sessionError;

} // namespace

extern "C" int __wrap_getlogin_r(char* name, size_t bytes)
{
    if (sessionError != 0) return sessionError;
    if (sessionName.size() >= bytes) return ERANGE;
    strcpy(name, sessionName.c_str());
    return 0;
}

namespace {

class LoginName : public testing::Test {
protected:
    LoginName()
    {
        sessionName.clear();
        sessionError = 0;
        memset(name_, 'j', sizeof name_);
    }

    Report get() { return reported(KemSdGetSessionLoginUsername, name_, &length_); }

    char name_[300];
    KEM_SIZE_T length_ = 77;
};

} // namespace

TEST_F(LoginName, IsThatOfTheSession)
{
    for (const std::string& name : {std::string("operator"), std::string(255, 'n')}) {
        sessionName = name;
        resetCalls();
        EXPECT_THAT(get(), Succeeds());
        EXPECT_EQ(name_, name);
        EXPECT_EQ(length_, name.size());
        EXPECT_EQ(calls(Call::getpwuid_r), 0);
    }
}

TEST_F(LoginName, IsElseThatOfTheEffectiveUser)
{
    const passwd* user = getpwuid(geteuid());
    if (!user) GTEST_SKIP() << "this user has no entry";
    for (const int error : {ENXIO, ERANGE, 0}) { // 0: a session with an empty name
        sessionError = error;
        ASSERT_THAT(get(), Succeeds());
        EXPECT_STREQ(name_, user->pw_name);
        EXPECT_EQ(length_, strlen(user->pw_name));
    }
}

TEST_F(LoginName, IsMissingWhereNeitherIsKnown)
{
    sessionError = ENXIO;
    for (const int error : {0, EIO}) {
        memset(name_, 'j', sizeof name_);
        length_ = 77;
        const Failing unknown(Call::getpwuid_r, error);
        EXPECT_THAT(get(), Fails(SDSTS_NO_LOGIN_NAME, error));
        EXPECT_EQ(length_, 0u);
        EXPECT_EQ(std::string(name_, 9), std::string(8, '\0') + "j") << "8 bytes, no more";
    }
}

TEST_F(LoginName, NeedsBothResults)
{
    EXPECT_THAT(reported(KemSdGetSessionLoginUsername, nullptr, &length_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdGetSessionLoginUsername, name_, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(length_, 77u);
}
