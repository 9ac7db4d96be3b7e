/* Between processes of one machine: shared-memory segments with the chunk exchange, anonymous pipes and local named
 * pipes. */
#ifndef KEMSD_IPC_H
#define KEMSD_IPC_H

#include <kemsd/context.h>
#include <kemsd/sync.h>

KEM_EXTERN_C_BEGIN

/* ---- Shared memory ----------------------------------------------------------------------------------------------
 * A System V shared-memory segment, found by the key of an existing path. In failover mode the lease guard runs first,
 * in the allocation alone. */

/* The System V id of a segment. */
typedef int KEM_SMEMHDL_T;

/* Makes a segment of sizeSMem bytes or opens an existing one, attaches it, and stores id, key and address. bt32OFlag: 8
 * make it, 16 fail if it exists (ignored in failover mode); permissions for all by 2 or 4 (read and write), else by 1
 * (read). bt32IFlag is unused.
 * SDSTS_INVALID_PARAM: a null pointer. SDSTS_IPC_KEY: the path does not exist; the key is -1. SDSTS_IPC_CREATE: the
 * system refused the segment, its id is -1; or attaching it, its address is (void*)-1. KemSdSharedMemFree with these
 * removes a segment that nobody could attach. Both with errno. */
KEM_API KEM_FUNC_M KemSdSharedMemAlloc(KEM_PSDCTX_T pSdCtx, const char* pszSMemName, KEM_SIZE_T sizeSMem,
                                       KEM_BIT32_T bt32OFlag, KEM_BIT32_T bt32IFlag, KEM_SMEMHDL_T* phSMem,
                                       KEM_IPCKEY_T* pipcKey, KEM_PPVOID_T ppvBase);

/* Detaches; the last process to detach removes the segment. 0, whatever the system says.
 * SDSTS_INVALID_PARAM: pvBase is null. */
KEM_API KEM_FUNC_M KemSdSharedMemFree(KEM_PSDCTX_T pSdCtx, KEM_SMEMHDL_T hSMem, KEM_PVOID_T pvBase);

/* Adds the system's flags for bt32Flag to *pbt32FlagOS. */
KEM_API void KemSdSharedMemFlagMap(KEM_BIT32_T bt32Flag, KEM_PBIT32_T pbt32FlagOS);

/* The key of a path: the system's ftok with ipcid's low byte, -1 on failure. SDSTS_INVALID_PARAM: null. SDSTS_IPC_KEY:
 * the path does not exist. */
KEM_API KEM_STS_T KemSdSharedMemNameConvert(const char* pszName, KEM_INT_T ipcid, KEM_IPCKEY_T* pIpcKey);

/* ---- Chunk exchange ---------------------------------------------------------------------------------------------
 * A server and its clients exchange byte streams through a segment of five slots. A slot is two one-way buffers, one
 * from client to server and one back; writers gather bytes in a buffer and send it when it is full or a flush is asked
 * for, readers take what was sent. A message may carry a code instead of data.
 *
 *     OV_SHAREDMEM_SEG_T* segment;                                            // the server
 *     KemFindShareMemSeg(ctx, path, SHM_SERVER, &segments, TRUE, pid, key, &create, &wait, &segment);
 *     if (create && KemCreateSharedMemSeg(ctx, path, SHM_SERVER, 4 | 8 | 16, 0, segment, -1, &key, &base) == 0)
 *         KemSetSharedMemSegBuffer(ctx, segment, base);
 *     KemGetSharedMemChunk(ctx, segment, &slot);                              // told to the client by other means
 *     KemReadSharedMemChunk(ctx, segment, slot, sizeof request, FALSE, &code, request);
 *     KemWriteSharedMemChunk(ctx, segment, slot, length, TRUE, TRUE, answer);
 *
 * What both processes share, byte for byte:
 *
 *     buffer 2i      at 4096 i           slot i, client to server     semaphores 4i+1 data ready, 4i+2 buffer free
 *     buffer 2i + 1  at 4096 i + 2048    slot i, server to client     semaphores 4i+3 data ready, 4i+4 buffer free
 *
 *     [ code 4 ][ size 4 ][ payload, up to 2040 ...     code 0: data; otherwise a code, and the payload means nothing
 *
 * and semaphore 0, which guards the server's slot map. A writer waits for buffer-free and posts data-ready, a reader
 * the other way round. A reader trusts nothing that the other process wrote: it fetches a header once and never leaves
 * its buffer.
 *
 * These calls return their status and leave the context to the semaphore and memory calls that they make; these report
 * SDSTS_CNTSEM_TIMEOUT, SDSTS_CNTSEM_REQUEST and, when posting, SDSTS_CNTSEM_CLEAR (sync.h). Everywhere
 * SDSTS_INVALID_PARAM means a null pointer, a slot beyond the segment's five, or, where bytes or codes are exchanged, a
 * segment that is not attached. Slots are independent, and so are the two directions of one; one thread at a time may
 * use one direction of one slot. Only KemGetSharedMemChunk and KemPutSharedMemChunk may be called by any thread at any
 * time. */

