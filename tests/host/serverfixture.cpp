#include "serverfixture.h"

#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <time.h>

#include <algorithm>
#include <sstream>

namespace kemsd::test {

namespace fs = std::filesystem;

SqlServer::~SqlServer()
{
    if (server_ && server_->stands()) {
        remember();
        server_->signal(SIGTERM);
        expectOrderlyEnd();
    }
    for (const int id : seen_.segments) shmctl(id, IPC_RMID, nullptr);
    for (const int id : seen_.sets) semctl(id, 0, IPC_RMID);
}

Background& SqlServer::serve(const std::vector<std::string>& options)
{
    std::vector<std::string> program = {SQLHOST, "serve", directory()};
    program.insert(program.end(), options.begin(), options.end());
    server_ = std::make_unique<Background>(program);
    EXPECT_EQ(
        "serving " + fs::weakly_canonical(directory()).string() + ", process id " + std::to_string(server_->pid()),
        server_->line());
    return *server_;
}

void SqlServer::remember()
{
    const Objects now = objects();
    seen_.segments.insert(seen_.segments.end(), now.segments.begin(), now.segments.end());
    seen_.sets.insert(seen_.sets.end(), now.sets.begin(), now.sets.end());
}

Ended SqlServer::endServer(const std::function<void()>& deed)
{
    remember();
    deed();
    return server_->wait();
}

void SqlServer::killServer()
{
    EXPECT_EQ(SIGKILL, endServer([this] { server_->signal(SIGKILL); }).signal);
}

void SqlServer::stopServer()
{
    hostOk({"stop", directory()});
    expectOrderlyEnd();
}

void SqlServer::expectOrderlyEnd()
{
    const Ended ended = server_->wait();
    EXPECT_EQ(0, ended.status) << ended.err;
    EXPECT_TRUE(complaints_ || ended.err.empty()) << ended.err;
}

Ended SqlServer::trySql(const std::vector<std::string>& statements, const std::string& input) const
{
    std::vector<std::string> arguments = {"sql", "--csv", directory()};
    arguments.insert(arguments.end(), statements.begin(), statements.end());
    return host(arguments, input);
}

std::string SqlServer::sql(const std::vector<std::string>& statements) const
{
    const Ended ended = trySql(statements);
    EXPECT_EQ(0, ended.status) << ended.err;
    EXPECT_EQ("", ended.err);
    return ended.out;
}

std::string SqlServer::value(const std::string& statement) const
{
    const std::string lines = sql({statement});
    const size_t begin = lines.find('\n') + 1;
    return lines.substr(begin, lines.size() - begin - 1);
}

std::unique_ptr<Background> SqlServer::client() const
{
    auto client = std::make_unique<Background>(std::vector<std::string>{SQLHOST, "sql", "--csv", directory()});
    client->say("SELECT 'here' AS x;");
    EXPECT_EQ("x", client->line());
    EXPECT_EQ("here", client->line());
    return client;
}

std::string SqlServer::status(const std::string& figure) const
{
    std::istringstream lines(hostOk({"status", "--csv", directory()}));
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with(figure + ",")) return line.substr(figure.size() + 1);
    return "no line about " + figure;
}

std::vector<std::string> SqlServer::clients() const
{
    std::istringstream lines(hostOk({"status", "--csv", directory()}));
    std::vector<std::string> clients;
    for (std::string line; std::getline(lines, line);)
        if (!line.empty() && isdigit(line[0])) clients.push_back(line);
    return clients;
}

bool SqlServer::eventually(const std::function<bool()>& condition)
{
    for (int i = 0; i < 1000; ++i) {
        if (condition()) return true;
        const timespec pause = {0, 20'000'000};
        nanosleep(&pause, nullptr);
    }
    return false;
}

int SqlServer::memoryKey(int segment) const
{
    return ftok((directory() + "/exchange." + std::to_string(segment)).c_str(), 'w');
}

int SqlServer::semaphoreKey(int segment) const
{
    return ftok((directory() + "/exchange." + std::to_string(segment)).c_str(), 'x');
}

SqlServer::Objects SqlServer::objects() const
{
    Objects objects;
    for (int i = 1; memoryKey(i) != -1; ++i) {
        objects.segments.push_back(shmget(memoryKey(i), 0, 0));
        objects.sets.push_back(semget(semaphoreKey(i), 0, 0));
    }
    return objects;
}

// A segment that waits for its last process to leave cannot be found by anybody any more.
int SqlServer::standing(const Objects& objects)
{
    const auto isSegment = [](int id) {
        shmid_ds status;
        return shmctl(id, IPC_STAT, &status) == 0 && !(status.shm_perm.mode & SHM_DEST);
    };
    const auto isSet = [](int id) { return semctl(id, 0, GETVAL) != -1; };
    return static_cast<int>(std::count_if(objects.segments.begin(), objects.segments.end(), isSegment) +
                            std::count_if(objects.sets.begin(), objects.sets.end(), isSet));
}

std::vector<std::string> SqlServer::names() const
{
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory()))
        names.push_back(entry.path().filename().string() +
                        (entry.is_regular_file() && entry.file_size() > 0 ? "+" : ""));
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace kemsd::test
