// SPDX-License-Identifier: Apache-2.0
// A flag or number that threads share and that publishes no other data.
#ifndef ZORVA_RELAXED_ATOMIC_H
#define ZORVA_RELAXED_ATOMIC_H

#include <atomic>

// std::atomic with relaxed ordering throughout. Use it only where nothing but the value itself
// passes between threads.
template <class T>
class relaxed_atomic {
 public:
  constexpr relaxed_atomic(T initial) : value(initial) {}
  operator T() const { return value.load(std::memory_order_relaxed); }
  relaxed_atomic& operator=(T desired) {
    value.store(desired, std::memory_order_relaxed);
    return *this;
  }
  T exchange(T desired) { return value.exchange(desired, std::memory_order_relaxed); }

 private:
  std::atomic<T> value;
};

#endif
