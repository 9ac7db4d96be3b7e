// Requests on block files that are collected later: queued, refused, waited for, failed and many at a time.

#include <gtest/gtest.h>
#include <kemsd/file.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/failingcalls.h"
#include "support/openfile.h"
#include "support/report.h"
#include "support/tempdir.h"

using namespace kemsd::test;

namespace {

constexpr size_t kBlock = KEM_BLOCK_SIZE;
constexpr KEM_ULONG_T kUntouched = 77;

Report readLater(KEM_FILEHDL_T file, KEM_ULONG_T offset, std::string& buffer, KEM_NOWAITIO_CB_T& request,
                 KEM_ULONG_T& moved)
{
    return reported(KemSdDirectIOFileRead, file, offset, buffer.data(),
                    static_cast<KEM_ULONG_T>(buffer.size() / kBlock), &request, &moved, nullptr);
}

Report writeLater(KEM_FILEHDL_T file, KEM_ULONG_T offset, std::string& buffer, KEM_NOWAITIO_CB_T& request,
                  KEM_ULONG_T& moved)
{
    return reported(KemSdDirectIOFileWrite, file, offset, buffer.data(),
                    static_cast<KEM_ULONG_T>(buffer.size() / kBlock), &request, &moved, nullptr);
}

// The file is not asked for: any handle will do.
Report waitFor(KEM_NOWAITIO_CB_T& request, KEM_ULONG_T& moved)
{
    return reported(KemSdDirectIOWait, -1, &request, &moved);
}

// A pipe, whose read ends when somebody writes and not before.
class Pipe {
public:
    Pipe()
    {
        if (pipe(ends_.data()) != 0) ADD_FAILURE() << strerror(errno);
    }
    ~Pipe()
    {
        close(ends_[0]);
        close(ends_[1]);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int reader() const { return ends_[0]; }
    void fill() const { EXPECT_EQ(write(ends_[1], std::string(kBlock, 'p').data(), kBlock), ssize_t{kBlock}); }

private:
    std::array<int, 2> ends_{-1, -1};
};

class BlockRequest : public testing::Test {
protected:
    BlockRequest()
    {
#if defined(__SANITIZE_THREAD__)
        // Of the C library's helpers the sanitizer survives only one that a thread it knows has started: the first.
        aioinit oneHelper{};
        oneHelper.aio_threads = 1;
        aio_init(&oneHelper);
#endif
    }

