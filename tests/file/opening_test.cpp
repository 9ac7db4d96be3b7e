#include <fcntl.h>
#include <gtest/gtest.h>
#include <kemsd/file.h>
#include <sys/stat.h>

#include "support/failingcalls.h"
#include "support/openfile.h"
#include "support/report.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

constexpr int kShareMode = 0x40;

// The six opens under one signature, so that what they share is tested once for each.
using Open = KEM_FUNC_M (*)(KEM_PSDCTX_T, const char*, KEM_INT_T, KEM_INT_T, KEM_PFILEHDL_T);

struct OpenCase {
    const char* name;
    Open open;
    KEM_STS_T failure;
    bool exclusive;
    Call systemCall;

    friend void PrintTo(const OpenCase& c, std::ostream* out) { *out << c.name; }
};

template <auto call>
KEM_FUNC_M shared(KEM_PSDCTX_T ctx, const char* path, KEM_INT_T flags, KEM_INT_T mode, KEM_PFILEHDL_T file)
{
    return call(ctx, path, flags, kShareMode, mode, file);
}

const OpenCase kOpens[] = {
    {"Open", KemSdFileOpen, SDSTS_FILE_OPEN, false, Call::open},
    {"SOpen", shared<KemSdFileSOpen>, SDSTS_FILE_SOPEN, false, Call::open},
    {"Open64", KemSdFileOpen64, SDSTS_FILE_OPEN, false, Call::open64},
    {"OpenExclusive", KemSdFileOpenExclusiveMode, SDSTS_FILE_OPEN, true, Call::open},
    {"SOpenExclusive", shared<KemSdFileSOpenExclusiveMode>, SDSTS_FILE_SOPEN, true, Call::open},
    {"Open64Exclusive", KemSdFileOpen64ExclusiveMode, SDSTS_FILE_OPEN, true, Call::open64},
};

class FileOpening : public testing::TestWithParam<OpenCase> {
protected:
    FileOpening() { umask(0); }
    ~FileOpening() override
    {
        KemSdSetFailoverModeFlag(FALSE);
        if (file_ != -1) close(file_);
    }

    mode_t permissions() const
    {
        struct stat record {};
        EXPECT_EQ(fstat(file_, &record), 0);
        return record.st_mode & 07777;
    }

    TempDir dir_;
    const std::string path_ = dir_.path("file");
    KEM_FILEHDL_T file_ = -1;
};

INSTANTIATE_TEST_SUITE_P(Each, FileOpening, testing::ValuesIn(kOpens),
                         [](const auto& tested) { return std::string(tested.param.name); });

} // namespace

TEST_P(FileOpening, CreatesAFileWithThePermissionsGiven)
{
    EXPECT_THAT(reported(GetParam().open, path_.c_str(), O_RDWR | O_CREAT, 0640, &file_), Succeeds());
    ASSERT_GE(file_, 0);
    EXPECT_EQ(permissions(), 0640u);
    EXPECT_EQ(fcntl(file_, F_GETFL) & O_ACCMODE, O_RDWR);
}

TEST_P(FileOpening, CreatesAFileForEverybodyInFailoverModeBeforeTheUmask)
{
    KemSdSetFailoverModeFlag(TRUE);
    umask(022);
    EXPECT_THAT(reported(GetParam().open, path_.c_str(), O_RDWR | O_CREAT, 0600, &file_), Succeeds());
    EXPECT_EQ(permissions(), 0644u); // 0666 less the umask
}

TEST_P(FileOpening, MakesOneSystemCall)
{
    resetCalls();
    EXPECT_THAT(reported(GetParam().open, path_.c_str(), O_RDWR | O_CREAT, 0600, &file_), Succeeds());
    EXPECT_EQ(calls(GetParam().systemCall), 1);
    EXPECT_EQ(calls(Call::open) + calls(Call::open64), 1);
}

