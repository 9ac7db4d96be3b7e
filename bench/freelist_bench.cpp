// Per-thread free lists: pairs of one size on one thread.
#include <benchmark/benchmark.h>
#include <kemsd/memory.h>

#include <string>

#include "support/allocators.h"
#include "support/floorfreelist.h"
#include "support/report.h"

namespace kemsd::bench {
namespace {

constexpr char kPooled = 2;

struct Ours {
    Ours() { ovCreateThreadAlloc(nullptr); }
    ~Ours() { ovDestroyThreadAlloc(nullptr); }
    void* take(size_t bytes) const
    {
        void* block;
        ovThreadAlloc(nullptr, bytes, &block, kPooled);
        return block;
    }
    void give(void* block) const { ovThreadFree(block); }
};

struct Floor {
    Floor() { floorListsCreate(); }
    ~Floor() { floorListsDestroy(); }
    void* take(size_t bytes) const
    {
        void* block;
        floorListAllocate(bytes, &block, kPooled);
        return block;
    }
    void give(void* block) const { floorListRelease(block); }
};

struct Peer {
    const Allocator& allocator;
    void* take(size_t bytes) const { return allocator.allocate(bytes); }
    void give(void* block) const { allocator.release(block); }
};

template <class Contender>
void pairs(benchmark::State& state, const Contender& contender, size_t size)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(size);
        void* block = contender.take(size);
        if (!block) {
            state.SkipWithError("no memory");
            break;
        }
        *static_cast<volatile uint64_t*>(block) = 1;
        contender.give(block);
    }
}

struct Size {
    const char* name;
    size_t bytes;
};
constexpr Size kSizes[] = {{"24B", 24},       {"64B", 64},         {"160B", 160},    {"512B", 512},
                           {"4KiB", 4 << 10}, {"64KiB", 64 << 10}, {"1MiB", 1 << 20}};

void addBenchmarks()
{
    for (const Size& size : kSizes) {
        const std::string load = "freelist/" + std::string(size.name);
        const size_t bytes = size.bytes;
        add(load, kOurs, [bytes](benchmark::State& state) { pairs(state, Ours{}, bytes); });
        add(load, kFloor, [bytes](benchmark::State& state) { pairs(state, Floor{}, bytes); });
        for (const Allocator& a : allocators())
            add(load, a.name, [&a, bytes](benchmark::State& state) { pairs(state, Peer{a}, bytes); });
    }
}

} // namespace
} // namespace kemsd::bench

int main(int argc, char** argv)
{
    using namespace kemsd::bench;
    makeRoomForAllocators(argv);
    settleSystemAllocator();
    KemSdSetMemoryManager(TRUE);
    return run(argc, argv,
               {"freelist", std::string("memory manager on, one allocator a thread, policy 2; ") + kSystemSetting,
                addBenchmarks});
}
