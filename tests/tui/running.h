// SPDX-License-Identifier: Apache-2.0
// A real program in a terminal of its own, killed with the object.
#ifndef RUNNING_H
#define RUNNING_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "screen.h"
#include "test_tools.h"

class running {
 public:
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
  running(const running&) = delete;
  running& operator=(const running&) = delete;

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

 private:
  int master = -1;
};

// A monitor server on a port of its own.
struct running_monitor : running {
  running_monitor() : running({MONITOR_SERVER, "--port", "0"}) {
    const std::string before = " port ";
    EXPECT_TRUE(wait_for([&] { return output.find('\n') != std::string::npos; }));
    port = std::to_string(std::stoi(output.substr(output.rfind(before) + before.size())));
  }
  std::string port;
};

#endif
