// A file whose bytes are locked to tell other processes that this one lives, and what it says about itself.
//
// The kernel drops a lock when the process ends, however it ends. So nobody has to trust a process id. The file stays
// when its users are gone: one that is removed could be locked twice.
//
// There are two kinds, which keep each other out. A byte's lock belongs to the open file, so several users of one
// process have their own. The whole file's is kemsd's: it belongs to the process, and the system can tell which that
// is.
#pragma once

#include <kemsd/context.h>

#include <cstdint>
#include <string>

namespace sqlhost {

class LockFile {
public:
    // Opens the file. Throws Failure.
    enum class Missing { make, refuse };
    LockFile(KEM_PSDCTX_T context, const std::string& path, Missing missing);
    ~LockFile();
    LockFile(const LockFile&) = delete;
    LockFile& operator=(const LockFile&) = delete;

    // Locks the whole file for this process, without waiting; false when another one has locked it or a byte of it. The
    // process must open the file only once: closing any other descriptor of it would drop the lock. Throws Failure.
    bool tryLockWhole(KEM_PSDCTX_T context);
    // The process that has locked it, by its id and name; one that cannot be told is "another process".
    std::string holder(KEM_PSDCTX_T context) const;

    // Locks a byte, without waiting; false when it is locked elsewhere. Throws Failure.
    bool tryLock(int64_t byte);
    void unlock(int64_t byte);
    // Whether anybody else has locked that byte.
    bool isLocked(int64_t byte) const;

    // The first kLongestNote bytes of the file.
    static constexpr size_t kLongestNote = 64;
    std::string note(KEM_PSDCTX_T context) const;

    // The descriptor, for those who write the note.
    int handle() const { return handle_; }
    // Leaves the locks to the end of the process.
    void keep() { handle_ = -1; }

private:
    std::string path_;
    int handle_ = -1;
};

} // namespace sqlhost
