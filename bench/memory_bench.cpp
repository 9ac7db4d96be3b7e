// Thread heaps: pairs of one size, a random mix over many live blocks, blocks released by another thread.
#include <benchmark/benchmark.h>
#include <kemsd/memory.h>
#include <sched.h>

#include <array>
#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "support/allocators.h"
#include "support/floorheap.h"
#include "support/processor.h"
#include "support/report.h"
#include "support/serverstart.h"

namespace kemsd::bench {
namespace {

constexpr int kMostThreads = 2;

// A server's thread passes its own context as the owning address; floor and library see the same addresses.
std::array<OV_THDCTX_T, kMostThreads> contexts;

// ---- The contenders: each takes a block for the thread with that context and gives it back

struct Ours {
    OV_THDCTX_T* owner;
    void* take(size_t bytes) const
    {
        void* block;
        return ovMalloc(owner, bytes, &block, __FILE__, __LINE__) == 0 ? block : nullptr;
    }
    void give(void* block) const { ovFree(block, __FILE__, __LINE__); }
};

struct Floor {
    OV_THDCTX_T* owner;
    void* take(size_t bytes) const
    {
        void* block;
        return floorHeapAllocate(owner, bytes, &block) == 0 ? block : nullptr;
    }
    void give(void* block) const { floorHeapRelease(block); }
};

struct Peer {
    void* (*allocate)(size_t);
    void (*release)(void*);
    void* take(size_t bytes) const { return allocate(bytes); }
    void give(void* block) const { release(block); }
};

// Every block is written to, as a block that is asked for is.
void touch(void* block) { *static_cast<volatile uint64_t*>(block) = 1; }

bool outOfMemory(benchmark::State& state, const void* block)
{
    if (block) return false;
    state.SkipWithError("no memory");
    return true;
}

// ---- The loads

template <class Contender>
void pairs(benchmark::State& state, const Contender& contender, size_t size)
{
    const Pinned pinned(state.thread_index(), state.threads());
    for (auto _ : state) {
        benchmark::DoNotOptimize(size);
        void* block = contender.take(size);
        if (outOfMemory(state, block)) break;
        touch(block);
        contender.give(block);
    }
}

constexpr size_t kLive = 10000;

struct Step {
    uint32_t place;
    uint32_t bytes;
};

// The same steps for every contender: which block goes, and how large its successor is.
const std::vector<Step>& mixedSteps()
{
    static const std::vector<Step> steps = [] {
        std::mt19937 random(20260101);
        std::uniform_int_distribution<uint32_t> place(0, kLive - 1), bytes(16, 1024);
        std::vector<Step> made(1 << 16);
        for (Step& step : made) step = {place(random), bytes(random)};
        return made;
    }();
    return steps;
}

template <class Contender>
void mix(benchmark::State& state, const Contender& contender)
{
    const Pinned pinned(state.thread_index(), state.threads());
    const std::vector<Step>& steps = mixedSteps();
    size_t next = static_cast<size_t>(state.thread_index()) * steps.size() / 2;
    std::vector<void*> live(kLive);
    for (size_t i = 0; i < kLive; i++) live[i] = contender.take(steps[i].bytes);
    for (auto _ : state) {
        const Step step = steps[next++ & (steps.size() - 1)];
        contender.give(live[step.place]);
        void* block = contender.take(step.bytes);
        live[step.place] = block;
        if (outOfMemory(state, block)) break;
        touch(block);
    }
    for (void* block : live)
        if (block) contender.give(block);
}

// A ring with one writer and one reader. Each keeps its own position on its own line and looks at the other's only
// when its last look is used up.
class Ring {
public:
    void push(void* block)
    {
        const size_t at = head_.own;
        for (int spins = 0; at - head_.seen == kCapacity; wait(spins))
            head_.seen = tail_.shared.load(std::memory_order_acquire);
        slots_[at % kCapacity] = block;
        head_.own = at + 1;
        head_.shared.store(at + 1, std::memory_order_release);
    }
    void* pop()
    {
        const size_t at = tail_.own;
        for (int spins = 0; at == tail_.seen; wait(spins)) tail_.seen = head_.shared.load(std::memory_order_acquire);
        void* block = slots_[at % kCapacity];
        tail_.own = at + 1;
        tail_.shared.store(at + 1, std::memory_order_release);
        return block;
    }

private:
    static constexpr size_t kCapacity = 1024;
    struct alignas(128) End {
        std::atomic<size_t> shared{0};
        size_t own = 0;
        size_t seen = 0;
    };

