// SPDX-License-Identifier: Apache-2.0
// Walks the processes for what only their descriptors tell, a bounded time a sample.
#ifndef SAMPLERS_PROCESS_WALK_H
#define SAMPLERS_PROCESS_WALK_H

#include <cstdint>
#include <functional>
#include <unordered_map>
#include <vector>

#include "samplers/processes.h"

namespace samplers {

// Goes round all processes from the youngest to the oldest, and on from where it stopped in the
// sample before. What is looked for is mostly found in the processes that came last, so that those
// come first in every sample.
//
// A visit sees a piece of a process's descriptors and the next one the piece after it, so that one
// with very many keeps the others waiting no longer than any other. A process that has not run
// since it was seen as a whole has opened nothing since, and is passed over.
class process_walk {
 public:
  // Looks at the descriptors of a process from `next` on, and sets `next` to where to go on, 0
  // after the last. False when all that is looked for has been found.
  using visitor = std::function<bool(const process_entry& process, int32_t& next)>;

  // Visits processes until `visit` returns false, until all have been seen as a whole, or until
  // `end_us` (thread_time_us) has passed. Returns true when a round has been completed.
  bool go_on(const process_sample& sample, int64_t end_us, const visitor& visit);

  // Visits one process out of its turn. Returns what `visit` does, true for one passed over.
  bool visit_one(const process_sample& sample, const process_entry& process, const visitor& visit);

  // The process has been seen as a whole in this round.
  bool has_seen(const process_entry& process) const;

  // Starts a round again from the youngest.
  void restart();

 private:
  struct process_age {
    uint64_t start_ticks = UINT64_MAX;
    int32_t pid = INT32_MAX;
  };
  struct progress {
    uint64_t start_ticks = 0;
    uint64_t activity = 0;  // when its first piece was seen; 0: not known
    int32_t next = 0;       // descriptor to go on from
    uint32_t round = 0;     // in which it was seen as a whole
  };

  void sort_by_age(const process_sample& sample);

  uint32_t round = 1;
  bool pieces_left = false;                       // of processes visited in this pass over all
  process_age visited_until;                      // those younger have been visited in this pass
  std::unordered_map<int32_t, progress> visited;  // by process id
  std::vector<const process_entry*> by_age;       // youngest first, while it goes on
};

}  // namespace samplers

#endif
