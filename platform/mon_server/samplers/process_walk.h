// Walks the processes for what only their descriptors tell, a bounded time a sample.
#ifndef SAMPLERS_PROCESS_WALK_H
#define SAMPLERS_PROCESS_WALK_H

#include <cstdint>
#include <functional>
#include <vector>

#include "samplers/processes.h"

namespace samplers {

// Goes round all processes from the youngest to the oldest, and on from where it stopped in the
// sample before. What is looked for is mostly found in the processes that came last, so that those
// come first in every sample.
class process_walk {
 public:
  // Visits processes until `visit` returns false, until all have been visited, or until the time of
  // a sample is used up. Returns true when a round has been completed.
  bool go_on(const process_sample& sample, const std::function<bool(const process_entry&)>& visit);

  // Starts a round again from the youngest.
  void restart() { visited_until = process_age(); }

 private:
  struct process_age {
    uint64_t start_ticks = UINT64_MAX;
    int32_t pid = INT32_MAX;
  };

  process_age visited_until;                 // those younger have been visited in this round
  std::vector<const process_entry*> by_age;  // youngest first, while it goes on
};

}  // namespace samplers

#endif
