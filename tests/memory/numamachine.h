// A machine of any shape: a program that includes this, and is linked as its folder says, asks here instead of libnuma
// and of crash-time memory. Included once a program.
#pragma once

#include <gmock/gmock.h>
#include <kemsd/memory.h>
#include <numa.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "sd/memxcpt.h"
#include "support/failingcalls.h"

extern "C" {
extern KEM_NUMA_NODE_INFO numaNodeInfo;
extern KEM_THREAD_LOCAL KEM_LONG64_T thdnode;
}

namespace kemsd::test {

constexpr unsigned kMaskBits = 1024; // a system's mask is wider than the table
constexpr unsigned kWordBits = 8 * sizeof(unsigned long);

inline char nodeMemory[64]; // what libnuma gives
inline char reserve[64];    // what crash-time memory gives

struct Machine {
    int available = 0;
    std::vector<unsigned> runNodes = {0, 1};
    bool memoryRefused = false;
    bool bindingRefused = false;
    long masksOut = 0;
    std::vector<std::string> deeds; // what was asked of it
};

inline Machine machine;
inline unsigned long maskWords[kMaskBits / kWordBits];
inline bitmask runMask = {kMaskBits, maskWords};

inline void note(const char* deed, long long number)
{
    machine.deeds.push_back(std::string(deed).append(" ").append(std::to_string(number)));
}

// Errors that callers must not take for an allocation's.
inline int bindingAnswer()
{
    errno = EINVAL;
    return machine.bindingRefused ? -1 : 0;
}

extern "C" {

int __wrap_numa_available() { return machine.available; }

bitmask* __wrap_numa_get_run_node_mask()
{
    ++machine.masksOut;
    std::fill(std::begin(maskWords), std::end(maskWords), 0);
    for (const unsigned node : machine.runNodes) maskWords[node / kWordBits] |= 1UL << node % kWordBits;
    return &runMask;
}

void __wrap_copy_bitmask_to_nodemask(bitmask* from, nodemask_t* to)
{
    EXPECT_EQ(from, &runMask);
    EXPECT_EQ(machine.masksOut, 1);
    memcpy(to, from->maskp, sizeof *to);
}

void __wrap_numa_bitmask_free(bitmask* mask)
{
    EXPECT_EQ(mask, &runMask);
    --machine.masksOut;
}

int __wrap_numa_run_on_node(int node)
{
    note("run", node);
    return bindingAnswer();
}

void __wrap_numa_set_preferred(int node)
{
    note("prefer", node);
    bindingAnswer();
}

void* __wrap_numa_alloc_local(size_t size)
{
    note("alloc", static_cast<long long>(size));
    errno = EPERM;
    return machine.memoryRefused ? nullptr : nodeMemory;
}

void __wrap_numa_free(void* block, size_t size)
{
    EXPECT_EQ(block, nodeMemory);
    note("free", static_cast<long long>(size));
}

OV_STS_T __wrap_ovXcptMemAlloc(void*, OV_ULONG_T size, void** result)
{
    note("reserve", size);
    *result = reserve;
    return 0;
}

OV_STS_T __wrap_ovXcptMemFree(void*, void* block)
{
    note("reserve's?", block == reserve);
    return block == reserve ? 0 : SDSTS_INVALID_PARAM;
}

} // extern "C"

inline void hardwareAcceleration(KEM_BOOL_T on) { bSdHardwareAcceleration = on; }

// A machine with nodes 0 and 1, nothing asked of it yet, and hardware acceleration.
class Numa : public testing::Test {
protected:
    Numa()
    {
        machine = {};
        thdnode = -1;
        hardwareAcceleration(TRUE);
        setenv("OV_TURN_OFF_NUMA", "false", 1);
    }
    ~Numa() override
    {
        KemSdDestroyNumaResources();
        EXPECT_EQ(machine.masksOut, 0);
        EXPECT_EQ(liveBlocks(), blocksBefore);
    }

    // The table of that machine and this thread bound to node 1.
    void placeOnNode1()
    {
        KemSdCreateNumaResources();
        KemSdBindThreadToNode(nullptr, 1);
        machine.deeds.clear();
    }

    long blocksBefore = liveBlocks();
};

} // namespace kemsd::test
