// Whole-file locks, and who holds or uses a file. The locks are the system's record locks over everything a file has or
// will have; the kernel keeps them, this file keeps nothing. Nothing here waits for a lock.
//
// Who uses a file is asked of a command, through a shell: every name that goes into its line arrives there as one word.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <kemsd/file.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "sd/base/leaseguard.h"
#include "sd/base/outcome.h"

namespace {

using sd::fail;
using sd::failErrno;
using sd::finish;
using sd::finishInvalid;
using sd::loadRelaxed;
using sd::ok;
using sd::Outcome;
using sd::passLeaseGuard;

constexpr size_t kProcPathCapacity = 255;
constexpr size_t kTempNameCapacity = 1031; // what a temporary name takes at the worst
constexpr size_t kCommandCapacity = 1029;
constexpr size_t kLineCapacity = 1024;

// ---- Locks

// The lease takes the place of locks in failover mode.
bool locksAreOff() { return sd::failoverMode() || loadRelaxed(file_locking_mode) == KEM_FILE_LOCK_NONE; }

// Deliberate: unlike everywhere else the guard runs outside failover mode too, where locks are switched off.
KEM_STS_T succeedWithoutLock(KEM_PSDCTX_T ctx)
{
    KemSdGetLeaseGuard();
    return finish(ctx, ok());
}

// A lock of this type over the whole file: from its first byte to the end, wherever that will be.
struct flock wholeFile(short type)
{
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

Outcome setLock(KEM_FILEHDL_T file, short type, KEM_STS_T failure)
{
    struct flock lock = wholeFile(type);
    return fcntl(file, F_SETLK, &lock) == -1 ? failErrno(failure) : ok();
}

// The set-group-ID bit without group-execute makes the kernel enforce locks on the file. The mark stays for good.
Outcome markEnforced(KEM_FILEHDL_T file)
{
    struct stat record;
    if (fstat(file, &record) == -1) return failErrno(SDSTS_FILE_LOCK);
    if (record.st_mode & S_ISGID) return ok();
    const mode_t marked = (record.st_mode & ~S_IXGRP) | S_ISGID;
    return fchmod(file, marked) == -1 ? failErrno(SDSTS_FILE_LOCK) : ok();
}

// ---- The holder of a lock

// A field of a process's entry: how it is read, and to where.
struct Field {
    const char* format;
    void* to;
};

// Field by field, so that what cannot be read leaves the others as they are. Deliberate: a name with white space ends
// there, and what follows is misread.
void readProcessEntry(pid_t pid, std::initializer_list<Field> fields)
{
    char path[kProcPathCapacity];
    snprintf(path, sizeof path, "/proc/%d/stat", pid);
    FILE* const entry = fopen(path, "r");
    if (!entry) return;
    for (const Field& field : fields) {
        [[maybe_unused]] const int stored = fscanf(entry, field.format, field.to);
    }
    fclose(entry);
}

// ---- Who uses a file

// A line for the shell in a buffer of fixed size.
class CommandLine {
public:
    void add(const char* text)
    {
        for (; *text; text++) addByte(*text);
    }

    // A name of harmless characters as it is, any other between quotes, its own quotes outside of them.
    void addWord(const char* name)
    {
        if (name[strspn(name, kHarmless)] == 0) return add(name);
        add("'");
        for (; *name; name++) *name == '\'' ? add("'\\''") : addByte(*name);
        add("'");
    }

    // Null when it did not fit.
    const char* text() const { return length_ < sizeof text_ ? text_ : nullptr; }

private:
    void addByte(char byte)
    {
        if (length_ < sizeof text_ - 1) text_[length_] = byte;
        length_++;
    }

    static constexpr const char* kHarmless = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_./+,:@%=-";

