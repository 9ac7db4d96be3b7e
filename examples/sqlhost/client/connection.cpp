// A thread of the connection looks whether the server lives, and if not, wakes the one that waits for it. Both look at
// the server's lock and at what it says there, never at a process id alone.
#include "client/connection.h"

#include <unistd.h>

#include <cstring>

#include "text.h"

namespace sqlhost {
namespace {

constexpr KEM_LONG_T kWatchMilliseconds = 150;
constexpr KEM_BIT32_T kReadWrite = 4;
constexpr KEM_LONG_T kWithoutLimit = -1;

} // namespace

Connection::Connection(KEM_PSDCTX_T context, const ServerDirectory& directory, OV_SHAREDMEM_SEG_LIST_T** segments)
    : context_(context),
      directory_(directory),
      door_(context, directory),
      server_(door_.server()),
      clientsLock_(context, directory.clientsLock, LockFile::Missing::refuse)
{
    takeLock();
    const Welcome welcome = door_.enter(server_, lockByte_);
    channel_.emplace(attach(welcome.segment, segments), welcome.slot);
    KEM_THDID_T id = 0;
    if (KemSdStdEventCreate(context_, &endWatch_) != 0) throw Failure("cannot make an event");
    if (KemSdThreadCreate(context_, watchBody, nullptr, 0, this, &id, &watcher_) != 0) {
        KemSdStdEventClose(context_, &endWatch_);
        throw Failure("no thread to watch the server");
    }
}

// The process id's byte, or another one that no process id reaches: a process may have several connections.
void Connection::takeLock()
{
    constexpr int64_t kBeyondProcessIds = int64_t{1} << 22;
    for (lockByte_ = getpid(); !clientsLock_.tryLock(lockByte_);) lockByte_ += kBeyondProcessIds;
}

// Where the entry is that of an earlier server, it comes back empty.
OV_SHAREDMEM_SEG_T* Connection::attach(unsigned number, OV_SHAREDMEM_SEG_LIST_T** segments)
{
    const std::string keyFile = directory_.exchange(number);
    OV_SHAREDMEM_SEG_T* segment = nullptr;
    KEM_BOOL_T toBeCreated = FALSE;
    KEM_IPCKEY_T key = -1;
    char* base = nullptr;
    KEM_STS_T status = KemFindShareMemSeg(context_, keyFile.c_str(), SHM_CLIENT, segments, TRUE, server_.pid,
                                          server_.key, &toBeCreated, nullptr, &segment);
    if (status == 0 && segment && (toBeCreated || !segment->pShSemSet)) {
        status = KemCreateSharedMemSeg(context_, keyFile.c_str(), SHM_CLIENT, kReadWrite, 0, segment, kWithoutLimit,
                                       &key, &base);
        if (status == 0) KemSetSharedMemSegBuffer(context_, segment, base);
    }
    if (status != 0 || !segment)
        throw Failure(text("cannot attach the server's segment %u (status %d): %s", number, status,
                           strerror(context_->osRetCode)));
    return segment;
}

Connection::~Connection()
{
    if (stands()) try {
            ask(kRequestBye, {});
        } catch (const PeerGone&) {
        }
    KemSdStdEventSet(context_, &endWatch_);
    KemSdThreadJoin(context_, &watcher_);
    KemSdStdEventClose(context_, &endWatch_);
}

bool Connection::stands() const { return !channel_->givenUp() && !door_.hasEnded(context_, server_); }

void* Connection::watchBody(void* connection)
{
    KEM_PSDCTX_T context = nullptr; // a failure leaves it null, which every call takes
    KemSdInit(&context, 0);
    static_cast<Connection*>(connection)->watch(context);
    if (context) KemSdTerm(context);
    return nullptr;
}

void Connection::watch(KEM_PSDCTX_T context)
{
    while (KemSdStdEventTimedWait(context, &endWatch_, kWatchMilliseconds) != 0)
        if (door_.hasEnded(context, server_)) return channel_->giveUp(context);
}

// Where the last message is full, a code says that it is the last.
void Connection::ask(char type, std::string_view payload)
{
    const uint32_t length = static_cast<uint32_t>(payload.size());
    char head[kFrameHead] = {type};
    memcpy(head + 1, &length, sizeof length);
    channel_->send(context_, {head, sizeof head}, payload.empty());
    channel_->send(context_, payload, true);
    if ((sizeof head + payload.size()) % kMessageBytes == 0) channel_->sendCode(context_, kCodeEnd);
}

ServerLink::~ServerLink()
{
    connection_.reset();
    KemDeleteSharedMemSeg(context_, segments_);
}

Connection& ServerLink::connection()
{
    if (connection_ && !connection_->stands()) connection_.reset();
    if (!connection_) connection_.emplace(context_, directory_, &segments_);
    return *connection_;
}

} // namespace sqlhost
