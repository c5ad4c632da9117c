// SPDX-License-Identifier: Apache-2.0
// What clients cause to be held in memory, and the bounds of it.
#ifndef HELD_SAMPLES_H
#define HELD_SAMPLES_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "mon_protocol.h"

struct session_state;

// All clients together cause so much to be held at most, beside the two newest samples of each
// kind, which one client needs. What is not samples is bounded for each connection: a request, its
// payload, an answer, and 16 KiB of what the session knows of processes.
constexpr size_t most_held = 12 << 20;
constexpr size_t most_held_by_connection =
    2 * (mon_protocol::header_size + mon_protocol::max_request_payload) +
    (mon_protocol::header_size + mon_protocol::max_answer_payload) + 16 * 1024;
constexpr size_t most_held_samples =
    most_held - mon_protocol::most_connections * most_held_by_connection;

// The samples that sessions hold beside the two newest of each kind. One that several hold counts
// once.
class held_samples {
 public:
  // Lets sessions go of them, of the oldest first, until they take at most `most_bytes`.
  void bound(const std::vector<session_state*>& sessions, size_t most_bytes);

 private:
  struct held {
    int kind;  // of sample: processes, CPUs, ...
    int64_t time_us;
    const void* sample;
    size_t size;  // in bytes
  };
  void find(const std::vector<session_state*>& sessions);
  void keep_older();

  std::vector<held> found;
};

// What a session needs no more that has asked nothing for so long: first the starts of its
// intervals, later all samples.
void let_go_when_idle(session_state& state, int64_t idle_us);

#endif
