// SPDX-License-Identifier: Apache-2.0
#include "zorva/bounded_lock.h"

#include <unistd.h>

std::unique_lock<std::mutex> lock_within(std::mutex& lock, int limit_ms) {
  constexpr int slice_ms = 5;
  std::unique_lock<std::mutex> taken(lock, std::try_to_lock);
  for (int waited_ms = 0; !taken.owns_lock() && waited_ms < limit_ms; waited_ms += slice_ms) {
    usleep(slice_ms * 1000);
    taken.try_lock();
  }
  return taken;
}
