// A unit of work of a server's thread: what one request needs beside SQLite, which is its text, the frames of its
// answer and the like. It comes from the thread's short-term heaps, without a lock, and goes back at once with the
// unit. Where there are none, switched off or for want of memory, the usual heaps serve.
#pragma once

#include <kemsd/memory.h>

#include <memory_resource>

namespace sqlhost {

class UnitOfWork : public std::pmr::memory_resource {
public:
    // For the calling thread, which has no other unit. It begins with the first allocation, so that a thread that waits
    // for work holds no heap.
    explicit UnitOfWork(OV_THDCTX_T& thread) : thread_(thread) {}
    // What the unit has allocated is not used any more.
    ~UnitOfWork() override;
    UnitOfWork(const UnitOfWork&) = delete;
    UnitOfWork& operator=(const UnitOfWork&) = delete;

private:
    // Throws std::bad_alloc.
    void* do_allocate(size_t bytes, size_t alignment) override;
    void do_deallocate(void* block, size_t bytes, size_t alignment) override;
    bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override { return this == &other; }

    OV_THDCTX_T& thread_;
    bool begun_ = false;
};

} // namespace sqlhost
