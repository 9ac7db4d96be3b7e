// The server's answer to one request, sent while it is made.
#pragma once

#include <memory_resource>
#include <string>
#include <string_view>
#include <vector>

#include "value.h"
#include "wire/channel.h"

namespace sqlhost {

class Answer {
public:
    // Frames are put together in this memory, piece by piece.
    Answer(KEM_PSDCTX_T context, Channel& channel, std::pmr::memory_resource& memory)
        : context_(context), channel_(channel), piece_(&memory)
    {}

    // A result: its columns, its rows, its end. Each may throw PeerGone.
    void columns(const std::vector<std::string>& names);
    void row(const std::vector<Value>& values);
    void done(uint64_t changedRows);

    // The end of the answer: all was well, or not.
    void finish();
    void fail(uint32_t place, std::string_view why);

private:
    void begin(char type, size_t length);
    void add(const void* bytes, size_t count);
    void addText(std::string_view text);
    void end(bool flush);

    KEM_PSDCTX_T context_;
    Channel& channel_;
    std::pmr::string piece_; // of the frame, not sent yet
};

} // namespace sqlhost
