// A file, or standard input, read through kemsd.
#pragma once

#include <kemsd/context.h>

#include <string>

namespace sqlhost {

class Input {
public:
    // `path`: a file, or "-" for standard input. Throws Failure when it cannot be opened.
    Input(KEM_PSDCTX_T context, const std::string& path);
    ~Input();
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;

    static constexpr int kEnd = -1;
    // The next byte, or kEnd. Throws Failure when the file cannot be read.
    int get() { return at_ < filled_ || fill() ? static_cast<unsigned char>(buffer_[at_++]) : kEnd; }
    int peek() { return at_ < filled_ || fill() ? static_cast<unsigned char>(buffer_[at_]) : kEnd; }
    // All that is left.
    std::string rest();
    // Bytes taken so far.
    uint64_t position() const { return before_ + at_; }
    // The file's name as a sentence has it.
    const std::string& name() const { return name_; }

private:
    bool fill();

    KEM_PSDCTX_T context_;
    std::string name_;
    int handle_ = -1;
    uint64_t before_ = 0; // bytes of earlier buffers
    size_t at_ = 0;
    size_t filled_ = 0;
    char buffer_[65536];
};

} // namespace sqlhost
