// What sqlhost answers is what SQLite answers, and what it cannot do it says in one sentence.

#include "hostfixture.h"

namespace kemsd::test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

// ---- Import and queries ------------------------------------------------------------------------------------------

constexpr char kPackages[] =
    "package,section,size,share\n"
    "alpha,libs,120,0.5\n"
    "beta,libs,80,12.25\n"
    "gamma,devel,9000000000,0.125\n"
    "delta,,17,\n"
    "epsilon,devel,,3.0\n";

constexpr char kPackagesSql[] =
    "CREATE TABLE packages(package TEXT, section TEXT, size INTEGER, share REAL);"
    "INSERT INTO packages VALUES('alpha','libs',120,0.5),('beta','libs',80,12.25),('gamma','devel',9000000000,0.125),"
    "('delta',NULL,17,NULL),('epsilon','devel',NULL,3.0);";

TEST_F(SqlHost, GroupedQueryAnswersAsSqliteItself)
{
    hostOk({"import", path("a.db"), "packages", write("p.csv", kPackages)});
    PlainDatabase plain(":memory:");
    plain.run(kPackagesSql);
    const std::string query =
        "SELECT section, count(*) AS packages, sum(size) AS size, avg(share) AS share, max(package) AS last "
        "FROM packages GROUP BY section ORDER BY size DESC";
    EXPECT_EQ(plain.csv(query), hostOk({"run", "--csv", path("a.db")}, query));
}

TEST_F(SqlHost, ImportedValuesHaveSqlitesTypesAndAPlainSqliteReadsThem)
{
    hostOk({"import", path("a.db"), "packages", write("p.csv", kPackages)});
    PlainDatabase expected(":memory:"), imported(path("a.db"));
    expected.run(kPackagesSql);
    const std::string query =
        "SELECT *, typeof(package), typeof(section), typeof(size), typeof(share) FROM packages ORDER BY package";
    EXPECT_EQ(expected.csv(query), imported.csv(query));
    EXPECT_EQ("ok", imported.value("PRAGMA integrity_check"));
}

TEST_F(SqlHost, QuotesLineEndsAndLongTextsComeBackAsTheyWere)
{
    const std::string longText(3'000'000, 'x');
    const std::string file = write("q.csv",
                                   "\xEF\xBB\xBF\"a \"\"name\"\"\",b\r\n"
                                   "\"one, two\",\"first\r\nsecond\nthird\"\r\n"
                                   "\"\"\"\",\"\"\r\n"
                                   "\xC3\xA4\xE2\x82\xAC,\r\n" +
                                       longText + ",end");
    EXPECT_EQ("4 rows imported into t\n", hostOk({"import", path("a.db"), "t", file}));
    PlainDatabase expected(":memory:");
    expected.run(
        "CREATE TABLE t(\"a \"\"name\"\"\" TEXT, b TEXT);"
        "INSERT INTO t VALUES('one, two','first'||char(13,10)||'second'||char(10)||'third'),('\"',''),"
        "('\xC3\xA4\xE2\x82\xAC',NULL),('" +
        longText + "','end')");
    const std::string query = "SELECT *, typeof(b), length(b) FROM t ORDER BY rowid";
    EXPECT_EQ(expected.csv(query), hostOk({"run", "--csv", path("a.db")}, query));
}

TEST_F(SqlHost, ValuesThatNumbersWouldChangeStayText)
{
    hostOk({"import", path("a.db"), "t",
            write("n.csv",
                  "zip,id,code,version,mixed,minus\n007,12345678901234567890,12e3,1.2,1,-5\n12,1,5,1.3.1,x,-0\n")});
    EXPECT_EQ("t\n007/12345678901234567890/12e3/1.2/1/-5\n12/1/5/1.3.1/x/-0\n",
              hostOk({"run", "--csv", path("a.db")},
                     "SELECT zip||'/'||id||'/'||code||'/'||version||'/'||mixed||'/'||minus AS t FROM t"));
    EXPECT_EQ("7\n0\n", hostOk({"run", "--csv", path("a.db")},
                               "SELECT count(*) AS '7' FROM t WHERE 'text' NOT IN "
                               "(typeof(zip),typeof(id),typeof(code),typeof(version),typeof(mixed),typeof(minus))"));
}

TEST_F(SqlHost, SecondImportAddsToTheTable)
{
    const std::string file = write("p.csv", kPackages);
    hostOk({"import", path("a.db"), "packages", file});
    EXPECT_EQ("5 rows imported into packages\n", hostOk({"import", path("a.db"), "packages", file}));
    EXPECT_EQ("10", PlainDatabase(path("a.db")).value("SELECT count(*) FROM packages"));
}

TEST_F(SqlHost, CsvOutputImportsAsTheSameValues)
{
    hostOk({"import", path("a.db"), "t", write("v.csv", "a,b\n1,\"\"\n,\"x,y\"\n")});
    const std::string out = hostOk({"run", "--csv", path("a.db")}, "SELECT * FROM t");
    hostOk({"import", path("a.db"), "again", write("again.csv", out)});
    EXPECT_EQ("0",
              PlainDatabase(path("a.db")).value("SELECT count(*) FROM (SELECT * FROM t EXCEPT SELECT * FROM again)"));
}

