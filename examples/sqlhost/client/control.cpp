#include <kemsd/os.h>

#include <chrono>

#include "client/asker.h"
#include "client/commands.h"
#include "client/runtime.h"

namespace sqlhost {

void showStatus(const std::string& directory, bool asCsv)
{
    ClientRuntime runtime;
    ServerLink link(runtime.context(), directory);
    ResultPrinter printer(asCsv, ResultPrinter::Style::report);
    askAndPrint(link.connection(), kRequestStatus, {}, printer);
}

void stopServer(const std::string& named)
{
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::seconds kPatience(60);
    constexpr KEM_ULONG_T kLookMilliseconds = 10;

    ClientRuntime runtime;
    const ServerDirectory directory(named);
    Door door(runtime.context(), directory);
    const ServerIdentity server = door.server();
    door.stop(server);
    const auto end = Clock::now() + kPatience;
    for (; !door.isGone(server); KemSdSleep(runtime.context(), kLookMilliseconds))
        if (Clock::now() > end) throw Failure(text("the server with process id %d is still ending", server.pid));
}

} // namespace sqlhost
