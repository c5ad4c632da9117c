// SPDX-License-Identifier: Apache-2.0
// Counters of perf_event_open(2), which are of this machine whatever tree the rest is read from.
#include <linux/perf_event.h>

#include <algorithm>
#include <cerrno>
#include <map>

#include "mon_records.h"
#include "samplers/counters.h"
#include "samplers/text.h"
#include "self_check/families.h"

namespace {

using samplers::counter_member;

constexpr counter_member software_counters[] = {&perf_counters::cs, &perf_counters::migrations,
                                                &perf_counters::page_faults};

bool is_software(counter_member one) {
  return std::find(std::begin(software_counters), std::end(software_counters), one) !=
         std::end(software_counters);
}

bool is_in(const std::vector<counter_member>& list, counter_member one) {
  return std::find(list.begin(), list.end(), one) != list.end();
}

// Opened on any CPU.
std::vector<counter_member> opened_counters(const samplers::counter_reading& reading) {
  std::vector<counter_member> opened;
  for (const samplers::group_reading& group : reading.groups) {
    opened.insert(opened.end(), group.counters, group.counters + group.count);
  }
  return opened;
}

// Names of the counters that each PMU counts by its own events, and of the generic events, which
// have no name.
std::map<std::string, std::string> names_by_pmu(const samplers::file_reader& machine,
                                                const std::vector<counter_member>& opened) {
  const std::vector<samplers::pmu> pmus = samplers::read_pmus(machine);
  const std::string online = machine.read_line("sys/devices/system/cpu/online");
  std::map<std::string, std::string> names;
  std::map<std::string, std::vector<counter_member>> told;
  for (const int32_t cpu : samplers::parse_cpu_list(online)) {
    for (const samplers::planned_event& event : samplers::plan_events(pmus, cpu)) {
      const auto unit = std::find_if(pmus.begin(), pmus.end(), [&](const samplers::pmu& one) {
        return one.type == event.type && event.type >= PERF_TYPE_MAX;
      });
      const std::string name = unit == pmus.end() ? "" : unit->name;
      if (!is_software(event.counter) && is_in(opened, event.counter) &&
          !is_in(told[name], event.counter)) {
        told[name].push_back(event.counter);
        append_name(names[name], samplers::counter_name(event.counter));
      }
    }
  }
  return names;
}

// "raw PMUv3 events of armv8_cortex_a55, armv8_cortex_a76: l1d_load, ...; generic events: cycles"
std::string source_of(const samplers::file_reader& machine,
                      const std::vector<counter_member>& opened) {
  std::map<std::string, std::string> pmus_by_names;  // clusters of one kind count the same
  for (const auto& [pmu, names] : names_by_pmu(machine, opened)) {
    append_name(pmus_by_names[names], pmu);
  }
  std::string text;
  for (const auto& [names, pmus] : pmus_by_names) {
    text += (text.empty() ? "" : "; ") +
            (pmus.empty() ? "generic events" : "raw PMUv3 events of " + pmus) + ": " + names;
  }
  return text;
}

struct counting {
  explicit counting(const samplers::file_reader& machine) : set(machine) {
    error = set.open();
    if (error == 0) {
      error = set.read(reading);
    }
    opened = opened_counters(reading);
  }
  samplers::counter_set set;
  samplers::counter_reading reading;
  int error = 0;
  std::vector<counter_member> opened;
};

// The events that the kernel refuses for want of a right, and not for want of hardware.
int refusal_of(const counting& counters, bool software) {
  for (const auto& one : counters.set.refused) {
    const bool of_hardware = one.error == -ENOENT || one.error == -EOPNOTSUPP ||
                             one.error == -ENODEV || one.error == -EINVAL;
    if (is_software(one.counter) == software && !of_hardware) {
      return one.error;
    }
  }
  return counters.error;
}

std::string unopened_hardware_counters(const std::vector<counter_member>& opened) {
  std::string names;
  for (const counter_member one : samplers::all_counters()) {
    if (!is_software(one) && !is_in(opened, one)) {
      append_name(names, samplers::counter_name(one));
    }
  }
  return names;
}

finding software_finding(kernel_facts& kernel, const counting& counters) {
  std::string names;
  for (const counter_member one : software_counters) {
    if (is_in(counters.opened, one)) {
      append_name(names, samplers::counter_name(one));
    }
  }
  finding one{"software counters", !names.empty(), "perf_event_open(2): " + names};
  const int error = refusal_of(counters, true);
  if (!one.is_read) {
    one.source.clear();
  }
  if (error != 0) {
    one.obstacles.push_back(counters_obstacle(kernel, error));
  } else if (counters.set.lacks_descriptors) {
    one.obstacles.push_back(descriptors_obstacle());
  }
  return one;
}

finding hardware_finding(kernel_facts& kernel, const samplers::file_reader& machine,
                         const counting& counters) {
  const std::string source = source_of(machine, counters.opened);
  finding one{"hardware counters", !source.empty(), source};
  const int error = refusal_of(counters, false);
  const std::string missing = unopened_hardware_counters(counters.opened);
  if (one.is_read && !missing.empty()) {
    one.source += "; lacks: " + missing;
  }
  if (error != 0) {
    one.obstacles.push_back(counters_obstacle(kernel, error));
  } else if (counters.set.lacks_descriptors) {
    one.obstacles.push_back(descriptors_obstacle());
  } else if (!one.is_read) {
    one.obstacles.push_back(hardware_events_obstacle(kernel));
  }
  return one;
}

}  // namespace

void check_counters(check_context& context) {
  const samplers::file_reader machine("");
  kernel_facts kernel(machine);
  const counting counters(machine);
  context.findings.push_back(software_finding(kernel, counters));
  context.findings.push_back(hardware_finding(kernel, machine, counters));
}
