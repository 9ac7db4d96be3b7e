#include "serve/sessions.h"

#include <algorithm>
#include <iterator>

#include "text.h"

namespace sqlhost {
namespace {

// The lock, held by the calling thread for as long as the object lives.
class Held {
public:
    using Take = KEM_STS_T (*)(void*, KEM_SYNCCTX_T*, void*);
    Held(Take take, KEM_RWLOCK_T& lock) : thread_(ThreadContext::current()), lock_(lock)
    {
        if (take(&thread_, thread_.pSyncCtx, &lock_) != 0) throw Failure("no memory for a lock");
    }
    ~Held() { KemSdEndRW(&thread_, thread_.pSyncCtx, &lock_); }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;

private:
    OV_THDCTX_T& thread_;
    KEM_RWLOCK_T& lock_;
};

} // namespace

Sessions::Sessions(KEM_PSDCTX_T context)
{
    if (KemRWLockInit(context, 0, &lock_, TRUE, RWLOCK_HASHSET_EXPLOCK) != 0)
        throw Failure("cannot make the lock of the sessions");
}

void Sessions::add(std::unique_ptr<Session> session)
{
    const Held held(KemSdStartWrite, lock_);
    sessions_.push_back(std::move(session));
}

std::vector<std::unique_ptr<Session>> Sessions::takeEnded()
{
    const Held held(KemSdStartWrite, lock_);
    const auto stands = [](const std::unique_ptr<Session>& session) { return !session->ended(); };
    const auto ended = std::stable_partition(sessions_.begin(), sessions_.end(), stands);
    std::vector<std::unique_ptr<Session>> taken(std::make_move_iterator(ended),
                                                std::make_move_iterator(sessions_.end()));
    sessions_.erase(ended, sessions_.end());
    return taken;
}

void Sessions::each(const std::function<void(Session&)>& look)
{
    const Held held(KemSdStartRead, lock_);
    for (const std::unique_ptr<Session>& session : sessions_) look(*session);
}

bool Sessions::empty()
{
    const Held held(KemSdStartRead, lock_);
    return sessions_.empty();
}

} // namespace sqlhost
