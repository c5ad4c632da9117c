// SPDX-License-Identifier: Apache-2.0
// What is read from /proc of the whole machine: CPUs, block and network devices, load and pressure.
#include <gtest/gtest.h>

#include "sampler_test.h"
#include "samplers/blocks.h"
#include "samplers/cpu.h"
#include "samplers/net_devices.h"
#include "samplers/system.h"

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

TEST(cpu, total_is_over_the_cpus_that_both_samples_have) {
  const cpu_sample before = sample_of(
      "cpu  100 0 0 700 50 0 0 0\ncpu0 50 0 0 250 25 0 0 0\ncpu1 50 0 0 250 25 0 0 0\n"
      "cpu4 0 0 0 200 0 0 0 0\n");
  // cpu0's idle went back by a tick, cpu1's user did, cpu2 is back with the idle time of an hour,
  // cpu4 has gone.
  const cpu_sample now = sample_of(
      "cpu  140 0 0 360560 50 0 0 0\ncpu0 80 0 10 249 24 0 0 0\ncpu1 49 0 0 350 25 0 0 0\n"
      "cpu2 100 0 0 360000 0 0 0 0\n");
  EXPECT_EQ(rows(cpu_rates(&before, now), show),
            "- 75 0 25 0 0 0 0 0\n0 75 0 25 0 0 0 0 0\n1 - - - - - - - -\n2 - - - - - - - -\n");
}

