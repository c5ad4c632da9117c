// SPDX-License-Identifier: Apache-2.0
// The full screen in a terminal: what it shows, and how it leaves the terminal.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>

#include "fake_mon_client.h"
#include "screen.h"
#include "test_tools.h"
#include "zorva_run.h"

namespace {

constexpr char texts[] =
    "get_all_thermal\ttext=Thermal  cpu 45.2C\n"
    "get_meminfo\ttext=[Mem total 15.5G]\n"
    "get_ion_info\ttext=[ION none]\n"
    "get_partition_info\ttext=Partitions  /log -\n"
    "get_cpu_usage\ttext=CPU head\\ncpu0\\n\n"
    "get_bpu_ratio_all\ttext=BPU  none\\n\n"
    "get_bandwidth_stat\ttext=Net  lo\\n\n"
    "get_block_usage\ttext=Block  vda\n"
    "get_process_all\ttext=PID head\\n  1 init\\n\n";

struct tui_run : zorva_run {
  explicit tui_run(const lines& options, const std::string& more = "", int rows = 60,
                   int columns = 200)
      : zorva_run(
            (setenv("TERM", "xterm-256color", 1),
             set_up{options, texts + more, true, -1, ISIG | ICANON | ECHO,
                    static_cast<unsigned short>(rows), static_cast<unsigned short>(columns)})),
        shown(rows, columns) {}

  bool wait_for_screen(const std::function<bool()>& is_right) {
    return wait_until([&] {
      shown.show(output);
      return is_right();
    });
  }
  bool wait_for_text(int row, int column, const std::string& text) {
    return wait_for_screen(
        [&] { return shown.text(row, column, static_cast<int>(text.size())) == text; });
  }
  void resize(int rows, int columns) {
    const winsize size{static_cast<unsigned short>(rows), static_cast<unsigned short>(columns), 0,
                       0};
    shown.resize(rows, columns);
    ioctl(terminal.master, TIOCSWINSZ, &size);
  }
  // Echo, line editing, cursor and the screen that was there before.
  void expect_terminal_back() {
    EXPECT_TRUE(wait_for_local_modes(ICANON | ECHO));
    EXPECT_TRUE(wait_for_screen([&] { return !shown.full_screen && shown.cursor_visible; }));
  }
  void quit() {
    EXPECT_TRUE(wait_for_local_modes(0));
    terminal.type("q");
    EXPECT_EQ(end(), "exit 0");
    expect_terminal_back();
  }

