// The server and its clients: what it answers, who else is there, and how it ends.

#include <signal.h>

#include <fstream>

#include "serverfixture.h"

namespace kemsd::test {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::SizeIs;
using testing::StartsWith;

// ---- Answers -----------------------------------------------------------------------------------------------------

constexpr char kTable[] =
    "CREATE TABLE t(a INTEGER, b REAL, c TEXT, d BLOB);"
    "INSERT INTO t VALUES(1, 1.5, 'one, \"two\"', x'00ff'), (-9000000000, 0.1, '', x''), (NULL, NULL, NULL, NULL),"
    "(3, 1e300, 'NULL', x'41');";

TEST_F(SqlServer, AnswersAsTheDatabaseFileItselfDoes)
{
    serve();
    sql({kTable});
    const std::string query = "SELECT *, typeof(b), a+b AS \"\" FROM t ORDER BY a";
    const std::string csv = sql({query}), table = hostOk({"sql", directory(), query});
    stopServer();
    EXPECT_EQ(csv, hostOk({"run", "--csv", directory() + "/database.db"}, query));
    EXPECT_EQ(table, hostOk({"run", directory() + "/database.db"}, query));
    EXPECT_THAT(table, EndsWith("(4 rows)\n"));
    EXPECT_EQ("ok", PlainDatabase(directory() + "/database.db").value("PRAGMA integrity_check"));
}

TEST_F(SqlServer, ChangedRowsAreCounted)
{
    serve();
    EXPECT_EQ("(2 rows changed)\n(1 row changed)\n",
              hostOk({"sql", directory(), "CREATE TABLE t(x); INSERT INTO t VALUES(1),(2); DELETE FROM t WHERE x=1"}));
}

TEST_F(SqlServer, LongValuesAndManyRowsComeWhole)
{
    serve();
    PlainDatabase plain(":memory:");
    const std::string query =
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<20000) "
        "SELECT i, printf('%.*c', i % 97, 'x') AS x, hex(zeroblob(CASE i WHEN 7 THEN 1500000 ELSE 0 END)) AS y FROM n";
    EXPECT_EQ(plain.csv(query), sql({query}));
}

// Around the size of a message, which is 2,040 bytes with the frame's head.
TEST_F(SqlServer, StatementsOfEveryLengthNearThatOfAMessageAreUnderstood)
{
    serve();
    for (const size_t length : {2033u, 2034u, 2035u, 2036u, 2037u, 4074u, 4075u, 4076u, 6115u, 1048576u}) {
        std::string statement = "SELECT 7 AS x --";
        statement.resize(length, '.');
        const Ended ended = trySql({}, statement);
        EXPECT_EQ("x\n7\n", ended.out) << length << ended.err;
    }
}

TEST_F(SqlServer, StatementsOfStandardInputAreAnsweredOneByOne)
{
    serve();
    auto one = client();
    one->say("CREATE TABLE t(x); INSERT INTO t VALUES(1); SELECT x FROM t; -- and now\nSELECT");
    EXPECT_EQ("x", one->line());
    EXPECT_EQ("1", one->line());
    one->say(" x+1 AS y FROM t");
    one->endInput();
    const Ended ended = one->wait();
    EXPECT_EQ(0, ended.status) << ended.err;
    EXPECT_EQ("y\n2\n", ended.out);
}

// ---- Errors ------------------------------------------------------------------------------------------------------

TEST_F(SqlServer, FailingStatementIsNamedAndEndsTheRest)
{
    serve();
    EXPECT_THAT(trySql({"SELECT 1; SELECT x FRM t"}), FailsSaying("near \"t\": syntax error"));
    EXPECT_THAT(trySql({"SELECT 1", "SELECT * FROM nowhere"}),
                FailsSaying("statement 2, line 1: no such table: nowhere"));
    EXPECT_THAT(trySql({}, "CREATE TABLE t(x);\n\nSELECT x\nFROM t,\nnowhere;\nDROP TABLE t;"),
                FailsSaying("standard input, line 3: no such table: nowhere"));
    EXPECT_EQ("0", value("SELECT count(*) FROM t"));
}

