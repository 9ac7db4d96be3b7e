// The prompt: what is typed there, how an answer is stopped, and the terminal that has its settings back whatever
// happens.

#include <signal.h>

#include "serverfixture.h"
#include "terminalsession.h"

namespace kemsd::test {
namespace {

using testing::HasSubstr;

constexpr char kPrompt[] = "sqlhost> ";
constexpr char kPromptForMore[] = "   ...> ";
constexpr char kEnd[] = "\x04"; // Ctrl-D
// Results that do not end: one prints, one only works.
constexpr char kEndlessRows[] = "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n) SELECT i FROM n;\n";
constexpr char kEndlessWork[] = "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n) SELECT sum(i) FROM n;\n";

class SqlShell : public SqlServer {
protected:
    SqlShell() { serve(); }

    // A shell that has asked for the first statement.
    std::unique_ptr<TerminalSession> shell() const
    {
        auto session = std::make_unique<TerminalSession>(std::vector<std::string>{SQLHOST, "shell", directory()});
        EXPECT_EQ(kPrompt, session->until(kPrompt));
        return session;
    }
    // A shell with this statement under way.
    std::unique_ptr<TerminalSession> shellAtWork(const char* statement) const
    {
        auto session = shell();
        session->type(statement);
        EXPECT_TRUE(eventually([&] { return session->takesKeys() && isBusy(); }));
        return session;
    }
    bool isBusy() const
    {
        for (const std::string& client : clients())
            if (client.find(",statement,") != std::string::npos) return true;
        return false;
    }
    void expectAnswers(TerminalSession& session) const
    {
        session.type("SELECT 'still ' || 'here';\n");
        session.until("still here");
        session.until(kPrompt);
    }
};

TEST_F(SqlShell, AnswersStatementAfterStatement)
{
    const auto session = shell();
    session->type("CREATE TABLE t(x); INSERT INTO t VALUES(1),(2);\n");
    session->until("(2 rows changed)\n");
    session->until(kPrompt);
    session->type("SELECT sum(x) AS total FROM t;\n");
    session->until("total");
    session->until("3\n(1 row)\n");
    session->until(kPrompt);
}

TEST_F(SqlShell, StatementsAndTransactionsMaySpanLines)
{
    const auto session = shell();
    session->type("SELECT\n");
    session->until(kPromptForMore);
    session->type("20+22\n");
    session->until(kPromptForMore);
    session->type(";\n");
    session->until("42\n(1 row)\n");
    session->until(kPrompt);
    session->type("BEGIN; CREATE TABLE t(x);\n");
    session->until(kPromptForMore);
    session->type("COMMIT;\n");
    session->until(kPrompt);
    EXPECT_EQ("0", value("SELECT count(*) FROM t"));
}

TEST_F(SqlShell, ErrorsDoNotEndIt)
{
    const auto session = shell();
    session->type("SELEC;\n");
    session->until("sqlhost: near \"SELEC\": syntax error\n");
    session->until(kPrompt);
    session->type("SELECT 1,\n");
    session->until(kPromptForMore);
    session->type("nowhere;\n");
    session->until("sqlhost: line 2: no such column: nowhere\n");
    session->until(kPrompt);
    expectAnswers(*session);
}

TEST_F(SqlShell, EndsWithCtrlDOrAWordOfItsOwn)
{
    for (const char* end : {kEnd, ".quit\n", " exit\n", "SELECT 1;\nexit\n"}) {
        const auto session = shell();
        session->type(end);
        const Ended ended = session->wait();
        EXPECT_EQ(0, ended.status) << end << ": " << ended.out;
    }
}

TEST_F(SqlShell, WordsOfItsOwnInsideAStatementAreSql)
{
    const auto session = shell();
    session->type("SELECT 'a\n");
    session->until(kPromptForMore);
    session->type("exit\n");
    session->until(kPromptForMore);
    session->type("z' IS NOT NULL AS whole;\n");
    session->until("1\n(1 row)\n");
}

TEST_F(SqlShell, UnfinishedStatementAtTheEndIsNotRun)
{
    const auto session = shell();
    session->type("CREATE TABLE t(x)\n");
    session->until(kPromptForMore);
    session->type(kEnd);
    const Ended ended = session->wait();
    EXPECT_EQ(1, ended.status);
    EXPECT_THAT(ended.out, HasSubstr("sqlhost: the last statement does not end with \";\", and was not run\n"));
    EXPECT_EQ("0", value("SELECT count(*) FROM sqlite_schema"));
}

TEST_F(SqlShell, WhatIsTypedAheadIsNoKeyButTheNextStatements)
{
    const auto session = shell();
    session->type("SELECT 'one'||1; SELECT\n'two'||2;\nSELECT 'three'||3;\n.quit\n");
    for (const char* answer : {"one1\n", "two2\n", "three3\n"}) session->until(answer);
    EXPECT_EQ(0, session->wait().status);
}

// ---- A key

TEST_F(SqlShell, KeyStopsALongResultHereAndInTheServer)
{
    const auto session = shell();
    const termios before = session->terminal().settings();
    session->type(kEndlessRows);
    session->until("\n400\n");
    session->type("q");
    EXPECT_THAT(session->until("rows)\n"), HasSubstr("\n(stopped after "));
    session->until(kPrompt);
    EXPECT_TRUE(eventually([this] { return !isBusy(); }));
    EXPECT_TRUE(sameSettings(before, session->terminal().settings()));
    expectAnswers(*session);
}

TEST_F(SqlShell, KeyStopsAStatementThatPrintsNothingYet)
{
    for (const char* key : {"q", "\x03", "\x1b[A"}) { // Ctrl-C; an arrow
        const auto session = shellAtWork(kEndlessWork);
        session->type(key);
        session->until("sqlhost: stopped: what it did of this is not known\n");
        session->until(kPrompt);
        EXPECT_FALSE(session->takesKeys());
        EXPECT_TRUE(eventually([this] { return !isBusy(); }));
        expectAnswers(*session);
    }
}

TEST_F(SqlShell, LongResultsComeInPieces)
{
    const auto session = shell();
    session->type("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<1000) SELECT i FROM n;\n");
    const std::string answer = session->until("(1,000 rows)\n");
    EXPECT_THAT(answer, HasSubstr("\n500\n"));
    EXPECT_THAT(answer, HasSubstr("\n1000\n(1,000 rows)\n"));
}

// ---- The terminal's settings

TEST_F(SqlShell, SignalsEndItWithTheTerminalRestored)
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGABRT}) {
        const auto session = shellAtWork(kEndlessWork);
        termios before = session->terminal().settings();
        before.c_lflag |= ICANON | ECHO | ISIG;
        session->signal(number);
        EXPECT_EQ(number, session->wait().signal);
        EXPECT_TRUE(sameSettings(before, session->terminal().settings())) << number;
        EXPECT_TRUE(eventually([this] { return !isBusy(); }));
    }
}

