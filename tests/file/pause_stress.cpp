// Eight writers bump plain counters and append to a file under leases while another thread pauses them again and again
// and looks whether anything moves. The counters are plain memory: a writer that goes on during a pause is seen by
// their values, and a missing order is a data race that thread sanitizer reports.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>

#include <array>
#include <numeric>
#include <thread>
#include <vector>

#include "file/pausefixture.h"
#include "support/child.h"
#include "support/openfile.h"
#include "support/tempdir.h"
#include "sync/waiting.h"

using namespace kemsd::test;

namespace {

#if defined(__SANITIZE_THREAD__)
constexpr bool kSeesRaces = true;
constexpr long kLeases = 100000;
#elif defined(__SANITIZE_ADDRESS__)
constexpr bool kSeesRaces = false;
constexpr long kLeases = 100000;
#else
constexpr bool kSeesRaces = false;
constexpr long kLeases = 1000000;
#endif

constexpr int kWriters = 8;
constexpr long kAppendEvery = 32; // leases of a writer
constexpr long kRound = 125;      // leases of a writer; no writer begins a round before its pause
constexpr int kLooks = 3;         // during a pause

struct alignas(64) Tally {
    long leases = 0;          // plain: under a lease, or under a pause
    volatile long passed = 0; // atomic: how far the writer is
};

// What the writers write: everything that must stand still during a pause.
struct Work {
    std::array<Tally, kWriters> tallies;
    volatile long pauses = 0; // atomic: made so far
    TempDir dir;
    OpenFile file{dir.path("log"), O_RDWR | O_CREAT | O_APPEND};

    long total() const
    {
        return std::accumulate(tallies.begin(), tallies.end(), 0L,
                               [](long sum, const Tally& tally) { return sum + tally.leases; });
    }
    long passed() const
    {
        return std::accumulate(tallies.begin(), tallies.end(), 0L,
                               [](long sum, const Tally& tally) { return sum + sd::loadRelaxed(tally.passed); });
    }
    off_t bytes() const
    {
        struct stat record {};
        return fstat(file, &record) == 0 ? record.st_size : -1;
    }

    // Looks several times, giving way in between; how often something had moved.
    long movements() const
    {
        const long totalBefore = total();
        const off_t bytesBefore = bytes();
        long seen = 0;
        for (int look = 0; look < kLooks; ++look) {
            sched_yield();
            seen += total() != totalBefore || bytes() != bytesBefore;
        }
        return seen;
    }
};

// One passage of a writer; false when a call failed.
bool passage(ServerThread& thread, Work& work, Tally& tally)
{
    if (KemSdGetWriteIOLease(&thread.context) != 0) return false;
    const bool append = ++tally.leases % kAppendEvery == 0;
    if (KemSdReleaseWriteIOLease(&thread.context) != 0) return false;
    if (!append) return true;
    char line[] = "line\n";
    KEM_INT_T written = 0;
    return KemSdLeasedFileWrite(&thread.context, work.file, line, 5, &written) == 0 && written == 5;
}

// Leases taken; fewer than asked for when a call failed.
long write(Service& service, Work& work, int number, long leases)
{
    ServerThread thread(service);
    Tally& tally = work.tallies[static_cast<size_t>(number)];
    long taken = 0;
    while (taken < leases && passage(thread, work, tally)) {
        sd::storeRelaxed(tally.passed, ++taken);
        if (taken % kRound == 0 && !eventually([&] { return sd::loadRelaxed(work.pauses) >= taken / kRound; })) break;
    }
    return taken;
}

// Pauses in the middle of each round. Returns how often something moved, or -1 when a call failed.
long pauseInEachRound(Service& service, Work& work, long rounds)
{
    ServerThread thread(service);
    long movements = 0;
    for (long round = 0; round < rounds; ++round) {
        const long middle = kWriters * (round * kRound + kRound / 2);
        if (!eventually([&] { return work.passed() >= middle; })) return -1;
        if (KemSdPauseWriteIO(&thread.context, 0) != 0) return -1;
        movements += work.movements();
        if (KemSdUnpauseWriteIO(&thread.context) != 0) return -1;
        sd::storeRelaxed(work.pauses, round + 1);
    }
    return movements;
}

} // namespace

TEST(PauseStress, NothingMovesDuringAPause)
{
    constexpr long kEach = kLeases / kWriters;
    Service service;
    Work work;
    std::vector<std::thread> writers;
    for (int i = 0; i < kWriters; ++i)
        writers.emplace_back([&, i] { EXPECT_EQ(write(service, work, i, kEach), kEach); });
    EXPECT_EQ(pauseInEachRound(service, work, kEach / kRound), 0);
    for (std::thread& writer : writers) writer.join();
    EXPECT_EQ(work.total(), kWriters * kEach);
    EXPECT_EQ(work.bytes(), kWriters * (kEach / kAppendEvery) * 5);
    EXPECT_EQ(service.leases(), 0);
    EXPECT_FALSE(service.paused());
}

