#include "samplers/cpu.h"

#include <gmock/gmock.h>

#include "sampler_test.h"

namespace samplers {
namespace {

cpu_sample sample_of(const char* text) {
  cpu_sample sample;
  EXPECT_EQ(parse_cpu_times(text, sample.cpus), 0);
  return sample;
}

std::string show(const cpu_usage& one) {
  return row(one.cpu, one.user, one.nice, one.system, one.idle, one.iowait, one.irq, one.softirq,
             one.steal);
}

TEST(cpu, shares_are_of_the_interval_and_do_not_count_guests_twice) {
  // user holds 30 ticks of guest time, nice 5.
  const cpu_sample before = sample_of("cpu  100 10 50 800 20 5 10 5 0 0\n");
  const cpu_sample now = sample_of("cpu  150 20 70 890 30 10 20 10 30 5\n");
  // 50 + 10 + 20 + 90 + 10 + 5 + 10 + 5 = 200 ticks
  EXPECT_EQ(rows(cpu_rates(&before, now), show), "- 25 5 10 45 5 2.5 5 2.5\n");
  // No time at all between two samples.
  EXPECT_EQ(rows(cpu_rates(&now, now), show), "- - - - - - - - -\n");
}

TEST(cpu, counters_that_go_back_and_cpus_that_come_online) {
  const cpu_sample before =
      sample_of("cpu  100 0 0 500 50 0 0 0\ncpu0 50 0 0 250 25 0 0 0\ncpu1 50 0 0 250 25 0 0 0\n");
  // cpu0's idle and iowait went back, cpu1's user did, cpu2 is new.
  const cpu_sample now = sample_of(
      "cpu  140 0 0 560 50 0 0 0\ncpu0 80 0 10 249 24 0 0 0\ncpu1 49 0 0 350 25 0 0 0\n"
      "cpu2 100 0 0 200 0 0 0 0\n");
  EXPECT_EQ(rows(cpu_rates(&before, now), show),
            "- 40 0 0 60 0 0 0 0\n0 75 0 25 0 0 0 0 0\n1 - - - - - - - -\n2 - - - - - - - -\n");
}

TEST(cpu, lines_that_are_cut_short_are_left_out) {
  const auto cpus = sample_of("cpu  1 2 3 4\ncpu0 1 2 3\ncpu1 1 2 3 4\ncpux 1 2 3 4\n").cpus;
  EXPECT_EQ(rows(cpus, [](const cpu_times& one) { return row(one.cpu, one.steal); }), "- 0\n1 0\n");
  std::vector<cpu_times> none;
  EXPECT_EQ(parse_cpu_times("cpu", none), -EBADMSG);
  EXPECT_EQ(parse_cpu_times("cpu0 1 2 3 4\n", none), -EBADMSG);
}

TEST(cpu, machine_with_64_cpus) {
  cpu_sample sample;
  ASSERT_EQ(read_cpu_sample(fixture("cpu64"), sample), 0);
  const std::vector<cpu_usage> rates = cpu_rates(nullptr, sample);
  ASSERT_EQ(rates.size(), 65U);
  // Since boot: 163 10 50 737 20 5 10 5 are 1000 ticks.
  EXPECT_EQ(show(rates[64]), "63 16.3 1 5 73.7 2 0.5 1 0.5\n");
  EXPECT_EQ(rates[64].freq_khz, 2400000U);
  EXPECT_EQ(rates[2].freq_khz, unknown_u32);
}

}  // namespace
}  // namespace samplers
