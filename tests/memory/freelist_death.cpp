#include <gmock/gmock.h>
#include <kemsd/kemsd.h>

using testing::HasSubstr;

namespace {

class FreeListDeath : public testing::Test {
protected:
    void SetUp() override
    {
        KemSdSetMemoryManager(TRUE);
        ovCreateThreadAlloc(nullptr);
    }
    void TearDown() override { ovDestroyThreadAlloc(nullptr); }

    static void* block(char policy)
    {
        void* given = nullptr;
        ovThreadAlloc(nullptr, 100, &given, policy);
        return given;
    }
    static OV_ALLOCMEMBLKHDR_T& headerOf(void* given) { return static_cast<OV_ALLOCMEMBLKHDR_T*>(given)[-1]; }
};

#define IN_RELEASE "void ThreadAllocator::release(void*): Assertion `"

} // namespace

TEST_F(FreeListDeath, ReleasingABlockTwiceEndsTheProcess)
{
    void* const given = block(2);
    ovThreadFree(given);
    EXPECT_DEATH(ovThreadFree(given), HasSubstr("sd/ThreadAllocator:206: " IN_RELEASE "pHdr->policy != 0' failed"));
}

TEST_F(FreeListDeath, AnExactBlocksPrefixIs8)
{
    void* const given = block(1);
    headerOf(given).hlen = 9;
    EXPECT_DEATH(ovThreadFree(given), HasSubstr("sd/ThreadAllocator:218: " IN_RELEASE
                                                "pHdr->hlen == ((char) sizeof(OV_ALLOCMEMBLKHDR_T))' failed"));
    headerOf(given).hlen = 8;
    ovThreadFree(given);
}

TEST_F(FreeListDeath, APooledBlocksPrefixIs64)
{
    void* const given = block(2);
    headerOf(given).hlen = 8;
    EXPECT_DEATH(ovThreadFree(given),
                 HasSubstr("sd/ThreadAllocator:230: " IN_RELEASE "pHdr->hlen == ((char) 64)' failed"));
    headerOf(given).hlen = 64;
    ovThreadFree(given);
}

TEST_F(FreeListDeath, AnyOtherPolicyEndsTheProcess)
{
    void* const given = block(3);
    EXPECT_DEATH(ovThreadFree(given), HasSubstr("sd/ThreadAllocator:264: " IN_RELEASE "0' failed"));
    headerOf(given).policy = 2;
    ovThreadFree(given);
}

#if defined(__SANITIZE_ADDRESS__)
TEST_F(FreeListDeath, WritingIntoAReleasedBlockIsSeenByAddressSanitizer)
{
    auto* const given = static_cast<volatile char*>(block(2));
    ovThreadFree(const_cast<char*>(given));
    EXPECT_DEATH(given[5] = 'x', "use-after-poison");
}
#endif
