// Walks a memory stack and checks what must hold of it at any time.
#pragma once

#include <gtest/gtest.h>
#include <kemsd/memory.h>

#include <set>
#include <vector>

namespace kemsd::test {

// The sizes of a stack's blocks: from the current one down, and of the reserves in their order.
struct StackWalk {
    std::vector<KEM_ULONG_T> chain;
    std::vector<KEM_ULONG_T> reserves;

    bool operator==(const StackWalk&) const = default;
};

inline std::vector<KEM_ULONG_T> walkBlocks(const KEM_BLOCKHDR_T* block, std::set<const void*>& seen)
{
    std::vector<KEM_ULONG_T> sizes;
    for (; block && seen.insert(block).second; block = block->pNextBlock) sizes.push_back(block->ulBlockSize);
    EXPECT_EQ(block, nullptr) << "a block stands in two places";
    return sizes;
}

inline StackWalk walkStack(const KEM_STACKHDR_T& stack)
{
    std::set<const void*> seen;
    const StackWalk walk{walkBlocks(stack.pCurrentBlock, seen), walkBlocks(stack.pReservedBlock, seen)};
    EXPECT_GE(stack.ulDataOff, sizeof(KEM_BLOCKHDR_T));
    EXPECT_LT(stack.ulDataOff, sizeof(KEM_BLOCKHDR_T) + stack.ulItemAlignment);
    EXPECT_EQ(stack.ulDataOff % stack.ulItemAlignment, 0u);
    EXPECT_GE(stack.ulStackPtrOff, stack.ulDataOff);
    if (walk.chain.empty()) {
        EXPECT_EQ(stack.ulStackPtrOff, stack.ulDataOff);
    } else {
        // The rounding alone may go beyond the block.
        EXPECT_LT(stack.ulStackPtrOff, walk.chain.front() + stack.ulItemAlignment);
    }
    for (size_t i = 1; i < walk.reserves.size(); ++i)
        EXPECT_GE(walk.reserves[i - 1], walk.reserves[i]) << "the reserves are out of order";
    return walk;
}

} // namespace kemsd::test
