// SPDX-License-Identifier: Apache-2.0
// Where the CPUs' time goes: /proc/stat and cpufreq.
#ifndef SAMPLERS_CPU_H
#define SAMPLERS_CPU_H

#include <cstdint>
#include <string_view>
#include <vector>

#include "mon_records.h"
#include "samplers/file_reader.h"

namespace samplers {

// One line of /proc/stat, in ticks since boot. user holds guest time and nice holds guest_nice.
struct cpu_times {
  int32_t cpu = -1;  // -1 in the total
  uint64_t user = 0;
  uint64_t nice = 0;
  uint64_t system = 0;
  uint64_t idle = 0;
  uint64_t iowait = 0;
  uint64_t irq = 0;
  uint64_t softirq = 0;
  uint64_t steal = 0;
  uint32_t freq_khz = unknown_u32;  // unknown_u32 without cpufreq and in the total
};

struct cpu_sample {
  int64_t time_us = 0;          // monotonic
  std::vector<cpu_times> cpus;  // the total first, then the CPUs that are online, ascending
  uint32_t tasks_running = unknown_u32;  // tasks that run or are ready to
  uint32_t tasks_blocked = unknown_u32;  // tasks that wait for I/O
};

int parse_cpu_times(std::string_view text, std::vector<cpu_times>& cpus);
void parse_task_counts(std::string_view text, cpu_sample& sample);
int read_cpu_sample(const file_reader& machine, cpu_sample& sample);

// Shares of the time between two samples, or since boot without `before`. A CPU that came online in
// between, whose counters went down or that no time passed on is unknown; the total is over the
// others.
std::vector<cpu_usage> cpu_rates(const cpu_sample* before, const cpu_sample& now);

}  // namespace samplers

#endif
