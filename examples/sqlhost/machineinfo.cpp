#include "machineinfo.h"

#include <sys/resource.h>

namespace sqlhost {
namespace {

class Asking {
public:
    explicit Asking(KEM_PSDCTX_T context) : context_(context) {}

    MachineInfo& info() { return info_; }

    // Whether a call has told what it was asked for; its failure is noted.
    bool told(const char* what, KEM_STS_T status)
    {
        if (status != 0) info_.unknown.push_back({what, status, context_->osRetCode});
        return status == 0;
    }

    // Asks one call for one value.
    template <class Value, class Place>
    void ask(const char* what, KEM_FUNC_M (*call)(KEM_PSDCTX_T, Place*), std::optional<Value>& value)
    {
        Value answer{};
        if (told(what, call(context_, &answer))) value = answer;
    }

    void askTime()
    {
        KEM_TIME_T now;
        KEM_TIMERECORD_T time;
        if (told("time", KemSdTime(context_, &now)) && told("time", KemSdLocalTimeGet(context_, now, &time)))
            info_.time = time;
    }

    void askMemory()
    {
        KemSdCPUInfoGet(context_, &info_.processors);
        KemSdPhysMemInfoGet(context_, &info_.memory);
        KEM_SWAPINFO_T swap;
        KemSdSwapInfoGet(context_, &swap);
        if (told("swap", swap.bt32SwapStatus & KEM_SWAP_STATUS_VALID ? 0 : SDSTS_OSR_NO_SWAPINFO)) info_.swap = swap;
    }

    void askDrives()
    {
        KEM_DRIVES_T drives;
        if (!told("drives", KemSdDrivesGet(context_, &drives))) return;
        std::vector<KEM_DRIVEINFO_T> list(drives.ulDriveCnt);
        for (KEM_DRIVEINFO_T& each : list) {
            const auto ordinal = static_cast<KEM_ULONG_T>(&each - list.data() + 1);
            if (!told("drives", KemSdDriveInfoGet(context_, ordinal, &each))) return; // the table changed meanwhile
        }
        info_.currentDrive = drives.ulDriveCur;
        info_.drives = std::move(list);
    }

    void askProcess()
    {
        KemSdProcSysInfoGet(&info_.process);
        Limit files{"open files", 0, 0};
        if (told(files.what, KemSdFdLimitGet(context_, &files.hard, &files.soft))) info_.limits.push_back(files);
        for (const auto& [what, type] :
             {std::pair("processes", RLIMIT_NPROC), std::pair("stack bytes", RLIMIT_STACK)}) {
            Limit limit{what, 0, 0};
            if (told(what, KemSdLimitGet(context_, type, &limit.hard, &limit.soft))) info_.limits.push_back(limit);
        }
    }

private:
    KEM_PSDCTX_T context_;
    MachineInfo info_;
};

} // namespace

MachineInfo askMachine(KEM_PSDCTX_T context)
{
    Asking asking(context);
    MachineInfo& info = asking.info();
    asking.ask("system", KemSdOSInfoGet, info.system);
    asking.askTime();
    asking.ask("page size", KemSdPageSizeGet, info.pageBytes);
    asking.askMemory();
    asking.askDrives();
    asking.askProcess();
    asking.ask("data segment", KemSdMaxAllocGet, info.dataBytes);
    return info;
}

} // namespace sqlhost
