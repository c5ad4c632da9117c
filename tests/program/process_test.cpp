// SPDX-License-Identifier: Apache-2.0
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
  const temporary_folder folder;
  const std::string fifo = folder.file("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& fault : {std::string("/nonexistent/log: No such file or directory"),
                                   fifo + ": nobody reads from it"}) {
    const std::string path = fault.substr(0, fault.find(':'));
    zorva_run run({{"-b", "-p", "99", "-l", path}, "cpu_stat_manager\tthrow=refused"});
    EXPECT_EQ(run.end(), "exit 255");
    EXPECT_TRUE(has(run.output, "zorva_top_init failed\r\n"));
    EXPECT_TRUE(has(records(), "cannot open log file " + fault + "; the log goes to syslog\n"));
    EXPECT_TRUE(has(records(), "the log says why (syslog, tag ZORVA)\n"));
    EXPECT_EQ(times_recorded("cpu_stat_manager 127.0.0.1 99"), 1U);
    EXPECT_TRUE(run.wait_for_local_modes(line_modes));
  }
}

// As with `>FILE`, which has an offset of its own.
TEST(run, log_in_the_file_of_the_output_loses_no_line) {
  const temporary_folder folder;
  const std::string path = folder.file("both");
  const int output = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  zorva_run run({{"-b", "-l", path}, "cpu_stat_manager\tthrow=refused", true, output});
  EXPECT_EQ(run.end(), "exit 255");
  close(output);
  EXPECT_TRUE(
      has(read_file(path), "\"refused\" when constructor parse manager\nzorva_top_init failed\n"));
  EXPECT_TRUE(has(records(), "the log says why (" + path + ")\n"));
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
                    "\n~net_stat_manager\n~vio_info_manager\n~peri_stat_manager\n"
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
  const std::string query_crashes = waiting_query + std::string("\tcrash");
  struct {
    std::string script;
    const char* wait_for;
    const char* keys;
    int signo;
    const char* steps;
  } const rows[] = {
      {query_crashes, waiting, "", SIGSEGV, all_steps},
      {waiting_query + std::string("\traise=6"), waiting, "", SIGABRT, all_steps},
      // The reset behind the key H is a step of the clean-up too, so that it faults there again.
      {"cpu_mon_exit\tcrash", reported, "H", SIGSEGV, "cpu_mon_exit cpu_mon_exit "},
      {"get_cpu_usage\tblock", "get_cpu_usage cout", "\x03", SIGINT, all_steps},
      {"exit_net_monitor\tblock", reported, "\x03", SIGINT, "cpu_mon_exit exit_net_monitor "},
      {"exit_net_monitor\tblock\n" + query_crashes, waiting, "", SIGSEGV,
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

TEST(signals, what_is_not_on_or_not_there_is_not_called_off) {
  {
    zorva_run run({{"-b", "-n", "0"}, "back_client_id\traise=" + std::to_string(SIGSTKFLT)});
    ASSERT_TRUE(run.wait_until_running());
    run.terminal.type("\x03");
    expect_death(run, SIGINT, "cpu_mon_exit back_client_id ");
    // A second signal during the clean-up is only logged.
    EXPECT_EQ(logged(clean_up_message(SIGSTKFLT)), 1U);
  }
  {
    // The modes as an earlier program may have left them.
    zorva_run run({batch, "cpu_stat_manager\tblock", true, -1, ISIG});
    ASSERT_TRUE(run.wait_until_running("cpu_stat_manager 127.0.0.1 1234"));
    kill(run.pid, SIGINT);
    expect_death(run, SIGINT, "");
  }
  zorva_run run({batch, "peri_stat_manager\tthrow=int"});  // which nobody catches
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

TEST(signals, log_that_takes_no_more) {
  const temporary_folder folder;
  const std::string path = folder.file("full");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const int fifo = open(path.c_str(), O_RDWR | O_NONBLOCK);
  const auto fill = [&] {
    while (write(fifo, "", 1) == 1) {
    }
  };
  fill();
  zorva_run run({{"-b", "-P", "-d", "10", "-l", path}, "get_meminfo\tstatus=-5"});
  ASSERT_TRUE(run.wait_until_running());
  ASSERT_TRUE(run.wait_for_call(reported, 3)) << "reports go on";
  std::string log;
  EXPECT_TRUE(run.wait_until([&] {
    char bytes[4096];
    const ssize_t got = read(fifo, bytes, sizeof bytes);
    log.append(bytes, got > 0 ? static_cast<size_t>(got) : 0);
    return has(log, "W ZORVA: log lines lost here: ");
  }));
  fill();
  kill(run.pid, SIGINT);
  EXPECT_EQ(run.end(), strsignal(SIGINT));
  EXPECT_EQ(clean_up_calls(), all_steps);
  EXPECT_TRUE(run.wait_for_local_modes(line_modes));
  close(fifo);
}

// A server that answers nobody, and keys that each ask it: `q` is not the last to be heard.
TEST(run, q_passes_keys_that_wait_for_a_server) {
  zorva_run run({batch, std::string("cpu_mon_exit\t") + until_go});
  ASSERT_TRUE(run.wait_until_running());
  run.terminal.type("H");
  ASSERT_TRUE(run.wait_for_call("cpu_mon_exit"));
  run.terminal.type("PHPpHPq");
  usleep(400000);  // long enough to be taken for a server that does not answer
  run.go();
  EXPECT_EQ(run.end(), "exit 0");
  EXPECT_EQ(clean_up_calls(), "cpu_mon_exit ");
}

// Nobody reads the reports: they stand still, and keys are heard all the same.
TEST(run, q_ends_reports_that_nobody_reads) {
  zorva_run run({{"-b", "-d", "1"}, "get_process_all\ttext=" + std::string(5000, 'x') + "\\n"});
  ASSERT_TRUE(run.wait_for_local_modes(0));
  size_t made = 0;
  const auto stand_still = [&] {
    usleep(100000);
    const size_t before = std::exchange(made, times_recorded("get_meminfo cout"));
    return made > 1 && made == before;
  };
  ASSERT_TRUE(wait_until(stand_still));
  run.terminal.type("q");
  EXPECT_EQ(run.end(false), "exit 0");
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
