// SPDX-License-Identifier: Apache-2.0
// Processes and threads: their files, their figures from each source, and the lists made of them.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <thread>

#include "sampler_test.h"
#include "samplers/process_bpu.h"
#include "samplers/process_descriptors.h"
#include "samplers/process_sampler.h"
#include "samplers/process_stat.h"
#include "samplers/process_walk.h"
#include "samplers/processes.h"

namespace samplers {
namespace {

// A line with ppid 7, 30 + 12 ticks, priority -51, 3 threads, start 900, 25 pages, CPU 5.
std::string stat_line(const std::string& comm) {
  return "12 (" + comm +
         ") S 7 12 12 0 -1 4194560 1 0 0 0 30 12 0 0 -51 0 3 0 900 8388608 25 "
         "18446744073709551615 1 1 0 0 0 0 0 4096 0 0 0 -1 17 5 0 0 0 0 0\n";
}

constexpr uint64_t tick_ns = 10000000;

process_entry entry_of(int32_t pid, uint64_t start, uint64_t cpu_ticks, uint64_t io = unknown_u64) {
  process_entry entry;
  entry.pid = pid;
  entry.start_ticks = start;
  entry.cpu_ns = cpu_ticks * tick_ns;
  entry.io_bytes = io;
  return entry;
}

process_sampler sampler_of(const std::string& root, const process_sampler_options& options = {}) {
  return process_sampler(std::make_shared<const file_reader>(root), options);
}

process_sample sample_of(int64_t time_us, std::vector<process_entry> entries) {
  process_sample sample;
  sample.time_us = time_us;
  sample.entries = std::move(entries);
  return sample;
}

std::vector<pid_msg> top(const process_sample* before, const process_sample& now, int sort_key) {
  top_pid_info info;
  process_ranking().top(before, now, sort_key, info);
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
    ASSERT_EQ(parse_process_stat(stat_line(comm), stat_units(), entry), 0) << comm;
    EXPECT_EQ(row(entry.pid, entry.comm, entry.state, entry.ppid, entry.cpu_ns / tick_ns,
                  entry.priority, entry.start_ticks, entry.rss_kb, entry.processor),
              "12 " + comm.substr(0, 15) + " S 7 42 -51 900 100 5\n");
  }
}

// Wherever a line ends too early, also within a name that looks like the rest of it.
TEST(process_stat, cut_lines_are_refused) {
  const std::string line = stat_line("x) R 1 1");
  for (size_t length = 0; length <= line.rfind(" 5 0 0"); ++length) {
    process_entry entry;
    EXPECT_EQ(parse_process_stat(line.substr(0, length), stat_units(), entry), -EBADMSG) << length;
  }
}

TEST(read_processes, processes_and_threads) {
  const auto show = [](const process_entry& one) {
    return row(one.pid, one.ppid, one.comm, one.cpu_ns / tick_ns, one.io_bytes);
  };
  process_sample sample;
  ASSERT_EQ(sampler_of(ZORVA_FIXTURES "/cpu64").read(false, 0, sample), 0);
  EXPECT_EQ(rows(sample.entries, show),
            "1 0 init 500 1572864\n42 2 rcu) R 1 1 9000 0\n300 1 camera srv 1800 12288\n");
  EXPECT_EQ(sample.uptime_ticks, 1000U * static_cast<uint64_t>(sample.ticks_per_second));
  EXPECT_EQ(sample.entries.at(2).rss_kb, 30000 * (sysconf(_SC_PAGESIZE) / 1024));
  // In place of the parent the process that a thread belongs to.
  ASSERT_EQ(sampler_of(ZORVA_FIXTURES "/cpu64").read(true, 0, sample), 0);
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
  ASSERT_EQ(sampler_of(tree.path).read(false, 0, sample), 0);
  EXPECT_EQ(rows(sample.entries, [](const auto& one) { return row(one.comm, one.io_bytes); }),
            "left -\n");
  EXPECT_EQ(parse_io("rchar: 9\nread_bytes: 4096\ncancelled_write_bytes: 7\n"), unknown_u64);
}

TEST(top_processes, rates_between_samples) {
  process_sample before = sample_of(1000000, {entry_of(10, 5, 100, 1024), entry_of(11, 5, 900),
                                              entry_of(12, 5, 500, 9000), entry_of(15, 5, 7)});
  before.uptime_ticks = 77;
  const process_sample now =
      sample_of(3000000, {entry_of(10, 5, 200, 5120),    // 100 ticks in 2 s: 50 %, 4 KiB in 2 s
                          entry_of(11, 77, 20),          // the pid's next owner: 20 ticks in 2 s
                          entry_of(12, 5, 480, 11048),   // CPU time went back
                          entry_of(13, 99, 60, 2048),    // new
                          entry_of(14, 76, 70, 4096)});  // older, and could not be read before
  EXPECT_EQ(rows(top(&before, now, sort_by_cpu), pid_and_rates),
            "10 50 2 -\n13 30 1 -\n11 10 - -\n12 - 1 -\n14 - - -\n");
}

// The kernel adds a child's whole IO to whoever waited for it; KiB in what follows.
TEST(top_processes, io_of_children_that_have_gone_counts_once) {
  const auto process = [](int32_t id, int32_t parent, uint64_t io_kib, char state = 'S') {
    process_entry entry = entry_of(id, 5, 0, io_kib * 1024);
    entry.ppid = parent;
    entry.state = state;
    return entry;
  };
  const std::vector<process_entry> tree{process(1, 0, 10),    process(20, 1, 100),
                                        process(30, 20, 500), process(40, 30, 4000),
                                        process(50, 20, 60),  process(60, 20, 7)};
  const struct {
    const char* what;
    std::vector<process_entry> now;
    std::string expected;  // id and KiB/s of each
  } cases[] = {
      {"two were waited for; one did 3 more, another came and went and did 8",
       {process(1, 0, 10), process(20, 1, 100 + 60 + 7 + 3 + 8), process(30, 20, 500),
        process(40, 30, 4000)},
       "20 11\n1 0\n30 0\n40 0\n"},
      {"one has ended, and its parent has not waited yet",
       {process(1, 0, 10), process(20, 1, 102), process(30, 20, 500), process(40, 30, 4000),
        process(50, 20, 61, 'Z'), process(60, 20, 7)},
       "20 2\n50 1\n1 0\n30 0\n40 0\n60 0\n"},
      {"a parent waited for its child and was waited for",
       {process(1, 0, 10), process(20, 1, 100 + 500 + 4000 + 5), process(50, 20, 60),
        process(60, 20, 7)},
       "20 5\n1 0\n50 0\n60 0\n"},
      {"an orphan was waited for by the first process",
       {process(1, 0, 10 + 4000 + 2), process(20, 1, 100 + 500 + 1), process(50, 20, 60),
        process(60, 20, 7)},
       "1 2\n20 1\n50 0\n60 0\n"},
      {"a parent let the kernel drop its children, its own IO being less than theirs",
       {process(1, 0, 10 + 9000), process(20, 1, 100 + 4), process(30, 20, 500),
        process(40, 30, 4000)},
       "1 9000\n20 4\n30 0\n40 0\n"},
  };
  for (const auto& one : cases) {
    const process_sample before = sample_of(1000000, tree);
    const process_sample now = sample_of(2000000, one.now);
    EXPECT_EQ(rows(top(&before, now, sort_by_io),
                   [](const pid_msg& two) { return row(two.pid, two.io_per_second); }),
              one.expected)
        << one.what;
  }
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
  for (const int by_cpu :
       std::initializer_list<int>{sort_by_cpu, sort_by_bpu, sort_by_net, 99, -1}) {
    EXPECT_EQ(rows(top(&before, now, by_cpu), pid), "4\n2\n3\n1\n") << by_cpu;
  }
  // Far more than an answer holds, in no order: 5 to 3000 times 1009, of which a prime is left out.
  for (uint64_t more = 5; more <= 3000; ++more) {
    now.entries.push_back(entry_of(static_cast<int32_t>(more), 1, 50 + more * 1009 % 3001));
  }
  const std::vector<pid_msg> most = top(&before, now, sort_by_cpu);
  ASSERT_EQ(most.size(), 146U);
  for (size_t i = 0; i < most.size(); ++i) {
    EXPECT_EQ(most[i].process_usage, 3050 - static_cast<float>(i));  // a tick is a percent
  }
}

// A child that ends with its `function`, or when this goes.
class child {
 public:
  template <class function>
  explicit child(function run) : pid(fork()) {
    if (pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      run();
      _exit(0);
    }
  }
  ~child() {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  const pid_t pid;
};

void pause_for_ever() {
  for (;;) {
    pause();
  }
}

// Burns CPU time until somebody stops it.
void run_for_ever() {
  for (volatile unsigned i = 0;; i = i + 1) {
  }
}

size_t open_descriptors() {
  std::vector<std::string> names;
  file_reader("/").list("proc/self/fd", names);
  return names.size();
}

const process_entry& entry_in(const process_sample& sample, int32_t id) {
  static const process_entry none;
  const process_entry* found = find_process(sample, id);
  EXPECT_NE(found, nullptr) << id;
  return found == nullptr ? none : *found;
}

// The BPF program (where the kernel and the rights allow it), kept files and files opened each time
// must tell the same of the same processes.
TEST(process_sources, agree) {
  std::atomic<bool> stop{false};
  std::thread other([&] {
    while (!stop) {
      usleep(1000);
    }
  });
  const child idle(pause_for_ever);
  const child busy(run_for_ever);
  for (const bool threads : {false, true}) {
    process_sampler from_bpf = sampler_of("/");
    process_sampler from_kept = sampler_of("/", {4096, false});
    process_sampler from_opened = sampler_of("/", {0, false});
    process_sample first;
    process_sample again;
    process_sample opened;
    process_sample kernel;
    ASSERT_EQ(from_kept.read(threads, 0, first), 0);
    usleep(300000);
    ASSERT_EQ(from_bpf.read(threads, 0, kernel), 0);
    ASSERT_EQ(from_kept.read(threads, 0, again), 0);
    ASSERT_EQ(from_opened.read(threads, 0, opened), 0);
    const auto fixed = [&](const process_sample& sample, int32_t id) {
      const process_entry& one = entry_in(sample, id);
      return row(one.pid, one.ppid, one.comm, one.priority, one.num_threads, one.start_ticks,
                 one.net_namespace);
    };
    for (const int32_t id : {idle.pid, busy.pid}) {
      EXPECT_EQ(fixed(kernel, id), fixed(opened, id));
      EXPECT_EQ(fixed(again, id), fixed(opened, id));
      EXPECT_EQ(entry_in(kernel, id).net_bytes, entry_in(opened, id).net_bytes) << id;
      EXPECT_EQ(entry_in(again, id).io_bytes, entry_in(opened, id).io_bytes) << id;
      EXPECT_EQ(entry_in(kernel, id).io_bytes, entry_in(opened, id).io_bytes) << id;
      EXPECT_NEAR(static_cast<double>(entry_in(kernel, id).cpu_ns),
                  static_cast<double>(entry_in(opened, id).cpu_ns), 2e9)
          << id;
    }
    EXPECT_EQ(entry_in(kernel, idle.pid).rss_kb, entry_in(opened, idle.pid).rss_kb);
    EXPECT_EQ(entry_in(kernel, idle.pid).state, 'S');
    EXPECT_EQ(entry_in(again, busy.pid).state, 'R');
    // The scheduler was asked whether it ran, and it did.
    EXPECT_GT(entry_in(again, busy.pid).cpu_ns, entry_in(first, busy.pid).cpu_ns);
  }
  stop = true;
  other.join();
}

task_record task_of(int32_t pid, int32_t process, uint64_t run_ns) {
  task_record task{};
  task.pid = pid;
  task.tgid = process;
  task.nr_threads = 1;
  task.sum_exec_runtime = run_ns;
  return task;
}

// A thread that ends in the midst of a pass would take the time of its life out of the sum.
TEST(process_sources, processes_whose_threads_change_are_read_again) {
  std::vector<task_record> tasks{task_of(10, 10, 5), task_of(20, 20, 100), task_of(21, 20, 900),
                                 task_of(30, 30, 7), task_of(31, 30, 8),   task_of(99, 98, 1)};
  tasks[1].nr_threads = tasks[2].nr_threads = 3;  // one was not seen
  tasks[3].nr_threads = tasks[4].nr_threads = 2;
  tasks[3].gone_exec_runtime = tasks[4].gone_exec_runtime = 1000;
  task_entries maker;
  std::vector<int32_t> torn;
  std::vector<process_entry> entries;
  const auto show = [](const process_entry& one) { return row(one.pid, one.cpu_ns); };
  maker.make_processes(tasks, entries, torn);
  EXPECT_EQ(rows(entries, show), "10 5\n30 1015\n");
  tasks[4].gone_exec_runtime = 1001;  // one ended between the two records
  maker.make_processes(tasks, entries, torn);
  EXPECT_EQ(torn, (std::vector<int32_t>{20, 20, 30}));
  maker.make_threads(tasks, entries);
  EXPECT_EQ(rows(entries, show), "10 5\n20 100\n21 900\n30 7\n31 8\n99 1\n");
}

TEST(process_files, kept_descriptors_are_bounded_and_given_back) {
  process_sampler sampler = sampler_of("/", {8, false});
  process_sample sample;
  const size_t before = open_descriptors();
  for (int turn = 0; turn < 3; ++turn) {
    // They come and go while kept files of others stay.
    std::vector<std::unique_ptr<child>> children;
    for (int i = 0; i < 20; ++i) {
      children.push_back(std::make_unique<child>(pause_for_ever));
    }
    ASSERT_EQ(sampler.read(false, 0, sample), 0);
    for (const auto& one : children) {
      EXPECT_NE(find_process(sample, one->pid), nullptr);
    }
    ASSERT_EQ(sampler.read(true, 0, sample), 0);
    EXPECT_LE(open_descriptors(), before + 8 + 3);  // and /proc, twice, and netlink
  }
  ASSERT_EQ(sampler.read(false, 0, sample), 0);
  EXPECT_TRUE(std::none_of(sample.entries.begin(), sample.entries.end(), [](const auto& one) {
    return one.ppid == getpid() && one.state != 'Z';
  }));
  sampler.release();
  EXPECT_LE(open_descriptors(), before + 1);
}

// A piece at a time and each descriptor once, whatever the numbers.
TEST(process_descriptors, of_very_many_come_in_pieces) {
  const file_reader machine("/");
  std::vector<file_descriptor> kept;
  for (int i = 0; i < 500; ++i) {
    kept.emplace_back(dup(STDERR_FILENO));
    ASSERT_TRUE(kept.back());
  }
  std::vector<int32_t> seen;
  int32_t next = 0;
  do {
    const size_t before = seen.size();
    const auto take = [&seen](int32_t number, std::string_view) {
      seen.push_back(number);
      return true;
    };
    ASSERT_EQ(for_some_descriptors(machine, getpid(), next, take), 0);
    ASSERT_LT(seen.size() - before, 300U);
  } while (next != 0);
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(std::adjacent_find(seen.begin(), seen.end()), seen.end());
  for (const file_descriptor& one : kept) {
    EXPECT_TRUE(std::binary_search(seen.begin(), seen.end(), one.get())) << one.get();
  }
}

// With no time left a sample sees one of those whose turn it is. The two youngest have more pieces
// than there are samples, and are not taken for seen before the last.
TEST(process_walk, one_with_very_many_descriptors_keeps_no_other_waiting) {
  process_sample sample;
  for (int32_t pid = 1; pid <= 40; ++pid) {
    sample.entries.push_back(entry_of(pid, static_cast<uint64_t>(pid), 0));
  }
  process_walk walk;
  bool endless = true;
  const auto visit = [&endless](const process_entry& process, int32_t& next) {
    next = endless && process.pid > 38 ? next + 1 : 0;
    return true;
  };
  for (int turn = 0; turn < 40; ++turn) {
    EXPECT_FALSE(walk.go_on(sample, 0, visit));
  }
  for (const process_entry& process : sample.entries) {
    EXPECT_EQ(walk.has_seen(process), process.pid <= 38) << process.pid;
  }
  endless = false;
  int turns = 0;
  while (turns < 100 && !walk.go_on(sample, 0, visit)) {
    ++turns;
  }
  EXPECT_LE(turns, 2 * 40);
}

// A connection over loopback: `near` is this process's end.
struct tcp_pair {
  tcp_pair() {
    const file_descriptor listener(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const place = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(bind(listener.get(), place, length), 0);
    EXPECT_EQ(listen(listener.get(), 1), 0);
    EXPECT_EQ(getsockname(listener.get(), place, &length), 0);
    near = file_descriptor(socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(connect(near.get(), place, length), 0);
    far = file_descriptor(accept(listener.get(), nullptr, nullptr));
  }
  void transfer(size_t bytes) const {
    std::string block(10000, 'x');
    for (size_t sent = 0; sent < bytes; sent += block.size()) {
      ASSERT_EQ(send(near.get(), block.data(), block.size(), 0), 10000);
      ASSERT_EQ(recv(far.get(), block.data(), block.size(), MSG_WAITALL), 10000);
    }
  }
  file_descriptor near, far;
};

// Bytes of sockets that were there before the first sample are nobody's; later ones go to whoever
// has the socket, also when it was handed on to a child.
TEST(process_net, bytes_go_to_the_process_that_has_the_socket) {
  process_sampler sampler = sampler_of("/");
  process_sample sample;
  const auto own_bytes = [&] {
    EXPECT_EQ(sampler.read(false, 0, sample), 0);
    return entry_in(sample, getpid()).net_bytes;
  };
  const tcp_pair old_pair;
  old_pair.transfer(50000);
  if (own_bytes() == unknown_u64) {
    GTEST_SKIP() << "no tcp_diag";
  }
  EXPECT_LT(own_bytes(), 1000U);
  tcp_pair new_pair;
  // Both ends are this process's: each byte counts as sent and as received. Until the owner of both
  // sockets' ends has been found some are nobody's; a dump is kept for a multiple of its cost.
  uint64_t before = 0;
  const auto transfer = [&](size_t old_bytes, size_t new_bytes) {
    before = own_bytes();
    old_pair.transfer(old_bytes);
    new_pair.transfer(new_bytes);
    usleep(20000);
    return own_bytes() - before;
  };
  EXPECT_TRUE(wait_until([&] { return transfer(10000, 10000) == 40000 && before != unknown_u64; }));
  transfer(100000, 30000);
  const uint64_t both = before + 260000;
  EXPECT_TRUE(wait_until([&] { return own_bytes() >= both; }));
  const uint64_t until_now = both + 90000;  // a round before may have been counted late
  EXPECT_LT(own_bytes(), until_now);
  int go[2];
  ASSERT_EQ(pipe(go), 0);
  const child heir([&] {
    char byte = 0;
    EXPECT_EQ(read(go[0], &byte, 1), 1);
    for (int i = 0; i < 600; ++i) {
      EXPECT_GE(dup(go[0]), 0);
    }
    new_pair.near = file_descriptor(dup(new_pair.near.get()));  // far behind the others
    new_pair.far = file_descriptor(dup(new_pair.far.get()));
    for (;;) {
      new_pair.transfer(70000);
      usleep(1000);
    }
  });
  new_pair = tcp_pair();
  ASSERT_EQ(write(go[1], "g", 1), 1);
  uint64_t heirs = 0;
  for (int turn = 0; turn < 500 && heirs < 140000; ++turn) {
    usleep(10000);
    own_bytes();
    const uint64_t now = entry_in(sample, heir.pid).net_bytes;
    heirs = now == unknown_u64 ? heirs : now;  // while its descriptors are searched
  }
  EXPECT_GE(heirs, 140000U);
  EXPECT_LT(own_bytes(), until_now + 2000);
}

// A thread of the test gives its capabilities up; what another user's process has open it may not
// see then, and must not show as 0.
TEST(process_net, of_processes_that_may_not_be_seen_is_unknown) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can start another user's process";
  }
  const child others([] {
    EXPECT_EQ(setuid(65534), 0);
    pause_for_ever();
  });
  const auto figures_seen = [&others] {
    process_sampler sampler = sampler_of("/");
    process_sample sample;
    EXPECT_EQ(sampler.read(false, 0, sample), 0);
    const process_entry& one = entry_in(sample, others.pid);
    return std::make_pair(one.descriptors_seen, one.net_bytes != unknown_u64);
  };
  const auto by_root = figures_seen();
  if (!by_root.first) {
    GTEST_SKIP() << "root may not see other users' processes here";
  }
  std::thread([&] {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    ASSERT_EQ(syscall(SYS_capset, &header, none), 0);
    EXPECT_EQ(figures_seen(), std::make_pair(false, false));
    process_sampler sampler = sampler_of("/");
    process_sample sample;
    EXPECT_EQ(sampler.read(false, 0, sample), 0);
    EXPECT_EQ(entry_in(sample, getpid()).net_bytes != unknown_u64, by_root.second);
  }).join();
}

std::string drm_text(const std::string& id, uint64_t npu_ns) {
  return "pos:\t0\nflags:\t02\ndrm-driver:\tnpu\ndrm-pdev:\t0000:01:00.0\ndrm-client-id:\t" + id +
         "\ndrm-engine-capacity-npu:\t2\ndrm-engine-npu:\t" + std::to_string(npu_ns) +
         " ns\ndrm-engine-copy:\t1000 ns\ndrm-cycles-npu:\t99\n";
}

TEST(process_bpu, time_on_accelerators) {
  drm_usage usage;
  ASSERT_TRUE(parse_drm_usage(drm_text("7", 4000), usage));
  EXPECT_EQ(row(usage.client, usage.busy_ns), "0000:01:00.0 7 3000\n");
  EXPECT_FALSE(parse_drm_usage("pos:\t0\nflags:\t02\n", usage));
  EXPECT_FALSE(parse_drm_usage("drm-client-id:\t7\ndrm-engine-npu:\t12 cycles\n", usage));

  const temporary_folder tree;
  tree.write("proc/uptime", "10.00 1.00\n");
  for (const std::string process : {"12", "13"}) {
    tree.write("proc/" + process + "/stat", process + stat_line("npu user").substr(2));
    tree.write("proc/" + process + "/fdinfo/4", drm_text("1", 8000000));
    tree.link("proc/" + process + "/fd/4", "/dev/accel/accel0");
  }
  process_sampler sampler = sampler_of(tree.path, {0, false});
  process_sample sample;
  const auto show = [&] {
    EXPECT_EQ(sampler.read(false, 0, sample), 0);
    return rows(sample.entries, [](const process_entry& one) { return row(one.pid, one.bpu_ns); });
  };
  // A search that has no time left goes on with the next sample.
  const auto becomes = [&](const std::string& expected) {
    return wait_until([&] { return show() == expected; });
  };
  EXPECT_EQ(show(), "12 -\n13 -\n");  // no accelerator
  tree.write("dev/accel/accel0", "");
  EXPECT_TRUE(becomes("12 0\n13 0\n"));
  // Both share one open file, and 13 opens another.
  tree.write("proc/12/fdinfo/4", drm_text("1", 9000000));
  tree.write("proc/13/fdinfo/4", drm_text("1", 9000000));
  tree.write("proc/13/fdinfo/5", drm_text("2", 4000000));
  tree.link("proc/13/fd/5", "/dev/dri/renderD128");
  EXPECT_TRUE(becomes("12 500000\n13 2001000\n"));
  tree.write("proc/12/fdinfo/4", drm_text("1", 5000));  // stepped back
  tree.write("proc/13/fdinfo/4", "");
  EXPECT_TRUE(becomes("12 500000\n13 2001000\n"));
  // 13 has gone, and its id is another process's, which uses no accelerator.
  tree.write("proc/13/fdinfo/5", "");
  std::string next_owner = "13" + stat_line("npu user").substr(2);
  next_owner.replace(next_owner.find(" 900 "), 5, " 950 ");
  tree.write("proc/13/stat", next_owner);
  EXPECT_TRUE(becomes("12 500000\n13 0\n"));
}

}  // namespace
}  // namespace samplers
