// What is read from /proc: CPUs, block and network devices, processes.
#include <gtest/gtest.h>
#include <unistd.h>

#include "sampler_test.h"
#include "samplers/blocks.h"
#include "samplers/cpu.h"
#include "samplers/net_devices.h"
#include "samplers/processes.h"

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
  EXPECT_LT(read_net_sample(fixture("board-4core"), now), 0);
  EXPECT_TRUE(now.entries.empty());
}

// A line with ppid 7, 30 + 12 ticks, priority -51, 3 threads, start 900, 25 pages, CPU 5.
std::string stat_line(const std::string& comm) {
  return "12 (" + comm +
         ") S 7 12 12 0 -1 4194560 1 0 0 0 30 12 0 0 -51 0 3 0 900 8388608 25 "
         "18446744073709551615 1 1 0 0 0 0 0 4096 0 0 0 -1 17 5 0 0 0 0 0\n";
}

process_entry entry_of(int32_t pid, uint64_t start, uint64_t cpu_ticks, uint64_t io = unknown_u64) {
  process_entry entry;
  entry.pid = pid;
  entry.start_ticks = start;
  entry.cpu_ticks = cpu_ticks;
  entry.io_bytes = io;
  return entry;
}

process_sample sample_of(int64_t time_us, std::vector<process_entry> entries) {
  process_sample sample;
  sample.time_us = time_us;
  sample.entries = std::move(entries);
  return sample;
}

std::vector<pid_msg> top(const process_sample* before, const process_sample& now, int sort_key) {
  top_pid_info info;
  top_processes(before, now, sort_key, info);
  EXPECT_EQ(static_cast<size_t>(info.pid_total), now.entries.size());
  return {info.send_pid_info, info.send_pid_info + info.pid_num};
}

std::string pid(const pid_msg& one) {
  return row(one.pid);
}

std::string pid_and_rates(const pid_msg& one) {
  return row(one.pid, one.process_usage, one.io_per_second, one.net_band);
}

TEST(process_stat, names_may_hold_anything) {
  for (const std::string comm :
       {"a b", "(sd-pam)", ") R 1 1 (", "x) R 1 1", "new\nline", "", "kworker/u8:1-events_unb"}) {
    process_entry entry;
    ASSERT_EQ(parse_process_stat(stat_line(comm), 4, entry), 0) << comm;
    EXPECT_EQ(row(entry.pid, entry.comm, entry.state, entry.ppid, entry.cpu_ticks, entry.priority,
                  entry.start_ticks, entry.rss_kb, entry.processor),
              "12 " + comm.substr(0, 15) + " S 7 42 -51 900 100 5\n");
  }
}

// Wherever a line ends too early, also within a name that looks like the rest of it.
TEST(process_stat, cut_lines_are_refused) {
  const std::string line = stat_line("x) R 1 1");
  for (size_t length = 0; length <= line.rfind(" 5 0 0"); ++length) {
    process_entry entry;
    EXPECT_EQ(parse_process_stat(line.substr(0, length), 4, entry), -EBADMSG) << length;
  }
}

TEST(read_processes, processes_and_threads) {
  const auto show = [](const process_entry& one) {
    return row(one.pid, one.ppid, one.comm, one.cpu_ticks, one.io_bytes);
  };
  process_sample sample;
  ASSERT_EQ(read_process_sample(fixture("cpu64"), false, sample), 0);
  EXPECT_EQ(rows(sample.entries, show),
            "1 0 init 500 1572864\n42 2 rcu) R 1 1 9000 0\n300 1 camera srv 1800 12288\n");
  EXPECT_EQ(sample.uptime_ticks, 1000U * static_cast<uint64_t>(sample.ticks_per_second));
  EXPECT_EQ(sample.entries.at(2).rss_kb, 30000 * (sysconf(_SC_PAGESIZE) / 1024));
  // In place of the parent the process that a thread belongs to.
  ASSERT_EQ(read_process_sample(fixture("cpu64"), true, sample), 0);
  EXPECT_EQ(rows(sample.entries, show),
            "1 1 init 500 1572864\n42 42 rcu) R 1 1 9000 0\n300 300 camera srv 1000 4096\n"
            "301 300 isp 500 8192\n305 300 enc (h265) 100 0\n");
}