TEST_F(SqlShell, EndOfTheServerEndsTheStatementAloneAndTheNextServerAnswers)
{
    const auto session = shellAtWork(kEndlessWork);
    killServer();
    session->until("ended before it had answered: what it did of this is not known\n");
    session->until(kPrompt);
    EXPECT_FALSE(session->takesKeys());
    session->type("SELECT 1;\n");
    session->until("sqlhost: no server serves ");
    session->until(kPrompt);
    serve();
    expectAnswers(*session);
}

// ---- Without a server, without a terminal

TEST_F(SqlShell, NeedsAServerToBeginWith)
{
    stopServer();
    TerminalSession session({SQLHOST, "shell", directory()});
    const Ended ended = session.wait();
    EXPECT_EQ(1, ended.status);
    EXPECT_THAT(ended.out, HasSubstr("sqlhost: no server serves "));
}

TEST_F(SqlShell, WithoutTerminalItReadsStatementsAsSqlDoes)
{
    for (const char* input : {"SELECT 1 AS x;\nSELECT 2 AS y", "SELECT 1;\nSELEC;\nSELECT 2;", ""}) {
        const Ended bySql = host({"sql", directory()}, input), byShell = host({"shell", directory()}, input);
        EXPECT_EQ(bySql.status, byShell.status);
        EXPECT_EQ(bySql.out, byShell.out);
        EXPECT_EQ(bySql.err, byShell.err);
    }
}

} // namespace
} // namespace kemsd::test
