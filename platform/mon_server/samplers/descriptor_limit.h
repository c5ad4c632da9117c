// SPDX-License-Identifier: Apache-2.0
// How this process shares out its descriptors (RLIMIT_NOFILE).
#ifndef SAMPLERS_DESCRIPTOR_LIMIT_H
#define SAMPLERS_DESCRIPTOR_LIMIT_H

#include <sys/resource.h>

#include <algorithm>
#include <cstddef>

namespace samplers {

// What the server needs before it can answer anybody: the standard streams, the event loop's three,
// two for signals, the listening socket, the root folder, sock_diag, /proc for each view, and two
// to read a thread's file.
constexpr size_t least_descriptors = 15;

// Clients, refusals, and the threads of slow reads come on top. What the server could do without
// (counters, BPF, files that stay open) leaves all these to be had.
constexpr size_t reserved_descriptors = 112;

inline size_t descriptor_limit() {
  rlimit limit{};
  return getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : 0;
}

// Those that may be kept open for what the server could do without.
inline size_t spare_descriptors() {
  const size_t limit = descriptor_limit();
  return limit - std::min(limit, reserved_descriptors);
}

// Whether a descriptor of this number may be kept for that. Numbers are given lowest first.
inline bool is_spare(int descriptor) {
  return static_cast<size_t>(descriptor) < spare_descriptors();
}

}  // namespace samplers

#endif
