// Memory stacks: items carved one behind the other out of large blocks, released back to an earlier item or all at
// once. A block that falls empty becomes a reserve. A stack has no lock; one thread uses it at a time.
//
//     pCurrentBlock -> [ head | data ... | free ]        pReservedBlock -> [ head | free ]
//                        |             ^ ulStackPtrOff                       | the largest first
//                        v pNextBlock                                        v pNextBlock
//                      [ head | data ... | abandoned ]                     [ head | free ]
//
// An item never spans blocks, and the rest of a full block waits until the stack is popped back into it.

#include <kemsd/memory.h>
#include <kemsd/os.h>
#include <algorithm>
#include <bit>

#include "sd/base/outcome.h"
#include "sd/base/poison.h"

namespace {

using sd::finish;
using sd::finishInvalid;
using sd::ok;

constexpr char kPolicy = 1; // exactly the size that is asked for
constexpr const char* kSource = "sd/sdcommon";
constexpr long kHeaderLine = 846;
constexpr long kFirstBlockLine = 882;
constexpr long kBlockLine = 1001;
constexpr long kPopLine = 1107;
constexpr long kDeleteHeaderLine = 1158;
constexpr long kDeleteReserveLine = 1168;
constexpr long kDeleteBlockLine = 1181;

constexpr KEM_ULONGLONG_T kHeadBytes = sizeof(KEM_BLOCKHDR_T);
// What the allocator may need in front of a block, so that both together fill whole pages.
constexpr KEM_ULONGLONG_T kAllowance = 128;

constexpr KEM_ULONGLONG_T roundUp(KEM_ULONGLONG_T bytes, KEM_ULONGLONG_T alignment)
{
    return (bytes + alignment - 1) & ~(alignment - 1);
}
static_assert(roundUp(16, 1) == 16 && roundUp(16, 64) == 64 && roundUp(65, 64) == 128);

// The size of a block with room for so many bytes. A page size of 1 means that there are no pages to fill. In 64 bits,
// so that a block beyond 32 bits is noticed and not cut.
constexpr KEM_ULONGLONG_T blockSize(KEM_ULONGLONG_T bytes, KEM_ULONGLONG_T page)
{
    if (page == 1) return bytes;
    const KEM_ULONGLONG_T sum = page + bytes + kAllowance - 1;
    return sum - sum % page - kAllowance;
}
static_assert(blockSize(10000, 4096) == 12160 && blockSize(10000, 1) == 10000);
static_assert(blockSize(12160, 4096) == 12160 && blockSize(12161, 4096) == 16256);

constexpr bool isBlockSize(KEM_ULONGLONG_T bytes) { return bytes >= kHeadBytes && bytes <= UINT32_MAX; }

char* bytesOf(KEM_BLOCKHDR_T* block) { return reinterpret_cast<char*>(block); }

// What a memory checker is told of a block: its data are guarded but for the items in it.
void guardData(const KEM_STACKHDR_T& stack, KEM_BLOCKHDR_T* block)
{
    if (block->ulBlockSize > stack.ulDataOff)
        sd::poison(bytesOf(block) + stack.ulDataOff, block->ulBlockSize - stack.ulDataOff);
}

KEM_STS_T obtain(KEM_PSDCTX_T ctx, const KEM_STACKHDR_T& stack, KEM_ULONG_T bytes, long line, KEM_BLOCKHDR_T*& block)
{
    void* place = nullptr;
    const KEM_STS_T sts = KemSdMemAllocUsingPolicy(ctx, nullptr, bytes, &place, kPolicy, kSource, line);
    if (sts != 0) return sts;
    block = static_cast<KEM_BLOCKHDR_T*>(place);
    *block = {.ulBlockSize = bytes, .pNextBlock = nullptr};
    guardData(stack, block);
    return 0;
}

// The head stays as it is, for a release that is refused.
KEM_STS_T giveBack(KEM_BLOCKHDR_T* block, long line)
{
    sd::unpoison(bytesOf(block) + kHeadBytes, block->ulBlockSize - kHeadBytes);
    return KemSdMemFree(nullptr, block, kSource, line);
}

// Gives a chain back; a failure does not keep the rest from going. Returns the first one.
KEM_STS_T giveBackChain(KEM_BLOCKHDR_T* block, long line)
{
    KEM_STS_T first = 0;
    while (block) {
        KEM_BLOCKHDR_T* const next = block->pNextBlock;
        const KEM_STS_T sts = giveBack(block, line);
        if (first == 0) first = sts;
        block = next;
    }
    return first;
}

// ---- Creation

// Fills in a stack and its first block. What the system says about pages and limits is passed on as it stands.
KEM_STS_T prepare(KEM_PSDCTX_T ctx, KEM_ULONG_T alignment, KEM_ULONG_T bytes, KEM_STACKHDR_T& stack)
{
    stack = {};
    KEM_STS_T sts = KemSdPageSizeGet(ctx, &stack.ulPageSize);
    if (sts == 0) sts = KemSdMaxAllocGet(ctx, &stack.ulMaxAlloc);
    if (sts != 0) return sts;
    stack.ulItemAlignment = alignment;
    stack.ulDataOff = stack.ulStackPtrOff = roundUp(kHeadBytes, alignment);
    const KEM_ULONGLONG_T whole = std::min(blockSize(bytes, stack.ulPageSize), stack.ulMaxAlloc);
    if (bytes > stack.ulMaxAlloc || !isBlockSize(whole)) return finishInvalid(ctx);
    stack.ulCreateBlockSize = static_cast<KEM_ULONG_T>(whole);
    return obtain(ctx, stack, stack.ulCreateBlockSize, kFirstBlockLine, stack.pReservedBlock);
}

// ---- Pushing

// The block for an item that the current one has no room for; 0 when there can be none.
KEM_ULONG_T neededBlock(const KEM_STACKHDR_T& stack, KEM_ULONG_T size)
{
    if (stack.ulDataOff > stack.ulMaxAlloc || size > stack.ulMaxAlloc - stack.ulDataOff) return 0;
    const KEM_ULONGLONG_T bytes = stack.ulDataOff + size;
    if (bytes <= stack.ulCreateBlockSize) return stack.ulCreateBlockSize;
    const KEM_ULONGLONG_T whole = std::min(blockSize(bytes, stack.ulPageSize), stack.ulMaxAlloc);
    return isBlockSize(whole) ? static_cast<KEM_ULONG_T>(whole) : 0;
}

// Takes the first reserve, which is the largest, or obtains a block.
KEM_STS_T nextBlock(KEM_PSDCTX_T ctx, KEM_STACKHDR_T& stack, KEM_ULONG_T needed, KEM_BLOCKHDR_T*& block)
{
    block = stack.pReservedBlock;
    if (!block || needed > block->ulBlockSize) return obtain(ctx, stack, needed, kBlockLine, block);
    stack.pReservedBlock = block->pNextBlock;
    return 0;
}

[[gnu::noinline]] KEM_STS_T pushOnNewBlock(KEM_PSDCTX_T ctx, KEM_STACKHDR_T& stack, KEM_ULONG_T size, void** item)
{
    const KEM_ULONG_T needed = neededBlock(stack, size);
    if (needed == 0) return finishInvalid(ctx);
    KEM_BLOCKHDR_T* block;
    if (const KEM_STS_T sts = nextBlock(ctx, stack, needed, block); sts != 0) return sts;
    block->pNextBlock = stack.pCurrentBlock;
    stack.pCurrentBlock = block;
    stack.ulStackPtrOff = roundUp(stack.ulDataOff + size, stack.ulItemAlignment);
    *item = bytesOf(block) + stack.ulDataOff;
    sd::unpoison(*item, size);
    return finish(ctx, ok());
}

// ---- Popping

// The block of the chain in whose data the address lies, or null.
KEM_BLOCKHDR_T* blockWith(const KEM_STACKHDR_T& stack, const void* address)
{
    const auto at = reinterpret_cast<uintptr_t>(address);
    KEM_BLOCKHDR_T* block = stack.pCurrentBlock;
    for (; block; block = block->pNextBlock) {
        const auto from = reinterpret_cast<uintptr_t>(block);
        if (at >= from + stack.ulDataOff && at < from + block->ulBlockSize) break;
    }
    return block;
}

// Deliberate: a stack that goes back by several blocks keeps only the lowest of them, and only as its sole reserve.
bool worthKeeping(const KEM_STACKHDR_T& stack, const KEM_BLOCKHDR_T* block, const KEM_BLOCKHDR_T* target)
{
    return block->pNextBlock == target && !stack.pReservedBlock && block->ulBlockSize == stack.ulCreateBlockSize;
}

// Clears the chain down to the target. A block kept is the last one, so that a failure leaves the header as it was.
KEM_STS_T dropAbove(KEM_STACKHDR_T& stack, const KEM_BLOCKHDR_T* target)
{
    for (KEM_BLOCKHDR_T* block = stack.pCurrentBlock; block != target;) {
        KEM_BLOCKHDR_T* const next = block->pNextBlock;
        if (worthKeeping(stack, block, target)) {
            block->pNextBlock = nullptr;
            stack.pReservedBlock = block;
            guardData(stack, block);
        } else if (const KEM_STS_T sts = giveBack(block, kPopLine); sts != 0) {
            return sts;
        }
        block = next;
    }
    return 0;
}

// The reserves stay ordered, the largest first; of equal ones the newest first.
void reserve(KEM_STACKHDR_T& stack, KEM_BLOCKHDR_T* block)
{
    KEM_BLOCKHDR_T** place = &stack.pReservedBlock;
    while (*place && (*place)->ulBlockSize > block->ulBlockSize) place = &(*place)->pNextBlock;
    block->pNextBlock = *place;
    *place = block;
    guardData(stack, block);
}

} // namespace

