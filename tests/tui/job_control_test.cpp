// SPDX-License-Identifier: Apache-2.0
// Stops and ends under real shells: whatever comes when, the shell has its terminal afterwards.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "screen.h"
#include "test_tools.h"

namespace {

constexpr tcflag_t line_modes = ICANON | ECHO;

// A real program in a terminal of its own, killed with the object.
struct running {
  static constexpr int rows = 40;
  static constexpr int columns = 180;

  explicit running(std::vector<std::string> words) {
    const winsize size{rows, columns, 0, 0};
    pid = forkpty(&master, nullptr, nullptr, &size);
    if (pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      setenv("TERM", "xterm-256color", 1);
      std::vector<char*> argv;
      for (std::string& word : words) {
        argv.push_back(word.data());
      }
      argv.push_back(nullptr);
      execvp(argv[0], argv.data());
      _exit(127);
    }
    fcntl(master, F_SETFL, O_NONBLOCK);
  }
  ~running() {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    close(master);
  }

  template <class condition>
  bool wait_for(const condition& done) {
    return wait_until([&] {
      char bytes[4096];
      ssize_t got = 0;
      while ((got = read(master, bytes, sizeof bytes)) > 0) {
        output.append(bytes, static_cast<size_t>(got));
      }
      shown.show(output);
      return done();
    });
  }
  void type(const std::string& keys) const {
    EXPECT_EQ(write(master, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }
  termios modes() const {
    termios now{};
    tcgetattr(master, &now);
    return now;
  }
  pid_t foreground() const { return tcgetpgrp(master); }

  std::string output;
  screen shown{rows, columns};
  pid_t pid = -1;
  int master = -1;
};

// A monitor server on a port of its own.
struct running_monitor : running {
  running_monitor() : running({MONITOR_SERVER, "--port", "0"}) {
    EXPECT_TRUE(wait_for([&] { return output.find('\n') != std::string::npos; }));
    port = std::to_string(std::stoi(output.substr(output.rfind(' '))));
  }
  std::string port;
};

class job : public running {
 public:
  job(const std::string& shell, std::string command_line, bool full_screen)
      : running(shell == "bash" ? std::vector<std::string>{shell, "--norc", "--noprofile", "-i"}
                                : std::vector<std::string>{shell, "-i"}),
        command(std::move(command_line)),
        full(full_screen) {}

  // Starts it, stops it, and ends it, each in some way and after some time.
  void take_turn(std::mt19937& random) {
    const auto below = [&random](int end) {
      return std::uniform_int_distribution<int>(0, end - 1)(random);
    };
    bring_up(command);
    usleep(static_cast<useconds_t>(below(300)) * 1000);
    const pid_t program = child();
    const bool no_time = below(4) == 0;
    if (no_time) {
      kill(program, SIGSTOP);
    } else {
      type("\x1a");
    }
    ASSERT_TRUE(wait_for([&] { return state(program) == 'T'; }));
    if (!no_time) {
      expect_shell_whole("stopped");
    }
    ASSERT_TRUE(wait_for([&] { return foreground() == pid; })) << output;
    const int end = below(6);
    SCOPED_TRACE("stopped " + std::string(no_time ? "by SIGSTOP" : "by Ctrl-Z") + ", end " +
                 std::to_string(end));
    if (end < 2 && !no_time) {
      kill(program, end == 0 ? SIGINT : SIGTERM);
      kill(program, SIGCONT);
    } else {
      if (end == 2) {
        kill(program, SIGCONT);  // in the background
      }
      bring_up("fg");
      usleep(static_cast<useconds_t>(below(250)) * 1000);
      type(end == 3 ? "\x03" : "q");
    }
    ASSERT_TRUE(wait_for([&] { return child() != program || state(program) == 'Z'; }));
    expect_shell_whole("ended");
  }

 private:
  void bring_up(const std::string& how) {
    const size_t before = output.size();
    type(how + '\n');
    int looks = 0;
    ASSERT_TRUE(wait_for([&] {
      // A job that was just continued in the background may stop again after the shell has brought
      // it back, as it would not with one that nobody continued.
      if (how == "fg" && ++looks % 500 == 0 && state(child()) == 'T') {
        type("fg\n");
      }
      return full ? shown.full_screen && shown.bar_width(23) > 0
                  : output.find("Time: ", before) != std::string::npos;
    })) << how;
    // Reports are also written from the background.
    ASSERT_TRUE(wait_for([&] {
      return foreground() == child() && (modes().c_lflag & line_modes) == 0;
    })) << how
        << ", " << state(child()) << ": " << output.substr(before);
  }

  // It runs commands in its own modes, on its own screen.
  void expect_shell_whole(const char* when) {
    const std::string answer = "answer-" + std::to_string(++answers);
    type("echo answer''-" + std::to_string(answers) + "; cat\n");
    EXPECT_TRUE(wait_for([&] { return output.find(answer) != std::string::npos; })) << when;
    EXPECT_TRUE(wait_for([&] {
      return (modes().c_lflag & line_modes) == line_modes && (modes().c_iflag & ICRNL) != 0;
    })) << when;
    EXPECT_TRUE(wait_for([&] { return !shown.full_screen && shown.cursor_visible; }))
        << when << (shown.full_screen ? ", still the full screen" : ", no cursor");
    type("\x04");
  }

  pid_t child() const {
    const std::string id = std::to_string(pid);
    pid_t first = 0;
    std::ifstream("/proc/" + id + "/task/" + id + "/children") >> first;
    return first;
  }
  static char state(pid_t of) {
    std::string stat;
    std::getline(std::ifstream("/proc/" + std::to_string(of) + "/stat"), stat);  // it may end now
    const size_t name_end = stat.rfind(')');
    return name_end == std::string::npos ? 'X' : stat[name_end + 2];
  }

  std::string command;
  bool full;
  int answers = 0;
};

TEST(job_control, shells_get_their_terminal_back) {
  const char* const rounds = getenv("ZORVA_ROUNDS");
  const int turns = rounds != nullptr ? std::stoi(rounds) : 8;
  const unsigned seed = std::random_device()();
  std::cout << "seed " << seed << std::endl;
  std::mt19937 random(seed);
  const running_monitor server;
  for (const char* shell : {"dash", "bash"}) {
    for (const char* mode : {"", " -b"}) {
      SCOPED_TRACE(std::string(shell) + mode);
      job one(shell, ZORVA_PROGRAM " -d 200 -p " + server.port + mode, *mode == '\0');
      for (int turn = 0; turn < turns && !testing::Test::HasFailure(); ++turn) {
        one.take_turn(random);
      }
    }
  }
}

}  // namespace
