// Databases read through a mapping: the same answers, also while others cut and extend the file, and without one where
// none can be had.

#include <unistd.h>

#include "serverfixture.h"

namespace kemsd::test {
namespace {

class SqlMapped : public SqlServer {
protected:
    // KiB of the database that the server has touched through a mapping of it; -1: there is none.
    int touched()
    {
        std::ifstream mappings("/proc/" + std::to_string(server().pid()) + "/smaps");
        bool here = false;
        for (std::string line; std::getline(mappings, line);) {
            if (line.find("/served/database.db") != std::string::npos) here = true;
            if (here && line.starts_with("Rss:")) return std::stoi(line.substr(4));
        }
        return -1;
    }
    // A standing client's answer; it keeps its connection, and so its mapping.
    static std::string ask(Background& client, const std::string& query)
    {
        client.say(query + ";");
        client.line();
        return client.line();
    }
    // The whole table as one number, and whether the database is sound.
    static constexpr const char* kLook = "SELECT sum(x*7+length(y)) || (SELECT * FROM pragma_integrity_check) FROM t";
};

std::string rows(int count)
{
    return "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<" + std::to_string(count) +
           ") INSERT INTO t SELECT i, printf('%0*d', i%97, i) FROM n;";
}

// The file grows, is cut, and what is read in between was written by its descriptor.
TEST_F(SqlMapped, ReadsWhatOrdinaryOnesRead)
{
    const std::string sql =
        "PRAGMA cache_size=5; CREATE TABLE t(x,y);" + rows(5000) +
        "SELECT sum(x), max(y) FROM t; DELETE FROM t WHERE x%3; VACUUM; SELECT sum(x), max(y) FROM t;"
        "BEGIN; UPDATE t SET y=y||'more'; SELECT max(y) FROM t; ROLLBACK;" +
        rows(2000) + "PRAGMA integrity_check; SELECT count(*), max(y) FROM t;";
    write("a.db", "");
    write("b.db", "");
    EXPECT_EQ(hostOk({"run", "--csv", path("b.db")}, sql), hostOk({"run", "--csv", "--mapped", path("a.db")}, sql));
    EXPECT_EQ("ok", PlainDatabase(path("a.db")).value("PRAGMA integrity_check"));
}

TEST_F(SqlMapped, OnlyDatabasesOfThoseWhoAskAreMapped)
{
    const std::string look = "SELECT count(*) FROM sqlite_schema";
    serve();
    auto connected = client();
    EXPECT_EQ("0", ask(*connected, look));
    EXPECT_EQ(-1, touched());
    sql({"CREATE TABLE t(x,y)"});
    connected.reset();
    stopServer();
    serve({"--mapped"});
    connected = client();
    EXPECT_EQ("1", ask(*connected, look));
    EXPECT_GT(touched(), 0);
}

TEST_F(SqlMapped, FollowsAFileThatOthersCutAndExtend)
{
    serve({"--mapped"});
    const auto connected = client();
    sql({"CREATE TABLE t(x,y)"});
    PlainDatabase plain(directory() + "/database.db");
    for (int round = 1; round <= 3; ++round) {
        plain.run(rows(10000 * round));
        EXPECT_EQ(plain.value(kLook), ask(*connected, kLook));
        plain.run("DELETE FROM t WHERE x>10; VACUUM");
        EXPECT_EQ(plain.value(kLook), ask(*connected, kLook));
        sql({rows(2000)});
        EXPECT_EQ(plain.value(kLook), ask(*connected, kLook));
    }
}

TEST_F(SqlMapped, WithoutAddressesForAMappingItReadsWithoutOne)
{
    write("a.db", "");
    const auto limited = [&](const std::string& option) {
        return runProgram(
            {"/bin/sh", "-c",
             "ulimit -v 1500000; exec " + std::string(SQLHOST) + " run --csv " + option + " '" + path("a.db") + "'"},
            "SELECT 4711 AS x");
    };
    if (limited("").status != 0) GTEST_SKIP() << "so few addresses do not do here";
    const Ended ended = limited("--mapped");
    EXPECT_EQ("x\n4711\n", ended.out);
    EXPECT_EQ("", ended.err);
}

} // namespace
} // namespace kemsd::test
