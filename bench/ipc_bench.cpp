// Two processes: a stream of full pieces from one to the other, and small requests with their replies; on one processor
// and on two. Beside it what the calls cost when nobody waits.
#include <benchmark/benchmark.h>
#include <kemsd/ipc.h>
#include <mqueue.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "support/floorchunk.h"
#include "support/processor.h"
#include "support/report.h"

#ifdef KEMSD_BENCH_BOOST
#include <boost/interprocess/ipc/message_queue.hpp>
#endif

namespace kemsd::bench {
namespace {

constexpr uint32_t kPiece = kFloorPayload;
constexpr uint32_t kRequest = 64;
constexpr long kStreamBytes = 64l << 20;
constexpr long kMessagesInAQueue = 10; // what the system allows everybody

// ---- The contenders. A link is made before the fork, and each process uses one of its ends. send() and receive() move
// exactly so many bytes.

enum class End { near, far };

class Ours {
public:
    static constexpr const char* kName = kOurs;

    Ours()
    {
        char path[] = "/tmp/kemsd-bench-XXXXXX";
        const int file = mkstemp(path);
        if (file == -1) return;
        close(file);
        ready_ = open(server_, path, SHM_SERVER, 4 | 8 | 16) && open(client_, path, SHM_CLIENT, 4);
        unlink(path);
        if (ready_) shmctl(server_.shmemHdl, IPC_RMID, nullptr); // goes with the last process
    }
    ~Ours()
    {
        if (client_.pShSemSet) KemDeleteSingleSharedMemSeg(nullptr, &client_);
        if (server_.pShSemSet) KemDeleteSingleSharedMemSeg(nullptr, &server_);
    }
    bool ready() const { return ready_; }

    bool send(End end, const char* bytes, uint32_t count)
    {
        return KemWriteSharedMemChunk(nullptr, &segment(end), 0, count, TRUE, TRUE, bytes) == 0;
    }
    bool receive(End end, char* bytes, uint32_t count)
    {
        KEM_ULONG_T code;
        return KemReadSharedMemChunk(nullptr, &segment(end), 0, count, FALSE, &code, bytes) == 0;
    }

private:
    static bool open(OV_SHAREDMEM_SEG_T& segment, const char* path, SHMEM_USERTYPE_T type, KEM_BIT32_T mode)
    {
        KEM_IPCKEY_T key;
        char* base;
        if (KemCreateSharedMemSeg(nullptr, path, type, mode, 0, &segment, -1, &key, &base) != 0) return false;
        KemSetSharedMemSegBuffer(nullptr, &segment, base);
        return true;
    }
    OV_SHAREDMEM_SEG_T& segment(End end) { return end == End::near ? client_ : server_; }

    OV_SHAREDMEM_SEG_T server_{}, client_{};
    bool ready_ = false;
};

class Floor {
public:
    static constexpr const char* kName = kFloor;

    Floor()
    {
        const int segment = shmget(IPC_PRIVATE, 20480, IPC_CREAT | 0600);
        base_ = static_cast<char*>(shmat(segment, nullptr, 0));
        shmctl(segment, IPC_RMID, nullptr);
        set_ = semget(IPC_PRIVATE, 21, IPC_CREAT | 0600);
        unsigned short values[21];
        for (int i = 0; i < 21; i++) values[i] = i % 2 == 0;
        ready_ = base_ != reinterpret_cast<char*>(-1) && semctl(set_, 0, SETALL, values) == 0;
    }
    ~Floor()
    {
        semctl(set_, 0, IPC_RMID);
        shmdt(base_);
    }
    bool ready() const { return ready_; }

    bool send(End end, const char* bytes, uint32_t count)
    {
        const FloorDirection direction = from(end);
        return floorChunkSend(&direction, bytes, count) == 0;
    }
    bool receive(End end, char* bytes, uint32_t count)
    {
        const FloorDirection direction = from(end == End::near ? End::far : End::near);
        return floorChunkReceive(&direction, bytes, count) == 0;
    }

private:
    FloorDirection from(End end) const
    {
        if (end == End::near) return {base_, set_, 1, 2};
        return {base_ + 2048, set_, 3, 4};
    }

