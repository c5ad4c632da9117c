// The texts as they are shown, and what a hostile server may make of them.
#include "texts.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <sstream>

#include "text_tools.h"

namespace {

constexpr float unknown = std::numeric_limits<float>::quiet_NaN();

template <size_t size>
void name(char (&field)[size], const std::string& text) {
  std::memset(field, 0, size);
  std::memcpy(field, text.data(), std::min(size, text.size()));
}

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

void expect_ascii(const std::string& text) {
  for (const char c : text) {
    EXPECT_TRUE(c == '\n' || (c >= ' ' && c <= '~')) << static_cast<int>(c);
  }
}

TEST(text_tools, figures_keep_their_width) {
  EXPECT_EQ(text_tools::figure(12.34, 6), "12.3");
  EXPECT_EQ(text_tools::figure(0, 6), "0.0");
  EXPECT_EQ(text_tools::figure(123456.7, 6), "123457");
  EXPECT_EQ(text_tools::figure(1234567.0, 6), "1.2M");
  EXPECT_EQ(text_tools::figure(NAN, 6), "-");
  EXPECT_EQ(text_tools::figure(INFINITY, 6), "-");
  EXPECT_EQ(text_tools::figure(1e300, 6), "-");
  for (double value = 1e-3; value < 1e38; value *= 7) {
    EXPECT_LE(text_tools::figure(value, 5).size(), 5u) << value;
    EXPECT_LE(text_tools::figure(-value, 5).size(), 5u) << value;
  }
}

TEST(text_tools, sizes) {
  EXPECT_EQ(text_tools::size_text(0), "0B");
  EXPECT_EQ(text_tools::size_text(1023), "1023B");
  EXPECT_EQ(text_tools::size_text(64ull << 20), "64.0M");
  EXPECT_EQ(text_tools::size_text(12884901888), "12.0G");
  EXPECT_EQ(text_tools::size_text(UINT64_MAX - 1), "16.0E");
  EXPECT_EQ(text_tools::size_text(UINT64_MAX), "-");
}

TEST(text_tools, side_by_side_wraps_and_indents) {
  const std::vector<std::string> items(3, std::string(50, 'x'));
  const std::string x50(50, 'x');
  EXPECT_EQ(text_tools::side_by_side("Net  ", items), "Net  " + x50 + "  " + x50 + "\n     " + x50);
  EXPECT_EQ(text_tools::side_by_side("BPU  ", {}), "BPU  none");
  // One that fills the line to the last column stays on it.
  EXPECT_EQ(text_tools::side_by_side("", {x50, std::string(66, 'y'), "z"}),
            x50 + "  " + std::string(66, 'y') + "\nz");
}

TEST(texts, one_liners_without_line_end) {
  thermal_stat cpu_zone{{}, 45230, unknown_u64, thermal_zone};
  name(cpu_zone.name, "cpu-thermal");
  thermal_stat bad_zone{{}, unknown_u64, unknown_u64, thermal_zone};
  name(bad_zone.name, "bpu-thermal");
  thermal_stat frost{{}, static_cast<uint64_t>(int64_t{-5500}), unknown_u64, thermal_zone};
  name(frost.name, "case");
  thermal_stat fan{{}, unknown_u64, 2, thermal_cooling};
  name(fan.name, "fan");
  EXPECT_EQ(texts::thermal({cpu_zone, bad_zone, frost, fan}),
            "Thermal  cpu-thermal 45.2C  bpu-thermal -  case -5.5C  | cooling fan 2");
  EXPECT_EQ(texts::thermal({}), "Thermal  none");

  // 16252928 KiB = 15.5G; 10240 KiB = 10.0M, below a tenth of a G; no MemAvailable.
  const meminfo info{16252928, 9542042, unknown_u64, 10240, 5242880, 314573, 4823450, 1048576};
  EXPECT_EQ(texts::memory(info),
            "[Mem total 15.5G free 9.1G avail - buffers 10.0M cached 5.0G slab 0.3G file 4.6G anon "
            "1.0G]");

  ion_info cma{{}, 64 << 20};
  name(cma.ion_name, "cma");
  ion_info system{{}, unknown_u64};
  name(system.ion_name, "system");
  EXPECT_EQ(texts::ion({cma, system}), "[ION cma 64.0M  system -]");
  EXPECT_EQ(texts::ion({}), "[ION none]");
}

part_info partition(const char* path, uint64_t bavail, uint64_t blocks, uint64_t used) {
  part_info part{{}, bavail, blocks, 4096, used};
  name(part.part_name, path);
  return part;
}

TEST(texts, partitions_count_as_df_does) {
  // 307 of 1000 MiB used and 693 left to users: 30.7 %, shown as 31 as df rounds up. With 93 of
  // them reserved for root, it is 307 of 907.
  const uint64_t mib = 256;  // blocks of 4 KiB
  EXPECT_EQ(texts::partitions({partition("/log", 693 * mib, 1000 * mib, 307 * mib),
                               partition("/r", 600 * mib, 1000 * mib, 307 * mib)}),
            "Partitions  /log 307.0M/1000.0M 31%  /r 307.0M/1000.0M 34%");
  EXPECT_EQ(texts::partitions({partition("/map", unknown_u64, unknown_u64, unknown_u64)}),
            "Partitions  /map -");
  // Figures that would overflow, or contradict each other, are no figures.
  EXPECT_EQ(texts::partitions({partition("/a", 1, UINT64_MAX - 1, 1), partition("/b", 1, 1, 2)}),
            "Partitions  /a -  /b -");
}

TEST(texts, device_lines) {
  block_stat disk{{}, 0, 24, 2000};
  name(disk.name, "mmcblk0");
  block_stat fresh{{}, unknown_u64, unknown_u64, 0};
  name(fresh.name, "sda");
  EXPECT_EQ(texts::blocks({disk, fresh}),
            "Block KB/s  mmcblk0 read 0.0 write 12.0  sda read - write -");

  net_stat eth{{}, 1288490189, 120.5};
  name(eth.dev_name, "eth0");
  net_stat lo{{}, unknown_u64, NAN};
  name(lo.dev_name, "sixteen-bytes-xx");
  EXPECT_EQ(texts::net({eth, lo}),
            "Net KB/s  eth0 120.5 (total 1.2G)  sixteen-bytes-xx - (total -)\n");

  bpu_stat core{{}, 37};
  name(core.name, "bpu0");
  EXPECT_EQ(texts::bpu({core, {{'b', '1'}, unknown}}), "BPU  bpu0 37.0%  b1 -\n");
  EXPECT_EQ(texts::bpu({}), "BPU  none\n");
}

TEST(texts, vio_fastest_first_unknown_last) {
  vio_stat slow{{'s'}, 9.96F};
  vio_stat fast{{'f'}, 60};
  vio_stat dead{{'d'}, unknown};
  const auto got = lines(texts::vio({dead, slow, fast}));
  ASSERT_EQ(got.size(), 4u);
  EXPECT_EQ(got[1], "f                                    60.0");
  EXPECT_EQ(got[2], "s                                    10.0");
  EXPECT_EQ(got[3], "d                                       -");
}

// With four cores, network and block devices of usual names and large figures the three texts leave
// the panel that they share room: ten rows, with an empty one between them.
TEST(texts, bpu_net_and_block_fit_ten_rows) {
  std::vector<bpu_stat> cores(4, {{'b', 'p', 'u', '0'}, 100});
  std::vector<net_stat> nets(4);
  std::vector<block_stat> blocks(4);
  for (net_stat& net : nets) {
    name(net.dev_name, "enp0s31f6.1234");
    net.total = 1ull << 50;
    net.rate = 1234567.8;
  }
  for (block_stat& block : blocks) {
    name(block.name, "mmcblk0boot0");
    block.rd_kb = block.wr_kb = 123456789;
    block.interval_ms = 100;
  }
  const std::string text =
      texts::bpu(cores) + "\n" + texts::net(nets) + "\n" + texts::blocks(blocks) + "\n";
  EXPECT_LE(lines(text).size(), 10u);
  EXPECT_LE(widest(text), 118u);
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
  const auto eight = lines(texts::cpu(cpus(8)));
  ASSERT_EQ(eight.size(), 6u);
  EXPECT_EQ(eight[2], "cpu0   12.5% us  12 sy   0 1800MHz cpu1   12.5% us  12 sy   0 1800MHz");
}

// Nine lines of 69 columns are all that the panel has, on every board.
TEST(texts, cpu_block_fits_whatever_the_number_of_cpus) {
  for (int count = 0; count <= 1024; ++count) {
    for (const float share : {0.0F, 100.0F, 101.0F, -1e30F, unknown}) {
      const std::string text = texts::cpu(cpus(count, share));
      ASSERT_LE(lines(text).size(), 9u) << count << " CPUs";
      ASSERT_LE(widest(text), 69u) << count << " CPUs of " << share;
      ASSERT_EQ(text.back(), '\n');
    }
  }
  // Each of 64 has its share in the grid, with its number.
  auto many = cpus(64);
  many[64].idle = 3;
  const std::string text = texts::cpu(many);
  EXPECT_NE(text.find("63: 97"), std::string::npos) << text;
  EXPECT_NE(text.find(" 0: 12"), std::string::npos) << text;
  // Numbers that no kernel gives do not break the block either.
  for (cpu_usage& one : many) {
    one.cpu = INT32_MIN;
  }
  EXPECT_LE(widest(texts::cpu(many)), 69u);
}

pid_msg process(int32_t pid, const char* comm) {
  pid_msg msg{pid, 1, {}, 'S', 0, 20, 3, 0, 12.5F, 150, unknown, unknown, 20480};
  name(msg.comm, comm);
  return msg;
}

TEST(texts, process_list) {
  EXPECT_EQ(texts::processes({process(4242, "camera")}, 118, 1, false),
            "  PID  PPID S PRI CPU *CPU%  BPU%  IO KB/s  NET KB/s    RSS PROCS 118 by CPU\n"
            " 4242     1 S  20   3 150.0     -     12.5         -  20.0M camera\n");
  const auto header = [](int key) { return lines(texts::processes({}, 9, key, true)).front(); };
  EXPECT_EQ(header(5),
            "  TID   PID S PRI CPU  CPU%  BPU%  IO KB/s  NET KB/s   *RSS THREADS 9 by RAM");
  EXPECT_NE(header(2).find("*BPU%"), std::string::npos);
  EXPECT_NE(header(3).find("*IO KB/s"), std::string::npos);
  EXPECT_NE(header(4).find("*NET KB/s"), std::string::npos);
  EXPECT_EQ(header(9), header(1));
}

TEST(texts, process_names_cannot_touch_the_terminal) {
  auto evil = process(7, "\x1b[2J\x9b\n\x7f\xc3\xa9x");
  evil.state = '\x1b';
  const std::string text = texts::processes({evil}, 1, 1, false);
  expect_ascii(text);
  EXPECT_EQ(lines(text).size(), 2u);
  EXPECT_NE(text.find("?[2J?????x"), std::string::npos) << text;
}

TEST(texts, process_lines_keep_their_columns) {
  const size_t columns =
      lines(texts::processes({process(1, "0123456789abcdef")}, 1, 1, false))[1].size();
  EXPECT_LE(columns, 80u);
  pid_msg extreme{INT32_MAX, INT32_MIN, {},     'R', 0,     INT16_MIN, INT16_MAX,
                  0,         3e38F,     -3e38F, -1,  1e30F, INT64_MAX};
  name(extreme.comm, "0123456789abcdef");
  EXPECT_LE(widest(texts::processes({extreme}, INT32_MAX, 5, true)), 117u);
  EXPECT_EQ(lines(texts::processes({extreme}, 1, 1, false))[1].size(), columns);
  const auto wide = process(4194304, "x");
  EXPECT_EQ(lines(texts::processes({wide}, 1, 1, false))[1].substr(0, 15), "4194304       1");
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
  sample.counters.cs = 0;
  const auto got = lines(texts::counters(sample));
  ASSERT_EQ(got.size(), 24u);
  EXPECT_EQ(got[1], "cycles                2.0G");
  EXPECT_EQ(got[2], "instructions          3.0G  1.50 a cycle");
  EXPECT_EQ(got[3], "stall_frontend        250M  12.5% of cycles");
  EXPECT_EQ(got[4], "stall_backend            -");
  EXPECT_EQ(got[8], "l1d_misses              17  3.4% missed");
  EXPECT_EQ(got[21], "cs                       0");

  sample.interval_us = 0;
  sample.counters.cycles = 0;
  const std::string text = texts::counters(sample);
  EXPECT_LE(widest(text), 80u);
  EXPECT_EQ(text.find("inf"), std::string::npos);
  EXPECT_EQ(text.find("nan"), std::string::npos);
}

}  // namespace
