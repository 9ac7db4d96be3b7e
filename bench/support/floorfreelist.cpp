#include "support/floorfreelist.h"

#include <kemsd/memory.h>
#include <stdlib.h>

#include <cstdint>

namespace kemsd::bench {
namespace {

constexpr size_t kPrefix = 64;
constexpr unsigned kClasses = 32;
constexpr uint16_t kPooledTag = 0x4002; // policy 2, then hlen 64

struct Node {
    Node* next;
};

struct Lists {
    Node** pool;
    int64_t* count;
    size_t limit;
    size_t held;
};

// The quickest road to a word of the thread; a library that may be loaded late has to take a longer one.
__thread Lists* lists __attribute__((tls_model("initial-exec")));

inline OV_ALLOCMEMBLKHDR_T* headerOf(void* block) { return static_cast<OV_ALLOCMEMBLKHDR_T*>(block) - 1; }

inline void writeHeader(char* block, unsigned index, uint16_t tag)
{
    OV_ALLOCMEMBLKHDR_T* header = headerOf(block);
    header->poolIndex = index;
    __builtin_memcpy(&header->policy, &tag, sizeof tag);
}

[[gnu::noinline]] void* allocateExact(size_t bytes)
{
    char* start = static_cast<char*>(malloc(sizeof(OV_ALLOCMEMBLKHDR_T) + bytes));
    if (!start) return nullptr;
    writeHeader(start + sizeof(OV_ALLOCMEMBLKHDR_T), 0, 0x0801);
    return start + sizeof(OV_ALLOCMEMBLKHDR_T);
}

[[gnu::noinline]] void* allocateNew(unsigned index)
{
    char* start = static_cast<char*>(malloc(kPrefix + (size_t{1} << index)));
    if (!start) return nullptr;
    writeHeader(start + kPrefix, index, kPooledTag);
    return start + kPrefix;
}

[[gnu::noinline]] int releaseOther(void* block)
{
    const OV_ALLOCMEMBLKHDR_T* header = headerOf(block);
    if (header->policy != 1 || header->hlen != 8) abort();
    free(static_cast<char*>(block) - header->hlen);
    return 0;
}

} // namespace

void floorListsCreate()
{
    lists = static_cast<Lists*>(calloc(1, sizeof(Lists)));
    lists->pool = static_cast<Node**>(calloc(kClasses, sizeof(Node*)));
    lists->count = static_cast<int64_t*>(calloc(kClasses, sizeof(int64_t)));
    lists->limit = 8u << 20;
}

void floorListsDestroy()
{
    for (unsigned i = 0; i < kClasses; i++)
        while (Node* node = lists->pool[i]) {
            lists->pool[i] = node->next;
            free(node);
        }
    free(lists->pool);
    free(lists->count);
    free(lists);
    lists = nullptr;
}

void floorListAllocate(size_t bytes, void** block, char policy)
{
    Lists* own = lists;
    if (!own || policy == 1) [[unlikely]] {
        *block = allocateExact(bytes);
        return;
    }
    // The bit position of the smallest power of two not below the request.
    const uint64_t below = static_cast<uint32_t>(bytes) - 1u;
    const unsigned index = (63u - static_cast<unsigned>(__builtin_clzll(2 * below + 1))) & 31u;
    Node* head = own->pool[index];
    if (!head) [[unlikely]] {
        *block = allocateNew(index);
        return;
    }
    own->pool[index] = head->next;
    own->count[index]--;
    own->held -= kPrefix + (size_t{1} << index);
    char* start = reinterpret_cast<char*>(head);
    writeHeader(start + kPrefix, index, static_cast<uint16_t>(0x4000 | static_cast<unsigned char>(policy)));
    *block = start + kPrefix;
}

int floorListRelease(void* block)
{
    Lists* own = lists;
    OV_ALLOCMEMBLKHDR_T* header = headerOf(block);
    uint16_t tag;
    __builtin_memcpy(&tag, &header->policy, sizeof tag);
    if (!own || tag != kPooledTag) [[unlikely]]
        return releaseOther(block);
    const unsigned index = header->poolIndex;
    header->policy = 0;
    Node* node = reinterpret_cast<Node*>(static_cast<char*>(block) - kPrefix);
    if (!own->pool || own->held > own->limit) [[unlikely]] {
        free(node);
        return 0;
    }
    node->next = own->pool[index];
    own->pool[index] = node;
    own->count[index]++;
    own->held += kPrefix + (size_t{1} << index);
    return 0;
}

} // namespace kemsd::bench