    char* base_;
    int set_;
    bool ready_;
};

bool writeAll(int file, const char* bytes, uint32_t count)
{
    while (count > 0) {
        const ssize_t n = write(file, bytes, count);
        if (n <= 0) return false;
        bytes += n;
        count -= static_cast<uint32_t>(n);
    }
    return true;
}

bool readAll(int file, char* bytes, uint32_t count)
{
    while (count > 0) {
        const ssize_t n = read(file, bytes, count);
        if (n <= 0) return false;
        bytes += n;
        count -= static_cast<uint32_t>(n);
    }
    return true;
}

class Pipes {
public:
    static constexpr const char* kName = "pipe";

    Pipes() { ready_ = pipe(there_) == 0 && pipe(back_) == 0; }
    ~Pipes()
    {
        for (const int file : {there_[0], there_[1], back_[0], back_[1]}) close(file);
    }
    bool ready() const { return ready_; }
    bool send(End end, const char* bytes, uint32_t count)
    {
        return writeAll(end == End::near ? there_[1] : back_[1], bytes, count);
    }
    bool receive(End end, char* bytes, uint32_t count)
    {
        return readAll(end == End::near ? back_[0] : there_[0], bytes, count);
    }

private:
    int there_[2] = {-1, -1}, back_[2] = {-1, -1};
    bool ready_;
};

class Sockets {
public:
    static constexpr const char* kName = "unix-socket";

    Sockets() { ready_ = socketpair(AF_UNIX, SOCK_STREAM, 0, ends_) == 0; }
    ~Sockets()
    {
        for (const int file : ends_) close(file);
    }
    bool ready() const { return ready_; }
    bool send(End end, const char* bytes, uint32_t count) { return writeAll(ends_[end == End::far], bytes, count); }
    bool receive(End end, char* bytes, uint32_t count) { return readAll(ends_[end == End::far], bytes, count); }

private:
    int ends_[2] = {-1, -1};
    bool ready_;
};

class SystemQueues {
public:
    static constexpr const char* kName = "posix-mq";

    SystemQueues()
    {
        for (mqd_t& queue : queues_) {
            const std::string name = "/kemsd-bench-" + std::to_string(getpid());
            mq_attr attributes{};
            attributes.mq_maxmsg = kMessagesInAQueue;
            attributes.mq_msgsize = kPiece;
            queue = mq_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600, &attributes);
            mq_unlink(name.c_str());
        }
        ready_ = queues_[0] != -1 && queues_[1] != -1;
    }
    ~SystemQueues()
    {
        for (const mqd_t queue : queues_) mq_close(queue);
    }
    bool ready() const { return ready_; }
    bool send(End end, const char* bytes, uint32_t count)
    {
        return mq_send(queues_[end == End::far], bytes, count, 0) == 0;
    }
    // The system asks for room for the longest message.
    bool receive(End end, char* bytes, uint32_t count)
    {
        char room[kPiece];
        char* const to = count < kPiece ? room : bytes;
        if (mq_receive(queues_[end == End::near], to, kPiece, nullptr) != static_cast<ssize_t>(count)) return false;
        if (to != bytes) memcpy(bytes, to, count);
        return true;
    }

private:
    mqd_t queues_[2];
    bool ready_;
};

#ifdef KEMSD_BENCH_BOOST
class BoostQueues {
public:
    static constexpr const char* kName = "boost-mq";

