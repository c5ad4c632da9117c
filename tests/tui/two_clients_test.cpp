// SPDX-License-Identifier: Apache-2.0
// Two programs on one server, all of them real: the counters go to the one that asked last.
#include <gtest/gtest.h>

#include "running.h"

namespace {

bool wait_for_counters(running& program, bool there) {
  return program.wait_for([&] {
    return (program.shown.text(23, 118, 8) == "Counters") == there &&
           program.shown.bar_width(23) == (there ? 117 : running::columns - 1);
  });
}

TEST(two_clients, counters_go_to_the_one_that_asked_last) {
  const running_monitor server;
  running first({ZORVA_PROGRAM, "-p", server.port, "-d", "100", "-P"});
  ASSERT_TRUE(first.wait_for([&] { return !first.output.empty(); }));
  if (first.output.find("zorva_top_init failed") != std::string::npos) {
    GTEST_SKIP() << "no counters on this machine";
  }
  EXPECT_TRUE(wait_for_counters(first, true));
  running second({ZORVA_PROGRAM, "-p", server.port, "-d", "100"});
  EXPECT_TRUE(wait_for_counters(second, false));
  second.type("p");
  EXPECT_TRUE(wait_for_counters(second, true));
  EXPECT_TRUE(wait_for_counters(first, false));
  first.type("p");
  EXPECT_TRUE(wait_for_counters(first, true));
  EXPECT_TRUE(wait_for_counters(second, false));
}

}  // namespace
