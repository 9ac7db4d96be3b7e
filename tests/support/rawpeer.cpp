// The system's calls are made by number: the programs that use this peer let the C library's ones fail, die and be
// counted, and the peer is not meant by that.

#include "rawpeer.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kemsd::test {
namespace {

constexpr int kSegmentLetter = 'w';
constexpr int kSetLetter = 'x';

int findSet(key_t key, int members, int flags) { return static_cast<int>(syscall(SYS_semget, key, members, flags)); }

int findSegment(key_t key, size_t bytes, int flags) { return static_cast<int>(syscall(SYS_shmget, key, bytes, flags)); }

long controlSet(int set, int member, int command, const void* argument)
{
    return syscall(SYS_semctl, set, member, command, argument);
}

long controlSet(int set, int member, int command, long argument = 0)
{
    return syscall(SYS_semctl, set, member, command, argument);
}

long controlSegment(int segment, int command, void* record = nullptr)
{
    return syscall(SYS_shmctl, segment, command, record);
}

// An interrupted wait starts again with its whole time: signals are few here.
bool operate(int set, int member, short by)
{
    sembuf operation{static_cast<unsigned short>(member), by, 0};
    const timespec limit{kRawSeconds, 0};
    long result;
    do result = syscall(SYS_semtimedop, set, &operation, 1, &limit);
    while (result == -1 && errno == EINTR);
    return result == 0;
}

// A set's own user may be kept from reading it, but not from allowing himself to.
void allowToRead(int set)
{
    semid_ds record{};
    record.sem_perm.uid = geteuid();
    record.sem_perm.gid = getegid();
    record.sem_perm.mode = 0600;
    controlSet(set, 0, IPC_SET, &record);
}

bool isGone() { return errno == EINVAL || errno == EIDRM; }

} // namespace

std::ostream& operator<<(std::ostream& out, const RawMessage& message)
{
    out << "code " << message.code << ", size " << message.size << ", " << message.payload.size() << " bytes";
    if (message.payload.size() <= 32) out << " \"" << message.payload << '"';
    return out;
}

RawValues rawInitialValues()
{
    RawValues values{};
    values[kRawSlotMapMember] = 1;
    for (int slot = 0; slot < kRawSlots; ++slot) {
        values[static_cast<size_t>(rawFreeMember(RawSide::Client, slot))] = 1;
        values[static_cast<size_t>(rawFreeMember(RawSide::Server, slot))] = 1;
    }
    return values;
}

RawPeer::RawPeer(const std::string& path, RawSide side)
    : setKey_(ftok(path.c_str(), kSetLetter)), segmentKey_(ftok(path.c_str(), kSegmentLetter)), side_(side)
{}

RawPeer::~RawPeer() { detach(); }

bool RawPeer::make()
{
    set_ = findSet(setKey_, kRawMembers, IPC_CREAT | IPC_EXCL | 0666);
    if (set_ == -1) return false;
    const RawValues values = rawInitialValues();
    if (controlSet(set_, 0, SETALL, values.data()) == -1) return false;
    segment_ = findSegment(segmentKey_, kRawSegmentBytes, IPC_CREAT | IPC_EXCL | 0666);
    return segment_ != -1 && attach();
}

bool RawPeer::open()
{
    set_ = findSet(setKey_, 0, 0);
    allowToRead(set_);
    segment_ = findSegment(segmentKey_, 0, 0);
    return set_ != -1 && segment_ != -1 && attach();
}

bool RawPeer::attach()
{
    detach();
    const long at = syscall(SYS_shmat, segment_, nullptr, 0);
    base_ = at == -1 ? nullptr : reinterpret_cast<char*>(at);
    return base_ != nullptr;
}

void RawPeer::detach()
{
    if (base_) syscall(SYS_shmdt, base_);
    base_ = nullptr;
}

void RawPeer::remove()
{
    controlSet(set_, 0, IPC_RMID);
    controlSegment(segment_, IPC_RMID);
}

bool RawPeer::send(int slot, const RawMessage& message)
{
    if (!awaitFree(slot)) return false;
    write(slot, message);
    return postReady(slot);
}

bool RawPeer::receive(int slot, RawMessage& message)
{
    if (!awaitReady(slot)) return false;
    message = read(slot);
    return postFree(slot);
}

