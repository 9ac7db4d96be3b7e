#include "support/report.h"

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <string_view>
#include <vector>

#include "support/targets.h"

namespace kemsd::bench {
namespace {

using Times = std::vector<double>;

constexpr const char* kUsage =
    "%s [--quick] [--rounds N] [--json FILE] [options of Google Benchmark]\n"
    "  --quick      few and short rounds: a look, not a measurement\n"
    "  --rounds N   as many rounds (11)\n"
    "  --json FILE  write the table as JSON too\n"
    "  --benchmark_filter=REGEX    only the benchmarks LOAD/CONTENDER that match\n"
    "  --benchmark_list_tests, --benchmark_min_time=SECONDS, ...\n";

constexpr const char* kFilter = "--benchmark_filter=";

struct Options {
    int rounds = 11;
    std::string json;
    std::string filter;
    bool listOnly = false;
    std::vector<std::string> forwarded; // for Google Benchmark, program name first
};

double median(Times times)
{
    std::sort(times.begin(), times.end());
    const size_t half = times.size() / 2;
    return times.size() % 2 ? times[half] : (times[half - 1] + times[half]) / 2;
}

struct Contender {
    std::string name;
    Times times; // one a round
};

struct Load {
    std::string name;
    std::vector<Contender> contenders;

    const Contender* find(std::string_view contender) const
    {
        for (const Contender& c : contenders)
            if (c.name == contender && !c.times.empty()) return &c;
        return nullptr;
    }
};

std::vector<Load>& allLoads()
{
    static std::vector<Load> loads;
    return loads;
}

// 0 when one of them did not run.
double medianRatio(const Contender* over, const Contender* under)
{
    if (!over || !under) return 0;
    Times ratios;
    for (size_t i = 0; i < std::min(over->times.size(), under->times.size()); i++)
        ratios.push_back(over->times[i] / under->times[i]);
    return median(ratios);
}

const Contender* bestPeer(const Load& load, std::string_view only)
{
    const Contender* best = nullptr;
    for (const Contender& c : load.contenders) {
        if (c.name == kOurs || c.name == kFloor || c.name == kInlinedFloor || c.times.empty()) continue;
        if (!only.empty() && c.name != only) continue;
        if (!best || median(c.times) < median(best->times)) best = &c;
    }
    return best;
}

// One line of the table. A ratio or a time of 0 stands for none.
struct Row {
    std::string load, peerName;
    double ours = 0, floor = 0, peer = 0;
    double overFloor = 0, overPeer = 0;
    double floorLimit = 0, peerLimit = 0;

    bool floorMissed() const { return floorLimit > 0 && overFloor > floorLimit; }
    bool peerMissed() const { return peerLimit > 0 && overPeer > peerLimit; }

    // A limit whose contender did not run says nothing.
    bool judged() const
    {
        return (floorLimit > 0 || peerLimit > 0) && (floorLimit == 0 || overFloor > 0) &&
               (peerLimit == 0 || overPeer > 0);
    }
    const char* reached() const
    {
        if (!judged()) return "-";
        if (floorMissed()) return peerMissed() ? "no (both)" : "no (floor)";
        return peerMissed() ? "no (peer)" : "yes";
    }
};

Row rowOf(const Load& load)
{
    const Target target = targetOf(load.name);
    const Contender* ours = load.find(kOurs);
    const Contender* floor = load.find(kFloor);
    const Contender* peer = bestPeer(load, target.peerName);
    Row row;
    row.load = load.name;
    row.floorLimit = target.floor;
    row.peerLimit = target.peer;
    row.overFloor = medianRatio(ours, floor);
    row.overPeer = medianRatio(ours, peer);
    if (ours) row.ours = median(ours->times);
    if (floor) row.floor = median(floor->times);
    if (peer) {
        row.peer = median(peer->times);
        row.peerName = peer->name;
    }
    return row;
}

// Takes the times of one load's round; says on the way what could not run.
class RoundReporter : public benchmark::BenchmarkReporter {
public:
    explicit RoundReporter(Load& load) : load_(load) {}

    bool ReportContext(const Context&) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            if (run.error_occurred) {
                fprintf(stderr, "%s: %s\n", run.run_name.function_name.c_str(), run.error_message.c_str());
                failed_ = true;
            } else if (run.run_type == Run::RT_Iteration) {
                add(run);
            }
        }
    }

