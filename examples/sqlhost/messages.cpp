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

class Locked {
public:
    explicit Locked(NetContext& net) : net_(net) { KemSdCritSecEnter(nullptr, &net_.lock); }
    ~Locked() { KemSdCritSecExit(nullptr, &net_.lock); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

private:
    NetContext& net_;
};

void clearLine(NetContext& net)
{
    if (net.progressShown) fputs("\r\033[K", stderr);
    net.progressShown = false;
}

void tellRepeats(NetContext& net)
{
    if (net.repeats > 0)
        fprintf(stderr, "kemsd message %d: %s more\n", net.lastNumber, countedText(net.repeats, "time").c_str());
    net.repeats = 0;
}

} // namespace

void showProgress(NetContext& net, const char* line)
{
    const Locked locked(net);
    fprintf(stderr, "\r%s\033[K", line);
    net.progressShown = true;
}

void endProgress(NetContext& net)
{
    const Locked locked(net);
    clearLine(net);
}

void endMessages(NetContext& net)
{
    const Locked locked(net);
    tellRepeats(net);
}

int onMemoryMessage(void* netCtx, int number, int, void* first, int, void* second, int)
{
    NetContext& net = *static_cast<NetContext*>(netCtx);
    const Locked locked(net);
    if (number == net.lastNumber) {
        ++net.repeats;
        return number;
    }
    clearLine(net);
    tellRepeats(net);
    const std::string words = sentence(number, *static_cast<OV_ULONG_T*>(first), *static_cast<OV_ULONG_T*>(second));
    fprintf(stderr, "kemsd message %d: %s\n", number, words.c_str());
    net.lastNumber = number;
    return number;
}

} // namespace sqlhost
