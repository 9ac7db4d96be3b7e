#include "client/answerreader.h"

#include <algorithm>
#include <cstring>

#include "text.h"

namespace sqlhost {
namespace {

[[noreturn]] void senseless() { throw Failure("the server's answer makes no sense"); }

} // namespace

// The next message, when the last one is used up; false at the end.
bool AnswerReader::fill()
{
    if (!piece_.empty()) return true;
    if (ended_) return false;
    const Channel::Message message = channel_.receive(context_);
    if (message.code != 0 && message.code != kCodeEnd && message.code != kCodeError) senseless();
    ended_ = message.code != 0;
    piece_ = message.data;
    return !ended_;
}

// All of them, or none when the answer has ended.
bool AnswerReader::take(std::string& bytes, size_t count)
{
    bytes.clear();
    while (bytes.size() < count && fill()) {
        const std::string_view part = piece_.substr(0, count - bytes.size());
        bytes += part;
        piece_.remove_prefix(part.size());
    }
    if (bytes.size() < count && !bytes.empty()) senseless();
    return bytes.size() == count;
}

bool AnswerReader::next()
{
    std::string head;
    if (!take(head, kFrameHead)) return false;
    uint32_t length;
    memcpy(&length, &head[1], sizeof length);
    type_ = head[0];
    if (length > kLongestFrame || !take(payload_, length)) senseless();
    return true;
}

} // namespace sqlhost
