// A mapped file of a test's own: its name, a handle, and the calls with their usual arguments.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <kemsd/file.h>
#include <sys/stat.h>

#include <cstring>
#include <string>

#include "support/failingcalls.h"
#include "support/report.h"
#include "support/tempdir.h"

namespace kemsd::test {

constexpr KEM_LONG64_T kMapped = 1 << 20; // bytes mapped unless a test says otherwise

class MappedFileTest : public testing::Test {
protected:
    MappedFileTest()
    {
        memset(&file_, 0, sizeof file_);
        KemSdMMAPHdlReset(&file_);
    }
    ~MappedFileTest() override
    {
        if (hdl().fd != -1) KemSdMMAPFileClose(nullptr, file_);
    }

    // A file with this content, open in mapped mode.
    void open(const std::string& content, KEM_LONG64_T mapped = kMapped)
    {
        ASSERT_THAT(openAs(dir_.write("file", content), mapped, KEM_IOTYPE_MMAP), Succeeds());
    }
    void openPlain(const std::string& content)
    {
        ASSERT_THAT(openAs(dir_.write("file", content), 0, KEM_IOTYPE_FILEIO), Succeeds());
    }
    Report openAs(const std::string& path, KEM_LONG64_T mapped, KEM_USHORT_T iotype, KEM_USHORT_T opentype = 0,
                  int flags = O_RDWR)
    {
        return reported(KemSdMMAPFileOpen, path.c_str(), flags, 0, 0600, mapped, iotype, opentype, &file_);
    }

    // Each leaves what it moved in count_, and what was read in text_.
    Report read(KEM_UINT_T bytes)
    {
        text_.assign(bytes, '?');
        KEM_INT_T got = -77;
        const Report report = reported(KemSdMMAPFileRead, &file_, text_.data(), bytes, &got);
        return taken(report, got);
    }
    Report readAt(KEM_LONG_T offset, KEM_UINT_T bytes)
    {
        text_.assign(bytes, '?');
        KEM_UINT_T got = 77;
        const Report report = reported(KemSdMMAPFilePRead, file_, text_.data(), offset, bytes, &got);
        return taken(report, got);
    }
    Report write(std::string text)
    {
        KEM_INT_T written = -77;
        const auto bytes = static_cast<KEM_UINT_T>(text.size());
        const Report report = reported(KemSdMMAPFileWrite, &file_, text.data(), bytes, &written);
        count_ = written;
        return report;
    }
    Report writeAt(KEM_LONG_T offset, std::string text)
    {
        KEM_UINT_T written = 77;
        error_ = -77;
        const auto bytes = static_cast<KEM_UINT_T>(text.size());
        const Report report = reported(KemSdMMAPFilePWrite, &file_, text.data(), offset, bytes, &written, &error_);
        count_ = written;
        return report;
    }
    Report seek(KEM_LONG_T offset, KEM_INT_T origin)
    {
        position_ = -77;
        return reported(KemSdMMAPFileLSeek, &file_, offset, origin, &position_);
    }
    Report setEnd(KEM_LONG_T bytes)
    {
        length_ = -77;
        error_ = -77;
        return reported(KemSdMMAPFileSetEndOfFile, &file_, bytes, &length_, &error_);
    }
    Report extend(KEM_LONG_T needed)
    {
        error_ = -77;
        return reported(KemSdExtendMMAPFile, &file_, needed, &error_);
    }

    KEM_MMAPHDL_T& hdl() { return file_.v.mmaphdl; }
    std::string content() const { return dir_.read("file"); }
    off_t fileLength()
    {
        struct stat record = {};
        return stat(dir_.path("file").c_str(), &record) == 0 ? record.st_size : -1;
    }

    TempDir dir_;
    KEM_MMAPFILEHDL_T file_;
    std::string text_;
    int64_t count_ = 0;
    KEM_OSRETCODE_T error_ = 0;
    KEM_LONG_T position_ = 0;
    KEM_LONG_T length_ = 0;

private:
    Report taken(const Report& report, int64_t got)
    {
        count_ = got;
        text_.resize(got < 0 ? 0 : static_cast<size_t>(got));
        return report;
    }
};

} // namespace kemsd::test