    bool failed() const { return failed_; }

private:
    void add(const Run& run)
    {
        const std::string& full = run.run_name.function_name;
        const std::string contender = full.substr(full.rfind('/') + 1);
        for (Contender& c : load_.contenders)
            if (c.name == contender) c.times.push_back(timeOf(run));
    }

    // The iterations of all threads count together: so does their processor time, but not the real time.
    static double timeOf(const Run& run)
    {
        if (run.run_name.time_type.empty()) return run.GetAdjustedCPUTime();
        return run.GetAdjustedRealTime() * static_cast<double>(run.threads);
    }

    Load& load_;
    bool failed_ = false;
};

// What matches all of a load's benchmarks that the user's filter leaves; empty for none.
std::string patternOf(const Load& load, const std::regex& filter)
{
    std::string names;
    for (const Contender& c : load.contenders)
        if (std::regex_search(load.name + '/' + c.name, filter)) names += (names.empty() ? "" : "|") + c.name;
    return names.empty() ? "" : '^' + load.name + "/(" + names + ")(/|$)";
}

bool runRounds(const Options& options)
{
    const std::regex filter(options.filter, std::regex::extended);
    bool failed = false;
    for (int round = 0; round < options.rounds; round++)
        for (Load& load : allLoads()) {
            const std::string pattern = patternOf(load, filter);
            if (pattern.empty()) continue;
            RoundReporter reporter(load);
            benchmark::RunSpecifiedBenchmarks(&reporter, pattern);
            failed = failed || reporter.failed();
        }
    return !failed;
}

std::string processor()
{
    std::ifstream info("/proc/cpuinfo");
    for (std::string line; std::getline(info, line);)
        if (line.starts_with("model name")) return line.substr(line.find(':') + 2);
    return "unknown processor";
}

std::string commandLine(int argc, char** argv)
{
    const char* name = strrchr(argv[0], '/');
    std::string line = name ? name + 1 : argv[0];
    for (int i = 1; i < argc; i++) line.append(" ").append(argv[i]);
    return line;
}

std::string number(double value, const char* format = "%.1f")
{
    if (value == 0) return "-";
    char text[32];
    snprintf(text, sizeof text, format, value);
    return text;
}

void printTable(const std::vector<Row>& rows)
{
    printf("%-24s %9s %9s %8s %6s  %-20s %9s %8s %6s  %s\n", "load", "ours ns", "floor ns", "/floor", "limit", "peer",
           "peer ns", "/peer", "limit", "reached");
    for (const Row& row : rows)
        printf("%-24s %9s %9s %8s %6s  %-20s %9s %8s %6s  %s\n", row.load.c_str(), number(row.ours).c_str(),
               number(row.floor).c_str(), number(row.overFloor, "%.3f").c_str(), number(row.floorLimit, "%.2f").c_str(),
               row.peerName.empty() ? "-" : row.peerName.c_str(), number(row.peer).c_str(),
               number(row.overPeer, "%.3f").c_str(), number(row.peerLimit, "%.2f").c_str(), row.reached());
    const auto judged = std::count_if(rows.begin(), rows.end(), [](const Row& row) { return row.judged(); });
    const auto reached = std::count_if(rows.begin(), rows.end(), [](const Row& row) {
        return row.judged() && !row.floorMissed() && !row.peerMissed();
    });
    printf("%td of %td targets reached\n\n", reached, judged);
}

void printEveryMedian(const std::vector<Load>& loads)
{
    printf("every median, ns (least .. most of the rounds):\n");
    for (const Load& load : loads) {
        printf("%-24s", load.name.c_str());
        for (const Contender& c : load.contenders) {
            if (c.times.empty()) continue;
            const auto [least, most] = std::minmax_element(c.times.begin(), c.times.end());
            printf("  %s %.1f (%.1f .. %.1f)", c.name.c_str(), median(c.times), *least, *most);
        }
        printf("\n");
    }
    printf("\n");
}

nlohmann::ordered_json orNull(double value)
{
    if (value == 0) return nullptr;
    return value;
}

nlohmann::ordered_json jsonOf(const Row& row, const Load& load)
{
    nlohmann::ordered_json rounds;
    for (const Contender& c : load.contenders)
        if (!c.times.empty()) rounds[c.name] = c.times;
    return {{"load", row.load},
            {"ours_ns", orNull(row.ours)},
            {"floor_ns", orNull(row.floor)},
            {"ours_over_floor", orNull(row.overFloor)},
            {"floor_limit", orNull(row.floorLimit)},
            {"peer", row.peerName},
            {"peer_ns", orNull(row.peer)},
            {"ours_over_peer", orNull(row.overPeer)},
            {"peer_limit", orNull(row.peerLimit)},
            {"reached", row.reached()},
            {"rounds_ns", rounds}};
}

