// SPDX-License-Identifier: Apache-2.0
#include "samplers/process_accounts.h"

#include <iterator>

namespace samplers {

void process_accounts::add(const process_entry& process, uint64_t amount) {
  account& one = accounts[process.pid];
  if (one.start_ticks != process.start_ticks) {
    one = {process.start_ticks, 0};
  }
  one.total += amount;
}

void process_accounts::forget_gone(const process_sample& sample) {
  for (auto one = accounts.begin(); one != accounts.end();) {
    const process_entry* process = find_process(sample, one->first);
    const bool gone = process == nullptr || process->start_ticks != one->second.start_ticks;
    one = gone ? accounts.erase(one) : std::next(one);
  }
}

uint64_t process_accounts::total(const process_sample& sample, const process_entry& entry) const {
  const auto one = accounts.find(sample.process_of(entry));
  return one == accounts.end() ? 0 : one->second.total;
}

bool process_accounts::has(const process_entry& process) const {
  const auto one = accounts.find(process.pid);
  return one != accounts.end() && one->second.start_ticks == process.start_ticks;
}

std::vector<int32_t> process_accounts::process_ids() const {
  std::vector<int32_t> ids;
  for (const auto& [pid, one] : accounts) {
    ids.push_back(pid);
  }
  return ids;
}

}  // namespace samplers
