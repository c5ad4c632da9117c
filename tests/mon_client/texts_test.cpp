// SPDX-License-Identifier: Apache-2.0
// The texts as they are shown, and what a hostile server may make of them.
#include "texts.h"

#include <gtest/gtest.h>
#include <regex.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <random>
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
    EXPECT_LE(text_tools::count_text(9.996 * std::pow(10, std::min(power, 18))).size(), 5U);
    EXPECT_LE(text_tools::short_count_text(9.996 * std::pow(10, power)).size(), 4U) << power;
  }
}

TEST(text_tools, sizes_have_three_digits) {
  constexpr uint64_t mib = 1 << 20;
  const std::pair<uint64_t, const char*> rows[] = {
      {0, "0B"},
      {999, "999B"},
      {1000, "0.98K"},
      {1023 * 1024, "1M"},
      {84 * mib, "84M"},
      {999 * 1024, "999K"},
      {999 * mib, "999M"},
      {1000 * mib, "0.98G"},  // 1000/1024 of a GiB
      {1280 * mib, "1.25G"},
      {1024 * 102 * mib / 8, "12.8G"},  // 12.75
      {UINT64_MAX - 1, "16E"},
      {unknown_u64, "-"},
  };
  for (const auto& [bytes, text] : rows) {
    EXPECT_EQ(text_tools::size_text(bytes), text);
  }
  EXPECT_EQ(text_tools::size_text(UINT64_MAX - 1, 1), "16.0E");
}

TEST(texts, one_liners) {
  constexpr uint64_t frost = UINT64_MAX - 5499;  // -5.5 degrees
  constexpr size_t wide = 117;
  const std::vector<thermal_stat> zones = {
      {"case", frost, unknown_u64, thermal_zone},
      {"bpu-thermal", unknown_u64, unknown_u64, thermal_zone},
      {"cpu-thermal", 45230, unknown_u64, thermal_zone},
      {"cpu", 45230, unknown_u64, thermal_zone},
      {"thermal-idle", unknown_u64, 0, thermal_cooling},
      {"fan", unknown_u64, 2, thermal_cooling},
  };
  EXPECT_EQ(texts::thermal(zones, wide),
            "Thermal  cpu 45.2C  cpu#2 45.2C  case -5.5C  bpu -  | fan 2  idle 0");
  // 40 columns: 13 for the cooling devices, and 27 for the zones.
  EXPECT_EQ(texts::thermal(zones, 40), "Thermal  cpu 45.2C  +3  | fan 2  +1");
  EXPECT_EQ(texts::thermal({}, wide), "Thermal  none");
  // 16252928 KiB = 15.5G; 314573 KiB = 307.2M; no MemAvailable.
  const meminfo info{16252928, 9542042, unknown_u64, 10240, 5242880, 314573, 4823450, 1048576};
  EXPECT_EQ(
      texts::memory(info, wide),
      "[Mem total 15.5G avail - free 9.1G cached 5G anon 1G slab 307M buffers 10M file 4.6G]");
  EXPECT_EQ(texts::memory(info, 40), "[Mem total 15.5G avail - free 9.1G +5]");
  EXPECT_EQ(texts::ion({{"empty", 0}, {"system", unknown_u64}, {"cma", 64 << 20}}, 28),
            "[ION cma 64M  empty 0B  +1]");
  const std::vector<block_stat> disks = {{"sda", unknown_u64, unknown_u64, 0},
                                         {"mmcblk0", 0, 24, 2000}};
  EXPECT_EQ(texts::blocks(disks, wide),
            "Block KB/s  mmcblk0 read 0.0 write 12.0  sda read - write -");
  const std::vector<net_traffic> devices = {{"lo", 5 << 20, 0, 0, 0, 0},
                                            {"eth0", 1342177280, 120.5, 3.25, 3, 12},
                                            {"can0", unknown_u64, NAN, NAN, unknown_u64, 0},
                                            {"usb0", 9 << 20, 0, 0, 0, 0}};
  EXPECT_EQ(texts::net(devices, wide),
            "Net KB/s  eth0 rx 120.5 tx 3.2 err 3 drop 12 (total 1.25G)  usb0 rx 0.0 tx 0.0 (total "
            "9M)\n          lo rx 0.0 tx 0.0 (total 5M)  can0 rx - tx - (total -)\n");
  const std::vector<net_stat> sums = {{"eth0", 1342177280, 120.5}, {"lo", unknown_u64, NAN}};
  EXPECT_EQ(texts::net(sums, wide), "Net KB/s  eth0 120.5 (total 1.25G)  lo - (total -)\n");
  EXPECT_EQ(texts::bpu({{"bpu0", 37}, {"b1", unknown}}, wide), "BPU  bpu0 37.0%  b1 -\n");
  EXPECT_EQ(texts::bpu(std::vector<bpu_stat>(9, {"b", 5}), 20),
            "BPU busiest  b 5.0%\n             +8\n");
  const auto vio = lines(texts::vio({{"dead", unknown}, {"slow", 9.964F}, {"fast", 59.94F}}, wide));
  EXPECT_EQ(vio.at(1), "fast                                59.94");
  EXPECT_EQ(vio.at(2), "slow                                 9.96");
  EXPECT_EQ(vio.at(3), "dead                                    -");
}

