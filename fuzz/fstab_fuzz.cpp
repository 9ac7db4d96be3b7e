// The mount table with any content at all, read for the drives and for the whole resource record, against a second
// reading of the rules. The input's first line is the current directory, the rest the table; what a file system says
// about itself follows from the name of its directory.

#include <kemsd/os.h>
#include <mntent.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr size_t kLongestDirectory = 1028, kLongestType = 60, kLongestLine = 4000;

void require(bool holds, const char* what)
{
    if (holds) return;
    fprintf(stderr, "broken: %s\n", what);
    abort();
}

// What the wrapped calls answer from; null while no input is at work.
struct System {
    std::string here, table;
};
System* present;

uint64_t hashOf(const std::string& text)
{
    uint64_t hash = UINT64_C(14695981039346656037);
    for (const unsigned char c : text) hash = (hash ^ c) * UINT64_C(1099511628211);
    return hash;
}

// False: it does not answer.
bool figuresOf(const std::string& directory, struct statfs& figures)
{
    const uint64_t hash = hashOf(directory);
    if (hash % 5 == 0) return false;
    figures = {};
    figures.f_bsize = static_cast<long>(512 << (hash % 8));
    figures.f_blocks = hash >> (hash % 59);
    figures.f_bfree = figures.f_blocks / 3;
    figures.f_bavail = figures.f_blocks / 4;
    return true;
}

struct Entry {
    std::string directory, type;
};

std::string decoded(const std::string& word)
{
    const struct {
        const char* code;
        char meaning;
    } codes[] = {{"\\040", ' '}, {"\\011", '\t'}, {"\\012", '\n'}, {"\\134", '\\'}, {"\\\\", '\\'}};
    std::string text;
    for (size_t i = 0; i < word.size();) {
        const auto* const found = std::find_if(std::begin(codes), std::end(codes), [&](const auto& each) {
            return word.compare(i, strlen(each.code), each.code) == 0;
        });
        text += found == std::end(codes) ? word[i] : found->meaning;
        i += found == std::end(codes) ? 1 : strlen(found->code);
    }
    return text;
}

std::vector<std::string> wordsOf(const std::string& line)
{
    constexpr const char* kBlanks = " \t";
    std::vector<std::string> words;
    for (size_t begin = line.find_first_not_of(kBlanks); begin != line.npos;) {
        const size_t end = std::min(line.find_first_of(kBlanks, begin), line.size());
        words.push_back(line.substr(begin, end - begin));
        begin = line.find_first_not_of(kBlanks, end);
    }
    return words;
}

std::vector<Entry> entriesOf(const std::string& table)
{
    std::vector<Entry> entries;
    for (size_t begin = 0; begin < table.size() && entries.size() < KEM_DRIVES_MAX;) {
        const size_t end = std::min(table.find('\n', begin), table.size());
        std::vector<std::string> words = wordsOf(table.substr(begin, end - begin));
        begin = end + 1;
        if (words.empty() || words[0][0] == '#') continue;
        words.resize(std::max(words.size(), size_t{3}));
        entries.push_back({decoded(words[1]), decoded(words[2])});
    }
    return entries;
}

KEM_ULONG_T typeOf(const Entry& entry)
{
    if (entry.type == "nfs") return 4;
    for (const char* type : {"swap", "proc", "devpts", "tmpfs"})
        if (entry.type == type) return 3;
    if (entry.directory == "/mnt/floppy" || entry.directory == "/mnt/cdrom") return 1;
    return entry.type == "ext2" || entry.type == "ext3" ? 2 : 0;
}

KEM_ULONG_T kiB(uint64_t blocks, uint64_t blockBytes)
{
    const unsigned __int128 bytes = static_cast<unsigned __int128>(blocks) * blockBytes;
    return bytes < (UINT64_C(1) << 42) ? static_cast<KEM_ULONG_T>(bytes >> 10) : 0xFFFFFFFF;
}

