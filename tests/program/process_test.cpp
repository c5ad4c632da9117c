// Whole runs of the program that end by themselves or by a key.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>

#include "zorva_run.h"

namespace {

constexpr char usage[] =
    R"(Real-time performance monitoring for Meridian series platforms
Options:
	-i Server IP, default: 127.0.0.1
	-p Server Port, default port:1234
	-d $cycle_ms, Monitoring the CPU&Process/thread cycle(millisecond), default:2000ms
	-o $target_file, Save monitor data to target file, only available in TUI mode
	-g, TUI mode(default)
	-b, Batch mode, Show all info to terminal
	-t, Text mode
	-P, Enable perf monitor, default disabled, only one client can enable perf monitor
	-H, Thread monitor mode, defalut process monitor mode
	-n 0/1, Net monitor status, 0=>disable, 1=>enable(default)
	-m $sort_mode, Process sorting order
	  1 - CPU usage
	  2 - BPU usage
	  3 - IO usage
	  4 - NET usage
	  5 - RAM(rss) usage
	-l $log_file, Save zorva log to $log_file, only used in zorva.pc mode
	-h, help

Keys:
	c: toggle sort by CPU usage
	b: toggle sort by BPU usage
	i: toggle sort by IO usage
	n: toggle sort by NET usage
	r: toggle sort by RAM(rss) usage
	p: Enable/disable perf monitor
	H: toggle thread mode
	P: toggle process mode
	q: quit
)";

TEST(run, usage) {
  for (const lines& options : {lines{"-h"}, {"-b", "-f", "-b"}, {"-x"}, {"-b", "-d"}}) {
    zorva_run::set_up how;
    how.options = options;
    how.output_to_terminal = false;
    zorva_run run(how);
    EXPECT_EQ(run.end(), "exit 0");
    EXPECT_EQ(run.process.output, usage) << testing::PrintToString(options);
    EXPECT_EQ(run.calls(), "");
  }
}

TEST(run, failing_start) {
  struct {
    lines options;
    const char* script;
    const char* message;
    const char* calls;
  } const rows[] = {
      {{"-b", "-p", "99"},
       "cpu_stat_manager\tthrow=Connection refused",
       "Exception caught: \"Connection refused\" when constructor parse manager",
       "cpu_stat_manager 127.0.0.1 99\n"},
      {{"-b", "-o", "/nonexistent/file"}, "", "Open target file failed", ""},
  };
  for (const auto& row : rows) {
    zorva_run::set_up how;
    how.options = row.options;
    how.script = row.script;
    how.output_to_terminal = false;
    zorva_run run(how);
    EXPECT_EQ(run.end(), "exit 255");
    EXPECT_EQ(run.process.output, "zorva_top_init failed\n");
    EXPECT_EQ(run.logged(row.message), 1u);
    EXPECT_EQ(run.calls(), row.calls);
    EXPECT_TRUE(run.wait_for_local_modes(ICANON | ECHO));
  }
}

TEST(run, q_ends_it_in_order) {
  for (const char* mode : {"-b", "-t"}) {
    zorva_run::set_up how;
    how.options = {mode, "-P", "-d", "10"};
    how.script = "get_process_all\ttext=the process list\\n";
    zorva_run run(how);
    ASSERT_TRUE(run.process.wait_until([&] {
      return run.process.output.find("the process list\r\n") != std::string::npos;
    })) << mode;
    ASSERT_TRUE(run.wait_until_running());
    run.terminal.type("H");
    ASSERT_TRUE(run.wait_for_call("get_process_all 65281 cout"));
    run.terminal.type("q");
    EXPECT_EQ(run.end(), "exit 0");
    EXPECT_TRUE(run.wait_for_local_modes(ICANON | ECHO));
    // That of the key H. An orderly end calls nothing off.
    EXPECT_EQ(run.clean_up_calls(), "cpu_mon_exit ");
    const std::string destroyed =
        "\n~net_stat_manager\n~vio_info_manager\n~peri_stat_manager\n~bpu_ratio_manager\n"
        "~cpu_stat_manager\n";
    EXPECT_NE(run.calls().find("cout" + destroyed), std::string::npos);
  }
}

TEST(run, reports_go_on_after_the_end_of_input) {
  zorva_run::set_up how;
  how.options = {"-b", "-d", "5"};
  how.input_from_terminal = false;
  how.output_to_terminal = false;
  zorva_run run(how);
  ASSERT_TRUE(run.wait_for_log("STDIN has been closed!!"));
  ASSERT_TRUE(run.wait_for_call("get_process_all 1 cout", 20));
  EXPECT_EQ(run.logged("STDIN has been closed!!"), 1u);
  EXPECT_NE(run.process.output.find("\nTime: "), std::string::npos);
  kill(run.process.pid, SIGINT);
  EXPECT_EQ(run.end(), strsignal(SIGINT));
}

TEST(run, log_file_that_cannot_be_opened) {
  zorva_run::set_up how;
  how.options = {"-l", "/nonexistent/log", "-b", "-o", "/nonexistent/file"};
  zorva_run run(how);
  EXPECT_EQ(run.end(), "exit 255");
  EXPECT_NE(run.errors().find("cannot open log file /nonexistent/log: No such file"),
            std::string::npos);
}

}  // namespace