TEST(texts, partitions_count_as_df_does) {
  // 307 of 1000 MiB used and 693 left to users: 30.7 %, shown as 31 as df rounds up. With 93 of
  // them reserved for root, it is 307 of 907. Figures that would overflow, or contradict each
  // other, are no figures.
  const uint64_t mib = 256;  // blocks of 4 KiB
  const std::vector<part_info> parts = {{"/log", 693 * mib, 1000 * mib, 4096, 307 * mib},
                                        {"/r", 600 * mib, 1000 * mib, 4096, 307 * mib},
                                        {"/map", unknown_u64, unknown_u64, 4096, unknown_u64},
                                        {"/a", 1, UINT64_MAX - 1, 4096, 1},
                                        {"/b", 1, 1, 4096, 2}};
  EXPECT_EQ(texts::partitions(parts, 117),
            "Partitions  /log 307M/0.98G 31%  /r 307M/0.98G 34%  /map -  /a -  /b -");
  EXPECT_EQ(texts::partitions(parts, 69),
            "Partitions  /log 31% of 0.98G  /r 34% of 0.98G  /map -  /a -  /b -");
}

// What a list shows: entries whose name and figures are whole, and the count behind them.
size_t shown_and_counted(const std::string& text, const std::string& entry) {
  regex_t form{};
  EXPECT_EQ(regcomp(&form, (entry + "([] ]|$)").c_str(), REG_EXTENDED), 0);
  size_t found = 0;
  for (const std::string& line : lines(text)) {
    regmatch_t match[1];
    for (const char* rest = line.c_str(); regexec(&form, rest, 1, match, 0) == 0;
         rest += match[0].rm_eo) {
      ++found;
    }
    for (size_t at = line.find('+'); at != std::string::npos; at = line.find('+', at + 1)) {
      found += std::stoul(line.substr(at + 1));
    }
  }
  regfree(&form);
  return found;
}

