// The memory configuration file with any content at all: the tokenizer touches nothing but the fields that keywords
// name, and files without surprises give exactly what a second reading of the rules gives.

#include <kemsd/memory.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "sd/memsys/memsys.h"

namespace sd::memsys {
void readConfiguration(FILE* file);
}

namespace {

constexpr uint64_t kKi = 1024, kMi = kKi * 1024, kGi = kMi * 1024, kTi = kGi * 1024;
constexpr size_t kLongestToken = 4095;
constexpr size_t kLongestLine = 4000; // a comment line beyond the reader's buffer goes on as tokens: not modelled

void require(bool holds, const char* what)
{
    if (holds) return;
    fprintf(stderr, "broken: %s\n", what);
    abort();
}

// What a file can change.
struct Settings {
    uint32_t HeapSize = 2 * kMi, ShortHeapSize = 0x50000, MaxAllocBlock = 65536;
    int32_t NumThreadHeaps = 16, NumHeaps = 64;
    uint64_t MemoryLimit = 0;
    int32_t MaxShortMemoryPoolSize = 16, LimitShortHeapsForRemove = 4;
    bool MemoryControl = true, MemoryBlocksControl = false, ShortMemoryOn = true;
    uint8_t FreeInitValue = 0xAB;

    bool operator==(const Settings&) const = default;
};

void put(const Settings& from, OV_MemThreadHeap_T& to)
{
    to.HeapSize = from.HeapSize;
    to.ShortHeapSize = from.ShortHeapSize;
    to.MaxAllocBlock = from.MaxAllocBlock;
    to.NumThreadHeaps = from.NumThreadHeaps;
    to.NumHeaps = from.NumHeaps;
    to.MemoryLimit = from.MemoryLimit;
    to.MaxShortMemoryPoolSize = from.MaxShortMemoryPoolSize;
    to.LimitShortHeapsForRemove = from.LimitShortHeapsForRemove;
    to.MemoryControl = from.MemoryControl;
    to.MemoryBlocksControl = from.MemoryBlocksControl;
    to.ShortMemoryOn = from.ShortMemoryOn;
    to.FreeInitValue = from.FreeInitValue;
}

Settings taken(const OV_MemThreadHeap_T& from)
{
    require(from.MemoryControl <= 1 && from.MemoryBlocksControl <= 1 && from.ShortMemoryOn <= 1, "switches are 0 or 1");
    Settings to;
    to.HeapSize = from.HeapSize;
    to.ShortHeapSize = from.ShortHeapSize;
    to.MaxAllocBlock = from.MaxAllocBlock;
    to.NumThreadHeaps = from.NumThreadHeaps;
    to.NumHeaps = from.NumHeaps;
    to.MemoryLimit = from.MemoryLimit;
    to.MaxShortMemoryPoolSize = from.MaxShortMemoryPoolSize;
    to.LimitShortHeapsForRemove = from.LimitShortHeapsForRemove;
    to.MemoryControl = from.MemoryControl;
    to.MemoryBlocksControl = from.MemoryBlocksControl;
    to.ShortMemoryOn = from.ShortMemoryOn;
    to.FreeInitValue = from.FreeInitValue;
    return to;
}

std::vector<std::string> tokensOf(const std::string& text)
{
    std::vector<std::string> tokens;
    std::string token;
    const auto end = [&] {
        if (!token.empty()) tokens.push_back(token.substr(0, kLongestToken));
        token.clear();
    };
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '#') {
            token.clear();
            i = std::min(text.find('\n', i), text.size());
        } else if (text[i] == ' ' || text[i] == '\t' || text[i] == '\n') {
            end();
        } else {
            token += text[i];
        }
    }
    end();
    return tokens;
}

// A size or a count: digits, or non-zero digits and one letter. False: rejected.
bool valueOf(const std::string& token, uint64_t& value)
{
    char* rest;
    value = strtoul(token.c_str(), &rest, 10);
    const std::string suffix = rest;
    if (rest == token.c_str() || suffix.size() > 1 || (suffix.size() == 1 && value == 0)) return false;
    if (suffix.empty()) return true;
    uint64_t unit;
    switch (tolower(static_cast<unsigned char>(suffix[0]))) {
        case 'k':
            unit = kKi;
            break;
        case 'm':
            unit = kMi;
            break;
        case 'g':
            unit = kGi;
            break;
        default:
            return false;
    }
    value = value < kTi / unit ? value * unit : kTi;
    return true;
}

