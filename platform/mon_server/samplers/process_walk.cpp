#include "samplers/process_walk.h"

#include <algorithm>
#include <cstddef>
#include <tuple>

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
  by_age.clear();
  for (const process_entry& entry : sample.entries) {
    if (entry.pid == sample.process_of(entry)) {
      by_age.push_back(&entry);
    }
  }
  // Not by their ids, which begin anew when the highest has been given.
  std::sort(by_age.begin(), by_age.end(), [](const process_entry* a, const process_entry* b) {
    return std::tie(a->start_ticks, a->pid) > std::tie(b->start_ticks, b->pid);
  });
  const auto visited = [this](const process_entry* entry) {
    return std::tie(entry->start_ticks, entry->pid) >=
           std::tie(visited_until.start_ticks, visited_until.pid);
  };
  auto next = std::partition_point(by_age.begin(), by_age.end(), visited);
  const auto again = std::min<std::ptrdiff_t>(youngest, next - by_age.begin());
  if (!std::all_of(by_age.begin(), by_age.begin() + again,
                   [&](const process_entry* entry) { return visit(*entry); })) {
    return false;
  }
  for (; next != by_age.end(); ++next) {
    visited_until = {(*next)->start_ticks, (*next)->pid};
    if (!visit(**next) || monotonic_us() > end_us) {
      return false;
    }
  }
  restart();
  return true;
}

}  // namespace samplers
