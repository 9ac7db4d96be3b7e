// The table of nodes and the binding of threads, on machines of any shape. numa_qemu.sh does the same on a real kernel.

#include <climits>
#include <cstdint>
#include <thread>

#include "memory/numamachine.h"

using namespace kemsd::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class NumaTable : public Numa {};
class NumaBinding : public Numa {};

std::vector<KEM_LONG64_T> table()
{
    const KEM_LONG64_T* const ids = KemSdGetNumaNodeIdAryPtr();
    EXPECT_EQ(ids, numaNodeInfo.numaNodeIdAry);
    return ids ? std::vector<KEM_LONG64_T>(ids, ids + KemSdGetNumNumaNodes()) : std::vector<KEM_LONG64_T>();
}

void expectOff()
{
    EXPECT_EQ(numaNodeInfo.numaNodeIdAry, nullptr);
    EXPECT_EQ(KemSdGetNumNumaNodes(), 0);
    EXPECT_EQ(KemSdGetNumaNodeIdAryPtr(), nullptr);
    EXPECT_EQ(KemSdGetNumaNodeIdIndex(5), 0);
    EXPECT_EQ(KemSdGetNumaNodeId(5), -1);
    EXPECT_EQ(KemSdGetNumaNodeIdFromIndex(1), -1);
}

} // namespace

TEST_F(NumaTable, IsEmptyAtFirst) { expectOff(); }

TEST_F(NumaTable, OfTwoNodesSharesNumbersOutInTurn)
{
    KemSdInitNumaResources();
    EXPECT_THAT(table(), ElementsAre(0, 1));
    EXPECT_EQ(KemSdGetNumaNodeIdIndex(5), 1);
    EXPECT_EQ(KemSdGetNumaNodeId(5), 1);
    EXPECT_EQ(KemSdGetNumaNodeId(4), 0);
    EXPECT_EQ(KemSdGetNumaNodeIdFromIndex(1), 1);
}

TEST_F(NumaTable, SkipsHolesInTheMask)
{
    machine.runNodes = {1, 64, 127};
    KemSdCreateNumaResources();
    EXPECT_THAT(table(), ElementsAre(1, 64, 127));
    EXPECT_EQ(KemSdGetNumaNodeIdIndex(5), 2);
    EXPECT_EQ(KemSdGetNumaNodeId(5), 127);
    EXPECT_EQ(KemSdGetNumaNodeIdFromIndex(1), 64);
}

TEST_F(NumaTable, Holds128NodesAndNoneBeyond)
{
    machine.runNodes.clear();
    for (unsigned node = 0; node < 140; ++node) machine.runNodes.push_back(node);
    KemSdCreateNumaResources();
    EXPECT_EQ(KemSdGetNumNumaNodes(), 128);
    for (KEM_LONG64_T i = 0; i < 128; ++i) EXPECT_EQ(KemSdGetNumaNodeId(128 + i), i);
}

TEST_F(NumaTable, OfFewerThanTwoUsableNodesStaysEmpty)
{
    for (const std::vector<unsigned>& nodes : {std::vector<unsigned>{}, {0}, {5}, {1, 128}}) {
        machine.runNodes = nodes;
        KemSdInitNumaResources();
        expectOff();
    }
}

TEST_F(NumaTable, WithoutNumaSupportStaysEmptyAndAsksNothing)
{
    machine.available = -1;
    resetCalls();
    KemSdInitNumaResources();
    expectOff();
    EXPECT_EQ(calls(Call::calloc), 0);
}

TEST_F(NumaTable, WithoutMemoryStaysEmpty)
{
    const Failing out(Call::calloc, ENOMEM);
    KemSdInitNumaResources();
    EXPECT_EQ(out.hits(), 1);
    expectOff();
}

TEST_F(NumaTable, NegativeNumberHasARemainderOfItsSignAndNoNodeBelowZero)
{
    machine.runNodes = {3, 4, 5};
    KemSdCreateNumaResources();
    EXPECT_EQ(KemSdGetNumaNodeIdIndex(-4), -1);
    EXPECT_EQ(KemSdGetNumaNodeId(-4), -1);
    EXPECT_EQ(KemSdGetNumaNodeId(-3), 3);
    EXPECT_EQ(KemSdGetNumaNodeId(INT64_MIN), -1);
    EXPECT_EQ(KemSdGetNumaNodeId(INT64_MAX), 4);
    machine.runNodes = {0, 1};
    KemSdCreateNumaResources();
    EXPECT_EQ(KemSdGetNumaNodeIdIndex(-3), -1);
}

