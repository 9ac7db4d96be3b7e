// Units of work: many small blocks, released together at the end. The peers, which know no such end, release them one
// by one.
#include <benchmark/benchmark.h>
#include <kemsd/memory.h>

#include <random>
#include <string>
#include <vector>

#include "support/allocators.h"
#include "support/floorunit.h"
#include "support/report.h"
#include "support/serverstart.h"

namespace kemsd::bench {
namespace {

constexpr size_t kBlocks = 10000;
constexpr unsigned kHeaps = 16; // more than a unit of work needs
constexpr unsigned kShortHeapBytes = 320u << 10;
constexpr const char* kShortTerm = "shortheapsize 320K maxshortmemorypoolsize 16 limitshortheapsforremove 16";

// The same sizes for every contender.
const std::vector<OV_LONG_T>& sizes()
{
    static const std::vector<OV_LONG_T> made = [] {
        std::mt19937 random(20260101);
        std::uniform_int_distribution<OV_LONG_T> bytes(16, 256);
        std::vector<OV_LONG_T> sizes(kBlocks);
        for (OV_LONG_T& size : sizes) size = bytes(random);
        return sizes;
    }();
    return made;
}

// ---- The contenders: each begins a unit of work, takes blocks and ends it with all of them

class Ours {
public:
    void begin() { ovMemShortHeapInit(&context_); }
    void* take(OV_LONG_T bytes)
    {
        void* block;
        return ovMemShortHeapMalloc(&context_, bytes, &block, __FILE__, __LINE__) == 0 ? block : nullptr;
    }
    void end() { ovMemShortHeapTerm(&context_); }

private:
    OV_THDCTX_T context_{};
};

class Floor {
public:
    void begin() { floorUnitBegin(&context_); }
    void* take(OV_LONG_T bytes)
    {
        void* block;
        return floorUnitAllocate(&context_, bytes, &block, __FILE__, __LINE__) == 0 ? block : nullptr;
    }
    void end() { floorUnitEnd(&context_); }

private:
    OV_THDCTX_T context_{};
};

class Peer {
public:
    explicit Peer(const Allocator& allocator) : allocator_(allocator) { blocks_.reserve(kBlocks); }
    void begin() { blocks_.clear(); }
    void* take(OV_LONG_T bytes)
    {
        blocks_.push_back(allocator_.allocate(static_cast<size_t>(bytes)));
        return blocks_.back();
    }
    void end()
    {
        for (void* block : blocks_) allocator_.release(block);
    }

private:
    const Allocator& allocator_;
    std::vector<void*> blocks_;
};

// Every block is written to, as a block that is asked for is.
template <class Contender>
void unit(benchmark::State& state, Contender&& contender)
{
    const std::vector<OV_LONG_T>& wanted = sizes();
    for (auto _ : state) {
        contender.begin();
        for (const OV_LONG_T bytes : wanted) {
            void* block = contender.take(bytes);
            if (!block) {
                state.SkipWithError("no memory");
                return;
            }
            *static_cast<volatile uint64_t*>(block) = 1;
        }
        contender.end();
    }
}

void addBenchmarks()
{
    add("unit/heaps", kOurs, [](benchmark::State& state) { unit(state, Ours{}); });
    add("unit/heaps", kFloor, [](benchmark::State& state) { unit(state, Floor{}); });
    for (const Allocator& a : allocators())
        add("unit/heaps", a.name, [&a](benchmark::State& state) { unit(state, Peer{a}); });
}

} // namespace
} // namespace kemsd::bench

int main(int argc, char** argv)
{
    using namespace kemsd::bench;
    makeRoomForAllocators(argv);
    settleSystemAllocator();
    startThreadHeaps(kShortTerm);
    if (!floorUnitsStart(kHeaps, kShortHeapBytes, kLargestHeapBlock)) return 1;
    return run(
        argc, argv,
        {"unit",
         std::string("10,000 blocks of 16 to 256 bytes; ") + kMemorySetting + "; " + kShortTerm + "; " + kSystemSetting,
         addBenchmarks});
}
