// Word-sized fields that one thread writes under a lock and others read
// without one (list counts, thread states). Relaxed atomic accesses compile
// to plain loads and stores, and make the intent visible to race checkers.
#pragma once

template <typename T>
inline T relaxed_load(const T &field) {
  return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

template <typename T>
inline void relaxed_store(T &field, T value) {
  __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}
