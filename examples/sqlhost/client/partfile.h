// A file that is being written beside the place where it belongs, and goes there when it is complete. What is not
// completed is removed, also when a signal ends the process.
#pragma once

#include <kemsd/context.h>

#include <string>

namespace sqlhost {

class PartFile {
public:
    // Makes the file that will be `destination`. One at a time. Throws Failure.
    PartFile(KEM_PSDCTX_T context, const std::string& destination);
    ~PartFile();
    PartFile(const PartFile&) = delete;
    PartFile& operator=(const PartFile&) = delete;

    // Makes the bytes at that place these; those that are there already are not written. Throws Failure.
    void put(uint64_t place, char* bytes, size_t count);
    // Ends the file there. Throws Failure.
    void cut(uint64_t length);
    // Makes it durable and gives it its name; a file of that name is replaced or respected. Throws Failure.
    enum class Existing { replace, refuse };
    void complete(Existing existing);

private:
    bool holds(uint64_t place, const char* bytes, size_t count);
    void rename(Existing existing);
    void flushDirectory();
    [[noreturn]] void fail(const char* what) const;

    KEM_PSDCTX_T context_;
    const std::string destination_;
    const std::string path_;
    int handle_ = -1;
    std::string there_; // what was read last
};

} // namespace sqlhost
