#include "support/serverstart.h"

#include <kemsd/kemsd.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

namespace kemsd::bench {
namespace {

constexpr const char* kConfiguration = "numthreadheaps 16\nheapsize 2M\nmaxblock 64K\n";

[[noreturn]] void giveUp(const char* what)
{
    fprintf(stderr, "the memory manager did not start: %s\n", what);
    exit(1);
}

void writeConfiguration(const std::filesystem::path& home, const char* shortTerm)
{
    std::filesystem::create_directories(home / "bin");
    std::ofstream(home / "bin" / "config.mem") << kConfiguration << shortTerm << '\n';
}

} // namespace

void startThreadHeaps(const char* shortTerm)
{
    std::string home = (std::filesystem::temp_directory_path() / "kemsd-bench-XXXXXX").string();
    if (!mkdtemp(home.data())) giveUp("no temporary directory");
    writeConfiguration(home, shortTerm);
    setenv("ZANTOPATH", home.c_str(), 1);
    KemSdSetMemoryManager(TRUE);
    char application[] = "bench";
    const int status = ovMemThreadHeapInit(1, nullptr, application, 0);
    std::error_code ignored;
    std::filesystem::remove_all(home, ignored);

    OV_ULONGLONG_T settings[7] = {};
    ovMemGetMemorySettings(settings);
    if (status != 0) giveUp("no memory for the heaps");
    if (settings[1] != kSlots || settings[3] != kHeapBytes || settings[5] != kLargestHeapBlock)
        giveUp("its settings are not those of the configuration file");
}

} // namespace kemsd::bench
