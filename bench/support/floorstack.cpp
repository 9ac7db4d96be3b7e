#include "support/floorstack.h"

#include <stdlib.h>

namespace kemsd::bench {

struct FloorStack {
    struct Block {
        Block* next;
    };

    char* top;
    char* end;
    Block* used;
    Block* spare;
    size_t blockBytes;
};

namespace {

constexpr size_t kAlignment = 8;

char* aligned(char* at) { return at + (-reinterpret_cast<size_t>(at) & (kAlignment - 1)); }

[[gnu::noinline]] int pushOnNewBlock(FloorStack* stack, unsigned bytes, void** item)
{
    FloorStack::Block* block = stack->spare;
    if (block)
        stack->spare = block->next;
    else
        block = static_cast<FloorStack::Block*>(malloc(stack->blockBytes));
    if (!block || bytes > stack->blockBytes - sizeof *block) return 1;
    block->next = stack->used;
    stack->used = block;
    stack->end = reinterpret_cast<char*>(block) + stack->blockBytes;
    *item = block + 1;
    stack->top = aligned(reinterpret_cast<char*>(block + 1) + bytes);
    return 0;
}

void freeChain(FloorStack::Block* block)
{
    while (block) {
        FloorStack::Block* next = block->next;
        free(block);
        block = next;
    }
}

} // namespace

FloorStack* floorStackCreate(size_t blockBytes)
{
    auto* stack = static_cast<FloorStack*>(calloc(1, sizeof(FloorStack)));
    stack->blockBytes = blockBytes;
    return stack;
}

void floorStackDelete(FloorStack* stack)
{
    freeChain(stack->used);
    freeChain(stack->spare);
    free(stack);
}

int floorStackPush(FloorStack* stack, unsigned bytes, void** item)
{
    char* at = stack->top;
    if (bytes > static_cast<size_t>(stack->end - at)) [[unlikely]]
        return pushOnNewBlock(stack, bytes, item);
    *item = at;
    stack->top = aligned(at + bytes);
    return 0;
}

void floorStackReset(FloorStack* stack)
{
    while (FloorStack::Block* block = stack->used) {
        stack->used = block->next;
        block->next = stack->spare;
        stack->spare = block;
    }
    stack->top = stack->end = nullptr;
}

} // namespace kemsd::bench
