#include <gmock/gmock.h>
#include <kemsd/kemsd.h>
#include <pthread.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "sd/base/poison.h"
#include "sd/memxcpt.h"
#include "support/failingcalls.h"
#include "support/report.h"
#include "support/stackwalker.h"

using namespace kemsd::test;

namespace {

bool idRefused;
bool resumed; // a suspended thread goes on
constexpr KEM_STS_T kRefused = 4711;

} // namespace

extern "C" {
KEM_FUNC_M __real_KemSdThreadIdGet(KEM_PSDCTX_T ctx, KEM_PTHDID_T id);
KEM_FUNC_M __real_KemSdThreadSuspend(KEM_PSDCTX_T ctx, KEM_PTHDHDL_T handle);

KEM_FUNC_M __wrap_KemSdThreadIdGet(KEM_PSDCTX_T ctx, KEM_PTHDID_T id)
{
    return idRefused ? kRefused : __real_KemSdThreadIdGet(ctx, id);
}

KEM_FUNC_M __wrap_KemSdThreadSuspend(KEM_PSDCTX_T ctx, KEM_PTHDHDL_T handle)
{
    if (!resumed) return __real_KemSdThreadSuspend(ctx, handle);
    EXPECT_EQ(ctx, nullptr);
    EXPECT_EQ(handle, nullptr);
    return 0;
}
}

namespace {

constexpr KEM_ULONG_T kReserve = 1052544; // 257 pages less 128 bytes
constexpr KEM_ULONG_T kHead = 16;

bool same(const KEM_STACKHDR_T& a, const KEM_STACKHDR_T& b) { return memcmp(&a, &b, sizeof a) == 0; }

void expectAgreement()
{
    EXPECT_TRUE(same(XcptStackHdr, XcptStackHdrSpare1st));
    EXPECT_TRUE(same(XcptStackHdr, XcptStackHdrSpare2nd));
}

void expectZeroCopies()
{
    const KEM_STACKHDR_T zero{};
    EXPECT_TRUE(same(XcptStackHdr, zero));
    expectAgreement();
}

// Memory without a reserve; takes back what no call takes back.
class Reserve : public testing::Test {
protected:
    void SetUp() override { before_ = liveBlocks(); }
    void TearDown() override
    {
        idRefused = resumed = false;
        iXcptExceptionStatus = 0;
        iXcptThdId = 0;
        bXcptDoCoreDump = FALSE;
        KemSdXcptDestroyStackHeader();
        iXcptHeaderStatus = -1;
        KemSdSetMemoryManager(FALSE);
        EXPECT_EQ(liveBlocks(), before_);
    }

private:
    long before_ = 0;
};

// An exception is declared, and what follows asks the system for nothing.
class CrashTime : public Reserve {
protected:
    void SetUp() override
    {
        Reserve::SetUp();
        KemSdXcptCreateStackHeader();
        ASSERT_EQ(iXcptHeaderStatus, 0);
        ASSERT_EQ(KemSdXcptSetFatExceptionOccured(TRUE), 0);
        block_ = reinterpret_cast<char*>(XcptStackHdr.pReservedBlock);
        memset(block_ + kHead, 0xEE, kReserve - kHead);
        resetCalls();
    }
    void TearDown() override
    {
        for (const Call call : {Call::malloc, Call::calloc, Call::realloc, Call::posix_memalign, Call::mmap,
                                Call::pthread_mutex_lock, Call::sched_yield, Call::nanosleep})
            EXPECT_EQ(calls(call), 0);
        Reserve::TearDown();
    }

    char* allocated(OV_ULONG_T bytes)
    {
        void* item = nullptr;
        EXPECT_EQ(ovXcptMemAlloc(nullptr, bytes, &item), 0);
        expectAgreement();
        return static_cast<char*>(item);
    }
    char* resized(void* item, OV_ULONG_T bytes)
    {
        EXPECT_EQ(ovXcptMemRealloc(nullptr, bytes, &item), 0);
        expectAgreement();
        return static_cast<char*>(item);
    }
    // What the reserve was filled with counts here, although for a memory checker a new item has no content.
    static std::string text(const char* from, size_t bytes)
    {
#if defined(KEMSD_VALGRIND)
        VALGRIND_MAKE_MEM_DEFINED(from, bytes);
#endif
        return {from, bytes};
    }

