// Random push / pop / reset sequences against an independent picture of a stack: where every item lies, which blocks
// the chain and the reserves hold, how many the system has given out, and that every live item keeps its bytes.

#include <gtest/gtest.h>
#include <kemsd/kemsd.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "support/failingcalls.h"
#include "support/stackwalker.h"
#include "support/threadheaps.h"

using namespace kemsd::test;

namespace {

constexpr size_t kMostBlocks = 40;

struct Item {
    size_t level; // of its block, 0 for the bottom one
    uint64_t offset;
    KEM_ULONG_T bytes;
    unsigned char fill;
    char* address;
};

// The picture: block sizes and offsets alone.
class Model {
public:
    Model(uint64_t alignment, uint64_t create) : alignment_(alignment), create_(create), data_(up(16)), top_(data_)
    {
        reserves_.push_back(create);
    }

    // Where a push of that size goes.
    Item push(KEM_ULONG_T bytes, unsigned char fill)
    {
        if (chain_.empty() || top_ + bytes > chain_.back()) {
            open(bytes);
            top_ = data_;
        }
        const Item item{chain_.size() - 1, top_, bytes, fill, nullptr};
        top_ = up(top_ + bytes);
        return item;
    }

    // Back to an offset of a block; false when it is not within the block's data.
    bool pop(size_t level, uint64_t offset)
    {
        if (offset >= chain_[level]) return false;
        while (chain_.size() - 1 > level) {
            const uint64_t size = chain_.back();
            chain_.pop_back();
            if (chain_.size() - 1 == level && reserves_.empty() && size == create_) reserves_.push_back(size);
        }
        top_ = offset;
        return true;
    }

    void reset()
    {
        reserves_.insert(reserves_.end(), chain_.begin(), chain_.end());
        std::sort(reserves_.begin(), reserves_.end(), std::greater<>());
        chain_.clear();
        top_ = data_;
    }

    StackWalk walk() const { return {{chain_.rbegin(), chain_.rend()}, {reserves_.begin(), reserves_.end()}}; }
    uint64_t top() const { return top_; }
    size_t blocks() const { return chain_.size() + reserves_.size(); }
    bool empty() const { return chain_.empty(); }

private:
    uint64_t up(uint64_t bytes) const { return (bytes + alignment_ - 1) / alignment_ * alignment_; }

    void open(KEM_ULONG_T bytes)
    {
        uint64_t needed = create_;
        if (data_ + bytes > create_) needed = (4096 + data_ + 127 + bytes) / 4096 * 4096 - 128;
        if (reserves_.empty() || needed > reserves_.front()) {
            chain_.push_back(needed);
        } else {
            chain_.push_back(reserves_.front());
            reserves_.erase(reserves_.begin());
        }
    }

