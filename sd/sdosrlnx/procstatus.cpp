// The text of a process's status file, a line for each figure: its key, a colon, a number. A line that is longer than
// the buffer is read in pieces, each of which is looked at as a line. Stateless.

#include "sd/sdosrlnx/procstatus.h"

#include <cstring>

namespace {

constexpr size_t kLineCapacity = 255;

struct StatusKey {
    const char* name;
    PROC_STATUS key;
};
constexpr StatusKey kStatusKeys[] = {
    {"Name", PROC_STATUS_NAME},
    {"State", PROC_STATUS_STATE},
    {"SleepAVG", PROC_STATUS_SLEEPAV},
    {"Tgid", PROC_STATUS_TGID},
    {"Pid", PROC_STATUS_PID},
    {"PPid", PROC_STATUS_PPID},
    {"TracerPid", PROC_STATUS_TRACERP},
    {"Uid", PROC_STATUS_UID},
    {"Gid", PROC_STATUS_GID},
    {"FDSize", PROC_STATUS_FDSIZE},
    {"Groups", PROC_STATUS_GROUPS},
    {"VmPeak", PROC_STATUS_VMPEAK},
    {"VmSize", PROC_STATUS_VMSIZE},
    {"VmLck", PROC_STATUS_VMLCK},
    {"VmHWM", PROC_STATUS_VMHWM},
    {"VmRSS", PROC_STATUS_VMRSS},
    {"VmData", PROC_STATUS_VMDATA},
    {"VmStk", PROC_STATUS_VMSTK},
    {"VmExe", PROC_STATUS_VMEXE},
    {"VmLib", PROC_STATUS_VMLIB},
    {"VmPTE", PROC_STATUS_VMPTE},
    {"StaBrk", PROC_STATUS_STABRK},
    {"Brk", PROC_STATUS_BRK},
    {"StaStk", PROC_STATUS_STASTK},
    {"Threads", PROC_STATUS_THREADS},
    {"SigQ", PROC_STATUS_SIGQ},
    {"SigPnd", PROC_STATUS_SIGPND},
    {"ShdPnd", PROC_STATUS_SHDPND},
    {"SigBlk", PROC_STATUS_SIGBLK},
    {"SigIgn", PROC_STATUS_SIGIGN},
    {"SigCgt", PROC_STATUS_SIGCGT},
    {"CapInh", PROC_STATUS_CAPINH},
    {"CapPrm", PROC_STATUS_CAPPRM},
    {"CapEff", PROC_STATUS_CAPEFF},
    {"Cpus_allowed", PROC_STATUS_CPUS_AL},
    {"Mems_allowed", PROC_STATUS_MEMS_AL},
};

// The figure that a line's key names; null when the record has none.
KEM_ULONG_T* figureOf(KemProcSysInfo& info, PROC_STATUS key)
{
    switch (key) {
        case PROC_STATUS_VMHWM:
            return &info.vmHWM;
        case PROC_STATUS_VMLIB:
            return &info.vmLib;
        case PROC_STATUS_VMPEAK:
            return &info.vmPeak;
        case PROC_STATUS_VMSIZE:
            return &info.vmSize;
        case PROC_STATUS_VMEXE:
            return &info.vmExe;
        case PROC_STATUS_VMSTK:
            return &info.vmStk;
        case PROC_STATUS_VMDATA:
            return &info.vmData;
        default:
            return nullptr;
    }
}

// The number behind the first word of a line, 0 when there is none.
KEM_ULONG_T numberOf(const char* line)
{
    long number;
    return sscanf(line, "%*s %ld", &number) == 1 ? static_cast<KEM_ULONG_T>(number) : 0;
}

} // namespace

PROC_STATUS sd::procstatus::keyOf(const char* line)
{
    const size_t length = strcspn(line, ":");
    if (line[length] != ':') return PROC_STATUS_INVALID;
    for (const StatusKey& each : kStatusKeys)
        if (strlen(each.name) == length && memcmp(line, each.name, length) == 0) return each.key;
    return PROC_STATUS_INVALID;
}

void sd::procstatus::read(FILE* file, KemProcSysInfo& info)
{
    char line[kLineCapacity];
    while (fgets(line, sizeof line, file))
        if (KEM_ULONG_T* const figure = figureOf(info, keyOf(line))) *figure = numberOf(line);
}