    char* block_ = nullptr;
};

} // namespace

// ---- The reserve

TEST_F(Reserve, IsOneBlockAndThreeCopiesOfItsHeader)
{
    EXPECT_EQ(iXcptHeaderStatus, -1);
    KemSdXcptCreateStackHeader();
    EXPECT_EQ(iXcptHeaderStatus, 0);
    ASSERT_NE(pXcptStackHdr, nullptr);
    EXPECT_EQ(XcptStackHdr.ulItemAlignment, 8u);
    EXPECT_EQ(XcptStackHdr.ulCreateBlockSize, kReserve);
    EXPECT_EQ(walkStack(XcptStackHdr), (StackWalk{{}, {kReserve}}));
    EXPECT_TRUE(same(XcptStackHdr, *pXcptStackHdr));
    expectAgreement();
}

TEST_F(Reserve, IsMadeOnce)
{
    KemSdXcptCreateStackHeader();
    KEM_STACKHDR_T* const made = pXcptStackHdr;
    KemSdXcptCreateStackHeader();
    EXPECT_EQ(pXcptStackHdr, made);
}

TEST_F(Reserve, FailedCreationIsNotRepeatedAndCopiesNothing)
{
    for (const long k : {1, 2}) {
        {
            const Failing none = Failing::nth(Call::malloc, k, ENOMEM);
            KemSdXcptCreateStackHeader();
        }
        EXPECT_EQ(iXcptHeaderStatus, SDSTS_NO_MEMORY);
        EXPECT_EQ(pXcptStackHdr != nullptr, k == 2) << "the header that was made";
        expectZeroCopies();
        resetCalls();
        KemSdXcptCreateStackHeader();
        EXPECT_EQ(calls(Call::malloc), 0);
        EXPECT_EQ(iXcptHeaderStatus, SDSTS_NO_MEMORY);
        KemSdXcptDestroyStackHeader();
        EXPECT_EQ(iXcptHeaderStatus, k == 2 ? 0 : SDSTS_INVALID_PARAM);
        EXPECT_EQ(pXcptStackHdr, nullptr);
        iXcptHeaderStatus = -1;
    }
}

TEST_F(Reserve, DestroyingWithoutOneDoesNothing)
{
    KemSdXcptDestroyStackHeader();
    EXPECT_EQ(iXcptHeaderStatus, -1);
}

TEST_F(Reserve, DestroyingItClearsTheCopies)
{
    KemSdXcptCreateStackHeader();
    KemSdXcptDestroyStackHeader();
    EXPECT_EQ(iXcptHeaderStatus, 0);
    EXPECT_EQ(pXcptStackHdr, nullptr);
    expectZeroCopies();
    KemSdXcptDestroyStackHeader();
    EXPECT_EQ(iXcptHeaderStatus, SDSTS_INVALID_PARAM) << "there is nothing left";
    KemSdXcptCreateStackHeader();
    EXPECT_EQ(pXcptStackHdr, nullptr) << "it is made once";
}

// ---- The declaration

TEST_F(Reserve, DeclarationRemembersTheThreadAndHowToEnd)
{
    EXPECT_EQ(ovXcptFatExceptionOccured(), 0);
    for (const KEM_BOOL_T core : {TRUE, FALSE}) {
        EXPECT_EQ(KemSdXcptSetFatExceptionOccured(core), 0);
        EXPECT_EQ(ovXcptFatExceptionOccured(), 1);
        EXPECT_EQ(iXcptThdId, pthread_self());
        EXPECT_EQ(bXcptDoCoreDump, core);
    }
}

TEST_F(Reserve, DeclarationWithoutThreadIdChangesNothing)
{
    idRefused = true;
    EXPECT_EQ(KemSdXcptSetFatExceptionOccured(TRUE), kRefused);
    EXPECT_EQ(ovXcptFatExceptionOccured(), 0);
    EXPECT_EQ(iXcptThdId, 0u);
    EXPECT_EQ(bXcptDoCoreDump, FALSE);
}

TEST_F(Reserve, LaterDeclarationTakesItOver)
{
    ASSERT_EQ(KemSdXcptSetFatExceptionOccured(TRUE), 0);
    std::thread([] {
        EXPECT_EQ(KemSdXcptSetFatExceptionOccured(FALSE), 0);
        EXPECT_EQ(iXcptThdId, pthread_self());
    }).join();
    EXPECT_EQ(bXcptDoCoreDump, FALSE);
}