    uint64_t alignment_, create_, data_, top_;
    std::vector<uint64_t> chain_;    // the bottom block first
    std::vector<uint64_t> reserves_; // the largest first
};

class Run {
public:
    Run(KEM_ULONG_T alignment, KEM_ULONG_T bytes, unsigned seed, bool blocksCounted)
        : before_(liveBlocks()),
          stack_(created(alignment, bytes)),
          model_(alignment, stack_->ulCreateBlockSize),
          random_(seed),
          blocksCounted_(blocksCounted)
    {}
    ~Run()
    {
        EXPECT_EQ(KemSdMemStackDelete(nullptr, stack_), 0);
        EXPECT_TRUE(!blocksCounted_ || liveBlocks() == before_);
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    void step()
    {
        const unsigned action = random_() % 64;
        if (action == 0 || model_.blocks() > kMostBlocks)
            reset();
        else if (action < 44 || items_.empty())
            push(randomBytes());
        else
            pop();
        check();
    }

private:
    static KEM_STACKHDR_T* created(KEM_ULONG_T alignment, KEM_ULONG_T bytes)
    {
        KEM_STACKHDR_T* stack = nullptr;
        EXPECT_EQ(KemSdMemStackCreate(nullptr, &stack, alignment, bytes), 0);
        return stack;
    }

    KEM_ULONG_T randomBytes()
    {
        const KEM_ULONG_T block = stack_->ulCreateBlockSize;
        switch (random_() % 16) {
            case 0:
                return 0;
            case 1:
                return random_() % (3 * block); // larger than a block
            case 2:
                return block - random_() % 40; // about a block
            case 3: {                          // to the end of the block, or about there
                const uint64_t left =
                    model_.empty()
                        ? 0
                        : model_.walk().chain.front() - std::min<uint64_t>(model_.walk().chain.front(), model_.top());
                return static_cast<KEM_ULONG_T>(left + random_() % 3);
            }
            default:
                return random_() % 600;
        }
    }

    void push(KEM_ULONG_T bytes)
    {
        void* address = nullptr;
        ASSERT_EQ(KemSdMemStackAllocAndPush(nullptr, stack_, bytes, &address), 0);
        Item item = model_.push(bytes, static_cast<unsigned char>(random_()));
        item.address = static_cast<char*>(address);
        ASSERT_EQ(item.address, reinterpret_cast<char*>(stack_->pCurrentBlock) + item.offset);
        memset(address, item.fill, bytes);
        items_.push_back(item);
    }

    // To an item or, now and then, into the midst of one. Near the top more often than far down.
    void pop()
    {
        const size_t depth = random_() % (random_() % 4 == 0 ? items_.size() : std::min<size_t>(items_.size(), 8));
        const size_t i = items_.size() - 1 - depth;
        const Item item = items_[i];
        const KEM_ULONG_T into = random_() % 4 == 0 && item.bytes != 0 ? random_() % item.bytes : 0;
        const KEM_STS_T sts = KemSdMemStackPopAndFree(nullptr, stack_, item.address + into);
        if (!model_.pop(item.level, item.offset + into)) {
            ASSERT_EQ(sts, SDSTS_INVALID_PARAM) << "an item of nothing at the end of its block";
            return;
        }
        ASSERT_EQ(sts, 0);
        for (; items_.size() > i; items_.pop_back())
            if (into == 0 && items_.size() == i + 1) expectKept(items_.back(), 0);
        if (!items_.empty()) expectKept(items_.back(), items_.back().bytes);
    }

    void reset()
    {
        for (const Item& item : items_) expectKept(item, item.bytes);
        ASSERT_EQ(KemSdMemStackReset(nullptr, stack_), 0);
        model_.reset();
        items_.clear();
    }

    static void expectKept(const Item& item, KEM_ULONG_T bytes)
    {
        for (KEM_ULONG_T i = 0; i < bytes; ++i)
            ASSERT_EQ(static_cast<unsigned char>(item.address[i]), item.fill) << "byte " << i << " has changed";
    }

    void check()
    {
        EXPECT_EQ(walkStack(*stack_), model_.walk());
        EXPECT_EQ(stack_->ulStackPtrOff, model_.top());
        EXPECT_TRUE(!blocksCounted_ || liveBlocks() - before_ == static_cast<long>(1 + model_.blocks()));
    }

    long before_;
    KEM_STACKHDR_T* stack_;
    Model model_;
    std::mt19937 random_;
    bool blocksCounted_;
    std::vector<Item> items_;
};

void runModel(KEM_ULONG_T alignment, KEM_ULONG_T bytes, long steps, bool blocksCounted = true)
{
    SCOPED_TRACE(testing::Message() << "alignment " << alignment << ", blocks of " << bytes);
    Run run(alignment, bytes, alignment * 31 + bytes, blocksCounted);
    for (long i = 0; i < steps && !testing::Test::HasFailure(); ++i) run.step();
}

} // namespace

TEST(MemStackModel, BehavesAsItsPictureAtEveryAlignment)
{
    for (KEM_ULONG_T alignment = 1; alignment <= 4096; alignment *= 2) runModel(alignment, 1000, 2000);
}

TEST(MemStackModel, BehavesAsItsPictureWithLargeBlocks)
{
    for (const KEM_ULONG_T alignment : {1u, 8u, 64u, 4096u}) runModel(alignment, 65536, 1000);
}

TEST(MemStackModel, BehavesAsItsPictureWithBlockHeaders)
{
    KemSdSetMemoryManager(TRUE);
    ovCreateThreadAlloc(nullptr);
    runModel(8, 1000, 2000);
    ovDestroyThreadAlloc(nullptr);
    KemSdSetMemoryManager(FALSE);
}

TEST(MemStackModel, BehavesAsItsPictureOnThreadHeaps)
{
    ASSERT_EQ(startThreadHeaps("numthreadheaps 4 numheaps 12 heapsize 512K maxblock 64K shortmemoryoff"), 0);
    runModel(8, 1000, 2000, false);
    runModel(64, 65536, 1000, false);
    expectSoundThreadHeaps();
    EXPECT_EQ(usedHeapBytes(), 0u);
}
