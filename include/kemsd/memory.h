/* Memory: the server-wide allocation calls and their accounting, the records they keep, short-term heaps, aligned,
 * mapped and locked pages, the public context-reporting calls, memory stacks, crash-time memory, the per-thread free
 * lists, and placement on NUMA nodes.
 *
 * Every block comes from one of two worlds. While the thread heaps are off, from the system allocator, with an 8-byte
 * header in front when the memory manager is on. Once ovMemThreadHeapInit has built the thread heaps, requests of up
 * to MaxAllocBlock bytes come from binned heaps, larger ones from the system allocator under the memory limit.
 *
 *     void* block;
 *     if (ovMalloc(threadContext, 100, &block, __FILE__, __LINE__) != 0) return SDSTS_NO_MEMORY;
 *     ovFree(block, __FILE__, __LINE__);
 *
 * fname and line are the caller's source position: accepted for diagnostics, not used on these paths. */
#ifndef KEMSD_MEMORY_H
#define KEMSD_MEMORY_H

#include <kemsd/context.h>
#include <kemsd/sync.h>

KEM_EXTERN_C_BEGIN

struct OV_SVCTX_T;

/* ---- Block headers ---------------------------------------------------------------------------------------------- */

/* The 8 bytes before the caller's pointer of every block that the system-allocator paths hand out while the memory
 * manager is on:
 *
 *     policy 1    [ header 8 ][ data ...                      hlen  8, capacity = the request
 *     policy 2    [ 56 bytes ][ header 8 ][ data ...          hlen 64, capacity = a power of two up to 2 MiB
 */
typedef struct OV_ALLOCMEMBLKHDR_T {
    OV_ULONG_T poolIndex; /* size class: log2 of the capacity; 22 and more is a large block; 0 for policy 1 */
    char padding[2];      /* never written or read */
    char policy;          /* 1, 2, or 0 for a dead block */
    char hlen;            /* bytes from the system block's start to the caller's pointer */
} OV_ALLOCMEMBLKHDR_T;

KEM_STATIC_ASSERT(sizeof(OV_ALLOCMEMBLKHDR_T) == 8, "the block header is 8 bytes");
KEM_STATIC_ASSERT(offsetof(OV_ALLOCMEMBLKHDR_T, policy) == 6, "policy at byte 6, hlen at byte 7");

/* A policy is 1 or 2. Any other value is laid out like 2, but freeModified does not recognise it. Policy 2 rounds a
 * request of up to 2,097,152 bytes up to a power of two, whose exponent is the class (3 bytes: 4 of class 2; 0 and 1
 * byte: class 0); a larger request keeps its size and has class 22 or more.
 *
 * None of these calls takes a lock; they are as safe among threads as the system allocator. A block must be released
 * under the setting of KemSdSetMemoryManager under which it was made.
 *
 *     void* block = ovMemExtMalloc(100, 2);          // 128 bytes of class 7
 *     void* larger = ovMemExtRealloc(block, 120);    // the same block: it has room
 *     ovMemExtFree(larger); */

/* A block of at least s bytes with its header, or null without memory. */
KEM_API OV_PVOID_T mallocModified(size_t s, char policy);

/* The same for num elements of sizeOne bytes, all zero. The product is not checked for overflow, and sizeOne must not
 * be 0. */
KEM_API OV_PVOID_T callocModified(size_t num, size_t sizeOne, char policy);

/* Resizes, keeping policy and data; a null pvBuf gives a new block of policy 2. A block of policy 2 whose class does
 * not change, 21 at most, is returned as it is. Null without memory: the old block then stays, but with a dead header,
 * so that freeModified does not recognise it. A dead header ends the process with the assertion "policy != 0". */
KEM_API OV_PVOID_T reallocModified(OV_PVOID_T pvBuf, size_t s);

/* Releases by the header: policy 2 with hlen 64, or policy 1 with hlen 8. Any other two bytes are taken for a block
 * without a header, and pvBuf itself goes to the system allocator. pvBuf must not be null. */
KEM_API void freeModified(void* pvBuf);

/* The entry points below pass a request on, in this order: to crash-time memory once a fatal exception is declared; to
 * the four calls above while the memory manager is on; else to the system allocator, without a header. Null without
 * memory. */
KEM_API void* ovMemExtMalloc(size_t size, char policy);
/* blockSize must not be 0 while the memory manager is on. */
KEM_API void* ovMemExtCalloc(OV_UINT_T blockCount, OV_ULONG_T blockSize, char policy);
KEM_API void* ovMemExtRealloc(OV_PVOID_T pvBuf, size_t size);
/* pvBuf must not be null while the memory manager is on. */
KEM_API void ovMemExtFree(OV_PVOID_T pvBuf);

/* Aligned memory never has a header, whatever the setting. alignment is in bytes, a power of two and a multiple of 8.
 * Returns posix_memalign's result, 0 or an error number, or SDSTS_INVALID_PARAM when memptr is null. Crash-time memory
 * drops the alignment and reports its own status. */
KEM_API OV_STS_T ovMemExtMallocAligned(void** memptr, size_t alignment, size_t size);
/* pvBuf may be null. */
KEM_API void ovMemExtFreeAligned(OV_PVOID_T pvBuf);

/* Stores a block through ppvfBuf, or null without memory. While the memory manager is on, up to 2,097,152 bytes come
 * from the thread's free lists when it has them; everything else is ovMemExtMalloc. thdctxp is unused; a null ppvfBuf
 * does nothing. */
KEM_API void ovMemExtThreadMalloc(void* thdctxp, size_t size, void** ppvfBuf, char policy);

/* Releases to the thread's free lists what may lie in them, and everything else by ovMemExtFree. A header that is
 * neither ends in the assertions of ovThreadFree. Null does nothing. */
KEM_API void ovMemExtThreadFree(OV_PVOID_T pvBuf);

/* ---- Binned heap ------------------------------------------------------------------------------------------------ */

#define OV_MEM_FASTBINS 20
#define OV_MEM_BINS 32

struct OV_MemHeap_T;

/* A block inside a heap's region. All sizes are multiples of 8 and include the header.
 *
 *     offset     0       4          8          16         24        32
 *     free       size    prevsize   null       next       prev      index     (40 bytes at least)
 *     in use     size    prevsize   MemHeap    marker     data ...
 *
 * A non-null MemHeap marks a block in use. A block on a fast bin keeps its MemHeap, its marker is the fast-bin link. */
typedef struct OV_MemBin_T {
    OV_ULONG_T size;
    OV_ULONG_T prevsize; /* bytes of the block physically before; 0 for the region's first */
    struct OV_MemHeap_T* MemHeap;
    struct OV_MemBin_T* next; /* next block of the bin's circle */
    struct OV_MemBin_T* prev;
    OV_LONG_T index; /* the bin that holds it */
} OV_MemBin_T;

typedef struct OV_MemAllocBlock_T {
    OV_ULONG_T size;
    OV_ULONG_T prevsize;
    struct OV_MemHeap_T* MemHeap;
    void* marker; /* null when handed out */
} OV_MemAllocBlock_T;

KEM_STATIC_ASSERT(sizeof(OV_MemBin_T) == 40, "the smallest free block");
KEM_STATIC_ASSERT(sizeof(OV_MemAllocBlock_T) == 24, "the caller's pointer is block + 24");
KEM_STATIC_ASSERT(offsetof(OV_MemAllocBlock_T, marker) == 16, "the word before the caller's pointer");

