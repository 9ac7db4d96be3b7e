#include "serve/sysv.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <cstring>

namespace sqlhost {
namespace {

// The ids under which kemsd makes its keys of a path.
constexpr int kMemoryId = 'w';
constexpr int kSemaphoreId = 'x';

constexpr size_t kSegmentBytes = 2 * SHMEM_SEG_SIZE * SHMEM_CHUNK_SIZE;
constexpr int kMembers = 4 * SHMEM_SEG_SIZE + 1;

union SemaphoreArgument {
    int value;
    struct semid_ds* status;
    unsigned short* values;
};

bool isOurs(int segment, KEM_PROCID_T deadServer)
{
    struct shmid_ds status;
    return shmctl(segment, IPC_STAT, &status) == 0 && status.shm_cpid == deadServer &&
           status.shm_segsz == kSegmentBytes;
}

// The set of that key, if it has as many members as ours: it need not let itself be read, but it is found by a count up
// to its own and by none above.
int setOfOurSize(KEM_IPCKEY_T key)
{
    const int set = semget(key, kMembers, 0);
    return set != -1 && semget(key, kMembers + 1, 0) == -1 ? set : -1;
}

} // namespace

// A set knows nobody who made it. But a server makes its segment right after its set and the segment stays as long as
// anybody is attached: a set without a segment serves nobody.
void removeStale(const std::string& keyFile, KEM_PROCID_T deadServer)
{
    KEM_IPCKEY_T key = -1;
    if (KemSdSharedMemNameConvert(keyFile.c_str(), kMemoryId, &key) != 0) return;
    const int segment = shmget(key, 0, 0);
    if (segment != -1) {
        if (!isOurs(segment, deadServer)) return;
        shmctl(segment, IPC_RMID, nullptr);
    }
    if (KemSdSharedSemNameConvert(keyFile.c_str(), kSemaphoreId, &key) != 0) return;
    const int set = setOfOurSize(key);
    if (set != -1) semctl(set, 0, IPC_RMID);
}

void removeSegment(const OV_SHAREDMEM_SEG_T& segment) { shmctl(segment.shmemHdl, IPC_RMID, nullptr); }

void resetSlot(OV_SHAREDMEM_SEG_T& segment, KEM_LONG_T slot)
{
    constexpr int kBufferFree[] = {0, 1, 0, 1}; // data ready and buffer free, to the server and back
    for (int i = 0; i < 4; ++i) {
        SemaphoreArgument argument;
        argument.value = kBufferFree[i];
        semctl(segment.pShSemSet->id, 4 * slot + 1 + i, SETVAL, argument);
    }
    memset(segment.buffer + 2 * slot * SHMEM_CHUNK_SIZE, 0, 2 * SHMEM_CHUNK_SIZE);
    segment.chunkRec[0][slot] = {};
    segment.chunkRec[1][slot] = {};
}

} // namespace sqlhost
