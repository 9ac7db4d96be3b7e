// A file that is being written beside the place where it belongs, and goes there when it is complete. What is not
// completed is removed, also when a signal ends the process.
#pragma once

#include <string>

#include "client/blockcopy.h"

namespace sqlhost {

class PartFile {
public:
    // Makes the file that will be `destination`. One at a time. Throws Failure.
    PartFile(KEM_PSDCTX_T context, const std::string& destination);
    ~PartFile();
    PartFile(const PartFile&) = delete;
    PartFile& operator=(const PartFile&) = delete;

    // Makes it the first bytes of that file, so many of them; those that are there already are not written again.
    // Throws Failure.
    void take(const NamedFile& source, uint64_t bytes);
    // Makes it durable and gives it its name; a file of that name is replaced or respected. Throws Failure.
    enum class Existing { replace, refuse };
    void complete(Existing existing);

private:
    void rename(Existing existing);
    void flushDirectory();
    [[noreturn]] void fail(const char* what) const;

    KEM_PSDCTX_T context_;
    const std::string destination_;
    NamedFile file_;
    uint64_t length_ = 0;
};

} // namespace sqlhost