TEST_P(FileOpening, OfAnExistingFileFailsOnlyInExclusiveMode)
{
    dir_.write("file", "content");
    const Report report = reported(GetParam().open, path_.c_str(), O_RDWR | O_CREAT, 0600, &file_);
    if (GetParam().exclusive) {
        EXPECT_THAT(report, Fails(GetParam().failure, EEXIST));
        EXPECT_EQ(file_, -1);
    } else {
        EXPECT_THAT(report, Succeeds());
    }
    EXPECT_EQ(dir_.read("file"), "content");
}

TEST_P(FileOpening, ReportsTheSystemsFailureAndNoFile)
{
    KEM_FILEHDL_T file = 77;
    EXPECT_THAT(reported(GetParam().open, dir_.path("no/file").c_str(), O_RDONLY, 0, &file),
                Fails(GetParam().failure, ENOENT));
    EXPECT_EQ(file, -1);
    Failing noDescriptor(GetParam().systemCall, EMFILE);
    file = 77;
    EXPECT_THAT(reported(GetParam().open, path_.c_str(), O_RDWR | O_CREAT, 0600, &file),
                Fails(GetParam().failure, EMFILE));
    EXPECT_EQ(file, -1);
}

TEST_P(FileOpening, WithoutPathOrHandleIsInvalidAndMakesNoSystemCall)
{
    resetCalls();
    KEM_FILEHDL_T file = 77;
    EXPECT_THAT(reported(GetParam().open, nullptr, O_RDONLY, 0, &file), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(GetParam().open, path_.c_str(), O_RDONLY, 0, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(file, 77);
    EXPECT_EQ(calls(Call::open) + calls(Call::open64), 0);
}

TEST_F(FileOpening, CreateMakesOrEmptiesAFile)
{
    dir_.write("file", "content");
    EXPECT_THAT(reported(KemSdFileCreate, path_.c_str(), 0600, &file_), Succeeds());
    ASSERT_GE(file_, 0);
    EXPECT_EQ(dir_.read("file"), "");
    EXPECT_EQ(fcntl(file_, F_GETFL) & O_ACCMODE, O_WRONLY);
}

TEST_F(FileOpening, CreateWidensThePermissionsInFailoverMode)
{
    EXPECT_THAT(reported(KemSdFileCreate, path_.c_str(), 0600, &file_), Succeeds());
    EXPECT_EQ(permissions(), 0600u);
    close(file_);
    KemSdSetFailoverModeFlag(TRUE);
    EXPECT_THAT(reported(KemSdFileCreate, dir_.path("wide").c_str(), 0600, &file_), Succeeds());
    EXPECT_EQ(permissions(), 0666u);
}

TEST_F(FileOpening, CreateReportsMissingArgumentsAndFailure)
{
    KEM_FILEHDL_T file = 77;
    EXPECT_THAT(reported(KemSdFileCreate, nullptr, 0600, &file), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdFileCreate, path_.c_str(), 0600, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(file, 77);
    EXPECT_THAT(reported(KemSdFileCreate, dir_.path().c_str(), 0600, &file), Fails(SDSTS_FILE_CREATE, EISDIR));
    EXPECT_EQ(file, -1);
    Failing readOnly(Call::creat, EROFS);
    EXPECT_THAT(reported(KemSdFileCreate, path_.c_str(), 0600, &file), Fails(SDSTS_FILE_CREATE, EROFS));
}

TEST_F(FileOpening, PermissionWideningAddsReadAndWriteForAllInFailoverMode)
{
    EXPECT_EQ(KemSdAddFailoverModePrivileges(0100), 0100u);
    KemSdSetFailoverModeFlag(TRUE);
    EXPECT_EQ(KemSdAddFailoverModePrivileges(0100), 0766u);
    EXPECT_EQ(KemSdAddFailoverModePrivileges(0), 0x1B6u);
}

TEST_F(FileOpening, CloseEndsTheHandle)
{
    dir_.write("file", "");
    const int file = open(path_.c_str(), O_RDONLY);
    EXPECT_THAT(reported(KemSdFileClose, file), Succeeds());
    EXPECT_EQ(fcntl(file, F_GETFD), -1);
    EXPECT_THAT(reported(KemSdFileClose, file), Fails(SDSTS_FILE_CLOSE, EBADF));
    EXPECT_THAT(reported(KemSdFileClose, -1), Fails(SDSTS_FILE_CLOSE, EBADF));
}

TEST_F(FileOpening, CloseIsNotRetried)
{
    resetCalls();
    Failing interrupted(Call::close, EINTR);
    EXPECT_THAT(reported(KemSdFileClose, 77), Fails(SDSTS_FILE_CLOSE, EINTR));
    EXPECT_EQ(calls(Call::close), 1);
}

TEST_F(FileOpening, AccessAnswersWhetherAllBitsMatch)
{
    dir_.write("file", "");
    chmod(path_.c_str(), 0600);
    KEM_BOOL_T matched = 7;
    EXPECT_THAT(reported(KemSdFileAccess, path_.c_str(), R_OK | W_OK, &matched), Succeeds());
    EXPECT_EQ(matched, TRUE);
    EXPECT_THAT(reported(KemSdFileAccess, path_.c_str(), X_OK, &matched), Succeeds());
    EXPECT_EQ(matched, FALSE);
    EXPECT_THAT(reported(KemSdFileAccess, path_.c_str(), F_OK, &matched), Succeeds());
    EXPECT_EQ(matched, TRUE);
}

TEST_F(FileOpening, AccessNeverFails)
{
    KEM_BOOL_T matched = 7;
    EXPECT_THAT(reported(KemSdFileAccess, path_.c_str(), F_OK, &matched), Succeeds());
    EXPECT_EQ(matched, FALSE);
    matched = 7;
    EXPECT_THAT(reported(KemSdFileAccess, nullptr, F_OK, &matched), Succeeds());
    EXPECT_EQ(matched, FALSE);
    matched = 7;
    dir_.write("file", "");
    Failing error(Call::access, EIO);
    EXPECT_THAT(reported(KemSdFileAccess, path_.c_str(), F_OK, &matched), Succeeds());
    EXPECT_EQ(matched, FALSE);
    EXPECT_THAT(reported(KemSdFileAccess, path_.c_str(), F_OK, nullptr), Fails(SDSTS_INVALID_PARAM));
}

TEST_F(FileOpening, RemoveUnlinksTheName)
{
    dir_.write("file", "");
    EXPECT_THAT(reported(KemSdFileRemove, path_.c_str()), Succeeds());
    EXPECT_EQ(access(path_.c_str(), F_OK), -1);
}

TEST_F(FileOpening, RemoveReportsMissingNameAndFailure)
{
    EXPECT_THAT(reported(KemSdFileRemove, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdFileRemove, path_.c_str()), Fails(SDSTS_FILE_REMOVE, ENOENT));
    Failing busy(Call::unlink, EBUSY);
    EXPECT_THAT(reported(KemSdFileRemove, path_.c_str()), Fails(SDSTS_FILE_REMOVE, EBUSY));
}

TEST_F(FileOpening, DirectoryAttributeIsTheWholeTypeField)
{
    const struct {
        KEM_ULONG_T attributes;
        KEM_BOOL_T expected;
    } cases[] = {{0x4000, TRUE}, {0x41FF, TRUE}, {0x8000, FALSE}, {0x6000, FALSE}, {0xC000, FALSE}, {0, FALSE}};
    for (const auto& c : cases) {
        KEM_BOOL_T isDirectory = 7;
        EXPECT_THAT(reported(KemSdIsAttrDirectory, c.attributes, &isDirectory), Succeeds()) << c.attributes;
        EXPECT_EQ(isDirectory, c.expected) << c.attributes;
    }
    EXPECT_THAT(reported(KemSdIsAttrDirectory, 0x4000, nullptr), Fails(SDSTS_INVALID_PARAM));
}

TEST_F(FileOpening, DirectAndNoWaitTransfersAreNeverAvailable)
{
    for (const auto call : {KemSdIsDirectIO, KemSdIsNoWaitIO}) {
        KEM_BOOL_T available = 7;
        EXPECT_THAT(reported(call, nullptr, "/", &available), Succeeds());
        EXPECT_EQ(available, FALSE);
        EXPECT_THAT(reported(call, nullptr, nullptr, nullptr), Fails(SDSTS_INVALID_PARAM));
    }
}
