// Every word that two threads touch is read and written through these, its order named at the place of use. The relaxed
// forms compile to the same instruction as a plain access; they also stand for the words that are racy by design.
// On x86-64 acquire loads and release stores cost nothing either: "a store fence" of the lock protocols is their order.
#pragma once

#include <type_traits>

namespace sd {

template <class T>
using Word = std::remove_cv_t<T>;

template <class T>
inline Word<T> loadRelaxed(const T& word)
{
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
}

template <class T>
inline Word<T> loadAcquire(const T& word)
{
    return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

template <class T>
inline void storeRelaxed(T& word, std::type_identity_t<Word<T>> value)
{
    __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}

template <class T>
inline void storeRelease(T& word, std::type_identity_t<Word<T>> value)
{
    __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

// Adds to a word that is only written under a lock, or whose lost updates are accepted: a load and a store, not a
// locked instruction. The sum wraps. Returns the value before.
template <class T>
inline Word<T> addUnlocked(T& word, std::type_identity_t<Word<T>> value)
{
    using Unsigned = std::make_unsigned_t<Word<T>>;
    const Word<T> before = loadRelaxed(word);
    storeRelaxed(word, static_cast<Word<T>>(static_cast<Unsigned>(before) + static_cast<Unsigned>(value)));
    return before;
}

// The processor's spin-wait hint.
inline void pauseHint() { __builtin_ia32_pause(); }

} // namespace sd
