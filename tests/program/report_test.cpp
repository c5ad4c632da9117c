// SPDX-License-Identifier: Apache-2.0
// The report thread, run to its end on the test's own thread.
#include "zorva/report.h"

#include <climits>
#include <future>
#include <iostream>
#include <sstream>

#include "program_fixture.h"
#include "zorva_run.h"

namespace {

using fake_mon_client::records;
using fake_mon_client::times_recorded;

// In the order of the report, with line ends where the real texts have one.
const std::pair<std::string, const char*> queries[] = {
    {"get_all_thermal", ""},       {"get_meminfo", ""},      {"get_ion_info", ""},
    {"get_partition_info", ""},    {"get_cpu_usage", "\\n"}, {"get_bpu_ratio_all", "\\n"},
    {"get_bandwidth_stat", "\\n"}, {"get_block_usage", ""},  {"sort_all_vio_fps", "\\n"},
    {"get_process_all", "\\n"}};

bool is_free(std::mutex& mutex) {
  const auto ask = [&mutex] { return std::unique_lock(mutex, std::try_to_lock).owns_lock(); };
  return std::async(std::launch::async, ask).get();
}

class report : public program {
 protected:
  report() {
    setenv("TZ", "UTC", 1);
    connect();
    manager.cycle_ms = 0;
  }

  // Runs the thread's body for that many reports; what it wrote to standard output.
  std::string run(int count = 2, int status = 0) {
    for (const auto& [query, end] : queries) {
      fake_mon_client::script(query + "\ttext=" + query + end +
                              "\tstatus=" + std::to_string(status));
    }
    int reports = 0;
    fake_mon_client::on_call("get_all_thermal", [&] {
      EXPECT_FALSE(is_free(monitor.lk));
      manager.flush_now = request;
    });
    fake_mon_client::on_call("get_process_all", [&] { manager.to_exit = ++reports == count; });
    manager.to_exit = false;
    clock_now = {1704164645, 5000};  // 2024-01-02 03:04:05.005000 UTC
    std::stringbuf own;
    std::streambuf* const before = std::cout.rdbuf(&own);
    zorva_thread(&monitor);
    EXPECT_EQ(std::cout.rdbuf(before), &own) << "standard output has not got its own buffer back";
    EXPECT_TRUE(is_free(monitor.lk));
    return own.str();
  }

  static std::string whole(const std::string& net = "get_bandwidth_stat\n") {
    const std::string dashes = std::string(70, '-') + '\n';
    return "\nTime: 2024-01-02 03:04:05.5000\n" + dashes + "get_all_thermal\n" + dashes +
           "get_meminfoget_ion_info\n" + dashes + "get_partition_info\n" + dashes +
           "get_cpu_usage\n" + dashes + "get_bpu_ratio_all\n" + dashes + net + dashes +
           "get_block_usage\n" + dashes + "sort_all_vio_fps\n" + dashes + "get_process_all\n";
  }

  bool request = false;  // made during each cycle
};

TEST_F(report, second_is_the_first_that_is_written) {
  EXPECT_EQ(run(1), "");
  fake_mon_client::reset();
  EXPECT_EQ(run(2), whole() + "\n");
  std::string one;
  for (const auto& [query, end] : queries) {
    one += query + (query == "get_process_all" ? " 1" : "") +
           (query == "get_partition_info" ? " /log,/map,/userdata" : "") + " cout\n";
  }
  EXPECT_EQ(records(), one + one);
  monitor.net.reset();
  EXPECT_EQ(run(), whole("") + "\n");
}

TEST_F(report, failed_queries_are_logged_and_keep_their_text) {
  EXPECT_EQ(run(2, -5), whole() + "\n");
  for (const auto& [query, end] : queries) {
    EXPECT_GE(times_recorded("E " + query + " failed:-5"), 2U) << query;
  }
}

// Each of these would wait for hours, or overflow, if the rest of the cycle were worked out badly.
TEST_F(report, cycles_that_are_over_are_not_waited_for) {
  manager.thread_mode = true;
  manager.sort_mode = 5;
  for (const int64_t step_s : {0, 61, 3'000'000}) {
    manager.cycle_ms = step_s == 0 ? INT_MIN : 60'000;
    clock_step_s = step_s;
    run();
  }
  clock_step_s = 0;
  manager.cycle_ms = INT_MAX;
  request = true;
  run();
  EXPECT_EQ(times_recorded("get_process_all 65285 cout"), 8U);
}

TEST_F(report, text_mode_cuts_to_the_terminal) {
  manager.batch_mode = false;
  constexpr int report_lines = 20;  // the empty one, the time, 9 of dashes and 9 of text
  // On a serial line nobody knows the rows: 24.
  for (const int rows : {0, 1, 5, report_lines - 1, report_lines, 60}) {
    const pseudo_terminal terminal(static_cast<unsigned short>(rows), 80);
    std::string got;
    with_redirected(STDOUT_FILENO, terminal.slave, [&] { got = run(); });
    std::string expected = whole();
    if (rows > 0 && rows < report_lines) {
      size_t end = 0;
      for (int line = 0; line <= rows; ++line) {
        end = expected.find('\n', end) + 1;
      }
      expected.resize(end - 1);
    }
    EXPECT_EQ(got, expected) << rows << " rows";
  }
}

TEST_F(report, text_mode_shows_nothing_while_the_terminal_size_is_unknown) {
  manager.batch_mode = false;
  testing::internal::CaptureStderr();
  with_redirected(STDOUT_FILENO, open("/dev/null", O_WRONLY), [&] { EXPECT_EQ(run(), ""); });
  // Once a cycle, that which sees the end of the program included.
  const std::string failure = "Failed to get terminal size\n";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), failure + failure + failure);
}

}  // namespace
