#include "samplers/counters.h"

#include <gmock/gmock.h>
#include <linux/perf_event.h>
#include <unistd.h>

#include "sampler_test.h"

namespace samplers {
namespace {

group_reading group_of(std::vector<std::pair<counter_member, uint64_t>> counts, uint64_t enabled,
                       uint64_t running) {
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

counter_reading reading_of(int64_t time_us, std::vector<group_reading> groups) {
  return {1000, time_us, std::move(groups)};
}

constexpr auto cycles = &perf_counters::cycles;
constexpr auto branches = &perf_counters::branches;
constexpr auto cs = &perf_counters::cs;

TEST(counter_differences, are_scaled_and_summed_over_cpus) {
  const counter_reading before = reading_of(
      5000,
      {group_of({{cycles, 100}}, 1000, 1000), group_of({{cycles, 50}, {branches, 5}}, 10, 10)});
  const counter_reading now = reading_of(
      9000, {group_of({{cycles, 400}}, 2000, 1250),  // 300 in a quarter of the time: 1200
             group_of({{cycles, 80}, {branches, 12}}, 110, 110)});
  const perf_sample sample = counter_differences(&before, now);
  EXPECT_EQ(sample.interval_us, 4000U);
  EXPECT_EQ(sample.counters.cycles, 1230U);
  EXPECT_EQ(sample.counters.branches, 7U);
  EXPECT_EQ(sample.counters.cs, unknown_u64);  // did not open
  // Since the set was opened, at 1000: 400 * 2000 / 1250 + 80.
  EXPECT_EQ(counter_differences(nullptr, now).counters.cycles, 720U);
  EXPECT_EQ(counter_differences(nullptr, now).interval_us, 8000U);
  EXPECT_EQ(counter_differences(&now, now).counters.cycles, unknown_u64);
}

TEST(counter_differences, what_did_not_run_is_unknown) {
  const counter_reading before =
      reading_of(5000, {group_of({{cycles, 100}}, 10, 10), group_of({{cycles, 100}}, 10, 10),
                        group_of({{cs, 9}}, 10, 10), group_of({{cs, 5}}, 10, 10)});
  counter_reading now =
      reading_of(9000, {group_of({{cycles, 100}}, 20, 10), group_of({{cycles, 150}}, 20, 20),
                        group_of({{cs, 12}}, 20, 20), group_reading()});
  const perf_sample sample = counter_differences(&before, now);
  EXPECT_EQ(sample.counters.cycles, unknown_u64);  // on one CPU only, but the sum would be false
  EXPECT_EQ(sample.counters.cs, 3U);               // the other CPU has gone offline
  now.groups[2].values[0] = 8;
  EXPECT_EQ(counter_differences(&before, now).counters.cs, unknown_u64);  // went down
  now.opened_us = 6000;
  EXPECT_EQ(counter_differences(&before, now).counters.cs, unknown_u64);  // opened anew
}

TEST(counter_events, each_cpu_has_what_its_own_pmu_lists) {
  const std::vector<pmu> pmus = read_pmus(file_reader(fixture("board-4core")));
  ASSERT_EQ(pmus.size(), 3U);
  const auto find = [&pmus](int32_t cpu, counter_member counter) {
    for (const planned_event& event : plan_events(pmus, cpu)) {
      if (event.counter == counter) {
        return std::make_pair(event.type, event.config);
      }
    }
    return std::make_pair(unknown_u32, uint64_t{0});
  };
  const auto raw = [](uint32_t type, uint64_t code) { return std::make_pair(type, code); };
  EXPECT_EQ(find(0, &perf_counters::l2d_cache), raw(8, 0x16));
  EXPECT_EQ(find(3, &perf_counters::l2d_cache), raw(9, 0x16));
  EXPECT_EQ(find(0, branches), raw(8, 0x12));
  EXPECT_EQ(find(3, branches), raw(PERF_TYPE_HARDWARE, PERF_COUNT_HW_BRANCH_INSTRUCTIONS));
  // The L3 cache of all four is read on one of them.
  EXPECT_EQ(find(2, &perf_counters::l3d_cache), raw(10, 0x2B));
  EXPECT_EQ(find(1, &perf_counters::l3d_cache).first, unknown_u32);
  EXPECT_EQ(plan_events({}, 0).size(), 19U);  // all but L2 and L3
}

// Software events count on any machine, if this user may.
TEST(counter_set, counts_context_switches_of_this_machine) {
  const file_reader machine("");
  counter_set set(machine);
  const int error = set.open();
  if (error != 0) {
    GTEST_SKIP() << "no counters here: " << error;
  }
  counter_reading before;
  counter_reading now;
  ASSERT_EQ(set.read(before), 0);
  for (int i = 0; i < 50; ++i) {
    usleep(100);
  }
  ASSERT_EQ(set.read(now), 0);
  const perf_sample sample = counter_differences(&before, now);
  EXPECT_GE(sample.interval_us, 5000U);
  EXPECT_GE(sample.counters.cs, 50U);
  EXPECT_LT(sample.counters.cs, 1000000U);
}

}  // namespace
}  // namespace samplers
