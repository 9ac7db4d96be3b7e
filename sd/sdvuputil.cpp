// The process-wide thread-local slot: one key, kept in a heap cell whose address stands in a record that the server's
// utility layer shares. Init and Term run while one thread uses the slot; the release store in Init pairs with the
// acquire loads of Get and Set, so that whoever sees the cell sees the key in it.

#include <pthread.h>

#include <kemsd/memory.h>
#include <kemsd/os.h>

#include "sd/base/atomic.h"
#include "sd/base/invariant.h"

namespace {

using sd::loadAcquire;
using sd::SourcePoint;
using sd::storeRelease;

constexpr const char* kSource = "sd/sdvuputil";
constexpr long kAllocLine = 52;
constexpr long kFreeUnusedLine = 57;
constexpr long kFreeLine = 93;
constexpr SourcePoint kInitOnce{kSource, 61, "KemSdVupUtilTlsInit"};
constexpr SourcePoint kSetAfterInit{kSource, 80, "KemSdVupUtilTlsSet"};

static_assert(sizeof(kem_tls_id_t) == 4, "the cell is 4 bytes");

constinit KEM_VUPUTILGLOBALS_T globals{};

kem_tls_id_t* keyCell() { return static_cast<kem_tls_id_t*>(loadAcquire(globals.tlsKey)); }

} // namespace

KEM_VUPUTILGLOBALS_T* KemSdVupUtilGlobals(void) { return &globals; }

KEM_FUNC_M KemSdVupUtilTlsInit(void)
{
    void* cell = nullptr;
    const KEM_STS_T sts = ovMalloc(nullptr, sizeof(kem_tls_id_t), &cell, kSource, kAllocLine);
    if (sts != 0) return sts;
    if (pthread_key_create(static_cast<kem_tls_id_t*>(cell), nullptr) != 0) {
        ovFree(cell, kSource, kFreeUnusedLine);
        return SDSTS_TLS_FAILED;
    }
    // clang-format off
    SD_INVARIANT(kInitOnce, KemSdVupUtilGlobals()->tlsKey == ((void *)0)); // spelt as operators know it
    // clang-format on
    storeRelease(globals.tlsKey, cell);
    return 0;
}

void* KemSdVupUtilTlsGet(void)
{
    const kem_tls_id_t* const key = keyCell();
    return key ? pthread_getspecific(*key) : nullptr;
}

KEM_FUNC_M KemSdVupUtilTlsSet(void* value)
{
    const kem_tls_id_t* const key = keyCell();
    // clang-format off
    SD_INVARIANT(kSetAfterInit, key != ((void *)0)); // spelt as operators know it
    // clang-format on
    return pthread_setspecific(*key, value) != 0 ? SDSTS_TLS_FAILED : 0;
}

void KemSdVupUtilTlsTerm(void)
{
    kem_tls_id_t* const cell = keyCell();
    if (!cell) return;
    const kem_tls_id_t key = *cell;
    ovFree(cell, kSource, kFreeLine);
    pthread_key_delete(key);
    storeRelease(globals.tlsKey, nullptr);
}
