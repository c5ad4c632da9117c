// The report thread, run to its end on the test's own thread: the last query of a report says
// whether the program is to end.
#include "zorva/report.h"

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <iostream>
#include <sstream>

#include "child_process.h"
#include "program_fixture.h"

namespace {

const std::string dashes = std::string(70, '-') + '\n';

// In the order of the report.
const char* const queries[] = {"get_all_thermal",    "get_meminfo",     "get_ion_info",
                               "get_partition_info", "get_cpu_usage",   "get_bpu_ratio_all",
                               "get_bandwidth_stat", "get_block_usage", "sort_all_vio_fps",
                               "get_process_all"};

class report : public program {
 protected:
  report() {
    setenv("TZ", "UTC", 1);
    connect();
    manager.cycle_ms = 0;
    script("0");
  }

  // Each query appends its name, and a line end where the real texts have one.
  static void script(const std::string& status) {
    for (const std::string query : queries) {
      const bool open = query == "get_all_thermal" || query == "get_block_usage" ||
                        query.find("info") != std::string::npos;
      fake_mon_client::script(query + "\ttext=" + query + (open ? "" : "\\n") +
                              "\tstatus=" + status);
    }
  }

  // Runs the thread's body until `last` reports are composed; what it wrote to standard output.
  std::string run(int last = 2) {
    cycles = 0;
    manager.to_exit = false;
    fake_mon_client::on_call("get_process_all", [this, last] {
      during_cycle();
      manager.to_exit = ++cycles >= last;
    });
    clock_now = {1704164645, 5000};  // 2024-01-02 03:04:05.005000 UTC
    std::stringbuf own;
    std::streambuf* const before = std::cout.rdbuf(&own);
    zorva_thread(&monitor);
    EXPECT_EQ(std::cout.rdbuf(before), &own) << "standard output has not got its own buffer back";
    EXPECT_TRUE(is_free(monitor.lk));
    return own.str();
  }

  static bool is_free(std::mutex& mutex) {
    bool free = false;
    std::thread([&] {
      free = mutex.try_lock();
      if (free) {
        mutex.unlock();
      }
    }).join();
    return free;
  }

  static std::string whole(const std::string& net = "get_bandwidth_stat\n") {
    return "\nTime: 2024-01-02 03:04:05.5000\n" + dashes + "get_all_thermal\n" + dashes +
           "get_meminfoget_ion_info\n" + dashes + "get_partition_info\n" + dashes +
           "get_cpu_usage\n" + dashes + "get_bpu_ratio_all\n" + dashes + net + dashes +
           "get_block_usage\n" + dashes + "sort_all_vio_fps\n" + dashes + "get_process_all\n";
  }

  int cycles = 0;
  std::function<void()> during_cycle = [] {};
};

TEST_F(report, second_is_the_first_that_is_written) {
  EXPECT_EQ(run(1), "");
  fake_mon_client::reset();
  script("0");
  EXPECT_EQ(run(2), whole() + "\n");
  std::string one;
  for (const std::string query : queries) {
    one += query + (query == "get_process_all" ? " 1" : "") +
           (query == "get_partition_info" ? " /log,/map,/userdata" : "") + " cout\n";
  }
  EXPECT_EQ(fake_mon_client::records(), one + one);
}

TEST_F(report, no_network) {
  monitor.net.reset();
  EXPECT_EQ(run(), whole("") + "\n");
}

TEST_F(report, failed_queries_are_logged_and_keep_their_text) {
  script("-5");
  EXPECT_EQ(run(), whole() + "\n");
  const std::string records = fake_mon_client::records();
  for (const std::string query : queries) {
    EXPECT_NE(records.find(" cout\n6 ZORVA " + query + " failed:-5|\n"), std::string::npos)
        << query;
  }
}

// What a key changes while a report is being composed shows in that report's process list.
TEST_F(report, mode_word_is_that_of_its_own_moment) {
  manager.thread_mode = true;
  fake_mon_client::on_call("sort_all_vio_fps", [] { manager.sort_mode = 5; });
  run(1);
  EXPECT_NE(fake_mon_client::records().find("get_process_all 65285 cout\n"), std::string::npos);
}

// Each of these would wait for hours, or overflow, if the rest of the cycle were worked out badly.
TEST_F(report, cycles_that_are_over_are_not_waited_for) {
  struct {
    int cycle_ms;
    int64_t clock_step_s;
  } const rows[] = {{INT_MIN, 0}, {INT_MIN, 60}, {60'000, 61}, {60'000, 3'000'000}};
  for (const auto& row : rows) {
    manager.cycle_ms = row.cycle_ms;
    clock_step_s = row.clock_step_s;
    run();
    EXPECT_EQ(cycles, 2) << row.cycle_ms;
  }
}

TEST_F(report, request_during_a_cycle_cuts_its_wait_short) {
  manager.cycle_ms = INT_MAX;
  during_cycle = [this] {
    EXPECT_FALSE(is_free(monitor.lk));
    manager.flush_now = true;
  };
  run();
  EXPECT_EQ(cycles, 2);
}

TEST_F(report, text_mode_cuts_to_the_terminal) {
  manager.batch_mode = false;
  constexpr int report_lines = 20;  // the empty one, the time, 9 of dashes and 9 of text
  for (const int rows : {1, 5, report_lines - 1, report_lines, 60}) {
    const pseudo_terminal terminal(static_cast<unsigned short>(rows), 80);
    std::string got;
    with_redirected(STDOUT_FILENO, terminal.slave, [&] { got = run(); });
    std::string expected = whole();
    if (rows < report_lines) {
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
  const int nothing = open("/dev/null", O_WRONLY | O_CLOEXEC);
  std::string got;
  testing::internal::CaptureStderr();
  with_redirected(STDOUT_FILENO, nothing, [&] {
    run();  // in batch mode, which does not ask for the size
    manager.batch_mode = false;
    got = run();
  });
  const std::string errors = testing::internal::GetCapturedStderr();
  close(nothing);
  EXPECT_EQ(got, "");
  // Once a cycle, that which sees the end of the program included.
  const std::string failure = "Failed to get terminal size\n";
  EXPECT_EQ(errors, failure + failure + failure);
}

}  // namespace
