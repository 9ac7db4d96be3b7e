// The frames of an answer, out of the messages that bring them.
#pragma once

#include <string>

#include "wire/channel.h"
#include "wire/fields.h"

namespace sqlhost {

class AnswerReader {
public:
    AnswerReader(KEM_PSDCTX_T context, Channel& channel) : context_(context), channel_(channel) {}

    // Takes the next frame: false at the end of the answer. Throws PeerGone, or Failure when it makes no sense.
    bool next();
    char type() const { return type_; }
    std::string_view payload() const { return payload_; }

private:
    bool fill();
    bool take(std::string& bytes, size_t count);

    KEM_PSDCTX_T context_;
    Channel& channel_;
    std::string_view piece_; // of the last message, what is not yet taken
    bool ended_ = false;
    char type_ = 0;
    std::string payload_;
};

} // namespace sqlhost
