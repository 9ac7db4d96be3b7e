// Runs a program's benchmarks in interleaved rounds and prints one table of medians and ratios.
//
// A benchmark is named LOAD/CONTENDER; the contenders "ours" and "floor" have columns of their own, every other one is
// a peer. Times are nanoseconds of one operation on one thread.
#pragma once

#include <string>

namespace kemsd::bench {

inline constexpr const char* kOurs = "ours";
inline constexpr const char* kFloor = "floor";

struct Program {
    const char* name;
    std::string setting; // what the run's heading says of the conditions
    void (*addBenchmarks)();
};

// Takes --quick, --json FILE, -h and Google Benchmark's own options. The result is the exit status: 0 whatever the
// ratios are, 1 when a benchmark could not run, 2 for a wrong command line.
int run(int argc, char** argv, const Program& program);

} // namespace kemsd::bench
