#include "wire/serverdir.h"

#include <cinttypes>
#include <cstdio>
#include <filesystem>

#include "text.h"

namespace sqlhost {

ServerDirectory::ServerDirectory(const std::string& named)
{
    std::error_code failed;
    path = std::filesystem::weakly_canonical(std::filesystem::absolute(named, failed), failed).string();
    if (failed || named.empty()) throw Failure("no such directory: " + named);
    database = path + "/database.db";
    serverLock = path + "/server.lock";
    clientsLock = path + "/clients.lock";
    connectLock = path + "/connect.lock";
    connect = path + "/connect";
}

std::string ServerDirectory::exchange(unsigned segment) const { return path + text("/exchange.%u", segment); }

std::string ServerDirectory::dossier(KEM_PROCID_T pid) const { return path + text("/crash-%d.txt", pid); }

std::string ServerDirectory::spool(unsigned segment, unsigned slot) const
{
    return path + text("/rows.%u.%u", segment, slot);
}

std::string ServerIdentity::note() const { return text("%10d %11d %20" PRIu64 "\n", pid, key, stamp); }

std::optional<ServerIdentity> ServerIdentity::fromNote(std::string_view note)
{
    ServerIdentity identity;
    const std::string line(note);
    char end = 0;
    const int read = sscanf(line.c_str(), "%d %d %" SCNu64 "%c", &identity.pid, &identity.key, &identity.stamp, &end);
    if (read != 4 || end != '\n' || identity.pid <= 0) return std::nullopt;
    return identity;
}

} // namespace sqlhost