TEST_F(SqlHost, TablesAlignNumbersRightAndShowNullApartFromText)
{
    write("a.db", "");
    EXPECT_EQ(
        "name     n  note\n"
        "a        5  NULL\n"
        "b     1234  'NULL'\n"
        "(2 rows)\n",
        hostOk({"run", path("a.db")}, "SELECT 'a' AS name, 5 AS n, NULL AS note UNION ALL SELECT 'b', 1234, 'NULL'"));
}

TEST_F(SqlHost, StatementsComeFromAFileOrFromStandardInput)
{
    const std::string sql =
        "CREATE TABLE t(x); -- a comment; with a semicolon\n"
        "INSERT INTO t VALUES(1),(2);\nSELECT sum(x) AS s FROM t;\n\n-- the end\n";
    const std::string expected = "(2 rows changed)\ns\n3\n(1 row)\n";
    EXPECT_EQ(expected, hostOk({"run", write("a.db", "")}, sql));
    EXPECT_EQ(expected, hostOk({"run", write("b.db", ""), "-"}, sql));
    EXPECT_EQ(expected, hostOk({"run", write("c.db", ""), write("s.sql", sql)}));
}

TEST_F(SqlHost, ClockIsTheSystems)
{
    write("a.db", "");
    const time_t before = time(nullptr);
    const std::string out = hostOk({"run", "--csv", path("a.db")}, "SELECT CAST(strftime('%s','now') AS INTEGER) AS t");
    const time_t now = std::stoll(out.substr(2));
    EXPECT_LE(before, now);
    EXPECT_GE(time(nullptr), now);
}

TEST_F(SqlHost, RandomValuesDifferBetweenRuns)
{
    write("a.db", "");
    const std::string query = "SELECT hex(randomblob(16))";
    EXPECT_NE(hostOk({"run", path("a.db")}, query), hostOk({"run", path("a.db")}, query));
}

// ---- Bad input ---------------------------------------------------------------------------------------------------

TEST_F(SqlHost, MissingFilesAreNamed)
{
    write("a.db", "");
    EXPECT_THAT(host({"import", path("new.db"), "t", path("no.csv")}),
                FailsSaying("cannot open " + path("no.csv") + ": No such file or directory"));
    EXPECT_FALSE(exists("new.db"));
    EXPECT_THAT(host({"run", path("a.db"), path("no.sql")}),
                FailsSaying("cannot open " + path("no.sql") + ": No such file or directory"));
    EXPECT_THAT(host({"memory", path("a.db"), path("no.sql")}),
                FailsSaying("cannot open " + path("no.sql") + ": No such file or directory"));
    EXPECT_THAT(host({"--config", path("no.mem"), "run", path("a.db")}),
                FailsSaying("cannot read the memory configuration " + path("no.mem") + ": No such file or directory"));
}

TEST_F(SqlHost, QueryOfAMissingDatabaseDoesNotMakeIt)
{
    EXPECT_THAT(host({"run", path("no.db")}, "SELECT 1"),
                FailsSaying(path("no.db") + ": unable to open database file (cannot open " + path("no.db") +
                            ": No such file or directory)"));
    EXPECT_FALSE(exists("no.db"));
}

TEST_F(SqlHost, FileThatIsNoDatabaseIsLeftAlone)
{
    const std::string text(5000, 'x');
    write("a.db", text);
    EXPECT_THAT(host({"run", path("a.db")}, "SELECT * FROM t"),
                FailsSaying("standard input, line 1: file is not a database"));
    EXPECT_THAT(host({"import", path("a.db"), "t", write("p.csv", kPackages)}),
                FailsSaying("file is not a database; nothing was imported"));
    std::ifstream file(path("a.db"));
    EXPECT_EQ(text, std::string(std::istreambuf_iterator<char>(file), {}));
}

struct Malformed {
    const char* what;
    std::string csv;
    std::string sentence; // after the file's name

    friend std::ostream& operator<<(std::ostream& out, const Malformed& file) { return out << file.what; }
};

class SqlHostMalformedCsv : public SqlHost, public testing::WithParamInterface<Malformed> {};

TEST_P(SqlHostMalformedCsv, IsRefusedByFileAndLineBeforeTheDatabaseIsTouched)
{
    hostOk({"import", path("a.db"), "packages", write("p.csv", kPackages)});
    const std::string file = write("bad.csv", GetParam().csv);
    EXPECT_THAT(host({"import", path("a.db"), "packages", file}), FailsSaying(file + GetParam().sentence));
    EXPECT_THAT(host({"import", path("new.db"), "packages", file}), FailsSaying(file + GetParam().sentence));
    EXPECT_FALSE(exists("new.db"));
    EXPECT_EQ("5", PlainDatabase(path("a.db")).value("SELECT count(*) FROM packages"));
}

