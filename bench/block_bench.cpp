// Blocks of 8 KiB read from the page cache and written to it: 32 requests in flight, or one at once. The floor of a
// flight is the C library's own asynchronous calls; its peers are io_uring, and plain calls one after the other.
#include <aio.h>
#include <benchmark/benchmark.h>
#include <kemsd/file.h>
#include <unistd.h>
#ifdef KEMSD_BENCH_URING
#include <liburing.h>
#endif

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "support/memoryfile.h"
#include "support/processor.h"
#include "support/report.h"

namespace kemsd::bench {
namespace {

constexpr unsigned kBytes = KEM_BLOCK_SIZE;
constexpr unsigned kBlocks = 1024;
constexpr unsigned kInFlight = 32;

enum class Way { read, write };

int file = -1;
alignas(4096) char buffers[kInFlight][kBytes];

constexpr off_t place(unsigned block) { return off_t{block} * kBytes; }

// ---- A flight: one request for each of 32 blocks from `first` on, all queued before the first is collected. It tells
// whether all were moved whole.

KEM_NOWAITIO_CB_T ourRequests[kInFlight];

template <Way way>
bool oursFlight(unsigned first)
{
    constexpr KEM_STS_T kQueued = way == Way::read ? SDSTS_DIO_READ_PENDING : SDSTS_DIO_WRITE_PENDING;
    KEM_ULONG_T moved = 0;
    for (unsigned i = 0; i < kInFlight; i++) {
        const KEM_STS_T sts =
            way == Way::read
                ? KemSdDirectIOFileRead(nullptr, file, first + i, buffers[i], 1, &ourRequests[i], &moved, nullptr)
                : KemSdDirectIOFileWrite(nullptr, file, first + i, buffers[i], 1, &ourRequests[i], &moved, nullptr);
        if (sts != kQueued) return false;
    }
    for (unsigned i = 0; i < kInFlight; i++)
        if (KemSdDirectIOWait(nullptr, file, &ourRequests[i], &moved) != 0 || moved != 1) return false;
    return true;
}

aiocb floorRequests[kInFlight];

template <Way way>
bool floorFlight(unsigned first)
{
    for (unsigned i = 0; i < kInFlight; i++) {
        aiocb& request = floorRequests[i];
        request.aio_fildes = file;
        request.aio_reqprio = 0;
        request.aio_sigevent.sigev_notify = SIGEV_NONE;
        request.aio_buf = buffers[i];
        request.aio_nbytes = kBytes;
        request.aio_offset = place(first + i);
        if ((way == Way::read ? aio_read(&request) : aio_write(&request)) != 0) return false;
    }
    for (aiocb& request : floorRequests) {
        const aiocb* const list[] = {&request};
        while (aio_error(&request) == EINPROGRESS) aio_suspend(list, 1, nullptr);
        if (aio_return(&request) != kBytes) return false;
    }
    return true;
}

template <Way way>
bool plainFlight(unsigned first)
{
    for (unsigned i = 0; i < kInFlight; i++) {
        const ssize_t moved = way == Way::read ? pread(file, buffers[i], kBytes, place(first + i))
                                               : pwrite(file, buffers[i], kBytes, place(first + i));
        if (moved != kBytes) return false;
    }
    return true;
}

#ifdef KEMSD_BENCH_URING
io_uring ring;

// Kernels and containers may refuse it.
bool openRing()
{
    const int result = io_uring_queue_init(kInFlight, &ring, 0);
    if (result < 0)
        printf("block: the system refuses io_uring (%s); it is missing from the table\n", strerror(-result));
    return result == 0;
}

template <Way way>
bool uringFlight(unsigned first)
{
    for (unsigned i = 0; i < kInFlight; i++) {
        io_uring_sqe* const request = io_uring_get_sqe(&ring);
        if (!request) return false;
        if (way == Way::read)
            io_uring_prep_read(request, file, buffers[i], kBytes, place(first + i));
        else
            io_uring_prep_write(request, file, buffers[i], kBytes, place(first + i));
    }
    if (io_uring_submit_and_wait(&ring, kInFlight) != kInFlight) return false;
    bool whole = true;
    for (unsigned i = 0; i < kInFlight; i++) {
        io_uring_cqe* done = nullptr;
        if (io_uring_wait_cqe(&ring, &done) != 0) return false;
        whole = whole && done->res == static_cast<int>(kBytes);
        io_uring_cqe_seen(&ring, done);
    }
    return whole;
}
#endif

// ---- One block at once

bool oursRead(unsigned block)
{
    KEM_ULONG_T moved = 0;
    return KemSdDirectIOFileRead(nullptr, file, block, buffers[0], 1, nullptr, &moved, nullptr) == 0 && moved == 1;
}
bool floorRead(unsigned block) { return pread(file, buffers[0], kBytes, place(block)) == kBytes; }

bool oursWrite(unsigned block)
{
    KEM_ULONG_T moved = 0;
    return KemSdDirectIOFileWrite(nullptr, file, block, buffers[0], 1, nullptr, &moved, nullptr) == 0 && moved == 1;
}
bool floorWrite(unsigned block) { return pwrite(file, buffers[0], kBytes, place(block)) == kBytes; }

// ---- The loads

template <bool (*operation)(unsigned), unsigned step>
void through(benchmark::State& state)
{
    unsigned block = 0;
    for (auto _ : state) {
        if (!operation(block)) {
            state.SkipWithError("a block was not moved");
            break;
        }
        block = (block + step) % kBlocks;
    }
}

// Others do the work, so that the clock counts, not the time of our processor.
template <bool (*operation)(unsigned)>
void addFlight(const std::string& load, const std::string& contender)
{
    add(load, contender, through<operation, kInFlight>)->UseRealTime();
}

template <Way way>
void addFlights(const std::string& load, [[maybe_unused]] bool withRing)
{
    addFlight<oursFlight<way>>(load, kOurs);
    addFlight<floorFlight<way>>(load, kFloor);
#ifdef KEMSD_BENCH_URING
    if (withRing) addFlight<uringFlight<way>>(load, "io_uring");
#endif
    addFlight<plainFlight<way>>(load, way == Way::read ? "pread" : "pwrite");
}

void addBenchmarks()
{
    bool withRing = false;
#ifdef KEMSD_BENCH_URING
    withRing = openRing();
#endif
    addFlights<Way::read>("nowait-read/32x8KiB", withRing);
    addFlights<Way::write>("nowait-write/32x8KiB", withRing);
    add("block-read/8KiB", kOurs, through<oursRead, 1>);
    add("block-read/8KiB", kFloor, through<floorRead, 1>);
    add("block-write/8KiB", kOurs, through<oursWrite, 1>);
    add("block-write/8KiB", kFloor, through<floorWrite, 1>);
}

} // namespace
} // namespace kemsd::bench

int main(int argc, char** argv)
{
    using namespace kemsd::bench;
    file = openMemoryFile(place(kBlocks));
    if (file == -1) {
        perror("no file to work on");
        return 1;
    }
    // Who helps whom on which processor is a matter of luck: all share the first, also the helpers that come later.
    const Pinned together(0, 2);
    return run(
        argc, argv,
        {"block",
         "a file of 8 MiB in memory, no context, one processor; nowait: 32 requests in flight, all of them collected, "
         "by the clock",
         addBenchmarks});
}
