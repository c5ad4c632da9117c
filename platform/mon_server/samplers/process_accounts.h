// SPDX-License-Identifier: Apache-2.0
// What processes did that the kernel counts by something else than processes (sockets, open files).
#ifndef SAMPLERS_PROCESS_ACCOUNTS_H
#define SAMPLERS_PROCESS_ACCOUNTS_H

#include <cstdint>
#include <map>
#include <vector>

#include "samplers/processes.h"

namespace samplers {

// A total for each process that did something. A process is known by its id and its start, so that
// the next owner of an id begins at 0.
class process_accounts {
 public:
  void add(const process_entry& process, uint64_t amount);

  // Forgets processes that the sample does not have.
  void forget_gone(const process_sample& sample);

  // The total of the process that `entry`, of the sample last given to forget_gone(), belongs to.
  uint64_t total(const process_sample& sample, const process_entry& entry) const;

  // The process did something.
  bool has(const process_entry& process) const;

  // Processes that did something, by ascending ids.
  std::vector<int32_t> process_ids() const;

 private:
  struct account {
    uint64_t start_ticks = 0;
    uint64_t total = 0;
  };
  std::map<int32_t, account> accounts;  // by process id
};

}  // namespace samplers

#endif
