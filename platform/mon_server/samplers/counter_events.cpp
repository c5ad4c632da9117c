// SPDX-License-Identifier: Apache-2.0
#include "samplers/counter_events.h"

#include <linux/perf_event.h>

#include <algorithm>
#include <iterator>

#include "samplers/text.h"

namespace samplers {
namespace {

constexpr uint32_t no_generic_event = PERF_TYPE_MAX;

// The config of a PERF_TYPE_HW_CACHE event that counts reads.
constexpr uint64_t reads(uint64_t cache, uint64_t result) {
  return cache | PERF_COUNT_HW_CACHE_OP_READ << 8 | result << 16;
}

constexpr uint64_t accesses(uint64_t cache) {
  return reads(cache, PERF_COUNT_HW_CACHE_RESULT_ACCESS);
}

constexpr uint64_t misses(uint64_t cache) {
  return reads(cache, PERF_COUNT_HW_CACHE_RESULT_MISS);
}

struct counter_event {
  counter_member counter;
  const char* name;
  int group;
  uint32_t type;  // generic event, no_generic_event if the kernel has no name for it
  uint64_t config;
  const char* arm_name;  // as an ARMv8 PMU lists it, preferred where it is listed; null if none
  uint64_t arm_code;     // its number in PMUv3
};

using counters = perf_counters;

// A Cortex-A counts six events and the cycles at a time, and a group that does not fit never runs:
// none has more than four.
//
// On ARM the generic names lead to other events on some kernels (branches to PC_WRITE_RETIRED, the
// last level cache to nothing), the numbers of PMUv3 do not.
constexpr counter_event all_events[] = {
    {&counters::cycles, "cycles", 0, PERF_TYPE_HARDWARE, PERF_COUNT_HW_CPU_CYCLES, nullptr, 0},
    {&counters::instructions, "instructions", 0, PERF_TYPE_HARDWARE, PERF_COUNT_HW_INSTRUCTIONS,
     nullptr, 0},
    {&counters::stall_frontend, "stall_frontend", 0, PERF_TYPE_HARDWARE,
     PERF_COUNT_HW_STALLED_CYCLES_FRONTEND, "stall_frontend", 0x23},
    {&counters::stall_backend, "stall_backend", 0, PERF_TYPE_HARDWARE,
     PERF_COUNT_HW_STALLED_CYCLES_BACKEND, "stall_backend", 0x24},
    {&counters::l1d_load, "l1d_load", 1, PERF_TYPE_HW_CACHE, accesses(PERF_COUNT_HW_CACHE_L1D),
     "l1d_cache", 0x04},
    {&counters::l1d_misses, "l1d_misses", 1, PERF_TYPE_HW_CACHE, misses(PERF_COUNT_HW_CACHE_L1D),
     "l1d_cache_refill", 0x03},
    {&counters::l1i_load, "l1i_load", 2, PERF_TYPE_HW_CACHE, accesses(PERF_COUNT_HW_CACHE_L1I),
     "l1i_cache", 0x14},
    {&counters::l1i_misses, "l1i_misses", 2, PERF_TYPE_HW_CACHE, misses(PERF_COUNT_HW_CACHE_L1I),
     "l1i_cache_refill", 0x01},
    {&counters::l2d_cache, "l2d_cache", 3, no_generic_event, 0, "l2d_cache", 0x16},
    {&counters::l2d_cache_refill, "l2d_cache_refill", 3, no_generic_event, 0, "l2d_cache_refill",
     0x17},
    {&counters::l3d_cache, "l3d_cache", 4, no_generic_event, 0, "l3d_cache", 0x2B},
    {&counters::l3d_cache_refill, "l3d_cache_refill", 4, no_generic_event, 0, "l3d_cache_refill",
     0x2A},
    {&counters::llc_load, "llc_load", 5, PERF_TYPE_HW_CACHE, accesses(PERF_COUNT_HW_CACHE_LL),
     "ll_cache_rd", 0x36},
    {&counters::llc_misses, "llc_misses", 5, PERF_TYPE_HW_CACHE, misses(PERF_COUNT_HW_CACHE_LL),
     "ll_cache_miss_rd", 0x37},
    {&counters::itlb_load, "itlb_load", 6, PERF_TYPE_HW_CACHE, accesses(PERF_COUNT_HW_CACHE_ITLB),
     "l1i_tlb", 0x26},
    {&counters::itlb_misses, "itlb_misses", 6, PERF_TYPE_HW_CACHE, misses(PERF_COUNT_HW_CACHE_ITLB),
     "l1i_tlb_refill", 0x02},
    {&counters::dtlb_load, "dtlb_load", 7, PERF_TYPE_HW_CACHE, accesses(PERF_COUNT_HW_CACHE_DTLB),
     "l1d_tlb", 0x25},
    {&counters::dtlb_misses, "dtlb_misses", 7, PERF_TYPE_HW_CACHE, misses(PERF_COUNT_HW_CACHE_DTLB),
     "l1d_tlb_refill", 0x05},
    {&counters::branches, "branches", 8, PERF_TYPE_HARDWARE, PERF_COUNT_HW_BRANCH_INSTRUCTIONS,
     "br_pred", 0x12},
    {&counters::branch_misses, "branch_misses", 8, PERF_TYPE_HARDWARE, PERF_COUNT_HW_BRANCH_MISSES,
     "br_mis_pred", 0x10},
    {&counters::cs, "cs", 9, PERF_TYPE_SOFTWARE, PERF_COUNT_SW_CONTEXT_SWITCHES, nullptr, 0},
    {&counters::migrations, "migrations", 10, PERF_TYPE_SOFTWARE, PERF_COUNT_SW_CPU_MIGRATIONS,
     nullptr, 0},
    {&counters::page_faults, "page_faults", 11, PERF_TYPE_SOFTWARE, PERF_COUNT_SW_PAGE_FAULTS,
     nullptr, 0},
};
static_assert(sizeof all_events / sizeof all_events[0] == sizeof(perf_counters) / sizeof(uint64_t));

bool lists_event(const pmu& unit, int32_t cpu, const char* name) {
  return std::binary_search(unit.cpus.begin(), unit.cpus.end(), cpu) &&
         std::binary_search(unit.events.begin(), unit.events.end(), name, natural_less);
}

// Whether any core has the event at all. The PMU of a cluster's shared cache stands back then, or
// its figures would be counted twice.
bool is_core_event(const std::vector<pmu>& pmus, const char* name) {
  return std::any_of(pmus.begin(), pmus.end(), [name](const pmu& unit) {
    return unit.core && !unit.cpus.empty() && lists_event(unit, unit.cpus.front(), name);
  });
}

const pmu* find_pmu(const std::vector<pmu>& pmus, int32_t cpu, const char* name) {
  if (name == nullptr) {
    return nullptr;
  }
  const bool core = is_core_event(pmus, name);
  const auto found = std::find_if(pmus.begin(), pmus.end(), [=](const pmu& unit) {
    return unit.core == core && lists_event(unit, cpu, name);
  });
  return found == pmus.end() ? nullptr : &*found;
}

}  // namespace

std::vector<counter_member> all_counters() {
  std::vector<counter_member> all;
  for (const counter_event& event : all_events) {
    all.push_back(event.counter);
  }
  return all;
}

const char* counter_name(counter_member counter) {
  return std::find_if(std::begin(all_events), std::end(all_events),
                      [counter](const counter_event& event) { return event.counter == counter; })
      ->name;
}

std::vector<pmu> read_pmus(const file_reader& machine) {
  const std::string devices = "sys/bus/event_source/devices";
  std::vector<std::string> names;
  machine.list(devices.c_str(), names);
  std::vector<pmu> pmus;
  for (const std::string& name : names) {
    const std::string folder = devices + "/" + name + "/";
    const uint64_t type = machine.read_u64((folder + "type").c_str());
    pmu unit;
    unit.name = name;
    unit.type = static_cast<uint32_t>(type);
    unit.cpus = parse_cpu_list(machine.read_line((folder + "cpus").c_str()));
    unit.core = !unit.cpus.empty();
    if (!unit.core) {
      // A PMU that CPUs share names the one CPU that it is read on.
      unit.cpus = parse_cpu_list(machine.read_line((folder + "cpumask").c_str()));
    }
    if (type < unknown_u32 && !unit.cpus.empty()) {
      machine.list((folder + "events").c_str(), unit.events);
      pmus.push_back(unit);
    }
  }
  return pmus;
}

std::vector<planned_event> plan_events(const std::vector<pmu>& pmus, int32_t cpu) {
  std::vector<planned_event> plan;
  for (const counter_event& event : all_events) {
    if (const pmu* unit = find_pmu(pmus, cpu, event.arm_name)) {
      plan.push_back({event.counter, event.group, unit->type, event.arm_code});
    } else if (event.type != no_generic_event) {
      plan.push_back({event.counter, event.group, event.type, event.config});
    }
  }
  return plan;
}

}  // namespace samplers
