// The reader-writer lock's ABI and the nodes that threads bring to it.
//
// A thread keeps its nodes in its sync context: one for every lock it has taken so far, on the list of the held ones
// while it holds the lock, else on that of the cached ones, both by the lock's category. No other thread looks at these
// lists, nor at a node's mode, depth or key, so they need no lock. A thread allocates only where it meets a lock for
// the first time, and holds nothing then. No call of this file writes a context.

#include <kemsd/memory.h>
#include <kemsd/sync.h>
#include <cassert>
#include <cstring>

#include "sd/sdrwlock/protocol.h"

namespace {

using sd::loadRelaxed;
using sd::storeRelaxed;
using namespace sd::rwlock;

constexpr const char* kSource = "sd/sdrwlock";
constexpr long kNodeAllocLine = 301;
constexpr long kNodeFreeLine = 302;
constexpr long kListsAllocLine = 303;
constexpr long kListsFreeLine = 304;

// ---- Lists of nodes

struct NodeLists {
    Node* first[KEM_RWLOCK_CAT_COUNT];
};

NodeLists& lists(void* of) { return *static_cast<NodeLists*>(of); }

// Where the list begins on which the lock's nodes are.
Node** listOf(const Lock& lock, void* of) { return &lists(of).first[lock.category]; }

// The place that points at the lock's node, or the end of the list.
Node** find(const Lock& lock, Node** list)
{
    Node** place = list;
    while (*place && (*place)->pKey != &lock) place = &(*place)->pStrNext;
    return place;
}

void unlink(Node** place) { *place = (*place)->pStrNext; }

void push(Node& node, Node** list)
{
    node.pStrNext = *list;
    *list = &node;
}

KEM_STS_T makeLists(void* owner, void** made)
{
    const KEM_STS_T sts = ovMalloc(owner, sizeof(NodeLists), made, kSource, kListsAllocLine);
    if (sts == 0) memset(*made, 0, sizeof(NodeLists));
    return sts;
}

void destroyLists(void** of)
{
    if (!*of) return;
    for (Node*& first : lists(*of).first) {
        while (Node* node = first) {
            unlink(&first);
            KemRWLockQNodeDestroy(nullptr, node);
        }
    }
    ovFree(*of, kSource, kListsFreeLine);
    *of = nullptr;
}

// ---- The thread's node of a lock

KEM_STS_T makeNode(void* owner, Lock& lock, Node** made)
{
    void* place = nullptr;
    if (const KEM_STS_T sts = ovMalloc(owner, sizeof(Node), &place, kSource, kNodeAllocLine)) return sts;
    memset(place, 0, sizeof(Node));
    auto* node = static_cast<Node*>(place);
    node->lRdrMaxWaits = lock.lRdrMaxWaits;
    node->lWrtrMaxWaits = lock.lWrtrMaxWaits;
    node->lCurrNumOfRdrYields = lock.lRdrMaxYields;
    node->lCurrNumOfWrtrYields = lock.lWrtrMaxYields;
    node->lCurrNumOfRdrSpinLoops = lock.lRdrMaxSpinLoops;
    node->lCurrNumOfWrtrSpinLoops = lock.lWrtrMaxSpinLoops;
    pthread_mutex_init(&node->mutex, nullptr);
    pthread_cond_init(&node->cond, nullptr);
    node->pKey = &lock;
    *made = node;
    return 0;
}

// Null when the thread does not hold the lock.
Node* heldNode(const KEM_SYNCCTX_T& context, const Lock& lock)
{
    return context.pUsed ? *find(lock, listOf(lock, context.pUsed)) : nullptr;
}

// One after the other: a single store of both would often cross a cache line, which takes longer than the whole
// passage.
void setModeAndDepth(Node& node, int64_t mode, int64_t depth)
{
    storeRelaxed(node.bMode, mode);
    storeRelaxed(node.sCount, depth);
}

// The held node, or the cached one, which is then among the held ones; null when one has to be made.
Node* knownNode(KEM_SYNCCTX_T& context, const Lock& lock)
{
    if (!context.pUsed) [[unlikely]]
        return nullptr;
    Node** used = listOf(lock, context.pUsed);
    if (Node* held = *find(lock, used)) return held;
    if (!context.pFree) [[unlikely]]
        return nullptr;
    Node** place = find(lock, listOf(lock, context.pFree));
    Node* cached = *place;
    if (cached) [[likely]] {
        unlink(place);
        push(*cached, used);
    }
    return cached;
}

// ---- Entering. What is not done at once is the last step of its caller, so that the short way saves no registers.

KEM_STS_T nowInside(Node& node, int64_t mode)
{
    setModeAndDepth(node, mode, 1);
    return 0;
}

[[gnu::noinline]] KEM_STS_T readByTheSteps(Lock& lock, Node& node)
{
    node.sCount = 1;
    enterRead(lock, node);
    return nowInside(node, kModeRead);
}

[[gnu::noinline]] KEM_STS_T writeByTheSteps(Lock& lock, Node& node)
{
    enterWrite(lock, node);
    return nowInside(node, kModeWrite);
}

[[gnu::always_inline]] inline KEM_STS_T startRead(Lock& lock, Node& node)
{
    if (node.sCount != 0) {
        // Deliberate: a writer that asks to read stays a writer, one level deeper.
        ++node.sCount;
        return 0;
    }
    return enterReadAtOnce(lock, node) ? nowInside(node, kModeRead) : readByTheSteps(lock, node);
}

[[gnu::always_inline]] inline KEM_STS_T startWrite(Lock& lock, Node& node)
{
    if (node.sCount != 0) {
        // Deliberate: a reader cannot become a writer; two that tried would wait for each other.
        if (node.bMode != kModeWrite) return SDSTS_SEM_REQUEST;
        ++node.sCount;
        return 0;
    }
    return enterWriteAtOnce(lock, node) ? nowInside(node, kModeWrite) : writeByTheSteps(lock, node);
}

// The thread's first time at this lock.
[[gnu::noinline]] KEM_STS_T startWithNewNode(void* owner, KEM_SYNCCTX_T& context, Lock& lock,
                                             KEM_STS_T (*start)(Lock&, Node&))
{
    Node* node;
    if (const KEM_STS_T sts = makeNode(owner, lock, &node)) return sts;
    if (!context.pUsed) {
        if (const KEM_STS_T sts = makeLists(owner, &context.pUsed)) {
            KemRWLockQNodeDestroy(owner, node);
            return sts;
        }
    }
    push(*node, listOf(lock, context.pUsed));
    return start(lock, *node);
}

// ---- Leaving, in the same way

// The thread's first release.
[[gnu::noinline]] KEM_STS_T cacheFirstNode(void* owner, KEM_SYNCCTX_T& context, const Lock& lock, Node& node)
{
    // Deliberate: without memory the node is on neither list; the lock is free all the same.
    if (const KEM_STS_T sts = makeLists(owner, &context.pFree)) return sts;
    push(node, listOf(lock, context.pFree));
    return 0;
}

KEM_STS_T cacheNode(void* owner, KEM_SYNCCTX_T& context, const Lock& lock, Node** place)
{
    Node& node = **place;
    unlink(place);
    setModeAndDepth(node, kModeNone, 0);
    if (!context.pFree) [[unlikely]]
        return cacheFirstNode(owner, context, lock, node);
    push(node, listOf(lock, context.pFree));
    return 0;
}

[[gnu::noinline]] KEM_STS_T endLastRead(void* owner, KEM_SYNCCTX_T& context, Lock& lock, Node** place)
{
    letHeadWriterIn(lock);
    return cacheNode(owner, context, lock, place);
}

[[gnu::noinline]] KEM_STS_T endWriteByTheSteps(void* owner, KEM_SYNCCTX_T& context, Lock& lock, Node** place)
{
    leaveWrite(lock, **place);
    return cacheNode(owner, context, lock, place);
}

} // namespace

