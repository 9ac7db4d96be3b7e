// Servers that a fatal signal ends: what they leave for people, and that nothing else is left.

#include <signal.h>
#include <sys/resource.h>

#include <fstream>
#include <iterator>

#include "serverfixture.h"

namespace kemsd::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

constexpr char kEndless[] = "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n) SELECT ";
constexpr char kEnd[] = "\nWritten in "; // the last line of a report

class SqlServerDossier : public SqlServer {
protected:
    // No core dumps of the servers that end here.
    SqlServerDossier()
    {
        rlimit limit;
        getrlimit(RLIMIT_CORE, &limit);
        limit.rlim_cur = 0;
        setrlimit(RLIMIT_CORE, &limit);
    }
    std::string name(pid_t pid) const { return "crash-" + std::to_string(pid) + ".txt"; }
    std::string report(pid_t pid) const
    {
        std::ifstream file(directory() + "/" + name(pid));
        return {std::istreambuf_iterator<char>(file), {}};
    }
    // The line of a report behind these words.
    static std::string line(const std::string& report, const std::string& words)
    {
        const size_t at = report.find("\n" + words + " ");
        if (at == std::string::npos) return "no line about " + words;
        const size_t value = report.find_first_not_of(' ', at + 1 + words.size());
        return report.substr(value, report.find('\n', value) - value);
    }
    std::string whereToLook(const std::string& signal, pid_t pid) const
    {
        return "sqlhost: " + signal + " ended the server; a report lies in " +
               std::filesystem::weakly_canonical(directory()).string() + "/" + name(pid) + "\n";
    }
    // Has a client's statement end the server, in one of the module's ways; the process id it had.
    pid_t crash(const std::string& how, const std::string& signal, int number)
    {
        serve({"--module", CRASHING});
        auto victim = client();
        const pid_t pid = server().pid();
        const Ended ended = endServer([&] { victim->say("SELECT crash('" + how + "');"); });
        EXPECT_EQ(number, ended.signal) << how;
        EXPECT_THAT(ended.err, HasSubstr(whereToLook(signal, pid))) << how;
        EXPECT_THAT(report(pid), HasSubstr(", of client " + std::to_string(victim->pid()) + "\n")) << how;
        EXPECT_EQ(1, victim->wait().status);
        return pid;
    }
};

// ---- A server at work --------------------------------------------------------------------------------------------

TEST_F(SqlServerDossier, KilledServerTellsWhatItWasDoing)
{
    serve();
    sql({"CREATE TABLE t(x); INSERT INTO t VALUES(1)"});
    auto writer = client(), reader = client(), idle = client();
    writer->say("INSERT INTO t " + std::string(kEndless) + "i FROM n;");
    reader->say(std::string(kEndless) + "count(*) FROM n;");
    EXPECT_TRUE(eventually([this] { return status("write leases out") == "1"; }));
    EXPECT_TRUE(eventually([this] { return clients()[1].find("statement") != std::string::npos; }));
    const pid_t pid = server().pid();
    const Ended ended = endServer([this] { server().signal(SIGSEGV); });
    EXPECT_EQ(SIGSEGV, ended.signal);
    EXPECT_THAT(ended.err, HasSubstr(whereToLook("SIGSEGV", pid)));
    const std::string told = report(pid);
    EXPECT_EQ("11, SIGSEGV", line(told, "signal"));
    EXPECT_EQ("process " + std::to_string(getpid()), line(told, "sent by"));
    EXPECT_THAT(line(told, "time"), MatchesRegex("20[0-9-]{8} [0-9:]{8}\\.[0-9]{3} UTC"));
    EXPECT_EQ(std::to_string(pid), line(told, "process"));
    EXPECT_THAT(line(told, "version"), HasSubstr(sqlite3_libversion()));
    EXPECT_EQ("262144 KiB", line(told, "limit"));
    EXPECT_THAT(line(told, "in use"), MatchesRegex("[1-9][0-9]+ KiB"));
    EXPECT_THAT(line(told, "heaps"), MatchesRegex("[0-9]+ made, 64 at most, 1024 KiB each, 4 for threads"));
    EXPECT_THAT(line(told, "to 160 bytes"), MatchesRegex("[1-9][0-9]* +[0-9]+"));
    EXPECT_EQ("1", line(told, "write leases out"));
    EXPECT_EQ("going on", line(told, "writing"));
    const auto row = [](const Background& client, const std::string& rest) {
        return HasSubstr(std::string(" ").append(std::to_string(client.pid())).append(rest));
    };
    EXPECT_THAT(told, AllOf(HasSubstr("none: the first thread"), HasSubstr("ended the server"), HasSubstr(kEnd)));
    EXPECT_THAT(told, AllOf(row(*writer, "  "), row(*reader, "  "), row(*idle, "  ")));
    EXPECT_THAT(told, HasSubstr("writes in a unit of work"));
    EXPECT_THAT(line(told, "lock 6, write pause"), MatchesRegex("[0-9]+ readers, no writer.*"));
    EXPECT_THAT(writer->wait().err, HasSubstr("ended before it had answered"));
    EXPECT_THAT(reader->wait().err, HasSubstr("ended before it had answered"));
    serve();
    EXPECT_EQ("1", value("SELECT group_concat(x) FROM t"));
    EXPECT_EQ("ok", value("PRAGMA integrity_check"));
    EXPECT_EQ("\"1, the last " + name(pid) + "\"", status("crash reports"));
    idle->say("SELECT sum(x) AS s FROM t;");
    EXPECT_EQ("s", idle->line());
}

