// File reads and writes in the page cache. The floor is the system call, and so is the only peer; of a leased write it
// is the same write without a lease.
#include <benchmark/benchmark.h>
#include <kemsd/file.h>
#include <kemsd/memory.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/memoryfile.h"
#include "support/report.h"

namespace kemsd::bench {
namespace {

constexpr unsigned kBytes = 8192;
constexpr unsigned kBlocks = 1024;

int file = -1;
alignas(4096) char buffer[kBytes];

// Each operation moves one block at that place, or at the file's position, and tells whether it moved it whole.

bool oursPread(unsigned block)
{
    KEM_UINT_T moved = 0;
    return KemSdFilePRead(nullptr, file, buffer, static_cast<KEM_LONG_T>(block * kBytes), kBytes, &moved) == 0 &&
           moved == kBytes;
}
bool floorPread(unsigned block) { return pread(file, buffer, kBytes, off_t{block} * kBytes) == kBytes; }

template <unsigned bytes>
bool oursPwrite(unsigned block)
{
    KEM_UINT_T moved = 0;
    KEM_OSRETCODE_T error = 0;
    const auto offset = static_cast<KEM_LONG_T>(block * bytes);
    return KemSdFilePWrite(nullptr, file, buffer, offset, bytes, &moved, &error) == 0 && moved == bytes;
}
bool floorPwrite(unsigned block) { return pwrite(file, buffer, kBytes, off_t{block} * kBytes) == kBytes; }
bool oursRead(unsigned)
{
    KEM_INT_T moved = 0;
    return KemSdFileRead(nullptr, file, buffer, kBytes, &moved) == 0 && moved == static_cast<KEM_INT_T>(kBytes);
}
bool floorRead(unsigned) { return read(file, buffer, kBytes) == kBytes; }

template <unsigned bytes>
bool oursWrite(unsigned)
{
    KEM_INT_T moved = 0;
    return KemSdFileWrite(nullptr, file, buffer, bytes, &moved) == 0 && moved == static_cast<KEM_INT_T>(bytes);
}
bool floorWrite(unsigned) { return write(file, buffer, kBytes) == kBytes; }

// ---- Leased writes, by a thread of a server that makes no pause

OV_SVCTX_T service;
KEM_SYNCCTX_T locks;
OV_THDCTX_T thread;

bool openService()
{
    OV_PAUSE_INTERFACE_T& pause = service.pauseinterface;
    for (KEM_PEVENTHDL_T event : {&pause.writeIOEvtHdl, &pause.pauseWriteIOEvtHdl})
        if (KemSdEventCreate(nullptr, event) != 0 || KemSdEventClear(nullptr, event) != 0) return false;
    thread.svctxp = &service;
    thread.pSyncCtx = &locks;
    return KemRWLockInit(nullptr, 0, &pause.rwlockPauseUpdates, TRUE, RWLOCK_PAUSEUPDATES_LOCK) == 0;
}

template <unsigned bytes>
bool leasedPwrite(unsigned block)
{
    KEM_UINT_T moved = 0;
    KEM_OSRETCODE_T error = 0;
    const auto offset = static_cast<KEM_LONG_T>(block * bytes);
    return KemSdLeasedFilePWrite(&thread, file, buffer, offset, bytes, &moved, &error) == 0 && moved == bytes;
}

template <unsigned bytes>
bool leasedWrite(unsigned)
{
    KEM_INT_T moved = 0;
    return KemSdLeasedFileWrite(&thread, file, buffer, bytes, &moved) == 0 && moved == static_cast<KEM_INT_T>(bytes);
}

// ---- The loads

template <bool (*operation)(unsigned)>
void blocks(benchmark::State& state)
{
    unsigned block = 0;
    lseek(file, 0, SEEK_SET);
    for (auto _ : state) {
        if (!operation(block)) {
            state.SkipWithError("a block was not moved");
            break;
        }
        if (++block == kBlocks) {
            block = 0;
            lseek(file, 0, SEEK_SET);
        }
    }
}

template <bool (*ours)(unsigned), bool (*floor)(unsigned)>
void addLoad(const std::string& load)
{
    add(load, kOurs, blocks<ours>);
    add(load, kFloor, blocks<floor>);
}

void addBenchmarks()
{
    addLoad<oursPread, floorPread>("pread/8KiB");
    addLoad<oursPwrite<kBytes>, floorPwrite>("pwrite/8KiB");
    addLoad<oursRead, floorRead>("read/8KiB");
    addLoad<oursWrite<kBytes>, floorWrite>("write/8KiB");
    addLoad<leasedPwrite<64>, oursPwrite<64>>("leased-pwrite/64B");
    addLoad<leasedPwrite<kBytes>, oursPwrite<kBytes>>("leased-pwrite/8KiB");
    addLoad<leasedWrite<64>, oursWrite<64>>("leased-write/64B");
    addLoad<leasedWrite<kBytes>, oursWrite<kBytes>>("leased-write/8KiB");
}

} // namespace
} // namespace kemsd::bench

int main(int argc, char** argv)
{
    using namespace kemsd::bench;
    file = openMemoryFile(off_t{kBytes} * kBlocks);
    if (file == -1) {
        perror("no file to work on");
        return 1;
    }
    if (!openService()) {
        fputs("no pause interface\n", stderr);
        return 1;
    }
    return run(
        argc, argv,
        {"file", "a file of 8 MiB in memory, no context; the floor is the system call, of a leased write the plain one",
         addBenchmarks});
}
