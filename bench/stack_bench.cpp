// Units of work: many small items, all released at once.
#include <benchmark/benchmark.h>
#include <kemsd/memory.h>

#include <array>
#include <memory>
#include <memory_resource>
#include <random>
#include <string>

#include "support/floorstack.h"
#include "support/report.h"

namespace kemsd::bench {
namespace {

constexpr size_t kItems = 10000;
constexpr unsigned kAlignment = 8;
constexpr unsigned kBlockBytes = 65536 - 128; // whole pages with what the allocator needs

// The same sizes for every contender.
const std::array<unsigned, kItems>& itemBytes()
{
    static const std::array<unsigned, kItems> bytes = [] {
        std::mt19937 random(20260102);
        std::uniform_int_distribution<unsigned> small(8, 128);
        std::array<unsigned, kItems> made;
        for (unsigned& size : made) size = small(random);
        return made;
    }();
    return bytes;
}

class Ours {
public:
    Ours() { KemSdMemStackCreate(nullptr, &stack_, kAlignment, kBlockBytes); }
    ~Ours() { KemSdMemStackDelete(nullptr, stack_); }
    void* take(unsigned bytes)
    {
        void* item = nullptr;
        KemSdMemStackAllocAndPush(nullptr, stack_, bytes, &item);
        return item;
    }
    void releaseAll() { KemSdMemStackReset(nullptr, stack_); }

private:
    KEM_STACKHDR_T* stack_ = nullptr;
};

class Floor {
public:
    ~Floor() { floorStackDelete(stack_); }
    void* take(unsigned bytes)
    {
        void* item = nullptr;
        floorStackPush(stack_, bytes, &item);
        return item;
    }
    void releaseAll() { floorStackReset(stack_); }

private:
    FloorStack* stack_ = floorStackCreate(kBlockBytes);
};

// Called as containers call it, through the interface, over one buffer that is large enough: it has no blocks to
// change.
class Monotonic {
public:
    void* take(unsigned bytes)
    {
        benchmark::DoNotOptimize(interface_);
        return interface_->allocate(bytes, kAlignment);
    }
    void releaseAll() { resource_.release(); }

private:
    std::unique_ptr<char[]> buffer_{new char[2 << 20]()};
    std::pmr::monotonic_buffer_resource resource_{buffer_.get(), 2 << 20};
    std::pmr::memory_resource* interface_ = &resource_;
};

template <class Contender>
void unitsOfWork(benchmark::State& state)
{
    const std::array<unsigned, kItems>& bytes = itemBytes();
    Contender contender;
    while (state.KeepRunningBatch(kItems)) {
        for (const unsigned size : bytes) {
            void* item = contender.take(size);
            if (!item) return state.SkipWithError("no memory");
            *static_cast<volatile uint64_t*>(item) = 1;
        }
        contender.releaseAll();
    }
}

void addBenchmarks()
{
    const std::string load = "stack/10000";
    add(load, kOurs, unitsOfWork<Ours>);
    add(load, kFloor, unitsOfWork<Floor>);
    add(load, "pmr-monotonic", unitsOfWork<Monotonic>);
}

} // namespace
} // namespace kemsd::bench

int main(int argc, char** argv)
{
    return kemsd::bench::run(
        argc, argv,
        {"stack", "10,000 items of 8 to 128 bytes, then all released at once", kemsd::bench::addBenchmarks});
}
