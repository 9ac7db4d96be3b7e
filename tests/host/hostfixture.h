// Runs sqlhost in a directory of the test's own, and asks SQLite's own library the same questions.
#pragma once

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <string>
#include <vector>

#include "support/child.h"
#include "support/tempdir.h"

namespace kemsd::test {

// SQLite as it comes: its default memory and files, in the test's process.
class PlainDatabase {
public:
    explicit PlainDatabase(const std::string& path);
    ~PlainDatabase() { sqlite3_close(handle_); }
    PlainDatabase(const PlainDatabase&) = delete;
    PlainDatabase& operator=(const PlainDatabase&) = delete;

    void run(const std::string& sql);
    // The result as CSV lines, headings first: NULL empty, every text with a special character in quotes.
    std::string csv(const std::string& sql);
    // The only value of the result.
    std::string value(const std::string& sql);

private:
    sqlite3* handle_ = nullptr;
};

class SqlHost : public testing::Test {
protected:
    SqlHost() { unsetenv("ZANTOPATH"); }

    std::string path(const std::string& name) const { return dir_.path(name); }
    std::string write(const std::string& name, const std::string& content) const { return dir_.write(name, content); }
    bool exists(const std::string& name) const { return std::filesystem::exists(path(name)); }

    // sqlhost with these arguments, and this text on standard input.
    Ended host(const std::vector<std::string>& arguments, const std::string& input = {}) const;
    // The same, and it must succeed with nothing on standard error; what it printed.
    std::string hostOk(const std::vector<std::string>& arguments, const std::string& input = {}) const;

    std::string small() const { return SQLHOST_SMALL; }

private:
    TempDir dir_;
};

// One sentence on standard error, and exit status 1.
MATCHER_P(FailsSaying, sentence, "fails with the one line \"sqlhost: " + std::string(sentence) + "\"")
{
    *result_listener << "status " << arg.status << ", standard error: " << arg.err;
    return arg.status == 1 && arg.err == "sqlhost: " + std::string(sentence) + "\n";
}

} // namespace kemsd::test