typedef struct OV_MemHeapHeader_T {
    OV_SPINLOCK_T SpinLock;                       /* long-term heaps only */
    OV_MemAllocBlock_T* FastBin[OV_MEM_FASTBINS]; /* singly linked lists of freed small blocks */
    OV_MemBin_T* Bin[OV_MEM_BINS];                /* heads of circles of free blocks; valid where BinMap is 0 */
    char* HeapEnd;                                /* one past the region's last byte */
    OV_ULONG_T FastBinCount;                      /* blocks on all fast bins together */
    OV_BYTE_T BinMap[OV_MEM_BINS];                /* 0: bin non-empty; else distance to the next non-empty bin above,
                                                     or beyond 31 */
} OV_MemHeapHeader_T;

typedef struct OV_MemHeap_T {
    OV_MemHeapHeader_T HeapHeader;
    struct OV_MemHeap_T* next; /* the owner's list of heaps */
    struct OV_MemHeap_T* prev;
    volatile OV_LONG_T ThreadHeapId; /* slot number; 4095 none; 0x7FFFFFFF a short-term heap */
    double HeapBuffer;               /* first byte of the block area, which runs to HeapEnd */
} OV_MemHeap_T;

KEM_STATIC_ASSERT(offsetof(OV_MemHeap_T, HeapBuffer) % 8 == 0, "blocks are 8-byte aligned");

/* Makes a heap of the region that begins at MemHeap: HeapSize bytes of the manager's record with a spinlock (6005) when
 * LongTermHeap is TRUE, else ShortHeapSize bytes without one. The whole region must be the caller's; 8-byte aligned.
 * The heap lives until the region is released; the lock is not destroyed with it.
 *
 *     OV_MemHeap_T* heap = region;                    // ShortHeapSize bytes
 *     ovMemHeapInit(heap, FALSE);
 *     void* block = ovMemHeapMalloc(heap, 100);
 *     ovMemHeapFree(heap, block);
 *
 * The calls take no lock: each is made under the heap's own, or by the heap's only user. */
KEM_API void ovMemHeapInit(OV_MemHeap_T* MemHeap, OV_BOOL_T LongTermHeap);

/* A block of at least `bytes` bytes, 8-byte aligned; 0 to 24 bytes take the same smallest block. Null when the heap has
 * no room, or for more than 0xFFFFFFC0 bytes: nothing has changed then, but that released blocks may have been joined.
 */
KEM_API void* ovMemHeapMalloc(OV_MemHeap_T* MemHeap, OV_ULONG_T bytes);

/* Releases a block of this heap. Anything but a live block of it damages the heap; a damaged free list that is met
 * later ends the process. */
KEM_API void ovMemHeapFree(OV_MemHeap_T* MemHeap, void* block);

/* Resizes a block of this heap: in place when it shrinks, else by moving it within the heap. Null when there is no
 * room: the block is untouched. */
KEM_API void* ovMemHeapRealloc(OV_MemHeap_T* MemHeap, void* block, OV_ULONG_T bytes);

/* ---- The memory manager's record -------------------------------------------------------------------------------- */

/* A block that did not come from a heap: the 32 bytes before the caller's pointer. */
typedef struct OV_MemAllocExtBlock_T {
    OV_ULONGLONG_T size;                /* bytes requested */
    struct OV_MemAllocExtBlock_T* prev; /* list link of a short-term external block, else null */
    struct OV_MemAllocExtBlock_T* next;
    void* marker; /* -9, or the address of the list head in the owning thread context; never null */
} OV_MemAllocExtBlock_T;

KEM_STATIC_ASSERT(sizeof(OV_MemAllocExtBlock_T) == 32, "the external header is 32 bytes");

/* The server's thread context, passed as the owning address of allocations. */
typedef struct OV_THDCTX_T {
    void* NetCtx;                             /* handed to the message call-back */
    OV_MemHeap_T* MemShortHeap;               /* current short-term heap, null when none */
    OV_MemAllocExtBlock_T* MemShortExtBlocks; /* head of the circle of short-term external blocks */
    struct OV_SVCTX_T* svctxp;                /* the service context, file.h */
    KEM_SYNCCTX_T* pSyncCtx;                  /* its nodes of reader-writer locks */
    KEM_PSDCTX_T pSdCtx;
    OV_BOOL_T MemShortDisableFree;
    OV_BOOL_T bBusyWriteIO;
} OV_THDCTX_T;

/* Called with the thread context's NetCtx, a message number, a level (3 warning, 4 error) and two unsigned 32-bit
 * arguments, each by address with its type code 6. */
typedef int (*OV_NETMESSAGE_T)(void* netCtx, int number, int level, void* first, int firstType, void* second,
                               int secondType);

typedef enum MemoryMessage { memmsg_noerror = 0, memmsg_warning = 1, memmsg_error = 2 } MemoryMessage;

/* One tracked aligned block. */
typedef struct OV_MemAlignedItem_T {
    OV_ULONGLONG_T size; /* bytes charged */
    void* block;
    struct OV_MemAlignedItem_T* next; /* next item of the same bucket */
} OV_MemAlignedItem_T;

KEM_STATIC_ASSERT(sizeof(OV_MemAlignedItem_T) == 24, "the tracking item is 24 bytes");

typedef struct OV_MemHeapPool_T {
    OV_MemHeap_T* MemHeap; /* first heap of a circle through next and prev */
    OV_SPINLOCK_T SpinLock;
    OV_LONG_T NumHeaps;
} OV_MemHeapPool_T;

#define OV_MEM_SLOTS 64
#define OV_MEM_BUCKETS 16
#define OV_MEM_ALIGNED_BUCKETS 131

/* The memory manager's single record. It is the library's own: a server reads it through the calls below. How each
 * field is protected stands beside the lock numbers in the library's memory manager. */
typedef struct OV_MemThreadHeap_T {
    OV_ULONG_T HeapSize;                           /* bytes of a long-term heap's region, heap record included */
    OV_ULONG_T ShortHeapSize;                      /* bytes of a short-term heap's region */
    OV_ULONG_T MaxAllocBlock;                      /* bytes; larger requests bypass the heaps; 0: no heaps are built */
    OV_MemHeap_T* volatile Heap[OV_MEM_SLOTS];     /* the heap of each slot; null: none, the system serves */
    OV_MemHeap_T* volatile HeapCopy[OV_MEM_SLOTS]; /* differs from Heap while a slot is being switched */
    OV_MemHeapPool_T MemHeapPool;                  /* spare long-term heaps */
    OV_MemHeapPool_T MemShortHeapPool;             /* spare short-term heaps */
    OV_LONG_T NumThreadHeaps;                      /* slots in use; > 0: thread heaps on; -1: terminated */
    OV_LONG_T NumHeaps;                        /* heaps configured; after start-up, heaps that may still be created */
    OV_LONG_T MaxNumHeaps;                     /* most heaps there may be, slots and pool included */
    OV_ULONGLONG_T MemoryLimit;                /* bytes of heaps and aligned memory in all; 0: none */
    volatile OV_ULONGLONG_T malloc_count;      /* heap allocations; unlocked, a lost count is accepted */
    volatile OV_ULONGLONG_T UsedMemory;        /* bytes in heap regions and blocks outside heaps, headers included */
    volatile OV_ULONGLONG_T UsedAlignedMemory; /* bytes of aligned and page memory */
    volatile OV_ULONGLONG_T MaxUsedMemory;     /* high-water marks since start, bytes */
    volatile OV_ULONGLONG_T MaxUsedAlignedMemory;
    volatile OV_ULONGLONG_T MaxTotalUsedMemory;
    volatile OV_ULONGLONG_T MaxUsedMarkMemory; /* high-water marks since the last reset, bytes */
    volatile OV_ULONGLONG_T MaxUsedAlignedMarkMemory;
    volatile OV_ULONGLONG_T MaxTotalUsedMarkMemory;
    volatile OV_ULONG_T AllocBlocks[OV_MEM_BUCKETS]; /* allocations and releases by size bucket, since start */
    volatile OV_ULONG_T DeAllocBlocks[OV_MEM_BUCKETS];
    volatile OV_ULONG_T AllocBlocksMark[OV_MEM_BUCKETS]; /* the same, since the last reset */
    volatile OV_ULONG_T DeAllocBlocksMark[OV_MEM_BUCKETS];
    OV_THDCTX_T* volatile tctxp;                 /* thread context used for messages; null: no messages */
    volatile OV_LONG_T MaxShortMemoryPoolSize;   /* most spare short-term heaps kept */
    volatile OV_LONG_T LimitShortHeapsForRemove; /* with none in use, a pool of more than these is emptied */
    volatile OV_LONG_T NumShortNumHeapsInUsage;  /* short-term heaps handed out and not yet returned */
    OV_MemAlignedItem_T* MemoryControlAlignedArray[OV_MEM_ALIGNED_BUCKETS]; /* tracked aligned blocks */
    OV_BOOL_T MemoryControl;                       /* account used memory and enforce MemoryLimit */
    OV_BOOL_T MemoryBlocksControl;                 /* count allocations by size bucket */
    OV_BOOL_T ShortMemoryOn;                       /* short-term heaps enabled */
    KEM_PSDCTX_T pSdCtx;                           /* the memory manager's own context */
    OV_SPINLOCK_T SpinLock;                        /* 6001: counters and limit */
    OV_SPINLOCK_T SpinLockBlocks;                  /* 6004: bucket counters */
    OV_NETMESSAGE_T fNetLocalMessage;              /* the message call-back; null: none */
    volatile OV_ULONG_T next_message_malloc_count; /* malloc_count before which no further message is made */
    volatile OV_ULONG_T MemMessageUsedMemory;      /* used bytes at the last limit event, low 32 bits */
    volatile MemoryMessage LastMemMessage;         /* the last message made or suppressed */
    volatile MemoryMessage MemMessage;             /* memmsg_warning: a warning is pending */
    OV_BYTE_T MallocInitValue;                     /* fill byte for new blocks */
    OV_BYTE_T FreeInitValue;                       /* fill byte for released blocks */
    OV_BYTE_T ErrorExit;                           /* 1: the configured limit was rejected */
} OV_MemThreadHeap_T;

