// How a process ends in crash-time memory, and that a real crash is served wherever it comes: in children, which end by
// exit status 0 or by SIGABRT as the exception was declared, and whose other threads stop.

#include <gmock/gmock.h>
#include <kemsd/kemsd.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "sd/memxcpt.h"
#include "support/child.h"
#include "support/failingcalls.h"
#include "support/threadheaps.h"

using namespace kemsd::test;

// The children crash and exit out of signal handlers, which is what the sanitizers would speak about.
extern "C" const char* __asan_default_options() { return "detect_leaks=0:allow_user_segv_handler=1"; }
extern "C" const char* __tsan_default_options() { return "report_signal_unsafe=0"; }

namespace {

constexpr const char* kHeaps = "numthreadheaps 2 numheaps 6 heapsize 512K maxblock 64K shortmemoryoff";
constexpr OV_ULONG_T kReserve = 1052544;
constexpr OV_ULONG_T kRoom = kReserve - 16;
constexpr size_t kBeyond32Bits = (size_t{1} << 32) + 5;
constexpr int kSurvived = 99;

void expectEnd(const Ended& ended, KEM_BOOL_T core)
{
    if (core) {
        EXPECT_EQ(ended.signal, SIGABRT) << "status " << ended.status << ended.err;
    } else {
        EXPECT_EQ(ended.status, 0) << "signal " << ended.signal << ended.err;
    }
}

void noCoreFile()
{
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
}

void* item(OV_ULONG_T bytes)
{
    void* given = nullptr;
    ovXcptMemAlloc(nullptr, bytes, &given);
    return given;
}

void resize(void* old, OV_ULONG_T bytes) { ovXcptMemRealloc(nullptr, bytes, &old); }

void clear(OV_UINT_T count, OV_ULONG_T bytes)
{
    void* given;
    ovXcptMemCalloc(nullptr, count, bytes, &given);
}

// Nothing may be asked of the heaps from here on: the system's answer would end the child otherwise.
void forbidHeaps()
{
    static const Failing none(Call::malloc, ENOMEM, 0, [] { _exit(kSurvived - 1); });
}

struct Ending {
    const char* name;
    std::function<void()> request;
};

// Requests that end the process although the reserve is sound.
const Ending kEndings[] = {
    {"nothing", [] { item(0); }},
    {"one byte too many", [] { item(kRoom + 1); }},
    {"one byte after the last", [] { item(kRoom), item(1); }},
    {"more than there is left", [] { item(100), item(kRoom - 103); }},
    {"no place", [] { ovXcptMemAlloc(nullptr, 8, nullptr); }},
    {"no elements", [] { clear(0, 8); }},
    {"a product that wraps to nothing", [] { clear(65536, 65536); }},
    {"too many elements", [] { clear(1024, 1028); }},
    {"no place for elements", [] { ovXcptMemCalloc(nullptr, 1, 8, nullptr); }},
    {"resizing to nothing", [] { resize(item(8), 0); }},
    {"resizing to too much", [] { resize(item(8), kRoom - 7); }},
    {"resizing a stranger", [] { item(8), resize(&XcptStackHdr, 8); }},
    {"resizing before the first item", [] { resize(XcptStackHdr.pReservedBlock + 1, 8); }},
    {"resizing the head of the block", [] { item(8), resize(XcptStackHdr.pCurrentBlock, 8); }},
    {"resizing no place", [] { ovXcptMemRealloc(nullptr, 8, nullptr); }},
    {"malloc beyond 32 bits", [] { ovMemExtMalloc(kBeyond32Bits, 2); }},
    {"calloc beyond 32 bits", [] { ovMemExtCalloc(65536, 65537, 2); }},
    {"realloc beyond 32 bits", [] { ovMemExtRealloc(ovMemExtMalloc(8, 2), kBeyond32Bits); }},
    {"aligned beyond 32 bits",
     [] {
         void* block;
         ovMemExtMallocAligned(&block, 4096, kBeyond32Bits);
     }},
    {"thread malloc beyond 32 bits",
     [] {
         void* block;
         ovMemExtThreadMalloc(nullptr, kBeyond32Bits, &block, 2);
     }},
    {"ovMalloc beyond 32 bits",
     [] {
         void* block;
         ovMalloc(nullptr, kBeyond32Bits, &block, __FILE__, __LINE__);
     }},
};

// States of the reserve in which no request is served. What they damage, they damage after the declaration.
const Ending kStates[] = {
    {"never made", [] { iXcptHeaderStatus = -1; }},
    {"could not be made", [] { iXcptHeaderStatus = SDSTS_NO_MEMORY; }},
    {"destroyed", [] { KemSdXcptDestroyStackHeader(); }},
    {"destroyed twice", [] { KemSdXcptDestroyStackHeader(), KemSdXcptDestroyStackHeader(); }},
    {"three copies that differ",
     [] {
         XcptStackHdr.ulPageSize = 1;
         XcptStackHdrSpare1st.ulPageSize = 2;
     }},
    {"a head that claims a smaller block",
     [] {
         forbidHeaps();
         XcptStackHdr.pReservedBlock->ulBlockSize = 100;
     }},
    {"a current block whose head claims less",
     [] {
         forbidHeaps();
         item(8);
         XcptStackHdr.pCurrentBlock->ulBlockSize = 100;
     }},
};

class XcptDeath : public testing::TestWithParam<KEM_BOOL_T> {
protected:
    // Ends in a child that declared an exception over a sound reserve.
    static Ended endOf(const std::function<void()>& body)
    {
        return inChild([&] {
            noCoreFile();
            KemSdXcptCreateStackHeader();
            KemSdXcptSetFatExceptionOccured(GetParam());
            body();
            return kSurvived;
        });
    }
};

} // namespace

