// SPDX-License-Identifier: Apache-2.0
#include "samplers/counters.h"

#include <linux/perf_event.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <utility>

#include "samplers/clock.h"
#include "samplers/descriptor_limit.h"
#include "samplers/text.h"

namespace samplers {
namespace {

constexpr const char* online_path = "sys/devices/system/cpu/online";

// As read(2) fills it for PERF_FORMAT_GROUP and the two times.
struct kernel_reading {
  uint64_t count;
  uint64_t enabled_ns;
  uint64_t running_ns;
  uint64_t values[max_group_events];
};

perf_sample unknown_sample() {
  perf_sample sample{};
  static_assert(unknown_u64 == UINT64_MAX, "all ones, which memset can write");
  std::memset(&sample.counters, 0xff, sizeof sample.counters);
  return sample;
}

// One event's count in an interval, unknown_u64 when it never ran or went back.
uint64_t scaled_difference(const group_reading& before, const group_reading& now, int event) {
  const uint64_t enabled = now.enabled_ns - before.enabled_ns;
  const uint64_t running = now.running_ns - before.running_ns;
  if (running == 0 || now.values[event] < before.values[event]) {
    return unknown_u64;
  }
  const uint64_t counted = now.values[event] - before.values[event];
  if (running == enabled) {
    return counted;
  }
  const double share = static_cast<double>(running) / static_cast<double>(enabled);
  return static_cast<uint64_t>(std::llround(static_cast<double>(counted) / share));
}

}  // namespace

perf_sample counter_differences(const counter_reading* before, const counter_reading& now) {
  perf_sample sample = unknown_sample();
  const int64_t start_us = before == nullptr ? now.opened_us : before->time_us;
  if (now.time_us <= start_us) {
    return sample;
  }
  sample.interval_us = static_cast<uint64_t>(now.time_us - start_us);
  if (before != nullptr &&
      (before->opened_us != now.opened_us || before->groups.size() != now.groups.size())) {
    return sample;
  }
  std::vector<counter_member> not_running;
  for (size_t i = 0; i < now.groups.size(); ++i) {
    const group_reading& group = now.groups[i];
    const group_reading start = before == nullptr ? group_reading() : before->groups[i];
    const bool was_valid = before == nullptr || start.valid;
    // Events of a CPU that is offline are not enabled and add nothing.
    if (!group.valid || !was_valid || group.enabled_ns <= start.enabled_ns) {
      continue;
    }
    for (int event = 0; event < group.count; ++event) {
      const uint64_t counted = scaled_difference(start, group, event);
      uint64_t& sum = sample.counters.*group.counters[event];
      if (counted == unknown_u64) {
        not_running.push_back(group.counters[event]);
      } else {
        sum = sum == unknown_u64 ? counted : sum + counted;
      }
    }
  }
  for (const counter_member counter : not_running) {
    sample.counters.*counter = unknown_u64;
  }
  return sample;
}

// With too few descriptors the same number of events is left out on every CPU: a count of some CPUs
// alone would be wrong.
int counter_set::open() {
  constexpr size_t all_events = sizeof(perf_counters) / sizeof(uint64_t);
  size_t most = all_events;
  int error = open_on_all(most);
  while (error == -EMFILE && most > 1) {
    most /= 2;
    error = open_on_all(most);
  }
  lacks_descriptors = most < all_events;
  return error;
}

int counter_set::open_on_all(size_t most_events) {
  groups.clear();
  refused.clear();
  online_cpus = reader.read_line(online_path);
  const std::vector<int32_t> cpus = parse_cpu_list(online_cpus);
  const std::vector<pmu> pmus = read_pmus(reader);
  int first_error = 0;
  for (const int32_t cpu : cpus) {
    const int error = open_cpu(pmus, cpu, most_events);
    if (error == -EMFILE) {
      groups.clear();
      return error;
    }
    first_error = first_error == 0 ? error : first_error;
  }
  opened_us = monotonic_us();
  if (groups.empty()) {
    return first_error != 0 ? first_error : -ENODEV;
  }
  return 0;
}

// The first error of an event is returned, but an event that does not open is only left out; the
// next of its group leads then. Without a descriptor for it no other is tried.
int counter_set::open_cpu(const std::vector<pmu>& pmus, int32_t cpu, size_t most_events) {
  int first_error = 0;
  int group_number = -1;
  size_t opened = 0;
  open_group group;
  for (const planned_event& event : plan_events(pmus, cpu)) {
    if (opened == most_events) {
      break;
    }
    if (event.group != group_number && group.count > 0) {
      groups.push_back(std::move(group));
      group = open_group();
    }
    group_number = event.group;
    const int error = open_event(event, cpu, group);
    if (error == -EMFILE) {
      return error;
    }
    if (error == 0) {
      ++opened;
    } else {
      note_refusal(event.counter, error);
    }
    first_error = first_error == 0 ? error : first_error;
  }
  if (group.count > 0) {
    groups.push_back(std::move(group));
  }
  return first_error;
}

void counter_set::note_refusal(counter_member counter, int error) {
  const bool known =
      std::any_of(refused.begin(), refused.end(),
                  [counter](const refused_counter& one) { return one.counter == counter; });
  if (!known) {
    refused.push_back({counter, error});
  }
}

int counter_set::open_event(const planned_event& event, int32_t cpu, open_group& group) {
  perf_event_attr attributes{};
  attributes.size = sizeof attributes;
  attributes.type = event.type;
  attributes.config = event.config;
  attributes.read_format =
      PERF_FORMAT_TOTAL_TIME_ENABLED | PERF_FORMAT_TOTAL_TIME_RUNNING | PERF_FORMAT_GROUP;
  const int leader = group.count == 0 ? -1 : group.events[0].get();
  file_descriptor opened(
      static_cast<int>(syscall(SYS_perf_event_open, &attributes, -1, cpu, leader,
                               static_cast<unsigned long>(PERF_FLAG_FD_CLOEXEC))));
  if (!opened) {
    return -errno;
  }
  if (!is_spare(opened.get())) {
    return -EMFILE;
  }
  group.counters[group.count] = event.counter;
  group.events[group.count] = std::move(opened);
  ++group.count;
  return 0;
}

// A leader whose CPU has gone reads nothing, or itself alone.
bool counter_set::read_group(const open_group& group, group_reading& reading) {
  kernel_reading result{};
  const ssize_t size = ::read(group.events[0].get(), &result, sizeof result);
  if (size <= 0 || result.count != static_cast<uint64_t>(group.count)) {
    return false;
  }
  reading.enabled_ns = result.enabled_ns;
  reading.running_ns = result.running_ns;
  std::copy(std::begin(result.values), std::end(result.values), reading.values);
  return true;
}

// False when a group has ended: its CPU has been offline, even if it is back by now.
bool counter_set::read_groups(counter_reading& reading) {
  bool all_count = true;
  reading.groups.clear();
  reading.opened_us = opened_us;
  reading.time_us = monotonic_us();
  for (open_group& group : groups) {
    group_reading counts;
    counts.count = group.count;
    std::copy(std::begin(group.counters), std::end(group.counters), counts.counters);
    counts.valid = read_group(group, counts);
    all_count = all_count && counts.valid && counts.enabled_ns > group.enabled_ns;
    group.enabled_ns = counts.enabled_ns;
    reading.groups.push_back(counts);
  }
  return all_count;
}

int counter_set::read(counter_reading& reading) {
  const bool same_cpus = reader.read_line(online_path) == online_cpus;
  if (!same_cpus || !read_groups(reading)) {
    const int error = open();
    if (error != 0) {
      return error;
    }
    read_groups(reading);
  }
  return groups.empty() ? -ENODEV : 0;
}

}  // namespace samplers
