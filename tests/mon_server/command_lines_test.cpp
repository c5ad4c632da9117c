// SPDX-License-Identifier: Apache-2.0
// Command lines of processes that hang, that go and whose id comes back, and that change.
#include "command_lines.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>

#include "test_tools.h"

namespace {

using samplers::process_identities;
using samplers::process_identity;

// What the processes' lines are; those of `dead` hang until the test ends. The reads may outlive
// it.
struct machine {
  std::string read(int32_t pid) {
    if (dead.count(pid) != 0) {
      wait_until([this] { return open.load(); });
    }
    const std::lock_guard<std::mutex> guard(lock);
    ++reads;
    return lines[pid];
  }

  std::map<int32_t, bool> dead;  // written before the first read
  std::atomic<bool> open{false};
  std::mutex lock;  // guards what follows
  std::map<int32_t, std::string> lines;
  int reads = 0;
};

struct command_lines_test : testing::Test {
  ~command_lines_test() override { processes->open = true; }

  void set(int32_t pid, const std::string& line) const {
    const std::lock_guard<std::mutex> guard(processes->lock);
    processes->lines[pid] = line;
  }

  // Asks once and notes what was told as a client does.
  size_t ask(const process_identities& listed) {
    const auto told_now = commands.tell(listed, told);
    for (const process_command& one : told_now) {
      shown[one.pid] = one.text;
    }
    return told_now.size();
  }
  bool shows(const process_identities& listed, const std::map<int32_t, std::string>& wanted) {
    return wait_until([&] { return ask(listed), shown == wanted; });
  }

  const std::shared_ptr<machine> processes = std::make_shared<machine>();
  command_lines commands{[kept = processes](int32_t pid) { return kept->read(pid); }};
  command_lines::told_lines told;
  std::map<int32_t, std::string> shown;
};

process_identity process(int32_t pid, uint64_t start_ticks, char name = 'a') {
  return {pid, {name}, start_ticks, 0};
}

TEST_F(command_lines_test, one_that_hangs_holds_up_no_other_and_comes_when_it_can) {
  processes->dead = {{1, true}, {3, true}};
  set(1, "one");
  set(2, "two");
  set(4, "four");
  const process_identities listed = {process(1, 9), process(2, 9), process(3, 9), process(4, 9)};
  EXPECT_TRUE(shows(listed, {{2, "two"}, {4, "four"}}));
  // Nothing is told twice, and each was read once.
  EXPECT_EQ(ask(listed), 0U);
  EXPECT_EQ(processes->reads, 2);
  processes->open = true;
  EXPECT_TRUE(shows(listed, {{1, "one"}, {2, "two"}, {3, ""}, {4, "four"}}));
}

// However many hang and however many come: it never waits, and what is kept and told has bounds.
TEST_F(command_lines_test, endless_dead_processes_are_bounded) {
  for (int32_t pid = 1; pid <= 3000; ++pid) {
    processes->dead[pid] = true;
  }
  std::vector<command_lines::told_lines> sessions(64);
  for (int32_t pid = 1; pid <= 3000; ++pid) {
    EXPECT_TRUE(commands.tell({process(pid, 9)}, sessions[static_cast<size_t>(pid % 64)]).empty());
  }
}

TEST_F(command_lines_test, the_next_owner_of_an_id_never_shows_the_line_before) {
  set(5, "old");
  EXPECT_TRUE(shows({process(5, 100)}, {{5, "old"}}));
  processes->dead = {{5, true}};
  EXPECT_EQ(ask({process(5, 200)}), 1U);
  EXPECT_EQ(shown[5], "") << "not known yet";
  EXPECT_EQ(ask({process(5, 200)}), 0U);
  set(5, "new");
  processes->open = true;
  EXPECT_TRUE(shows({process(5, 200)}, {{5, "new"}}));
}

TEST_F(command_lines_test, another_name_has_the_line_read_again_and_each_session_told) {
  set(5, "sh run");
  EXPECT_TRUE(shows({process(5, 100)}, {{5, "sh run"}}));
  set(5, "camera --port 80");
  EXPECT_EQ(ask({process(5, 100)}), 0U) << "read a moment ago";
  EXPECT_TRUE(shows({process(5, 100, 'b')}, {{5, "camera --port 80"}}));
  // One that went from the list is told again when it is back; another session has its own count.
  EXPECT_EQ(ask({}), 0U);
  EXPECT_EQ(ask({process(5, 100, 'b')}), 1U);
  command_lines::told_lines other;
  EXPECT_EQ(commands.tell({process(5, 100, 'b')}, other).size(), 1U);
}

}  // namespace
