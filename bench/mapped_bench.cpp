// Reads and writes of a mapped file that does not grow. The floor copies from and to a mapping of its own; the peers
// are the system calls on the same file.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <kemsd/file.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "support/floormapped.h"
#include "support/report.h"

namespace kemsd::bench {
namespace {

constexpr unsigned kBytes = 64;
constexpr unsigned kRecords = 1024; // they stay in the processor's cache
constexpr unsigned kFileBytes = kBytes * kRecords;

KEM_MMAPFILEHDL_T ours;
FloorMapping floorMapping;
int file = -1;
alignas(64) char buffer[kBytes];

// In memory where the system offers it, with no name left behind; mapped by us and by the floor.
bool openFile()
{
    for (const char* place : {"/dev/shm/kemsd-bench-XXXXXX", "/tmp/kemsd-bench-XXXXXX"}) {
        std::string path = place;
        file = mkstemp(path.data());
        if (file == -1) continue;
        const bool opened =
            posix_fallocate(file, 0, kFileBytes) == 0 &&
            KemSdMMAPFileOpen(nullptr, path.c_str(), O_RDWR, 0, 0, kFileBytes, KEM_IOTYPE_MMAP, 0, &ours) == 0;
        unlink(path.c_str());
        void* const mapping = mmap(nullptr, kFileBytes, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        floorMapping = {static_cast<char*>(mapping), kFileBytes, 0};
        return opened && mapping != MAP_FAILED;
    }
    return false;
}

void rewind()
{
    KEM_LONG_T position = 0;
    KemSdMMAPFileLSeek(nullptr, &ours, 0, SEEK_SET, &position);
    floorMapping.at = 0;
    lseek(file, 0, SEEK_SET);
}

// Each operation moves one record at that place, or at the position, and tells whether it moved it whole.

bool oursRead(unsigned)
{
    KEM_INT_T moved = 0;
    return KemSdMMAPFileRead(nullptr, &ours, buffer, kBytes, &moved) == 0 && moved == static_cast<int>(kBytes);
}
bool oursWrite(unsigned)
{
    KEM_INT_T moved = 0;
    return KemSdMMAPFileWrite(nullptr, &ours, buffer, kBytes, &moved) == 0 && moved == static_cast<int>(kBytes);
}
bool oursReadAt(unsigned record)
{
    KEM_UINT_T moved = 0;
    const auto offset = static_cast<KEM_LONG_T>(record * kBytes);
    return KemSdMMAPFilePRead(nullptr, ours, buffer, offset, kBytes, &moved) == 0 && moved == kBytes;
}
bool oursWriteAt(unsigned record)
{
    KEM_UINT_T moved = 0;
    KEM_OSRETCODE_T error = 0;
    const auto offset = static_cast<KEM_LONG_T>(record * kBytes);
    return KemSdMMAPFilePWrite(nullptr, &ours, buffer, offset, kBytes, &moved, &error) == 0 && moved == kBytes;
}

bool floorRead(unsigned) { return floorMappedRead(&floorMapping, buffer, kBytes) == kBytes; }
bool floorWrite(unsigned) { return floorMappedWrite(&floorMapping, buffer, kBytes) == kBytes; }
bool floorReadAt(unsigned record)
{
    return floorMappedReadAt(&floorMapping, record * kBytes, buffer, kBytes) == kBytes;
}
bool floorWriteAt(unsigned record)
{
    return floorMappedWriteAt(&floorMapping, record * kBytes, buffer, kBytes) == kBytes;
}

bool systemRead(unsigned) { return read(file, buffer, kBytes) == kBytes; }
bool systemWrite(unsigned) { return write(file, buffer, kBytes) == kBytes; }
bool systemReadAt(unsigned record) { return pread(file, buffer, kBytes, record * kBytes) == kBytes; }
bool systemWriteAt(unsigned record) { return pwrite(file, buffer, kBytes, record * kBytes) == kBytes; }

template <bool (*operation)(unsigned)>
void records(benchmark::State& state)
{
    unsigned record = 0;
    rewind();
    for (auto _ : state) {
        if (!operation(record)) {
            state.SkipWithError("a record was not moved");
            break;
        }
        benchmark::ClobberMemory();
        if (++record == kRecords) {
            record = 0;
            rewind();
        }
    }
}

template <bool (*oursOperation)(unsigned), bool (*floorOperation)(unsigned), bool (*systemOperation)(unsigned)>
void addLoad(const std::string& load, const char* peer)
{
    add(load, kOurs, records<oursOperation>);
    add(load, kFloor, records<floorOperation>);
    add(load, peer, records<systemOperation>);
}

void addBenchmarks()
{
    addLoad<oursRead, floorRead, systemRead>("mapped-read/64B", "read");
    addLoad<oursReadAt, floorReadAt, systemReadAt>("mapped-pread/64B", "pread");
    addLoad<oursWrite, floorWrite, systemWrite>("mapped-write/64B", "write");
    addLoad<oursWriteAt, floorWriteAt, systemWriteAt>("mapped-pwrite/64B", "pwrite");
}

} // namespace
} // namespace kemsd::bench

int main(int argc, char** argv)
{
    using namespace kemsd::bench;
    if (!openFile()) {
        perror("no file to work on");
        return 1;
    }
    return run(argc, argv, {"mapped", "a mapped file of 64 KiB in memory, no context", addBenchmarks});
}
