// Calls of the library while a call of the C library is refused. The refusal lasts no longer than the call under test:
// the test framework locks mutexes too.
#pragma once

#include <functional>
#include <utility>

#include "support/failingcalls.h"
#include "support/report.h"

namespace kemsd::test {

// Every call is refused.
template <class... Parameters, class... Arguments>
Report refused(Call refusing, int error, KEM_STS_T (*call)(KEM_PSDCTX_T, Parameters...), Arguments... arguments)
{
    const Failing failing(refusing, error);
    return reported(call, arguments...);
}

// Every call is refused, and meanwhile another thread does something, which is done in the refused call.
template <class... Parameters, class... Arguments>
Report refusedWhile(Call refusing, int error, std::function<void()> meanwhile,
                    KEM_STS_T (*call)(KEM_PSDCTX_T, Parameters...), Arguments... arguments)
{
    const Failing failing(refusing, error, error, std::move(meanwhile));
    return reported(call, arguments...);
}

// The k-th call is refused.
template <class... Parameters, class... Arguments>
Report refusedNth(Call refusing, long k, int error, KEM_STS_T (*call)(KEM_PSDCTX_T, Parameters...),
                  Arguments... arguments)
{
    const Failing failing = Failing::nth(refusing, k, error);
    return reported(call, arguments...);
}

} // namespace kemsd::test