TEST_F(NumaTable, MadeAgainReleasesTheEarlierOne)
{
    KemSdCreateNumaResources();
    const long withTable = liveBlocks();
    machine.runNodes = {2, 3};
    KemSdCreateNumaResources();
    EXPECT_THAT(table(), ElementsAre(2, 3));
    EXPECT_EQ(liveBlocks(), withTable);
    machine.runNodes = {2};
    KemSdCreateNumaResources();
    expectOff();
    EXPECT_EQ(liveBlocks(), blocksBefore);
}

TEST_F(NumaTable, InitialisedAgainWhileUnwantedIsReleased)
{
    KemSdInitNumaResources();
    hardwareAcceleration(FALSE);
    KemSdInitNumaResources();
    expectOff();
    EXPECT_EQ(liveBlocks(), blocksBefore);
}

TEST_F(NumaTable, IsGoneOnceDestroyed)
{
    KemSdCreateNumaResources();
    KemSdDestroyNumaResources();
    expectOff();
    KemSdDestroyNumaResources();
    expectOff();
}

TEST_F(NumaTable, IsMadeOnRequestWhateverTheSettings)
{
    hardwareAcceleration(FALSE);
    unsetenv("OV_TURN_OFF_NUMA");
    KemSdCreateNumaResources();
    EXPECT_THAT(table(), ElementsAre(0, 1));
}

TEST_F(NumaTable, IsWantedOnlyWithAccelerationAndTheWordFalse)
{
    struct Case {
        const char* variable; // null: absent
        bool wanted;
    };
    for (const Case& c : {Case{nullptr, false},
                          {"", false},
                          {"true", false},
                          {"TRUE", false},
                          {"0", false},
                          {"no", false},
                          {"false ", false},
                          {"fals", false},
                          {"false", true},
                          {"FALSE", true},
                          {"False", true},
                          {"fAlSe", true}}) {
        SCOPED_TRACE(c.variable ? c.variable : "absent");
        c.variable ? setenv("OV_TURN_OFF_NUMA", c.variable, 1) : unsetenv("OV_TURN_OFF_NUMA");
        hardwareAcceleration(TRUE);
        KemSdInitNumaResources();
        EXPECT_EQ(KemSdGetNumNumaNodes(), c.wanted ? 2 : 0);
        hardwareAcceleration(FALSE);
        KemSdInitNumaResources();
        expectOff();
    }
}

TEST_F(NumaBinding, TakesProcessorsAndMemoryOfTheNode)
{
    KemSdCreateNumaResources();
    for (const auto bind : {&KemSdBindThreadToNode, &KemSdBindThreadToNumaNode}) {
        thdnode = -1;
        machine.deeds.clear();
        bind(nullptr, 1);
        EXPECT_THAT(machine.deeds, ElementsAre("run 1", "prefer 1"));
        EXPECT_EQ(thdnode, 1);
    }
}

TEST_F(NumaBinding, ToANegativeNodeChangesNothing)
{
    placeOnNode1();
    for (const KEM_LONG64_T node : {KEM_LONG64_T{-1}, KEM_LONG64_T{INT64_MIN}}) {
        KemSdBindThreadToNode(nullptr, node);
        KemSdBindThreadToNumaNode(nullptr, node);
    }
    EXPECT_THAT(machine.deeds, IsEmpty());
    EXPECT_EQ(thdnode, 1);
}

TEST_F(NumaBinding, WhileOffChangesNothing)
{
    KemSdBindThreadToNode(nullptr, 0);
    EXPECT_THAT(machine.deeds, IsEmpty());
    EXPECT_EQ(thdnode, -1);
}

TEST_F(NumaBinding, ToANumberBeyondEveryNodeNeverMeansAllNodes)
{
    KemSdCreateNumaResources();
    KemSdBindThreadToNode(nullptr, 0xFFFFFFFF);
    EXPECT_THAT(machine.deeds, ElementsAre("run 2147483647", "prefer 2147483647"));
    EXPECT_EQ(thdnode, 0xFFFFFFFF);
}

TEST_F(NumaBinding, ThatTheSystemRefusesIsRememberedAllTheSame)
{
    KemSdCreateNumaResources();
    machine.bindingRefused = true;
    KemSdBindThreadToNode(nullptr, 1);
    EXPECT_THAT(machine.deeds, ElementsAre("run 1", "prefer 1"));
    EXPECT_EQ(thdnode, 1);
}

TEST_F(NumaBinding, IsEachThreadsOwn)
{
    placeOnNode1();
    std::thread([] {
        EXPECT_EQ(thdnode, -1);
        KemSdBindThreadToNode(nullptr, 0);
        EXPECT_EQ(thdnode, 0);
    }).join();
    EXPECT_EQ(thdnode, 1);
}