    BoostQueues()
    {
        using boost::interprocess::message_queue;
        const std::string name = "kemsd-bench-" + std::to_string(getpid());
        for (auto& queue : queues_) {
            message_queue::remove(name.c_str());
            queue = std::make_unique<message_queue>(boost::interprocess::create_only, name.c_str(), kMessagesInAQueue,
                                                    kPiece);
            message_queue::remove(name.c_str());
        }
    }
    bool ready() const { return true; }
    bool send(End end, const char* bytes, uint32_t count)
    {
        queues_[end == End::far]->send(bytes, count, 0);
        return true;
    }
    // It, too, asks for room for the longest message.
    bool receive(End end, char* bytes, uint32_t count)
    {
        char room[kPiece];
        char* const to = count < kPiece ? room : bytes;
        boost::interprocess::message_queue::size_type got;
        unsigned priority;
        queues_[end == End::near]->receive(to, kPiece, got, priority);
        if (to != bytes) memcpy(bytes, to, count);
        return got == count;
    }

private:
    std::unique_ptr<boost::interprocess::message_queue> queues_[2];
};
#endif

// ---- The two processes. The first byte of what is sent says whether more will come.

constexpr char kMore = 1, kNoMore = 0;

class Process {
public:
    // Both processes on one processor, or each on its own.
    template <class Body>
    Process(bool together, Body body) : id_(fork()), pinned_(id_ == 0 && !together ? 1 : 0, 2)
    {
        if (id_ != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        _exit(body() ? 0 : 1);
    }
    // It has been told that no more will come, unless the link is broken.
    bool end(bool told)
    {
        int status = 1;
        if (!told) kill(id_, SIGKILL);
        waitpid(id_, &status, 0);
        return status == 0;
    }
    bool running() const { return id_ != -1; }

private:
    pid_t id_;
    Pinned pinned_;
};

template <class Link>
bool drain(Link& link)
{
    char piece[kPiece];
    do
        if (!link.receive(End::far, piece, kPiece)) return false;
    while (piece[0] == kMore);
    return true;
}

template <class Link>
bool reply(Link& link)
{
    char request[kRequest];
    do
        if (!link.receive(End::far, request, kRequest) || !link.send(End::far, request, kRequest)) return false;
    while (request[0] == kMore);
    return true;
}

template <class Link>
void stream(benchmark::State& state, bool together)
{
    Link link;
    if (!link.ready()) return state.SkipWithError("the link could not be made");
    Process reader(together, [&] { return drain(link); });
    char piece[kPiece] = {kMore};
    bool well = reader.running();
    for (auto _ : state)
        if (!well || !(well = link.send(End::near, piece, kPiece))) break;
    piece[0] = kNoMore;
    well = well && link.send(End::near, piece, kPiece);
    if (!reader.end(well) || !well) state.SkipWithError("a piece was not sent");
}

template <class Link>
void roundTrips(benchmark::State& state, bool together)
{
    Link link;
    if (!link.ready()) return state.SkipWithError("the link could not be made");
    Process server(together, [&] { return reply(link); });
    char request[kRequest] = {kMore};
    const auto ask = [&] {
        return link.send(End::near, request, kRequest) && link.receive(End::near, request, kRequest);
    };
    bool well = server.running();
    for (auto _ : state)
        if (!well || !(well = ask())) break;
    request[0] = kNoMore;
    well = well && ask();
    if (!server.end(well) || !well) state.SkipWithError("a request was not replied to");
}

// One thread at both ends, so that nobody waits: what the calls themselves take.
template <class Link>
void pass(benchmark::State& state, uint32_t count)
{
    Link link;
    if (!link.ready()) return state.SkipWithError("the link could not be made");
    char there[kPiece] = {kMore}, here[kPiece];
    for (auto _ : state)
        if (!link.send(End::near, there, count) || !link.receive(End::far, here, count)) {
            state.SkipWithError("a piece did not pass");
            break;
        }
}

template <class Link>
void addLink()
{
    add("pass/64B", Link::kName, [](benchmark::State& state) { pass<Link>(state, kRequest); });
    add("pass/2040B", Link::kName, [](benchmark::State& state) { pass<Link>(state, kPiece); });
    for (const bool together : {true, false}) {
        const std::string where = together ? "/1processor" : "/2processors";
        add("stream/2040B" + where, Link::kName, [together](benchmark::State& state) { stream<Link>(state, together); })
            ->Iterations(kStreamBytes / kPiece)
            ->UseRealTime();
        add("roundtrip/64B" + where, Link::kName, [together](benchmark::State& state) {
            roundTrips<Link>(state, together);
        })->UseRealTime();
    }
}

// A container may lack the system's queues.
template <class Link>
void addLinkIfThere()
{
    if (Link().ready())
        addLink<Link>();
    else
        printf("%s is not to be had here and will be missing from the table\n", Link::kName);
}

void addBenchmarks()
{
    addLink<Ours>();
    addLink<Floor>();
    addLink<Pipes>();
    addLink<Sockets>();
    addLinkIfThere<SystemQueues>();
#ifdef KEMSD_BENCH_BOOST
    addLink<BoostQueues>();
#endif
}

} // namespace
} // namespace kemsd::bench

int main(int argc, char** argv)
{
    using namespace kemsd::bench;
    signal(SIGPIPE, SIG_IGN);
    return run(argc, argv,
               {"ipc", "two processes; 64 MiB in pieces of 2040 bytes, and 64 bytes there and back; queues of 10",
                addBenchmarks});
}