void RawPeer::write(int slot, const RawMessage& message)
{
    char* buffer = base_ + rawBuffer(side_, slot);
    memcpy(buffer, &message.code, sizeof message.code);
    memcpy(buffer + 4, &message.size, sizeof message.size);
    memcpy(buffer + kRawHeaderBytes, message.payload.data(), std::min(message.payload.size(), kRawPayloadBytes));
}

RawMessage RawPeer::read(int slot) const
{
    const char* buffer = base_ + rawBuffer(otherSide(side_), slot);
    RawMessage message;
    memcpy(&message.code, buffer, sizeof message.code);
    memcpy(&message.size, buffer + 4, sizeof message.size);
    message.payload.assign(buffer + kRawHeaderBytes, std::min<size_t>(message.size, kRawPayloadBytes));
    return message;
}

bool RawPeer::take(int member) { return operate(set_, member, -1); }

bool RawPeer::post(int member) { return operate(set_, member, 1); }

int RawPeer::value(int member) const { return static_cast<int>(controlSet(set_, member, GETVAL)); }

bool RawPeer::setValue(int member, int value) { return controlSet(set_, member, SETVAL, value) == 0; }

int RawPeer::waiting(int member) const { return static_cast<int>(controlSet(set_, member, GETNCNT)); }

RawValues RawPeer::values() const
{
    RawValues values{};
    if (members() != kRawMembers || controlSet(set_, 0, GETALL, values.data()) == -1) values.fill(0xFFFF);
    return values;
}

int RawPeer::members() const
{
    semid_ds record{};
    return controlSet(set_, 0, IPC_STAT, &record) == -1 ? 0 : static_cast<int>(record.sem_nsems);
}

size_t RawPeer::bytes() const
{
    shmid_ds record{};
    return controlSegment(segment_, IPC_STAT, &record) == -1 ? 0 : record.shm_segsz;
}

unsigned RawPeer::permissions() const
{
    shmid_ds record{};
    return controlSegment(segment_, IPC_STAT, &record) == -1 ? 0 : record.shm_perm.mode & 0777;
}

RawLeftovers::RawLeftovers(const std::string& path)
    : setKey_(ftok(path.c_str(), kSetLetter)), segmentKey_(ftok(path.c_str(), kSegmentLetter))
{
    EXPECT_NE(setKey_, -1) << path << ": " << strerror(errno);
    EXPECT_NE(segmentKey_, -1) << path << ": " << strerror(errno);
    remove();
    const pid_t test = getpid();
    heir_ = fork();
    if (heir_ == 0) removeWhenDue(test);
    EXPECT_NE(heir_, -1) << strerror(errno);
}

RawLeftovers::~RawLeftovers()
{
    if (heir_ > 0) {
        kill(heir_, SIGKILL);
        while (waitpid(heir_, nullptr, 0) == -1 && errno == EINTR) {
        }
    }
    remove();
}

int RawLeftovers::set() const { return findSet(setKey_, 0, 0); }

int RawLeftovers::segment() const { return findSegment(segmentKey_, 0, 0); }

void RawLeftovers::remove() const
{
    if (const int found = set(); found != -1) controlSet(found, 0, IPC_RMID);
    if (const int found = segment(); found != -1) controlSegment(found, IPC_RMID);
}

// The heir's life: the death of the test sends it a signal.
void RawLeftovers::removeWhenDue(pid_t test) const
{
    sigset_t death;
    sigemptyset(&death);
    sigaddset(&death, SIGTERM);
    sigprocmask(SIG_BLOCK, &death, nullptr);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    const timespec limit{kRawLimit, 0};
    while (getppid() == test && sigtimedwait(&death, nullptr, &limit) == -1)
        if (errno == EAGAIN) remove();
    remove();
    _exit(0);
}

bool rawSetIsGone(int set)
{
    semid_ds record{};
    return controlSet(set, 0, IPC_STAT, &record) == -1 && isGone();
}

bool rawSegmentIsGone(int segment)
{
    shmid_ds record{};
    return controlSegment(segment, IPC_STAT, &record) == -1 && isGone();
}

} // namespace kemsd::test
