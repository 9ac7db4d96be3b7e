// Backups while the server goes on: what is copied is a state that was once committed, and what could be anything else
// is refused. A backup that has to be found in the middle of its copy is stopped there by a library that it preloads.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <thread>

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
using testing::StartsWith;

constexpr char kOver[] =
    "the pause was ended before, at its limit of 1 second or with the server: the copy could be "
    "inconsistent and was removed";

class SqlBackup : public SqlServer {
protected:
    SqlBackup()
    {
        serve();
        // Some pieces of a copy, so that there is a middle.
        sql(
            {"CREATE TABLE t(x); CREATE TABLE bulk(b); WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n "
             "WHERE i<400) INSERT INTO bulk SELECT randomblob(10000) FROM n"});
    }

    std::string copy() const { return path("copy.db"); }
    Ended backUp(const std::vector<std::string>& options = {}) const
    {
        std::vector<std::string> arguments = {"backup", directory(), copy()};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return host(arguments);
    }

    // A backup to which that happens at one of its requests (requests.cpp).
    std::vector<std::string> watchedBackup(const std::string& what, const std::string& destination,
                                           const std::string& limit = "3600") const
    {
        const char* const sanitizer = getenv("ASAN_OPTIONS");
        return {"/usr/bin/env",
                "LD_PRELOAD=" REQUESTS,
                "AT_REQUEST=" + what,
                "ASAN_OPTIONS=" + std::string(sanitizer ? sanitizer : "") + ":verify_asan_link_order=0",
                SQLHOST,
                "backup",
                "--limit",
                limit,
                directory(),
                destination};
    }
    // A backup that has paused writing and stands still in the middle of its copy, or has not yet and does.
    std::unique_ptr<Background> heldBackup(const std::string& destination, const std::string& limit = "3600",
                                           const std::string& where = "stop") const
    {
        auto backup = std::make_unique<Background>(watchedBackup(where, destination, limit));
        int status = 0;
        EXPECT_EQ(backup->pid(), waitpid(backup->pid(), &status, WUNTRACED));
        EXPECT_TRUE(WIFSTOPPED(status)) << status;
        EXPECT_GT(fs::file_size(part(*backup, destination)), 0u);
        return backup;
    }
    static std::string part(const Background& backup, const std::string& destination)
    {
        return destination + ".part-" + std::to_string(backup.pid());
    }
    static std::string pausedBy(const Background& backup)
    {
        return "paused by client " + std::to_string(backup.pid()) + " for 0:";
    }

