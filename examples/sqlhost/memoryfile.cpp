#include "memoryfile.h"

#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "text.h"

namespace sqlhost {
namespace {

namespace fs = std::filesystem;

constexpr char kVariable[] = "ZANTOPATH";
constexpr char kFile[] = "bin/config.mem";

void requireReadable(const std::string& file)
{
    if (access(file.c_str(), R_OK) == -1)
        throw Failure(text("cannot read the memory configuration %s: %s", file.c_str(), strerror(errno)));
}

// The shipped configuration: beside the program, else where the sources lie.
std::string shipped()
{
    std::error_code ignored;
    const fs::path beside = fs::read_symlink("/proc/self/exe", ignored).parent_path() / "config";
    return fs::exists(beside / kFile, ignored) ? beside.string() : SQLHOST_CONFIG;
}

// A directory of our own in which bin/config.mem is a link to the file.
std::string directoryFor(const std::string& file)
{
    std::error_code failed;
    std::string directory = (fs::temp_directory_path(failed) / "sqlhost-XXXXXX").string();
    if (failed || !mkdtemp(directory.data())) throw Failure("cannot make a temporary directory for --config");
    fs::create_directory(fs::path(directory) / "bin", failed);
    if (!failed) fs::create_symlink(fs::absolute(file), fs::path(directory) / kFile, failed);
    if (failed) {
        const std::string reason = failed.message();
        fs::remove_all(directory, failed);
        throw Failure("cannot make a temporary directory for --config: " + reason);
    }
    return directory;
}

} // namespace

MemoryFile::MemoryFile(const std::string& named)
{
    if (!named.empty()) {
        requireReadable(named);
        private_ = directoryFor(named);
        setenv(kVariable, private_.c_str(), 1);
        path_ = named;
        return;
    }
    if (!getenv(kVariable)) setenv(kVariable, shipped().c_str(), 1);
    path_ = (fs::path(getenv(kVariable)) / kFile).string();
    // A file for this program alone comes before the one for all.
    if (access((path_ + ".sqlhost").c_str(), R_OK) == 0) path_ += ".sqlhost";
    requireReadable(path_);
}

MemoryFile::~MemoryFile()
{
    std::error_code ignored;
    if (!private_.empty()) fs::remove_all(private_, ignored);
}

} // namespace sqlhost
