// Threads and buffers on the nodes of a machine: the table of nodes this process may run on, the node each thread was
// bound to, and memory obtained on a node. No locks: the table is made and emptied while the server starts and stops,
// and only read in between; a binding concerns the calling thread alone. While the table is empty nothing is bound and
// the C library serves every request.

#include <numa.h>
#include <strings.h>

#include <kemsd/memory.h>
#include <algorithm>
#include <climits>
#include <cstdlib>

#include "sd/base/outcome.h"
#include "sd/base/settings.h"
#include "sd/memsys/memsys.h"
#include "sd/memxcpt.h"

static_assert(KEM_NUMA_NODES_MAX <= NUMA_NUM_NODES, "every node of the table has its bit in the fixed mask");

namespace {

constexpr const char* kSwitchVariable = "OV_TURN_OFF_NUMA";
constexpr KEM_LONG64_T kNoNode = -1;

} // namespace

extern "C" {
constinit KEM_NUMA_NODE_INFO numaNodeInfo = {nullptr, 0};
// The node the thread was last bound to.
constinit KEM_THREAD_LOCAL KEM_LONG64_T thdnode = kNoNode;
}

namespace {

using sd::finish;
using sd::finishInvalid;
using sd::loadRelaxed;
using sd::ok;
using sd::storeRelaxed;

// ---- The table

KEM_LONG64_T nodeCount() { return loadRelaxed(numaNodeInfo.numNumaNodes); }

KEM_LONG64_T nodeAt(KEM_LONG64_T place) { return loadRelaxed(numaNodeInfo.numaNodeIdAry)[place]; }

// Deliberate: an absent variable leaves placement off.
bool isWanted()
{
    const char* const turnedOff = getenv(kSwitchVariable);
    return sd::hardwareAcceleration() && turnedOff && strcasecmp(turnedOff, "false") == 0;
}

void emptyTable()
{
    storeRelaxed(numaNodeInfo.numNumaNodes, 0);
    free(loadRelaxed(numaNodeInfo.numaNodeIdAry));
    storeRelaxed(numaNodeInfo.numaNodeIdAry, nullptr);
}

nodemask_t runNodes()
{
    bitmask* const allowed = numa_get_run_node_mask();
    nodemask_t nodes;
    copy_bitmask_to_nodemask(allowed, &nodes);
    numa_bitmask_free(allowed);
    return nodes;
}

KEM_LONG64_T listNodes(const nodemask_t& nodes, KEM_LONG64_T* ids)
{
    KEM_LONG64_T count = 0;
    for (int node = 0; node < KEM_NUMA_NODES_MAX; ++node)
        if (nodemask_isset_compat(&nodes, node)) ids[count++] = node;
    return count;
}

void fillTable()
{
    auto* const ids = static_cast<KEM_LONG64_T*>(calloc(KEM_NUMA_NODES_MAX, sizeof(KEM_LONG64_T)));
    if (!ids) return;
    const KEM_LONG64_T count = listNodes(runNodes(), ids);
    if (count < 2) { // one node leaves nothing to place
        free(ids);
        return;
    }
    storeRelaxed(numaNodeInfo.numaNodeIdAry, ids);
    storeRelaxed(numaNodeInfo.numNumaNodes, count);
}

// ---- Threads and buffers

// Deliberate: what libnuma answers is not looked at. A number beyond its range stays beyond it, so that it never wraps
// to -1, which would mean every node.
void bindThread(KEM_LONG64_T nodeId)
{
    if (nodeId < 0 || nodeCount() == 0) return;
    const int node = static_cast<int>(std::min<KEM_LONG64_T>(nodeId, INT_MAX));
    numa_run_on_node(node);
    numa_set_preferred(node);
    thdnode = nodeId;
}

int allocateOnNode(size_t size, size_t& taken, void*& buffer, KEM_LONG64_T nodeId)
{
    const KEM_LONG64_T boundBefore = thdnode;
    int error = 0;
    bindThread(nodeId);
    taken = size;
    buffer = numa_alloc_local(size);
    if (!buffer) {
        taken = 0;
        buffer = malloc(size);
        if (!buffer) error = errno;
    }
    // Deliberate: a thread that had never been bound stays on the node.
    bindThread(boundBefore);
    return error;
}

void* allocateAnywhere(size_t size, size_t& taken)
{
    taken = size;
    return malloc(size);
}

// Deliberate: the crash-time reserve leaves `taken` alone.
void allocateForServer(size_t size, size_t& taken, void*& buffer, KEM_LONG64_T nodeId)
{
    if (sd::fatalExceptionDeclared()) [[unlikely]]
        ovXcptMemAlloc(nullptr, sd::crashTimeSize(size), &buffer);
    else if (sd::hardwareAcceleration())
        KemSdAllocOnNumaNode(nullptr, size, &taken, &buffer, nodeId);
    else
        buffer = allocateAnywhere(size, taken);
}

bool isInCrashReserve(void* block) { return sd::fatalExceptionDeclared() && ovXcptMemFree(nullptr, block) == 0; }

} // namespace

