// The lease guard: in failover mode it runs once, first, in every call on block files but the close and those on arrays
// of control blocks.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <kemsd/file.h>

#include <string>
#include <vector>

#include "support/guardpasses.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

class BlockGuard : public testing::Test, protected GuardCounted {
protected:
    // Valid calls of everything, in an order in which they succeed.
    std::vector<Operation> valid()
    {
        const char* path = path_.c_str();
        char* b = buffer_.data();
        return {
            {"Create", 1, [=] { return KemSdDirectIOFileCreate(nullptr, path, 0600); }},
            {"Open", 1,
             [=, this] { return KemSdDirectIOFileOpen(nullptr, path, O_RDWR, 0, 0, 0, 0, &opened_, nullptr); }},
            {"Write", 1,
             [=, this] { return KemSdDirectIOFileWrite(nullptr, opened_, 0, b, 1, nullptr, &moved_, nullptr); }},
            {"Read", 1,
             [=, this] { return KemSdDirectIOFileRead(nullptr, opened_, 0, b, 1, nullptr, &moved_, nullptr); }},
            {"NoWaitWrite", 1,
             [=, this] { return KemSdDirectIOFileWrite(nullptr, opened_, 0, b, 1, &request_, &moved_, nullptr); },
             SDSTS_DIO_WRITE_PENDING},
            {"Wait", 1, [this] { return KemSdDirectIOWait(nullptr, opened_, &request_, &moved_); }},
            {"NoWaitRead", 1,
             [=, this] { return KemSdDirectIOFileRead(nullptr, opened_, 0, b, 1, &request_, &moved_, nullptr); },
             SDSTS_DIO_READ_PENDING},
            {"WaitAgain", 1, [this] { return KemSdDirectIOWait(nullptr, opened_, &request_, &moved_); }},
            {"Size", 1, [this] { return KemSdDirectIOFileSize(nullptr, opened_, &moved_); }},
            {"PointerGet", 1, [this] { return KemSdDirectIOFilePointerGet(nullptr, opened_, &moved_); }},
            {"PointerSet", 1, [this] { return KemSdDirectIOFilePointerSet(nullptr, opened_, 1, SEEK_SET, &moved_); }},
            {"ChangeSize", 1, [this] { return KemSdDirectIOFileChangeSize(nullptr, opened_, 1, &moved_); }},
            {"SetEndOfFile", 1, [this] { return KemSdDirectIOFileSetEndOfFile(nullptr, opened_, 1, &moved_); }},
            {"Close", 0, [this] { return KemSdDirectIOFileClose(nullptr, opened_, nullptr); }},
            {"Remove", 1, [=] { return KemSdDirectIOFileRemove(nullptr, path); }},
            {"MaxFileSizeGet", 1, [this] { return KemSdDirectIOMaxFileSizeGet(nullptr, "/", &bytes_); }},
            {"NoWaitCbsInit", 0, [this] { return KemSdDirectIONoWaitCbsInit(nullptr, &request_, 1); }},
            {"NoWaitCbsTerm", 0, [this] { return KemSdDirectIONoWaitCbsTerm(nullptr, &request_, 1); },
             SDSTS_INVALID_PARAM},
        };
    }

    TempDir dir_;
    const std::string path_ = dir_.path("file");
    std::string buffer_ = std::string(KEM_BLOCK_SIZE, '.');
    KEM_FILEHDL_T opened_ = -1;
    KEM_ULONG_T moved_ = 0;
    KEM_NOWAITIO_CB_T request_{};
    double bytes_ = 0;
};

} // namespace

TEST_F(BlockGuard, RunsOnceInEveryGuardedCallInFailoverMode) { expectPasses(valid(), true); }

TEST_F(BlockGuard, DoesNotRunOutsideFailoverMode) { expectPasses(valid(), false); }

TEST_F(BlockGuard, RunsBeforeTheArgumentsAreChecked)
{
    constexpr KEM_STS_T kInvalid = SDSTS_INVALID_PARAM;
    expectPasses(
        {
            {"Create", 1, [] { return KemSdDirectIOFileCreate(nullptr, nullptr, 0); }, kInvalid},
            {"Open", 1, [] { return KemSdDirectIOFileOpen(nullptr, nullptr, 0, 0, 0, 0, 0, nullptr, nullptr); },
             kInvalid},
            {"Remove", 1, [] { return KemSdDirectIOFileRemove(nullptr, nullptr); }, kInvalid},
            {"Read", 1, [] { return KemSdDirectIOFileRead(nullptr, -1, 0, nullptr, 0, nullptr, nullptr, nullptr); },
             kInvalid},
            {"Write", 1, [] { return KemSdDirectIOFileWrite(nullptr, -1, 0, nullptr, 0, nullptr, nullptr, nullptr); },
             kInvalid},
            {"Wait", 1, [] { return KemSdDirectIOWait(nullptr, -1, nullptr, nullptr); }, kInvalid},
            {"Size", 1, [] { return KemSdDirectIOFileSize(nullptr, -1, nullptr); }, kInvalid},
            {"PointerGet", 1, [] { return KemSdDirectIOFilePointerGet(nullptr, -1, nullptr); }, kInvalid},
            {"PointerSet", 1, [] { return KemSdDirectIOFilePointerSet(nullptr, -1, 0, 0, nullptr); }, kInvalid},
            {"ChangeSize", 1, [] { return KemSdDirectIOFileChangeSize(nullptr, -1, 0, nullptr); }, kInvalid},
            {"SetEndOfFile", 1, [] { return KemSdDirectIOFileSetEndOfFile(nullptr, -1, 0, nullptr); }, kInvalid},
            {"MaxFileSizeGet", 1, [] { return KemSdDirectIOMaxFileSizeGet(nullptr, nullptr, nullptr); }, kInvalid},
        },
        true);
}
