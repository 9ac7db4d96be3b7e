// Path texts, which nothing is looked up for, and the name of the session's user. Stateless.

#include <pwd.h>
#include <unistd.h>

#include <kemsd/file.h>
#include <cstring>
#include <string_view>

#include "sd/base/outcome.h"

namespace {

using sd::fail;
using sd::finish;
using sd::ok;
using sd::Outcome;

constexpr const char* kCurrentDirectory = "./";
constexpr size_t kNoNameBytes = 8;        // of the caller's buffer, zeroed when there is no name
constexpr size_t kLoginCapacity = 256;    // LOGIN_NAME_MAX
constexpr size_t kUserCapacity = 1 << 14; // for the texts of a user's entry

// Source and result may be the same buffer.
KEM_STR_T put(KEM_STR_T result, std::string_view text)
{
    if (!result) return result;
    memmove(result, text.data(), text.size());
    result[text.size()] = 0;
    return result;
}

void putLogin(std::string_view name, KEM_STR_T text, KEM_SIZE_T& length)
{
    put(text, name);
    length = name.size();
}

// The forms with a buffer of the caller's, because any thread may ask.
Outcome findLogin(KEM_STR_T text, KEM_SIZE_T& length)
{
    char login[kLoginCapacity] = "";
    if (getlogin_r(login, sizeof login) == 0 && login[0] != 0) {
        putLogin(login, text, length);
        return ok();
    }
    passwd record;
    passwd* user = nullptr;
    char texts[kUserCapacity];
    const int error = getpwuid_r(geteuid(), &record, texts, sizeof texts, &user);
    if (!user) return fail(SDSTS_NO_LOGIN_NAME, error);
    putLogin(user->pw_name, text, length);
    return ok();
}

} // namespace

KEM_STR_T KemSdFileGetParentPath(const char* szFilePath, KEM_STR_T szParent)
{
    const char* const slash = szFilePath ? strrchr(szFilePath, '/') : nullptr;
    return put(szParent, slash ? std::string_view(szFilePath, slash + 1 - szFilePath) : kCurrentDirectory);
}

KEM_STR_T KemSdFileGetExtension(const char* szFilePath, KEM_BOOL_T bIncludeDot, KEM_STR_T szExt)
{
    // Deliberate: the last dot may stand in a directory's name.
    const char* const dot = szFilePath ? strrchr(szFilePath, '.') : nullptr;
    return put(szExt, !dot ? "" : bIncludeDot ? dot : dot + 1);
}

KEM_FUNC_M KemSdFileGetCanonicalPath(const char* szPath, KEM_INT_T, KEM_STR_T szCanonPath)
{
    if (!szPath || !szCanonPath) return SDSTS_INVALID_PARAM;
    put(szCanonPath, szPath); // Deliberate: unchanged, and whatever size was given.
    return 0;
}

KEM_FUNC_M KemSdGetSessionLoginUsername(KEM_PSDCTX_T pSdCtx, KEM_STR_T pszLoginUsername, KEM_SIZE_T* sizeBuf)
{
    if (!pszLoginUsername || !sizeBuf) return finish(pSdCtx, fail(SDSTS_INVALID_PARAM));
    const Outcome found = findLogin(pszLoginUsername, *sizeBuf);
    if (found.failed()) {
        *sizeBuf = 0;
        memset(pszLoginUsername, 0, kNoNameBytes);
    }
    return finish(pSdCtx, found);
}
