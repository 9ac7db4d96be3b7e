// Death tests re-run the test in a fresh process, so that a child never inherits another test's threads.

#include <gmock/gmock.h>
#include <kemsd/sync.h>

int main(int argc, char** argv)
{
    testing::InitGoogleMock(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // The first lock of a process would measure the machine: a tenth of a second and 20,000 changes of threads, in
    // every test that creates one. Tests that are about it begin with KemSyncEnvTerm.
    KEM_SDSYNC_ENV_INITED = 1;
    return RUN_ALL_TESTS();
}