/* ---- Start-up ---------------------------------------------------------------------------------------------------
 * The server starts the thread heaps once, before it starts other threads:
 *
 *     if (ovMemThreadHeapInit(TRUE, (void*)netMessage, "server", FALSE) != 0) return 1;    // no memory for the heaps
 *     ovMemSetThreadContext(threadContext);
 *     if (ovMemCheckMemoryMinStatus(threadContext) != 0) return 1;    // the configured limit was rejected
 */

/* Takes the settings from the memory configuration file (docs/memory-configuration.md), builds the heaps and the
 * manager's locks, and prints a summary, or complaints about the file, on standard output.
 *
 * UseThreadHeap: 0 leaves the thread heaps off. fNetLocalMessage: an OV_NETMESSAGE_T for shortage reports and warnings,
 * or null; stored in every case. appname: the file "config.mem.<appname>" is preferred to "config.mem"; null skips it.
 * assumeConfigFileExists: not 0 starts with the defaults when neither file can be opened.
 *
 * The thread heaps stay off, with result 0, when no file was found, when it asks for none, or when its memory limit is
 * below 10 MiB; ovMemCheckMemoryMinStatus tells the last case. A second call turns them off again, also after
 * ovMemThreadHeapTerm; a third one starts anew. Not safe beside other memory calls: no lock is taken.
 *
 * 0: done. SDSTS_NO_MEMORY: a heap region or a lock could not be obtained, the limit may be too small for the heaps;
 * what was built stays, and the caller is expected to stop. If it goes on, the system allocator serves what the heaps
 * built so far cannot. */
KEM_API int ovMemThreadHeapInit(int UseThreadHeap, void* fNetLocalMessage, char* appname, int assumeConfigFileExists);

/* Fills seven elements: [0] memory limit in bytes, 0 for none; [1] thread heaps, -1 widened with its sign after
 * termination; [2] most heaps; [3] bytes of a heap; [4] bytes of a short-term heap, 0 when these are off; [5] largest
 * request served from a heap, in bytes; [6] 1 when memory is counted. [1] to [4] are 0 whenever [5] is 0.
 * A null array is left alone. Safe from any thread after start-up. */
KEM_API void ovMemGetMemorySettings(OV_ULONGLONG_T* arg);

/* Sends every further request the way of thread heaps off; blocks handed out before stay valid and are still released
 * through the same calls. No region is released. Nothing happens when the thread heaps are off. */
KEM_API void ovMemThreadHeapTerm(void);

/* Names the thread context (an OV_THDCTX_T) whose NetCtx goes with messages; null, or a reset, stops messages. The
 * context must stay valid until it is replaced. Plain stores, safe from any thread. */
KEM_API void ovMemSetThreadContext(void* tctxp);
KEM_API void ovMemResetThreadContext(void);

/* ---- Allocation -------------------------------------------------------------------------------------------------
 * The calls the whole server uses, from any thread. UniqueAddress is the owner: the caller's thread context, or null.
 * While the thread heaps are on it chooses the heap, so that threads tend to different ones; where it is null the
 * address of the result variable (for ovRealloc the old block) serves instead. ovRealloc reads the owner as an
 * OV_THDCTX_T when a short-term block cannot be resized.
 *
 * Statuses: 0; SDSTS_INVALID_PARAM for a size of 0, no place for the result or a null block to release; SDSTS_NO_MEMORY
 * when nothing could be obtained, which is also reported through the message call-back. A failed call never changes the
 * caller's old block. Blocks are aligned to 8 bytes. Thread heaps may be switched on or off while blocks are out: each
 * finds its way home.
 */

/* Stores a block of `size` bytes in *ppvfBuf. With thread heaps on, up to MaxAllocBlock bytes come from a heap, more
 * from the system under the memory limit; alignment and policy are not used then. With thread heaps off, a non-zero
 * alignment (a power of two, a multiple of 8) gives an aligned block without header, and policy 1 or 2 chooses the
 * header of the others while the memory manager is on. SDSTS_INVALID_PARAM: size 0, nothing stored. SDSTS_NO_MEMORY:
 * null stored (an aligned request leaves the place alone). */
KEM_API int ovMallocBase(void* UniqueAddress, size_t alignment, size_t size, void** ppvfBuf, char policy,
                         const char* fname, long line);
/* The same without alignment, policy 2. */
KEM_API int ovMalloc(void* UniqueAddress, size_t size, void** ppvfBuf, const char* fname, long line);
/* The same without alignment. */
KEM_API int ovMallocPolicy(void* UniqueAddress, size_t size, void** ppvfBuf, char policy, const char* fname, long line);
/* The same with policy 2. */
KEM_API int ovMallocAligned(void* UniqueAddress, size_t alignment, size_t size, void** ppvfBuf, const char* fname,
                            long line);

/* Stores a zero-filled block of num x size bytes. SDSTS_INVALID_PARAM: the product is 0; null is stored (ppvfBuf may be
 * null then). SDSTS_NO_MEMORY: num is negative or the product is beyond 64 bits; null is stored. Memory that runs out
 * is not survivable here: the fill comes before any test and ends the process. */
KEM_API int ovCalloc(void* UniqueAddress, long num, size_t size, void** ppvfBuf, char policy, const char* fname,
                     long line);

/* Resizes pvfOldBuf to `size` bytes and stores where it lies now in *ppvfNewBuf, which may be the old place. A null old
 * block is ovMalloc. SDSTS_INVALID_PARAM: size 0, nothing stored. SDSTS_NO_MEMORY: null stored, the old block is as it
 * was. With bucket counting on, a resize that moves counts the release twice. */
