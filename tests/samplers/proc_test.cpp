// What is read from /proc of the whole machine: CPUs, block and network devices.
#include <gtest/gtest.h>

#include "sampler_test.h"
#include "samplers/blocks.h"
#include "samplers/cpu.h"
#include "samplers/net_devices.h"

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

std::string rates(const net_sample* before, const net_sample& now) {
  return rows(net_rates(before, now),
              [](const net_stat& one) { return row(one.dev_name, one.total, one.rate); });
}

TEST(net_devices, rates) {
  const net_sample before =
      devices(1000000, "eth0:1: 1000 0 0 0 0 0 0 0 24\nwlan0: 4294967000 0 0 0 0 0 0 0 9\n");
  net_sample now = devices(
      3000000,
      "Inter-|   Receive   |  Transmit\n face |bytes  packets|bytes  packets\n"
      "eth0:1:4096 0 0 0 0 0 0 0 1024\nwlan0: 50 0 0 0 0 0 0 0 9\n usb0: 5 0 0 0 0 0 0 0 5\n"
      "  cut: 1 2 3\n  bad: x 1 0 0 0 0 0 0 20 1\n");
  // 4096 bytes in 2 s; the next one went down, and the last is new.
  EXPECT_EQ(rates(&before, now), "eth0:1 5120 2\nwlan0 59 -\nusb0 10 -\n");
  EXPECT_EQ(rates(nullptr, now), "eth0:1 5120 -\nwlan0 59 -\nusb0 10 -\n");
  EXPECT_EQ(rates(&now, now), rates(nullptr, now));
  net_sample zeros = devices(4000000, "usb0: 0 0 0 0 0 0 0 0 0\n");
  doubt_zeros(&now, zeros);
  EXPECT_EQ(rates(&now, zeros), "usb0 - -\n");
  EXPECT_EQ(rates(&zeros, devices(5000000, "usb0: 9 0 0 0 0 0 0 0 5\n")), "usb0 14 -\n");
  EXPECT_LT(read_net_sample(fixture("board-4core"), now), 0);
  EXPECT_TRUE(now.entries.empty());
}

}  // namespace
}  // namespace samplers