// Lists of any length with names and figures of any length, in any width.
TEST(texts, lists_fit_their_place_and_leave_nothing_uncounted) {
  std::mt19937 random(1);
  const auto below = [&random](uint64_t end) { return random() % end; };
  const auto set_name = [&below](char* name) {
    const std::string text = "d" + std::string(below(14), 'x');
    std::memcpy(name, text.c_str(), text.size() + 1);
  };
  const auto figure = [&below] { return below(5) == 0 ? NAN : std::pow(10, below(9)); };
  const auto size = [&below] { return below(5) == 0 ? unknown_u64 : uint64_t{1} << below(50); };
  const auto list = [&](size_t count, auto record, auto fill) {
    std::vector<decltype(record)> all(count, record);
    for (auto& one : all) {
      fill(one);
    }
    return all;
  };
  const std::string rate = "(-|[0-9.]+[kM]?)";
  for (int turn = 0; turn < 300; ++turn) {
    const size_t width = 20 + below(98);
    const size_t count = 1 + below(turn % 2 == 0 ? 8 : 70);
    const auto check = [&](const std::string& text, size_t most_lines, const std::string& entry,
                           size_t total) {
      ASSERT_LE(widest(text), width) << text;
      ASSERT_LE(lines(text).size(), most_lines) << text;
      ASSERT_EQ(shown_and_counted(text, entry), total) << width << ": " << text;
    };
    check(texts::bpu(list(count, bpu_stat{},
                          [&](auto& one) {
                            set_name(one.name);
                            one.bpu_rat = static_cast<float>(below(101));
                          }),
                     width),
          2, "dx* [0-9.]+%", count);
    check(texts::net(list(count, net_traffic{},
                          [&](auto& one) {
                            one = {{}, size(), figure(), figure(), below(2) * below(9999), size()};
                            set_name(one.dev_name);
                          }),
                     width),
          3, "dx* rx " + rate + " tx " + rate + "( err [^ ]+)?( drop [^ ]+)?( \\(total [^ ]+\\))?",
          count);
    check(texts::blocks(list(count, block_stat{},
                             [&](auto& one) {
                               one = {{}, size(), size(), below(2000)};
                               set_name(one.name);
                             }),
                        width),
          3, "dx* r(ead)? [^ ]+ w(rite)? [^ ]+", count);
    check(
        texts::partitions(list(count, part_info{},
                               [&](auto& one) {
                                 one = {{}, below(9), 10 + below(99), 1ULL << below(40), below(9)};
                                 set_name(one.part_name);
                               }),
                          width),
        1, "dx* ([^ ]+/[^ ]+ [0-9]+%|[0-9]+% of [^ ]+)", count);
    const auto heaps = list(count, ion_info{}, [&](auto& one) {
      one.used = size();
      set_name(one.ion_name);
    });
    const std::string memory =
        texts::memory({size(), size(), size(), size(), size(), size(), size(), size()},
                      texts::memory_width(width, texts::ion(heaps, SIZE_MAX).size()));
    check(memory, 1, "[a-z]+ [^] +]+", 8);
    check(memory + ", " + texts::ion(heaps, texts::ion_width(width, memory.size())), 1,
          "(dx*|[a-z]{4,}) [^] +]+", 8 + count);
    auto zones = list(count, thermal_stat{}, [&](auto& one) {
      one = {{}, size() >> 33, unknown_u64, thermal_zone};
      set_name(one.name);
    });
    const size_t fans = below(9);
    zones.resize(count + fans, {"d", unknown_u64, 1, thermal_cooling});
    check(texts::thermal(zones, width), 1, "dx*(#[0-9]+)? [^ +]+", count + fans);
  }
}

