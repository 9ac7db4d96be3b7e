// A disk so small that it fills, mounted for one child of a test alone. Its mount goes with the child.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <string>

namespace kemsd::test {

inline bool writeText(const char* path, const std::string& text)
{
    const int file = open(path, O_WRONLY);
    if (file == -1) return false;
    const bool written = write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(file);
    return written;
}

// For whoever may not mount: becomes the root of name spaces of its own.
inline bool becomeRoot()
{
    const std::string user = "0 " + std::to_string(geteuid()) + " 1", group = "0 " + std::to_string(getegid()) + " 1";
    return unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && writeText("/proc/self/setgroups", "deny") &&
           writeText("/proc/self/uid_map", user) && writeText("/proc/self/gid_map", group);
}

// Mounts a disk of so many bytes there, for the calling process; false where that is not allowed.
inline bool mountDisk(const std::string& place, size_t bytes)
{
    const std::string size = "size=" + std::to_string(bytes);
    return (unshare(CLONE_NEWNS) == 0 || becomeRoot()) &&
           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", place.c_str(), "tmpfs", 0, size.c_str()) == 0;
}

} // namespace kemsd::test
