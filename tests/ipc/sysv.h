// The System V objects of a test, looked at and changed by the system's own calls.
#pragma once

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "support/rawpeer.h"
#include "support/tempdir.h"

namespace kemsd::test {

// A file whose two keys name a semaphore set and a segment. What exists under them when the object goes is removed,
// whoever made it and however the test or its children ended.
class SysVFile {
public:
    SysVFile() : path_(dir_.write("keys", "")), leftovers_(path_) {}

    const char* path() const { return path_.c_str(); }
    const TempDir& dir() const { return dir_; }
    key_t setKey() const { return ftok(path(), 'x'); }
    key_t segmentKey() const { return ftok(path(), 'w'); }

    // The id of what exists, or -1.
    int set() const { return leftovers_.set(); }
    int segment() const { return leftovers_.segment(); }

    void removeSet() const { semctl(set(), 0, IPC_RMID, 0); }
    void removeSegment() const { shmctl(segment(), IPC_RMID, nullptr); }

private:
    TempDir dir_;
    std::string path_;
    RawLeftovers leftovers_;
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
