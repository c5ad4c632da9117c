// SPDX-License-Identifier: Apache-2.0
// Who keeps a place and a sample when there are not enough for all.
#include "held_samples.h"

#include <gtest/gtest.h>

#include "handlers.h"
#include "places.h"
#include "test_tools.h"

namespace {

constexpr int64_t second_us = 1000000;

TEST(places, who_makes_room) {
  const place_holder root{"127.0.0.1", 0};
  const place_holder user{"127.0.0.1", 1000};
  const place_holder user_elsewhere{"127.0.0.9", 1000};
  const place_holder near{"10.0.0.1", -1};
  const place_holder far{"10.0.0.2", -1};
  const struct {
    const char* name;
    std::vector<taken_place> places;  // the time is 100 s
    place_holder newcomer;
    uint32_t expected;
  } rows[] = {
      {"all ask", {{1, root, 99 * second_us}, {2, root, 98 * second_us}}, root, 0},
      {"longest idle", {{1, root, 90 * second_us}, {2, user, 80 * second_us}}, root, 2},
      {"just not idle", {{1, root, 91 * second_us}}, root, 0},
      {"share of users", {{1, user, 99 * second_us}, {2, user, 98 * second_us}}, root, 2},
      {"equal shares", {{1, user, 99 * second_us}, {2, root, 98 * second_us}}, root, 0},
      {"share of addresses", {{1, near, 99 * second_us}, {2, near, 98 * second_us}}, far, 2},
      {"one user of many addresses",
       {{1, user, 99 * second_us}, {2, user_elsewhere, 98 * second_us}},
       root,
       2},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(who_makes_room(row.places, row.newcomer, 100 * second_us), row.expected) << row.name;
  }
}

using interval = rate_interval<samplers::process_sample>;

void sample_into(interval& over, int64_t time_us, size_t entries) {
  const auto sample = std::make_shared<samplers::process_sample>();
  sample->time_us = time_us;
  sample->entries.resize(entries);
  over.advance(sample);
}

// Ten sessions with two samples each of their own, as when each asks at another time: what is
// beyond the budget goes, the oldest first, and the two newest stay whatever they take.
TEST(held_samples, oldest_go_first) {
  std::vector<session_state> states(10);
  std::vector<session_state*> sessions;
  int64_t time_us = 0;
  for (session_state& state : states) {
    sessions.push_back(&state);
    sample_into(state.threads, ++time_us, 1000);
    sample_into(state.threads, ++time_us, 1000);
  }
  const size_t size = 1000 * sizeof(samplers::process_entry);
  held_samples held;
  held.bound(sessions, 20 * 2 * size);
  EXPECT_TRUE(states[0].threads.before);
  held.bound(sessions, 5 * size);  // four, with their heads
  for (size_t i = 0; i < states.size(); ++i) {
    EXPECT_EQ(states[i].threads.now != nullptr, i >= 7) << i;
    EXPECT_EQ(states[i].threads.before != nullptr, i >= 7) << i;
  }
  held.bound(sessions, 0);
  EXPECT_TRUE(states[9].threads.before && !states[8].threads.now);
}

// It has rates since the newest sample that there was, and not those of a first answer.
TEST(held_samples, a_session_without_its_samples_goes_on) {
  snapshot_source<samplers::process_sample> source;
  int taken = 0;
  const auto take = [&taken](samplers::process_sample& sample, const auto*) {
    sample.time_us = ++taken;
    return 0;
  };
  interval lost;
  interval first;
  source.sample_into(lost, take);
  lost.let_go();
  EXPECT_TRUE(wait_until([&] {  // samples are young for a tenth of a second
    first.reset();
    source.sample_into(first, take);
    return taken == 2;
  }));
  EXPECT_FALSE(first.before);
  EXPECT_TRUE(wait_until([&] {
    lost.let_go();
    source.sample_into(lost, take);
    return taken == 3;
  }));
  ASSERT_TRUE(lost.before);
  EXPECT_EQ(lost.before->time_us, 2);
}

TEST(held_samples, idle_sessions_let_go) {
  session_state state;
  sample_into(state.processes, 1, 1);
  sample_into(state.processes, 2, 1);
  let_go_when_idle(state, 9 * second_us);
  EXPECT_TRUE(state.processes.before);
  let_go_when_idle(state, 10 * second_us);
  EXPECT_TRUE(!state.processes.before && state.processes.now);
  let_go_when_idle(state, 180 * second_us);
  EXPECT_FALSE(state.processes.now);
}

}  // namespace
