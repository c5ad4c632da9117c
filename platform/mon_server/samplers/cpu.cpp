// SPDX-License-Identifier: Apache-2.0
#include "samplers/cpu.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <limits>
#include <string>

#include "samplers/clock.h"
#include "samplers/text.h"

namespace samplers {
namespace {

constexpr float unknown_share = std::numeric_limits<float>::quiet_NaN();

// A CPU line of /proc/stat as proc_stat(5) numbers its columns.
bool parse_cpu_line(std::string_view line, cpu_times& times) {
  const std::string_view label = take_word(line).substr(3);  // after "cpu"
  if (!label.empty()) {
    const uint64_t cpu = to_u64(label);
    if (cpu >= max_cpus) {
      return false;
    }
    times.cpu = static_cast<int32_t>(cpu);
  }
  uint64_t* const columns[] = {
      &times.user,     // (1) user, includes (9) guest
      &times.nice,     // (2) nice, includes (10) guest_nice
      &times.system,   // (3) system
      &times.idle,     // (4) idle
      &times.iowait,   // (5) iowait, since Linux 2.5.41
      &times.irq,      // (6) irq, since Linux 2.6.0
      &times.softirq,  // (7) softirq, since Linux 2.6.0
      &times.steal,    // (8) steal, since Linux 2.6.11
  };
  constexpr int needed = 4;
  int number = 0;
  for (uint64_t* column : columns) {
    const std::string_view word = take_word(line);
    if (word.empty()) {
      break;
    }
    *column = to_u64(word);
    if (*column == unknown_u64) {
      return false;
    }
    ++number;
  }
  return number >= needed;
}

uint32_t read_frequency(const file_reader& machine, int32_t cpu) {
  char path[80];
  snprintf(path, sizeof path, "sys/devices/system/cpu/cpu%d/cpufreq/scaling_cur_freq", cpu);
  const uint64_t khz = machine.read_u64(path);
  return khz < unknown_u32 ? static_cast<uint32_t>(khz) : unknown_u32;
}

constexpr uint64_t cpu_times::*counters[] = {
    &cpu_times::user,   &cpu_times::nice, &cpu_times::system,  &cpu_times::idle,
    &cpu_times::iowait, &cpu_times::irq,  &cpu_times::softirq, &cpu_times::steal};

// idle and iowait may go down, says proc_stat(5): the kernel moves time from one to the other.
// Their sum goes down by rounding at most. A CPU that came back may begin again at 0, which is a
// lot more.
bool idle_time_between(const cpu_times& before, const cpu_times& now, cpu_times& spent) {
  constexpr int64_t rounding_ticks = 100;
  const auto idle = static_cast<int64_t>(now.idle - before.idle);
  const auto iowait = static_cast<int64_t>(now.iowait - before.iowait);
  const int64_t both = std::max<int64_t>(idle + iowait, 0);
  spent.idle = static_cast<uint64_t>(std::clamp<int64_t>(idle, 0, both));
  spent.iowait = static_cast<uint64_t>(both) - spent.idle;
  return idle + iowait >= -rounding_ticks;
}

// The time between two lines of one CPU. False when its counters began anew.
bool time_between(const cpu_times& before, const cpu_times& now, cpu_times& spent) {
  for (const auto counter : counters) {
    const bool may_decrease = counter == &cpu_times::idle || counter == &cpu_times::iowait;
    if (!may_decrease && now.*counter < before.*counter) {
      return false;
    }
    spent.*counter = now.*counter - before.*counter;
  }
  return idle_time_between(before, now, spent);
}

void add(cpu_times& sum, const cpu_times& spent) {
  for (const auto counter : counters) {
    sum.*counter += spent.*counter;
  }
}

cpu_usage shares(const cpu_times& now, const cpu_times& spent) {
  uint64_t total = 0;
  for (const auto counter : counters) {
    total += spent.*counter;
  }
  const auto share = [total](uint64_t ticks) {
    return total == 0 ? unknown_share
                      : static_cast<float>(100.0 * static_cast<double>(ticks) /
                                           static_cast<double>(total));
  };
  cpu_usage usage{};
  usage.cpu = now.cpu;
  usage.freq_khz = now.freq_khz;
  usage.user = share(spent.user);
  usage.nice = share(spent.nice);
  usage.system = share(spent.system);
  usage.idle = share(spent.idle);
  usage.iowait = share(spent.iowait);
  usage.irq = share(spent.irq);
  usage.softirq = share(spent.softirq);
  usage.steal = share(spent.steal);
  return usage;
}

// The same CPUs when they had done nothing.
std::vector<cpu_times> at_boot(const std::vector<cpu_times>& cpus) {
  std::vector<cpu_times> zeros(cpus.size());
  std::transform(cpus.begin(), cpus.end(), zeros.begin(), [](const cpu_times& now) {
    cpu_times zero;
    zero.cpu = now.cpu;
    return zero;
  });
  return zeros;
}

}  // namespace

int parse_cpu_times(std::string_view text, std::vector<cpu_times>& cpus) {
  cpus.clear();
  while (starts_with(text, "cpu") && cpus.size() <= max_cpus) {
    cpu_times times;
    if (parse_cpu_line(take_line(text), times)) {
      cpus.push_back(times);
    }
  }
  return !cpus.empty() && cpus.front().cpu == -1 ? 0 : -EBADMSG;
}

// Looks from the end: the line of interrupts before these may be long.
void parse_task_counts(std::string_view text, cpu_sample& sample) {
  const auto count_after = [text](std::string_view label) {
    const size_t place = text.rfind(label);
    std::string_view rest =
        place == std::string_view::npos ? std::string_view() : text.substr(place + label.size());
    return static_cast<uint32_t>(std::min<uint64_t>(to_u64(take_word(rest)), unknown_u32));
  };
  sample.tasks_running = count_after("\nprocs_running ");
  sample.tasks_blocked = count_after("\nprocs_blocked ");
}

int read_cpu_sample(const file_reader& machine, cpu_sample& sample) {
  std::string content;
  const int error = machine.read("proc/stat", content);
  sample.time_us = monotonic_us();
  const int result = error != 0 ? error : parse_cpu_times(content, sample.cpus);
  parse_task_counts(content, sample);
  if (result != 0) {
    sample.cpus.clear();
    return result;
  }
  for (cpu_times& times : sample.cpus) {
    if (times.cpu >= 0) {
      times.freq_khz = read_frequency(machine, times.cpu);
    }
  }
  return 0;
}

// The kernel's total has all CPUs, and in one step the idle time of a CPU's whole absence when it
// comes back. So it is taken only when both samples have the same CPUs, else their sum.
std::vector<cpu_usage> cpu_rates(const cpu_sample* before, const cpu_sample& now) {
  if (now.cpus.empty()) {
    return {};
  }
  const std::vector<cpu_times> zeros =
      before == nullptr ? at_boot(now.cpus) : std::vector<cpu_times>();
  const std::vector<cpu_times>& old = before == nullptr ? zeros : before->cpus;
  std::vector<cpu_usage> usages(1);
  usages.reserve(now.cpus.size());
  cpu_times sum;
  bool same_cpus = old.size() == now.cpus.size();
  auto start = old.begin();  // both ascend
  for (auto times = now.cpus.begin() + 1; times != now.cpus.end(); ++times) {
    start = std::find_if(start, old.end(),
                         [times](const cpu_times& one) { return one.cpu >= times->cpu; });
    const bool found = start != old.end() && start->cpu == times->cpu;
    cpu_times spent;
    if (!found || !time_between(*start, *times, spent)) {
      spent = cpu_times();
      same_cpus = false;
    }
    add(sum, spent);
    usages.push_back(shares(*times, spent));
  }
  cpu_times total;
  same_cpus = same_cpus && time_between(old.front(), now.cpus.front(), total);
  usages.front() = shares(now.cpus.front(), same_cpus ? total : sum);
  return usages;
}

}  // namespace samplers
