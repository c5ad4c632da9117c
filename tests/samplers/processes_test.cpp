#include "samplers/processes.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include "sampler_test.h"

namespace samplers {
namespace {

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
