// System-allocator blocks with a header in front, and the entry points that choose between crash-time memory, blocks
// with a header, and the bare system allocator. Takes no lock: everything here is as thread-safe as the system
// allocator. A block must be released under the switch setting it was allocated under.

#include "sd/memheap/blockheader.h"

#include <cstdlib>

#include "sd/base/invariant.h"
#include "sd/base/settings.h"
#include "sd/memxcpt.h"
#include "sd/ThreadAllocator.h"

namespace {

using sd::crashTimeSize;
using sd::fatalExceptionDeclared;
using sd::memoryManagerOn;
using sd::SizeClass;
using sd::SourcePoint;

constexpr SourcePoint kDeadBlock{"sd/memheap", 246, "reallocModified"};

void* systemBlockOf(void* block, size_t prefix) { return static_cast<char*>(block) - prefix; }

void* crashTimeBlock(size_t size)
{
    void* block = nullptr;
    ovXcptMemAlloc(nullptr, crashTimeSize(size), &block);
    return block;
}

// Crash-time memory forms the product in 32 bits; one beyond them goes there as a single element of that size.
void* crashTimeElements(OV_UINT_T count, OV_ULONG_T size)
{
    void* block = nullptr;
    const size_t bytes = size_t{count} * size;
    if (bytes <= UINT32_MAX)
        ovXcptMemCalloc(nullptr, count, size, &block);
    else
        ovXcptMemCalloc(nullptr, 1, crashTimeSize(bytes), &block);
    return block;
}

} // namespace

OV_PVOID_T mallocModified(size_t s, char policy)
{
    if (s > sd::kLargestRequest) return nullptr;
    const SizeClass c = sd::sizeClass(s, policy);
    void* const base = malloc(c.capacity + c.prefix);
    return base ? sd::writeHeader(base, c.prefix, policy, c.poolIndex) : nullptr;
}

OV_PVOID_T callocModified(size_t num, size_t sizeOne, char policy)
{
    const size_t s = num * sizeOne; // Deliberate: a product beyond 64 bits wraps.
    if (s > sd::kLargestRequest) return nullptr;
    const SizeClass c = sd::sizeClass(s, policy);
    // Deliberate: whole elements that cover capacity and prefix; callers never pass elements of size 0.
    void* const base = calloc((c.capacity - 1 + c.prefix) / sizeOne + 1, sizeOne);
    return base ? sd::writeHeader(base, c.prefix, policy, c.poolIndex) : nullptr;
}

OV_PVOID_T reallocModified(OV_PVOID_T pvBuf, size_t s)
{
    if (!pvBuf) return mallocModified(s, sd::kClassedPolicy);
    OV_ALLOCMEMBLKHDR_T* const header = sd::headerOf(pvBuf);
    const char policy = header->policy;
    const auto prefix = static_cast<unsigned char>(header->hlen);
    SD_INVARIANT(kDeadBlock, policy != 0);
    const SizeClass c = sd::sizeClass(s, policy);
    if (policy != sd::kExactPolicy && c.poolIndex == header->poolIndex && c.poolIndex <= sd::kLargestPooledClass)
        return pvBuf;
    // Deliberate: a failing resize leaves the old block with a dead header, which freeModified does not recognise.
    header->policy = sd::kDeadPolicy;
    if (s > sd::kLargestRequest) return nullptr;
    void* const base = realloc(systemBlockOf(pvBuf, prefix), c.capacity + prefix);
    return base ? sd::writeHeader(base, prefix, policy, c.poolIndex) : nullptr;
}

void freeModified(void* pvBuf)
{
    switch (sd::tagOf(pvBuf)) {
        case sd::kClassedTag:
            free(systemBlockOf(pvBuf, sd::kClassedPrefix));
            return;
        case sd::kExactTag:
            free(systemBlockOf(pvBuf, sd::kExactPrefix));
            return;
        default:
            free(pvBuf); // a block without a header
    }
}

void* ovMemExtMalloc(size_t size, char policy)
{
    if (fatalExceptionDeclared()) [[unlikely]]
        return crashTimeBlock(size);
    return memoryManagerOn() ? mallocModified(size, policy) : malloc(size);
}

void* ovMemExtCalloc(OV_UINT_T blockCount, OV_ULONG_T blockSize, char policy)
{
    if (fatalExceptionDeclared()) [[unlikely]]
        return crashTimeElements(blockCount, blockSize);
    return memoryManagerOn() ? callocModified(blockCount, blockSize, policy) : calloc(blockCount, blockSize);
}

void* ovMemExtRealloc(OV_PVOID_T pvBuf, size_t size)
{
    if (fatalExceptionDeclared()) [[unlikely]] {
        ovXcptMemRealloc(nullptr, crashTimeSize(size), &pvBuf);
        return pvBuf;
    }
    return memoryManagerOn() ? reallocModified(pvBuf, size) : realloc(pvBuf, size);
}

void ovMemExtFree(OV_PVOID_T pvBuf)
{
    if (fatalExceptionDeclared()) [[unlikely]]
        ovXcptMemFree(nullptr, pvBuf);
    else if (memoryManagerOn())
        freeModified(pvBuf);
    else
        free(pvBuf);
}

OV_STS_T ovMemExtMallocAligned(void** memptr, size_t alignment, size_t size)
{
    if (!memptr) return SDSTS_INVALID_PARAM;
    // Deliberate: crash-time memory drops the alignment.
    if (fatalExceptionDeclared()) [[unlikely]]
        return ovXcptMemAlloc(nullptr, crashTimeSize(size), memptr);
    return posix_memalign(memptr, alignment, size);
}

void ovMemExtFreeAligned(OV_PVOID_T pvBuf)
{
    if (fatalExceptionDeclared()) [[unlikely]]
        ovXcptMemFree(nullptr, pvBuf);
    else
        free(pvBuf);
}

void ovMemExtThreadMalloc(void*, size_t size, void** ppvfBuf, char policy)
{
    if (!ppvfBuf) return;
    if (fatalExceptionDeclared()) [[unlikely]]
        ovXcptMemAlloc(nullptr, crashTimeSize(size), ppvfBuf);
    else if (size <= sd::kPoolLimit && memoryManagerOn())
        sd::threadAlloc(size, ppvfBuf, policy);
    else
        *ppvfBuf = ovMemExtMalloc(size, policy);
}

void ovMemExtThreadFree(OV_PVOID_T pvBuf)
{
    if (!pvBuf) return;
    // A crash-time block has no header, and every road of one ends there; so that comes first.
    if (fatalExceptionDeclared()) [[unlikely]] {
        ovXcptMemFree(nullptr, pvBuf);
        return;
    }
    if (memoryManagerOn()) {
        const OV_ALLOCMEMBLKHDR_T* const header = sd::headerOf(pvBuf);
        const bool large = header->policy == sd::kClassedPolicy && header->poolIndex > sd::kLargestPooledClass;
        if (header->policy != sd::kExactPolicy && !large) {
            sd::threadFree(pvBuf);
            return;
        }
    }
    ovMemExtFree(pvBuf);
}
