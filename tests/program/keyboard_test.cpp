// The keyboard loop, and the wait that keys and the end of the program cut short.
#include <stdio_ext.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <thread>

#include "program_fixture.h"

namespace {

using fake_mon_client::records;
using waits = program;

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
