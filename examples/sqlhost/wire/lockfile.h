// A file whose bytes are locked to tell other processes that this one lives, and what it says about itself.
//
// A lock belongs to the open file, and the kernel drops it when the process ends, however it ends. So nobody has to
// trust a process id. The file stays when its users are gone: one that is removed could be locked twice.
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