INSTANTIATE_TEST_SUITE_P(
    All, SqlHostMalformedCsv,
    testing::Values(Malformed{"Empty", "", " is empty: its first row names the columns"},
                    Malformed{"FewFields", "a,b\n1,2\n3\n", ", line 3: the row has 1 field, the header has 2"},
                    Malformed{"ManyFields", "a,b\n\"x\ny\",2\n3,4,5\n",
                              ", line 4: the row has 3 fields, the header has 2"},
                    Malformed{"OpenQuote", "a,b\n1,2\n3,\"x\n5,6\n",
                              ", line 3: the quoted field that begins on line 3 is never closed"},
                    Malformed{"TextAfterQuote", "a,b\n\"1\"2,3\n", ", line 2: text follows a closing quote"},
                    Malformed{"QuoteInside", "a,b\n1,2\"\n",
                              ", line 2: a quote stands inside a field that does not begin with one"},
                    Malformed{"CarriageReturn", "a,b\n1\r2,3\n", ", line 2: a carriage return without a line feed"},
                    Malformed{"Nul", std::string("a,b\n1,\0\n", 8), ", line 2: a field holds a NUL byte"},
                    Malformed{"TwoNames", "a,b,A\n1,2,3\n", ", line 1: two columns are named A"},
                    Malformed{"NoName", "a,,c\n1,2,3\n", ", line 1: column 2 has no name"},
                    Malformed{"HalfMark", "\xEF\xBBx,b\n", ", line 1: the file begins with half a byte order mark"}),
    [](const auto& info) { return info.param.what; });

TEST_F(SqlHost, PipeIsRefusedBecauseItCannotBeReadTwice)
{
    for (const std::string file : {"standard input", "/dev/stdin"})
        EXPECT_THAT(host({"import", path("a.db"), "t", file[0] == '/' ? file : "-"}, "a\n1\n2\n"),
                    FailsSaying(file + ": the file changed while it was imported, or is none that can be read twice; "
                                       "nothing was imported"));
    EXPECT_EQ("0", PlainDatabase(path("a.db")).value("SELECT count(*) FROM sqlite_schema"));
}

TEST_F(SqlHost, ImportThatFailsInsideTheDatabaseKeepsWhatWasThere)
{
    write("a.db", "");
    hostOk({"run", path("a.db")}, "CREATE TABLE t(a INTEGER PRIMARY KEY, b); INSERT INTO t VALUES(3,'kept')");
    const std::string file = write("t.csv", "a,b\n1,x\n2,y\n3,z\n");
    EXPECT_THAT(host({"import", path("a.db"), "t", file}),
                FailsSaying(file + ", line 4: UNIQUE constraint failed: t.a; nothing was imported"));
    EXPECT_EQ("3kept", PlainDatabase(path("a.db")).value("SELECT group_concat(a||b) FROM t"));
    EXPECT_THAT(host({"import", path("a.db"), "t", write("u.csv", "a,c\n8,x\n")}),
                FailsSaying("table t has no column named c; nothing was imported"));
}

TEST_F(SqlHost, BadSqlIsNamedByLineAndWhatWasDoneBeforeStays)
{
    write("a.db", "");
    const std::string file = write("s.sql", "CREATE TABLE t(x);\nINSERT INTO t VALUES(1);\n\nSELECT x\nFRM t;\n");
    EXPECT_THAT(host({"run", path("a.db"), file}), FailsSaying(file + ", line 5: near \"t\": syntax error"));
    EXPECT_EQ("1", PlainDatabase(path("a.db")).value("SELECT sum(x) FROM t"));
    EXPECT_THAT(host({"run", path("a.db")}, "\n\nSELECT * FROM nowhere"),
                FailsSaying("standard input, line 3: no such table: nowhere"));
    EXPECT_THAT(host({"run", path("a.db")}, std::string("SELECT 1;\0", 10)),
                FailsSaying("standard input holds a NUL byte: it is no SQL text"));
}

TEST_F(SqlHost, TransactionLeftOpenIsUndoneAndSaid)
{
    write("a.db", "");
    EXPECT_THAT(host({"run", path("a.db")}, "CREATE TABLE t(x); BEGIN; INSERT INTO t VALUES(1);"),
                FailsSaying("standard input ends inside a transaction, which was undone"));
    EXPECT_EQ("0", PlainDatabase(path("a.db")).value("SELECT count(*) FROM t"));
}

TEST_F(SqlHost, WrongUseExitsWith2AndHelpWith0)
{
    EXPECT_EQ(2, host({}).status);
    EXPECT_EQ(2, host({"import", path("a.db")}).status);
    EXPECT_EQ(2, host({"frobnicate"}).status);
    EXPECT_EQ(2, host({"run", "--no-such-option", path("a.db")}).status);
    const Ended help = host({"--help"});
    EXPECT_EQ(0, help.status);
    EXPECT_THAT(help.out, HasSubstr("sqlhost import DB TABLE FILE.csv"));
}

} // namespace
} // namespace kemsd::test
