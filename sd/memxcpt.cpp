// Crash-time memory: one block set aside at start-up, and what requests get from it once a fatal exception is declared.
//
// Everything that a request does is safe in a signal handler at any point of the program: no lock, no heap, no system
// call but those that end the process or stop a thread. The reserve never gets a second block, because there is no heap
// to ask for one. Its header lives in three copies; a request goes on only while two of them agree.

#include "sd/memxcpt.h"

#include <kemsd/os.h>
#include <cstdlib>
#include <cstring>

#include "sd/base/poison.h"
#include "sd/base/thread.h"

extern "C" {
constinit KEM_STACKHDR_T XcptStackHdr{};
constinit KEM_STACKHDR_T XcptStackHdrSpare1st{};
constinit KEM_STACKHDR_T XcptStackHdrSpare2nd{};
constinit KEM_PSTACKHDR_T pXcptStackHdr = nullptr;
constinit OV_LONG_T iXcptHeaderStatus = -1;
constinit OV_LONG_T iXcptExceptionStatus = 0;
constinit KEM_THDID_T iXcptThdId = 0;
constinit KEM_BOOL_T bXcptDoCoreDump = FALSE;
}

namespace {

using sd::loadAcquire;
using sd::loadRelaxed;
using sd::storeRelaxed;
using sd::storeRelease;

constexpr OV_LONG_T kNotCreated = -1;
constexpr KEM_ULONG_T kReserveBytes = 1048576;

[[noreturn]] void endProcess()
{
    if (loadRelaxed(bXcptDoCoreDump)) abort();
    exit(0); // Deliberate: from a signal handler too, so that the server's own exit functions still run.
}

// ---- The copies: whole images, padding included

void copyImage(KEM_STACKHDR_T& to, const KEM_STACKHDR_T& from) { memmove(&to, &from, sizeof to); }

bool sameImage(const KEM_STACKHDR_T& a, const KEM_STACKHDR_T& b) { return memcmp(&a, &b, sizeof a) == 0; }

void refreshSpares()
{
    copyImage(XcptStackHdrSpare1st, XcptStackHdr);
    copyImage(XcptStackHdrSpare2nd, XcptStackHdr);
}

// Two copies outvote a third that a stray write has hit.
void vote()
{
    if (sameImage(XcptStackHdr, XcptStackHdrSpare2nd) || sameImage(XcptStackHdr, XcptStackHdrSpare1st)) return;
    if (!sameImage(XcptStackHdrSpare1st, XcptStackHdrSpare2nd)) endProcess();
    copyImage(XcptStackHdr, XcptStackHdrSpare1st);
}

// ---- A request

bool calledByDeclarer()
{
    KEM_THDID_T caller;
    return KemSdThreadIdGet(nullptr, &caller) == 0 && caller == loadRelaxed(iXcptThdId);
}

// The first step of every request. Other threads stop here for good.
void enter()
{
    if (calledByDeclarer()) {
        if (loadAcquire(iXcptHeaderStatus) != 0) endProcess(); // pairs with the creation's last store
        vote();
    } else if (KemSdThreadSuspend(nullptr, nullptr) != 0) {
        endProcess();
    }
}

// Whether a push stays within the one block, which is of the usual size. The block's own head has no copies: were it
// damaged, a push might ask the heaps for another block.
bool hasRoom(OV_ULONG_T bytes)
{
    const KEM_STACKHDR_T& stack = XcptStackHdr;
    const KEM_BLOCKHDR_T* block = stack.pCurrentBlock ? stack.pCurrentBlock : stack.pReservedBlock;
    return block && block->ulBlockSize >= stack.ulCreateBlockSize && stack.ulStackPtrOff <= stack.ulCreateBlockSize &&
           bytes <= stack.ulCreateBlockSize - stack.ulStackPtrOff;
}

// The spares are refreshed once the item is filled: a fault in between finds it not given out.
void* take(OV_ULONG_T bytes)
{
    if (bytes == 0 || !hasRoom(bytes)) endProcess();
    void* item = nullptr;
    if (KemSdMemStackAllocAndPush(nullptr, &XcptStackHdr, bytes, &item) != 0) {
        refreshSpares();
        endProcess();
    }
    return item;
}

OV_STS_T handOut(void* item, void** result)
{
    refreshSpares();
    *result = item;
    return 0;
}

// The bytes from an address to the end of the reserve's block; 0 when it does not lie in one.
KEM_ULONGLONG_T bytesBehind(const void* address)
{
    const auto at = reinterpret_cast<uintptr_t>(address);
    const auto block = reinterpret_cast<uintptr_t>(XcptStackHdr.pCurrentBlock);
    if (block == 0 || at < block + XcptStackHdr.ulDataOff) return 0;
    const uintptr_t end = block + XcptStackHdr.ulCreateBlockSize;
    return at < end ? end - at : 0;
}

// ---- The reserve

// Copies of items run over their ends, so a memory checker guards nothing of the reserve.
void openToCopies(const KEM_STACKHDR_T& stack)
{
    sd::unpoison(reinterpret_cast<char*>(stack.pReservedBlock) + stack.ulDataOff,
                 stack.ulCreateBlockSize - stack.ulDataOff);
}

KEM_STS_T createReserve()
{
    KEM_ULONG_T alignment = 0;
    KemSdMaxAlignGet(nullptr, &alignment);
    const KEM_STS_T sts = KemSdMemStackCreate(nullptr, &pXcptStackHdr, alignment, kReserveBytes);
    if (sts != 0) return sts;
    openToCopies(*pXcptStackHdr);
    copyImage(XcptStackHdr, *pXcptStackHdr);
    refreshSpares();
    return 0;
}

} // namespace

