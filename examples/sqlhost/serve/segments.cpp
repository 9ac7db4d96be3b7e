// A key is made of a few bits of its file's place on the disk, so another program's file may happen to have the same
// one. Then the segment cannot be made, and a new file in another place gives another key.
#include "serve/segments.h"

#include <fcntl.h>
#include <kemsd/file.h>

#include <cstdio>
#include <cstring>

#include "serve/sysv.h"
#include "text.h"

namespace sqlhost {
namespace {

constexpr KEM_BIT32_T kReadWrite = 4, kMake = 8, kNoOther = 16;
constexpr KEM_LONG_T kWithoutLimit = -1;
constexpr int kKeyFiles = 100; // tried for one segment

void makeFile(KEM_PSDCTX_T context, const std::string& path)
{
    KEM_FILEHDL_T handle = -1;
    if (KemSdFileCreate(context, path.c_str(), 0600, &handle) != 0)
        throw Failure(text("cannot make %s: %s", path.c_str(), strerror(context->osRetCode)));
    KemSdFileClose(context, handle);
}

// Files whose key is taken: they stay until another one has been found, so that none lies where they do.
class Rejected {
public:
    explicit Rejected(const std::string& path) : path_(path) {}
    ~Rejected()
    {
        for (int i = 0; i < count_; ++i) KemSdFileRemove(nullptr, name(i).c_str());
    }
    Rejected(const Rejected&) = delete;
    Rejected& operator=(const Rejected&) = delete;

    void add() { rename(path_.c_str(), name(count_++).c_str()); }

private:
    std::string name(int i) const { return path_ + text(".taken%d", i); }

    std::string path_;
    int count_ = 0;
};

} // namespace

// The inner constructor completes at once, so that the destructor runs when the segment cannot be made.
Segments::Segments(KEM_PSDCTX_T context, const ServerDirectory& directory, KEM_PROCID_T pid)
    : Segments(context, directory, pid, Nothing())
{
    make(1);
}

Segments::Segments(KEM_PSDCTX_T context, const ServerDirectory& directory, KEM_PROCID_T pid, Nothing)
    : context_(context), directory_(directory), pid_(pid)
{}

Segments::~Segments()
{
    for (const OV_SHAREDMEM_SEG_LIST_T* entry = list_; entry; entry = entry->next)
        if (entry->shMemSeg.pShSemSet) removeSegment(entry->shMemSeg);
    KemDeleteSharedMemSeg(context_, list_);
    for (unsigned number = 1; number <= count(); ++number)
        KemSdFileRemove(context_, directory_.exchange(number).c_str());
}

bool Segments::create(OV_SHAREDMEM_SEG_T* segment, const std::string& keyFile)
{
    KEM_IPCKEY_T key = -1;
    char* base = nullptr;
    const KEM_STS_T status = KemCreateSharedMemSeg(context_, keyFile.c_str(), SHM_SERVER, kReadWrite | kMake | kNoOther,
                                                   0, segment, kWithoutLimit, &key, &base);
    if (status == SDSTS_IPC_CREATE) return false;
    if (status != 0)
        throw Failure(
            text("cannot make a shared-memory segment (status %d): %s", status, strerror(context_->osRetCode)));
    KemSetSharedMemSegBuffer(context_, segment, base);
    if (firstKey_ == -1) firstKey_ = key;
    return true;
}

// An entry whose creation failed stays in the list, unattached, and is found again by the next try.
OV_SHAREDMEM_SEG_T* Segments::make(unsigned number)
{
    const std::string keyFile = directory_.exchange(number);
    OV_SHAREDMEM_SEG_T* segment = nullptr;
    KEM_BOOL_T toBeCreated = FALSE;
    if (KemFindShareMemSeg(context_, keyFile.c_str(), SHM_SERVER, &list_, TRUE, pid_, firstKey_, &toBeCreated, nullptr,
                           &segment) != 0 ||
        !segment)
        throw Failure("no memory for a further segment");
    count_.store(number, std::memory_order_relaxed);
    Rejected rejected(keyFile);
    for (int i = 0; i < kKeyFiles; ++i) {
        makeFile(context_, keyFile);
        if (create(segment, keyFile)) return segment;
        rejected.add();
    }
    throw Failure(text("cannot make a shared-memory segment: %s", strerror(context_->osRetCode)));
}

std::optional<Slot> Segments::handOut()
{
    KEM_LONG_T slot = -1;
    unsigned number = 1;
    for (OV_SHAREDMEM_SEG_LIST_T* entry = list_; entry; entry = entry->next, ++number) {
        OV_SHAREDMEM_SEG_T* const segment = &entry->shMemSeg;
        if (!segment->pShSemSet) make(number); // it could not be made the last time
        if (KemGetSharedMemChunk(context_, segment, &slot) != 0) throw Failure("the segment's slots cannot be had");
        if (slot != -1) return Slot{segment, number, slot};
    }
    if (number > kMostSegments) return std::nullopt;
    OV_SHAREDMEM_SEG_T* const segment = make(number);
    if (KemGetSharedMemChunk(context_, segment, &slot) != 0 || slot == -1)
        throw Failure("the segment's slots cannot be had");
    return Slot{segment, number, slot};
}

void Segments::takeBack(const Slot& slot)
{
    resetSlot(*slot.shared, slot.slot);
    KemPutSharedMemChunk(context_, slot.shared, slot.slot);
}

} // namespace sqlhost
