#include "serve/unitofwork.h"

#include <climits>
#include <new>

namespace sqlhost {

UnitOfWork::~UnitOfWork()
{
    if (begun_) ovMemShortHeapTerm(&thread_);
}

// A thread without a short-term heap is refused by it; so is a block for which there is no further heap.
void* UnitOfWork::do_allocate(size_t bytes, size_t alignment)
{
    if (alignment > alignof(void*)) throw std::bad_alloc();
    if (!begun_) ovMemShortHeapInit(&thread_);
    begun_ = true;
    void* block = nullptr;
    const size_t size = bytes > 0 ? bytes : 1;
    if (ovMemShortCheckStatus(&thread_) && size <= INT_MAX &&
        ovMemShortHeapMalloc(&thread_, static_cast<OV_LONG_T>(size), &block, __FILE__, __LINE__) == 0)
        return block;
    if (ovMalloc(&thread_, size, &block, __FILE__, __LINE__) != 0) throw std::bad_alloc();
    return block;
}

// Blocks of both kinds know where they belong.
void UnitOfWork::do_deallocate(void* block, size_t, size_t) { ovFree(block, __FILE__, __LINE__); }

} // namespace sqlhost