void store(Settings& settings, const std::string& keyword, const std::string& token)
{
    if (keyword == "mallocmemoryinit" || keyword == "freememoryinit") {
        if (token.size() == 1 && isdigit(static_cast<unsigned char>(token[0])))
            settings.FreeInitValue = static_cast<uint8_t>(token[0] - '0');
        return;
    }
    uint64_t value;
    if (!valueOf(token, value)) return;
    const auto narrow = static_cast<uint32_t>(value);
    if (keyword == "numheaps") settings.NumHeaps = static_cast<int32_t>(narrow);
    if (keyword == "numthreadheaps") settings.NumThreadHeaps = static_cast<int32_t>(narrow);
    if (keyword == "heapsize") settings.HeapSize = narrow;
    if (keyword == "shortheapsize") settings.ShortHeapSize = narrow;
    if (keyword == "maxblock") settings.MaxAllocBlock = narrow;
    if (keyword == "memorylimit") settings.MemoryLimit = value;
    if (keyword == "maxshortmemorypoolsize") settings.MaxShortMemoryPoolSize = static_cast<int32_t>(narrow);
    if (keyword == "limitshortheapsforremove") settings.LimitShortHeapsForRemove = static_cast<int32_t>(narrow);
}

bool takesValue(const std::string& keyword)
{
    for (const char* name :
         {"numheaps", "numthreadheaps", "heapsize", "shortheapsize", "maxblock", "memorylimit", "mallocmemoryinit",
          "freememoryinit", "maxshortmemorypoolsize", "limitshortheapsforremove"})
        if (keyword == name) return true;
    return false;
}

Settings expected(const std::string& text, Settings settings)
{
    std::string pending;
    for (const std::string& token : tokensOf(text)) {
        if (!pending.empty()) {
            store(settings, pending, token);
            pending.clear();
            continue;
        }
        std::string keyword = token;
        for (char& c : keyword) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        if (takesValue(keyword)) pending = keyword;
        if (keyword == "memorylimit") {
            settings.MemoryControl = true;
            if (settings.NumThreadHeaps == 0) settings.NumThreadHeaps = 16;
        }
        if (keyword == "nomemorycontrol") settings.MemoryControl = false;
        if (keyword == "memoryblockscontrol") settings.MemoryBlocksControl = true;
        if (keyword == "shortmemoryoff") settings.ShortMemoryOn = false;
    }
    return settings;
}

// NUL bytes end a token for some of the C library's readers and not for others; overlong lines are left out too.
bool isModelled(const std::string& text)
{
    if (text.find('\0') != std::string::npos) return false;
    size_t begin = 0;
    while (begin < text.size()) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        if (end - begin > kLongestLine) return false;
        begin = end + 1;
    }
    return true;
}

void* bytesOf(OV_MemThreadHeap_T& record) { return &record; }

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // The messages about what it reads; libFuzzer itself talks on standard error.
    require(freopen("/dev/null", "w", stdout) != nullptr, "standard output goes nowhere");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) return 0; // no stream over no memory
    OV_MemThreadHeap_T& record = ovMemThreadHeap;
    const Settings initial;
    memset(bytesOf(record), 0x5A, sizeof record);
    put(initial, record);

    OV_MemThreadHeap_T before;
    memcpy(bytesOf(before), bytesOf(record), sizeof record);

    FILE* file = fmemopen(const_cast<uint8_t*>(data), size, "r");
    require(file != nullptr, "a stream over the input");
    sd::memsys::readConfiguration(file);
    fclose(file);

    const Settings after = taken(record);
    require(after.FreeInitValue <= 9 || after.FreeInitValue == initial.FreeInitValue, "fill byte is a digit's value");
    put(initial, record);
    require(memcmp(bytesOf(before), bytesOf(record), sizeof record) == 0, "only the documented fields change");

    const std::string text(reinterpret_cast<const char*>(data), size);
    if (isModelled(text)) require(after == expected(text, initial), "the settings are what the file says");
    return 0;
}
