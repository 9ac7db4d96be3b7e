// Threads that begin and end units of work against one pool, which overflows and empties itself meanwhile. Every block
// is filled and checked; afterwards no heap is in use, the pool is whole, and the count of used memory is what it was.

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <thread>

#include "support/shortheaps.h"

using namespace kemsd::test;

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kUnits = 60;
#else
constexpr int kUnits = 400;
#endif
constexpr int kThreads = 4;
constexpr OV_ULONG_T kHeap = 320 * 1024;

struct Block {
    void* at;
    size_t bytes;
    unsigned seed;
};

class Worker {
public:
    explicit Worker(unsigned seed) : random_(seed) {}

    void run()
    {
        for (int i = 0; i < kUnits && !damaged_; ++i) {
            ovMemShortHeapInit(&context_);
            if (!ovMemShortCheckStatus(&context_)) ++refused_;
            work();
            ovMemShortHeapTerm(&context_);
        }
    }

    bool damaged() const { return damaged_; }
    long refused() const { return refused_; }

private:
    void work()
    {
        live_.clear();
        const unsigned requests = 1 + random_() % 400;
        for (unsigned i = 0; i < requests; ++i) {
            const unsigned action = random_() % 16;
            if (action < 13 || live_.empty())
                request();
            else if (action < 15)
                resize(live_[random_() % live_.size()]);
            else
                release();
        }
        for (const Block& block : live_) check(block, block.bytes);
    }

    size_t randomBytes() { return 1 + random_() % (random_() % 64 == 0 ? 100000 : random_() % 8 == 0 ? 20000 : 300); }

    void check(const Block& block, size_t bytes) { damaged_ |= !blockHolds(block.at, bytes, block.seed); }

    void request()
    {
        Block block{nullptr, randomBytes(), static_cast<unsigned>(random_())};
        const auto size = static_cast<OV_LONG_T>(block.bytes);
        if (ovMemShortHeapMalloc(&context_, size, &block.at, __FILE__, __LINE__) != 0) {
            ++refused_;
            return;
        }
        fillBlock(block.at, block.bytes, block.seed);
        live_.push_back(block);
    }

    void resize(Block& block)
    {
        void* at = nullptr;
        const size_t bytes = randomBytes();
        const auto size = static_cast<OV_LONG_T>(bytes);
        if (ovMemShortHeapRealloc(&context_, size, block.at, &at, __FILE__, __LINE__) != 0) {
            ++refused_;
            check(block, block.bytes);
            return;
        }
        block.at = at;
        check(block, std::min(bytes, block.bytes));
        block.bytes = bytes;
        fillBlock(block.at, block.bytes, block.seed);
    }

    void release()
    {
        check(live_.back(), live_.back().bytes);
        ovFree(live_.back().at, __FILE__, __LINE__);
        live_.pop_back();
    }

    std::mt19937 random_;
    OV_THDCTX_T context_{};
    std::vector<Block> live_;
    bool damaged_ = false;
    long refused_ = 0;
};

// Returns how often memory was refused.
long runUnits(const std::string& settings)
{
    EXPECT_EQ(startThreadHeaps("numthreadheaps 4 numheaps 12 heapsize 512K maxblock 64K " + settings), 0);
    const auto used = ovMemThreadHeap.UsedMemory;
    std::vector<std::unique_ptr<Worker>> workers;
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < kThreads; ++i) workers.push_back(std::make_unique<Worker>(i + 1));
    for (auto& worker : workers) threads.emplace_back(&Worker::run, worker.get());
    for (std::thread& thread : threads) thread.join();
    long refused = 0;
    for (auto& worker : workers) {
        EXPECT_FALSE(worker->damaged()) << "a live block has changed";
        refused += worker->refused();
    }
    EXPECT_EQ(ovMemThreadHeap.NumShortNumHeapsInUsage, 0);
    EXPECT_LE(static_cast<OV_LONG_T>(spareHeaps().size()), ovMemThreadHeap.MaxShortMemoryPoolSize);
    EXPECT_EQ(ovMemThreadHeap.UsedMemory, used + spareHeaps().size() * kHeap);
    expectSoundThreadHeaps();
    EXPECT_EQ(usedHeapBytes(), 0u);
    return refused;
}

} // namespace

TEST(ShortHeapStress, PoolThatKeepsEverything) { EXPECT_EQ(runUnits("limitshortheapsforremove 16"), 0); }

TEST(ShortHeapStress, PoolThatOverflowsAndEmptiesItself)
{
    EXPECT_EQ(runUnits("maxshortmemorypoolsize 3 limitshortheapsforremove 1 memoryblockscontrol"), 0);
}

TEST(ShortHeapStress, LimitThatRefusesHeaps)
{
    EXPECT_GT(runUnits("maxshortmemorypoolsize 2 limitshortheapsforremove 1 memorylimit 10M numthreadheaps 10"), 0)
        << "the load was too light to meet the limit";
}
