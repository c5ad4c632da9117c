// SPDX-License-Identifier: Apache-2.0
// Holds the server's figures against the running kernel's, in the emulated board of
// scripts/test-board.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <linux/perf_event.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <set>

#include "loads.h"
#include "mon_records.h"
#include "proc_files.h"
#include "scripted_server.h"
#include "test_tools.h"

namespace {

using namespace mon_protocol;
using testing::HasSubstr;

void sleep_s(double seconds) {
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

// What a server may and may not use.
struct condition {
  const char* name;
  std::vector<const char*> options = {};
  uid_t user = 0;
  void (*hide)() = [] {};  // in a mount namespace of the server's own
  const char* log = "processes are read by a BPF program";
  bool others_seen = true;    // other users' processes
  bool others_opened = true;  // and what only their owner may read of them
};

class server_process {
 public:
  explicit server_process(const condition& how) {
    unlink(log_file);
    pid = fork();
    if (pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      dup2(open(log_file, O_CREAT | O_TRUNC | O_WRONLY, 0644), STDERR_FILENO);
      unshare(CLONE_NEWNS);
      how.hide();
      if (setgid(how.user) != 0 || setuid(how.user) != 0) {
        _exit(126);
      }
      std::vector<const char*> words = {"mon_server", "--port", "0"};
      words.insert(words.end(), how.options.begin(), how.options.end());
      words.push_back(nullptr);
      execvp(words[0], const_cast<char**>(words.data()));
      _exit(127);
    }
    wait_until([this] {
      port = std::atoi(word_after(log_file, " port ").c_str());
      return port != 0 || waitpid(pid, nullptr, WNOHANG) != 0;
    });
  }
  ~server_process() {
    kill(pid, SIGTERM);
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0) << "the server's end; its log:\n" << log();
  }
  static std::string log() { return read_file(log_file); }

  pid_t pid;
  int port = 0;

 private:
  static constexpr char log_file[] = "/tmp/server.log";
};

class session {
 public:
  explicit session(const server_process& server) : connection(server.port) {}

  // The status is that of the last request.
  bytes ask(uint16_t command, uint16_t sub_command, const bytes& request = {}) {
    message_header header{};
    header.type = type_request;
    header.command = command;
    header.sub_command = sub_command;
    bytes payload;
    status = send_bytes(connection.socket, message_of(header, request)) &&
                     read_message(connection.socket, header, payload)
                 ? header.status
                 : -ECONNRESET;
    return payload;
  }
  template <class record>
  std::vector<record> ask(uint16_t command, uint16_t sub_command, const bytes& request = {}) {
    bytes payload = ask(command, sub_command, request);
    std::vector<record> records;
    const size_t head = sub_command == cpu_process_list && command == cmd_cpu ? 8 : 0;
    if (status == 0 && payload.size() >= head) {
      payload.erase(payload.begin(), payload.begin() + static_cast<std::ptrdiff_t>(head));
      list_bytes = head > 0 ? payload : list_bytes;
      EXPECT_TRUE(decode_records(payload, records));
    }
    return records;
  }
  std::vector<cpu_usage> cpus() { return ask<cpu_usage>(cmd_cpu, cpu_usage_all); }
  std::map<pid_t, pid_msg> tasks(bool threads) {
    std::map<pid_t, pid_msg> by_id;
    const uint8_t view = threads ? 0xff : 0;
    for (const pid_msg& task : ask<pid_msg>(cmd_cpu, cpu_process_list, {1, view, 0, 0})) {
      by_id[task.pid] = task;
    }
    return by_id;
  }
  // A list that was made after this was called. What takes the server long it answers again: the
  // next one may have been begun before.
  std::map<pid_t, pid_msg> new_tasks(bool threads) {
    int changes = 0;
    bytes last = list_bytes;
    std::map<pid_t, pid_msg> list;
    EXPECT_TRUE(wait_until([&] {
      sleep_s(0.5);
      list = tasks(threads);
      changes += list_bytes != last && status == 0 ? 1 : 0;
      last = list_bytes;
      return changes == 2;
    })) << "lists that do not change, status "
        << status;
    return list;
  }
  perf_sample counters() {
    const auto samples = ask<perf_sample>(cmd_cpu, cpu_perf_data);
    return samples.empty() ? perf_sample{} : samples[0];
  }

  int32_t status = 0;