TEST(cpu, idle_and_waiting_time_that_go_back) {
  const cpu_sample before = sample_of("cpu  0 0 0 5000 400\ncpu0 0 0 0 5000 400\n");
  // What had been idle is waiting now: of the 100 ticks none was idle.
  const cpu_sample waits = sample_of("cpu  0 0 0 4900 600\ncpu0 0 0 0 4900 600\n");
  EXPECT_EQ(show(cpu_rates(&before, waits)[1]), "0 0 0 0 0 100 0 0 0\n");
  EXPECT_EQ(show(cpu_rates(&waits, before)[1]), "0 - - - - - - - -\n");  // less than no time
  // Offline and online again in between: it counts from 0, though it was busier than it had been.
  const cpu_sample anew = sample_of("cpu  90 0 0 20 0\ncpu0 90 0 0 20 0\n");
  EXPECT_EQ(rows(cpu_rates(&before, anew), show), "- - - - - - - - -\n0 - - - - - - - -\n");
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

block_sample blocks(int64_t time_us, const std::string& text,
                    const std::vector<std::string>& known = {}) {
  block_sample sample;
  sample.time_us = time_us;
  parse_diskstats(text, known, sample.entries);
  return sample;
}

std::string rates(const block_sample* before, const block_sample& now) {
  return rows(block_rates(before, now), [](const block_stat& one) {
    return row(one.name, one.rd_kb, one.wr_kb, one.interval_ms);
  });
}

TEST(blocks, partitions_are_told_from_devices) {
  std::string text = "8 16 sdb 1 0 8 0 1 0 8\n8 32 sdc 1 0 8\n";  // of an old kernel, and cut short
  for (const char* name : {"sda", "sda1", "mmcblk0", "mmcblk0p1", "mmcblk0boot0", "nvme0n1",
                           "nvme0n1p1", "dm-0", "cciss/c0d0", "md127", "loop0", "ram15", "zram0"}) {
    text += "8 0 " + std::string(name) + " 1 0 8 0 1 0 8 0 0 0 0\n";
  }
  const auto names = [&text](const std::vector<std::string>& known) {
    return rows(blocks(0, text, known).entries,
                [](const block_entry& one) { return row(one.name); });
  };
  EXPECT_EQ(names({}), "sdb\nsda\nmmcblk0\nmmcblk0boot0\nnvme0n1\ndm-0\ncciss/c0d0\nmd127\n");
  // What /sys/block says counts, whatever a name looks like; loop0 has a folder there, too.
  EXPECT_EQ(names({"cciss!c0d0", "loop0", "sda1"}), "sda1\ncciss/c0d0\n");
}

TEST(blocks, differences_lose_no_odd_sector_and_start_anew_with_a_device) {
  const block_sample first = blocks(1000000, "8 0 sda 1 0 1 0 1 0 10 0\n");
  const block_sample second = blocks(2000000, "8 0 sda 1 0 2 0 1 0 15 0\n");
  const block_sample third =
      blocks(3500000, "8 0 sda 1 0 4 0 1 0 20 0\n8 32 sdc 1 0 2 0 1 0 2 0\n");
  // 1 to 4 sectors are from 0 to 2 KiB, 10 to 20 are 5 KiB.
  EXPECT_EQ(rates(&first, second), "sda 1 2 1000\n");
  EXPECT_EQ(rates(&second, third), "sda 1 3 1500\nsdc - - 1500\n");
  EXPECT_EQ(rates(&third, first), "sda - - 0\n");  // went down
  EXPECT_EQ(rates(nullptr, first), "sda - - 0\n");
  // Zeros for once, and the count after them, tell nothing; zeros that stay do.
  block_sample zeros = blocks(4000000, "8 0 sda 1 0 0 0 1 0 0 0\n");
  block_sample zeros_again = blocks(4500000, "8 0 sda 1 0 0 0 1 0 0 0\n");
  doubt_zeros(&third, zeros);
  doubt_zeros(&zeros, zeros_again);
  const block_sample after = blocks(5000000, "8 0 sda 1 0 4 0 1 0 20 0\n");
  EXPECT_EQ(rates(&third, zeros), "sda - - 500\n");
  EXPECT_EQ(rates(&zeros, after), "sda - - 1000\n");
  EXPECT_EQ(rates(&zeros_again, after), "sda 2 10 500\n");
}

net_sample devices(int64_t time_us, const char* text) {
  net_sample sample;
  sample.time_us = time_us;
  parse_net_dev(text, sample.entries);
  return sample;
}

// Total and rate, then received, sent, errors and drops.
std::string rates(const net_sample* before, const net_sample& now) {
  std::string text;
  const std::vector<net_stat> both = net_rates(before, now);
  const std::vector<net_traffic> each = net_rates_by_direction(before, now);
  for (size_t i = 0; i < both.size(); ++i) {
    EXPECT_EQ(both[i].total, each[i].total);
    text += row(both[i].dev_name, both[i].total, both[i].rate, each[i].rx_rate, each[i].tx_rate,
                each[i].errors, each[i].drops);
  }
  return text;
}

TEST(net_devices, rates) {
  const net_sample before =
      devices(1000000,
              "eth0:1: 1000 0 0 0 0 0 0 0 24\nwlan0: 4294967000 0 1 2 0 0 0 0 9 0 3 4\n"
              "can0: 2048 0 0 0 0 0 0 0 7 0 0 0\n");
  net_sample now = devices(3000000,
                           "Inter-|   Receive   |  Transmit\n face |bytes  packets|bytes  packets\n"
                           "eth0:1:4096 0 0 0 0 0 0 0 1024\nwlan0: 50 0 1 2 0 0 0 0 2057 0 5 4 0\n"
                           "can0: 2048 0 0 0 0 0 0 0 7 0 0 0\n usb0: 5 0 0 1 0 0 0 0 5 0 0 1\n"
                           "  cut: 1 2 3\n  bad: x 1 0 0 0 0 0 0 20 1\n");
  // 3096 and 1000 bytes in 2 s, without the later columns; the next one's received bytes went down,
  // 2048 were sent; nothing moved; and the last is new.
  const std::string totals[] = {"eth0:1 5120 ", "wlan0 2107 ", "can0 2055 ", "usb0 10 "};
  EXPECT_EQ(rates(&before, now), totals[0] + "2 1.51172 0.488281 - -\n" + totals[1] +
                                     "- - 1 6 6\n" + totals[2] + "0 0 0 0 0\n" + totals[3] +
                                     "- - - 0 2\n");
  EXPECT_EQ(rates(nullptr, now), totals[0] + "- - - - -\n" + totals[1] + "- - - 6 6\n" + totals[2] +
                                     "- - - 0 0\n" + totals[3] + "- - - 0 2\n");
  EXPECT_EQ(rates(&now, now), rates(nullptr, now));
  // Zeros for once, of all counters or of one direction's, and what comes after them.
  net_sample zeros = devices(4000000,
                             "usb0: 0 0 0 0 0 0 0 0 0 0 0 0\n"
                             "can0: 0 0 0 0 0 0 0 0 1031 0 0 0\n");
  doubt_zeros(&now, zeros);
  EXPECT_EQ(rates(&now, zeros), "usb0 - - - - 0 -\ncan0 - - - 1 0 0\n");
  EXPECT_EQ(rates(&zeros, devices(5000000, "usb0: 9 0 0 0 0 0 0 0 5\n")), "usb0 14 - - - - -\n");
  EXPECT_LT(read_net_sample(fixture("board-4core"), now), 0);
  EXPECT_TRUE(now.entries.empty());
}

std::string gauges(const system_stat& stat) {
  return row(stat.load_1, stat.load_5, stat.load_15, stat.tasks, stat.tasks_running,
             stat.tasks_blocked, stat.uptime_s, stat.swap_total, stat.swap_free);
}

std::string shares(const system_sample* before, const system_sample& now) {
  const system_stat stat = system_figures(before, now);
  return row(stat.cpu_some, stat.io_some, stat.io_full, stat.memory_some, stat.memory_full);
}

TEST(system, figures_of_files_and_those_that_are_missing) {
  const temporary_folder tree;
  const file_reader machine(tree.path);
  system_sampler sampler;
  system_sample sample;
  sampler.read(machine, nullptr, nullptr, sample);
  EXPECT_EQ(gauges(sample.stat), "- - - - - - - - -\n");
  EXPECT_EQ(shares(&sample, sample), "- - - - -\n");

  tree.write("proc/loadavg", "0.20 1.18 12.50 2/80 11206\n");
  tree.write("proc/uptime", "1000.99 51000.00\n");
  cpu_sample cpus;
  parse_task_counts("cpu 1 2 3 4\nintr 9 procs_running 7\nprocs_running 3\nprocs_blocked 1\n",
                    cpus);
  memory_sample memory;
  memory.swap_total = 2048;
  memory.swap_free = 0;
  sampler.read(machine, &cpus, &memory, sample);
  EXPECT_EQ(gauges(sample.stat), "0.2 1.18 12.5 80 3 1 1000 2048 0\n");
  parse_loadavg("1e99 0.10\n", sample.stat);
  EXPECT_EQ(gauges(sample.stat), "- 0.1 - - 3 1 1000 2048 0\n");
}

TEST(system, pressure_is_of_the_interval) {
  const auto at = [](int64_t time_us, const std::string& io_some, const char* memory) {
    system_sample sample;
    sample.time_us = time_us;
    sample.cpu = parse_pressure("some avg10=0.00 avg60=0.00 avg300=0.00 total=1000\n");
    sample.io = parse_pressure("some avg10=9.00 avg60=9.00 avg300=9.00 total=" + io_some +
                               "\nfull avg10=0.00 avg60=0.00 avg300=0.00 total=70\n");
    sample.memory = parse_pressure(memory);
    return sample;
  };
  const system_sample before = at(1000000, "500000", "some total=10\nfull total=900\n");
  const system_sample now = at(3000000, "1000000", "some total=9000010\nfull total=899\n");
  // Half a second of two; more than the time that passed; stepped back.
  EXPECT_EQ(shares(&before, now), "0 25 0 100 -\n");
  EXPECT_EQ(shares(&before, at(3000000, "", "some avg10=0.00")), "0 - 0 - -\n");
  EXPECT_EQ(shares(nullptr, now), "- - - - -\n");
}

TEST(system, zram_devices_add_up) {
  const temporary_folder tree;
  const file_reader machine(tree.path);
  const auto use = [&machine] {
    system_sampler sampler;
    system_sample sample;
    sampler.read(machine, nullptr, nullptr, sample);
    const zram_use all = read_zram(machine, sampler.zram_devices());
    return row(all.data, all.used);
  };
  tree.write("sys/block/sda/size", "8\n");
  EXPECT_EQ(use(), "- -\n");
  tree.write("sys/block/zram0/mm_stat", " 1048576  262144  409600 0 409600  0 0 0 0\n");
  tree.write("sys/block/zram10/mm_stat", "4096 74 12288 0 12288 0 0\n");
  tree.write("sys/block/zram11/disksize", "0\n");  // not set up
  EXPECT_EQ(use(), "1028 412\n");
  tree.write("sys/block/zram10/mm_stat", "4096 74\n");
  EXPECT_EQ(use(), "- -\n");
}

}  // namespace
}  // namespace samplers
