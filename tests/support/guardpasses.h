// How often calls run the lease guard.
#pragma once

#include <gtest/gtest.h>
#include <kemsd/context.h>

#include <functional>
#include <type_traits>
#include <vector>

namespace kemsd::test {

inline int guardPasses;

// A fixture's part: the guard counts its runs.
class GuardCounted {
protected:
    // A call, how often it runs the guard in failover mode, and the status that it answers if it has one.
    struct Operation {
        template <class Call>
        Operation(const char* called, int passes, Call body, KEM_STS_T status = 0) : name(called), expected(passes)
        {
            if constexpr (std::is_void_v<std::invoke_result_t<Call>>)
                call = std::move(body);
            else
                call = [=] { EXPECT_EQ(body(), status) << called; };
        }

        const char* name;
        int expected;
        std::function<void()> call;
    };

    GuardCounted()
    {
        KemSdSetLeaseGuardAccessFunction([] { ++guardPasses; });
    }
    ~GuardCounted() { KemSdSetFailoverModeFlag(FALSE); }

    // Does one after the other, in failover mode or not; outside it nothing runs the guard.
    static void expectPasses(const std::vector<Operation>& operations, bool failover)
    {
        KemSdSetFailoverModeFlag(failover);
        for (const Operation& operation : operations) {
            guardPasses = 0;
            operation.call();
            EXPECT_EQ(guardPasses, failover ? operation.expected : 0) << operation.name;
        }
        KemSdSetFailoverModeFlag(FALSE);
    }
};

} // namespace kemsd::test