#define SHMEM_CHUNK_SIZE 2048
#define SHMEM_SEG_SIZE 5
#define SHMEM_NAME_MAX 1029

typedef enum SHMEM_USERTYPE_T { SHM_SERVER = 0, SHM_CLIENT = 1 } SHMEM_USERTYPE_T;

/* The head of a buffer in the segment. */
typedef struct SHMEM_HEADER_T {
    uint32_t code; /* 0 for data */
    uint32_t size; /* payload bytes of this message */
} SHMEM_HEADER_T;

/* The state of one direction of a slot in one process. */
typedef struct SHMEM_CHUNK_REC_T {
    SHMEM_HEADER_T hdr; /* size: bytes gathered and not yet sent, or received and not yet taken; code: why it failed */
    uint16_t offset;    /* the next byte in the buffer; 8 when a message begins */
} SHMEM_CHUNK_REC_T;

/* A process's view of a segment. */
typedef struct OV_SHAREDMEM_SEG_T {
    char name[SHMEM_NAME_MAX];                     /* also the path of the keys */
    KEM_SHSEMSET_T* pShSemSet;                     /* null: none */
    uint16_t chunkSize;                            /* 2048 */
    SHMEM_USERTYPE_T type;                         /* which side this process is */
    uint32_t bitmap;                               /* server: bit i set, slot i handed out; under semaphore 0 */
    uint16_t segSize;                              /* 5 */
    KEM_SMEMHDL_T shmemHdl;                        /* 0: none, unless buffer is an address */
    SHMEM_CHUNK_REC_T chunkRec[2][SHMEM_SEG_SIZE]; /* [0] reading, [1] writing */
    char* buffer;                                  /* where it is attached; 0xdeadbeef: not yet */
    KEM_LONG_T lShmTimeOut;                        /* of every semaphore request: see KemCreateSharedMemSeg */
    KEM_PROCID_T masterPID;                        /* the server that the entry was made for, */
    KEM_IPCKEY_T masteripcKey;                     /* and its key */
} OV_SHAREDMEM_SEG_T;

/* A process's list of segments, which its caller owns and guards: no call here takes a lock. */
typedef struct ov_sharedmem_seg_list_t {
    OV_SHAREDMEM_SEG_T shMemSeg;
    struct ov_sharedmem_seg_list_t* next;
} OV_SHAREDMEM_SEG_LIST_T;

KEM_STATIC_ASSERT(sizeof(SHMEM_HEADER_T) == 8, "shared with the other process");
KEM_STATIC_ASSERT(sizeof(SHMEM_CHUNK_REC_T) == 12, "stream record");

