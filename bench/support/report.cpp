#include "support/report.h"

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <string_view>
#include <vector>

#include "support/targets.h"

namespace kemsd::bench {
namespace {

using Times = std::vector<double>;

constexpr const char* kUsage =
    "%s [--quick] [--json FILE] [options of Google Benchmark]\n"
    "  --quick      few and short rounds: a look, not a measurement\n"
    "  --json FILE  write the table as JSON too\n"
    "  --benchmark_filter=REGEX, --benchmark_list_tests, --benchmark_repetitions=N, ...\n";

struct Options {
    bool quick = false;
    std::string json;
    std::vector<std::string> forwarded; // for Google Benchmark, program name first
};

double median(Times times)
{
    std::sort(times.begin(), times.end());
    const size_t half = times.size() / 2;
    return times.size() % 2 ? times[half] : (times[half - 1] + times[half]) / 2;
}

struct Load {
    std::string name;
    std::vector<std::pair<std::string, Times>> contenders; // in the order they were added

    const Times* find(std::string_view contender) const
    {
        for (const auto& [name, times] : contenders)
            if (name == contender) return &times;
        return nullptr;
    }
    double medianOf(std::string_view contender) const
    {
        const Times* times = find(contender);
        return times ? median(*times) : 0;
    }
};

// One line of the table. A ratio or a time of 0 stands for none.
struct Row {
    std::string load;
    double ours = 0, floor = 0, peer = 0;
    std::string peerName;
    double floorLimit = 0, peerLimit = 0;

    double overFloor() const { return floor > 0 ? ours / floor : 0; }
    double overPeer() const { return peer > 0 ? ours / peer : 0; }
    bool floorMissed() const { return floorLimit > 0 && overFloor() > floorLimit; }
    bool peerMissed() const { return peerLimit > 0 && overPeer() > peerLimit; }

    // A limit whose contender did not run says nothing, so it cannot be reached either.
    bool judged() const
    {
        return ours > 0 && (floorLimit > 0 || peerLimit > 0) && !(floorLimit > 0 && floor == 0) &&
               !(peerLimit > 0 && peer == 0);
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
    Row row;
    row.load = load.name;
    row.ours = load.medianOf(kOurs);
    row.floor = load.medianOf(kFloor);
    const Target* target = targetOf(load.name);
    if (target) {
        row.floorLimit = target->floor;
        row.peerLimit = target->peer;
    }
    for (const auto& [name, times] : load.contenders) {
        if (name == kOurs || name == kFloor) continue;
        if (target && !target->peerName.empty() && name != target->peerName) continue;
        const double time = median(times);
        if (row.peer == 0 || time < row.peer) {
            row.peer = time;
            row.peerName = name;
        }
    }
    return row;
}

// Gathers every repetition's time; says on the way what could not run.
class Gatherer : public benchmark::BenchmarkReporter {
public:
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

    // In the order the loads were added: reports come as the rounds end.
    std::vector<Load> loads() const { return loads_; }

private:
    void add(const Run& run)
    {
        const std::string& full = run.run_name.function_name;
        const size_t slash = full.rfind('/');
        Times& times = timesOf(full.substr(0, slash), full.substr(slash + 1));
        // The time of an iteration counts all threads' iterations together.
        times.push_back(run.GetAdjustedRealTime() * static_cast<double>(run.threads));
    }

    Times& timesOf(const std::string& load, const std::string& contender)
    {
        auto place = std::find_if(loads_.begin(), loads_.end(), [&](const Load& l) { return l.name == load; });
        if (place == loads_.end()) place = loads_.insert(loads_.end(), Load{load, {}});
        for (auto& [name, times] : place->contenders)
            if (name == contender) return times;
        return place->contenders.emplace_back(contender, Times{}).second;
    }

    std::vector<Load> loads_;
    bool failed_ = false;
};

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
               number(row.floor).c_str(), number(row.overFloor(), "%.3f").c_str(),
               number(row.floorLimit, "%.2f").c_str(), row.peerName.empty() ? "-" : row.peerName.c_str(),
               number(row.peer).c_str(), number(row.overPeer(), "%.3f").c_str(), number(row.peerLimit, "%.2f").c_str(),
               row.reached());
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
        for (const auto& [name, times] : load.contenders) {
            const auto [least, most] = std::minmax_element(times.begin(), times.end());
            printf("  %s %.1f (%.1f .. %.1f)", name.c_str(), median(times), *least, *most);
        }
        printf("\n");
    }
    printf("\n");
}

std::string quoted(std::string_view text)
{
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += static_cast<unsigned char>(c) < ' ' ? ' ' : c;
    }
    return out + '"';
}

