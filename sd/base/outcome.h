// The result of an operation on its way to the caller's context: a status and the error number that goes with it.
// Code inside passes outcomes around; the context record is written once, at the edge, by finish().
#pragma once

#include <kemsd/context.h>
#include <cerrno>

namespace sd {

struct [[nodiscard]] Outcome {
    KEM_STS_T sts;
    KEM_OSRETCODE_T os;

    constexpr bool failed() const { return sts != 0; }
};

constexpr Outcome ok(KEM_OSRETCODE_T os = 0) { return {0, os}; }

constexpr Outcome fail(KEM_STS_T sts, KEM_OSRETCODE_T os = 0) { return {sts, os}; }

// errno is read here, before any clean-up call can change it.
inline Outcome failErrno(KEM_STS_T sts) { return {sts, errno}; }

// The failure of a call that may have run out of space: a full disk keeps its own status, so that the server can tell
// it from every other cause.
inline Outcome writeFailure(KEM_STS_T otherwise)
{
    const int error = errno;
    return fail(error == ENOSPC ? SDSTS_DISK_FULL : otherwise, error);
}

// Stores both values when a context is given; returns the status.
inline KEM_STS_T finish(KEM_PSDCTX_T ctx, Outcome o)
{
    if (ctx) {
        ctx->sts = o.sts;
        ctx->osRetCode = o.os;
    }
    return o.sts;
}

// Refusals are kept off the straight way of a call.
[[gnu::cold, gnu::noinline]] inline KEM_STS_T finishRefused(KEM_PSDCTX_T ctx, KEM_STS_T failure, KEM_OSRETCODE_T os)
{
    return finish(ctx, fail(failure, os));
}

inline KEM_STS_T finishInvalid(KEM_PSDCTX_T ctx) { return finishRefused(ctx, SDSTS_INVALID_PARAM, 0); }

// For what a call of the thread library answered, whose result is its error number: 0 is success, anything else is the
// failure given.
inline KEM_STS_T finishResult(KEM_PSDCTX_T ctx, int result, KEM_STS_T failure)
{
    if (result != 0) [[unlikely]]
        return finishRefused(ctx, failure, result);
    return finish(ctx, ok());
}

// For the few calls that overwrite the status alone and keep the error number of the call inside.
inline KEM_STS_T restate(KEM_PSDCTX_T ctx, KEM_STS_T sts)
{
    if (ctx) ctx->sts = sts;
    return sts;
}

} // namespace sd
