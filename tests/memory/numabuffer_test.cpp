// Buffers on nodes, for a thread and for the server, also when nothing is to be had and after a fatal exception.

#include <kemsd/kemsd.h>

#include "memory/numamachine.h"
#include "sd/memsys/memsys.h"
#include "support/messages.h"
#include "support/report.h"

using namespace kemsd::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* kFile = "numabuffer_test";

class NumaBuffer : public Numa {};

// A buffer of the server, the thread bound to node 1.
class ServerBuffer : public Numa {
protected:
    ServerBuffer() { placeOnNode1(); }
    ~ServerBuffer() override { iXcptExceptionStatus = 0; }

    int allocate(size_t size, KEM_LONG64_T node = 0)
    {
        return ovMallocOnNode(nullptr, size, &taken, &buffer, node, kFile, 1);
    }
    int release() { return ovFreeOnNode(nullptr, taken, buffer, kFile, 2); }

    size_t taken = 77;
    void* buffer = nullptr;
};

// A call-back that hears of shortages, and the context it needs.
class ServerBufferMessage : public ServerBuffer {
protected:
    ServerBufferMessage()
    {
        ovMemThreadHeap.fNetLocalMessage = &recordMessage;
        ovMemThreadHeap.MemMessageUsedMemory = 5000;
        ovMemThreadHeap.LastMemMessage = memmsg_noerror;
        messages().clear();
        context.NetCtx = &netContext;
        ovMemSetThreadContext(&context);
    }
    ~ServerBufferMessage() override
    {
        ovMemResetThreadContext();
        ovMemThreadHeap.fNetLocalMessage = nullptr;
    }

    Failing out{Call::malloc, ENOMEM};
    int netContext = 0;
    OV_THDCTX_T context{};
};

} // namespace

TEST_F(NumaBuffer, ComesFromTheNodeAndTheThreadGoesBack)
{
    placeOnNode1();
    size_t taken = 0;
    void* buffer = nullptr;
    EXPECT_EQ(KemSdAllocOnNumaNode(nullptr, 100, &taken, &buffer, 0), 0);
    EXPECT_EQ(buffer, nodeMemory);
    EXPECT_EQ(taken, 100u);
    EXPECT_THAT(machine.deeds, ElementsAre("run 0", "prefer 0", "alloc 100", "run 1", "prefer 1"));
    EXPECT_EQ(thdnode, 1);
    EXPECT_EQ(KemSdFreeOnNumaNode(nullptr, taken, buffer), 0);
    EXPECT_EQ(machine.deeds.back(), "free 100");
}

TEST_F(NumaBuffer, LeavesAThreadThatWasNeverBoundOnTheNode)
{
    KemSdCreateNumaResources();
    size_t taken = 0;
    void* buffer = nullptr;
    EXPECT_EQ(KemSdAllocOnNumaNode(nullptr, 100, &taken, &buffer, 1), 0);
    EXPECT_THAT(machine.deeds, ElementsAre("run 1", "prefer 1", "alloc 100"));
    EXPECT_EQ(thdnode, 1);
}

TEST_F(NumaBuffer, OnANegativeNodeComesFromWhereTheThreadIs)
{
    KemSdCreateNumaResources();
    size_t taken = 0;
    void* buffer = nullptr;
    EXPECT_EQ(KemSdAllocOnNumaNode(nullptr, 100, &taken, &buffer, -1), 0);
    EXPECT_THAT(machine.deeds, ElementsAre("alloc 100"));
    EXPECT_EQ(buffer, nodeMemory);
    EXPECT_EQ(thdnode, -1);
}

TEST_F(NumaBuffer, FromTheCLibraryIsMarkedBySize0)
{
    placeOnNode1();
    machine.memoryRefused = true;
    size_t taken = 77;
    void* buffer = nullptr;
    EXPECT_EQ(KemSdAllocOnNumaNode(nullptr, 100, &taken, &buffer, 0), 0);
    EXPECT_EQ(buffer, lastBlock());
    EXPECT_EQ(taken, 0u);
    EXPECT_THAT(machine.deeds, ElementsAre("run 0", "prefer 0", "alloc 100", "run 1", "prefer 1"));
    machine.deeds.clear();
    EXPECT_EQ(KemSdFreeOnNumaNode(nullptr, taken, buffer), 0);
    EXPECT_THAT(machine.deeds, IsEmpty());
}

