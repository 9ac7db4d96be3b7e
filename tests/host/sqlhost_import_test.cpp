// CSV files on their way through the server into a table: all rows or none, whatever happens to the client.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "client/answerreader.h"
#include "client/connection.h"
#include "client/runtime.h"
#include "serverfixture.h"
#include "wire/fields.h"

namespace kemsd::test {
namespace {

namespace fs = std::filesystem;

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;

class SqlImport : public SqlServer {
protected:
    Ended import(const std::string& table, const std::string& file, const std::vector<std::string>& options = {}) const
    {
        std::vector<std::string> arguments = {"import", directory(), table, file};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return host(arguments);
    }
    std::string tables() const { return value("SELECT count(*) FROM sqlite_schema"); }
};

std::string numbers(int first, int count, size_t padding = 0)
{
    std::string csv = "n,padding\n";
    for (int i = first; i < first + count; ++i) csv += std::to_string(i) + "," + std::string(padding, 'x') + "\n";
    return csv;
}

// ---- What is imported --------------------------------------------------------------------------------------------

TEST_F(SqlImport, IsTheSameTableThatALocalImportMakes)
{
    const std::string file = write("v.csv",
                                   "name,size,share,\"a, \"\"b\"\"\",zip\r\n"
                                   "alpha,120,0.5,\"\",007\r\n"
                                   "\"two\nlines\",,12.25,,08\r\n"
                                   ",9000000000,3.0,\"x,y\",\xC3\xA4\n");
    serve();
    EXPECT_EQ("3 rows imported into t\n", hostOk({"import", directory(), "t", file}));
    hostOk({"import", path("local.db"), "t", file});
    const std::string query = "SELECT *,typeof(name),typeof(size),typeof(share),typeof(\"a, \"\"b\"\"\"),zip FROM t";
    const std::string schema = "SELECT sql FROM sqlite_schema";
    EXPECT_EQ(hostOk({"run", "--csv", path("local.db")}, query), sql({query}));
    EXPECT_EQ(hostOk({"run", "--csv", path("local.db")}, schema), sql({schema}));
    EXPECT_EQ("ok", value("PRAGMA integrity_check"));
    EXPECT_EQ("3 rows imported into t\n", hostOk({"import", directory(), "t", file}));
    EXPECT_EQ("6", value("SELECT count(*) FROM t"));
}

TEST_F(SqlImport, TakesRowsThatAreLongerThanAnyMessage)
{
    std::string csv = "n,a,b\n";
    for (int i = 0; i < 8; ++i)
        csv +=
            std::to_string(i) + "," + std::string(200'000u << (i % 4), 'a') + "," + std::string(2039 + i, 'b') + "\n";
    const std::string file = write("long.csv", csv);
    serve();
    hostOk({"import", directory(), "t", file});
    hostOk({"import", path("local.db"), "t", file});
    const std::string query = "SELECT n, length(a), length(b), a=replace(a,'b',''), b=replace(b,'a','') FROM t";
    EXPECT_EQ(hostOk({"run", "--csv", path("local.db")}, query), sql({query}));
}

TEST_F(SqlImport, TableWithoutRowsIsMade)
{
    serve();
    EXPECT_EQ("0 rows imported into t\n", hostOk({"import", directory(), "t", write("e.csv", "a,b\n")}));
    EXPECT_EQ("0", value("SELECT count(a||b) FROM t"));
}

// ---- Files and tables that do not fit ----------------------------------------------------------------------------

TEST_F(SqlImport, MalformedFileIsRefusedByLineBeforeTheServerHearsOfIt)
{
    serve();
    const std::string few = write("few.csv", "a,b\n1,2\n3\n"), open = write("open.csv", "a,b\n1,2\n3,\"x\n5,6\n"),
                      late = write("late.csv", numbers(0, 50000) + "1,2,3\n");
    EXPECT_THAT(import("t", few), FailsSaying(few + ", line 3: the row has 1 field, the header has 2"));
    EXPECT_THAT(import("t", open),
                FailsSaying(open + ", line 3: the quoted field that begins on line 3 is never closed"));
    EXPECT_THAT(import("t", late), FailsSaying(late + ", line 50002: the row has 3 fields, the header has 2"));
    EXPECT_THAT(import("t", path("no.csv")),
                FailsSaying("cannot open " + path("no.csv") + ": No such file or directory"));
    EXPECT_EQ("0", tables());
}

TEST_F(SqlImport, RowThatTheTableRefusesIsNamedByItsLineAndUndoesAll)
{
    serve();
    sql({"CREATE TABLE t(a INTEGER PRIMARY KEY, b); INSERT INTO t VALUES(3,'kept')"});
    const std::string file = write("t.csv", "a,b\n1,\"two\nlines\"\n2,y\n3,z\n4,w\n");
    EXPECT_THAT(import("t", file), FailsSaying(file + ", line 5: UNIQUE constraint failed: t.a; nothing was imported"));
    EXPECT_EQ("3kept", value("SELECT group_concat(a||b) FROM t"));
    EXPECT_EQ("0", status("write leases out"));
}

TEST_F(SqlImport, TableThatCannotTakeTheColumnsIsNamed)
{
    serve();
    sql({"CREATE TABLE t(a)"});
    EXPECT_THAT(import("t", write("u.csv", "a,c\n8,x\n")),
                FailsSaying("table t has no column named c; nothing was imported"));
    EXPECT_THAT(import("sqlite_t", write("v.csv", "a\n8\n")),
                FailsSaying("object name reserved for internal use: sqlite_t; nothing was imported"));
    EXPECT_EQ("1", tables());
}

TEST_F(SqlImport, DirectoryWithoutAServerIsSaid)
{
    fs::create_directory(directory());
    EXPECT_THAT(import("t", write("t.csv", "a\n1\n")), FailsSaying("no server serves " + directory()));
}

// ---- Limits ------------------------------------------------------------------------------------------------------

TEST_F(SqlImport, ImportBeyondTheMemoryLimitFailsAloneAndSpillingHelps)
{
    setenv("ZANTOPATH", fs::path(small()).parent_path().parent_path().c_str(), 1);
    serve();
    sql({"CREATE TABLE kept(x); INSERT INTO kept VALUES(6)"});
    const std::string file = write("many.csv", numbers(0, 15000, 1000));
    Background importing({SQLHOST, "import", directory(), "many", file});
    auto other = client();
    bool running = true;
    while (running) {
        other->say("INSERT INTO kept VALUES(0); SELECT sum(x) AS s FROM kept;");
        EXPECT_EQ("s", other->line());
        EXPECT_EQ("6", other->line());
        siginfo_t ended = {};
        running = waitid(P_PID, importing.pid(), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 && ended.si_pid == 0;
    }
    const Ended ended = importing.wait();
    EXPECT_EQ(1, ended.status);
    EXPECT_THAT(ended.err,
                ContainsRegex("many.csv, line [0-9]+: the server has no memory left for a larger import, its "
                              "limit is 12 MiB; nothing was imported\n$"));
    EXPECT_EQ("1", tables());
    EXPECT_EQ("15,000 rows imported into many\n", hostOk({"import", "--spill", directory(), "many", file}));
    EXPECT_EQ("15000", value("SELECT count(*) FROM many"));
    EXPECT_EQ("ok", value("PRAGMA integrity_check"));
}

TEST_F(SqlImport, RowsThatTheServerCannotKeepAreRefused)
{
    fs::create_directory(directory());
    // Files of at most 512 KiB, or 1 MiB where the shell counts in KiB.
    Background server(
        {"/bin/sh", "-c", "trap '' XFSZ; ulimit -f 1024; exec \"$0\" serve \"$1\"", SQLHOST, directory()});
    EXPECT_THAT(server.line(), HasSubstr("serving"));
    EXPECT_THAT(import("t", write("many.csv", numbers(0, 3000, 1000))),
                FailsSaying("the server cannot keep the rows: File too large; nothing was imported"));
    EXPECT_EQ("1 row imported into t\n", hostOk({"import", directory(), "t", write("one.csv", "a\n1\n")}));
    hostOk({"stop", directory()});
    EXPECT_EQ(0, server.wait().status);
    EXPECT_THAT(names(), testing::ElementsAre("clients.lock", "connect.lock", "database.db+", "server.lock"));
}

// ---- Clients that are slow, or die -------------------------------------------------------------------------------

// A named pipe in place of the file holds the client wherever the test wants it: it reads it once to check it, and once
// to import it.
class SqlImportHeld : public SqlImport {
protected:
    SqlImportHeld()
    {
        serve();
        sql({"CREATE TABLE t(n INTEGER, padding)"});
        EXPECT_EQ(0, mkfifo(path("fifo.csv").c_str(), 0600));
    }

    // Waits for a reader and writes the text, as its whole file or its beginning; returns the pipe's end. The next
    // reader finds another pipe, and so cannot read on where this one ends.
    int pour(const std::string& text) const
    {
        const int end = open(path("fifo.csv").c_str(), O_WRONLY | O_CLOEXEC);
        EXPECT_NE(-1, end);
        EXPECT_EQ(0, mkfifo(path("next.csv").c_str(), 0600));
        fs::rename(path("next.csv"), path("fifo.csv"));
        for (size_t at = 0; at < text.size();) {
            const ssize_t written = ::write(end, text.data() + at, text.size() - at);
            if (written <= 0) {
                ADD_FAILURE() << strerror(errno);
                break;
            }
            at += static_cast<size_t>(written);
        }
        return end;
    }
    std::vector<std::string> program() const { return {SQLHOST, "import", directory(), "t", path("fifo.csv")}; }

    const std::string csv_ = numbers(0, 3000, 1000); // so many bytes that the server has had most when half is written
};

TEST_F(SqlImportHeld, SlowClientKeepsNobodyWaiting)
{
    Background slow(program());
    close(pour(csv_));
    const int end = pour(csv_.substr(0, csv_.size() / 2));
    EXPECT_TRUE(eventually([this] { return clients()[0].ends_with("idle,6"); })) << clients()[0];
    EXPECT_EQ("0", status("write leases out"));
    sql({"INSERT INTO t(n) VALUES(-1)"});
    EXPECT_EQ("1", value("SELECT count(*) FROM t"));
    EXPECT_EQ(static_cast<ssize_t>(csv_.size() - csv_.size() / 2),
              ::write(end, csv_.data() + csv_.size() / 2, csv_.size() - csv_.size() / 2));
    close(end);
    const Ended ended = slow.wait();
    EXPECT_EQ(0, ended.status) << ended.err;
    EXPECT_EQ("3001", value("SELECT count(*) FROM t"));
}

TEST_F(SqlImportHeld, KilledClientLeavesNothingImported)
{
    Background killed(program());
    close(pour(csv_));
    const int end = pour(csv_.substr(0, csv_.size() / 2));
    killed.signal(SIGKILL);
    close(end);
    EXPECT_TRUE(eventually([this] { return clients().size() == 1; }));
    EXPECT_EQ("0", value("SELECT count(*) FROM t"));
    stopServer();
    EXPECT_THAT(names(), testing::ElementsAre("clients.lock", "connect.lock", "database.db+", "server.lock"));
}

TEST_F(SqlImportHeld, FileThatChangedIsNoticedAndNothingIsImported)
{
    Background client(program());
    close(pour(csv_));
    close(pour(csv_.substr(0, csv_.size() / 2) + "\n"));
    const Ended ended = client.wait();
    EXPECT_EQ(1, ended.status);
    EXPECT_THAT(ended.err, AllOf(HasSubstr("fifo.csv"), HasSubstr("the file changed while it was imported"),
                                 HasSubstr("; nothing was imported\n")));
    EXPECT_EQ("0", value("SELECT count(*) FROM t"));
}

TEST_F(SqlImportHeld, EndOfTheServerMeansThatNothingWasImported)
{
    Background client(program());
    close(pour(csv_));
    const int end = pour(csv_.substr(0, csv_.size() / 2));
    const pid_t pid = server().pid();
    stopServer();
    while (::write(end, csv_.data() + csv_.size() / 2, csv_.size() / 2) == -1 && errno == EINTR) {
    } // it ends in the middle, at the latest when the client does
    close(end);
    EXPECT_THAT(client.wait(), FailsSaying("the server with process id " + std::to_string(pid) +
                                           " ended before it had answered: nothing was imported"));
    serve();
    EXPECT_EQ("0", value("SELECT count(*) FROM t"));
}

TEST_F(SqlImport, ClientKilledAtAnyMomentHasImportedAllOrNothing)
{
    constexpr int kRows = 4000;
    const std::string file = write("t.csv", numbers(0, kRows, 500));
    serve();
    sql({"CREATE TABLE t(n INTEGER, padding)"});
    for (int requests = 1; requests <= 10; ++requests) {
        Background client({SQLHOST, "import", directory(), "t", file});
        // Its last request, the eleventh or so, inserts; it may also be through before it is seen.
        const auto far = [&] {
            siginfo_t ended = {};
            if (waitid(P_PID, client.pid(), &ended, WEXITED | WNOHANG | WNOWAIT) != 0 || ended.si_pid != 0) return true;
            for (const std::string& line : clients())
                if (line.find(std::string(",") + std::to_string(client.pid()) + ",") != std::string::npos)
                    return std::stoi(line.substr(line.rfind(',') + 1)) >= requests;
            return false;
        };
        EXPECT_TRUE(eventually(far));
        client.signal(SIGKILL);
        client.wait();
        EXPECT_TRUE(eventually([this] { return clients().size() == 1; }));
        EXPECT_EQ("0", value("SELECT count(*) % " + std::to_string(kRows) + " FROM t"));
    }
    EXPECT_EQ("ok", value("PRAGMA integrity_check"));
}

// ---- Many at once ------------------------------------------------------------------------------------------------

TEST_F(SqlImport, ManyClientsAtOnceImportAllTheirRows)
{
    constexpr int kClients = 8, kRows = 2000;
    serve();
    std::vector<std::unique_ptr<Background>> imports;
    for (int i = 0; i < kClients; ++i) {
        const std::string file = write(std::string("t") + std::to_string(i) + ".csv", numbers(i * kRows, kRows, 200));
        imports.push_back(std::make_unique<Background>(
            std::vector<std::string>{SQLHOST, "import", directory(), i % 2 ? "odd" : "even", file}));
    }
    auto other = client();
    other->say("CREATE TABLE other(x);\nINSERT INTO other VALUES(1);\nSELECT sum(x) AS s FROM other;\n");
    EXPECT_EQ("s", other->line());
    EXPECT_EQ("1", other->line());
    for (const auto& import : imports) {
        const Ended ended = import->wait();
        EXPECT_EQ(0, ended.status) << ended.err;
        EXPECT_THAT(ended.out, HasSubstr("2,000 rows imported into "));
    }
    EXPECT_EQ(
        "16000,16000,127992000",
        sql({"SELECT count(*) AS a, count(DISTINCT n) AS b, sum(n) AS c FROM (SELECT n FROM odd UNION ALL SELECT n "
             "FROM even)"})
            .substr(6, 21));
    EXPECT_EQ("ok", value("PRAGMA integrity_check"));
}

// ---- Progress ----------------------------------------------------------------------------------------------------

// What the program writes to the terminal that its standard error is.
std::string onTerminal(const std::vector<std::string>& program)
{
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (terminal == -1 || grantpt(terminal) == -1 || unlockpt(terminal) == -1) return "no terminal to be had";
    const std::string name = ptsname(terminal);
    const Ended ended = inChild([&] {
        dup2(open(name.c_str(), O_WRONLY | O_NOCTTY), STDERR_FILENO);
        std::vector<char*> arguments;
        for (const std::string& word : program) arguments.push_back(const_cast<char*>(word.c_str()));
        arguments.push_back(nullptr);
        return execv(arguments[0], arguments.data());
    });
    EXPECT_EQ(0, ended.status);
    // What was written arrives a little later; an error tells that it has, and that nobody writes any more.
    std::string shown;
    char buffer[4096];
    for (pollfd end = {terminal, POLLIN, 0}; poll(&end, 1, 10000) == 1;) {
        const ssize_t got = read(terminal, buffer, sizeof buffer);
        if (got <= 0) break;
        shown.append(buffer, static_cast<size_t>(got));
    }
    close(terminal);
    return shown;
}

TEST_F(SqlImport, ProgressIsShownOnATerminalInPlaceAndCleared)
{
    const std::string file = write("t.csv", numbers(0, 1500, 1000));
    serve();
    const std::string shown = onTerminal({SQLHOST, "import", directory(), "t", file});
    EXPECT_THAT(shown, AllOf(HasSubstr("\rchecking: 1"), HasSubstr("\rimporting: "), HasSubstr(" of 1.4 MiB, "),
                             HasSubstr(" %\x1b[K"), testing::EndsWith("\r\x1b[K"), testing::Not(HasSubstr("\n"))));
}

// ---- Clients that do not keep to the rules -----------------------------------------------------------------------

class SqlImportProtocol : public SqlImport {
protected:
    SqlImportProtocol() { serve(); }

    // The error of the answer, with its place if it has one, or "ok" and the number of rows.
    std::string ask(char type, const std::string& payload)
    {
        sqlhost::Connection& connection = link_.connection();
        connection.ask(type, payload);
        std::string said, error;
        sqlhost::AnswerReader answer(connection.context(), connection.channel());
        while (answer.next()) {
            sqlhost::FieldReader fields(answer.payload());
            if (answer.type() == sqlhost::kFrameDone)
                said += std::string(" ") + std::to_string(fields.number<uint64_t>());
            if (answer.type() != sqlhost::kFrameError) continue;
            const auto place = fields.number<uint32_t>();
            if (place != sqlhost::kNoPlace) error += std::string("line ") + std::to_string(place) + ": ";
            error += fields.rest();
        }
        return error.empty() ? "ok" + said : error;
    }

    static std::string described(const std::string& table, const std::vector<std::string>& columns, char type = 'T')
    {
        sqlhost::FieldWriter fields;
        fields.number(uint8_t{0});
        fields.text(table);
        fields.number(static_cast<uint16_t>(columns.size()));
        for (const std::string& column : columns) {
            fields.text(column);
            fields.number(type);
        }
        return fields.bytes();
    }
    static std::string row(uint32_t line, const std::string& value)
    {
        sqlhost::FieldWriter fields;
        fields.number(line);
        fields.text(value);
        return fields.bytes();
    }

    sqlhost::ClientRuntime runtime_;
    sqlhost::ServerLink link_{runtime_.context(), directory()};
};

TEST_F(SqlImportProtocol, DescriptionThatMakesNoSenseIsRefused)
{
    const std::string senseless = "the description of the import makes no sense", good = described("t", {"a", "b"});
    for (size_t length = 0; length < good.size(); ++length)
        EXPECT_EQ(senseless, ask('I', good.substr(0, length))) << length;
    EXPECT_EQ(senseless, ask('I', good + "x"));
    EXPECT_EQ(senseless, ask('I', described("t", {})));
    EXPECT_EQ(senseless, ask('I', described("", {"a"})));
    EXPECT_EQ(senseless, ask('I', described("t", {"a", ""})));
    EXPECT_EQ(senseless, ask('I', described("t", {"a"}, 'X')));
    EXPECT_EQ(senseless, ask('I', described(std::string("t\0x", 3), {"a"})));
    EXPECT_EQ("rows without an import", ask('R', row(1, "x")));
    EXPECT_EQ("an end without an import", ask('N', ""));
    EXPECT_EQ("0", tables());
}

TEST_F(SqlImportProtocol, NamesThatAreSqlAreNames)
{
    EXPECT_EQ("ok", ask('I', described("t\"; DROP TABLE u; --", {"a\") VALUES(1); --"})));
    EXPECT_EQ("ok", ask('R', row(2, "x")));
    EXPECT_EQ("ok 1", ask('N', ""));
    EXPECT_EQ("1", value("SELECT count(*) FROM \"t\"\"; DROP TABLE u; --\""));
}

TEST_F(SqlImportProtocol, StreamOfRowsIsCutAnywhereButEndsBetweenRows)
{
    const std::string rows = row(2, "x") + row(3, "") + row(4, "yz");
    for (size_t cut = 0; cut <= rows.size(); ++cut) {
        EXPECT_EQ("ok", ask('I', described("t", {"a"})));
        EXPECT_EQ("ok", ask('R', rows.substr(0, cut)));
        EXPECT_EQ("ok", ask('R', rows.substr(cut)));
        EXPECT_EQ("ok 3", ask('N', ""));
    }
    EXPECT_EQ(std::to_string(3 * (rows.size() + 1)), value("SELECT count(*) FROM t"));
    sql({"DELETE FROM t"});
    for (const size_t end : {size_t{1}, size_t{8}, rows.size() - 1}) {
        EXPECT_EQ("ok", ask('I', described("t", {"a"})));
        EXPECT_EQ("ok", ask('R', rows.substr(0, end)));
        EXPECT_THAT(ask('N', ""), HasSubstr("the rows end in the middle of one"));
    }
    EXPECT_EQ("0", value("SELECT count(*) FROM t"));
}

TEST_F(SqlImportProtocol, RowOfImpossibleLengthIsRefusedByItsLine)
{
    sqlhost::FieldWriter fields;
    fields.number(uint32_t{77});
    fields.number(uint32_t{4'000'000'000});
    EXPECT_EQ("ok", ask('I', described("t", {"a"})));
    EXPECT_EQ("ok", ask('R', fields.bytes()));
    EXPECT_EQ("line 77: the row has more than 67,108,864 bytes", ask('N', ""));
    EXPECT_EQ("an end without an import", ask('N', ""));
    EXPECT_EQ("0", tables());
}

TEST_F(SqlImportProtocol, NewImportForgetsTheOneBefore)
{
    EXPECT_EQ("ok", ask('I', described("t", {"a"})));
    EXPECT_EQ("ok", ask('R', row(2, "x")));
    EXPECT_EQ("ok", ask('I', described("u", {"a"})));
    EXPECT_EQ("ok 0", ask('N', ""));
    EXPECT_EQ("u", value("SELECT group_concat(name) FROM sqlite_schema"));
}

TEST_F(SqlImportProtocol, StatementsBetweenTheRowsAreTheirOwn)
{
    EXPECT_EQ("ok", ask('I', described("t", {"a"})));
    EXPECT_EQ("ok", ask('R', row(2, "x")));
    EXPECT_EQ("ok 1", ask('Q', "CREATE TABLE t(a); INSERT INTO t VALUES(5)").substr(0, 2) + " 1");
    EXPECT_EQ("ok 1", ask('N', ""));
    EXPECT_EQ("2", value("SELECT count(*) FROM t"));
}

} // namespace
} // namespace kemsd::test
