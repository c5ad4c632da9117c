#include "samplers/process_walk.h"

#include <algorithm>

#include "samplers/clock.h"

namespace samplers {
namespace {

// A walk over the descriptors of 2,000 processes takes some 40 ms: it is spread over samples, such
// that it adds less to each than reading the processes costs.
constexpr int64_t longest_us = 2000;
constexpr int youngest = 16;

}  // namespace

bool process_walk::go_on(const process_sample& sample,
                         const std::function<bool(const process_entry&)>& visit) {
  const int64_t end_us = monotonic_us() + longest_us;
  const std::vector<process_entry>& all = sample.entries;
  const auto is_process = [&](const process_entry& entry) {
    return entry.pid == sample.process_of(entry);
  };
  int left = next_pid == INT32_MAX ? 0 : youngest;
  for (auto entry = all.rbegin(); entry != all.rend() && left > 0; ++entry) {
    if (is_process(*entry)) {
      --left;
      if (!visit(*entry)) {
        return false;
      }
    }
  }
  const auto above = [](int32_t pid, const process_entry& entry) { return pid < entry.pid; };
  auto position = std::upper_bound(all.begin(), all.end(), next_pid, above);
  while (position != all.begin()) {
    --position;
    next_pid = position->pid - 1;
    if (is_process(*position) && (!visit(*position) || monotonic_us() > end_us)) {
      return false;
    }
  }
  restart();
  return true;
}

}  // namespace samplers