KEM_API int ovRealloc(void* UniqueAddress, size_t size, void* pvfOldBuf, void** ppvfNewBuf, const char* fname,
                      long line);

/* Releases a block of the calls above, by any thread. alignment: the one it was requested with, 0 for none.
 * SDSTS_INVALID_PARAM: null. Works also while KemSdSetMemDeallocOption is in force. */
KEM_API int ovFreeBase(void* ptr, size_t alignment, const char* fname, long line);
/* The same without alignment; does nothing and returns 0 while KemSdSetMemDeallocOption is in force. */
KEM_API int ovFree(void* ptr, const char* fname, long line);
/* The same as ovFreeBase. */
KEM_API int ovFreeAligned(void* ptr, size_t alignment, const char* fname, long line);

/* A copy of the text with five zero bytes behind it, to be released with ovFree; null for null or without memory. */
KEM_API char* ovStrDup(const char* pStr, const char* fname, long line);

/* ---- Short-term heaps -------------------------------------------------------------------------------------------
 * Heaps of one thread for the many small blocks of one unit of work, all given back together. They take no locks: only
 * their thread may allocate from them, resize and release their blocks, and end them. Example:
 *
 *     ovMemShortHeapInit(threadContext);
 *     if (ovMemShortCheckStatus(threadContext)) {
 *         ovMemShortHeapMalloc(threadContext, 200, &row, __FILE__, __LINE__);
 *         ...
 *         ovMemShortHeapTerm(threadContext);    // row is gone
 *     }
 *
 * They exist while the thread heaps are on and the configuration asks for them. The heaps of ended units of work are
 * kept for the next ones, MaxShortMemoryPoolSize of them at most; when none is in use, a stock of more than
 * LimitShortHeapsForRemove goes back to the system. tctxp is the calling thread's context; null does nothing, and gives
 * SDSTS_INVALID_PARAM where there is a status. While the thread heaps are on, single blocks may be released by ovFree
 * and resized by ovRealloc, which takes a larger block out of the unit of work.
 *
 * When the thread heaps end before the unit of work does, its blocks stay good, but only the calls below know them, and
 * the regions of its heaps are not given back. A larger block that is obtained while the thread heaps are off is
 * ovMalloc's alone: it is to be released by ovFree. */

/* Gives the context its first short-term heap, unless it has one, and an empty list of larger blocks. Without memory,
 * of which the server is told, it stays without. */
KEM_API void ovMemShortHeapInit(OV_THDCTX_T* tctxp);

/* Whether the context has a short-term heap. */
KEM_API OV_BOOL_T ovMemShortCheckStatus(OV_THDCTX_T* tctxp);

/* Stores a block of size bytes: up to MaxAllocBlock bytes from the context's heaps, of which there may be more in the
 * end, a larger one from ovMalloc.
 * SDSTS_INVALID_PARAM: size below 1, or block is null; nothing is stored. SDSTS_NO_MEMORY, null stored: no further heap
 * (the server is told), or no heap at all. A larger block's failure is that of ovMalloc. */
KEM_API OV_STS_T ovMemShortHeapMalloc(OV_THDCTX_T* tctxp, OV_LONG_T size, void** block, const char* fname, long line);

/* Resizes a block of ovMemShortHeapMalloc, in place or by moving it; null makes it that call. The old block stays when
 * it fails. SDSTS_INVALID_PARAM: size below 1, or newblock is null. Otherwise the failure of ovMemShortHeapMalloc or,
 * for a block that is and remains larger than MaxAllocBlock, of ovRealloc. */
KEM_API OV_STS_T ovMemShortHeapRealloc(OV_THDCTX_T* tctxp, OV_LONG_T size, void* block, void** newblock,
                                       const char* fname, long line);

/* Ends the unit of work: all heaps of the context go, and with them all blocks, and the larger blocks are released,
 * also while KemSdSetMemDeallocOption is in force. The context may begin again. Once a fatal exception is declared the
 * context only forgets what it had. */
KEM_API void ovMemShortHeapTerm(OV_THDCTX_T* tctxp);

/* Sets the context's MemShortDisableFree, a note of the server's to itself that the next ovMemShortHeapInit clears. */
KEM_API void ovMemShortDisableFree(OV_THDCTX_T* tctxp);

/* ---- Accounting --------------------------------------------------------------------------------------------------
 * What the memory manager holds, counted while memory control is on (a configuration file was found and does not say
 * nomemorycontrol), and messages when the limit is near or a request failed:
 *
 *     OV_ULONGLONG_T ordinary, heaps, aligned, maxUsed, maxAligned, maxTotal;
 *     if (ovMemGetUsedMemory(&ordinary, &heaps, &aligned, &maxUsed, &maxAligned, &maxTotal) == 0)
 *         printf("%llu KiB in heaps\n", (unsigned long long)heaps / 1024);
 *
 * A message goes to the call-back of ovMemThreadHeapInit with the NetCtx of the thread context in force; without a
 * thread context there is none. Its two arguments, unsigned 32-bit:
 *
 *     number                    level  first                        second
 *     SDSTS_MEM_LIMIT_WARNING     3    bytes used at the event      90, per cent of the limit
 *     SDSTS_MEM_LIMIT_EXCEEDED    4    bytes used at the event      bytes requested; a limit is set
 *     SDSTS_MEM_EXHAUSTED         4    bytes used at the event      bytes requested; no limit is set
 *     SDSTS_MEM_LIMIT_TOO_LOW     4    the configured limit, bytes  10240, the lowest limit in KiB
 *
 * The first error after a quiet spell is reported at once; after any message the next one waits until 1,000 more
 * allocations were counted. (Beyond 2^32 allocations the count no longer holds messages back.) All calls are safe from
 * any thread. The queries' results are plain: 0; -1 when what they read is not counted; SDSTS_INVALID_PARAM for a null
 * place, nothing filled. */

/* The debug record the accessors below name. No function of this library creates one. */
typedef struct OV_MEMINFO_T {
    void* payload;
    const char* fname;
    long line;
    long sz;
    struct OV_MEMINFO_T* pPrev;
    struct OV_MEMINFO_T* pNext;
} OV_MEMINFO_T;

/* Reports a warning (type 1) or a failed request of `size` bytes (type 2), or holds it back, and clears the pending
 * warning. Any other type does nothing. */
KEM_API void ovMemSendMessage(int type, int size);

/* As a failed request, for memory counted in units of 8,192 bytes; the bytes in use are taken at the call. Does nothing
 * while memory is not counted. */
KEM_API void ovMemSendErrorMessage(long size);

/* 0 when start-up accepted the configured limit. When it rejected it, reports SDSTS_MEM_LIMIT_TOO_LOW with the NetCtx
 * of tctxp (an OV_THDCTX_T) and returns the call-back's result, 0 without a call-back. SDSTS_INVALID_PARAM: a rejected
 * limit, and tctxp is null. */
KEM_API int ovMemCheckMemoryMinStatus(void* tctxp);

/* Counts one block in its size bucket: an allocation of `size` bytes when positive, otherwise a release of -size bytes.
 * The library counts its own blocks; this is for memory that the server obtains elsewhere. Nothing is counted without
 * the keyword memoryblockscontrol.
 *
 *     bucket   0         1         2         3         ...    14          15
 *     bytes    to 160    to 1 KiB  to 2 KiB  to 4 KiB  ...    to 8 MiB    above 8 MiB
 */
KEM_API void ovMemAddBlockSizeToList(long size);

/* Sets the bucket counts since the last reset to 0. -1: blocks are not counted. */
KEM_API int ovMemResetUsedMarkMemoryBlocks(void);

/* Sets the high-water marks since the last reset to the present use. -1: memory is not counted. */
KEM_API int ovMemResetMaxUsedMarkMemory(void);

