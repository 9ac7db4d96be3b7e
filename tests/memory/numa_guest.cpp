// The only program of a guest with two nodes, one processor each: process 1, linked statically. It says what placement
// does on its kernel, a line a fact, and switches the guest off.

#include <kemsd/kemsd.h>
#include <numa.h>
#include <numaif.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char* kMarked = "NUMA_GUEST"; // set once the file systems are there
constexpr size_t kBytes = 65536;

template <class... Values>
void say(const char* form, Values... values)
{
    printf("numa: ");
    printf(form, values...);
    printf("\n");
}

// libnuma looks at the system before main, so the program starts again once there is something to see.
void startAgainWithFileSystems(char** arguments)
{
    mkdir("/proc", 0755);
    mkdir("/sys", 0755);
    if (mount("proc", "/proc", "proc", 0, nullptr) != 0 || mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0)
        perror("numa: mount");
    setenv(kMarked, "1", 1);
    execv("/init", arguments);
    perror("numa: exec");
}

unsigned nodeOfThread()
{
    unsigned processor = 0;
    unsigned node = 99;
    getcpu(&processor, &node);
    return node;
}

int nodeOfPage(void* page)
{
    int node = -99;
    return numa_move_pages(0, 1, &page, nullptr, &node, 0) == 0 ? node : -99;
}

// The node of each end of a buffer of kBytes, written now.
void sayWhereWritten(const char* what, void* buffer)
{
    memset(buffer, 1, kBytes);
    say("%s, written on node %u, lies on %d to %d", what, nodeOfThread(), nodeOfPage(buffer),
        nodeOfPage(static_cast<char*>(buffer) + kBytes - 1));
}

void sayBinding(const char* what) { say("%s: on node %u, preferred %d", what, nodeOfThread(), numa_preferred()); }

void sayTable(const char* when)
{
    KemSdInitNumaResources();
    say("%s: %lld nodes, number 5 on %lld", when, static_cast<long long>(KemSdGetNumNumaNodes()),
        static_cast<long long>(KemSdGetNumaNodeId(5)));
}

void sayServerBuffer(KEM_LONG64_T node)
{
    size_t taken = 0;
    void* buffer = nullptr;
    const int result = ovMallocOnNode(nullptr, kBytes, &taken, &buffer, node, __FILE__, __LINE__);
    say("buffer for node %lld: result %d, %zu bytes", static_cast<long long>(node), result, taken);
    sayBinding("then");
    sayWhereWritten("it", buffer);
    say("freed: %d", ovFreeOnNode(nullptr, taken, buffer, __FILE__, __LINE__));
}

void* bindAndSay(void*)
{
    KemSdBindThreadToNumaNode(nullptr, 1);
    sayBinding("second thread bound to 1");
    return nullptr;
}

void saySwitches()
{
    unsetenv("OV_TURN_OFF_NUMA");
    sayTable("variable absent");
    setenv("OV_TURN_OFF_NUMA", "true", 1);
    sayTable("variable true");
    setenv("OV_TURN_OFF_NUMA", "FALSE", 1);
    sayTable("variable FALSE, no acceleration");
    KemSdSetHardwareAcceleration(TRUE);
    sayTable("variable FALSE, acceleration");
}

void sayPlacement()
{
    sayServerBuffer(1); // the thread was never bound
    KemSdBindThreadToNode(nullptr, 0);
    sayBinding("bound to 0");
    sayServerBuffer(1);
    sayServerBuffer(0);
    KemSdBindThreadToNode(nullptr, 5000000000);
    say("bound to a number beyond every node: on node %u", nodeOfThread());
    KemSdBindThreadToNode(nullptr, 0);
    pthread_t second;
    if (pthread_create(&second, nullptr, bindAndSay, nullptr) == 0) pthread_join(second, nullptr);
    sayBinding("first thread");
    sayTable("made again by a thread on one node");
}

} // namespace

int main(int, char** arguments)
{
    if (!getenv(kMarked)) startAgainWithFileSystems(arguments);
    saySwitches();
    sayPlacement();
    KemSdDestroyNumaResources();
    say("end");
    fflush(stdout);
    sync();
    reboot(RB_POWER_OFF);
    return 0;
}