namespace sd {

bool stoppedByFatalException()
{
    // Pairs with the release store of the declaration, which comes after the thread's id.
    return loadAcquire(iXcptExceptionStatus) != 0 && loadRelaxed(iXcptThdId) != currentThread();
}

} // namespace sd

void KemSdXcptCreateStackHeader(void)
{
    if (loadRelaxed(iXcptHeaderStatus) != kNotCreated) return;
    storeRelease(iXcptHeaderStatus, createReserve());
}

void KemSdXcptDestroyStackHeader(void)
{
    if (loadRelaxed(iXcptHeaderStatus) == kNotCreated) return;
    KEM_STACKHDR_T* const created = pXcptStackHdr;
    // First of all, so that a request which comes meanwhile finds no room and ends the process.
    pXcptStackHdr = nullptr;
    memset(&XcptStackHdr, 0, sizeof XcptStackHdr);
    refreshSpares();
    storeRelease(iXcptHeaderStatus, KemSdMemStackDelete(nullptr, created));
}

KEM_STS_T KemSdXcptSetFatExceptionOccured(KEM_BOOL_T bDoCoreDumpOnCrash)
{
    KEM_THDID_T caller;
    if (const KEM_STS_T sts = KemSdThreadIdGet(nullptr, &caller); sts != 0) return sts;
    storeRelaxed(iXcptThdId, caller);
    storeRelaxed(bXcptDoCoreDump, bDoCoreDumpOnCrash);
    storeRelease(iXcptExceptionStatus, 1); // pairs with the look of the other threads
    return 0;
}

OV_LONG_T ovXcptFatExceptionOccured(void) { return loadRelaxed(iXcptExceptionStatus); }

OV_STS_T ovXcptMemAlloc(void*, OV_ULONG_T ulSz, void** ppvBuf)
{
    enter();
    if (!ppvBuf) endProcess();
    return handOut(take(ulSz), ppvBuf);
}

OV_STS_T ovXcptMemCalloc(void*, OV_UINT_T uiBlockCnt, OV_ULONG_T ulBlockSz, void** ppvBuf)
{
    enter();
    if (!ppvBuf) endProcess();
    const OV_ULONG_T bytes = uiBlockCnt * ulBlockSz; // Deliberate: the product wraps in 32 bits.
    void* const item = take(bytes);
    memset(item, 0, bytes);
    return handOut(item, ppvBuf);
}

OV_STS_T ovXcptMemRealloc(void*, OV_ULONG_T ulSz, void** ppvBuf)
{
    enter();
    if (!ppvBuf) endProcess();
    void* const old = *ppvBuf;
    const KEM_ULONGLONG_T available = bytesBehind(old);
    if (old && available == 0) endProcess();
    void* const item = take(ulSz);
    // Deliberate: the old item's size is not recorded, so what lies behind it is copied too. The two may overlap.
    if (old) memmove(item, old, std::min<KEM_ULONGLONG_T>(ulSz, available));
    return handOut(item, ppvBuf);
}

OV_STS_T ovXcptMemFree(void*, void* pvBuf)
{
    enter();
    return bytesBehind(pvBuf) != 0 ? 0 : SDSTS_INVALID_PARAM;
}
