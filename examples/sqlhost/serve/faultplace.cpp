#include "serve/faultplace.h"

#include <fcntl.h>
#include <kemsd/memory.h>
#include <ucontext.h>
#include <unistd.h>

namespace sqlhost {
namespace {

constexpr size_t kPieceBytes = 4096;
constexpr size_t kLongestLine = 512; // of the list of mappings; the rest of a longer one is left out

// The fields of a line "start-end flags offset device inode path", of which those before the path are numbers or words.
class Fields {
public:
    explicit Fields(std::string_view line) : rest_(line) {}

    uint64_t hex()
    {
        uint64_t value = 0;
        for (; !rest_.empty() && digit(rest_[0]) >= 0; rest_.remove_prefix(1))
            value = value << 4 | static_cast<uint64_t>(digit(rest_[0]));
        if (!rest_.empty()) rest_.remove_prefix(1); // what ends it
        return value;
    }
    void skip() { rest_.remove_prefix(rest_.find(' ') < rest_.size() ? rest_.find(' ') + 1 : rest_.size()); }
    std::string_view last() const
    {
        return rest_.substr(rest_.find('/') < rest_.size() ? rest_.find('/') : rest_.size());
    }

private:
    static int digit(char c) { return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1; }

    std::string_view rest_;
};

// Writes the place if the address lies in this mapping.
bool addIfIn(ReportText& report, std::string_view line, uint64_t address)
{
    Fields fields(line);
    const uint64_t begin = fields.hex(), end = fields.hex();
    if (address < begin || address >= end) return false;
    fields.skip(); // flags
    const uint64_t offset = fields.hex();
    const std::string_view file = fields.last();
    if (file.empty())
        report << "no file's";
    else
        report << file << " at " << ReportText::Hex{address - begin + offset};
    return true;
}

bool addFrom(ReportText& report, int maps, uint64_t address)
{
    char* const piece = static_cast<char*>(ovMemExtMalloc(kPieceBytes + kLongestLine, 2));
    char* const line = piece + kPieceBytes;
    size_t length = 0;
    for (ssize_t got; (got = read(maps, piece, kPieceBytes)) > 0;) {
        for (const char c : std::string_view(piece, static_cast<size_t>(got))) {
            if (c != '\n') {
                if (length < kLongestLine) line[length++] = c;
                continue;
            }
            if (addIfIn(report, {line, length}, address)) return true;
            length = 0;
        }
    }
    return false;
}

} // namespace

MachinePlace machinePlace(const void* machine)
{
    const auto& registers = static_cast<const ucontext_t*>(machine)->uc_mcontext.gregs;
    return {static_cast<uint64_t>(registers[REG_RIP]), static_cast<uint64_t>(registers[REG_RSP])};
}

void addPlace(ReportText& report, uint64_t address)
{
    const int maps = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    if (maps == -1 || !addFrom(report, maps, address)) report << "no file's";
    if (maps != -1) close(maps);
}

} // namespace sqlhost