TEST_F(Reserve, OnlyOtherThreadsWithoutAHandleAreSuspended)
{
    KEM_THDHDL_T handle = pthread_self();
    ASSERT_EQ(KemSdXcptSetFatExceptionOccured(TRUE), 0);
    EXPECT_THAT(reported(KemSdThreadSuspend, nullptr), Fails(SDSTS_NOT_SUPPORTED)) << "this thread declared it";
    std::thread([&] { EXPECT_THAT(reported(KemSdThreadSuspend, &handle), Fails(SDSTS_NOT_SUPPORTED)); }).join();
}

// ---- Requests

TEST_F(CrashTime, ItemsLieBehindEachOtherInTheReserve)
{
    char* const first = allocated(5);
    EXPECT_EQ(first, block_ + kHead);
    EXPECT_EQ(allocated(8), first + 8);
    EXPECT_EQ(allocated(1), first + 16);
    EXPECT_EQ(text(first, 1), "\xEE") << "nothing is filled";
}

TEST_F(CrashTime, TheLastByteCanBeHad)
{
    allocated(100);
    char* const last = allocated(kReserve - kHead - 104);
    EXPECT_EQ(last + kReserve - kHead - 104, block_ + kReserve);
}

TEST_F(CrashTime, ClearedItemIsZero)
{
    void* item = nullptr;
    ASSERT_EQ(ovXcptMemCalloc(nullptr, 3, 40, &item), 0);
    expectAgreement();
    EXPECT_EQ(text(static_cast<char*>(item), 120), std::string(120, '\0'));
    EXPECT_EQ(allocated(1), static_cast<char*>(item) + 120);
}

TEST_F(CrashTime, ProductOfAClearedItemWrapsIn32Bits)
{
    void* item = nullptr;
    ASSERT_EQ(ovXcptMemCalloc(nullptr, 65536, 65537, &item), 0);
    EXPECT_EQ(allocated(1), static_cast<char*>(item) + 65536);
}

TEST_F(CrashTime, ResizingCopiesToANewItemAndLeavesTheOld)
{
    EXPECT_EQ(resized(nullptr, 16), block_ + kHead);
    char* const old = allocated(16);
    memcpy(old, "0123456789abcdef", 16);
    char* const larger = resized(old, 32);
    EXPECT_EQ(larger, old + 16);
    EXPECT_EQ(text(larger, 16), "0123456789abcdef");
    char* const smaller = resized(larger, 3);
    EXPECT_EQ(text(smaller, 3), "012");
    EXPECT_EQ(text(old, 16), "0123456789abcdef");
    EXPECT_EQ(text(larger, 16), "0123456789abcdef");
}

TEST_F(CrashTime, ResizingCopiesWhatLiesBehindTheOldItemToo)
{
    char* const old = allocated(8);
    char* const behind = allocated(24);
    memcpy(old, "01234567", 8);
    memcpy(behind, "abcdefghijklmnopqrstuvwx", 24);
    const std::string there = text(old, 100);
    EXPECT_EQ(text(resized(old, 100), 100), there) << "although the copy runs into the new item";
}

TEST_F(CrashTime, ResizingCopiesNothingFromBeyondTheReserve)
{
    allocated(8);
    void* const item = block_ + kReserve - 8;
    memcpy(item, "01234567", 8);
    char* const moved = resized(item, 100);
    EXPECT_EQ(text(moved, 9), "01234567\xEE");
}

TEST_F(CrashTime, ReleaseKnowsWhatLiesInTheReserve)
{
    EXPECT_EQ(ovXcptMemFree(nullptr, block_ + kHead), SDSTS_INVALID_PARAM) << "nothing was given out";
    char* const item = allocated(100);
    EXPECT_EQ(ovXcptMemFree(nullptr, item), 0);
    EXPECT_EQ(ovXcptMemFree(nullptr, item + 50), 0);
    EXPECT_EQ(ovXcptMemFree(nullptr, block_ + kReserve - 1), 0);
    for (void* stranger : {static_cast<void*>(block_ + kReserve), static_cast<void*>(block_ + kHead - 1),
                           static_cast<void*>(this), static_cast<void*>(nullptr)})
        EXPECT_EQ(ovXcptMemFree(nullptr, stranger), SDSTS_INVALID_PARAM);
    EXPECT_EQ(allocated(1), item + 104) << "a released item stays";
}

