#include "serve/answer.h"

#include <cstring>

#include "text.h"

namespace sqlhost {
namespace {

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

size_t rowBytes(const std::vector<Value>& values)
{
    size_t bytes = values.size(); // a type each
    for (const Value& value : values)
        if (wireType(value.type) != kValueNull) bytes += sizeof(uint32_t) + value.bytes.size();
    return bytes;
}

} // namespace

// The length is known when the frame is complete.
void Answer::begin(char type)
{
    frame_.assign(kFrameHead, '\0');
    frame_[0] = type;
}

// A frame that is too long is refused before it takes memory, and a long one takes it once.
void Answer::makeRoom(size_t count)
{
    if (count > kFrameHead + kLongestFrame - frame_.size())
        throw Failure(text("a row may have at most %s", bytesText(kLongestFrame).c_str()));
    frame_.reserve(frame_.size() + count);
}

void Answer::add(const void* bytes, size_t count)
{
    makeRoom(count);
    frame_.append(static_cast<const char*>(bytes), count);
}

void Answer::addText(std::string_view text)
{
    const uint32_t length = static_cast<uint32_t>(text.size());
    add(&length, sizeof length);
    add(text.data(), text.size());
}

void Answer::sendFrame(bool flush)
{
    const uint32_t length = static_cast<uint32_t>(frame_.size() - kFrameHead);
    memcpy(&frame_[1], &length, sizeof length);
    channel_.send(context_, frame_, flush);
}

void Answer::columns(const std::vector<std::string>& names)
{
    const uint16_t count = static_cast<uint16_t>(names.size());
    begin(kFrameColumns);
    add(&count, sizeof count);
    for (const std::string& name : names) addText(name);
    sendFrame(false);
}

void Answer::row(const std::vector<Value>& values)
{
    begin(kFrameRow);
    makeRoom(rowBytes(values));
    for (const Value& value : values) {
        const char type = wireType(value.type);
        add(&type, 1);
        if (type != kValueNull) addText(value.bytes);
    }
    sendFrame(false);
}

// Sent at once, so that nothing is unsent when the code follows, and the client sees each statement's result as soon as
// it is there.
void Answer::done(uint64_t changedRows)
{
    begin(kFrameDone);
    add(&changedRows, sizeof changedRows);
    sendFrame(true);
}

void Answer::finish() { channel_.sendCode(context_, kCodeEnd); }

void Answer::fail(uint32_t place, std::string_view why)
{
    begin(kFrameError);
    add(&place, sizeof place);
    add(why.data(), why.size());
    sendFrame(true);
    channel_.sendCode(context_, kCodeError);
}

} // namespace sqlhost