/* Finds the entry of that name, or makes one when bCreate is given, and stores it in *ppShMemSeg (null: none). Then
 * *pbWait is TRUE when another thread is still attaching it, and *pbToBeCreated when the caller is to attach it, by
 * KemCreateSharedMemSeg and KemSetSharedMemSegBuffer. A client's entry that was made for another server than
 * curmasterPID and curmasteripcKey has been detached and is to be created anew. An entry of the other side is no match,
 * but keeps bCreate from making one. An empty name with bCreate stands for the first entry of the list. Both flags may
 * be null; without pbWait nobody is told to wait. A new entry has no name before KemCreateSharedMemSeg gives it one:
 * who guards the list lets nobody else search it between the two calls.
 * SDSTS_INVALID_PARAM: null name, list or ppShMemSeg. SDSTS_NO_MEMORY, or another status of the allocator: no entry was
 * made. A failure to delete the old objects of a client's entry. */
KEM_API KEM_STS_T KemFindShareMemSeg(KEM_PSDCTX_T pSdCtx, const char* name, SHMEM_USERTYPE_T type,
                                     OV_SHAREDMEM_SEG_LIST_T** pShMemList, KEM_BOOL_T bCreate,
                                     KEM_PROCID_T curmasterPID, KEM_IPCKEY_T curmasteripcKey, KEM_PBOOL_T pbToBeCreated,
                                     KEM_PBOOL_T pbWait, OV_SHAREDMEM_SEG_T** ppShMemSeg);

/* Fills the descriptor, makes or opens its semaphore set (KemSdShSemSetCreate) and its shared memory
 * (KemSdSharedMemAlloc) by the flags omode, imode, and stores the address in *pBuf, the key in *pipcKey. With flag 8 in
 * omode they are made, which the server does; the client opens them.
 * lTimeOut goes for every semaphore request as sync.h says, and is to be -1 or positive, to wait as long as it takes.
 * With any other value a semaphore that is not ready at once is taken late and reported as a time-out: the exchange has
 * then lost it, and its direction stands still for ever.
 * SDSTS_SHMEM_BAD_SEGMENT: a name of 1029 characters or more, or no such side. Otherwise the status of the failing
 * call; the descriptor's semaphore set is then null, a set made here is removed, and *pBuf is left alone. The entry
 * keeps the name until KemSetSharedMemSegBuffer empties it. */
KEM_API KEM_STS_T KemCreateSharedMemSeg(KEM_PSDCTX_T pSdCtx, const char* name, SHMEM_USERTYPE_T type, KEM_BIT32_T omode,
                                        KEM_BIT32_T imode, OV_SHAREDMEM_SEG_T* pShMemSeg0, KEM_LONG_T lTimeOut,
                                        KEM_IPCKEY_T* pipcKey, char** pBuf);

/* Ends an entry's objects, not the entry: a server removes its semaphore set, a client only forgets it; the shared
 * memory is detached. What has been ended is not ended again by a second call. The status of the failing call. */
KEM_API KEM_STS_T KemDeleteSingleSharedMemSeg(KEM_PSDCTX_T pSdCtx, OV_SHAREDMEM_SEG_T* pShMemEntry);

/* The same for each entry of a list, which goes with its objects; an entry whose objects could not be ended stays, with
 * those that share its fate chained behind it. The last entry's status; 0 for an empty list. */
KEM_API KEM_STS_T KemDeleteSharedMemSeg(KEM_PSDCTX_T pSdCtx, OV_SHAREDMEM_SEG_LIST_T* shMemList);

/* Hands out the lowest free slot; -1 when all five are taken, which is no failure. In the server's process. */
KEM_API KEM_STS_T KemGetSharedMemChunk(KEM_PSDCTX_T pSdCtx, OV_SHAREDMEM_SEG_T* pShMem, KEM_PLONG_T pChunkId);

/* Takes a slot back. SDSTS_SHMEM_CHUNK_FREE: it was not handed out. Semaphore 0 then stays taken: the next call that
 * needs it waits, and a server that gets here has lost count and is to make the segment anew. */
KEM_API KEM_STS_T KemPutSharedMemChunk(KEM_PSDCTX_T pSdCtx, OV_SHAREDMEM_SEG_T* pShMem, KEM_LONG_T ChunkId);