TEST_P(XcptDeath, RequestThatCannotBeServedEndsTheProcess)
{
    for (const Ending& ending : kEndings) {
        SCOPED_TRACE(ending.name);
        expectEnd(endOf(ending.request), GetParam());
    }
}

TEST_P(XcptDeath, UnusableReserveEndsTheProcess)
{
    for (const Ending& state : kStates) {
        SCOPED_TRACE(state.name);
        expectEnd(endOf([&] {
                      state.request();
                      item(8);
                  }),
                  GetParam());
    }
}

TEST_P(XcptDeath, ReleaseInAnUnusableReserveEndsTheProcess)
{
    const auto release = [] { ovXcptMemFree(nullptr, &XcptStackHdr); };
    for (const size_t state : {size_t{0}, size_t{1}, size_t{4}}) {
        SCOPED_TRACE(kStates[state].name);
        expectEnd(endOf([&] {
                      kStates[state].request();
                      release();
                  }),
                  GetParam());
    }
}

TEST_P(XcptDeath, ReserveCutToAnOddLimitNeverAsksTheHeaps)
{
    const Ended ended = inChild([] {
        noCoreFile();
        rlimit usual;
        getrlimit(RLIMIT_DATA, &usual);
        const rlimit odd{1048577, usual.rlim_max};
        {
            const Interrupting lower(Call::getrlimit, 1, When::Before, [&] { setrlimit(RLIMIT_DATA, &odd); });
            const Interrupting back(Call::malloc, 2, When::Before, [&] { setrlimit(RLIMIT_DATA, &usual); });
            KemSdXcptCreateStackHeader();
        }
        if (XcptStackHdr.ulCreateBlockSize != 1048577) return kSurvived;
        KemSdXcptSetFatExceptionOccured(GetParam());
        forbidHeaps();
        item(1048577 - 16); // rounded up, the stack pointer is beyond the block
        item(1);
        return kSurvived;
    });
    expectEnd(ended, GetParam());
}

INSTANTIATE_TEST_SUITE_P(Core, XcptDeath, testing::Values(TRUE, FALSE));

TEST(XcptBeforeDeclaration, EveryRequestEndsTheProcess)
{
    const std::function<void()> requests[] = {[] { item(8); }, [] { clear(1, 8); }, [] { resize(nullptr, 8); },
                                              [] { ovXcptMemFree(nullptr, &XcptStackHdr); }};
    for (const auto& request : requests)
        expectEnd(inChild([&] {
                      KemSdXcptCreateStackHeader();
                      request();
                      return kSurvived;
                  }),
                  FALSE);
}

// ---- Other threads

namespace {

std::atomic<int> returned;

const std::function<void()> kRouted[] = {
    [] { ovMemExtMalloc(8, 2); },
    [] { ovMemExtCalloc(1, 8, 2); },
    [] { ovMemExtRealloc(nullptr, 8); },
    [] { ovMemExtFree(&XcptStackHdr); },
    [] {
        void* block;
        ovMemExtMallocAligned(&block, 64, 8);
    },
    [] { ovMemExtFreeAligned(&XcptStackHdr); },
    [] {
        void* block;
        ovMemExtThreadMalloc(nullptr, 8, &block, 2);
    },
    [] { ovMemExtThreadFree(&XcptStackHdr); },
    [] { ovMemExtMalloc(kBeyond32Bits, 2); },
    [] { KemSdThreadSuspend(nullptr, nullptr); },
};
constexpr long kThreads = std::size(kRouted);

// Gives way until so many waits have begun, doing something meanwhile; false when they have not after half a minute.
bool waitsBegan(
    long count, const std::function<void()>& meanwhile = [] {})
{
    for (const time_t limit = time(nullptr) + 30; calls(Call::pause) < count; syscall(SYS_sched_yield)) {
        if (time(nullptr) > limit) return false;
        meanwhile();
    }
    return true;
}

int otherThreadsStop()
{
    signal(SIGUSR1, [](int) {});
    KemSdXcptCreateStackHeader();
    KemSdXcptSetFatExceptionOccured(FALSE);
    const KEM_STACKHDR_T held = XcptStackHdr;
    resetCalls();
    std::vector<pthread_t> threads;
    for (const auto& request : kRouted) {
        std::thread thread([&request] {
            request();
            ++returned;
        });
        threads.push_back(thread.native_handle());
        thread.detach();
    }
    if (!waitsBegan(kThreads)) return 1;
    const auto interruptAll = [&] {
        for (const pthread_t thread : threads) pthread_kill(thread, SIGUSR1);
    };
    if (!waitsBegan(5 * kThreads, interruptAll)) return 2;
    if (returned != 0) return 3;
    if (memcmp(&held, &XcptStackHdr, sizeof held) != 0) return 4;
    return item(8) && ovXcptMemFree(nullptr, XcptStackHdr.pCurrentBlock + 1) == 0 ? 5 : 6;
}

} // namespace

