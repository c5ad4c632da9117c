// The process list: rates between two samples, and the first by a sort key.
#include <algorithm>
#include <cmath>
#include <limits>
#include <tuple>

#include "samplers/processes.h"
#include "samplers/text.h"

namespace samplers {
namespace {

constexpr double unknown_rate = std::numeric_limits<double>::quiet_NaN();

struct candidate {
  const process_entry* entry;
  double cpu;  // percent of one CPU
  double io;   // KiB/s
  double key;  // the figure that is sorted by
};

// Counters of a process at the start of the interval, and its length.
struct interval {
  uint64_t cpu_ticks = 0;
  uint64_t io_bytes = 0;
  double seconds = 0;
};

// Nothing runs for less time than none, and a counter that went down tells nothing.
double rate(uint64_t before, uint64_t now, double seconds) {
  if (before == unknown_u64 || now == unknown_u64 || now < before || seconds <= 0) {
    return unknown_rate;
  }
  return static_cast<double>(now - before) / seconds;
}

double key_of(const candidate& one, int sort_key) {
  switch (sort_key) {
    case sort_by_bpu:
    case sort_by_net:
      return unknown_rate;
    case sort_by_io:
      return one.io;
    case sort_by_ram:
      return static_cast<double>(one.entry->rss_kb);
    default:
      return one.cpu;
  }
}

candidate measure(const process_entry& entry, const interval& over, int64_t ticks_per_second,
                  int sort_key) {
  candidate one{&entry, 0, 0, 0};
  one.cpu = 100 * rate(over.cpu_ticks, entry.cpu_ticks, over.seconds) /
            static_cast<double>(ticks_per_second);
  one.io = rate(over.io_bytes, entry.io_bytes, over.seconds) / 1024;
  one.key = key_of(one, sort_key);
  return one;
}

// A process's life; it is 0 for one that started after the sample was begun.
interval lifetime(const process_entry& entry, const process_sample& now) {
  interval life;
  if (now.uptime_ticks > entry.start_ticks) {
    life.seconds = static_cast<double>(now.uptime_ticks - entry.start_ticks) /
                   static_cast<double>(now.ticks_per_second);
  }
  return life;
}

// Walks two samples in step; both are sorted by (pid, start_ticks). A pid with another start is
// another process, and one that is new counts from 0.
std::vector<candidate> measure_all(const process_sample* before, const process_sample& now,
                                   int sort_key) {
  std::vector<candidate> all;
  all.reserve(now.entries.size());
  const bool comparable = before != nullptr && before->threads == now.threads;
  size_t position = 0;
  for (const process_entry& entry : now.entries) {
    interval over;
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
        over.cpu_ticks = old[position].cpu_ticks;
        over.io_bytes = old[position].io_bytes;
      }
      over.seconds = static_cast<double>(now.time_us - before->time_us) / 1e6;
    }
    all.push_back(measure(entry, over, now.ticks_per_second, sort_key));
  }
  return all;
}

// Highest first, unknown last; those that tie by CPU time, then by pid.
bool comes_first(const candidate& a, const candidate& b) {
  const auto rank = [](double figure) {
    return std::isnan(figure) ? -std::numeric_limits<double>::infinity() : figure;
  };
  return std::make_tuple(-rank(a.key), -rank(a.cpu), a.entry->pid) <
         std::make_tuple(-rank(b.key), -rank(b.cpu), b.entry->pid);
}

pid_msg record(const candidate& one) {
  constexpr float unknown_figure = std::numeric_limits<float>::quiet_NaN();
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
  message.net_band = unknown_figure;
  message.bpu_usage = unknown_figure;
  message.rss = entry.rss_kb;
  return message;
}

}  // namespace

void top_processes(const process_sample* before, const process_sample& now, int sort_key,
                   top_pid_info& out) {
  std::vector<candidate> all = measure_all(before, now, sort_key);
  const size_t listed = std::min<size_t>(all.size(), max_pid_msgs);
  const auto end = all.begin() + static_cast<std::ptrdiff_t>(listed);
  std::partial_sort(all.begin(), end, all.end(), comes_first);
  out.pid_num = static_cast<int32_t>(listed);
  out.pid_total = static_cast<int32_t>(all.size());
  std::transform(all.begin(), end, std::begin(out.send_pid_info), record);
}

}  // namespace samplers