KEM_FUNC_M KemSdMemStackCreate(KEM_PSDCTX_T pSdCtx, KEM_STACKHDR_T** ppStackHdr, KEM_ULONG_T ulItemAlignment,
                               KEM_ULONG_T ulBlockSize)
{
    if (!ppStackHdr || !std::has_single_bit(ulItemAlignment)) return finishInvalid(pSdCtx);
    void* place = nullptr;
    KEM_STS_T sts =
        KemSdMemAllocUsingPolicy(pSdCtx, nullptr, sizeof(KEM_STACKHDR_T), &place, kPolicy, kSource, kHeaderLine);
    *ppStackHdr = static_cast<KEM_STACKHDR_T*>(place);
    if (sts != 0) return sts;
    KEM_STACKHDR_T stack;
    sts = prepare(pSdCtx, ulItemAlignment, ulBlockSize, stack);
    // Deliberate: the header of a failed creation is the caller's to delete. It says that there is nothing else.
    **ppStackHdr = sts == 0 ? stack : KEM_STACKHDR_T{};
    return sts;
}

// A leaf in the common case: an item that the current block has room for is within every limit.
KEM_FUNC_M KemSdMemStackAllocAndPush(KEM_PSDCTX_T pSdCtx, KEM_PSTACKHDR_T pStackHdr, KEM_ULONG_T ulSz, void** ppBuf)
{
    if (!pStackHdr || !ppBuf) [[unlikely]]
        return finishInvalid(pSdCtx);
    KEM_BLOCKHDR_T* const block = pStackHdr->pCurrentBlock;
    const KEM_ULONGLONG_T offset = pStackHdr->ulStackPtrOff;
    const KEM_ULONGLONG_T end = offset + ulSz;
    if (!block || end > block->ulBlockSize) [[unlikely]]
        return pushOnNewBlock(pSdCtx, *pStackHdr, ulSz, ppBuf);
    pStackHdr->ulStackPtrOff = roundUp(end, pStackHdr->ulItemAlignment);
    *ppBuf = bytesOf(block) + offset;
    sd::unpoison(*ppBuf, ulSz);
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdMemStackPopAndFree(KEM_PSDCTX_T pSdCtx, KEM_PSTACKHDR_T pStackHdr, void* pBuf)
{
    KEM_BLOCKHDR_T* const target = pStackHdr ? blockWith(*pStackHdr, pBuf) : nullptr;
    if (!target) return finishInvalid(pSdCtx);
    if (const KEM_STS_T sts = dropAbove(*pStackHdr, target); sts != 0) return finish(pSdCtx, sd::fail(sts));
    pStackHdr->pCurrentBlock = target;
    pStackHdr->ulStackPtrOff = static_cast<KEM_ULONGLONG_T>(static_cast<char*>(pBuf) - bytesOf(target));
    sd::poison(pBuf, target->ulBlockSize - pStackHdr->ulStackPtrOff);
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdMemStackReset(KEM_PSDCTX_T pSdCtx, KEM_PSTACKHDR_T pStackHdr)
{
    if (!pStackHdr) return finishInvalid(pSdCtx);
    if (!pStackHdr->pCurrentBlock) return 0; // Deliberate: the context is left alone.
    while (KEM_BLOCKHDR_T* const block = pStackHdr->pCurrentBlock) {
        pStackHdr->pCurrentBlock = block->pNextBlock;
        reserve(*pStackHdr, block);
    }
    pStackHdr->ulStackPtrOff = pStackHdr->ulDataOff;
    return finish(pSdCtx, ok());
}

KEM_FUNC_M KemSdMemStackDelete(KEM_PSDCTX_T pSdCtx, KEM_PSTACKHDR_T pStackHdr)
{
    if (!pStackHdr) return finishInvalid(pSdCtx);
    KEM_BLOCKHDR_T* const current = pStackHdr->pCurrentBlock;
    KEM_BLOCKHDR_T* const reserves = pStackHdr->pReservedBlock;
    KEM_STS_T sts = KemSdMemFree(nullptr, pStackHdr, kSource, kDeleteHeaderLine);
    if (sts != 0) return finish(pSdCtx, sd::fail(sts));
    sts = giveBackChain(reserves, kDeleteReserveLine);
    const KEM_STS_T later = giveBackChain(current, kDeleteBlockLine);
    return finish(pSdCtx, sd::fail(sts != 0 ? sts : later));
}