TEST_F(SqlServer, BeginToCommitIsOneRequest)
{
    serve();
    sql({"CREATE TABLE t(x)"});
    const Ended ended = trySql({},
                               "/* one */ BEGIN; INSERT INTO t VALUES(1); SAVEPOINT s; INSERT INTO t VALUES(2);\n"
                               "ROLLBACK TO s; -- COMMIT;\nCOMMIT; begin; DELETE FROM t; ROLLBACK;");
    EXPECT_EQ("", ended.err);
    EXPECT_EQ("1", value("SELECT group_concat(x) FROM t"));
}

TEST_F(SqlServer, TransactionThatIsLeftOpenIsUndoneAndSaid)
{
    serve();
    sql({"CREATE TABLE t(x)"});
    EXPECT_THAT(trySql({"BEGIN; INSERT INTO t VALUES(1)"}),
                FailsSaying("the request ended inside a transaction, which was undone"));
    EXPECT_THAT(trySql({"SAVEPOINT s; INSERT INTO t VALUES(1)"}),
                FailsSaying("the request ended inside a transaction, which was undone"));
    EXPECT_THAT(trySql({"BEGIN; INSERT INTO t VALUES(1); INSERT INTO nowhere VALUES(2); COMMIT"}),
                FailsSaying("no such table: nowhere"));
    EXPECT_EQ("0", value("SELECT count(*) FROM t"));
}

TEST_F(SqlServer, SettingsThatOutliveARequestAndOtherFilesAreRefused)
{
    serve();
    PlainDatabase(path("other.db")).run("CREATE TABLE t(x)");
    for (const std::string statement :
         {"PRAGMA locking_mode=EXCLUSIVE", "PRAGMA journal_mode=OFF", "PRAGMA busy_timeout=0"})
        EXPECT_THAT(trySql({statement}), FailsSaying("not authorized")) << statement;
    EXPECT_THAT(trySql({"ATTACH '" + path("other.db") + "' AS o"}), FailsSaying("not authorized"));
    EXPECT_THAT(trySql({"ATTACH ('" + path("other") + "' || '.db') AS o"}), FailsSaying("not authorized"));
    EXPECT_EQ("journal_mode\ndelete\n", sql({"PRAGMA journal_mode", "VACUUM"}));
}

TEST_F(SqlServer, DatabaseThatIsNoneEndsTheServer)
{
    write("served/database.db", std::string(4096, 'x'));
    EXPECT_THAT(host({"serve", directory()}), FailsSaying(directory() + "/database.db: file is not a database"));
    EXPECT_THAT(names(), ElementsAre("clients.lock", "database.db+", "server.lock"));
}

TEST_F(SqlServer, MemoryLimitFailsTheStatementAndNotTheServer)
{
    serve({"--config", small()});
    expectComplaints();
    EXPECT_THAT(trySql({"SELECT length(hex(zeroblob(10000000)))"}), FailsSaying("out of memory"));
    EXPECT_EQ("2000000", value("SELECT length(hex(zeroblob(1000000)))"));
}

TEST_F(SqlServer, RowsThatAreTooLongAreAnError)
{
    serve();
    EXPECT_THAT(trySql({"SELECT zeroblob(67108865)"}), FailsSaying("string or blob too big"));
    std::string columns = "x";
    for (int i = 0; i < 13; ++i) columns += ",x";
    EXPECT_THAT(trySql({"SELECT " + columns + " FROM (SELECT zeroblob(10000000) AS x)"}),
                FailsSaying("a row may have at most 128 MiB"));
    EXPECT_EQ("1", value("SELECT 1"));
}

// ---- Several clients ---------------------------------------------------------------------------------------------

