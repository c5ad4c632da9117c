// SPDX-License-Identifier: Apache-2.0
#include "program_fixture.h"

#include <unistd.h>

#include <new>

#include "log_file.h"

timeval clock_now{1704164645, 5000};  // 2024-01-02 03:04:05.005000 UTC
int64_t clock_step_s = 0;

// Wins over the C library's own.
int gettimeofday(timeval* tv, void* /*tz*/) noexcept {
  *tv = clock_now;
  if (clock_step_s != 0) {
    clock_now.tv_sec += clock_step_s;
  }
  return 0;
}

void with_redirected(int fd, int target, const std::function<void()>& act) {
  const int kept = dup(fd);
  dup2(target, fd);
  act();
  dup2(kept, fd);
  close(kept);
}

void program::start_afresh() {
  manager.~zorva_manage();
  new (&manager) zorva_manage;
  manager.tui_mode = false;
  manager.batch_mode = true;
  static const int log = zorva_log_to_file(fake_mon_client::record_path.c_str());
  EXPECT_EQ(log, 0);
  fake_mon_client::reset();
  clock_step_s = 0;
}

void program::connect() {
  top = &monitor;
  EXPECT_EQ(monitor.zorva_top_init("127.0.0.1", 1234), 0);
  fake_mon_client::reset();
}

// The fault signals are the program's own to handle.
extern "C" const char* __asan_default_options() {
  return "handle_segv=0:handle_abort=0:handle_sigbus=0:handle_sigill=0:handle_sigfpe=0";
}
extern "C" const char* __tsan_default_options() {
  return __asan_default_options();
}

// The program's uncaught exceptions are not the test framework's to catch.
int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  GTEST_FLAG_SET(catch_exceptions, false);
  return RUN_ALL_TESTS();
}