void checkDrive(const KEM_DRIVEINFO_T& drive, KEM_ULONG_T ordinal, const Entry& entry)
{
    require(drive.ulOrdinal == ordinal, "a drive's ordinal");
    require(drive.szDriveName == entry.directory.substr(0, kLongestDirectory), "a drive's name");
    require(strcmp(drive.szVolumeLabel, drive.szDriveName) == 0, "a drive's label");
    require(drive.driveType.ulDriveType == typeOf(entry), "a drive's type");
    require(strcmp(drive.driveType.szDriveTypeName, KemSdDriveTypeAsString(typeOf(entry))) == 0, "its text");
    require(drive.szFileSystemType == (entry.type.empty() ? "Unknown" : entry.type.substr(0, kLongestType)),
            "a drive's file system");
    struct statfs figures = {};
    if (!figuresOf(entry.directory, figures)) figures = {};
    const auto blockBytes = static_cast<uint64_t>(figures.f_bsize);
    require(drive.ulTotal == kiB(figures.f_blocks, blockBytes), "a drive's size");
    require(drive.ulUsed == drive.ulTotal - kiB(figures.f_bfree, blockBytes), "what is used");
    require(drive.ulFree == kiB(figures.f_bavail, blockBytes), "what is free");
}

void checkDrives(const KEM_DRIVES_T& drives, const std::vector<Entry>& entries, const std::string& here)
{
    KEM_ULONG_T current = 1;
    for (size_t i = 0; i < entries.size(); ++i)
        if (here.rfind(entries[i].directory, 0) == 0) current = static_cast<KEM_ULONG_T>(i + 1);
    require(drives.ulDriveCnt == entries.size(), "the number of drives");
    require(drives.ulDriveCur == current, "the current drive");
    require(drives.bt32DriveMap == (UINT64_C(1) << entries.size()) - 1, "the drives' map");
}

// The calls' answers must agree with each other for every input, and with the model for those that it covers.
void check(const System& system, bool isModelled)
{
    size_t bytes = 0;
    require(KemSdOSResourcesSizeGet(nullptr, &bytes) == 0, "the record's size");
    const std::unique_ptr<KEM_OSRESOURCES_T, void (*)(void*)> record(static_cast<KEM_OSRESOURCES_T*>(malloc(bytes)),
                                                                     free);
    require(KemSdOSResourcesGet(nullptr, bytes, record.get()) == 0, "a record of that size");
    const KEM_ULONG_T count = record->drives.ulDriveCnt;
    require(count <= KEM_DRIVES_MAX, "no more than 32 drives");
    char name[16];
    for (KEM_ULONG_T i = 0; i < count; ++i) {
        require(KemSdDriveOrdinalToName(nullptr, i + 1, sizeof name, name) == 0, "a name for each drive");
        require(strncmp(name, record->driveInfoArr[i].szDriveName, sizeof name - 1) == 0, "the same name");
    }
    if (count < KEM_DRIVES_MAX)
        require(KemSdDriveOrdinalToName(nullptr, count + 1, sizeof name, name) == SDSTS_OSR_DRIVE_NAME, "no further");
    if (!isModelled) return;
    const std::vector<Entry> entries = entriesOf(system.table);
    checkDrives(record->drives, entries, system.here);
    for (KEM_ULONG_T i = 0; i < count; ++i) checkDrive(record->driveInfoArr[i], i + 1, entries[i]);
}

// NUL bytes end a line for some of the C library's readers; overlong lines are left out too.
bool hasPlainLines(const std::string& text)
{
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        if (end - begin > kLongestLine) return false;
        begin = end + 1;
    }
    return text.find('\0') == text.npos;
}

} // namespace

extern "C" {

char* __real_getcwd(char* path, size_t size);
int __real_statfs(const char* path, struct statfs* figures);

FILE* __wrap_setmntent(const char* path, const char*)
{
    require(present && strcmp(path, "/etc/fstab") == 0, "the table's path");
    return present->table.empty() ? fopen("/dev/null", "r")
                                  : fmemopen(present->table.data(), present->table.size(), "r");
}

char* __wrap_getcwd(char* path, size_t size)
{
    if (!present) return __real_getcwd(path, size);
    require(size > present->here.size(), "room for a directory");
    return strcpy(path, present->here.c_str());
}

int __wrap_statfs(const char* path, struct statfs* figures)
{
    if (!present) return __real_statfs(path, figures);
    if (figuresOf(path, *figures)) return 0;
    errno = EACCES;
    return -1;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    const size_t newline = std::min(text.find('\n'), text.size());
    System system{text.substr(0, newline).c_str(), text.substr(std::min(newline + 1, text.size()))};
    system.here.resize(std::min(system.here.size(), kLongestDirectory));
    present = &system;
    check(system, hasPlainLines(system.table));
    present = nullptr;
    return 0;
}
}
