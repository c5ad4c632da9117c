// The command line, and the wait that keys and the end of the program cut short.
#include <getopt.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <sstream>

#include "program_fixture.h"

namespace {

using settings = program;

// The settings that the words lead to, those left out which are as at the start.
std::string parse(const std::string& command_line) {
  manager.~zorva_manage();
  new (&manager) zorva_manage;
  std::vector<std::string> words = {"zorva"};
  std::istringstream text(command_line);
  for (std::string word; std::getline(text, word, '|');) {
    words.push_back(word);
  }
  std::vector<char*> argv;
  for (std::string& word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  optind = 0;  // makes the C library start afresh
  opterr = 0;
  std::string ip = "127.0.0.1";
  int port = 1234;
  std::ostringstream found;
  found << (parse_options(static_cast<int>(words.size()), argv.data(), ip, port) ? "" : "usage ");
  found << (manager.tui_mode ? "" : "no_tui ") << (manager.batch_mode ? "batch " : "");
  found << (manager.thread_mode ? "threads " : "") << (manager.enable_perf ? "perf " : "");
  found << (manager.enable_net ? "" : "no_net ");
  const auto show = [&](const char* name, const auto& value, const auto& at_start) {
    if (value != at_start) {
      found << name << '=' << value << ' ';
    }
  };
  show("ip", ip, "127.0.0.1");
  show("port", port, 1234);
  show("sort", int{manager.sort_mode}, 1);
  show("cycle", manager.cycle_ms, 2000);
  show("o", manager.file_name, "");
  show("l", manager.log_file, "");
  return found.str();
}

TEST_F(settings, command_lines) {
  const std::pair<const char*, const char*> rows[] = {
      {"", ""},
      {"some|words", ""},
      {"-P|-H|-i|::1|-p|99|-o|out|-l|log", "threads perf ip=::1 port=99 o=out l=log "},
      {"-b", "no_tui batch "},
      {"-t", "no_tui "},
      {"-b|-g", "batch "},
      {"-g|-b", "no_tui batch "},
      {"-t|-b", "no_tui batch "},
      {"-b|-t", "no_tui "},
      {"-n|0", "no_net "},
      {"-n|0|-n|5", ""},
      {"-n|x", "no_net "},
      {"-n|4294967296", ""},  // 2^32 is 0 only once it is cut to an int
      {"-m|9", "sort=9 "},
      {"-d| +12ab", "cycle=12 "},
      {"-d|-5", "cycle=-5 "},
      {"-d|99999999999", "cycle=1215752191 "},  // 23 * 2^32 + 1215752191
      {"-p|1|-p|2", "port=2 "},
      {"-h", "usage "},
      {"-H|-x|-P", "usage threads "},
      {"-f|-P|-H", "usage "},
      {"-b|-d", "usage no_tui batch "},
  };
  for (const auto& [command_line, expected] : rows) {
    EXPECT_EQ(parse(command_line), expected) << command_line;
  }
}

TEST_F(settings, wait_takes_its_time_and_leaves_requests_of_no_wait_alone) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(zorva_manage::handle_input(1200), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1200));

  manager.flush_now = true;
  for (const int no_wait : {0, -5, INT_MIN}) {
    EXPECT_EQ(zorva_manage::handle_input(no_wait), 0);
    EXPECT_TRUE(manager.flush_now) << no_wait;
  }
  EXPECT_EQ(zorva_manage::handle_input(INT_MAX), 0);
  EXPECT_FALSE(manager.flush_now);
  manager.to_exit = true;
  EXPECT_EQ(zorva_manage::handle_input(INT_MAX), 1);
}

// Each wait looks for a request first and then for the end of the program, so that with both set
// the one that gets the request returns 0 and the other 1, and neither sleeps.
TEST_F(settings, one_request_ends_one_of_two_waits) {
  manager.to_exit = true;
  for (int round = 0; round < 500; ++round) {
    manager.flush_now = true;
    std::atomic<int> ready{0};
    const auto wait = [&](int& result) {
      for (++ready; ready < 2;) {
      }
      result = zorva_manage::handle_input(INT_MAX);
    };
    int results[2];
    std::thread other(wait, std::ref(results[0]));
    wait(results[1]);
    other.join();
    ASSERT_EQ(results[0] + results[1], 1) << "in round " << round;
  }
}

}  // namespace
