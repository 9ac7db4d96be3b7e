#include "messages.h"

#include <kemsd/status.h>
#include <kemsd/types.h>

#include <cstdio>

#include "text.h"

namespace sqlhost {
namespace {

std::string sentence(int number, OV_ULONG_T first, OV_ULONG_T second)
{
    switch (number) {
        case SDSTS_MEM_LIMIT_EXCEEDED:
            return bytesText(first) + " in use, the memory limit leaves no room for " + bytesText(second) + " more";
        case SDSTS_MEM_LIMIT_WARNING:
            return bytesText(first) + text(" in use, above %u %% of the memory limit", second);
        case SDSTS_MEM_LIMIT_TOO_LOW:
            return "a memory limit of " + bytesText(first) + " is too low, it must be at least " +
                   bytesText(uint64_t{second} * 1024);
        case SDSTS_MEM_EXHAUSTED:
            return bytesText(first) + " in use, the system has no memory for " + bytesText(second) + " more";
        default:
            return text("arguments %u and %u", first, second);
    }
}

} // namespace

void endProgress(NetContext& net)
{
    if (net.progressShown) fputs("\r\033[K", stderr);
    net.progressShown = false;
}

void endMessages(NetContext& net)
{
    if (net.repeats > 0)
        fprintf(stderr, "kemsd message %d: %s more\n", net.lastNumber, countedText(net.repeats, "time").c_str());
    net.repeats = 0;
}

int onMemoryMessage(void* netCtx, int number, int, void* first, int, void* second, int)
{
    NetContext& net = *static_cast<NetContext*>(netCtx);
    if (number == net.lastNumber) {
        ++net.repeats;
        return number;
    }
    endProgress(net);
    endMessages(net);
    const std::string words = sentence(number, *static_cast<OV_ULONG_T*>(first), *static_cast<OV_ULONG_T*>(second));
    fprintf(stderr, "kemsd message %d: %s\n", number, words.c_str());
    net.lastNumber = number;
    return number;
}

} // namespace sqlhost
