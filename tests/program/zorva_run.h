// SPDX-License-Identifier: Apache-2.0
// A run of the program in a terminal of its own, with the scripted client library.
#ifndef ZORVA_RUN_H
#define ZORVA_RUN_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "fake_mon_client.h"
#include "test_tools.h"

int zorva_main(int argc, char** argv);

using lines = std::vector<std::string>;

// Lets calls return once go() was called, for use in a script.
constexpr char until_go[] = "until=go";

// The arguments for main; puts the program's name before the words.
inline std::vector<char*> arguments(lines& words) {
  words.insert(words.begin(), "zorva");
  std::vector<char*> argv;
  for (std::string& word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  return argv;
}

struct pseudo_terminal {
  explicit pseudo_terminal(unsigned short rows = 24, unsigned short columns = 80) {
    const winsize size{rows, columns, 0, 0};
    EXPECT_EQ(openpty(&master, &slave, nullptr, nullptr, &size), 0);
    fcntl(master, F_SETFL, O_RDWR | O_NONBLOCK);
  }
  ~pseudo_terminal() {
    close(slave);
    close(master);
  }
  pseudo_terminal(const pseudo_terminal&) = delete;
  pseudo_terminal& operator=(const pseudo_terminal&) = delete;
  termios attributes() const {
    termios now{};
    EXPECT_EQ(tcgetattr(master, &now), 0);
    return now;
  }
  void type(const std::string& keys) const {
    EXPECT_EQ(write(master, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }

  int master = -1;
  int slave = -1;
};

// The program is forked as a shell would start it, and killed with the object. The leader of its
// session outlives it: when a session's leader ends, the kernel resets the terminal's attributes,
// and what the program left them at could not be seen.
struct zorva_run {
  struct set_up {
    lines options;
    std::string script{};
    bool input_from_terminal = true;              // else /dev/null
    int output = -1;                              // -1: the terminal
    tcflag_t local_modes = ISIG | ICANON | ECHO;  // of the terminal, at the start
    unsigned short rows = 24;
    unsigned short columns = 80;
  };

  explicit zorva_run(const set_up& how) : terminal(how.rows, how.columns) {
    fake_mon_client::reset();
    fake_mon_client::script(how.script);
    termios modes = terminal.attributes();
    modes.c_lflag = how.local_modes;
    tcsetattr(terminal.master, TCSANOW, &modes);
    int status_ends[2];
    EXPECT_EQ(pipe(status_ends), 0);
    status_fd = status_ends[0];
    leader = fork();
    if (leader == 0) {
      lead_session(how, status_ends[1]);
    }
    close(status_ends[1]);
    EXPECT_EQ(read(status_fd, &pid, sizeof pid), ssize_t{sizeof pid});
    fcntl(status_fd, F_SETFL, O_NONBLOCK);
  }

  // Fails the test when a sanitizer had something to report.
  ~zorva_run() {
    kill(leader, SIGKILL);
    waitpid(leader, nullptr, 0);
    close(status_fd);
    const std::string records = fake_mon_client::records();
    EXPECT_EQ(records.find("Sanitizer"), std::string::npos) << records;
    EXPECT_EQ(records.find("runtime error"), std::string::npos) << records;
  }

  // Each false at the deadline; they collect the program's output meanwhile.
  template <class condition>
  bool wait_until(const condition& done) {
    return ::wait_until([&] {
      collect_output();
      return done();
    });
  }
  bool wait_for_call(const std::string& record, size_t times = 1) {
    return wait_until([&] { return fake_mon_client::times_recorded(record) >= times; });
  }
  bool wait_for_local_modes(tcflag_t modes) {  // exactly these of ICANON and ECHO
    return wait_until([&] { return (terminal.attributes().c_lflag & (ICANON | ECHO)) == modes; });
  }
  // Until the keyboard loop has the terminal, and the call was made.
  bool wait_until_running(const std::string& record = "get_process_all 1 cout") {
    return wait_for_local_modes(0) && wait_for_call(record);
  }

  static void go() { fake_mon_client::record("go"); }

  // The signal that it died by, or "exit " and its status. With `reading` off, nothing is read from
  // the terminal before.
  std::string end(bool reading = true) {
    int status = -1;
    EXPECT_TRUE(::wait_until([&] {
      if (reading) {
        collect_output();
      }
#ifdef __SANITIZE_THREAD__
      // ThreadSanitizer puts a signal off until the thread that took it calls a function that it
      // knows. The main thread, waiting for a key, calls one when this key is logged.
      terminal.type("c");
#endif
      return read(status_fd, &status, sizeof status) == sizeof status;
    })) << fake_mon_client::records();
    collect_output();
    return WIFSIGNALED(status) ? strsignal(WTERMSIG(status))
                               : "exit " + std::to_string(WEXITSTATUS(status));
  }

  pseudo_terminal terminal;
  pid_t pid = -1;
  std::string output;  // what came to the terminal so far

 private:
  [[noreturn]] void lead_session(const set_up& how, int status_end) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    login_tty(terminal.slave);
    pid = fork();
    if (pid == 0) {
      run_program(how);
    }
    // A key's signal goes to the program's parent, too.
    signal(SIGINT, SIG_IGN);
    int status = -1;
    [[maybe_unused]] ssize_t written = write(status_end, &pid, sizeof pid);
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {  // a resize may interrupt it
    }
    written = write(status_end, &status, sizeof status);
    while (true) {
      pause();
    }
  }

  [[noreturn]] static void run_program(set_up how) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    if (!how.input_from_terminal) {
      dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    }
    if (how.output >= 0) {
      dup2(how.output, STDOUT_FILENO);
    }
    dup2(fake_mon_client::record_file, STDERR_FILENO);
    how.options.insert(how.options.begin(), {"-l", fake_mon_client::record_path});
    std::vector<char*> argv = arguments(how.options);
    exit(zorva_main(static_cast<int>(how.options.size()), argv.data()));
  }

  void collect_output() {
    char bytes[4096];
    ssize_t got = 0;
    while ((got = read(terminal.master, bytes, sizeof bytes)) > 0) {
      output.append(bytes, static_cast<size_t>(got));
    }
  }

  int status_fd = -1;  // gives the wait status
  pid_t leader = -1;   // the program dies with it
};

#endif
