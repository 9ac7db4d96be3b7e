// A thread's free lists: one list of released blocks for each power of two, so that a thread that frees and allocates
// blocks of similar sizes reuses them. An allocator belongs to one thread, is reached through a thread-local pointer
// and takes no lock.
//
// A block carries the header of sd/memheap/blockheader.h. In a list its policy is 0 and its first word is the link;
// poolIndex stays, so taking it out again only has to write policy and hlen.
//
// A hit, which is a pop or a push, is inlined into every entry point; everything else goes out of line in one step, so
// that a hit needs no stack frame and keeps nothing across a call.
#pragma once

#include "sd/base/poison.h"
#include "sd/memheap/blockheader.h"

class ThreadAllocator {
public:
    static constexpr unsigned kClasses = 32;

    ThreadAllocator();
    // False when the constructor found no memory for its arrays, and after clean().
    bool usable() const { return pool && pElementCountAry; }

    void* get(unsigned int s, char policy);
    void release(void* mem);
    void prealloc();
    void clean();
    void compaction(long lowerLimit);
    int64_t* getElementCountAryPtr() { return pElementCountAry; }

    // The two halves of get: a block of a list or null, and the rest.
    void* getListed(unsigned int s, char policy);
    [[gnu::noinline]] void* getUnlisted(unsigned int s, char policy);
    // The two halves of release: false leaves the block as it is, and the rest.
    bool releaseToList(void* mem);
    [[gnu::noinline]] void releaseElsewhere(void* mem);

private:
    struct MemList {
        MemList* next;
    };

    // Bytes that a block of a class counts in freeListBufferSize.
    static constexpr size_t heldBytes(unsigned i) { return sd::kClassedPrefix + (size_t{1} << i); }
    static char* payloadOf(MemList* block) { return reinterpret_cast<char*>(block) + sd::kClassedPrefix; }
    static MemList* listedFormOf(void* mem)
    {
        return reinterpret_cast<MemList*>(static_cast<char*>(mem) - sd::kClassedPrefix);
    }

    MemList* pop(unsigned i);
    void push(MemList* block, unsigned i);
    bool full() const { return freeListBufferSize > freeListBufferLimit; }

    MemList** pool;             // heads of the lists; class i holds payloads of 2^i bytes
    int64_t* pElementCountAry;  // blocks in each list
    size_t freeListBufferLimit; // bytes; tested before a block is added, so one block may stand above it
    size_t freeListBufferSize;  // bytes held in the lists
};

static_assert(sizeof(ThreadAllocator) == 32, "two arrays, the limit and the size");

// Blocks that prealloc() fills each list up to and compaction(-1) leaves in it; all 0 as shipped.
extern int64_t preallocPattern[ThreadAllocator::kClasses];

// The thread's allocator, null until ovCreateThreadAlloc. Eight bytes of static thread-local storage: the loader keeps
// room for so little also when the library is opened by dlopen, and a hit saves the call through a TLS descriptor.
extern "C" [[gnu::tls_model("initial-exec")]] KEM_THREAD_LOCAL ThreadAllocator* memoryManagementObj;

inline ThreadAllocator::MemList* ThreadAllocator::pop(unsigned i)
{
    MemList* const block = pool[i];
    if (!block) [[unlikely]]
        return nullptr;
    pool[i] = block->next;
    --pElementCountAry[i];
    freeListBufferSize -= heldBytes(i);
    sd::unpoison(payloadOf(block), size_t{1} << i);
    return block;
}

inline void ThreadAllocator::push(MemList* block, unsigned i)
{
    block->next = pool[i];
    pool[i] = block;
    ++pElementCountAry[i];
    freeListBufferSize += heldBytes(i);
    sd::poison(payloadOf(block), size_t{1} << i);
}

inline void* ThreadAllocator::getListed(unsigned int s, char policy)
{
    const unsigned below = s - 1;
    if (policy == sd::kExactPolicy || static_cast<int>(below) < 0) [[unlikely]] // s is 0 or above 2^31
        return nullptr;
    const unsigned i = 31U ^ static_cast<unsigned>(__builtin_clz(2 * below + 1)); // the least power not below s is 2^i
    MemList* const block = pop(i);
    if (!block) [[unlikely]]
        return nullptr;
    return sd::retag(payloadOf(block), sd::kClassedPrefix, policy);
}

inline bool ThreadAllocator::releaseToList(void* mem)
{
    OV_ALLOCMEMBLKHDR_T* const header = sd::headerOf(mem);
    const OV_ULONG_T i = header->poolIndex;
    // Class 0, which wraps to the largest number here, takes the other half too: its block may have been made for no
    // payload at all.
    if (sd::tagOf(mem) != sd::kClassedTag || i - 1 >= sd::kLargestPooledClass || !pool || full()) [[unlikely]]
        return false;
    header->policy = sd::kDeadPolicy;
    push(listedFormOf(mem), i);
    return true;
}

inline void* ThreadAllocator::get(unsigned int s, char policy)
{
    void* const mem = getListed(s, policy);
    return mem ? mem : getUnlisted(s, policy);
}

inline void ThreadAllocator::release(void* mem)
{
    if (!releaseToList(mem)) [[unlikely]]
        releaseElsewhere(mem);
}

namespace sd {

// What no list could serve or take, with or without an allocator.
void threadAllocElsewhere(ThreadAllocator* allocator, size_t size, void** result, char policy);
int threadFreeElsewhere(ThreadAllocator* allocator, void* block);

inline void threadAlloc(size_t size, void** result, char policy)
{
    ThreadAllocator* const allocator = memoryManagementObj;
    if (allocator) [[likely]] {
        // Deliberate: the low 32 bits.
        if (void* const mem = allocator->getListed(static_cast<unsigned int>(size), policy)) [[likely]] {
            *result = mem;
            return;
        }
    }
    threadAllocElsewhere(allocator, size, result, policy);
}

inline int threadFree(void* block)
{
    ThreadAllocator* const allocator = memoryManagementObj;
    if (allocator && allocator->releaseToList(block)) [[likely]]
        return 0;
    return threadFreeElsewhere(allocator, block);
}

} // namespace sd