  screen shown;
};

TEST(tui, panels_have_their_places_and_bars_at_the_start_and_after_a_resize) {
  tui_run run({"-d", "50"});
  for (const auto& [row, text] : {std::pair(0, "Thermal"), {3, "CPU"}, {13, "BPU"}, {23, "PID"}}) {
    EXPECT_TRUE(run.wait_for_text(row, 0, text));
  }
  EXPECT_TRUE(run.shown.full_screen);
  EXPECT_FALSE(run.shown.cursor_visible);
  const struct {
    int row;
    int bar_width;
    const char* text;
  } rows[] = {
      {0, 199, "Thermal  cpu 45.2C"},
      {1, 0, "[Mem total 15.5G], [ION none]"},
      {2, 0, "Partitions  /log -"},
      {3, 69, "CPU head"},  // and nothing of the VIO panel beside it
      {4, 0, "cpu0"},
      {13, 199, "BPU  none"},
      {14, 0, ""},
      {15, 0, "Net  lo"},
      {16, 0, ""},
      {17, 0, "Block  vda"},
      {23, 199, "PID head"},
      {24, 0, "  1 init"},
  };
  for (const auto& one : rows) {
    EXPECT_EQ(run.shown.text(one.row), one.text);
    EXPECT_EQ(run.shown.bar_width(one.row), one.bar_width) << one.row;
  }
  run.resize(30, 100);
  EXPECT_TRUE(run.wait_for_screen(
      [&] { return run.shown.bar_width(23) == 99 && run.shown.text(24) == "  1 init"; }));
  run.quit();
}

// The figures come again and again and are the same: the terminal is left alone.
TEST(tui, nothing_new_is_no_byte) {
  tui_run run({"-d", "50"});
  ASSERT_TRUE(run.wait_for_call("get_all_thermal other", 2));
  ASSERT_TRUE(run.wait_for_text(0, 0, "Thermal  cpu 45.2C"));
  const size_t written = run.output.size();
  ASSERT_TRUE(run.wait_for_call("get_bpu_ratio_all other", 6));
  EXPECT_EQ(run.output.size(), written);
  run.quit();
}

TEST(tui, counters_come_and_go_with_the_key) {
  tui_run run({"-d", "50"}, "get_perf_data\ttext=Counters\\n\n");
  ASSERT_TRUE(run.wait_for_text(23, 0, "PID head"));
  run.terminal.type("p");
  EXPECT_TRUE(run.wait_for_text(23, 118, "Counters"));
  EXPECT_TRUE(run.wait_for_screen([&] { return run.shown.bar_width(23) == 117; }));
  EXPECT_EQ(run.shown.bar_width(23, 118), 81);
  run.terminal.type("p");
  EXPECT_TRUE(run.wait_for_screen([&] { return run.shown.bar_width(23) == 199; }));
  EXPECT_EQ(run.shown.text(23, 118), "");
  EXPECT_EQ(fake_mon_client::times_recorded("disable_perf_mon"), 1u);
  run.quit();
}

TEST(tui, counters_that_another_client_takes_leave_the_screen) {
  tui_run run({"-d", "50", "-P"}, "get_perf_data\ttext=Counters\\n\tstatus=0,0,0,0,0,0,0,0,-16\n");
  EXPECT_TRUE(run.wait_for_text(23, 118, "Counters"));
  EXPECT_TRUE(run.wait_for_screen([&] { return run.shown.bar_width(23) == 199; }));
  EXPECT_EQ(fake_mon_client::times_recorded("disable_perf_mon"), 0u);
  EXPECT_EQ(fake_mon_client::records().find("failed"), std::string::npos);
  run.quit();
}

TEST(tui, tiny_terminals_neither_crash_nor_hang) {
  for (const auto& [rows, columns] : {std::pair(1, 1), {3, 10}, {23, 80}, {24, 80}, {40, 118}}) {
    SCOPED_TRACE(std::to_string(columns) + 'x' + std::to_string(rows));
    tui_run run({"-d", "20", "-P"}, "", rows, columns);
    EXPECT_TRUE(run.wait_for_call("get_bpu_ratio_all other") || rows < 23);
    run.terminal.type("pp");
    run.quit();
  }
}

TEST(tui, records_go_to_the_output_file) {
  const temporary_folder folder;
  const std::string path = folder.file("records");
  std::ofstream(path) << "kept\n";
  tui_run run({"-d", "50", "-o", path});
  ASSERT_TRUE(run.wait_for_text(0, 0, "Thermal  cpu 45.2C"));
  run.quit();
  const std::string records = read_file(path);
  EXPECT_EQ(records.rfind("kept\n\n[20", 0), 0u) << records.substr(0, 80);
  const std::string common =
      "]\nThermal  cpu 45.2C\n[Mem total 15.5G], [ION none]\nPartitions  /log -\n";
  EXPECT_NE(records.find(common), std::string::npos);
  EXPECT_NE(records.find("]\nPID head\n  1 init\n"), std::string::npos);
}

TEST(tui, terminals_that_curses_does_not_know) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "curses leaks what it has made when it ends the program";
#endif
  for (const char* name : {"", "no-such-terminal"}) {
    setenv("TERM", name, 1);
    zorva_run run({{"-g"}});
    EXPECT_EQ(run.end(), "exit 1") << name;
    EXPECT_NE(fake_mon_client::records().find("; try TERM=vt100 zorva"), std::string::npos);
    EXPECT_TRUE(run.wait_for_local_modes(ICANON | ECHO));
  }
}

