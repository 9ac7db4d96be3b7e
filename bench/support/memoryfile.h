// A file for a benchmark to work on: in memory where the system offers it, with no name left behind.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

namespace kemsd::bench {

// -1 and errno when there is none to be had.
inline int openMemoryFile(off_t bytes)
{
    for (const char* place : {"/dev/shm/kemsd-bench-XXXXXX", "/tmp/kemsd-bench-XXXXXX"}) {
        std::string path = place;
        const int file = mkstemp(path.data());
        if (file == -1) continue;
        unlink(path.c_str());
        if (posix_fallocate(file, 0, bytes) == 0) return file;
        close(file);
    }
    return -1;
}

} // namespace kemsd::bench
