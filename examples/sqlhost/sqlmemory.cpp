// SQLite asks a block for its size, which kemsd does not tell. So every block begins with eight bytes of our own that
// hold it:
//
//     kemsd's block   [ size 8 ][ data ...      data is what SQLite sees, aligned to 8 as kemsd's block is
//
// The calling thread's context is the owning address, which selects the thread heap.
#include "sqlmemory.h"

#include <kemsd/memory.h>
#include <kemsd/os.h>

namespace sqlhost {
namespace {

constexpr int kPrefix = 8;

uint64_t& sizeOf(void* data) { return *reinterpret_cast<uint64_t*>(static_cast<char*>(data) - kPrefix); }

void* dataOf(void* block, int size)
{
    void* const data = static_cast<char*>(block) + kPrefix;
    sizeOf(data) = static_cast<uint64_t>(size);
    return data;
}

void* allocate(int size)
{
    void* block = nullptr;
    const size_t bytes = static_cast<size_t>(size) + kPrefix;
    if (ovMalloc(KemSdVupUtilTlsGet(), bytes, &block, "sqlhost/memory", __LINE__) != 0 || !block) return nullptr;
    return dataOf(block, size);
}

void release(void* data)
{
    if (data) ovFree(&sizeOf(data), "sqlhost/memory", __LINE__);
}

// A refused resize leaves the old block and its size as they were, which is what SQLite expects.
void* resize(void* data, int size)
{
    void* block = nullptr;
    const size_t bytes = static_cast<size_t>(size) + kPrefix;
    const int status = ovRealloc(KemSdVupUtilTlsGet(), bytes, &sizeOf(data), &block, "sqlhost/memory", __LINE__);
    return status == 0 && block ? dataOf(block, size) : nullptr;
}

int sizeAsked(void* data) { return data ? static_cast<int>(sizeOf(data)) : 0; }

int roundUp(int size) { return (size + 7) & ~7; }

int start(void*) { return SQLITE_OK; }

void stop(void*) {}

} // namespace

const sqlite3_mem_methods& kemsdMemoryMethods()
{
    static constexpr sqlite3_mem_methods kMethods = {allocate, release, resize, sizeAsked,
                                                     roundUp,  start,   stop,   nullptr};
    return kMethods;
}

} // namespace sqlhost
