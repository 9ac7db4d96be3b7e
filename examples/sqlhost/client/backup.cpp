// The copy is made by the client, so that the server serves on; the server only keeps everybody from writing. All that
// need not happen meanwhile happens before or after. So the file is copied twice, the first time while others write:
// what that is worth shows the second time, under the pause, when only those pieces are written that are not the same.
// The standstill is as long as reading both takes.
//
// The database file alone is the copy. While the pause is in force the server holds the right to write, which cannot be
// had as long as a journal has to be played back: nothing of what may lie beside the file is needed.
#include <fcntl.h>
#include <kemsd/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "client/asker.h"
#include "client/commands.h"
#include "client/partfile.h"
#include "client/runtime.h"
#include "wire/fields.h"

namespace sqlhost {
namespace {

namespace fs = std::filesystem;

// A journal that lies beside the copy would be taken for the copy's own.
void requirePlace(const BackupOptions& options, const std::string& database)
{
    std::error_code ignored;
    const std::string& destination = options.destination;
    const fs::file_status there = fs::symlink_status(destination, ignored);
    if (fs::equivalent(destination, database, ignored)) throw Failure(destination + " is the database itself");
    if (fs::exists(there) && !options.force) throw Failure(destination + " exists; --force replaces it");
    if (fs::exists(there) && !fs::is_regular_file(there)) throw Failure(destination + " is no regular file");
    for (const char* suffix : {"-journal", "-wal"})
        if (fs::exists(destination + suffix, ignored))
            throw Failure(destination + suffix + " exists: it would be taken for a part of the copy");
}

// The database file.
class Source {
public:
    Source(KEM_PSDCTX_T context, const std::string& path) : context_(context), file_{-1, path}
    {
        if (KemSdDirectIOFileOpen(context_, path.c_str(), O_RDONLY, 0, O_CLOEXEC, 0, 0, &file_.handle, nullptr) != 0)
            fail("open", context_->osRetCode);
    }
    ~Source() { KemSdDirectIOFileClose(nullptr, file_.handle, nullptr); }
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    const NamedFile& file() const { return file_; }

    // Asked of the system itself: a file that is too long has to be seen as that.
    uint64_t bytes() const
    {
        struct stat record;
        if (fstat(file_.handle, &record) != 0) fail("measure", errno);
        return static_cast<uint64_t>(record.st_size);
    }

private:
    [[noreturn]] void fail(const char* what, int error) const
    {
        throw Failure(text("cannot %s %s: %s", what, file_.path.c_str(), strerror(error)));
    }

    KEM_PSDCTX_T context_;
    NamedFile file_;
};

// How many bytes the copy has.
uint64_t copy(const Source& source, PartFile& part)
{
    const uint64_t bytes = source.bytes();
    part.take(source.file(), bytes);
    return bytes;
}

void pauseWriting(Connection& connection, uint32_t seconds)
{
    FieldWriter limit;
    limit.number(seconds);
    askForNumber(connection, kRequestPause, limit.bytes(), "nothing was copied");
}

// How long writing stood still. An answer tells that it did to the end of the copying.
uint64_t resumeWriting(Connection& connection)
try {
    return askForNumber(connection, kRequestResume, {}, "writing may have gone on meanwhile");
} catch (const Failure& failure) {
    throw Failure(std::string(failure.what()) + ": the copy could be inconsistent and was removed");
}

std::string standstill(uint64_t microseconds)
{
    if (microseconds < 1000000) return text("%.1f ms", static_cast<double>(microseconds) / 1e3);
    return text("%.2f s", static_cast<double>(microseconds) / 1e6);
}

} // namespace

void backUp(const BackupOptions& options)
{
    ClientRuntime runtime;
    ServerLink link(runtime.context(), options.directory);
    Connection& connection = link.connection();
    const std::string database = ServerDirectory(options.directory).database;
    requirePlace(options, database);
    PartFile part(runtime.context(), options.destination);
    Source source(runtime.context(), database);
    copy(source, part);
    pauseWriting(connection, options.seconds);
    const uint64_t bytes = copy(source, part);
    const uint64_t stood = resumeWriting(connection);
    part.complete(options.force ? PartFile::Existing::replace : PartFile::Existing::refuse);
    printf("%s copied to %s; writing stood still for %s\n", bytesText(bytes).c_str(), options.destination.c_str(),
           standstill(stood).c_str());
}

} // namespace sqlhost