TEST_F(SqlServer, SixthClientOpensASecondSegment)
{
    serve();
    std::vector<std::unique_ptr<Background>> all;
    for (int i = 0; i < 7; ++i) all.push_back(client());
    const std::vector<std::string> lines = clients(); // first: who asks again may find the slot of the last asker taken
    ASSERT_THAT(lines, SizeIs(8));                    // with the one that asks
    EXPECT_EQ("2", status("segments"));
    for (int i = 0; i < 7; ++i)
        EXPECT_EQ(lines[i], std::to_string(i / 5 + 1) + "," + std::to_string(i % 5) + "," +
                                std::to_string(all[i]->pid()) + ",idle,1");
    EXPECT_THAT(lines[7], MatchesRegex("2,2,[0-9]+,status,1"));
    for (int i = 0; i < 7; ++i) {
        all[i]->say("SELECT " + std::to_string(i) + " AS y;");
        EXPECT_EQ("y", all[i]->line());
        EXPECT_EQ(std::to_string(i), all[i]->line());
    }
    const Objects both = objects();
    EXPECT_EQ(4, standing(both));
    stopServer();
    EXPECT_EQ(0, standing(both));
}

TEST_F(SqlServer, ChangesOfManyClientsAreAllThere)
{
    constexpr int kClients = 8, kChanges = 10;
    serve();
    sql({"CREATE TABLE t(n); INSERT INTO t VALUES(0); CREATE TABLE log(who, n)"});
    std::vector<std::unique_ptr<Background>> all;
    for (int i = 0; i < kClients; ++i) all.push_back(client());
    for (auto& one : all) {
        for (int i = 0; i < kChanges; ++i)
            one->say("UPDATE t SET n=n+1; BEGIN; INSERT INTO log SELECT " + std::to_string(one->pid()) +
                     ", n FROM t; UPDATE t SET n=n+1; COMMIT; SELECT count(*) FROM log, t;\n");
        one->endInput();
    }
    for (auto& one : all) {
        const Ended ended = one->wait();
        EXPECT_EQ(0, ended.status) << ended.err;
    }
    EXPECT_EQ(std::to_string(2 * kClients * kChanges), value("SELECT n FROM t"));
    EXPECT_EQ(std::to_string(kClients * kChanges), value("SELECT count(DISTINCT n) FROM log"));
    EXPECT_EQ("ok", value("PRAGMA integrity_check"));
    EXPECT_EQ("0", status("write leases out"));
}

TEST_F(SqlServer, SlotOfAClientThatLeavesServesTheNext)
{
    serve();
    for (int i = 0; i < 12; ++i) sql({"SELECT 1"});
    EXPECT_EQ("1", status("segments"));
}

TEST_F(SqlServer, AnotherProgramMayShareTheDatabase)
{
    serve();
    sql({"CREATE TABLE t(x)"});
    PlainDatabase plain(directory() + "/database.db");
    plain.run("BEGIN IMMEDIATE; INSERT INTO t VALUES(1)");
    EXPECT_EQ("0", value("SELECT count(*) FROM t"));
    auto waiting = client();
    waiting->say("INSERT INTO t VALUES(2); SELECT sum(x) AS s FROM t;");
    plain.run("COMMIT");
    EXPECT_EQ("s", waiting->line());
    EXPECT_EQ("3", waiting->line());
}

// ---- Status ------------------------------------------------------------------------------------------------------

TEST_F(SqlServer, StatusNamesTheServerItsLocksAndItsMemory)
{
    serve();
    EXPECT_EQ(std::to_string(server().pid()), status("process id"));
    EXPECT_THAT(status("running for"), MatchesRegex("0:0[0-9]:[0-9][0-9]"));
    EXPECT_EQ("1", status("segments"));
    EXPECT_EQ("100", status("clients at most"));
    EXPECT_EQ("by exchange", status("spinlocks"));
    EXPECT_THAT(status("spin rounds before a yield"), MatchesRegex("[0-9]+"));
    EXPECT_EQ("going on", status("writes"));
    EXPECT_EQ("0", status("write leases out"));
    EXPECT_THAT(status("memory in use"), MatchesRegex("1[0-9](\\.[0-9])? MiB"));
    EXPECT_EQ("256 MiB", status("memory limit"));
    const std::string table = hostOk({"status", directory()});
    EXPECT_THAT(table, StartsWith("server "));
    EXPECT_THAT(table, HasSubstr("\n\nsegment  slot  client  state   requests\n"));
}

