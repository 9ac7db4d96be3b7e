// The server layer's own search step. It keeps nothing and takes no locks; the stream and the search record are the
// caller's.

#include <dirent.h>
#include <fnmatch.h>
#include <limits.h>
#include <sys/stat.h>

#include <kemsd/file.h>
#include <cstdio>

#include "sd/base/leaseguard.h"

namespace {

using sd::passLeaseGuard;

constexpr OV_STS_T kEndOfDirectory = -1;

dirent* nextMatch(DIR* stream, const char* pattern)
{
    dirent* entry;
    do entry = readdir(stream);
    while (entry && (entry->d_name[0] == '.' || fnmatch(pattern, entry->d_name, 0) != 0));
    return entry;
}

// The entry is looked at by the record's directory, which need not be the one that the stream reads.
bool lookAt(const char* directory, const char* name, struct stat& record)
{
    char path[KEM_FILEPATH_MAX + NAME_MAX + 1];
    const int length = snprintf(path, sizeof path, "%s%s", directory, name);
    return length >= 0 && static_cast<size_t>(length) < sizeof path && stat(path, &record) == 0;
}

} // namespace

// Deliberate: the texts of the search are the record's, whatever the arguments say.
OV_STS_T ovMatchFile(OV_FINDINFO_T* pFindInfo, const char*, const char*)
{
    passLeaseGuard();
    if (!pFindInfo || !pFindInfo->hdir) return kEndOfDirectory;
    dirent* const entry = nextMatch(pFindInfo->hdir, pFindInfo->filePattern);
    if (!entry) return kEndOfDirectory;
    pFindInfo->fname = entry->d_name;
    struct stat record;
    if (!lookAt(pFindInfo->directory, entry->d_name, record))
        return SDSTS_NMPIPE_FAILED; // Deliberate: a pipe's status.
    pFindInfo->fattr = S_ISDIR(record.st_mode) ? KEM_FILEATTR_DIRECTORY : KEM_FILEATTR_FILE;
    return 0;
}
