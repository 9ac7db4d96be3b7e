// The search of one directory for the names that a shell pattern matches, collections of paths, and lists of found
// files. All that a search needs lies in the caller's record, so any number of them may run; no locks.
//
// A match is looked at by its name in the stream's own directory: that answers what its path would, without putting a
// path together and walking down it for every entry.

#include <dirent.h>
#include <fnmatch.h>
#include <sys/stat.h>

#include <kemsd/file.h>
#include <kemsd/memory.h>
#include <algorithm>
#include <cstring>
#include <string_view>

#include "sd/base/leaseguard.h"
#include "sd/base/outcome.h"

namespace {

using sd::fail;
using sd::failErrno;
using sd::finish;
using sd::ok;
using sd::Outcome;
using sd::passLeaseGuard;
using sd::restate;

constexpr const char* kSource = "sd/sdfio";
constexpr KEM_UINT_T kFirstCapacity = 16; // paths of a collection
constexpr int kRefused = 1;               // what the list calls answer instead of a status

// The whole of a field of the record: the text, then zeros. False when it does not fit.
template <size_t capacity>
bool fillField(char (&field)[capacity], std::string_view text)
{
    memset(field, 0, capacity);
    if (text.size() >= capacity) return false;
    memcpy(field, text.data(), text.size());
    return true;
}

// Directory and pattern of a search text.
bool takeSearchText(KEM_FILEFINDINFO_T& search, const char* text)
{
    const char* const slash = strrchr(text, '/');
    const char* const pattern = slash ? slash + 1 : text;
    const std::string_view directory = slash ? std::string_view(text, pattern - text) : "./";
    return fillField(search.szFilePattern, pattern) && fillField(search.szDirectory, directory);
}

bool matches(const char* pattern, const char* name)
{
    const bool hidden = name[0] == '.';
    return !hidden && (fnmatch(pattern, name, 0) == 0 || strcmp(pattern, name) == 0);
}

// The entry goes to the caller's record, so that the stream holds nothing that the caller still looks at.
int readEntry(KEM_FILEFINDINFO_T& search, dirent*& entry)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return readdir_r(search.hDir, &search.findInfo, &entry);
#pragma GCC diagnostic pop
}

// The record's name field is shorter than names may be: a longer one is read where the entry lies.
void takeName(KEM_FILEFINDINFO_T& search)
{
    char* const name = search.findInfo.d_name;
    const size_t kept = strnlen(name, sizeof search.szTmp - 1);
    memcpy(search.szTmp, name, kept);
    search.szTmp[kept] = 0;
    search.pszFileName = name[kept] == 0 ? search.szTmp : name;
}

Outcome takeAttributes(KEM_FILEFINDINFO_T& search)
{
    struct stat record;
    if (fstatat(dirfd(search.hDir), search.pszFileName, &record, 0) == -1) return failErrno(SDSTS_FILE_MATCH_STAT);
    if (S_ISDIR(record.st_mode)) {
        search.ulFileAttr = KEM_FILEATTR_DIRECTORY; // Deliberate: size and time stay those of an earlier match.
        return ok();
    }
    search.ulFileAttr = KEM_FILEATTR_FILE;
    search.fileSize = static_cast<KEM_ULONGLONG_T>(record.st_size);
    search.createTime = record.st_mtime;
    return ok();
}

Outcome nextMatch(KEM_FILEFINDINFO_T& search)
{
    search.pszFileName = nullptr;
    dirent* entry = nullptr;
    do {
        const int result = readEntry(search, entry);
        if (result != 0 || !entry) return fail(SDSTS_FILE_NO_MATCH, result);
    } while (!matches(search.szFilePattern, entry->d_name));
    takeName(search);
    return takeAttributes(search);
}

