// Directories searched and removed. The peer does the same work by the standard library's directory iteration and
// recursive removal. Times are those of one entry.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <kemsd/file.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "support/report.h"

namespace kemsd::bench {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPeer = "std::filesystem";
constexpr const char* kPattern = "page*.ind";
constexpr unsigned kSearched = 100000; // files in the directory that is searched; all of them match
constexpr unsigned kDirectories = 400; // of the tree that is removed
constexpr unsigned kFilesOfEach = 24;
constexpr unsigned kRemoved = kDirectories * (1 + kFilesOfEach);

// In memory where the system offers it, so that the device is not measured. Removed at the end.
class Place {
public:
    Place()
    {
        for (std::string pattern : {"/dev/shm/kemsd-bench-XXXXXX", "/tmp/kemsd-bench-XXXXXX"})
            if (path_.empty() && mkdtemp(pattern.data())) path_ = pattern;
    }
    ~Place()
    {
        std::error_code ignored;
        if (!path_.empty()) fs::remove_all(path_, ignored);
    }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    std::string path(const char* name) const { return path_ + '/' + name; }
    bool missing() const { return path_.empty(); }

private:
    std::string path_;
};

std::string searched; // with its "/"
std::string tree;

// A directory with so many empty files.
bool makeFiles(const std::string& directory, unsigned count)
{
    if (mkdir(directory.c_str(), 0700) != 0) return false;
    for (unsigned i = 0; i < count; ++i) {
        char name[32];
        snprintf(name, sizeof name, "/page%06u.ind", i);
        const int file = open((directory + name).c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
        if (file == -1) return false;
        close(file);
    }
    return true;
}

bool makeTree()
{
    bool made = mkdir(tree.c_str(), 0700) == 0;
    for (unsigned i = 0; made && i < kDirectories; ++i)
        made = makeFiles(tree + "/directory" + std::to_string(i), kFilesOfEach);
    return made;
}

// Each finds all paths, looks at every file, and releases the paths; tells how many it found.

unsigned oursCollect()
{
    KEM_STR_T* paths;
    KEM_UINT_T count;
    if (KemSdFileFind(nullptr, nullptr, nullptr, (searched + kPattern).c_str(), 0, &paths, &count) != 0) return 0;
    KemSdFileFreeNames(nullptr, paths, count);
    return count;
}

unsigned peerCollect()
{
    std::vector<std::string> paths;
    for (const fs::directory_entry& entry : fs::directory_iterator(searched)) {
        if (fnmatch(kPattern, entry.path().filename().c_str(), FNM_PERIOD) != 0) continue;
        benchmark::DoNotOptimize(entry.file_size());
        benchmark::DoNotOptimize(entry.last_write_time());
        paths.push_back(entry.path().string());
    }
    return static_cast<unsigned>(paths.size());
}

// The same, of the files' names, sizes and times one by one.
unsigned oursStep()
{
    KEM_FILEFINDINFO_T found;
    unsigned count = 0;
    KEM_STS_T sts = KemSdFileFindFirst(nullptr, (searched + kPattern).c_str(), 0, &found);
    for (; sts == 0; sts = KemSdFileFindNext(nullptr, &found)) {
        benchmark::DoNotOptimize(found.fileSize + static_cast<KEM_ULONGLONG_T>(found.createTime));
        ++count;
    }
    KemSdFileFindClose(nullptr, &found);
    return count;
}

unsigned peerStep()
{
    unsigned count = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator(searched)) {
        if (fnmatch(kPattern, entry.path().filename().c_str(), FNM_PERIOD) != 0) continue;
        benchmark::DoNotOptimize(entry.file_size());
        benchmark::DoNotOptimize(entry.last_write_time());
        ++count;
    }
    return count;
}

bool oursRemove() { return KemSdDirRemove(nullptr, tree.c_str()) == 0; }
bool peerRemove() { return fs::remove_all(tree) == kRemoved + 1; }

// ---- The loads

template <unsigned (*collect)()>
void searches(benchmark::State& state)
{
    while (state.KeepRunningBatch(kSearched))
        if (collect() != kSearched) state.SkipWithError("not every file was found");
}

// The tree is made outside the time, on the same file system.
template <bool (*remove)()>
void removals(benchmark::State& state)
{
    while (state.KeepRunningBatch(kRemoved)) {
        state.PauseTiming();
        const bool made = makeTree();
        state.ResumeTiming();
        if (!made || !remove() || fs::exists(tree)) {
            state.SkipWithError("the tree was not made or not removed");
            break;
        }
    }
}

void addBenchmarks()
{
    add("collect/100000", kOurs, searches<oursCollect>);
    add("collect/100000", kPeer, searches<peerCollect>);
    add("search/100000", kOurs, searches<oursStep>);
    add("search/100000", kPeer, searches<peerStep>);
    add("remove/10000", kOurs, removals<oursRemove>);
    add("remove/10000", kPeer, removals<peerRemove>);
}

} // namespace
} // namespace kemsd::bench

int main(int argc, char** argv)
{
    using namespace kemsd::bench;
    const Place place;
    if (!place.missing()) {
        searched = place.path("searched/");
        tree = place.path("tree");
    }
    if (place.missing() || !makeFiles(searched, kSearched)) {
        perror("no directory to work on");
        return 1;
    }
    return run(argc, argv,
               {"search",
                "a directory of 100,000 files and trees of 400 directories with 24 files each, in memory; times are "
                "those of one entry",
                addBenchmarks});
}