/* Adds size bytes to what is gathered in the slot's buffer and sends it whenever the buffer is full and, with flush, at
 * the end. A piece that does not fit is split, or, without bSplit, goes into a message of its own, sent at once behind
 * what was gathered; such a piece must not be longer than 2040 bytes (SDSTS_INVALID_PARAM). A size of 0 does nothing.
 * -1: an earlier transfer failed. The status of a failing semaphore call; if it was the sending, the direction has
 * failed for good: chunkRec[1][slot].hdr.code is -3 (0xFFFFFFFD) until the caller clears the record. */
KEM_API KEM_STS_T KemWriteSharedMemChunk(KEM_PSDCTX_T pSdCtx, OV_SHAREDMEM_SEG_T* pShMem, KEM_LONG_T ChunkId,
                                         KEM_ULONG_T size, KEM_BOOL_T flush, KEM_BOOL_T bSplit, const char* buffer);

/* Sends a code, not 0. What was gathered and not sent is lost to the reader. Failures as above; but a code that could
 * not be sent because the buffer was refused fails the direction as well: the record keeps the code. */
KEM_API KEM_STS_T KemWriteSharedMemChunkCode(KEM_PSDCTX_T pSdCtx, OV_SHAREDMEM_SEG_T* pShMem, KEM_LONG_T ChunkId,
                                             KEM_ULONG_T code);

/* Takes size bytes, waiting for as many messages as they need; the reader must ask for what the writer wrote, for what
 * it asks beyond the end of a message comes from the buffer, stale, until that ends too. *pCode, which may be null, is
 * set whenever a message begins: to 0, or to the code that came instead of data, and the call ends there.
 * With lookForTerminator it takes one string with its NUL instead, from one message, and size is ignored: the buffer
 * must have 2040 bytes. A peer may send a string without a NUL, which comes as it is: let the buffer have 2041 bytes,
 * the last of them 0.
 * -1: an earlier transfer failed. -3, also in *pCode: the buffer could not be given back; the direction has failed for
 * good, as above with chunkRec[0]. Otherwise the status of the failing semaphore call. */
KEM_API KEM_STS_T KemReadSharedMemChunk(KEM_PSDCTX_T pSdCtx, OV_SHAREDMEM_SEG_T* pShMem, KEM_LONG_T ChunkId,
                                        KEM_ULONG_T size, KEM_BOOL_T lookForTerminator, KEM_PULONG_T pCode,
                                        char* buffer);

/* Waits for the next message and stores its code; data it carries is discarded, and so is what is left of the message
 * before. SDSTS_SHMEM_READ_BUSY: an earlier transfer failed. Otherwise the status of the failing semaphore call. */
KEM_API KEM_STS_T KemReadSharedMemChunkCode(KEM_PSDCTX_T pSdCtx, OV_SHAREDMEM_SEG_T* pShMem, KEM_LONG_T ChunkId,
                                            KEM_PULONG_T pCode);

/* Publishes where the segment is attached; null takes the entry out of use, its name becoming empty. */
KEM_API void KemSetSharedMemSegBuffer(KEM_PSDCTX_T pSdCtx, OV_SHAREDMEM_SEG_T* pShMemSeg, char* buf);

/* Stores the address of the segment's name. */
KEM_API void KemGetSharedMemSegName(KEM_PSDCTX_T pSdCtx, OV_SHAREDMEM_SEG_T* pShMemSeg, char** pName);

/* ---- Pipes ------------------------------------------------------------------------------------------------------
 * A handle is a pair of descriptors. In failover mode every call that uses one, or the file system, runs the lease
 * guard first; KemSdPipeCreate does not. osRetCode is errno where the system refused, otherwise 0.
 *
 *     KEM_PIPEHDL_T in = {-1, -1, NULL}, out = {-1, -1, NULL};
 *     KemSdPipeCreate(ctx, &in, &out, 0);
 *     KemSdPipeWrite(ctx, &out, "x", 1, &count);
 *     KemSdPipeRead(ctx, &in, buffer, sizeof buffer, &count);
 *     KemSdPipeClose(ctx, &in);                               // both handles hold the same pair: once is enough
 */
