#include "input.h"

#include <fcntl.h>
#include <kemsd/file.h>
#include <unistd.h>

#include <cstring>

#include "text.h"

namespace sqlhost {

Input::Input(KEM_PSDCTX_T context, const std::string& path)
    : context_(context), name_(path == "-" ? "standard input" : path)
{
    if (path == "-") {
        handle_ = STDIN_FILENO;
        return;
    }
    if (KemSdFileOpen(context_, path.c_str(), O_RDONLY | O_CLOEXEC, 0, &handle_) != 0)
        throw Failure(text("cannot open %s: %s", name_.c_str(), strerror(context_->osRetCode)));
}

Input::~Input()
{
    if (handle_ > STDIN_FILENO) KemSdFileClose(context_, handle_);
}

bool Input::fill()
{
    KEM_INT_T got = 0;
    before_ += filled_;
    at_ = filled_ = 0;
    if (KemSdFileRead(context_, handle_, buffer_, sizeof buffer_, &got) != 0)
        throw Failure(text("cannot read %s: %s", name_.c_str(), strerror(context_->osRetCode)));
    filled_ = static_cast<size_t>(got);
    return got > 0;
}

std::string Input::rest()
{
    std::string all;
    while (at_ < filled_ || fill()) {
        all.append(buffer_ + at_, filled_ - at_);
        at_ = filled_;
    }
    return all;
}

} // namespace sqlhost
