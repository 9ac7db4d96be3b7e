// Not built yet: the first form, served by the system allocator.
#include <kemsd/memory.h>
#include <cstdlib>

int ovMalloc(void*, size_t size, void** ppvfBuf, const char*, long)
{
    if (size == 0) return SDSTS_INVALID_PARAM;
    *ppvfBuf = malloc(size);
    return *ppvfBuf ? 0 : SDSTS_NO_MEMORY;
}

int ovMallocAligned(void*, size_t alignment, size_t size, void** ppvfBuf, const char*, long)
{
    if (size == 0) return SDSTS_INVALID_PARAM;
    return posix_memalign(ppvfBuf, alignment, size) == 0 ? 0 : SDSTS_NO_MEMORY;
}

int ovFree(void* ptr, const char*, long)
{
    if (!ptr) return SDSTS_INVALID_PARAM;
    free(ptr);
    return 0;
}

int ovFreeAligned(void* ptr, size_t, const char* fname, long line)
{
    return ovFree(ptr, fname, line);
}
