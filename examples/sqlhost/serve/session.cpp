#include "serve/session.h"

#include <new>

#include "serve/belongings.h"
#include "serve/dossier.h"
#include "serve/guard.h"
#include "serve/requestreader.h"
#include "serve/requests.h"
#include "serve/service.h"
#include "serve/unitofwork.h"

namespace sqlhost {

Session::Session(Service& service, const Slot& slot, const Hello& client)
    : service_(service), slot_(slot), client_(client), channel_(slot.shared, slot.slot)
{}

void Session::start()
{
    KEM_THDID_T id = 0;
    if (KemSdThreadCreate(service_.server().context(), threadBody, nullptr, 0, this, &id, &thread_) == 0) return;
    ended_.store(true, std::memory_order_release);
    throw Failure("no thread for a further client");
}

void Session::join() { KemSdThreadJoin(service_.server().context(), &thread_); }

// Nothing of the session is touched once it has ended: the joining thread frees it.
void* Session::threadBody(void* parameter)
{
    Session& session = *static_cast<Session*>(parameter);
    Service& service = session.service_;
    session.work();
    session.activity_.store("ended", std::memory_order_relaxed);
    session.ended_.store(true, std::memory_order_release); // pairs with ended()
    service.wake();
    return nullptr;
}

// The slot is the client's until it leaves, so a session that cannot work still answers.
void Session::work()
try {
    try {
        ThreadContext thread(&service_.server().net(), &service_.server().service());
        service_.server().placeThread();
        const KnownThread known(service_.dossier(), thread.record(), this);
        converse(thread.record());
    } catch (const std::exception& failure) {
        refuseAll(failure.what());
    }
} catch (const PeerGone&) {
}

void Session::converse(OV_THDCTX_T& thread)
{
    std::optional<Database> database;
    Belongings belongings(service_.pause());
    while (answerNext(thread, database, belongings)) {
    }
}

// The connection, made for the first request that needs one. The guard comes last: no module loosens it.
Database& Session::open(KEM_PSDCTX_T context, std::optional<Database>& database)
try {
    if (database) return *database;
    database.emplace(service_.directory().database, DatabaseMode::existing);
    service_.modules().addTo(*database, context);
    guard(*database, channel_);
    return *database;
} catch (...) {
    database.reset(); // half made
    throw;
}

// One request is one unit of work, from its first byte to the last of its answer.
bool Session::answerNext(OV_THDCTX_T& thread, std::optional<Database>& database, Belongings& belongings)
{
    KEM_PSDCTX_T const context = thread.pSdCtx;
    UnitOfWork work(thread);
    Answer answer(context, channel_, work);
    activity_.store("idle", std::memory_order_relaxed);
    try {
        const Request request = nextRequest(context, channel_, work);
        const RequestKind& kind = *requestKind(request.type);
        requests_.fetch_add(1, std::memory_order_relaxed);
        if (!kind.handler) return false;
        activity_.store(kind.what, std::memory_order_relaxed);
        Desk desk{service_, open(context, database), channel_, belongings, slot_, client_.pid};
        kind.handler(desk, request.payload, answer);
        answer.finish();
    } catch (const RequestFailure& failure) {
        answer.fail(failure.place, failure.what());
    } catch (const Failure& failure) {
        answer.fail(kNoPlace, failure.what());
    } catch (const std::bad_alloc&) {
        answer.fail(kNoPlace, "the server is out of memory");
    } catch (const std::exception& failure) {
        answer.fail(kNoPlace, failure.what());
    }
    return true;
}

void Session::refuseAll(const char* why)
{
    std::pmr::memory_resource& memory = *std::pmr::get_default_resource();
    activity_.store("failed", std::memory_order_relaxed);
    for (;;) {
        try {
            if (!requestKind(nextRequest(nullptr, channel_, memory).type)->handler) return;
        } catch (const BadRequest&) {
        }
        Answer(nullptr, channel_, memory).fail(kNoPlace, why);
    }
}

} // namespace sqlhost
