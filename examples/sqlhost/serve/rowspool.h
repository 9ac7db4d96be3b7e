// The rows of an import on their way through the server. They wait in a file without a name until all are there, so
// that the database is locked, and a write lease out, for no longer than SQLite takes to insert them: a client that is
// slow, or stopped, keeps nobody waiting, and one that dies leaves nothing.
#pragma once

#include <kemsd/context.h>

#include "tableimport.h"

namespace sqlhost {

class RowSpool {
public:
    // `path`: a name beside the database, which the file has for a moment. Throws Failure, as the others do.
    RowSpool(KEM_PSDCTX_T context, const std::string& path, ImportTarget target);
    ~RowSpool();
    RowSpool(const RowSpool&) = delete;
    RowSpool& operator=(const RowSpool&) = delete;

    const ImportTarget& target() const { return target_; }
    // Adds bytes of the stream of rows.
    void add(std::string_view bytes);

    // From here on rows are taken, from the first.
    void rewind();
    // Takes the next row: false after the last. Throws RequestFailure, with the row's line, for one that is none.
    bool next();
    // Valid until the next one is taken.
    const ImportRow& row() const { return row_; }
    uint32_t line() const { return line_; }

private:
    bool fill();
    bool take(void* bytes, size_t count);
    void takeAll(void* bytes, size_t count);

    KEM_PSDCTX_T context_;
    const ImportTarget target_;
    int handle_ = -1;
    size_t at_ = 0, filled_ = 0; // of the buffer
    char buffer_[65536];
    uint32_t line_ = 0;
    std::string bytes_; // of the row's values
    ImportRow row_;
};

} // namespace sqlhost
