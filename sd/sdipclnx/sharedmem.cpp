// Keys, flags, attaching and removing shared memory: one System V segment a call, no state, no locks. The lease guard
// runs in the allocation alone.

#include <sys/ipc.h>
#include <sys/shm.h>

#include <kemsd/ipc.h>

#include "sd/base/ipcflags.h"
#include "sd/base/leaseguard.h"
#include "sd/base/outcome.h"

namespace {

using sd::fail;
using sd::failErrno;
using sd::finish;
using sd::ok;
using sd::Outcome;

constexpr int kKeyId = 'w';

constexpr KEM_BIT32_T systemFlags(KEM_BIT32_T flags)
{
    KEM_BIT32_T permissions = 0;
    if (flags & (sd::kIpcBit2 | sd::kIpcBit4))
        permissions = 0666;
    else if (flags & sd::kIpcBit1)
        permissions = 0444;
    return permissions | sd::systemMakeFlags(flags);
}
static_assert(systemFlags(1 | 2) == 0x1B6 && systemFlags(1 | 8) == 0x324 && systemFlags(4 | 8 | 16) == 0x7B6);

// A server that takes over from a failed one finds that one's segment, so in failover mode it need not be new.
int segmentFlags(KEM_BIT32_T flags)
{
    const auto all = static_cast<int>(systemFlags(flags));
    return sd::failoverMode() ? all & ~IPC_EXCL : all;
}

// Both results are stored even when they are failures: a segment that could not be attached can still be removed.
Outcome attach(key_t key, size_t bytes, int flags, KEM_SMEMHDL_T& id, void*& base)
{
    id = shmget(key, bytes, flags);
    if (id == -1) return failErrno(SDSTS_IPC_CREATE);
    base = shmat(id, nullptr, 0);
    return base == reinterpret_cast<void*>(-1) ? failErrno(SDSTS_IPC_CREATE) : ok();
}

bool isAttachedByNobody(KEM_SMEMHDL_T id)
{
    shmid_ds state;
    return shmctl(id, IPC_STAT, &state) != -1 && state.shm_nattch == 0;
}

} // namespace

KEM_FUNC_M KemSdSharedMemAlloc(KEM_PSDCTX_T pSdCtx, const char* pszSMemName, KEM_SIZE_T sizeSMem, KEM_BIT32_T bt32OFlag,
                               KEM_BIT32_T, KEM_SMEMHDL_T* phSMem, KEM_IPCKEY_T* pipcKey, KEM_PPVOID_T ppvBase)
{
    sd::passLeaseGuard();
    if (!ppvBase || !pszSMemName || !pipcKey || !phSMem) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    const KEM_STS_T converted = KemSdSharedMemNameConvert(pszSMemName, kKeyId, pipcKey);
    if (converted != 0) return finish(pSdCtx, failErrno(converted));
    return finish(pSdCtx, attach(*pipcKey, sizeSMem, segmentFlags(bt32OFlag), *phSMem, *ppvBase));
}

KEM_FUNC_M KemSdSharedMemFree(KEM_PSDCTX_T pSdCtx, KEM_SMEMHDL_T hSMem, KEM_PVOID_T pvBase)
{
    if (!pvBase) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    shmdt(pvBase);
    if (isAttachedByNobody(hSMem)) shmctl(hSMem, IPC_RMID, nullptr);
    return finish(pSdCtx, ok());
}

void KemSdSharedMemFlagMap(KEM_BIT32_T bt32Flag, KEM_PBIT32_T pbt32FlagOS)
{
    if (pbt32FlagOS) *pbt32FlagOS |= systemFlags(bt32Flag);
}

KEM_STS_T KemSdSharedMemNameConvert(const char* pszName, KEM_INT_T ipcid, KEM_IPCKEY_T* pIpcKey)
{
    if (!pszName || !pIpcKey) return SDSTS_INVALID_PARAM;
    *pIpcKey = ftok(pszName, ipcid);
    return *pIpcKey == -1 ? SDSTS_IPC_KEY : 0;
}