 private:
  raw_connection connection;
  bytes list_bytes;  // the last process list
};

double busy(const cpu_usage& cpu) {
  return cpu.user + cpu.nice + cpu.system + cpu.irq + cpu.softirq + cpu.steal;
}

std::string name_of(const pid_msg& task) {
  return {task.comm, strnlen(task.comm, sizeof task.comm)};
}

// An emulated CPU waits for the machine's own now and then, also in the middle of a sample; what
// shares it with test and server is less steady still.
constexpr double points = 6;
constexpr double process_points = 12;
constexpr double steadiness = 0.3;

// Where the host kept the board's CPUs waiting, what was measured in the meantime is off, and is
// measured again. A figure that is false is so each time.
template <class function>
void check_again_if_off(function check) {
  constexpr int more_attempts = 3;
  for (int i = 0; i < more_attempts; ++i) {
    testing::TestPartResultArray failures;
    {
      const testing::ScopedFakeTestPartResultReporter keep(&failures);
      check();
    }
    if (failures.size() == 0) {
      return;
    }
  }
  check();
}

// A rate that is not known is no false one.
bool is_false(float rate, double most) {
  return rate < 0 || rate > most;
}

// A worker of the kernel says in /proc what it works on, behind its name.
bool same_name(const std::string& shown, const std::string& in_proc) {
  return shown == in_proc.substr(0, 15) ||
         (shown.compare(0, 8, "kworker/") == 0 && in_proc.compare(0, shown.size(), shown) == 0);
}

// A task that has not run since `before`: all that does not change by itself is the same.
void check_resting(const pid_msg& shown, const task_files& task) {
  EXPECT_TRUE(same_name(name_of(shown), task.comm)) << task.comm;
  EXPECT_EQ(shown.ppid, task.ppid);
  EXPECT_EQ(shown.state, task.state);
  EXPECT_EQ(shown.priority, task.priority);
  EXPECT_EQ(shown.processor, task.processor);
  EXPECT_EQ(shown.rss, task.rss_kb);
}

struct moment {
  moment(const loads& load, bool threads)
      : tasks(read_tasks(threads)), received(load.counts->received), time_s(now_s()) {}
  std::map<pid_t, task_files> tasks;
  uint64_t received;
  double time_s;
};

// The server's figures of all tasks, against those of /proc before and after.
class task_check {
 public:
  task_check(session& client, const loads& load, bool with_threads) : threads(with_threads) {
    const moment before(load, threads);
    client.new_tasks(threads);
    shown = client.new_tasks(threads);
    const moment after(load, threads);
    received_kb_s = static_cast<double>(after.received - before.received) / 1024 /
                    (after.time_s - before.time_s);
    for (const auto& [id, task] : after.tasks) {
      const auto start = before.tasks.find(id);
      const auto found = shown.find(id);
      if (start != before.tasks.end() && found != shown.end()) {
        SCOPED_TRACE(testing::Message()
                     << (threads ? "thread " : "process ") << id << " " << task.comm);
        compare(found->second, start->second, task);
      }
    }
  }

  std::map<pid_t, pid_msg> shown;
  std::map<pid_t, double> cpu_percent, io_kb_s;  // by /proc
  std::vector<pid_t> resting;                    // have not run in the meantime
  double received_kb_s;

 private:
  void compare(const pid_msg& now, const task_files& before, const task_files& after) {
    const double seconds = after.time_s - before.time_s;
    cpu_percent[now.pid] = (after.cpu_s - before.cpu_s) / seconds * 100;
    io_kb_s[now.pid] = static_cast<double>(after.io_bytes - before.io_bytes) / 1024 / seconds;
    if (after.run_ns == before.run_ns && after.state != 'R' && after.cpu_s == before.cpu_s) {
      resting.push_back(now.pid);
      check_resting(now, after);
      EXPECT_EQ(now.process_usage, 0);
    }
    EXPECT_FALSE(is_false(now.process_usage, 100 + process_points)) << now.process_usage;
    EXPECT_FALSE(is_false(now.io_per_second, 1e6)) << now.io_per_second;
    EXPECT_FALSE(is_false(now.net_band, 1e6)) << now.net_band;
    EXPECT_TRUE(std::isnan(now.bpu_usage));
  }