/* The high-water marks since the last reset, in bytes: heap regions and blocks outside heaps, aligned memory, both
 * together. -1: memory is not counted. */
KEM_API int ovMemGetMaxUsedMarkMemory(OV_ULONGLONG_T* bytesMaxMarkUsed, OV_ULONGLONG_T* bytesMaxMarkAligned,
                                      OV_ULONGLONG_T* bytesMaxMarkTotal);

/* Fills 16 counts of allocations and 16 of releases by bucket: since start for type 1, since the last reset for any
 * other type. The counts have 32 bits and wrap. -1: blocks are not counted. */
KEM_API int ovMemGetUsedMemoryBlocks(int type, OV_ULONGLONG_T* AllocBlocks, OV_ULONGLONG_T* DeAllocBlocks);

/* Bytes in use: outside heaps, in heaps, aligned; and the high-water marks since start: both of the first together,
 * aligned, all. Every heap counts at its full size, in 32 bits: 4 GiB of heaps and more wrap. With the thread heaps off
 * the first two are 0; after termination they are still reported. -1: memory is not counted. */
KEM_API int ovMemGetUsedMemory(OV_ULONGLONG_T* bytesOrdinary, OV_ULONGLONG_T* bytesHeaps, OV_ULONGLONG_T* bytesAligned,
                               OV_ULONGLONG_T* bytesMaxUsed, OV_ULONGLONG_T* bytesMaxAligned,
                               OV_ULONGLONG_T* bytesMaxTotal);

/* Debugging entry points that servers call in all builds. This one does nothing. */
KEM_API void ovMemInfo(int num, char* comment);

/* No list of blocks is kept: both are always null. */
KEM_API void* ovMemMgrGetAllocBlkHd(void);
KEM_API void* ovMemMgrGetMemInfoHd(void);

/* Fields of a 32-byte debug record of the caller's, at any alignment: the address after it, the name pointer at byte
 * 16, the line at byte 24, the size at byte 12, the info pointer at byte 0. For null: null, "Null Pointer", 0, 0, null.
 */
KEM_API void* ovMemMgrGetAllocBlkNxt(void* blk);
KEM_API char* ovMemMgrGetAllocBlkFN(void* blk);
KEM_API OV_ULONG_T ovMemMgrGetAllocBlkLn(void* blk);
KEM_API OV_ULONG_T ovMemMgrGetAllocBlkSz(void* blk);
KEM_API OV_MEMINFO_T* ovMemMgrGetAllocBlkMI(void* blk);

/* Checks always hold and tags are always 0; every argument is ignored. */
KEM_API OV_BOOL_T ovCheckMemoryMarker(void* ptr, const char* fname, long line, long sz);
KEM_API OV_ULONG_T ovGetMemTag(void* UniqueAddress, void* ptr, const char* fname, long line);
KEM_API void ovSetMemTag(void* ptr, OV_ULONG_T tag, const char* fname, long line);
KEM_API OV_BOOL_T ovCheckMemTag(void* ptr, OV_ULONG_T tag, long sz, const char* sourceFileName, long sourceLine,
                                const char* fname, long line);

/* ---- Public memory calls ---------------------------------------------------------------------------------------- */

/* The public form of the server-wide calls: each stores its status in the context, with errno where a system call
 * failed and 0 otherwise, and returns it. pMemPool is always unused. Blocks are KEM_BLOCK_SIZE (8192) bytes. Nothing is
 * shared between threads but the memory itself.
 *
 *     void* buffer;
 *     if (KemSdAlignedMemAlloc(ctx, 4, &buffer) != 0) return ctx->sts;    // 32 KiB on a page boundary
 *     KemSdAlignedMemFree(ctx, buffer);
 */

/* Nothing to do on this platform; always 0. */
KEM_API KEM_FUNC_M KemSdMemInit(KEM_PSDCTX_T pSdCtx);
KEM_API KEM_FUNC_M KemSdMemTerm(KEM_PSDCTX_T pSdCtx);
KEM_API KEM_FUNC_M KemSdMemPoolInit(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T pMemPool, KEM_ULONG_T ulPageSize);
KEM_API KEM_FUNC_M KemSdMemPoolTerm(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T pMemPool);

/* Pools of fixed blocks do not exist on this platform; always SDSTS_NOT_SUPPORTED, and nothing is stored. */
KEM_API KEM_FUNC_M KemSdMemPoolFixedInit(KEM_PSDCTX_T pSdCtx, KEM_USHORT_T usBlockSize, KEM_ULONG_T ulBlockCount,
                                         KEM_PVOID_T pMemPool);
KEM_API KEM_FUNC_M KemSdMemPoolFixedTerm(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T pMemPool);
KEM_API KEM_FUNC_M KemSdMemFixedAlloc(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T pMemPool, KEM_PPVOID_T ppvBuf);
KEM_API KEM_FUNC_M KemSdMemFixedFree(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T pvBuf);

/* Stores FALSE; ppOSVersion is left alone. SDSTS_INVALID_PARAM: pbIsAvailable is null. */
KEM_API KEM_FUNC_M KemSdIsMemPageLocking(KEM_PSDCTX_T pSdCtx, KEM_PPVOID_T ppOSVersion, KEM_PBOOL_T pbIsAvailable);

/* A block of sizeRequest bytes by ovMalloc or, with a policy of 1 or 2, by ovMallocPolicy.
 * SDSTS_INVALID_PARAM: ppvBuf is null or sizeRequest 0, nothing is stored. SDSTS_NO_MEMORY: null was stored. Any other
 * status is the allocation's own. */
KEM_API KEM_FUNC_M KemSdMemAlloc(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T pMemPool, KEM_SIZE_T sizeRequest, KEM_PPVOID_T ppvBuf,
                                 const char* fname, long line);
KEM_API KEM_FUNC_M KemSdMemAllocUsingPolicy(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T pMemPool, KEM_SIZE_T sizeRequest,
                                            KEM_PPVOID_T ppvBuf, char policy, const char* fname, long line);

/* Resizes by ovRealloc and stores where the block now lies; a null pvOldBuf makes it KemSdMemAlloc.
 * SDSTS_INVALID_PARAM: ppvNewBuf is null or sizeNew 0. SDSTS_NO_MEMORY: the old block and *ppvNewBuf are as before. */
KEM_API KEM_FUNC_M KemSdMemRealloc(KEM_PSDCTX_T pSdCtx, KEM_SIZE_T sizeNew, KEM_PVOID_T pvOldBuf,
                                   KEM_PPVOID_T ppvNewBuf, const char* fname, long line);

/* Releases by ovFree. SDSTS_INVALID_PARAM: pvBuf is null. */
KEM_API KEM_FUNC_M KemSdMemFree(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T pvBuf, const char* fname, long line);

/* Fills with zero bytes. A sizeCount of 0 writes nothing and is no error. SDSTS_INVALID_PARAM: pvBuf is null. */
KEM_API KEM_FUNC_M KemSdMemClear(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T pvBuf, KEM_SIZE_T sizeCount);

/* Copies sizeCopy bytes, which may overlap and may be 0. SDSTS_INVALID_PARAM: a null pointer. */
KEM_API KEM_FUNC_M KemSdMemCopy(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T pvDest, const void* pvSrc, KEM_SIZE_T sizeCopy);

/* Blocks on a page boundary, outside every limit and count.
 * SDSTS_INVALID_PARAM: ppvBuf is null. SDSTS_ALIGNED_ALLOC with errno, null stored: no memory; ENOMEM also when the
 * byte count is beyond 64 bits. */
KEM_API KEM_FUNC_M KemSdAlignedMemAlloc(KEM_PSDCTX_T pSdCtx, KEM_SIZE_T sizeRequestBlocks, KEM_PPVOID_T ppvBuf);