std::string numberOrNull(double value)
{
    return value == 0 ? "null" : number(value, "%.4f");
}

std::string jsonOf(const Row& row, const Load& load)
{
    std::string out = "    {\"load\": " + quoted(row.load);
    out += ", \"ours_ns\": " + numberOrNull(row.ours) + ", \"floor_ns\": " + numberOrNull(row.floor);
    out += ", \"ours_over_floor\": " + numberOrNull(row.overFloor());
    out += ", \"floor_limit\": " + numberOrNull(row.floorLimit);
    out += ", \"peer\": " + (row.peerName.empty() ? "null" : quoted(row.peerName));
    out += ", \"peer_ns\": " + numberOrNull(row.peer) + ", \"ours_over_peer\": " + numberOrNull(row.overPeer());
    out += ", \"peer_limit\": " + numberOrNull(row.peerLimit) + ", \"reached\": " + quoted(row.reached());
    out += ",\n     \"rounds_ns\": {";
    for (const auto& [name, times] : load.contenders) {
        out += (&name == &load.contenders.front().first ? "" : ", ") + quoted(name) + ": [";
        for (const double& time : times) out += (&time == &times.front() ? "" : ", ") + number(time, "%.2f");
        out += "]";
    }
    return out + "}}";
}

bool writeJson(const std::string& file, const Program& program, const std::string& command,
               const std::vector<Row>& rows, const std::vector<Load>& loads)
{
    std::ofstream out(file);
    out << "{\"program\": " << quoted(program.name) << ", \"processor\": " << quoted(processor())
        << ", \"command\": " << quoted(command) << ",\n \"setting\": " << quoted(program.setting)
        << ",\n \"loads\": [\n";
    for (size_t i = 0; i < rows.size(); i++) out << jsonOf(rows[i], loads[i]) << (i + 1 < rows.size() ? ",\n" : "\n");
    out << " ]}\n";
    out.close();
    if (!out) fprintf(stderr, "%s: cannot write %s\n", program.name, file.c_str());
    return bool(out);
}

void printHeading(const Program& program, const std::string& command)
{
    double load[1] = {0};
    getloadavg(load, 1);
    printf("%s on %s, %ld processors, load %.2f at the start\n", program.name, processor().c_str(),
           sysconf(_SC_NPROCESSORS_ONLN), load[0]);
    printf("%s\ncommand: %s\n", program.setting.c_str(), command.c_str());
    fflush(stdout);
}

// Our defaults stand before the caller's options, so that the caller's win.
void addDefaults(Options& options)
{
    const std::vector<std::string> defaults{"--benchmark_enable_random_interleaving=true",
                                            options.quick ? "--benchmark_repetitions=3" : "--benchmark_repetitions=11",
                                            options.quick ? "--benchmark_min_time=0.005" : "--benchmark_min_time=0.03"};
    options.forwarded.insert(options.forwarded.begin() + 1, defaults.begin(), defaults.end());
}

Options parse(int argc, char** argv)
{
    Options options;
    options.forwarded = {argv[0]};
    for (int i = 1; i < argc; i++) {
        const std::string_view argument = argv[i];
        if (argument == "-h" || argument == "--help") {
            printf(kUsage, argv[0]);
            exit(0);
        } else if (argument == "--quick") {
            options.quick = true;
        } else if (argument == "--json" && i + 1 < argc) {
            options.json = argv[++i];
        } else {
            options.forwarded.emplace_back(argument);
        }
    }
    addDefaults(options);
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

bool listsOnly(const Options& options)
{
    return std::any_of(options.forwarded.begin(), options.forwarded.end(),
                       [](const std::string& o) { return o.starts_with("--benchmark_list_tests"); });
}

} // namespace

int run(int argc, char** argv, const Program& program)
{
    Options options = parse(argc, argv);
    const std::string command = commandLine(argc, argv);
    if (!hand(options.forwarded)) return 2;
    program.addBenchmarks();
    if (!listsOnly(options)) printHeading(program, command);
    Gatherer gatherer;
    benchmark::RunSpecifiedBenchmarks(&gatherer);
    const std::vector<Load> loads = gatherer.loads();
    if (loads.empty()) return gatherer.failed();

    std::vector<Row> rows;
    for (const Load& load : loads) rows.push_back(rowOf(load));
    printf("\n");
    printTable(rows);
    printEveryMedian(loads);
    const bool written = options.json.empty() || writeJson(options.json, program, command, rows, loads);
    return gatherer.failed() || !written;
}

} // namespace kemsd::bench
