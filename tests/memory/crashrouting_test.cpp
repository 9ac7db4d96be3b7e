// Once a fatal exception is declared, every memory entry point passes its request on to crash-time memory. The program
// is linked so that these requests end here.

#include <gtest/gtest.h>
#include <kemsd/kemsd.h>

#include <string>

#include "sd/memxcpt.h"
#include "support/failingcalls.h"

using namespace kemsd::test;

namespace {

// The last request that came through, as text.
std::string request;
char given[16];

std::string text(const void* p) { return p == nullptr ? "null" : p == given ? "given" : "other"; }

} // namespace

extern "C" {

OV_STS_T __wrap_ovXcptMemAlloc(void* thdctxp, OV_ULONG_T size, void** result)
{
    request = "alloc " + text(thdctxp) + " " + std::to_string(size);
    *result = given;
    return 0;
}

OV_STS_T __wrap_ovXcptMemCalloc(void* thdctxp, OV_ULONG_T count, OV_ULONG_T size, void** result)
{
    request = "calloc " + text(thdctxp) + " " + std::to_string(count) + " " + std::to_string(size);
    *result = given;
    return 0;
}

OV_STS_T __wrap_ovXcptMemRealloc(void* thdctxp, OV_ULONG_T size, void** result)
{
    request = "realloc " + text(thdctxp) + " " + std::to_string(size) + " " + text(*result);
    *result = given;
    return 0;
}

OV_STS_T __wrap_ovXcptMemFree(void* thdctxp, void* block)
{
    request = "free " + text(thdctxp) + " " + text(block);
    return 0;
}

OV_STS_T __real_ovXcptMemAlloc(void* thdctxp, OV_ULONG_T size, void** result);
OV_STS_T __real_ovXcptMemCalloc(void* thdctxp, OV_ULONG_T count, OV_ULONG_T size, void** result);
OV_STS_T __real_ovXcptMemRealloc(void* thdctxp, OV_ULONG_T size, void** result);
OV_STS_T __real_ovXcptMemFree(void* thdctxp, void* block);
}

namespace {

constexpr size_t kMiB2 = 2097152;

// With the manager on (TRUE) and off.
class CrashRouting : public testing::TestWithParam<KEM_BOOL_T> {
protected:
    void SetUp() override
    {
        KemSdSetMemoryManager(GetParam());
        ovCreateThreadAlloc(nullptr);
        iXcptExceptionStatus = 1;
        resetCalls();
    }
    void TearDown() override
    {
        EXPECT_EQ(calls(Call::malloc) + calls(Call::calloc) + calls(Call::realloc) + calls(Call::posix_memalign), 0);
        iXcptExceptionStatus = 0;
        ovDestroyThreadAlloc(nullptr);
    }
};

} // namespace

TEST_P(CrashRouting, Malloc)
{
    EXPECT_EQ(ovMemExtMalloc(100, 2), given);
    EXPECT_EQ(request, "alloc null 100");
    EXPECT_EQ(ovMemExtMalloc(100, 1), given);
}

TEST_P(CrashRouting, SizesBeyond32BitsAreNotCutToSmallItems)
{
    constexpr size_t kBeyond = (size_t{1} << 32) + 5;
    void* block = nullptr;
    ovMemExtMalloc(kBeyond, 2);
    EXPECT_EQ(request, "alloc null 4294967295");
    ovMemExtRealloc(given, kBeyond);
    EXPECT_EQ(request, "realloc null 4294967295 given");
    request.clear();
    ovMemExtMallocAligned(&block, 4096, kBeyond);
    EXPECT_EQ(request, "alloc null 4294967295");
    request.clear();
    ovMemExtThreadMalloc(nullptr, kBeyond, &block, 2);
    EXPECT_EQ(request, "alloc null 4294967295");
    ovMemExtCalloc(65536, 65537, 2);
    EXPECT_EQ(request, "calloc null 1 4294967295");
    ovMemExtCalloc(65537, 65535, 2);
    EXPECT_EQ(request, "calloc null 65537 65535");
}

TEST_P(CrashRouting, Calloc)
{
    EXPECT_EQ(ovMemExtCalloc(3, 40, 2), given);
    EXPECT_EQ(request, "calloc null 3 40");
}

TEST_P(CrashRouting, Realloc)
{
    EXPECT_EQ(ovMemExtRealloc(given, 100), given);
    EXPECT_EQ(request, "realloc null 100 given");
    EXPECT_EQ(ovMemExtRealloc(nullptr, 100), given);
    EXPECT_EQ(request, "realloc null 100 null");
}

TEST_P(CrashRouting, Free)
{
    ovMemExtFree(given);
    EXPECT_EQ(request, "free null given");
}

TEST_P(CrashRouting, AlignedMallocWithoutItsAlignment)
{
    void* block = nullptr;
    EXPECT_EQ(ovMemExtMallocAligned(&block, 4096, 100), 0);
    EXPECT_EQ(block, given);
    EXPECT_EQ(request, "alloc null 100");
}

TEST_P(CrashRouting, AlignedFree)
{
    ovMemExtFreeAligned(given);
    EXPECT_EQ(request, "free null given");
}

TEST_P(CrashRouting, ThreadMallocOfEverySize)
{
    for (const size_t size : {size_t{100}, kMiB2, kMiB2 + 1}) {
        void* block = nullptr;
        ovMemExtThreadMalloc(nullptr, size, &block, 2);
        EXPECT_EQ(block, given);
        EXPECT_EQ(request, "alloc null " + std::to_string(size));
    }
}

TEST_P(CrashRouting, ThreadFreeOfEveryBlock)
{
    for (const char policy : {0, 1, 2, 3}) {
        OV_ALLOCMEMBLKHDR_T block[2] = {};
        block[0].policy = policy;
        request.clear();
        ovMemExtThreadFree(&block[1]);
        EXPECT_EQ(request, "free null other");
    }
}

TEST_P(CrashRouting, ThreadAllocWithoutAllocator)
{
    ovDestroyThreadAlloc(nullptr);
    void* block = nullptr;
    ovThreadAlloc(nullptr, 100, &block, 2);
    EXPECT_EQ(block, given);
    EXPECT_EQ(request, "alloc null 100");
    EXPECT_EQ(ovThreadFree(given), 0);
    EXPECT_EQ(request, "free null given");
}

INSTANTIATE_TEST_SUITE_P(Manager, CrashRouting, testing::Values(TRUE, FALSE));

TEST(CrashTimeMemory, IsNotDeclaredAtFirst)
{
    EXPECT_EQ(ovXcptFatExceptionOccured(), 0);
    iXcptExceptionStatus = 1;
    EXPECT_EQ(ovXcptFatExceptionOccured(), 1);
}
