// The status file of a process with any content at all: nothing is read past a line, and texts give the figures that a
// second reading of the rules gives.

#include <kemsd/os.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "sd/sdosrlnx/procstatus.h"

namespace {

constexpr size_t kLongestPiece = 254; // of a line
constexpr KemProcSysInfo kBefore{1, 2, 3, 4, 5, 6, 7};

void require(bool holds, const char* what)
{
    if (holds) return;
    fprintf(stderr, "broken: %s\n", what);
    abort();
}

// The first word is the key with what stands behind its colon; the figure is the number that follows.
KEM_ULONG_T figureOf(const std::string& line)
{
    const char* text = line.c_str() + line.find_first_of(" \t\n\v\f\r");
    char* rest;
    const long number = strtol(text, &rest, 10);
    return rest == text ? 0 : static_cast<KEM_ULONG_T>(number);
}

void take(const std::string& line, KemProcSysInfo& info)
{
    const struct {
        const char* key;
        KEM_ULONG_T* figure;
    } figures[] = {{"VmPeak:", &info.vmPeak}, {"VmSize:", &info.vmSize}, {"VmHWM:", &info.vmHWM},
                   {"VmStk:", &info.vmStk},   {"VmData:", &info.vmData}, {"VmExe:", &info.vmExe},
                   {"VmLib:", &info.vmLib}};
    for (const auto& each : figures)
        if (line.rfind(each.key, 0) == 0) *each.figure = figureOf(line + ' ');
}

KemProcSysInfo expected(const std::string& text)
{
    KemProcSysInfo info = kBefore;
    for (size_t begin = 0; begin < text.size();) {
        const size_t newline = text.find('\n', begin);
        const size_t end = newline == text.npos ? text.size() : newline + 1;
        const std::string piece = text.substr(begin, std::min(end - begin, kLongestPiece));
        take(piece, info);
        begin += piece.size();
    }
    return info;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) return 0; // no stream over no memory
    FILE* const file = fmemopen(const_cast<uint8_t*>(data), size, "r");
    require(file != nullptr, "a stream over the input");
    KemProcSysInfo info = kBefore;
    sd::procstatus::read(file, info);
    fclose(file);

    const std::string text(reinterpret_cast<const char*>(data), size);
    if (text.find('\0') != text.npos) return 0; // the C library's streams over memory end there, files go on
    const KemProcSysInfo right = expected(text);
    require(memcmp(&info, &right, sizeof info) == 0, "the figures are what the text says");
    return 0;
}