void KemSdInitNumaResources(void)
{
    if (isWanted())
        KemSdCreateNumaResources();
    else
        emptyTable();
}

void KemSdCreateNumaResources(void)
{
    emptyTable();
    if (numa_available() >= 0) fillTable();
}

void KemSdDestroyNumaResources(void) { emptyTable(); }

KEM_LONG64_T KemSdGetNumNumaNodes(void) { return nodeCount(); }

KEM_LONG64_T* KemSdGetNumaNodeIdAryPtr(void)
{
    return nodeCount() == 0 ? nullptr : loadRelaxed(numaNodeInfo.numaNodeIdAry);
}

KEM_LONG64_T KemSdGetNumaNodeIdIndex(KEM_LONG64_T n)
{
    const KEM_LONG64_T count = nodeCount();
    return count == 0 ? 0 : n % count;
}

KEM_LONG64_T KemSdGetNumaNodeId(KEM_LONG64_T n)
{
    const KEM_LONG64_T count = nodeCount();
    if (count == 0) return kNoNode;
    const KEM_LONG64_T place = n % count;
    return place < 0 ? kNoNode : nodeAt(place);
}

KEM_LONG64_T KemSdGetNumaNodeIdFromIndex(KEM_LONG64_T i) { return nodeCount() == 0 ? kNoNode : nodeAt(i); }

void KemSdBindThreadToNode(void*, KEM_LONG64_T nodeId) { bindThread(nodeId); }

void KemSdBindThreadToNumaNode(void*, KEM_LONG64_T nodeId) { bindThread(nodeId); }

int KemSdAllocOnNumaNode(void*, size_t size, size_t* allocSize, void** ppvfBuf, KEM_LONG64_T nodeId)
{
    if (!allocSize || !ppvfBuf) return SDSTS_INVALID_PARAM;
    if (nodeCount() != 0) return allocateOnNode(size, *allocSize, *ppvfBuf, nodeId);
    *ppvfBuf = allocateAnywhere(size, *allocSize);
    return 0;
}

int KemSdFreeOnNumaNode(void*, size_t size, void* ptr)
{
    if (nodeCount() != 0 && size != 0)
        numa_free(ptr, size);
    else
        free(ptr);
    return 0;
}

KEM_FUNC_M KemSdExtAllocMemFree(KEM_PSDCTX_T pSdCtx, void* ptr)
{
    if (!ptr) return finishInvalid(pSdCtx);
    free(ptr);
    return finish(pSdCtx, ok());
}

int ovMallocOnNode(void*, size_t size, size_t* allocSize, void** ppvfBuf, KEM_LONG64_T nodeId, const char*, long)
{
    if (size == 0 || !allocSize || !ppvfBuf) return SDSTS_INVALID_PARAM;
    allocateForServer(size, *allocSize, *ppvfBuf, nodeId);
    if (*ppvfBuf) return 0;
    if (loadRelaxed(ovMemThreadHeap.fNetLocalMessage)) ovMemSendMessage(memmsg_error, static_cast<int>(size));
    return SDSTS_NO_MEMORY;
}

int ovFreeOnNode(void*, size_t size, void* ptr, const char*, long)
{
    if (!ptr) return SDSTS_INVALID_PARAM;
    if (isInCrashReserve(ptr)) return 0;
    if (sd::hardwareAcceleration()) return KemSdFreeOnNumaNode(nullptr, size, ptr);
    free(ptr);
    return 0;
}
