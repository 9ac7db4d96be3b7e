// What kemsd tells about the machine and this process, asked once. What it cannot tell is named, and the rest stands.
#pragma once

#include <kemsd/os.h>

#include <optional>
#include <string>
#include <vector>

namespace sqlhost {

struct Limit {
    const char* what;
    KEM_ULONG_T soft, hard; // all bits set: none
};

struct Unknown {
    const char* what;
    KEM_STS_T status;
    KEM_OSRETCODE_T error; // the system's number, or 0
};

struct MachineInfo {
    std::optional<KEM_OSINFO_T> system;
    std::optional<KEM_TIMERECORD_T> time;
    std::optional<KEM_ULONG_T> pageBytes;
    KEM_CPUINFO_T processors{};
    KEM_PHYSMEMINFO_T memory{};
    std::optional<KEM_SWAPINFO_T> swap;
    KEM_ULONG_T currentDrive = 0;
    std::optional<std::vector<KEM_DRIVEINFO_T>> drives;
    KemProcSysInfo process{};
    std::vector<Limit> limits;
    std::optional<KEM_ULONGLONG_T> dataBytes; // the data segment's limit; all bits set: none
    std::vector<Unknown> unknown;
};

MachineInfo askMachine(KEM_PSDCTX_T context);

} // namespace sqlhost
