// The texts as they are shown, and what a hostile server may make of them.
#include "texts.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <sstream>

#include "text_tools.h"

namespace {

constexpr float unknown = NAN;

std::vector<std::string> lines(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> all;
  for (std::string line; std::getline(in, line);) {
    all.push_back(line);
  }
  return all;
}

size_t widest(const std::string& text) {
  size_t most = 0;
  for (const std::string& line : lines(text)) {
    most = std::max(most, line.size());
  }
  return most;
}

TEST(text_tools, figures_keep_their_width) {
  EXPECT_EQ(text_tools::figure(123456.7, 6), "123457");
  EXPECT_EQ(text_tools::figure(1234567.0, 6), "1.2M");
  EXPECT_EQ(text_tools::figure(INFINITY, 6), "-");
  for (int power = -3; power < 38; ++power) {
    EXPECT_LE(text_tools::figure(-9.96 * std::pow(10, power), 5).size(), 5U) << power;
  }
  EXPECT_EQ(text_tools::size_text(1023), "1023B");
  EXPECT_EQ(text_tools::size_text(UINT64_MAX - 1), "16.0E");
}

TEST(text_tools, side_by_side_wraps_and_indents) {
  const std::string x50(50, 'x');
  const std::string y66(66, 'y');
  EXPECT_EQ(text_tools::side_by_side("Net  ", {x50, x50, x50}),
            "Net  " + x50 + "  " + x50 + "\n     " + x50);
  // One that fills the line to the last column stays on it.
  EXPECT_EQ(text_tools::side_by_side("", {x50, y66, "z"}), x50 + "  " + y66 + "\nz");
}

TEST(texts, one_liners) {
  constexpr uint64_t frost = UINT64_MAX - 5499;  // -5.5 degrees
  EXPECT_EQ(texts::thermal({{"cpu-thermal", 45230, unknown_u64, thermal_zone},
                            {"bpu-thermal", unknown_u64, unknown_u64, thermal_zone},
                            {"case", frost, unknown_u64, thermal_zone},
                            {"fan", unknown_u64, 2, thermal_cooling}}),
            "Thermal  cpu-thermal 45.2C  bpu-thermal -  case -5.5C  | cooling fan 2");
  EXPECT_EQ(texts::thermal({}), "Thermal  none");
  // 16252928 KiB = 15.5G; 10240 KiB = 10.0M, below a tenth of a G; no MemAvailable.
  EXPECT_EQ(
      texts::memory({16252928, 9542042, unknown_u64, 10240, 5242880, 314573, 4823450, 1048576}),
      "[Mem total 15.5G free 9.1G avail - buffers 10.0M cached 5.0G slab 0.3G file 4.6G anon "
      "1.0G]");
  EXPECT_EQ(texts::ion({{"cma", 64 << 20}, {"system", unknown_u64}}), "[ION cma 64.0M  system -]");
  EXPECT_EQ(texts::blocks({{"mmcblk0", 0, 24, 2000}, {"sda", unknown_u64, unknown_u64, 0}}),
            "Block KB/s  mmcblk0 read 0.0 write 12.0  sda read - write -");
  EXPECT_EQ(texts::net({{"eth0", 1288490189, 120.5}, {"lo", unknown_u64, NAN}}),
            "Net KB/s  eth0 120.5 (total 1.2G)  lo - (total -)\n");
  EXPECT_EQ(texts::bpu({{"bpu0", 37}, {"b1", unknown}}), "BPU  bpu0 37.0%  b1 -\n");
  const auto vio = lines(texts::vio({{"dead", unknown}, {"slow", 9.96F}, {"fast", 60}}));
  EXPECT_EQ(vio.at(1), "fast                                 60.0");
  EXPECT_EQ(vio.at(2), "slow                                 10.0");
  EXPECT_EQ(vio.at(3), "dead                                    -");
}

TEST(texts, partitions_count_as_df_does) {
  // 307 of 1000 MiB used and 693 left to users: 30.7 %, shown as 31 as df rounds up. With 93 of
  // them reserved for root, it is 307 of 907. Figures that would overflow, or contradict each
  // other, are no figures.
  const uint64_t mib = 256;  // blocks of 4 KiB
  EXPECT_EQ(texts::partitions({{"/log", 693 * mib, 1000 * mib, 4096, 307 * mib},
                               {"/r", 600 * mib, 1000 * mib, 4096, 307 * mib},
                               {"/map", unknown_u64, unknown_u64, 4096, unknown_u64},
                               {"/a", 1, UINT64_MAX - 1, 4096, 1},
                               {"/b", 1, 1, 4096, 2}}),
            "Partitions  /log 307.0M/1000.0M 31%  /r 307.0M/1000.0M 34%  /map -  /a -  /b -");
}

// With four cores, network and block devices of usual names and large figures the three texts leave
// the panel that they share room: ten rows, with an empty one between them.
TEST(texts, bpu_net_and_block_fit_ten_rows) {
  const std::string text =
      texts::bpu(std::vector<bpu_stat>(4, {"bpu0", 100})) + "\n" +
      texts::net(std::vector<net_stat>(4, {"enp0s31f6.1234", 1ULL << 50, 1234567.8})) + "\n" +
      texts::blocks(std::vector<block_stat>(4, {"mmcblk0boot0", 123456789, 123456789, 100}));
  EXPECT_LE(lines(text).size(), 10U);
  EXPECT_LE(widest(text), 118U);
}

std::vector<cpu_usage> cpus(int count, float share = 12.5F) {
  std::vector<cpu_usage> all;
  for (int cpu = -1; cpu < count; ++cpu) {
    all.push_back({cpu, 1800000, share, 0, 0, 100 - share, 0, 0, 0, 0});
  }
  return all;
}

TEST(texts, cpu_lines) {
  auto two = cpus(2);
  two[2] = {1, unknown_u32, unknown, unknown, unknown, unknown, unknown, unknown, unknown, unknown};
  EXPECT_EQ(texts::cpu(two),
            "CPU %   busy  user  nice   sys  idle iowait   irq  sirq steal   MHz\n"
            "total   12.5  12.5   0.0   0.0  87.5    0.0   0.0   0.0   0.0  1800\n"
            "cpu0    12.5  12.5   0.0   0.0  87.5    0.0   0.0   0.0   0.0  1800\n"
            "cpu1       -     -     -     -     -      -     -     -     -     -\n");
  EXPECT_EQ(lines(texts::cpu(cpus(8))).at(2),
            "cpu0   12.5% us  12 sy   0 1800MHz cpu1   12.5% us  12 sy   0 1800MHz");
}

// Nine lines of 69 columns are all that the panel has, on every board.
TEST(texts, cpu_block_fits_whatever_the_number_of_cpus) {
  for (int count = 0; count <= 1024; ++count) {
    for (const float share : {0.0F, 101.0F, -1e30F, unknown}) {
      const std::string text = texts::cpu(cpus(count, share));
      ASSERT_LE(lines(text).size(), 9U) << count << " CPUs";
      ASSERT_LE(widest(text), 69U) << count << " CPUs of " << share;
    }
  }
  // Each of 64 has its share in the grid, with its number.
  auto many = cpus(64);
  many[64].idle = 3;
  const std::string text = texts::cpu(many);
  EXPECT_NE(text.find("63: 97"), std::string::npos) << text;
  EXPECT_NE(text.find(" 0: 12"), std::string::npos) << text;
  // A number that no kernel gives does not break the block either.
  many[1].cpu = INT32_MIN;
  EXPECT_LE(widest(texts::cpu(many)), 69U);
}

std::string processes(const pid_msg& one) {
  return texts::processes({one}, 118, 1, false);
}

TEST(texts, process_list) {
  EXPECT_EQ(processes({4242, 1, "camera", 'S', 0, 20, 3, 0, 12.5F, 150, unknown, unknown, 20480}),
            "  PID  PPID S PRI CPU *CPU%  BPU%  IO KB/s  NET KB/s    RSS PROCS 118 by CPU\n"
            " 4242     1 S  20   3 150.0     -     12.5         -  20.0M camera\n");
  const auto header = [](int key) { return lines(texts::processes({}, 9, key, true)).front(); };
  EXPECT_EQ(header(5),
            "  TID   PID S PRI CPU  CPU%  BPU%  IO KB/s  NET KB/s   *RSS THREADS 9 by RAM");
  EXPECT_NE(header(2).find("*BPU%"), std::string::npos);
  EXPECT_NE(header(4).find("*NET KB/s"), std::string::npos);
}

TEST(texts, process_names_and_figures_cannot_break_the_list) {
  const auto evil =
      lines(processes({7, 1, "\x1b[2J\x9b\n\x7f\xc3\xa9x", '\x1b', 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  ASSERT_EQ(evil.size(), 2U);
  EXPECT_NE(evil[1].find("?[2J?????x"), std::string::npos) << evil[1];
  EXPECT_EQ(evil[1].find('\x1b'), std::string::npos);

  pid_msg extreme{INT32_MAX, INT32_MIN, "",     'R', 0,     INT16_MIN, INT16_MAX,
                  0,         3e38F,     -3e38F, -1,  1e30F, INT64_MAX};
  std::memset(extreme.comm, 'x', sizeof extreme.comm);
  EXPECT_EQ(lines(processes(extreme)).at(1).size(), 76U);
  EXPECT_LE(widest(texts::processes({extreme}, INT32_MAX, 5, true)), 117U);
  EXPECT_EQ(lines(processes({4194304, 1, "x", 'S', 0, 0, 0, 0, 0, 0, 0, 0, 0})).at(1).substr(0, 15),
            "4194304       1");
}

TEST(texts, counters_with_rates_and_ratios) {
  perf_sample sample{};
  std::memset(&sample.counters, 0xff, sizeof sample.counters);
  sample.interval_us = 2000000;
  sample.counters.cycles = 4000000000;
  sample.counters.instructions = 6000000000;
  sample.counters.stall_frontend = 500000000;
  sample.counters.l1d_load = 1000;
  sample.counters.l1d_misses = 34;
  const auto got = lines(texts::counters(sample));
  ASSERT_EQ(got.size(), 24U);
  EXPECT_EQ(got[1], "cycles                2.0G");
  EXPECT_EQ(got[2], "instructions          3.0G  1.50 a cycle");
  EXPECT_EQ(got[3], "stall_frontend        250M  12.5% of cycles");
  EXPECT_EQ(got[4], "stall_backend            -");
  EXPECT_EQ(got[8], "l1d_misses              17  3.4% missed");

  sample.interval_us = 0;
  sample.counters.cycles = 0;
  const std::string text = texts::counters(sample);
  EXPECT_LE(widest(text), 80U);
  EXPECT_EQ(text.find("inf") & text.find("nan"), std::string::npos);
}

}  // namespace