TEST(XcptOtherThreads, NeverReturnAndTheDeclarerIsServed)
{
    const Ended ended = inChild(otherThreadsStop);
    EXPECT_EQ(ended.status, 5) << ended.err;
}

TEST(XcptOtherThreads, WaitGoesOnWhenItIsInterrupted)
{
    const Ended ended = inChild([] {
        const Failing interrupted(Call::pause, EINTR);
        KemSdXcptSetFatExceptionOccured(FALSE);
        std::thread([] {
            ovMemExtMalloc(8, 2);
            ++returned;
        }).detach();
        return waitsBegan(1000) && returned == 0 ? 5 : 6;
    });
    EXPECT_EQ(ended.status, 5);
}

// ---- Real crashes

namespace {

constexpr OV_ULONG_T kPiece = 20000;
constexpr size_t kPieces = kRoom / kPiece;

volatile KEM_BOOL_T coreWanted;

void* nextPiece(unsigned i)
{
    static void* last;
    void* piece = nullptr;
    switch (i % 6) {
        case 0:
            return last = ovMemExtMalloc(kPiece, static_cast<char>(1 + i / 6 % 2));
        case 1:
            return ovMemExtCalloc(kPiece / 40, 40, 2);
        case 2:
            return ovMemExtRealloc(last, kPiece);
        case 3:
            return ovMemExtMallocAligned(&piece, 4096, kPiece) == 0 ? piece : nullptr;
        case 4:
            ovMemExtThreadMalloc(nullptr, kPiece, &piece, 2);
            return piece;
        default:
            return ovMemExtRealloc(nullptr, kPiece);
    }
}

// A server's handler, which asks until the reserve is used up. A dot for every piece; the process ends in a request.
void onFatalSignal(int)
{
    KemSdXcptSetFatExceptionOccured(coreWanted);
    for (unsigned i = 0;; ++i) {
        void* const piece = nextPiece(i);
        if (ovXcptMemFree(nullptr, piece) != 0) _exit(kSurvived);
        memset(piece, static_cast<int>(i), kPiece);
        ovMemExtFree(piece);
        if (write(2, ".", 1) != 1) _exit(kSurvived);
    }
}

void installHandlers()
{
    noCoreFile();
    struct sigaction action {};
    action.sa_handler = onFatalSignal;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGSEGV, &action, nullptr);
    sigaction(SIGABRT, &action, nullptr);
}

[[noreturn]] void crash(int signal)
{
    if (signal == SIGABRT) abort();
    void* const guarded = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    *static_cast<volatile char*>(guarded) = 1;
    _exit(kSurvived);
}

// A program that allocates, resizes and releases blocks of all sizes all the time.
class Busy {
public:
    explicit Busy(unsigned seed) : random_(seed) {}

    void step()
    {
        void*& block = blocks_[random_() % std::size(blocks_)];
        const size_t bytes = 1 + random_() % (random_() % 16 == 0 ? 200000 : 500);
        if (!block)
            ovMalloc(this, bytes, &block, __FILE__, __LINE__);
        else if (random_() % 3 == 0)
            ovRealloc(this, bytes, block, &block, __FILE__, __LINE__);
        else
            ovFree(block, __FILE__, __LINE__), block = nullptr;
    }

private:
    std::minstd_rand random_;
    void* blocks_[64] = {};
};

enum class World { System, Headers, Heaps };
constexpr World kWorlds[] = {World::System, World::Headers, World::Heaps};

void enterWorld(World world)
{
    if (world == World::Headers) KemSdSetMemoryManager(TRUE);
    if (world == World::Heaps && startThreadHeaps(kHeaps) != 0) _exit(kSurvived);
    KemSdXcptCreateStackHeader();
}

