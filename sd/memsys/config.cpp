// The memory configuration file: where it is looked for, its words, and what each of them sets in the record. Runs
// once, inside start-up, before other threads exist: no locks. The file is an operator's: whatever it holds is read to
// its end within fixed buffers, complaints go to standard output, and a word that makes no sense changes nothing.

#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "sd/memsys/memsys.h"

namespace sd::memsys {
namespace {

// What the next word is: a keyword, or the value of the keyword before it.
enum TokenType {
    none = 0,
    numheaps = 1,
    numthreadheaps = 2,
    heapsize = 3,
    shortheapsize = 4,
    maxblock = 5,
    memorylimit = 6,
    mallocmemoryinit = 7,
    freememoryinit = 8,
    maxshortmemorypoolsize = 9,
    limitshortheapsforremove = 10,
};

struct Keyword {
    const char* name;
    TokenType type;   // what its value sets; none for a keyword without one
    void (*effect)(); // what the keyword does by itself, or null
};

void countAndServe()
{
    ovMemThreadHeap.MemoryControl = 1;
    if (ovMemThreadHeap.NumThreadHeaps == 0) ovMemThreadHeap.NumThreadHeaps = kConfiguredSlots;
}

constexpr Keyword kKeywords[] = {
    {"numheaps", numheaps, nullptr},
    {"numthreadheaps", numthreadheaps, nullptr},
    {"heapsize", heapsize, nullptr},
    {"shortheapsize", shortheapsize, nullptr},
    {"maxblock", maxblock, nullptr},
    {"memorylimit", memorylimit, countAndServe},
    {"mallocmemoryinit", mallocmemoryinit, nullptr},
    {"freememoryinit", freememoryinit, nullptr},
    {"maxshortmemorypoolsize", maxshortmemorypoolsize, nullptr},
    {"limitshortheapsforremove", limitshortheapsforremove, nullptr},
    {"nomemorycontrol", none, [] { ovMemThreadHeap.MemoryControl = 0; }},
    {"memoryblockscontrol", none, [] { ovMemThreadHeap.MemoryBlocksControl = 1; }},
    {"shortmemoryoff", none, [] { ovMemThreadHeap.ShortMemoryOn = 0; }},
};

// ---- Locating the file

constexpr size_t kPathCapacity = 1025;
constexpr const char* kDirectoryVariable = "ZANTOPATH";
// Deliberate: without the variable the directory is this text, backslashes and all.
constexpr const char* kDefaultDirectory = "\\ZANTO\\";

// A path that may outgrow its buffer: it then cannot be opened until it is cut back.
class Path {
public:
    void append(const char* part)
    {
        const size_t length = strlen(part);
        if (length < kPathCapacity && length_ + length < kPathCapacity) memcpy(text_ + length_, part, length + 1);
        length_ += length;
    }
    void cutTo(size_t length)
    {
        length_ = length;
        if (length_ < kPathCapacity) text_[length_] = 0;
    }
    size_t length() const { return length_; }
    FILE* open() const { return length_ < kPathCapacity ? fopen(text_, "re") : nullptr; }

private:
    char text_[kPathCapacity] = {};
    size_t length_ = 0;
};

const char* directory()
{
    const char* given = getenv(kDirectoryVariable);
    return given ? given : kDefaultDirectory;
}

bool endsInSlash(const char* text)
{
    const size_t length = strlen(text);
    return length > 0 && text[length - 1] == '/';
}

// The application's own file if it has one, else the one for all; null when neither can be opened.
FILE* openConfiguration(const char* appname)
{
    Path path;
    path.append(directory());
    if (!endsInSlash(directory())) path.append("/");
    path.append("bin/config.mem");
    if (!appname) return path.open();
    const size_t forAll = path.length();
    path.append(".");
    path.append(appname);
    if (FILE* file = path.open()) return file;
    path.cutTo(forAll);
    return path.open();
}

// ---- Words

constexpr size_t kTokenCapacity = 4096; // of a longer word the first 4,095 characters count
constexpr int kCommentLength = 4096;    // what one "#" skips at most; a longer line goes on as words

void skipComment(FILE* file)
{
    for (int left = kCommentLength; left > 0; --left) {
        const int c = getc_unlocked(file);
        if (c == '\n' || c == EOF) return;
    }
}

// Deliberate: a carriage return does not end a word.
bool endsToken(int c) { return c == ' ' || c == '\t' || c == '\n' || c == EOF; }

// Reads the next word; false when the file has none left. A comment sign drops the word that it touches. A zero byte
// ends a word's text, but not the word.
bool nextToken(FILE* file, char (&token)[kTokenCapacity])
{
    size_t length = 0;
    for (;;) {
        const int c = getc_unlocked(file);
        if (c == '#') {
            length = 0;
            skipComment(file);
        } else if (!endsToken(c)) {
            if (length < kTokenCapacity - 1) token[length++] = static_cast<char>(c);
        } else {
            token[length] = 0;
            if (token[0]) return true;
            if (c == EOF) return false;
            length = 0;
        }
    }
}

// ---- Values

constexpr OV_ULONGLONG_T kBeyond = OV_ULONGLONG_T{1} << 40; // 1 TiB: what a number too large for its unit becomes

constexpr OV_ULONGLONG_T scaled(OV_ULONGLONG_T number, int shift)
{
    return number < kBeyond >> shift ? number << shift : kBeyond;
}
static_assert(scaled(64, 20) == 64 * 1048576 && scaled(1023, 30) == 1023 * OV_ULONGLONG_T{1073741824});
static_assert(scaled(1024, 30) == kBeyond && scaled(20000, 30) == kBeyond && scaled(~OV_ULONGLONG_T{0}, 10) == kBeyond);

// The shift of a unit's letter; 0 for a letter that is none.
constexpr int unitShift(char suffix)
{
    switch (suffix) {
        case 'K':
        case 'k':
            return 10;
        case 'M':
        case 'm':
            return 20;
        case 'G':
        case 'g':
            return 30;
        default:
            return 0;
    }
}

// A bare number as it stands, or a number other than 0 with one unit letter. The C library reads the number, so a sign
// is allowed and a negative number is the large one of the same bits.
bool readNumber(const char* token, OV_ULONGLONG_T& value)
{
    unsigned long number;
    char suffix, more;
    const int items = sscanf(token, "%lu%c%c", &number, &suffix, &more);
    if (items == 1) {
        value = number;
        return true;
    }
    if (items != 2 || number == 0 || unitShift(suffix) == 0) return false;
    value = scaled(number, unitShift(suffix));
    return true;
}

// Deliberate: a fill byte is one digit, so only 0 to 9 can be set, and both fill keywords set the release byte.
bool storeFillByte(const char* token)
{
    if (token[0] < '0' || token[0] > '9' || token[1] != 0) return false;
    ovMemThreadHeap.FreeInitValue = static_cast<OV_BYTE_T>(token[0] - '0');
    return true;
}

// Stores into the field's own width: a 32-bit field keeps the low 32 bits.
void store(TokenType type, OV_ULONGLONG_T value)
{
    const auto count = static_cast<OV_LONG_T>(value);
    const auto bytes = static_cast<OV_ULONG_T>(value);
    switch (type) {
        case numheaps:
            ovMemThreadHeap.NumHeaps = count;
            break;
        case numthreadheaps:
            ovMemThreadHeap.NumThreadHeaps = count;
            break;
        case heapsize:
            ovMemThreadHeap.HeapSize = bytes;
            break;
        case shortheapsize:
            ovMemThreadHeap.ShortHeapSize = bytes;
            break;
        case maxblock:
            ovMemThreadHeap.MaxAllocBlock = bytes;
            break;
        case memorylimit:
            ovMemThreadHeap.MemoryLimit = value;
            break;
        case maxshortmemorypoolsize:
            ovMemThreadHeap.MaxShortMemoryPoolSize = count;
            break;
        case limitshortheapsforremove:
            ovMemThreadHeap.LimitShortHeapsForRemove = count;
            break;
        case none:
        case mallocmemoryinit:
        case freememoryinit:
            break;
    }
}

bool storeNumber(TokenType type, const char* token)
{
    OV_ULONGLONG_T value;
    if (!readNumber(token, value)) return false;
    store(type, value);
    return true;
}

const char* nameOf(TokenType type)
{
    // Deliberate: a complaint about either fill keyword names this one.
    if (type == mallocmemoryinit) type = freememoryinit;
    for (const Keyword& keyword : kKeywords)
        if (keyword.type == type) return keyword.name;
    return "";
}

void takeValue(TokenType type, const char* token)
{
    const bool fillByte = type == mallocmemoryinit || type == freememoryinit;
    if (fillByte ? storeFillByte(token) : storeNumber(type, token)) return;
    printf("\nWrong keyword [%s] in the memory configuration file after keyword [%s]\n", token, nameOf(type));
}

// Returns what the next word is.
TokenType takeKeyword(const char* token)
{
    for (const Keyword& keyword : kKeywords) {
        if (strcasecmp(token, keyword.name) != 0) continue;
        if (keyword.effect) keyword.effect();
        return keyword.type;
    }
    printf("\nUnknown keyword [%s] in the memory configuration file\n", token);
    return none;
}

} // namespace

void readConfiguration(FILE* file)
{
    char token[kTokenCapacity];
    TokenType type = none;
    while (nextToken(file, token)) {
        if (type == none) {
            type = takeKeyword(token);
        } else {
            takeValue(type, token);
            type = none;
        }
    }
}

} // namespace sd::memsys

void ovMemThreadHeapGetArg(OV_STR_T appname, int assumeConfigFileExists)
{
    FILE* file = sd::memsys::openConfiguration(appname);
    if (!file && !assumeConfigFileExists) return;
    ovMemThreadHeap.MemoryControl = 1;
    ovMemThreadHeap.NumThreadHeaps = sd::memsys::kConfiguredSlots;
    if (!file) return;
    sd::memsys::readConfiguration(file);
    fclose(file);
}
