// The process-wide switches and hooks that the server sets once at start-up, and the 32-bit bit helpers.
// No locks: everything here is written before other threads run and only read afterwards.

#include <bit>

#include "sd/base/settings.h"

extern "C" {
constinit KEM_BOOL_T bSdSetMemoryManager = FALSE;
constinit KEM_BOOL_T bTurnOffMemDealloc = FALSE;
constinit KEM_BOOL_T gbDisableMmap = FALSE;
constinit KEM_BOOL_T gbMemProtect = FALSE;
constinit KEM_BOOL_T bFailoverMode = FALSE;
constinit KEM_File_Locking_Mode file_locking_mode = KEM_FILE_LOCK_ADVISORY;
}

namespace {

using sd::loadRelaxed;
using sd::storeRelaxed;

constinit KEM_LMFUNC_T pfGetLeaseGuard = nullptr;
constinit KEM_STR_T pszAppFolderName = const_cast<KEM_STR_T>("app");

// A hook that is registered for good: a null never clears an earlier registration.
template <class Function>
struct Hook {
    Function function = nullptr;
    KEM_BOOL_T set = FALSE;

    void registerFunction(Function given)
    {
        if (!given) return;
        storeRelaxed(function, given);
        storeRelaxed(set, TRUE);
    }

    template <class... Arguments>
    void call(Arguments... arguments) const
    {
        if (loadRelaxed(set)) loadRelaxed(function)(arguments...);
    }
};

constinit Hook<KEM_UKRFUNC_T> threadAttach;
constinit Hook<KEM_UKRFUNC_T> threadDetach;
constinit Hook<KEM_HMSTATFUNC_T> lockStatistics;

constexpr KEM_BIT32_T bitAt(KEM_ULONG_T position) { return KEM_BIT32_T{1} << (position % 32); }
static_assert(bitAt(33) == 2);

} // namespace

void KemSdSetMemoryManager(KEM_BOOL_T setMemoryManager) { storeRelaxed(bSdSetMemoryManager, setMemoryManager); }

void KemSdSetMemDeallocOption(void)
{
    if (sd::memoryManagerOn()) storeRelaxed(bTurnOffMemDealloc, TRUE);
}

void KemSdSetMmapAllocCfg(KEM_BOOL_T bDisableMmapCfg) { storeRelaxed(gbDisableMmap, bDisableMmapCfg); }

void KemSdSetMemProtectCfg(KEM_BOOL_T bMemProtect) { storeRelaxed(gbMemProtect, bMemProtect); }

void KemSdSetFailoverModeFlag(KEM_BOOL_T bIsFailoverMode) { storeRelaxed(bFailoverMode, bIsFailoverMode); }

KEM_BOOL_T KemSdIsFailoverMode(void) { return loadRelaxed(bFailoverMode); }

void KemSdSetFileLockingMode(KEM_File_Locking_Mode mode) { storeRelaxed(file_locking_mode, mode); }

void KemSdSetAppFolderName(KEM_STR_T name) { storeRelaxed(pszAppFolderName, name); }

KEM_STR_T KemSdAppFolderName(void) { return loadRelaxed(pszAppFolderName); }

void KemSdSetLeaseGuardAccessFunction(KEM_LMFUNC_T pfGetLG) { storeRelaxed(pfGetLeaseGuard, pfGetLG); }

void KemSdGetLeaseGuard(void)
{
    if (const KEM_LMFUNC_T guard = loadRelaxed(pfGetLeaseGuard)) guard();
}

void KemSdSetUkrThreadAttachFunction(KEM_UKRFUNC_T pfThdAtt) { threadAttach.registerFunction(pfThdAtt); }

void KemSdUkrThreadAttach(void* tctxp, KEM_BOOL_T bNewThread) { threadAttach.call(tctxp, bNewThread); }

void KemSdSetUkrThreadDetachFunction(KEM_UKRFUNC_T pfThdDet) { threadDetach.registerFunction(pfThdDet); }

void KemSdUkrThreadDetach(void* tctxp, KEM_BOOL_T bNewThread) { threadDetach.call(tctxp, bNewThread); }

void KemSdSetHMStatisticsFunction(KEM_HMSTATFUNC_T pfHMStats) { lockStatistics.registerFunction(pfHMStats); }

void KemSdUpdateHMStatistics(KEM_TIME_T* WriteMonitorWaitTimes, KEM_TIME_T* ReadMonitorWaitTimes,
                             KEM_USHORT_T usNumberThreads)
{
    lockStatistics.call(WriteMonitorWaitTimes, ReadMonitorWaitTimes, usNumberThreads);
}

KEM_ULONG_T KemSdBitCountGet(KEM_BIT32_T bt32) { return std::popcount(bt32); }

void KemSdBitPosSet(KEM_ULONG_T ulBitPos, KEM_PBIT32_T pBt32)
{
    if (pBt32) *pBt32 |= bitAt(ulBitPos);
}

KEM_BOOL_T KemSdBitPosIsSet(KEM_ULONG_T ulBitPos, KEM_BIT32_T bt32) { return (bt32 & bitAt(ulBitPos)) != 0; }