    char text_[kCommandCapacity] = {};
    size_t length_ = 0; // what all of it would take
};

// The command's answer to a question about this name begins with the name; its next field is the first process id. A
// name with white space has fields of its own, which are passed over.
bool namesProcess(const char* line, const char* name)
{
    const char* lastField = line;
    for (size_t i = 0; name[i]; i++)
        if (strchr(" \t\n\v\f\r", name[i])) lastField = line + i + 1;
    long pid;
    return sscanf(lastField, "%*s %ld", &pid) == 1;
}

Outcome readAnswer(const char* answers, const char* name, bool& inUse)
{
    KEM_SDCTX_T step = {};
    KEM_FILEHDL_T file;
    if (KemSdFileOpen(&step, answers, O_RDONLY, 0, &file) != 0) return fail(SDSTS_FILE_STATUS, step.osRetCode);
    char line[kLineCapacity];
    const KEM_STS_T got = KemSdFileGets(&step, file, line, sizeof line);
    KemSdFileClose(nullptr, file);
    if (got != 0 || strncmp(line, name, strlen(name)) != 0) return fail(SDSTS_FILE_STATUS, step.osRetCode);
    inUse = namesProcess(line, name);
    return ok();
}

Outcome askCommand(const char* name, const char* answers, bool& inUse)
{
    CommandLine command;
    command.add("fuser ");
    command.addWord(name);
    command.add(" 1>");
    command.addWord(answers);
    command.add(" 2>&1");
    if (!command.text()) return fail(SDSTS_FILE_STATUS, ENAMETOOLONG);
    if (system(command.text()) == -1) return failErrno(SDSTS_FILE_STATUS);
    return readAnswer(answers, name, inUse);
}

// Whether a process has the file open. A name that the command would take for an option is not asked for.
Outcome findUse(const char* name, bool& inUse)
{
    if (name[0] == '-') return fail(SDSTS_FILE_STATUS);
    KEM_SDCTX_T step = {};
    char answers[kTempNameCapacity];
    if (KemSdFileTempNameGet(&step, nullptr, answers) != 0)
        return fail(SDSTS_FILE_STATUS, step.osRetCode ? step.osRetCode : ENAMETOOLONG);
    const Outcome outcome = askCommand(name, answers, inUse);
    KemSdFileRemove(nullptr, answers);
    return outcome;
}

bool isAccessible(const char* name, int mode)
{
    KEM_BOOL_T answer = FALSE;
    KemSdFileAccess(nullptr, name, mode, &answer);
    return answer;
}

Outcome fileStatus(const char* name, KEM_BIT32_T& status)
{
    status |= KEM_FILE_STATUS_PENDING;
    if (!isAccessible(name, F_OK)) {
        status |= KEM_FILE_STATUS_ABSENT;
        return ok();
    }
    bool inUse = false;
    const bool readable = isAccessible(name, R_OK);
    const Outcome outcome = readable ? findUse(name, inUse) : ok();
    if (!readable || outcome.failed()) {
        status |= KEM_FILE_STATUS_UNKNOWN;
        return outcome;
    }
    status &= ~(KEM_FILE_STATUS_PENDING | KEM_FILE_STATUS_IN_USE | KEM_FILE_STATUS_FREE);
    status |= inUse ? KEM_FILE_STATUS_IN_USE : KEM_FILE_STATUS_FREE;
    return ok();
}

} // namespace

KEM_FUNC_M KemSdFileLock(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hdlFile, KEM_USHORT_T mode)
{
    if (locksAreOff()) return succeedWithoutLock(pSdCtx);
    if (loadRelaxed(file_locking_mode) == KEM_FILE_LOCK_MANDATORY) {
        const Outcome marked = markEnforced(hdlFile);
        if (marked.failed()) return finish(pSdCtx, marked);
    }
    return finish(pSdCtx, setLock(hdlFile, mode == 0 ? F_RDLCK : F_WRLCK, SDSTS_FILE_LOCK));
}

KEM_FUNC_M KemSdFileUnlock(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hdlFile)
{
    if (locksAreOff()) return succeedWithoutLock(pSdCtx);
    return finish(pSdCtx, setLock(hdlFile, F_UNLCK, SDSTS_FILE_UNLOCK));
}

KEM_FUNC_M KemSdFileLockProcInfo(KEM_PSDCTX_T pSdCtx, KEM_FILEHDL_T hdlFile, KEM_PULONG_T pid, KEM_PUCHAR_T processname,
                                 KEM_PUCHAR_T proc_stat, KEM_PULONG_T proc_parentid, KEM_PULONG_T proc_groupid)
{
    if (!pid || !processname || !proc_stat || !proc_parentid || !proc_groupid) return finishInvalid(pSdCtx);
    struct flock lock = wholeFile(F_WRLCK); // its process id is 0, and stays so when nothing is in the way
    if (fcntl(hdlFile, F_GETLK, &lock) == -1) return finish(pSdCtx, failErrno(SDSTS_FILE_LOCK));
    *pid = static_cast<KEM_ULONG_T>(lock.l_pid);
    readProcessEntry(
        lock.l_pid,
        {{"%d", pid}, {"%s", processname}, {"\t%c", proc_stat}, {"%d", proc_parentid}, {"%d", proc_groupid}});
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdFileGetStatus(KEM_PSDCTX_T pSdCtx, KEM_STR_T pszFileName, KEM_PBIT32_T pbt32Status)
{
    passLeaseGuard();
    if (!pszFileName || !pbt32Status) return finishInvalid(pSdCtx);
    return finish(pSdCtx, fileStatus(pszFileName, *pbt32Status));
}
