#include <fcntl.h>
#include <gtest/gtest.h>
#include <kemsd/file.h>
#include <unistd.h>

#include <csignal>

namespace {

// Reached before the assertion, it would end the process another way.
void leaveInstead() { _exit(3); }

void guardEveryOperation()
{
    KemSdSetLeaseGuardAccessFunction(leaveInstead);
    KemSdSetFailoverModeFlag(TRUE);
}

constexpr const char* kText = ": Assertion `\\(iOFlag & 0200\\) != 0200' failed";

std::string assertionOf(const std::string& function) { return "sd/sdfiolnx:[0-9]+: " + function + kText; }

} // namespace

TEST(FileOpeningDeath, PlainOpenRefusesExclusiveCreationBeforeGuardAndArguments)
{
    EXPECT_EXIT((guardEveryOperation(), KemSdFileOpen(nullptr, nullptr, O_CREAT | O_EXCL, 0600, nullptr)),
                testing::KilledBySignal(SIGABRT), assertionOf("KemSdFileOpen"));
}

TEST(FileOpeningDeath, PlainShareModeOpenRefusesExclusiveCreationBeforeGuardAndArguments)
{
    EXPECT_EXIT((guardEveryOperation(), KemSdFileSOpen(nullptr, nullptr, O_EXCL, 0, 0600, nullptr)),
                testing::KilledBySignal(SIGABRT), assertionOf("KemSdFileSOpen"));
}

TEST(FileOpeningDeath, Plain64BitOpenRefusesExclusiveCreationBeforeGuardAndArguments)
{
    EXPECT_EXIT((guardEveryOperation(), KemSdFileOpen64(nullptr, nullptr, O_EXCL, 0600, nullptr)),
                testing::KilledBySignal(SIGABRT), assertionOf("KemSdFileOpen64"));
}
