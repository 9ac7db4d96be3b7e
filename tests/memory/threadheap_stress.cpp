// Threads that allocate, resize and release through the same few slots, and release one another's blocks. Every block
// is filled by its maker and checked by whoever releases it; afterwards every heap stands in exactly one slot or once
// in the pool, all are sound and empty, and the count of used memory is what it was.

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

#include "support/failingcalls.h"
#include "support/threadheaps.h"

using namespace kemsd::test;

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kSteps = 15000;
#else
constexpr int kSteps = 150000;
#endif
constexpr int kThreads = 4;

struct Block {
    unsigned char* at;
    OV_ULONG_T bytes;
    unsigned char fill;
};

void fill(const Block& block) { memset(block.at, block.fill, block.bytes); }

// Looks at both ends and a few bytes between: a block of somebody else laid over it would show.
bool intact(const Block& block, OV_ULONG_T bytes)
{
    for (OV_ULONG_T i = 0; i < bytes; i += 1 + bytes / 64)
        if (block.at[i] != block.fill) return false;
    return bytes == 0 || block.at[bytes - 1] == block.fill;
}

// Blocks on their way from one thread to another.
class Exchange {
public:
    void put(const Block& block)
    {
        std::lock_guard lock(mutex_);
        blocks_.push_back(block);
    }
    bool take(Block& block)
    {
        std::lock_guard lock(mutex_);
        if (blocks_.empty()) return false;
        block = blocks_.back();
        blocks_.pop_back();
        return true;
    }

private:
    std::mutex mutex_;
    std::vector<Block> blocks_;
};

struct Load {
    const char* configuration;
    OV_ULONG_T largest;    // bytes of a request
    size_t most;           // live blocks of a thread
    bool oneSlot;          // all threads share one owner, so one slot
    bool hardware = false; // ticket locks
};

class Worker {
public:
    Worker(const Load& load, Exchange& exchange, unsigned seed) : load_(load), exchange_(exchange), random_(seed) {}

    void run()
    {
        for (int i = 0; i < kSteps && !damaged_; ++i) step();
        for (const Block& block : live_) release(block);
    }

    bool damaged() const { return damaged_; }
    long refused() const { return refused_; }

private:
    void step()
    {
        const unsigned action = random_() % 16;
        if (live_.size() < load_.most && action < 8) {
            allocate();
        } else if (action < 10) {
            Block block;
            if (exchange_.take(block)) release(block);
        } else if (!live_.empty()) {
            const size_t i = random_() % live_.size();
            if (action < 12) {
                exchange_.put(live_[i]);
                drop(i);
            } else if (action < 14) {
                resize(live_[i]);
            } else {
                release(live_[i]);
                drop(i);
            }
        }
    }

    void* owner() { return load_.oneSlot ? static_cast<void*>(const_cast<Load*>(&load_)) : this; }

    OV_ULONG_T randomBytes() { return 1 + random_() % (random_() % 4 == 0 ? load_.largest : 200); }

    void allocate()
    {
        void* at = nullptr;
        const OV_ULONG_T bytes = randomBytes();
        if (ovMalloc(owner(), bytes, &at, __FILE__, __LINE__) != 0) {
            ++refused_;
            return;
        }
        live_.push_back({static_cast<unsigned char*>(at), bytes, static_cast<unsigned char>(random_())});
        fill(live_.back());
    }

    void resize(Block& block)
    {
        void* at = nullptr;
        const OV_ULONG_T bytes = randomBytes();
        const OV_ULONG_T kept = std::min(bytes, block.bytes);
        if (ovRealloc(owner(), bytes, block.at, &at, __FILE__, __LINE__) != 0) {
            ++refused_;
            damaged_ = damaged_ || !intact(block, block.bytes);
            return;
        }
        block.at = static_cast<unsigned char*>(at);
        damaged_ = damaged_ || !intact(block, kept);
        block.bytes = bytes;
        fill(block);
    }

    void release(const Block& block)
    {
        damaged_ = damaged_ || !intact(block, block.bytes);
        ovFree(block.at, __FILE__, __LINE__);
    }

    void drop(size_t i)
    {
        live_[i] = live_.back();
        live_.pop_back();
    }

    const Load& load_;
    Exchange& exchange_;
    std::mt19937 random_;
    std::vector<Block> live_;
    bool damaged_ = false;
    long refused_ = 0;
};

