// SPDX-License-Identifier: Apache-2.0
// Records of the BPF program as entries of a sample.
#ifndef SAMPLERS_TASK_ENTRIES_H
#define SAMPLERS_TASK_ENTRIES_H

#include <cstdint>
#include <vector>

#include "samplers/process_stat.h"
#include "samplers/processes.h"
#include "samplers/task_record.h"

namespace samplers {

// Records of one pass as processes or as threads, by ascending id. Keeps the memory it works in.
class task_entries {
 public:
  void make_threads(const std::vector<task_record>& tasks,
                    std::vector<process_entry>& entries) const;

  // A process's figures are sums over its threads. One whose threads came or went while the records
  // were written has no consistent sum: it is left out, and its id added to `torn`.
  void make_processes(const std::vector<task_record>& tasks, std::vector<process_entry>& entries,
                      std::vector<int32_t>& torn);

 private:
  struct process_sum {
    const task_record* first;  // of its threads
    int32_t threads;           // added so far
    bool consistent;
  };

  void add_thread(const task_record& task, std::vector<process_entry>& entries);
  void leave_out_torn(std::vector<process_entry>& entries, std::vector<int32_t>& torn) const;

  const stat_units units;
  std::vector<process_sum> sums;  // of the entries, in their order
};

}  // namespace samplers

#endif
