// The memory stack's floor: a bump pointer in blocks of one size, which are kept when all items go at once.
#pragma once

#include <kemsd/types.h>

#include <cstddef>

namespace kemsd::bench {

struct FloorStack;

KEM_API FloorStack* floorStackCreate(size_t blockBytes);
KEM_API void floorStackDelete(FloorStack* stack);

KEM_API int floorStackPush(FloorStack* stack, unsigned bytes, void** item);
KEM_API void floorStackReset(FloorStack* stack);

} // namespace kemsd::bench
