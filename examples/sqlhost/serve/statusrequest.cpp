// What the server tells about itself: two results, the server's figures and its clients.
#include <algorithm>
#include <filesystem>

#include "serve/requests.h"
#include "serve/service.h"
#include "sqlvfs.h"

namespace sqlhost {
namespace {

// A result of texts and numbers, row by row.
class Rows {
public:
    Rows(Answer& answer, const std::vector<std::string>& columns) : answer_(answer) { answer_.columns(columns); }

    struct Field {
        Field(const std::string& text) : value(text), type(SQLITE_TEXT) {}
        Field(const char* text) : value(text), type(SQLITE_TEXT) {}
        Field(uint64_t number) : value(std::to_string(number)), type(SQLITE_INTEGER) {}
        std::string value;
        int type;
    };
    void add(const std::vector<Field>& fields)
    {
        std::vector<Value> values;
        for (const Field& field : fields) values.push_back({field.type, field.value});
        answer_.row(values);
    }
    void end() { answer_.done(0); }

private:
    Answer& answer_;
};

std::string durationText(int64_t seconds)
{
    return text("%d:%02d:%02d", static_cast<int>(seconds / 3600), static_cast<int>(seconds / 60 % 60),
                static_cast<int>(seconds % 60));
}

std::string timeSince(KEM_PSDCTX_T context, uint64_t stampMicroseconds)
{
    KEM_TIME_T now = 0;
    KemSdTime(context, &now);
    const int64_t seconds = std::max<int64_t>(0, now - static_cast<int64_t>(stampMicroseconds / 1000000));
    return durationText(seconds);
}

void addLocks(Rows& rows)
{
    const int64_t rounds = KEM_SDSYNC_BUSYSPIN_UPPERLIMIT;
    rows.add({"processors", uint64_t{KEM_SDSYNC_CPUCOUNT}});
    rows.add({"spinlocks", bSdHardwareAcceleration ? "by ticket" : "by exchange"});
    rows.add({"spin rounds before a yield", static_cast<uint64_t>(std::max<int64_t>(0, rounds))});
}

std::string pauseText(const WritePause::Shown& pause)
{
    return text("paused by client %lld for %s of at most %s", static_cast<long long>(pause.clientPid),
                durationText(pause.since.count()).c_str(), durationText(pause.limit.count()).c_str());
}

void addWrites(Rows& rows, Service& service)
{
    const OV_PAUSE_INTERFACE_T& pause = service.server().service().pauseinterface;
    const int64_t leases = __atomic_load_n(&pause.lBusyWriteIOCnt, __ATOMIC_RELAXED);
    const bool paused = __atomic_load_n(&pause.bPauseWriteIO, __ATOMIC_RELAXED);
    const auto shown = service.pause().shown();
    rows.add({"writes", shown ? pauseText(*shown) : paused ? "being paused" : "going on"});
    rows.add({"write leases out", static_cast<uint64_t>(std::max<int64_t>(0, leases))});
}

void addMemory(Rows& rows)
{
    OV_ULONGLONG_T outside, heaps, aligned, maxUsed, maxAligned, maxTotal, settings[7] = {};
    if (ovMemGetUsedMemory(&outside, &heaps, &aligned, &maxUsed, &maxAligned, &maxTotal) != 0) return;
    ovMemGetMemorySettings(settings);
    rows.add({"memory in use", bytesText(outside + heaps + aligned)});
    rows.add({"memory in use, highest", bytesText(maxTotal)});
    rows.add({"memory limit", settings[0] ? bytesText(settings[0]) : "none"});
}

// Reports of servers that a fatal signal has ended.
void addDossiers(Rows& rows, const ServerDirectory& directory)
{
    namespace fs = std::filesystem;
    uint64_t count = 0;
    fs::file_time_type newest;
    std::string last;
    std::error_code failed;
    for (fs::directory_iterator at(directory.path, failed); !failed && at != fs::directory_iterator();
         at.increment(failed)) {
        const std::string name = at->path().filename().string();
        if (!name.starts_with("crash-") || !name.ends_with(".txt")) continue;
        std::error_code gone;
        const fs::file_time_type when = at->last_write_time(gone);
        if (++count == 1 || when > newest) last = name;
        newest = std::max(newest, when);
    }
    if (count > 0) rows.add({"crash reports", text("%s, the last %s", countText(count).c_str(), last.c_str())});
}

// The list is complete before any of it is sent: sending may wait for the client, and the sessions' lock may not.
void addClients(Rows& rows, Sessions& sessions)
{
    std::vector<std::vector<Rows::Field>> list;
    sessions.each([&list](Session& session) {
        list.push_back({uint64_t{session.slot().segment}, static_cast<uint64_t>(session.slot().slot),
                        static_cast<uint64_t>(session.clientPid()), session.activity(), session.requests()});
    });
    for (const std::vector<Rows::Field>& row : list) rows.add(row);
}

} // namespace

void answerStatus(Desk& desk, std::string_view, Answer& answer)
{
    Service& service = desk.service;
    Rows server(answer, {"server", "value"});
    server.add({"directory", service.directory().path});
    server.add({"process id", static_cast<uint64_t>(service.identity().pid)});
    server.add({"running for", timeSince(threadContext(), service.identity().stamp)});
    server.add({"segments", uint64_t{service.segmentCount()}});
    server.add({"clients at most", uint64_t{Segments::kMostClients}});
    addLocks(server);
    addWrites(server, service);
    addMemory(server);
    addDossiers(server, service.directory());
    server.end();
    Rows clients(answer, {"segment", "slot", "client", "state", "requests"});
    addClients(clients, service.sessions());
    clients.end();
}

} // namespace sqlhost
