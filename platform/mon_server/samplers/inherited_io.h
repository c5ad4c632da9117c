// SPDX-License-Identifier: Apache-2.0
// IO that processes take over from their children.
//
// When a process has waited for a child, the kernel adds all that the child ever read and wrote to
// the process's own figure. What the child already had at the start of an interval was the child's
// then, and would be shown a second time: it is not traffic of the interval. What the child did
// after that, and all that a child did which came and went within the interval, was shown nowhere
// and is: it stays with whoever waited.
#ifndef SAMPLERS_INHERITED_IO_H
#define SAMPLERS_INHERITED_IO_H

#include <cstdint>
#include <map>

#include "samplers/processes.h"

namespace samplers {

class inherited_io {
 public:
  // Finds who waited for the processes that `before` has and `now` has not; both are of processes.
  void find(const process_sample& before, const process_sample& now);

  // Bytes in what the process has more in `now` that its children had in `before`, never more than
  // all of it.
  uint64_t of(const process_entry& process) const;

 private:
  bool take_over(const process_entry& child, const process_entry& before, const process_entry& now);
  void find_heir(const process_entry& child, const process_sample& before,
                 const process_sample& now);

  std::map<int32_t, uint64_t> bytes;  // by process id
};

}  // namespace samplers

#endif
