// The free lists beyond a hit: blocks from and to the system allocator, doubtful releases, prefill, compaction and the
// end. Takes no lock; the hits stand in the header.

#include "sd/ThreadAllocator.h"

#include <malloc.h>
#include <cstdlib>

#include "sd/base/invariant.h"
#include "sd/base/settings.h"

constinit int64_t preallocPattern[ThreadAllocator::kClasses] = {};

namespace {

using sd::SourcePoint;

constexpr const char* kRelease = "void ThreadAllocator::release(void*)";
constexpr SourcePoint kDeadBlock{"sd/ThreadAllocator", 206, kRelease};
constexpr SourcePoint kExactLength{"sd/ThreadAllocator", 218, kRelease};
constexpr SourcePoint kClassedLength{"sd/ThreadAllocator", 230, kRelease};
constexpr SourcePoint kUnknownPolicy{"sd/ThreadAllocator", 264, kRelease};

constexpr size_t kLimitBytes = 8388608;
constexpr size_t kAcceleratedLimitBytes = 104857600;

// Sizes are 32-bit here: an exact block's sum with its header must fit, a classed block rounds up to 2^31 at most.
constexpr unsigned kLargestExact = UINT32_MAX - sd::kExactPrefix;
constexpr unsigned kLargestClassed = 1U << 31;

void* newBlock(size_t prefix, size_t payload, char policy, OV_ULONG_T poolIndex)
{
    void* const base = malloc(prefix + payload);
    return base ? sd::writeHeader(base, prefix, policy, poolIndex) : nullptr;
}

} // namespace

ThreadAllocator::ThreadAllocator()
    : pool(static_cast<MemList**>(malloc(kClasses * sizeof *pool))),
      pElementCountAry(static_cast<int64_t*>(malloc(kClasses * sizeof *pElementCountAry))),
      freeListBufferLimit(sd::hardwareAcceleration() ? kAcceleratedLimitBytes : kLimitBytes),
      freeListBufferSize(0)
{
    if (!usable()) return;
    for (unsigned i = 0; i < kClasses; ++i) {
        pool[i] = nullptr;
        pElementCountAry[i] = 0;
    }
}

// The exact policy, the sizes that wrap, and an empty list.
void* ThreadAllocator::getUnlisted(unsigned int s, char policy)
{
    if (policy == sd::kExactPolicy) return s > kLargestExact ? nullptr : newBlock(sd::kExactPrefix, s, policy, 0);
    if (s - 1 < kLargestClassed) {
        const OV_ULONG_T i = sd::floorLog2(2 * size_t{s} - 1);
        return newBlock(sd::kClassedPrefix, size_t{1} << i, policy, i);
    }
    // Deliberate: 0, and what callers never pass, round to 0 in 32 bits, which is class 0.
    MemList* const block = pop(0);
    return block ? sd::retag(payloadOf(block), sd::kClassedPrefix, policy) : newBlock(sd::kClassedPrefix, 0, policy, 0);
}

// A header that is not ours ends the process. A block of ours goes back to the system when the lists are gone or full,
// or when its class does not tell its real size and that is too small for a later request of the class.
void ThreadAllocator::releaseElsewhere(void* mem)
{
    OV_ALLOCMEMBLKHDR_T* const pHdr = sd::headerOf(mem);
    SD_INVARIANT(kDeadBlock, pHdr->policy != 0);
    // clang-format off
    if (pHdr->policy == sd::kExactPolicy) {
        SD_INVARIANT(kExactLength, pHdr->hlen == ((char) sizeof(OV_ALLOCMEMBLKHDR_T)));
        free(static_cast<char*>(mem) - sd::kExactPrefix);
        return;
    }
    if (pHdr->policy != sd::kClassedPolicy) SD_INVARIANT(kUnknownPolicy, 0);
    SD_INVARIANT(kClassedLength, pHdr->hlen == ((char) 64));
    // clang-format on
    const OV_ULONG_T i = pHdr->poolIndex;
    pHdr->policy = sd::kDeadPolicy;
    MemList* const block = listedFormOf(mem);
    if (!pool || full() || i >= kClasses || malloc_usable_size(block) < heldBytes(i))
        free(block);
    else
        push(block, i);
}

void ThreadAllocator::prealloc()
{
    if (!usable()) return;
    for (unsigned i = 0; i < kClasses; ++i) {
        while (pElementCountAry[i] < preallocPattern[i]) {
            if (full()) return;
            void* const mem = newBlock(sd::kClassedPrefix, size_t{1} << i, sd::kDeadPolicy, i);
            if (!mem) return;
            push(listedFormOf(mem), i);
        }
        if (full()) return;
    }
}

void ThreadAllocator::clean()
{
    if (usable()) {
        for (unsigned i = 0; i < kClasses; ++i) {
            while (pool[i]) free(pop(i));
        }
    }
    free(pool);
    free(pElementCountAry);
    pool = nullptr;
    pElementCountAry = nullptr;
    freeListBufferSize = 0;
}

// -1 keeps what the pattern asks for; 0 and more is the number of bytes that may stay held, the largest classes going
// first; other negative limits do nothing.
void ThreadAllocator::compaction(long lowerLimit)
{
    if (!usable() || lowerLimit < -1) return;
    for (unsigned i = kClasses; i-- > 0;) {
        while (pool[i]) {
            if (lowerLimit == -1 && pElementCountAry[i] <= preallocPattern[i]) break;
            if (lowerLimit >= 0 && freeListBufferSize <= static_cast<size_t>(lowerLimit)) return;
            free(pop(i));
        }
    }
}
