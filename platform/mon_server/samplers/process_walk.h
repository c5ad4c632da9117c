// Walks the processes for what only their descriptors tell, a bounded time a sample.
#ifndef SAMPLERS_PROCESS_WALK_H
#define SAMPLERS_PROCESS_WALK_H

#include <cstdint>
#include <functional>

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
  void restart() { next_pid = INT32_MAX; }

 private:
  int32_t next_pid = INT32_MAX;  // the walk goes on with this one or the next below
};

}  // namespace samplers

#endif
