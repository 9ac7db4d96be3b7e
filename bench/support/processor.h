// Puts the threads of a benchmark with several on processors of their own, for as long as the object lives.
#pragma once

#include <sched.h>

namespace kemsd::bench {

class Pinned {
public:
    // Thread `index` of `threads`. A thread alone goes where the scheduler finds room.
    Pinned(int index, int threads)
    {
        if (threads == 1 || sched_getaffinity(0, sizeof before_, &before_) != 0) return;
        const int count = CPU_COUNT(&before_);
        cpu_set_t one;
        CPU_ZERO(&one);
        int nth = index % count;
        for (int cpu = 0; cpu < CPU_SETSIZE; cpu++)
            if (CPU_ISSET(cpu, &before_) && nth-- == 0) CPU_SET(cpu, &one);
        pinned_ = sched_setaffinity(0, sizeof one, &one) == 0;
    }
    ~Pinned()
    {
        if (pinned_) sched_setaffinity(0, sizeof before_, &before_);
    }
    Pinned(const Pinned&) = delete;
    Pinned& operator=(const Pinned&) = delete;

private:
    cpu_set_t before_;
    bool pinned_ = false;
};

} // namespace kemsd::bench
