// The fields of a frame: numbers, and texts behind their 32-bit lengths.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "text.h"

namespace sqlhost {

class FieldWriter {
public:
    template <class Number>
    void number(Number value)
    {
        bytes_.append(reinterpret_cast<const char*>(&value), sizeof value);
    }
    void text(std::string_view text)
    {
        number(static_cast<uint32_t>(text.size()));
        bytes_ += text;
    }
    // Bytes that are fields already.
    void add(std::string_view fields) { bytes_ += fields; }
    const std::string& bytes() const { return bytes_; }
    void clear() { bytes_.clear(); }

private:
    std::string bytes_;
};

// Takes the fields in turn. Throws Failure where the frame ends too soon.
class FieldReader {
public:
    // `complaint`: about a frame that ends too soon.
    explicit FieldReader(std::string_view payload, const char* complaint = "the server's answer makes no sense")
        : rest_(payload), complaint_(complaint)
    {}

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
    std::string_view take(size_t count)
    {
        if (count > rest_.size()) throw Failure(complaint_);
        const std::string_view taken = rest_.substr(0, count);
        rest_.remove_prefix(count);
        return taken;
    }

    std::string_view rest_;
    const char* complaint_;
};

} // namespace sqlhost
