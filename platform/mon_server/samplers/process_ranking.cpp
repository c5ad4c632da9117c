// SPDX-License-Identifier: Apache-2.0
// The process list: rates between two samples, and the first by a sort key.
#include <algorithm>
#include <cmath>
#include <limits>
#include <tuple>

#include "samplers/inherited_io.h"
#include "samplers/processes.h"
#include "samplers/text.h"

namespace samplers {
namespace {

constexpr double unknown_rate = std::numeric_limits<double>::quiet_NaN();

// A process's CPU time comes from /proc in clock ticks, each part cut to whole ones, or from the
// kernel's own figure; where one follows the other it may seem to have stepped back by two ticks.
constexpr uint64_t cpu_rounding_ns = 20000000;

// So many are rated before those that cannot be listed are dropped.
constexpr size_t most_rated = 8 * max_pid_msgs;

// Nothing runs for less time than none, and a counter that went down tells nothing.
double rate(uint64_t before, uint64_t now, double seconds) {
  if (before == unknown_u64 || now == unknown_u64 || now < before || seconds <= 0) {
    return unknown_rate;
  }
  return static_cast<double>(now - before) / seconds;
}

}  // namespace

// Counters of a process at the start of the interval, and its length.
struct process_ranking::interval {
  uint64_t cpu_ns = 0;
  uint64_t io_bytes = 0;
  uint64_t net_bytes = 0;
  uint64_t bpu_ns = 0;
  double seconds = 0;
  double net_seconds = 0;
};

// A process's life; it is 0 for one that started after the sample was begun. What went over the
// network and to accelerators in all of it nobody knows.
process_ranking::interval process_ranking::lifetime(const process_entry& entry,
                                                    const process_sample& now) {
  interval life;
  life.net_bytes = unknown_u64;
  life.bpu_ns = unknown_u64;
  if (now.uptime_ticks > entry.start_ticks) {
    life.seconds = static_cast<double>(now.uptime_ticks - entry.start_ticks) /
                   static_cast<double>(now.ticks_per_second);
  }
  return life;
}

process_ranking::rated_process process_ranking::rate_over(const interval& over,
                                                          const process_entry& entry,
                                                          int sort_key) {
  rated_process one{};
  one.entry = &entry;
  const bool rounded = entry.cpu_ns < over.cpu_ns && over.cpu_ns - entry.cpu_ns <= cpu_rounding_ns;
  one.cpu = rate(rounded ? entry.cpu_ns : over.cpu_ns, entry.cpu_ns, over.seconds) / 1e9 * 100;
  one.io = rate(over.io_bytes, entry.io_bytes, over.seconds) / 1024;
  one.net = rate(over.net_bytes, entry.net_bytes, over.net_seconds) / 1024;
  one.bpu = rate(over.bpu_ns, entry.bpu_ns, over.seconds) / 1e9 * 100;
  switch (sort_key) {
    case sort_by_bpu:
      one.key = one.bpu;
      break;
    case sort_by_io:
      one.key = one.io;
      break;
    case sort_by_net:
      one.key = one.net;
      break;
    case sort_by_ram:
      one.key = static_cast<double>(entry.rss_kb);
      break;
    default:
      one.key = one.cpu;
  }
  return one;
}

// Walks two samples in step; both are sorted by (pid, start_ticks). A pid with another start is
// another process. One that started after `before` counts from 0. One that is older and yet not in
// `before`, since it could not be read then, has no known start.
void process_ranking::rate_all(const process_sample* before, const process_sample& now,
                               int sort_key) {
  rated.clear();
  const bool comparable = before != nullptr && before->threads == now.threads;
  inherited_io inherited;
  if (comparable && !now.threads) {
    inherited.find(*before, now);
  }
  size_t position = 0;
  for (const process_entry& entry : now.entries) {
    interval over;
    int read_later_ms = entry.read_ms;  // than at the interval's end, or later than at its start
    if (!comparable) {
      over = lifetime(entry, now);
    } else {
      const std::vector<process_entry>& old = before->entries;
      const auto identity = std::tie(entry.pid, entry.start_ticks);
      while (position < old.size() &&
             std::tie(old[position].pid, old[position].start_ticks) < identity) {
        ++position;
      }
      if (position < old.size() &&
          std::tie(old[position].pid, old[position].start_ticks) == identity) {
        const process_entry& start = old[position];
        over = {start.cpu_ns, start.io_bytes, start.net_bytes, start.bpu_ns, 0, 0};
        over.io_bytes += inherited.of(start);
        read_later_ms -= start.read_ms;
      } else if (entry.start_ticks < before->uptime_ticks) {
        over = {unknown_u64, unknown_u64, unknown_u64, unknown_u64, 0, 0};
      }
      over.seconds = static_cast<double>(now.time_us - before->time_us) / 1e6;
      over.net_seconds = static_cast<double>(now.net_time_us - before->net_time_us) / 1e6;
    }
    over.seconds += over.seconds > 0 ? read_later_ms / 1e3 : 0;
    rated.push_back(rate_over(over, entry, sort_key));
    if (rated.size() >= most_rated) {
      keep_first();
    }
  }
}

// Leaves those that the list may hold.
void process_ranking::keep_first() {
  if (rated.size() > max_pid_msgs) {
    std::nth_element(rated.begin(), rated.begin() + max_pid_msgs, rated.end(), comes_first);
    rated.resize(max_pid_msgs);
  }
}

// Highest first, unknown last; those that tie by CPU time, then by pid.
bool process_ranking::comes_first(const rated_process& a, const rated_process& b) {
  const auto rank = [](double figure) {
    return std::isnan(figure) ? -std::numeric_limits<double>::infinity() : figure;
  };
  return std::make_tuple(-rank(a.key), -rank(a.cpu), a.entry->pid) <
         std::make_tuple(-rank(b.key), -rank(b.cpu), b.entry->pid);
}

pid_msg process_ranking::record(const rated_process& one) {
  const process_entry& entry = *one.entry;
  pid_msg message{};
  message.pid = entry.pid;
  message.ppid = entry.ppid;
  std::copy(std::begin(entry.comm), std::end(entry.comm), message.comm);
  message.state = entry.state;
  message.priority = entry.priority;
  message.processor = entry.processor;
  message.io_per_second = static_cast<float>(one.io);
  message.process_usage = static_cast<float>(one.cpu);
  message.net_band = static_cast<float>(one.net);
  message.bpu_usage = static_cast<float>(one.bpu);
  message.rss = entry.rss_kb;
  return message;
}

void process_ranking::top(const process_sample* before, const process_sample& now, int sort_key,
                          top_pid_info& out) {
  rate_all(before, now, sort_key);
  keep_first();
  std::sort(rated.begin(), rated.end(), comes_first);
  out.pid_num = static_cast<int32_t>(rated.size());
  out.pid_total = static_cast<int32_t>(now.entries.size());
  std::transform(rated.begin(), rated.end(), std::begin(out.send_pid_info), record);
}

process_identities process_ranking::processes_of_list(const process_sample& now) const {
  process_identities processes;
  processes.reserve(rated.size());
  for (const rated_process& one : rated) {
    const process_entry* entry = one.entry;
    if (now.threads && entry->pid != entry->ppid) {
      entry = find_process(now, entry->ppid);
    }
    if (entry != nullptr) {
      process_identity& process = processes.emplace_back();
      process.pid = entry->pid;
      std::copy(std::begin(entry->comm), std::end(entry->comm), process.comm);
      process.start_ticks = entry->start_ticks;
      process.activity = entry->activity != 0 ? entry->activity : entry->cpu_ns;
    }
  }
  // Of two with one process id, which one sample may have, the later one.
  const auto earlier = [](const process_identity& a, const process_identity& b) {
    return std::tie(a.pid, b.start_ticks) < std::tie(b.pid, a.start_ticks);
  };
  const auto same_pid = [](const process_identity& a, const process_identity& b) {
    return a.pid == b.pid;
  };
  std::sort(processes.begin(), processes.end(), earlier);
  processes.erase(std::unique(processes.begin(), processes.end(), same_pid), processes.end());
  return processes;
}

const process_entry* find_process(const process_sample& sample, int32_t pid) {
  const auto below = [](const process_entry& entry, int32_t id) { return entry.pid < id; };
  const auto entry = std::lower_bound(sample.entries.begin(), sample.entries.end(), pid, below);
  return entry != sample.entries.end() && entry->pid == pid ? &*entry : nullptr;
}

}  // namespace samplers
