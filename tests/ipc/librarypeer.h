// The library's end of a segment, as a server or a client holds it, without time limit. The tests' alarm ends what
// hangs (support/rawpeer.h).
#pragma once

#include <kemsd/ipc.h>

#include <string>

#include "support/rawpeer.h"

namespace kemsd::test {

constexpr KEM_BIT32_T kOpenIt = 4;
constexpr KEM_BIT32_T kMakeIt = 4 | 8 | 16;
constexpr KEM_BIT32_T kMakeOrTakeIt = 4 | 8;

class LibraryPeer {
public:
    LibraryPeer(const std::string& path, RawSide side)
        : path_(path), type_(side == RawSide::Server ? SHM_SERVER : SHM_CLIENT)
    {}
    ~LibraryPeer() { remove(); }
    LibraryPeer(const LibraryPeer&) = delete;
    LibraryPeer& operator=(const LibraryPeer&) = delete;

    KEM_STS_T open(KEM_BIT32_T mode)
    {
        char* base = nullptr;
        const KEM_STS_T status =
            KemCreateSharedMemSeg(nullptr, path_.c_str(), type_, mode, 0, &descriptor_, -1, &key_, &base);
        if (status == 0) {
            KemSetSharedMemSegBuffer(nullptr, &descriptor_, base);
            open_ = true;
        }
        return status;
    }
    KEM_STS_T open() { return open(type_ == SHM_SERVER ? kMakeIt : kOpenIt); }

    KEM_STS_T remove()
    {
        if (!open_) return 0;
        open_ = false;
        return KemDeleteSingleSharedMemSeg(nullptr, &descriptor_);
    }

    KEM_STS_T write(KEM_LONG_T slot, const std::string& bytes, bool flush = true, bool split = true)
    {
        return KemWriteSharedMemChunk(nullptr, &descriptor_, slot, static_cast<KEM_ULONG_T>(bytes.size()), flush, split,
                                      bytes.data());
    }
    KEM_STS_T writeCode(KEM_LONG_T slot, KEM_ULONG_T code)
    {
        return KemWriteSharedMemChunkCode(nullptr, &descriptor_, slot, code);
    }
    KEM_STS_T read(KEM_LONG_T slot, KEM_ULONG_T bytes, KEM_ULONG_T& code, char* buffer)
    {
        return KemReadSharedMemChunk(nullptr, &descriptor_, slot, bytes, FALSE, &code, buffer);
    }
    KEM_STS_T readString(KEM_LONG_T slot, KEM_ULONG_T& code, char* buffer)
    {
        return KemReadSharedMemChunk(nullptr, &descriptor_, slot, 0, TRUE, &code, buffer);
    }
    KEM_STS_T readCode(KEM_LONG_T slot, KEM_ULONG_T& code)
    {
        return KemReadSharedMemChunkCode(nullptr, &descriptor_, slot, &code);
    }

    // So many bytes, which must be there as data; nothing when they are not.
    std::string taken(KEM_LONG_T slot, size_t bytes)
    {
        std::string text(bytes, '?');
        KEM_ULONG_T code = 77;
        const KEM_STS_T status = read(slot, static_cast<KEM_ULONG_T>(bytes), code, text.data());
        return status == 0 && (code == 0 || code == 77) ? text : std::string();
    }

    OV_SHAREDMEM_SEG_T& descriptor() { return descriptor_; }
    KEM_IPCKEY_T key() const { return key_; }
    SHMEM_CHUNK_REC_T& readRecord(int slot) { return descriptor_.chunkRec[0][slot]; }
    SHMEM_CHUNK_REC_T& writeRecord(int slot) { return descriptor_.chunkRec[1][slot]; }

private:
    std::string path_;
    SHMEM_USERTYPE_T type_;
    OV_SHAREDMEM_SEG_T descriptor_{};
    KEM_IPCKEY_T key_ = -1;
    bool open_ = false;
};

} // namespace kemsd::test