// Returns how many requests were refused.
long runLoad(const Load& load)
{
    KemSdSetHardwareAcceleration(load.hardware);
    EXPECT_EQ(startThreadHeaps(load.configuration), 0);
    const auto used = ovMemThreadHeap.UsedMemory;
    const auto heaps = ovMemThreadHeap.NumHeaps;
    Exchange exchange;
    std::vector<std::unique_ptr<Worker>> workers;
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < kThreads; ++i) workers.push_back(std::make_unique<Worker>(load, exchange, i + 1));
    for (auto& worker : workers) threads.emplace_back(&Worker::run, worker.get());
    for (std::thread& thread : threads) thread.join();
    long refused = 0;
    for (auto& worker : workers) {
        EXPECT_FALSE(worker->damaged()) << "a live block has changed";
        refused += worker->refused();
    }
    Block block;
    while (exchange.take(block)) ovFree(block.at, __FILE__, __LINE__);
    expectSoundThreadHeaps();
    EXPECT_EQ(usedHeapBytes(), 0u);
    // Each new heap counts its region and its lock, which came from the system while the heap was built.
    const auto made = static_cast<OV_ULONGLONG_T>(heaps - ovMemThreadHeap.NumHeaps);
    EXPECT_EQ(ovMemThreadHeap.UsedMemory, used + made * (ovMemThreadHeap.HeapSize + sizeof(KEM_SPINLOCK_T) + 32));
    return refused;
}

constexpr const char* kPoolOfEight = "numthreadheaps 4 numheaps 12 heapsize 512K maxblock 64K shortmemoryoff";

} // namespace

TEST(ThreadHeapStress, PoolOfEightWithoutBudget)
{
    EXPECT_EQ(runLoad({.configuration = kPoolOfEight, .largest = 65536, .most = 250, .oneSlot = false}), 0);
}

TEST(ThreadHeapStress, OneSlotForAllThreadsIsSwitchedUnderTheirHands)
{
    EXPECT_EQ(runLoad({.configuration = kPoolOfEight, .largest = 65536, .most = 60, .oneSlot = true}), 0);
}

TEST(ThreadHeapStress, OneSlotWithTicketLocks)
{
    EXPECT_EQ(runLoad({.configuration = kPoolOfEight, .largest = 65536, .most = 60, .oneSlot = true, .hardware = true}),
              0);
}

TEST(ThreadHeapStress, GrowsUpToItsBudget)
{
    runLoad({.configuration = "numthreadheaps 4 numheaps 24 heapsize 512K maxblock 64K shortmemoryoff",
             .largest = 65536,
             .most = 400,
             .oneSlot = false});
    EXPECT_LT(ovMemThreadHeap.NumHeaps, 12) << "the load was too light to make a heap";
}

TEST(ThreadHeapStress, SmallLimitRefusesAndLosesNothing)
{
    const long refused =
        runLoad({.configuration = "numthreadheaps 4 numheaps 40 heapsize 512K maxblock 64K memorylimit 10M "
                                  "memoryblockscontrol shortmemoryoff",
                 .largest = 300000,
                 .most = 60,
                 .oneSlot = false});
    EXPECT_GT(refused, 0) << "the load was too light to meet the limit";
    OV_ULONGLONG_T allocated[16], released[16];
    ASSERT_EQ(ovMemGetUsedMemoryBlocks(1, allocated, released), 0);
    EXPECT_GT(allocated[0], 0u);
}

TEST(ThreadHeapStress, TerminationUnderRunningThreadsLosesNothing)
{
    KemSdSetMemoryManager(TRUE);
    const Load load{.configuration = kPoolOfEight, .largest = 100000, .most = 100, .oneSlot = false};
    ASSERT_EQ(startThreadHeaps(load.configuration), 0);
    const auto used = ovMemThreadHeap.UsedMemory;
    const long live = liveBlocks();
    Exchange exchange;
    std::vector<std::unique_ptr<Worker>> workers;
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < kThreads; ++i) workers.push_back(std::make_unique<Worker>(load, exchange, i + 1));
    for (auto& worker : workers) threads.emplace_back(&Worker::run, worker.get());
    const OV_ULONGLONG_T before = sd::loadRelaxed(ovMemThreadHeap.malloc_count);
    for (long i = 0; i < 100000000 && sd::loadRelaxed(ovMemThreadHeap.malloc_count) < before + 1000; ++i)
        sd::pauseHint();
    ovMemThreadHeapTerm();
    for (std::thread& thread : threads) thread.join();
    for (auto& worker : workers) EXPECT_FALSE(worker->damaged()) << "a live block has changed";
    Block block;
    while (exchange.take(block)) ovFree(block.at, __FILE__, __LINE__);
    EXPECT_EQ(ovMemThreadHeap.UsedMemory, used);
    EXPECT_EQ(liveBlocks(), live);
    ovMemThreadHeap.NumThreadHeaps = 4; // for the walk alone
    expectSoundThreadHeaps();
    EXPECT_EQ(usedHeapBytes(), 0u);
}
