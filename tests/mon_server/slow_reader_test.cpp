// SPDX-License-Identifier: Apache-2.0
// Reads that hang, and those beside them.
#include "slow_reader.h"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>

#include "test_tools.h"

namespace {

using result = std::shared_ptr<const slow_reader::bytes>;

struct slow_reader_test : testing::Test {
  ~slow_reader_test() override { *open = true; }

  // Asks, and runs the event loop until the answer is there.
  result ask(const std::string& key, const slow_reader::job& job) {
    std::optional<result> answer;
    reader.ask({key, key, this}, 0, job, [&](const result& got) { answer = got; });
    EXPECT_TRUE(run_until([&] { return answer.has_value(); })) << key;
    return answer.value_or(nullptr);
  }
  template <class condition>
  bool run_until(const condition& done) {
    return wait_until([&] {
      loop.restart();
      loop.poll();
      return done();
    });
  }

  // Reads may outlive the reader.
  const std::shared_ptr<std::atomic<bool>> open = std::make_shared<std::atomic<bool>>(false);
  const slow_reader::job dead = [gate = open] {
    wait_until([&gate] { return gate->load(); });
    return slow_reader::bytes{1};
  };
  const slow_reader::job good = [this] { return slow_reader::bytes{++reads}; };
  std::atomic<uint8_t> reads{0};
  asio::io_context loop{1};
  slow_reader reader{loop, 3};
};

TEST_F(slow_reader_test, a_hanging_read_is_unknown_and_holds_up_no_other) {
  EXPECT_EQ(ask("dead", dead), nullptr);
  EXPECT_EQ(ask("dead too", dead), nullptr);
  // Asked for again it is unknown at once; it is not read a second time.
  bool answered = false;
  reader.ask({"dead", "dead", this}, 0, good,
             [&](const result& got) { answered = got == nullptr; });
  EXPECT_TRUE(answered);
  EXPECT_EQ(reads, 0);
  // Clients that ask for the same together share a read.
  for (int i = 0; i < 5; ++i) {
    const result got = ask("good", good);
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(*got, slow_reader::bytes{1});
  }
  *open = true;
  EXPECT_TRUE(wait_until([&] { return ask("dead", good) != nullptr; }));
}

// Paths of one dead mount, say.
TEST_F(slow_reader_test, one_lane_takes_one_thread) {
  size_t unknown = 0;
  for (const char* key : {"a", "b", "c", "d", "e"}) {
    reader.ask({key, "dead", this}, 0, dead,
               [&](const result& got) { unknown += got == nullptr ? 1 : 0; });
  }
  EXPECT_NE(ask("good", good), nullptr);
  EXPECT_EQ(unknown, 0U);
  EXPECT_TRUE(run_until([&] { return unknown == 5; }));
  for (const char* key : {"a", "f"}) {
    reader.ask({key, "dead", this}, 0, dead, [&](const result& got) { unknown += got ? 0 : 1; });
  }
  EXPECT_EQ(unknown, 7U) << "at once";
}

TEST_F(slow_reader_test, clients_take_turns) {
  int answered = 0;
  std::string order;  // by one thread at a time, since all are of one lane
  const auto want = [&](char client, int number) {
    const auto read = [&order, client] { return order += client, slow_reader::bytes{}; };
    reader.ask({client + std::to_string(number), "disk", &order + client}, 0, read,
               [&](const result&) { ++answered; });
  };
  for (int i = 0; i < 5; ++i) {
    want('a', i);
  }
  want('b', 0);
  want('c', 0);
  want('b', 1);
  EXPECT_TRUE(run_until([&] { return answered == 8; }));
  EXPECT_EQ(order, "aabcabaa") << "the first had started before the others came";
}

// The keys are paths that clients make up.
TEST_F(slow_reader_test, endless_keys_are_refused) {
  size_t refused = 0;
  for (int i = 0; i < 2000; ++i) {
    reader.ask({"path " + std::to_string(i), "dead", this}, 0, dead,
               [&](const result& got) { refused += got == nullptr ? 1 : 0; });
  }
  EXPECT_EQ(refused, 2000U - 1024U);
}

}  // namespace