TEST_F(NumaBuffer, ThatNobodyHasGivesTheAllocationsErrorAndTheThreadGoesBack)
{
    placeOnNode1();
    machine.memoryRefused = true;
    const Failing out(Call::malloc, ENOMEM);
    size_t taken = 77;
    void* buffer = reserve;
    EXPECT_EQ(KemSdAllocOnNumaNode(nullptr, 100, &taken, &buffer, 0), ENOMEM);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(taken, 0u);
    EXPECT_THAT(machine.deeds, ElementsAre("run 0", "prefer 0", "alloc 100", "run 1", "prefer 1"));
}

TEST_F(NumaBuffer, WhileOffComesFromTheCLibrary)
{
    size_t taken = 0;
    void* buffer = nullptr;
    EXPECT_EQ(KemSdAllocOnNumaNode(nullptr, 100, &taken, &buffer, 1), 0);
    EXPECT_EQ(buffer, lastBlock());
    EXPECT_EQ(taken, 100u);
    EXPECT_EQ(KemSdFreeOnNumaNode(nullptr, taken, buffer), 0);
    EXPECT_THAT(machine.deeds, IsEmpty());
}

TEST_F(NumaBuffer, WhileOffIsNullWithoutAnError)
{
    const Failing out(Call::malloc, ENOMEM);
    size_t taken = 0;
    void* buffer = reserve;
    EXPECT_EQ(KemSdAllocOnNumaNode(nullptr, 100, &taken, &buffer, 1), 0);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(taken, 100u);
}

TEST_F(NumaBuffer, WithoutAnOutputIsRefused)
{
    size_t taken = 77;
    void* buffer = reserve;
    for (const bool on : {false, true}) {
        if (on) KemSdCreateNumaResources();
        EXPECT_EQ(KemSdAllocOnNumaNode(nullptr, 100, nullptr, &buffer, 1), SDSTS_INVALID_PARAM);
        EXPECT_EQ(KemSdAllocOnNumaNode(nullptr, 100, &taken, nullptr, 1), SDSTS_INVALID_PARAM);
    }
    EXPECT_EQ(taken, 77u);
    EXPECT_EQ(buffer, reserve);
    EXPECT_THAT(machine.deeds, IsEmpty());
}

TEST_F(NumaBuffer, OfTheCLibraryIsFreedByTheContextCall)
{
    EXPECT_THAT(reported(KemSdExtAllocMemFree, malloc(100)), Succeeds());
    EXPECT_THAT(reported(KemSdExtAllocMemFree, nullptr), Fails(SDSTS_INVALID_PARAM));
    EXPECT_EQ(KemSdExtAllocMemFree(nullptr, malloc(100)), 0);
}

TEST_F(ServerBuffer, ComesFromTheNodeWithAcceleration)
{
    EXPECT_EQ(allocate(100), 0);
    EXPECT_EQ(buffer, nodeMemory);
    EXPECT_EQ(taken, 100u);
    EXPECT_THAT(machine.deeds, ElementsAre("run 0", "prefer 0", "alloc 100", "run 1", "prefer 1"));
    EXPECT_EQ(release(), 0);
    EXPECT_EQ(machine.deeds.back(), "free 100");
}

TEST_F(ServerBuffer, ThatFellBackIsFreedByTheCLibrary)
{
    machine.memoryRefused = true;
    EXPECT_EQ(allocate(100), 0);
    EXPECT_EQ(buffer, lastBlock());
    EXPECT_EQ(taken, 0u);
    machine.deeds.clear();
    EXPECT_EQ(release(), 0);
    EXPECT_THAT(machine.deeds, IsEmpty());
}

TEST_F(ServerBuffer, ComesFromTheCLibraryWithoutAcceleration)
{
    hardwareAcceleration(FALSE);
    EXPECT_EQ(allocate(100), 0);
    EXPECT_EQ(buffer, lastBlock());
    EXPECT_EQ(taken, 100u);
    EXPECT_EQ(release(), 0);
    EXPECT_THAT(machine.deeds, IsEmpty());
}

