// What sqlhost tells about the machine and about itself, with a mount table of the test's own.

#include <sys/utsname.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "hostfixture.h"

namespace kemsd::test {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class SqlHostInfo : public SqlHost {
protected:
    // `sqlhost info` on a machine with this mount table.
    std::string info(const std::string& table, const std::vector<std::string>& options = {}) const
    {
        std::vector<std::string> program = {SQLHOST, "info"};
        program.insert(program.end(), options.begin(), options.end());
        const char* const sanitizer = getenv("ASAN_OPTIONS");
        const Ended ended =
            runProgram(program, {},
                       {"LD_PRELOAD=" OWN_FSTAB, "OWN_FSTAB=" + table,
                        "ASAN_OPTIONS=" + std::string(sanitizer ? sanitizer : "") + ":verify_asan_link_order=0"});
        EXPECT_EQ(0, ended.status) << ended.err;
        EXPECT_EQ("", ended.err);
        return ended.out;
    }
    json infoJson(const std::string& table) const { return json::parse(info(table, {"--json"})); }

    std::string ownTable() const
    {
        return write("fstab", "/dev/a / ext3\nproc /proc proc\n/dev/b /nowhere/of/kemsd ext4\n");
    }
};

TEST_F(SqlHostInfo, JsonHoldsTheMachinesFigures)
{
    utsname names;
    ASSERT_EQ(0, uname(&names));
    const json info = infoJson(ownTable());
    EXPECT_EQ(names.sysname, info["system"]["name"]);
    EXPECT_EQ(names.release, info["system"]["release"]);
    EXPECT_EQ(sysconf(_SC_NPROCESSORS_ONLN), info["processors"]["count"]);
    EXPECT_EQ("X86_64", info["processors"]["type"]);
    EXPECT_EQ(sysconf(_SC_PAGESIZE), info["pageBytes"]);
    EXPECT_EQ(info["memory"]["totalKiB"].get<long>(),
              info["memory"]["usedKiB"].get<long>() + info["memory"]["freeKiB"].get<long>());
    EXPECT_TRUE(info["swap"].contains("freeKiB"));
    EXPECT_GT(info["process"]["addressSpaceKiB"], 0);
    EXPECT_TRUE(info["process"]["limits"]["open files"]["soft"].is_number());
    EXPECT_TRUE(info["unknown"].empty());
}

TEST_F(SqlHostInfo, JsonHoldsTheDrivesOfTheMountTable)
{
    const json drives = infoJson(ownTable())["drives"];
    ASSERT_EQ(3u, drives.size());
    EXPECT_EQ("/", drives[0]["directory"]);
    EXPECT_EQ("Fixed", drives[0]["type"]);
    EXPECT_EQ(true, drives[0]["current"]);
    EXPECT_GT(drives[0]["totalKiB"], 0);
    EXPECT_EQ("RAM", drives[1]["type"]);
    EXPECT_EQ("ext4", drives[2]["fileSystem"]);
    EXPECT_EQ("Unknown", drives[2]["type"]);
    EXPECT_EQ(0, drives[2]["totalKiB"]);
    EXPECT_EQ(false, drives[2]["current"]);
}

TEST_F(SqlHostInfo, TablesAreForPeople)
{
    EXPECT_THAT(info(ownTable()), AllOf(HasSubstr("X86_64"), HasSubstr("physical"), HasSubstr("/nowhere/of/kemsd"),
                                        HasSubstr("open files"), HasSubstr("libraries"), Not(HasSubstr("Not known"))));
    EXPECT_THAT(info(write("empty", "")), HasSubstr("\nNo drives: /etc/fstab has no entries.\n"));
}

TEST_F(SqlHostInfo, WithoutAMountTableEverythingElseIsToldAndTheDrivesAreSaidToBeUnknown)
{
    EXPECT_THAT(info(path("missing")),
                AllOf(HasSubstr("physical"), HasSubstr("open files"),
                      HasSubstr("\nNot known: drives (status 1131008, No such file or directory)\n")));
    const json info = infoJson(path("missing"));
    EXPECT_TRUE(info["drives"].is_null());
    EXPECT_EQ(json::parse(R"([{"what": "drives", "status": 1131008, "error": 2}])"), info["unknown"]);
    EXPECT_TRUE(info["memory"]["totalKiB"].is_number());
}

TEST_F(SqlHostInfo, DirectoryNamesOfAnyBytesStillMakeJson)
{
    const json drives = infoJson(write("fstab", "/dev/a /\xFF\\040\"b ext3\n"))["drives"];
    EXPECT_EQ("/\xEF\xBF\xBD \"b", drives[0]["directory"]);
}

} // namespace
} // namespace kemsd::test