    static std::string content(const std::string& file)
    {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    void expectIntact(const std::string& file) const
    {
        EXPECT_EQ("ok", PlainDatabase(file).value("PRAGMA integrity_check"));
    }
    // Nothing of a copy is left.
    void expectNoCopy() const
    {
        for (const fs::directory_entry& entry : fs::directory_iterator(path("")))
            EXPECT_THAT(entry.path().filename().string(), testing::Not(StartsWith("copy.db")));
    }
    // The server writes and answers.
    void expectAllIsWell() const
    {
        const int before = std::stoi(value("SELECT count(*) FROM t"));
        sql({"INSERT INTO t VALUES('well')"});
        EXPECT_EQ(std::to_string(before + 1), value("SELECT count(*) FROM t"));
        EXPECT_EQ("going on", status("writes"));
    }
};

// ---- Eight writers -----------------------------------------------------------------------------------------------

// A client that has the server run one text again and again, each time to an answer of one row.
class Busy {
public:
    Busy(std::unique_ptr<Background> client, const std::string& statements)
        : client_(std::move(client)), thread_([this, statements] {
              while (!stop_.load() && !testing::Test::HasFailure()) {
                  client_->say(statements + "SELECT 1 AS done;\n");
                  client_->line(); // the heading
                  if (client_->line() != "1") ADD_FAILURE() << statements;
                  rounds_.fetch_add(1);
              }
          })
    {}
    ~Busy()
    {
        stop_.store(true);
        thread_.join();
    }
    int rounds() const { return rounds_.load(); }

private:
    std::unique_ptr<Background> client_;
    std::atomic<bool> stop_{false};
    std::atomic<int> rounds_{0};
    std::thread thread_;
};

using Crowd = std::vector<std::unique_ptr<Busy>>;

// Waits until each has come further by so many rounds.
bool allMove(const Crowd& crowd, int rounds, const std::function<bool(const std::function<bool()>&)>& eventually)
{
    for (const auto& each : crowd)
        if (const int goal = each->rounds() + rounds; !eventually([&] { return each->rounds() >= goal; })) return false;
    return true;
}

TEST_F(SqlBackup, CopyTakenUnderEightWritersIsOneCommittedState)
{
    sql(
        {"CREATE TABLE a(id INTEGER PRIMARY KEY, amount); CREATE TABLE b(id INTEGER PRIMARY KEY, amount);"
         "CREATE TABLE log(id INTEGER PRIMARY KEY, amount);"
         "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i+1 FROM n WHERE i<499) INSERT INTO a SELECT i,1000 FROM n;"
         "INSERT INTO b SELECT * FROM a"});
    const auto patiently = [](const std::function<bool()>& condition) { return eventually(condition); };
    Crowd writers, readers;
    for (int i = 0; i < 8; ++i) {
        const std::string n = std::to_string(i + 1);
        writers.push_back(std::make_unique<Busy>(
            client(), "BEGIN IMMEDIATE; UPDATE a SET amount=amount-" + n + " WHERE id=abs(random())%500;" +
                          "UPDATE b SET amount=amount+" + n + " WHERE id=abs(random())%500;" +
                          "INSERT INTO log(amount) VALUES(" + n + "); COMMIT;\n"));
    }
    for (int i = 0; i < 2; ++i)
        readers.push_back(std::make_unique<Busy>(client(), "SELECT sum(amount)=sum(amount) AS x FROM a;\n"));
    for (int round = 0; round < 2; ++round) {
        const std::string destination = copy() + std::to_string(round);
        EXPECT_TRUE(allMove(writers, 1, patiently)) << "before";
        auto backup = heldBackup(destination);
        const std::string logged = value("SELECT count(*) FROM log");
        EXPECT_THAT(status("writes"), StartsWith(pausedBy(*backup)));
        EXPECT_EQ("0", status("write leases out"));
        EXPECT_TRUE(allMove(readers, 2, patiently)) << "during";
        EXPECT_EQ(logged, value("SELECT count(*) FROM log"));
        backup->signal(SIGCONT);
        const Ended ended = backup->wait();
        EXPECT_EQ(0, ended.status) << ended.err;
        EXPECT_TRUE(allMove(writers, 1, patiently)) << "after";
        expectIntact(destination);
        PlainDatabase copied(destination);
        EXPECT_EQ(logged, copied.value("SELECT count(*) FROM log"));
        EXPECT_EQ("1000000,1,1", copied.value("SELECT (SELECT sum(amount) FROM a)+(SELECT sum(amount) FROM b),"
                                              "(SELECT 500000-sum(amount) FROM a)=(SELECT sum(amount) FROM log),"
                                              "(SELECT max(id) FROM log)=(SELECT count(*) FROM log)"));
    }
}

// Backups that nobody stops, one after the other, so that some begin in the middle of a commit.
TEST_F(SqlBackup, CopiesInQuickSuccessionAreAllWhole)
{
    Crowd writers;
    for (int i = 0; i < 4; ++i)
        writers.push_back(std::make_unique<Busy>(
            client(), "BEGIN IMMEDIATE; INSERT INTO t VALUES(1); UPDATE bulk SET b=randomblob(10000) WHERE rowid%40=" +
                          std::to_string(i) + "; INSERT INTO t VALUES(-1); COMMIT;\n"));
    for (int i = 0; i < 6; ++i) {
        const Ended ended = backUp({"--force"});
        EXPECT_EQ(0, ended.status) << ended.err;
        EXPECT_THAT(ended.out, ContainsRegex("^[0-9.]+ MiB copied to .*/copy.db; writing stood still for "
                                             "[0-9.]+ m?s\n$"));
        expectIntact(copy());
        EXPECT_EQ("1", PlainDatabase(copy()).value("SELECT coalesce(sum(x),0)=0 FROM t"));
    }
}

// ---- What is copied, and how -------------------------------------------------------------------------------------

TEST_F(SqlBackup, OnlyWhatHasChangedIsCopiedUnderThePause)
{
    auto backup = heldBackup(copy(), "3600", "stop-first");
    EXPECT_EQ("going on", status("writes"));
    sql({"INSERT INTO t VALUES('meanwhile')"}); // on the second page; the first one counts the changes
    backup->signal(SIGCONT);
    const Ended ended = backup->wait();
    EXPECT_EQ(0, ended.status);
    const auto pieces = std::to_string((fs::file_size(copy()) + 65535) / 65536 + 1);
    EXPECT_EQ(pieces + " writes, 1 under the pause\n", ended.err);
    EXPECT_EQ("meanwhile", PlainDatabase(copy()).value("SELECT x FROM t"));
    expectIntact(copy());
}

TEST_F(SqlBackup, FileOfEveryLengthIsCopiedToItsLastByte)
{
    const std::string file = directory() + "/database.db";
    bool endedInABlock = false;
    const auto expectSame = [&] {
        endedInABlock |= fs::file_size(file) % KEM_BLOCK_SIZE != 0;
        EXPECT_EQ(0, backUp({"--force"}).status);
        EXPECT_TRUE(content(file) == content(copy())) << fs::file_size(file);
    };
    expectSame();
    // Grows by pages of half a block, beyond some pieces, and shrinks again.
    for (int i = 0; i < 5; ++i) {
        sql({"INSERT INTO bulk VALUES(randomblob(3000))"});
        expectSame();
    }
    sql({"INSERT INTO bulk VALUES(randomblob(300000))"});
    expectSame();
    sql({"DELETE FROM bulk; VACUUM"});
    expectSame();
    EXPECT_LT(fs::file_size(copy()), 65536u);
    EXPECT_TRUE(endedInABlock) << "no file whose length is no multiple of a block";
}

// ---- Backups that die or hang ------------------------------------------------------------------------------------

TEST_F(SqlBackup, KilledBackupStopsNobody)
{
    auto backup = heldBackup(copy());
    auto writer = client();
    writer->say("INSERT INTO t VALUES(1); SELECT count(*) AS c FROM t;");
    EXPECT_EQ("0", value("SELECT count(*) FROM t"));
    backup->signal(SIGKILL);
    EXPECT_EQ("c", writer->line());
    EXPECT_EQ("1", writer->line());
    EXPECT_FALSE(fs::exists(copy()));
    expectAllIsWell();
    EXPECT_EQ(0, backUp().status);
    expectIntact(copy());
}

TEST_F(SqlBackup, BackupThatIsToldToEndRemovesItsPart)
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        auto backup = heldBackup(copy());
        backup->signal(number);
        backup->signal(SIGCONT);
        EXPECT_EQ(number, backup->wait().signal);
        expectNoCopy();
    }
    expectAllIsWell();
}