  const bool threads;
};

class board : public testing::Test {
 protected:
  void check_rates(const task_check& now, bool opened) {
    EXPECT_NEAR(now.shown.at(load.busy).process_usage, now.cpu_percent.at(load.busy),
                process_points);
    for (const auto& [id, shown] : now.shown) {
      if (id == load.threads || shown.ppid == load.threads) {
        EXPECT_NEAR(shown.process_usage, now.cpu_percent.at(id), process_points) << id;
      }
    }
    const float written = now.shown.at(load.writer).io_per_second;
    const double own_written = now.io_kb_s.at(load.writer);
    for (const pid_t end : {load.sender, load.receiver}) {
      const float carried = now.shown.at(end).net_band;
      if (opened) {
        EXPECT_NEAR(carried, now.received_kb_s, now.received_kb_s * steadiness);
      } else {
        EXPECT_TRUE(std::isnan(carried)) << carried;
      }
    }
    if (opened) {
      EXPECT_NEAR(written, own_written, own_written * steadiness);
      EXPECT_EQ(now.shown.at(load.strange).io_per_second, 0);
    } else {
      EXPECT_TRUE(std::isnan(written)) << written;
    }
    EXPECT_TRUE(std::isnan(now.shown.at(load.other_net).net_band));
  }

  void check_tasks(session& client, const condition& how, bool threads) {
    // The owner of a socket is looked for a little at a time.
    const auto is_ready = [&](const std::map<pid_t, pid_msg>& list) {
      const auto sender = list.find(load.sender);
      return !how.others_opened || (sender != list.end() && !std::isnan(sender->second.net_band));
    };
    EXPECT_TRUE(wait_until([&] { return is_ready(client.new_tasks(threads)); }));
    check_again_if_off([&] { check_figures(task_check(client, load, threads), how); });
  }
  void check_figures(const task_check& now, const condition& how) {
    EXPECT_EQ(now.shown.count(load.of_user), 1);
    EXPECT_EQ(now.shown.count(load.busy), how.others_seen ? 1 : 0);
    if (how.others_seen) {
      check_rates(now, how.others_opened);
      for (const pid_t pid : load.idle()) {
        EXPECT_THAT(now.resting, testing::Contains(pid));
      }
      EXPECT_GT(now.shown.at(load.memory).rss, 48 * 1024);
      EXPECT_LT(now.shown.at(load.memory).rss, 56 * 1024);
    }
  }

