// Threads that allocate from their own lists and release each other's blocks.

#include <gtest/gtest.h>
#include <kemsd/kemsd.h>

#include <cstring>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "support/failingcalls.h"

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 20000;

struct Block {
    unsigned char* data;
    size_t size;
    unsigned char fill;
};

// Blocks on their way from one thread to another.
class Exchange {
public:
    // Puts one in and takes a random one out once enough are under way.
    bool swap(Block in, size_t at, Block& out)
    {
        const std::lock_guard<std::mutex> locked(mutex_);
        blocks_.push_back(in);
        if (blocks_.size() < 64) return false;
        std::swap(blocks_[at % blocks_.size()], blocks_.back());
        out = blocks_.back();
        blocks_.pop_back();
        return true;
    }
    std::vector<Block> rest() { return std::move(blocks_); }

private:
    std::mutex mutex_;
    std::vector<Block> blocks_;
};

void checkAndRelease(const Block& block)
{
    for (size_t i = 0; i < block.size; ++i) ASSERT_EQ(block.data[i], block.fill);
    ovMemExtThreadFree(block.data);
}

void work(Exchange& exchange, unsigned seed)
{
    std::minstd_rand random(seed);
    ovCreateThreadAlloc(nullptr);
    for (int round = 0; round < kRounds; ++round) {
        const size_t size = 1 + random() % (random() % 64 == 0 ? 100000 : 300);
        void* data = nullptr;
        ovMemExtThreadMalloc(nullptr, size, &data, random() % 8 == 0 ? 1 : 2);
        ASSERT_NE(data, nullptr);
        const Block made{static_cast<unsigned char*>(data), size, static_cast<unsigned char>(random())};
        memset(made.data, made.fill, size);
        Block other;
        if (exchange.swap(made, random(), other)) checkAndRelease(other);
        if (round % 5000 == 4999) ovFreelistCompaction(nullptr);
    }
    ovDestroyThreadAlloc(nullptr);
}

} // namespace

TEST(FreeListStress, ThreadsReleaseEachOthersBlocks)
{
    KemSdSetMemoryManager(TRUE);
    const long before = kemsd::test::liveBlocks();
    Exchange exchange;
    std::vector<std::thread> threads;
    for (unsigned seed = 1; seed <= kThreads; ++seed) threads.emplace_back(work, std::ref(exchange), seed);
    for (std::thread& thread : threads) thread.join();
    for (const Block& block : exchange.rest()) checkAndRelease(block);
    EXPECT_EQ(kemsd::test::liveBlocks(), before);
}