TEST_F(CrashTime, AnyOneDamagedCopyIsRepaired)
{
    for (KEM_STACKHDR_T* copy : {&XcptStackHdr, &XcptStackHdrSpare1st, &XcptStackHdrSpare2nd}) {
        char* const before = allocated(8);
        memset(copy, 0xAA, sizeof *copy);
        EXPECT_EQ(allocated(8), before + 8);
        for (size_t byte = 0; byte < sizeof *copy; ++byte) {
            reinterpret_cast<char*>(copy)[byte] ^= 0x10;
            EXPECT_EQ(ovXcptMemFree(nullptr, before), 0) << "byte " << byte;
            allocated(8);
        }
    }
}

TEST_F(CrashTime, ReleaseRepairsTheWorkingCopyAlone)
{
    char* const item = allocated(8);
    memset(&XcptStackHdrSpare1st, 0xAA, sizeof XcptStackHdrSpare1st);
    EXPECT_EQ(ovXcptMemFree(nullptr, item), 0);
    EXPECT_FALSE(same(XcptStackHdr, XcptStackHdrSpare1st)) << "only a request refreshes the spares";
}

TEST_F(CrashTime, ResumedThreadGoesOnWithoutTheVote)
{
    allocated(8);
    resumed = true;
    iXcptThdId = 1; // some other thread
    XcptStackHdrSpare1st.ulPageSize = 1;
    XcptStackHdrSpare2nd.ulPageSize = 2;
    iXcptHeaderStatus = SDSTS_NO_MEMORY;
    char* const item = allocated(8);
    EXPECT_EQ(item, block_ + kHead + 8);
    EXPECT_EQ(ovXcptMemFree(nullptr, item), 0);
}

TEST_F(CrashTime, ThreadWithoutAnIdIsNotTheDeclarer)
{
    idRefused = resumed = true;
    XcptStackHdrSpare1st.ulPageSize = 1;
    XcptStackHdrSpare2nd.ulPageSize = 2;
    allocated(8);
}

TEST_F(CrashTime, EveryEntryPointIsServedFromTheReserve)
{
    for (const KEM_BOOL_T manager : {TRUE, FALSE}) {
        KemSdSetMemoryManager(manager);
        std::vector<void*> items{ovMemExtMalloc(100, 2), ovMemExtMalloc(100, 1), ovMemExtCalloc(10, 10, 2)};
        items.push_back(ovMemExtRealloc(items[0], 200));
        items.resize(9);
        EXPECT_EQ(ovMemExtMallocAligned(&items[4], 4096, 100), 0);
        ovMemExtThreadMalloc(nullptr, 100, &items[5], 2);
        ovThreadAlloc(nullptr, 100, &items[6], 2);
        EXPECT_EQ(ovMalloc(nullptr, 100, &items[7], __FILE__, __LINE__), 0);
        EXPECT_EQ(KemSdMemAlloc(nullptr, nullptr, 100, &items[8], __FILE__, __LINE__), 0);
        for (size_t i = 0; i < items.size(); ++i) {
            EXPECT_EQ(ovXcptMemFree(nullptr, items[i]), 0) << "item " << i;
            EXPECT_EQ(reinterpret_cast<uintptr_t>(items[i]) % 8, 0u);
        }
        const KEM_ULONGLONG_T top = XcptStackHdr.ulStackPtrOff;
        ovMemExtFree(items[0]);
        ovMemExtFreeAligned(items[4]);
        ovMemExtThreadFree(items[5]);
        EXPECT_EQ(ovThreadFree(items[6]), 0);
        EXPECT_EQ(ovFree(items[7], __FILE__, __LINE__), 0);
        EXPECT_EQ(KemSdMemFree(nullptr, items[8], __FILE__, __LINE__), 0);
        EXPECT_EQ(XcptStackHdr.ulStackPtrOff, top);
    }
}

TEST_F(CrashTime, BlocksFromBeforeAreLeftAlone)
{
    iXcptExceptionStatus = 0;
    void* const before = malloc(100);
    iXcptExceptionStatus = 1;
    ovMemExtFree(before);
    EXPECT_EQ(ovFree(before, __FILE__, __LINE__), 0);
    resetCalls();
    free(before);
}