TEST_F(SqlBackup, HangingBackupIsEndedAtItsLimitAndRefusesItsCopy)
{
    auto backup = heldBackup(copy(), "1");
    sql({"INSERT INTO t VALUES(1)"});
    EXPECT_EQ("going on", status("writes"));
    backup->signal(SIGCONT);
    EXPECT_THAT(backup->wait(), FailsSaying(kOver));
    expectNoCopy();
    expectAllIsWell();
}

TEST_F(SqlBackup, LimitEndsThePauseAlsoWhenNobodyWrites)
{
    auto backup = heldBackup(copy(), "1");
    EXPECT_TRUE(eventually([this] { return status("writes") == "going on"; }));
    backup->signal(SIGCONT);
    EXPECT_THAT(backup->wait(), FailsSaying(kOver));
    expectNoCopy();
}

// The later pause is not mistaken for the earlier one.
TEST_F(SqlBackup, BackupWhosePauseIsOverRefusesItsCopyDuringAnother)
{
    auto late = heldBackup(copy(), "1");
    EXPECT_TRUE(eventually([this] { return status("writes") == "going on"; }));
    auto next = heldBackup(path("next.db"));
    late->signal(SIGCONT);
    EXPECT_THAT(late->wait(), FailsSaying(kOver));
    expectNoCopy();
    EXPECT_THAT(status("writes"), StartsWith(pausedBy(*next)));
    next->signal(SIGCONT);
    const Ended ended = next->wait();
    EXPECT_EQ(0, ended.status) << ended.err;
    expectIntact(path("next.db"));
    expectAllIsWell();
}

