// The general-purpose allocators that ours is measured against, each loaded privately beside the C library's.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kemsd::bench {

struct Allocator {
    std::string name;
    void* (*allocate)(size_t bytes);
    void (*release)(void* block);
};

// Call first in main. Allocators with large thread-local areas can be loaded at run time only when room was left for
// them at the program's start; where it was not, this starts the program again with that room.
void makeRoomForAllocators(char** argv);

// Puts the C library's allocator, which ours, the floor and the peer of that name all stand on, in one settled state: a
// process with threads (a single one would flatter it), large blocks kept rather than returned to the system at one
// release and fetched again at the next, which comes and goes with the history of its arenas.
void settleSystemAllocator();
inline constexpr const char* kSystemSetting = "glibc keeps what it has (no trimming, no mmap up to 32 MiB)";

// The C library's and every installed one.
const std::vector<Allocator>& allocators();

} // namespace kemsd::bench
