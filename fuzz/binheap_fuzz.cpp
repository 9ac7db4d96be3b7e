// The binned heap under any sequence of requests, against a list of the live blocks.
//
// The first byte picks the region's size; every further step takes three: what to do, and a number. After each step the
// boundary tags of the whole region must fit together and all live blocks keep their bytes.

#include <kemsd/memory.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "sd/memsys/memsys.h"

namespace {

constexpr uint32_t kHeader = sizeof(OV_MemAllocBlock_T);
constexpr uint32_t kSmallestBlock = 48;
constexpr uint32_t kLargestRequest = 0xFFFFFFC0;
constexpr size_t kLiveBlocks = 512;

void require(bool holds, const char* what)
{
    if (holds) return;
    fprintf(stderr, "broken: %s\n", what);
    abort();
}

struct Live {
    uint8_t* data;
    uint32_t bytes;
    uint8_t fill;
};

OV_MemAllocBlock_T* blockOf(void* data)
{
    return reinterpret_cast<OV_MemAllocBlock_T*>(static_cast<char*>(data) - kHeader);
}

class Heap {
public:
    explicit Heap(uint32_t region) : heap_(static_cast<OV_MemHeap_T*>(malloc(region)))
    {
        require(heap_ != nullptr, "memory for the region");
        ovMemThreadHeap.ShortHeapSize = region;
        ovMemHeapInit(heap_, FALSE);
        require(end() == reinterpret_cast<char*>(heap_) + region, "the region ends where its size says");
    }
    ~Heap() { free(heap_); }
    Heap(const Heap&) = delete;
    Heap& operator=(const Heap&) = delete;

    void allocate(uint32_t bytes)
    {
        void* data = ovMemHeapMalloc(heap_, bytes);
        if (!data) {
            requireNoRoom(bytes);
            return;
        }
        requireFresh(data, bytes);
        take(data, bytes);
    }

    void release(size_t which)
    {
        Live& live = live_[which % live_.size()];
        requireKept(live, live.bytes);
        ovMemHeapFree(heap_, live.data);
        live = live_.back();
        live_.pop_back();
    }

    void resize(size_t which, uint32_t bytes)
    {
        which %= live_.size();
        const Live old = live_[which];
        auto* data = static_cast<uint8_t*>(ovMemHeapRealloc(heap_, old.data, bytes));
        if (!data) {
            requireNoRoom(bytes);
            requireKept(old, old.bytes);
            return;
        }
        requireKept({data, old.bytes, old.fill}, std::min(old.bytes, bytes));
        live_[which] = live_.back();
        live_.pop_back();
        requireFresh(data, bytes);
        take(data, bytes);
    }

    // The tags of the whole region, and the bytes of every live block.
    void check() const
    {
        uint32_t previous = 0;
        size_t inUse = 0;
        for (char* at = begin(); at < end();) {
            const auto* block = reinterpret_cast<OV_MemAllocBlock_T*>(at);
            require(block->size >= 40 && block->size % 8 == 0, "a block's size");
            require(block->prevsize == previous, "the size of the block before");
            require(!block->MemHeap || block->MemHeap == heap_, "the heap a block names");
            inUse += block->MemHeap != nullptr;
            previous = block->size;
            at += block->size;
            require(at <= end(), "the blocks fill the region");
        }
        require(inUse == live_.size() + heap_->HeapHeader.FastBinCount, "blocks in use are live or on a fast bin");
        for (const Live& live : live_) requireKept(live, live.bytes);
    }

    // With everything given back the whole region is one block again.
    void drain()
    {
        while (!live_.empty()) release(0);
        check();
        const auto whole = static_cast<uint32_t>(end() - begin()) - kHeader;
        void* data = ovMemHeapMalloc(heap_, whole / 8 * 8);
        require(data == begin() + kHeader, "an empty heap serves all it has");
        ovMemHeapFree(heap_, data);
    }

    size_t live() const { return live_.size(); }

private:
    char* begin() const { return reinterpret_cast<char*>(&heap_->HeapBuffer); }
    char* end() const { return heap_->HeapHeader.HeapEnd; }

    void take(void* data, uint32_t bytes)
    {
        auto* from = static_cast<uint8_t*>(data);
        const auto fill = static_cast<uint8_t>(++fills_);
        memset(from, fill, bytes);
        live_.push_back({from, bytes, fill});
    }

    void requireFresh(void* data, uint32_t bytes) const
    {
        const OV_MemAllocBlock_T* block = blockOf(data);
        require(reinterpret_cast<uintptr_t>(data) % 8 == 0, "blocks are 8-byte aligned");
        require(reinterpret_cast<const char*>(block) >= begin(), "a block lies in the region");
        require(block->MemHeap == heap_ && !block->marker, "a block handed out names its heap and has no marker");
        require(block->size >= kSmallestBlock && block->size - kHeader >= bytes, "a block is large enough");
        const auto* low = static_cast<const uint8_t*>(data);
        for (const Live& live : live_)
            require(low + bytes + kHeader <= live.data || live.data + live.bytes + kHeader <= low,
                    "blocks do not overlap");
    }

    static void requireKept(const Live& live, uint32_t bytes)
    {
        for (uint32_t i = 0; i < bytes; ++i) require(live.data[i] == live.fill, "a live block keeps its bytes");
    }

    // A refusal left nothing on the fast bins, and no free block is large enough. A request that no block size can hold
    // is refused at once.
    void requireNoRoom(uint32_t bytes) const
    {
        if (bytes > kLargestRequest) return;
        require(heap_->HeapHeader.FastBinCount == 0, "the fast bins are flushed before a refusal");
        const uint64_t need = bytes < kHeader ? kSmallestBlock : (bytes + 7ull) / 8 * 8 + kHeader;
        for (char* at = begin(); at < end(); at += reinterpret_cast<OV_MemAllocBlock_T*>(at)->size) {
            const auto* block = reinterpret_cast<OV_MemAllocBlock_T*>(at);
            require(block->MemHeap || block->size < need, "a request that fits is served");
        }
    }

    OV_MemHeap_T* heap_;
    std::vector<Live> live_;
    unsigned fills_ = 0;
};

// Sizes around every boundary: small ones singly, larger ones in steps, and a few beyond any region.
uint32_t bytesFor(uint8_t kind, uint16_t number)
{
    switch (kind) {
        case 0:
            return number % 256;
        case 1:
            return number % 4096;
        case 2:
            return number;
        default:
            return number % 4 == 0 ? 0xFFFFFFFFu - number / 4 : number * 8u;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1) return 0;
    // From a region that holds a single small block to four times the largest bin's bound.
    Heap heap(sizeof(OV_MemHeap_T) + kSmallestBlock + data[0] * 512u);
    for (size_t i = 1; i + 3 <= size; i += 3) {
        const auto number = static_cast<uint16_t>(data[i + 1] | data[i + 2] << 8);
        const uint8_t step = data[i] % 4;
        const uint8_t kind = data[i] / 4 % 4;
        if (heap.live() == 0 || (step <= 1 && heap.live() < kLiveBlocks))
            heap.allocate(bytesFor(kind, number));
        else if (step == 2)
            heap.resize(data[i] / 16 * 7u + number % 7, bytesFor(kind, number));
        else
            heap.release(number);
        heap.check();
    }
    heap.drain();
    return 0;
}
