// Units of work of one thread over thread heaps that stand: a context, its requests, and what is there before them.
#pragma once

#include <algorithm>

#include "sd/memheap/binheap.h"
#include "support/failingcalls.h"
#include "support/shortheaps.h"

namespace kemsd::test {

inline OV_MemThreadHeap_T& record = ovMemThreadHeap;

constexpr OV_ULONG_T kHeap = 320 * 1024;
constexpr OV_LONG_T kLargest = 64 * 1024;
constexpr size_t kRegionBucket = 10; // of 320 KiB
constexpr const char* kConfiguration = "numthreadheaps 4 numheaps 12 heapsize 512K maxblock 64K shortheapsize 320K";

inline int netContext;

inline OV_STS_T request(OV_THDCTX_T& context, OV_LONG_T size, void** block)
{
    return ovMemShortHeapMalloc(&context, size, block, __FILE__, __LINE__);
}

inline OV_STS_T resize(OV_THDCTX_T& context, OV_LONG_T size, void* block, void** newblock)
{
    return ovMemShortHeapRealloc(&context, size, block, newblock, __FILE__, __LINE__);
}

inline int give(void* block) { return ovFree(block, __FILE__, __LINE__); }

inline void* filled(OV_THDCTX_T& context, OV_LONG_T size)
{
    void* block = nullptr;
    EXPECT_EQ(request(context, size, &block), 0);
    if (block) fillBlock(block, static_cast<size_t>(size), 1);
    return block;
}

inline testing::AssertionResult holds(const void* block, size_t bytes) { return blockHolds(block, bytes, 1); }

inline OV_MemHeap_T* heapOf(void* block) { return sd::memheap::blockOf(block)->MemHeap; }

// Takes all room of the context's heaps for blocks of 1,000 bytes and more.
inline void fillHeaps(OV_THDCTX_T& context)
{
    for (OV_MemHeap_T* heap : heapsOf(context))
        for (const OV_ULONG_T bytes : {60000u, 10000u, 1000u})
            while (ovMemHeapMalloc(heap, bytes)) {
            }
}

// Gives the context that many heaps.
inline void growTo(OV_THDCTX_T& context, size_t heaps)
{
    ovMemShortHeapInit(&context);
    while (heapsOf(context).size() < heaps) {
        fillHeaps(context);
        ASSERT_NE(filled(context, 1000), nullptr);
    }
}

// Lets so many heaps end in the pool.
inline void stock(size_t heaps)
{
    OV_THDCTX_T context{};
    growTo(context, heaps);
    ovMemShortHeapTerm(&context);
    ASSERT_EQ(spareHeaps().size(), heaps);
}

struct Counts {
    OV_ULONGLONG_T allocated[OV_MEM_BUCKETS] = {};
    OV_ULONGLONG_T released[OV_MEM_BUCKETS] = {};
};

inline Counts counts()
{
    Counts now;
    EXPECT_EQ(ovMemGetUsedMemoryBlocks(1, now.allocated, now.released), 0);
    return now;
}

// What the library leaves behind on purpose stays in a leak checker's sight.
inline void* leftBehind[2];

class ShortHeap : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(startThreadHeaps(kConfiguration, recordMessage), 0);
        record.LimitShortHeapsForRemove = 100;
        context.NetCtx = &netContext;
        ovMemSetThreadContext(&context);
        used = record.UsedMemory;
        live = liveBlocks();
    }

    void TearDown() override { ovMemShortHeapTerm(&context); }

    // What the pool holds is all that is left.
    void expectNothingElse() const
    {
        EXPECT_EQ(record.NumShortNumHeapsInUsage, 0);
        EXPECT_EQ(record.UsedMemory, used + spareHeaps().size() * kHeap);
        EXPECT_EQ(liveBlocks(), live + static_cast<long>(spareHeaps().size()));
    }

    OV_THDCTX_T context{};
    OV_ULONGLONG_T used = 0;
    long live = 0;
};

} // namespace kemsd::test
