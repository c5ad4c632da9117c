// Reads that hang, and those beside them.
#include "slow_reader.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>

namespace {

using result = std::shared_ptr<const slow_reader::bytes>;

// A read that hangs until it is let go.
class hanging_read {
 public:
  slow_reader::job job() {
    return [this] {
      std::unique_lock<std::mutex> guard(lock);
      changed.wait(guard, [this] { return open; });
      return slow_reader::bytes{1};
    };
  }
  void let_go() {
    const std::lock_guard<std::mutex> guard(lock);
    open = true;
    changed.notify_all();
  }

 private:
  std::mutex lock;
  std::condition_variable changed;
  bool open = false;
};

struct slow_reader_test : testing::Test {
  // Asks, and runs the event loop until the answer is there.
  result ask(const std::string& key, const slow_reader::job& job) {
    std::optional<result> answer;
    reader.ask(key, job, [&](const result& got) { answer = got; });
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    do {
      loop.restart();
      loop.run_for(std::chrono::milliseconds(10));
    } while (!answer && std::chrono::steady_clock::now() < limit);
    EXPECT_TRUE(answer) << "no answer for " << key;
    return answer.value_or(nullptr);
  }

  asio::io_context loop{1};
  hanging_read dead;
  hanging_read dead_too;
  slow_reader reader{loop, 3};
};

TEST_F(slow_reader_test, a_hanging_read_is_unknown_and_holds_up_no_other) {
  EXPECT_EQ(ask("dead", dead.job()), nullptr);
  EXPECT_EQ(ask("dead too", dead_too.job()), nullptr);
  // Asked for again it is unknown at once; it is not read a second time.
  bool second_read = false;
  bool answered = false;
  reader.ask(
      "dead",
      [&] {
        second_read = true;
        return slow_reader::bytes();
      },
      [&](const result& got) {
        answered = true;
        EXPECT_EQ(got, nullptr);
      });
  EXPECT_TRUE(answered);
  EXPECT_FALSE(second_read);
  const result good = ask("good", [] { return slow_reader::bytes{42}; });
  ASSERT_NE(good, nullptr);
  EXPECT_EQ(*good, slow_reader::bytes{42});

  dead.let_go();
  dead_too.let_go();
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  result back;
  while (back == nullptr && std::chrono::steady_clock::now() < limit) {
    back = ask("dead", [] { return slow_reader::bytes{2}; });
  }
  EXPECT_NE(back, nullptr) << "it answers again and is still unknown";
}

TEST_F(slow_reader_test, clients_that_ask_together_share_a_read) {
  int reads = 0;
  const auto count = [&] {
    ++reads;
    return slow_reader::bytes();
  };
  for (int i = 0; i < 5; ++i) {
    EXPECT_NE(ask("one", count), nullptr);
  }
  EXPECT_EQ(reads, 1);
}

// The keys are paths that clients make up.
TEST_F(slow_reader_test, endless_keys_are_refused) {
  size_t refused = 0;
  for (int i = 0; i < 1000; ++i) {
    reader.ask("path " + std::to_string(i), dead.job(),
               [&](const result& got) { refused += got == nullptr ? 1 : 0; });
  }
  EXPECT_EQ(refused, 1000u - 64u);
  dead.let_go();
}

}  // namespace