// ---- One writer and one pause, again and again at the same moment

namespace {

constexpr long kMeetings = kLeases / 20;

// Two threads go on together, as exactly as spinning allows.
class Meeting {
public:
    void meet(long round)
    {
        __atomic_fetch_add(&arrived_, 1, __ATOMIC_RELAXED);
        const auto complete = [&] { return sd::loadRelaxed(arrived_) >= 2 * (round + 1); };
        for (int spin = 0; spin < 1000; ++spin) {
            if (complete()) return;
            sd::pauseHint();
        }
        eventually(complete);
    }

private:
    volatile long arrived_ = 0;
};

// The two sides come at varying distances: the one that pauses has the longer way.
void dawdle(long round)
{
    for (long i = 0; i < round % 64; ++i) sd::pauseHint();
}

} // namespace

TEST(PauseStress, AWriterAndAPausingThreadNeverBothGoOn)
{
    Service service;
    Meeting meeting;
    int inside = 0;
    std::thread writer([&] {
        ServerThread thread(service);
        for (long round = 0; round < kMeetings; ++round) {
            meeting.meet(round);
            dawdle(round);
            EXPECT_EQ(KemSdGetWriteIOLease(&thread.context), 0);
            sd::storeRelaxed(inside, 1);
            dawdle(63);
            sd::storeRelaxed(inside, 0);
            EXPECT_EQ(KemSdReleaseWriteIOLease(&thread.context), 0);
        }
    });
    ServerThread pauser(service);
    long bothInside = 0;
    for (long round = 0; round < kMeetings; ++round) {
        meeting.meet(round);
        EXPECT_EQ(KemSdPauseWriteIO(&pauser.context, 0), 0);
        bothInside += sd::loadRelaxed(inside);
        EXPECT_EQ(KemSdUnpauseWriteIO(&pauser.context), 0);
    }
    writer.join();
    EXPECT_EQ(bothInside, 0);
}

// ---- Ends of a pause that no script plays

TEST(PauseWithThreads, IsEndedByItsWritersWhenItsTimeIsOver)
{
    Service service;
    ServerThread pauser(service);
    ASSERT_EQ(KemSdPauseWriteIO(&pauser.context, 1), 0);
    std::vector<std::thread> writers;
    for (int i = 0; i < kWriters; ++i)
        writers.emplace_back([&] {
            ServerThread thread(service);
            EXPECT_EQ(KemSdGetWriteIOLease(&thread.context), 0);
            EXPECT_EQ(KemSdReleaseWriteIOLease(&thread.context), 0);
        });
    for (std::thread& writer : writers) writer.join();
    EXPECT_FALSE(service.paused());
    EXPECT_EQ(service.leases(), 0);
}

TEST(PauseWithThreads, EndsForEverybodyWhenTheServerTerminates)
{
    Service service;
    ServerThread holder(service);
    ASSERT_EQ(KemSdGetWriteIOLease(&holder.context), 0);
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        ServerThread pauser(service);
        EXPECT_EQ(KemSdPauseWriteIO(&pauser.context, 0), -1);
    });
    ASSERT_TRUE(eventually([&] { return service.paused(); }));
    for (int i = 0; i < kWriters; ++i)
        threads.emplace_back([&] {
            ServerThread thread(service);
            EXPECT_EQ(KemSdGetWriteIOLease(&thread.context), 0);
            EXPECT_EQ(KemSdReleaseWriteIOLease(&thread.context), 0);
        });
    service.terminate();
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(service.leases(), 1);
    EXPECT_EQ(KemSdReleaseWriteIOLease(&holder.context), 0);
}

// ---- The detector itself

namespace {

// A writer that looked at the flag before it counted itself in, and then goes on without another look. The pause gets
// in between, in every run: each side waits for the other's step.
long movementsUnderABrokenLease()
{
    Service service;
    Work work;
    bool inForce = false, written = false;
    long seen = 0;
    const bool mayGoOn = !service.paused();
    std::thread pauser([&] {
        ServerThread thread(service);
        if (KemSdPauseWriteIO(&thread.context, 0) != 0) return;
        const long before = work.total();
        sd::storeRelaxed(inForce, true);
        eventually([&] { return sd::loadRelaxed(written); });
        seen = work.total() != before;
    });
    eventually([&] { return sd::loadRelaxed(inForce); });
    __atomic_fetch_add(&service.pause().lBusyWriteIOCnt, 1, __ATOMIC_SEQ_CST);
    if (mayGoOn) ++work.tallies[0].leases;
    sd::storeRelaxed(written, true);
    pauser.join();
    return seen;
}

} // namespace

TEST(PauseDetector, SeesAWriterThatDoesNotLookAtTheFlagAfterCountingItselfIn)
{
    const Ended ended = inChild([] { return static_cast<int>(movementsUnderABrokenLease()); });
    if (kSeesRaces)
        EXPECT_NE(ended.err.find("ThreadSanitizer: data race"), std::string::npos) << ended.err;
    else
        EXPECT_EQ(ended.status, 1);
}
