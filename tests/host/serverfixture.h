// A server on a directory of the test's own, its clients, and what it leaves behind.
#pragma once

#include <functional>
#include <memory>

#include "background.h"
#include "hostfixture.h"

namespace kemsd::test {

class SqlServer : public SqlHost {
protected:
    // Ends the server orderly, and removes what killed ones have left of shared memory and semaphores.
    ~SqlServer() override;

    std::string directory() const { return path("served"); }

    // Starts a server, with these options, and waits until it is ready.
    Background& serve(const std::vector<std::string>& options = {});
    Background& server() { return *server_; }
    // What ends it without its cleaning up, which this waits for; and how it ended.
    Ended endServer(const std::function<void()>& deed);
    // Kills it, so that it cleans nothing up.
    void killServer();
    // Ends it orderly; it must succeed with nothing on standard error, unless the test has provoked complaints.
    void stopServer();
    void expectComplaints() { complaints_ = true; }

    // A client with this text, on arguments: it must succeed with nothing on standard error; what it printed, as CSV.
    std::string sql(const std::vector<std::string>& statements) const;
    // The same, whatever comes of it.
    Ended trySql(const std::vector<std::string>& statements, const std::string& input = {}) const;
    // A client that reads statements from its pipe, and has been let in: it has answered a first one.
    std::unique_ptr<Background> client() const;
    // The only value of a statement's result.
    std::string value(const std::string& statement) const;

    // A figure of the server's status, and its lines about clients.
    std::string status(const std::string& figure) const;
    std::vector<std::string> clients() const;

    // Waits until the condition holds; false when it does not in time.
    static bool eventually(const std::function<bool()>& condition);

    // The System V objects of the running server, by their ids, which the system does not use again soon; and how many
    // of them are still there.
    struct Objects {
        std::vector<int> segments, sets;
    };
    Objects objects() const;
    static int standing(const Objects& objects);
    // The names in the server's directory, files that are not empty marked by a "+".
    std::vector<std::string> names() const;

    // The keys under which those of a segment are found.
    int memoryKey(int segment) const;
    int semaphoreKey(int segment) const;

private:
    void remember();
    void expectOrderlyEnd();

    std::unique_ptr<Background> server_;
    Objects seen_; // those of servers that were killed
    bool complaints_ = false;
};

} // namespace kemsd::test
