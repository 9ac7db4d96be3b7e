// One matcher for what a call reports: its result and both values it left in the caller's context.
//
//     EXPECT_THAT(reported(KemSdTime, nullptr), Fails(SDSTS_INVALID_PARAM));
//     EXPECT_THAT(reported(KemSdFileClose, -1), Fails(SDSTS_FILE_CLOSE, EBADF));
#pragma once

#include <gmock/gmock.h>
#include <kemsd/context.h>

#include <ostream>

namespace kemsd::test {

struct Report {
    KEM_STS_T result;
    KEM_STS_T sts;
    KEM_OSRETCODE_T osRetCode;

    friend std::ostream& operator<<(std::ostream& out, const Report& r)
    {
        return out << "result " << r.result << ", sts " << r.sts << ", osRetCode " << r.osRetCode;
    }
};

// Values no call leaves behind, so that a call that forgets the context is seen.
constexpr KEM_STS_T kUntouchedSts = -77001;
constexpr KEM_OSRETCODE_T kUntouchedOs = -77002;

// Calls with a context whose fields hold junk, and reports what came back.
template <class... Parameters, class... Arguments>
Report reported(KEM_STS_T (*call)(KEM_PSDCTX_T, Parameters...), Arguments... arguments)
{
    KEM_SDCTX_T context{};
    context.sts = kUntouchedSts;
    context.osRetCode = kUntouchedOs;
    const KEM_STS_T result = call(&context, arguments...);
    return {result, context.sts, context.osRetCode};
}

MATCHER(Succeeds, "succeeds with error number 0") { return arg.result == 0 && arg.sts == 0 && arg.osRetCode == 0; }

MATCHER_P(SucceedsWith, os, "succeeds with error number " + testing::PrintToString(os))
{
    return arg.result == 0 && arg.sts == 0 && arg.osRetCode == os;
}

MATCHER_P2(Fails, sts, os,
           "fails with " + testing::PrintToString(sts) + " and error number " + testing::PrintToString(os))
{
    return arg.result == sts && arg.sts == sts && arg.osRetCode == os;
}

// Fails with error number 0.
inline auto Fails(KEM_STS_T sts) { return Fails(sts, 0); }

// Returns this and leaves the context alone.
MATCHER_P(ReturnsOnly, result, "returns " + testing::PrintToString(result) + " and leaves the context alone")
{
    return arg.result == result && arg.sts == kUntouchedSts && arg.osRetCode == kUntouchedOs;
}

} // namespace kemsd::test