typedef struct kem_pipehdl_t {
    int iFdRead;
    int iFdWrite;
    char* pszPipeName; /* of a named pipe; the caller's */
} KEM_PIPEHDL_T, *KEM_PPIPEHDL_T;

/* Makes an anonymous pipe; both handles receive both ends. ulBufSize is unused.
 * SDSTS_INVALID_PARAM: null. SDSTS_PIPE_CREATE: the system refused; the handles are as they were. */
KEM_API KEM_FUNC_M KemSdPipeCreate(KEM_PSDCTX_T pSdCtx, KEM_PPIPEHDL_T phPipeIn, KEM_PPIPEHDL_T phPipeOut,
                                   KEM_ULONG_T ulBufSize);

/* One write, or one read; short ones are no failure and show in the count, as does the end of the pipe by 0.
 * SDSTS_INVALID_PARAM: null buffer, handle or count; for the write also a handle of zero bytes. SDSTS_PIPE_IO: failed;
 * the count is 0xFFFFFFFF. */
KEM_API KEM_FUNC_M KemSdPipeWrite(KEM_PSDCTX_T pSdCtx, KEM_PPIPEHDL_T phPipe, KEM_PVOID_T pvBuf,
                                  KEM_ULONG_T ulBytesToWrite, KEM_PULONG_T pulBytesWritten);
KEM_API KEM_FUNC_M KemSdPipeRead(KEM_PSDCTX_T pSdCtx, KEM_PPIPEHDL_T phPipe, KEM_PVOID_T pvBuf,
                                 KEM_ULONG_T ulBytesToRead, KEM_PULONG_T pulBytesRead);

/* Closes both ends. SDSTS_INVALID_PARAM: null. SDSTS_PIPE_CLOSE: the reading end could not be closed; osRetCode is that
 * of the last failure. A failure of the writing end alone is not reported. */
KEM_API KEM_FUNC_M KemSdPipeClose(KEM_PSDCTX_T pSdCtx, KEM_PPIPEHDL_T phPipe);

/* ---- Named pipes ------------------------------------------------------------------------------------------------
 * A named pipe N is two FIFOs in the file system, N_1 and N_2, that everybody may read and write (0666, whatever the
 * umask). Creators of one process are serialised; while one runs, the umask of the whole process is 0. */

/* TRUE when any byte of the handle is not zero; FALSE for null. */
KEM_API KEM_BOOL_T KemSdNamedPipeIsInitialized(KEM_PPIPEHDL_T phPipe);

/* Makes one FIFO of exactly that name. An existing file, of whatever kind, is left alone and is a success.
 * SDSTS_INVALID_PARAM: null. SDSTS_PIPE_MAKE: the system refused. */
KEM_API KEM_FUNC_M KemSdNamedPipeUnixCreate(KEM_PSDCTX_T pSdCtx, const char* pszPipeName);

/* Opens one FIFO of exactly that name for reading and writing, without waiting for a peer. Tries 16 times, a second
 * apart. SDSTS_INVALID_PARAM: null. SDSTS_PIPE_CONNECT: the last attempt failed; *piFd is -1. */
KEM_API KEM_FUNC_M KemSdNamedPipeUnixConnect(KEM_PSDCTX_T pSdCtx, const char* pszPipeName, KEM_PINT_T piFd);

/* Makes both FIFOs, the guard running for each; the handle and everything behind it are unused.
 * SDSTS_INVALID_PARAM: null name. SDSTS_PIPE_MAKE, or a status of the allocator. */
