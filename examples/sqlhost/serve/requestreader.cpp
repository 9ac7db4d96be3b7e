// A request is one frame over a run of messages, of which all but the last are full; where the last is full too, a code
// follows. So the end of a request is known whatever its frame says, and the next one is read from its beginning.
#include "serve/requestreader.h"

#include <cstring>

#include "serve/requests.h"

namespace sqlhost {
namespace {

// One request, message by message, to its end.
class Run {
public:
    Run(KEM_PSDCTX_T context, Channel& channel) : context_(context), channel_(channel) {}

    // The next piece, empty at the end.
    std::string_view next()
    {
        if (ended_) return {};
        const Channel::Message message = channel_.receive(context_);
        ended_ = message.code != 0 || !message.full();
        if (message.code != 0 && message.code != kCodeEnd) stray_ = true;
        return message.data;
    }
    void skip()
    {
        while (!next().empty()) {
        }
    }
    // Something other than a request's end stood in its place.
    bool stray() const { return stray_; }

private:
    KEM_PSDCTX_T context_;
    Channel& channel_;
    bool ended_ = false;
    bool stray_ = false;
};

[[noreturn]] void refuse(Run& run, const std::string& why)
{
    run.skip();
    throw BadRequest(why);
}

} // namespace

Request nextRequest(KEM_PSDCTX_T context, Channel& channel, std::pmr::memory_resource& memory)
{
    Run run(context, channel);
    std::string_view piece = run.next();
    if (piece.size() < kFrameHead) refuse(run, "a request begins with a type and a length");
    uint32_t length;
    memcpy(&length, piece.data() + 1, sizeof length);
    Request request{piece[0], std::pmr::string(&memory)};
    const RequestKind* const kind = requestKind(request.type);
    if (!kind) refuse(run, text("unknown request 0x%02x", static_cast<unsigned char>(request.type)));
    if (length > kind->longest)
        refuse(run, text("a request of this kind may have %s, this one says that it has %s",
                         countedText(kind->longest, "byte").c_str(), countedText(length, "byte").c_str()));
    for (piece.remove_prefix(kFrameHead);;) {
        if (piece.size() > length - request.payload.size()) refuse(run, "the request is longer than it says");
        request.payload += piece;
        piece = run.next();
        if (piece.empty()) break;
    }
    if (run.stray()) throw BadRequest("a code where a request should go on");
    if (request.payload.size() < length) throw BadRequest("the request is shorter than it says");
    return request;
}

} // namespace sqlhost
