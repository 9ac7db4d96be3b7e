// Requests that run out of disk or of the process's limit while they are under way. Both are made small for a child
// alone, and this process makes no requests itself: the C library's do not survive a fork.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <kemsd/file.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>

#include "support/child.h"
#include "support/smalldisk.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

constexpr KEM_ULONG_T kBlock = KEM_BLOCK_SIZE;
constexpr int kNoDisk = 77;

// What a request for two blocks comes to.
struct Written {
    KEM_STS_T sts;
    KEM_OSRETCODE_T error;
    KEM_ULONG_T blocks;

    bool operator==(const Written&) const = default;
};

Written writeTwo(int file, KEM_ULONG_T offset)
{
    static char buffer[2 * kBlock];
    constexpr KEM_ULONG_T kNone = 77;
    KEM_SDCTX_T context{};
    KEM_NOWAITIO_CB_T request{};
    KEM_ULONG_T queued = kNone, blocks = kNone;
    const KEM_STS_T sts = KemSdDirectIOFileWrite(&context, file, offset, buffer, 2, &request, &queued, nullptr);
    if (sts != SDSTS_DIO_WRITE_PENDING || queued != 0) return {sts, context.osRetCode, queued};
    errno = ERANGE; // the number that counts is the request's own
    KemSdDirectIOWait(&context, file, &request, &blocks);
    return {context.sts, context.osRetCode, blocks};
}

// Two blocks, the one that still fits, and one too many. The result is the step that went wrong, or 0.
int writeUntil(const std::string& path, Written last)
{
    const int file = open(path.c_str(), O_RDWR | O_CREAT, 0600);
    if (file == -1) return 1;
    if (writeTwo(file, 0) != Written{0, 0, 2}) return 2;
    if (writeTwo(file, 2) != Written{0, 0, 1}) return 3;
    return writeTwo(file, 3) == last ? 0 : 4;
}

} // namespace

TEST(BlockDisk, FillsUpWithWhatFitsAndThenReportsItself)
{
    const TempDir dir;
    const auto fill = [&] {
        if (!mountDisk(dir.path(), 3 * kBlock)) return kNoDisk;
        return writeUntil(dir.path("file"), {SDSTS_DISK_FULL, ENOSPC, 77});
    };
    const int status = inChild(fill).status;
    if (status == kNoDisk) GTEST_SKIP() << "cannot mount a small disk";
    EXPECT_EQ(status, 0);
}

TEST(BlockDisk, WriteBeyondTheProcessesLimitFailsLate)
{
    const TempDir dir;
    const auto fill = [&] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{3 * kBlock, 3 * kBlock};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 9;
        return writeUntil(dir.path("file"), {SDSTS_DIO_RETURN, EFBIG, 77});
    };
    EXPECT_EQ(inChild(fill).status, 0);
}
