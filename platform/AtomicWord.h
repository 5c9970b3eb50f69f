// Atomic access to plain words that several threads share: the designed members keep their
// plain types, so they are reached through these calls, never through the builtins directly.
// All sequentially consistent; any thread.
#ifndef PLATFORM_ATOMICWORD_H_
#define PLATFORM_ATOMICWORD_H_

template <typename T>
inline T atomicLoad(const T* word) {
    return __atomic_load_n(word, __ATOMIC_SEQ_CST);
}
template <typename T>
inline void atomicStore(T* word, T value) {
    __atomic_store_n(word, value, __ATOMIC_SEQ_CST);
}
// Stores value and returns what the word held before.
template <typename T>
inline T atomicExchange(T* word, T value) {
    return __atomic_exchange_n(word, value, __ATOMIC_SEQ_CST);
}
// Adds delta and returns the value before.
template <typename T>
inline T atomicFetchAdd(T* word, T delta) {
    return __atomic_fetch_add(word, delta, __ATOMIC_SEQ_CST);
}

#endif  // PLATFORM_ATOMICWORD_H_