Outcome firstMatch(KEM_FILEFINDINFO_T& search, const char* text)
{
    search.hDir = nullptr;
    search.pszFileName = nullptr;
    if (!takeSearchText(search, text)) return fail(SDSTS_FILE_FIND, ENAMETOOLONG);
    search.hDir = opendir(search.szDirectory);
    if (!search.hDir) return failErrno(SDSTS_FILE_FIND);
    const Outcome match = nextMatch(search);
    if (!match.failed()) return match;
    closedir(search.hDir);
    search.hDir = nullptr;
    search.pszFileName = nullptr;
    return fail(match.sts == SDSTS_FILE_NO_MATCH ? SDSTS_FILE_NOT_FOUND : SDSTS_FILE_FIND, match.os);
}

Outcome endSearch(KEM_FILEFINDINFO_T& search)
{
    // Deliberate: the error number says that there is no stream to close, which no system call was asked.
    if (!search.hDir) return fail(SDSTS_FILE_FIND_CLOSE, EFAULT);
    const int result = closedir(search.hDir);
    search.hDir = nullptr;
    return result == -1 ? failErrno(SDSTS_FILE_FIND_CLOSE) : ok();
}

// The paths that a collecting search has found so far.
struct Collection {
    void* owner;
    KEM_STR_T* paths = nullptr;
    KEM_UINT_T count = 0;
    KEM_UINT_T capacity = 0;
};

KEM_STS_T makeRoom(Collection& found)
{
    if (found.count < found.capacity) return 0;
    const KEM_UINT_T capacity = found.paths ? 2 * found.capacity : kFirstCapacity;
    void* paths;
    const KEM_STS_T sts = ovRealloc(found.owner, capacity * sizeof(KEM_STR_T), found.paths, &paths, kSource, __LINE__);
    if (sts != 0) return sts;
    found.paths = static_cast<KEM_STR_T*>(paths);
    found.capacity = capacity;
    return 0;
}

KEM_STS_T addPath(Collection& found, const KEM_FILEFINDINFO_T& match)
{
    if (const KEM_STS_T sts = makeRoom(found); sts != 0) return sts;
    const size_t bytes = strlen(match.szDirectory) + strlen(match.pszFileName) + 1;
    void* path;
    const KEM_STS_T sts = ovMalloc(found.owner, std::max(bytes, size_t{KEM_FILEPATH_MAX}), &path, kSource, __LINE__);
    if (sts != 0) return sts;
    found.paths[found.count++] = static_cast<KEM_STR_T>(path);
    stpcpy(stpcpy(static_cast<KEM_STR_T>(path), match.szDirectory), match.pszFileName);
    return 0;
}

// Adds what matches, up to the status that ends it.
KEM_STS_T collect(KEM_PSDCTX_T ctx, const char* text, KEM_ULONG_T attributes, Collection& found)
{
    KEM_FILEFINDINFO_T search;
    KEM_STS_T sts = KemSdFileFindFirst(ctx, text, attributes, &search);
    if (sts != 0) return sts;
    while (sts == 0) {
        sts = addPath(found, search);
        if (sts == 0) sts = KemSdFileFindNext(ctx, &search);
    }
    (void)endSearch(search);
    return sts;
}

// Deliberate: a directory that cannot be read holds no matches.
constexpr bool endsCollection(KEM_STS_T sts)
{
    return sts == SDSTS_FILE_NO_MORE || sts == SDSTS_FILE_NOT_FOUND || sts == SDSTS_FILE_FIND;
}

// False when there is no match to copy, or one that does not fit, which is no match of a search's own.
bool fillNode(KEM_FILE_LIST& node, const KEM_FILEFINDINFO_T& match)
{
    const size_t bytes = strlen(match.pszFileName) + 1;
    if (bytes > sizeof node.name) return false;
    memcpy(node.name, match.pszFileName, bytes);
    node.creationTime = match.createTime;
    node.fileSize = static_cast<KEM_LONG_T>(match.fileSize);
    node.next = nullptr;
    return true;
}

} // namespace

