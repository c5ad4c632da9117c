// Whole runs of the program, ended by themselves, by a key or by a signal.
#include <sys/socket.h>
#include <sys/stat.h>

#include <sstream>

#include "zorva_run.h"

namespace {

using fake_mon_client::records;
using fake_mon_client::times_recorded;

constexpr tcflag_t line_modes = ICANON | ECHO;
constexpr char all_steps[] = "cpu_mon_exit exit_net_monitor disable_perf_mon back_client_id ";
constexpr char waiting_query[] = "get_meminfo\tuntil=go";
constexpr char waiting[] = "get_meminfo cout";
constexpr char reported[] = "get_process_all 1 cout";

const lines batch = {"-b", "-P", "-d", "10"};

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

std::string clean_up_message(int signo) {
  return "zorva clean up with sig:" + std::to_string(signo);
}

size_t logged(const std::string& message) {
  return times_recorded("W " + message);
}

// The clean-up's calls, a blank after each.
std::string clean_up_calls() {
  std::string found;
  std::istringstream all(records());
  for (std::string line; std::getline(all, line);) {
    found += has(all_steps, line + ' ') ? line + ' ' : "";
  }
  return found;
}

// It dies by the signal, after it has logged it and put the terminal back.
void expect_death(zorva_run& run, int signo, const std::string& steps) {
  EXPECT_EQ(run.end(), strsignal(signo));
  EXPECT_GE(logged(clean_up_message(signo)), 1U);
  EXPECT_EQ(clean_up_calls(), steps);
  EXPECT_TRUE(run.wait_for_local_modes(line_modes));
}

TEST(run, failing_start) {
  zorva_run run({{"-b", "-p", "99", "-l", "/nonexistent/log"}, "cpu_stat_manager\tthrow=refused"});
  EXPECT_EQ(run.end(), "exit 255");
  EXPECT_TRUE(has(run.output, "zorva_top_init failed\r\n"));
  EXPECT_TRUE(has(records(), "cannot open log file /nonexistent/log: No such file"));
  EXPECT_EQ(times_recorded("cpu_stat_manager 127.0.0.1 99"), 1U);
  EXPECT_TRUE(run.wait_for_local_modes(line_modes));
}

TEST(run, q_ends_it_in_order) {
  for (const char* mode : {"-b", "-t"}) {
    zorva_run run({{mode, "-P", "-d", "10"}, "get_process_all\ttext=the process list\\n"});
    const tcflag_t found = ISIG | ICANON | ECHO;
    ASSERT_TRUE(run.wait_until([&] { return has(run.output, "the process list\r\n"); })) << mode;
    ASSERT_TRUE(run.wait_until_running());
    // As a program on the same terminal may make it: no key yet is not the end of input.
    fcntl(run.terminal.slave, F_SETFL, O_RDWR | O_NONBLOCK);
    run.terminal.type("H");
    ASSERT_TRUE(run.wait_for_call("get_process_all 65281 cout"));
    run.terminal.type("q");
    EXPECT_EQ(run.end(), "exit 0");
    EXPECT_EQ(run.terminal.attributes().c_lflag, found) << "the program found it so";
    // That of the key H. An orderly end calls nothing off.
    EXPECT_EQ(clean_up_calls(), "cpu_mon_exit ");
    EXPECT_TRUE(has(records(),
                    "cout\n~net_stat_manager\n~vio_info_manager\n~peri_stat_manager\n"
                    "~bpu_ratio_manager\n~cpu_stat_manager\n"));
  }
}

TEST(run, reports_go_on_after_the_end_of_input) {
  zorva_run run({batch, "", false});
  ASSERT_TRUE(run.wait_for_call("W STDIN has been closed!!"));
  ASSERT_TRUE(run.wait_for_call(reported, 20));
  EXPECT_EQ(logged("STDIN has been closed!!"), 1U);
  EXPECT_TRUE(has(run.output, "\nTime: "));
}

TEST(signals, sent_from_outside) {
  for (const int signo : {SIGILL, SIGABRT, SIGBUS, SIGSEGV, SIGFPE, SIGSTKFLT, SIGPIPE, SIGINT}) {
    SCOPED_TRACE(strsignal(signo));
    zorva_run run({batch});
    ASSERT_TRUE(run.wait_until_running());
    kill(run.pid, signo);
    expect_death(run, signo, all_steps);
    EXPECT_EQ(logged(clean_up_message(signo)), 1U);
  }
}

TEST(signals, faults_and_hanging_calls) {
  struct {
    std::string script;
    const char* wait_for;
    const char* keys;
    int signo;
    const char* steps;
  } const rows[] = {
      {waiting_query + std::string("\tcrash"), waiting, "", SIGSEGV, all_steps},
      {waiting_query + std::string("\traise=6"), waiting, "", SIGABRT, all_steps},
      // The reset behind the key H is a step of the clean-up too, so that it faults there again.
      {"cpu_mon_exit\tcrash", reported, "H", SIGSEGV, "cpu_mon_exit cpu_mon_exit "},
      {"get_cpu_usage\tblock", "get_cpu_usage cout", "\x03", SIGINT, all_steps},
      {"exit_net_monitor\tblock", reported, "\x03", SIGINT, "cpu_mon_exit exit_net_monitor "},
      {"exit_net_monitor\tblock\nget_meminfo\tuntil=go\tcrash", waiting, "", SIGSEGV,
       "cpu_mon_exit exit_net_monitor "},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.script);
    zorva_run run({batch, row.script});
    ASSERT_TRUE(run.wait_until_running(row.wait_for));
    run.terminal.type(row.keys);
    run.go();
    expect_death(run, row.signo, row.steps);
  }
}

