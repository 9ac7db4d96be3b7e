#include "threadcontext.h"

#include "text.h"

namespace sqlhost {
namespace {

void attachThread(void* tctxp, KEM_BOOL_T) { KemSdVupUtilTlsSet(tctxp); }

void detachThread(void*, KEM_BOOL_T) { KemSdVupUtilTlsSet(nullptr); }

} // namespace

ThreadContext::ThreadContext(NetContext* net, OV_SVCTX_T* service)
{
    record_.NetCtx = net;
    record_.svctxp = service;
    record_.pSyncCtx = &locks_;
    if (KemSdInit(&record_.pSdCtx, 0) != 0) throw Failure("no memory for a thread's context");
    KemSdUkrThreadAttach(&record_, TRUE);
    attached_ = true;
}

ThreadContext::~ThreadContext()
{
    detach();
    freeLocks();
    KemSdTerm(record_.pSdCtx);
}

void ThreadContext::detach()
{
    if (attached_) KemSdUkrThreadDetach(&record_, FALSE);
    attached_ = false;
}

void ThreadContext::freeLocks()
{
    KemRWLockFreeQNodes(&locks_);
    locks_ = {};
}

void registerThreadHooks()
{
    KemSdSetUkrThreadAttachFunction(attachThread);
    KemSdSetUkrThreadDetachFunction(detachThread);
}

} // namespace sqlhost