TEST_F(SqlBackup, SecondBackupMeanwhileIsRefused)
{
    auto backup = heldBackup(copy());
    EXPECT_THAT(host({"backup", directory(), path("second.db")}),
                FailsSaying("writing is paused already, for another backup"));
    EXPECT_FALSE(exists("second.db"));
    EXPECT_THAT(status("writes"), AllOf(StartsWith(pausedBy(*backup)), HasSubstr(" of at most 1:00:00")));
    backup->signal(SIGCONT);
    EXPECT_EQ(0, backup->wait().status);
    expectIntact(copy());
}

TEST_F(SqlBackup, EndOfTheServerRefusesTheCopy)
{
    const auto gone = [](pid_t pid) {
        return "the server with process id " + std::to_string(pid) +
               " ended before it had answered: writing may have gone on meanwhile: the copy could be inconsistent and "
               "was removed";
    };
    auto backup = heldBackup(copy());
    pid_t pid = server().pid();
    stopServer();
    backup->signal(SIGCONT);
    EXPECT_THAT(backup->wait(), FailsSaying(gone(pid)));
    serve();
    backup = heldBackup(copy());
    pid = server().pid();
    killServer();
    serve();
    backup->signal(SIGCONT);
    EXPECT_THAT(backup->wait(), FailsSaying(gone(pid)));
    expectNoCopy();
}

// ---- Other programs on the same file -----------------------------------------------------------------------------

// A plain SQLite on the server's file.
class Foreign {
public:
    explicit Foreign(const std::string& directory)
    {
        EXPECT_EQ(SQLITE_OK, sqlite3_open((directory + "/database.db").c_str(), &handle_));
    }
    ~Foreign() { sqlite3_close(handle_); }
    Foreign(const Foreign&) = delete;
    Foreign& operator=(const Foreign&) = delete;

    int run(const char* text) { return sqlite3_exec(handle_, text, nullptr, nullptr, nullptr); }

private:
    sqlite3* handle_ = nullptr;
};

TEST_F(SqlBackup, WriterOfAnotherProcessFindsTheDatabaseBusyMeanwhile)
{
    Foreign foreign(directory());
    auto backup = heldBackup(copy());
    EXPECT_EQ(SQLITE_BUSY, foreign.run("INSERT INTO t VALUES('foreign')"));
    EXPECT_EQ(SQLITE_OK, foreign.run("SELECT count(*) FROM t"));
    backup->signal(SIGCONT);
    EXPECT_EQ(0, backup->wait().status);
    EXPECT_EQ(SQLITE_OK, foreign.run("INSERT INTO t VALUES('foreign')"));
    expectIntact(copy());
    EXPECT_EQ("0", PlainDatabase(copy()).value("SELECT count(*) FROM t"));
}

TEST_F(SqlBackup, WriterOfAnotherProcessIsWaitedFor)
{
    Foreign foreign(directory());
    EXPECT_EQ(SQLITE_OK, foreign.run("BEGIN IMMEDIATE; INSERT INTO t VALUES('foreign')"));
    Background backup({SQLHOST, "backup", directory(), copy()});
    EXPECT_TRUE(eventually([this] { return clients()[0].find(",backup,") != std::string::npos; }));
    EXPECT_EQ("0", value("SELECT count(*) FROM t"));
    EXPECT_EQ(SQLITE_OK, foreign.run("COMMIT"));
    const Ended ended = backup.wait();
    EXPECT_EQ(0, ended.status) << ended.err;
    EXPECT_EQ("1", PlainDatabase(copy()).value("SELECT count(*) FROM t"));
}

// A transaction that reads before it writes keeps its reader's lock while it waits, which must not keep the one that is
// being waited for from its commit.
TEST_F(SqlBackup, WaitingWritersDoNotKeepTheLastOneFromItsCommit)
{
    Crowd writers;
    const auto patiently = [](const std::function<bool()>& condition) { return eventually(condition); };
    for (int i = 0; i < 4; ++i)
        writers.push_back(std::make_unique<Busy>(
            client(), i % 2 ? "INSERT INTO t VALUES(1);\n" : "BEGIN IMMEDIATE; INSERT INTO t VALUES(1); COMMIT;\n"));
    for (int i = 0; i < 12; ++i) {
        EXPECT_EQ(0, backUp({"--force"}).status);
        EXPECT_TRUE(allMove(writers, 1, patiently));
    }
}

