#include "progress.h"

#include <unistd.h>

#include "text.h"

namespace sqlhost {
namespace {

constexpr uint64_t kStep = 1 << 18;

} // namespace

Progress::Progress(NetContext& net, const char* what, uint64_t total)
    : net_(net), what_(what), total_(total), terminal_(isatty(STDERR_FILENO))
{}

Progress::~Progress()
{
    if (terminal_) endProgress(net_);
}

void Progress::print(uint64_t bytes)
{
    next_ = bytes + kStep;
    std::string line = text("%s: %s", what_, bytesText(bytes).c_str());
    if (total_ > 0)
        line += text(" of %s, %u %%", bytesText(total_).c_str(), static_cast<unsigned>(bytes * 100 / total_));
    showProgress(net_, line.c_str());
}

} // namespace sqlhost
