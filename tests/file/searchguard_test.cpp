// The lease guard of searches and directories: in failover mode once in every guarded call, before its arguments are
// looked at, and not in the others.

#include <gtest/gtest.h>
#include <kemsd/file.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/guardpasses.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

class SearchGuard : public testing::Test, protected GuardCounted {
protected:
    static void expect(KEM_STS_T sts, KEM_STS_T expected) { EXPECT_EQ(sts, expected); }

    // Valid calls, in an order in which they succeed.
    std::vector<Operation> valid()
    {
        const char* text = text_.c_str();
        const char* directory = directory_.c_str();
        return {
            {"FileFindFirst", 1, [=, this] { expect(KemSdFileFindFirst(nullptr, text, 0, &found_), 0); }},
            {"FileMatch", 1, [this] { expect(KemSdFileMatch(nullptr, &found_), SDSTS_FILE_NO_MATCH); }},
            {"FileFindNext", 1, [this] { expect(KemSdFileFindNext(nullptr, &found_), SDSTS_FILE_NO_MORE); }},
            {"FileFindClose", 0, [this] { expect(KemSdFileFindClose(nullptr, &found_), 0); }},
            {"FileFind", 2,
             [=] {
                 KEM_STR_T* paths;
                 KEM_UINT_T count;
                 expect(KemSdFileFind(nullptr, nullptr, nullptr, text, 0, &paths, &count), 0);
                 KemSdFileFreeNames(nullptr, paths, count);
             }},
            {"MatchFile", 1, [this] { expect(ovMatchFile(&record_, nullptr, nullptr), -1); }},
            {"DirCreate", 1, [=] { expect(KemSdDirCreate(nullptr, directory), 0); }},
            {"DirCreateEx", 1, [=] { expect(KemSdDirCreateEx(nullptr, directory), 0); }},
            {"DirChange", 0, [] { expect(KemSdDirChange(nullptr, "."), 0); }},
            {"FileTempNameGet", 1,
             [this] {
                 expect(KemSdFileTempNameGet(nullptr, "guard", path_), 0);
                 unlink(path_);
             }},
            {"CreateLink", 1, [=, this] { expect(KemSdCreateLink(nullptr, "x", link_.c_str(), 0), 0); }},
            {"UnLink", 1, [this] { expect(KemSdUnLink(nullptr, link_.c_str()), 0); }},
            {"DirRemove", 1, [=] { expect(KemSdDirRemove(nullptr, directory), 0); }},
            {"Texts", 0,
             [this] {
                 KemSdFileGetParentPath("a/b", path_);
                 KemSdFileGetExtension("a.b", TRUE, path_);
                 expect(KemSdFileGetCanonicalPath("a", 1, path_), 0);
                 KemSdIsSafeToDelete("a");
             }},
        };
    }

    TempDir dir_;
    const std::string text_ = dir_.write("file", "").replace(dir_.path().size() + 1, 4, "f*");
    const std::string directory_ = dir_.path("sub");
    const std::string link_ = dir_.path("link");
    KEM_FILEFINDINFO_T found_{};
    OV_FINDINFO_T record_{};
    char path_[1031] = {};
};

} // namespace

TEST_F(SearchGuard, RunsOnceInEveryGuardedCallInFailoverModeAndInNoOther) { expectPasses(valid(), true); }

TEST_F(SearchGuard, DoesNotRunOutsideFailoverMode) { expectPasses(valid(), false); }

TEST_F(SearchGuard, RunsBeforeTheArgumentsAreChecked)
{
    const auto invalid = [](KEM_STS_T sts) { EXPECT_EQ(sts, SDSTS_INVALID_PARAM); };
    expectPasses(
        {
            {"FileFindFirst", 1, [&] { invalid(KemSdFileFindFirst(nullptr, nullptr, 0, nullptr)); }},
            {"FileFindNext", 1, [&] { invalid(KemSdFileFindNext(nullptr, nullptr)); }},
            {"FileMatch", 1, [&] { invalid(KemSdFileMatch(nullptr, nullptr)); }},
            {"DirCreate", 1, [&] { invalid(KemSdDirCreate(nullptr, nullptr)); }},
            {"DirRemove", 1, [&] { invalid(KemSdDirRemove(nullptr, nullptr)); }},
            {"FileTempNameGet", 1, [&] { invalid(KemSdFileTempNameGet(nullptr, nullptr, nullptr)); }},
            {"CreateLink", 1, [&] { invalid(KemSdCreateLink(nullptr, nullptr, nullptr, 1)); }},
            {"MatchFile", 1, [] { expect(ovMatchFile(nullptr, nullptr, nullptr), -1); }},
        },
        true);
}
