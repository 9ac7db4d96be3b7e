// The frames of an answer, out of the messages that bring them.
#pragma once

#include <string>

#include "wire/channel.h"

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

// The fields of a frame in turn. Throws Failure where the frame ends too soon.
class FieldReader {
public:
    explicit FieldReader(std::string_view payload) : rest_(payload) {}

    template <class Number>
    Number number()
    {
        Number value;
        const std::string_view bytes = take(sizeof value);
        __builtin_memcpy(&value, bytes.data(), sizeof value);
        return value;
    }
    std::string_view text() { return take(number<uint32_t>()); }
    std::string_view rest() { return take(rest_.size()); }
    bool atEnd() const { return rest_.empty(); }

private:
    std::string_view take(size_t count);

    std::string_view rest_;
};

} // namespace sqlhost
