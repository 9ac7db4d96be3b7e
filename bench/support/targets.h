// What we want to reach, for every load of every program. A load's name is that of its benchmarks without the last
// part, which names the contender.
#pragma once

#include <string_view>

namespace kemsd::bench {

struct Target {
    std::string_view load;
    double floor;                   // at most this many times the hand-written floor; 0: no target
    double peer = 0;                // at most this many times the peer; 0: no target
    std::string_view peerName = {}; // empty: the best peer of the run
};

inline constexpr Target kTargets[] = {
    // Thread heaps. The peers keep caches per thread and take no lock at all; a pair of ours takes two.
    {"pair/24B/1thread", 1.15, 3.2},
    {"pair/64B/1thread", 1.15, 3.2},
    {"pair/160B/1thread", 1.15, 3.2},
    {"pair/512B/1thread", 1.15},
    {"pair/4KiB/1thread", 1.15},
    {"pair/64KiB/1thread", 1.15},
    {"pair/1MiB/1thread", 1.10, 1.8},
    {"pair/24B/2threads", 1.25},
    {"pair/64B/2threads", 1.25},
    {"pair/160B/2threads", 1.25},
    {"pair/512B/2threads", 1.25},
    {"pair/4KiB/2threads", 1.25},
    {"pair/64KiB/2threads", 1.25},
    {"pair/1MiB/2threads", 1.25},
    {"mix/16-1024B/1thread", 1.10},
    {"mix/16-1024B/2threads", 1.25},
    {"handover/64B/2threads", 1.25},
    {"handover/512B/2threads", 1.25},

    // Free lists of a thread.
    {"freelist/24B", 1.25, 1.10},
    {"freelist/64B", 1.25, 1.10},
    {"freelist/160B", 1.25, 1.10},
    {"freelist/512B", 1.25, 1.15},
    {"freelist/4KiB", 1.25, 0.95},
    {"freelist/64KiB", 1.25, 0.95},
    {"freelist/1MiB", 1.25, 0.35},

    // Units of work: 10,000 small blocks that go together. The peers release them one by one.
    {"unit/heaps", 1.15, 1.0},

    // Spinlocks. std::recursive_mutex is the only peer that its owner may enter again.
    {"exchange/uncontended", 1.10, 1.0, "std::recursive_mutex"},
    {"ticket/uncontended", 1.10, 1.0, "std::recursive_mutex"},
    {"exchange/2threads", 1.15, 1.10},
    {"ticket/2threads", 1.15},
    {"lwexchange/uncontended", 1.05, 1.0, "std::recursive_mutex"},
    {"lwticket/uncontended", 1.05, 1.0, "std::recursive_mutex"},
    {"lwexchange/2threads", 1.15, 1.10},
    {"lwticket/2threads", 1.15},

    // Mutexes, events, semaphores: a call of ours is a few instructions around those of the C library.
    {"mutex/pair", 1.10},
    {"event/pair", 1.10},
    {"event/wait", 1.10},
    {"signalwait/pair", 1.10},
    {"stdevent/pair", 1.10},
    {"countingevent/pair", 1.10},
    {"cntsem/pair", 1.10},
    {"signalwait/pingpong", 1.05},
    {"stdevent/pingpong", 1.05},
    {"countingevent/pingpong", 1.05},
    {"cntsem/pingpong", 1.05},

    // The chunk exchange between processes. A message of it takes four system calls, none of which copies anything;
    // pipes and the system's own queues take two.
    {"pass/64B", 1.10},
    {"pass/2040B", 1.10},
    {"stream/2040B/1processor", 1.10},
    {"stream/2040B/2processors", 1.25},
    {"roundtrip/64B/1processor", 1.10, 1.0, "unix-socket"},
    {"roundtrip/64B/2processors", 1.25},

    // Reader-writer lock. The floor takes the steps one by one, ours takes them at once where nobody is in the way.
    {"read/uncontended", 0.70, 1.30, "pthread_rwlock"},
    {"write/uncontended", 0.70, 1.30, "pthread_rwlock"},
    {"mix-95-5/2threads", 0.75},
    {"writer/readers", 1.30},

    // Files: the floor is the system call itself.
    {"pread/8KiB", 1.05},
    {"pwrite/8KiB", 1.05},
    {"read/8KiB", 1.05},
    {"write/8KiB", 1.05},
    // While no pause is in force. The floor is the plain write.
    {"leased-pwrite/64B", 1.05},
    {"leased-pwrite/8KiB", 1.05},
    {"leased-write/64B", 1.05},
    {"leased-write/8KiB", 1.05},

    // Mapped files: the floor is the copy.
    {"mapped-read/64B", 1.15},
    {"mapped-pread/64B", 1.15},
    {"mapped-write/64B", 1.15},
    {"mapped-pwrite/64B", 1.15},

    // Block files. The floor is the C library's own asynchronous calls, or the system call where nothing waits.
    {"nowait-read/32x8KiB", 1.10},
    {"nowait-write/32x8KiB", 1.10},
    {"block-read/8KiB", 1.05},
    {"block-write/8KiB", 1.05},

    // Directories. Most of the time is the system's own, for peer and ours alike.
    {"collect/100000", 0, 1.00},
    {"search/100000", 0, 1.00},
    {"remove/10000", 0, 1.00},
};

constexpr Target targetOf(std::string_view load)
{
    for (const Target& target : kTargets)
        if (target.load == load) return target;
    return {load, 0};
}

} // namespace kemsd::bench
