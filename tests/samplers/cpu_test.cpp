#include "samplers/cpu.h"

#include <gmock/gmock.h>

#include <cmath>

#include "sampler_test.h"

namespace samplers {
namespace {

cpu_sample sample_of(const char* text) {
  cpu_sample sample;
  EXPECT_EQ(parse_cpu_times(text, sample.cpus), 0);
  return sample;
}

TEST(cpu, shares_are_of_the_interval_and_do_not_count_guests_twice) {
  // user holds 30 ticks of guest time, nice 5.
  const cpu_sample before = sample_of("cpu  100 10 50 800 20 5 10 5 0 0\n");
  const cpu_sample now = sample_of("cpu  150 20 70 890 30 10 20 10 30 5\n");
  // 50 + 10 + 20 + 90 + 10 + 5 + 10 + 5 = 200 ticks
  const std::vector<cpu_usage> rates = cpu_rates(&before, now);
  ASSERT_EQ(rates.size(), 1U);
  EXPECT_EQ(rates[0].cpu, -1);
  EXPECT_FLOAT_EQ(rates[0].user, 25);
  EXPECT_FLOAT_EQ(rates[0].nice, 5);
  EXPECT_FLOAT_EQ(rates[0].system, 10);
  EXPECT_FLOAT_EQ(rates[0].idle, 45);
  EXPECT_FLOAT_EQ(rates[0].iowait, 5);
  EXPECT_FLOAT_EQ(rates[0].irq, 2.5);
  EXPECT_FLOAT_EQ(rates[0].softirq, 5);
  EXPECT_FLOAT_EQ(rates[0].steal, 2.5);
}

TEST(cpu, counters_that_go_back) {
  const cpu_sample before =
      sample_of("cpu  100 0 0 500 50 0 0 0\ncpu0 50 0 0 250 25 0 0 0\ncpu1 50 0 0 250 25 0 0 0\n");
  // cpu0's idle and iowait went back, cpu1's user did.
  const cpu_sample now =
      sample_of("cpu  140 0 0 500 50 0 0 0\ncpu0 80 0 10 249 24 0 0 0\ncpu1 49 0 0 350 25 0 0 0\n");
  const std::vector<cpu_usage> rates = cpu_rates(&before, now);
  EXPECT_FLOAT_EQ(rates[1].user, 75);
  EXPECT_FLOAT_EQ(rates[1].system, 25);
  EXPECT_EQ(rates[1].idle, 0);
  EXPECT_EQ(rates[1].iowait, 0);
  EXPECT_TRUE(std::isnan(rates[2].user));
  EXPECT_TRUE(std::isnan(rates[2].idle));
}

TEST(cpu, cpu_that_comes_online_or_goes) {
  const cpu_sample before =
      sample_of("cpu  300 0 0 300 0 0 0 0\ncpu0 100 0 0 100 0 0 0 0\ncpu1 100 0 0 100 0 0 0 0\n");
  const cpu_sample now =
      sample_of("cpu  400 0 0 400 0 0 0 0\ncpu0 110 0 0 130 0 0 0 0\ncpu2 100 0 0 200 0 0 0 0\n");
  const std::vector<cpu_usage> rates = cpu_rates(&before, now);
  ASSERT_EQ(rates.size(), 3U);
  EXPECT_FLOAT_EQ(rates[0].user, 50);
  EXPECT_FLOAT_EQ(rates[1].user, 25);
  EXPECT_EQ(rates[2].cpu, 2);
  EXPECT_TRUE(std::isnan(rates[2].user));
  // No time at all between two samples.
  EXPECT_TRUE(std::isnan(cpu_rates(&now, now)[0].idle));
}

TEST(cpu, lines_that_are_cut_short_are_left_out) {
  std::vector<cpu_times> cpus;
  EXPECT_EQ(parse_cpu_times("cpu  1 2 3 4\ncpu0 1 2 3\ncpu1 1 2 3 4\ncpux 1 2 3 4\n", cpus), 0);
  ASSERT_EQ(cpus.size(), 2U);
  EXPECT_EQ(cpus[1].cpu, 1);
  EXPECT_EQ(cpus[1].steal, 0U);
  EXPECT_EQ(parse_cpu_times("", cpus), -EBADMSG);
  EXPECT_EQ(parse_cpu_times("cpu", cpus), -EBADMSG);
  EXPECT_EQ(parse_cpu_times("cpu0 1 2 3 4\n", cpus), -EBADMSG);
}

TEST(cpu, machine_with_64_cpus) {
  cpu_sample sample;
  ASSERT_EQ(read_cpu_sample(file_reader(fixture("cpu64")), sample), 0);
  const std::vector<cpu_usage> rates = cpu_rates(nullptr, sample);
  ASSERT_EQ(rates.size(), 65U);
  // Since boot; cpu63: 163 10 50 737 20 5 10 5 are 1000 ticks.
  EXPECT_EQ(rates[64].cpu, 63);
  EXPECT_FLOAT_EQ(rates[64].user, 16.3F);
  EXPECT_FLOAT_EQ(rates[64].idle, 73.7F);
  EXPECT_EQ(rates[64].freq_khz, 2400000U);
  EXPECT_EQ(rates[0].freq_khz, unknown_u32);
  EXPECT_EQ(rates[2].freq_khz, unknown_u32);
}

}  // namespace
}  // namespace samplers