/* Moves *ppvBuf, of oldBlocks blocks, to newBlocks blocks and copies the smaller of the two; the old byte count is
 * formed in 32 bits, so 4 GiB wrap to 0. Failures leave the old block and *ppvBuf as they were: those of
 * KemSdAlignedMemAlloc, and SDSTS_INVALID_PARAM when *ppvBuf is null. */
KEM_API KEM_FUNC_M KemSdAlignedMemRealloc(KEM_PSDCTX_T pSdCtx, KEM_SIZE_T oldBlocks, KEM_SIZE_T newBlocks,
                                          KEM_PPVOID_T ppvBuf);

/* SDSTS_INVALID_PARAM: pvBuf is null. */
KEM_API KEM_FUNC_M KemSdAlignedMemFree(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T pvBuf);

/* Blocks on a page boundary, locked in memory; the byte count is formed in 32 bits, so 4 GiB wrap to 0.
 * SDSTS_INVALID_PARAM: ppvBuf is null. With errno and null stored: SDSTS_PHYSMEM_ALLOC, no memory;
 * SDSTS_MEMLOCK_PRIVILEGE, the process may not lock memory; SDSTS_MEMLOCK_FAILED, locking failed otherwise. */
KEM_API KEM_FUNC_M KemSdPhysMemAlloc(KEM_PSDCTX_T pSdCtx, KEM_SIZE_T sizeRequestBlocks, KEM_PPVOID_T ppvBuf);

/* As KemSdAlignedMemRealloc, with the failures of KemSdPhysMemAlloc. When *ppvBuf is null (SDSTS_INVALID_PARAM) the new
 * block is lost. */
KEM_API KEM_FUNC_M KemSdPhysMemRealloc(KEM_PSDCTX_T pSdCtx, KEM_SIZE_T oldBlocks, KEM_SIZE_T newBlocks,
                                       KEM_PPVOID_T ppvBuf);

/* Frees without unlocking: the pages stay locked until the system takes them back. SDSTS_INVALID_PARAM: pvBuf is
 * null. */
KEM_API KEM_FUNC_M KemSdPhysMemFree(KEM_PSDCTX_T pSdCtx, KEM_PVOID_T pvBuf);

/* Locks blocks of the caller's memory into physical memory; the byte count is formed in 32 bits.
 * SDSTS_INVALID_PARAM: pvBuf is null or the count 0. With errno: SDSTS_MEMLOCK_PRIVILEGE (osRetCode 1), the process may
 * not lock memory; SDSTS_MEMLOCK_FAILED, locking failed otherwise. */
KEM_API KEM_FUNC_M KemSdMemLock(KEM_PSDCTX_T pSdCtx, KEM_ULONG_T ulBlocksToLock, KEM_PVOID_T pvBuf);

/* The opposite. SDSTS_INVALID_PARAM as above; SDSTS_MEMUNLOCK_FAILED with errno: the system refused. */
KEM_API KEM_FUNC_M KemSdMemUnlock(KEM_PSDCTX_T pSdCtx, KEM_ULONG_T ulBlocksToUnlock, KEM_PVOID_T pvBuf);

/* ---- Tracked aligned memory and mapped pages -------------------------------------------------------------------- */

/* Aligned memory that counts against MemoryLimit while the memory manager accounts used memory (MemoryControl), and
 * pages mapped straight from the system, which never count. All calls are safe among threads; one block belongs to one
 * caller.
 *
 *     void* pages;
 *     if (ovMmap(&pages, 100000, __FILE__, __LINE__) != 0) return SDSTS_NO_MEMORY;
 *     ovMremap(pages, 100000, &pages, 200000, __FILE__, __LINE__);
 *     ovMunmap(pages, __FILE__, __LINE__);
 */

/* As KemSdAlignedMemAlloc, and charged. Every failure but the charge's own is reported to the server as a shortage of
 * that many blocks.
 * Further: SDSTS_ALIGNED_ALLOC with osRetCode 0, null stored: beyond the limit (the server is told), or no memory to
 * track the block. Beyond 90 per cent of the limit the server is warned. */
KEM_API KEM_FUNC_M KemSdAlignedMemAllocWrap(KEM_PSDCTX_T pSdCtxp, KEM_SIZE_T sizeRequestBlocks, KEM_PPVOID_T ppvBuf);

/* As KemSdAlignedMemRealloc, the charge moving along. When the reallocation fails, the old block stays but is no longer
 * charged; when the new block cannot be charged, both are gone and null is stored. */
KEM_API KEM_FUNC_M KemSdAlignedMemReallocWrap(KEM_PSDCTX_T pSdCtxp, KEM_SIZE_T oldBlocks, KEM_SIZE_T newBlocks,
                                              KEM_PPVOID_T ppvBuf);

/* Gives the charge back and frees. SDSTS_INVALID_PARAM: pvBuf is null. */
KEM_API KEM_FUNC_M KemSdAlignedMemFreeWrap(KEM_PSDCTX_T pSdCtxp, KEM_PVOID_T pvBuf);

/* Charges size blocks of 8192 bytes under the address `block`; 2 GiB and more are charged as the low 32 bits of the
 * byte count with their sign. Without MemoryControl nothing is done.
 * 0, or SDSTS_ALIGNED_ALLOC: beyond the limit (the server is told), or no memory to track the block. */
KEM_API int ovMemAlignedIncCounter(void* block, int64_t size);

/* Gives back what was charged under that address; one that is null or not charged is ignored. */
KEM_API void ovMemAlignedDecCounter(void* block);

/* The four calls below work on whole mappings. The length of each stands in its first 8 bytes, the caller's pointer 64
 * bytes behind its start; every length is the size plus 64 in whole pages. While KemSdSetMmapAllocCfg switches mappings
 * off, they serve charged aligned blocks instead and report the statuses of the Wrap calls; the setting must be the one
 * under which the memory was made. fname and line are unused. */

/* Maps size bytes, readable and writable, all zero, and stores their address.
 * SDSTS_INVALID_PARAM: ppBuf is null. SDSTS_MMAP_FAILED, null stored: the system refused or the size is too large. */
KEM_API int ovMmap(void** ppBuf, size_t size, const char* fname, long line);

/* Resizes, moving if needed, and stores the new address; pOldBuf null makes it ovMmap. The mapping must be readable and
 * writable. With mappings off the old block is the one at ppBuf, of aOldSize bytes: pass its address in both.
 * SDSTS_INVALID_PARAM: ppBuf is null. SDSTS_MREMAP_FAILED: the system refused or the size is too large; the old mapping
 * stays; null is stored, except with mappings off. */
KEM_API int ovMremap(void* pOldBuf, size_t aOldSize, void** ppBuf, size_t size, const char* fname, long line);

/* Unmaps, whatever the protection; null is no error. SDSTS_MUNMAP_FAILED: the system refused. */
KEM_API int ovMunmap(void* ptr, const char* fname, long line);

/* Gives the whole mapping, the 64 bytes in front included, the system's protection `prot` (PROT_NONE, PROT_READ ...).
 * Does nothing while KemSdSetMemProtectCfg is off or mappings are off, or for null. Its first page is readable and
 * writable for a moment. SDSTS_MPROTECT_FAILED: the system refused. */
KEM_API int ovMprotect(void* ptr, int prot, const char* fname, long line);

/* ---- Memory stacks ----------------------------------------------------------------------------------------------
 * An arena: items are carved one behind the other out of large blocks and released together, back to an earlier item or
 * all of them. What falls empty is kept for the next items. Example:
 *
 *     KEM_STACKHDR_T* stack;
 *     void *first, *second;
 *     KemSdMemStackCreate(ctx, &stack, 8, 65536);
 *     KemSdMemStackAllocAndPush(ctx, stack, 300, &first);
 *     KemSdMemStackAllocAndPush(ctx, stack, 40, &second);
 *     KemSdMemStackPopAndFree(ctx, stack, first);    // both are gone
 *     KemSdMemStackDelete(ctx, stack);
 *
 * A stack is used by one thread at a time and has no lock. Sizes are bytes; osRetCode is 0 unless the system's page
 * size or limits could not be had. */

