// SPDX-License-Identifier: Apache-2.0
#include "failing_allocation.h"

#include <cstdint>
#include <cstdlib>
#include <new>

std::atomic<size_t> largest_allocation{SIZE_MAX};

#ifndef __SANITIZE_ADDRESS__  // which has its own
void* operator new(size_t size) {
  void* const memory = size <= largest_allocation ? std::malloc(size) : nullptr;
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}
// Not inline, or the compiler sees free() after a new.
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept {
  std::free(memory);
}
#endif