KEM_STS_T KemRWLockInit(KEM_PSDCTX_T pSdCtx, OV_UINT_T uiSemType, KEM_RWLOCK_T* pRWLock, OV_BOOL_T bToSleep,
                        KEM_RWLOCK_CAT category)
{
    if (!pRWLock || category < 0 || category >= KEM_RWLOCK_CAT_COUNT) return SDSTS_INVALID_PARAM;
    KemSyncEnvInit(pSdCtx);
    memset(pRWLock, 0, sizeof *pRWLock);
    pRWLock->uiObjType = uiSemType;
    pRWLock->lRdrMaxSpinLoops = loadRelaxed(KEM_RWLOCK_RMAXSPINLOOPS);
    pRWLock->lWrtrMaxSpinLoops = loadRelaxed(KEM_RWLOCK_WMAXSPINLOOPS);
    pRWLock->lRdrMaxYields = loadRelaxed(KEM_RWLOCK_RMAXSPINYIELDS);
    pRWLock->lWrtrMaxYields = loadRelaxed(KEM_RWLOCK_WMAXSPINYIELDS);
    pRWLock->lRdrMaxWaits = loadRelaxed(KEM_RWLOCK_RMAXWAITLOOPS);
    pRWLock->lWrtrMaxWaits = loadRelaxed(KEM_RWLOCK_WMAXWAITLOOPS);
    pRWLock->bToSleep = bToSleep;
    pRWLock->category = category;
    return 0;
}

