// The free lists' plain functions, and the entry points that serve each thread from its own allocator. Takes no lock.

#include <cstdlib>
#include <new>

#include "sd/base/settings.h"
#include "sd/ThreadAllocator.h"

extern "C" {
constinit KEM_THREAD_LOCAL ThreadAllocator* memoryManagementObj = nullptr;
}

namespace {

ThreadAllocator* allocatorOf(void* thisThdAlloc)
{
    return static_cast<ThreadAllocator*>(thisThdAlloc);
}

} // namespace

namespace sd {

[[gnu::noinline]] void threadAllocElsewhere(ThreadAllocator* allocator, size_t size, void** result, char policy)
{
    *result =
        allocator ? allocator->getUnlisted(static_cast<unsigned int>(size), policy) : ovMemExtMalloc(size, policy);
}

[[gnu::noinline]] int threadFreeElsewhere(ThreadAllocator* allocator, void* block)
{
    if (allocator)
        allocator->releaseElsewhere(block);
    else
        ovMemExtFree(block);
    return 0;
}

} // namespace sd

// The object comes from the C library: the library has no C++ run time to take operator new from.
void* ThdAlloc_Create(void)
{
    void* const place = malloc(sizeof(ThreadAllocator));
    if (!place) return nullptr;
    auto* const allocator = new (place) ThreadAllocator;
    if (allocator->usable()) return allocator;
    ThdAlloc_Destroy(allocator);
    return nullptr;
}

void ThdAlloc_Destroy(void* thisThdAlloc)
{
    if (!thisThdAlloc) return;
    allocatorOf(thisThdAlloc)->clean();
    free(thisThdAlloc);
}

void* ThdAlloc_get(void* thisThdAlloc, unsigned int size, char policy)
{
    return thisThdAlloc ? allocatorOf(thisThdAlloc)->get(size, policy) : nullptr;
}

void ThdAlloc_release(void* thisThdAlloc, void* arg)
{
    if (thisThdAlloc && arg) allocatorOf(thisThdAlloc)->release(arg);
}

void ThdAlloc_prealloc(void* thisThdAlloc)
{
    if (thisThdAlloc) allocatorOf(thisThdAlloc)->prealloc();
}

void ThdAlloc_clean(void* thisThdAlloc)
{
    if (thisThdAlloc) allocatorOf(thisThdAlloc)->clean();
}

void ThdAlloc_compaction(void* thisThdAlloc, long lowerLimit)
{
    if (thisThdAlloc) allocatorOf(thisThdAlloc)->compaction(lowerLimit);
}

long* ThdAlloc_getElementCountAryPtr(void* thisThdAlloc)
{
    return thisThdAlloc ? allocatorOf(thisThdAlloc)->getElementCountAryPtr() : nullptr;
}

int ovCreateThreadAlloc(void*)
{
    if (sd::memoryManagerOn() && !memoryManagementObj)
        memoryManagementObj = static_cast<ThreadAllocator*>(ThdAlloc_Create());
    return 0;
}

int ovDestroyThreadAlloc(void*)
{
    ThdAlloc_Destroy(memoryManagementObj);
    memoryManagementObj = nullptr;
    return 0;
}

void ovThreadAlloc(void*, size_t size, void** ppvfBuf, char policy)
{
    if (!ppvfBuf) [[unlikely]]
        return;
    sd::threadAlloc(size, ppvfBuf, policy);
}

int ovThreadFree(void* ptr)
{
    return ptr ? sd::threadFree(ptr) : 0;
}

void ovThreadPrealloc(void*)
{
    if (sd::hardwareAcceleration() && memoryManagementObj) memoryManagementObj->prealloc();
}

int ovFreelistCompaction(void*)
{
    if (memoryManagementObj) memoryManagementObj->compaction(sd::hardwareAcceleration() ? -1 : 0);
    return 0;
}