/* The head of every block of a stack. */
typedef struct KEM_BLOCKHDR_T {
    KEM_ULONG_T ulBlockSize;           /* bytes from the block's start, this header included */
    struct KEM_BLOCKHDR_T* pNextBlock; /* the older block, or the next reserve */
} KEM_BLOCKHDR_T, *KEM_PBLOCKHDR_T;

typedef struct KEM_STACKHDR_T {
    KEM_ULONG_T ulPageSize;
    KEM_ULONG_T ulItemAlignment;    /* a power of two */
    KEM_ULONG_T ulCreateBlockSize;  /* bytes of a usual block: whole pages less 128 */
    KEM_ULONGLONG_T ulDataOff;      /* where a block's first item lies */
    KEM_ULONGLONG_T ulStackPtrOff;  /* where the current block's next item lies */
    KEM_ULONGLONG_T ulMaxAlloc;     /* the system's largest allocation */
    KEM_BLOCKHDR_T* pCurrentBlock;  /* the block being filled, older ones behind it; null: the stack is empty */
    KEM_BLOCKHDR_T* pReservedBlock; /* empty blocks, the largest first */
} KEM_STACKHDR_T, *KEM_PSTACKHDR_T;

KEM_STATIC_ASSERT(sizeof(KEM_BLOCKHDR_T) == 16 && sizeof(KEM_STACKHDR_T) == 56, "memory stack layout");

/* Makes a stack with one block of ulBlockSize bytes, rounded so that it and 128 bytes in front of it are whole pages.
 * Items lie at multiples of ulItemAlignment from the start of their block; the blocks themselves are aligned to 8
 * bytes. Release the stack by KemSdMemStackDelete, also after a failure that has stored one, which is empty.
 * SDSTS_INVALID_PARAM: ppStackHdr is null, the alignment is no power of two, or the size is beyond what the system
 * allows. SDSTS_OSR_SYSCONF with errno: page size or limits are not to be had. Else the allocator's failure. */
KEM_API KEM_FUNC_M KemSdMemStackCreate(KEM_PSDCTX_T pSdCtx, KEM_STACKHDR_T** ppStackHdr, KEM_ULONG_T ulItemAlignment,
                                       KEM_ULONG_T ulBlockSize);

/* Stores an item of ulSz bytes, which may be 0. An item never spans blocks; one larger than a block gets its own. An
 * item of 0 bytes may lie at the very end of its block, where nothing can be popped to.
 * SDSTS_INVALID_PARAM: a null pointer, or more than can be had: what a block of 32-bit size or the system's limit
 * allows. Else the allocator's failure. Nothing has changed after a failure. */
KEM_API KEM_FUNC_M KemSdMemStackAllocAndPush(KEM_PSDCTX_T pSdCtx, KEM_PSTACKHDR_T pStackHdr, KEM_ULONG_T ulSz,
                                             void** ppBuf);

/* Releases pBuf and every item behind it. Of the blocks that fall empty one of the usual size may stay as a reserve,
 * the others are freed. SDSTS_INVALID_PARAM: null stack, or pBuf does not lie in it; nothing changes. Else the failure
 * of releasing a block. */
KEM_API KEM_FUNC_M KemSdMemStackPopAndFree(KEM_PSDCTX_T pSdCtx, KEM_PSTACKHDR_T pStackHdr, void* pBuf);

/* Releases all items and keeps all blocks. A stack without items is left alone, and so is the context.
 * SDSTS_INVALID_PARAM: null stack. */
KEM_API KEM_FUNC_M KemSdMemStackReset(KEM_PSDCTX_T pSdCtx, KEM_PSTACKHDR_T pStackHdr);

/* Releases the stack and all its blocks. SDSTS_INVALID_PARAM: null stack. Else the first failure of a release. */
KEM_API KEM_FUNC_M KemSdMemStackDelete(KEM_PSDCTX_T pSdCtx, KEM_PSTACKHDR_T pStackHdr);

/* ---- Crash-time memory ------------------------------------------------------------------------------------------
 * A process that has met a fatal exception must not trust its heaps any more, but may need memory to say what happened.
 * A server sets 1 MiB aside at its start; its handler of fatal signals declares the exception, and from then on the
 * ovMemExt calls and ovMallocOnNode cut what the handling thread requests from that reserve, and stop every other
 * thread that calls them. So do ovMalloc and its family while the thread heaps are off; while they are on, a handler
 * must not use these, whose locks the crash may have left taken. Example:
 *
 *     KemSdXcptCreateStackHeader();                  // at start-up
 *
 *     KemSdXcptSetFatExceptionOccured(TRUE);         // in the handler of a fatal signal; TRUE: end with a core dump
 *     char* text = ovMemExtMalloc(4096, 2);          // from the reserve, aligned to 8 bytes
 *
 * Nothing of the reserve is ever given back. A request that it cannot serve, one of 0 bytes and one for a null output
 * included, ends the process, as declared: by abort(), or by exit with status 0. A handler of SIGABRT should therefore
 * be installed with SA_RESETHAND. Three copies of the reserve's header guard against stray writes; one damaged copy is
 * repaired. Allocations go there by themselves: the ovXcpt calls are what the other entry points use. */

/* Sets the reserve aside, once: a failure shows at the first request, and a further call does nothing. */
KEM_API void KemSdXcptCreateStackHeader(void);
/* Gives it back, used or not; a request that comes later ends the process. Without a reserve it does nothing. */
KEM_API void KemSdXcptDestroyStackHeader(void);

/* Declares the exception for the calling thread; for good. Another thread that declares one as well takes the reserve
 * over, and the first is stopped at its next request. A failure to learn the thread's id is returned and changes
 * nothing. Async-signal-safe, like the calls below as long as the reserve serves them. */
KEM_API KEM_STS_T KemSdXcptSetFatExceptionOccured(KEM_BOOL_T bDoCoreDumpOnCrash);

/* Not 0 once an exception is declared. */
KEM_API OV_LONG_T ovXcptFatExceptionOccured(void);

/* Memory from the reserve, for the thread that declared the exception: 0, or the process ends. Calloc clears it and
 * forms the size in 32 bits, where it wraps. Realloc takes the old item or null in *ppvBuf, stores the new one there
 * and copies ulSz bytes, be the old item shorter or not; the old item stays, and an address that is none of the reserve
 * ends the process. Other threads wait for ever; before any declaration every request ends the process. pSdCtx is
 * unused. */
KEM_API OV_STS_T ovXcptMemAlloc(void* pSdCtx, OV_ULONG_T ulSz, void** ppvBuf);
KEM_API OV_STS_T ovXcptMemCalloc(void* pSdCtx, OV_UINT_T uiBlockCnt, OV_ULONG_T ulBlockSz, void** ppvBuf);
KEM_API OV_STS_T ovXcptMemRealloc(void* pSdCtx, OV_ULONG_T ulSz, void** ppvBuf);
/* Releases nothing. 0 when pvBuf lies in the reserve, else SDSTS_INVALID_PARAM. */
KEM_API OV_STS_T ovXcptMemFree(void* pSdCtx, void* pvBuf);

