// Modules that add functions to SQL: those that come with the host, and those that cannot be used.

#include "serverfixture.h"

namespace kemsd::test {
namespace {

using testing::EndsWith;

const std::vector<std::string> kBoth = {"--module", MEDIAN, "--module", REGEXP};

class SqlModule : public SqlServer {
protected:
    // On a database file, as CSV without the heading.
    std::string answer(const std::string& statement) const
    {
        PlainDatabase(path("a.db")).run("PRAGMA user_version=1");
        const Ended ended = host({"run", "--csv", path("a.db"), "--module", MEDIAN, "--module", REGEXP}, statement);
        return ended.out.substr(ended.out.find('\n') + 1) + ended.err;
    }
};

TEST_F(SqlModule, MedianIsTheMiddleOfTheNumbersOfAGroup)
{
    EXPECT_EQ("3.0\n", answer("SELECT median(value) FROM json_each('[9, 1, 3]')"));
    EXPECT_EQ("2.5\n", answer("SELECT median(value) FROM json_each('[9, 1, 3, null, 2.0]')"));
    EXPECT_EQ("\n", answer("SELECT median(value) FROM json_each('[null]')"));
    EXPECT_EQ("\n", answer("SELECT median(value) FROM json_each('[]')"));
    EXPECT_EQ("50000.5\n", answer("WITH RECURSIVE n(i) AS (SELECT 100000 UNION ALL SELECT i-1 FROM n WHERE i>1)"
                                  "SELECT median(i) FROM n"));
    EXPECT_EQ("a,4.0\nb,7.5\n", answer("SELECT column1, median(column2) FROM "
                                       "(VALUES('a', 4), ('b', 5), ('b', 10)) GROUP BY 1"));
    EXPECT_THAT(answer("SELECT median(value) FROM json_each('[1, \"x\"]')"),
                EndsWith("line 1: median() is of numbers alone\n"));
}

TEST_F(SqlModule, RegexpSearchesForExtendedExpressions)
{
    EXPECT_EQ("1,0,1,,\n", answer("SELECT 'abc' REGEXP 'b', 'abc' REGEXP '^b', 'abc' REGEXP '^(x|a)b+', "
                                  "NULL REGEXP 'b', 'abc' REGEXP NULL"));
    EXPECT_EQ("ab\nbb\n", answer("SELECT value FROM json_each('[\"ab\", \"bb\", \"ba\"]') WHERE value REGEXP 'b$'"));
    EXPECT_EQ("1\n0\n", answer("SELECT 'ab' REGEXP value FROM json_each('[\"b$\", \"a$\"]')"));
    EXPECT_THAT(answer("SELECT 'x' REGEXP '('"), EndsWith("line 1: Unmatched ( or \\(\n"));
}

TEST_F(SqlModule, FunctionsWorkForEveryClientOfAServer)
{
    serve(kBoth);
    std::vector<std::unique_ptr<Background>> all;
    for (int i = 0; i < 4; ++i) all.push_back(client());
    for (const auto& client : all)
        client->say("SELECT median(value) AS m, max(value) REGEXP '^9' AS r FROM json_each('[9, 1, 3, 2]');");
    for (const auto& client : all) {
        EXPECT_EQ("m,r", client->line());
        EXPECT_EQ("2.5,1", client->line());
    }
}

TEST_F(SqlModule, WithoutModuleThereIsNoFunction)
{
    serve({"--module", MEDIAN});
    EXPECT_THAT(trySql({"SELECT 'a' REGEXP 'a'"}), FailsSaying("no such function: REGEXP"));
}

// ---- Refusals: of `run` and of `serve`, which then serves nobody

class SqlModuleRefused : public SqlServer {
protected:
    void expectRefusal(const std::string& module, const std::string& sentence) const
    {
        PlainDatabase(path("a.db")).run("PRAGMA user_version=1");
        EXPECT_THAT(host({"run", path("a.db"), "--module", module}, "SELECT 1"), FailsSaying(sentence));
        EXPECT_THAT(host({"serve", directory(), "--module", MEDIAN, "--module", module}), FailsSaying(sentence));
    }
};

TEST_F(SqlModuleRefused, FileIsMissing)
{
    const std::string file = path("none.so");
    expectRefusal(file, "module " + file + " cannot be loaded: " + file +
                            ": cannot open shared object file: No such file or directory");
}

TEST_F(SqlModuleRefused, FileIsNoModule)
{
    const std::string file = write("text.so", "text");
    expectRefusal(file, "module " + file + " cannot be loaded: " + file + ": file too short");
}

TEST_F(SqlModuleRefused, FunctionIsMissing)
{
    const std::string file = REQUESTS;
    expectRefusal(file, file + " is no module for sqlhost: " + file + ": undefined symbol: sqlhostRegister");
}

TEST_F(SqlModuleRefused, ModuleDoesNotWant)
{
    expectRefusal(REFUSING, "module " REFUSING " refuses to work: it has enough");
}

TEST_F(SqlModuleRefused, ModuleThatRefusesLaterFailsThatClientsRequests)
{
    serve({"--module", TIRING});
    const std::string sentence = "module " TIRING " refuses to work: it has enough";
    for (int client = 0; client < 2; ++client) EXPECT_THAT(trySql({"SELECT 1"}), FailsSaying(sentence));
}

} // namespace
} // namespace kemsd::test
