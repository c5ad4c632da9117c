// SPDX-License-Identifier: Apache-2.0
// Hardware and software counters of the whole machine: perf_event_open(2).
#ifndef SAMPLERS_COUNTERS_H
#define SAMPLERS_COUNTERS_H

#include <cstdint>
#include <string>
#include <vector>

#include "mon_records.h"
#include "samplers/counter_events.h"
#include "samplers/file_descriptor.h"
#include "samplers/file_reader.h"

namespace samplers {

constexpr int max_group_events = 4;

// One group's counts on one CPU since it was opened.
struct group_reading {
  bool valid = false;  // false when the group's CPU has gone offline
  int count = 0;       // events in use below
  counter_member counters[max_group_events] = {};
  uint64_t values[max_group_events] = {};
  uint64_t enabled_ns = 0;
  uint64_t running_ns = 0;  // less than enabled_ns when the PMU's counters are shared in turns
};

struct counter_reading {
  int64_t opened_us = 0;              // monotonic; tells one opening's readings from another's
  int64_t time_us = 0;                // monotonic
  std::vector<group_reading> groups;  // in the same order for one opening
};

// The counts between two readings of one set, or since it was opened without `before`, scaled for
// the time that each event was really counting. A counter that did not open or did not run is
// unknown, and all are over an interval in which the set was opened anew.
perf_sample counter_differences(const counter_reading* before, const counter_reading& now);

// Counts every event that there is on every CPU that is online.
class counter_set {
 public:
  // `machine` must live as long as the set.
  explicit counter_set(const file_reader& machine) : reader(machine) {}

  // Opens what opens. The negative errno of the first event that did not if that is none: -EACCES
  // without the rights (perf_event_paranoid), -ENOENT or -EOPNOTSUPP without the hardware, -EMFILE
  // without descriptors to spare.
  int open();

  // Some counters are left out for want of descriptors.
  bool lacks_descriptors = false;

  // Counters whose event did not open, on whichever CPU first, and why: a negative errno.
  struct refused_counter {
    counter_member counter;
    int error;
  };
  std::vector<refused_counter> refused;

  // Opens anew when a CPU has come or gone, or gone and come back, since the events of a CPU that
  // goes end with it.
  int read(counter_reading& reading);

 private:
  // An open group of one CPU; the first descriptor is the leader's, which reads all.
  struct open_group {
    int count = 0;
    counter_member counters[max_group_events] = {};
    file_descriptor events[max_group_events];
    uint64_t enabled_ns = 0;  // as last read
  };

  int open_on_all(size_t most_events);
  void note_refusal(counter_member counter, int error);
  int open_cpu(const std::vector<pmu>& pmus, int32_t cpu, size_t most_events);
  static int open_event(const planned_event& event, int32_t cpu, open_group& group);
  static bool read_group(const open_group& group, group_reading& reading);
  bool read_groups(counter_reading& reading);

  const file_reader& reader;
  int64_t opened_us = 0;
  std::string online_cpus;  // the kernel's list at the time of opening
  std::vector<open_group> groups;
};

}  // namespace samplers

#endif
