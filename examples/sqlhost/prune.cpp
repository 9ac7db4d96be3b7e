// Old files that a pattern matches. Everything is looked at before anything is removed.
#include <dirent.h>
#include <kemsd/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <tuple>
#include <vector>

#include "client/runtime.h"
#include "commands.h"
#include "wire/serverdir.h"

namespace sqlhost {
namespace {

struct Found {
    std::string path;
    timespec changed;

    bool isNewerThan(const Found& other) const
    {
        return std::tie(changed.tv_sec, changed.tv_nsec, path) >
               std::tie(other.changed.tv_sec, other.changed.tv_nsec, other.path);
    }
};

// A search through the library, from the opened directory on: one that also opened it would end at a link that leads
// nowhere, if that is the first match.
class Search {
public:
    Search(KEM_PSDCTX_T context, const std::string& directory, const std::string& pattern) : context_(context)
    {
        copy(record_.szDirectory, directory);
        copy(record_.szFilePattern, pattern);
        record_.hDir = opendir(directory.c_str());
        if (!record_.hDir) throw Failure(text("cannot open %s: %s", directory.c_str(), strerror(errno)));
    }
    ~Search() { KemSdFileFindClose(context_, &record_); }
    Search(const Search&) = delete;
    Search& operator=(const Search&) = delete;

    // The path of the next match; empty at the end.
    std::string next()
    {
        KEM_STS_T status;
        do status = KemSdFileMatch(context_, &record_);
        while (status == SDSTS_FILE_MATCH_STAT);
        if (status == 0) return std::string(record_.szDirectory) + record_.pszFileName;
        if (context_->osRetCode != 0)
            throw Failure(text("cannot read %s: %s", record_.szDirectory, strerror(context_->osRetCode)));
        return {};
    }

private:
    template <size_t capacity>
    static void copy(char (&field)[capacity], const std::string& text)
    {
        if (text.size() >= capacity) throw Failure(text + ": longer than a search allows");
        memcpy(field, text.c_str(), text.size() + 1);
    }

    KEM_PSDCTX_T context_;
    KEM_FILEFINDINFO_T record_{};
};

// Regular files themselves: a link is none, whatever it leads to.
std::vector<Found> filesOf(KEM_PSDCTX_T context, const PruneOptions& options)
{
    std::vector<Found> files;
    const std::string directory = options.directory + (options.directory.ends_with('/') ? "" : "/");
    Search search(context, directory, options.pattern);
    for (std::string path; !(path = search.next()).empty();) {
        struct stat status;
        if (lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode)) files.push_back({path, status.st_mtim});
    }
    return files;
}

void check(const PruneOptions& options)
{
    if (options.pattern.find('/') != std::string::npos)
        throw Failure(options.pattern + ": a pattern is for names, which hold no \"/\"");
    std::error_code ignored;
    if (std::filesystem::exists(ServerDirectory(options.directory).serverLock, ignored))
        throw Failure(options.directory + " is a server's directory: what lies there is the server's");
}

} // namespace

void prune(const PruneOptions& options)
{
    check(options);
    ClientRuntime runtime;
    std::vector<Found> files = filesOf(runtime.context(), options);
    std::sort(files.begin(), files.end(), [](const Found& a, const Found& b) { return a.isNewerThan(b); });
    const size_t kept = std::min(options.keep, files.size());
    for (size_t i = kept; i < files.size(); ++i) {
        const char* const path = files[i].path.c_str();
        if (!options.dryRun && KemSdFileRemove(runtime.context(), path) != 0)
            throw Failure(text("cannot remove %s: %s", path, strerror(runtime.context()->osRetCode)));
        printf("%s %s\n", options.dryRun ? "would remove" : "removed", path);
    }
    printf("(%s %s, %s kept)\n", countedText(files.size() - kept, "file").c_str(),
           options.dryRun ? "to remove" : "removed", countText(kept).c_str());
}

} // namespace sqlhost