TEST(texts, a_failed_query_says_why_in_the_room_that_it_has) {
  constexpr auto line = texts::text_form::line;
  constexpr auto ended = texts::text_form::ended_line;
  constexpr auto brackets = texts::text_form::brackets;
  const struct {
    const char* name;
    texts::text_form form;
    int status;
    bool answered;
    size_t width;
    const char* text;
  } rows[] = {
      {"CPU", ended, -ECONNREFUSED, false, 69, "CPU  no answer from h:75: Connection refused\n"},
      {"Thermal", line, -ETIMEDOUT, false, 40, "Thermal  no answer from h:75: timed out"},
      {"Mem", brackets, -ECONNREFUSED, false, 40, "[Mem no answer: Connection refused]"},
      {"ION", brackets, -ECONNREFUSED, false, 30, "[ION no answer]"},
      {"Block", line, -ENOENT, true, 79,
       "Block  the server has no figures: No such file or directory"},
      {"Net", ended, -EBADMSG, false, 20, "Net  bad answer\n"},
      {"BPU", ended, -EUSERS, false, 79,
       "BPU  h:75: the monitor server is full (64 connections)\n"},
      {"Counters", ended, -EINVAL, true, 13, "no figures\n"},
      {"Counters", ended, -EUSERS, false, 13, "server full\n"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(texts::failure({row.name, row.form, row.status, row.answered, "h:75"}, row.width),
              row.text);
  }
  EXPECT_EQ(texts::failure({"VIO", ended, -ENOTCONN, false, ""}, 79),
            "VIO  Transport endpoint is not connected\n");
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
  EXPECT_EQ(texts::cpu(two, 69),
            "CPU %   busy  user  nice   sys  idle iowait   irq  sirq steal   MHz\n"
            "total   12.5  12.5   0.0   0.0  87.5    0.0   0.0   0.0   0.0  1800\n"
            "cpu0    12.5  12.5   0.0   0.0  87.5    0.0   0.0   0.0   0.0  1800\n"
            "cpu1       -     -     -     -     -      -     -     -     -     -\n");
  EXPECT_EQ(lines(texts::cpu(cpus(8), 69)).at(2),
            "cpu0   12.5% us  12 sy   0 1800MHz cpu1   12.5% us  12 sy   0 1800MHz");
}

// Nine lines of 69 columns are all that the panel has, on every board.
TEST(texts, cpu_block_fits_whatever_the_number_of_cpus) {
  for (int count = 0; count <= 1024; ++count) {
    for (const float share : {0.0F, 101.0F, -1e30F, unknown}) {
      for (const size_t width : {20, 50, 117}) {
        const std::string text = texts::cpu(cpus(count, share), width);
        ASSERT_LE(lines(text).size(), 9U) << count << " CPUs";
        ASSERT_LE(widest(text), std::min<size_t>(width, 69)) << count << " CPUs of " << share;
      }
    }
  }
  // Each of 64 has its share in the grid, with its number.
  auto many = cpus(64);
  many[64].idle = 3;
  const std::string text = texts::cpu(many, 117);
  EXPECT_NE(text.find("63: 97"), std::string::npos) << text;
  EXPECT_NE(text.find(" 0: 12"), std::string::npos) << text;
  // A number that no kernel gives does not break the block either.
  many[1].cpu = INT32_MIN;
  EXPECT_LE(widest(texts::cpu(many, 117)), 69U);
}

std::string processes(const pid_msg& one) {
  return texts::processes({one}, {}, 118, 1, false, 117);
}

TEST(texts, process_list) {
  EXPECT_EQ(processes({4242, 1, "camera", 'S', 0, 20, 3, 0, 12.5F, 150, unknown, unknown, 20480}),
            "  PID  PPID S PRI CPU *CPU%  BPU%  IO KB/s  NET KB/s    RSS PROCS 118 by CPU\n"
            " 4242     1 S  20   3 150.0     -     12.5         -  20.0M camera\n");
  const auto header = [](int key) {
    return lines(texts::processes({}, {}, 9, key, true, 117)).front();
  };
  EXPECT_EQ(header(5),
            "  TID   PID S PRI CPU  CPU%  BPU%  IO KB/s  NET KB/s   *RSS THREADS 9 by RAM");
  EXPECT_NE(header(2).find("*BPU%"), std::string::npos);
  EXPECT_NE(header(4).find("*NET KB/s"), std::string::npos);
}

// What tells processes of one name apart comes first behind it, where 80 columns leave 20.
TEST(texts, command_lines_behind_names) {
  const struct {
    const char* name;
    const char* line;
    const char* process;
    const char* thread;
  } rows[] = {
      {"python3", "/usr/bin/python3 -m a b", "python3 -m a b", "python3 -m a b"},
      {"bash", "-bash", "bash", "bash"},
      {"init", "/sbin/init", "init", "init"},
      {"camera_pipeline", "/opt/camera_pipeline_left -v", "camera_pipeline_left -v",
       "camera_pipeline_left -v"},
      {"cam", "camera -v", "cam camera -v", "cam  camera -v"},
      {"worker-3", "/opt/bin/app --port 80", "worker-3 /opt/bin/app --port 80",
       "worker-3  app --port 80"},
      {"app.py", "python3 /srv/app.py", "app.py python3 /srv/app.py",
       "app.py  python3 /srv/app.py"},
      {"x", "/ y", "x / y", "x   y"},
      {"", "a", " a", "  a"},
  };
  for (const auto& row : rows) {
    pid_msg msg{7, 7, "", 'S', 0, 20, 3, 0, 0, 0, 0, 0, 0};
    std::string(row.name).copy(msg.comm, sizeof msg.comm - 1);
    const auto behind_figures = [&](bool threads) {
      return lines(texts::processes({msg}, {{7, row.line}}, 1, 1, threads, 117)).at(1).substr(60);
    };
    EXPECT_EQ(behind_figures(false), row.process);
    EXPECT_EQ(behind_figures(true), row.thread);
  }
}

// Names are cut, and figures only between two of them, on any terminal and with ids of any size.
TEST(texts, process_list_keeps_to_the_width) {
  const std::string line(124, 'x');
  for (const int32_t pid : {1, 12345, 4194304}) {
    const pid_msg msg{pid, pid, "camera", 'S', 0, 20, 3, 0, 12.5F, 150, 1e6F, 1e6F, 20480};
    const std::string whole = texts::processes({msg}, {{pid, line}}, 99999, 1, true, 117);
    for (size_t width = 10; width <= 117; ++width) {
      const std::string text = texts::processes({msg}, {{pid, line}}, 99999, 1, true, width);
      ASSERT_LE(widest(text), width) << text;
      const std::string cut = lines(text).at(1);
      ASSERT_EQ(lines(whole).at(1).substr(0, cut.size()), cut);
      const bool in_figures = cut.size() < 59;
      ASSERT_TRUE(!in_figures || lines(whole).at(1)[cut.size()] == ' ') << text;
    }
    EXPECT_EQ(lines(whole).at(1).size(), 117U);
  }
  const pid_msg wide{4194304, 4194303, "camera", 'S', 0, 20, 3, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(texts::processes({wide}, {{4194304, "camera --left --port 80"}}, 12345, 1, false, 79),
            "    PID    PPID S PRI CPU *CPU%  BPU%  IO KB/s  NET KB/s    RSS PROCS 12345\n"
            "4194304 4194303 S  20   3   0.0   0.0      0.0       0.0     0B camera --left -\n");
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
  EXPECT_LE(widest(texts::processes({extreme}, {}, INT32_MAX, 5, true, 117)), 117U);
  EXPECT_EQ(lines(processes({4194304, 1, "x", 'S', 0, 0, 0, 0, 0, 0, 0, 0, 0})).at(1).substr(0, 15),
            "4194304       1");
}

TEST(texts, machine_in_the_rows_that_are_left) {
  system_stat stat{};
  stat.load_1 = 0.52F;
  stat.load_5 = 0.4F;
  stat.load_15 = 12.333F;
  stat.tasks = 312;
  stat.tasks_running = 2;
  stat.tasks_blocked = unknown_u32;
  stat.uptime_s = 3 * 86400 + 4 * 3600 + 5 * 60 + 6;
  stat.cpu_some = 1.2F;
  stat.memory_some = 100.4F;
  stat.memory_full = unknown;
  stat.swap_total = 4 << 20;
  stat.swap_free = 3 << 20;
  stat.zram_data = 84 << 10;
  stat.zram_used = 21 << 10;
  const char load[] = "load 0.52 0.40 12.33  tasks 312, 2 running, - blocked  up 3d 04:05\n";
  const char swap[] = "swap 1G of 4G  zram 84M in 21M\n";
  EXPECT_EQ(
      texts::system(stat, 3, 69),
      std::string(load) + "pressure  cpu 1.2%  io 0.0% (all 0.0%)  memory 100.0% (all -)\n" + swap);
  EXPECT_EQ(texts::system(stat, 1, 69), load);
  EXPECT_EQ(lines(texts::system(stat, 1, 30)).front(), "load 0.52 0.40 12.33");
  // A kernel without pressure has a row more for the rest; a machine without swap says so.
  stat.cpu_some = stat.io_some = stat.io_full = stat.memory_some = unknown;
  EXPECT_EQ(texts::system(stat, 2, 69), std::string(load) + swap);
  stat.swap_total = stat.swap_free = 0;
  stat.zram_data = stat.zram_used = unknown_u64;
  EXPECT_EQ(texts::system(stat, 9, 69), std::string(load) + "no swap\n");
}

perf_sample two_seconds_of_counters() {
  perf_sample sample{};
  std::memset(&sample.counters, 0xff, sizeof sample.counters);
  sample.interval_us = 2000000;
  sample.counters.cycles = 4000000000;
  sample.counters.instructions = 6000000000;
  sample.counters.stall_frontend = 500000000;
  sample.counters.l1d_load = 1000;
  sample.counters.l1d_misses = 34;
  return sample;
}

// Known ones first; in the 13 columns of a terminal of 132 the ratio stands in place of the rate.
TEST(texts, counters_with_rates_and_ratios) {
  const std::pair<size_t, std::vector<std::string>> forms[] = {
      {80,
       {"Counters          a second", "cycles                2.0G",
        "instructions          3.0G  1.50 a cycle", "stall_frontend        250M  12.5% of cycles",
        "l1d_load               500", "l1d_misses              17  3.4% missed",
        "stall_backend            -"}},
      {21,
       {"Counters   /s", "cycles   2.0G", "instr    3.0G  1.50", "stall fe 250M  12.5%",
        "l1d load  500", "l1d miss   17  3.4%", "stall be    -"}},
      {13,
       {"Counters   /s", "cycles   2.0G", "instr/cy 1.50", "stall fe  12%", "l1d load  500",
        "l1d miss 3.4%", "stall be    -"}},
  };
  for (const auto& [width, expected] : forms) {
    auto got = lines(texts::counters(two_seconds_of_counters(), width));
    EXPECT_EQ(got.size(), 24U);
    got.resize(expected.size());
    EXPECT_EQ(got, expected);
  }
  EXPECT_EQ(text_tools::counters_width(0), 80U);
  EXPECT_EQ(text_tools::counters_width(119), 13U);
  EXPECT_EQ(text_tools::counters_width(180), 61U);
  EXPECT_EQ(text_tools::counters_width(250), 80U);
}

TEST(texts, counters_fit_their_panel_whatever_they_count) {
  std::mt19937_64 random(1);
  for (size_t turn = 0; turn < 2000; ++turn) {
    perf_sample sample{};
    uint64_t counts[sizeof sample / 8];
    for (uint64_t& one : counts) {
      one = random() >> random() % 64;
    }
    counts[0] = turn % 9 == 0 ? 0 : counts[0];
    std::memcpy(&sample, counts, sizeof sample);
    const size_t width = 13 + turn % 68;
    const std::string text = texts::counters(sample, width);
    ASSERT_LE(widest(text), width) << text;
    ASSERT_EQ(text.find("inf"), std::string::npos) << text;
    ASSERT_EQ(text.find("nan"), std::string::npos) << text;
  }
}

}  // namespace
