// The server's segments of five slots each: as many as its clients need, up to a limit. One thread hands them out and
// takes them back.
#pragma once

#include <kemsd/ipc.h>

#include <atomic>
#include <optional>

#include "wire/serverdir.h"

namespace sqlhost {

struct Slot {
    OV_SHAREDMEM_SEG_T* shared;
    unsigned segment; // its number, counted from 1
    KEM_LONG_T slot;
};

class Segments {
public:
    static constexpr unsigned kMostSegments = 20;
    static constexpr unsigned kMostClients = kMostSegments * SHMEM_SEG_SIZE;

    // Makes the first segment. Throws Failure.
    Segments(KEM_PSDCTX_T context, const ServerDirectory& directory, KEM_PROCID_T pid);
    // Removes all that was made.
    ~Segments();
    Segments(const Segments&) = delete;
    Segments& operator=(const Segments&) = delete;

    // A free slot, of a new segment when all are taken; nothing when there may be no further one. Throws Failure.
    std::optional<Slot> handOut();
    // Takes back a slot that nobody uses any more.
    void takeBack(const Slot& slot);

    KEM_IPCKEY_T firstKey() const { return firstKey_; }
    // Any thread may ask.
    unsigned count() const { return count_.load(std::memory_order_relaxed); }

private:
    struct Nothing {};
    Segments(KEM_PSDCTX_T context, const ServerDirectory& directory, KEM_PROCID_T pid, Nothing);
    OV_SHAREDMEM_SEG_T* make(unsigned number);
    bool create(OV_SHAREDMEM_SEG_T* segment, const std::string& keyFile);

    KEM_PSDCTX_T context_;
    const ServerDirectory& directory_;
    KEM_PROCID_T pid_;
    KEM_IPCKEY_T firstKey_ = -1;
    OV_SHAREDMEM_SEG_LIST_T* list_ = nullptr;
    std::atomic<unsigned> count_{0};
};

} // namespace sqlhost
