// The file system under sqlhost: other processes, crashes, temporary files and the ends of what it can reach.

#include <unistd.h>

#include "hostfixture.h"

namespace kemsd::test {
namespace {

namespace fs = std::filesystem;

TEST_F(SqlHost, WriterOfAnotherProcessKeepsUsOut)
{
    PlainDatabase plain(path("a.db"));
    plain.run("CREATE TABLE t(x); BEGIN IMMEDIATE; INSERT INTO t VALUES(1)");
    EXPECT_THAT(host({"run", path("a.db")}, "INSERT INTO t VALUES(2)"),
                FailsSaying("standard input, line 1: database is locked by another process"));
    plain.run("COMMIT");
    EXPECT_EQ("(1 row changed)\n", hostOk({"run", path("a.db")}, "INSERT INTO t VALUES(2)"));
    EXPECT_EQ("3", plain.value("SELECT sum(x) FROM t"));
}

TEST_F(SqlHost, ReaderOfAnotherProcessKeepsWritersOutAndReadersNot)
{
    PlainDatabase plain(path("a.db"));
    plain.run("CREATE TABLE t(x); INSERT INTO t VALUES(1); BEGIN; SELECT * FROM t");
    EXPECT_EQ("x\n1\n", hostOk({"run", "--csv", path("a.db")}, "SELECT x FROM t"));
    EXPECT_THAT(host({"run", path("a.db")}, "INSERT INTO t VALUES(2)"),
                FailsSaying("standard input, line 1: database is locked by another process"));
    plain.run("COMMIT");
}

// A process that dies in mid-transaction leaves half of its pages in the file, and the journal that undoes them.
TEST_F(SqlHost, TransactionOfADeadProcessIsUndone)
{
    PlainDatabase plain(path("a.db"));
    plain.run(
        "PRAGMA cache_size=5; CREATE TABLE t(x);"
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<5000) INSERT INTO t SELECT i FROM n;"
        "BEGIN; UPDATE t SET x=x+1000000");
    fs::copy_file(path("a.db"), path("dead.db"));
    fs::copy_file(path("a.db-journal"), path("dead.db-journal"));
    plain.run("ROLLBACK");
    EXPECT_EQ("ok,12502500\n", hostOk({"run", "--csv", path("dead.db")},
                                      "SELECT (SELECT * FROM pragma_integrity_check) AS i, sum(x) AS s FROM t")
                                   .substr(4));
    EXPECT_FALSE(exists("dead.db-journal"));
}

TEST_F(SqlHost, JournalLiesBesideTheFileThatALinkNames)
{
    fs::create_directory(path("there"));
    fs::create_symlink(path("there/a.db"), path("link.db"));
    write("there/a.db", "");
    hostOk({"run", path("link.db")}, "PRAGMA journal_mode=PERSIST; CREATE TABLE t(x);");
    EXPECT_TRUE(exists("there/a.db-journal"));
    EXPECT_FALSE(exists("link.db-journal"));
}

TEST_F(SqlHost, RelativeNamesAreOfTheCurrentDirectory)
{
    ASSERT_EQ(0, chdir(path("").c_str()));
    hostOk({"import", "a.db", "t", fs::path(write("t.csv", "a\n1\n")).filename()});
    EXPECT_EQ("1", PlainDatabase(path("a.db")).value("SELECT a FROM t"));
    ASSERT_EQ(0, chdir("/"));
}

TEST_F(SqlHost, SortsAndTemporaryTablesUseTemporaryFilesAndLeaveNone)
{
    write("a.db", "");
    fs::create_directory(path("tmp"));
    const std::string sql =
        "PRAGMA temp_store=FILE; PRAGMA cache_size=10; PRAGMA temp.cache_size=10; CREATE TEMP TABLE t(x,y);"
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<30000) "
        "INSERT INTO t SELECT i, (i*7919)%30011 FROM n;"
        "SELECT sum(x*r) AS s FROM (SELECT x, row_number() OVER (ORDER BY y) AS r FROM t)";
    PlainDatabase plain(":memory:");
    const std::string query = sql.substr(sql.rfind("SELECT sum"));
    plain.run(sql.substr(0, sql.size() - query.size()));
    const Ended ended = runProgram({SQLHOST, "run", "--csv", path("a.db")}, sql, {"TMPDIR=" + path("tmp")});
    EXPECT_EQ("", ended.err);
    EXPECT_EQ(plain.csv(query), ended.out);
    EXPECT_TRUE(fs::is_empty(path("tmp")));
}

