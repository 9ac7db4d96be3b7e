// The memory configuration: what it limits, what it reports, and that a limit hurts nobody's data.

#include "hostfixture.h"

namespace kemsd::test {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

// About 20 MiB of rows that do not compress into anything smaller.
std::string manyRows()
{
    std::string csv = "id,text\n";
    for (int i = 0; i < 20000; ++i)
        csv += std::to_string(i) + "," + std::string(1000, static_cast<char>('a' + i % 26)) + "\n";
    return csv;
}

TEST_F(SqlHost, ImportBeyondTheLimitEndsOutOfMemoryAndLosesNothing)
{
    hostOk({"import", path("a.db"), "kept", write("kept.csv", "a\n1\n2\n3\n")});
    const std::string file = write("many.csv", manyRows());
    const Ended ended = host({"--config", small(), "import", path("a.db"), "many", file});
    EXPECT_EQ(1, ended.status);
    EXPECT_EQ("", ended.out);
    EXPECT_THAT(ended.err, AllOf(ContainsRegex("kemsd message 1130213: 1[01]\\.[0-9] MiB in use, above 90 % of"),
                                 ContainsRegex("kemsd message 1130212: .* in use, the memory limit leaves no room"),
                                 ContainsRegex("many.csv, line [0-9]+: out of memory; nothing was imported\n$")));

    {
        PlainDatabase plain(path("a.db"));
        EXPECT_EQ("ok", plain.value("PRAGMA integrity_check"));
        EXPECT_EQ("6", plain.value("SELECT sum(a) FROM kept"));
        EXPECT_EQ("0", plain.value("SELECT count(*) FROM sqlite_schema WHERE name='many'"));
    }
    EXPECT_EQ("s\n6\n", hostOk({"--config", small(), "run", "--csv", path("a.db")}, "SELECT sum(a) AS s FROM kept"));
    EXPECT_EQ("20,000 rows imported into many\n", hostOk({"import", path("a.db"), "many", file}));
    PlainDatabase plain(path("a.db"));
    EXPECT_EQ("20000", plain.value("SELECT count(*) FROM many"));
    EXPECT_EQ("ok", plain.value("PRAGMA integrity_check"));
}

TEST_F(SqlHost, SameImportFitsTheLimitWhenPagesMaySpill)
{
    const std::string file = write("many.csv", manyRows());
    EXPECT_EQ("20,000 rows imported into many\n",
              hostOk({"--config", small(), "import", "--spill", path("a.db"), "many", file}));
    PlainDatabase plain(path("a.db"));
    EXPECT_EQ("20000,199990000,20000000", plain.value("SELECT count(*), sum(id), sum(length(text)) FROM many"));
    EXPECT_EQ("ok", plain.value("PRAGMA integrity_check"));
}

TEST_F(SqlHost, QueryBeyondTheLimitEndsOutOfMemory)
{
    write("a.db", "");
    const Ended ended = host({"--config", small(), "run", path("a.db")},
                             "CREATE TABLE t(x);\nINSERT INTO t VALUES(1);\nSELECT length(randomblob(30000000));\n");
    EXPECT_EQ(1, ended.status);
    EXPECT_THAT(ended.err, AllOf(HasSubstr("kemsd message 1130212: "),
                                 HasSubstr("sqlhost: standard input, line 3: out of memory\n")));
    EXPECT_EQ("1", PlainDatabase(path("a.db")).value("SELECT count(*) FROM t"));
}

TEST_F(SqlHost, MemoryReportShowsSettingsFiguresAndBuckets)
{
    hostOk({"import", path("a.db"), "t", write("t.csv", "a,b\n1,x\n2,y\n")});
    const std::string report = hostOk({"--config", small(), "memory", path("a.db")});
    EXPECT_THAT(report,
                AllOf(HasSubstr("Workload       2 statements, 3 rows\n"), HasSubstr("Configuration  " + small()),
                      ContainsRegex("memory limit +12 MiB\n"), ContainsRegex("thread heaps +4\n"),
                      ContainsRegex("heaps at most +12\n"), ContainsRegex("size of a heap +512 KiB\n"),
                      ContainsRegex("size of a short-term heap +off\n"), ContainsRegex("heaps \\(12 made\\) +6 MiB")));
    EXPECT_THAT(report, AllOf(ContainsRegex("blocks outside heaps +[1-9]"), ContainsRegex("in all +6[.0-9]* MiB"),
                              ContainsRegex("to 160 bytes +[1-9][0-9]* +[1-9]"), ContainsRegex("blocks +[1-9]")));
}

TEST_F(SqlHost, MemoryReportRunsTheGivenStatements)
{
    write("a.db", "");
    const std::string sql = write("w.sql", "SELECT 1;\nSELECT 2 UNION ALL SELECT 3;\n");
    EXPECT_THAT(hostOk({"memory", path("a.db"), sql}), HasSubstr("Workload       2 statements, 3 rows\n"));
    EXPECT_THAT(host({"memory", path("a.db"), write("bad.sql", "SELEKT")}),
                FailsSaying(path("bad.sql") + ": near \"SELEKT\": syntax error"));
}

TEST_F(SqlHost, MemoryReportSaysWhatIsNotCounted)
{
    write("a.db", "");
    const std::string report =
        hostOk({"--config", write("no.mem", "nomemorycontrol\nheapsize 512K\n"), "memory", path("a.db")});
    EXPECT_THAT(report, AllOf(HasSubstr("Memory in use is not counted"), HasSubstr("Blocks are not counted"),
                              ContainsRegex("memory limit +none\n")));
}

TEST_F(SqlHost, LimitThatIsTooLowStopsStartUp)
{
    write("a.db", "");
    const std::string config = write("low.mem", "memorylimit 5M\n");
    const Ended ended = host({"--config", config, "run", path("a.db")}, "SELECT 1");
    EXPECT_EQ(1, ended.status);
    EXPECT_EQ("", ended.out);
    EXPECT_THAT(
        ended.err,
        AllOf(HasSubstr("kemsd message 1130214: a memory limit of 5 MiB is too low, it must be at least 10 MiB\n"),
              HasSubstr("sqlhost: " + config + ": the memory limit was rejected\n")));
}

TEST_F(SqlHost, HeapsThatDoNotFitTheLimitStopStartUp)
{
    write("a.db", "");
    const std::string config = write("big.mem", "memorylimit 12M\nheapsize 2M\n");
    EXPECT_THAT(host({"--config", config, "run", path("a.db")}, "SELECT 1"),
                FailsSaying(config + ": no memory for the heaps at start-up (status 1130203)"));
}

TEST_F(SqlHost, ComplaintsAboutTheConfigurationGoToStandardErrorReadable)
{
    write("a.db", "");
    const Ended ended = host(
        {"--config", write("odd.mem", "frob\033[31m\nheapsize 2MB\n"), "run", "--csv", path("a.db")}, "SELECT 1 AS x");
    EXPECT_EQ(0, ended.status);
    EXPECT_EQ("x\n1\n", ended.out);
    EXPECT_THAT(ended.err, AllOf(HasSubstr("kemsd: Unknown keyword [frob?[31m] in the memory configuration file\n"),
                                 HasSubstr("kemsd: Wrong keyword [2MB] in the memory configuration file after keyword "
                                           "[heapsize]\n"),
                                 Not(HasSubstr("Memory configuration:"))));
}

TEST_F(SqlHost, SummaryIsShownOnRequest)
{
    write("a.db", "");
    const Ended ended = host({"--verbose", "--config", small(), "run", path("a.db")}, "SELECT 1");
    EXPECT_THAT(ended.err, HasSubstr("kemsd:    Memory limit                 : 12288K\n"));
}

TEST_F(SqlHost, PathVariableNamesTheConfiguration)
{
    write("a.db", "");
    write("home/bin/config.mem.sqlhost", "memorylimit 33M\nheapsize 512K\n");
    write("home/bin/config.mem", "memorylimit 44M\n");
    const Ended ended = runProgram({SQLHOST, "memory", path("a.db")}, {}, {"ZANTOPATH=" + path("home")});
    EXPECT_THAT(ended.out, ContainsRegex("memory limit +33 MiB\n"));
    const Ended missing = runProgram({SQLHOST, "memory", path("a.db")}, {}, {"ZANTOPATH=" + path("nowhere")});
    EXPECT_THAT(missing, FailsSaying("cannot read the memory configuration " + path("nowhere/bin/config.mem") +
                                     ": No such file or directory"));
}

} // namespace
} // namespace kemsd::test
