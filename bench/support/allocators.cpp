#include "support/allocators.h"

#include <dlfcn.h>
#include <malloc.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

namespace kemsd::bench {
namespace {

constexpr const char* kRoomVariable = "GLIBC_TUNABLES";
constexpr const char* kRoom = "glibc.rtld.optional_static_tls=16384";

struct Candidate {
    const char* name;
    const char* path;
    const char* allocate;
    const char* release;
};

constexpr Candidate kCandidates[] = {
#ifdef KEMSD_BENCH_JEMALLOC
    {"jemalloc", KEMSD_BENCH_JEMALLOC, "malloc", "free"},
#endif
#ifdef KEMSD_BENCH_MIMALLOC
    {"mimalloc", KEMSD_BENCH_MIMALLOC, "mi_malloc", "mi_free"},
#endif
#ifdef KEMSD_BENCH_TCMALLOC
    {"tcmalloc", KEMSD_BENCH_TCMALLOC, "tc_malloc", "tc_free"},
#endif
    {nullptr, nullptr, nullptr, nullptr},
};

std::vector<Allocator> load()
{
    std::vector<Allocator> loaded{{"glibc", malloc, free}};
    for (const Candidate& candidate : kCandidates) {
        if (!candidate.path) break;
        // Private names, its own before ours: it serves whoever asks it by name and nobody else.
        void* library = dlopen(candidate.path, RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND);
        void* allocate = library ? dlsym(library, candidate.allocate) : nullptr;
        void* release = library ? dlsym(library, candidate.release) : nullptr;
        if (!allocate || !release) {
            fprintf(stderr, "the peer %s cannot be loaded: %s\n", candidate.name, dlerror());
            continue;
        }
        loaded.push_back({candidate.name, reinterpret_cast<void* (*)(size_t)>(allocate),
                          reinterpret_cast<void (*)(void*)>(release)});
    }
    return loaded;
}

} // namespace

void makeRoomForAllocators(char** argv)
{
    if (getenv(kRoomVariable)) return;
    setenv(kRoomVariable, kRoom, 1);
    // The program break belongs to the C library: two allocators moving it would cut each other's memory in pieces.
    setenv("TCMALLOC_SKIP_SBRK", "1", 1);
    execv("/proc/self/exe", argv);
    perror("cannot start again");
}

void settleSystemAllocator()
{
    std::thread([] {}).join();
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
    mallopt(M_TRIM_THRESHOLD, 512 << 20);
}

const std::vector<Allocator>& allocators()
{
    static const std::vector<Allocator> all = load();
    return all;
}

} // namespace kemsd::bench
