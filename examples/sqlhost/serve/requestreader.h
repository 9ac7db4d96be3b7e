// The server's reading of a client's requests. It trusts nothing in them: a length only says how much is to be refused.
#pragma once

#include <memory_resource>
#include <string>

#include "text.h"
#include "wire/channel.h"

namespace sqlhost {

// A request that cannot be understood; its text is the answer. The next request can be read.
struct BadRequest : Failure {
    using Failure::Failure;
};

struct Request {
    char type;
    std::pmr::string payload;
};

// Waits for the next request and takes it whole, into this memory. Throws BadRequest, or PeerGone.
Request nextRequest(KEM_PSDCTX_T context, Channel& channel, std::pmr::memory_resource& memory);

} // namespace sqlhost