KEM_STS_T KemSdStartRead(void* tctxp, KEM_SYNCCTX_T* pSyncCtx, void* pSem)
{
    if (!pSyncCtx || !pSem) return SDSTS_INVALID_PARAM;
    auto& lock = *static_cast<Lock*>(pSem);
    Node* node = knownNode(*pSyncCtx, lock);
    return node ? startRead(lock, *node) : startWithNewNode(tctxp, *pSyncCtx, lock, startRead);
}

KEM_STS_T KemSdStartWrite(void* tctxp, KEM_SYNCCTX_T* pSyncCtx, void* pSem)
{
    if (!pSyncCtx || !pSem) return SDSTS_INVALID_PARAM;
    auto& lock = *static_cast<Lock*>(pSem);
    Node* node = knownNode(*pSyncCtx, lock);
    return node ? startWrite(lock, *node) : startWithNewNode(tctxp, *pSyncCtx, lock, startWrite);
}

KEM_STS_T KemSdEndRW(void* tctxp, KEM_SYNCCTX_T* pSyncCtx, void* pSem)
{
    if (!pSyncCtx || !pSem) return SDSTS_INVALID_PARAM;
    if (!pSyncCtx->pUsed) return SDSTS_SEM_CLEAR;
    auto& lock = *static_cast<Lock*>(pSem);
    Node** place = find(lock, listOf(lock, pSyncCtx->pUsed));
    Node* node = *place;
    if (!node || node->sCount < 1) return SDSTS_SEM_CLEAR;
    if (node->sCount > 1) {
        --node->sCount;
        return 0;
    }
    if (node->bMode == kModeWrite) {
        if (!leaveWriteAtOnce(lock, *node)) [[unlikely]]
            return endWriteByTheSteps(tctxp, *pSyncCtx, lock, place);
    } else if (!leaveReadAtOnce(lock)) [[unlikely]] {
        return endLastRead(tctxp, *pSyncCtx, lock, place);
    }
    return cacheNode(tctxp, *pSyncCtx, lock, place);
}

KEM_USHORT_T KemSdModeRW(void*, KEM_SYNCCTX_T* pSyncCtx, void* pSem)
{
    if (!pSyncCtx || !pSem) return 0;
    const Node* node = heldNode(*pSyncCtx, *static_cast<Lock*>(pSem));
    return node ? static_cast<KEM_USHORT_T>(node->bMode) : 0;
}

KEM_BOOL_T KemSdOwnerRW(void* tctxp, KEM_SYNCCTX_T* pSyncCtx, void* pSem)
{
    return KemSdModeRW(tctxp, pSyncCtx, pSem) != 0;
}

KEM_STS_T KemRWLockQNodeDestroy(void*, KEM_RWLOCKQNODE_T* pNode)
{
    if (!pNode) return SDSTS_INVALID_PARAM;
    assert(pNode->sCount == 0 && "the node of a held lock");
    // The thread that let this node's owner in may still be inside the mutex.
    pthread_mutex_lock(&pNode->mutex);
    pthread_mutex_unlock(&pNode->mutex);
    pthread_mutex_destroy(&pNode->mutex);
    pthread_cond_destroy(&pNode->cond);
    ovFree(pNode, kSource, kNodeFreeLine);
    return 0;
}

KEM_STS_T KemRWLockFreeQNodes(KEM_SYNCCTX_T* pSyncCtx)
{
    if (!pSyncCtx) return SDSTS_INVALID_PARAM;
    destroyLists(&pSyncCtx->pUsed);
    destroyLists(&pSyncCtx->pFree);
    return 0;
}
