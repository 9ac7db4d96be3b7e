// Old files that a pattern matches: what is kept, what is removed, and what is never touched.

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>

#include "serverfixture.h"

namespace kemsd::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

class SqlPrune : public SqlServer {
protected:
    // A file that is so many hours old.
    void make(const std::string& name, int hours) const
    {
        write("backups/" + name, name);
        fs::last_write_time(path("backups/" + name), fs::file_time_type::clock::now() - std::chrono::hours(hours));
    }
    std::string backups() const { return path("backups"); }
    Ended prune(const std::string& pattern, const std::string& keep, std::vector<std::string> more = {}) const
    {
        more.insert(more.begin(), {"prune", backups(), pattern, "--keep", keep});
        return host(more);
    }
    // The same, which must succeed; what it printed.
    std::string pruned(const std::string& pattern, const std::string& keep, std::vector<std::string> more = {}) const
    {
        const Ended ended = prune(pattern, keep, more);
        EXPECT_EQ(0, ended.status);
        EXPECT_EQ("", ended.err);
        return ended.out;
    }
    std::vector<std::string> left() const
    {
        std::vector<std::string> names;
        for (const fs::directory_entry& entry : fs::directory_iterator(backups()))
            names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }
    std::string line(const char* word, const std::string& name) const
    {
        return std::string(word) + " " + backups() + "/" + name + "\n";
    }
};

TEST_F(SqlPrune, KeepsTheNewestOfThoseThatMatchAndRemovesTheOthersNewestFirst)
{
    make("a.db", 3);
    make("b.db", 1);
    make("c.db", 4);
    make("d.db", 2);
    make("notes", 9);
    EXPECT_EQ(line("removed", "a.db") + line("removed", "c.db") + "(2 files removed, 2 kept)\n", pruned("?.db", "2"));
    EXPECT_THAT(left(), ElementsAre("b.db", "d.db", "notes"));
    EXPECT_EQ("(0 files removed, 2 kept)\n", pruned("*.db", "2"));
    EXPECT_EQ("(0 files removed, 0 kept)\n", pruned("x*", "2"));
    EXPECT_EQ(line("removed", "b.db") + line("removed", "d.db") + "(2 files removed, 0 kept)\n", pruned("[bd]*", "0"));
    EXPECT_THAT(left(), ElementsAre("notes"));
}

TEST_F(SqlPrune, OfTheSameAgeTheLaterNamesAreKept)
{
    const auto now = fs::file_time_type::clock::now();
    for (const char* name : {"c2", "c1", "c3"}) {
        make(name, 1);
        fs::last_write_time(path("backups/") + name, now);
    }
    EXPECT_EQ(line("removed", "c1") + "(1 file removed, 2 kept)\n", pruned("c*", "2"));
}

TEST_F(SqlPrune, DryRunOnlyShows)
{
    make("a.db", 2);
    make("b.db", 1);
    EXPECT_EQ(line("would remove", "a.db") + "(1 file to remove, 1 kept)\n", pruned("*.db", "1", {"--dry-run"}));
    EXPECT_THAT(left(), ElementsAre("a.db", "b.db"));
}

TEST_F(SqlPrune, WhatIsNoRegularFileIsNeitherKeptNorRemoved)
{
    make("a.db", 5);
    make("b.db", 6);
    fs::create_directory(path("backups/c.db"));
    ASSERT_EQ(0, mkfifo(path("backups/d.db").c_str(), 0600));
    fs::create_symlink("a.db", path("backups/e.db"));
    fs::create_symlink("nowhere", path("backups/f.db"));
    make(".g.db", 9);
    EXPECT_EQ(line("removed", "b.db") + "(1 file removed, 1 kept)\n", pruned("*.db", "1"));
    EXPECT_THAT(left(), ElementsAre(".g.db", "a.db", "c.db", "d.db", "e.db", "f.db"));
}

TEST_F(SqlPrune, ALinkThatLeadsNowhereIsPassedOverWhereverItComes)
{
    fs::create_directories(backups());
    fs::create_symlink("nowhere", path("backups/a.db")); // all that matches, so also the first match
    EXPECT_EQ("(0 files removed, 0 kept)\n", pruned("*.db", "1"));
}

TEST_F(SqlPrune, EveryRefusalNamesTheFileAndTheReason)
{
    EXPECT_THAT(prune("*", "1"), FailsSaying("cannot open " + backups() + "/: No such file or directory"));
    make("a.db", 1);
    EXPECT_THAT(prune("x/*", "1"), FailsSaying("x/*: a pattern is for names, which hold no \"/\""));
    const std::string longest(121, 'a');
    EXPECT_THAT(prune(longest, "1"), FailsSaying(longest + ": longer than a search allows"));
    EXPECT_EQ(2, host({"prune", backups(), "*"}).status); // --keep is not guessed
    EXPECT_EQ(2, prune("*", "-1").status);
    EXPECT_THAT(left(), ElementsAre("a.db"));
}

TEST_F(SqlPrune, FileThatCannotBeRemovedIsNamed)
{
    if (geteuid() == 0) GTEST_SKIP() << "the superuser may remove any file";
    make("a.db", 1);
    fs::permissions(backups(), fs::perms::owner_read | fs::perms::owner_exec);
    EXPECT_THAT(prune("*", "0"), FailsSaying("cannot remove " + backups() + "/a.db: Permission denied"));
    fs::permissions(backups(), fs::perms::owner_all);
}

TEST_F(SqlPrune, AServersDirectoryIsLeftAlone)
{
    serve();
    EXPECT_THAT(host({"prune", directory(), "*", "--keep", "0"}),
                FailsSaying(directory() + " is a server's directory: what lies there is the server's"));
}

TEST_F(SqlPrune, OldBackupsGoAndTheNewestIsADatabase)
{
    serve();
    sql({"CREATE TABLE t(x); INSERT INTO t VALUES(1)"});
    fs::create_directory(backups());
    for (const char* name : {"b1.db", "b2.db", "b3.db"}) hostOk({"backup", directory(), backups() + "/" + name});
    EXPECT_EQ(line("removed", "b2.db") + line("removed", "b1.db") + "(2 files removed, 1 kept)\n",
              pruned("b*.db", "1"));
    EXPECT_EQ("1", PlainDatabase(path("backups/b3.db")).value("SELECT x FROM t"));
}

} // namespace
} // namespace kemsd::test
