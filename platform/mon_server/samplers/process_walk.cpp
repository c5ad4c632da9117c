// SPDX-License-Identifier: Apache-2.0
#include "samplers/process_walk.h"

#include <algorithm>
#include <cstddef>
#include <tuple>
#include <utility>

#include "samplers/clock.h"

namespace samplers {
namespace {

constexpr std::ptrdiff_t youngest = 16;

}  // namespace

bool process_walk::go_on(const process_sample& sample, int64_t end_us, const visitor& visit) {
  const int64_t begin_us = thread_time_us();
  sort_by_age(sample);
  const auto before = [this](const process_entry* entry) {
    return std::tie(entry->start_ticks, entry->pid) >=
           std::tie(visited_until.start_ticks, visited_until.pid);
  };
  auto next = std::partition_point(by_age.begin(), by_age.end(), before);
  const auto again = std::min(youngest, next - by_age.begin());
  for (auto one = by_age.begin(); one != by_age.begin() + again; ++one) {
    if (!visit_one(sample, **one, visit)) {
      return false;
    }
    if (thread_time_us() > begin_us + (end_us - begin_us) / 2) {
      break;  // half of the time is for those whose turn it is
    }
  }
  for (; next != by_age.end(); ++next) {
    visited_until = {(*next)->start_ticks, (*next)->pid};
    const bool more_wanted = visit_one(sample, **next, visit);
    pieces_left = pieces_left || !has_seen(**next);
    if (!more_wanted || thread_time_us() > end_us) {
      return false;
    }
  }
  visited_until = {};
  if (std::exchange(pieces_left, false)) {
    return false;
  }
  restart();
  return true;
}

// Not by their ids, which begin anew when the highest has been given.
void process_walk::sort_by_age(const process_sample& sample) {
  by_age.clear();
  for (const process_entry& entry : sample.entries) {
    if (entry.pid == sample.process_of(entry)) {
      by_age.push_back(&entry);
    }
  }
  std::sort(by_age.begin(), by_age.end(), [](const process_entry* a, const process_entry* b) {
    return std::tie(a->start_ticks, a->pid) > std::tie(b->start_ticks, b->pid);
  });
  if (visited.size() > 2 * by_age.size()) {
    visited.clear();  // most of them have gone
  }
}

bool process_walk::visit_one(const process_sample& sample, const process_entry& process,
                             const visitor& visit) {
  const bool whole_process = !sample.threads || process.num_threads == 1;
  const bool known = whole_process && process.state != 'R';  // a running one's figure may lag
  const uint64_t activity = known ? process.activity : 0;
  progress& one = visited[process.pid];
  if (one.start_ticks != process.start_ticks) {
    one = {process.start_ticks, 0, 0, 0};
  }
  if (one.next == 0) {
    if (activity != 0 && one.activity == activity) {
      one.round = round;
      return true;
    }
    one.activity = activity;
  }
  const bool more_wanted = visit(process, one.next);
  const bool seen = more_wanted && one.next == 0;
  if (!more_wanted) {
    one.activity = 0;  // the rest of it was not looked at
  }
  one.round = seen ? round : 0;
  return more_wanted;
}

bool process_walk::has_seen(const process_entry& process) const {
  const auto one = visited.find(process.pid);
  return one != visited.end() && one->second.start_ticks == process.start_ticks &&
         one->second.round == round;
}

void process_walk::restart() {
  ++round;
  pieces_left = false;
  visited_until = process_age();
}

}  // namespace samplers
