#include "samplers/processes.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <cmath>

#include "sampler_test.h"

namespace samplers {
namespace {

using testing::ElementsAre;

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

std::vector<int32_t> listed(const top_pid_info& top) {
  std::vector<int32_t> pids;
  for (int i = 0; i < top.pid_num; ++i) {
    pids.push_back(top.send_pid_info[i].pid);
  }
  return pids;
}

TEST(process_stat, names_may_hold_anything) {
  for (const char* comm : {"sh", "a b", "(sd-pam)", ") R 1 1 (", "x) R 1 1", "new\nline", ""}) {
    process_entry entry;
    ASSERT_EQ(parse_process_stat(stat_line(comm), 4, entry), 0) << comm;
    EXPECT_EQ(name_of(entry.comm), comm);
    EXPECT_EQ(entry.pid, 12);
    EXPECT_EQ(entry.state, 'S');
    EXPECT_EQ(entry.ppid, 7);
    EXPECT_EQ(entry.cpu_ticks, 42U);
    EXPECT_EQ(entry.priority, -51);
    EXPECT_EQ(entry.num_threads, 3);
    EXPECT_EQ(entry.start_ticks, 900U);
    EXPECT_EQ(entry.rss_kb, 100);
    EXPECT_EQ(entry.processor, 5);
  }
  process_entry entry;
  ASSERT_EQ(parse_process_stat(stat_line("kworker/u8:1-events_unbound"), 4, entry), 0);
  EXPECT_EQ(name_of(entry.comm), "kworker/u8:1-ev");
}

// Wherever a line ends too early, also within a name that looks like the rest of it.
TEST(process_stat, cut_lines_are_refused) {
  const std::string line = stat_line("x) R 1 1");
  const size_t last_needed = line.rfind(" 5 0 0");
  for (size_t length = 0; length <= last_needed; ++length) {
    process_entry entry;
    EXPECT_EQ(parse_process_stat(line.substr(0, length), 4, entry), -EBADMSG) << length;
  }
}

TEST(process_stat, io_and_uptime) {
  EXPECT_EQ(parse_io("rchar: 9\nread_bytes: 4096\nwrite_bytes: 10\ncancelled_write_bytes: 7\n"),
            4106U);
  EXPECT_EQ(parse_io("rchar: 9\nread_bytes: 4096\ncancelled_write_bytes: 7\n"), unknown_u64);
  EXPECT_EQ(parse_uptime("12.34 40.00\n", 100), 1234U);
  EXPECT_EQ(parse_uptime("soon", 100), 0U);
}

TEST(read_processes, processes_and_threads) {
  const file_reader machine(fixture("cpu64"));
  const int64_t page_kb = sysconf(_SC_PAGESIZE) / 1024;
  process_sample sample;
  ASSERT_EQ(read_process_sample(machine, false, sample), 0);
  ASSERT_EQ(sample.entries.size(), 3U);
  EXPECT_EQ(sample.uptime_ticks, 1000U * static_cast<uint64_t>(sample.ticks_per_second));
  EXPECT_EQ(sample.entries[1].pid, 42);
  EXPECT_EQ(name_of(sample.entries[1].comm), "rcu) R 1 1");
  EXPECT_EQ(sample.entries[2].ppid, 1);
  EXPECT_EQ(sample.entries[2].cpu_ticks, 1800U);
  EXPECT_EQ(sample.entries[2].io_bytes, 12288U);
  EXPECT_EQ(sample.entries[2].rss_kb, 30000 * page_kb);

  ASSERT_EQ(read_process_sample(machine, true, sample), 0);
  ASSERT_EQ(sample.entries.size(), 5U);
  EXPECT_EQ(sample.entries[0].ppid, 1);  // the process that a lone thread belongs to: its own
  EXPECT_EQ(sample.entries[2].cpu_ticks, 1000U);
  EXPECT_EQ(sample.entries[2].io_bytes, 4096U);
  EXPECT_EQ(sample.entries[3].pid, 301);
  EXPECT_EQ(sample.entries[3].ppid, 300);
  EXPECT_EQ(name_of(sample.entries[4].comm), "enc (h265)");
}

TEST(read_processes, those_that_vanish_are_left_out_and_refused_io_is_unknown) {
  const temporary_tree tree;
  tree.write("proc/uptime", "10.00 1.00\n");
  tree.write("proc/12/stat", stat_line("left"));
  tree.write("proc/13/cmdline", "gone");
  tree.write("proc/14/stat", "14 (cut) S 1");
  tree.write("proc/sys/kernel/version", "1");
  process_sample sample;
  ASSERT_EQ(read_process_sample(file_reader(tree.root), false, sample), 0);
  ASSERT_EQ(sample.entries.size(), 1U);
  EXPECT_EQ(sample.entries[0].io_bytes, unknown_u64);
  EXPECT_LT(read_process_sample(file_reader("/nonexistent"), false, sample), 0);
  ASSERT_EQ(read_process_sample(file_reader(""), true, sample), 0);
  EXPECT_GT(sample.entries.size(), 1U);
}

TEST(top_processes, rates_between_samples) {
  const process_sample before =
      sample_of(1000000, {entry_of(10, 5, 100, 1024), entry_of(11, 5, 900),
                          entry_of(12, 5, 500, 9000), entry_of(15, 5, 7)});
  const process_sample now =
      sample_of(3000000, {entry_of(10, 5, 200, 5120),    // 100 ticks in 2 s: 50 %, 4 KiB in 2 s
                          entry_of(11, 77, 20),          // the pid's next owner: 20 ticks in 2 s
                          entry_of(12, 5, 499, 10000),   // CPU time went back
                          entry_of(13, 99, 60, 2048)});  // new
  top_pid_info top;
  top_processes(&before, now, sort_by_cpu, top);
  EXPECT_EQ(top.pid_total, 4);
  EXPECT_THAT(listed(top), ElementsAre(10, 13, 11, 12));
  EXPECT_FLOAT_EQ(top.send_pid_info[0].process_usage, 50);
  EXPECT_FLOAT_EQ(top.send_pid_info[0].io_per_second, 2);
  EXPECT_FLOAT_EQ(top.send_pid_info[1].process_usage, 30);
  EXPECT_FLOAT_EQ(top.send_pid_info[1].io_per_second, 1);
  EXPECT_FLOAT_EQ(top.send_pid_info[2].process_usage, 10);
  EXPECT_TRUE(std::isnan(top.send_pid_info[2].io_per_second));
  EXPECT_TRUE(std::isnan(top.send_pid_info[3].process_usage));
  EXPECT_TRUE(std::isnan(top.send_pid_info[0].net_band));
  EXPECT_TRUE(std::isnan(top.send_pid_info[0].bpu_usage));
}

TEST(top_processes, without_a_sample_of_the_same_view_over_their_lives) {
  process_sample now = sample_of(3000000, {entry_of(10, 600, 100), entry_of(11, 1000, 5)});
  now.uptime_ticks = 1000;
  process_sample other_view = sample_of(1000000, {entry_of(10, 600, 90)});
  other_view.threads = true;
  top_pid_info top;
  for (const process_sample* before : {static_cast<const process_sample*>(nullptr),
                                       static_cast<const process_sample*>(&other_view)}) {
    top_processes(before, now, sort_by_cpu, top);
    EXPECT_THAT(listed(top), ElementsAre(10, 11));
    EXPECT_FLOAT_EQ(top.send_pid_info[0].process_usage, 25);  // 100 of 400 ticks
    EXPECT_TRUE(std::isnan(top.send_pid_info[1].process_usage));
  }
  top_processes(&now, now, sort_by_cpu, top);
  EXPECT_TRUE(std::isnan(top.send_pid_info[0].process_usage));
}

TEST(top_processes, order_of_each_key) {
  process_sample before = sample_of(0, {});
  process_sample now = sample_of(1000000, {entry_of(1, 1, 10), entry_of(2, 1, 30, 100),
                                           entry_of(3, 1, 30, 900), entry_of(4, 1, 50, 100)});
  now.entries[0].rss_kb = 20000001;
  now.entries[1].rss_kb = 20000002;
  top_pid_info top;
  top_processes(&before, now, sort_by_io, top);
  EXPECT_THAT(listed(top), ElementsAre(3, 4, 2, 1));
  top_processes(&before, now, sort_by_ram, top);
  EXPECT_THAT(listed(top), ElementsAre(2, 1, 4, 3));
  for (const int by_cpu : {sort_by_cpu, sort_by_bpu, sort_by_net, 0, 99, -1}) {
    top_processes(&before, now, by_cpu, top);
    EXPECT_THAT(listed(top), ElementsAre(4, 2, 3, 1)) << by_cpu;
  }
}

TEST(top_processes, more_than_an_answer_holds) {
  const process_sample before = sample_of(0, {});
  process_sample now = sample_of(1000000, {});
  for (int32_t pid = 1; pid <= 300; ++pid) {
    now.entries.push_back(entry_of(pid, 1, static_cast<uint64_t>(pid)));
  }
  top_pid_info top;
  top_processes(&before, now, sort_by_cpu, top);
  EXPECT_EQ(top.pid_total, 300);
  ASSERT_EQ(top.pid_num, 146);
  EXPECT_EQ(top.send_pid_info[0].pid, 300);
  EXPECT_EQ(top.send_pid_info[145].pid, 155);
}

}  // namespace
}  // namespace samplers