TEST(read_processes, those_that_vanish_are_left_out_and_refused_io_is_unknown) {
  const temporary_folder tree;
  tree.write("proc/uptime", "10.00 1.00\n");
  tree.write("proc/12/stat", stat_line("left"));
  tree.write("proc/13/cmdline", "gone");
  tree.write("proc/14/stat", "14 (cut) S 1");
  process_sample sample;
  ASSERT_EQ(read_process_sample(file_reader(tree.path), false, sample), 0);
  EXPECT_EQ(rows(sample.entries, [](const auto& one) { return row(one.comm, one.io_bytes); }),
            "left -\n");
  EXPECT_EQ(parse_io("rchar: 9\nread_bytes: 4096\ncancelled_write_bytes: 7\n"), unknown_u64);
}

TEST(top_processes, rates_between_samples) {
  const process_sample before =
      sample_of(1000000, {entry_of(10, 5, 100, 1024), entry_of(11, 5, 900),
                          entry_of(12, 5, 500, 9000), entry_of(15, 5, 7)});
  const process_sample now =
      sample_of(3000000, {entry_of(10, 5, 200, 5120),    // 100 ticks in 2 s: 50 %, 4 KiB in 2 s
                          entry_of(11, 77, 20),          // the pid's next owner: 20 ticks in 2 s
                          entry_of(12, 5, 499, 11048),   // CPU time went back
                          entry_of(13, 99, 60, 2048)});  // new
  EXPECT_EQ(rows(top(&before, now, sort_by_cpu), pid_and_rates),
            "10 50 2 -\n13 30 1 -\n11 10 - -\n12 - 1 -\n");
}

TEST(top_processes, without_a_sample_of_the_same_view_over_their_lives) {
  process_sample now = sample_of(3000000, {entry_of(10, 600, 100), entry_of(11, 1000, 5)});
  now.uptime_ticks = 1000;
  process_sample other_view = sample_of(1000000, {entry_of(10, 600, 90)});
  other_view.threads = true;
  const std::string lives = "10 25 - -\n11 - - -\n";  // 100 of 400 ticks
  EXPECT_EQ(rows(top(nullptr, now, sort_by_cpu), pid_and_rates), lives);
  EXPECT_EQ(rows(top(&other_view, now, sort_by_cpu), pid_and_rates), lives);
  EXPECT_EQ(rows(top(&now, now, sort_by_cpu), pid_and_rates), "10 - - -\n11 - - -\n");
}

TEST(top_processes, order_of_each_key) {
  const process_sample before = sample_of(0, {});
  process_sample now = sample_of(1000000, {entry_of(1, 1, 10), entry_of(2, 1, 30, 100),
                                           entry_of(3, 1, 30, 900), entry_of(4, 1, 50, 100)});
  now.entries[0].rss_kb = 20000001;
  now.entries[1].rss_kb = 20000002;
  EXPECT_EQ(rows(top(&before, now, sort_by_io), pid), "3\n4\n2\n1\n");
  EXPECT_EQ(rows(top(&before, now, sort_by_ram), pid), "2\n1\n4\n3\n");
  for (const int by_cpu : {sort_by_cpu, sort_by_bpu, sort_by_net, 99, -1}) {
    EXPECT_EQ(rows(top(&before, now, by_cpu), pid), "4\n2\n3\n1\n") << by_cpu;
  }
  // More than an answer holds.
  for (int32_t more = 5; more <= 300; ++more) {
    now.entries.push_back(entry_of(more, 1, static_cast<uint64_t>(more) + 50));
  }
  const std::vector<pid_msg> most = top(&before, now, sort_by_cpu);
  ASSERT_EQ(most.size(), 146U);
  EXPECT_EQ(most.back().pid, 155);
}

}  // namespace
}  // namespace samplers