// Every end puts the terminal back, wherever the threads are.
TEST(tui, every_end_leaves_the_terminal_as_it_was) {
  const struct {
    const char* script;
    int kill_by;  // 0: the script brings it about
    const char* how;
  } endings[] = {
      {"", SIGINT, "Interrupt"},
      {"", SIGPIPE, "Broken pipe"},
      {"", SIGSEGV, "Segmentation fault"},
      {"get_bpu_ratio_all\tcrash\n", 0, "Segmentation fault"},
      {"get_process_all\traise=6\n", 0, "Aborted"},
      {"get_cpu_usage\tblock\n", SIGINT, "Interrupt"},
      {"cpu_mon_exit\tblock\n", SIGINT, "Interrupt"},
      {"cpu_mon_exit\tblock\nget_bpu_ratio_all\tcrash\n", 0, "Segmentation fault"},
      {"start_net_monitor\tstatus=-5\n", 0, "exit 255"},
  };
  for (const auto& one : endings) {
    SCOPED_TRACE(std::string(one.how) + ' ' + one.script);
    tui_run run({"-d", "50"}, one.script);
    if (one.kill_by != 0) {
      ASSERT_TRUE(run.wait_for_text(13, 0, "BPU  none"));
      ASSERT_TRUE(run.wait_for_local_modes(0));
      kill(run.pid, one.kill_by);
    }
    EXPECT_EQ(run.end(), one.how);
    run.expect_terminal_back();
  }
}

// Nobody reads what is painted, and the refresher waits within a paint for room.
TEST(tui, a_terminal_that_takes_no_output_keeps_nobody) {
  std::string full_screen = "get_process_all\ttext=PID head\\n";
  for (int i = 0; i < 3000; ++i) {
    full_screen += std::to_string(i);
  }
  for (const auto& [signo, how] : {std::pair(0, "exit 0"),
                                   {SIGINT, "Interrupt"},
#ifndef __SANITIZE_THREAD__  // which minds that curses ends the program without joining threads
                                   {SIGTERM, "exit 1"},
#endif
                                   {SIGQUIT, "Quit"},
                                   {SIGHUP, "Hangup"}}) {
    SCOPED_TRACE(how);
    tui_run run({"-d", "50"}, full_screen + '\n');
    ASSERT_TRUE(run.wait_for_text(23, 0, "PID head"));
    ASSERT_TRUE(run.wait_for_local_modes(0));
    const auto takes_output = [&] {
      pollfd terminal{run.terminal.slave, POLLOUT, 0};
      return poll(&terminal, 1, 0) == 1 && (terminal.revents & POLLOUT) != 0;
    };
    for (int width = 100; takes_output(); ++width) {
      const winsize size{60, static_cast<unsigned short>(width), 0, 0};
      ioctl(run.terminal.master, TIOCSWINSZ, &size);
      usleep(50000);  // a paint of the whole screen for some of these
    }
    if (signo == 0) {
      run.terminal.type("q");
    } else {
      kill(run.pid, signo);
    }
    EXPECT_EQ(run.end(false), how);
    run.expect_terminal_back();
  }
}

// A held key, a dragged window and a query that hangs while `q` is pressed.
TEST(tui, storms_end_well) {
  tui_run run({"-d", "1"}, std::string("get_perf_data\ttext=Counters\\n\tstatus=0,0,0,0,-16\n") +
                               "get_meminfo\t" + until_go + "\ttext=[Mem]\n");
  ASSERT_TRUE(run.wait_for_local_modes(0));
  for (int i = 0; i < 60; ++i) {
    run.terminal.type("pHpPcbinr");
    run.resize(24 + i % 37, 80 + 3 * i);
  }
  run.terminal.type("q");
  run.go();
  EXPECT_EQ(run.end(), "exit 0");
  run.expect_terminal_back();
}

}  // namespace