// A process that died in mid-transaction leaves half of its pages in the file, and the journal that undoes them.
TEST_F(SqlBackup, TransactionOfADeadProcessIsUndoneBeforeTheCopyIsTaken)
{
    const std::string file = directory() + "/database.db";
    const std::string before = value("SELECT count(*) FROM bulk WHERE b=x'00'");
    const Ended dead = inChild([&] {
        PlainDatabase plain(file);
        plain.run("PRAGMA cache_size=5; BEGIN; UPDATE bulk SET b=x'00'");
        _exit(fs::file_size(file + "-journal") > 0 ? 0 : 1);
        return 1;
    });
    ASSERT_EQ(0, dead.status);
    ASSERT_TRUE(fs::exists(file + "-journal"));
    EXPECT_EQ(0, backUp().status);
    EXPECT_FALSE(fs::exists(file + "-journal"));
    expectIntact(copy());
    EXPECT_EQ(before, PlainDatabase(copy()).value("SELECT count(*) FROM bulk WHERE b=x'00'"));
}

// ---- Where the copy goes -----------------------------------------------------------------------------------------

TEST_F(SqlBackup, ExistingFileIsReplacedOnlyByForce)
{
    write("copy.db", "precious");
    EXPECT_THAT(backUp(), FailsSaying(copy() + " exists; --force replaces it"));
    EXPECT_EQ(8u, fs::file_size(copy()));
    EXPECT_EQ(0, backUp({"--force"}).status);
    expectIntact(copy());
    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, fs::status(copy()).permissions());
}

TEST_F(SqlBackup, FileThatComesIntoBeingMeanwhileIsRespected)
{
    auto backup = heldBackup(copy());
    write("copy.db", "precious");
    backup->signal(SIGCONT);
    EXPECT_THAT(backup->wait(), FailsSaying(copy() + " has come into being meanwhile"));
    EXPECT_EQ(8u, fs::file_size(copy()));
    EXPECT_FALSE(fs::exists(part(*backup, copy())));
}

TEST_F(SqlBackup, PlacesThatCannotBeACopyAreRefused)
{
    fs::create_directory(path("directory"));
    EXPECT_THAT(host({"backup", "--force", directory(), path("directory")}),
                FailsSaying(path("directory") + " is no regular file"));
    const std::string database = directory() + "/database.db";
    EXPECT_THAT(host({"backup", "--force", directory(), database}), FailsSaying(database + " is the database itself"));
    write("copy.db-journal", "of another database");
    EXPECT_THAT(backUp({"--force"}), FailsSaying(copy() + "-journal exists: it would be taken for a part of the copy"));
    fs::remove(copy() + "-journal");
    const Ended nowhere = host({"backup", directory(), path("no/copy.db")});
    EXPECT_EQ(1, nowhere.status);
    EXPECT_THAT(nowhere.err, AllOf(StartsWith("sqlhost: cannot make " + path("no/copy.db.part-")),
                                   HasSubstr(": No such file or directory\n")));
    EXPECT_THAT(host({"backup", path("nothing"), copy()}), FailsSaying("no server serves " + path("nothing")));
    EXPECT_EQ(2, backUp({"--limit", "0"}).status);
    expectNoCopy();
    expectAllIsWell();
}

TEST_F(SqlBackup, FileThatGrowsTooLongIsSaidAndLeavesNothing)
{
    // Files of at most 512 KiB, or 1 MiB where the shell counts in KiB.
    const Ended ended =
        runProgram({"/bin/sh", "-c", "ulimit -f 1024; exec \"$0\" backup \"$1\" \"$2\"", SQLHOST, directory(), copy()});
    EXPECT_EQ(1, ended.status);
    EXPECT_THAT(ended.err, AllOf(StartsWith("sqlhost: cannot write " + copy()), HasSubstr(": File too large\n")));
    expectNoCopy();
    expectAllIsWell();
}

