#include "support/floorrwlock.h"

#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <initializer_list>

namespace kemsd::bench {
namespace {

using Lock = KEM_RWLOCK_T;
using Node = KEM_RWLOCKQNODE_T;

constexpr int64_t kReading = 1;
constexpr int64_t kWriting = 65535;
constexpr int64_t kBoth = RWLOCK_WRITER_QUEUED | RWLOCK_WRITER_CLAIM;

template <class T>
T* exchange(T* volatile& word, T* value)
{
    return __atomic_exchange_n(&word, value, __ATOMIC_SEQ_CST);
}

int64_t add(Lock& lock, int64_t value) { return __atomic_fetch_add(&lock.lRdrCntAndFlags, value, __ATOMIC_SEQ_CST); }

template <class Change>
int64_t change(Lock& lock, Change changed)
{
    int64_t word = __atomic_load_n(&lock.lRdrCntAndFlags, __ATOMIC_RELAXED);
    while (!__atomic_compare_exchange_n(&lock.lRdrCntAndFlags, &word, changed(word), false, __ATOMIC_SEQ_CST,
                                        __ATOMIC_RELAXED)) {
    }
    return word;
}

int64_t set(Lock& lock, int64_t flags)
{
    return change(lock, [flags](int64_t word) { return word | flags; });
}

constexpr int64_t kWaits = 1, kSleeps = 2; // bBlocked; 0: let in

void futex(Node& node, int operation)
{
    syscall(SYS_futex, &node.bBlocked, operation, operation == FUTEX_WAIT_PRIVATE ? kSleeps : 1, nullptr);
}

bool letIn(const Node& node) { return __atomic_load_n(&node.bBlocked, __ATOMIC_ACQUIRE) == 0; }

[[gnu::noinline]] void await(Node& node)
{
    for (int64_t round = 0; round < kFloorRwSpins; round++) {
        if (letIn(node)) return;
        __builtin_ia32_pause();
    }
    int64_t waits = kWaits;
    __atomic_compare_exchange_n(&node.bBlocked, &waits, kSleeps, false, __ATOMIC_ACQUIRE, __ATOMIC_ACQUIRE);
    while (!letIn(node)) futex(node, FUTEX_WAIT_PRIVATE);
}

void grantSelf(Node& self) { __atomic_store_n(&self.bBlocked, 0, __ATOMIC_RELAXED); }

void grant(Node& other)
{
    if (__atomic_exchange_n(&other.bBlocked, 0, __ATOMIC_RELEASE) == kSleeps) futex(other, FUTEX_WAKE_PRIVATE);
}

// The first operation sets the flags, so that no admitter comes between; the second is for the count.
// True when the writer may enter.
bool head(Lock& lock, Node& node)
{
    exchange(lock.pWriterHead, &node);
    const int64_t before = change(
        lock, [](int64_t word) { return word | (word & RWLOCK_READERS_WAITING ? RWLOCK_WRITER_QUEUED : kBoth); });
    if (before & RWLOCK_READERS_WAITING) return false;
    set(lock, RWLOCK_WRITER_CLAIM);
    return before < RWLOCK_READER_UNIT;
}

void admit(Lock& lock, Node* self)
{
    add(lock, RWLOCK_READER_UNIT - RWLOCK_READERS_WAITING);
    const int64_t word = __atomic_load_n(&lock.lRdrCntAndFlags, __ATOMIC_SEQ_CST);
    if ((word & kBoth) == RWLOCK_WRITER_QUEUED) set(lock, RWLOCK_WRITER_CLAIM);
    Node* youngest = exchange(lock.pReaderHead, static_cast<Node*>(nullptr));
    youngest == self ? grantSelf(*self) : grant(*youngest);
}

void enterRead(Lock& lock, Node& node)
{
    __atomic_store_n(&node.bBlocked, kWaits, __ATOMIC_RELAXED);
    Node* older = exchange(lock.pReaderHead, &node);
    __atomic_store_n(&node.pQNext, older, __ATOMIC_RELAXED);
    if (older) {
        await(node);
        add(lock, RWLOCK_READER_UNIT);
        grant(*older);
    } else {
        if ((set(lock, RWLOCK_READERS_WAITING) & kBoth) == 0) admit(lock, &node);
        if (!letIn(node)) await(node);
    }
    node.bMode = kReading;
    node.sCount = 1;
}

void enterWrite(Lock& lock, Node& node)
{
    __atomic_store_n(&node.bBlocked, kWaits, __ATOMIC_RELAXED);
    __atomic_store_n(&node.pQNext, nullptr, __ATOMIC_RELAXED);
    if (Node* before = exchange(lock.pWriterTail, &node))
        __atomic_store_n(&before->pQNext, &node, __ATOMIC_RELEASE);
    else if (head(lock, node))
        grantSelf(node);
    if (!letIn(node)) await(node);
    node.bMode = kWriting;
    node.sCount = 1;
}

Node* next(const Node& node) { return __atomic_load_n(&node.pQNext, __ATOMIC_ACQUIRE); }

void leaveWrite(Lock& lock, Node& node)
{
    if (Node* linked = next(node)) return grant(*linked);
    if (change(lock, [](int64_t word) { return word & ~kBoth; }) & RWLOCK_READERS_WAITING) admit(lock, nullptr);
    Node* last = &node;
    if (__atomic_compare_exchange_n(&lock.pWriterTail, &last, nullptr, false, __ATOMIC_SEQ_CST, __ATOMIC_RELAXED))
        return;
    while (!next(node)) sched_yield();
    if (head(lock, *next(node))) grant(*next(node));
}

void leaveRead(Lock& lock)
{
    if ((add(lock, -RWLOCK_READER_UNIT) & ~int64_t{RWLOCK_READERS_WAITING}) == (RWLOCK_READER_UNIT | kBoth))
        grant(*__atomic_load_n(&lock.pWriterHead, __ATOMIC_ACQUIRE));
}

// ---- The thread's nodes

Node** find(void* lists, const Lock& lock)
{
    Node** place = static_cast<Node**>(lists) + lock.category;
    while (*place && (*place)->pKey != &lock) place = &(*place)->pStrNext;
    return place;
}

void move(Node** place, void* to, const Lock& lock)
{
    Node* node = *place;
    *place = node->pStrNext;
    Node*& first = static_cast<Node**>(to)[lock.category];
    node->pStrNext = first;
    first = node;
}

[[gnu::noinline, gnu::cold]] Node* newNode(KEM_SYNCCTX_T& context, Lock& lock)
{
    if (!context.pUsed) context.pUsed = calloc(KEM_RWLOCK_CAT_COUNT, sizeof(Node*));
    if (!context.pFree) context.pFree = calloc(KEM_RWLOCK_CAT_COUNT, sizeof(Node*));
    auto* node = static_cast<Node*>(calloc(1, sizeof(Node)));
    if (!context.pUsed || !context.pFree || !node) abort();
    node->pKey = &lock;
    static_cast<Node**>(context.pFree)[lock.category] = node;
    move(find(context.pFree, lock), context.pUsed, lock);
    return node;
}

template <class Enter>
void start(KEM_SYNCCTX_T& context, Lock& lock, Enter enter)
{
    Node* node;
    if (!context.pUsed) [[unlikely]] {
        node = newNode(context, lock);
    } else if ((node = *find(context.pUsed, lock))) {
        node->sCount++;
        return;
    } else if (Node** cached = find(context.pFree, lock); (node = *cached)) [[likely]] {
        move(cached, context.pUsed, lock);
    } else {
        node = newNode(context, lock);
    }
    enter(lock, *node);
}

} // namespace

void floorRwStartRead(KEM_SYNCCTX_T* context, KEM_RWLOCK_T* lock) { start(*context, *lock, enterRead); }

void floorRwStartWrite(KEM_SYNCCTX_T* context, KEM_RWLOCK_T* lock) { start(*context, *lock, enterWrite); }

void floorRwEnd(KEM_SYNCCTX_T* context, KEM_RWLOCK_T* lock)
{
    Node** place = find(context->pUsed, *lock);
    Node* node = *place;
    if (--node->sCount > 0) return;
    if (node->bMode == kWriting)
        leaveWrite(*lock, *node);
    else
        leaveRead(*lock);
    node->bMode = 0;
    move(place, context->pFree, *lock);
}

void floorRwFreeNodes(KEM_SYNCCTX_T* context)
{
    for (void* lists : {context->pUsed, context->pFree}) {
        if (!lists) continue;
        for (int category = 0; category < KEM_RWLOCK_CAT_COUNT; category++) {
            for (Node* node = static_cast<Node**>(lists)[category]; node;) {
                Node* following = node->pStrNext;
                free(node);
                node = following;
            }
        }
        free(lists);
    }
    *context = {};
}

} // namespace kemsd::bench
