// Whole runs of the program that a signal ends.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <utility>

#include "zorva_run.h"

namespace {

constexpr char all_steps[] = "cpu_mon_exit exit_net_monitor disable_perf_mon back_client_id ";

const std::string query_waits = std::string("get_meminfo\t") + until_go;

std::string clean_up_message(int signo) {
  return "zorva clean up with sig:" + std::to_string(signo);
}

class signals : public testing::Test {
 protected:
  static zorva_run::set_up batch(const std::string& script = "",
                                 const lines& more_options = {"-P"}) {
    zorva_run::set_up how;
    how.options = {"-b", "-d", "10"};
    how.options.insert(how.options.end(), more_options.begin(), more_options.end());
    how.script = script;
    return how;
  }

  // It dies by the signal, after it has logged it and put the terminal back.
  static void expect_death(zorva_run& run, int signo, const std::string& steps) {
    EXPECT_EQ(run.end(), strsignal(signo));
    EXPECT_EQ(run.logged(clean_up_message(signo)), 1u);
    EXPECT_EQ(run.clean_up_calls(), steps);
    EXPECT_TRUE(run.wait_for_local_modes(ICANON | ECHO));
  }
};

TEST_F(signals, sent_from_outside) {
  for (const int signo : {SIGILL, SIGABRT, SIGBUS, SIGSEGV, SIGFPE, SIGSTKFLT, SIGPIPE, SIGINT}) {
    SCOPED_TRACE(strsignal(signo));
    zorva_run run(batch());
    ASSERT_TRUE(run.wait_until_running());
    kill(run.process.pid, signo);
    expect_death(run, signo, all_steps);
  }
}

TEST_F(signals, what_is_not_on_is_not_called_off) {
  zorva_run run(batch("", {"-n", "0"}));
  ASSERT_TRUE(run.wait_until_running());
  run.terminal.type("\x03");
  expect_death(run, SIGINT, "cpu_mon_exit back_client_id ");
}

TEST_F(signals, others_are_left_alone) {
  zorva_run run(batch());
  ASSERT_TRUE(run.wait_until_running());
  kill(run.process.pid, SIGTERM);
  EXPECT_EQ(run.end(), strsignal(SIGTERM));
  EXPECT_EQ(run.clean_up_calls(), "");
  EXPECT_EQ(run.logged(clean_up_message(SIGTERM)), 0u);
}

TEST_F(signals, reader_of_the_reports_goes_away) {
  zorva_run::set_up how = batch();
  how.output_to_terminal = false;
  zorva_run run(how);
  ASSERT_TRUE(run.process.wait_until(
      [&] { return run.process.output.find("\nTime: ") != std::string::npos; }));
  ASSERT_TRUE(run.wait_until_running());
  run.process.close_output();
  EXPECT_EQ(run.end(), strsignal(SIGPIPE));
  EXPECT_GE(run.logged(clean_up_message(SIGPIPE)), 1u);  // further writes may fail meanwhile
  EXPECT_EQ(run.clean_up_calls(), all_steps);
  EXPECT_TRUE(run.wait_for_local_modes(ICANON | ECHO));
}

TEST_F(signals, faults_in_a_query) {
  for (const auto& [behaviour, signo] :
       {std::pair("crash", SIGSEGV), std::pair("raise=6", SIGABRT)}) {
    SCOPED_TRACE(behaviour);
    zorva_run run(batch(query_waits + '\t' + behaviour));
    ASSERT_TRUE(run.wait_for_call("get_meminfo cout"));
    ASSERT_TRUE(run.wait_for_local_modes(0));
    run.go();
    expect_death(run, signo, all_steps);
  }
}

// The reset behind the key H is a step of the clean-up too, so that it faults there again.
TEST_F(signals, fault_on_the_main_thread_and_again_in_the_clean_up) {
  zorva_run run(batch("cpu_mon_exit\tcrash"));
  ASSERT_TRUE(run.wait_until_running());
  run.terminal.type("H");
  EXPECT_EQ(run.end(), strsignal(SIGSEGV));
  EXPECT_EQ(run.clean_up_calls(), "cpu_mon_exit cpu_mon_exit ");
  EXPECT_TRUE(run.wait_for_local_modes(ICANON | ECHO));
}

TEST_F(signals, query_that_never_returns) {
  zorva_run run(batch("get_cpu_usage\tblock"));
  ASSERT_TRUE(run.wait_for_call("get_cpu_usage cout"));
  ASSERT_TRUE(run.wait_for_local_modes(0));
  kill(run.process.pid, SIGINT);
  expect_death(run, SIGINT, all_steps);
}

TEST_F(signals, clean_up_step_that_never_returns) {
  const std::string stuck = "exit_net_monitor\tblock";
  {
    zorva_run run(batch(stuck));
    ASSERT_TRUE(run.wait_until_running());
    kill(run.process.pid, SIGINT);
    expect_death(run, SIGINT, "cpu_mon_exit exit_net_monitor ");
  }
  zorva_run run(batch(stuck + '\n' + query_waits + "\tcrash"));
  ASSERT_TRUE(run.wait_for_call("get_meminfo cout"));
  ASSERT_TRUE(run.wait_for_local_modes(0));
  run.go();
  expect_death(run, SIGSEGV, "cpu_mon_exit exit_net_monitor ");
}

TEST_F(signals, log_that_never_returns) {
  const temporary_folder folder;
  const std::string path = folder.file("full");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const int fifo = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  while (write(fifo, "", 1) == 1) {
  }
  zorva_run run(batch("", {"-l", path}));
  ASSERT_TRUE(run.wait_until_running());
  kill(run.process.pid, SIGINT);
  ASSERT_EQ(run.end(), strsignal(SIGINT));
  EXPECT_TRUE(run.wait_for_local_modes(ICANON | ECHO));
  close(fifo);
}

TEST_F(signals, second_signal_during_the_clean_up_is_only_logged) {
  zorva_run run(batch("back_client_id\traise=" + std::to_string(SIGSTKFLT)));
  ASSERT_TRUE(run.wait_until_running());
  kill(run.process.pid, SIGINT);
  expect_death(run, SIGINT, all_steps);
  EXPECT_EQ(run.logged(clean_up_message(SIGSTKFLT)), 1u);
}

TEST_F(signals, before_there_is_a_client_object) {
  zorva_run::set_up how = batch("cpu_stat_manager\tblock");
  how.local_modes = ISIG;  // as an earlier program may have left it
  zorva_run run(how);
  ASSERT_TRUE(run.wait_for_call("cpu_stat_manager 127.0.0.1 1234"));
  kill(run.process.pid, SIGINT);
  expect_death(run, SIGINT, "");
}

TEST_F(signals, exception_that_nobody_catches) {
  zorva_run run(batch("peri_stat_manager\tthrow=int"));
  EXPECT_EQ(run.end(), strsignal(SIGABRT));
  EXPECT_EQ(run.logged(clean_up_message(SIGABRT)), 1u);
  EXPECT_EQ(run.clean_up_calls(), "cpu_mon_exit disable_perf_mon back_client_id ");
}

class after_q : public signals {
 protected:
  // In a query that waits for go(), with the terminal put back already.
  static void quit(zorva_run& run) {
    ASSERT_TRUE(run.wait_for_call("get_meminfo cout"));
    ASSERT_TRUE(run.wait_for_local_modes(0));
    run.terminal.type("q");
    ASSERT_TRUE(run.wait_for_local_modes(ICANON | ECHO));
  }
};

TEST_F(after_q, ctrl_c_is_only_logged) {
  zorva_run run(batch(query_waits));
  ASSERT_NO_FATAL_FAILURE(quit(run));
  run.terminal.type("\x03");
  ASSERT_TRUE(run.wait_for_log(clean_up_message(SIGINT)));
  run.go();
  EXPECT_EQ(run.end(), "exit 0");
  EXPECT_EQ(run.clean_up_calls(), "");
}

TEST_F(after_q, fault_ends_it_all_the_same) {
  zorva_run run(batch(query_waits + "\tcrash"));
  ASSERT_NO_FATAL_FAILURE(quit(run));
  run.go();
  expect_death(run, SIGSEGV, "");
}

}  // namespace