TEST_F(ServerBuffer, OfSize0OrWithoutAnOutputIsRefusedBeforeAnything)
{
    buffer = reserve;
    resetCalls();
    for (const OV_LONG_T exception : {0, 1})
        for (const KEM_BOOL_T accelerated : {TRUE, FALSE}) {
            iXcptExceptionStatus = exception;
            hardwareAcceleration(accelerated);
            EXPECT_EQ(allocate(0), SDSTS_INVALID_PARAM);
            EXPECT_EQ(ovMallocOnNode(nullptr, 100, nullptr, &buffer, 0, kFile, 1), SDSTS_INVALID_PARAM);
            EXPECT_EQ(ovMallocOnNode(nullptr, 100, &taken, nullptr, 0, kFile, 1), SDSTS_INVALID_PARAM);
            EXPECT_EQ(ovFreeOnNode(nullptr, 100, nullptr, kFile, 2), SDSTS_INVALID_PARAM);
        }
    EXPECT_EQ(calls(Call::malloc), 0);
    EXPECT_EQ(taken, 77u);
    EXPECT_EQ(buffer, reserve);
    EXPECT_THAT(machine.deeds, IsEmpty());
}

TEST_F(ServerBuffer, ComesFromTheCrashReserveOnceAnExceptionIsDeclared)
{
    iXcptExceptionStatus = 1;
    for (const KEM_BOOL_T accelerated : {TRUE, FALSE}) {
        hardwareAcceleration(accelerated);
        machine.deeds.clear();
        EXPECT_EQ(allocate(100), 0);
        EXPECT_EQ(buffer, reserve);
        EXPECT_EQ(taken, 77u) << "not written then";
        EXPECT_THAT(machine.deeds, ElementsAre("reserve 100"));
    }
}

TEST_F(ServerBuffer, BeyondWhatAReserveHasStaysBeyondIt)
{
    iXcptExceptionStatus = 1;
    EXPECT_EQ(allocate((size_t{1} << 32) + 5), 0);
    EXPECT_THAT(machine.deeds, ElementsAre("reserve 4294967295")) << "not cut to 5 bytes";
}

TEST_F(ServerBuffer, OfTheCrashReserveIsNotFreed)
{
    iXcptExceptionStatus = 1;
    for (const KEM_BOOL_T accelerated : {TRUE, FALSE}) {
        hardwareAcceleration(accelerated);
        machine.deeds.clear();
        EXPECT_EQ(ovFreeOnNode(nullptr, 100, reserve, kFile, 2), 0);
        EXPECT_THAT(machine.deeds, ElementsAre("reserve's? 1"));
    }
}

TEST_F(ServerBuffer, OfEarlierIsFreedAlsoAfterAnException)
{
    EXPECT_EQ(allocate(100), 0);
    machine.deeds.clear();
    iXcptExceptionStatus = 1;
    EXPECT_EQ(release(), 0);
    EXPECT_THAT(machine.deeds, ElementsAre("reserve's? 0", "free 100"));
}

TEST_F(ServerBufferMessage, ReportsTheBytesThatWereNotToBeHad)
{
    machine.memoryRefused = true;
    buffer = reserve;
    EXPECT_EQ(allocate(4000), SDSTS_NO_MEMORY);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(taken, 0u);
    EXPECT_THAT(messages(), ElementsAre(Message{&netContext, SDSTS_MEM_EXHAUSTED, 4, 5000, 4000}));
    EXPECT_EQ(ovMemThreadHeap.LastMemMessage, memmsg_error);
}

TEST_F(ServerBufferMessage, ReportsAShortageOfTheCLibraryWithoutNodesAndWithoutAcceleration)
{
    KemSdDestroyNumaResources();
    EXPECT_EQ(allocate(4000), SDSTS_NO_MEMORY);
    EXPECT_EQ(taken, 4000u);
    ovMemThreadHeap.LastMemMessage = memmsg_noerror;
    hardwareAcceleration(FALSE);
    EXPECT_EQ(allocate(8000), SDSTS_NO_MEMORY);
    EXPECT_EQ(taken, 8000u);
    EXPECT_THAT(messages(), ElementsAre(Message{&netContext, SDSTS_MEM_EXHAUSTED, 4, 5000, 4000},
                                        Message{&netContext, SDSTS_MEM_EXHAUSTED, 4, 5000, 8000}));
}

TEST_F(ServerBufferMessage, WithoutACallBackLeavesTheMessagesAlone)
{
    ovMemThreadHeap.fNetLocalMessage = nullptr;
    hardwareAcceleration(FALSE);
    EXPECT_EQ(allocate(4000), SDSTS_NO_MEMORY);
    EXPECT_THAT(messages(), IsEmpty());
    EXPECT_EQ(ovMemThreadHeap.LastMemMessage, memmsg_noerror);
}
