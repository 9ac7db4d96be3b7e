// Threads that visit one reader-writer lock, each told step by step what to do. Neither they nor those who wait for
// them call anything that the tests count: they wait by the futex itself.
#pragma once

#include <gtest/gtest.h>
#include <kemsd/sync.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>
#include <utility>

#include "sync/waiting.h"

namespace kemsd::test {

// A word that threads wait for.
class Signal {
public:
    int value() const { return __atomic_load_n(&value_, __ATOMIC_ACQUIRE); }
    void set(int value)
    {
        __atomic_store_n(&value_, value, __ATOMIC_SEQ_CST);
        syscall(SYS_futex, &value_, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
    }
    // Gives up after a minute: what the test then does with threads that are stuck is beyond repair.
    void await(int wanted)
    {
        for (int i = 0; i < 600; ++i) {
            const int now = value();
            if (now == wanted) return;
            const timespec aTenth{0, 100000000};
            syscall(SYS_futex, &value_, FUTEX_WAIT_PRIVATE, now, &aTenth, nullptr, 0);
        }
        fprintf(stderr, "a thread waits for another in vain\n");
        abort();
    }

private:
    int value_ = 0;
};

// The lock's calls: the library's, or those of a copy.
struct LockCalls {
    KEM_STS_T (*startRead)(void*, KEM_SYNCCTX_T*, void*);
    KEM_STS_T (*startWrite)(void*, KEM_SYNCCTX_T*, void*);
    KEM_STS_T (*end)(void*, KEM_SYNCCTX_T*, void*);
    KEM_STS_T (*freeNodes)(KEM_SYNCCTX_T*);
};

inline constexpr LockCalls kOwnCalls{KemSdStartRead, KemSdStartWrite, KemSdEndRW, KemRWLockFreeQNodes};

class Visitor {
public:
    // The lock must be free; the visitor passes through it once, as a reader, to have its node.
    explicit Visitor(KEM_RWLOCK_T& lock, const LockCalls& calls = kOwnCalls)
        : lock_(lock), calls_(calls), thread_([this] { serve(); })
    {
        EXPECT_EQ(startRead(), 0);
        EXPECT_EQ(end(), 0);
        node = static_cast<KEM_RWLOCKQNODE_T**>(context.pFree)[lock.category];
    }
    ~Visitor()
    {
        tell(Errand::leave);
        thread_.join();
    }
    Visitor(const Visitor&) = delete;
    Visitor& operator=(const Visitor&) = delete;

    // Do it and return what came back.
    KEM_STS_T startRead() { return done(Errand::read); }
    KEM_STS_T startWrite() { return done(Errand::write); }
    KEM_STS_T end() { return done(Errand::end); }
    KEM_STS_T freeNodes() { return done(Errand::freeNodes); }

    // Begin with it; result() waits until it is done.
    void beginRead() { tell(Errand::read); }
    void beginWrite() { tell(Errand::write); }
    void beginEnd() { tell(Errand::end); }
    void beginFreeNodes() { tell(Errand::freeNodes); }
    KEM_STS_T result()
    {
        told_.await(0);
        return result_;
    }
    bool back() const { return told_.value() == 0; }

    // What the thread does first of all in its next errand.
    void prepare(std::function<void()> preparation) { preparation_ = std::move(preparation); }

    std::thread& thread() { return thread_; }

    KEM_SYNCCTX_T context{};           // to be looked at while the visitor is back, or waits in the lock
    KEM_RWLOCKQNODE_T* node = nullptr; // its place at the lock

private:
    enum class Errand { read, write, end, freeNodes, leave };

    void tell(Errand errand)
    {
        told_.await(0);
        errand_ = errand;
        told_.set(1);
    }
    KEM_STS_T done(Errand errand)
    {
        tell(errand);
        return result();
    }
    KEM_STS_T run(Errand errand)
    {
        switch (errand) {
            case Errand::read:
                return calls_.startRead(nullptr, &context, &lock_);
            case Errand::write:
                return calls_.startWrite(nullptr, &context, &lock_);
            case Errand::end:
                return calls_.end(nullptr, &context, &lock_);
            default:
                return calls_.freeNodes(&context);
        }
    }
    void serve()
    {
        Errand errand;
        do {
            told_.await(1);
            errand = errand_;
            if (preparation_) std::exchange(preparation_, nullptr)();
            result_ = run(errand);
            told_.set(0);
        } while (errand != Errand::leave);
    }

    KEM_RWLOCK_T& lock_;
    const LockCalls& calls_;
    Signal told_; // 1 while there is an errand; orders the members below
    Errand errand_ = Errand::end;
    KEM_STS_T result_ = 0;
    std::function<void()> preparation_;
    std::thread thread_; // last: it uses the others
};

} // namespace kemsd::test
