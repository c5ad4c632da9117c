// SPDX-License-Identifier: Apache-2.0
// The clocks that samples are stamped with.
#ifndef SAMPLERS_CLOCK_H
#define SAMPLERS_CLOCK_H

#include <cstdint>
#include <ctime>

namespace samplers {

inline int64_t clock_us(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// Rates divide by differences of this one: setting the wall clock does not move it.
inline int64_t monotonic_us() {
  return clock_us(CLOCK_MONOTONIC);
}

// What this thread has run, which other work on a busy machine does not add to.
inline int64_t thread_time_us() {
  return clock_us(CLOCK_THREAD_CPUTIME_ID);
}

}  // namespace samplers

#endif
