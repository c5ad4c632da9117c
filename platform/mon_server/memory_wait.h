// SPDX-License-Identifier: Apache-2.0
// For threads whose work somebody waits for, and that have nobody to tell of an exception.
#ifndef MEMORY_WAIT_H
#define MEMORY_WAIT_H

#include <chrono>
#include <new>
#include <thread>

// What `work` () returns, as soon as there is memory for it.
template <class function>
auto when_memory_allows(function work) {
  while (true) {
    try {
      return work();
    } catch (const std::bad_alloc&) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }
}

#endif
