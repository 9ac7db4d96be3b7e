// A server's pause interface, and threads of the server: contexts with a sync context each. One thread of the test may
// play several of them.
#pragma once

#include <gtest/gtest.h>
#include <kemsd/file.h>
#include <kemsd/memory.h>
#include <kemsd/sync.h>

#include "sd/base/atomic.h"

namespace kemsd::test {

class Service {
public:
    Service()
    {
        EXPECT_EQ(KemRWLockInit(nullptr, 0, &pause().rwlockPauseUpdates, TRUE, RWLOCK_PAUSEUPDATES_LOCK), 0);
        for (KEM_PEVENTHDL_T event : {&pause().writeIOEvtHdl, &pause().pauseWriteIOEvtHdl}) {
            EXPECT_EQ(KemSdEventCreate(nullptr, event), 0);
            EXPECT_EQ(KemSdEventClear(nullptr, event), 0); // events are created set
        }
    }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    OV_PAUSE_INTERFACE_T& pause() { return record.pauseinterface; }
    bool paused() const { return __atomic_load_n(&record.pauseinterface.bPauseWriteIO, __ATOMIC_ACQUIRE); }
    int64_t leases() const { return sd::loadAcquire(record.pauseinterface.lBusyWriteIOCnt); }
    void terminate() { sd::storeRelaxed(record.bAppTerminating, TRUE); }

    OV_SVCTX_T record{};
};

class ServerThread {
public:
    explicit ServerThread(Service& service)
    {
        context.svctxp = &service.record;
        context.pSyncCtx = &sync;
        context.pSdCtx = &sd;
    }
    ~ServerThread() { EXPECT_EQ(KemRWLockFreeQNodes(&sync), 0); }
    ServerThread(const ServerThread&) = delete;
    ServerThread& operator=(const ServerThread&) = delete;

    bool counted() const { return context.bBusyWriteIO; }
    // How it holds the pause's lock: 0 not at all, 1 for reading, 65535 for writing.
    int lockMode() { return KemSdModeRW(&context, &sync, &context.svctxp->pauseinterface.rwlockPauseUpdates); }

    KEM_SYNCCTX_T sync{};
    KEM_SDCTX_T sd{};
    OV_THDCTX_T context{};
};

} // namespace kemsd::test
