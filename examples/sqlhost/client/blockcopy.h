// A file copied in blocks, several requests at a time.
#pragma once

#include <kemsd/file.h>

#include <cstdint>
#include <string>

namespace sqlhost {

// An open file, and what to call it when something is wrong with it.
struct NamedFile {
    KEM_FILEHDL_T handle;
    std::string path;
};

// Makes the first bytes of `to`, so many of them, those of `from`; what follows them in their last block is of no
// meaning. What `to` holds already, below `known` bytes, is compared and written only where it differs.
// Throws Failure, when no request is out any more.
void copyBlocks(KEM_PSDCTX_T context, const NamedFile& from, const NamedFile& to, uint64_t bytes, uint64_t known);

} // namespace sqlhost
