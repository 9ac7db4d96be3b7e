// Clients and servers that are killed: the other end notices, and nothing of theirs stays in the way.

#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include "serverfixture.h"

namespace kemsd::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

constexpr char kEndless[] = "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n) SELECT ";

class SqlServerDeath : public SqlServer {
protected:
    // Only the one that asks for the status is left.
    bool slotsAreFree() const
    {
        return eventually([this] { return clients().size() == 1; });
    }
    std::string gone(pid_t server) const
    {
        return "standard input, line 1: the server with process id " + std::to_string(server) +
               " ended before it had answered: what it did of this is not known";
    }
};

// ---- Clients -----------------------------------------------------------------------------------------------------

TEST_F(SqlServerDeath, IdleClientThatIsKilledFreesItsSlot)
{
    serve();
    auto idle = client();
    idle->signal(SIGKILL);
    EXPECT_TRUE(slotsAreFree());
    EXPECT_EQ("1", status("segments"));
}

TEST_F(SqlServerDeath, ClientKilledWhileItsStatementRunsFreesItsSlotAndEndsTheStatement)
{
    serve();
    sql({"CREATE TABLE t(x)"});
    auto busy = client();
    busy->say("INSERT INTO t " + std::string(kEndless) + "i FROM n;");
    EXPECT_TRUE(eventually([this] { return status("write leases out") == "1"; }));
    busy->signal(SIGKILL);
    EXPECT_TRUE(slotsAreFree());
    EXPECT_EQ("0", status("write leases out"));
    sql({"INSERT INTO t VALUES(1)"});
    EXPECT_EQ("1", value("SELECT count(*) FROM t"));
}

// Its output is not read, so it stops taking the answer, and the server waits for room in the slot.
TEST_F(SqlServerDeath, ClientKilledInTheMiddleOfItsAnswerFreesItsSlot)
{
    serve();
    auto slow = client();
    slow->say(std::string(kEndless) + "i, printf('%.*c', 1000, 'x') FROM n;");
    EXPECT_TRUE(eventually([this] { return clients()[0].find("statement") != std::string::npos; }));
    slow->signal(SIGSTOP);
    EXPECT_EQ("1", value("SELECT 1"));
    slow->signal(SIGKILL);
    EXPECT_TRUE(slotsAreFree());
}

TEST_F(SqlServerDeath, SlotOfAKilledClientServesTheNextFromItsBeginning)
{
    serve();
    for (int i = 0; i < 6; ++i) {
        auto busy = client();
        busy->say(std::string(kEndless) + "i FROM n;");
        EXPECT_EQ("i", busy->line());
        busy->signal(SIGKILL);
        EXPECT_TRUE(slotsAreFree());
    }
    EXPECT_EQ("1", status("segments"));
    EXPECT_EQ("x\n1\n", sql({"SELECT 1 AS x"}));
}

// ---- Servers -----------------------------------------------------------------------------------------------------

TEST_F(SqlServerDeath, KilledServerIsNoticedByTheClientThatWaitsForIt)
{
    serve();
    auto busy = client(), idle = client();
    busy->say(std::string(kEndless) + "count(*) FROM n;");
    EXPECT_TRUE(eventually([this] { return clients()[0].find("statement") != std::string::npos; }));
    const pid_t pid = server().pid();
    killServer();
    EXPECT_THAT(busy->wait(), FailsSaying(gone(pid)));
    idle->say("SELECT 1;");
    EXPECT_THAT(idle->wait(), FailsSaying("standard input, line 1: no server serves " + directory()));
}

TEST_F(SqlServerDeath, RestartedServerTakesTheClientsNextRequest)
{
    serve();
    sql({"CREATE TABLE t(x); INSERT INTO t VALUES(1)"});
    auto one = client(), two = client();
    killServer();
    serve();
    one->say("INSERT INTO t VALUES(2); SELECT sum(x) AS s FROM t;");
    EXPECT_EQ("s", one->line());
    EXPECT_EQ("3", one->line());
    stopServer();
    serve();
    for (auto* each : {&one, &two}) {
        (*each)->say("SELECT count(*) AS c FROM t;");
        EXPECT_EQ("c", (*each)->line());
        EXPECT_EQ("2", (*each)->line());
    }
    EXPECT_THAT(clients(), SizeIs(3));
}

TEST_F(SqlServerDeath, KilledServerLeavesNothingThatTheNextDoesNotClear)
{
    serve();
    std::vector<std::unique_ptr<Background>> all;
    for (int i = 0; i < 6; ++i) all.push_back(client());
    const Objects left = objects();
    killServer();
    EXPECT_EQ(4, standing(left));
    serve();
    EXPECT_EQ(0, standing(left));
    const Objects made = objects();
    EXPECT_EQ(2, standing(made));
    EXPECT_EQ("1", status("segments"));
    all.clear();
    stopServer();
    EXPECT_EQ(0, standing(made));
    EXPECT_THAT(names(), ElementsAre("clients.lock", "connect.lock", "database.db", "server.lock"));
}

TEST_F(SqlServerDeath, TransactionOfAKilledServerIsUndone)
{
    serve();
    sql({"CREATE TABLE t(x); INSERT INTO t VALUES(1)"});
    auto busy = client();
    busy->say("BEGIN; UPDATE t SET x=2; INSERT INTO t " + std::string(kEndless) + "zeroblob(4000) FROM n; COMMIT;");
    const auto journal = [this] { return exists("served/database.db-journal"); };
    const auto grown = [this] { return std::filesystem::file_size(directory() + "/database.db") > 1'000'000; };
    EXPECT_TRUE(eventually(grown));
    killServer();
    EXPECT_TRUE(journal());
    serve();
    EXPECT_EQ("1", value("SELECT group_concat(x) FROM t"));
    EXPECT_EQ("ok", value("PRAGMA integrity_check"));
    stopServer();
    EXPECT_FALSE(journal());
}

// A key is made of a few bits of a file's place, so it may be another program's too.
TEST_F(SqlServerDeath, SegmentOfAnotherProgramWithTheSameKeyIsLeftAlone)
{
    serve();
    const Objects left = objects();
    killServer();
    ASSERT_EQ(0, shmctl(left.segments[0], IPC_RMID, nullptr));
    const int foreign = shmget(memoryKey(1), 4096, IPC_CREAT | IPC_EXCL | 0600);
    ASSERT_NE(-1, foreign);
    serve();
    EXPECT_EQ("1", value("SELECT 1"));
    stopServer();
    shmid_ds status;
    EXPECT_EQ(0, shmctl(foreign, IPC_STAT, &status));
    EXPECT_EQ(4096u, status.shm_segsz);
    shmctl(foreign, IPC_RMID, nullptr);
    EXPECT_EQ(1, standing(left)); // the set of the killed server: it might be the other program's
}

} // namespace
} // namespace kemsd::test
