// SPDX-License-Identifier: Apache-2.0
// The command line, connecting to the server, the keys, and the wait that they cut short.
#include <getopt.h>
#include <stdio_ext.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <sstream>
#include <thread>

#include "program_fixture.h"
#include "test_tools.h"
#include "zorva/record_file.h"
#include "zorva_run.h"

namespace {

using fake_mon_client::records;
using settings = program;
using init = program;
using records_of_panels = program;
using waits = program;

// The settings that the words lead to, those left out which are as at the start.
std::string parse(lines words) {
  manager.~zorva_manage();
  new (&manager) zorva_manage;
  std::vector<char*> argv = arguments(words);
  optind = 0;  // makes the C library start afresh
  opterr = 0;
  std::string ip = "-";
  int port = 1;
  std::ostringstream found;
  found << (parse_options(static_cast<int>(words.size()), argv.data(), ip, port) ? "" : "usage ")
        << (manager.tui_mode ? "tui " : "") << (manager.batch_mode ? "batch " : "")
        << (manager.thread_mode ? "threads " : "") << (manager.enable_perf ? "perf " : "")
        << (manager.enable_net ? "" : "no_net ") << ip << ' ' << port << " sort "
        << manager.sort_mode << " cycle " << manager.cycle_ms << ' ' << manager.file_name << ' '
        << manager.log_file;
  return found.str();
}

TEST_F(settings, command_lines) {
  const std::string rest = "- 1 sort 1 cycle 2000  ";
  const std::pair<lines, std::string> rows[] = {
      {{"some", "words"}, "tui " + rest},
      {{"-P", "-H", "-i", "::1", "-p", "1", "-p99", "-o", "out", "-llog", "-m9", "-d +12ab"},
       "tui threads perf ::1 99 sort 9 cycle 12 out log"},
      {{"-t"}, rest},
      {{"-b", "-g"}, "tui batch " + rest},
      {{"-g", "-t", "-b"}, "batch " + rest},
      {{"-b", "-t"}, rest},
      {{"-n", "x"}, "tui no_net " + rest},
      {{"-n0", "-n4294967296"}, "tui " + rest},  // 2^32 is 0 only once it is cut to an int
      {{"-d", "-5"}, "tui - 1 sort 1 cycle -5  "},
      {{"-d99999999999"}, "tui - 1 sort 1 cycle 1215752191  "},  // 23 * 2^32 + 1215752191
      {{"-h"}, "usage tui " + rest},
      {{"-H", "-x", "-P"}, "usage tui threads " + rest},
      {{"-f", "-P", "-H"}, "usage tui " + rest},
      {{"-b", "-d"}, "usage batch " + rest},
  };
  for (const auto& [words, expected] : rows) {
    EXPECT_EQ(parse(words), expected) << testing::PrintToString(words);
  }
}

TEST_F(init, result_and_calls_and_messages_in_order) {
  const std::string cpu = "cpu_stat_manager ::1 77\n";
  const std::string peri = cpu + "peri_stat_manager ::1 77\n";
  const std::string vio = peri + "bpu_ratio_manager ::1 77\nvio_info_manager ::1 77\n";
  const std::string net = vio + "net_stat_manager ::1 77\n";
  const std::string started = net + "start_net_monitor\n";
  const std::string enable = "enable_perf_mon\n";
  const std::string failed = "E Enable perf monitor failed";
  const std::string on = vio + enable;
  const std::string held =
      on + "W Perf monitor only support one client, force show in this client\ndisable_perf_mon\n";
  const std::string thrown = "E Exception caught: \"%s%n\" when constructor parse manager\n";
  struct {
    const char* settings;
    const char* script;
    int result;
    std::string records;
  } const rows[] = {
      {"", "", 0, vio},
      {"net perf", "", 0, started + enable},
      {"net perf", "cpu_stat_manager\tthrow=%s%n", -2, cpu + thrown},
      {"net perf", "peri_stat_manager\tthrow=%s%n", -2, peri + thrown},
      {"net perf", "net_stat_manager\tthrow=%s%n", -2, net + thrown},
      {"net perf", "start_net_monitor\tstatus=-7", -7, started + "E start_net_monitor failed\n"},
      {"net", "start_net_monitor\tstatus=3", 0, started},
      {"perf", "enable_perf_mon\tstatus=-5", -5, on + failed + ":-5\n"},
      {"perf", "enable_perf_mon\tstatus=-16,2\ndisable_perf_mon\tstatus=1", 0, held + enable},
      {"perf", "enable_perf_mon\tstatus=-16,0\ndisable_perf_mon\tstatus=-9", -9,
       held + "E Force disable perf monitor failed:-9\n"},
      {"perf", "enable_perf_mon\tstatus=-16", -16, held + enable + failed + ":-16\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.script);
    const std::string wanted = row.settings;
    zorva other;
    start_afresh();
    manager.enable_net = wanted.find("net") != std::string::npos;
    manager.enable_perf = wanted.find("perf") != std::string::npos;
    fake_mon_client::script(row.script);
    EXPECT_EQ(other.zorva_top_init("::1", 77), row.result);
    EXPECT_EQ(records(), row.records);
  }
  start_afresh();
  manager.file_name = "/nonexistent/file";
  EXPECT_EQ(monitor.zorva_top_init("::1", 77), -1);
  EXPECT_EQ(records(), "E Open target file failed\n");
}

TEST_F(records_of_panels, failures_are_logged_once_a_row) {
  const temporary_folder folder;
  const std::string failed =
      "E Write target file records failed: No space left on device; records are lost\n";
  manager.file_name = "records";
  for (const std::string& expected :
       {failed, "W Target file records is written again\n" + failed}) {
    // The stream stays what it is, as with a disk that is full now and then.
    manager.out_file.close();
    manager.out_file.open("/dev/full", std::ios::app);
    for (int i = 0; i < 30; ++i) {
      append_record(std::string(1000, 'x'));
    }
    EXPECT_EQ(records(), expected);
    fake_mon_client::reset();
    manager.out_file.close();
    manager.out_file.open(folder.file("records"), std::ios::app);
    append_record("first record with room again");
  }
  fake_mon_client::reset();
  append_record("few");
  manager.out_file.close();
  manager.out_file.open("/dev/full", std::ios::app);
  append_record("held back until the end");
  EXPECT_EQ(records(), "");
  end_records();
  EXPECT_EQ(records(), failed);
}

class keyboard : public program {
 protected:
  keyboard() { connect(); }

  // Runs the loop on these bytes and then `q`.
  static void press(const std::string& keys) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const std::string typed = keys + "qc";  // nothing is acted on after q
    ASSERT_EQ(write(ends[1], typed.data(), typed.size()), static_cast<ssize_t>(typed.size()));
    with_redirected(STDIN_FILENO, ends[0], zorva_manage::read_input);
    close(ends[0]);
    close(ends[1]);
    __fpurge(stdin);
  }

  static std::string settings() {
    return "sort " + std::to_string(manager.sort_mode) + (manager.thread_mode ? " threads" : "") +
           (manager.enable_perf ? " perf" : "") + (manager.flush_now ? " flush" : "") +
           (manager.to_exit ? " exit" : "");
  }
};

TEST_F(keyboard, settings_and_calls_and_messages_in_order) {
  const std::string by_cpu = "I Sort by CPU usage\n";
  const std::string by_ram = "I Sort by ram rss\n";
  const std::string to_threads = "I Switch to thread mode\ncpu_mon_exit\n";
  const std::string to_processes = "I Switch to process mode\ncpu_mon_exit\n";
  const std::string perf_on = "I Enable perf monitor\nenable_perf_mon\n";
  struct {
    std::string keys;
    const char* script;
    const char* settings;
    std::string records;
  } const rows[] = {
      {std::string("hCQ \n\0\xffP", 8), "", "sort 1 exit", ""},
      {"rcc", "", "sort 1 exit", by_ram + by_cpu + by_cpu},
      {"b", "", "sort 2 exit", "I Sort by BPU usage\n"},
      {"i", "", "sort 3 exit", "I Sort by io\n"},
      {"n", "", "sort 4 exit", "I Sort by net\n"},
      {"r", "", "sort 5 exit", by_ram},
      {"HH", "cpu_mon_exit\tstatus=-5", "sort 1 threads flush exit",
       to_threads + "E get_process_all reset failed\n"},
      // A function key whose last byte is a key of its own.
      {"H\x1bOP", "", "sort 1 flush exit", to_threads + to_processes},
      {"p", "", "sort 1 perf flush exit", perf_on},
      {"p", "enable_perf_mon\tstatus=-1", "sort 1 exit",
       perf_on + "E Enable perf monitor failed:-1\n"},
      {"p", "enable_perf_mon\tstatus=-16,0", "sort 1 perf flush exit",
       perf_on + "W Perf monitor only support one client, force show in this client\n" +
           "disable_perf_mon\nenable_perf_mon\n"},
      {"pp", "disable_perf_mon\tstatus=-1", "sort 1 flush exit", perf_on + "disable_perf_mon\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.keys));
    start_afresh();
    fake_mon_client::script(row.script);
    press(row.keys);
    EXPECT_EQ(settings(), row.settings);
    EXPECT_EQ(records(), row.records);
  }
}

TEST_F(waits, take_their_time_and_leave_requests_of_no_wait_alone) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(zorva_manage::handle_input(1200), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1200));
  manager.flush_now = true;
  for (const int no_wait : {0, -5, INT_MIN}) {
    EXPECT_EQ(zorva_manage::handle_input(no_wait), 0);
    EXPECT_TRUE(manager.flush_now) << no_wait;
  }
}

// Each wait looks for a request first and then for the end of the program, so that with both set
// the one that gets the request returns 0 and the other 1, and neither sleeps.
TEST_F(waits, one_request_ends_one_of_two) {
  manager.to_exit = true;
  for (int round = 0; round < 500; ++round) {
    manager.flush_now = true;
    std::atomic<int> ready{0};
    const auto wait = [&](int& result) {
      for (++ready; ready < 2;) {
      }
      result = zorva_manage::handle_input(INT_MAX);
    };
    int results[2];
    std::thread other(wait, std::ref(results[0]));
    wait(results[1]);
    other.join();
    ASSERT_EQ(results[0] + results[1], 1) << "in round " << round;
  }
}

}  // namespace