void keepThreadsBusy(unsigned count)
{
    for (unsigned seed = 1; seed <= count; ++seed)
        std::thread([seed] {
            static thread_local Busy busy(seed);
            for (;;) busy.step();
        }).detach();
}

void expectServed(const Ended& ended, KEM_BOOL_T core)
{
    expectEnd(ended, core);
    // Behind them address sanitizer may speak of the stack it finds itself on.
    EXPECT_EQ(ended.err.substr(0, ended.err.find_first_not_of('.')), std::string(kPieces, '.')) << ended.err;
}

// A crash after so many steps of a busy program.
int crashAfter(World world, int signal, unsigned steps, unsigned threads)
{
    installHandlers();
    enterWorld(world);
    keepThreadsBusy(threads);
    static Busy busy(0);
    for (unsigned i = 0; i < steps; ++i) busy.step();
    crash(signal);
}

} // namespace

TEST(Crash, IsServedAtManyPointsOfABusyProgram)
{
    unsigned run = 0;
    for (const World world : kWorlds)
        for (const int signal : {SIGSEGV, SIGABRT})
            for (const unsigned steps : {0u, 1u, 100u, 5000u}) {
                coreWanted = signal == SIGABRT || run++ % 2 == 0 ? TRUE : FALSE;
                SCOPED_TRACE(testing::Message()
                             << static_cast<int>(world) << " signal " << signal << " step " << steps);
                expectServed(inChild([&] { return crashAfter(world, signal, steps, 0); }), coreWanted);
            }
}

TEST(Crash, IsServedBesideBusyThreads)
{
    coreWanted = TRUE;
    for (const World world : kWorlds) {
        SCOPED_TRACE(static_cast<int>(world));
        expectServed(inChild([&] { return crashAfter(world, SIGSEGV, 2000, 2); }), TRUE);
    }
}

// While the library waits for the system's answer, locks of its own held where it has any.
TEST(Crash, IsServedInsideAnAllocation)
{
    for (const World world : kWorlds)
        for (const Call call : {Call::malloc, Call::realloc})
            for (const long k : {1, 4, 16}) {
                coreWanted = k == 4 ? FALSE : TRUE;
                SCOPED_TRACE(testing::Message() << static_cast<int>(world) << " request " << k);
                expectServed(inChild([&] {
                                 installHandlers();
                                 enterWorld(world);
                                 const Interrupting at(call, k, When::Before, [] { crash(SIGSEGV); });
                                 static Busy busy(0);
                                 for (int i = 0; i < 100000; ++i) busy.step();
                                 return kSurvived;
                             }),
                             coreWanted);
            }
}

TEST(Crash, IsServedWhileAnotherThreadHoldsEveryHeapLock)
{
    coreWanted = FALSE;
    expectServed(inChild([] {
                     installHandlers();
                     enterWorld(World::Heaps);
                     static std::atomic<bool> held;
                     std::thread([] {
                         for (OV_MemHeap_T* heap : slotHeaps())
                             KemSdSpinlockAcquire(heap->HeapHeader.SpinLock.pSpinlock, pthread_self());
                         KemSdSpinlockAcquire(ovMemThreadHeap.SpinLock.pSpinlock, pthread_self());
                         KemSdSpinlockAcquire(ovMemThreadHeap.MemHeapPool.SpinLock.pSpinlock, pthread_self());
                         held = true;
                         for (;;) pause();
                     }).detach();
                     while (!held) sched_yield();
                     crash(SIGSEGV);
                     return kSurvived;
                 }),
                 FALSE);
}

// A fault that comes from outside, at any instruction, on whatever thread. The end is abort(): exit would run the exit
// functions of a C library that may be in the midst of an allocation.
TEST(Crash, IsServedAtAnyInstruction)
{
    coreWanted = TRUE;
    long microseconds = 20;
    for (const World world : kWorlds)
        for (int i = 0; i < 12; ++i, microseconds = microseconds * 13 / 10) {
            SCOPED_TRACE(testing::Message() << static_cast<int>(world) << " after " << microseconds << " us");
            expectServed(inChild([&] {
                             enterWorld(world);
                             keepThreadsBusy(1);
                             static Busy busy(0);
                             for (int warm = 0; warm < 100; ++warm) busy.step();
                             installHandlers();
                             sigevent event{};
                             event.sigev_notify = SIGEV_SIGNAL;
                             event.sigev_signo = SIGSEGV;
                             timer_t timer;
                             const itimerspec due{{0, 0}, {0, microseconds * 1000}};
                             if (timer_create(CLOCK_MONOTONIC, &event, &timer) != 0 ||
                                 timer_settime(timer, 0, &due, nullptr) != 0)
                                 return kSurvived;
                             for (;;) busy.step();
                         }),
                         TRUE);
            if (HasFailure()) return;
        }
}
