#include "client/runtime.h"

#include "text.h"

namespace sqlhost {

ClientRuntime::ClientRuntime()
{
    KemSdSetMemoryManager(TRUE);
    registerThreadHooks();
    if (KemSdVupUtilTlsInit() != 0) throw Failure("no memory for the threads' slot");
    thread_.emplace(nullptr, nullptr);
}

ClientRuntime::~ClientRuntime()
{
    thread_->detach();
    KemSdVupUtilTlsTerm();
}

} // namespace sqlhost