  const loads load;
};

// Of the CPUs and the machine, which no condition hides.
void check_cpus(session& client) {
  client.cpus();
  const auto before = read_cpus();
  sleep_s(3);  // the test itself runs in between, too
  const std::vector<cpu_usage> shown = client.cpus();
  const auto after = read_cpus();
  EXPECT_EQ(shown.size(), after.size());
  for (const cpu_usage& cpu : shown) {
    const double busy_s = after.at(cpu.cpu).busy - before.at(cpu.cpu).busy;
    const double idle_s = after.at(cpu.cpu).idle - before.at(cpu.cpu).idle;
    EXPECT_NEAR(busy(cpu), busy_s / (busy_s + idle_s) * 100, points) << "CPU " << cpu.cpu;
  }
  const std::vector<meminfo> memory = client.ask<meminfo>(cmd_peri, peri_meminfo);
  ASSERT_EQ(memory.size(), 1);
  EXPECT_EQ(std::to_string(memory[0].memTotal), word_after("/proc/meminfo", "MemTotal:"));
  EXPECT_NEAR(static_cast<double>(memory[0].anon),
              std::stod(word_after("/proc/meminfo", "AnonPages:")), 4096);
}

void PrintTo(const condition& how, std::ostream* out) {
  *out << how.name;
}

class board_server : public board, public testing::WithParamInterface<condition> {};

TEST_P(board_server, figures_agree_with_proc) {
  const server_process server(GetParam());
  session client(server);
  for (const bool threads : {false, true}) {
    check_tasks(client, GetParam(), threads);
  }
  check_again_if_off([&] { check_cpus(client); });
  EXPECT_THAT(server_process::log(), HasSubstr(GetParam().log));
  session counting(server);
  counting.ask(cmd_cpu, cpu_enable_perf);
  EXPECT_EQ(counting.status, GetParam().user == 0 ? 0 : -EACCES);
  EXPECT_EQ(
      server_process::log().find(
          "no counters: kernel.perf_event_paranoid is 2, so that counting wants CAP_PERFMON") !=
          std::string::npos,
      GetParam().user != 0);
}

// An empty folder is at `path` for the server.
void cover(const char* path) {
  mount("none", path, "tmpfs", 0, nullptr);
}

const condition conditions[] = {
    {"bpf"},
    {"files", {"--no-bpf"}, 0, [] {}, "processes are read from files of /proc\n"},
    {"without_btf",
     {},
     0,
     [] { cover("/sys/kernel/btf"); },
     "processes are read from files of /proc, not by BPF: "},
    {"ordinary_user",
     {},
     ordinary_user,
     [] {},
     "processes are read from files of /proc, not by BPF: bpf(2) wants CAP_BPF and CAP_PERFMON",
     true,
     false},
    {"hidepid",
     {},
     ordinary_user,
     [] { mount("proc", "/proc", "proc", 0, "hidepid=2"); },
     "processes are read from files of /proc, not by BPF: bpf(2) wants CAP_BPF and CAP_PERFMON",
     false,
     false},
};
INSTANTIATE_TEST_SUITE_P(with, board_server, testing::ValuesIn(conditions),
                         [](const auto& one) { return std::string(one.param.name); });

// The PMU, read by ourselves: cycles and instructions of all CPUs.
class own_counters {
 public:
  own_counters() {
    for (int cpu = 0; cpu < 2; ++cpu) {
      for (size_t event = 0; event < 2; ++event) {
        perf_event_attr attributes{};
        attributes.size = sizeof attributes;
        attributes.type = PERF_TYPE_HARDWARE;
        attributes.config = event == 0 ? PERF_COUNT_HW_CPU_CYCLES : PERF_COUNT_HW_INSTRUCTIONS;
        attributes.read_format = PERF_FORMAT_TOTAL_TIME_ENABLED | PERF_FORMAT_TOTAL_TIME_RUNNING;
        files[cpu][event] =
            static_cast<int>(syscall(SYS_perf_event_open, &attributes, -1, cpu, -1, 0));
      }
    }
  }
  ~own_counters() {
    for (const auto& of_cpu : files) {
      close(of_cpu[0]);
      close(of_cpu[1]);
    }
  }
  // Since the last call; unknown_u64 if there is no such counter.
  std::vector<uint64_t> read() {
    std::vector<uint64_t> sums(2, 0);
    for (int cpu = 0; cpu < 2; ++cpu) {
      for (size_t event = 0; event < 2; ++event) {
        uint64_t now[3];  // value, ns enabled, ns running
        uint64_t* const old = last[cpu][event];
        if (::read(files[cpu][event], now, sizeof now) != sizeof now || now[2] == old[2]) {
          sums[event] = unknown_u64;
        } else if (sums[event] != unknown_u64) {
          sums[event] += static_cast<uint64_t>(static_cast<double>(now[0] - old[0]) *
                                               static_cast<double>(now[1] - old[1]) /
                                               static_cast<double>(now[2] - old[2]));
        }
        std::copy(now, now + 3, old);
      }
    }
    return sums;
  }

