// The lease guard: in failover mode it runs once for each operation on a descriptor or the file system, before the
// arguments are looked at, and never in the creation of an anonymous pipe.

#include <gtest/gtest.h>
#include <kemsd/ipc.h>
#include <kemsd/memory.h>

#include <string>
#include <vector>

#include "ipc/fifofixture.h"
#include "support/failingcalls.h"
#include "support/guardpasses.h"

using namespace kemsd::test;

namespace {

class PipeGuard : public FifoPlace, protected GuardCounted {
protected:
    ~PipeGuard() override
    {
        closeAll(descriptorsOf(path_));
        closeAll(descriptorsOf(path_ + "_1"));
        closeAll(descriptorsOf(path_ + "_2"));
    }

    static void succeeded(KEM_STS_T sts) { EXPECT_EQ(sts, 0); }
    static void invalid(KEM_STS_T sts) { EXPECT_EQ(sts, SDSTS_INVALID_PARAM); }

    // Valid calls of everything, in an order in which they succeed.
    std::vector<Operation> valid()
    {
        const char* path = path_.c_str();
        return {
            {"PipeCreate", 0, [this] { succeeded(KemSdPipeCreate(nullptr, &pipe_, &pipe_, 0)); }},
            {"PipeWrite", 1, [this] { succeeded(KemSdPipeWrite(nullptr, &pipe_, byte_, 1, &count_)); }},
            {"PipeRead", 1, [this] { succeeded(KemSdPipeRead(nullptr, &pipe_, byte_, 1, &count_)); }},
            {"PipeClose", 1, [this] { succeeded(KemSdPipeClose(nullptr, &pipe_)); }},
            {"NamedPipeIsInitialized", 0, [this] { EXPECT_EQ(KemSdNamedPipeIsInitialized(&pipe_), TRUE); }},
            {"NamedPipeUnixCreate", 1, [=] { succeeded(KemSdNamedPipeUnixCreate(nullptr, path)); }},
            {"NamedPipeUnixConnect", 1, [=, this] { succeeded(KemSdNamedPipeUnixConnect(nullptr, path, &fd_)); }},
            {"NamedPipeCreate", 2, [=] { succeeded(KemSdNamedPipeCreate(nullptr, path, nullptr, 0, 0, 0, 0, 0, 0)); }},
            {"NamedPipeConnect", 2,
             [this] {
                 succeeded(KemSdNamedPipeConnect(nullptr, &named_));
                 freeName();
             }},
            {"NamedPipeOpen", 4,
             [=, this] {
                 succeeded(KemSdNamedPipeOpen(nullptr, nullptr, path, &pipe_, 0, 0, 0, 0));
                 freeName();
             }},
            {"NamedPipeDisconnect", 1,
             [=, this] {
                 KEM_PIPEHDL_T open{fd_, dup(fd_), name_.data()};
                 succeeded(KemSdNamedPipeDisconnect(nullptr, &open));
             }},
            {"NamedPipePeek", 0, [] { EXPECT_NE(KemSdNamedPipePeek(nullptr, nullptr, nullptr, 0, nullptr), 0); }},
            {"NamedPipeWait", 0, [] { EXPECT_NE(KemSdNamedPipeWait(nullptr, nullptr, 0), 0); }},
            {"ovUNIXMakeNmPipe", 1, [=] { succeeded(ovUNIXMakeNmPipe(path)); }},
            {"ovUNIXConnectNmPipe", 1, [=, this] { succeeded(ovUNIXConnectNmPipe(path_.c_str(), &fd_)); }},
            {"ovUNIXPipeWrite", 1,
             [this] {
                 succeeded(ovUNIXPipeWrite({fd_, fd_, nullptr}, byte_, 1, &count_));
             }},
            {"ovUNIXPipeRead", 1,
             [this] {
                 succeeded(ovUNIXPipeRead({fd_, fd_, nullptr}, byte_, 1, &count_));
             }},
            {"ovUNIXDisConnectNmPipe", 1,
             [this] {
                 succeeded(ovUNIXDisConnectNmPipe({fd_, dup(fd_), name_.data()}));
             }},
        };
    }

    // Connecting never frees the name.
    static void freeName() { ovFree(lastBlock(), __FILE__, __LINE__); }

    std::string name_ = path_;
    KEM_PIPEHDL_T pipe_{-1, -1, nullptr};
    KEM_PIPEHDL_T named_{-1, -1, name_.data()};
    int fd_ = -1;
    char byte_[1] = {};
    KEM_ULONG_T count_ = 0;
};

} // namespace

TEST_F(PipeGuard, RunsOnceForEachOperationInFailoverMode) { expectPasses(valid(), true); }

TEST_F(PipeGuard, DoesNotRunOutsideFailoverMode) { expectPasses(valid(), false); }

TEST_F(PipeGuard, RunsBeforeTheArgumentsAreChecked)
{
    expectPasses(
        {
            {"PipeWrite", 1, [] { invalid(KemSdPipeWrite(nullptr, nullptr, nullptr, 0, nullptr)); }},
            {"PipeRead", 1, [] { invalid(KemSdPipeRead(nullptr, nullptr, nullptr, 0, nullptr)); }},
            {"PipeClose", 1, [] { invalid(KemSdPipeClose(nullptr, nullptr)); }},
            {"NamedPipeUnixCreate", 1, [] { invalid(KemSdNamedPipeUnixCreate(nullptr, nullptr)); }},
            {"NamedPipeUnixConnect", 1, [] { invalid(KemSdNamedPipeUnixConnect(nullptr, nullptr, nullptr)); }},
            {"NamedPipeDisconnect", 1, [] { invalid(KemSdNamedPipeDisconnect(nullptr, nullptr)); }},
            {"ovUNIXMakeNmPipe", 1, [] { invalid(ovUNIXMakeNmPipe(nullptr)); }},
            {"ovUNIXConnectNmPipe", 1, [] { invalid(ovUNIXConnectNmPipe(nullptr, nullptr)); }},
            {"ovUNIXDisConnectNmPipe", 1,
             [] {
                 invalid(ovUNIXDisConnectNmPipe({-1, -1, nullptr}));
             }},
            {"ovUNIXPipeWrite", 1, [] { invalid(ovUNIXPipeWrite({}, nullptr, 0, nullptr)); }},
            {"ovUNIXPipeRead", 1, [] { invalid(ovUNIXPipeRead({}, nullptr, 0, nullptr)); }},
        },
        true);
}
