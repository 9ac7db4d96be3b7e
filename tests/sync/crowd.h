// What the stress tests share: how many threads, how much of the load a sanitizer run can bear, a start together.
#pragma once

#include <algorithm>
#include <numeric>
#include <thread>
#include <vector>

#include "sd/base/atomic.h"
#include "sync/waiting.h"

namespace kemsd::test {

#if defined(__SANITIZE_THREAD__)
constexpr bool kSeesRaces = true;
#else
constexpr bool kSeesRaces = false;
#endif

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// More threads than processors, so that those inside are interrupted there.
inline int threadCount() { return static_cast<int>(std::max(4u, 2 * std::thread::hardware_concurrency())); }

// Runs body(i) in `count` threads, which start when all of them are there, and returns the sum of the results.
template <class Body>
long together(int count, Body body)
{
    int there = 0;
    std::vector<long> results(static_cast<size_t>(count));
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i)
        threads.emplace_back([&, i] {
            __atomic_fetch_add(&there, 1, __ATOMIC_RELAXED);
            eventually([&] { return sd::loadRelaxed(there) == count; });
            results[static_cast<size_t>(i)] = body(i);
        });
    for (std::thread& thread : threads) thread.join();
    return std::accumulate(results.begin(), results.end(), 0L);
}

} // namespace kemsd::test