TEST_F(SqlHost, FileBeyondTwoGibibytesIsRefusedAndLeftAlone)
{
    {
        PlainDatabase(path("a.db")).run("CREATE TABLE t(x)");
    }
    for (const uintmax_t size : {uintmax_t{3} << 30, (uintmax_t{4} << 30) + 8192}) {
        fs::resize_file(path("a.db"), size); // sparse
        EXPECT_THAT(host({"run", path("a.db")}, "INSERT INTO t VALUES(1)"),
                    FailsSaying("standard input, line 1: disk I/O error (a file may have at most 2 GiB: " +
                                path("a.db") + ")"));
        EXPECT_EQ(size, fs::file_size(path("a.db")));
    }
}

// A database whose file already reaches up to the last page below 2 GiB has no room for another one.
TEST_F(SqlHost, DatabaseIsFullAtTwoGibibytes)
{
    {
        PlainDatabase plain(path("a.db"));
        plain.run("PRAGMA page_size=65536; CREATE TABLE t(x); PRAGMA writable_schema=ON");
    }
    constexpr uintmax_t kFull = (uintmax_t{1} << 31) - 65536;
    fs::resize_file(path("a.db"), kFull);
    std::fstream header(path("a.db"), std::ios::in | std::ios::out | std::ios::binary);
    header.seekp(28); // the page count, big-endian
    header.write("\0\0\x7F\xFF", 4);
    header.close();
    const Ended ended = host({"run", path("a.db")}, "INSERT INTO t VALUES(zeroblob(200000))");
    EXPECT_THAT(ended, FailsSaying("standard input, line 1: database or disk is full (a file may have at most 2 GiB: " +
                                   path("a.db") + ")"));
    EXPECT_EQ(kFull, fs::file_size(path("a.db")));
    EXPECT_EQ("0", PlainDatabase(path("a.db")).value("SELECT count(*) FROM t"));
}

TEST_F(SqlHost, WriteThatTheSystemRefusesIsSaidAndUndone)
{
    hostOk({"import", path("a.db"), "t", write("t.csv", "a\n1\n")});
    std::string rows = "a\n";
    for (int i = 0; i < 2000; ++i) rows += std::string(1000, 'x') + "\n";
    const std::string import = std::string(SQLHOST) + " import '" + path("a.db") + "' t '" + write("u.csv", rows) + "'";
    // Files of at most 512 KiB, or 1 MiB where the shell counts in KiB; the signal that goes with it ignored.
    const Ended ended = runProgram({"/bin/sh", "-c", "trap '' XFSZ; ulimit -f 1024; " + import});
    EXPECT_THAT(
        ended, FailsSaying("disk I/O error (cannot write " + path("a.db") + ": File too large); nothing was imported"));
    EXPECT_EQ("1\n", hostOk({"run", "--csv", path("a.db")}, "SELECT a FROM t").substr(2));
}

TEST_F(SqlHost, FullDiskIsSaidAndUndone)
{
    std::string rows = "a\n";
    for (int i = 0; i < 2000; ++i) rows += std::string(1000, 'x') + "\n";
    const std::string disk = path("disk"), host = std::string(SQLHOST) + " import '" + disk + "/a.db' t ";
    fs::create_directory(disk);
    const std::string commands = host + "'" + write("t.csv", "a\n1\n") + "'; " + host + "'" + write("u.csv", rows) +
                                 "'; " + SQLHOST + " run --csv '" + disk + "/a.db'";
    // A disk of 1 MiB, in a name space of its own; 77 says that there is none to be had.
    const Ended ended = runProgram(
        {"unshare", "-rm", "/bin/sh", "-c", "mount -t tmpfs -o size=1m none '" + disk + "' || exit 77; " + commands},
        "SELECT a FROM t");
    const bool none = ended.status == 77 || ended.err.starts_with("unshare");
    if (none) GTEST_SKIP() << "cannot mount a small disk: " << ended.err;
    EXPECT_EQ(0, ended.status);
    EXPECT_EQ("1 row imported into t\na\n1\n", ended.out);
    EXPECT_EQ("sqlhost: database or disk is full (no space left for " + disk +
                  "/a.db: No space left on device); nothing was imported\n",
              ended.err);
}

TEST_F(SqlHost, OutputThatCannotBeWrittenIsAFailure)
{
    if (access("/dev/full", W_OK) == -1) GTEST_SKIP() << "no device that is always full";
    write("a.db", "");
    const Ended ended =
        runProgram({"/bin/sh", "-c", std::string(SQLHOST) + " run '" + path("a.db") + "' > /dev/full"}, "SELECT 1");
    EXPECT_THAT(ended, FailsSaying("standard input, line 1: cannot write the result"));
}

} // namespace
} // namespace kemsd::test
