#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include "client/runtime.h"
#include "commands.h"
#include "machineinfo.h"
#include "table.h"
#include "text.h"

namespace sqlhost {
namespace {

using Json = nlohmann::ordered_json;
using Kind = Table::Kind;

constexpr KEM_ULONG_T kAllBits = 0xFFFFFFFF; // of a size: 4 TiB or more; of a limit: none

std::string timeText(const KEM_TIMERECORD_T& time)
{
    constexpr int kFirstYear = 1900;
    return text("%04d-%02d-%02dT%02d:%02d:%02d", time.Year + kFirstYear, time.Month + 1, time.Day, time.Hours,
                time.Minutes, time.Seconds);
}

std::string causeOf(const Unknown& unknown)
{
    return text("status %d, %s", unknown.status, unknown.error ? strerror(unknown.error) : "no error number");
}

// ---- For people

std::string sizeText(KEM_ULONG_T kiB) { return kiB == kAllBits ? "4 TiB or more" : bytesText(uint64_t{kiB} << 10); }

std::string limitText(KEM_ULONG_T limit) { return limit == kAllBits ? "none" : countText(limit); }

Table::Cell number(const std::string& text) { return {text, Kind::number}; }

void printMachine(const MachineInfo& info)
{
    Table table({"Machine", "value"});
    if (info.system) table.add({{"system"}, {text("%s %s", info.system->szOSName, info.system->szVersion)}});
    table.add({{"processors"}, {text("%u, %s", info.processors.ulCPUCnt, info.processors.szCPUTypeName)}});
    if (info.pageBytes) table.add({{"page"}, {bytesText(*info.pageBytes)}});
    if (info.time) table.add({{"local time"}, {timeText(*info.time)}});
    table.print();
}

void printMemory(const MachineInfo& info)
{
    Table table({"Memory", "size", "used", "free"});
    const auto add = [&](const char* what, const auto& memory) {
        table.add({{what},
                   number(sizeText(memory.ulTotal)),
                   number(sizeText(memory.ulUsed)),
                   number(sizeText(memory.ulFree))});
    };
    add("physical", info.memory);
    if (info.swap) add("swap", *info.swap);
    printf("\n");
    table.print();
}

void printDrives(const MachineInfo& info)
{
    if (!info.drives || info.drives->empty()) return;
    Table table({"Drive", "directory", "file system", "type", "size", "used", "free", "current"});
    for (const KEM_DRIVEINFO_T& drive : *info.drives)
        table.add({number(countText(drive.ulOrdinal)),
                   {drive.szDriveName},
                   {drive.szFileSystemType},
                   {drive.driveType.szDriveTypeName},
                   number(sizeText(drive.ulTotal)),
                   number(sizeText(drive.ulUsed)),
                   number(sizeText(drive.ulFree)),
                   {drive.ulOrdinal == info.currentDrive ? "yes" : ""}});
    printf("\n");
    table.print();
}

void printProcess(const MachineInfo& info)
{
    Table memory({"This process", "now", "highest"});
    const auto add = [&](const char* what, const std::string& now, const std::string& highest) {
        memory.add({{what}, number(now), number(highest)});
    };
    add("address space", sizeText(info.process.vmSize), sizeText(info.process.vmPeak));
    add("resident", "", sizeText(info.process.vmHWM));
    add("data", sizeText(info.process.vmData), "");
    add("stack", sizeText(info.process.vmStk), "");
    add("program", sizeText(info.process.vmExe), "");
    add("libraries", sizeText(info.process.vmLib), "");
    printf("\n");
    memory.print();

    Table limits({"Limits", "soft", "hard"});
    for (const Limit& limit : info.limits)
        limits.add({{limit.what}, number(limitText(limit.soft)), number(limitText(limit.hard))});
    if (info.dataBytes) {
        const std::string soft = *info.dataBytes == UINT64_MAX ? "none" : countText(*info.dataBytes);
        limits.add({{"data bytes"}, number(soft), number("")});
    }
    printf("\n");
    limits.print();
}

void printUnknown(const MachineInfo& info)
{
    for (const Unknown& each : info.unknown) printf("\nNot known: %s (%s)\n", each.what, causeOf(each).c_str());
    if (info.drives && info.drives->empty()) printf("\nNo drives: /etc/fstab has no entries.\n");
}

// ---- For programs

Json jsonSize(KEM_ULONG_T kiB) { return kiB == kAllBits ? Json() : Json(kiB); }

template <class Memory>
Json jsonMemory(const Memory& memory)
{
    return {{"totalKiB", jsonSize(memory.ulTotal)},
            {"usedKiB", jsonSize(memory.ulUsed)},
            {"freeKiB", jsonSize(memory.ulFree)}};
}

Json jsonDrives(const MachineInfo& info)
{
    if (!info.drives) return {};
    Json drives = Json::array();
    for (const KEM_DRIVEINFO_T& drive : *info.drives) {
        Json entry = {{"ordinal", drive.ulOrdinal},
                      {"directory", drive.szDriveName},
                      {"fileSystem", drive.szFileSystemType},
                      {"type", drive.driveType.szDriveTypeName},
                      {"current", drive.ulOrdinal == info.currentDrive}};
        entry.update(jsonMemory(drive));
        drives.push_back(entry);
    }
    return drives;
}

Json jsonProcess(const MachineInfo& info)
{
    const KemProcSysInfo& memory = info.process;
    Json limits = Json::object();
    for (const Limit& limit : info.limits)
        limits[limit.what] = {{"soft", jsonSize(limit.soft)}, {"hard", jsonSize(limit.hard)}};
    if (info.dataBytes)
        limits["data bytes"] = {{"soft", *info.dataBytes == UINT64_MAX ? Json() : Json(*info.dataBytes)}};
    return {{"addressSpaceKiB", memory.vmSize},   {"highestAddressSpaceKiB", memory.vmPeak},
            {"highestResidentKiB", memory.vmHWM}, {"dataKiB", memory.vmData},
            {"stackKiB", memory.vmStk},           {"programKiB", memory.vmExe},
            {"librariesKiB", memory.vmLib},       {"limits", limits}};
}

Json jsonOf(const MachineInfo& info)
{
    Json json;
    json["system"] = info.system ? Json{{"name", info.system->szOSName}, {"release", info.system->szVersion}} : Json();
    json["localTime"] = info.time ? Json(timeText(*info.time)) : Json();
    json["processors"] = {{"count", info.processors.ulCPUCnt}, {"type", info.processors.szCPUTypeName}};
    json["pageBytes"] = info.pageBytes ? Json(*info.pageBytes) : Json();
    json["memory"] = jsonMemory(info.memory);
    json["swap"] = info.swap ? jsonMemory(*info.swap) : Json();
    json["drives"] = jsonDrives(info);
    json["process"] = jsonProcess(info);
    json["unknown"] = Json::array();
    for (const Unknown& each : info.unknown)
        json["unknown"].push_back({{"what", each.what}, {"status", each.status}, {"error", each.error}});
    return json;
}

} // namespace

void showInfo(bool asJson)
{
    ClientRuntime runtime;
    const MachineInfo info = askMachine(runtime.context());
    if (asJson) {
        // Names of directories may be any bytes.
        printf("%s\n", jsonOf(info).dump(2, ' ', false, Json::error_handler_t::replace).c_str());
        return;
    }
    printMachine(info);
    printMemory(info);
    printDrives(info);
    printProcess(info);
    printUnknown(info);
}

} // namespace sqlhost