TEST(signals, what_is_not_on_is_not_called_off) {
  zorva_run run({{"-b", "-n", "0"}, "back_client_id\traise=" + std::to_string(SIGSTKFLT)});
  ASSERT_TRUE(run.wait_until_running());
  run.terminal.type("\x03");
  expect_death(run, SIGINT, "cpu_mon_exit back_client_id ");
  // A second signal during the clean-up is only logged.
  EXPECT_EQ(logged(clean_up_message(SIGSTKFLT)), 1U);
}

TEST(signals, before_there_is_a_client_object) {
  // The modes as an earlier program may have left them.
  zorva_run run({batch, "cpu_stat_manager\tblock", true, -1, ISIG});
  ASSERT_TRUE(run.wait_until_running("cpu_stat_manager 127.0.0.1 1234"));
  kill(run.pid, SIGINT);
  expect_death(run, SIGINT, "");
}

TEST(signals, exception_that_nobody_catches) {
  zorva_run run({batch, "peri_stat_manager\tthrow=int"});
  expect_death(run, SIGABRT, "cpu_mon_exit disable_perf_mon back_client_id ");
}

TEST(signals, reader_of_the_reports_goes_away) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  zorva_run run({batch, "", true, ends[1]});
  ASSERT_TRUE(run.wait_until_running());
  shutdown(ends[0], SHUT_RDWR);
  expect_death(run, SIGPIPE, all_steps);
  close(ends[0]);
  close(ends[1]);
}

TEST(signals, log_that_never_returns) {
  const temporary_folder folder;
  const std::string path = folder.file("full");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const int fifo = open(path.c_str(), O_RDWR | O_NONBLOCK);
  while (write(fifo, "", 1) == 1) {
  }
  zorva_run run({{"-b", "-l", path}});
  ASSERT_TRUE(run.wait_until_running());
  kill(run.pid, SIGINT);
  EXPECT_EQ(run.end(), strsignal(SIGINT));
  EXPECT_TRUE(run.wait_for_local_modes(line_modes));
  close(fifo);
}

// In a query that waits, with the terminal put back already.
TEST(signals, after_q) {
  for (const bool fault : {false, true}) {
    zorva_run run({batch, waiting_query + std::string(fault ? "\tcrash" : "")});
    ASSERT_TRUE(run.wait_until_running(waiting));
    run.terminal.type("q");
    ASSERT_TRUE(run.wait_for_local_modes(line_modes));
    run.terminal.type("\x03");
    ASSERT_TRUE(run.wait_for_call("W " + clean_up_message(SIGINT)));
    run.go();
    EXPECT_EQ(run.end(), fault ? strsignal(SIGSEGV) : "exit 0");
    EXPECT_EQ(clean_up_calls(), "");
  }
}

}  // namespace