    // Waiting is work of the thread that waits, so a slow partner costs both. But a partner without a processor is
    // none.
    static void wait(int& spins)
    {
        if (++spins < 1000)
            __builtin_ia32_pause();
        else
            sched_yield();
    }

    End head_, tail_;
    alignas(128) std::array<void*, kCapacity> slots_;
};

Ring ring;

template <class Contender>
void handOver(benchmark::State& state, const Contender& contender, size_t size)
{
    const Pinned pinned(state.thread_index(), state.threads());
    for (auto _ : state) {
        benchmark::DoNotOptimize(size);
        if (state.thread_index() == 0) {
            void* block = contender.take(size);
            if (block) touch(block);
            ring.push(block);
        } else {
            void* block = ring.pop();
            if (block) contender.give(block);
        }
    }
}

void twoPassages(benchmark::State& state)
{
    for (auto _ : state) floorTwoPassages(&contexts[0]);
}

// ---- The benchmarks

// Adds a load once for every contender. `body` takes the state and a contender.
template <class Body>
void addLoad(const std::string& load, int threads, const Body& body)
{
    const auto addOne = [&](const std::string& name, auto contenderOf) {
        add(load, name, [body, contenderOf](benchmark::State& state) {
            body(state, contenderOf(&contexts[static_cast<size_t>(state.thread_index())]));
        })->Threads(threads);
    };
    addOne(kOurs, [](OV_THDCTX_T* owner) { return Ours{owner}; });
    addOne(kFloor, [](OV_THDCTX_T* owner) { return Floor{owner}; });
    for (const Allocator& a : allocators()) addOne(a.name, [&a](OV_THDCTX_T*) { return Peer{a.allocate, a.release}; });
}

struct Size {
    const char* name;
    size_t bytes;
};
constexpr Size kSizes[] = {{"24B", 24},       {"64B", 64},         {"160B", 160},    {"512B", 512},
                           {"4KiB", 4 << 10}, {"64KiB", 64 << 10}, {"1MiB", 1 << 20}};

void addBenchmarks()
{
    for (const int threads : {1, kMostThreads}) {
        const std::string where = threads == 1 ? "/1thread" : "/2threads";
        for (const Size& size : kSizes)
            addLoad("pair/" + std::string(size.name) + where, threads,
                    [bytes = size.bytes](benchmark::State& state, const auto& c) { pairs(state, c, bytes); });
        addLoad("mix/16-1024B" + where, threads, [](benchmark::State& state, const auto& c) { mix(state, c); });
    }
    for (const Size& size : {kSizes[1], kSizes[3]})
        addLoad("handover/" + std::string(size.name) + "/2threads", kMostThreads,
                [bytes = size.bytes](benchmark::State& state, const auto& c) { handOver(state, c, bytes); });
    add("two-lock-passages", kFloor, twoPassages);
}

} // namespace
} // namespace kemsd::bench

int main(int argc, char** argv)
{
    using namespace kemsd::bench;
    makeRoomForAllocators(argv);
    settleSystemAllocator();
    startThreadHeaps();
    if (!floorHeapsStart(kSlots, kHeapBytes, kLargestHeapBlock)) return 1;
    return run(argc, argv, {"memory", std::string(kMemorySetting) + "; " + kSystemSetting, addBenchmarks});
}
