// The System V objects of a test, looked at and changed by the system's own calls.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "support/tempdir.h"

namespace kemsd::test {

// Remove what exists under a key.
inline void removeSetOf(key_t key)
{
    if (const int id = semget(key, 0, 0); id != -1) semctl(id, 0, IPC_RMID, 0);
}

inline void removeSegmentOf(key_t key)
{
    if (const int id = shmget(key, 0, 0); id != -1) shmctl(id, IPC_RMID, nullptr);
}

// A child that removes the test's objects when the test ends without having said so: it crashed, or was killed. A test
// that hangs ends itself before ctest kills it together with this child.
class Heir {
public:
    Heir(key_t setKey, key_t segmentKey)
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) == -1) return;
        child_ = fork();
        if (child_ == 0) inherit(ends, setKey, segmentKey);
        ::close(ends[0]);
        alive_ = ends[1];
        alarm(kMostSeconds);
    }
    ~Heir()
    {
        alarm(0);
        const char nothingToDo = 0;
        [[maybe_unused]] const ssize_t told = write(alive_, &nothingToDo, 1);
        ::close(alive_);
        while (child_ > 0 && waitpid(child_, nullptr, 0) == -1 && errno == EINTR) {
        }
    }
    Heir(const Heir&) = delete;
    Heir& operator=(const Heir&) = delete;

private:
    static constexpr unsigned kMostSeconds = 100;

    [[noreturn]] static void inherit(const int (&ends)[2], key_t setKey, key_t segmentKey)
    {
        setsid();
        ::close(ends[1]);
        for (const int stream : {0, 1, 2}) ::close(stream); // who waits for the test's output does not wait for this
        char told;
        ssize_t got;
        while ((got = read(ends[0], &told, 1)) == -1 && errno == EINTR) {
        }
        if (got == 0) {
            removeSetOf(setKey);
            removeSegmentOf(segmentKey);
        }
        _exit(0);
    }

    pid_t child_ = -1;
    int alive_ = -1; // closed by the end of the test and of all its children
};

// A file whose two keys name a semaphore set and a segment. What exists under them when the object goes is removed,
// whoever made it and however the test or its children ended.
class SysVFile {
public:
    SysVFile() : path_(dir_.write("keys", "")), heir_(setKey(), segmentKey()) {}
    ~SysVFile()
    {
        removeSet();
        removeSegment();
    }
    SysVFile(const SysVFile&) = delete;
    SysVFile& operator=(const SysVFile&) = delete;

    const char* path() const { return path_.c_str(); }
    const TempDir& dir() const { return dir_; }
    key_t setKey() const { return ftok(path(), 'x'); }
    key_t segmentKey() const { return ftok(path(), 'w'); }

    // The id of what exists, or -1.
    int set() const { return semget(setKey(), 0, 0); }
    int segment() const { return shmget(segmentKey(), 0, 0); }

    void removeSet() const { removeSetOf(setKey()); }
    void removeSegment() const { removeSegmentOf(segmentKey()); }

private:
    TempDir dir_;
    std::string path_;
    Heir heir_;
};

// What the system says of a member; an owner without the right to read gives it to itself.
inline int look(int id, int member, int command)
{
    const int answer = semctl(id, member, command, 0);
    if (answer != -1 || errno != EACCES) return answer;
    semid_ds owned{};
    owned.sem_perm.uid = geteuid();
    owned.sem_perm.gid = getegid();
    owned.sem_perm.mode = 0600;
    if (semctl(id, 0, IPC_SET, &owned) == -1) return -1;
    return semctl(id, member, command, 0);
}

inline int semaphore(int id, int member) { return look(id, member, GETVAL); }

inline std::vector<int> semaphores(int id, int members)
{
    std::vector<int> values;
    for (int i = 0; i < members; ++i) values.push_back(semaphore(id, i));
    return values;
}

// Adds to a member, as another process would; never waits.
inline void change(int id, int member, short by)
{
    sembuf operation{static_cast<unsigned short>(member), by, IPC_NOWAIT};
    EXPECT_EQ(semop(id, &operation, 1), 0) << strerror(errno);
}

// How many callers wait for the member to grow.
inline int waiters(int id, int member) { return look(id, member, GETNCNT); }

// How many times the segment is attached, by all processes; -1 when it does not exist.
inline long attachments(int id)
{
    shmid_ds state{};
    return shmctl(id, IPC_STAT, &state) == -1 ? -1 : static_cast<long>(state.shm_nattch);
}

} // namespace kemsd::test