TEST_F(SqlServerDossier, WithCoreTheServerEndsByAbort)
{
    serve({"--core"});
    sql({"CREATE TABLE t(x)"});
    const pid_t pid = server().pid();
    const Ended ended = endServer([this] { server().signal(SIGBUS); });
    EXPECT_EQ(SIGABRT, ended.signal);
    const std::string told = report(pid);
    EXPECT_EQ("7, SIGBUS", line(told, "signal"));
    EXPECT_EQ("the process ended by abort()", line(told, "afterwards"));
    EXPECT_EQ("0", line(told, "write leases out"));
}

TEST_F(SqlServerDossier, OrderlyEndsLeaveNone)
{
    serve();
    stopServer();
    serve();
    EXPECT_EQ("no line about crash reports", status("crash reports"));
    const Ended ended = endServer([this] { server().signal(SIGTERM); });
    EXPECT_EQ(0, ended.status) << ended.err;
    EXPECT_EQ("", ended.err);
    EXPECT_THAT(names(), ElementsAre("clients.lock", "connect.lock", "database.db", "server.lock"));
}

// ---- Faults of the server's own ----------------------------------------------------------------------------------

TEST_F(SqlServerDossier, FaultIsToldWithItsAddressAndPlace)
{
    const std::string told = report(crash("fault", "SIGSEGV", SIGSEGV));
    EXPECT_EQ("0x8", line(told, "fault address"));
    EXPECT_THAT(line(told, "instruction"), MatchesRegex("0x[0-9a-f]+, /.*crashingmodule.so at 0x[0-9a-f]+"));
    EXPECT_EQ("no line about likely cause", line(told, "likely cause"));
    EXPECT_THAT(told, HasSubstr(kEnd));
}

TEST_F(SqlServerDossier, FullStackIsReportedFromAnotherStack)
{
    const std::string told = report(crash("stack", "SIGSEGV", SIGSEGV));
    EXPECT_THAT(line(told, "likely cause"), HasSubstr("stack is full"));
    EXPECT_THAT(told, HasSubstr(kEnd));
}

TEST_F(SqlServerDossier, EveryFatalSignalIsTold)
{
    EXPECT_EQ("7, SIGBUS", line(report(crash("file", "SIGBUS", SIGBUS)), "signal"));
    EXPECT_EQ("4, SIGILL", line(report(crash("instruction", "SIGILL", SIGILL)), "signal"));
    EXPECT_EQ("8, SIGFPE", line(report(crash("division", "SIGFPE", SIGFPE)), "signal"));
    EXPECT_EQ("6, SIGABRT", line(report(crash("abort", "SIGABRT", SIGABRT)), "signal"));
    serve();
    EXPECT_THAT(status("crash reports"), MatchesRegex("\"4, the last crash-[0-9]+.txt\""));
}

// What was complete by then is in the file.
TEST_F(SqlServerDossier, FaultOfTheHandlerItselfEndsTheServerAtOnce)
{
    serve({"--module", CRASHING});
    const pid_t pid = server().pid();
    auto victim = client();
    const Ended ended = endServer([&] { victim->say("SELECT crash('again');"); });
    EXPECT_EQ(SIGSEGV, ended.signal);
    EXPECT_THAT(report(pid), AllOf(HasSubstr("\nThreads\n"), Not(HasSubstr(kEnd))));
}

TEST_F(SqlServerDossier, ThreadsThatFaultTogetherLeaveOneWholeReport)
{
    serve({"--module", CRASHING});
    const pid_t pid = server().pid();
    auto one = client(), two = client();
    const Ended ended = endServer([&] {
        one->say("SELECT crash('both');");
        two->say("SELECT crash('both');");
    });
    EXPECT_EQ(SIGSEGV, ended.signal);
    // Thread sanitizer has its say too: the handler looks at threads that go on.
    EXPECT_THAT(ended.err, HasSubstr(whereToLook("SIGSEGV", pid)));
    EXPECT_EQ(ended.err.find("ended the server"), ended.err.rfind("ended the server"));
    EXPECT_THAT(report(pid), HasSubstr(kEnd));
}

// ---- Placement ---------------------------------------------------------------------------------------------------

TEST_F(SqlServerDossier, PlacementOnOneNodeIsSaidOnceAndTheServerGoesOn)
{
    std::ifstream file("/sys/devices/system/node/online");
    std::string nodes;
    if (file >> nodes && nodes != "0") GTEST_SKIP() << "this machine has the nodes " << nodes;
    serve({"--numa"});
    EXPECT_EQ("by ticket", status("spinlocks"));
    std::vector<std::unique_ptr<Background>> all;
    for (int i = 0; i < 3; ++i) all.push_back(client());
    all.clear();
    const Ended ended = endServer([this] { server().signal(SIGTERM); });
    EXPECT_EQ(0, ended.status);
    EXPECT_EQ("sqlhost: --numa: there is one memory node, or none to be used: nothing to place\n", ended.err);
}

} // namespace
} // namespace kemsd::test