KEM_FUNC_M KemSdFileFindFirst(KEM_PSDCTX_T pSdCtx, const char* pszFilePattern, KEM_ULONG_T ulAttr,
                              KEM_PFILEFINDINFO_T pFileFindInfo)
{
    passLeaseGuard();
    if (!pFileFindInfo || !pszFilePattern) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    pFileFindInfo->ulFindAttr = ulAttr;
    return finish(pSdCtx, firstMatch(*pFileFindInfo, pszFilePattern));
}

KEM_FUNC_M KemSdFileFindNext(KEM_PSDCTX_T pSdCtx, KEM_PFILEFINDINFO_T pFileFindInfo)
{
    passLeaseGuard();
    if (!pFileFindInfo || !pFileFindInfo->hDir) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    const Outcome match = nextMatch(*pFileFindInfo);
    if (!match.failed()) return finish(pSdCtx, match);
    const bool atEnd = match.sts == SDSTS_FILE_NO_MATCH;
    return finish(pSdCtx, fail(atEnd ? SDSTS_FILE_NO_MORE : SDSTS_FILE_FIND_NEXT, match.os));
}

KEM_FUNC_M KemSdFileFindClose(KEM_PSDCTX_T pSdCtx, KEM_PFILEFINDINFO_T pFileFindInfo)
{
    if (!pFileFindInfo) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    return finish(pSdCtx, endSearch(*pFileFindInfo));
}

KEM_FUNC_M KemSdFileMatch(KEM_PSDCTX_T pSdCtx, KEM_PFILEFINDINFO_T pFileFindInfo)
{
    passLeaseGuard();
    if (!pFileFindInfo || !pFileFindInfo->hDir) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    return finish(pSdCtx, nextMatch(*pFileFindInfo));
}

KEM_FUNC_M KemSdFileFind(void* pUniqueAddress, KEM_PSDCTX_T pSdCtx, const char*, const char* szFileSpec,
                         KEM_ULONG_T uFileAttrs, KEM_STR_T** paszFilePaths, KEM_PUINT_T puNumFound)
{
    if (!szFileSpec || !paszFilePaths || !puNumFound) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    *paszFilePaths = nullptr;
    *puNumFound = 0;
    Collection found{pUniqueAddress};
    const KEM_STS_T sts = collect(pSdCtx, szFileSpec, uFileAttrs, found);
    if (!endsCollection(sts)) {
        KemSdFileFreeNames(pUniqueAddress, found.paths, found.count);
        return restate(pSdCtx, sts);
    }
    *paszFilePaths = found.paths;
    *puNumFound = found.count;
    return finish(pSdCtx, ok());
}

void KemSdFileFreeNames(void*, KEM_STR_T* aszFileNames, KEM_UINT_T uNumNames)
{
    if (!aszFileNames) return;
    for (KEM_UINT_T i = 0; i < uNumNames; ++i) ovFree(aszFileNames[i], kSource, __LINE__);
    ovFree(aszFileNames, kSource, __LINE__);
}

int KemSdAddFileListItem(KEM_PFILE_LIST fileList, KEM_PFILEFINDINFO_T fileinfo, KEM_BOOL_T bAlloc)
{
    if (!fileList || !fileinfo || !fileinfo->pszFileName) return kRefused;
    if (!bAlloc) return fillNode(*fileList, *fileinfo) ? 0 : kRefused;
    void* block;
    if (ovMalloc(nullptr, sizeof(KEM_FILE_LIST), &block, kSource, __LINE__) != 0) return kRefused;
    auto* const node = static_cast<KEM_PFILE_LIST>(block);
    if (!fillNode(*node, *fileinfo)) {
        ovFree(node, kSource, __LINE__);
        return kRefused;
    }
    fileList->next = node; // Deliberate: what followed is no longer reached; the caller passes the list's tail.
    return 0;
}

int KemSdDeleteFileListItems(KEM_PFILE_LIST fileList)
{
    if (!fileList) return 0;
    while (KEM_PFILE_LIST const node = fileList->next) {
        fileList->next = node->next;
        ovFree(node, kSource, __LINE__);
    }
    return 0;
}
