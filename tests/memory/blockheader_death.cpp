#include <gmock/gmock.h>
#include <kemsd/kemsd.h>

using testing::HasSubstr;

TEST(BlockHeaderDeath, ResizingAReleasedBlockEndsTheProcess)
{
    void* const block = mallocModified(100, 2);
    static_cast<OV_ALLOCMEMBLKHDR_T*>(block)[-1].policy = 0;
    EXPECT_DEATH(reallocModified(block, 200), HasSubstr("sd/memheap:246: reallocModified: Assertion `policy != 0'"));
    free(static_cast<char*>(block) - 64);
}

#if !defined(__SANITIZE_THREAD__) // whose free takes any pointer in silence
// The pointer that the system allocator gets is the caller's own, which it refuses.
TEST(BlockHeaderDeath, ABlockWithADeadHeaderIsTakenForOneWithoutAHeader)
{
    void* const block = mallocModified(100, 2);
    static_cast<OV_ALLOCMEMBLKHDR_T*>(block)[-1].policy = 0;
    EXPECT_DEATH(freeModified(block), "");
    free(static_cast<char*>(block) - 64);
}
#endif

TEST(BlockHeaderDeath, ThreadFreeOfADeadBlockEndsInTheFreeListsAssertion)
{
    KemSdSetMemoryManager(TRUE);
    ovCreateThreadAlloc(nullptr);
    void* const block = mallocModified(100, 2);
    static_cast<OV_ALLOCMEMBLKHDR_T*>(block)[-1].policy = 0;
    EXPECT_DEATH(ovMemExtThreadFree(block), HasSubstr("Assertion `pHdr->policy != 0' failed"));
    free(static_cast<char*>(block) - 64);
    ovDestroyThreadAlloc(nullptr);
}
