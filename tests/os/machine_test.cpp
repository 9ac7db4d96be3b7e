#include <gtest/gtest.h>
#include <kemsd/os.h>
#include <unistd.h>

#include "support/failingcalls.h"

using namespace kemsd::test;

TEST(ProcessorCount, IsThatOfTheProcessorsOnline)
{
    EXPECT_EQ(KemSdCPUCountGet(), static_cast<KEM_ULONG_T>(sysconf(_SC_NPROCESSORS_ONLN)));
    const Failing many(Call::sysconf, 0, 384);
    EXPECT_EQ(KemSdCPUCountGet(), 384u);
}

TEST(ProcessorCount, Is1WhenTheSystemKnowsNone)
{
    const Failing none(Call::sysconf, 0, 0);
    EXPECT_EQ(KemSdCPUCountGet(), 1u);
}

TEST(ProcessorCount, Is1WhenTheSystemDoesNotSay)
{
    const Failing refused(Call::sysconf, EINVAL);
    EXPECT_EQ(KemSdCPUCountGet(), 1u);
}
