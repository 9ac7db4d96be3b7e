// Random units of work against an independent picture of what must hold: every live block keeps its bytes, small ones
// lie in the context's heaps and larger ones on its list, every heap is sound after every step, and what is counted is
// what there is. Units of work end with room in the pool and without.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "sd/memheap/binheap.h"
#include "support/shortheaps.h"

using namespace kemsd::test;

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kSteps = 2500;
#else
constexpr int kSteps = 12000;
#endif

constexpr OV_LONG_T kLargest = 8 * 1024;
constexpr OV_ULONG_T kHeap = 320 * 1024;

struct Block {
    void* at;
    size_t bytes;
    unsigned seed;
};

class Unit {
public:
    Unit(unsigned seed, bool tight)
        : random_(seed), tight_(tight), used_(ovMemThreadHeap.UsedMemory - spareHeaps().size() * kHeap)
    {}

    void run()
    {
        for (int i = 0; i < kSteps && !testing::Test::HasFailure(); ++i) {
            step();
            check();
        }
        end();
        check();
    }

private:
    size_t randomBytes()
    {
        switch (random_() % 16) {
            case 0:
                return 1 + random_() % (4 * kLargest);
            case 1:
                return static_cast<size_t>(kLargest) - 1 + random_() % 3;
            case 2:
            case 3:
                return 1 + random_() % kLargest;
            default:
                return 1 + random_() % 600;
        }
    }

    void step()
    {
        const unsigned action = random_() % 1024;
        if (action < 3)
            end();
        else if (!ovMemShortCheckStatus(&context_))
            ovMemShortHeapInit(&context_);
        else if (action < 500 || live_.empty())
            request();
        else if (action < 800)
            release();
        else
            resize();
    }

    void add(void* at, size_t bytes)
    {
        live_.push_back({at, bytes, static_cast<unsigned>(random_())});
        fillBlock(at, bytes, live_.back().seed);
    }

    Block remove()
    {
        const size_t i = random_() % live_.size();
        const Block block = live_[i];
        live_[i] = live_.back();
        live_.pop_back();
        EXPECT_TRUE(blockHolds(block.at, block.bytes, block.seed));
        return block;
    }

    void request()
    {
        void* at = nullptr;
        const size_t bytes = randomBytes();
        const OV_STS_T sts = ovMemShortHeapMalloc(&context_, static_cast<OV_LONG_T>(bytes), &at, __FILE__, __LINE__);
        ASSERT_EQ(sts, at ? 0 : SDSTS_NO_MEMORY);
        ASSERT_TRUE(at || tight_);
        if (at) add(at, bytes);
    }

    void release() { EXPECT_EQ(ovFree(remove().at, __FILE__, __LINE__), 0); }

    void resize()
    {
        const Block old = remove();
        const size_t bytes = randomBytes();
        void* at = &at;
        const OV_STS_T sts =
            ovMemShortHeapRealloc(&context_, static_cast<OV_LONG_T>(bytes), old.at, &at, __FILE__, __LINE__);
        ASSERT_EQ(sts, at ? 0 : SDSTS_NO_MEMORY);
        ASSERT_TRUE(at || tight_);
        EXPECT_TRUE(blockHolds(at ? at : old.at, at ? std::min(bytes, old.bytes) : old.bytes, old.seed));
        add(at ? at : old.at, at ? bytes : old.bytes);
    }

    void end()
    {
        for (const Block& block : live_) EXPECT_TRUE(blockHolds(block.at, block.bytes, block.seed));
        live_.clear();
        ovMemThreadHeap.MaxShortMemoryPoolSize = static_cast<OV_LONG_T>(random_() % 5);
        ovMemThreadHeap.LimitShortHeapsForRemove = static_cast<OV_LONG_T>(random_() % 5);
        ovMemShortHeapTerm(&context_);
        EXPECT_LE(static_cast<OV_LONG_T>(spareHeaps().size()), ovMemThreadHeap.LimitShortHeapsForRemove);
    }

    void check()
    {
        std::vector<void*> larger, listed = largerBlocks(context_);
        size_t largerBytes = 0, small = 0;
        for (const Block& block : live_) {
            if (markerBefore(block.at) == 0) {
                ++small;
                continue;
            }
            EXPECT_GT(block.bytes, static_cast<size_t>(kLargest));
            larger.push_back(block.at);
            largerBytes += block.bytes + sizeof(OV_MemAllocExtBlock_T);
        }
        std::sort(larger.begin(), larger.end());
        std::sort(listed.begin(), listed.end());
        EXPECT_EQ(larger, listed);
        const auto heaps = heapsOf(context_);
        size_t inHeaps = 0;
        for (OV_MemHeap_T* heap : heaps) inHeaps += walkHeap(*heap).usedBlocks;
        EXPECT_EQ(inHeaps, small);
        EXPECT_EQ(ovMemThreadHeap.NumShortNumHeapsInUsage, static_cast<OV_LONG_T>(heaps.size()));
        EXPECT_EQ(ovMemThreadHeap.UsedMemory, used_ + (heaps.size() + spareHeaps().size()) * kHeap + largerBytes);
    }

    std::mt19937 random_;
    const bool tight_; // memory may run out
    const OV_ULONGLONG_T used_;
    OV_THDCTX_T context_{};
    std::vector<Block> live_;
};

void start()
{
    ASSERT_EQ(startThreadHeaps("numthreadheaps 4 numheaps 12 heapsize 512K maxblock 8K shortheapsize 320K"), 0);
}

} // namespace

TEST(ShortHeapModel, UnitsOfWorkWithMemoryToSpare)
{
    start();
    for (const unsigned seed : {1u, 2u}) Unit(seed, false).run();
}

TEST(ShortHeapModel, UnitsOfWorkUnderATightLimit)
{
    start();
    ovMemThreadHeap.MemoryLimit = ovMemThreadHeap.UsedMemory + 3 * kHeap + 100000;
    for (const unsigned seed : {11u, 12u}) Unit(seed, true).run();
}
