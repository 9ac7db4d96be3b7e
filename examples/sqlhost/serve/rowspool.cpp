#include "serve/rowspool.h"

#include <fcntl.h>
#include <kemsd/file.h>

#include <algorithm>
#include <cstring>

#include "serve/guard.h"
#include "serve/requests.h"
#include "wire/protocol.h"

namespace sqlhost {
namespace {

[[noreturn]] void fail(KEM_PSDCTX_T context, const char* what)
{
    throw Failure(text("the server cannot %s: %s", what, strerror(context->osRetCode)));
}

} // namespace

RowSpool::RowSpool(KEM_PSDCTX_T context, const std::string& path, ImportTarget target)
    : context_(context), target_(std::move(target)), row_(target_.columns.size())
{
    constexpr int kFlags = O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC;
    if (KemSdFileOpen(context_, path.c_str(), kFlags, 0600, &handle_) != 0) fail(context_, "make a file for the rows");
    KemSdFileRemove(context_, path.c_str());
}

RowSpool::~RowSpool() { KemSdFileClose(context_, handle_); }

void RowSpool::add(std::string_view bytes)
{
    while (!bytes.empty()) {
        KEM_INT_T written = 0;
        if (KemSdFileWrite(context_, handle_, const_cast<char*>(bytes.data()), static_cast<KEM_UINT_T>(bytes.size()),
                           &written) != 0)
            fail(context_, "keep the rows");
        bytes.remove_prefix(static_cast<size_t>(written));
    }
}

void RowSpool::rewind()
{
    at_ = filled_ = 0;
    if (KemSdFileLSeek(context_, handle_, 0, SEEK_SET, nullptr) != 0) fail(context_, "read the rows");
}

bool RowSpool::fill()
{
    if (at_ < filled_) return true;
    KEM_INT_T got = 0;
    if (KemSdFileRead(context_, handle_, buffer_, sizeof buffer_, &got) != 0) fail(context_, "read the rows");
    at_ = 0;
    filled_ = static_cast<size_t>(got);
    return got > 0;
}

// All of them, or none at the end of the file.
bool RowSpool::take(void* bytes, size_t count)
{
    size_t taken = 0;
    while (taken < count && fill()) {
        const size_t piece = std::min(count - taken, filled_ - at_);
        memcpy(static_cast<char*>(bytes) + taken, buffer_ + at_, piece);
        at_ += piece;
        taken += piece;
    }
    if (taken < count && taken > 0) throw Failure("the rows end in the middle of one");
    return taken == count;
}

void RowSpool::takeAll(void* bytes, size_t count)
{
    if (!take(bytes, count) && count > 0) throw Failure("the rows end in the middle of one");
}

// The values lie one behind the other; where each begins is certain only when all are there.
bool RowSpool::next()
{
    if (!take(&line_, sizeof line_)) return false;
    bytes_.clear();
    std::vector<uint32_t> lengths(row_.size());
    for (uint32_t& length : lengths) {
        takeAll(&length, sizeof length);
        if (length == kNull) continue;
        if (length > kLongestValue - bytes_.size())
            throw RequestFailure(line_, "the row has more than " + countText(kLongestValue) + " bytes");
        bytes_.resize(bytes_.size() + length);
        takeAll(&bytes_[bytes_.size() - length], length);
    }
    const char* at = bytes_.data();
    for (size_t i = 0; i < row_.size(); ++i) {
        row_[i].reset();
        if (lengths[i] == kNull) continue;
        row_[i].emplace(at, lengths[i]);
        at += lengths[i];
    }
    return true;
}

} // namespace sqlhost
