// The allocation entry points that the whole server uses. While the thread heaps are on, a request goes through them
// (threadheap.h); while they are off, to the system allocator with the headers of memheap/blockheader.
//
// Takes no lock of its own. A failed request never changes the caller's old block. Shortage is reported through the
// server's call-back.

#include <cstring>

#include "sd/base/settings.h"
#include "sd/memsys/threadheap.h"

namespace sd::memsys {
namespace {

constexpr size_t kStringTail = 5; // zero bytes behind a duplicated string

int done(size_t bytes)
{
    reportPendingWarning(bytes);
    return 0;
}

// The report of a request that failed while the thread heaps are on.
int exhausted(size_t bytes)
{
    noteShortage(bytes);
    ovMemSendMessage(memmsg_error, static_cast<int>(bytes));
    return SDSTS_NO_MEMORY;
}

// The report of a request that failed while they are off.
int exhaustedSystem(size_t bytes)
{
    if (loadRelaxed(ovMemThreadHeap.fNetLocalMessage)) ovMemSendMessage(memmsg_error, static_cast<int>(bytes));
    return SDSTS_NO_MEMORY;
}

bool obtainFromSystem(void* owner, size_t alignment, size_t size, void** result, char policy)
{
    if (alignment != 0) return ovMemExtMallocAligned(result, alignment, size) == 0;
    if (memoryManagerOn())
        ovMemExtThreadMalloc(owner, size, result, policy);
    else
        *result = ovMemExtMalloc(size, policy);
    return *result != nullptr;
}

[[gnu::noinline]] int requestFromSystem(void* owner, size_t alignment, size_t size, void** result, char policy)
{
    return obtainFromSystem(owner, alignment, size, result, policy) ? 0 : exhaustedSystem(size);
}

// The whole common path of an allocation, inlined into each entry point.
inline int request(void* owner, size_t alignment, size_t size, void** result, char policy)
{
    if (size == 0) [[unlikely]]
        return SDSTS_INVALID_PARAM;
    if (!heapsOn()) return requestFromSystem(owner, alignment, size, result, policy);
    void* block = requestFromHeaps(owner, result, size);
    *result = block;
    if (!block) [[unlikely]]
        return exhausted(size);
    if (bucketControl()) [[unlikely]]
        countAllocation(size);
    return done(size);
}

} // namespace

void releaseToSystem(void* block)
{
    if (memoryManagerOn())
        ovMemExtThreadFree(block);
    else
        ovMemExtFree(block);
}

namespace {

[[gnu::noinline]] void releaseWhileOff(void* block, size_t alignment)
{
    if (mayBeFromHeaps(block))
        releaseToHeaps(block);
    else if (alignment != 0)
        ovMemExtFreeAligned(block);
    else
        releaseToSystem(block);
}

inline int giveBack(void* block, size_t alignment)
{
    if (!block) [[unlikely]]
        return SDSTS_INVALID_PARAM;
    if (heapsOn())
        releaseToHeaps(block);
    else
        releaseWhileOff(block, alignment);
    return 0;
}

} // namespace
} // namespace sd::memsys

using namespace sd::memsys;

int ovMallocBase(void* UniqueAddress, size_t alignment, size_t size, void** ppvfBuf, char policy, const char*, long)
{
    return request(UniqueAddress, alignment, size, ppvfBuf, policy);
}

int ovMalloc(void* UniqueAddress, size_t size, void** ppvfBuf, const char*, long)
{
    return request(UniqueAddress, 0, size, ppvfBuf, kPolicy);
}

int ovMallocPolicy(void* UniqueAddress, size_t size, void** ppvfBuf, char policy, const char*, long)
{
    return request(UniqueAddress, 0, size, ppvfBuf, policy);
}

int ovMallocAligned(void* UniqueAddress, size_t alignment, size_t size, void** ppvfBuf, const char*, long)
{
    return request(UniqueAddress, alignment, size, ppvfBuf, kPolicy);
}

int ovCalloc(void* UniqueAddress, long num, size_t size, void** ppvfBuf, char policy, const char*, long)
{
    if (num == 0 || size == 0) {
        if (ppvfBuf) *ppvfBuf = nullptr;
        return SDSTS_INVALID_PARAM;
    }
    size_t bytes;
    if (num < 0 || __builtin_mul_overflow(static_cast<size_t>(num), size, &bytes)) {
        *ppvfBuf = nullptr;
        if (heapsOn()) noteShortage(static_cast<size_t>(num) * size);
        return exhaustedSystem(static_cast<size_t>(num) * size);
    }
    if (heapsOn()) {
        *ppvfBuf = requestFromHeaps(UniqueAddress, ppvfBuf, bytes);
        if (bucketControl()) countAllocation(bytes);
    } else {
        obtainFromSystem(UniqueAddress, 0, bytes, ppvfBuf, policy);
    }
    // Deliberate: the fill comes without a null test; a failed allocation is not survivable here.
    memset(*ppvfBuf, 0, bytes);
    return heapsOn() ? done(bytes) : 0;
}

int ovFreeBase(void* ptr, size_t alignment, const char*, long) { return giveBack(ptr, alignment); }

int ovFree(void* ptr, const char*, long)
{
    if (sd::deallocationOff()) [[unlikely]]
        return 0;
    return giveBack(ptr, 0);
}

int ovFreeAligned(void* ptr, size_t alignment, const char*, long) { return giveBack(ptr, alignment); }

char* ovStrDup(const char* pStr, const char* fname, long line)
{
    if (!pStr) return nullptr;
    const size_t length = strlen(pStr);
    void* copy = nullptr;
    if (ovMalloc(nullptr, length + kStringTail, &copy, fname, line) != 0) return nullptr;
    memcpy(copy, pStr, length);
    memset(static_cast<char*>(copy) + length, 0, kStringTail);
    return static_cast<char*>(copy);
}