TEST_F(SqlBackup, FullDiskIsSaidAndLeavesNothing)
{
    const std::string disk = path("disk");
    fs::create_directory(disk);
    // In a name space of its own; 77 says that there is no such disk to be had. The second one fills up in the middle
    // of a block.
    for (const std::string size : {"1024k", "1004k"}) {
        const Ended ended = runProgram({"unshare", "-rm", "/bin/sh", "-c",
                                        "mount -t tmpfs -o size=$3 none \"$2\" || exit 77; "
                                        "\"$0\" backup \"$1\" \"$2/copy.db\"; echo $?; ls -A \"$2\"",
                                        SQLHOST, directory(), disk, size});
        const bool none = ended.status == 77 || ended.err.starts_with("unshare");
        if (none) GTEST_SKIP() << "cannot mount a small disk: " << ended.err;
        EXPECT_EQ("1\n", ended.out);
        EXPECT_THAT(ended.err, AllOf(StartsWith("sqlhost: cannot write " + disk + "/copy.db"),
                                     HasSubstr(": No space left on device\n")));
    }
    expectAllIsWell();
}

TEST_F(SqlBackup, RequestThatFailsIsSaidAndLeavesNothing)
{
    struct Case {
        const char* what;
        std::string begin, end;
    };
    for (const Case& c :
         {Case{"fail-read", "cannot read " + directory() + "/database.db", ": Input/output error\n"},
          {"fail-write", "cannot write " + copy() + ".part-", ": Input/output error\n"},
          {"refuse-write", "cannot write " + copy() + ".part-", ": Resource temporarily unavailable\n"}}) {
        const Ended ended = runProgram(watchedBackup(c.what, copy()));
        EXPECT_EQ(1, ended.status) << c.what;
        EXPECT_THAT(ended.err, AllOf(StartsWith("sqlhost: " + c.begin), HasSubstr(c.end)));
        expectNoCopy();
    }
    expectAllIsWell();
}

// ---- Clients that do not keep to the rules -----------------------------------------------------------------------

class SqlPauseProtocol : public SqlBackup {
protected:
    // The error of the answer, or "ok".
    std::string ask(char type, const std::string& payload)
    {
        sqlhost::Connection& connection = link_->connection();
        connection.ask(type, payload);
        std::string error;
        sqlhost::AnswerReader answer(connection.context(), connection.channel());
        while (answer.next()) {
            if (answer.type() != sqlhost::kFrameError) continue;
            sqlhost::FieldReader fields(answer.payload());
            fields.number<uint32_t>();
            error += fields.rest();
        }
        return error.empty() ? "ok" : error;
    }
    std::string pause(uint32_t seconds)
    {
        sqlhost::FieldWriter fields;
        fields.number(seconds);
        return ask('P', fields.bytes());
    }

    sqlhost::ClientRuntime runtime_;
    std::unique_ptr<sqlhost::ServerLink> link_ = std::make_unique<sqlhost::ServerLink>(runtime_.context(), directory());
};

TEST_F(SqlPauseProtocol, LimitIsRequired)
{
    const std::string senseless = "a pause has a limit of 1 to 86,400 seconds";
    EXPECT_EQ(senseless, pause(0));
    EXPECT_EQ(senseless, pause(86401));
    EXPECT_EQ(senseless, ask('P', "xxx"));
    EXPECT_EQ("this client has not paused writing", ask('U', ""));
    expectAllIsWell();
}

TEST_F(SqlPauseProtocol, PauseEndsWithItsConversation)
{
    EXPECT_EQ("ok", pause(3600));
    EXPECT_THAT(status("writes"), StartsWith("paused by client "));
    link_.reset();
    expectAllIsWell();
}

TEST_F(SqlPauseProtocol, ClientThatHasPausedWritingReadsButDoesNotWaitForItself)
{
    EXPECT_EQ("ok", pause(3600));
    EXPECT_EQ("this client has paused writing already", pause(3600));
    EXPECT_THAT(ask('Q', "INSERT INTO t VALUES(1)"), HasSubstr("this client has paused writing to "));
    EXPECT_EQ("ok", ask('Q', "SELECT count(*) FROM bulk"));
    EXPECT_EQ("ok", ask('U', ""));
    EXPECT_EQ("this client has not paused writing", ask('U', ""));
    EXPECT_EQ("ok", ask('Q', "INSERT INTO t VALUES(1)"));
    EXPECT_EQ("1", value("SELECT count(*) FROM t"));
    expectAllIsWell();
}

TEST_F(SqlPauseProtocol, ManyPausesInARowLeaveNothingBehind)
{
    Busy writer(client(), "INSERT INTO t VALUES(1);\n");
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ("ok", pause(3600));
        EXPECT_EQ("ok", ask('U', ""));
    }
    EXPECT_EQ("going on", status("writes"));
}

} // namespace
} // namespace kemsd::test