    TempDir dir_;
    OpenFile file_{dir_.write("file", std::string(kBlock, 'a') + std::string(kBlock, 'b') + "short")};
    std::string buffer_ = std::string(2 * kBlock, '.');
    KEM_NOWAITIO_CB_T request_{};
    KEM_ULONG_T moved_ = kUntouched;
};

const auto kReadPending = Fails(SDSTS_DIO_READ_PENDING);
const auto kWritePending = Fails(SDSTS_DIO_WRITE_PENDING);

} // namespace

// ---- Queued and collected ----------------------------------------------------------------------------------------

TEST_F(BlockRequest, ReadIsQueuedAndItsWaitCountsTheBlocks)
{
    EXPECT_THAT(readLater(file_, 0, buffer_, request_, moved_), kReadPending);
    EXPECT_EQ(moved_, 0u);
    EXPECT_THAT(waitFor(request_, moved_), Succeeds());
    EXPECT_EQ(moved_, 2u);
    EXPECT_EQ(buffer_, std::string(kBlock, 'a') + std::string(kBlock, 'b'));
    EXPECT_EQ(file_.position(), 0);
}

TEST_F(BlockRequest, WriteIsQueuedAndItsWaitCountsTheBlocks)
{
    EXPECT_THAT(writeLater(file_, 1, buffer_, request_, moved_), kWritePending);
    EXPECT_EQ(moved_, 0u);
    EXPECT_THAT(waitFor(request_, moved_), Succeeds());
    EXPECT_EQ(moved_, 2u);
    EXPECT_EQ(dir_.read("file"), std::string(kBlock, 'a') + std::string(2 * kBlock, '.'));
    EXPECT_EQ(file_.position(), 0);
}

TEST_F(BlockRequest, WaitCountsWholeBlocksOnly)
{
    EXPECT_THAT(readLater(file_, 1, buffer_, request_, moved_), kReadPending);
    EXPECT_THAT(waitFor(request_, moved_), Succeeds());
    EXPECT_EQ(moved_, 1u);
    moved_ = kUntouched;
    EXPECT_THAT(readLater(file_, 3, buffer_, request_, moved_), kReadPending);
    EXPECT_THAT(waitFor(request_, moved_), Succeeds());
    EXPECT_EQ(moved_, 0u) << "behind the end of the file";
}

TEST_F(BlockRequest, WaitDoesNotRoundUpAt2GiB)
{
    constexpr off_t kAllBytes = 0x7FFFFFFF;
    ASSERT_EQ(ftruncate(file_, kAllBytes), 0);
    EXPECT_THAT(readLater(file_, 262142, buffer_, request_, moved_), kReadPending);
    EXPECT_THAT(waitFor(request_, moved_), Succeeds());
    EXPECT_EQ(moved_, 1u);
}

TEST_F(BlockRequest, WaitLastsUntilTheRequestHasEnded)
{
    const Pipe pipe;
    std::string block(kBlock, '.');
    EXPECT_THAT(readLater(pipe.reader(), 0, block, request_, moved_), kReadPending);
    const Interrupting waiting(Call::aio_suspend, 1, When::Before, [&] { pipe.fill(); });
    EXPECT_THAT(waitFor(request_, moved_), Succeeds());
    EXPECT_TRUE(waiting.happened());
    EXPECT_EQ(moved_, 1u);
    EXPECT_EQ(block, std::string(kBlock, 'p'));
}

TEST_F(BlockRequest, EndIsPolledForWhileTheRequestIsInProgress)
{
    const Pipe pipe;
    std::string block(kBlock, '.');
    EXPECT_THAT(readLater(pipe.reader(), 0, block, request_, moved_), kReadPending);
    const Failing early(Call::aio_suspend, 0, 0L); // says that it has ended
    const Interrupting polling(Call::aio_error, 3, When::Before, [&] { pipe.fill(); });
    EXPECT_THAT(waitFor(request_, moved_), Succeeds());
    EXPECT_TRUE(polling.happened());
    EXPECT_EQ(moved_, 1u);
}

TEST_F(BlockRequest, ControlBlockCarriesTheRequestAndKeepsItsOtherFields)
{
    const Failing refused(Call::aio_write, EAGAIN);
    memset(static_cast<void*>(&request_), 0x5A, sizeof request_);
    const sigval kept = request_.aio_sigevent.sigev_value;
    const int opcode = request_.aio_lio_opcode;
    EXPECT_THAT(writeLater(file_, 524288 + 3, buffer_, request_, moved_), Fails(SDSTS_DIO_WRITE, EAGAIN));
    EXPECT_EQ(request_.aio_fildes, int(file_));
    EXPECT_EQ(request_.aio_reqprio, 0);
    EXPECT_EQ(request_.aio_sigevent.sigev_notify, SIGEV_NONE);
    EXPECT_EQ(request_.aio_buf, buffer_.data());
    EXPECT_EQ(request_.aio_nbytes, 2 * kBlock);
    EXPECT_EQ(request_.aio_offset, off_t{3 * kBlock}) << "offsets wrap at 4 GiB";
    EXPECT_EQ(request_.aio_sigevent.sigev_value.sival_ptr, kept.sival_ptr);
    EXPECT_EQ(request_.aio_lio_opcode, opcode);
}

// ---- Refused, interrupted and failed -----------------------------------------------------------------------------

TEST_F(BlockRequest, RefusedReadCountsZeroAndRefusedWriteAllBits)
{
    {
        const Failing refused(Call::aio_read, EAGAIN);
        EXPECT_THAT(readLater(file_, 0, buffer_, request_, moved_), Fails(SDSTS_DIO_READ, EAGAIN));
        EXPECT_EQ(moved_, 0u);
    }
    const Failing refused(Call::aio_write, EAGAIN);
    EXPECT_THAT(writeLater(file_, 0, buffer_, request_, moved_), Fails(SDSTS_DIO_WRITE, EAGAIN));
    EXPECT_EQ(moved_, 0xFFFFFFFFu);
}

TEST_F(BlockRequest, InterruptedWaitIsRepeated)
{
    EXPECT_THAT(readLater(file_, 0, buffer_, request_, moved_), kReadPending);
    resetCalls();
    const Failing interrupted = Failing::nth(Call::aio_suspend, 1, EINTR);
    EXPECT_THAT(waitFor(request_, moved_), Succeeds());
    EXPECT_EQ(moved_, 2u);
    EXPECT_EQ(calls(Call::aio_suspend), 2);
}

TEST_F(BlockRequest, FailedWaitLeavesTheRequestToAnotherOne)
{
    EXPECT_THAT(readLater(file_, 0, buffer_, request_, moved_), kReadPending);
    moved_ = kUntouched;
    {
        const Failing error(Call::aio_suspend, ENOSYS);
        EXPECT_THAT(waitFor(request_, moved_), Fails(SDSTS_DIO_SUSPEND, ENOSYS));
        EXPECT_EQ(moved_, kUntouched);
    }
    EXPECT_THAT(waitFor(request_, moved_), Succeeds());
    EXPECT_EQ(moved_, 2u);
}

TEST_F(BlockRequest, WaitNeedsRequestAndCount)
{
    EXPECT_THAT(reported(KemSdDirectIOWait, int(file_), nullptr, &moved_), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdDirectIOWait, int(file_), &request_, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(moved_, kUntouched);
}

TEST_F(BlockRequest, QueueingNeedsBufferAndCount)
{
    resetCalls();
    void* const buffer = buffer_.data();
    EXPECT_THAT(reported(KemSdDirectIOFileRead, int(file_), 0u, nullptr, 1u, &request_, &moved_, nullptr),
                Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdDirectIOFileWrite, int(file_), 0u, buffer, 1u, &request_, nullptr, nullptr),
                Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(calls(Call::aio_read) + calls(Call::aio_write), 0);
    EXPECT_EQ(moved_, kUntouched);
}

// The return call leaves errno alone when a request failed.
TEST_F(BlockRequest, FailedRequestReportsItsOwnErrorNumber)
{
    EXPECT_THAT(readLater(-1, 0, buffer_, request_, moved_), kReadPending) << "refused only later";
    moved_ = kUntouched;
    errno = ERANGE;
    EXPECT_THAT(waitFor(request_, moved_), Fails(SDSTS_DIO_RETURN, EBADF));
    EXPECT_EQ(moved_, kUntouched);
}

TEST_F(BlockRequest, RequestOnTheFullDeviceReportsAFullDisk)
{
    if (access("/dev/full", W_OK) == -1) GTEST_SKIP() << "no device that is always full";
    const OpenFile full("/dev/full", O_WRONLY);
    EXPECT_THAT(writeLater(full, 0, buffer_, request_, moved_), kWritePending);
    moved_ = kUntouched;
    errno = ERANGE;
    EXPECT_THAT(waitFor(request_, moved_), Fails(SDSTS_DISK_FULL, ENOSPC));
    EXPECT_EQ(moved_, kUntouched);
}

TEST_F(BlockRequest, ReturnThatFailsByItselfReportsErrno)
{
    for (const auto& [error, status] : {std::pair{EINVAL, SDSTS_DIO_RETURN}, {ENOSPC, SDSTS_DISK_FULL}}) {
        EXPECT_THAT(readLater(file_, 0, buffer_, request_, moved_), kReadPending);
        const Failing planned(Call::aio_return, error);
        EXPECT_THAT(waitFor(request_, moved_), Fails(status, error));
    }
}

TEST_F(BlockRequest, QueryThatFailsEndsThePollAndTheReturnDecides)
{
    EXPECT_THAT(readLater(file_, 0, buffer_, request_, moved_), kReadPending);
    {
        const Failing query(Call::aio_error, EINVAL, -1);
        const Failing collected(Call::aio_return, EINVAL);
        EXPECT_THAT(waitFor(request_, moved_), Fails(SDSTS_DIO_RETURN, EINVAL));
    }
    EXPECT_THAT(waitFor(request_, moved_), Succeeds()) << "it was not collected";
}

// ---- Many at once ------------------------------------------------------------------------------------------------

namespace {

constexpr KEM_ULONG_T kRequests = 48;

// Queues a request for each block, all before the first is waited for.
struct Flight {
    explicit Flight(KEM_ULONG_T firstBlock) : first(firstBlock)
    {
        for (KEM_ULONG_T i = 0; i < kRequests; ++i) blocks[i].assign(kBlock, char('A' + (first + i) % 57));
    }

    bool write(KEM_FILEHDL_T file)
    {
        for (KEM_ULONG_T i = 0; i < kRequests; ++i)
            if (writeLater(file, first + i, blocks[i], requests[i], moved).result != SDSTS_DIO_WRITE_PENDING)
                return false;
        return collectAll();
    }
    // Into cleared buffers, which are then compared with what was written.
    bool readBack(KEM_FILEHDL_T file)
    {
        const auto written = blocks;
        for (KEM_ULONG_T i = 0; i < kRequests; ++i) {
            blocks[i].assign(kBlock, '.');
            if (readLater(file, first + i, blocks[i], requests[i], moved).result != SDSTS_DIO_READ_PENDING)
                return false;
        }
        return collectAll() && blocks == written;
    }
    // The last first: their order is nobody's business.
    bool collectAll()
    {
        for (KEM_ULONG_T i = kRequests; i-- > 0;)
            if (waitFor(requests[i], moved).result != 0 || moved != 1) return false;
        return true;
    }

    KEM_ULONG_T first;
    KEM_ULONG_T moved = 0;
    std::array<std::string, kRequests> blocks;
    std::array<KEM_NOWAITIO_CB_T, kRequests> requests{};
};

} // namespace

TEST_F(BlockRequest, ManyAreInFlightAtOnce)
{
    Flight flight(0);
    EXPECT_TRUE(flight.write(file_));
    EXPECT_TRUE(flight.readBack(file_));
    std::string all;
    for (const std::string& block : flight.blocks) all += block;
    EXPECT_EQ(dir_.read("file"), all);
}

TEST_F(BlockRequest, ThreadsKeepManyInFlightOnOneFileAndOnTheirOwn)
{
    constexpr KEM_ULONG_T kThreads = 4;
    std::array<bool, kThreads> done{};
    std::vector<std::thread> threads;
    for (KEM_ULONG_T t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            const OpenFile own(dir_.path("own" + std::to_string(t)), O_RDWR | O_CREAT);
            Flight shared(t * kRequests), alone(7 * t);
            done[t] = shared.write(file_) && alone.write(own) && shared.readBack(file_) && alone.readBack(own);
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(done, (std::array<bool, kThreads>{true, true, true, true}));
}

// ---- Arrays of control blocks ------------------------------------------------------------------------------------

TEST(BlockControlBlocks, InitHasNothingToDoAndTermIsNotProvided)
{
    KEM_NOWAITIO_CB_T blocks[2]{};
    EXPECT_THAT(reported(KemSdDirectIONoWaitCbsInit, blocks, 2u), Succeeds());
    EXPECT_THAT(reported(KemSdDirectIONoWaitCbsInit, nullptr, 0u), Succeeds());
    EXPECT_THAT(reported(KemSdDirectIONoWaitCbsTerm, blocks, 2u), Fails(SDSTS_INVALID_PARAM));
    EXPECT_THAT(reported(KemSdDirectIONoWaitCbsTerm, nullptr, 0u), Fails(SDSTS_INVALID_PARAM));
}
