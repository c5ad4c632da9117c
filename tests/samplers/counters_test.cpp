// SPDX-License-Identifier: Apache-2.0
#include "samplers/counters.h"

#include <gtest/gtest.h>
#include <linux/perf_event.h>
#include <unistd.h>

#include "sampler_test.h"

namespace samplers {
namespace {

group_reading group_of(const std::vector<std::pair<counter_member, uint64_t>>& counts,
                       uint64_t enabled, uint64_t running) {
  group_reading group;
  group.valid = true;
  for (const auto& [counter, value] : counts) {
    group.counters[group.count] = counter;
    group.values[group.count++] = value;
  }
  group.enabled_ns = enabled;
  group.running_ns = running;
  return group;
}

constexpr auto cycles = &perf_counters::cycles;
constexpr auto branches = &perf_counters::branches;
constexpr auto cs = &perf_counters::cs;

std::string show(const perf_sample& sample) {
  return row(sample.interval_us, sample.counters.*cycles, sample.counters.*branches,
             sample.counters.*cs);
}

TEST(counter_differences, are_scaled_and_summed_over_cpus) {
  counter_reading before{1000, 5000, {group_of({{cycles, 100}}, 1000, 1000)}};
  before.groups.push_back(group_of({{cycles, 50}, {branches, 5}}, 10, 10));
  // 300 in a quarter of the time: 1200.
  counter_reading now{1000, 9000, {group_of({{cycles, 400}}, 2000, 1250)}};
  now.groups.push_back(group_of({{cycles, 80}, {branches, 12}}, 110, 110));
  // The last one did not open.
  EXPECT_EQ(show(counter_differences(&before, now)), "4000 1230 7 -\n");
  // Since the set was opened, at 1000: 400 * 2000 / 1250 + 80.
  EXPECT_EQ(show(counter_differences(nullptr, now)), "8000 720 12 -\n");
  EXPECT_EQ(show(counter_differences(&now, now)), "0 - - -\n");
}

TEST(counter_differences, what_did_not_run_is_unknown) {
  const group_reading all = group_of({{cycles, 100}}, 10, 10);
  const group_reading switches = group_of({{cs, 9}}, 10, 10);
  const counter_reading before{1000, 5000, {all, all, switches, switches}};
  counter_reading now = before;
  now.time_us = 9000;
  now.groups[0].enabled_ns = 20;  // on one CPU only, but the sum would be false
  now.groups[1] = group_of({{cycles, 150}}, 20, 20);
  now.groups[2] = group_of({{cs, 12}}, 20, 20);
  now.groups[3] = {};  // the other CPU has gone offline
  EXPECT_EQ(show(counter_differences(&before, now)), "4000 - - 3\n");
  now.groups[2].values[0] = 8;  // went down
  EXPECT_EQ(show(counter_differences(&before, now)), "4000 - - -\n");
  now.groups[2].values[0] = 12;
  now.opened_us = 6000;  // opened anew
  EXPECT_EQ(counter_differences(&before, now).counters.cs, unknown_u64);
}

TEST(counter_events, each_cpu_has_what_its_own_pmu_lists) {
  const std::vector<pmu> pmus = read_pmus(fixture("board-4core"));
  ASSERT_EQ(pmus.size(), 3U);
  const auto find = [&pmus](int32_t cpu, counter_member counter) {
    for (const planned_event& event : plan_events(pmus, cpu)) {
      if (event.counter == counter) {
        return std::pair<uint32_t, uint64_t>(event.type, event.config);
      }
    }
    return std::pair<uint32_t, uint64_t>(unknown_u32, 0);
  };
  using event = std::pair<uint32_t, uint64_t>;
  EXPECT_EQ(find(0, &perf_counters::l2d_cache), event(8, 0x16));
  EXPECT_EQ(find(3, &perf_counters::l2d_cache), event(9, 0x16));
  EXPECT_EQ(find(0, branches), event(8, 0x12));
  EXPECT_EQ(find(3, branches), event(PERF_TYPE_HARDWARE, PERF_COUNT_HW_BRANCH_INSTRUCTIONS));
  // The L3 cache of all four is read on one of them.
  EXPECT_EQ(find(2, &perf_counters::l3d_cache), event(10, 0x2B));
  EXPECT_EQ(find(1, &perf_counters::l3d_cache).first, unknown_u32);
  EXPECT_EQ(plan_events({}, 0).size(), 19U);  // all but L2 and L3
}

// Software events count on any machine, if this user may.
TEST(counter_set, counts_context_switches_of_this_machine) {
  const file_reader machine("");
  counter_set set(machine);
  if (const int error = set.open(); error != 0) {
    GTEST_SKIP() << "no counters here: " << error;
  }
  counter_reading before;
  counter_reading now;
  ASSERT_EQ(set.read(before), 0);
  for (int i = 0; i < 50; ++i) {
    usleep(100);
  }
  ASSERT_EQ(set.read(now), 0);
  EXPECT_GE(counter_differences(&before, now).counters.cs, 50U);
  EXPECT_LT(counter_differences(&before, now).counters.cs, 1000000U);
}

}  // namespace
}  // namespace samplers
