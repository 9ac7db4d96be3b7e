// Which memory configuration file start-up reads. The library looks for bin/config.mem under ZANTOPATH; this points
// ZANTOPATH at the right place for as long as start-up lasts.
#pragma once

#include <string>

namespace sqlhost {

class MemoryFile {
public:
    // `named`: the file of the command line, or empty: then ZANTOPATH as it is set, else the file that is shipped.
    explicit MemoryFile(const std::string& named);
    ~MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    const std::string& path() const { return path_; }

private:
    std::string path_;    // the file that start-up finds
    std::string private_; // a directory of our own that holds a link to it, or empty
};

} // namespace sqlhost
