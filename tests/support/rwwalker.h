// Walks a reader-writer lock and the sync contexts of its threads while every one of them is away, inside or waiting,
// and proves that they agree: the word counts the readers inside, its flags stand for the writer at the head and for
// the stack, the stack holds the waiting readers and the queue ends in the tail, and each node is on the list where it
// belongs.
#pragma once

#include <gtest/gtest.h>
#include <kemsd/sync.h>

#include <algorithm>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace kemsd::test {

template <class Word>
auto seen(const volatile Word& word)
{
    return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

// What can be seen of a lock at any time.
struct RwState {
    int64_t word;
    const KEM_RWLOCKQNODE_T* readerHead;
    const KEM_RWLOCKQNODE_T* writerHead;
    const KEM_RWLOCKQNODE_T* writerTail;

    static RwState of(const KEM_RWLOCK_T& lock)
    {
        return {seen(lock.lRdrCntAndFlags), seen(lock.pReaderHead), seen(lock.pWriterHead), seen(lock.pWriterTail)};
    }
    friend bool operator==(const RwState& a, const RwState& b) = default;
    friend std::ostream& operator<<(std::ostream& out, const RwState& s)
    {
        return out << "word " << s.word << ", readers " << s.readerHead << ", head " << s.writerHead << ", tail "
                   << s.writerTail;
    }
};

class RwWalk {
public:
    RwWalk(const KEM_RWLOCK_T& lock, const std::vector<const KEM_SYNCCTX_T*>& contexts) : lock_(lock)
    {
        for (const KEM_SYNCCTX_T* context : contexts) walkContext(*context);
        walkStack();
        walkQueue();
        compareWord();
    }
    testing::AssertionResult sound() const
    {
        const std::string faults = faults_.str();
        return faults.empty() ? testing::AssertionSuccess() : testing::AssertionFailure() << faults;
    }

private:
    using Node = KEM_RWLOCKQNODE_T;

    static constexpr size_t kMostNodes = 10000; // of a list; more is a circle

    void check(bool holds, const char* rule)
    {
        if (!holds) faults_ << rule << "\n";
    }

    void walkContext(const KEM_SYNCCTX_T& context)
    {
        std::set<const void*> keys;
        for (int category = 0; category < KEM_RWLOCK_CAT_COUNT; ++category) {
            walkList(context.pUsed, category, keys, [this](const Node& node) { walkHeld(node); });
            walkList(context.pFree, category, keys, [this](const Node& node) { walkCached(node); });
        }
    }
    template <class Visit>
    void walkList(const void* lists, int category, std::set<const void*>& keys, Visit visit)
    {
        if (!lists) return;
        size_t count = 0;
        for (const Node* node = static_cast<Node* const*>(lists)[category]; node; node = node->pStrNext) {
            check(keys.insert(node->pKey).second, "a thread has one node a lock");
            if (++count > kMostNodes) return check(false, "a list of nodes ends");
            if (node->pKey != &lock_) continue;
            check(category == lock_.category, "a node lies on its lock's list");
            visit(*node);
        }
    }
    void walkHeld(const Node& node)
    {
        if (seen(node.bBlocked)) {
            waiting_.insert(&node);
            return;
        }
        check(node.sCount >= 1, "a held node has a depth");
        check(node.bMode == 1 || node.bMode == 65535, "a held node has a mode");
        if (node.bMode == 65535)
            writers_.push_back(&node);
        else
            ++readers_;
    }
    void walkCached(const Node& node)
    {
        check(node.sCount == 0 && node.bMode == 0, "a cached node is not held");
        check(!seen(node.bBlocked) && !seen(node.bSuspended), "a cached node does not wait");
    }

    void walkStack()
    {
        for (const Node* node = seen(lock_.pReaderHead); node; node = seen(node->pQNext)) {
            if (!stack_.insert(node).second) return check(false, "the stack ends");
            check(waiting_.count(node) == 1, "who is on the stack waits");
        }
    }
    // From the writer inside, or else from the head, to the tail. The head itself may be long gone.
    void walkQueue()
    {
        const Node* tail = seen(lock_.pWriterTail);
        const Node* node = !writers_.empty() ? writers_.front() : tail ? seen(lock_.pWriterHead) : nullptr;
        check(!node == !tail, "there is a tail while there is a writer");
        for (; node; node = seen(node->pQNext)) {
            if (!queue_.insert(node).second) return check(false, "the queue ends");
            check(node->pKey == &lock_, "who is in the queue came for this lock");
            check(waiting_.count(node) == 1 || !writers_.empty(), "who is in the queue waits, or is inside");
            if (!seen(node->pQNext)) check(node == tail, "the queue ends in the tail");
        }
    }

    void compareWord()
    {
        const int64_t word = seen(lock_.lRdrCntAndFlags);
        const bool queued = word & RWLOCK_WRITER_QUEUED;
        const bool claimed = word & RWLOCK_WRITER_CLAIM;
        const bool batch = word & RWLOCK_READERS_WAITING;
        check(word / RWLOCK_READER_UNIT == readers_, "the word counts the readers inside");
        check(writers_.size() <= 1, "one writer at most is inside");
        check(writers_.empty() || readers_ == 0, "a writer is alone");
        check(queued == (seen(lock_.pWriterTail) != nullptr), "QUEUED stands for the queue");
        check(claimed == queued, "the head writer has its claim");
        check(batch == !stack_.empty(), "READERS_WAITING stands for the stack");
        check(!batch || queued, "readers wait for a writer alone");
        std::set<const Node*> known(stack_);
        known.insert(queue_.begin(), queue_.end());
        check(std::includes(known.begin(), known.end(), waiting_.begin(), waiting_.end()),
              "who waits is on the stack or in the queue");
    }

    const KEM_RWLOCK_T& lock_;
    std::set<const Node*> waiting_, stack_, queue_;
    std::vector<const Node*> writers_; // inside
    int64_t readers_ = 0;              // inside
    std::ostringstream faults_;
};

// EXPECT_TRUE(lockIsSound(lock, {&a.context, &b.context})) says which rule is broken. All threads that hold the lock or
// wait for it are to be named.
inline testing::AssertionResult lockIsSound(const KEM_RWLOCK_T& lock, const std::vector<const KEM_SYNCCTX_T*>& contexts)
{
    return RwWalk(lock, contexts).sound();
}

} // namespace kemsd::test