 private:
  int files[2][2];
  uint64_t last[2][2][3] = {};
};

void check_count(uint64_t shown, uint64_t own) {
  if (own == unknown_u64) {
    EXPECT_EQ(shown, unknown_u64);
  } else {
    EXPECT_NEAR(static_cast<double>(shown), static_cast<double>(own),
                static_cast<double>(own) * 0.05);
  }
}

using board_counters = board;

// BOARD_PMU says what the board's PMU counts: all, cycles, none, or any of these.
TEST_F(board_counters, agree_with_the_pmu) {
  const server_process server(conditions[0]);
  session client(server);
  own_counters own;
  client.ask(cmd_cpu, cpu_enable_perf);
  ASSERT_EQ(client.status, 0);
  check_again_if_off([&] {
    client.counters();
    own.read();
    sleep_s(2);
    const perf_sample shown = client.counters();
    const std::vector<uint64_t> counted = own.read();
    const char* const words = getenv("BOARD_PMU");
    const std::string pmu = words == nullptr ? "any" : words;
    if (pmu != "any") {
      EXPECT_EQ(counted[0] != unknown_u64, pmu != "none") << "is there a PMU?";
      EXPECT_EQ(counted[1] != unknown_u64, pmu == "all") << "does it count instructions?";
    }
    check_count(shown.counters.cycles, counted[0]);
    check_count(shown.counters.instructions, counted[1]);
    EXPECT_NEAR(static_cast<double>(shown.interval_us), 2e6, 5e5);
    EXPECT_GT(shown.counters.cs, 10);
    EXPECT_LT(shown.counters.cs, 1e6);
  });
}

// Asks for everything again and again while CPU 1 goes and comes.
class hotplug_watch {
 public:
  hotplug_watch(const server_process& watched, pid_t known)
      : processes(watched), threads(watched), counting(watched), busy_process(known) {
    counting.ask(cmd_cpu, cpu_enable_perf);
    EXPECT_EQ(counting.status, 0);
    // The first figures are those since boot.
    processes.cpus();
    processes.new_tasks(false);
    threads.new_tasks(true);
  }
  void ask() {
    check(processes.cpus());
    check(processes.tasks(false));
    check(threads.tasks(true));
    const perf_sample sample = counting.counters();
    EXPECT_EQ(counting.status, 0);
    for (const uint64_t count : {sample.counters.cycles, sample.counters.cs}) {
      // 10 GHz on each CPU
      EXPECT_TRUE(count == unknown_u64 || count <= sample.interval_us * 20000) << count;
    }
    for (const uint16_t sub : {cpu_system, cpu_command_lines}) {
      processes.ask(cmd_cpu, sub);
      EXPECT_EQ(processes.status, 0);
    }
  }

 private:
  void check(const std::vector<cpu_usage>& cpus) {
    double sum = 0;
    int known = 0;
    for (const cpu_usage& cpu : cpus) {
      for (const float share : {cpu.user, cpu.nice, cpu.system, cpu.idle, cpu.iowait, cpu.irq,
                                cpu.softirq, cpu.steal}) {
        EXPECT_FALSE(is_false(share, 100.01)) << "CPU " << cpu.cpu << ' ' << share;
      }
      if (cpu.cpu >= 0 && !std::isnan(cpu.idle)) {
        sum += busy(cpu);
        ++known;
      }
    }
    ASSERT_GT(known, 0);
    // An emulated CPU that has to wait loses ticks, so that two have not the same weight.
    EXPECT_NEAR(busy(cpus[0]), sum / known, known == 1 ? points : 15) << known << " CPUs";
    EXPECT_GT(busy(cpus[1]), 100 - points) << "CPU 0";
  }
  void check(const std::map<pid_t, pid_msg>& tasks) const {
    EXPECT_EQ(tasks.count(busy_process), 1);
    // Over a short interval, a third of it may be the host's.
    for (const auto& [id, task] : tasks) {
      EXPECT_FALSE(is_false(task.process_usage, 150)) << id << ' ' << task.process_usage;
    }
  }

  session processes, threads, counting;
  const pid_t busy_process;
};

// Without the files of /proc that it keeps open as it likes.
std::multiset<std::string> open_descriptors(pid_t pid) {
  std::multiset<std::string> targets;
  for (const auto& file :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    const std::string target = std::filesystem::read_symlink(file);
    if (target.compare(0, 5, "/proc") != 0) {
      targets.insert(target);
    }
  }
  return targets;
}

using board_hotplug = board;

TEST_F(board_hotplug, cpus_that_go_and_come_make_no_figure_false) {
  const server_process server(conditions[0]);
  hotplug_watch watch(server, load.busy);
  const auto switch_cpu = [&](const char* on) {
    std::ofstream("/sys/devices/system/cpu/cpu1/online") << on;
    for (int round = 0; round < 3; ++round) {
      sleep_s(0.4);
      SCOPED_TRACE(testing::Message() << "CPU 1 " << on << ", round " << round);
      watch.ask();
    }
    return word_after("/sys/devices/system/cpu/online", "");
  };
  EXPECT_EQ(switch_cpu("1"), "0-1");
  const std::multiset<std::string> before = open_descriptors(server.pid);
  for (int turn = 0; turn < 3; ++turn) {
    check_again_if_off([&] {
      EXPECT_EQ(switch_cpu("0"), "0");
      EXPECT_EQ(switch_cpu("1"), "0-1");
    });
  }
  // Some are open for as long as a sample takes.
  wait_until([&] { return open_descriptors(server.pid) == before; });
  EXPECT_EQ(open_descriptors(server.pid), before);
}

}  // namespace
