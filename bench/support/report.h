// Runs a program's benchmarks in interleaved rounds and prints one table of medians and ratios.
//
// A load is what is done, a contender who does it; "ours" and "floor" have columns of their own, every other contender
// is a peer. In a round all contenders of a load follow each other, in an order that changes, so that what disturbs the
// machine disturbs them alike; a ratio is the median of the rounds' ratios.
//
// Times are nanoseconds of one operation on one thread: of the processor, unless the benchmark asks for real time as
// those do whose threads wait for each other.
#pragma once

#include <benchmark/benchmark.h>

#include <string>

namespace kemsd::bench {

inline constexpr const char* kOurs = "ours";
inline constexpr const char* kFloor = "floor";
// The floor without the calls that a shared library is reached by: shown beside the others, judged by no target.
inline constexpr const char* kInlinedFloor = "floor-inlined";

// Adds a benchmark. The order of the table is that in which loads come first.
void note(const std::string& load, const std::string& contender);
template <class Function>
auto* add(const std::string& load, const std::string& contender, Function&& function)
{
    note(load, contender);
    return benchmark::RegisterBenchmark((load + '/' + contender).c_str(), function);
}

struct Program {
    const char* name;
    std::string setting; // what the run's heading says of the conditions
    void (*addBenchmarks)();
};

// Takes --quick, --rounds N, --json FILE, -h and Google Benchmark's own options. The result is the exit status: 0
// whatever the ratios are, 1 when a benchmark could not run, 2 for a wrong command line.
int run(int argc, char** argv, const Program& program);

} // namespace kemsd::bench