TEST_F(SqlServer, StatusShowsWhoIsWorking)
{
    serve();
    auto busy = client();
    busy->say("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n) SELECT count(*) FROM n;");
    const std::string line = "1,0," + std::to_string(busy->pid()) + ",statement,2";
    EXPECT_TRUE(eventually([&] { return clients()[0] == line; })) << clients()[0];
}

// ---- The end -----------------------------------------------------------------------------------------------------

TEST_F(SqlServer, StopEndsTheServerAndLeavesTheDatabaseAlone)
{
    serve();
    sql({"CREATE TABLE t(x); INSERT INTO t VALUES(1)"});
    const Objects made = objects();
    EXPECT_EQ(2, standing(made));
    EXPECT_THAT(names(), ElementsAre("clients.lock", "connect.lock", "connect_1", "connect_2", "database.db+",
                                     "exchange.1", "server.lock+"));
    stopServer();
    EXPECT_EQ(0, standing(made));
    EXPECT_THAT(names(), ElementsAre("clients.lock", "connect.lock", "database.db+", "server.lock"));
    EXPECT_EQ("1", PlainDatabase(directory() + "/database.db").value("SELECT x FROM t"));
}

TEST_F(SqlServer, SignalsEndItInTheMidstOfAStatementAsOrderly)
{
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        serve();
        auto busy = client(), idle = client();
        busy->say("CREATE TABLE t AS WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n) SELECT i FROM n;");
        EXPECT_TRUE(eventually([&] { return clients()[0].find("statement") != std::string::npos; }));
        const Objects made = objects();
        const std::string pid = std::to_string(server().pid());
        server().signal(number);
        const Ended ended = server().wait();
        EXPECT_EQ(0, ended.status) << ended.err;
        EXPECT_EQ("", ended.err);
        EXPECT_EQ(0, standing(made));
        EXPECT_THAT(names(), ElementsAre("clients.lock", "connect.lock", "database.db", "server.lock"));
        EXPECT_THAT(busy->wait(), FailsSaying("standard input, line 1: the server with process id " + pid +
                                              " ended before it had answered: what it did of this is not known"));
    }
}

TEST_F(SqlServer, SecondServerIsRefusedWithTheFirstOnesProcessIdAndName)
{
    serve();
    EXPECT_THAT(host({"serve", directory()}),
                FailsSaying(directory() + " is served by process " + std::to_string(server().pid()) + " (sqlhost)"));
    EXPECT_EQ("1", value("SELECT 1"));
    stopServer();
    serve();
    EXPECT_EQ("1", value("SELECT 1"));
}

TEST_F(SqlServer, ClientsOfNoServerSaySoAndMakeNothing)
{
    const std::string nobody = "no server serves " + directory();
    EXPECT_THAT(trySql({"SELECT 1"}), FailsSaying(nobody));
    EXPECT_THAT(host({"status", directory()}), FailsSaying(nobody));
    EXPECT_THAT(host({"stop", directory()}), FailsSaying(nobody));
    EXPECT_FALSE(exists("served"));
    serve();
    stopServer();
    EXPECT_THAT(trySql({"SELECT 1"}), FailsSaying(nobody));
    EXPECT_THAT(host({"stop", directory()}), FailsSaying(nobody));
    EXPECT_THAT(names(), ElementsAre("clients.lock", "connect.lock", "database.db", "server.lock"));
}

TEST_F(SqlServer, NameThatIsNoNamedPipeEndsTheServerAndStays)
{
    write("served/connect_1", "mine");
    EXPECT_THAT(host({"serve", directory()}), FailsSaying(directory() + "/connect_1 is no named pipe"));
    EXPECT_TRUE(exists("served/connect_1"));
}

} // namespace
} // namespace kemsd::test