bool writeJson(const std::string& file, const Program& program, const std::string& command,
               const std::vector<Row>& rows, const std::vector<Load>& loads)
{
    nlohmann::ordered_json table = {{"program", program.name},
                                    {"processor", processor()},
                                    {"command", command},
                                    {"setting", program.setting},
                                    {"loads", nlohmann::ordered_json::array()}};
    for (size_t i = 0; i < rows.size(); i++) table["loads"].push_back(jsonOf(rows[i], loads[i]));
    std::ofstream out(file);
    out << table.dump(1) << '\n';
    out.close();
    if (!out) fprintf(stderr, "%s: cannot write %s\n", program.name, file.c_str());
    return bool(out);
}

void printHeading(const Program& program, const std::string& command, int rounds)
{
    double load[1] = {0};
    getloadavg(load, 1);
    printf("%s on %s, %ld processors, load %.2f at the start\n", program.name, processor().c_str(),
           sysconf(_SC_NPROCESSORS_ONLN), load[0]);
    printf("%s\ncommand: %s, %d rounds\n\n", program.setting.c_str(), command.c_str(), rounds);
    fflush(stdout);
}

Options parse(int argc, char** argv)
{
    Options options;
    std::vector<std::string> rest;
    // The order of the contenders changes from round to round.
    options.forwarded = {argv[0], "--benchmark_enable_random_interleaving=true", "--benchmark_min_time=0.02"};
    for (int i = 1; i < argc; i++) {
        const std::string_view argument = argv[i];
        if (argument == "-h" || argument == "--help") {
            printf(kUsage, argv[0]);
            exit(0);
        } else if (argument == "--quick") {
            options.rounds = 3;
            options.forwarded.emplace_back("--benchmark_min_time=0.005");
        } else if (argument == "--rounds" && i + 1 < argc) {
            options.rounds = std::max(1, atoi(argv[++i]));
        } else if (argument == "--json" && i + 1 < argc) {
            options.json = argv[++i];
        } else if (argument.starts_with(kFilter)) {
            options.filter = argument.substr(strlen(kFilter));
        } else {
            options.listOnly = options.listOnly || argument.starts_with("--benchmark_list_tests");
            rest.emplace_back(argument);
        }
    }
    // The caller's come last and win.
    options.forwarded.insert(options.forwarded.end(), rest.begin(), rest.end());
    return options;
}

bool hand(std::vector<std::string>& arguments)
{
    std::vector<char*> pointers;
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    int count = static_cast<int>(pointers.size());
    pointers.push_back(nullptr);
    benchmark::Initialize(&count, pointers.data());
    return !benchmark::ReportUnrecognizedArguments(count, pointers.data());
}

bool isRegex(const std::string& text)
{
    try {
        std::regex(text, std::regex::extended);
        return true;
    } catch (const std::regex_error& error) {
        fprintf(stderr, "%s%s: %s\n", kFilter, text.c_str(), error.what());
        return false;
    }
}

} // namespace

void note(const std::string& load, const std::string& contender)
{
    std::vector<Load>& loads = allLoads();
    auto place = std::find_if(loads.begin(), loads.end(), [&](const Load& l) { return l.name == load; });
    if (place == loads.end()) place = loads.insert(loads.end(), Load{load, {}});
    place->contenders.push_back({contender, {}});
}

int run(int argc, char** argv, const Program& program)
{
    Options options = parse(argc, argv);
    const std::string command = commandLine(argc, argv);
    if (!isRegex(options.filter) || !hand(options.forwarded)) return 2;
    program.addBenchmarks();
    if (options.listOnly) {
        benchmark::RunSpecifiedBenchmarks();
        return 0;
    }
    printHeading(program, command, options.rounds);
    const bool everythingRan = runRounds(options);

    std::vector<Load> loads = allLoads();
    std::erase_if(loads, [](const Load& load) {
        return std::all_of(load.contenders.begin(), load.contenders.end(),
                           [](const Contender& c) { return c.times.empty(); });
    });
    std::vector<Row> rows;
    for (const Load& load : loads) rows.push_back(rowOf(load));
    printTable(rows);
    printEveryMedian(loads);
    const bool written = options.json.empty() || writeJson(options.json, program, command, rows, loads);
    return everythingRan && written ? 0 : 1;
}

} // namespace kemsd::bench
