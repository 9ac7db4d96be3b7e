#include "serve/answer.h"

#include <algorithm>

#include "text.h"

namespace sqlhost {
namespace {

constexpr size_t kPieceBytes = 16384; // of a frame, gathered before they are sent

char wireType(int type)
{
    switch (type) {
        case SQLITE_INTEGER:
            return kValueInteger;
        case SQLITE_FLOAT:
            return kValueReal;
        case SQLITE_TEXT:
            return kValueText;
        case SQLITE_BLOB:
            return kValueBlob;
        default:
            return kValueNull;
    }
}

size_t lengthOf(std::string_view text) { return sizeof(uint32_t) + text.size(); }

size_t lengthOf(const Value& value) { return 1 + (value.type == SQLITE_NULL ? 0 : lengthOf(value.bytes)); }

// Of a list's elements as they are sent.
template <class List>
size_t lengthOfAll(const List& list)
{
    size_t length = 0;
    for (const auto& element : list) length += lengthOf(element);
    return length;
}

} // namespace

// From here to the end of the frame only the channel may fail: a frame that has begun to be sent comes whole. So its
// length is known first, and there is room for its pieces.
void Answer::begin(char type, size_t length)
{
    if (length > kLongestFrame) throw Failure(text("a row may have at most %s", bytesText(kLongestFrame).c_str()));
    const uint32_t sent = static_cast<uint32_t>(length);
    piece_.clear();
    piece_.reserve(std::min(kFrameHead + length, kPieceBytes));
    add(&type, 1);
    add(&sent, sizeof sent);
}

void Answer::add(const void* bytes, size_t count)
{
    for (std::string_view rest(static_cast<const char*>(bytes), count); !rest.empty();) {
        if (piece_.size() == kPieceBytes) {
            channel_.send(context_, piece_, false);
            piece_.clear();
        }
        const std::string_view next = rest.substr(0, kPieceBytes - piece_.size());
        piece_ += next;
        rest.remove_prefix(next.size());
    }
}

void Answer::addText(std::string_view text)
{
    const uint32_t length = static_cast<uint32_t>(text.size());
    add(&length, sizeof length);
    add(text.data(), text.size());
}

void Answer::end(bool flush) { channel_.send(context_, piece_, flush); }

void Answer::columns(const std::vector<std::string>& names)
{
    const uint16_t count = static_cast<uint16_t>(names.size());
    begin(kFrameColumns, sizeof count + lengthOfAll(names));
    add(&count, sizeof count);
    for (const std::string& name : names) addText(name);
    end(false);
}

void Answer::row(const std::vector<Value>& values)
{
    begin(kFrameRow, lengthOfAll(values));
    for (const Value& value : values) {
        const char type = wireType(value.type);
        add(&type, 1);
        if (type != kValueNull) addText(value.bytes);
    }
    end(false);
}

// Sent at once, so that nothing is unsent when the code follows, and the client sees each statement's result as soon as
// it is there.
void Answer::done(uint64_t changedRows)
{
    begin(kFrameDone, sizeof changedRows);
    add(&changedRows, sizeof changedRows);
    end(true);
}

void Answer::finish() { channel_.sendCode(context_, kCodeEnd); }

void Answer::fail(uint32_t place, std::string_view why)
{
    begin(kFrameError, sizeof place + why.size());
    add(&place, sizeof place);
    add(why.data(), why.size());
    end(true);
    channel_.sendCode(context_, kCodeError);
}

} // namespace sqlhost