KEM_API KEM_FUNC_M KemSdNamedPipeCreate(KEM_PSDCTX_T pSdCtx, const char* pszPipeName, KEM_PPIPEHDL_T phPipe,
                                        KEM_BIT32_T bt32OMode, KEM_BIT32_T bt32PipeMode, KEM_ULONG_T ulMaxPipeInst,
                                        KEM_ULONG_T ulOutBufSize, KEM_ULONG_T ulInBufSize, KEM_ULONG_T ulTimeout);

/* Opens both FIFOs of the handle's pszPipeName, the guard running for each. The descriptors are not stored: the handle
 * stays as it was, and both stay open, as does the memory of the names. To use a named pipe, open its FIFOs by
 * KemSdNamedPipeUnixConnect. SDSTS_INVALID_PARAM: null handle or name. SDSTS_PIPE_CONNECT, or a status of the
 * allocator. */
KEM_API KEM_FUNC_M KemSdNamedPipeConnect(KEM_PSDCTX_T pSdCtx, KEM_PPIPEHDL_T phPipe);

/* Makes the FIFOs if they are missing and opens them as KemSdNamedPipeConnect does: both ends in *phPipe become -1. The
 * server name and the flags are unused. SDSTS_INVALID_PARAM: null phPipe or pszPipeName. SDSTS_PIPE_OPEN: either step
 * failed; osRetCode is left to it. */
KEM_API KEM_FUNC_M KemSdNamedPipeOpen(KEM_PSDCTX_T pSdCtx, const char* pszServerName, const char* pszPipeName,
                                      KEM_PPIPEHDL_T phPipe, KEM_BIT32_T bt32FileAttr, KEM_BIT32_T bt32OFlag,
                                      KEM_BIT32_T bt32Access, KEM_BIT32_T bt32Share);

/* Closes both ends and removes the file pszPipeName itself, which is usually absent; the FIFOs stay.
 * SDSTS_INVALID_PARAM: null handle or name. SDSTS_PIPE_DISCONNECT: a close failed, and nothing after it was done. */
KEM_API KEM_FUNC_M KemSdNamedPipeDisconnect(KEM_PSDCTX_T pSdCtx, KEM_PPIPEHDL_T phPipe);

/* SDSTS_NOT_SUPPORTED, whatever the arguments. */
KEM_API KEM_FUNC_M KemSdNamedPipePeek(KEM_PSDCTX_T pSdCtx, KEM_PPIPEHDL_T phPipe, KEM_PVOID_T pvBuf,
                                      KEM_ULONG_T ulBufSize, KEM_PULONG_T pulBytesRead);
KEM_API KEM_FUNC_M KemSdNamedPipeWait(KEM_PSDCTX_T pSdCtx, const char* pszPipeName, KEM_ULONG_T ulTimeout);

/* The same for the server's own layers, without a context. SDSTS_INVALID_PARAM: a null pointer. */

/* As KemSdNamedPipeUnixCreate. SDSTS_NMPIPE_FAILED: the system refused; the umask of the process is then left 0. */
KEM_API OV_STS_T ovUNIXMakeNmPipe(const char* pname);

/* As KemSdNamedPipeUnixConnect. SDSTS_NMPIPE_CONNECT: the last attempt failed. */
KEM_API OV_STS_T ovUNIXConnectNmPipe(const char* pipename, int* fd);

/* As KemSdNamedPipeDisconnect. SDSTS_NMPIPE_FAILED: a close failed. */
KEM_API OV_STS_T ovUNIXDisConnectNmPipe(KEM_PIPEHDL_T ph);

/* One write, or one read: 0, or 1 when it failed. The count is stored in both cases. */
KEM_API OV_STS_T ovUNIXPipeWrite(KEM_PIPEHDL_T ph, OV_PVOID_T pBuf, OV_ULONG_T bytesToWrite, OV_ULONG_T* pBytesWritten);
KEM_API OV_STS_T ovUNIXPipeRead(KEM_PIPEHDL_T ph, OV_PVOID_T pBuf, OV_ULONG_T bytesToRead, OV_ULONG_T* pBytesRead);

KEM_EXTERN_C_END

#endif
