// Random request / release / resize sequences against an independent picture of what must hold: every live block keeps
// its bytes, no two overlap, the walker finds the heap sound after every step, and what the heap says is free and in
// use adds up to the region.

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>
#include <vector>

#include "sd/memheap/binheap.h"
#include "sd/memsys/memsys.h"
#include "support/heapwalker.h"

using namespace kemsd::test;

namespace {

struct Block {
    OV_ULONG_T bytes;
    unsigned char fill;
};

// The reference: live blocks by address.
class Model {
public:
    explicit Model(OV_MemHeap_T& heap) : heap_(heap) {}

    void insert(void* address, OV_ULONG_T bytes, unsigned char fill)
    {
        auto* from = static_cast<char*>(address);
        ASSERT_GE(from, reinterpret_cast<char*>(&heap_.HeapBuffer));
        ASSERT_LE(from + bytes, heap_.HeapHeader.HeapEnd);
        const auto next = live_.lower_bound(from);
        if (next != live_.end()) {
            ASSERT_LE(from + bytes, next->first) << "overlaps the block behind";
        }
        if (next != live_.begin()) {
            const auto previous = std::prev(next);
            ASSERT_LE(previous->first + previous->second.bytes, from) << "overlaps the block before";
        }
        memset(address, fill, bytes);
        live_.emplace(from, Block{bytes, fill});
        addresses_.push_back(from);
    }

    // Takes out a random block, its bytes checked.
    std::pair<char*, Block> remove(std::mt19937& random)
    {
        const size_t i = random() % addresses_.size();
        char* address = addresses_[i];
        addresses_[i] = addresses_.back();
        addresses_.pop_back();
        const Block block = live_.at(address);
        live_.erase(address);
        expectFilled(address, block.bytes, block.fill);
        return {address, block};
    }

    static void expectFilled(const char* address, OV_ULONG_T bytes, unsigned char fill)
    {
        for (OV_ULONG_T i = 0; i < bytes; ++i)
            ASSERT_EQ(static_cast<unsigned char>(address[i]), fill) << "byte " << i << " of a block has changed";
    }

    size_t size() const { return live_.size(); }

private:
    OV_MemHeap_T& heap_;
    std::map<char*, Block> live_;
    std::vector<char*> addresses_;
};

OV_ULONG_T randomBytes(std::mt19937& random)
{
    switch (random() % 8) {
        case 0:
            return random() % 40000;
        case 1:
            return random() % 6000;
        case 2:
        case 3:
            return random() % 700;
        default:
            return random() % 200;
    }
}

// One step; false when a check has failed.
bool step(OV_MemHeap_T& heap, Model& model, std::mt19937& random)
{
    const auto fill = static_cast<unsigned char>(random());
    const unsigned action = random() % 16;
    if (action < 8 || model.size() == 0) {
        const OV_ULONG_T bytes = randomBytes(random);
        if (void* block = ovMemHeapMalloc(&heap, bytes)) model.insert(block, bytes, fill);
    } else if (action < 14) {
        ovMemHeapFree(&heap, model.remove(random).first);
    } else {
        auto [address, block] = model.remove(random);
        const OV_ULONG_T bytes = randomBytes(random);
        void* resized = ovMemHeapRealloc(&heap, address, bytes);
        if (resized) Model::expectFilled(static_cast<char*>(resized), std::min(bytes, block.bytes), block.fill);
        model.insert(resized ? resized : address, resized ? bytes : block.bytes, fill);
    }
    const HeapWalk walk = walkHeap(heap);
    EXPECT_TRUE(walk.sound);
    EXPECT_EQ(walk.usedBlocks, model.size());
    const auto area = static_cast<size_t>(heap.HeapHeader.HeapEnd - reinterpret_cast<char*>(&heap.HeapBuffer));
    EXPECT_EQ(walk.usedBytes + walk.fastBytes + walk.freeBytes, area);
    return !testing::Test::HasFailure();
}

void runModel(OV_ULONG_T regionBytes, unsigned seed, long steps)
{
    ovMemThreadHeap.ShortHeapSize = regionBytes;
    auto* heap = static_cast<OV_MemHeap_T*>(malloc(regionBytes));
    ovMemHeapInit(heap, FALSE);
    std::mt19937 random(seed);
    Model model(*heap);
    for (long i = 0; i < steps; ++i)
        if (!step(*heap, model, random)) {
            ADD_FAILURE() << "region " << regionBytes << ", seed " << seed << ", step " << i;
            break;
        }
    while (model.size() != 0 && !testing::Test::HasFailure()) ovMemHeapFree(heap, model.remove(random).first);
    ovMemHeapMalloc(heap, 0x7FFFFFF0); // fails, and flushes the fast bins
    EXPECT_EQ(walkHeap(*heap).freeBlocks, 1u) << "everything given back is one block again";
    sd::unpoison(heap, regionBytes);
    free(heap);
}

} // namespace

// A small, crowded region fails often and flushes often; a large one keeps many bins busy.
TEST(BinHeapModel, SixHundredThousandStepsInACrowdedRegion)
{
    for (unsigned seed = 1; seed <= 6; ++seed) runModel(48 * 1024, seed, 100000);
}

TEST(BinHeapModel, FourHundredThousandStepsInAWideRegion)
{
    for (unsigned seed = 11; seed <= 14; ++seed) runModel(320 * 1024, seed, 100000);
}
