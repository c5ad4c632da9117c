// SPDX-License-Identifier: Apache-2.0
// Which event of which PMU each counter is on a CPU.
#ifndef SAMPLERS_COUNTER_EVENTS_H
#define SAMPLERS_COUNTER_EVENTS_H

#include <cstdint>
#include <string>
#include <vector>

#include "mon_records.h"
#include "samplers/file_reader.h"

namespace samplers {

using counter_member = uint64_t perf_counters::*;

// A performance monitoring unit of /sys/bus/event_source/devices. Clusters of different cores have
// one each.
struct pmu {
  std::string name;
  uint32_t type = 0;                // as in perf_event_attr
  bool core = false;                // of CPUs, not of something that they share
  std::vector<int32_t> cpus;        // that it counts on, ascending
  std::vector<std::string> events;  // that it names, in natural order
};

// An event as perf_event_open(2) takes it. Events of one group count at the same times, which is
// what makes a ratio of two of them true.
struct planned_event {
  counter_member counter = nullptr;
  int group = 0;
  uint32_t type = 0;
  uint64_t config = 0;
};

std::vector<counter_member> all_counters();

// As its field of perf_counters is called.
const char* counter_name(counter_member counter);

std::vector<pmu> read_pmus(const file_reader& machine);

// The events to count on one CPU, by group. A counter without an event there is left out.
std::vector<planned_event> plan_events(const std::vector<pmu>& pmus, int32_t cpu);

}  // namespace samplers

#endif
