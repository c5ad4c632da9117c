// Two programs on one server, all of them real: the counters go to the one that asked last.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "screen.h"
#include "test_tools.h"

namespace {

constexpr int rows = 40;
constexpr int columns = 180;

// A program in a terminal of its own, killed with the object.
class running {
 public:
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
      execv(argv[0], argv.data());
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

  bool wait_for(const std::function<bool()>& done) {
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
  bool wait_for_counters(bool there) {
    return wait_for([&] {
      return (shown.text(23, 118, 8) == "Counters") == there &&
             shown.bar_width(23) == (there ? 117 : columns - 1);
    });
  }
  void type(const char* key) const { ASSERT_EQ(write(master, key, 1), 1); }

  std::string output;
  screen shown{rows, columns};

 private:
  int master = -1;
  pid_t pid = -1;
};

TEST(two_clients, counters_go_to_the_one_that_asked_last) {
  running server({MONITOR_SERVER, "--port", "0"});
  const std::string before = " port ";
  ASSERT_TRUE(server.wait_for([&] { return server.output.find('\n') != std::string::npos; }));
  const size_t at = server.output.rfind(before) + before.size();
  const std::string port = std::to_string(std::stoi(server.output.substr(at)));

  running first({ZORVA_PROGRAM, "-p", port, "-d", "100", "-P"});
  ASSERT_TRUE(first.wait_for([&] { return !first.output.empty(); }));
  if (first.output.find("zorva_top_init failed") != std::string::npos) {
    GTEST_SKIP() << "no counters on this machine";
  }
  EXPECT_TRUE(first.wait_for_counters(true));
  running second({ZORVA_PROGRAM, "-p", port, "-d", "100"});
  EXPECT_TRUE(second.wait_for_counters(false));
  second.type("p");
  EXPECT_TRUE(second.wait_for_counters(true));
  EXPECT_TRUE(first.wait_for_counters(false));
  first.type("p");
  EXPECT_TRUE(first.wait_for_counters(true));
  EXPECT_TRUE(second.wait_for_counters(false));
}

}  // namespace