/* ---- NUMA nodes -------------------------------------------------------------------------------------------------
 * Spreads threads over the machine's memory nodes and allocates where a thread will use it. Off unless the hardware
 * acceleration is on and the environment says OV_TURN_OFF_NUMA=false; off also where this process may run on one node
 * only. While it is off nothing is bound and memory comes from the C library. Example:
 *
 *     KemSdInitNumaResources();                                           // at start-up
 *     const KEM_LONG64_T node = KemSdGetNumaNodeId(workerNumber);         // round-robin; -1: off
 *     KemSdBindThreadToNode(threadContext, node);
 *     ovMallocOnNode(threadContext, bytes, &taken, &buffer, node, __FILE__, __LINE__);
 *     ovFreeOnNode(threadContext, taken, buffer, __FILE__, __LINE__);
 *
 * The table of nodes is made at start-up and read by any thread. Contexts are unused; fname and line too. */

#define KEM_NUMA_NODES_MAX 128

typedef struct KEM_NUMA_NODE_INFO {
    KEM_LONG64_T* numaNodeIdAry; /* KEM_NUMA_NODES_MAX elements: the usable nodes, ascending; null while off */
    KEM_LONG64_T numNumaNodes;   /* 0: off */
} KEM_NUMA_NODE_INFO;

/* Makes the table when it is wanted, else empties it. */
KEM_API void KemSdInitNumaResources(void);
/* Makes the table, whatever the settings say. Without NUMA support, memory, or a second node it stays empty. */
KEM_API void KemSdCreateNumaResources(void);
/* Empties and frees the table. */
KEM_API void KemSdDestroyNumaResources(void);

/* The number of nodes, 0 while off; and their ids, null while off. */
KEM_API KEM_LONG64_T KemSdGetNumNumaNodes(void);
KEM_API KEM_LONG64_T* KemSdGetNumaNodeIdAryPtr(void);

/* The place in the table for thread or partition number n: the remainder of n, with its sign; 0 while off. The node of
 * that number: -1 while off or for a remainder below 0. The node at a place, unchecked; -1 while off. */
KEM_API KEM_LONG64_T KemSdGetNumaNodeIdIndex(KEM_LONG64_T n);
KEM_API KEM_LONG64_T KemSdGetNumaNodeId(KEM_LONG64_T n);
KEM_API KEM_LONG64_T KemSdGetNumaNodeIdFromIndex(KEM_LONG64_T i);

/* Both: bind the calling thread to the processors and, preferably, the memory of a node. A negative node, and any while
 * off, changes nothing. */
KEM_API void KemSdBindThreadToNode(void* thdctxp, KEM_LONG64_T nodeId);
KEM_API void KemSdBindThreadToNumaNode(void* thdctxp, KEM_LONG64_T nodeId);

/* Stores size bytes obtained while the thread is bound to the node, and the number to give back with them: size, or 0
 * where the C library had to serve instead. A page takes its place when it is first written: on the node of the thread
 * that writes it. Afterwards the thread is bound as before; one that was never bound stays on the node. 0, or errno
 * without memory; while off always 0, with null stored where there is none. SDSTS_INVALID_PARAM: a null output. */
KEM_API int KemSdAllocOnNumaNode(void* thdctxp, size_t size, size_t* allocSize, void** ppvfBuf, KEM_LONG64_T nodeId);
/* Frees it; size is the number that came with it, and the table must be as it was then: full, or empty. Always 0. */
KEM_API int KemSdFreeOnNumaNode(void* tctxp, size_t size, void* ptr);

/* Frees memory of the C library. SDSTS_INVALID_PARAM: null. */
KEM_API KEM_FUNC_M KemSdExtAllocMemFree(KEM_PSDCTX_T pSdCtx, void* ptr);

/* The same for the server: from the node with hardware acceleration, else from the C library; once a fatal exception is
 * declared from the crash-time reserve, *allocSize then untouched. SDSTS_INVALID_PARAM: size 0 or a null output.
 * SDSTS_NO_MEMORY, null stored: the server is told. */
KEM_API int ovMallocOnNode(void* thdctxp, size_t size, size_t* allocSize, void** ppvfBuf, KEM_LONG64_T nodeId,
                           const char* fname, long line);
/* Frees what ovMallocOnNode gave, under the setting of hardware acceleration and with the table of then. A block of the
 * crash-time reserve stays. SDSTS_INVALID_PARAM: null. */
KEM_API int ovFreeOnNode(void* thdctxp, size_t size, void* ptr, const char* fname, long line);

/* ---- Per-thread free lists -------------------------------------------------------------------------------------- */

/* A thread may keep the blocks it releases in 32 lists, one for each power of two, and take them out again without the
 * system allocator. Blocks carry the header above. The lists hold at most 8 MiB (100 MiB with hardware acceleration)
 * and one block, counting each as its capacity and 64 bytes; what is released beyond that is freed.
 *
 *     ovCreateThreadAlloc(threadContext);
 *     ovThreadAlloc(threadContext, 100, &block, 2);    // 128 bytes, from the list of class 7 when it has one
 *     ovThreadFree(block);                             // to that list
 *     ovDestroyThreadAlloc(threadContext);             // frees what the lists hold
 *
 * An allocator belongs to one thread and has no lock. A block may be released by any thread: it joins the lists of the
 * one that releases it. */

/* The allocator as an object; a null thisThdAlloc does nothing and gives null. ThdAlloc_Create gives null without
 * memory. */
KEM_API void* ThdAlloc_Create(void);
KEM_API void ThdAlloc_Destroy(void* thisThdAlloc);

/* A block of at least size bytes, or null without memory. Policy 1 gives exactly size bytes, never from a list; sizes
 * of 0 and above 2^31 wrap to class 0 and must not be passed with other policies. */
KEM_API void* ThdAlloc_get(void* thisThdAlloc, unsigned int size, char policy);

/* Takes a block back: policy 2 into its list, policy 1 to the system. A block released twice or of another policy, or
 * whose hlen does not fit its policy, ends the process with an assertion of "sd/ThreadAllocator". Null does nothing. */
KEM_API void ThdAlloc_release(void* thisThdAlloc, void* arg);

/* Fills the lists up to the built-in pattern, which asks for nothing. */
KEM_API void ThdAlloc_prealloc(void* thisThdAlloc);

/* Frees everything the lists hold, and the lists. Blocks still out may be released, to the system; ThdAlloc_get must
 * not be called any more. */
KEM_API void ThdAlloc_clean(void* thisThdAlloc);

/* Frees listed blocks, the largest first, until at most lowerLimit bytes are held; -1 frees down to the built-in
 * pattern, that is everything. Other negative limits do nothing. */
KEM_API void ThdAlloc_compaction(void* thisThdAlloc, long lowerLimit);

/* The 32 counts of listed blocks; null after ThdAlloc_clean. */
KEM_API long* ThdAlloc_getElementCountAryPtr(void* thisThdAlloc);

/* The calling thread's own allocator; thdctxp is unused throughout. Create makes one if the memory manager is on and
 * the thread has none; without memory it stays without one. Destroy ends it. Both return 0. */
KEM_API int ovCreateThreadAlloc(void* thdctxp);
KEM_API int ovDestroyThreadAlloc(void* thdctxp);

/* Stores a block, or null without memory: from the thread's allocator, which takes the low 32 bits of size, else from
 * ovMemExtMalloc. A null ppvfBuf does nothing. */
KEM_API void ovThreadAlloc(void* thdctxp, size_t size, void** ppvfBuf, char policy);

/* To the thread's allocator as by ThdAlloc_release, else to ovMemExtFree. Null does nothing. Returns 0. */
KEM_API int ovThreadFree(void* ptr);

/* ThdAlloc_prealloc of the thread's allocator, with hardware acceleration only. */
KEM_API void ovThreadPrealloc(void* thdctxp);

/* Empties the lists of the thread's allocator: ThdAlloc_compaction down to 0 bytes or, with hardware acceleration, down
 * to the pattern. Returns 0. */
KEM_API int ovFreelistCompaction(void* thdctxp);

KEM_EXTERN_C_END

#endif
